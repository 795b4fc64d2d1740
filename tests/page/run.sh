#!/bin/bash
# run.sh [--fetch | FOLDER]: drives real browsers through the page of `kvtool serve`, on the laptop of a site of virtual
# boards. Browsers, server and test run in the laptop's network, so nothing leaves it. With FOLDER, it writes the
# pictures for the documents there. With --fetch it only downloads the test's npm packages, if they are missing.
set -euo pipefail

cd "$(dirname "$0")/../.."
# shellcheck source=scripts/on_site.bash
. scripts/on_site.bash

modules=build/page-test
if ! cmp -s tests/page/package-lock.json "$modules/package-lock.json"; then
    rm -rf "$modules"
    mkdir -p "$modules"
    # The test drives the installed browsers, so none is fetched.
    cp tests/page/package.json tests/page/package-lock.json "$modules"
    # npm brings certificates of its own; this adds those that the system trusts.
    NODE_EXTRA_CA_CERTS=${NODE_EXTRA_CA_CERTS:-/etc/ssl/certs/ca-certificates.crt} \
        PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --prefix "$modules" --no-audit --no-fund --loglevel=error || {
        rm -rf "$modules"
        echo "tests/page: the npm packages of the test are not available" >&2
        exit 1
    }
fi
[ "${1-}" != --fetch ] || exit 0

make_application bin/network <<'SCRIPT' >"$work/app.log"
#!/bin/sh
ip link set wlan0 up
exec udhcpc -i wlan0
SCRIPT
open_site --shape 16mbit
pictures=
if [ $# -gt 0 ]; then
    mkdir -p "$1"
    pictures=$(realpath "$1")
fi
site exec -- env KV_BIN="$bin" KV_SITE="$site" KV_WORK="$work" KV_PICTURES="$pictures" \
    node tests/page/page_test.mjs
[ -z "$pictures" ] || pngquant --force --ext .png --strip "$pictures"/*.png
