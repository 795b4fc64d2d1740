#!/bin/bash
# Fetches and unpacks the armhf packages of packages.txt and the kernel. Prints their folder and the kernel's version.
# A filled cache needs no network.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
helper=$here/../scripts/armhf_packages.sh
eval "$("$helper" env)"
mapfile -t names < <(sed 's/#.*//' "$here/packages.txt" | xargs -n 1)
# The kernel package's name changes with each version. The metapackage depends on the newest one.
kernel_file=$("$helper" fetch linux-image-armmp)
names+=("$(dpkg-deb -f "$kernel_file" Depends | sed 's/ .*//')")
packages=$KV_CACHE/board-packages
"$helper" unpack "$packages" "${names[@]}"
kernel=$(basename "$packages"/boot/vmlinuz-*)
echo "$packages" "${kernel#vmlinuz-}"
