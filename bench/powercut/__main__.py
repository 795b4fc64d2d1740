#!/usr/bin/python3
"""Cuts the power of a virtual camera at every step of an upgrade, and lets every operation on its flash fail.

powercut BIN [--sample N] [--jobs N] [--docs DIR]

BIN holds the programs. With --sample, only N cuts and N failures of the usual order. With --docs, rewrites the figures
in DIR/powercut.md and the picture DIR/powercut.svg. See docs/powercut.md.
"""

import argparse
import json
import os
import pathlib
import signal
import sys
import tempfile
import time

import report
from firmware import KIB, ORDERS, USUAL, Firmware, run
from judge import DECEIVES
from sweep import Order, Problem, Sweep, check_inspect, tasks_of
from writer import Cut

FULL_SIZE = {"kernel": 1843 * KIB, "rootfs": 3584 * KIB, "app": 3072 * KIB, "uboot": 300 * KIB}


def predict_full_size(kvtool, folder):
    """What `kvtool inspect` says about the power for a package with the standard layout."""
    package = folder / "full.FLS"
    images = []
    for name, size in FULL_SIZE.items():
        image = folder / f"full-{name}.img"
        image.write_bytes(b"\0" * size)
        images.append(f"{name}={image}")
    run(kvtool, "pack", "-o", package, *images)
    text = run(kvtool, "inspect", package).splitlines()
    first = next(i for i, line in enumerate(text) if line.startswith("power "))
    last = next(i for i in range(first + 1, len(text)) if not text[i].startswith("  "))
    return {"text": text[first:last], "power": json.loads(run(kvtool, "inspect", package, "--json"))["power"]}


def progress(done, total):
    if sys.stderr.isatty():
        print(f"\r{done} of {total} runs", end="" if done < total else "\n", file=sys.stderr, flush=True)
    elif done % 250 == 0 or done == total:
        print(f"{done} of {total} runs", file=sys.stderr, flush=True)


def print_summary(orders):
    for row in report.cut_rows(orders):
        print(f"{row[0]}: {row[1]} cuts, {row[2]} flash contents: "
              + ", ".join(f"{what} {count}" for what, count in zip(report.CLASSES, row[3:])))


def known_deception(cut):
    """If the application's first block loses only its second half, its file system still mounts and its program still
    starts. The device program sees heartbeats and cannot know of the loss."""
    return isinstance(cut, Cut) and cut.request.image == "app" and cut.request.kind == "erase" and (
        cut.request.offset, cut.place) == (0, "second")


def deceptions(orders):
    """Yields each cut or failure after which a device looks well and is not, after its order."""
    for order in orders:
        for key, outcome in order.outcomes.items():
            if outcome.what == DECEIVES:
                yield order, order.distinct[key][0] if key in order.distinct else key


def sweep(options, folder):
    kvtool = options.bin / "kvtool"
    old = Firmware(folder / "old", options.bin / "cameraMain", seed=1)
    new = Firmware(folder / "new", options.bin / "cameraMain", seed=2)
    names = ORDERS if options.sample is None else [USUAL]
    orders = [Order(name, kvtool, old, new, ORDERS[name]) for name in names]
    runs = Sweep(options.bin, folder, options.jobs, {"old": old, "new": new})
    for order in orders:
        for task, description in tasks_of(order, kvtool, options.sample):
            runs.add(task, description)
    started = time.monotonic()
    runs.run(progress)
    minutes = (time.monotonic() - started) / 60
    if options.sample is not None:
        print(f"{runs.total} runs in {minutes * 60:.1f} s: every one ended as it must")
        return
    for order in orders:
        check_inspect(order)
    print_summary(orders)
    print(f"{runs.total} runs in {minutes:.1f} minutes")
    if options.docs:
        full = predict_full_size(kvtool, folder)
        report.replace_figures(options.docs / "powercut.md", report.figures(orders, full, minutes, os.cpu_count()))
        (options.docs / "powercut.svg").write_text(report.picture(orders, full), encoding="utf-8")
    for order, found in deceptions(orders):
        print(f"looks well and is not: {order.name}: {found}")
        if not known_deception(found):
            raise Problem("a device looks well and is not, for a reason that docs/powercut.md does not know")


def main():
    parser = argparse.ArgumentParser(prog="powercut", description=__doc__.splitlines()[0])
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs")
    parser.add_argument("--sample", type=int, help="only so many cuts and failures of the usual order")
    parser.add_argument("--jobs", type=int, default=3 * os.cpu_count(), help="boards at once")
    parser.add_argument("--docs", type=pathlib.Path, help="folder whose powercut.md and powercut.svg are rewritten")
    options = parser.parse_args()
    options.bin = options.bin.resolve()
    # SIGTERM must run the same clean-up as Ctrl-C.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    with tempfile.TemporaryDirectory(prefix="kv-powercut-") as folder:
        try:
            sweep(options, pathlib.Path(folder))
        except (Problem, OSError, RuntimeError) as problem:
            print(f"powercut: {problem}", file=sys.stderr)
            return 1
        except KeyboardInterrupt:
            return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
