"""Boots emulated boards and tests the program on them: see docs/board.md.

acceptance run IMAGE KVTOOL APPLICATION [A|B|C|D...] [--program KIND]
                             runs the acceptance test on boards A to C or on those named; KIND replaces their program
acceptance shell IMAGE       opens the console of one board
"""

import argparse
import pathlib
import signal
import sys
import tempfile
import threading

import nor
from board import Board
from firmware import Firmware
from machine import Machine
from power_cuts import power_cut_story
from report import Report
from stories import accident_story, button_story, life_story

PROGRAMS = ("dynamic", "static", "musl")
# The program and the story of each board.
BOARDS = {"A": ("musl", life_story), "B": ("static", accident_story), "C": ("dynamic", button_story),
          "D": ("musl", power_cut_story)}
USUAL_BOARDS = "ABC"  # D takes longer than all of them together


def tell(story, board, report, firmware, others):
    try:
        story(board, report, firmware)
    except Exception:  # pylint: disable=broad-except # the step has printed it; it must end the other stories too
        report.failed = True
        for other in others:
            other.abandon()


def run(options, folder):
    report = Report()
    boards = [Board(name, options.program or program, options.image, options.kvtool, folder)
              for name, (program, _) in BOARDS.items() if name in (options.boards or USUAL_BOARDS)]
    firmware = Firmware(folder / "firmware", options.kvtool, options.application, seed=1)
    stories = [threading.Thread(target=tell, args=[BOARDS[board.name][1], board, report, firmware, boards], daemon=True)
               for board in boards]
    try:
        for story in stories:
            story.start()
        for story in stories:
            story.join()
    finally:
        report.close()
        for board in boards:
            board.abandon()
    report.print_end()
    return 1 if report.failed else 0


def shell(options, folder):
    print("board: a camera's console; the program runs. Ctrl-A X switches the board off, Enter opens a shell.")
    flash = folder / "shell.nor"
    nor.create(flash)
    machine = Machine(options.image, flash, "static", terminal=True)
    print(f"board: ports on 127.0.0.1: commands TCP {machine.tcp_port}, search UDP {machine.udp_port}")
    return machine.process.wait()


def main():
    parser = argparse.ArgumentParser(prog="acceptance")
    commands = parser.add_subparsers(dest="command", required=True)
    for name in ("run", "shell"):
        command = commands.add_parser(name)
        command.add_argument("image", type=pathlib.Path)
        if name == "run":
            command.add_argument("kvtool", type=pathlib.Path)
            command.add_argument("application", type=pathlib.Path)
            command.add_argument("--program", choices=PROGRAMS,
                                 help="the program on all boards; default: each board's own")
            command.add_argument("boards", nargs="*", metavar="BOARD", help=f"{', '.join(BOARDS)}; default: A to C")
    options = parser.parse_args()
    if options.command == "run" and not set(options.boards) <= set(BOARDS):
        parser.error("no such board")
    # SIGTERM must run the same clean-up as Ctrl-C.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    sys.stdout.reconfigure(line_buffering=True)
    with tempfile.TemporaryDirectory(prefix="kv-board-") as folder:
        return {"run": run, "shell": shell}[options.command](options, pathlib.Path(folder))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
