#!/bin/sh
# load.sh [thread|address]: abuses the release program, or one built with this sanitizer. Rewrites docs/soak.md if no
# goal is missed.
set -eu

cd "$(dirname "$0")/../.."
case ${1:-} in
    "") exec bench/soak/load.py build/bin --docs docs ;;
    thread) preset=tsan ;;
    address) preset=asan ;;
    *) echo "load: no such sanitizer: $1 (thread or address)" >&2 && exit 2 ;;
esac
scripts/build.sh "$preset" --target upgradeMain
exec bench/soak/load.py build/bin --program "build/$preset/bin/upgradeMain" --sanitizer "$1" --docs docs
