#!/bin/sh
# Builds the device program for ARM, dynamically and statically linked, and leaves stripped copies in build/arm/dynamic
# and build/arm/static. Both keep the file name by which the program signals itself. With TRUSTED_KEY, a file of public
# keys, it builds the program that accepts only signed packages into build/arm/dynamic-signed and static-signed.
set -eu

cd "$(dirname "$0")/.."
scripts/setup.sh build arm
scripts/arm_sysroot.sh >/dev/null
suffix=
if [ -n "${TRUSTED_KEY:-}" ]; then
    suffix=-signed
    scripts/setup.sh arm_signed
    sodium=$(scripts/arm_sodium.sh)
fi
for kind in dynamic static; do
    case $kind in
        dynamic) preset=armhf ;;
        static) preset=armhf-static ;;
    esac
    if [ -n "$suffix" ]; then
        cmake --preset "$preset" -B "build/$preset$suffix" "-DKV_TRUSTED_KEY=$(realpath "$TRUSTED_KEY")" \
            "-DSodium_INCLUDE_DIR=$sodium/include" "-DSodium_LIBRARY=$sodium/lib/libsodium.a" \
            "-DSodium_ARCHIVE=$sodium/lib/libsodium.a"
        cmake --build "build/$preset$suffix" --target upgradeMain
    else
        scripts/build.sh "$preset" --target upgradeMain
    fi
    mkdir -p "build/arm/$kind$suffix"
    arm-linux-gnueabihf-strip -o "build/arm/$kind$suffix/upgradeMain" "build/$preset$suffix/bin/upgradeMain"
done
ls -l build/arm/*/upgradeMain
