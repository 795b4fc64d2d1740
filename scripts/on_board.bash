# For scripts that show or measure something on their own virtual board. They source this file in the repository's
# folder. It sets $bin, the folder of the programs; $work, a temporary folder that is removed when the script ends;
# and $state, the board's state folder in it. It also defines the functions below.
# shellcheck shell=bash

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

# Switches the board on, with options of `vboard run`. The board goes off when the script ends.
switch_on() {
    # Not through the function above: finish would then kill the subshell around it, and the board would stay on.
    "$bin/vboard" --state "$state" run --quiet "$@" -- "$bin/upgradeMain" >"$work/runner.log" 2>&1 &
    runner=$!
}

# Waits with the conditions of `vboard wait`. If it times out, the script prints the board's last log lines and fails.
await() {
    board wait --timeout 60 "$@" || {
        echo "$0: not seen: $*; the board's last log lines:" >&2
        board log | tail -20 >&2
        exit 1
    }
}

# Makes $work/app.img, a file system with the stand-in application. With FILE, the file system also contains a script of
# that name, read from standard input.
make_application() { # [FILE]
    mkdir -p "$work/app/bin"
    cp "$bin/cameraMain" "$work/app/bin/cameraMain"
    if [ -n "${1:-}" ]; then
        cat >"$work/app/$1"
        chmod +x "$work/app/$1"
    fi
    mksquashfs "$work/app" "$work/app.img" -quiet -no-progress -all-root
}
