#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need, when they are missing.
# Safe to run again: it only installs what is not there yet.
set -euo pipefail

need_pkgs=(cmake ninja-build g++ clang pkg-config python3 zlib1g-dev libgtest-dev libgmock-dev
           libbenchmark-dev libcli11-dev libxml2-dev libpugixml-dev unzip zip 7zip
           libarchive-tools tmux)
# The Python package's tests, the man page, the Debian package and its dependency scan.
need_pkgs+=(python3-pytest python3-setuptools python3-pip help2man man-db dpkg-dev file)
# clang's sanitizer and fuzzer runtimes live in their own package on Debian 12.
need_pkgs+=(libclang-rt-14-dev)

missing=()
for p in "${need_pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}" >&2
if [ "$(id -u)" -eq 0 ]; then
  SUDO=()
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
  SUDO=(sudo -n)
else
  echo "setup: cannot install packages (not root, no sudo). Please run:" >&2
  echo "  sudo apt-get update && sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
if ! { "${SUDO[@]}" apt-get update -qq && "${SUDO[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null; }; then
  echo "setup: apt-get failed. Please install: ${missing[*]}" >&2
  exit 1
fi
