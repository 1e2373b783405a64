#!/usr/bin/env bash
# Usage: stream_test.sh PXF
# Conversions between formats whose rows run in opposite directions (RLA
# bottom up; PNG and TIFF top down) hold a bounded window of rows: each runs
# under an address-space limit smaller than the image, and every path keeps
# the pixels where they belong.
set -euo pipefail
pxf=$1
case_name=stream
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"

# limited KIB command...: runs the command with its address space capped.
limited() {
  local kib=$1; shift
  set +e; (ulimit -v "$kib"; exec "$@") >out.txt 2>err.txt; local got=$?; set -e
  [ "$got" -eq 0 ] || { cat out.txt err.txt >&2; fail "'$*' failed under a limit of $kib KiB (status $got)"; }
}
same() { cmp -s "$1" "$2" || fail "$1 and $2 differ"; }

# What the program needs for a small conversion, plus room for a few dozen
# rows; the big image's pixels alone take more than the extra allowance.
"$pxf" make-sample small.rla --size 64x64
fits() { (ulimit -v "$1"; exec "$pxf" convert small.rla small.png -q) >/dev/null 2>&1; }
low=16384 high=4194304
fits $high || fail "a small conversion does not run in 4 GiB"
while [ $((high - low)) -gt 4096 ]; do
  mid=$(((low + high) / 2))
  if fits $mid; then high=$mid; else low=$mid; fi
done
base=$high
limit=$((base + 48 * 1024))
size=3000x3000   # 8-bit RGBA + float depth: 9 MB a channel, 72 MB held in rows

limited $limit "$pxf" make-sample big.rla --size $size
# The sample makes any row on demand, RLA is read in any order: both stream.
limited $limit "$pxf" convert big.rla big.png
limited $limit "$pxf" convert big.rla big.tif --compression deflate
# TIFF is read strip by strip in any order: TIFF to RLA streams too.
limited $limit "$pxf" convert big.tif from_tif.rla
# PNG reads only top down: its rows wait in a temporary file, and it says so.
TMPDIR=$work limited $limit "$pxf" convert big.png from_png.rla
grep -q 'temporary file' err.txt || fail "no note about the temporary file: $(cat err.txt)"
[ -z "$(ls -A "$work" | grep '^\.~')" ] || fail "a temporary file was left behind"

# Every path lands the rows in their place.  The sample is made top down, so
# written straight to PNG it is the reference.  Pixels are compared as the
# compressed data of PNGs written alike (the texts hold times and hosts).
idat() {
  pngcheck -v "$1" | awk '/chunk IDAT at offset/ { sub(",", "", $5); print $5, $7 }' |
    while read -r at len; do tail -c +$((at + 9)) "$1" | head -c "$len"; done | cksum
}
same_pixels() {
  local png=$2
  case $2 in *.png) ;; *) png=$2.png; "$pxf" convert "$2" "$png" -q ;; esac
  [ "$(idat "$1")" = "$(idat "$png")" ] || fail "$2 does not hold the pixels of $1"
}
"$pxf" make-sample ref.png --size 301x203 -q
"$pxf" make-sample ref.tif --size 301x203 -q
"$pxf" make-sample ref.rla --size 301x203 -q
"$pxf" convert ref.tif tif.png -q   # TIFF keeps one sample width: 16-bit colour here
same_pixels ref.png ref.rla
"$pxf" convert ref.rla a.tif -q
same_pixels tif.png a.tif
"$pxf" convert ref.tif b.rla -q
same_pixels tif.png b.rla
"$pxf" convert ref.png c.rla -q
same_pixels ref.png c.rla
# TIFF strips of several rows, read bottom row first.
tiffcp -r 7 -c lzw ref.tif strips.tif
"$pxf" convert strips.tif d.rla -q
same_pixels tif.png d.rla
# Through operators and a channel choice (the matte kept: colour without
# its matte is premultiplied from RLA and straight from PNG).
"$pxf" convert ref.rla e.png --ch B,G,R,A -q
"$pxf" convert ref.png f.png --ch B,G,R,A -q
same_pixels e.png f.png
# The gamma operator works on stored colour, premultiplied in RLA: the
# reference goes RLA to RLA, rows in the file's own order.
"$pxf" convert ref.rla g.png --gamma 1 -q
"$pxf" convert ref.rla h.rla --gamma 1 -q
same_pixels g.png h.rla

# The temporary file of rows that cannot be written fails with a clear error.
set +e; TMPDIR=$work/none "$pxf" convert ref.png k.rla >out.txt 2>err.txt; got=$?; set -e
[ "$got" -eq 1 ] || fail "an impossible temporary file should fail with status 1, got $got"
grep -q 'temporary file' err.txt || fail "the error does not name the temporary file: $(cat err.txt)"
[ ! -e k.rla ] || fail "a failed conversion left its output"
echo "stream: ok"
