#!/usr/bin/env bash
# Runs every libFuzzer target of a KELD_FUZZ build (build-asan by default)
# for a bounded time, starting from its committed corpus.  New inputs go to
# a scratch directory, never into the repository; a crash leaves its input
# in <build>/fuzz-artifacts and fails the run.  Keep such an input, once
# the fault is fixed, as tests/fuzz/corpus/<target>/<fault>: the corpus
# replay of the normal suite then runs it on every build.
#
#   scripts/fuzz.sh [BUILD_DIR] [SECONDS_EACH]      (default build-asan, 20)
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$here/build-asan}" && pwd)"
seconds="${2:-${FUZZ_SECONDS:-20}}"

artifacts="$build/fuzz-artifacts"
scratch="$(mktemp -d /tmp/keld-fuzz-XXXXXX)"
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$artifacts"

# A finding of any sanitizer is a crash that libFuzzer reports and keeps.
leak_checks="detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:suppressions=$here/scripts/sanitizer/ubsan.supp"
export LSAN_OPTIONS="suppressions=$here/scripts/sanitizer/lsan.supp:print_suppressions=0"
export ASAN_SYMBOLIZER_PATH="${ASAN_SYMBOLIZER_PATH:-$(command -v llvm-symbolizer || true)}"

# Targets that run the service's ORB in their process.  omniORB leaks there
# itself (scripts/sanitizer/lsan.supp), and its leaks can be told from ours
# only by full allocation stacks, which would slow fuzzing tenfold: these
# are fuzzed without leak checks, then every input kept, new and committed,
# runs once more with full stacks and a leak check after each.
orb_targets=" servant_request "

# fuzz TARGET FUZZER [libFuzzer options]: the run's output goes to its log.
fuzz()
{
    local target="$1" fuzzer="$2"
    shift 2
    "$fuzzer" -timeout=10 -rss_limit_mb=2048 -artifact_prefix="$artifacts/$target-" "$@" \
        "$scratch/$target" "$here/tests/fuzz/corpus/$target" >>"$artifacts/$target.log" 2>&1
}

failed=()
for fuzzer in "$build"/fuzz/fuzz_*; do
    target="$(basename "$fuzzer")"
    target="${target#fuzz_}"
    mkdir -p "$scratch/$target"
    : >"$artifacts/$target.log"
    dict=()
    if [ -f "$here/tests/fuzz/dict/$target.dict" ]; then dict=(-dict="$here/tests/fuzz/dict/$target.dict"); fi
    echo "fuzz: $target for ${seconds}s"
    ok=true
    if [[ "$orb_targets" == *" $target "* ]]; then
        ASAN_OPTIONS="detect_leaks=0:abort_on_error=0" \
            fuzz "$target" "$fuzzer" -detect_leaks=0 -max_total_time="$seconds" -print_final_stats=1 "${dict[@]}" &&
            ASAN_OPTIONS="$leak_checks:fast_unwind_on_malloc=0" fuzz "$target" "$fuzzer" -runs=0 || ok=false
    else
        ASAN_OPTIONS="$leak_checks" \
            fuzz "$target" "$fuzzer" -max_total_time="$seconds" -print_final_stats=1 "${dict[@]}" || ok=false
    fi
    if $ok; then
        grep -E "^stat::number_of_executed_units|^stat::new_units_added" "$artifacts/$target.log" | tr '\n' ' '
        echo
    else
        tail -n 60 "$artifacts/$target.log"
        failed+=("$target")
    fi
done
if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzz: failed: ${failed[*]} (inputs in $artifacts)" >&2
    exit 1
fi
echo "fuzz: every target ran ${seconds}s without a finding"
