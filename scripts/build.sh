#!/bin/sh
# build.sh PRESET [CMAKE-BUILD-ARG...]: configures a preset when it has not been and builds it.
set -eu

cd "$(dirname "$0")/.."
preset=$1
shift
[ -f "build/$preset/build.ninja" ] || cmake --preset "$preset"
cmake --build --preset "$preset" "$@"
