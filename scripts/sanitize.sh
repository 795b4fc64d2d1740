#!/bin/sh
# Runs the unit tests under AddressSanitizer and UndefinedBehaviorSanitizer, and under ThreadSanitizer. The tests mostly
# wait, so both runs take place side by side.
set -eu

cd "$(dirname "$0")/.."
for preset in asan tsan; do
    scripts/build.sh "$preset" --target unit_tests
done
run() { ctest --test-dir "build/$1" --output-on-failure -j "$(nproc)" -L unit; }
run asan >build/asan.log 2>&1 &
asan=$!
tsan_status=0
run tsan || tsan_status=$?
asan_status=0
wait "$asan" || asan_status=$?
cat build/asan.log
[ "$asan_status" -eq 0 ] && [ "$tsan_status" -eq 0 ]
