#!/bin/bash
# Runs build/kvtool-static/bin/kvtool where nothing else is: in a root folder with this one file and the two of /etc
# that name look-up reads, in a network of its own. /etc/nsswitch.conf names a module that is not there, as a foreign
# system's may.
set -euo pipefail

cd "$(dirname "$0")/.."
work=$(mktemp -d "${TMPDIR:-/tmp}/kv-static-XXXXXX")
trap 'rm -rf "$work"' EXIT
cp build/kvtool-static/bin/kvtool "$work/kvtool"
mkdir "$work/etc"
echo "127.0.0.1 camera" >"$work/etc/hosts"
echo "hosts: mymachines mdns4_minimal [NOTFOUND=return] resolve" >"$work/etc/nsswitch.conf"
head -c 100000 /dev/urandom >"$work/rootfs"

alone() { # ARGUMENT...: kvtool's exit status; its words go to $work/said
    unshare -rn sh -c 'ip link set lo up && exec chroot "$@"' - "$work" /kvtool "$@" >"$work/said" 2>&1
}
die() {
    echo "check_static: $*: $(cat "$work/said")" >&2
    exit 1
}
alone --version || die "--version fails"
alone pack -o /package rootfs=/rootfs || die "pack fails"
alone inspect /package || die "inspect fails"
alone info camera && die "a device answers where there is none"
# Refused by port 80, so the name was found.
grep -q "refused" "$work/said" || die "/etc/hosts is not read"
echo "check_static: $(stat -c %s build/kvtool-static/bin/kvtool) bytes that run alone"
