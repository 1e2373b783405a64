#!/usr/bin/env bash
# Usage: install_test.sh BUILD_DIR SOURCE_DIR
# Installs the build into a scratch prefix, then builds a small application
# against it twice (find_package and pkg-config) and runs the installed pxf.
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libPXFbase.so' | head -1)")
[ -n "$libdir" ] || fail "libPXFbase.so not installed"
[ -f "$prefix/include/pxf/pxf.h" ] && [ -f "$prefix/include/pxf/plugin.h" ] || fail "headers not installed"
ls "$libdir"/pxf/plugins/png.so "$libdir"/pxf/plugins/tiff.so >/dev/null || fail "plug-ins not installed"

# The README's C++ example is built with the package too.
awk '/^```cpp$/{on=1; next} /^```$/{on=0} on' "$source/README.md" >"$work/readme_example.cpp"
[ -s "$work/readme_example.cpp" ] || fail "the README has no C++ example"

# 1. CMake package.  The flags of the enclosing build (sanitizers) do not
#    leak into this one; the sanitizer runtime is preloaded when needed.
cmake -S "$source/tests/install/outside" -B "$work/by-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_RPATH="$libdir" -DCMAKE_C_FLAGS="${OUTSIDE_CFLAGS:-}" -DCMAKE_CXX_FLAGS="${OUTSIDE_CFLAGS:-}" \
  -DCMAKE_EXE_LINKER_FLAGS="${OUTSIDE_CFLAGS:-}" -DREADME_EXAMPLE="$work/readme_example.cpp" \
  >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "find_package(PXFbase) failed"; }
cmake --build "$work/by-cmake" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "build with find_package failed"; }
"$work/by-cmake/outside" | grep -q "every pixel" || fail "the find_package build does not run"

(cd "$work" && "$work/by-cmake/readme_example") | grep -q "last pixel 0.988" || fail "the README's C++ example does not run"

# 2. pkg-config.
export PKG_CONFIG_PATH=$libdir/pkgconfig
flags=$(pkg-config --cflags --libs pxfbase) || fail "pkg-config does not know pxfbase"
cc ${OUTSIDE_CFLAGS:-} -std=c99 -o "$work/by-pkg-config" "$source/tests/install/outside/main.c" $flags \
  -Wl,-rpath,"$libdir" || fail "build with pkg-config failed"
"$work/by-pkg-config" | grep -q "every pixel" || fail "the pkg-config build does not run"
[ "$(realpath "$(pkg-config --variable=plugindir pxfbase)")" = "$(realpath "$libdir/pxf/plugins")" ] || fail "pkg-config plugindir is wrong"

# 3. The installed command finds the installed plug-ins by itself.
"$prefix/bin/pxf" formats | grep -q '^png ' || fail "the installed pxf does not find its plug-ins"
"$prefix/bin/pxf" make-sample "$work/sample.tif" || fail "the installed pxf cannot write"
# 4. The driver the outside project built with pxf_add_plugin loads in the installed pxf.
[ -f "$work/by-cmake/outside_driver.so" ] || fail "pxf_add_plugin built no outside_driver.so"
PXF_PLUGIN_PATH="$work/by-cmake" "$prefix/bin/pxf" formats | grep -q '^outside ' ||
  fail "the driver built with pxf_add_plugin does not load"
printf 'OUTSIDE data' >"$work/probe.bin"
PXF_PLUGIN_PATH="$work/by-cmake" "$prefix/bin/pxf" info "$work/probe.bin" 2>"$work/probe.err" && fail "probe file opened"
grep -q 'outside driver reads nothing' "$work/probe.err" || fail "the outside driver's probe was not asked"
"$prefix/bin/pxf" --version | grep -q "^pxf $("$work/by-cmake/outside" --version)" || fail "pxf --version disagrees with the headers"

echo "ok: installed to $prefix and built against it both ways"
