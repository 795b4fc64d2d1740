"""A virtual board for a measurement."""

import contextlib
import json
import pathlib
import subprocess
import sys
import tempfile
import time

TIMEOUT = 60
ADDRESS = "192.168.10.2"
HERE = pathlib.Path(__file__).parent


class Board:
    """Runs a program on a board of its own. The board goes off with close(), or with the thread that made it."""

    def __init__(self, bin_folder, *options, program=("upgradeMain",)):
        self._folder = tempfile.TemporaryDirectory(prefix="kv-bench-")
        self.state = pathlib.Path(self._folder.name) / "board"
        self._vboard = [bin_folder / "vboard", "--state", self.state]
        command = [bin_folder / program[0], *program[1:]]  # an absolute path stays as it is
        self._runner = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", *self._vboard, "run", "--quiet", "--no-wifi", *options, "--", *command],
            stdin=subprocess.DEVNULL, start_new_session=True)

    def close(self):
        self._runner.terminate()
        self._runner.wait()
        self._folder.cleanup()

    def do(self, *words):
        """Runs a subcommand of vboard. Returns its output."""
        result = subprocess.run([*self._vboard, *(str(word) for word in words)], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, check=False, stdin=subprocess.DEVNULL)
        if result.returncode != 0:
            raise RuntimeError(f"vboard {' '.join(str(word) for word in words)}: {result.stderr.strip()}")
        return result.stdout

    def start(self, *words):
        """Starts a subcommand of vboard in the background, with its standard output in a pipe."""
        return subprocess.Popen([*self._vboard, *(str(word) for word in words)], stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, text=True)

    def client(self, script, *words):
        """Runs a script of this folder on the bench. Returns what it prints, decoded from JSON."""
        return json.loads(self.do("exec", "--", sys.executable, "-B", HERE / script, *words))

    def wait(self, *words):
        self.do("wait", "--timeout", TIMEOUT, *words)

    def in_recovery(self, boot=1):
        self.wait("--boot", boot, "--log", "app file not exist!")
        return self

    def program(self):
        """The host's number of the program's process."""
        return json.loads(self.do("status", "--json"))["program"]["hostPid"]

    def operations(self):
        with open(self.state / "ops.jsonl", encoding="utf-8") as log:
            return [json.loads(line) for line in log if line.endswith("\n")]

    def await_operation(self, wanted, timeout=TIMEOUT):
        """Returns the first operation for which wanted() is true."""
        return await_value(lambda: next((step for step in self.operations() if wanted(step)), None), timeout)

    def shape(self, rate):
        """Limits what the bench sends to the board, or takes the limit away again."""
        words = ["add", "dev", "lan0", "root", "tbf", "rate", rate, "burst", "64kb", "latency", "50ms"] if rate else \
                ["del", "dev", "lan0", "root"]
        self.do("exec", "--", "/sbin/tc", "qdisc", *words)


def await_value(get, timeout=TIMEOUT):
    """Calls get() until it returns something other than None."""
    deadline = time.monotonic() + timeout
    while (value := get()) is None:
        if time.monotonic() > deadline:
            raise RuntimeError(f"not seen within {timeout:g} s")
        time.sleep(0.005)
    return value


def board(*words, **options):
    return contextlib.closing(Board(*words, **options))
