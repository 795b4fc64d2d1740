#!/bin/sh
# startapp.sh: starts the camera application in the background. Found through PATH.
#
# Called by     the board once per boot, beside the supervisor. Also by the supervisor, once in its life, when the
#               application has been silent for 120 s. Before that call the supervisor runs `killall -9 wpa_supplicant`
#               and `sync`, drops the caches and waits 3 s.
# Arguments     none
# Afterwards    one cameraMain runs in the background. The old one may hang: this script must end it.
# Time          a few seconds. It MUST return. The supervisor's main loop waits for it and checks nothing meanwhile,
#               while another thread feeds the watchdog: nobody would watch an application started in the foreground.
# Status        ignored. The supervisor waits for heartbeats until 60 s after the check that found the 120 s of silence.
# Must not      be called cameraMain or leave a script of that name running: an upgrade runs `killall -9 cameraMain`
app=/opt/app/bin/cameraMain
patience=5

[ -x "$app" ] || exit 1
killall -9 cameraMain 2>/dev/null
while killall -0 cameraMain 2>/dev/null; do
    [ $patience -gt 0 ] || exit 1
    patience=$((patience - 1))
    sleep 1
done
cd / || exit 1
"$app" </dev/null >/dev/console 2>&1 &
