#!/usr/bin/env bash
# Runs the test suite of a sanitizer build and fails on any sanitizer report,
# in a test or in any process a test started (the keldpxy services, the
# tools).  Every process inherits the options below and writes its reports
# to <build>/sanitizer-reports/<tool>.<pid> instead of standard error, so a
# report from a child that the test never looks at still fails the run.
#
#   scripts/sanitizer/suite.sh asan BUILD_DIR [ctest options]
#   scripts/sanitizer/suite.sh tsan BUILD_DIR [ctest options]
#
# Reports of third-party code are suppressed in the files beside this one.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
mode="$1"
build="$(cd "$2" && pwd)"
shift 2

reports="$build/sanitizer-reports"
rm -rf "$reports"
mkdir -p "$reports"

# Reports name source lines, and suppressions match function names.
export ASAN_SYMBOLIZER_PATH="${ASAN_SYMBOLIZER_PATH:-$(command -v llvm-symbolizer || true)}"
common="log_path=$reports/report:print_suppressions=0"
case "$mode" in
asan)
    # LSan runs inside ASan and at the exit of every process; leaks fail.
    export ASAN_OPTIONS="$common:detect_leaks=1:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1"
    export LSAN_OPTIONS="suppressions=$here/lsan.supp:print_suppressions=0"
    # UBSan reports and goes on, so one run shows every finding.
    export UBSAN_OPTIONS="$common:print_stacktrace=1:suppressions=$here/ubsan.supp"
    ;;
tsan)
    export TSAN_OPTIONS="$common:suppressions=$here/tsan.supp:second_deadlock_stack=1:halt_on_error=0"
    ;;
*)
    echo "usage: $0 asan|tsan BUILD_DIR [ctest options]" >&2
    exit 2
    ;;
esac

status=0
(cd "$build" && ctest --output-on-failure -j 2 --timeout 1200 "$@") || status=$?
"$here/check-reports.sh" "$reports" || status=1
exit $status
