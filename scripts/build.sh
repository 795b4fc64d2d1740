#!/bin/sh
# build.sh PRESET [CMAKE-BUILD-ARG...]: builds a preset, after configuring it if that was not done before.
set -eu

cd "$(dirname "$0")/.."
preset=$1
shift
[ -f "build/$preset/build.ninja" ] || cmake --preset "$preset"
cmake --build --preset "$preset" "$@"
