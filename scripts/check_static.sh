#!/bin/bash
# Runs build/kvtool-static/bin/kvtool in an otherwise empty system: a root folder with this file and the two files of
# /etc that name look-up reads, in its own network namespace. /etc/nsswitch.conf names missing modules, as on another
# distribution.
set -euo pipefail

cd "$(dirname "$0")/.."
# An ordinary user's PATH may lack the folder of chroot and ip.
PATH=$PATH:/usr/sbin:/sbin
if ! unshare -rn true 2>/dev/null; then
    echo "SKIPPED: this host allows no namespaces; the static kvtool was not tested in an empty system" >&2
    exit 0
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/kv-static-XXXXXX")
trap 'rm -rf "$work"' EXIT
cp build/kvtool-static/bin/kvtool "$work/kvtool"
mkdir "$work/etc"
echo "127.0.0.1 camera" >"$work/etc/hosts"
echo "hosts: mymachines mdns4_minimal [NOTFOUND=return] resolve" >"$work/etc/nsswitch.conf"
head -c 100000 /dev/urandom >"$work/rootfs"

alone() { # ARGUMENT...: returns kvtool's exit status; writes its output to $work/said
    unshare -rn sh -c 'ip link set lo up && exec chroot "$@"' - "$work" /kvtool "$@" >"$work/said" 2>&1
}
die() {
    echo "check_static: $*: $(cat "$work/said")" >&2
    exit 1
}
alone --version || die "--version fails"
alone pack -o /package rootfs=/rootfs || die "pack fails"
alone inspect /package || die "inspect fails"
alone info camera && die "info succeeds without a device"
# A refusal by port 80 shows that the name was found.
grep -q "refused" "$work/said" || die "/etc/hosts is not read"
echo "check_static: $(stat -c %s build/kvtool-static/bin/kvtool) bytes, runs without other files"
