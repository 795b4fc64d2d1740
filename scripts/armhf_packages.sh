#!/bin/bash
# Fetches Debian's armhf packages without touching the host's package system: apt gets a root of its own in the cache.
#
#   armhf_packages.sh fetch PACKAGE...        downloads missing packages and prints the path of each package file
#   armhf_packages.sh unpack DIR PACKAGE...   fetches the packages and replaces DIR with their files
#   armhf_packages.sh source NAME...          downloads missing source packages and prints the folder of each
#   armhf_packages.sh env                     prints shell assignments of KV_CACHE and APT_CONFIG; with APT_CONFIG,
#                                             apt-cache answers about armhf once something has been fetched
#
# Only the named packages are fetched, not their dependencies. A cached package is never looked up again, so a filled
# cache needs no network. Remove the cache to get newer packages. KV_CACHE names the cache.
set -euo pipefail
shopt -s inherit_errexit

cache=${KV_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/upgrademain}
packages=$cache/armhf-packages
sources=$cache/sources
apt=$cache/armhf-apt
export APT_CONFIG=$apt/apt.conf

die() {
    echo "armhf_packages: $*" >&2
    exit 1
}

# Uses the host's sources and keys, with armhf as the only architecture and no package installed.
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

# The host's post-update hooks are for its own package system.
quiet_apt() { apt-get -q -o APT::Update::Post-Invoke-Success= "$@" >&2; }

# The host's package sources, asked for source packages only. Sets source_options.
prepare_sources() {
    local file name
    rm -rf "$apt/sources"
    mkdir -p "$apt/sources"
    for file in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
        [ -f "$file" ] || continue
        name=$(basename "$file")
        case $file in
            *.list) sed -n 's/^deb /deb-src /p' "$file" >"$apt/sources/$name" ;;
            *.sources) sed 's/^Types:.*/Types: deb-src/' "$file" >"$apt/sources/$name" ;;
        esac
    done
    source_options=(-o "Dir::Etc::sourceparts=$apt/sources" -o Dir::Etc::sourcelist=/dev/null
        -o Acquire::IndexTargets::deb-src::Sources::DefaultEnabled=true)
}

file_of() { # PACKAGE: prints its file in the cache, or nothing
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
    quiet_apt update || echo "armhf_packages: some package lists are missing; trying with the others" >&2
    uris=$(apt-get download --print-uris "${missing[@]}") || die "not available: ${missing[*]}"
    awk '{ bytes += $3 } END { printf "armhf_packages: downloading %d packages, %.1f MB\n", NR, bytes / 1e6 }' \
        <<<"$uris" >&2
    (
        cd "$apt/cache/archives/partial"
        quiet_apt download "${missing[@]}" || die "download failed: ${missing[*]}"
        mv -- *.deb "$packages/"
    )
}

# Two builds may use the cache at the same time.
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

# apt checks what it downloads against the signed package lists. A folder without .dsc holds the upstream archive alone.
fetch_missing_sources() { # NAME...
    local name partial missing=()
    for name in "$@"; do
        [ -d "$sources/$name" ] || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null || die "this system has no apt; missing source packages: ${missing[*]}"
    prepare_apt
    prepare_sources
    echo "armhf_packages: reading the lists of source packages (about 10 MB the first time)" >&2
    quiet_apt "${source_options[@]}" update ||
        echo "armhf_packages: some package lists are missing; trying with the others" >&2
    for name in "${missing[@]}"; do
        partial=$sources/$name.new
        rm -rf "$partial"
        mkdir -p "$partial"
        (cd "$partial" && quiet_apt "${source_options[@]}" source --download-only "$name") ||
            fetch_upstream_archive "$name" "$partial"
        mv "$partial" "$sources/$name"
    done
}

# Only for packages whose upstream archive may be built without Debian's patches (scripts/musl_sysroot.sh).
fetch_upstream_archive() { # NAME DIR
    [ "$1" = liboping ] || die "download of the source package failed: $1"
    echo "armhf_packages: $1: Debian's patches are not available; taking the upstream archive alone" >&2
    rm -f "$2"/*
    (cd "$2" && quiet_apt "${source_options[@]}" source --download-only --tar-only "$1") ||
        die "download of the source package failed: $1"
    rm -f "$2"/*.dsc
}

fetch_sources() { # NAME...
    local name
    with_lock
    fetch_missing_sources "$@"
    for name in "$@"; do
        echo "$sources/$name"
    done
}

# DIR/.packages lists the unpacked files once DIR is complete. A different list makes unpack recreate DIR.
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
    source) fetch_sources "$@" ;;
    env) printf 'KV_CACHE=%q\nAPT_CONFIG=%q\n' "$cache" "$APT_CONFIG" ;;
    *) die "usage: armhf_packages.sh fetch PACKAGE... | unpack DIR PACKAGE... | source NAME... | env" ;;
esac
