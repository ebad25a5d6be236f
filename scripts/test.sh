#!/usr/bin/env bash
# Sets up the machine, builds everything and runs every test.
#
#   scripts/test.sh          what CI runs, warnings being errors in both
#                            builds: the suite of the plain build
#                            (build/); the Debian package made from it and
#                            checked (scripts/package.sh: lintian,
#                            systemd-analyze verify, the packaged service
#                            run from the extracted package); the same
#                            suite built with
#                            AddressSanitizer and UndefinedBehaviorSanitizer
#                            (build-asan/, clang), leaks included, failing on
#                            any report of any process a test started; and
#                            each libFuzzer target for FUZZ_SECONDS (20) s.
#   scripts/test.sh --tsan   the suite under ThreadSanitizer (build-tsan/),
#                            with the 30-client load test run for
#                            KELD_LOAD_ROUNDS (100) rounds per client.
#
# Sanitizer options, suppressions and the report check: scripts/sanitizer/.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$here}"
mode="${1:-ci}"

# Runs every step even after a failure, so one run shows all findings.
failed=()
step() {
    local name="$1" started=$SECONDS
    shift
    echo "== $name"
    if "$@"; then
        echo "== $name: done in $((SECONDS - started)) s"
    else
        echo "== $name: FAILED after $((SECONDS - started)) s"
        failed+=("$name")
    fi
}

# A clang build with the given sanitizers (and more CMake options).
sanitizer_build() {
    local dir="$1" sanitizers="$2"
    shift 2
    CC=clang CXX=clang++ cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DKELD_SANITIZE="$sanitizers" "$@" >/dev/null &&
        cmake --build "$dir" -j "$(nproc)"
}

"$here/scripts/setup.sh" --test
case "$mode" in
ci)
    step "plain build" "$here/scripts/build.sh" -DKELD_WERROR=ON
    step "plain suite" bash -c "cd '${BUILD_DIR:-$here/build}' && ctest --output-on-failure -j 2 --timeout 300"
    step "package" "$here/scripts/package.sh"
    step "ASan+UBSan build" sanitizer_build "$here/build-asan" address,undefined -DKELD_FUZZ=ON -DKELD_WERROR=ON
    step "ASan+UBSan suite" "$here/scripts/sanitizer/suite.sh" asan "$here/build-asan"
    step "fuzzing" "$here/scripts/fuzz.sh" "$here/build-asan" "${FUZZ_SECONDS:-20}"
    ;;
--tsan)
    step "TSan build" sanitizer_build "$here/build-tsan" thread
    export KELD_LOAD_ROUNDS="${KELD_LOAD_ROUNDS:-100}"
    step "TSan suite" "$here/scripts/sanitizer/suite.sh" tsan "$here/build-tsan"
    ;;
*)
    echo "usage: $0 [--tsan]" >&2
    exit 2
    ;;
esac
if [ ${#failed[@]} -ne 0 ]; then
    echo "test: failed: ${failed[*]}" >&2
    exit 1
fi
echo "test: every step passed"
