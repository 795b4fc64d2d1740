#!/bin/sh
# access_point.sh create | start | stop: controls the service network's access point. It is the second radio, bridged
# with the Ethernet in its own network namespace, so the supervisor can reach it only over the air.
pid_file=/run/access_point.namespace
inside() { nsenter -t "$(cat $pid_file)" -n "$@"; }

start() { inside hostapd -B -P /run/hostapd.pid /etc/hostapd.conf; }

case $1 in
create)
    unshare -n sh -c "echo \$\$ >$pid_file; exec sleep 2147483647" &
    until [ -s $pid_file ]; do usleep 20000; done
    iw phy phy1 set netns "$(cat $pid_file)"
    ip link set eth0 netns "$(cat $pid_file)"
    inside ip link set lo up
    inside ip link add br0 type bridge
    inside ip link set eth0 master br0
    inside ip link set eth0 up
    inside ip link set br0 up
    start
    ;;
start) start ;;
stop) kill "$(cat /run/hostapd.pid)" ;;
esac
