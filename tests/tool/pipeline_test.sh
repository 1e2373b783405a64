#!/usr/bin/env bash
# Usage: pipeline_test.sh PXF
# One image is read on a second thread while it is written: the output is
# the same as with one thread (--jobs 1), and a failure on the reading side
# ends the conversion with its own message and no output.  Also run under
# ThreadSanitizer.
set -euo pipefail
pxf=$1
case_name=pipeline
source "$(dirname "${BASH_SOURCE[0]}")/scratch.sh"

# pxf__err is one process-wide code that every failing thread writes, by
# design (threads read PXF_last_error); the core thread tests say the same.
echo 'race:pxf__err' >tsan.supp
export TSAN_OPTIONS="${TSAN_OPTIONS:+$TSAN_OPTIONS:}suppressions=$work/tsan.supp"

"$pxf" make-sample s.rla --size 203x301 -q
"$pxf" make-sample s.tif --size 203x301 -q --compression deflate
for pair in "s.rla png" "s.rla tif" "s.tif png" "s.tif rla"; do
  set -- $pair
  two=two.$1.$2 one=one.$1.$2
  "$pxf" convert "$1" "$two" -q
  "$pxf" convert "$1" "$one" -q --jobs 1
  if [ "$2" = rla ]; then
    # RLA files record how long their writing took: compare the pixels.
    "$pxf" convert "$two" "$two.png" -q --jobs 1
    "$pxf" convert "$one" "$one.png" -q --jobs 1
    two=$two.png one=$one.png
  fi
  cmp -s "$two" "$one" || fail "$1 to $2: two threads and one differ"
done

# TIFF strips compressed on helper threads (three strips here) make the file
# one thread makes.
"$pxf" make-sample tall.rla --size 600x1800 -q
for method in lzw deflate; do
  "$pxf" convert tall.rla tall.two.tif -q --compression $method --attrib 'date=2026:01:01 00:00:00'
  "$pxf" convert tall.rla tall.one.tif -q --compression $method --attrib 'date=2026:01:01 00:00:00' --jobs 1
  cmp -s tall.two.tif tall.one.tif || fail "tall.rla to TIFF ($method): helper threads and one thread differ"
done

# Frames side by side, each on one thread.
for f in 1 2 3 4; do cp s.rla "f.000$f.rla"; done
"$pxf" convert 'f.####.rla' 'g.####.png' --jobs 2 -q
for f in 1 2 3 4; do cmp -s "g.000$f.png" one.s.rla.png || fail "frame $f differs"; done

# The reader fails half way: the offsets of the upper rows lie past the end.
head -c $(($(stat -c %s s.rla) / 2)) s.rla >cut.rla
set +e; "$pxf" convert cut.rla cut.png -q >out.txt 2>err.txt; got=$?; set -e
[ "$got" -eq 1 ] || { cat err.txt >&2; fail "a file cut short converted with status $got"; }
[ "$(wc -l <err.txt)" -eq 1 ] && grep -q 'cut.rla' err.txt || fail "expected one line naming the input: $(cat err.txt)"
[ ! -e cut.png ] || fail "a failed conversion left its output"
[ -z "$(ls -A | grep '^\.~')" ] || fail "a temporary file was left behind"
echo "pipeline: ok"
