#!/bin/sh
# build.sh PRESET [CMAKE-BUILD-ARG...]: configures a preset if necessary, and builds it.
set -eu

cd "$(dirname "$0")/.."
preset=$1
shift
[ -f "build/$preset/build.ninja" ] || cmake --preset "$preset"
cmake --build --preset "$preset" "$@"
