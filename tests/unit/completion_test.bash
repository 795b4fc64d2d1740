#!/bin/bash
# completion_test.bash KVTOOL VBOARD: tests the completion scripts the way the shells use them.
set -uo pipefail

kvtool=$1 vboard=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit
touch camera.fls "with space.img" layout.txt
mkdir folder
for program in "$kvtool" "$vboard"; do
    "$program" completion bash >"$(basename "$program").bash"
    "$program" completion zsh >"_$(basename "$program")"
done
# shellcheck source=/dev/null
. ./kvtool.bash
# shellcheck source=/dev/null
. ./vboard.bash

failed=0
# Compares the candidates for the last word, one a line, with the expected ones.
expect() { # WANTED WORD...
    local wanted=$1 got
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    "_$1"
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' ')
    if [ "$got" != "$wanted" ]; then
        echo "completing '$*': '$got' instead of '$wanted'" >&2
        failed=1
    fi
}
expect "info inspect" kvtool in
expect "upgrade" kvtool up
expect "--force --force-identity" kvtool upgrade --for
expect "camera.fls" kvtool inspect cam
expect "with space.img" kvtool inspect with
expect "layout.txt" kvtool inspect --layout lay
expect "layout.txt" kvtool inspect --layout = lay
expect "layout.txt" kvtool pack -o x app = lay
expect "" kvtool upgrade cam
expect "camera.fls" kvtool upgrade 10.0.0.1 cam
expect "camera.fls" kvtool upgrade --port 80 10.0.0.1 cam
expect "camera.fls" kvtool upgrade --layout = x --wait = 5 10.0.0.1 cam
expect "" kvtool info --port ""
expect "read write" vboard flash ""
expect "read" vboard --state somewhere flash r
expect "--state" vboard flash read --st
expect "mute" vboard ap mu
expect "first" vboard fault power --inside 3 --half f
expect "off on" vboard power o
expect "camera.fls" vboard flash read mtd3 cam

# A zsh on a pseudo terminal gets the keys that a person would type.
zsh -n _kvtool _vboard || failed=1
timeout 30 zsh -f >zsh.out 2>&1 <<'END'
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "PROMPT=; fpath=($PWD \$fpath); autoload -Uz compinit; compinit -u -d dump"
zpty -w shell 'print READY-$((40 + 2))'
zpty -m -r shell ready '*READY-42*'
zpty -w -n shell $'kvtool upgrade --force-i\t'
zpty -r -m shell first '*--force-identity *'
print -r -- "$first"
END
grep -q -- '--force-identity' zsh.out || { echo "zsh completes nothing: $(cat zsh.out)" >&2; failed=1; }
exit "$failed"
