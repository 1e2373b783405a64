#!/usr/bin/env bash
# Usage: exr_jpeg_test.sh PXF
# The pxf command between every pair of formats with exr and jpeg among
# them, on the built-in sample; the results are checked by exrheader,
# djpeg and pngcheck, and linear EXR colour must come out looking as the
# original does.
set -euo pipefail
pxf=$1
case_name=exr_jpeg
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"

"$pxf" formats | grep -q '^exr  *\.exr  *rw' || fail "no exr driver"
"$pxf" formats | grep -q '^jpeg  *\.jpg  *rw' || fail "no jpeg driver"
"$pxf" make-sample sample.rla 2>/dev/null
for from in rla png tif exr jpg; do
  [ -f "sample.$from" ] || "$pxf" convert sample.rla "sample.$from" --quiet 2>/dev/null
  for to in rla png tif exr jpg; do
    "$pxf" convert "sample.$from" "$from-to.$to" --quiet 2>err.txt || { cat err.txt >&2; fail "$from to $to"; }
  done
done
for f in *.exr; do exrheader "$f" >/dev/null || fail "exrheader rejects $f"; done
for f in *.jpg; do djpeg "$f" >/dev/null || fail "djpeg rejects $f"; done
for f in *.png; do pngcheck -q "$f" >/dev/null || fail "pngcheck rejects $f"; done
exrheader sample.exr | grep -q 'Z, 32-bit floating-point' || fail "the depth channel did not reach the EXR file"
# Named auxiliary channels (a second view's right.R ... right.Z) keep their names.
exrmultiview left sample.exr right sample.exr views.exr >/dev/null
"$pxf" convert views.exr views-copy.exr --quiet 2>/dev/null
exrheader views-copy.exr | grep -q 'right.Z, 32-bit' || fail "auxiliary channel names were lost"

# Linear EXR colour written as 8-bit PNG is encoded for display again: the
# pixels match the PNG written straight from the sample.
"$pxf" convert sample.rla direct.png --quiet 2>/dev/null
cmp_png() { python3 - "$1" "$2" <<'PY'
import sys, zlib, struct
def rows(path):
    data = open(path, 'rb').read()
    pos, idat, w, h, depth, ct = 8, b'', 0, 0, 8, 0
    while pos < len(data):
        n, kind = struct.unpack('>I4s', data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + n]
        if kind == b'IHDR': w, h, depth, ct = struct.unpack('>IIBB', body[:10])
        if kind == b'IDAT': idat += body
        pos += 12 + n
    size = depth // 8
    raw, bpp = zlib.decompress(idat), {2: 3, 6: 4}[ct] * size
    out, prev, stride = [], bytearray(w * bpp), w * bpp
    for y in range(h):
        f, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - bpp] if i >= bpp else 0
            b, c = prev[i], prev[i - bpp] if i >= bpp else 0
            p = a + b - c
            pred = [0, a, b, (a + b) // 2, a if abs(p - a) <= abs(p - b) and abs(p - a) <= abs(p - c) else (b if abs(p - b) <= abs(p - c) else c)][f]
            line[i] = (line[i] + pred) & 255
        top = (1 << depth) - 1
        out.append([[int.from_bytes(line[x * bpp + c * size:x * bpp + (c + 1) * size], 'big') * 255.0 / top
                     for c in range(3)] for x in range(w)])
        prev = line
    return out
a, b = rows(sys.argv[1]), rows(sys.argv[2])
worst = max(abs(p - q) for ra, rb in zip(a, b) for pa, pb in zip(ra, rb) for p, q in zip(pa, pb))
sys.exit(0 if worst <= 1.5 else 1)
PY
}
cmp_png exr-to.png direct.png || fail "EXR colour written to PNG differs from the original"

# --quality: a lower quality makes a smaller file; out of range is a usage error.
"$pxf" convert sample.rla low.jpg --quality 10 --quiet 2>/dev/null
"$pxf" convert sample.rla high.jpg --quality 98 --quiet 2>/dev/null
[ "$(stat -c %s low.jpg)" -lt "$(stat -c %s high.jpg)" ] || fail "--quality makes no difference"
set +e; "$pxf" convert sample.rla bad.jpg --quality 101 2>err.txt; status=$?; set -e
[ "$status" -eq 2 ] || fail "--quality 101 exited $status, expected 2"
# EXR compression by name, and a bad one is one line naming the file.
"$pxf" convert sample.rla piz.exr --compression piz --quiet 2>/dev/null
exrheader piz.exr | grep -q 'compression (type compression): piz' || fail "--compression piz not written"
set +e; "$pxf" convert sample.rla bad.exr --compression lzma 2>err.txt; status=$?; set -e
[ "$status" -eq 1 ] && [ "$(grep -c . err.txt)" -eq 1 ] && grep -q 'bad.exr' err.txt || { cat err.txt >&2; fail "bad compression"; }
[ ! -e bad.exr ] || fail "a refused write left a file"
echo ok
