#!/usr/bin/env bash
# Writes the seed files of png_plugin_fuzz and tiff_plugin_fuzz: small images
# from pxf, from netpbm's libpng writer and from libtiff's own tools.
# Usage: fuzz/make_plugin_seeds.sh PXF_PROGRAM
set -euo pipefail
pxf=$1
here=$(cd "$(dirname "$0")" && pwd)
png=$here/corpus/png_plugin_fuzz
tif=$here/corpus/tiff_plugin_fuzz
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$png" "$tif"
"$pxf" make-sample "$work/s.rla" --size 8x6 >/dev/null 2>&1
"$pxf" make-sample "$png/sample_rgba.png" --size 8x6 >/dev/null 2>&1
"$pxf" convert "$work/s.rla" "$png/sample16.png" --quantize 16 >/dev/null 2>&1
for c in none lzw deflate packbits; do
  "$pxf" make-sample "$tif/sample_$c.tif" --size 8x6 --compression "$c" >/dev/null 2>&1
done
"$pxf" convert "$work/s.rla" "$tif/sample_float.tif" --float >/dev/null 2>&1
# netpbm through libpng: grey, palette, interlaced, with a text chunk
printf 'P5\n5 3\n255\n' >"$work/g.pgm"; head -c 15 /dev/urandom >>"$work/g.pgm"
printf 'P6\n4 2\n255\n' >"$work/c.ppm"; head -c 24 /dev/urandom >>"$work/c.ppm"
printf 'Title hello\n' >"$work/text"
pnmtopng "$work/g.pgm" >"$png/grey.png"
printf 'P5\n3 2\n65535\n' >"$work/g16.pgm"; head -c 12 /dev/urandom >>"$work/g16.pgm"
pnmtopng "$work/g16.pgm" >"$png/grey16.png"
pnmtopng -interlace -text "$work/text" "$work/c.ppm" >"$png/interlaced_text.png"
printf 'P3\n3 2\n255\n255 0 0 0 255 0 255 0 0 0 0 255 0 255 0 255 0 0\n' >"$work/p.ppm"
pnmtopng "$work/p.ppm" >"$png/palette.png"
pnmtopng -transparent red "$work/p.ppm" >"$png/palette_trns.png"
# libtiff's tools: raw bytes to TIFF, then recompressed and split in planes
head -c 48 /dev/urandom >"$work/raw"
raw2tiff -w 4 -l 4 -b 3 -d byte -p rgb "$work/raw" "$tif/raw_rgb.tif"
raw2tiff -w 6 -l 4 -b 1 -d short -p minisblack "$work/raw" "$tif/raw_grey16.tif"
tiffcp -c lzw -p separate "$tif/raw_rgb.tif" "$tif/planes_lzw.tif"
tiffcp -c zip -r 1 "$tif/raw_rgb.tif" "$tif/strips_zip.tif"
ls -l "$png" "$tif"
