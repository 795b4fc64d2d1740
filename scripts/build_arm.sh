#!/bin/sh
# build_arm.sh [KIND...]: builds the device program for ARM: dynamic (shared libraries of glibc), static (glibc) and
# musl (static). Without arguments it builds all three. Leaves stripped copies in build/arm/KIND. All keep the file name
# by which the program signals itself.
set -eu

cd "$(dirname "$0")/.."

# The cross compiler's own libraries are made for glibc. In a program on musl only libgcc may come from there: its code
# calls no C library.
check_archives() { # MAP
    foreign=$(grep -o '^/[^(]*\.a(' "$1" | grep -v -e "^$sysroot/" -e '/libgcc\.a($' | sort -u)
    [ -z "$foreign" ] || {
        echo "build_arm: libraries made for glibc are in the program on musl: $foreign" >&2
        exit 1
    }
}

[ $# -gt 0 ] || set -- dynamic static musl
scripts/setup.sh build arm
for kind in "$@"; do
    case $kind in
        dynamic) preset=armhf ;;
        static) preset=armhf-static ;;
        musl) preset=armhf-musl ;;
        *) echo "build_arm: no such kind: $kind" >&2 && exit 2 ;;
    esac
    # CMake calls these scripts only when it configures.
    if [ "$kind" = musl ]; then sysroot=$(scripts/musl_sysroot.sh); else sysroot=$(scripts/arm_sysroot.sh); fi
    scripts/build.sh "$preset" --target upgradeMain
    [ "$kind" != musl ] || check_archives "build/$preset/main/upgradeMain.map"
    mkdir -p "build/arm/$kind"
    arm-linux-gnueabihf-strip -o "build/arm/$kind/upgradeMain" "build/$preset/bin/upgradeMain"
    ls -l "build/arm/$kind/upgradeMain"
done
