# Sourced by the CLI checks as `source lib.sh QXGROUP SOURCE_DIR`: sets qx and src, works in a
# fresh folder removed on exit, counts failures, and ends with `finish NAME`.
set -u
qx=$(realpath "$1")
src=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0
passed=0
fail() { echo "FAIL $*"; failures=$((failures + 1)); }

# matches PATTERN FILE: an empty pattern accepts anything, "^$" wants an empty file, any other
# is a grep -E pattern.
matches() {
  case "$1" in
    "") return 0 ;;
    "^$") [ ! -s "$2" ] ;;
    *) grep -Eq -- "$1" "$2" ;;
  esac
}

# expect NAME STATUS STDOUT-PATTERN STDERR-PATTERN -- COMMAND...  Stdin is not a terminal, so
# nobody is asked; with $empty_tmp set, nothing may be left in $TMPDIR.
expect() {
  local name=$1 want=$2 out_re=$3 err_re=$4 got
  shift 5
  "$@" </dev/null >out.txt 2>err.txt
  got=$?
  if [ "$got" = "$want" ] && matches "$out_re" out.txt && matches "$err_re" err.txt &&
    { [ -z "${empty_tmp:-}" ] || [ -z "$(ls -A "$TMPDIR")" ]; }; then
    passed=$((passed + 1))
  else
    fail "$name: status $got (want $want)"
    echo "  stdout: $(head -c 400 out.txt)"
    echo "  stderr: $(head -c 400 err.txt)"
    [ -z "${empty_tmp:-}" ] || echo "  left in TMPDIR: $(ls -A "$TMPDIR")"
  fi
}

finish() { echo "$1: ${passed/#0/no} checks passed, $failures failed"; [ "$failures" = 0 ]; }
