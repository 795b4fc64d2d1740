#!/bin/bash
# Shows the other half of the story on a virtual camera with a fast clock: an application falls silent for good.
# Restart, reboot, restart again and recovery follow. The script checks their times against those that the supervisor
# promises.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_board.bash
. scripts/on_board.bash
speed=20

say() { printf '\n== %s\n' "$1"; }

say "A camera with its application; the clock runs $speed times as fast"
# shellcheck disable=SC2119 # without a script
make_application
board flash write mtd5 "$work/app.img"
switch_on --no-eth --speed "$speed"
await --boot 1 --log "Process cameraMain online"
board status | head -2

say "The application falls silent for good"
board app silent
await --boot 1 --log "Process [cameraMain] offline"
echo "offline"
await --boot 1 --console-log "# startapp.sh"
echo "the application is started again; it stays silent"
await --boot 2
echo "the device has rebooted: $(cat "$state/boot-2/reason")"
await --boot 2 --console-log "# startapp.sh"
echo "the application is started again; it stays silent"
await --boot 2 --log "MINI ProtocolInit Init Success!"
echo "the supervisor gives up on the application: recovery"

say "The device joins the service Wi-Fi, and a technician finds it"
await --boot 2 --log "into wifi guard"
board exec -- "$bin/kvtool" discover --timeout 2 | tee "$work/found"
grep -q '^1 found$' "$work/found"

say "Timeline, in seconds of the board's clock"
board status --json >"$work/status.json"
board stop
scripts/ladder_times.py "$state" "$speed" "$work/status.json"

say "The same, as kvtool reads it from the device's log"
"$bin/kvtool" ladder --log "$state"/boot-[12]/trace.log
