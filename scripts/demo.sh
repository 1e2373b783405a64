#!/usr/bin/env bash
# Builds the library, the pxf command and the plug-ins (no tests), then runs
# the main job on the built-in sample image: write it, describe it, convert
# it to PNG.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh build-essential cmake ninja-build libpng-dev libtiff-dev libopenexr-dev libjpeg62-turbo-dev
log=build/demo-build.log
mkdir -p build
echo "Building libPXFbase, pxf and the plug-ins (log: $log)"
if ! { cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPXF_BUILD_TESTS=OFF &&
       cmake --build build -j "$(nproc)" --target PXFbase pxf pxf_plugin_png pxf_plugin_tiff pxf_plugin_exr pxf_plugin_jpeg; } >"$log" 2>&1; then
  tail -n 30 "$log" >&2
  echo "The build failed; the whole log is in $log" >&2
  exit 1
fi

pxf=build/bin/pxf
out=build/demo
mkdir -p "$out"
echo
echo "== pxf formats"
"$pxf" formats
echo
echo "== pxf make-sample $out/sample.rla"
"$pxf" make-sample "$out/sample.rla"
echo
echo "== pxf info $out/sample.rla"
"$pxf" info "$out/sample.rla"
echo
echo "== pxf convert $out/sample.rla $out/sample.png"
"$pxf" convert "$out/sample.rla" "$out/sample.png"
echo
echo "The picture is at $root/$out/sample.png"
