#!/bin/bash
# Builds libsodium for ARM from Debian's source package and prints the folder that it is installed in. Debian's own
# archive is built for speed and has one section per file: a program that only verifies signatures would take 132 KiB
# of it. Built for size, with a section per function, it takes 40. A filled cache needs no network.
set -euo pipefail
shopt -s inherit_errexit

here=$(cd "$(dirname "$0")" && pwd)
eval "$("$here/armhf_packages.sh" env)"
prefix=$KV_CACHE/armhf-sodium
work=$KV_CACHE/armhf-sodium-build

# An apt root of its own, with the host's sources and keys, for source packages.
fetch_source() {
    local apt=$work/apt file
    mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial" "$apt/sources"
    : >"$apt/status"
    for file in /etc/apt/sources.list.d/*.sources; do
        [ ! -f "$file" ] || sed 's/^Types:.*/Types: deb-src/' "$file" >"$apt/sources/${file##*/}"
    done
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
        [ ! -f "$file" ] || sed -n 's/^deb /deb-src /p' "$file" >"$apt/sources/${file##*/}"
    done
    cat >"$apt/apt.conf" <<END
APT::Sandbox::User "root";
Dir::State "$apt";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
Dir::Etc::sourcelist "/dev/null";
Dir::Etc::sourceparts "$apt/sources";
Acquire::Languages "none";
END
    export APT_CONFIG=$apt/apt.conf
    echo "arm_sodium: reading the lists of source packages (about 10 MB)" >&2
    apt-get -q -o APT::Update::Post-Invoke-Success= update >&2 ||
        echo "arm_sodium: some lists are missing; trying with the others" >&2
    (cd "$work" && apt-get -q source --download-only libsodium >&2)
    unset APT_CONFIG
    # apt has checked the files' digests against the signed list.
    dpkg-source --no-check -x "$work"/libsodium_*.dsc "$work/tree" >&2
}

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
    fetch_source
    build >"$work/log" 2>&1 || { tail -n 20 "$work/log" >&2 && exit 1; }
    mv "$prefix.new" "$prefix"
    rm -rf "$work"
fi
echo "$prefix"
