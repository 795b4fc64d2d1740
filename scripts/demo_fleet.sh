#!/bin/bash
# Upgrades eight virtual cameras at once over one radio channel. One loses its link during the upload, and one comes
# back in recovery mode. kvtool is killed in the middle and then resumes. A table shows the result for each camera.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_site.bash
. scripts/on_site.bash

began=$(date +%s)
say() { printf '\n== %s\n' "$*"; }
mac() { printf '02:76:62:02:00:%02X' "$1"; }
journal=$work/journal
kvtool() { site exec -- "$bin/kvtool" "$@"; }
upgrade=(fleet upgrade "$work/firmware.FLS" --yes --journal "$journal" --stall-timeout 5)

# Waits until the device has entered the state, according to the journal.
await_state() { # DEVICE STATE
    for _ in $(seq 600); do
        ! grep -q "\"device\":\"$1\",\"state\":\"$2\"" "$journal" 2>/dev/null || return 0
        sleep 0.1
    done
    echo "$0: $1 was not seen $2" >&2
    return 1
}

say "Build a package; eight cameras without an application join the service network"
make_application bin/network <<'SCRIPT'
#!/bin/sh
ip link set wlan0 up
exec udhcpc -i wlan0
SCRIPT
head -c 1000000 /dev/urandom >"$work/kernel.img"
"$bin/kvtool" pack -o "$work/firmware.FLS" "kernel=$work/kernel.img" "app=$work/app.img"
open_site --shape 40mbit
site start 8 --no-eth -- "$bin/upgradeMain"
board_of 5 fault mtd5 open --errno EIO --count 1000
kvtool fleet upgrade "$work/firmware.FLS" --all --dry-run

say "Upgrade all at once; camera 3 loses its link during the upload; kvtool is killed once two have accepted"
kvtool "${upgrade[@]}" --all >"$work/first.log" 2>&1 &
run=$!
await_state "$(mac 3)" uploading
board_of 3 ap down
await_state "$(mac 1)" accepted
await_state "$(mac 5)" accepted
kill -KILL "$(sed -n '1s/.*"process":\([0-9]*\).*/\1/p' "$journal")"
wait "$run" || true
kvtool fleet report "$journal" | cut -c1-150

say "kvtool resumes; camera 3 is still away, camera 5 could not write its application to flash"
status=0
kvtool "${upgrade[@]}" --resume 2>&1 | grep -vE ': (connect|login|identify|upload|trailer|verification):' || status=$?
[ "$status" = 13 ]

say "The result for each camera"
kvtool fleet report "$journal" --json | python3 -c '
import json, sys
devices = {device["device"]: device for device in json.load(sys.stdin)["devices"]}
for device in sorted(devices):
    row = devices[device]
    seconds = {phase["name"]: phase["seconds"] for phase in row["phases"]}
    print("%s  %-15s %-7s upload %4.1f s  %s" % (device, row["address"], row["state"], seconds.get("upload", 0),
                                                "" if row["state"] == "done" else row["text"]))
expected = {3: 4, 5: 9}
for number in range(1, 9):
    row = devices["02:76:62:02:00:%02X" % number]
    assert row["code"] == expected.get(number, 0) and (row["state"] == "done") == (number not in expected), row
'
printf '\nSix cameras are back, and the table names the two that failed; %s s.\n' "$(($(date +%s) - began))"
