#!/usr/bin/env bash
# qxgroup never destroys a user's file and answers as the archive tools do: the reproductions
# of the ways it once lost data or said the wrong thing, each with what must happen instead.
#   keeps_files.sh QXGROUP SOURCE_DIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cp "$src"/samples/* .
same() { cmp -s "$1" "$2" || fail "$3: $1 changed"; }

# The file being read is never written over, even with -o.
mkdir d && cp Hello.kdk d/ && cp Hello.kdk d/orig
cd d && expect "flash beside its input" 3 '' 'Hello.kdk: is the file being read' -- "$qx" flash -o Hello.kdk
cd "$work" || exit 1
same d/Hello.kdk d/orig "flash"

# An existing file is kept and named, skipped quietly with -n, replaced with -o.
mkdir out && echo mine >out/main.PROG1.map && cp out/main.PROG1.map mine
expect "get keeps" 3 '' 'kept existing files.*out/main.PROG1.map' -- "$qx" get school.mag main.PROG1.map -C out
same out/main.PROG1.map mine "get without -o"
expect "get -n" 0 '' '^$' -- "$qx" get -n school.mag main.PROG1.map -C out
same out/main.PROG1.map mine "get -n"
expect "expand keeps" 3 '' 'out/main.PROG1.map' -- "$qx" expand school.mag -C out
same out/main.PROG1.map mine "expand without -o"
[ -s out/work.L1.mal ] || fail "expand wrote nothing else"
expect "get -o" 0 '' '' -- "$qx" get -o school.mag main.PROG1.map -C out
cmp -s out/main.PROG1.map mine && fail "get -o did not replace"

# create refuses files the group cannot hold and names that do not fit, touching nothing.
"$qx" create keep.mag prog1.map greeting.mas && cp keep.mag keep.orig
expect "create mixing families" 1 '' '^qxgroup: prog1.map: cannot go into keep.mag: an MA-family file; the group holds KC' -- \
  "$qx" create keep.mag A.kcn prog1.map
same keep.mag keep.orig "refused create"
expect "create with a flash file" 1 '' 'Hello.kdk: cannot go into new.mag: .*flash' -- "$qx" create new.mag prog1.map Hello.kdk
expect "create in a missing folder" 1 '' '^qxgroup: no such folder: nodir$' -- "$qx" create nodir/x.mag prog1.map
expect "create from text" 1 '' '^qxgroup: notes.txt: not a calculator file' -- "$qx" create new.mag notes.txt
expect "extension of another family" 1 '' 'x.mag: a group of KDX-family files is named .kdg' -- "$qx" create x.mag PROG.kdp
expect "not a group extension" 1 '' 'is named .mag' -- "$qx" create out.txt prog1.map
ls new.mag x.mag out.txt >/dev/null 2>&1 && fail "a refused create left a file"
expect "--force keeps the name" 0 '' '^$' -- "$qx" create --force x.mag PROG.kdp
# A variable type an MA-style group has no file extension for (0x05): refused, whatever its place.
python3 -c 'import sys; b = bytearray(open("prog1.map", "rb").read()); b[0x48] = 5; sys.stdout.buffer.write(b)' >odd.map
expect "create with a kind the group cannot hold" 1 '' 'odd.map: cannot go into new.mag: .*type 0x05' -- \
  "$qx" create new.mag prog1.map odd.map
[ -e new.mag ] && fail "a refused create left new.mag"
{ printf '**QXHWL*\0\0'; tail -c +11 prog1.map; } >v.hwl
expect "create of a group that could not be opened again" 1 '' 'never opened again' -- "$qx" create h.grp v.hwl

# extract checks every member first; get writes what exists and exits 11 for the rest.
cp school.mag s2.mag
expect "extract with a missing member" 1 '' 'nope: no such member in s2.mag; nothing extracted' -- \
  "$qx" extract s2.mag main.PROG1.map nope
same s2.mag school.mag "refused extract"
expect "extract of every member" 1 '' 'leave the group empty' -- "$qx" extract s2.mag '*'
mkdir g
expect "get with a missing member" 11 '' '^qxgroup: nope: no such member in school.mag$' -- \
  "$qx" get school.mag main.PROG1.map nope work.L1.mal -C g
[ -s g/main.PROG1.map ] && [ -s g/work.L1.mal ] || fail "get stopped at the missing member"
mkdir w
expect "wildcards" 0 '' '' -- "$qx" get school.mag 'MAIN.*' -C w
[ "$(ls w | tr '\n' ' ')" = "main.GREETING.mas main.PROG1.map " ] || fail "wildcards wrote: $(ls w)"
"$qx" get -p school.mag main.PROG1.map >piped && same piped g/main.PROG1.map "get -p"
expect "extract moves once in place" 0 '' '' -- "$qx" -v extract s2.mag 'work.*' -C w
grep -q 'deleted work.L1.mal' err.txt || fail "-v did not name the member deleted"
[ "$("$qx" list s2.mag | wc -l)" = 2 ] || fail "extract left the member in s2.mag"

# Words for what is wrong.
expect "unknown subcommand" 2 '' '^qxgroup: unknown subcommand "lst"; did you mean "list"\?' -- "$qx" lst school.mag
expect "unknown option" 2 '' 'did you mean --on-duplicate\?' -- "$qx" add school.mag prog1.map --on-dup=skip
expect "help CMD" 0 '' '^$' -- "$qx" help add
grep -q -- '--on-duplicate' out.txt || fail "help add shows no options"
expect "parse errors have the prefix" 2 '' '^qxgroup: ' -- "$qx" list
expect "exists on a file" 2 '' 'school.mag is a file' -- "$qx" exists school.mag
expect "split-path without a group" 1 '' 'nothere.mag/x: no group file on this path' -- "$qx" split-path nothere.mag/x
expect "--to on an old-style group" 1 '' 'has no folders' -- "$qx" add school.mag prog1.map --to sub
expect "list --json" 0 '' '' -- "$qx" list --json school.mag
grep -qx '{"group":"school.mag","members":\["main.PROG1.map","main.GREETING.mas","work.L1.mal"\]}' out.txt ||
  fail "list --json: $(cat out.txt)"
expect "--json failure" 1 '' '' -- "$qx" list --json gone.mag
grep -qx '{"error":"gone.mag: not a group file (no such file)","code":"not-a-group"}' out.txt ||
  fail "json error: $(cat out.txt)"
expect "--json failure of the command's own check" 1 '' '' -- "$qx" split-path --json nothere.mag/x
grep -q '"code":"not-a-group"' out.txt || fail "json error code: $(cat out.txt)"

finish keeps_files
