#!/bin/bash
# Answers to discovery searches per second, beside those of a bare UDP echo on the same board, asked by the same
# client in turn. The goal is a quarter of the echo's rate. Exit status 1 when it is missed.
set -euo pipefail

cd "$(dirname "$0")/.."
bin=$PWD/build/bin
seconds=${1:-1}
rounds=5
window=8
goal=0.25
work=$(mktemp -d "${TMPDIR:-/tmp}/kv-bench-XXXXXX")

# shellcheck disable=SC2317 # called by the trap
finish() {
    # The echo ends with the board.
    board stop 2>/dev/null || true
    wait
    rm -rf "$work"
}
trap finish EXIT

board() { "$bin/vboard" --state "$work/board" "$@"; }
ask() { board exec -- "$bin/udp_bench" ask 192.168.10.2 "$1" "$seconds" "$window"; }

board run --quiet --no-wifi -- "$bin/upgradeMain" &
board wait --boot 1 --log "app file not exist!"
# The board sees its /param, not the build folder.
cp "$bin/udp_bench" "$work/board/param/udp_bench"
board exec --board -- /param/udp_bench echo 7 &
board exec --board -- timeout 10 sh -c 'until grep -q ":0007 " /proc/net/udp; do sleep 0.05; done'

for ((i = 0; i < rounds; i++)); do
    echo "$(ask 7) $(ask 6789)"
done | tee "$work/rates" | awk '{ printf "echo %6d/s   discovery %6d/s   %.2f\n", $1, $2, $2 / $1 }'
awk -v goal=$goal '{ echo += $1; found += $2 }
    END {
        printf "ratio %.2f (goal: at least %.2f)\n", found / echo, goal
        exit found / echo < goal
    }' "$work/rates"
