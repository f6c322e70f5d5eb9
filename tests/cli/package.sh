#!/usr/bin/env bash
# qxgroup package, register and call --set, as a person or a script runs them.
#   package.sh QXGROUP SOURCE_DIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
samples=$src/samples
export QXGROUPMGR_REGISTRY=$work/reg/registry.reg

expect "register" 0 "^registered /.*libqxgroupmgr.* in $work/reg/registry.reg$" "" -- "$qx" register
grep -q 'QXGroupMgr.QXPackageInfo.1' "$QXGROUPMGR_REGISTRY" || fail "no ProgID written"
expect "by ProgID" 0 '^\{"hr":"0x00000000","out":\{"pVal":0\}\}$' "" -- \
  "$qx" call --progid QXGroupMgr.QXPackageInfo.1 IsQXP
expect "unregister" 0 "^unregistered " "" -- "$qx" register --unregister
expect "unregistered ProgID" 1 "" "no class registered as QXGroupMgr.QXPackageInfo in .*0x800401F3" -- \
  "$qx" call --progid QXGroupMgr.QXPackageInfo IsQXP
grep -q 'QXPackageInfo' "$QXGROUPMGR_REGISTRY" && fail "ProgID left"
expect "not a module" 1 "" "cannot load .*notes.txt" -- "$qx" register --module "$samples/notes.txt"
printf 'damaged\n' >"$QXGROUPMGR_REGISTRY"
expect "damaged registry" 1 "" "registry.reg does not parse; it was left as it is" -- "$qx" register
expect "ProgID in a damaged registry" 1 "" "cannot look up QXGroupMgr.FileManager: .*does not parse" -- \
  "$qx" call --progid QXGroupMgr.FileManager IsGroup
[ "$(cat "$QXGROUPMGR_REGISTRY")" = damaged ] || fail "damaged registry rewritten"

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

# Real packages: the sample, crafted bad ones and the corpus's, each opened in a private
# temporary folder that must be gone afterwards.
export TMPDIR=$work/tmp
mkdir -p "$TMPDIR"
expect "package table" 0 "^  Title +Area <r>: circles$" "^$" -- "$qx" package "$samples/lesson.qxp"
expect "package json" 0 '"Connectivity":\{"hr":"0x00000000","value":"USB link cable"\}' "" -- \
  "$qx" package --json "$samples/lesson.qxp"
expect "call --set Filename" 0 '^\{"hr":"0x00000000","out":\{"pVal":"Grade 7"\}\}$' "" -- \
  "$qx" call --class=QXPackageInfo --set Filename="$samples/lesson.qxp" GradeLevel
python3 - <<'PY'
import struct, zipfile
M = b'<?xml version="1.0"?><manifest><imsmd:title><imsmd:langstring>T</imsmd:langstring></imsmd:title></manifest>'
def z(name, members, comp=zipfile.ZIP_STORED):
    with zipfile.ZipFile(name, "w") as f:
        for n, d in members:
            i = zipfile.ZipInfo(n, date_time=(2026, 1, 1, 0, 0, 0))
            i.compress_type = comp
            if n.endswith("/"):
                i.external_attr = 0x10
            f.writestr(i, d)
z("upper.qxp", [("IMSMANIFEST.XML", M)])
z("folder.qxp", [("imsmanifest.xml/", b""), ("imsmanifest.xml/x.txt", b"x")])
z("plain.qxg", [("a.txt", b"a")])
z("ok.qxp", [("imsmanifest.xml", M)])
z("malformed.qxp", [("imsmanifest.xml", b"<manifest><title>x</title")])
b = bytearray(open("ok.qxp", "rb").read())
b[b.find(M) + 5] ^= 0xFF  # stored bytes no longer match the CRC
open("damaged.qxp", "wb").write(b)
z("big.qxp", [("imsmanifest.xml", M + b" " * (1 << 20))], zipfile.ZIP_DEFLATED)
b = bytearray(open("big.qxp", "rb").read())
for sig, off in ((b"PK\x03\x04", 22), (b"PK\x01\x02", 24)):
    struct.pack_into("<I", b, b.find(sig) + off, 100)  # states 100 bytes, inflates to 1 MB
open("overinflate.qxp", "wb").write(b)
PY
expect "malformed manifest" 0 "^malformed.qxp$" "^qxgroup: warning: .*malformed.qxp: its manifest does not load" -- \
  "$qx" package malformed.qxp
corpus=$src/../shared/corpus/ims
if [ -d "$corpus" ]; then
  for f in "$corpus"/*.zip; do cp "$f" "$(basename "$f" .zip).qxp"; done
fi
# file  Filename's status  IsQXP  Title
while read -r file hr isqxp title; do
  [ -f "$file" ] || continue
  expect "$file" "$([ "$hr" = 0 ] && echo 0 || echo 1)" \
    "\"Filename\":\\{\"hr\":\"0x0000000$hr\"\\}.*\"Title\":\\{\"hr\":\"0x00000000\",\"value\":\"${title#-}\"\\}.*\"IsQXP\":\\{\"hr\":\"0x00000000\",\"value\":$isqxp\\}" "" -- \
    "$qx" package --json "$file"
done <<'ROWS'
ok.qxp 0 1 T
upper.qxp 0 1 T
folder.qxp 0 1 -
plain.qxg 1 0 -
damaged.qxp 1 0 -
overinflate.qxp 1 0 -
jcputney_scorm12.qxp 0 1 -
pyslet_package_1.qxp 0 1 -
qtiworks_BadManifest.qxp 0 1 -
qtiworks_MissingFile.qxp 0 1 -
qtiworks_NotContentPackage.qxp 1 0 -
qtiworks_WebDeveloperTest1-incomplete.qxp 1 0 -
qtiworks_WebDeveloperTest1.qxp 0 1 -
qtiworks_ZipSlip.qxp 1 0 -
ROWS
left=$(find "$TMPDIR" -mindepth 1 | head -3)
[ -z "$left" ] || fail "left in the temporary folder: $left"
finish package
