"""The runs: a real upgrade on a virtual board for each power cut and each failure."""

import itertools
import json
import queue
import re
import threading

from camera import Camera
from firmware import PLACES, Package, run
from judge import DECEIVES, RECOVERS, RISKS, RUNS, Judge
from writer import Failure, Writer, cuts

ONLINE = "Process cameraMain online"
# What can fail, and how: with an error (None), or after this number of bytes.
FAILURES = [("open", None), ("ioctl", None), ("erase", None), ("write", None), ("write", 4096)]


class Outcome:
    """`what`: a class of judge.py. `version`: what the package's images then are: "old", "new" or "mixed"."""

    def __init__(self, what, version):
        self.what, self.version = what, version


class Order:
    """One order of the images: its package, every cut and every failure."""

    def __init__(self, name, kvtool, old, new, images):
        self.name = name
        self.old = old.flash()
        self.package = Package(kvtool, new, images)
        self.writer = Writer(self.package)
        self.flashed = {device: cells for device, cells in self.writer.final(self.old).items()
                        if any(device in PLACES[image] for image in images)}
        self.cuts = []  # (Cut, key of the flash that it leaves)
        self.distinct = {}  # key -> (the first Cut that leaves this flash, the flash)
        self.predicted = json.loads(self.package.inspect())["power"]
        for cut, state, key in cuts(self.writer.requests, self.old, self.predicted["chip"]):
            self.cuts.append((cut, key))
            self.distinct.setdefault(key, (cut, state))
        self.failures = self._failures()
        self.outcomes = {}  # key, or Failure -> Outcome

    def _failures(self):
        return [Failure(kind, at, short) for kind, short in FAILURES for at in range(1, self.writer.counts[kind] + 1)]

    def windows(self):
        """Maps each harmful class to the spans of time, from and to, in which a cut has this outcome."""
        spans = {what: [] for what in RISKS.values()}
        for cut, key in self.cuts:
            outcome = self.outcomes[key].what
            if outcome not in spans or cut.place == "after":
                continue
            end = cut.start + cut.seconds
            image = cut.request.image
            if spans[outcome] and spans[outcome][-1][2] == image:
                spans[outcome][-1][1] = end
            else:
                spans[outcome].append([cut.start, end, image])
        return spans

    def seconds(self):
        last = self.cuts[-1][0]
        return last.start + last.seconds


class Problem(Exception):
    """Something did not come out as it must."""


class Bench:
    """A board and a judge for one thread."""

    def __init__(self, camera, judge):
        self.camera, self.judge = camera, judge

    def start_old(self, order):
        self.camera.load(order.old)
        self.camera.on()
        if self.camera.recovers():
            raise Problem("the old firmware starts recovery")

    def check_reference(self, order, kvtool):
        """An upgrade without a cut: the writer's log and calls, the chip's bytes and `kvtool verify` must agree with
        writer.py."""
        self.start_old(order)
        self.camera.start_writer(order.package)
        self.check_log(self.camera.await_reboot(), order.writer)
        flash = self.camera.dump()
        self.camera.off()
        if flash != order.old | order.flashed:
            raise Problem("an upgrade without a cut leaves unexpected flash")
        done = [(entry["dev"], entry["op"], entry["off"], entry["len"]) for entry in self.camera.operations()
                if entry["op"] in ("erase", "write") and entry["dev"] in flash]
        wanted = [(request.device, request.kind, request.offset, request.length) for request in order.writer.requests]
        if done != wanted:
            raise Problem(f"the writer's calls are unexpected: {done}")
        dumps = []
        for image in order.package.names:
            for device in PLACES[image]:
                dumps.append(f"{image}={self.camera.folder}/flash/{device}.bin")
        run(kvtool, "verify", order.package.path, *dumps)

    @staticmethod
    def check_log(trace, writer):
        """Compares what the writer logged after its greeting, to the letter."""
        logged = re.findall(r"\] \d+ +([A-Z]+) \S+:(KV_UPGRADE_\w+):\d+ \x1b\[m(.*)", trace)
        start = next((i for i, line in enumerate(logged) if line[2].startswith("update file number")), -1)
        if logged[start + 1:] != writer.log:
            wrong = next(pair for pair in itertools.zip_longest(logged[start + 1:], writer.log) if pair[0] != pair[1])
            raise Problem(f"logged {wrong[0]}, expected {wrong[1]}")

    def cut(self, order, cut, expected):
        self.camera.fault(cut.options())
        self.start_old(order)
        self.camera.start_writer(order.package)
        self.camera.await_down("power cut")
        if self.camera.dump() != expected:
            raise Problem("the cut leaves unexpected flash")
        return self.aftermath(order, expected)

    def fail(self, order, failure):
        self.start_old(order)
        self.camera.fault(failure.options())
        self.camera.start_writer(order.package)
        trace = self.camera.await_reboot()
        self.camera.off()
        writer = Writer(order.package, failure)
        flash = self.camera.dump()
        if flash != writer.final(order.old):
            raise Problem("the failure leaves unexpected flash")
        self.check_log(trace, writer)
        return self.aftermath(order, flash)

    def aftermath(self, order, flash):
        """The board is off. Looks at the flash, then switches the board on if it would boot."""
        version = self.judge.version(flash, order.package.names)
        torn = self.judge.boot_chain(flash)
        if torn:
            return Outcome(torn, version)
        application = self.judge.application(flash)
        self.camera.on()
        recovers = self.camera.recovers()
        if recovers and application in ("old", "new"):
            raise Problem("recovery, although the application is whole")
        if not recovers:
            self.camera.await_log(ONLINE)
        self.camera.start_writer(order.package)
        self.camera.await_reboot()
        if self.camera.dump() != flash | order.flashed:
            raise Problem("the second upgrade does not leave the package's firmware")
        self.camera.await_log(ONLINE)
        self.camera.off()
        if recovers:
            return Outcome(RECOVERS, version)
        return Outcome(DECEIVES if application in (None, "damaged") else RUNS, version)


