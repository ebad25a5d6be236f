#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
"$here/scripts/setup.sh"
"$here/scripts/build.sh"
cd "${BUILD_DIR:-$here/build}"
ctest --output-on-failure -j 2 --timeout 300
