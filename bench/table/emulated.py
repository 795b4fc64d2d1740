"""Memory and wake-ups on the emulated board with a real kernel, and the flash writer beside flashcp."""

import concurrent.futures
import time

import figures
import nor
import peers
from board import Board
from firmware import Firmware
from results import median

SECONDS = 60
MEMORY = 512  # MiB: the image with the peers needs it
# What both write: an image of the firmware, and where it belongs.
IMAGE, DEVICE = "kernel", "/dev/mtd3"
COPIES = 5
# A minute of the program: 60 feeds and 20 checks; and 60 heartbeats, or 60 looks of the station at its link.
WORK = 140

# Which of the program's modes and builds stands beside a peer: keepers of a watchdog beside the normal mode, and
# services that wait for an update beside the recovery mode.
BESIDE = {"busybox": "normal", "watchdog": "normal-shared", "rauc": "recovery", "swupdate": "recovery"}


def measure(results, image, kvtool, application, folder):
    bench = Bench(image, kvtool, application, folder)
    try:
        costs, writer, copy = bench.measure()
    finally:
        bench.close()
    for peer, own in BESIDE.items():
        against = "busybox watchdog" if peer == "busybox" else peer
        mode = own.replace("-", ", ")
        results.add(f"memory.{peer}", f"resident memory, {mode}", "KiB", costs[own]["resident"], against,
                    costs[peer]["resident"])
        results.add(f"wakeups.{peer}", f"wake-ups in a minute, {mode}", "", costs[own]["wakeups"], against,
                    max(costs[peer]["wakeups"], 1))
    for own in ("normal", "recovery"):
        results.add(f"wakeups.{own}", f"wake-ups in a minute, {own}", "", costs[own]["wakeups"], "what its work needs",
                    WORK)
    results.add("flash.flashcp", f"writing the image of the {IMAGE}", "s", writer,
                "flashcp, without reading the image back", copy)
    results.curves["idle"] = costs


def _idle(machine, processes):
    """Returns name -> resident KiB and wake-ups in a minute. `processes`: name -> shell words for its number."""
    seconds, threads = figures.wakeups(machine, SECONDS, tuple(processes.values()))
    return {name: {"resident": figures.memory(machine, process)[0],
                   "wakeups": round(sum(count for _, count in counts) * 60 / seconds)}
            for (name, process), counts in zip(processes.items(), threads)}


class Bench:
    """Boards that run side by side, because most of their time is waiting."""

    def __init__(self, image, kvtool, application, folder):
        self._firmware = Firmware(folder / "firmware", kvtool, application, seed=1)
        self._boards = {name: Board(name, program, image, kvtool, folder, MEMORY) for name, program in (
            ("peers", "none"), ("recovery", "musl"), ("normal", "musl"), ("normal-shared", "dynamic"))}

    def close(self):
        for board in self._boards.values():
            board.abandon()

    def measure(self):
        """Returns what each program costs while idle, by name, and the seconds of the writer and of flashcp."""
        for name, board in self._boards.items():
            if name.startswith("normal"):
                nor.write(board.flash, "app", self._firmware.images["app"].read_bytes())
            board.power_on()  # On this thread: an emulator ends with the thread that started it.
        with concurrent.futures.ThreadPoolExecutor() as threads:
            stories = [threads.submit(self._idle, name, board) for name, board in self._boards.items()]
            try:
                costs = {name: cost for story in stories for name, cost in story.result().items()}
            except BaseException:
                self.close()  # ends the other stories
                raise
        for name, board in self._boards.items():
            if name != "recovery":
                board.power_off()
        return costs, *self._flash(self._boards["recovery"])

    @staticmethod
    def _idle(name, board):
        if name == "peers":
            board.machine.wait_boot()
            peers.start(board.machine)
            return _idle(board.machine, {peer: peers.process(peer) for peer in peers.COMMANDS})
        if name == "recovery":
            board.boot_into_recovery()
            board.join_network()
        else:
            board.boot_into_application()
        return _idle(board.machine, {name: figures.SUPERVISOR})

    def _flash(self, board):
        size = self._firmware.images[IMAGE].stat().st_size
        board.machine.run(f"dd if=/dev/urandom of=/tmp/image bs={size} count=1 2>/dev/null")
        copy = median(self._time(board, f"flashcp /tmp/image {DEVICE}") for _ in range(COPIES))
        verify = median(self._time(board, f"head -c {size} {DEVICE} | cmp - /tmp/image") for _ in range(COPIES))
        board.machine.run("rm /tmp/image")
        board.since = board.machine.console.position()
        board.send_package(self._firmware.package)
        board.see(f"name: {IMAGE}, start", 120)
        began = time.monotonic()
        board.see(f"name: {IMAGE}, end", 120)
        return time.monotonic() - began, copy - verify

    @staticmethod
    def _time(board, command):
        began = time.monotonic()
        board.machine.run(command, 120)
        return time.monotonic() - began
