#!/bin/sh
# wifi_connect.sh sta CONF: starts wpa_supplicant on wlan0 with the caller's file, unchanged.
#
# The radio is a wire, so there is no key handshake to be had from the driver. The access point's
# part is played here: a network that names its SSID and pass phrase is let in (the running
# supplicant, not the file, is told that the network is open); any other stays unassociated. Losing
# the carrier ends an association, getting it back renews it.
set -u
ap_ssid="test"
ap_psk=24681357

if [ "${1:-}" != sta ] || [ ! -r "${2:-}" ]; then
    echo "usage: wifi_connect.sh sta CONF" >&2
    exit 1
fi
conf=$2

if [ -e /run/wifi_radio.pid ]; then
    kill "$(cat /run/wifi_radio.pid)" 2>/dev/null
    rm -f /run/wifi_radio.pid
fi
wpa_supplicant -D wired -i wlan0 -c "$conf" -B || exit 1

wpa() {
    wpa_cli -p "$(sed -n 's/^ctrl_interface=//p' "$conf")" -i wlan0 "$@"
}
# An association that began before the network was opened would keep its old terms, so each one begins anew.
radio() {
    wpa disconnect >/dev/null
    if [ "$1" = up ]; then
        wpa reassociate >/dev/null
    fi
}
carrier() {
    case "$1" in
    *LOWER_UP*) echo up ;;
    *) echo down ;;
    esac
}

# The supplicant has begun to associate by itself, with the keys in the file.
wpa disconnect >/dev/null
if [ "$(wpa get_network 0 ssid)" != "\"$ap_ssid\"" ] || ! grep -q "psk=\"$ap_psk\"" "$conf"; then
    echo "wifi_connect.sh: the access point \"$ap_ssid\" does not accept this network"
    exit 0
fi
wpa set_network 0 key_mgmt NONE >/dev/null

# The monitor is started first and told the present state by hand, so that no change is missed.
mkfifo /run/wifi_radio.$$
ip -o monitor link dev wlan0 >/run/wifi_radio.$$ 2>/dev/null &
monitor=$!
echo $monitor >/run/wifi_radio.pid
(
    exec </run/wifi_radio.$$
    rm -f /run/wifi_radio.$$
    last=$(carrier "$(ip -o link show dev wlan0)")
    radio "$last"
    while read -r line; do
        now=$(carrier "$line")
        if [ "$now" != "$last" ]; then
            radio "$now"
            last=$now
        fi
    done
) >/dev/null 2>&1 &
