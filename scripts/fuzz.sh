#!/usr/bin/env bash
# Usage: scripts/fuzz.sh TARGET SECONDS [extra libFuzzer flags]
# Builds the libFuzzer targets with clang 16 and runs TARGET (for example
# rla_reader_fuzz) for SECONDS, seeded from fuzz/corpus/TARGET.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh clang-16 libclang-rt-16-dev cmake ninja-build
target=$1; seconds=$2; shift 2
CC=clang-16 CXX=clang++-16 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DPXF_BUILD_FUZZ=ON -DPXF_BUILD_TESTS=OFF >/dev/null
cmake --build build-fuzz --target "$target"
corpus=fuzz-out/$target
mkdir -p "$corpus"
seeds=fuzz/corpus/$target
[ -d "$seeds" ] || seeds=
./build-fuzz/fuzz/"$target" -max_total_time="$seconds" -print_final_stats=1 "$@" "$corpus" $seeds
