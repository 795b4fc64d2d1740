#!/bin/bash
# Shows the main story on a virtual camera: dead application, recovery over Wi-Fi, new firmware, alive again.
set -euo pipefail

cd "$(dirname "$0")/.."
# shellcheck source=scripts/on_board.bash
. scripts/on_board.bash

now() { date +%s.%N; }
seconds() { echo "$2 $1" | awk '{ printf "%.1f s", $1 - $2 }'; }
phases=()
begin() { printf '\n== %s\n' "$1"; phase=$1 began=$(now); }
end() { phases+=("$(printf '%-62s %8s' "$phase" "$(seconds "$began" "$(now)")")"); }

begin "Make and pack firmware images"
mkdir -p "$work/root/etc"
echo "virtual camera" >"$work/root/etc/issue"
head -c 1500000 /dev/urandom >"$work/root/library"
mksquashfs "$work/root" "$work/rootfs.img" -quiet -no-progress -all-root
make_application bin/network <<'SCRIPT'
#!/bin/sh
ip link set wlan0 up
exec udhcpc -i wlan0
SCRIPT
head -c 1800000 /dev/urandom >"$work/kernel.img"
head -c 300000 /dev/urandom >"$work/uboot.img"
"$bin/kvtool" pack -o "$work/firmware.FLS" "uboot=$work/uboot.img" "kernel=$work/kernel.img" \
    "rootfs=$work/rootfs.img" "app=$work/app.img"
end

begin "The board boots with empty application flash; recovery starts"
switch_on --no-eth
await --boot 1 --log "app file not exist!"
board status
end

begin "The device joins the service Wi-Fi by itself"
await --boot 1 --log "into wifi guard"
board log | grep -E "state:|into wifi guard" | tail -2
end

begin "A technician's laptop finds it by broadcast"
board exec -- "$bin/kvtool" discover --timeout 2
mac=$(board exec -- "$bin/kvtool" discover --timeout 1 --json |
    python3 -c 'import json, sys; print(json.load(sys.stdin)["devices"][0]["mac"])')
end

begin "The package goes over Wi-Fi into flash; kvtool sees the device alive again"
board exec -- "$bin/kvtool" upgrade "$mac" "$work/firmware.FLS"
board status | sed -n '2p'
end

begin "The new application is found, started and alive"
await --boot 2 --log "app file exist!"
await --boot 2 --log "Process cameraMain online"
board log | grep -E "app file exist|online" | head -2
end

printf '\n== Every partition read back\n'
failed=0
for mtd in 0 1 2 3 4 5; do
    board flash read "mtd$mtd" "$work/mtd$mtd.bin"
done
"$bin/kvtool" verify "$work/firmware.FLS" "uboot=$work/mtd0.bin" "uboot=$work/mtd1.bin" "uboot=$work/mtd2.bin" \
    "kernel=$work/mtd3.bin" "rootfs=$work/mtd4.bin" "app=$work/mtd5.bin" || failed=1

printf '\n== Phases\n'
printf '%s\n' "${phases[@]}"
board status --json | python3 -c '
import json, sys
gap = json.load(sys.stdin)["watchdog"]["largestGap"]
print("largest gap between two feeds of the watchdog: %.2f s" % gap)
sys.exit(gap >= 1.3)'
[ "$failed" = 0 ] && printf '\nThe camera is back.\n'
exit "$failed"
