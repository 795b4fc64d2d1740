"""What the device's flash writer asks of the chip, and what the chip makes of it, step by step.

The sweep compares this with what the real writer and the virtual chip did, so a mistake here shows.
"""

import hashlib

from firmware import BLOCK, PAGE, PLACES, SIZES, UNIT


class Request:
    """One call of the device: the erasure of a block (data is None) or a write."""

    def __init__(self, image, device, offset, data=None):
        self.image, self.device, self.offset, self.data = image, device, offset, data

    @property
    def kind(self):
        return "erase" if self.data is None else "write"

    @property
    def length(self):
        return BLOCK if self.data is None else len(self.data)

    def steps(self):
        """Yields the chip's steps as offset and length: the block, or each page that lies in the partition."""
        if self.data is None:
            yield self.offset, BLOCK
            return
        end = min(self.offset + len(self.data), SIZES[self.device])
        at = self.offset
        while at < end:
            step = min(PAGE - at % PAGE, end - at)
            yield at, step
            at += step

    def apply(self, state, start, end):
        """Changes the bytes from `start` to `end` of the partition."""
        cells = state[self.device]
        if self.data is None:
            cells[start:end] = b"\xff" * (end - start)
            return
        wanted = self.data[start - self.offset:end - self.offset]
        cells[start:end] = bytes(old & new for old, new in zip(cells[start:end], wanted))


class Failure:
    """The `at`-th erasure or write fails: with an error, or after `short` bytes."""

    def __init__(self, kind, at, short=None):
        self.kind, self.at, self.short = kind, at, short

    def options(self):
        how = ["--errno", "EIO"] if self.short is None else ["--short", self.short]
        return ["flash", self.kind, *how, "--at", self.at]

    def __str__(self):
        what = "short write" if self.short is not None else f"{self.kind} error"
        return f"{what} at number {self.at}"


class Writer:
    """Runs through a package. `requests` are its calls that had an effect, `offsets` what it logs after each write,
    and `errors` the errors that it logs."""

    def __init__(self, package, failure=None):
        self._failure = failure
        self._counts = {"erase": 0, "write": 0}
        self.requests, self.offsets, self.errors = [], [], []
        for name, length, offset in package.entries():
            if self._erase(name):
                self._write(name, length, package.data[offset:])

    def _fails(self, kind):
        self._counts[kind] += 1
        return self._failure is not None and (kind, self._counts[kind]) == (self._failure.kind, self._failure.at)

    def _erase(self, name):
        for device in PLACES[name]:
            for offset in range(0, SIZES[device], BLOCK):
                if self._fails("erase"):
                    self.errors += ["ioctl MEMERASE fail!!!", f"erase /dev/{PLACES[name][0]} failed!!"]
                    return False
                self.requests.append(Request(name, device, offset))
        return True

    def _write(self, name, length, source):
        """Keeps the device's 32-bit arithmetic, including what a failed write does to it."""
        boot, left, position = name == "uboot", length, 0
        for device in PLACES[name]:
            if left == 0:
                continue
            offset = 0
            while True:
                chunk = source[position:position + UNIT]
                position += len(chunk)
                if not chunk:
                    break
                offset = (offset + self._write_chunk(name, device, offset, chunk)) % (1 << 32)
                self.offsets.append(offset)
                if offset >= left or (boot and offset >= SIZES[device]):
                    break
            left = (left - offset) % (1 << 32)

    def _write_chunk(self, name, device, offset, chunk):
        """Returns what write(2) returns."""
        if self._fails("write"):
            if self._failure.short is None:
                return -1
            chunk = chunk[:self._failure.short]
        if offset >= SIZES[device]:
            return -1
        self.requests.append(Request(name, device, offset, chunk))
        return min(len(chunk), SIZES[device] - offset)

    def final(self, state):
        """The flash at the end, from `state`."""
        state = copy_of(state)
        for request in self.requests:
            for offset, length in request.steps():
                request.apply(state, offset, offset + length)
        return state


class Cut:
    """A power cut at step number `step`: after it, or inside it with the first or second half done."""

    def __init__(self, step, place, request, start, seconds):
        self.step, self.place, self.request = step, place, request
        self.start, self.seconds = start, seconds  # when the step begins at the speed of a real chip, how long it takes

    def options(self):
        if self.place == "after":
            return ["power", "--after", self.step]
        return ["power", "--inside", self.step, "--half", self.place]

    def __str__(self):
        where = "after" if self.place == "after" else f"inside ({self.place} half done of)"
        return f"cut {where} step {self.step}, {self.request.kind} of {self.request.image}"


def cuts(requests, state, chip):
    """`chip`: the times of its steps, as `kvtool inspect --json` has them.

    Yields every possible cut with the flash that it leaves and that flash's key. Flash with equal keys is equal."""
    keys = {device: _key(cells) for device, cells in state.items()}
    step, now = 0, 0.0
    for request in requests:
        seconds = chip["block_seconds" if request.kind == "erase" else "page_seconds"]
        for offset, length in request.steps():
            step += 1
            half = offset + length // 2
            before = state
            for place, start, end in (("first", offset, half), ("second", half, offset + length),
                                      ("after", offset, offset + length)):
                state = before | {request.device: bytearray(before[request.device])}
                request.apply(state, start, end)
                keys[request.device] = _key(state[request.device])
                yield Cut(step, place, request, now, seconds), state, tuple(keys.values())
            now += seconds


def _key(cells):
    return hashlib.blake2b(cells, digest_size=16).digest()


def copy_of(state):
    return {device: bytearray(cells) for device, cells in state.items()}
