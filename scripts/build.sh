#!/usr/bin/env bash
# Configures and builds the tree into ./build (or $BUILD_DIR), the tests and
# benchmarks included; further arguments are CMake options (-DKELD_WERROR=ON,
# -DKELD_BUILD_TESTS=OFF for the service and its tools alone).
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
    -DKELD_BUILD_TESTS=ON "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
