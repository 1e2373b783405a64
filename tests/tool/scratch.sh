# Sourced by the tool tests: a scratch directory (removed on exit) to work
# in, and the checks they share.  The sourcing script sets case_name.

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
# has TEXT [FILE]: FILE (out.txt) holds TEXT.
has() { grep -q -- "$1" "${2:-out.txt}" || { cat "${2:-out.txt}" >&2; fail "missing '$1'"; }; }
