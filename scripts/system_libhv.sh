#!/bin/sh
# Builds and tests the device program on an installed libhv. KV_LIBHV_PREFIX names its prefix; the script tries
# /usr/local and /usr after it.
set -eu

cd "$(dirname "$0")/.."
prefix=${KV_LIBHV_PREFIX:-}
for place in "$prefix" /usr/local /usr; do
    if [ -n "$place" ] && [ -f "$place/include/hv/hloop.h" ]; then
        found=$place
        break
    fi
done
if [ -z "${found:-}" ]; then
    echo "SKIPPED: no installed libhv (1.3.4 or newer); the device program was tested on the bundled event loop only"
    exit 0
fi
echo "libhv found in $found: building and testing the device program on it"
cmake --preset dev -B build/system-hv -DKV_HV=system -DCMAKE_PREFIX_PATH="$found" \
    -DKV_BIN_DIR="$PWD/build/system-hv/bin"
cmake --build build/system-hv
ctest --test-dir build/system-hv --output-on-failure -j "$(nproc)"
