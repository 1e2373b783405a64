#!/usr/bin/env bash
# Builds the library and runs the whole test suite twice: a normal build and
# an AddressSanitizer + UndefinedBehaviorSanitizer build.  Any failure fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh build-essential cmake ninja-build libgtest-dev libbenchmark-dev libc-bin binutils \
  libpng-dev libtiff-dev pngcheck libtiff-tools pkg-config \
  libopenexr-dev openexr libjpeg62-turbo-dev libjpeg-turbo-progs

jobs=$(nproc)
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPXF_BUILD_TESTS=ON "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" -j "$jobs" --output-on-failure --timeout 600
}

echo "== normal build =="
run_suite build
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite build-asan -DPXF_SANITIZE=ON
echo "== ThreadSanitizer build (concurrency tests) =="
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPXF_BUILD_TESTS=ON -DPXF_TSAN=ON >/dev/null
cmake --build build-tsan -j "$jobs" --target test_core_threads test_formats_frames pxf pxf_plugin_png pxf_plugin_tiff
TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan -R '^(Threads\.|Playback\.Threads)' --output-on-failure --timeout 600
echo "All test builds passed."
