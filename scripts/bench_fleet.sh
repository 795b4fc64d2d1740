#!/bin/bash
# bench_fleet.sh [JOBS...]: measures how long 1, 5 and 20 boards take to join a site, how long `kvtool fleet upgrade`
# takes for them, and its CPU time and memory. The boards share a radio channel of 40 Mbit/s. Their flash is as slow as
# a real chip. With JOBS, it measures 20 boards with each of these numbers of jobs.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_site.bash
. scripts/on_site.bash

make_application bin/network <<'SCRIPT'
#!/bin/sh
ip link set wlan0 up
exec udhcpc -i wlan0
SCRIPT
head -c 2000000 /dev/urandom >"$work/kernel.img"
head -c 4000000 /dev/urandom >"$work/rootfs.img"
"$bin/kvtool" pack -o "$work/fw.FLS" "kernel=$work/kernel.img" "rootfs=$work/rootfs.img" "app=$work/app.img" >/dev/null
size=$(stat -c %s "$work/fw.FLS")
single=

measure() { # BOARDS JOBS
    open_site --shape 40mbit
    local began=$EPOCHREALTIME
    site start "$1" --no-eth --nor-timing -- "$bin/upgradeMain"
    awk -v boards="$1" -v began="$began" -v now="$EPOCHREALTIME" \
        'BEGIN { printf "%3s boards joined in %.1f s\n", boards, now - began }'
    site exec -- python3 - "$bin/kvtool" "$work/fw.FLS" "$work/journal.$1.$2" "$2" "$1" "$size" "$single" <<'PYTHON'
import resource, subprocess, sys, time
tool, package, journal, jobs, boards, size, single = sys.argv[1:]
start = time.monotonic()
code = subprocess.run([tool, "fleet", "upgrade", package, "--all", "--yes", "--journal", journal, "--jobs", jobs],
                      stdout=subprocess.DEVNULL).returncode
wall = time.monotonic() - start
usage = resource.getrusage(resource.RUSAGE_CHILDREN)
air = int(boards) * int(size) * 8 / 40e6
print("%3s boards, %3s jobs: %6.1f s; bytes over rate %5.1f s%s; kvtool %.2f s of CPU, %.1f MiB; exit %d" %
      (boards, jobs, wall, air, ", a single board %s s" % single if single else "",
       usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024, code), flush=True)
open(journal + ".wall", "w").write("%.1f" % wall)
sys.exit(code)
PYTHON
    [ "$1" != 1 ] || single=$(cat "$work/journal.$1.$2.wall")
    close_site
}

if [ $# -gt 0 ]; then
    for jobs in "$@"; do
        measure 20 "$jobs"
    done
    exit 0
fi
measure 1 20
measure 5 20
measure 20 20
