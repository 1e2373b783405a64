#!/usr/bin/env bash
# Writes that fail or are interrupted never cost the user a file: each case
# runs pxf in a child process and checks the old file's bytes afterwards.
# Usage: safe_write_test.sh PXF
set -uo pipefail
pxf=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export PXF_PLUGIN_PATH=$(dirname "$pxf")/../lib/pxf/plugins

fail() { echo "FAIL: $*" >&2; exit 1; }
# run STATUS command...: the command must exit with STATUS; stderr in err.txt.
run() {
  local want=$1; shift
  "$@" >/dev/null 2>err.txt
  local got=$?
  [ "$got" -eq "$want" ] || fail "'$*' exited $got, expected $want: $(cat err.txt)"
}
one_error_line() { [ "$(grep -vc '^pxf: \(note\|warning\): ' err.txt)" -eq 1 ] || fail "not one error line: $(cat err.txt)"; }
# Temporary files left in the folder.
no_strays() { local left; left=$(ls -A | grep '^\.~' | tr '\n' ' '); [ -z "$left" ] || fail "$1: left behind: $left"; }
# keep NAME...: saves copies to compare with later.
keep() { for f in "$@"; do cp "$f" "$f.saved"; done; }
unchanged() { for f in "$@"; do cmp -s "$f" "$f.saved" || fail "$f was changed or removed"; done; }

"$pxf" make-sample s.rla --size 40x30 2>/dev/null || fail "make-sample"
"$pxf" convert s.rla s.png 2>/dev/null && "$pxf" convert s.rla s.tif 2>/dev/null || fail "cannot make the inputs"
head -c 3000 s.rla >truncated.rla

# A conversion that fails on read leaves an existing output as it was.
cp s.png keep.png && cp s.tif keep.tif && cp s.rla keep.rla && keep keep.png keep.tif keep.rla
for out in keep.png keep.tif keep.rla; do
  run 1 "$pxf" convert truncated.rla "$out"
  one_error_line
  unchanged "$out"
done
no_strays "failed conversions"
# ... and a failed write open (a format that cannot hold the image) too.
run 1 "$pxf" convert s.rla keep.png --compression bogus --key tiff
unchanged keep.png

# Converting a file onto itself is refused, however the name is spelled.
keep s.rla s.tif
ln s.rla hard.rla
for pair in "s.rla s.rla" "s.tif ./s.tif" "s.rla hard.rla" "s.tif $work/s.tif"; do
  set -- $pair
  run 1 "$pxf" convert "$1" "$2"
  one_error_line
  grep -q 'input' err.txt || fail "the refusal does not say why: $(cat err.txt)"
done
unchanged s.rla s.tif
no_strays "same file"

# Devices are written through, never removed: a link to /dev/null, and (as
# root) a device node of our own.
ln -s /dev/null link_null
run 1 "$pxf" convert truncated.rla link_null --key rla
[ -L link_null ] && [ -c /dev/null ] || fail "the link to /dev/null was removed"
run 0 "$pxf" convert s.rla link_null --key png
[ -L link_null ] || fail "a good conversion replaced the link to /dev/null"
if mknod my_null c 1 3 2>/dev/null; then
  for key in rla png tiff; do
    run 1 "$pxf" convert truncated.rla my_null --key $key
    [ -c my_null ] || fail "the device node was removed ($key)"
  done
fi
no_strays "devices"

# Ctrl-C or kill part-way: the temporary file goes, the old file stays.
"$pxf" make-sample big.rla --size 1500x1000 2>/dev/null || fail "make-sample big"
# interrupt SIGNAL OUT [ARGS]: starts the conversion, signals it as soon as
# its temporary file exists; the status of the run in $status.
# A run that ends before the signal is tried again (with the old file back).
interrupt() {
  local signal=$1 out=$2 attempt child; shift 2
  for attempt in 1 2 3 4 5; do
    "$pxf" convert big.rla "$out" "$@" >/dev/null 2>err.txt &
    child=$!
    until ls -A | grep -q '^\.~'; do
      kill -0 $child 2>/dev/null || break
      sleep 0.002
    done
    kill -s "$signal" $child 2>/dev/null
    wait $child
    status=$?
    [ "$status" -ne 0 ] && return
    cp "$out.saved" "$out"
  done
}
cp s.png old.png && cp s.tif old.tif && keep old.png old.tif
interrupt INT old.png
[ "$status" -eq 130 ] || fail "Ctrl-C: status $status (the conversion ended before the signal?)"
unchanged old.png
no_strays "Ctrl-C"
interrupt TERM old.tif --compression deflate
[ "$status" -eq 143 ] || fail "SIGTERM: status $status"
unchanged old.tif
no_strays "SIGTERM"

# A killed RLA writer cannot clean up; what it leaves is refused as
# incomplete.  The run is killed while the driver's own temporary file (the
# one inside pxf's, ".~X..~Y.new.rla") holds data.
partial=
for attempt in 1 2 3 4 5; do
  "$pxf" convert big.rla new.rla >/dev/null 2>&1 &
  child=$!
  # Stopped while looking, so that the file cannot be renamed meanwhile.
  while kill -STOP $child 2>/dev/null; do
    partial=$(ls -A | grep '^\.~.*\.~' | head -n 1)
    [ -n "$partial" ] && [ -s "$partial" ] && { kill -KILL $child; break; }
    partial=
    kill -CONT $child
    sleep 0.001
  done
  wait $child 2>/dev/null
  [ -n "$partial" ] && break
  rm -f new.rla .~*
  partial=
done
[ -n "$partial" ] || fail "could not catch the writer part-way in five runs"
[ ! -e new.rla ] || fail "a killed run left new.rla"
run 1 "$pxf" info "$partial"
one_error_line
grep -q 'incomplete' err.txt || fail "an interrupted RLA file is not called incomplete: $(cat err.txt)"
echo ok
