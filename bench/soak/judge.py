"""The frame around each abuse of `make load`: what is measured, and what is judged."""

import contextlib
import random
import time

import client
from board import READY, Feeds, Footprint, Problem

GAP = 1.2        # seconds between two feeds
SERVICE = 1.0    # seconds until both services answer again
SLACK = 128      # KiB of anonymous memory
PATIENCE = 60    # seconds after which a service that does not answer has failed for good
ANYTHING = 1 << 30


class Row:
    """What a phase showed. `service` is None where none is expected."""

    def __init__(self, name):
        self.name, self.notes = name, ""
        self.before = self.after = None
        self.gaps, self.service = [], None
        self.missed = False

    def gap(self):
        return max(self.gaps, default=0.0)

    def cells(self):
        def pair(name):
            return " / ".join(str(getattr(held, name)) if held else "-" for held in (self.before, self.after))
        return [self.name, pair("descriptors"), pair("threads"), pair("rss"), pair("anonymous"),
                f"{self.gap():.2f} s" if self.gaps else "-",
                f"{self.service:.2f} s" if self.service is not None else "-", self.notes]


class Judge:
    """`relaxed`: a sanitizer's build; its timing and its memory are shown, but not judged."""

    def __init__(self, board, relaxed, seed):
        self.board, self.relaxed = board, relaxed
        self.noise = random.Random(seed)
        self.boot = len(board.reasons())
        self.reasons = board.reasons()
        self.process = 0
        self._find_process()
        self._feeds = Feeds(board, "t")
        self.rows = []
        self.row = None
        self._idle_data = 0

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
            self._miss(f"{row.gap():.2f} s between two feeds, goal {GAP} s")
        if self.board.reasons() != self.reasons:
            self.explain("an unexpected reset")
        self.rows.append(row)
        self._print(row)

    def _judge_flat(self, row):
        """The allocator returns memory late. Only what it still keeps after more ordinary clients counts as lost."""
        slack = ANYTHING if self.relaxed else SLACK
        row.after = self.board.settled(self.process, row.before, slack, timeout=3)
        for _ in range(2):
            if row.after.anonymous <= row.before.anonymous + slack:
                break
            client.close_all(self.open_and_ask(1000))
            row.after = self.board.settled(self.process, row.before, slack, timeout=3)
        for text in row.after.grown(row.before, slack):
            self._miss(f"not flat: {text}")

    def _miss(self, text):
        self.row.missed = True
        print(f"MISSED: {self.row.name}: {text}", flush=True)

    def _print(self, row):
        held = row.after
        flat = f"{held.descriptors} fd, {held.threads} threads, {held.anonymous} KiB" if held else "new boot"
        gap = f"{row.gap():.2f} s" if row.gaps else "-"
        print(f"{row.name:22} {flat:28} gap {gap:6}  service {row.service:.2f} s\n{'':22} {row.notes}", flush=True)

    def serve_again(self):
        """Called at the moment when an abuse ends."""
        try:
            self.row.service = client.await_service(PATIENCE)
        except client.NoService as failure:
            self.explain(f"no service for {PATIENCE} s after the end: {failure}")
        if self.row.service > SERVICE and not self.relaxed:
            self._miss(f"service after {self.row.service:.2f} s, goal {SERVICE} s")

    def explain(self, what):
        reasons = self.board.reasons()
        if reasons != self.reasons:
            what += f"; resets are {reasons}, expected {self.reasons}"
        raise Problem(f"{self.row.name}: {what}; the log ends with:\n{self.board.last_lines(self.boot)}")

    def next_boot(self, reason, timeout=60):
        """The abuse ends with a reset: the services must answer at once when the program has started again."""
        self.reasons.append(reason)
        self.boot += 1
        self.board.wait(self.boot, timeout=timeout)
        self.serve_again()
        if self.board.reasons() != self.reasons:
            self.explain("an unexpected reset")
        self.board.wait(self.boot, log=READY)
        self._find_process()

    def _find_process(self):
        self.process = self.board.process()
        if not self.process:
            raise Problem("the program does not run")

    @staticmethod
    def open_and_ask(count):
        connections = client.connect_many(count)
        for connection in connections:
            client.ask(connection, client.INFO, client.INFO_SIZE)
        return connections

    def cut_upload(self, size, cut, reset=False):
        """An upload that ends early. The receiver's pauses before it (1.1 s) are over afterwards. Returns whether the
        device took all that was sent."""
        start = self.board.size(self.boot, "trace.log")
        taken = client.upload(client.package(size, self.noise), cut, reset)
        deadline = time.monotonic() + PATIENCE
        while cut >= client.REPLY_SIZE and not self._receiver_began(start):
            if time.monotonic() > deadline:
                self.explain("the receiver does not begin")
            time.sleep(0.02)
        return taken

    def _receiver_began(self, start):
        text = self.board.text(self.boot, "trace.log", start)
        return "\x1b[mKorvanUpgradeStart" in text or "upGradeFile.FLS failed" in text

    def trace_count(self, text):
        return self.board.text(self.boot, "trace.log").count(text)
