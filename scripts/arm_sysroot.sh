#!/bin/bash
# Fills the sysroot of the ARM builds: the C library and the daemon's three libraries, as Debian builds them for armhf.
# Prints its folder. Needs no network once it is filled.
set -euo pipefail

here=$(dirname "$0")
eval "$("$here/armhf_packages.sh" env)"
sysroot=$KV_CACHE/armhf-sysroot
"$here/armhf_packages.sh" unpack "$sysroot" libc6 libc6-dev linux-libc-dev libevent-core-2.1-7 libevent-dev \
    libmd0 libmd-dev liboping0 liboping-dev
# The linker follows links as the host sees them.
find "$sysroot" -type l -lname '/*' -printf '%l\t%p\n' |
    while IFS=$'\t' read -r target link; do
        ln -sfrT "$sysroot$target" "$link"
    done
echo "$sysroot"
