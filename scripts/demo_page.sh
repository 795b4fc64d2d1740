#!/bin/bash
# demo_page.sh [--check]: serves the page of kvtool for a site of five virtual cameras, until Ctrl-C. The address works
# in a browser of this PC. The folder that it prints has packages to drop on the page. With --check, the script asks for
# the page itself, waits until it shows the cameras, and ends.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_site.bash
. scripts/on_site.bash
port=${PORT:-8765}
cameras=5
relays=()

# shellcheck disable=SC2317 # called by the trap
leave() {
    [ ${#relays[@]} -eq 0 ] || kill "${relays[@]}" 2>/dev/null || true
    finish
}
trap leave EXIT

ask() { # PATH: asks as a browser would
    curl -sf --max-time 5 -b "$work/cookies" -c "$work/cookies" "http://127.0.0.1:$port$1"
}

make_application bin/network <<'SCRIPT'
#!/bin/sh
ip link set wlan0 up
exec udhcpc -i wlan0
SCRIPT
head -c 1500000 /dev/urandom >"$work/kernel.img"
mkdir "$work/packages"
"$bin/kvtool" pack -o "$work/packages/camera.FLS" "kernel=$work/kernel.img" "app=$work/app.img" >/dev/null
"$bin/kvtool" pack -o "$work/packages/other-chip.FLS" --ic OTHER "app=$work/app.img" >/dev/null 2>&1
"$bin/kvtool" pack -o "$work/packages/broken.FLS" --force "nowhere=$work/app.img" >/dev/null 2>&1
# Each in a process group of its own: Ctrl-C is for kvtool, which may wait for cameras that are being written.
set -m
open_site --shape 20mbit
site start "$cameras" --no-eth --nor-timing -- "$bin/upgradeMain"
board_of 4 fault mtd5 open --errno EIO --count 1000

# The laptop of the site has a network of its own. Two relays carry connections to it, over a socket in the file system.
# Not through the function "site": leave would then end the subshell around it, and the relay would stay.
"$bin/vboard" site exec --state "$site" -- socat "UNIX-LISTEN:$work/page,fork" "TCP:127.0.0.1:$port" &
relays+=($!)
socat "TCP-LISTEN:$port,bind=127.0.0.1,reuseaddr,fork" "UNIX-CONNECT:$work/page" &
relays+=($!)
set +m
cat <<TEXT

Five cameras wait on a service network of 20 Mbit/s. Camera 4 cannot write its application and will come back in
recovery mode. Packages to try are in $work/packages:
  camera.FLS      for these cameras
  other-chip.FLS  for another chip: the plan refuses it
  broken.FLS      with an error: it needs an override

TEXT
serve=(exec --state "$site" -- "$bin/kvtool" serve --no-browser --port "$port" --journal "$work/journal")
serve+=(--back-timeout 20)
if [ "${1:-}" != --check ]; then
    trap : INT
    status=0
    "$bin/vboard" site "${serve[@]}" || status=$?
    exit "$status"
fi
"$bin/vboard" site "${serve[@]}" >"$work/said" 2>&1 &
relays+=($!)
for _ in $(seq 100); do
    address=$(grep -o 'http://[^ ]*' "$work/said" || true)
    [ -z "$address" ] || break
    sleep 0.1
done
cat "$work/said"
ask "/${address#*"$port/"}" >/dev/null
ask / | grep -q '<title>'
for _ in $(seq 100); do
    found=$(ask /api/state | python3 -c 'import json, sys; print(len(json.load(sys.stdin)["devices"]))')
    [ "$found" != "$cameras" ] || break
    sleep 0.2
done
[ "$found" = "$cameras" ]
echo "The page shows $found cameras."
