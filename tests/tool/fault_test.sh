#!/usr/bin/env bash
# Runs pxf convert with one heap allocation made to fail, for every
# allocation the run makes (the preloaded fail_alloc shim counts them all:
# the C++ runtime, the dynamic loader, libpng, libtiff and the library), and
# writes through a full disk.  Each run must end in exit 0 with the same
# bytes as a clean run, or in exit 1 with one error line; never a crash, a
# stray file or a changed old output.
# Usage: fault_test.sh allocations|disk_full PXF SHIM
set -uo pipefail
case=$1 pxf=$(realpath "$2") shim=$(realpath "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export PXF_PLUGIN_PATH=$(dirname "$pxf")/../lib/pxf/plugins

fail() { echo "FAIL ($case): $*" >&2; exit 1; }
# The one error line: every line but notes and warnings (a plug-in that
# could not be loaded is a warning) is that line.
one_error_line() { [ "$(grep -vc '^pxf: \(note\|warning\): ' "$1")" -eq 1 ]; }
# Names in the folder other than the inputs and the references.
strays() { ls -A | grep -v '^in\.\|^ref\.\|^old\.\|^err$\|^count$\|^info\.\|^tags\.' | grep -v "^$1\$" | tr '\n' ' '; }

"$pxf" make-sample in.full.png --size 12x6 2>/dev/null || fail "cannot make the sample"
# Inputs without a depth channel, so no run prints a note.
"$pxf" convert in.full.png in.png && "$pxf" convert in.png in.rla || fail "cannot make the inputs"
# Three TIFF strips: the helper threads that encode them fail too.
"$pxf" make-sample in.tall.full.png --size 600x1800 2>/dev/null && "$pxf" convert in.tall.full.png in.tall.png &&
  "$pxf" convert in.tall.png in.tall.rla || fail "cannot make the tall input"
printf 'the old output\n' >old.bytes

check_run() {  # check_run LABEL STATUS OUT: the outcome of one run that may have failed
  local label=$1 status=$2 out=$3
  if [ "$status" -eq 0 ]; then
    # Exit 0: a whole, readable file with the same layout.  (libpng skips a
    # text chunk it has no memory for, so header texts may be missing.)
    "$pxf" info "$out" >info.out 2>/dev/null || fail "$label: exit 0 but the output cannot be read"
    grep '^  ' info.out | grep -v '"\|name\|desc\|text\|user\|program\|machine\|date' >info.layout
    cmp -s info.layout "ref.${out##*.}.layout" || fail "$label: exit 0 but the layout differs: $(cat info.out)"
    if [ "${out##*.}" = tif ]; then
      tiffinfo "$out" 2>/dev/null | grep -i 'extra samples' >tags.out
      cmp -s tags.out ref.tags || fail "$label: exit 0 with other extra-sample tags: $(cat tags.out)"
    fi
  else
    [ "$status" -eq 1 ] || fail "$label: exit $status (crashed?): $(head -c 400 err)"
    one_error_line err || fail "$label: not one error line: $(head -c 400 err)"
    cmp -s "$out" old.bytes || fail "$label: the old $out was changed"
  fi
  local left
  left=$(strays "$out")
  [ -z "$left" ] || fail "$label: left behind: $left"
}

case $case in
allocations)
  # Allocation numbers of small conversions, one process each (the count of
  # a run is stable but for the TIFF driver's helper threads, same files).  A process costs tens of
  # milliseconds, mostly loading the plug-ins, so by default every 8th number
  # is tried, from a different start per conversion; PXF_FAULT_STEP=1 tries
  # them all (about 800 runs).
  step=${PXF_FAULT_STEP:-8} start=0
  for pair in in.rla:out.png in.rla:out.tif in.png:out.rla in.tall.rla:out.tif; do
    in=${pair%%:*} out=${pair#*:}
    "$pxf" convert "$in" "ref.${out##*.}" 2>/dev/null || fail "clean conversion $pair failed"
    "$pxf" info "ref.${out##*.}" | grep '^  ' | grep -v '"\|name\|desc\|text\|user\|program\|machine\|date' >"ref.${out##*.}.layout"
    tiffinfo ref.tif 2>/dev/null | grep -i 'extra samples' >ref.tags
    PXF_COUNT_ALLOC=count LD_PRELOAD=$shim "$pxf" convert "$in" "$out" 2>/dev/null || fail "counted run $pair failed"
    total=$(cat count)
    [ "$total" -gt 50 ] || fail "the shim counted only $total allocations"
    start=$((start % step + 1))
    for ((n = start; n <= total; n += step)); do
      cp old.bytes "$out"
      PXF_FAIL_ALLOC=$n LD_PRELOAD=$shim "$pxf" convert "$in" "$out" >/dev/null 2>err
      check_run "$pair allocation $n of $total" $? "$out"
    done
    rm -f "$out"
  done
  ;;
disk_full)
  # /dev/full behind a link: every write fails with ENOSPC.  The link and the
  # device must both survive.
  for ext in rla png tif; do
    ln -s /dev/full "out.$ext"
    "$pxf" convert in.png "out.$ext" --key "$([ $ext = tif ] && echo tiff || echo $ext)" >/dev/null 2>err
    status=$?
    [ "$status" -eq 1 ] || fail "$ext to /dev/full: exit $status: $(cat err)"
    one_error_line err || fail "$ext to /dev/full: not one error line: $(cat err)"
    [ -L "out.$ext" ] && [ -c /dev/full ] || fail "$ext: the link or /dev/full was removed"
    rm "out.$ext"
    [ -z "$(strays none)" ] || fail "$ext to /dev/full: left behind: $(strays none)"
  done
  # A regular file on a full disk: the file size limit makes writes past a
  # few kilobytes fail with EFBIG, as a full disk fails them with ENOSPC.
  "$pxf" make-sample big.rla --size 400x300 2>/dev/null || fail "cannot make the large sample"
  for ext in rla png tif; do
    cp old.bytes "out.$ext"
    (trap '' XFSZ; ulimit -f 1; exec "$pxf" convert big.rla "out.$ext" --compression none) >/dev/null 2>err
    status=$?
    [ "$status" -eq 1 ] || fail "$ext on a full disk: exit $status: $(cat err)"
    grep -v '^pxf: \(note\|warning\): ' err | grep -qi 'File too large\|write' || fail "$ext on a full disk: $(cat err)"
    one_error_line err || fail "$ext on a full disk: not one error line: $(cat err)"
    cmp -s "out.$ext" old.bytes || fail "$ext on a full disk: the old file was changed"
    rm "out.$ext"
    [ -z "$(strays big.rla)" ] || fail "$ext on a full disk: left behind: $(strays big.rla)"
  done
  ;;
*) fail "unknown case" ;;
esac
echo "ok ($case)"
