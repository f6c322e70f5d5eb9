#!/usr/bin/env bash
# Configures the build folder the README's two commands share, always with the same flags, so
# the test command builds on what the main job built instead of starting again.
#   BUILD_DIR (build), BUILD_TYPE (RelWithDebInfo), QX_SANITIZE (OFF), CC/CXX as usual.
#   ccache, when installed, is used as the compiler launcher (rebuilds across clones and worktrees).
set -euo pipefail
cd "$(dirname "$0")/.."
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "${BUILD_DIR:-build}" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DQX_WERROR=ON -DQX_SANITIZE="${QX_SANITIZE:-OFF}" -DQX_BUILD_BENCH=ON "${launcher[@]}" >/dev/null
