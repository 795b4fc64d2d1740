#!/bin/sh
# wifi_reset.sh soft: wlan0 loses its state and comes up again. The driver stays: it carries the access point too.
echo "wifi_reset.sh $*: re-initialising wlan0"
ip link set wlan0 down
ip address flush dev wlan0
ip link set wlan0 up
