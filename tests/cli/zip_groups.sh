#!/usr/bin/env bash
# qxgroup on zip-based groups: folders, trees, groups nested in groups, the path questions,
# and nothing left in the temporary folder.
#   zip_groups.sh QXGROUP SOURCE_DIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
export TMPDIR=$work/tmp
mkdir "$TMPDIR"
empty_tmp=1

cp "$src"/samples/* .
mkdir -p set/sub out
echo one >set/one.txt
echo two >set/sub/two.txt
: >empty.kdp

expect "create from files and a folder" 0 '^$' '^$' -- "$qx" create g.qxg prog1.map set
expect "add into a folder" 0 '^$' '^$' -- "$qx" add g.qxg school.mag PROG.kdp --to 'unit1\'
expect "add into a nested group" 0 '^$' '^$' -- "$qx" add g.qxg area.rap --to 'unit1\school.mag'
expect "list" 0 '^unit1\\school\.mag$' '^$' -- "$qx" list g.qxg
expect "tree opens folders and groups" 0 '^      main\.AREA\.map$' '^$' -- "$qx" list --tree g.qxg
expect "long tree has sizes and a total" 0 '^ +[0-9]+ +[0-9]+ files$' '^$' -- "$qx" list --tree --long g.qxg
expect "xml with meta and sub-groups" 0 '<group name="school\.mag">' '^$' -- "$qx" xml --meta --subgroups g.qxg
expect "xml meta attributes" 0 '<file Size="[0-9]+" CompSize="[0-9]+" Date="[0-9.]+">PROG\.kdp</file>' '' -- \
  "$qx" xml --meta g.qxg
expect "get a nested member" 0 '^$' '^$' -- "$qx" get g.qxg 'unit1\school.mag\main.AREA.map' -C out
# In the member's folders, as unzip does; a nested group's members where the group would go.
[ -s out/unit1/main.AREA.map ] || fail "nested get wrote nothing"
expect "get a folder" 0 '^$' '^$' -- "$qx" get g.qxg set -C out
[ -s out/set/sub/two.txt ] || fail "folder get wrote nothing"
expect "wildcards reach nested groups" 0 '^$' 'wrote out/w/unit1/main.GREETING.mas' -- \
  "$qx" -v get g.qxg 'unit1\school.mag\*.g*' 'UNIT1/*.mag/work.*' -C "$(mkdir out/w && echo out/w)"
[ "$(ls out/w/unit1 | tr '\n' ' ')" = "main.GREETING.mas work.L1.mal " ] ||
  fail "nested wildcards wrote: $(ls -R out/w)"
# Staging folders of a command killed long ago are cleared from the private folder.
mkdir -m 700 "$TMPDIR/QXGrpMgr-$(id -u)" && mkdir "$_/.qxgroup-Ab12Cd" && touch -d '2 hours ago' "$_"
expect "a folder named as listed, stale staging cleared" 0 '^$' '^$' -- "$qx" get g.qxg 'set\' -C out/w
[ -s out/w/set/one.txt ] || fail "'set\\' wrote nothing"
# A wildcard hitting a folder's own entry moves the folder: its members are written, then deleted.
cp lesson.qxg e.qxg && mkdir out/e
expect "extract of a folder entry by wildcard" 0 '^$' '^$' -- "$qx" extract e.qxg '*1\' -C out/e
[ -s out/e/unit1/quiz.kdp ] || fail "the folder's members were lost"
expect "extract that would empty the group" 1 '^$' 'leave the group empty' -- \
  "$qx" extract g.qxg set unit1 prog1.map -C out
expect "is-group through the group" 0 '^yes$' '^$' -- "$qx" is-group g.qxg/unit1/school.mag
expect "exists through a nested group" 0 '^yes$' '' -- "$qx" exists g.qxg/unit1/school.mag/main.AREA.map
expect "missing nested member" 1 '^no$' '' -- "$qx" exists g.qxg/unit1/school.mag/nothere
expect "split-path" 0 'unit1\\school\.mag' '^$' -- "$qx" split-path g.qxg/unit1/school.mag
expect "emptying a nested group refused" 1 '^$' 'unit1\\school\.mag: deleting every member would leave' -- \
  "$qx" delete g.qxg 'unit1\school.mag\*'
expect "delete a nested member" 0 '^$' '^$' -- "$qx" delete g.qxg 'unit1\school.mag\main.AREA.map'
expect "delete a folder" 0 '^$' '^$' -- "$qx" delete g.qxg set
expect "folder gone" 0 '^prog1\.map$' '^$' -- "$qx" list g.qxg
expect "0-byte file fails in one line" 1 '^$' '^qxgroup: .{1,300}$' -- "$qx" add g.qxg empty.kdp
expect "missing group part fails" 1 '' '^qxgroup: ' -- "$qx" delete g.qxg 'nothere\x'
expect "expand" 0 '^$' '^$' -- "$qx" expand g.qxg -C out
[ -s out/unit1/school.mag ] || fail "expand wrote nothing"
if command -v unzip >/dev/null; then
  unzip -tqq g.qxg >/dev/null || fail "unzip -t"
  # get with a wildcard writes what unzip writes.
  mkdir out/q out/u && "$qx" get lesson.qxg '*' -C out/q && unzip -q lesson.qxg -d out/u &&
    diff -r out/q out/u >/dev/null || fail "get '*' differs from unzip"
  [ "$("$qx" get -p lesson.qxg unit1 | wc -c)" = "$(unzip -p lesson.qxg 'unit1/*' | wc -c)" ] ||
    fail "get -p of a folder"
fi

# An archive that holds itself: every walk stops 16 groups down, cleanly, leaving nothing.
if command -v python3 >/dev/null; then
  python3 "$src/tests/cli/zip_quine.py" quine.qxg
  q=quine-holds-itself-forever.qxg
  deep=$q; for _ in $(seq 16); do deep="$deep\\$q"; done  # a member of the 16th nested group
  expect "quine: tree ends 16 groups down" 0 "^ {34}$q\$" '^$' -- "$qx" list --tree quine.qxg
  expect "quine: xml ends with the member" 0 "^<file>$q</file>" '^$' -- "$qx" xml --subgroups quine.qxg
  [ "$(grep -c '^<group' out.txt)" = 17 ] || fail "quine xml depth"
  expect "quine: get the deepest member" 0 '^$' '^$' -- "$qx" get quine.qxg "$deep" -C out
  cmp -s "out/$q" quine.qxg || fail "quine member differs"
  expect "quine: one deeper is not there" 1 '^no$' '' -- "$qx" exists "quine.qxg/${deep//\\//}/$q"
  cp quine.qxg before.qxg
  expect "quine: adding past the bound fails" 1 '^$' 'nested more than 16 deep' -- \
    "$qx" add quine.qxg set/one.txt --to "$deep\\"
  cmp -s quine.qxg before.qxg || fail "quine changed"
fi

# A private temporary folder that is a link, another user's (only root can make one), open to
# others or a file is refused with its reason by every command that needs it; nothing is
# written where a link points.
mkdir elsewhere
private="$TMPDIR/QXGrpMgr-$(id -u)"
for kind in link foreign open file; do
  case $kind in
    link) ln -s "$work/elsewhere" "$private" ;;
    foreign) [ "$(id -u)" = 0 ] || continue; mkdir -m 700 "$private"; chown nobody "$private" ;;
    open) mkdir -m 755 "$private" ;;
    file) echo x >"$private" ;;
  esac
  for cmd in "get g.qxg unit1\\school.mag\\main.PROG1.map -C out" "list --tree g.qxg" \
             "xml --subgroups g.qxg" "add g.qxg prog1.map --to unit1\\school.mag"; do
    # shellcheck disable=SC2086
    "$qx" $cmd >out.txt 2>err.txt
    status=$?
    if [ $status = 0 ] || ! grep -q 'temporary folder' err.txt || [ -n "$(ls -A elsewhere)" ]; then
      fail "$kind temporary folder: $cmd: $status $(cat err.txt)"
    fi
  done
  rm -rf "$private"
done

finish zip_groups
