#!/usr/bin/env bash
# Builds the program and shows it at work on the sample files of samples/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build
qx=build/qxgroup
echo "\$ qxgroup info samples/*"
"$qx" info samples/*
