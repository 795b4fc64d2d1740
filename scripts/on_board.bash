# For scripts that show or measure something on a virtual board of their own; they source this file in the repository's
# folder. Gives $bin, the programs; $work, a folder that goes with the script; $state, the board's state in it; and the
# functions below. shellcheck shell=bash

bin=$PWD/build/bin
work=$(mktemp -d "${TMPDIR:-/tmp}/kv-board-XXXXXX")
state=$work/board
runner=

# shellcheck disable=SC2317 # called by the trap
finish() {
    [ -z "$runner" ] || { kill "$runner" 2>/dev/null || true; wait "$runner" 2>/dev/null || true; }
    rm -rf "$work"
}
trap finish EXIT

board() { "$bin/vboard" --state "$state" "$@"; }

# Switches the board on, with options of `vboard run`. It goes off with the script.
switch_on() {
    # Not through the function above: the shell around it would be what is ended, and the board would stay.
    "$bin/vboard" --state "$state" run --quiet "$@" -- "$bin/upgradeMain" >"$work/runner.log" 2>&1 &
    runner=$!
}

# Waits for what `board wait` knows; without it the script ends with the board's last words.
await() {
    board wait --timeout 60 "$@" || {
        echo "$0: not seen: $*; the board's last words:" >&2
        board log | tail -20 >&2
        exit 1
    }
}

# Makes $work/app.img, a file system with the stand-in application.
make_application() {
    mkdir -p "$work/app/bin"
    cp "$bin/cameraMain" "$work/app/bin/cameraMain"
    mksquashfs "$work/app" "$work/app.img" -quiet -no-progress -all-root
}
