#!/usr/bin/env bash
# Writes the man page kelipc.1 and the bash completion file kelipc from the help that the built program
# prints, so that both follow every command and option the program has.
# Usage: kelipc-docs.sh KELIPC_BINARY OUTPUT_DIR VERSION
set -euo pipefail
kelipc=$1 out=$2 version=$3
mkdir -p "$out"

top_help=$("$kelipc" --help)
# The indented lines under the "commands:" heading: name, then what it does.
command_lines=$(awk 'tolower($0) ~ /^[a-z ]*commands:$/ {on = 1; next} on && /^$/ {exit} on' <<<"$top_help")
commands=$(awk '{print $1}' <<<"$command_lines")
[ -n "$commands" ] || { echo "kelipc-docs: no commands found in '$kelipc --help'" >&2; exit 1; }

# The long options of a command: those on its help's indented lines that begin with a dash.
options_of() {
    "$kelipc" "$1" --help | grep -E '^[[:space:]]+-' | grep -oE -- '--[A-Za-z0-9][-A-Za-z0-9_]*' | sort -u
}

# Help text set as it is, safe for roff: backslashes, minus signs and leading control characters escaped.
roff_verbatim() {
    sed -e 's/\\/\\e/g' -e 's/-/\\-/g' -e "s/^\([.']\)/\\\\\&\1/"
}

{
    cat <<EOF
.TH KELIPC 1 "" "KelIpc $version" "User Commands"
.nh
.ad l
.SH NAME
kelipc \- run, measure and operate KelIpc byte-stream channels
.SH SYNOPSIS
.B kelipc
.I command
.RI [ options ]
.br
.B kelipc
.I command
.B \-\-help
.br
.B kelipc \-\-version
.SH DESCRIPTION
KelIpc gives the processes and threads of one machine a duplex byte stream over shared-memory rings.
\fBkelipc\fR demonstrates and measures it, bridges it to standard input and output, and inspects,
stops, starts and removes the channels of running programs.
EOF
    echo ".SH COMMANDS"
    while read -r name what; do
        echo ".TP"
        echo ".B $name"
        roff_verbatim <<<"$what"
    done <<<"$command_lines"
    echo ".SH \"COMMAND HELP\""
    for name in $commands; do
        echo ".SS \"kelipc $name\""
        echo ".nf"
        "$kelipc" "$name" --help | roff_verbatim
        echo ".fi"
    done
    exit_line=$(grep -i '^exit codes:' <<<"$top_help" || true)
    if [ -n "$exit_line" ]; then
        echo ".SH \"EXIT STATUS\""
        roff_verbatim <<<"${exit_line#*: }"
    fi
} >"$out/kelipc.1"

{
    echo "# bash completion for kelipc, generated from its help"
    echo "_kelipc() {"
    echo "    local cur=\${COMP_WORDS[COMP_CWORD]} words="
    echo "    if [ \"\$COMP_CWORD\" -eq 1 ]; then"
    echo "        words=\"$(paste -sd' ' <<<"$commands") --help --version\""
    echo "    elif [[ \$cur == -* ]]; then"
    echo "        case \${COMP_WORDS[1]} in"
    for name in $commands; do
        echo "        $name) words=\"$(options_of "$name" | paste -sd' ')\" ;;"
    done
    echo "        *) words= ;;"
    echo "        esac"
    echo "    fi"
    # Nothing offered (a name, a file, a number) falls back to the shell's file name completion.
    echo "    mapfile -t COMPREPLY < <(compgen -W \"\$words\" -- \"\$cur\")"
    echo "}"
    echo "complete -o bashdefault -o default -F _kelipc kelipc"
} >"$out/kelipc"
