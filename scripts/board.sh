#!/bin/sh
# board.sh fetch | image | run [A|B|C|D...] [--program KIND] | shell: runs the program on emulated ARM boards with a
# real kernel (docs/board.md).
# "fetch" only installs and downloads what the other commands need. They fetch it themselves if it is missing. "image"
# only makes what the boards boot.
set -eu

cd "$(dirname "$0")/.."
case ${1-} in
    fetch | image | run | shell) ;;
    *) echo "usage: board.sh fetch | image | run [A|B|C|D...] [--program KIND] | shell" >&2 && exit 2 ;;
esac
cache=${KV_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/upgrademain}
out=$PWD/build/board

if [ ! -d "$cache/board-packages" ]; then
    echo "board: the first run downloads about 140 MB: an emulator and a cross compiler, which it installs, and"
    echo "board: ARM packages, which stay in $cache for later runs"
fi
scripts/setup.sh build arm board scripts
scripts/arm_sysroot.sh >/dev/null
scripts/musl_sysroot.sh >/dev/null
board/packages.sh >/dev/null
[ "$1" != fetch ] || exit 0

command=$1
shift
scripts/build_arm.sh
mkdir -p "$out"
arm-linux-gnueabihf-g++ -std=c++17 -Os -static -s -I. -o "$out/cameraMain" vboard/app/camera_main.cpp
arm-linux-gnueabihf-g++ -std=c++17 -Os -static -s -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -o "$out/set_clock" \
    board/set_clock.cpp
board/image.sh "$out" build/arm
case $command in
    image) ;;
    run) exec python3 -B board/acceptance run "$out" build/bin/kvtool "$out/cameraMain" "$@" ;;
    shell) exec python3 -B board/acceptance shell "$out" ;;
esac
