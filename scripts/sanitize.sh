#!/bin/sh
# Runs the unit tests under AddressSanitizer and UndefinedBehaviorSanitizer, and under ThreadSanitizer. The tests mostly
# wait, so both runs take place side by side.
set -eu

cd "$(dirname "$0")/.."
for preset in asan tsan; do
    scripts/build.sh "$preset" --target unit_tests
done
options="--output-on-failure -j $(nproc) -L unit"
# In a session of its own, so that a stop of this script can end all of it.
# shellcheck disable=SC2086 # one word per option
setsid ctest --test-dir build/asan $options >build/asan.log 2>&1 &
asan=$!
trap 'kill -- "-$asan"; exit 130' INT TERM
tsan_status=0
# shellcheck disable=SC2086
ctest --test-dir build/tsan $options || tsan_status=$?
asan_status=0
wait "$asan" || asan_status=$?
trap - INT TERM
cat build/asan.log
[ "$asan_status" -eq 0 ] && [ "$tsan_status" -eq 0 ]
