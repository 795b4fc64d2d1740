#!/bin/bash
# Measures how fast the recovery server receives a package, in alternation with socat, which writes the same bytes to
# the same folder on the same virtual board over the same link. The first part runs at a camera's 100 Mbit/s, the second
# as fast as this machine can. The exit status is 1 if the server's rate is below 0.95 of socat's at 100 Mbit/s.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_board.bash
. scripts/on_board.bash
sender=$PWD/scripts/bench_sender.py
rounds=${ROUNDS:-5}

median() { sort -n "$1" | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
cpu() { awk '{ sub(/.*\) /, ""); print $12, $13 }' "/proc/$program/stat"; }
lines() { wc -l <"$state/boot-1/trace.log"; }

with_receiver() { # FILE: prints the seconds
    rm -f "$root/tmp/upGradeFile.FLS"
    board exec -- python3 "$sender" 192.168.10.2 80 "$1" "$root/tmp/upGradeFile.FLS" --upgrade
}

with_socat() { # FILE: prints the seconds
    rm -f "$root/tmp/socat.FLS"
    board exec --board -- socat -u TCP-LISTEN:9000,reuseaddr CREATE:/tmp/socat.FLS &
    local listener=$!
    board exec --board -- timeout 10 sh -c 'until ss -ltn | grep -q ":9000 "; do sleep 0.05; done'
    board exec -- python3 "$sender" 192.168.10.2 9000 "$1" "$root/tmp/socat.FLS"
    wait "$listener"
    rm -f "$root/tmp/socat.FLS"
}

compare() { # NAME MIB GOAL: fails if the receiver has less than GOAL of socat's rate
    local file=$work/$2.bin
    head -c "$2M" /dev/urandom >"$file"
    rm -f "$work/receiver" "$work/socat"
    for _ in $(seq "$rounds"); do
        with_socat "$file" >>"$work/socat"
        with_receiver "$file" >>"$work/receiver"
    done
    awk -v name="$1" -v mib="$2" -v goal="$3" -v r="$(median "$work/receiver")" -v s="$(median "$work/socat")" 'BEGIN {
        printf "%-12s %3d MiB  receiver %7.3f s %7.1f MiB/s   socat %7.3f s %7.1f MiB/s   ratio %.3f\n",
            name, mib, r, mib / r, s, mib / s, s / r
        exit s / r < goal }'
}

switch_on --no-wifi
await --log "app file not exist!"
program=$(board status --json | python3 -c 'import json, sys; print(json.load(sys.stdin)["program"]["hostPid"])')
root=/proc/$program/root

echo "Median of $rounds uploads each, from the first byte until the file is stored:"
board exec -- tc qdisc add dev lan0 root tbf rate 100mbit burst 64kb latency 50ms
met=0
compare "100 Mbit/s" 16 0.95 || met=1
board exec -- tc qdisc del dev lan0 root
compare "unshaped" 64 0

echo
echo "Where the receiver spends its time in one unshaped upload of 64 MiB:"
read -r user0 system0 < <(cpu)
lines0=$(lines)
seconds=$(with_receiver "$work/64.bin")
read -r user1 system1 < <(cpu)
awk -v s="$seconds" -v u="$((user1 - user0))" -v k="$((system1 - system0))" -v hz="$(getconf CLK_TCK)" \
    -v n="$(($(lines) - lines0))" 'BEGIN {
    printf "  %.3f s elapsed, %.2f s of user time and %.2f s of system time; %d trace lines\n",
        s, u / hz, k / hz, n }'
if command -v strace >/dev/null; then
    strace -f -c -w -S time -e trace='!futex,poll,ppoll,epoll_wait,clock_nanosleep,wait4' -p "$program" \
        -o "$work/calls" 2>/dev/null &
    tracer=$!
    sleep 0.5 # strace does not report when it has attached.
    with_receiver "$work/64.bin" >/dev/null
    kill -INT "$tracer"
    wait "$tracer" || true
    echo "  system calls of another upload, slowed down by strace, sorted by time:"
    head -8 "$work/calls" | sed 's/^/  /'
fi
exit $met