class Sweep:
    """Runs tasks on several boards. Stops at the first problem."""

    def __init__(self, bin_folder, folder, jobs, versions):
        self._bin, self._folder, self._jobs, self._versions = bin_folder, folder, jobs, versions
        self._tasks = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._problems = []
        self.total = self.done = 0

    def add(self, task, description):
        """`task` gets a Bench."""
        self._tasks.put((task, description))
        self.total += 1

    def run(self, progress):
        """Raises Problem with the first problem."""
        workers = [threading.Thread(target=self._work, args=[number, progress]) for number in range(self._jobs)]
        for worker in workers:
            worker.start()
        try:
            for worker in workers:
                worker.join()
        except KeyboardInterrupt:
            self._problems.append("interrupted")  # each board ends its present run
            for worker in workers:
                worker.join()
            raise
        if self._problems:
            raise Problem(self._problems[0])

    def _work(self, number, progress):
        description = "starting a board"
        try:
            folder = self._folder / str(number)
            judge = Judge(self._folder / f"judge-{number}", self._versions)
            with Camera(self._bin, folder) as camera:
                bench = Bench(camera, judge)
                while not self._problems:
                    try:
                        task, description = self._tasks.get_nowait()
                    except queue.Empty:
                        return
                    task(bench)
                    with self._lock:
                        self.done += 1
                        progress(self.done, self.total)
        except Exception as error:  # pylint: disable=broad-except # whatever it is, the sweep has failed
            with self._lock:
                self._problems.append(f"{description}: {error if isinstance(error, Problem) else repr(error)}")


def tasks_of(order, kvtool, sample=None):
    """Yields the order's tasks and their descriptions; with `sample`, only so many cuts and failures, evenly spread."""
    def keep(items):
        items = list(items)
        return items if sample is None else items[::max(1, len(items) // sample)][:sample]

    def record(key, work):
        def task(bench):
            order.outcomes[key] = work(bench)
        return task

    yield lambda bench: bench.check_reference(order, kvtool), f"{order.name}: whole upgrade"
    for key, (cut, flash) in keep(order.distinct.items()):
        yield (record(key, lambda bench, cut=cut, flash=flash: bench.cut(order, cut, flash)), f"{order.name}: {cut}")
    for failure in keep(order.failures):
        yield (record(failure, lambda bench, failure=failure: bench.fail(order, failure)), f"{order.name}: {failure}")


def check_inspect(order):
    """The time and the windows that `kvtool inspect` predicts must be those of the sweep."""
    predicted = order.predicted
    if abs(predicted["seconds"] - order.seconds()) > 0.001:
        raise Problem(f"{order.name}: kvtool predicts {predicted['seconds']} s, the sweep took {order.seconds():.3f} s")
    expected = [(RISKS[window["risk"]], window["partition"], window["from"], window["from"] + window["seconds"])
                for window in predicted["windows"]]
    found = sorted(((what, image, start, end) for what, spans in order.windows().items()
                    for start, end, image in spans), key=lambda window: window[2])
    close = len(found) == len(expected) and all(
        a[:2] == b[:2] and abs(a[2] - b[2]) < 0.002 and abs(a[3] - b[3]) < 0.002 for a, b in zip(found, expected))
    if not close:
        raise Problem(f"{order.name}: kvtool predicts the windows {expected}, the sweep found {found}")
