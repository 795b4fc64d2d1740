#!/usr/bin/python3
"""A day of a virtual camera's clock, in an hour or less: heartbeats, silences, restarts, reboots, recoveries, and an
access point that comes and goes.

day.py BIN [--hours N] [--speed N] [--program FILE] [--docs DIR]

BIN holds the programs. What the log must show comes from `kvtool ladder`. With --docs, rewrites the figures of the day
in DIR/soak.md, unless a goal is missed. See docs/soak.md.
"""

import json
import os
import pathlib
import signal
import subprocess
import sys
import textwrap
import time

import entry
import page
from board import (READY, Board, Feeds, Footprint, Problem, load_average, switched_on, take_real_time,
                   ticking)
from plan import HOUR, OUTAGE_SLOT, QUIET, SLOT, Outages, Watched

ADDRESS = "192.168.10.2"
GUARD = "into wifi guard"
SLACK = 64       # KiB of anonymous memory
GAP = 1.2        # seconds between two feeds
STALL = 10       # a third of the watchdog's time-out: even a busy machine must not come near it
RARE = 0.05      # share of gaps that a busy machine may make longer
SERVICE_SLOT = 1800
CHECK = 3        # seconds between two checks of the monitor, and the most by which an "online" is logged late


class Hour:
    """One row of the table."""

    def __init__(self, what, boot, footprint, gaps, late):
        self.what, self.boot, self.footprint = what, boot, footprint
        self.gaps, self.late = gaps, late

    def cells(self):
        held = self.footprint
        return [self.what, self.boot, held.descriptors, held.threads, held.rss, held.anonymous,
                f"{max(self.gaps, default=0):.2f} s", f"{self.late:.2f} s"]


def script_of(steps):
    """For `kvtool ladder`: an application that beats, and whose modes change at these times. A restart changes nothing,
    and after a reboot it is silent."""
    parts, now = [], 0
    for at, mode in steps:
        parts.append(f"{'beat' if mode == 'silent' else 'silent'} {at - now}s")
        now = at
    return ", ".join(parts) + f", {steps[-1][1]}; restart: continue; boot: silent"


