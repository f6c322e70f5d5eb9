#!/usr/bin/env bash
# qxgroup package, register and call --set, as a person or a script runs them.
#   package.sh QXGROUP SOURCE_DIR
set -u
qx=$1
samples=$2/samples
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export QXGROUPMGR_REGISTRY=$work/reg/registry.reg
failures=0

# Patterns are grep -E; "" accepts anything and "^$" wants an empty stream.
matches() {
  case "$1" in
    "") return 0 ;;
    "^$") [ ! -s "$2" ] ;;
    *) grep -Eq -- "$1" "$2" ;;
  esac
}

# expect NAME STATUS STDOUT-PATTERN STDERR-PATTERN -- COMMAND...
expect() {
  local name=$1 want=$2 out_re=$3 err_re=$4
  shift 5
  "$@" >out.txt 2>err.txt
  local got=$?
  if [ "$got" != "$want" ] || ! matches "$out_re" out.txt || ! matches "$err_re" err.txt; then
    failures=$((failures + 1))
    echo "FAIL $name: status $got (want $want)"
    echo "  stdout: $(head -c 400 out.txt)"
    echo "  stderr: $(head -c 400 err.txt)"
  fi
}

expect "register" 0 "^registered /.*libqxgroupmgr.* in $work/reg/registry.reg$" "" -- "$qx" register
grep -q 'QXGroupMgr.QXPackageInfo.1' "$QXGROUPMGR_REGISTRY" || { echo "FAIL no ProgID written"; failures=$((failures + 1)); }
expect "by ProgID" 0 '^\{"hr":"0x00000000","out":\{"pVal":0\}\}$' "" -- \
  "$qx" call --progid QXGroupMgr.QXPackageInfo.1 IsQXP
expect "unregister" 0 "^unregistered " "" -- "$qx" register --unregister
expect "unregistered ProgID" 1 "" "no class registered as QXGroupMgr.QXPackageInfo in .*0x800401F3" -- \
  "$qx" call --progid QXGroupMgr.QXPackageInfo IsQXP
grep -q 'QXPackageInfo' "$QXGROUPMGR_REGISTRY" && { echo "FAIL ProgID left"; failures=$((failures + 1)); }
expect "not a module" 1 "" "cannot load .*notes.txt" -- "$qx" register --module "$samples/notes.txt"
printf 'damaged\n' >"$QXGROUPMGR_REGISTRY"
expect "damaged registry" 1 "" "registry.reg does not parse; it was left as it is" -- "$qx" register
[ "$(cat "$QXGROUPMGR_REGISTRY")" = damaged ] || { echo "FAIL damaged registry rewritten"; failures=$((failures + 1)); }

expect "old-style group" 1 "^$" "^qxgroup: not a package: .*imsmanifest.xml.*school.mag$" -- \
  "$qx" package "$samples/school.mag"
expect "not a group" 1 "" "not a package: .*notes.txt" -- "$qx" package "$samples/notes.txt"
expect "json of a non-package" 1 '"Filename":\{"hr":"0x00000001"\}.*"LearningTool":\{"hr":"0x00000001","value":""\}.*"IsQXP":\{"hr":"0x00000000","value":0\}' "" -- \
  "$qx" package --json "$samples/school.mag"
expect "call with a failing put" 1 '^\{"hr":"0x80004005","set":"Filename"\}$' "" -- \
  "$qx" call --class=QXPackageInfo --set Filename=missing.qxp Title
expect "call --set unknown" 2 "" "no property \"Nope\"" -- "$qx" call --class=QXPackageInfo --set Nope=1 Title
expect "call on a fresh object" 0 '^\{"hr":"0x00000001","out":\{"pVal":""\}\}$' "no such requirement" -- \
  "$qx" call --class=qxpackageinfo LearningTool

# Through real packages once zip-based groups open.
if "$qx" list "$samples/mixed.qxg" >/dev/null 2>&1; then
  expect "package table" 0 "^  Title +Area <r>: circles$" "^$" -- "$qx" package "$samples/lesson.qxp"
  expect "package json" 0 '"Connectivity":\{"hr":"0x00000000","value":"USB link cable"\}' "" -- \
    "$qx" package --json "$samples/lesson.qxp"
  expect "call --set Filename" 0 '^\{"hr":"0x00000000","out":\{"pVal":"Grade 7"\}\}$' "" -- \
    "$qx" call --class=QXPackageInfo --set Filename="$samples/lesson.qxp" GradeLevel
fi
[ "$failures" = 0 ] && echo "package: ok"
exit $((failures > 0))
