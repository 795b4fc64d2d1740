#!/bin/bash
# setup.sh LIST...: installs the missing packages of the lists scripts/packages/LIST.txt. A package counts as missing if
# one of its probes fails. A command or library from elsewhere satisfies the probe too. apt installs the missing
# packages, as root or through sudo. Without apt, or without root and sudo, the script names them and exits with status
# 1.
#
# A probe looks for:
#   command:NAME   a program in PATH or in the system's program folders
#   header:NAME    a header that the C++ compiler (CXX, or c++) finds
#   library:NAME   a library that pkg-config knows
#   python:NAME    a module of /usr/bin/python3
#   file:PATTERN   a file
set -euo pipefail

cd "$(dirname "$0")/packages"
# An ordinary user's PATH may lack these folders, where udhcpc and depmod are.
PATH=$PATH:/usr/local/sbin:/usr/sbin:/sbin

there() { # PROBE
    local what=${1#*:}
    case $1 in
        command:*) command -v "$what" >/dev/null ;;
        header:*) echo "#include <$what>" | "${CXX:-c++}" -std=c++17 -E -x c++ - >/dev/null 2>&1 ;;
        library:*) pkg-config --exists "$what" >/dev/null 2>&1 ;;
        python:*) /usr/bin/python3 -c "import $what" 2>/dev/null ;;
        file:*) compgen -G "$what" >/dev/null ;;
        *) echo "setup: no such probe: $1" >&2 && exit 2 ;;
    esac
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
    echo "setup: this system has no apt; please install the equivalents of these Debian packages: ${failures[*]}" >&2
    exit 1
elif [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || {
        echo "setup: not root, and no sudo; please have these packages installed: ${failures[*]}" >&2
        exit 1
    }
    as_root=(sudo env DEBIAN_FRONTEND=noninteractive)
fi

echo "setup: installing ${packages[*]}"
export DEBIAN_FRONTEND=noninteractive
# One list may fail while its mirror changes. The installation shows whether the packages can be had.
"${as_root[@]}" apt-get update -q || echo "setup: some package lists are missing; trying with the others" >&2
# A machine that has just started may be installing updates of its own.
"${as_root[@]}" apt-get -o DPkg::Lock::Timeout=600 install -q -y --no-install-recommends "${packages[@]}"
find_missing "$@"
[ ${#packages[@]} -eq 0 ] || {
    echo "setup: still not found after installing: ${failures[*]}" >&2
    exit 1
}
