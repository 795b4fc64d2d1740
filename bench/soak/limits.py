"""Limits on what the program may use: descriptors, data, memory with the kernel's own."""

import contextlib
import os
import pathlib
import resource

MIB = 1 << 20
GROUPS = pathlib.Path("/sys/fs/cgroup")


@contextlib.contextmanager
def limited(process, kind, value):
    """The program has this limit inside the `with`, unless it has ended meanwhile."""
    soft, hard = resource.prlimit(process, kind)
    resource.prlimit(process, kind, (value, hard))
    try:
        yield
    finally:
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(process, kind, (soft, hard))


def data_size(process):
    """What RLIMIT_DATA limits, in bytes."""
    for line in pathlib.Path(f"/proc/{process}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmData:"):
            return int(line.split()[1]) * 1024
    raise OSError("the kernel does not report VmData")


class MemoryGroup:
    """A memory cgroup below this process's own, of version 1 or 2. OSError if none can be made."""

    def __init__(self):
        rows = [row.split(":", 2) for row in pathlib.Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines()]
        own = {controller: path for _, names, path in rows for controller in names.split(",")}
        version1 = "memory" in own
        base = GROUPS / "memory" if version1 else GROUPS
        self._folder = base / own.get("memory", own.get("", "/")).lstrip("/") / f"kv-soak-{os.getpid()}"
        self._limit, self._usage, self._peak = (
            ("memory.limit_in_bytes", "memory.usage_in_bytes", "memory.max_usage_in_bytes") if version1 else
            ("memory.max", "memory.current", "memory.peak"))
        self._folder.mkdir()
        if not (self._folder / self._limit).exists():
            self._folder.rmdir()
            raise OSError(f"no memory controller for {self._folder}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        """Moves what still runs in the group to its parent, so that the group can be removed."""
        for process in (self._folder / "cgroup.procs").read_text(encoding="ascii").split():
            with contextlib.suppress(OSError):
                (self._folder.parent / "cgroup.procs").write_text(process, encoding="ascii")
        self._folder.rmdir()

    def hold(self, process, room):
        """The process and what it starts from now on may use `room` bytes more than the process uses now. Its present
        memory is charged elsewhere, so the group begins with nothing."""
        (self._folder / "cgroup.procs").write_text(str(process), encoding="ascii")
        limit = self.usage() + room
        (self._folder / self._limit).write_text(str(limit), encoding="ascii")
        for name, value in (("memory.memsw.limit_in_bytes", limit), ("memory.swap.max", 0)):
            if (self._folder / name).exists():  # a camera has no swap
                (self._folder / name).write_text(str(value), encoding="ascii")

    def usage(self):
        return int((self._folder / self._usage).read_text(encoding="ascii"))

    def peak(self):
        return int((self._folder / self._peak).read_text(encoding="ascii"))

    def kills(self):
        """How many processes the kernel has killed here for lack of memory."""
        name = "memory.oom_control" if "in_bytes" in self._limit else "memory.events"
        counts = dict(line.split() for line in (self._folder / name).read_text(encoding="ascii").splitlines())
        return int(counts["oom_kill"])
