#!/bin/sh
# Runs the unit tests under AddressSanitizer and UndefinedBehaviorSanitizer, then under ThreadSanitizer.
set -eu

cd "$(dirname "$0")/.."
for preset in asan tsan; do
    scripts/build.sh "$preset" --target unit_tests
    ctest --test-dir "build/$preset" --output-on-failure -j "$(nproc)" -L unit
done
