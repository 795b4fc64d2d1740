#!/usr/bin/env python3
"""size.py [--update] BUILD...: prints the sizes of the device program's builds and what takes the space in them.

BUILD is "host", "armhf", "armhf-static" or "armhf-musl" and must have been built. The exit status is 1 if a build is
more than 5 % above its figure in scripts/size.txt, or has none there. --update writes the figures instead.
"""
import collections
import os
import platform
import re
import subprocess
import sys

FIGURES = "scripts/size.txt"
TOLERANCE = 0.05
# Name of the figure, program, folder of the linker map, prefix of the binary utilities.
BUILDS = {
    "host": (platform.machine(), "build/bin/upgradeMain", "build/release", ""),
    "armhf": ("armhf", "build/arm/dynamic/upgradeMain", "build/armhf", "arm-linux-gnueabihf-"),
    "armhf-static": ("armhf-static", "build/arm/static/upgradeMain", "build/armhf-static", "arm-linux-gnueabihf-"),
    "armhf-musl": ("armhf-musl", "build/arm/musl/upgradeMain", "build/armhf-musl", "arm-linux-gnueabihf-"),
}
HEADER = """\
# Bytes of code, constants and initialised data (text + data of size(1)) of the device program, as Debian 12's compilers
# build it. `make size` fails if a build is more than 5 % above its figure. If the growth is wanted, write the new
# figures with `make size UPDATE=1` and say in the commit message what the space is for.
"""


def weights(program, tools):
    output = subprocess.run([tools + "size", program], check=True, capture_output=True, text=True).stdout
    return [int(word) for word in output.splitlines()[1].split()[:3]]


def owner(path):
    """The library that a line of the map belongs to: an archive, or the program's own objects."""
    archive = re.search(r"([^/]+)\.a\(", path)
    if archive:
        return archive[1] if not archive[1].startswith("libkv_") else "upgradeMain"
    name = os.path.basename(path)
    return "upgradeMain" if "ltrans" in name or name.endswith(".cpp.o") else "linker"


def shares(linker_map):
    """Bytes in the file by owner, from the part of the map that shows where each section was placed."""
    placed = open(linker_map).read().split("Linker script and memory map")[1]
    placed = re.sub(r"\n( [._]\S+)\n +0x", r"\n\1 0x", placed)  # Long names have a line of their own.
    result = collections.Counter()
    for section, address, size, path in re.findall(r"^ ([._]\S+) +(0x\w+) +(0x\w+) (\S.*)$", placed, re.M):
        dropped = int(address, 16) == 0
        if not dropped and not section.startswith((".bss", ".tbss", ".comment", ".debug", ".ARM.attributes")):
            result[owner(path)] += int(size, 16)
    return result


def show(name, program, linker_map, text, data, bss):
    print(f"{name}: {os.path.getsize(program)} bytes in the file; text {text}, data {data}, bss {bss}")
    parts = shares(linker_map)
    del parts["linker"]
    parts["tables and alignment"] = text + data - sum(parts.values())
    for part, size in parts.most_common():
        if size >= 512 or part == "tables and alignment":
            print(f"  {part:22} {size:8}  {100 * size / (text + data):5.1f} %")


def read_figures():
    lines = (line.split("#")[0].split() for line in open(FIGURES))
    return {line[0]: int(line[1]) for line in lines if line}


def grown(name, now, figures):
    if name not in figures:
        print(f"  no figure for {name} in {FIGURES}: write one with make size UPDATE=1\n")
        return True
    ratio = now / figures[name] - 1
    print(f"  {now} bytes, {100 * ratio:+.1f} % against the committed {figures[name]}\n")
    if ratio < -TOLERANCE:
        print(f"  {name} has shrunk: lower its figure with make size UPDATE=1\n")
    return ratio > TOLERANCE


def main():
    update = "--update" in sys.argv
    figures = read_figures()
    too_large = []
    for build in [word for word in sys.argv[1:] if word != "--update"]:
        name, program, folder, tools = BUILDS[build]
        text, data, bss = weights(program, tools)
        show(name, program, f"{folder}/main/upgradeMain.map", text, data, bss)
        if update:
            figures[name] = text + data
        elif grown(name, text + data, figures):
            too_large.append(name)
    if update:
        with open(FIGURES, "w") as out:
            out.write(HEADER + "".join(f"{name} {size}\n" for name, size in sorted(figures.items())))
        print(f"{FIGURES} written")
    if too_large:
        sys.exit(f"size: more than 5 % above the figure, or without one: {', '.join(too_large)}. Find out what was "
                 f"added. If it is wanted, write the new figure with make size UPDATE=1 and commit it with the change.")


main()
