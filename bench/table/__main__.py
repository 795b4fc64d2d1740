#!/usr/bin/env python3
"""table BIN [--docs DOCS] [--only PART...]: measures the program against peers and limits (docs/performance.md).

BIN holds the programs of a release build. With --docs the run's data, tables and pictures replace those in that folder.
--only measures only some parts and never writes. The exit status is 1 if a row breaks its budget, and 3 if none does
but some rows were not measured.
"""
import argparse
import json
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "board/acceptance"))

# pylint: disable=wrong-import-position # the emulated board's modules are in a folder of their own
import budgets
import emulated
import growth
import page
import peers
import sizes
import speed
from results import Figures

SCHEMA = 1
PARTS = {
    "start": (speed.measure_start, ["start.*"]),
    "upload": (speed.measure_upload, ["upload.*"]),
    "discovery": (speed.measure_discovery, ["discovery.*"]),
    "connections": (growth.measure_connections, ["connections.*"]),
    "packages": (growth.measure_packages, ["packages.*", "md5"]),
    "journey": (speed.measure_journey, ["journey", "flash.model"]),
}
ARM_PARTS = {"size": ["size.*"], "board": ["memory.*", "wakeups.*", "flash.flashcp"]}


def script(*command):
    """Runs a script of this tree and returns its output. Raises CalledProcessError."""
    return subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True).stdout


def prepare_arm():
    """Builds the ARM programs and the board, fetches the peers. Returns the packages' folders."""
    script("scripts/board.sh", "image")
    cache = script("bash", "-c", 'eval "$(scripts/armhf_packages.sh env)"; echo "$KV_CACHE"').strip()
    names = [line.split("#")[0].strip() for line in open(ROOT / "bench/table/packages.txt", encoding="utf-8")]
    unpacked = f"{cache}/bench-packages"
    script("scripts/armhf_packages.sh", "unpack", unpacked, *filter(None, names))
    return sizes.Packages(unpacked, script("board/packages.sh").split()[0])


def measure_arm(figures, options, parts, folder):
    try:
        packages = prepare_arm()
    except subprocess.CalledProcessError as failure:
        print(f"bench: NOT RUN: {', '.join(parts)}: {failure}", file=sys.stderr)
        for part in parts:
            for pattern in ARM_PARTS[part]:
                figures.skip(pattern, "packages of the emulated board or the peers cannot be had")
        return
    if "size" in parts:
        sizes.measure(figures, packages, ROOT / "build/arm")
    if "board" in parts:
        image = peers.make_image(ROOT / "build/board", packages, folder / "image")
        emulated.measure(figures, image, options.bin / "kvtool", ROOT / "build/board/cameraMain", folder)


def measure(figures, options, folder):
    chosen = options.only or [*ARM_PARTS, *PARTS]
    for name, (part, _) in PARTS.items():
        if name in chosen:
            print(f"{name}:")
            part(figures, options.bin, folder)
    arm = [part for part in ARM_PARTS if part in chosen]
    if arm:
        print("size and emulated board:")
        measure_arm(figures, options, arm, folder)


def main():
    parser = argparse.ArgumentParser(prog="table")
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("--docs", type=pathlib.Path)
    parser.add_argument("--only", nargs="+", choices=[*ARM_PARTS, *PARTS], metavar="PART")
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    limits = budgets.load()
    # SIGTERM must run the same clean-up as Ctrl-C.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    sys.stdout.reconfigure(line_buffering=True)
    began = time.monotonic()
    figures = Figures()
    with tempfile.TemporaryDirectory(prefix="kv-bench-") as folder:
        measure(figures, options, pathlib.Path(folder))
    minutes = (time.monotonic() - began) / 60
    data = {"schema": SCHEMA, "minutes": round(minutes, 1), "machine": page.machine(), "rows": figures.rows,
            "curves": figures.curves, "notRun": budgets.skipped(figures.not_run, limits)}
    broken = budgets.broken(figures.rows, limits)
    if options.docs and not options.only:
        text = json.dumps(data, indent=1) + "\n"
        (options.docs / "performance.json").write_text(text, encoding="utf-8")
        page.write(options.docs, data)
    for sentence in broken:
        print(f"bench: BROKEN BUDGET: {sentence}")
    for key, reason in data["notRun"].items():
        print(f"bench: NOT RUN: {key}: {reason}")
    print(f"bench: {len(figures.rows)} rows in {minutes:.1f} minutes, {len(broken)} broken budgets")
    return 1 if broken else 3 if data["notRun"] else 0


if __name__ == "__main__":
    sys.exit(main())
