#!/bin/bash
# The man pages: clean for mandoc, and of the programs in build/bin each command and option that --help tells stands in
# the page, and each option of the page in some --help. Defaults that --help tells stand with their options in the page,
# and documents that repeat one repeat that.
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
helps() { # PROGRAM [COMMAND]: "command WORD", "option --WORD", "default --WORD VALUE", of all commands below as well
    local text command
    text=$("$bin/$1" "${@:2}" --help)
    # A default in a text may look like an option; those that begin a line are options.
    sed -nE 's/^  (-[a-z],)?(--[a-z][a-z-]*).*/option \2/p' <<<"$text"
    # "--name TYPE=5" or "--name{5}"; a default that is a path depends on who asks.
    sed -nE 's/^  (-[a-z],)?(--[a-z][a-z-]*)( [A-Z]+(:[A-Z]+( in \[[^]]*\])?)?=|\{)([^/ }][^ }]*).*/default \2 \6/p' <<<"$text"
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
    while read -r kind word value; do
        case $kind in
            default)
                sed -n "/^\.It.* Fl ${word#-}\( \|\$\)/,/^\.\(It\|El\)/p" "$page" | sed '1!{/^\.It/,$d}' |
                    grep -qE -- "(^|[^0-9A-Za-z.])$value([^0-9A-Za-z]|\$)" ||
                    complain "$page does not tell $word's default $value"
                continue
                ;;
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
# Documents: "`--option` 5", or a table's "| 5 … | `--option` |".
told=$(helps kvtool | sort -u)
# shellcheck disable=SC2016 # the documents' own marks
for document in docs/kvtool.md docs/mini-protocol.md; do
    sed -nE 's/.*\| ([0-9.]+)[^|]*\| `(--[a-z-]+)` \|.*/\2 \1/p' "$document" >"$work"
    sed -nE ':a; s/`(--[a-z-]+)` ([0-9.]*[0-9])/\n\1 \2\n/; ta; /\n/p' "$document" | grep '^--' >>"$work" || true
    while read -r option value; do
        grep -qx -- "default $option $value" <<<"$told" || complain "$document: $option's default is not $value"
    done <"$work"
    [ -s "$work" ] || complain "$document repeats no default; do not look for any"
done
exit "$failed"
