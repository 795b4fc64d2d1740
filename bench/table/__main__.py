#!/usr/bin/env python3
"""table BIN [--docs DOCS] [--only PART...]: measures the program against peers and limits (docs/performance.md).

BIN holds the programs of a release build. With --docs the run's data, tables and pictures replace those in that folder.
--only measures only some parts and never writes. The exit status is 1 if a row breaks its budget or a measurement
fails, and otherwise 3 if packages cannot be had and rows were therefore not measured.
"""
import argparse
import functools
import json
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import traceback

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


class Unavailable(Exception):
    """Something from outside that the rows of a part need cannot be had."""


def script(*command):
    """Runs a script of this tree and returns its output. Raises CalledProcessError."""
    return subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True).stdout


@functools.cache
def arm_packages():
    """Builds the ARM programs and what the emulated board boots, and fetches the peers. Returns the packages."""
    try:
        script("scripts/board.sh", "fetch")
        cache = script("bash", "-c", 'eval "$(scripts/armhf_packages.sh env)"; echo "$KV_CACHE"').strip()
        listed = (ROOT / "bench/table/packages.txt").read_text(encoding="utf-8").splitlines()
        names = filter(None, (line.split("#")[0].strip() for line in listed))
        script("scripts/armhf_packages.sh", "unpack", f"{cache}/bench-packages", *names)
    except subprocess.CalledProcessError as failure:
        raise Unavailable("the packages of the emulated board or the peers cannot be had") from failure
    script("scripts/board.sh", "image")
    return sizes.Packages(f"{cache}/bench-packages", script("board/packages.sh").split()[0])


def measure_sizes(figures, _bin_folder, _folder):
    sizes.measure(figures, arm_packages(), ROOT / "build/arm")


def measure_board(figures, bin_folder, folder):
    image = peers.make_image(ROOT / "build/board", arm_packages(), folder / "image")
    emulated.measure(figures, image, bin_folder / "kvtool", ROOT / "build/board/cameraMain", folder)


# In the order of the run, each with patterns of its rows.
PARTS = {
    "size": (measure_sizes, ["size.*"]),
    "start": (speed.measure_start, ["start.*"]),
    "upload": (speed.measure_upload, ["upload.*"]),
    "discovery": (speed.measure_discovery, ["discovery.*"]),
    "connections": (growth.measure_connections, ["connections.*"]),
    "packages": (growth.measure_packages, ["packages.*", "md5"]),
    "journey": (speed.measure_journey, ["journey", "flash.model"]),
    "board": (measure_board, ["memory.*", "wakeups.*", "flash.flashcp"]),
}


def measure(figures, name, bin_folder):
    """Measures a part. Returns False if it failed; the other parts can still be measured."""
    part, rows = PARTS[name]
    print(f"{name}:")
    try:
        with tempfile.TemporaryDirectory(prefix="kv-bench-") as folder:
            part(figures, bin_folder, pathlib.Path(folder))
    except Unavailable as reason:
        figures.skip(rows, str(reason))
    except Exception:  # pylint: disable=broad-except # whatever it was, it is printed and the run fails
        traceback.print_exc()
        figures.skip(rows, "the measurement failed")
        return False
    return True


def main():
    parser = argparse.ArgumentParser(prog="table")
    parser.add_argument("bin", type=pathlib.Path)
    parser.add_argument("--docs", type=pathlib.Path)
    parser.add_argument("--only", nargs="+", choices=PARTS, metavar="PART")
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    limits = budgets.load()
    # SIGTERM must run the same clean-up as Ctrl-C.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    sys.stdout.reconfigure(line_buffering=True)
    began = time.monotonic()
    figures = Figures()
    failed = [name for name in options.only or PARTS if not measure(figures, name, options.bin)]
    minutes = (time.monotonic() - began) / 60
    data = {"schema": SCHEMA, "minutes": round(minutes, 1), "machine": page.machine(), "rows": figures.rows,
            "curves": figures.curves, "notRun": budgets.skipped(figures, limits)}
    broken = budgets.broken(figures.rows, limits)
    if not options.only:
        broken += [f"{key}: no such row" for key in limits if key not in {**figures.rows, **data["notRun"]}]
    if options.docs and not options.only:
        text = json.dumps(data, indent=1) + "\n"
        (options.docs / "performance.json").write_text(text, encoding="utf-8")
        page.write(options.docs, data)
    for sentence in broken:
        print(f"bench: BROKEN BUDGET: {sentence}")
    for key, reason in data["notRun"].items():
        print(f"bench: NOT RUN: {key}: {reason}")
    print(f"bench: {len(figures.rows)} rows in {minutes:.1f} minutes, {len(broken)} broken budgets, "
          f"{len(data['notRun'])} rows not run")
    return 1 if broken or failed else 3 if data["notRun"] else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit("bench: interrupted; nothing is written")
