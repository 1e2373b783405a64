#!/usr/bin/env bash
# Usage: tool_test.sh CASE PXF
# Runs one group of checks of the pxf command on real files in a scratch
# directory; the files it writes are checked with pngcheck and tiffinfo.
set -euo pipefail
case_name=$1
pxf=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() { echo "FAIL ($case_name): $*" >&2; exit 1; }
# expect STATUS command...: stdout in out.txt, stderr in err.txt.
expect() {
  local want=$1; shift
  set +e; "$@" >out.txt 2>err.txt; local got=$?; set -e
  [ "$got" -eq "$want" ] || { cat out.txt err.txt >&2; fail "'$*' exited $got, expected $want"; }
}
one_line_error() {
  [ "$(wc -l <err.txt)" -eq 1 ] || { cat err.txt >&2; fail "expected exactly one line on stderr"; }
  grep -q '^pxf: ' err.txt || fail "the error line lacks the 'pxf: ' prefix: $(cat err.txt)"
  if [ $# -gt 0 ]; then grep -q -- "$1" err.txt || fail "the error does not mention '$1': $(cat err.txt)"; fi
}
has() { grep -q -- "$1" "${2:-out.txt}" || { cat "${2:-out.txt}" >&2; fail "missing '$1'"; }; }
tiff_ok() { tiffinfo -D "$1" >tiff.txt 2>tiff_err.txt || fail "tiffinfo rejects $1"; [ ! -s tiff_err.txt ] || fail "tiffinfo: $(cat tiff_err.txt)"; }

case $case_name in
formats)
  expect 0 "$pxf" formats
  has '^png *\.png *rw'
  has '^tiff *\.tif *rw'
  has '^mem .*built in'
  ;;
make_sample_png)
  expect 0 "$pxf" make-sample sample.png
  has 'auxiliary' err.txt   # the depth channel cannot go into a PNG, and it says so
  pngcheck -q sample.png >/dev/null || fail "pngcheck rejects sample.png"
  pngcheck -v sample.png >check.txt
  has '320 x 240 image, 32-bit RGB+alpha' check.txt
  has 'gAMA.*0.45455' check.txt
  expect 0 "$pxf" info sample.png
  has 'format *png'
  has 'colour *3 x integer 8-bit (rgb)'
  has 'matte *1 x integer 8-bit'
  has 'gamma *2.2$'
  expect 0 "$pxf" info --json sample.png
  has '"format": {"key": "png"'
  has '"matte": {"count": 1, "type": "integer", "width": 8'
  has '"compression": "deflate"'
  ;;
make_sample_tiff)
  for c in none lzw deflate packbits; do
    expect 0 "$pxf" make-sample "s_$c.tif" --compression "$c" --size 96x64
    tiff_ok "s_$c.tif"
    has 'Samples/Pixel: 5' tiff.txt
    has 'Extra Samples: 2<unassoc-alpha, unspecified>' tiff.txt
  done
  grep -q 'Compression Scheme: LZW' <(tiffinfo s_lzw.tif) || fail "LZW not recorded"
  grep -q 'Compression Scheme: PackBits' <(tiffinfo s_packbits.tif) || fail "PackBits not recorded"
  expect 0 "$pxf" info s_deflate.tif s_none.tif
  has 'auxiliary *1 x float 32-bit'
  has 'compression *Deflate'
  expect 1 "$pxf" make-sample s_bad.tif --compression jpeg2000
  one_line_error jpeg2000
  [ ! -e s_bad.tif ] || fail "a failed write leaves its file behind"
  ;;
convert)
  expect 0 "$pxf" make-sample sample.png --size 80x60
  # PNG -> TIFF -> PNG -> TIFF keeps every pixel and text.
  expect 0 "$pxf" convert sample.png a.tif --compression none
  expect 0 "$pxf" convert a.tif b.png
  expect 0 "$pxf" convert b.png c.tif --compression none
  tiff_ok a.tif
  pngcheck -q b.png >/dev/null || fail "pngcheck rejects b.png"
  cmp -s a.tif c.tif || fail "a.tif and c.tif differ after a round trip through PNG"
  expect 0 "$pxf" convert sample.png keyed.out --key tiff
  tiff_ok keyed.out
  # Operators: cast to float, then quantize back to 16 bits; gamma; fields.
  expect 0 "$pxf" convert sample.png f.tif --float
  tiff_ok f.tif
  has 'IEEE floating point' tiff.txt
  expect 0 "$pxf" convert f.tif q.tif --quantize 16
  tiff_ok q.tif
  has 'Bits/Sample: 16' tiff.txt
  expect 0 "$pxf" convert sample.png g.png --gamma 1
  pngcheck -v g.png | grep -q 'gAMA.*: 1\.0000*$' || fail "--gamma 1 should store gamma 1"
  # Two fields, name.0001.rla and its partner name.0002, make one frame.
  expect 0 "$pxf" make-sample field.0001.rla --size 32x8
  expect 0 "$pxf" make-sample field.0002 --key rla --size 32x8
  expect 0 "$pxf" convert field.0001.rla frame.png --field
  expect 0 "$pxf" info frame.png
  has 'size *32 x 16'
  expect 1 "$pxf" convert sample.png nofield.png --field
  one_line_error 'partner'
  ;;
