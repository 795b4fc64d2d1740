#!/bin/sh
# wifi_connect.sh sta CONF: starts wpa_supplicant on wlan0 with the caller's file.
[ "${1:-}" = sta ] || exit 1
exec wpa_supplicant -B -D nl80211 -i wlan0 -c "$2"
