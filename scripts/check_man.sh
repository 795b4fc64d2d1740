#!/bin/bash
# The man pages: clean for mandoc, and of the programs in build/bin each command and option that --help tells stands in
# the page, and each option of the page in some --help.
set -euo pipefail

cd "$(dirname "$0")/.."
bin=build/bin
work=$(mktemp)
trap 'rm -f "$work"' EXIT
failed=0
complain() {
    echo "check_man: $*" >&2
    failed=1
}
commands_of() { # HELP-TEXT
    sed -n '/^Subcommands:/,$p' <<<"$1" | awk '/^  [a-z]/ { print $1 }'
}
helps() { # PROGRAM [COMMAND]: "command WORD" and "option --WORD" lines, of all commands below as well
    local text command
    text=$("$bin/$1" "${@:2}" --help)
    # A default in a text may look like an option; those that begin a line are options.
    sed -nE 's/^  (-[a-z],)?(--[a-z][a-z-]*).*/option \2/p' <<<"$text"
    for command in $(commands_of "$text"); do
        echo "command ${*:2} $command"
        helps "$@" "$command"
    done
}

for page in docs/man/*.[18]; do
    mandoc -T lint -W warning "$page" >&2 || complain "$page is not clean"
done
for program in kvtool vboard; do
    page=docs/man/$program.1
    # Over-struck characters are how a terminal is told of bold.
    text=$(mandoc -T utf8 -O width=500 "$page" | sed 's/.\x08//g')
    told=$(helps "$program" | sort -u)
    [ "$(grep -c '^option' <<<"$told")" -gt 5 ] || complain "$program --help tells no options"
    while read -r kind word; do
        case $kind in
            # A command heads an entry of its own.
            command) place="^ +$word( |\$)" ;;
            option) place="(^|[^-a-z])$word([^-a-z]|\$)" ;;
        esac
        grep -qE -- "$place" <<<"$text" || complain "$page lacks the $kind $word"
    done <<<"$told"
    grep -oE -- '--[a-z][a-z-]+' <<<"$text" | sort -u | while read -r word; do
        grep -qx -- "option $word" <<<"$told" || echo "$word"
    done >"$work"
    [ ! -s "$work" ] || complain "$page tells of what $program does not know: $(tr '\n' ' ' <"$work")"
done
exit "$failed"
