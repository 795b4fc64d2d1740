#!/usr/bin/python3
"""The abuses of `make load`, one after the other, on a board that is on. load.py runs it in the bench's network."""

import argparse
import contextlib
import json
import os
import pathlib
import random
import resource
import signal
import subprocess
import sys
import threading
import time

import client
from board import READY, Board, Feeds, Footprint, Problem, interruptible
from limits import MIB, MemoryGroup, data_size, limited

GAP = 1.2        # seconds between two feeds
SERVICE = 1.0    # seconds until both services answer again
SLACK = 128      # KiB of anonymous memory
PATIENCE = 60    # seconds after which a service that does not answer has failed for good
WATCHDOG = 30    # its time-out
DEAD_PEER = 140  # seconds after which the kernel must have given up a peer that is gone
STORM = 500      # signals


class Row:
    """What a phase showed. `service` is None where none is expected."""

    def __init__(self, name):
        self.name, self.notes = name, ""
        self.before = self.after = None
        self.gaps, self.service = [], None
        self.missed = []

    def gap(self):
        return max(self.gaps, default=0.0)

    def cells(self):
        def pair(name):
            return " / ".join(str(getattr(held, name)) if held else "-" for held in (self.before, self.after))
        return [self.name, pair("descriptors"), pair("threads"), pair("rss"), pair("anonymous"), f"{self.gap():.2f} s" if self.gaps else "-",
                f"{self.service:.2f} s" if self.service is not None else "-", self.notes]


