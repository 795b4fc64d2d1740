#!/bin/bash
# Debian's armhf packages, without touching the host's package system: apt gets a root of its own inside the cache.
#
#   armhf_packages.sh fetch PACKAGE...        downloads what is missing, prints the path of each package file
#   armhf_packages.sh unpack DIR PACKAGE...   fetches, and makes DIR consist of these packages' files
#   armhf_packages.sh env                     prints the shell assignments KV_CACHE and APT_CONFIG; with the latter
#                                             apt-cache answers about armhf (once something was fetched)
#
# Only the named packages are fetched, not what they depend on. A package that is there is not looked for again, so a
# filled cache needs no network; remove the cache for newer ones. KV_CACHE names the cache.
set -euo pipefail
shopt -s inherit_errexit

cache=${KV_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/upgrademain}
packages=$cache/armhf-packages
apt=$cache/armhf-apt
export APT_CONFIG=$apt/apt.conf

die() {
    echo "armhf_packages: $*" >&2
    exit 1
}

# The host's sources and keys with armhf as the only architecture, and no package counts as installed.
prepare_apt() {
    mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial"
    : >"$apt/status"
    cat >"$APT_CONFIG" <<END
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
APT::Sandbox::User "root";
Dir::State "$apt";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
Acquire::Languages "none";
Acquire::IndexTargets::deb-src::Sources::DefaultEnabled "false";
END
}

# The hooks that a host runs after an update are about its own package system.
quiet_apt() { apt-get -q -o APT::Update::Post-Invoke-Success= "$@" >&2; }

file_of() { # PACKAGE: its file in the cache, or nothing
    find "$packages" -maxdepth 1 -name "$1_*.deb" | sort | tail -n 1
}

fetch_missing() { # PACKAGE...
    local package uris missing=()
    for package in "$@"; do
        [ -n "$(file_of "$package")" ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null || die "this system has no apt; missing armhf packages: ${missing[*]}"
    prepare_apt
    echo "armhf_packages: reading the package lists of armhf (about 10 MB the first time)" >&2
    quiet_apt update || echo "armhf_packages: some lists are missing; trying with those that are there" >&2
    uris=$(apt-get download --print-uris "${missing[@]}") || die "not to be had: ${missing[*]}"
    awk '{ bytes += $3 }
        END { printf "armhf_packages: downloading %d packages, %.1f MB\n", NR, bytes / 1e6 }' <<<"$uris" >&2
    (
        cd "$apt/cache/archives/partial"
        quiet_apt download "${missing[@]}" || die "not downloaded: ${missing[*]}"
        mv -- *.deb "$packages/"
    )
}

# Two builds may want the cache at the same time.
with_lock() {
    mkdir -p "$packages"
    exec 9>"$cache/lock"
    flock 9
}

fetch() {
    with_lock
    fetch_missing "$@"
    for package in "$@"; do
        file_of "$package"
    done
}

# The list of files stands in DIR when it is complete; DIR is made anew when that list is another one.
unpack() { # DIR PACKAGE...
    local dir=$1 files
    shift
    files=$(fetch "$@")
    [ "$files" != "$(cat "$dir/.packages" 2>/dev/null)" ] || return 0
    rm -rf "$dir" "$dir.new"
    mkdir -p "$dir.new"
    while read -r file; do
        dpkg-deb -x "$file" "$dir.new"
    done <<<"$files"
    echo "$files" >"$dir.new/.packages"
    mv "$dir.new" "$dir"
}

command=${1:-}
[ $# -eq 0 ] || shift
case $command in
    fetch) fetch "$@" ;;
    unpack) unpack "$@" ;;
    env) printf 'KV_CACHE=%q\nAPT_CONFIG=%q\n' "$cache" "$APT_CONFIG" ;;
    *) die "usage: armhf_packages.sh fetch PACKAGE... | unpack DIR PACKAGE... | env" ;;
esac
