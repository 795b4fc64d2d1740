"""What the device's flash writer asks of the chip, and what the chip makes of it, step by step.

The sweep compares this with what the real writer and the virtual chip did, so a mistake here shows.
"""

import ctypes
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
    """The `at`-th operation of this kind fails: with an error, or a write after `short` bytes."""

    def __init__(self, kind, at, short=None):
        self.kind, self.at, self.short = kind, at, short

    def options(self):
        how = ["--errno", "EIO"] if self.short is None else ["--short", self.short]
        return ["flash", self.kind, *how, "--at", self.at]

    def what(self):
        if self.short is not None:
            return "short write"
        return "query error" if self.kind == "ioctl" else f"{self.kind} error"

    def __str__(self):
        return f"{self.what()} at number {self.at}"


class Writer:
    """Runs through a package. `requests` are its calls that had an effect, `counts` its operations of each kind
    that can fail, and `log` what it logs, as level, function and text."""

    def __init__(self, package, failure=None):
        self._failure = failure
        self.counts = {"open": 0, "ioctl": 0, "erase": 0, "write": 0}
        self.requests, self.log = [], []
        for number, (name, length, offset) in enumerate(package.entries()):
            self._say("Proc", f"fileNum: {number}, fileName: {name}, dataLen: {length}")
            self._image(name, length, package.data[offset:])

    def _say(self, function, text, level="INFO"):
        self.log.append((level, f"KV_UPGRADE_{function}", text))

    def _complain(self, function, text):
        """Always False, for a caller that gives up."""
        self._say(function, text, "ERROR")
        return False

    def _fails(self, kind):
        self.counts[kind] += 1
        return self._failure is not None and (kind, self.counts[kind]) == (self._failure.kind, self._failure.at)

    def _image(self, name, length, source):
        device = f"/dev/{PLACES[name][0]}"
        self._say("Proc", f"upgrate mtd: {device}, name: {name}, start...")
        self._query_size(name)
        if not self._erase(name):
            self._complain("Proc", f"erase {device} failed!!")
        elif not (self._write_boot if name == "uboot" else self._write)(name, length, source):
            self._complain("Proc", f"write data to {device} failed!!!")
        else:
            self._say("Proc", f"upgrate mtd: {device}, name: {name}, end...")

    def _open(self, name, device, function):
        if self._fails("open"):
            return self._complain(function, f"/dev/{device} open partiton fail!!!" if name == "uboot"
                                  else f"open partiton:/dev/{device} fail!!!")
        return True

    def _query(self, name, device, function):
        if self._fails("ioctl"):
            return self._complain(function, (f"/dev/{device} " if name == "uboot" else "")
                                  + "ioctl memgetinfo fail!!!")
        return True

    def _query_size(self, name):
        """A failure here only leaves the image's size unchecked."""
        function = "GetUbootPartitionSize" if name == "uboot" else "GetPartitionSize"
        for device in PLACES[name]:
            if not (self._open(name, device, function) and self._query(name, device, function)):
                return

    def _erase(self, name):
        function, blank = ("EraseUbootPartition", " ") if name == "uboot" else ("ErasePartition", "")
        for device in PLACES[name]:
            self._say(function, f"erase mtd: /dev/{device}{blank}")
            if not (self._open(name, device, function) and self._query(name, device, function)):
                return False
            for offset in range(0, SIZES[device], BLOCK):
                if self._fails("erase"):
                    return self._complain(function, "ioctl MEMERASE fail!!!")
                self.requests.append(Request(name, device, offset))
                self._progress(function, "Erase", offset + BLOCK, SIZES[device])
            self._say(function, "")
        return True

    def _progress(self, function, what, done, whole):
        """With the device's single-precision arithmetic."""
        percent = _single(_single(_single(done) * 100) / _single(whole))
        self._say(function, f"{what} 64 Kibyte @ {done:x} -- {min(percent, 100):.0f} % complete")

    def _write(self, name, length, source):
        device, function = PLACES[name][0], "WritePartition"
        self._say(function, f"write mtd: /dev/{device}")
        if self._fails("open"):
            return self._complain(function, "open mtd error ")
        self._write_chunks(name, device, length, 1 << 32, source, function)
        return True

    def _write_boot(self, name, length, source):
        """Keeps the device's 32-bit arithmetic, including what a failed write does to it."""
        left, function = length, "WriteUbootPartition"
        for device in PLACES[name]:
            self._say(function, f"write mtd: /dev/{device} ")
            if not (self._open(name, device, function) and self._query(name, device, function)):
                return False
            if left > 0:
                offset, source = self._write_chunks(name, device, left, SIZES[device], source, function)
                left = (left - offset) % (1 << 32)
        return True

    def _write_chunks(self, name, device, wanted, room, source, function):
        """Returns the end offset, and what is left of the source."""
        offset = 0
        while source:
            chunk, source = source[:UNIT], source[UNIT:]
            offset = (offset + self._write_chunk(name, device, offset, chunk)) % (1 << 32)
            self._progress(function, "Write", offset, wanted)
            if offset >= wanted or offset >= room:
                break
        return offset, source

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


def _single(number):
    return ctypes.c_float(number).value


def _key(cells):
    return hashlib.blake2b(cells, digest_size=16).digest()


def copy_of(state):
    return {device: bytearray(cells) for device, cells in state.items()}
