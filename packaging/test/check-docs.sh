#!/usr/bin/env bash
# Checks a man page and a bash completion file against the help of a kelipc binary: the page renders and
# names every command and every option a command's help mentions, and the completion offers them.
# Usage: check-docs.sh KELIPC_BINARY MAN_PAGE COMPLETION_FILE
set -euo pipefail
kelipc=$1 page=$2 completion=$3
status=0
fail() {
    echo "check-docs: $*" >&2
    status=1
}

commands=$("$kelipc" --help | awk 'tolower($0) ~ /^[a-z ]*commands:$/ {on = 1; next} on && /^$/ {exit} on {print $1}')
# A help format the generator cannot read yields no commands: that must fail, not pass vacuously.
grep -qx version <<<"$commands" || fail "'$kelipc --help' lists no version command"

rendered=$(MANWIDTH=200 man -l "$page" 2>&1) || fail "man -l $page failed: $rendered"

# shellcheck source=/dev/null
source "$completion"
offered() {  # the completion's candidates for the words given, the last being the one completed
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    _kelipc
    printf '%s\n' "${COMPREPLY[@]}"
}

# "kelipc --option" in any help is a global option, offered in the command's place.
long_options() {
    grep -oE -- '(kelipc )?--[A-Za-z0-9][-A-Za-z0-9_]*' | sort -u
}
all_help=$("$kelipc" --help; for command in $commands; do "$kelipc" "$command" --help; done)
top=$(offered kelipc "")
for option in $(long_options <<<"$all_help" | sed -n 's/^kelipc //p'); do
    grep -qx -- "$option" <<<"$top" || fail "completion does not offer kelipc $option"
done
for command in $commands; do
    grep -qE "^ +$command( |$)" <<<"$rendered" || fail "the man page lacks the command $command"
    grep -qx -- "$command" <<<"$top" || fail "completion does not offer the command $command"
    help=$("$kelipc" "$command" --help)
    options=$(offered kelipc "$command" --)
    # Every long option the help mentions, in its usage line, its text or its option list.
    for option in $(long_options <<<"$help" | grep -v '^kelipc '); do
        grep -qF -- "$option" <<<"$rendered" || fail "the man page lacks $command $option"
        grep -qx -- "$option" <<<"$options" || fail "completion does not offer $command $option"
    done
done
exit "$status"
