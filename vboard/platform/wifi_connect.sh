#!/bin/sh
# wifi_connect.sh sta CONF: starts wpa_supplicant on wlan0 with the caller's file, unchanged.
#
# The radio is a wire, so the driver has no key handshake. This script plays the access point: it admits a network that
# gives its SSID and pass phrase, by telling the running supplicant (not the file) that the network is open. Any other
# network stays unassociated. Losing the carrier ends the association; getting it back renews it.
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
# An association that began before the network was opened would keep its old settings, so each one starts afresh.
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

# The supplicant has started to associate by itself, with the keys in the file.
wpa disconnect >/dev/null
if [ "$(wpa get_network 0 ssid)" != "\"$ap_ssid\"" ] || ! grep -q "psk=\"$ap_psk\"" "$conf"; then
    echo "wifi_connect.sh: the access point \"$ap_ssid\" does not accept this network"
    exit 0
fi
wpa set_network 0 key_mgmt NONE >/dev/null

# Start the monitor first and then read the current state, so that no change is missed.
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
