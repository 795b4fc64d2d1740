#!/bin/sh
# startapp.sh: starts the camera application in the background. Found through PATH.
#
# Called by     the board once a boot, beside the supervisor; and by the supervisor, once in its life, when the application
#               has been silent for 120 s, after `killall -9 wpa_supplicant`, `sync`, the caches dropped and 3 s of pause
# Arguments     none
# Afterwards    one cameraMain runs, in the background. The old one may hang: ending it is this script's business.
# Time          some seconds. It MUST return: the supervisor's main loop waits for it and counts no silence meanwhile, while
#               the watchdog is fed by another thread. An application started in the foreground is watched by nobody.
# Status        ignored; the supervisor waits for heartbeats, 60 s from here
# Must not      be called cameraMain, nor leave a script of that name running: an upgrade does `killall -9 cameraMain`
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
