#!/usr/bin/env bash
# Builds the program (and the module) and shows it at work on the sample files of samples/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
# Only the program and the module; scripts/test.sh builds the rest in the same folder.
build=${BUILD_DIR:-build}
scripts/configure.sh
cmake --build "$build" --target qxgroup qxgroupmgr
qx=$build/qxgroup
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

show() {
  echo
  echo "\$ qxgroup $*"
  "$qx" "$@" || echo "(exit status $?)"
}
show info samples/*
# An MA-style group made from two variables, a third added, listed, as XML, then taken apart.
show create "$out/class.mag" samples/prog1.map samples/greeting.mas
show add "$out/class.mag" samples/area.rap
show list "$out/class.mag"
show xml "$out/class.mag"
show add "$out/class.mag" samples/Hello.kdk
show get "$out/class.mag" main.AREA.map -C "$out"
show extract "$out/class.mag" main.PROG1.map -C "$out"
show list "$out/class.mag"
# A KC-style group: made from another group's variables, one replaced, listed, expanded.
show create "$out/lesson.kdg" samples/math.kdg
show add "$out/lesson.kdg" samples/PROG.kdp
show list "$out/lesson.kdg"
show xml "$out/lesson.kdg"
mkdir -p "$out/lesson"
show expand "$out/lesson.kdg" -C "$out/lesson"
# A zip-based lesson: folders, an old-style group in a folder, a group nested in a group.
cp samples/lesson.qxg "$out/lesson.qxg"
show list --tree --long "$out/lesson.qxg"
show create "$out/unit2.qxg" samples/prog1.map samples/school.mag
show add "$out/lesson.qxg" samples/area.rap --to 'unit1\'
show add "$out/lesson.qxg" samples/greeting.mas --to 'unit1\extra.qxg\school.mag'
show list --tree "$out/lesson.qxg"
show xml --meta --subgroups "$out/lesson.qxg"
show get "$out/lesson.qxg" 'unit1\extra.qxg\school.mag\main.PROG1.map' -C "$out"
show split-path "$out/lesson.qxg/unit1/extra.qxg/notes.txt"
show is-group "$out/lesson.qxg/unit1/extra.qxg"
show exists "$out/lesson.qxg/unit1/extra.qxg/school.mag/main.PROG1.map"
show exists "$out/lesson.qxg/unit1/nothere.kdp"
# A flash file split into its records.
show flash samples/Hello.kdk -C "$out"
show call IsGroup samples/prog1.map
# A content package's metadata, by the command and through the second class by name.
show package samples/lesson.qxp
show call --class=QXPackageInfo --set Filename=samples/lesson.qxp LearningTool
# The module registered into a registry file of its own, then both classes made by ProgID from
# the module that registration names.
export QXGROUPMGR_REGISTRY="$out/registry.reg"
show register
show call --progid QXGroupMgr.QXPackageInfo --set Filename=samples/lesson.qxp Title
show call --progid QXGroupMgr.FileManager ReadContents samples/mixed.qxg
show register --unregister
echo
echo "Files written (in a temporary folder, removed on exit):"
(cd "$out" && find . -type f | sort | sed 's|^\./|  |')
