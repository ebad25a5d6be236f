#!/usr/bin/env bash
# check-docs.sh DOC_DIR KELDCTL [TOOL...]: the manual pages render without a
# warning; each TOOL has a page in section 8 that names every command and
# long option its --help (and each command's --help) lists; the bash
# completion loads, completes commands, options and server prefixes, and
# knows every command keldctl --help lists.
set -uo pipefail
doc="$1" keldctl="$2"
shift 2
tools=("$@")
status=0
fail() { echo "FAIL: $*"; status=1; }

for page in "$doc"/man/*.[18]; do
  warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "$page renders with warnings: $warnings"
  MANWIDTH=80 man -l "$page" 2>/dev/null | grep "EXIT STATUS" >/dev/null || fail "$page has no EXIT STATUS"
done

# The page as text, one paragraph a line, so that a command a page describes
# starts a line of its SYNOPSIS or COMMANDS (as the tag of its entry).
page_text() {
  LC_ALL=C MANWIDTH=1000 man --nh --nj -l "$1" 2>/dev/null
}
page_entries() {
  awk '/^[A-Z]/ { on = ($0 == "SYNOPSIS" || $0 == "COMMANDS"); next } on'
}
# The commands (first words of the "Subcommands:" section) and the long
# options (of the "Options:" section) a CLI11 usage lists.
help_commands() { awk '/^Subcommands:/ { on = 1; next } /^[^ ]/ { on = 0 } on && /^  [^ ]/ { print $1 }'; }
help_options() { awk '/^Options:/ { on = 1; next } /^[^ ]/ { on = 0 } on' | grep -oE -- '--[[:alnum:]][[:alnum:]-]*'; }

# check_usage TOOL [COMMAND...]: every long option TOOL COMMAND... --help
# lists is mentioned in the page (text), and every command has an entry
# (entries); each command is walked in turn.
check_usage() {
  local tool="$1"
  shift
  local usage name="${tool##*/}" option command path
  usage=$("$tool" "$@" --help) || { fail "$name${*:+ $*} --help fails"; return; }
  for option in $(help_options <<<"$usage"); do
    grep -qE -- "(^|[^-[:alnum:]])$option([^-[:alnum:]]|\$)" <<<"$text" ||
      fail "the page of $name does not mention $option ($name${*:+ $*} --help lists it)"
  done
  for command in $(help_commands <<<"$usage"); do
    path="${*:+$* }$command"
    grep -qE "^ +($name +)?$path( |\$)" <<<"$entries" ||
      fail "the page of $name has no entry for '$path' ($name${*:+ $*} --help lists it)"
    check_usage "$tool" "$@" "$command"
  done
}

for tool in "${tools[@]}"; do
  page="$doc/man/${tool##*/}.8"
  if [ -f "$page" ]; then
    text=$(page_text "$page")
    entries=$(page_entries <<<"$text")
    check_usage "$tool"
  else
    fail "${tool##*/} has no manual page $page"
  fi
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

[ "$status" -eq 0 ] && echo "docs: the manual pages render and cover the tools, and the completion works"
exit "$status"
