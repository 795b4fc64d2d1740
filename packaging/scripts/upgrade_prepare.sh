#!/bin/sh
# upgrade_prepare.sh: prepares the board before the supervisor starts.
#
# Called by     the start script, the inittab or the unit, once per boot, as root, before upgradeMain. By then the
#               board's own scripts have mounted /param, /tmp and /opt/app.
# Afterwards    127.0.0.1 answers; the reset button's value file exists and is an input; /param/var and the pipes of the
#               debugging console exist
# Time          returns at once
# Status        not 0 if something is missing. The supervisor is started anyway and works without it.
gpio=26
lines=/sys/class/gpio
status=0

ifconfig lo 127.0.0.1 up || status=1

# The upper-case name comes from the vendor's kernel; see docs/porting.md for others.
[ -e "$lines/GPIO$gpio" ] || echo "$gpio" >"$lines/export"
echo in >"$lines/GPIO$gpio/direction" || status=1
[ -r "$lines/GPIO$gpio/value" ] || status=1

mkdir -p /param/var /tmp/bin || status=1
for pipe in /tmp/bin/cmd_link_snd /tmp/bin/cmd_link_ack; do
    [ -p "$pipe" ] || mkfifo -m 600 "$pipe" || status=1
done
exit $status
