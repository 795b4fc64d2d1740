#!/bin/sh
# upgrade_prepare.sh: what the board must have ready before the supervisor starts.
#
# Called by     the start script, the inittab or the unit, once a boot, as root, before upgradeMain
# Afterwards    127.0.0.1 answers; the reset button's value file is there and is an input; /param/var exists; the pipes of
#               the debugging console exist. /param, /tmp and /opt/app are mounted before, by the board's own scripts.
# Time          at once
# Status        not 0 when something is missing; the supervisor is started all the same, and lives without it
gpio=26
lines=/sys/class/gpio
status=0

ifconfig lo 127.0.0.1 up || status=1

# The name in upper case is the vendor kernel's; see docs/porting.md for others.
[ -e "$lines/GPIO$gpio" ] || echo "$gpio" >"$lines/export"
echo in >"$lines/GPIO$gpio/direction" || status=1
[ -r "$lines/GPIO$gpio/value" ] || status=1

mkdir -p /param/var /tmp/bin || status=1
for pipe in /tmp/bin/cmd_link_snd /tmp/bin/cmd_link_ack; do
    [ -p "$pipe" ] || mkfifo -m 600 "$pipe" || status=1
done
exit $status
