#!/bin/sh
# Compares the size of the device program, for this machine and for ARM, with the committed figures (scripts/size.txt).
# Passes its arguments to size.py. Without a cross compiler and ARM libraries, ARM is skipped with a message; fetching
# them needs the network once.
set -eu

cd "$(dirname "$0")/.."
builds=host
if scripts/setup.sh arm && scripts/arm_sysroot.sh >/dev/null; then
    scripts/build_arm.sh dynamic static
    builds="host armhf armhf-static"
    status=0
    scripts/musl_sysroot.sh >/dev/null || status=$?
    case $status in
        0)
            scripts/build_arm.sh musl
            builds="$builds armhf-musl"
            ;;
        2) exit 2 ;;
        *) echo "SKIPPED: the ARM build on musl was not measured: its libraries could not be fetched" >&2 ;;
    esac
else
    echo "SKIPPED: the ARM builds were not measured: no cross compiler or ARM libraries, and no way to fetch them" >&2
fi
# shellcheck disable=SC2086 # a list of words
exec scripts/size.py "$@" $builds
