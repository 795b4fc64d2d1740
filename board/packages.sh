#!/bin/bash
# Fetches and unpacks the armhf packages of packages.txt and the kernel. Prints their folder, and the kernel's version.
# Needs no network once the cache is filled.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
helper=$here/../scripts/armhf_packages.sh
eval "$("$helper" env)"
mapfile -t names < <(sed 's/#.*//' "$here/packages.txt" | xargs -n 1)
# The kernel's name changes with each version; the package that stands for the newest one tells it.
kernel_file=$("$helper" fetch linux-image-armmp)
names+=("$(dpkg-deb -f "$kernel_file" Depends | sed 's/ .*//')")
packages=$KV_CACHE/board-packages
"$helper" unpack "$packages" "${names[@]}"
kernel=$(basename "$packages"/boot/vmlinuz-*)
echo "$packages" "${kernel#vmlinuz-}"
