#!/usr/bin/env bash
# Usage: tool_test.sh CASE PXF
# Runs one group of checks of the pxf command on real files in a scratch
# directory; the files it writes are checked with pngcheck and tiffinfo.
set -euo pipefail
case_name=$1
pxf=$2
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"
one_line_error() {
  [ "$(wc -l <err.txt)" -eq 1 ] || { cat err.txt >&2; fail "expected exactly one line on stderr"; }
  grep -q '^pxf: ' err.txt || fail "the error line lacks the 'pxf: ' prefix: $(cat err.txt)"
  if [ $# -gt 0 ]; then grep -q -- "$1" err.txt || fail "the error does not mention '$1': $(cat err.txt)"; fi
}
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
    # 8-bit colour and a float depth: the depth is left out, with a note,
    # rather than every sample made float.
    has 'Samples/Pixel: 4' tiff.txt
    has 'Bits/Sample: 8' tiff.txt
    has 'Extra Samples: 1<assoc-alpha>' tiff.txt
    has 'float auxiliary channel left out to keep the colour 8-bit' err.txt
  done
  grep -q 'Compression Scheme: LZW' <(tiffinfo s_lzw.tif) || fail "LZW not recorded"
  grep -q 'Compression Scheme: PackBits' <(tiffinfo s_packbits.tif) || fail "PackBits not recorded"
  expect 0 "$pxf" info s_deflate.tif s_none.tif
  has 'auxiliary *none'
  has 'compression *Deflate'
  expect 1 "$pxf" make-sample s_bad.tif --compression jpeg2000 -q
  one_line_error jpeg2000
  [ ! -e s_bad.tif ] || fail "a failed write leaves its file behind"
  # Predictors: ours reach the file; other programs' predicted strips read
  # back to the same samples.  Integer samples take the horizontal predictor
  # by default, float samples the floating-point one.
  grep -q 'Predictor: horizontal differencing 2' <(tiffinfo s_lzw.tif) || fail "no horizontal predictor by default"
  expect 0 "$pxf" convert s_none.tif s_float.tif --float
  grep -q 'Predictor: floating point predictor 3' <(tiffinfo s_float.tif) || fail "no float predictor by default"
  expect 0 "$pxf" make-sample s_h.tif --size 96x64 --compression deflate --predictor horizontal --level 9
  grep -q 'Predictor: horizontal differencing 2' <(tiffinfo s_h.tif) || fail "--predictor horizontal not recorded"
  expect 0 "$pxf" convert s_none.tif s_fnone.tif --float --compression none
  for c in s_none:lzw:2 s_none:zip:2 s_fnone:zip:3; do
    src=${c%%:*} c=${c#*:}
    tiffcp -c "$c" $src.tif "p_${c/:/_}.tif"
    expect 0 "$pxf" convert "p_${c/:/_}.tif" back.tif --compression none
    cmp -s back.tif $src.tif || fail "a file predicted by tiffcp -c $c reads back otherwise"
  done
  expect 2 "$pxf" make-sample s_bad.tif --predictor diagonal
  one_line_error diagonal
  expect 1 "$pxf" make-sample s_bad.tif --compression packbits --predictor horizontal -q
  one_line_error 'LZW or Deflate'
  expect 0 "$pxf" make-sample s.png --png-filter paeth --level 9 --compression deflate
  pngcheck -q s.png >/dev/null || fail "pngcheck rejects a paeth-filtered file"
  expect 2 "$pxf" make-sample s.png --level 10
  one_line_error 'from 0 to 9'
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
conventions)
  # --opt=value, bundled short flags, -j with its value attached, "--".
  expect 0 "$pxf" make-sample --size=16x8 --key=tiff s.out
  expect 0 "$pxf" info s.out
  has 'size *16 x 8'
  expect 0 "$pxf" convert s.out s.png -qj2
  [ ! -s err.txt ] || fail "-q left notes or progress on stderr: $(cat err.txt)"
  expect 0 "$pxf" convert s.out s2.png -v
  has 'wrote s2.png' err.txt
  has 'plug-ins from' err.txt
  expect 2 "$pxf" convert s.out s3.png -x
  one_line_error 'option -x'
  expect 2 "$pxf" convert s.out s3.png --quiet=yes
  one_line_error 'takes no value'
  expect 0 "$pxf" convert -- s.png -odd.png
  [ -f ./-odd.png ] || fail "-- did not end the options"
  expect 0 "$pxf" --version
  grep -qE '^pxf [0-9]+\.[0-9]+\.[0-9]+ \(libPXFbase [0-9.]+, plug-in protocol 3\.2\)$' out.txt || fail "--version: $(cat out.txt)"
  # Manual page and completion, made from the help texts.
  expect 0 "$pxf" --man
  has '^\.TH PXF 1'
  has '^\.B \\-\\-frames LIST'
  if command -v man >/dev/null; then man -l out.txt >/dev/null 2>&1 || fail "man cannot format the page"; fi
  expect 0 "$pxf" --completion bash
  bash -n out.txt || fail "the completion script does not parse"
  has 'convert) local opts=".*--frames'
  ( PATH=$(dirname "$pxf"):$PATH; source out.txt; COMP_WORDS=(pxf convert --stri); COMP_CWORD=2; _pxf
    [ "${COMPREPLY[*]}" = --strip ] ) || fail "completing --stri does not give --strip"
  expect 2 "$pxf" --completion zsh
  # Extension spellings.
  expect 0 "$pxf" convert s.png s.TIFF
  tiff_ok s.TIFF
  # - for standard input and output.
  "$pxf" convert s.png - --key tiff >stdout.tif 2>err.txt || fail "convert to - failed: $(cat err.txt)"
  tiff_ok stdout.tif
  "$pxf" convert - back.png <stdout.tif || fail "convert from - failed"
  "$pxf" info - <back.png >out.txt || fail "info - failed"
  has 'format *png'
  "$pxf" convert s.png - >default.out 2>/dev/null || fail "convert to - without --key failed"
  expect 0 "$pxf" info default.out
  has 'format *rla'
  expect 1 "$pxf" info - </dev/null
  one_line_error 'standard input is empty'
  # pipe and mem are not outputs of a file; pipe goes to standard output on request.
  expect 2 "$pxf" convert s.png x.pipe
  one_line_error 'give - as OUT'
  [ ! -e x.pipe ] || fail "a refused pipe output left a file"
  expect 2 "$pxf" convert s.png x --key mem
  one_line_error mem
  "$pxf" convert s.png - --key pipe >packets.bin || fail "pipe to - failed"
  [ -s packets.bin ] || fail "no packets on standard output"
  # A file nobody recognises names the formats that were tried.
  printf 'nothing to see' >junk.dat
  expect 1 "$pxf" info junk.dat
  one_line_error 'png, tiff'
  ;;
texts)
  # The user and host names go into a file only with --stamp; --attrib sets
  # a text, --strip leaves the input's out.
  expect 0 "$pxf" make-sample t.tif --size 8x4 --attrib description=hello
  expect 0 "$pxf" info --json t.tif
  has '"description": "hello"'
  ! grep -qE '"(user|machine)"' out.txt || fail "user or host written unasked: $(cat out.txt)"
  expect 0 "$pxf" convert t.tif stamped.tif --stamp --attrib=description=shot-12
  expect 0 "$pxf" info --json stamped.tif
  has "\"user\": \"$(id -un)\""
  has '"machine": '
  has '"description": "shot-12"'
  expect 0 "$pxf" convert stamped.tif bare.tif --strip
  expect 0 "$pxf" info --json bare.tif
  ! grep -qE '"(user|machine|description|text_a)"' out.txt || fail "--strip kept texts: $(cat out.txt)"
  expect 2 "$pxf" convert t.tif x.tif --attrib colour=red
  one_line_error 'NAME=VALUE'
  # --ch selects and reorders: B,G,R swaps red and blue, R,G,B drops matte and depth.
  expect 0 "$pxf" make-sample c.rla --size 40x8
  expect 0 "$pxf" convert c.rla c.tif --float --compression none   # float colour: depth goes along
  expect 0 "$pxf" convert c.tif bgr.tif --ch B,G,R,A,Z --compression none
  expect 0 "$pxf" convert bgr.tif back.tif --ch=b,g,r,a,z --compression none
  cmp -s c.tif back.tif || fail "--ch B,G,R twice is not the identity"
  cmp -s c.tif bgr.tif && fail "--ch B,G,R changed nothing"
  expect 0 "$pxf" convert c.tif rgb.tif --ch R,G,B
  tiff_ok rgb.tif
  has 'Samples/Pixel: 3' tiff.txt
  expect 2 "$pxf" convert c.tif x.tif --ch R,Q
  one_line_error 'R,G,B,A,Z'
  ;;
