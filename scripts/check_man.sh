#!/bin/bash
# Checks the man pages: mandoc must find no fault, each command and option in --help of the programs in build/bin must
# be in the page, and each option in the page must be in some --help. Defaults in the pages and in docs/kvtool.md must
# be those of --help.
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
helps() { # PROGRAM [COMMAND]: prints "command WORD", "option --WORD", "default --WORD VALUE", including subcommands
    local text command
    text=$("$bin/$1" "${@:2}" --help)
    # A default inside a text may look like an option. Only words that begin a line are options.
    sed -nE 's/^  (-[a-z],)?(--[a-z][a-z-]*).*/option \2/p' <<<"$text"
    # "--name TYPE=5" or "--name{5}". Skip defaults that are paths: they depend on the user.
    sed -nE 's/^  (-[a-z],)?(--[a-z][a-z-]*)( [A-Z]+(:[A-Z]+( in \[[^]]*\])?)?=|\{)([^/ }][^ }]*).*/default \2 \6/p' \
        <<<"$text"
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
    # mandoc marks bold text by overstriking.
    text=$(mandoc -T utf8 -O width=500 "$page" | sed 's/.\x08//g')
    told=$(helps "$program" | sort -u)
    [ "$(grep -c '^option' <<<"$told")" -gt 5 ] || complain "$program --help shows no options"
    while read -r kind word value; do
        case $kind in
            default)
                sed -n "/^\.It.* Fl ${word#-}\( \|\$\)/,/^\.\(It\|El\)/p" "$page" | sed '1!{/^\.It/,$d}' |
                    grep -qE -- "(^|[^0-9A-Za-z.])$value([^0-9A-Za-z]|\$)" ||
                    complain "$page lacks $word's default $value"
                continue
                ;;
            # A command begins an entry of its own.
            command) place="^ +$word( |\$)" ;;
            option) place="(^|[^-a-z])$word([^-a-z]|\$)" ;;
        esac
        grep -qE -- "$place" <<<"$text" || complain "$page lacks the $kind $word"
    done <<<"$told"
    grep -oE -- '--[a-z][a-z-]+' <<<"$text" | sort -u | while read -r word; do
        grep -qx -- "option $word" <<<"$told" || echo "$word"
    done >"$work"
    [ ! -s "$work" ] || complain "$page has options that $program does not know: $(tr '\n' ' ' <"$work")"
done
# docs/kvtool.md repeats a default as "`--option` 5", or in a table as "| 5 … | `--option` |".
document=docs/kvtool.md
told=$(helps kvtool | sort -u)
# shellcheck disable=SC2016 # the backquotes are Markdown's
{
    sed -nE 's/.*\| ([0-9.]+)[^|]*\| `(--[a-z-]+)` \|.*/\2 \1/p' "$document"
    sed -nE ':a; s/`(--[a-z-]+)` ([0-9.]*[0-9])/\n\1 \2\n/; ta; /\n/p' "$document" | grep '^--' || true
} >"$work"
while read -r option value; do
    grep -qx -- "default $option $value" <<<"$told" || complain "$document: $option's default is not $value"
done <"$work"
[ -s "$work" ] || complain "$document repeats no default"
exit "$failed"
