#!/usr/bin/python3
"""Abuses the device program on a virtual board in real time, and measures what it still does and what is left.

load.py BIN [--program FILE] [--sanitizer thread|address] [--only NAMES] [--docs DIR]

BIN holds the programs. --program is another device program than BIN/upgradeMain, --sanitizer says with which sanitizer
it was built. With --docs, rewrites the figures in DIR/soak.md, unless a goal is missed or --only is given. See
docs/soak.md.
"""

import json
import os
import pathlib
import subprocess
import sys
import textwrap
import time

import client
import entry
import page
from board import load_average, switched_on, take_real_time, ticking

TOP = pathlib.Path(__file__).resolve().parents[2]
# The program finds these files in /param. Reports of races and leaks do not end it, so that one run shows all of them.
SANITIZERS = {
    None: [],
    "thread": ["TSAN_OPTIONS=suppressions=/param/tsan.supp log_path=/param/report second_deadlock_stack=1 "
               "exitcode=0"],
    "address": ["ASAN_OPTIONS=log_path=/param/report detect_leaks=1 halt_on_error=0 exitcode=0 "
                "detect_stack_use_after_return=1",
                "UBSAN_OPTIONS=log_path=/param/report print_stacktrace=1 halt_on_error=0"],
}
HEADS = ["abuse", "descriptors, before / after", "threads", "Rss, KiB", "Anonymous, KiB", "largest feed gap",
         "service again after", ""]


def findings(state):
    """What a sanitizer has reported."""
    return [file.read_text(encoding="utf-8", errors="replace") for file in sorted((state / "param").glob("report.*"))]


def run_to_the_end(command):
    """An interrupt lets the command clean up."""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True) as process:
        try:
            return process.wait()
        except KeyboardInterrupt:
            process.terminate()
            process.wait()
            raise


def run(options, folder):
    state = folder / "board"
    (state / "param").mkdir(parents=True)
    (state / "param/tsan.supp").write_bytes((TOP / "tests/support/tsan.supp").read_bytes())
    # For the clients, and for the program: memory must run out first, not descriptors.
    client.allow_descriptors(16_000)
    settings = [word for setting in SANITIZERS[options.sanitizer] for word in ("--env", setting)]
    report = folder / "report.json"
    began, loads = time.monotonic(), [load_average()]
    # The clients stand for other computers, which cannot take the device's processor.
    prompt = take_real_time(True)
    with switched_on(options.bin, options.program, state, settings), ticking(1) as lateness:
        take_real_time(False)
        journey = pathlib.Path(__file__).with_name("journey.py")
        command = ["setpriv", "--pdeathsig", "TERM", options.bin / "vboard", "--state", state, "exec", "--",
                   sys.executable, journey, options.bin, state, report]
        command += ["--relaxed"] if options.sanitizer else []
        command += ["--only", options.only] if options.only else []
        status = run_to_the_end([str(word) for word in command])
        late = lateness()
    minutes = (time.monotonic() - began) / 60
    loads.append(load_average())
    for text in findings(state):
        print(f"MISSED: the sanitizer reports:\n{text}", flush=True)
        status = status or 1
    how = (f"{minutes:.1f} minutes on {os.cpu_count()} cores with a load of {loads[0]:.1f} at the start and "
           f"{loads[1]:.1f} at the end, the board {'with' if prompt else 'without'} real-time priority. "
           f"A bare process with the feeder's rhythm was late by up to {late:.2f} s.")
    print(textwrap.fill(how, 80))
    if options.docs and status == 0 and not options.only:
        rows = json.loads(report.read_text(encoding="utf-8"))
        page.replace(options.docs / "soak.md", f"load {options.sanitizer or 'plain'}",
                     [*page.prose([how]), "", *page.table(HEADS, rows)])
    return status


def main():
    parser = entry.parser("load", __doc__)
    parser.add_argument("--sanitizer", choices=[name for name in SANITIZERS if name], help="how it was built")
    parser.add_argument("--only", help="only these phases, for a trial")
    return entry.execute(parser.parse_args(), run)


if __name__ == "__main__":
    sys.exit(main())
