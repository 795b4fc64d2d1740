"""Old and new firmware of a small camera, and the packages that lead from one to the other.

The partitions are small and the images mostly blank, which keeps the number of different flash states low. Each image
still crosses a transfer unit, ends inside a page, and has bytes everywhere that matters.
"""

import pathlib
import random
import subprocess

KIB = 1024
PAGE = 256
BLOCK = 64 * KIB
UNIT = 64 * KIB  # the writer reads and writes this much at once
HEADER, ENTRY = 24, 256

SIZES = {"mtd0": 64 * KIB, "mtd1": 64 * KIB, "mtd2": 64 * KIB, "mtd3": 128 * KIB, "mtd4": 128 * KIB,
         "mtd5": 128 * KIB, "mtd6": 64 * KIB, "mtd7": 64 * KIB}
PLACES = {"uboot": ["mtd0", "mtd1", "mtd2"], "kernel": ["mtd3"], "rootfs": ["mtd4"], "app": ["mtd5"]}
BOOT_CHAIN = ("uboot", "kernel", "rootfs")
LENGTHS = {"uboot": 70 * KIB - 100, "kernel": 72 * KIB - 90, "rootfs": 72 * KIB + 30}

# The orders of the images, as the table of the package has them. `kvtool pack` keeps the order that it is given, but
# puts the boot loader last.
ORDERS = {
    "usual order, with boot loader": ["kernel", "rootfs", "app", "uboot"],
    "usual order, without boot loader": ["kernel", "rootfs", "app"],
    "application first, with boot loader": ["app", "kernel", "rootfs", "uboot"],
    "application first, without boot loader": ["app", "kernel", "rootfs"],
    "boot loader first": ["uboot", "kernel", "rootfs", "app"],
    "application alone": ["app"],
}
USUAL = "usual order, with boot loader"


def run(*command):
    result = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, check=False)
    if result.returncode != 0:
        raise RuntimeError(f"{command[0]}: status {result.returncode}: {result.stdout}")
    return result.stdout


def _sparse(length, noise):
    """Noise at the start, around each transfer unit's end and at the end; 0xFF between."""
    image = bytearray(b"\xff" * length)
    for centre in range(0, length + UNIT, UNIT):
        start, end = max(0, min(centre, length) - 4 * PAGE), min(length, centre + 4 * PAGE)
        image[start:end] = noise.randbytes(end - start)
    return bytes(image)


def _application(folder, program, noise):
    """A file system for the application's partition: uncompressed, so that blank files are blank pages."""
    tree = folder / "app"
    (tree / "bin").mkdir(parents=True)
    (tree / "data").mkdir()
    # The program ignores what follows its own bytes.
    (tree / "bin/cameraMain").write_bytes(program.read_bytes() + noise.randbytes(500))
    (tree / "bin/cameraMain").chmod(0o755)
    for name, content in {"1-blank": b"\xff" * 24 * KIB, "2-notes": noise.randbytes(KIB), "3-blank": b"\xff" * 40 * KIB,
                          "4-notes": noise.randbytes(KIB)}.items():
        (tree / "data" / name).write_bytes(content)
    image = folder / "app.img"
    run("mksquashfs", tree, image, "-quiet", "-no-progress", "-all-root", "-noD", "-no-fragments", "-mkfs-time", "0",
        "-all-time", "0")
    return image.read_bytes()


class Firmware:
    """Different seeds give images that differ everywhere."""

    def __init__(self, folder, application, seed):
        folder.mkdir()
        noise = random.Random(seed)
        self.folder = folder
        self.images = {name: _sparse(length, noise) for name, length in LENGTHS.items()}
        self.images["app"] = _application(folder, application, noise)
        for name, image in self.images.items():
            (folder / f"{name}.img").write_bytes(image)

    def flash(self):
        """The contents of all partitions with this firmware."""
        state = {name: bytearray(b"\xff" * size) for name, size in SIZES.items()}
        for name, image in self.images.items():
            for device in PLACES[name]:
                part, image = image[:SIZES[device]], image[SIZES[device]:]
                state[device][:len(part)] = part
        return state


class Package:
    """A package of some of a firmware's images. Its table lists them in the order of `names`."""

    def __init__(self, kvtool, firmware, names):
        self.names = names
        self.path = pathlib.Path(firmware.folder / ("-".join(names) + ".FLS"))
        sizes = [f"--size={name}={sum(SIZES[device] for device in devices)}" for name, devices in PLACES.items()]
        self._inspect = [kvtool, "inspect", self.path, "--json", *sizes]
        run(kvtool, "pack", "-o", self.path, *sizes, *(f"{name}={firmware.folder / name}.img" for name in names))
        self.data = self.path.read_bytes()
        packed = sorted(names, key=lambda name: name == "uboot")  # stable: only the boot loader moves
        if packed != names:
            table = {name: self.data[HEADER + i * ENTRY:HEADER + (i + 1) * ENTRY] for i, name in enumerate(packed)}
            end = HEADER + len(names) * ENTRY
            self.data = self.data[:HEADER] + b"".join(table[name] for name in names) + self.data[end:]
            self.path.write_bytes(self.data)

    def inspect(self):
        """What `kvtool inspect --json` prints."""
        return run(*self._inspect)

    def entries(self):
        """Yields name, length and offset of each image, in the order of the table."""
        for i, name in enumerate(self.names):
            entry = self.data[HEADER + i * ENTRY:HEADER + (i + 1) * ENTRY]
            yield name, int.from_bytes(entry[128:132], "little"), int.from_bytes(entry[132:136], "little")
