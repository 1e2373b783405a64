#!/usr/bin/env bash
# Builds everything, then runs the main job on the built-in sample image:
# write it, describe it, convert it to PNG.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/deps.sh build-essential cmake ninja-build libgtest-dev libpng-dev libtiff-dev libopenexr-dev libjpeg62-turbo-dev
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"

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
