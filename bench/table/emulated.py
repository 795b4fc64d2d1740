"""Memory and wake-ups on the emulated board with a real kernel, and the flash writer beside flashcp."""

import concurrent.futures
import time

import figures
import nor
import peers
from board import Board
from firmware import Firmware

SECONDS = 60
MEMORY = 512  # MiB: the image with the peers needs it
# What flashcp writes: as much as an image of the firmware has, to where it belongs.
IMAGE, DEVICE = "kernel", "/dev/mtd3"
COPIES = 5
MIB = 1 << 20
COPY_BUFFER = 10240  # flashcp reads the flash back in pieces of this size
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
        theirs = costs[peer]["wakeups"]
        results.add(f"wakeups.{peer}", f"wake-ups in a minute, {mode}", "", costs[own]["wakeups"],
                    against if theirs else f"{against}, none, taken as 1", max(theirs, 1))
    for own in ("normal", "recovery"):
        results.add(f"wakeups.{own}", f"wake-ups in a minute, {own}", "", costs[own]["wakeups"], "what its work needs",
                    WORK)
    results.add("flash.flashcp", "writing images to flash", "MiB/s", writer,
                "flashcp, without reading the image back", copy)
    results.curves["idle"] = costs


def _costs(machine, processes):
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
        """Returns what each program costs while idle, by name, and the rates of the writer and of flashcp."""
        for name, board in self._boards.items():
            if name.startswith("normal"):
                nor.write(board.flash, "app", self._firmware.images["app"].read_bytes())
            # On this thread: an emulator ends with the thread that started it. One after the other: booting takes all
            # of a processor, and a machine with other work would be too slow for four at once.
            board.power_on()
            board.machine.wait_boot()
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
            peers.start(board.machine)
            return _costs(board.machine, {peer: peers.process(peer) for peer in peers.COMMANDS})
        if name == "recovery":
            board.boot_into_recovery()
            board.join_network()
        else:
            board.boot_into_application()
        return _costs(board.machine, {name: figures.SUPERVISOR})

    def _flash(self, board):
        """Returns the rates of the writer and of flashcp in MiB/s: the best of the package's images, and the best of
        some copies without reading back."""
        size = self._firmware.images[IMAGE].stat().st_size
        blocks = -(-size // COPY_BUFFER)
        board.machine.run(f"dd if=/dev/urandom of=/tmp/image bs={size} count=1 2>/dev/null")
        copy = self._best(board, f"flashcp /tmp/image {DEVICE}")
        read = self._best(board, f"dd if={DEVICE} of=/dev/null bs={COPY_BUFFER} count={blocks} 2>/dev/null")
        board.machine.run("rm /tmp/image")
        board.since = board.machine.console.position()
        board.send_package(self._firmware.package)
        rates = []
        for name in ("kernel", "rootfs", "app"):
            board.see(f"name: {name}, start", 120)
            began = time.monotonic()
            board.see(f"name: {name}, end", 120)
            rates.append(self._firmware.images[name].stat().st_size / (time.monotonic() - began))
        return max(rates) / MIB, size / (copy - read) / MIB

    @staticmethod
    def _best(board, command):
        seconds = []
        for _ in range(COPIES):
            began = time.monotonic()
            board.machine.run(command, 120)
            seconds.append(time.monotonic() - began)
        return min(seconds)
