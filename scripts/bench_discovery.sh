#!/bin/bash
# Compares the rate of discovery answers with that of a bare UDP echo on the same board. The same client asks both,
# alternately: first one search at a time, as a tool does, then eight at a time, which shows the device's cost per
# answer.
# The goal is a quarter of the echo's rate, one at a time. The exit status is 1 if the goal is missed.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_board.bash
. scripts/on_board.bash
seconds=${1:-1}
rounds=5
goal=0.25

ask() { board exec -- "$bin/udp_bench" ask 192.168.10.2 "$1" "$seconds" "$2"; }

switch_on --no-wifi
await --boot 1 --log "app file not exist!"
# The board cannot see the build folder, only its /param.
cp "$bin/udp_bench" "$state/param/udp_bench"
board exec --board -- /param/udp_bench echo 7 &
board exec --board -- timeout 10 sh -c 'until grep -q ":0007 " /proc/net/udp; do sleep 0.05; done'

# Prints the ratio over all rounds with $1 searches in flight.
compare() {
    for ((i = 0; i < rounds; i++)); do
        echo "$(ask 7 "$1") $(ask 6789 "$1")"
    done | tee "$work/rates" | awk -v w="$1" \
        '{ printf "%d in flight: echo %6d/s   discovery %6d/s   %.2f\n", w, $1, $2, $2 / $1 }' >&2
    awk '{ echo += $1; found += $2 } END { printf "%.2f\n", found / echo }' "$work/rates"
}

single=$(compare 1)
flood=$(compare 8)
echo "ratio $single one at a time (goal: at least $goal), $flood with eight in flight"
awk -v ratio="$single" -v goal=$goal 'BEGIN { exit ratio < goal }'
