#!/usr/bin/env bash
# Prints every sanitizer report left in a directory, then one line per
# finding with the first frame in the project's code, and fails when there
# is any report.  Suppressed findings leave no report.
set -euo pipefail
dir="$1"
reports=()
for report in "$dir"/*; do
    [ -s "$report" ] && reports+=("$report")
done
if [ ${#reports[@]} -eq 0 ]; then
    echo "sanitizers: no report"
    exit 0
fi
for report in "${reports[@]}"; do
    echo "==== sanitizer report $(basename "$report")"
    cat "$report"
done
echo "==== sanitizer findings: each stack's first frame in src/ or tests/"
for report in "${reports[@]}"; do
    awk -v name="$(basename "$report")" '
        function first(line) {
            sub(/^ *#[0-9]+ 0x[0-9a-f]+ in /, "", line)
            sub(/^ *#[0-9]+ /, "", line)
            gsub(/[^ ]*\/\.\.\//, "", line)
            sub(/ \(BuildId: [0-9a-f]+\)/, "", line)
            return line
        }
        /leak of|ERROR: AddressSanitizer|runtime error|WARNING: ThreadSanitizer/ { printf "%s: %.90s\n", name, $0; want = 1; next }
        /^  (Write|Read|Previous|Atomic)/ { want = 1; access = $1 " " $2; next }
        /^  (Mutex|Thread|Location)/ { want = 0; access = ""; next }
        want && /\/(src|tests)\// { printf "    %s%.170s\n", access != "" ? access ": " : "", first($0); want = 0; access = "" }
        /^SUMMARY/ { want = 0; access = "" }' "$report"
done
echo "sanitizers: ${#reports[@]} report(s) in $dir" >&2
exit 1
