#!/usr/bin/env bash
# qxgroup as a person or a script runs it: exit statuses, JSON of `call`, messages on stderr.
#   basics.sh QXGROUP SOURCE_DIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

cp "$src"/samples/* .
touch empty.bin
mkdir folder

# call: any member by name, case-insensitive, JSON on stdout.
expect "UseQXAscii is not implemented" 1 '^\{"hr":"0x80004001","out":\{\}\}$' \
  '^qxgroup: UseQXAscii: the flag is kept but changes nothing$' -- \
  "$qx" call UseQXAscii 1
expect "member names ignore case" 1 '"hr":"0x80004001"' '' -- "$qx" call usEqxasCII 0
expect "nonexistent group fails" 1 '^\{"hr":"0x80004005","out":\{"indfiles":""\}\}$' \
  'nothere.mag: not a group file \(no such file\)' -- \
  "$qx" call ReadContents nothere.mag
expect "retval of IsGroup" 0 '^\{"hr":"0x00000000","out":\{"pVal":0\}\}$' '' -- \
  "$qx" call IsGroup notes.txt
expect "ShowUI stores the handle" 0 '"hr":"0x00000000"' '' -- "$qx" call --ui=skip ShowUI 0
expect "unknown member is a usage error" 2 '^$' 'no member named' -- "$qx" call NoSuchThing
expect "class from the type library" 1 '"hr":"0x80004001"' '' -- "$qx" call --class=filemanager UseQXAscii 1
expect "unknown class is a usage error" 2 '^$' 'no class named' -- "$qx" call --class=Nope UseQXAscii 1
expect "too few arguments" 2 '^$' 'takes 1 argument' -- "$qx" call ReadContents
expect "integer argument checked" 2 '^$' 'must be an integer' -- "$qx" call UseQXAscii yes
expect "bad --ui" 2 '' '' -- "$qx" call --ui=maybe UseQXAscii 1
expect "UTF-8 out of 1252 refused" 2 '' 'Windows-1252' -- "$qx" call ReadContents 'γ.mag'

# info: what files are.
expect "info on samples" 0 '' '^$' -- "$qx" info school.mag prog1.map math.kdg PROG.kdp
[ "$(cut -d, -f3 out.txt | tr '\n' ,)" = " group of 3 variables, single variable, group of 3 variables, single variable," ] ||
  fail "info tells groups from single variables: $(cat out.txt)"
expect "info names flash files" 0 'Hello.kdk: flash file' '' -- "$qx" info Hello.kdk
expect "info on text" 0 'notes.txt: not a calculator file' '' -- "$qx" info notes.txt
expect "info on a missing file" 1 '' 'qxgroup: nothere: no such file' -- "$qx" info nothere
expect "info on a folder" 1 '' 'folder: is a folder' -- "$qx" info folder

# Friendly subcommands refuse what cannot travel, before anything is touched.
cp prog1.map 'a,b.map'
expect "comma in a file name" 2 '' 'holds a comma' -- "$qx" create new.mag 'a,b.map' prog1.map
[ -e new.mag ] && fail "comma refusal wrote new.mag"
expect "missing input file" 1 '' 'no such file: nothere.map' -- "$qx" add school.mag nothere.map
expect "list of a text file" 1 '' 'notes.txt: not a group file \(unknown signature\)' -- \
  "$qx" list notes.txt
expect "list of a missing file" 1 '' 'gone.mag: not a group file \(no such file\)' -- \
  "$qx" list gone.mag
expect "list of a flash file" 1 '' '\(a flash file\)' -- "$qx" list Hello.kdk
head -c 150 school.mag >cut.mag
expect "damaged group names the offset" 1 '' '^qxgroup: cut.mag: .* \(offset [0-9]+\)$' -- \
  "$qx" delete cut.mag main.PROG1.map
expect "get into a missing folder" 1 '' 'no such folder: nowhere' -- \
  "$qx" get school.mag main.PROG1.map -C nowhere

# Group work: statuses and the one line that says what went wrong.
expect "create" 0 '^$' '^$' -- "$qx" create class.mag prog1.map greeting.mas
expect "list" 0 '^main\.PROG1\.map$' '' -- "$qx" list class.mag
expect "duplicate skipped" 3 '^$' 'not added to class.mag \(already there\): prog1.map' -- \
  "$qx" add class.mag prog1.map --on-duplicate=skip
expect "duplicate cancelled with the rest" 3 '' 'already there\): greeting.mas, prog1.map' -- \
  "$qx" add class.mag prog1.map greeting.mas --on-duplicate=cancel
expect "ask without a terminal" 2 '' 'needs a terminal' -- \
  setsid "$qx" add class.mag prog1.map --on-duplicate=ask
expect "flash file refused" 1 '' 'Hello.kdk: cannot go into class.mag: old-style groups cannot hold flash' -- \
  "$qx" add class.mag Hello.kdk
expect "other family refused" 1 '' 'PROG.kdp: cannot go into class.mag: a KDX-family file; the group holds MA-family' -- \
  "$qx" add class.mag PROG.kdp
expect "get of a missing member: status 11" 11 '' 'main.NOPE.map: no such member in class.mag' -- \
  "$qx" get class.mag main.NOPE.map
expect "delete names the unknown member" 1 '' '^qxgroup: main.NOPE.map: no such member in class.mag$' -- \
  "$qx" delete class.mag main.PROG1.map main.NOPE.map
expect "extract moves out" 0 '' '^$' -- "$qx" extract class.mag main.GREETING.mas -C folder
expect "what is left" 0 '^main\.PROG1\.map$' '' -- "$qx" list class.mag
[ -s folder/main.GREETING.mas ] || fail "extract wrote nothing"

# Help and version.
expect "help lists subcommands" 0 'create' '' -- "$qx" --help
expect "call help lists members" 0 'ReadContentsXml' '' -- "$qx" call --help
expect "version" 0 '^qxgroup [0-9]' '' -- "$qx" --version
expect "no subcommand" 2 '' '' -- "$qx"

finish basics
