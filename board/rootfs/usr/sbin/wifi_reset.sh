#!/bin/sh
# wifi_reset.sh soft: clears wlan0's state and brings it up again. The driver stays: the access point uses it too.
echo "wifi_reset.sh $*: re-initialising wlan0"
ip link set wlan0 down
ip address flush dev wlan0
ip link set wlan0 up
