#!/bin/sh
# Makes the Debian packages of the release build in build/deb and checks them with lintian. Warnings are errors.
set -eu

cd "$(dirname "$0")/.."
rm -rf build/deb
(cd build/release && cpack)
rm -r build/deb/_CPack_Packages
lintian --allow-root --fail-on error,warning build/deb/*.deb
ls -l build/deb/*.deb
