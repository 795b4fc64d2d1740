#!/bin/sh
# wifi_reset.sh soft: reloads the radio's driver on a device; here, it resets wlan0 and brings it up again.
echo "wifi_reset.sh $*: re-initialising wlan0"
ip link set wlan0 down
ip address flush dev wlan0
ip link set wlan0 up
