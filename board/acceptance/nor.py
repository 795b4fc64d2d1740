"""The file that holds the board's NOR flash."""

import pathlib

CHIP_BYTES = 16 << 20
ERASED = b"\xff"


def _layout():
    """Maps each partition's name to its offset and size, in the order mtd0, mtd1, …"""
    layout, start = {}, 0
    table = pathlib.Path(__file__).parents[2] / "common/partitions.txt"
    for line in table.read_text(encoding="utf-8").splitlines():
        words = line.split("#")[0].split()
        if words:
            size = int(words[1]) * 1024
            layout[words[0]] = (start, size)
            start += size
    return layout


LAYOUT = _layout()


def create(path):
    """Creates an erased chip."""
    path.write_bytes(ERASED * CHIP_BYTES)


def read(path, *names):
    """Returns the concatenated contents of partitions."""
    data = path.read_bytes()
    return b"".join(data[start:start + size] for start, size in (LAYOUT[name] for name in names))


def write(path, name, data):
    """Replaces the first bytes of a partition, as a factory programmer does."""
    with open(path, "r+b") as chip:
        chip.seek(LAYOUT[name][0])
        chip.write(data)
