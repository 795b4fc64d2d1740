#!/bin/sh
# Builds the device program for ARM, dynamically and statically linked, and leaves stripped copies in build/arm/dynamic
# and build/arm/static. Both keep the file name by which the program signals itself.
set -eu

cd "$(dirname "$0")/.."
scripts/setup.sh build arm
scripts/arm_sysroot.sh >/dev/null
for kind in dynamic static; do
    case $kind in
        dynamic) preset=armhf ;;
        static) preset=armhf-static ;;
    esac
    scripts/build.sh "$preset" --target upgradeMain
    mkdir -p "build/arm/$kind"
    arm-linux-gnueabihf-strip -o "build/arm/$kind/upgradeMain" "build/$preset/bin/upgradeMain"
done
ls -l build/arm/*/upgradeMain