colour)
  expect 0 "$pxf" make-sample sample.png --size 64x32
  expect 0 "$pxf" convert sample.png f.tif --float
  expect 0 "$pxf" convert f.tif q.tif --quantize 16
  # Float and 16-bit images become 8-bit colour for a gamma 2.2 display.
  for src in f.tif q.tif; do
    expect 0 "$pxf" convert "$src" "view_$src.png" --display
    pngcheck -v "view_$src.png" >check.txt || fail "pngcheck rejects view_$src.png"
    has '64 x 32 image, 32-bit RGB+alpha' check.txt
    has 'gAMA.*0.45455' check.txt
  done
  expect 0 "$pxf" convert sample.png grey.png --luminance
  pngcheck -v grey.png >check.txt
  has 'grayscale+alpha' check.txt
  expect 0 "$pxf" convert sample.png wide.png --primaries rec2020
  expect 0 "$pxf" convert sample.png own.png --primaries 0.64,0.33,0.3,0.6,0.15,0.06,0.3127,0.329
  expect 0 "$pxf" convert f.tif n.tif --normalize 0.25,0.75
  expect 0 "$pxf" info --stats n.tif
  has 'colour    0  min 0  max 1'
  expect 0 "$pxf" info --stats sample.png
  has 'matte     0  min 0  max 255'
  expect 0 "$pxf" info --json --stats sample.png
  has '"stats": \[{"group": "colour"'
  expect 1 "$pxf" convert sample.png x.png --image 1
  one_line_error 'no image 1'
  expect 1 "$pxf" convert sample.png x.png --normalize 0,1
  one_line_error 'float'
  expect 2 "$pxf" convert sample.png x.png --primaries nowhere
  expect 2 "$pxf" convert sample.png x.png --normalize 1,0
  ;;
frames)
  for f in 1 2 3; do expect 0 "$pxf" make-sample "seq.000$f.png" --size 48x32; done
  expect 0 "$pxf" convert 'seq.####.png' 'out.####.tif' --frames 1-3 --jobs 2
  for f in 1 2 3; do tiff_ok "out.000$f.tif"; done
  [ ! -s err.txt ] || fail "quiet run wrote to stderr: $(cat err.txt)"
  expect 1 "$pxf" convert 'seq.####.png' 'more.####.png' --frames 2-4 --jobs 3
  has 'seq.0004.png' err.txt
  has '1 of 3 frames failed' err.txt
  [ -e more.0002.png ] && [ -e more.0003.png ] || fail "the good frames of a partly failed run are missing"
  expect 2 "$pxf" convert 'seq.####.png' out.tif
  one_line_error 'frames'
  ;;
damaged)
  expect 0 "$pxf" make-sample good.png
  expect 0 "$pxf" make-sample good.tif --compression lzw
  head -c 60 good.png >cut_header.png
  head -c 1500 good.png >cut_data.png
  head -c 3000 good.tif >cut.tif
  printf 'II*\0this is not really a TIFF file' >junk.tif
  printf 'just text' >junk.png
  for f in cut_header.png junk.png junk.tif; do
    expect 1 "$pxf" info "$f"
    one_line_error "$f"
  done
  for f in cut_data.png cut.tif; do
    expect 1 "$pxf" convert "$f" out.png
    one_line_error "$f"
    [ ! -e out.png ] || fail "a failed convert leaves out.png behind"
  done
  expect 1 "$pxf" info missing.png
  one_line_error 'No such file'
  expect 1 "$pxf" info good.png missing.png
  has 'format *png'
  one_line_error missing.png
  ;;
usage)
  expect 2 "$pxf"
  expect 2 "$pxf" frobnicate
  one_line_error frobnicate
  expect 2 "$pxf" convert only-one.png
  one_line_error
  expect 2 "$pxf" convert a.png b.png --bogus
  one_line_error -- --bogus
  expect 2 "$pxf" convert a.png b.png --gamma fast
  one_line_error -- --gamma
  expect 2 "$pxf" make-sample x.png --size 10by10
  one_line_error -- --size
  expect 2 "$pxf" info
  one_line_error
  for sub in formats info convert make-sample; do
    expect 0 "$pxf" "$sub" --help
    has "^usage: pxf $sub"
  done
  expect 0 "$pxf" --help
  has 'make-sample'
  ;;
plugin_path)
  PXF_PLUGIN_PATH=/nonexistent expect 0 "$pxf" formats
  ! grep -q '^png' out.txt || fail "PXF_PLUGIN_PATH was ignored"
  has '^mem'
  PXF_PLUGIN_PATH=/nonexistent expect 1 "$pxf" make-sample x.png
  one_line_error '.png'
  ;;
resample)
  expect 0 "$pxf" make-sample s.rla --size 64x48
  expect 0 "$pxf" convert s.rla half.png --resize 50% --filter lanczos3
  pngcheck -v half.png >check.txt
  has '32 x 24 image' check.txt
  expect 0 "$pxf" convert s.rla odd.tif --resize 101x7
  tiff_ok odd.tif
  has 'Image Width: 101 Image Length: 7' tiff.txt
  expect 0 "$pxf" swatch s.rla sw.png --size 16
  pngcheck -v sw.png >check.txt
  has '16 x 12 image' check.txt
  expect 0 "$pxf" mipmap s.rla tex.rla --kind bump --filter box
  expect 0 "$pxf" info tex.rla
  has 'colour *3 x float 32-bit (bump)'
  expect 0 "$pxf" mipmap --help
  has 'dh/du'
  expect 2 "$pxf" convert s.rla x.png --resize 0x5
  one_line_error 'from 1 to 1000000'
  expect 2 "$pxf" convert s.rla x.png --resize 10x10 --filter sinc
  one_line_error 'unknown filter "sinc"'
  expect 2 "$pxf" mipmap s.rla x.rla --kind normal
  one_line_error '--kind'
  expect 2 "$pxf" swatch s.rla x.png
  one_line_error 'needs --size'
  expect 2 "$pxf" convert s.rla x.png --resize 1000001x5
  one_line_error 'from 1 to 1000000'
  [ ! -e x.png ] && [ ! -e x.rla ] || fail "a refused command left a file"
  ;;
*)
  fail "unknown case"
  ;;
esac
echo "ok: $case_name"
