#!/usr/bin/env bash
# Configures and builds the tree into ./build (or $BUILD_DIR); further
# arguments are CMake options (-DKELD_WERROR=ON).
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
