#!/bin/sh
# wifi_reset.sh soft: reloads the radio's driver; here, wlan0 loses its state and comes up again.
echo "wifi_reset.sh $*: re-initialising wlan0"
ip link set wlan0 down
ip address flush dev wlan0
ip link set wlan0 up
