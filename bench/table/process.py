"""What a process of this machine has used."""

import contextlib
import pathlib
import re


def processor_time(process):
    """Seconds of processor time of the present threads."""
    total = 0
    for task in pathlib.Path(f"/proc/{process}/task").iterdir():
        with contextlib.suppress(FileNotFoundError):  # a thread that has just ended
            total += int((task / "schedstat").read_text(encoding="ascii").split()[0])
    return total / 1e9


def anonymous(process):
    """KiB of memory that only this process has."""
    text = pathlib.Path(f"/proc/{process}/smaps_rollup").read_text(encoding="ascii")
    return int(re.search(r"^Anonymous:\s+(\d+)", text, re.M)[1])


def find(program):
    """Returns the number of the process that runs this file, or None."""
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if (process / "exe").samefile(program):
                return int(process.name)
    return None
