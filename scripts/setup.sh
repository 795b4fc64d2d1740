#!/bin/sh
# setup.sh [LIST]: installs the packages of LIST (packages.txt) that are missing: as root, or through sudo. Needs no network
# when nothing is missing.
set -eu

list=$(dirname "$0")/${1:-packages.txt}
wanted=$(sed 's/#.*//' "$list")

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    # shellcheck disable=SC2086 # one word a package
    echo "setup: this system has no apt; please install what corresponds to these Debian packages:" $wanted >&2
    exit 1
fi

missing=
for package in $wanted; do
    case $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true) in
        installed) ;;
        *) missing="$missing $package" ;;
    esac
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" = 0 ]; then
    as_root=
elif command -v sudo >/dev/null; then
    as_root=sudo
else
    echo "setup: not root and no sudo; please have these packages installed:$missing" >&2
    exit 1
fi

echo "setup: installing$missing"
export DEBIAN_FRONTEND=noninteractive
# shellcheck disable=SC2086 # lists of words
{
    $as_root apt-get update -q
    $as_root apt-get install -q -y --no-install-recommends $missing
}
