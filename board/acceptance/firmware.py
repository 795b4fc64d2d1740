"""Firmware images, their package, and the comparison with flash."""

import hashlib
import random
import subprocess

import nor
from channel import Failure

CHUNK = 65536
PLACES = {"uboot": ["boot0", "boot1", "boot2"], "kernel": ["kernel"], "rootfs": ["rootfs"], "app": ["app"]}
# These sizes end in the middle of a chunk. The boot loader reaches into its third partition.
FILLER = {"uboot": 350_000, "kernel": 1_800_001, "rootfs": 1_500_000, "app": 700_000}


class Firmware:
    """Different seeds give different images, which tells new firmware from old."""

    def __init__(self, folder, kvtool, application, seed):
        folder.mkdir()
        self.package = folder / "firmware.FLS"
        noise = random.Random(seed)
        self.images = {name: folder / f"{name}.img" for name in PLACES}
        for name in ("uboot", "kernel", "rootfs"):
            self.images[name].write_bytes(noise.randbytes(FILLER[name]))
        root = folder / "app"
        (root / "bin").mkdir(parents=True)
        (root / "bin/cameraMain").write_bytes(application.read_bytes())
        (root / "bin/cameraMain").chmod(0o755)
        (root / "data").write_bytes(noise.randbytes(FILLER["app"]))
        _run("mksquashfs", root, self.images["app"], "-quiet", "-no-progress", "-all-root", "-mkfs-time", "0",
             "-all-time", "0")
        _run(kvtool, "pack", "-o", self.package, *(f"{name}={image}" for name, image in self.images.items()))

    def compare(self, flash):
        """Returns a report line per image; raises Failure if a partition holds anything else."""
        report = []
        for name, image in self.images.items():
            want = image.read_bytes()
            have = nor.read(flash, *PLACES[name])
            if have[:len(want)] != want:
                raise Failure(f"{name}: flash does not hold the image")
            # The writer fills the last chunk with the bytes that follow in the package, and writes nothing after it.
            end = -(-len(want) // CHUNK) * CHUNK
            if have[end:].strip(nor.ERASED):
                raise Failure(f"{name}: flash is not erased behind the image")
            report.append(f"{name:7} {len(want):8} bytes, MD5 {hashlib.md5(want).hexdigest()}, same in flash")
        return report


def _run(*command):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        raise Failure(f"{command[0]}: status {result.returncode}: {result.stdout}")
