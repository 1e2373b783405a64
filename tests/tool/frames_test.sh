#!/usr/bin/env bash
# Usage: frames_test.sh CASE PXF
# The pxf command on a real 200-frame sequence and its container, and on
# palette files, in a scratch directory.
set -euo pipefail
case_name=$1
pxf=$2
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
# same_pixels A B: two uncompressed TIFF files hold the same image (tags aside).
same_pixels() { tiffcmp -t "$1" "$2" >/dev/null || fail "$1 and $2 differ"; }
no_leftovers() { [ -z "$(ls -A | grep '^\.~' || true)" ] || fail "temporary files left: $(ls -A | grep '^\.~')"; }

# shot.0001.rla ... shot.0200.rla: odd frames one picture, even frames another.
make_shot() {
  "$pxf" make-sample odd.rla --size 24x16 2>/dev/null
  "$pxf" make-sample big.rla --size 48x32 2>/dev/null
  "$pxf" convert big.rla even.rla --resize 24x16 2>/dev/null
  # One tee for each half: a process per file would make this the slow part.
  tee $(printf 'shot.%04d.rla ' $(seq 1 2 199)) <odd.rla >/dev/null
  tee $(printf 'shot.%04d.rla ' $(seq 2 2 200)) <even.rla >/dev/null
  "$pxf" convert odd.rla odd.tif --compression none 2>/dev/null
  "$pxf" convert even.rla even.tif --compression none 2>/dev/null
}

case $case_name in
pack)
  make_shot
  expect 0 "$pxf" convert 'shot.####.rla' shot.mpc --frames 1-200
  no_leftovers
  expect 0 "$pxf" info shot.mpc
  has 'format *mpc'
  has '^  frames *200 of 24x16: 1-200$'
  # Unpacked, every frame is the file it came from.
  expect 0 "$pxf" convert shot.mpc 'out.####.tif' --compression none
  [ "$(ls out.*.tif | wc -l)" -eq 200 ] || fail "unpacking wrote $(ls out.*.tif | wc -l) files"
  [ "$(grep -c note err.txt || true)" -le 1 ] || fail "a note repeated for every frame: $(head -3 err.txt)"
  for f in 0001 0099 0200; do
    if [ $((10#$f % 2)) -eq 1 ]; then same_pixels "out.$f.tif" odd.tif; else same_pixels "out.$f.tif" even.tif; fi
  done
  expect 0 "$pxf" convert shot.mpc 'png.####.png' --frames 10-12
  [ -e png.0010.png ] && [ -e png.0012.png ] && [ ! -e png.0013.png ] || fail "--frames 10-12 wrote $(ls png.*)"
  pngcheck -q png.0011.png >/dev/null || fail "pngcheck rejects an unpacked frame"
  ;;
frame_and_crop)
  make_shot
  expect 0 "$pxf" convert 'shot.####.rla' shot.mpc --frames 1-200
  expect 0 "$pxf" convert shot.mpc f17.tif --frame 17 --compression none
  same_pixels f17.tif odd.tif
  expect 0 "$pxf" convert shot.mpc f18.tif --frame 18 --compression none
  same_pixels f18.tif even.tif
  expect 1 "$pxf" convert shot.mpc f.tif --frame 201
  has 'no such frame' err.txt
  # A rectangle of a frame is that rectangle of its file, whatever the driver.
  expect 0 "$pxf" convert shot.mpc c17.tif --frame 18 --crop 2,3,10,5 --compression none
  expect 0 "$pxf" convert even.rla c.tif --crop 2,3,10,5 --compression none
  same_pixels c17.tif c.tif
  expect 0 "$pxf" info c17.tif
  has 'size *10 x 5'
  expect 0 "$pxf" convert even.rla c.png --crop 20,10,100,100
  expect 0 "$pxf" info c.png
  has 'size *4 x 6' # clipped to the window
  expect 1 "$pxf" convert even.rla c.png --crop 30,30,4,4
  has 'outside the image' err.txt
  ;;
gap)
  make_shot
  rm shot.0100.rla
  expect 0 "$pxf" convert 'shot.####.rla' shot.mpc --frames 1-50
  cp shot.mpc before.mpc
  # Asked for by number, the missing frame fails the pack and OUT is left as it was.
  expect 1 "$pxf" convert 'shot.####.rla' shot.mpc --frames 1-200
  has 'shot.0100.rla' err.txt
  cmp -s shot.mpc before.mpc || fail "a failed pack changed the container"
  no_leftovers
  # Found in the directory, the gap is reported and the rest packed.
  expect 0 "$pxf" convert 'shot.####.rla' all.mpc
  has 'frames missing from the sequence: 100' err.txt
  expect 0 "$pxf" info all.mpc
  has '^  frames *199 of 24x16: 1-99, 101-200$'
  # A frame of another size stops the pack.
  "$pxf" make-sample shot.0100.rla --size 8x8 2>/dev/null
  expect 1 "$pxf" convert 'shot.####.rla' shot.mpc --frames 99-101
  has 'differs in size or layout' err.txt
  cmp -s shot.mpc before.mpc || fail "a failed pack changed the container"
  ;;
palette)
  printf 'GIMP Palette\nName: Three\nColumns: 3\n# comment\n  0   0   0\tBlack\n255 128   0\tOrange\n 12  34  56\n' >three.gpl
  expect 0 "$pxf" palette three.gpl --list
  has 'GIMP palette, 3 entries (highest index used 2)'
  has 'colour index: 1 channel, integer, 2 bits'
  has '^ *1  255 128   0$'
  # gpl -> jasc -> binary -> gpl gives the colours back.
  expect 0 "$pxf" palette three.gpl three.pal
  printf 'JASC-PAL\r\n0100\r\n3\r\n0 0 0\r\n255 128 0\r\n12 34 56\r\n' >want.pal
  cmp -s three.pal want.pal || fail "the JASC form differs: $(od -c three.pal | head)"
  expect 0 "$pxf" palette three.pal three.lut
  head -c 36 three.lut | grep -q '^Quorvalen Palette File, Version 1.0$' || fail "binary header line"
  [ "$(stat -c %s three.lut)" -eq $((56 + 3 * 8)) ] || fail "binary size $(stat -c %s three.lut)"
  expect 0 "$pxf" palette three.lut back.txt --to gpl
  expect 0 "$pxf" palette back.txt --list
  has '^ *2   12  34  56$'
  # Damaged files: one clear line, status 1, nothing written.
  head -c 50 three.lut >cut.lut
  expect 1 "$pxf" palette cut.lut x.gpl
  has 'cut.lut: the palette is damaged or truncated' err.txt
  [ ! -e x.gpl ] || fail "a failed conversion wrote its output"
  printf 'JASC-PAL\n0100\n2\n1 2 3\n' >short.pal
  expect 1 "$pxf" palette short.pal
  has 'short.pal: the palette is damaged or truncated' err.txt
  expect 2 "$pxf" palette three.gpl x.lut --to png
  ;;
*) fail "unknown case $case_name" ;;
esac
