#!/bin/bash
# setup.sh LIST...: sees to it that what the lists scripts/packages/LIST.txt name is there. A Debian package counts as
# missing when one of its probes fails, wherever the thing came from; only then apt is asked, as root or through sudo.
# Without apt or without root the missing things are named, and the exit status is 1.
#
#   command:NAME   a program in PATH or in the folders of the system's programs
#   header:NAME    a header that the C++ compiler (CXX, or c++) finds
#   library:NAME   a library that pkg-config knows
#   python:NAME    a module of /usr/bin/python3
#   file:PATTERN   a file
set -euo pipefail

cd "$(dirname "$0")/packages"
# An ordinary user's PATH may lack these, and so would the search for udhcpc or depmod.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

there() { # PROBE
    local what=${1#*:}
    case $1 in
        command:*) command -v "$what" ;;
        header:*) echo "#include <$what>" | "${CXX:-c++}" -std=c++17 -E -x c++ - ;;
        library:*) pkg-config --exists "$what" ;;
        python:*) /usr/bin/python3 -c "import $what" ;;
        file:*) compgen -G "$what" ;;
        *) echo "setup: no such probe: $1" >&2 && exit 2 ;;
    esac >/dev/null 2>&1
}

find_missing() { # LIST...: sets `packages` and `failures`
    local list package probes probe
    packages=() failures=()
    for list in "$@"; do
        [ -f "$list.txt" ] || { echo "setup: no list $list.txt in $PWD" >&2 && exit 2; }
        while read -r package probes; do
            for probe in $probes; do
                there "$probe" || {
                    packages+=("$package")
                    failures+=("$package ($probe)")
                    break
                }
            done
        done < <(sed 's/#.*//; /^ *$/d' "$list.txt")
    done
}

find_missing "$@"
[ ${#packages[@]} -gt 0 ] || exit 0

as_root=()
if ! command -v apt-get >/dev/null; then
    echo "setup: this system has no apt; please install what corresponds to these Debian packages: ${failures[*]}" >&2
    exit 1
elif [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || {
        echo "setup: not root and no sudo; please have these packages installed: ${failures[*]}" >&2
        exit 1
    }
    as_root=(sudo)
fi

echo "setup: installing ${packages[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q
"${as_root[@]}" apt-get install -q -y --no-install-recommends "${packages[@]}"
find_missing "$@"
[ ${#packages[@]} -eq 0 ] || {
    echo "setup: installed, but still not found: ${failures[*]}" >&2
    exit 1
}