class Day:
    def __init__(self, options, board, lateness):
        self.options, self.board, self._lateness = options, board, lateness
        self.speed = options.speed
        self._lag = 0.3 * self.speed + 1  # the host's scheduling, and a clock of whole seconds: as in ladder_times.py
        self._feeds = Feeds(board, "board")
        self._started = {}  # boot -> host's time at which its supervisor started
        self._first = {}    # what a boot's footprint is compared with
        self.boot = 1
        self.reasons = ["power-on"]
        self.hours, self.missed = [], []
        self.counts = dict.fromkeys(["silences", "restarts", "reboots", "recoveries", "service stops", "outages",
                                     "queries"], 0)

    # Time

    def host_time(self, at):
        """The host's time at which the present boot's supervisor has run for `at` seconds."""
        deadline = time.monotonic() + 30
        while self.boot not in self._started:
            self.expect(time.monotonic() < deadline, "the supervisor does not open the watchdog")
            time.sleep(0.005)
            for operation in self._feeds.update():
                if operation["op"] == "open" and operation["dev"] == "watchdog":
                    self._started[operation["boot"]] = operation["t"]
        return self._started[self.boot] + at / self.speed

    def until(self, at):
        time.sleep(max(0, self.host_time(at) - time.monotonic()))

    def now(self):
        return (time.monotonic() - self.host_time(0)) * self.speed

    # Checks

    def expect(self, good, what):
        if not good:
            raise Problem(f"boot {self.boot}: {what}; the log ends with:\n{self.board.last_lines(self.boot)}")

    def next_boot(self, reason):
        """Waits for the boot that must follow the present one."""
        self.reasons.append(reason)
        self.boot += 1
        self.board.wait(self.boot)
        self.expect(self.board.reasons() == self.reasons, f"resets are {self.board.reasons()}, not {self.reasons}")

    def measure(self, what, kind):
        """Adds a row. The footprint must be that of the first one of its kind."""
        late = self._lateness() * self.speed
        process = self.board.process()
        self.expect(process, "the program has ended")
        first = self._first.setdefault(kind, Footprint(process))
        held = self.board.settled(process, first, SLACK, timeout=1)
        grown = [f"{what}, boot {self.boot}: not flat: {text}" for text in held.grown(first, SLACK)]
        gaps = self._feeds.take()
        hour = Hour(what, self.boot, held, gaps, late)
        self.hours.append(hour)
        print(f"{what:24} boot {self.boot:2}: {held.descriptors} fd, {held.threads} threads, "
              f"{held.anonymous} KiB, feed gap {max(gaps, default=0):.2f} s", flush=True)
        for text in grown:
            print(f"MISSED: {text}", flush=True)
        self.missed += grown

    def steps(self, *arguments):
        answer = subprocess.run([self.options.bin / "kvtool", "ladder", "--json", *map(str, arguments)],
                                stdout=subprocess.PIPE, text=True, check=True)
        return json.loads(answer.stdout)

    def check_ladder(self, expected, boot):
        """The log of a boot must show the events of `kvtool ladder`'s answer to the script, at their times."""
        replay = self.steps("--log", self.board.state / f"boot-{boot}/trace.log")
        names = ("offline", "online", "restart", "reboot", "recovery")
        # "seen" is when the log shows a step. It shows the first heartbeat after a silence only indirectly.
        seen = [(event["event"], event.get("seen", event["at"])) for event in replay["boots"][0]["events"]
                if "seen" in event or event["event"] == "online"]
        wanted = [(event["event"], event["at"]) for event in expected["events"] if event["event"] in names]
        self.expect([name for name, _ in seen] == [name for name, _ in wanted],
                    f"the log of boot {boot} shows {seen}, expected {wanted}")
        for (name, at), (_, when) in zip(seen, wanted):
            slack = CHECK + self._lag + (CHECK if name == "online" else 0)
            self.expect(abs(at - when) <= slack, f"boot {boot}: {name} at {at} s, expected at {when} s")
        self.counts["silences"] += sum(name == "offline" for name, _ in seen)
        self.counts["restarts"] += sum(name == "restart" for name, _ in seen)
        self.counts["reboots"] += sum(name == "reboot" for name, _ in seen)

    def query(self):
        """The services answer a technician's tool."""
        result = subprocess.run([self.options.bin / "vboard", "--state", self.board.state, "exec", "--",
                                 self.options.bin / "kvtool", "info", ADDRESS, "--json"],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        self.expect(result.returncode == 0, f"no answer from the services: {result.stderr.strip()}")
        self.counts["queries"] += 1

    # Parts of the day

    def watched(self, hours):
        """The application lives, with silences, then falls silent for good. Ends in recovery in the next boot."""
        plan = Watched(hours * HOUR, seed=1)
        actions, done = dict(plan.steps), []
        measures = {HOUR * hour - QUIET: f"application {hour} h" for hour in range(1, plan.seconds // HOUR + 1)}
        measures[plan.steps[0][0] - 5] = "application"
        for at in sorted([*actions, *measures]):
            self.until(at)
            if at in actions:
                done.append((round(self.now()), actions[at]))
                self.board.do("app", actions[at])
            else:
                self.measure(measures[at], "application")
        self.until(plan.seconds)
        done.append((round(self.now()), "silent"))
        self.board.do("app", "silent")
        self.next_boot("reboot -f")
        self.board.wait(self.boot, log=READY)
        self.counts["recoveries"] += 1
        expected = self.steps("--script", script_of(done), "--for", f"{plan.seconds + 2 * HOUR}s")["boots"]
        for boot in (1, 2):
            self.check_ladder(expected[boot - 1], boot)

    def outages(self, plan, kind, start):
        """Outages from `start` on. The station must join again after each, unless its link never went away."""
        self.board.wait(self.boot, log=GUARD)
        began = self.now() if start is None else start
        for number, (down, up, how) in enumerate(plan.slots, 1):
            joined, resets = self._joined()
            self.until(began + down)
            self.board.do("ap", how)
            self.until(began + up)
            self.board.do("ap", "up" if how == "down" else "unmute")
            self.until(began + number * OUTAGE_SLOT - QUIET)
            now_joined, now_resets = self._joined()
            again = 1 if how == "down" else 0
            self.expect(now_joined == joined + again,
                        f"{now_joined - joined} joins after the access point was {how}, expected {again}")
            self.expect((now_resets > resets) == (how == "down"),
                        f"{now_resets - resets} soft resets after the access point was {how}")
            self.counts["outages"] += 1
            self.query()
            if number == 1 or number * OUTAGE_SLOT % HOUR == 0:
                self.measure(f"{kind} {number * OUTAGE_SLOT / HOUR:.3g} h", kind)

    def _joined(self):
        return (self.board.text(self.boot, "trace.log").count(GUARD),
                self.board.text(self.boot, "console.log").count("# wifi_reset.sh soft"))

    def stop_services(self):
        """An orderly exit: services stop, the watchdog is disarmed, and nothing resets the board."""
        os.kill(self.board.process(), signal.SIGTERM)
        self.board.wait(self.boot, console="upgradeMain ended with status 0")
        for text in ("Watchdog Stop successful", "KV_WIFI_StaStop success!", "LoopPoolInit DeInit Success!"):
            self.board.wait(self.boot, log=text, timeout=10)
        self.expect(self.board.reasons() == self.reasons, f"resets are {self.board.reasons()}, not {self.reasons}")
        self.hours[-1].gaps += self._feeds.take()
        self.counts["service stops"] += 1

    def service(self, number):
        """A start and a stop of the services: on request, or because the application never lives."""
        requested = number % 2 == 0
        if requested:
            (self.board.state / "param/miniserver.debug").touch()
        self.board.do("app", "beat" if requested else "silent")
        self.board.do("reset")
        self.next_boot("reset")
        began = self.host_time(0)
        first = self.boot
        if not requested:
            self.next_boot("reboot -f")
        self.board.wait(self.boot, log=READY)
        self.counts["recoveries"] += 1
        self.outages(Outages(OUTAGE_SLOT, seed=number), f"service {'on request' if requested else 'at last'}", None)
        if not requested:
            for boot, expected in zip((first, self.boot), self.steps("--script", "silent")["boots"]):
                self.check_ladder(expected, boot)
        time.sleep(max(0, began + SERVICE_SLOT / self.speed - time.monotonic()))
        self.stop_services()

    def run(self):
        """Raises Problem if something happens that must not."""
        third = self.options.hours / 3
        self.board.wait(1, log="Process cameraMain online")
        self.watched(third)
        self.outages(Outages(third * HOUR, seed=2), "recovery", None)
        self.stop_services()
        for number in range(int(third * HOUR // SERVICE_SLOT)):
            self.service(number)

    def summary(self):
        """Judges the feeds, and returns what the day showed as lines of text."""
        gaps = [gap for hour in self.hours for gap in hour.gaps]
        late = max(hour.late for hour in self.hours)
        over = sum(gap > GAP for gap in gaps) / len(gaps)
        if max(gaps) > min(GAP + 2 * late, STALL) or over > RARE:
            self.missed.append("feeds")
            print(f"MISSED: feeds: the largest gap is {max(gaps):.2f} s, {100 * over:.2f} % are above {GAP} s")
        return [", ".join(f"{count} {what}" for what, count in self.counts.items()) + ".",
                f"{len(gaps)} feeds in {sum(gaps) / HOUR:.1f} h of an armed watchdog. The largest gap was "
                f"{max(gaps):.2f} s; {100 * over:.3f} % of all were above {GAP} s.",
                f"A bare process with the same rhythm was late by up to {late:.2f} s of the board's clock."]


def make_application(programs, folder):
    (folder / "app/bin").mkdir(parents=True)
    (folder / "app/bin/cameraMain").write_bytes((programs / "cameraMain").read_bytes())
    (folder / "app/bin/cameraMain").chmod(0o755)
    subprocess.run(["mksquashfs", folder / "app", folder / "app.img", "-quiet", "-no-progress", "-all-root"],
                   check=True)
    return folder / "app.img"


def run(options, folder):
    prompt = take_real_time(True)
    if not prompt:
        print("soak: no real-time priority here; a busy machine may make feeds late", file=sys.stderr)
    state = folder / "board"
    Board(options.bin, state).do("flash", "write", "mtd5", make_application(options.bin, folder))
    began, loads = time.monotonic(), [load_average()]
    with switched_on(options.bin, options.program, state, ["--speed", options.speed]) as board, \
            ticking(1 / options.speed) as lateness:
        day = Day(options, board, lateness)
        day.run()
    minutes = (time.monotonic() - began) / 60
    loads.append(load_average())
    how = (f"{options.hours} hours of the board's clock in {minutes:.1f} minutes ({options.speed} times as fast), on "
           f"{os.cpu_count()} cores with a load of {loads[0]:.1f} at the start and {loads[1]:.1f} at the end, "
           f"{'with' if prompt else 'without'} real-time priority.")
    lines = [how, *day.summary()]
    for text in lines:
        print(textwrap.fill(text, 80))
    if options.docs and not day.missed:
        heads = ["measured", "boot", "descriptors", "threads", "Rss, KiB", "Anonymous, KiB", "largest feed gap",
                 "the machine's part"]
        page.replace(options.docs / "soak.md", "day",
                     [*page.prose(lines), "", *page.table(heads, [hour.cells() for hour in day.hours])])
    return 1 if day.missed else 0


def main():
    parser = entry.parser("day", __doc__)
    parser.add_argument("--hours", type=float, default=24, help="of the board's clock (24)")
    parser.add_argument("--speed", type=int, default=60, help="of the board's clock (60)")
    options = parser.parse_args()
    shortest = 3 * max(SLOT, OUTAGE_SLOT, SERVICE_SLOT) / HOUR
    if options.hours < shortest:
        parser.error(f"--hours: at least {shortest:g}, so that each part of the day happens once")
    return entry.execute(options, run)


if __name__ == "__main__":
    sys.exit(main())
