#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test suite.
#   scripts/test.sh                 g++ (or $CXX), build/ folder
#   BUILD_DIR=build-asan QX_SANITIZE=ON CXX=clang++ CC=clang scripts/test.sh
# ctest runs the Python tests (python3 -m pytest, with the sanitizer runtimes preloaded in a
# sanitized build) and the install test (fresh prefix, consumers, man page, .deb) as well.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
build=${BUILD_DIR:-build}
# The same flags as scripts/run-samples.sh: what it built is reused, not rebuilt.
scripts/configure.sh
cmake --build "$build"
# Sample files must be exactly what the generator makes.
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
python3 scripts/make-samples.py "$tmp"
diff -r "$tmp" samples >/dev/null || { echo "samples/ differs from scripts/make-samples.py output" >&2; exit 1; }
ctest --test-dir "$build" --output-on-failure -j2
