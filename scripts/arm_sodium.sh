#!/bin/bash
# Builds libsodium for ARM from Debian's source package and prints the folder that it is installed in. Debian's own
# archive is built for speed and has one section per file: a program that only verifies signatures would take 132 KiB
# of it. Built for size, with a section per function, it takes 40 KiB. A filled cache needs no network.
set -euo pipefail
shopt -s inherit_errexit

here=$(cd "$(dirname "$0")" && pwd)
eval "$("$here/armhf_packages.sh" env)"
prefix=$KV_CACHE/armhf-sodium
work=$KV_CACHE/armhf-sodium-build

build() {
    local sysroot
    sysroot=$("$here/arm_sysroot.sh")
    cd "$work/tree"
    autoreconf -fi
    ./configure --host=arm-linux-gnueabihf --prefix=/ --disable-shared --disable-dependency-tracking \
        CC="arm-linux-gnueabihf-gcc --sysroot=$sysroot -B$sysroot/usr/lib/arm-linux-gnueabihf" \
        CFLAGS="-Os -ffunction-sections -fdata-sections"
    make -j "$(nproc)" -C src/libsodium
    make -C src/libsodium install DESTDIR="$prefix.new"
}

mkdir -p "$KV_CACHE"
exec 9>"$KV_CACHE/armhf-sodium.lock"
flock 9
if [ ! -f "$prefix/lib/libsodium.a" ]; then
    rm -rf "$work" "$prefix" "$prefix.new"
    mkdir -p "$work"
    # Unpacking prints its progress.
    dpkg-source --extract "$("$here/armhf_packages.sh" source libsodium)"/*.dsc "$work/tree" >&2
    build >"$work/log" 2>&1 || { tail -n 20 "$work/log" >&2 && exit 1; }
    mv "$prefix.new" "$prefix"
    rm -rf "$work"
fi
echo "$prefix"
