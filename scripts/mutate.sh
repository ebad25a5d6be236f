#!/usr/bin/env bash
# Mutation run: makes each fault of a list, one at a time, in a scratch copy
# of the tree, builds it and runs the tests that should notice it.  A fault
# no test notices "survived": either a test is missing or the list says why
# it cannot be seen (its "survives:" line).  Long (minutes per fault), so not
# part of CI.
#
#   scripts/mutate.sh                   every entry of scripts/mutations.txt
#   scripts/mutate.sh ID ...            these entries; an ID may be a shell
#                                       pattern ('disk-*')
#   scripts/mutate.sh --check           only checks that every entry's line is
#                                       found exactly once (no build)
#
# Options: --list FILE (another list), --scratch DIR (the copy and its build,
# kept between runs so that a second run builds little; default
# /tmp/keld-mutate-$USER), --timeout S (per test, default 120: a fault may
# make a test hang, which counts as caught).
#
# The list: blocks separated by blank lines, lines starting with '#' are
# comments.
#   id: conv-nfs-host          a name of its own
#   file: src/...              relative to the top of the tree
#   line: <text>               one line of that file, exactly once in it
#                              (blanks and indentation do not matter)
#   with: <text>               what it becomes (empty: the line goes)
#   tests: <regex>             ctest -R of the tests that should catch it
#   survives: <why>            only for a fault accepted as not caught
#
# Each result is one line: KILLED (a test failed), KILLED-BY-BUILD (the
# fault did not compile: avoid such entries), SURVIVED, or EXPLAINED (it
# survived and the list says why).  The run ends with
# "N mutants, K killed, S survived (E explained)" and exits 1 when any
# survivor is not explained, 2 when the list or the unchanged tree is wrong.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
list="$here/scripts/mutations.txt"
scratch="${TMPDIR:-/tmp}/keld-mutate-${USER:-$(id -un)}"
timeout=120
check_only=0
wanted=()
while [ $# -gt 0 ]; do
    case "$1" in
    --list) list="$(cd "$(dirname "$2")" && pwd)/$(basename "$2")"; shift 2 ;;
    --scratch) scratch="$2"; shift 2 ;;
    --timeout) timeout="$2"; shift 2 ;;
    --check) check_only=1; shift ;;
    -h | --help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
    -*) echo "mutate: unknown option $1" >&2; exit 2 ;;
    *) wanted+=("$1"); shift ;;
    esac
done

# The list as records: id, file, line, with, tests, survives; separated by
# the unit separator, one record a line.
parse_list() {
    awk '
    function flush() {
        if (id != "" || file != "") {
            if (id == "" || file == "" || line == "" || tests == "" || !hasWith) {
                printf "mutate: entry ending at line %d of the list lacks id, file, line, with or tests\n", NR > "/dev/stderr"
                bad = 1
            }
            printf "%s\037%s\037%s\037%s\037%s\037%s\n", id, file, line, with, tests, survives
        }
        id = file = line = with = tests = survives = ""; hasWith = 0
    }
    function value(s) { sub(/^[a-z]+:[ \t]*/, "", s); sub(/[ \t]+$/, "", s); return s }
    /^[ \t]*$/ { flush(); next }
    /^#/ { next }
    /^id:/ { id = value($0); next }
    /^file:/ { file = value($0); next }
    /^line:/ { line = value($0); next }
    /^with:/ { with = value($0); hasWith = 1; next }
    /^tests:/ { tests = value($0); next }
    /^survives:/ { survives = value($0); next }
    { printf "mutate: line %d of the list is not understood: %s\n", NR, $0 > "/dev/stderr"; bad = 1 }
    END { flush(); exit bad }
    ' "$list"
}

# How often the line LINE (blanks aside) occurs in file $1.
count_line() {
    LINE="$2" awk '
    function norm(s) { gsub(/[ \t]+/, " ", s); sub(/^ /, "", s); sub(/ $/, "", s); return s }
    BEGIN { want = norm(ENVIRON["LINE"]) }
    norm($0) == want { n++ }
    END { print n + 0 }
    ' "$1"
}

# Replaces the one line LINE of file $1 with WITH, keeping its indentation.
apply_fault() {
    local file="$1" tmp="$1.mutate-tmp"
    LINE="$2" WITH="$3" awk '
    function norm(s) { gsub(/[ \t]+/, " ", s); sub(/^ /, "", s); sub(/ $/, "", s); return s }
    BEGIN { want = norm(ENVIRON["LINE"]) }
    norm($0) == want { match($0, /^[ \t]*/); print substr($0, 1, RLENGTH) ENVIRON["WITH"]; next }
    { print }
    ' "$file" >"$tmp"
    cat "$tmp" >"$file"   # keeps the file's mode
    rm -f "$tmp"
}

