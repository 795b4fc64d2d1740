#!/bin/sh
# wifi_connect.sh sta CONF: starts wpa_supplicant on wlan0. Lives in /root.
#
# Called by     the station thread in recovery mode, for each attempt to connect, after `killall -9 udhcpc`, wlan0 down
#               and up, and `killall -9 wpa_supplicant`
# Arguments     "sta" and the supplicant's file, /tmp/wpa_supplicant.conf
# Afterwards    the supplicant runs in the background with CONF unchanged. Its control socket is "wlan0" in the folder
#               that CONF names as ctrl_interface; the supervisor reads the connection's state there. No address is set:
#               `udhcpc -i wlan0` does that later.
# Time          a second or two. It must return: until then the station does nothing else, and a stop of the supervisor
#               waits for it. Do not wait for the connection here; the supervisor tries again once the
#               connection's state has not changed for 60 s.
# Status        ignored. If it fails, the supervisor tries again. After every third failure it first resets the driver,
#               at most three times.
interface=wlan0
driver=nl80211,wext

if [ "${1:-}" != sta ] || [ ! -r "${2:-}" ]; then
    echo "usage: wifi_connect.sh sta CONF" >&2
    exit 1
fi
# A killed supplicant leaves its socket behind.
control=$(sed -n 's/^ctrl_interface=//p' "$2")
[ -z "$control" ] || rm -f "$control/$interface"
exec wpa_supplicant -B -D "$driver" -i "$interface" -c "$2"
