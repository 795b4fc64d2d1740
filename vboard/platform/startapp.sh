#!/bin/sh
# startapp.sh: starts the camera application in the background.
app=/opt/app/bin/cameraMain
if [ ! -x "$app" ]; then
    echo "startapp.sh: $app is not installed"
    exit 1
fi
"$app" </dev/null &
