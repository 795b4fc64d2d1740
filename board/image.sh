#!/bin/bash
# image.sh OUT PROGRAMS: makes the files that the emulated board boots, in the folder OUT: kernel, device tree
# (board.dtb) and root file system (initramfs). PROGRAMS is a folder with dynamic/upgradeMain, static/upgradeMain and
# musl/upgradeMain. OUT already holds set_clock.
# Packages come from the cache; a filled cache needs no network.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
out=$1
programs=$2
PATH=$PATH:/usr/sbin:/sbin # an ordinary user's PATH lacks depmod and modprobe

# Installs the packages' programs and libraries, without plug-ins, into one /usr, as on a Debian with merged /usr.
install_packages() { # ROOT
    local root=$1 arch=arm-linux-gnueabihf
    mkdir -p "$root"/usr/{bin,sbin,lib/"$arch"} "$root"/{dev,proc,sys,run,tmp,param,opt/app,root,etc}
    ln -s usr/bin usr/sbin usr/lib "$root/"
    ln -s "$arch/ld-linux-armhf.so.3" "$root/usr/lib/ld-linux-armhf.so.3"
    cp "$packages"/bin/busybox "$root/usr/bin/"
    cp "$packages"/sbin/{wpa_supplicant,iw} "$packages/usr/sbin/hostapd" "$root/usr/sbin/"
    find "$packages"/{lib,usr/lib}/"$arch" -maxdepth 1 -name '*.so*' -exec cp -P -t "$root/usr/lib/$arch" {} +
}

# Installs the modules and their dependencies, numbered in load order.
install_modules() { # ROOT
    local modules=$1/usr/lib/board-modules number=100 verb file
    mkdir -p "$modules"
    depmod -b "$packages" "$version"
    sed 's/#.*//' "$here/modules.txt" | xargs modprobe -d "$packages" -S "$version" --show-depends -a |
        awk '!seen[$0]++' |
        while read -r verb file _; do
            [ "$verb" = insmod ] || continue
            number=$((number + 1))
            cp "$file" "$modules/$number-$(basename "$file")"
        done
}

make_root() { # ROOT
    local root=$1
    install_packages "$root"
    install_modules "$root"
    cp -r "$here/rootfs/." "$root/"
    ln -s ../usr/bin/busybox "$root/sbin/init"
    ln -s usr/bin/busybox "$root/init"
    cp "$out/set_clock" "$root/usr/sbin/"
    cp -r "$programs" "$root/usr/lib/supervisor"
}

mkdir -p "$out"
work=$(mktemp -d "$out/image-XXXXXX")
trap 'rm -rf "$work"' EXIT
read -r packages version <<<"$("$here/packages.sh")"
make_root "$work"
(cd "$work" && find . | cpio --quiet -o -H newc -R 0:0) >"$out/initramfs"
"$here/kernel_image.py" "$packages/boot/vmlinuz-$version" "$out/kernel"
"$here/device_tree.sh" "$packages/usr/lib/linux-image-$version/aspeed-ast2600-evb.dtb" "$out/board.dtb"