class Journey:
    """`relaxed`: a sanitizer's build; its timing and its memory are shown, but not judged."""

    def __init__(self, board, relaxed, seed):
        self.board, self.relaxed = board, relaxed
        self.noise = random.Random(seed)
        self.boot = len(board.reasons())
        self.reasons = board.reasons()
        self.process = board.process()
        self._feeds = Feeds(board, "t")
        self.rows = []
        self.row = None

    # The frame around each phase

    @contextlib.contextmanager
    def phase(self, name):
        """One abuse. When it ends, the services must answer at once, and nothing may be left behind."""
        self.row = row = Row(name)
        row.before = Footprint(self.process)
        boot = self.boot
        self._feeds.take()
        yield row
        if row.service is None:
            self.serve_again()
        if self.boot == boot:
            self._judge_flat(row)
        row.gaps = self._feeds.take()
        if row.gap() > GAP and not self.relaxed:
            row.missed.append(f"{row.gap():.2f} s between two feeds, goal {GAP} s")
        if self.board.reasons() != self.reasons:
            raise Problem(f"{name}: resets are {self.board.reasons()}, expected {self.reasons}")
        self.rows.append(row)
        self._print(row)

    def _judge_flat(self, row):
        """The allocator returns memory late. What ordinary clients do not make it return is lost."""
        slack = 1 << 30 if self.relaxed else SLACK
        for _ in range(3):
            row.after = self.board.settled(self.process, row.before, slack, timeout=3)
            if row.after.anonymous <= row.before.anonymous + slack:
                break
            client.close_all(self.open_and_ask(1000))
        row.missed += [f"not flat: {text}" for text in row.after.grown(row.before, slack)]

    def _print(self, row):
        held = row.after
        flat = f"{held.descriptors:3} fd {held.threads:2} thr {held.anonymous:5} KiB" if held else "new boot" + " " * 15
        print(f"{row.name:20} {flat} gap {row.gap():.2f} service {row.service:.2f} s\n{'':20} {row.notes}", flush=True)
        for text in row.missed:
            print(f"MISSED: {row.name}: {text}", flush=True)

    def serve_again(self):
        """Called at the moment when an abuse ends."""
        try:
            self.row.service = client.await_service(PATIENCE)
        except client.NoService as failure:
            self.explain(f"no service for {PATIENCE} s after the end: {failure}")
        if self.row.service > SERVICE and not self.relaxed:
            self.row.missed.append(f"service after {self.row.service:.2f} s, goal {SERVICE} s")

    def explain(self, what):
        raise Problem(f"{self.row.name}: {what}; the log ends with:\n"
                      + "\n".join(self.board.text(self.boot, "trace.log").splitlines()[-8:]))

    def next_boot(self, reason, timeout=60):
        """The abuse ends with a reset: the services must answer at once when the program has started again."""
        self.reasons.append(reason)
        self.boot += 1
        self.board.wait(self.boot, timeout=timeout)
        self.serve_again()
        if self.board.reasons() != self.reasons:
            self.explain(f"resets are {self.board.reasons()}, expected {self.reasons}")
        self.board.wait(self.boot, log=READY)
        self.process = self.board.process()

    def warm_up(self):
        """What is set up once at first use, so that it does not look like growth: the allocator keeps some of what
        many clients took, and a cut upload leaves its file open until the next one."""
        self.board.wait(self.boot, log="into wifi guard")
        self.row = Row("idle, at the start")
        self.row.before = Footprint(self.process)
        self.row.notes = "nobody has asked anything yet"
        self.rows.append(self.row)
        self.cut_upload(100_000, 50_000)
        for count in (1000, 5000, 1000, 5000):
            client.close_all(self.open_and_ask(count))
        client.flood(1000, self.noise)
        client.await_service(PATIENCE)

    @staticmethod
    def open_and_ask(count):
        connections = client.connect_many(count)
        for connection in connections:
            client.ask(connection, client.INFO, client.INFO_SIZE)
        return connections

    def cut_upload(self, size, cut, reset=False):
        """An upload that ends early. The receiver's pauses before it (1.1 s) are over afterwards. Returns whether the
        device took all that was sent."""
        before = self._receiver_lines()
        taken = client.upload(client.package(size, self.noise), cut, reset)
        deadline = time.monotonic() + PATIENCE
        while cut >= client.REPLY_SIZE and self._receiver_lines() == before:
            if time.monotonic() > deadline:
                self.explain("the receiver does not begin")
            time.sleep(0.02)
        return taken

    def _receiver_lines(self):
        return self.trace_count("\x1b[mKorvanUpgradeStart") + self.trace_count("upGradeFile.FLS failed")

    def trace_count(self, text):
        return self.board.text(self.boot, "trace.log").count(text)

    # The phases

    def at_once(self):
        with self.phase("1,000 at once") as row:
            connections = self.open_and_ask(1000)
            full = Footprint(self.process)
            client.close_all(connections)
            row.notes = f"{full.descriptors} fd, {full.anonymous} KiB while open"

    def one_after_the_other(self):
        with self.phase("10,000 in turn") as row:
            began = time.monotonic()
            for _ in range(10_000):
                with contextlib.closing(client.connect()) as connection:
                    client.ask(connection)
            row.notes = f"{10_000 / (time.monotonic() - began):.0f}/s, each answered"

    def slow_and_half_open(self):
        """Readers that ask and do not read, writers that send a byte at a time, peers that close their half, and peers
        that are gone. All the while the others are served."""
        with self.phase("slow and half-open") as row:
            subprocess.run(["ip", "address", "add", "192.168.10.77/24", "dev", "lan0"], check=True)
            gone = client.connect_many(200, source="192.168.10.77")
            client.vanish(gone)
            subprocess.run(["ip", "address", "del", "192.168.10.77/24", "dev", "lan0"], check=True)
            readers = client.connect_many(200, receive_buffer=2048)
            halves = client.connect_many(200)
            writers = client.connect_many(50)
            slowest = self._torment(readers, halves, writers)
            client.close_all([*readers, *halves, *writers])
            self.serve_again()
            # The kernel gives up the peers that are gone. Nothing can end this earlier.
            left = self.board.settled(self.process, row.before, 1 << 30, timeout=DEAD_PEER)
            row.notes = f"others waited up to {slowest:.2f} s; {left.descriptors - row.before.descriptors} dead peers left"

    def _torment(self, readers, halves, writers):
        for connection in halves:
            connection.send(client.frame(client.INFO)[:16])
            connection.shutdown(client.socket.SHUT_WR)
        for connection in readers:
            connection.setblocking(False)
        slowest, pieces = 0.0, client.frame(client.INFO)
        for at in range(len(pieces)):
            for connection in readers:
                with contextlib.suppress(OSError):
                    connection.send(pieces * 50)
            for connection in writers:
                with contextlib.suppress(OSError):
                    connection.send(pieces[at:at + 1])
            slowest = max(slowest, client.await_service(PATIENCE))
            time.sleep(0.1)
        return slowest

    def datagrams(self):
        with self.phase("100,000 datagrams") as row:
            searches, answers = client.flood(100_000, self.noise)
            row.notes = f"{answers} of {searches} searches answered"

    def cut_uploads(self):
        with self.phase("40 uploads cut") as row:
            sent = 0
            for number in range(40):
                size = self.noise.randrange(1, 3 * MIB)
                last = client.REPLY_SIZE + size + client.TRAILER_SIZE - 1
                cut = self.noise.choice([self.noise.randrange(1, 33), last, self.noise.randrange(33, last)])
                sent += self.cut_upload(size, cut, reset=number % 2 == 1)
            row.notes = f"{sent} taken up to the cut"

    def few_descriptors(self):
        with self.phase("32 descriptors") as row, limited(self.process, resource.RLIMIT_NOFILE, self._few()):
            connections = client.connect_many(40)
            served = sum(self._answered(connection) for connection in connections)
            client.close_all(connections[3:])
            self.cut_upload(200_000, 100_000)
            client.close_all(connections[:3])
            self.serve_again()
            row.notes = f"{served} of 40 served while all are open"

    def _few(self):
        """A sanitizer needs descriptors of its own."""
        return 32 if not self.relaxed else Footprint(self.process).descriptors + 5

    @staticmethod
    def _answered(connection):
        connection.settimeout(0.05)
        with contextlib.suppress(OSError):
            return len(client.ask(connection)) == client.REPLY_SIZE
        return False

    def small_tmp(self):
        """A package that does not fit: the device must say so and reboot."""
        self.board.do("exec", "--board", "--", "mount", "-o", "remount,size=8m", "/tmp")
        with self.phase("8 MiB of /tmp") as row:
            boot = self.boot
            client.upload(client.package(12 * MIB, self.noise))
            self.next_boot("reboot")
            if "fwrite 8192 bytes failed. ret = " not in self.board.text(boot, "trace.log"):
                self.explain("the short write is not in the log")
            row.notes = "12 MiB refused by a reboot"

    @contextlib.contextmanager
    def scarce(self, name):
        """A phase with a memory cgroup of 4 MiB above idle: it counts what the kernel keeps for the program too."""
        with contextlib.ExitStack() as stack:
            try:
                group = stack.enter_context(MemoryGroup())
            except OSError as error:
                print(f"NOT RUN: {name}: {error}", flush=True)
                yield None, None
                return
            row = stack.enter_context(self.phase(name))
            group.hold(self.process, 4 * MIB)
            yield row, group

    def crowded_memory(self):
        """What 1,000 clients can take must fit, even if they do not read."""
        with self.scarce("4 MiB, 1,000 clients") as (row, group):
            if row is None:
                return
            connections = self.open_and_ask(1000)
            for connection in connections:
                connection.setblocking(False)
                with contextlib.suppress(OSError):
                    connection.send(client.frame(client.INFO) * 100)
            client.close_all(connections)
            self.serve_again()
            row.notes = f"{group.peak() // 1024} KiB at most, the kernel's included"
            if group.kills():
                self.explain("the kernel has killed it for want of memory")

    def no_memory(self):
        """A package goes to memory. When there is none left, the kernel kills the program; the watchdog then resets."""
        with self.scarce("4 MiB, 8 MiB upload") as (row, group):
            if row is None:
                return
            with contextlib.suppress(OSError):
                client.upload(client.package(8 * MIB, self.noise), cut=7 * MIB)
            self.next_boot("watchdog", WATCHDOG + 15)
            row.notes = f"{group.kills()} killed by the kernel, then reset"

    def no_data(self):
        """4 MiB above idle, for what the program asks for itself: its allocations fail."""
        if self.relaxed:
            print("NOT RUN: out of memory, malloc: a sanitizer's own memory has no such limit", flush=True)
            return
        with self.phase("out of memory, malloc") as row:
            with limited(self.process, resource.RLIMIT_DATA, data_size(self.process) + 4 * MIB):
                connections = []
                with contextlib.suppress(OSError):
                    for _ in range(15_000):
                        connections.append(client.connect(timeout=1))
                        if len(connections) % 500 == 0:
                            client.ask(connections[-1])
                full = Footprint(self.process)
                client.close_all(connections)
                self.serve_again()
            row.notes = f"{len(connections)} open, {full.anonymous} KiB"

    def blocked_log(self):
        with self.phase("stderr blocked") as row:
            self.board.do("fault", "trace", "block")
            began = time.monotonic()
            connections = client.connect_many(100)
            for connection in connections:
                connection.sendall(client.frame(client.INFO))
            client.flood(5000, self.noise)
            time.sleep(max(0, began + 10 - time.monotonic()))  # a span of time in which only the feeder can work
            with contextlib.suppress(client.NoService):
                client.await_service(0.5)
                self.explain("an answer while the log blocks: the pipe was not full")
            client.close_all(connections)
            self.board.do("fault", "trace", "off")
            self.serve_again()
            row.notes = "10 s without a reader"

    # Signals

    @contextlib.contextmanager
    def traffic(self):
        """Clients go on meanwhile. Yields a list whose length is the number of answers."""
        answers, stop = [], threading.Event()

        def talk():
            while not stop.is_set():
                with contextlib.suppress(OSError), contextlib.closing(client.connect(timeout=1)) as connection:
                    while not stop.is_set():
                        answers.append(client.ask(connection, client.INFO, client.INFO_SIZE))

        talkers = [threading.Thread(target=talk) for _ in range(4)]
        for talker in talkers:
            talker.start()
        try:
            yield answers
        finally:
            stop.set()
            for talker in talkers:
                talker.join()

    def storm(self, kinds):
        for _ in range(STORM):
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.process, self.noise.choice(kinds))
            time.sleep(0.001)

    def disarming(self):
        """SIGUSR1 disarms the watchdog and does nothing else, however often it comes."""
        with self.phase("SIGUSR1 storm") as row:
            with self.traffic() as answers:
                self.storm([signal.SIGUSR1])
                before = len(answers)
                deadline = time.monotonic() + 5
                while len(answers) < before + 100 and time.monotonic() < deadline:
                    time.sleep(0.01)
            self.serve_again()
            if len(answers) < before + 100:
                self.explain("no answers after the storm")
            self.board.wait(self.boot, log="Watchdog Stop successful")
            if self.board.status()["watchdog"]["armed"]:
                self.explain("the watchdog is still armed")
            row.notes = f"disarmed; {len(answers)} answers meanwhile"
            row.before.threads -= 1  # the feeder has ended
        self._reset()

    def flashing(self):
        """SIGUSR2 starts the flash writer once. It finds no whole package and reboots."""
        with self.phase("SIGUSR2 storm") as row:
            boot = self.boot
            with self.traffic() as answers:
                self.storm([signal.SIGUSR2])
                self.board.wait(boot, console="board: down: ")
            self.next_boot("reboot -f")
            row.notes = f"one reboot; {len(answers)} answers before it"
            if self.board.text(boot, "trace.log").count("Scalable partition:") != 1:
                self.explain("the writer did not run exactly once")

    def ending(self):
        """SIGTERM ends the program once, with the watchdog disarmed. Nothing on the board starts it again."""
        with self.phase("SIGTERM storm") as row:
            boot = self.boot
            with self.traffic() as answers:
                self.storm([signal.SIGTERM])
                self.board.wait(boot, console="upgradeMain ended with ")
            if "upgradeMain ended with status 0" not in self.board.text(boot, "console.log"):
                self.explain("it did not end with status 0")
            if self.trace_count("Start Exit!") != 1:
                self.explain("it did not begin its end exactly once")
            row.notes = f"status 0; {self.trace_count('wait exit!')} refused; {len(answers)} answers"
            self._reset()

    def everything(self):
        """All three at once: the program ends by itself or reboots the board, whichever comes first."""
        with self.phase("all signals") as row:
            boot = self.boot
            with self.traffic() as answers:
                self.storm([signal.SIGUSR1, signal.SIGUSR2, signal.SIGTERM])
                self.board.wait(boot, console="upgradeMain ended with ")
            if "upgradeMain ended with status 0" not in self.board.text(boot, "console.log"):
                self.explain("it did not end with status 0")
            row.notes = f"status 0; {len(answers)} answers"
            self._reset()

    def _reset(self):
        self.board.do("reset")
        self.next_boot("reset")

    def phases(self):
        return [self.at_once, self.one_after_the_other, self.datagrams, self.slow_and_half_open, self.cut_uploads,
                self.few_descriptors, self.blocked_log, self.no_data, self.crowded_memory, self.no_memory, self.small_tmp,
                self.disarming, self.flashing, self.ending, self.everything]


def main():
    parser = argparse.ArgumentParser(prog="journey", description=__doc__.splitlines()[0])
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs")
    parser.add_argument("state", type=pathlib.Path, help="the board's state folder")
    parser.add_argument("report", type=pathlib.Path, help="file that receives the rows")
    parser.add_argument("--relaxed", action="store_true", help="a sanitizer's build: judge neither time nor memory")
    parser.add_argument("--only", help="phases whose method has one of these names, with commas")
    options = parser.parse_args()
    interruptible()
    client.allow_descriptors(16_000)
    journey = Journey(Board(options.bin, options.state), options.relaxed, seed=1)
    try:
        journey.warm_up()
        for phase in journey.phases():
            if not options.only or phase.__name__ in options.only.split(","):
                phase()
    except (Problem, OSError, client.NoService) as problem:
        print(f"load: {problem}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    options.report.write_text(json.dumps([row.cells() for row in journey.rows]), encoding="utf-8")
    return int(any(row.missed for row in journey.rows))


if __name__ == "__main__":
    sys.exit(main())
