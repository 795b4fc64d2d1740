#!/bin/sh
# build_arm.sh [KIND...]: builds the device program for ARM: dynamic (shared libraries of glibc), static (glibc) and
# musl (static). Without arguments it builds all three. Leaves stripped copies in build/arm/KIND. All keep the file name
# by which the program signals itself. With TRUSTED_KEY, a file of public keys, it builds the program that accepts only
# signed packages into build/arm/KIND-signed: dynamic and static, since the library for that is built for glibc.
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

suffix=
if [ -n "${TRUSTED_KEY:-}" ]; then
    suffix=-signed
    key=$(realpath -e "$TRUSTED_KEY")
    [ $# -gt 0 ] || set -- dynamic static
fi
[ $# -gt 0 ] || set -- dynamic static musl
scripts/setup.sh build arm
[ -z "$suffix" ] || sodium=$(scripts/arm_sodium.sh)
for kind in "$@"; do
    case $kind in
        dynamic) preset=armhf ;;
        static) preset=armhf-static ;;
        musl) preset=armhf-musl ;;
        *) echo "build_arm: no such kind: $kind" >&2 && exit 2 ;;
    esac
    # CMake calls these scripts only when it configures.
    if [ "$kind" = musl ]; then sysroot=$(scripts/musl_sysroot.sh); else sysroot=$(scripts/arm_sysroot.sh); fi
    if [ -n "$suffix" ]; then
        cmake --preset "$preset" -B "build/$preset$suffix" "-DKV_TRUSTED_KEY=$key" \
            "-DSodium_INCLUDE_DIR=$sodium/include" "-DSodium_LIBRARY=$sodium/lib/libsodium.a" \
            "-DSodium_ARCHIVE=$sodium/lib/libsodium.a"
        cmake --build "build/$preset$suffix" --target upgradeMain
    else
        scripts/build.sh "$preset" --target upgradeMain
    fi
    [ "$kind" != musl ] || check_archives "build/$preset$suffix/main/upgradeMain.map"
    mkdir -p "build/arm/$kind$suffix"
    arm-linux-gnueabihf-strip -o "build/arm/$kind$suffix/upgradeMain" "build/$preset$suffix/bin/upgradeMain"
    ls -l "build/arm/$kind$suffix/upgradeMain"
done