sequences)
  for f in 1 3 5 7; do expect 0 "$pxf" make-sample "shot_$f.tif" --size 8x4; done
  for f in 1 3 5; do expect 0 "$pxf" make-sample "seq.000$f.rla" --size 8x4; done
  # Frames found on disk; %04d and @ patterns; one note per sequence.
  expect 0 "$pxf" convert 'seq.%04d.rla' 'png.@@@@.png'
  for f in 1 3 5; do pngcheck -q "png.000$f.png" >/dev/null || fail "png.000$f.png"; done
  [ "$(grep -c 'auxiliary' err.txt)" -eq 1 ] || { cat err.txt >&2; fail "the note was not said once per sequence"; }
  has 'png.@@@@.png: ' err.txt
  # A step, a list, and names without a dot before the frame.
  expect 0 "$pxf" convert 'shot_#.tif' 'every2nd.####.rla' --frames 1-7x2
  ls every2nd.*.rla | tr '\n' ' ' | grep -qx 'every2nd.0001.rla every2nd.0003.rla every2nd.0005.rla every2nd.0007.rla ' ||
    fail "1-7x2 wrote $(ls every2nd.*)"
  expect 0 "$pxf" convert 'shot_#.tif' 'list_##.rla' --frames=7,3
  [ -e list_07.rla ] && [ -e list_03.rla ] && [ ! -e list_05.rla ] || fail "--frames 7,3 wrote $(ls list_*)"
  expect 2 "$pxf" convert 'shot_#.tif' 'y.#.rla' --frames 5-1
  one_line_error backwards
  expect 2 "$pxf" convert 'shot_#.tif' 'y.#.rla' --frames 1-5x0
  one_line_error step
  # info over a pattern; frames of other names in the directory stay out.
  touch seq.0002x.rla seq.02.rla
  expect 0 "$pxf" info 'seq.####.rla'
  has '^seq.####.rla: 3 frames, 1-5x2$'
  [ "$(grep -c 'format *rla' out.txt)" -eq 3 ] || fail "info over a pattern: $(cat out.txt)"
  expect 1 "$pxf" info 'none.####.tif'
  one_line_error 'no files'
  ;;
