#!/bin/bash
# pictures.sh [--check]: draws the pictures of docs/heartbeat.md into docs/pictures/ with build/bin/kvtool. With --check
# it writes nothing, and fails if a picture differs from what kvtool draws now, or if the document does not show it.
set -euo pipefail

cd "$(dirname "$0")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/kv-pictures-XXXXXX")
trap 'rm -rf "$work"' EXIT

draw() { # NAME SCRIPT
    build/bin/kvtool ladder --script "$2" --svg "$work/ladder-$1.svg" >/dev/null
}
draw silent 'silent'
draw slow-start 'silent 95s, beat'
draw too-slow 'silent 130s, beat'
draw comes-back 'beat 30s, silent; restart: silent 20s, not-ready 20s, beat'
draw helped-by-reboot 'beat 30s, silent; restart: silent; boot: silent 20s, beat'

if [ "${1:-}" != --check ]; then
    mkdir -p docs/pictures
    cp "$work"/*.svg docs/pictures/
    exit 0
fi
diff -rq "$work" docs/pictures || {
    echo "pictures: not what kvtool draws now; run 'make pictures'" >&2
    exit 1
}
for picture in docs/pictures/*.svg; do
    grep -q "(pictures/${picture##*/})" docs/heartbeat.md || {
        echo "pictures: docs/heartbeat.md does not show $picture" >&2
        exit 1
    }
done
