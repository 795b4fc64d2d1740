"""A virtual board with the unchanged device program, and what can be measured of it from outside."""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

READY = "MINI ProtocolInit Init Success!"


class Problem(Exception):
    """The board or the program did something else than expected."""


class Footprint:
    """What the program holds at one moment. Memory in KiB."""

    def __init__(self, process):
        self.descriptors = len(os.listdir(f"/proc/{process}/fd"))
        self.threads = len(os.listdir(f"/proc/{process}/task"))
        rollup = pathlib.Path(f"/proc/{process}/smaps_rollup").read_text(encoding="ascii")
        values = dict(line.split(":", 1) for line in rollup.splitlines()[1:])
        self.rss, self.anonymous = (int(values[name].split()[0]) for name in ("Rss", "Anonymous"))

    def grown(self, before, slack):
        """What is more than `before`, as a list of texts; `slack` KiB of anonymous memory count as equal."""
        found = [f"{name} {getattr(before, name)} -> {getattr(self, name)}" for name in ("descriptors", "threads")
                 if getattr(self, name) > getattr(before, name)]
        if self.anonymous > before.anonymous + slack:
            found.append(f"memory {before.anonymous} -> {self.anonymous} KiB")
        return found


class Board:
    """A board that runs with this state folder."""

    def __init__(self, programs, state):
        self.state = state
        self._vboard = [programs / "vboard", "--state", state]
        self._log, self._rest = None, ""

    def do(self, *words):
        result = subprocess.run([str(word) for word in (*self._vboard, *words)], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        if result.returncode != 0:
            raise Problem(f"vboard {' '.join(str(word) for word in words)}: {result.stderr.strip()}")
        return result.stdout

    def wait(self, boot, log=None, console=None, timeout=60):
        self.do("wait", "--boot", boot, "--timeout", timeout, *(["--log", log] if log else []),
                *(["--console-log", console] if console else []))

    def status(self):
        return json.loads(self.do("status", "--json"))

    def process(self):
        """The program's process number on the host, 0 if it does not run."""
        program = self.status()["program"]
        return program["hostPid"] if program["running"] else 0

    def text(self, boot, name, start=0):
        """What the program ("trace.log") or the board's console ("console.log") has printed in a boot, from byte
        `start` on."""
        try:
            with open(self.state / f"boot-{boot}/{name}", "rb") as file:
                file.seek(start)
                return file.read().decode("utf-8", errors="replace")
        except FileNotFoundError:
            return ""

    def size(self, boot, name):
        return (self.state / f"boot-{boot}/{name}").stat().st_size

    def last_lines(self, boot):
        """The end of the program's log, fit for a terminal."""
        lines = re.sub(r"\x1b\[[0-9;]*m", "", self.text(boot, "trace.log", max(0, self.size(boot, "trace.log") - 4096)))
        return re.sub(r"[^\n -~]", "?", "\n".join(lines.splitlines()[-8:]))

    def reasons(self):
        return [boot["reason"] for boot in self.status()["boots"]]

    def operations(self):
        """Yields the devices' operations since the last call."""
        if self._log is None:
            self._log = open(self.state / "ops.jsonl", encoding="utf-8")  # pylint: disable=consider-using-with
        *lines, self._rest = (self._rest + self._log.read()).split("\n")
        yield from map(json.loads, lines)

    def settled(self, process, before, slack, timeout):
        """The program's footprint, as soon as it is no larger than `before`, or after `timeout` seconds."""
        deadline = time.monotonic() + timeout
        while True:
            now = Footprint(process)
            if not now.grown(before, slack) or time.monotonic() > deadline:
                return now
            time.sleep(0.05)


class Feeds:
    """The times between feeds of the watchdog. A gap begins and ends while the watchdog is armed and in one boot.
    `clock` names the operation's member that has the time: "t" the host's, "board" the board's."""

    def __init__(self, board, clock):
        self._board, self._clock = board, clock
        self._last = None  # boot and time of the last feed
        self.gaps = []

    def update(self):
        """Reads what has happened since the last call. Returns the operations."""
        operations = list(self._board.operations())
        for operation in operations:
            now = (operation["boot"], operation[self._clock])
            if operation["op"] in ("ioctl:KEEPALIVE", "open") and operation["dev"] == "watchdog":
                if self._last and self._last[0] == now[0] and operation["op"] != "open":
                    self.gaps.append(now[1] - self._last[1])
                self._last = now
            elif operation["op"] == "ioctl:SETOPTIONS":
                self._last = None
        return operations

    def take(self):
        """Returns the gaps since the last call."""
        self.update()
        gaps, self.gaps = self.gaps, []
        return gaps


@contextlib.contextmanager
def switched_on(programs, program, state, options):
    """A board that is on inside the `with`."""
    # The board goes off with the thread that starts it, even if this program is killed.
    command = ["setpriv", "--pdeathsig", "TERM", programs / "vboard", "--state", state, "run", "--quiet",
               *options, "--", program]
    with open(state.with_suffix(".log"), "w", encoding="utf-8") as log:
        runner = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                  start_new_session=True)
    try:
        board = Board(programs, state)
        try:
            board.wait(1)
        except Problem as problem:
            raise Problem(state.with_suffix(".log").read_text(encoding="utf-8").strip()) from problem
        yield board
    finally:
        runner.terminate()
        runner.wait()


def take_real_time(wanted):
    """Gives this program, and what it starts from now on, real-time priority, or takes it back. Returns whether that
    worked."""
    try:
        os.sched_setscheduler(0, os.SCHED_FIFO if wanted else os.SCHED_OTHER, os.sched_param(1 if wanted else 0))
    except PermissionError:
        return False
    return True


@contextlib.contextmanager
def ticking(seconds):
    """A bare process that wakes up in this rhythm. Yields a function that returns its largest delay since the last
    call, in seconds."""
    def lateness():
        process.stdin.write("\n")
        return float(process.stdout.readline())

    command = [sys.executable, pathlib.Path(__file__).with_name("metronome.py"), str(seconds)]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1,
                          start_new_session=True) as process:
        try:
            yield lateness
        finally:
            process.kill()


def interruptible():
    """SIGTERM then runs the same clean-up as Ctrl-C."""
    signal.signal(signal.SIGTERM, signal.default_int_handler)


def load_average():
    return os.getloadavg()[0]
