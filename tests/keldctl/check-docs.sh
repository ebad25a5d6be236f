#!/usr/bin/env bash
# check-docs.sh DOC_DIR KELDCTL: the manual pages render without a warning,
# and the bash completion loads, completes commands, options and server
# prefixes, and knows every command keldctl --help lists.
set -uo pipefail
doc="$1" keldctl="$2"
status=0
fail() { echo "FAIL: $*"; status=1; }

for page in "$doc"/man/*.[18]; do
  warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "$page renders with warnings: $warnings"
  MANWIDTH=80 man -l "$page" 2>/dev/null | grep "EXIT STATUS" >/dev/null || fail "$page has no EXIT STATUS"
done

bash -c "source '$doc/completion/keldctl' && complete -p keldctl" >/dev/null || fail "the completion does not load"

# Completions of the words before the cursor: complete WORD...
complete_words() {
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _keldctl; printf "%s\n" "${COMPREPLY[@]}"' \
    _ "$doc/completion/keldctl" keldctl "$@"
}
expect() {
  local want="$1"
  shift
  complete_words "$@" | grep -x -- "$want" >/dev/null || fail "completing '$*' does not offer $want"
}
expect put pu
expect status --proxy 127.0.0.1:1 st
expect diff snapshot d
expect --allow-incomplete get --al
expect --metrics status --me
expect --json --js
expect Disk: put file.bin Di
expect Rados: images Ra

# Every command keldctl --help lists is completed.
commands=$("$keldctl" --help | awk '/^Subcommands:/ { on = 1; next } on && NF { print $1 }')
[ -n "$commands" ] || fail "keldctl --help lists no commands"
for command in $commands; do
  expect "$command" ""
done

[ "$status" -eq 0 ] && echo "docs: the manual pages render and the completion works"
exit "$status"