resample)
  expect 0 "$pxf" make-sample s.rla --size 64x48
  expect 0 "$pxf" convert s.rla half.png --resize 50% --filter lanczos3
  pngcheck -v half.png >check.txt
  has '32 x 24 image' check.txt
  expect 0 "$pxf" convert s.rla odd.tif --resize 101x7
  tiff_ok odd.tif
  has 'Image Width: 101 Image Length: 7' tiff.txt
  # A PNG reads only top row first: every size and direction takes each of
  # its rows once, in order.
  expect 0 "$pxf" make-sample tall.png --size 80x101
  for size in 40x50 33x17 7x101 160x202; do
    expect 0 "$pxf" convert tall.png r.png --resize $size
    expect 0 "$pxf" convert tall.png r.rla --resize $size
  done
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
fidelity)
  # A TIFF of premultiplied colour through RLA and back: same label, same numbers.
  expect 0 "$pxf" make-sample s.rla --size 48x32
  expect 0 "$pxf" convert s.rla a.tif --compression none
  tiff_ok a.tif
  has 'Extra Samples: 1<assoc-alpha>' tiff.txt
  expect 0 "$pxf" convert a.tif r.rla
  expect 0 "$pxf" convert r.rla b.tif --compression none
  tiff_ok b.tif
  has 'Extra Samples: 1<assoc-alpha>' tiff.txt
  tiffcmp a.tif b.tif >/dev/null || fail "the numbers changed on the way through RLA"
  # Unassociated colour goes into RLA premultiplied.
  cp a.tif u.tif
  tiffset -s 338 1 2 u.tif
  expect 0 "$pxf" convert u.tif u.rla
  expect 0 "$pxf" convert u.rla u2.tif --compression none
  tiff_ok u2.tif
  has 'Extra Samples: 1<assoc-alpha>' tiff.txt
  tiffset -s 338 1 2 u2.tif   # tiffcmp compares pixels only under equal tags
  ! tiffcmp u.tif u2.tif >/dev/null || fail "unassociated colour was not premultiplied for RLA"
  # 8-bit colour beside float depth stays 8-bit in TIFF (the depth is left
  # out, with a note), also after --quantize 8 of float colour.
  expect 0 "$pxf" convert s.rla f.rla --float
  expect 0 "$pxf" convert f.rla q.tif --quantize 8 --compression none
  tiff_ok q.tif
  has 'Bits/Sample: 8' tiff.txt
  has 'Samples/Pixel: 4' tiff.txt
  has 'auxiliary channel left out' err.txt
  # A PNG that says nothing of gamma and primaries gains neither.
  echo 'iVBORw0KGgoAAAANSUhEUgAAAAQAAAACAQMAAABFZu8gAAAAA1BMVEXAgEB7inJBAAAADElEQVQI12NgYGAAAAAEAAEnNCcKAAAAAElFTkSuQmCC' |
    base64 -d >bare.png
  expect 0 "$pxf" info --json bare.png
  has '"gamma_assumed": true, "primaries_assumed": true'
  expect 0 "$pxf" convert bare.png again.png
  pngcheck -v again.png >check.txt || fail "pngcheck rejects again.png"
  ! grep -qE 'gAMA|cHRM' check.txt || fail "defaults stamped on a bare PNG: $(cat check.txt)"
  expect 0 "$pxf" convert bare.png bare.rla   # nor on its way through RLA
  expect 0 "$pxf" convert bare.rla again.png
  pngcheck -v again.png >check.txt || fail "pngcheck rejects again.png"
  ! grep -qE 'gAMA|cHRM' check.txt || fail "defaults stamped on a bare PNG through RLA: $(cat check.txt)"
  expect 0 "$pxf" convert bare.png g.png --gamma 1.0
  pngcheck -v g.png >check.txt
  has 'gAMA.*1.0000' check.txt
  # Options that change nothing say so.
  expect 0 "$pxf" convert s.rla n.png --quantize 16 --compression lzw
  has '\-\-quantize 16 changes nothing' err.txt
  has '\-\-compression lzw changes nothing' err.txt
  expect 0 "$pxf" -q convert s.rla n.png --quantize 16
  [ ! -s err.txt ] || fail "-q printed: $(cat err.txt)"
  # Header texts in Latin-1 still make valid JSON; dates read in ISO 8601.
  tiffset -s 270 "$(printf 'caf\351')" a.tif
  expect 0 "$pxf" info --json a.tif
  iconv -f UTF-8 -t UTF-8 out.txt >/dev/null || fail "info --json wrote invalid UTF-8"
  has "$(printf 'caf\303\251')"
  has '"date_iso8601": "[0-9]\{4\}-[0-9][0-9]-[0-9][0-9]T[0-9:]\{8\}Z\?"'
  pngcheck -t again.png >check.txt
  grep -A1 'Creation Time' check.txt | grep -qE '[A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} GMT' ||
    fail "Creation Time is no RFC 1123 date: $(cat check.txt)"
  ;;
*)
  fail "unknown case"
  ;;
esac
echo "ok: $case_name"
