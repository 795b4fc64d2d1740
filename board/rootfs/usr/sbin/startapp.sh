#!/bin/sh
# startapp.sh: starts the camera application in the background.
/opt/app/bin/cameraMain </dev/null >/dev/console 2>&1 &
