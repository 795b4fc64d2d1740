#!/bin/sh
# What the device program weighs, for this machine and for ARM, against the committed figures (scripts/size.txt).
# Arguments go to size.py. Without cross compiler and ARM libraries, which need the network once, ARM is left out aloud.
set -eu

cd "$(dirname "$0")/.."
builds=host
if scripts/setup.sh arm && scripts/arm_sysroot.sh >/dev/null; then
    scripts/build_arm.sh
    builds="host armhf armhf-static"
else
    echo "SKIPPED: the ARM builds were not measured: no cross compiler or no ARM libraries, and no network for them" >&2
fi
# shellcheck disable=SC2086 # a list of words
exec scripts/size.py "$@" $builds
