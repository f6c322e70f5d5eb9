#!/usr/bin/env bash
# Builds the program and shows it at work on the sample files of samples/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build
qx=build/qxgroup
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

show() {
  echo
  echo "\$ qxgroup $*"
  "$qx" "$@" || echo "(exit status $?)"
}
show info samples/*
show flash samples/Hello.kdk -C "$out"
show call ExpandFlashFile samples/Hello.kdk "$out"
show call IsGroup samples/prog1.map
