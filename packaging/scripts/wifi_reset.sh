#!/bin/sh
# wifi_reset.sh soft: reloads the radio's driver. Found through PATH.
#
# Called by     the station thread in recovery mode, if connecting keeps failing, if the address or the MAC is missing,
#               or if the link is gone; at most three times before a connection holds again
# Arguments     always "soft"
# Afterwards    wlan0 exists and the driver has lost its state. The caller then stops the supplicant and the DHCP client
#               itself and takes the interface down and up.
# Time          a few seconds; the station tries nothing else meanwhile, and a stop of the supervisor waits for it
# Status        ignored
module=wlan # the radio's kernel module; if the driver is built into the kernel, only the interface is taken down
interface=wlan0
patience=10

if [ "${1:-}" != soft ]; then
    echo "usage: wifi_reset.sh soft" >&2
    exit 1
fi
ifconfig "$interface" down
grep -qs "^$module " /proc/modules || exit 0
rmmod "$module" && modprobe "$module" || exit 1
while [ ! -e "/sys/class/net/$interface" ]; do
    [ $patience -gt 0 ] || exit 1
    patience=$((patience - 1))
    sleep 1
done