selected() {
    [ ${#wanted[@]} -eq 0 ] && return 0
    local w
    for w in "${wanted[@]}"; do
        # shellcheck disable=SC2053
        [[ "$1" == $w ]] && return 0
    done
    return 1
}

records="$(parse_list)" || exit 2
ids=() files=() lines=() withs=() testss=() survivess=()
seen=" "
problems=0
while IFS=$'\037' read -r id file line with tests survives; do
    case "$seen" in *" $id "*) echo "mutate: id $id is used twice" >&2; problems=1 ;; esac
    seen+="$id "
    selected "$id" || continue
    if [ ! -f "$here/$file" ]; then
        echo "mutate: $id: no file $file" >&2; problems=1; continue
    fi
    n="$(count_line "$here/$file" "$line")"
    if [ "$n" != 1 ]; then
        echo "mutate: $id: the line is found $n times in $file (must be once): $line" >&2; problems=1; continue
    fi
    ids+=("$id") files+=("$file") lines+=("$line") withs+=("$with") testss+=("$tests") survivess+=("$survives")
done <<<"$records"
[ "$problems" = 0 ] || exit 2
[ ${#ids[@]} -gt 0 ] || { echo "mutate: no entry selected" >&2; exit 2; }
if [ "$check_only" = 1 ]; then
    echo "mutate: ${#ids[@]} entries, each line found once"
    exit 0
fi

# The scratch copy: the files git knows of (committed or not), as they are
# in the working tree.  Only a file whose content differs from the copy's is
# replaced, and it gets the time of this run, so the build there redoes what
# changed since the last run whatever the times in the working tree (a
# merge or checkout can leave a changed file older than the copy's objects).
src="$scratch/src" build="$scratch/build" logs="$scratch/logs" stage="$scratch/stage"
mkdir -p "$src" "$logs"
rm -rf "$stage" && mkdir -p "$stage"
(cd "$here" && git ls-files -z --cached --others --exclude-standard | tar --null -T - -cf -) | tar -C "$stage" -xf -
(cd "$stage" && find . -type f -print0) | while IFS= read -r -d '' f; do
    if ! cmp -s "$stage/$f" "$src/$f"; then
        mkdir -p "$(dirname "$src/$f")" && cp "$stage/$f" "$src/$f"
    fi
done
rm -rf "$stage"
# A file a stopped run left changed got its old time back from the copy,
# older than what its fault built: made newer, it is compiled again.
if [ -f "$scratch/changed" ]; then
    while read -r f; do touch "$src/$f"; done <"$scratch/changed"
fi
export CCACHE_BASEDIR="$src"
echo "mutate: building the unchanged tree in $build"
nice cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$logs/configure.log" 2>&1 ||
    { echo "mutate: configure failed, see $logs/configure.log" >&2; exit 2; }

build_tree() { nice cmake --build "$build" -j 2 "${@:2}" >"$1" 2>&1; }
# The targets of the test programs ctest runs for pattern $1: building them
# builds what they link and what they start (their dependencies), far less
# than the whole tree.
test_targets() {
    (cd "$build" && ctest -N -V -R "$1") | sed -n 's/.*Test command: \([^ ]*\).*/\1/p' | sort -u |
        while read -r exe; do printf -- '--target %s ' "$(basename "$exe")"; done
}
run_tests() {
    (cd "$build" && nice ctest -R "$1" --timeout "$timeout" --output-on-failure >"$2" 2>&1)
}

build_tree "$logs/baseline-build.log" || { echo "mutate: the unchanged tree does not build, see $logs/baseline-build.log" >&2; exit 2; }
for i in "${!ids[@]}"; do
    if ! (cd "$build" && ctest -N -R "${testss[$i]}") | grep -q '^Total Tests: [1-9]'; then
        echo "mutate: ${ids[$i]}: no test matches ${testss[$i]}" >&2; problems=1
    fi
done
[ "$problems" = 0 ] || exit 2
all_tests="$(IFS='|'; echo "${testss[*]}")"
echo "mutate: running the selected tests on the unchanged tree"
run_tests "$all_tests" "$logs/baseline-tests.log" ||
    { echo "mutate: tests fail without any fault, see $logs/baseline-tests.log" >&2; exit 2; }

killed=0 survived=0 explained=0
survivors=()
for i in "${!ids[@]}"; do
    id="${ids[$i]}" file="$src/${files[$i]}"
    cp -p "$file" "$scratch/original"
    echo "${files[$i]}" >>"$scratch/changed"
    trap 'cat "$scratch/original" >"$file"; touch "$file"; exit 130' INT TERM
    apply_fault "$file" "${lines[$i]}" "${withs[$i]}"
    started=$SECONDS
    # shellcheck disable=SC2046
    if ! build_tree "$logs/$id.build.log" $(test_targets "${testss[$i]}"); then
        result="KILLED-BY-BUILD"
        killed=$((killed + 1))
    elif run_tests "${testss[$i]}" "$logs/$id.tests.log"; then
        if [ -n "${survivess[$i]}" ]; then
            result="EXPLAINED"
            explained=$((explained + 1))
        else
            result="SURVIVED"
        fi
        survived=$((survived + 1))
        survivors+=("$id ($result)")
    else
        result="KILLED"
        killed=$((killed + 1))
    fi
    # Back as it was, but newer than what the fault built, so that the next
    # build compiles it again.
    cat "$scratch/original" >"$file"
    touch "$file"
    printf '%-16s %-28s %4d s  %s\n' "$result" "$id" $((SECONDS - started)) "${files[$i]}"
done
trap - INT TERM
rm -f "$scratch/original"
build_tree "$logs/restored-build.log" && rm -f "$scratch/changed"   # the whole tree as it was

echo
for s in "${survivors[@]+"${survivors[@]}"}"; do echo "survivor: $s"; done
echo "${#ids[@]} mutants, $killed killed, $survived survived ($explained explained)"
echo "logs: $logs"
[ "$survived" = "$explained" ]
