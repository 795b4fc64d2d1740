#!/bin/bash
# Fills the sysroot of the ARM builds with the C library and the device program's three libraries, from Debian's
# armhf packages. Prints its folder. A filled sysroot needs no network.
set -euo pipefail

here=$(dirname "$0")
eval "$("$here/armhf_packages.sh" env)"
sysroot=$KV_CACHE/armhf-sysroot
"$here/armhf_packages.sh" unpack "$sysroot" libc6 libc6-dev linux-libc-dev libevent-core-2.1-7 libevent-dev \
    libmd0 libmd-dev liboping0 liboping-dev
# The linker resolves absolute links on the host, so point them into the sysroot.
find "$sysroot" -type l -lname '/*' -printf '%l\t%p\n' |
    while IFS=$'\t' read -r target link; do
        ln -sfrT "$sysroot$target" "$link"
    done
echo "$sysroot"
