"""Firmware images, their package, and the check of flash against the package."""

import random
import subprocess

import nor
from channel import Failure

PLACES = {"uboot": ["boot0", "boot1", "boot2"], "kernel": ["kernel"], "rootfs": ["rootfs"], "app": ["app"]}
# These sizes end in the middle of a chunk. The boot loader reaches into its third partition.
FILLER = {"uboot": 350_000, "kernel": 1_800_001, "rootfs": 1_500_000, "app": 700_000}


class Firmware:
    """Different seeds give different images, which tells new firmware from old."""

    def __init__(self, folder, kvtool, application, seed):
        folder.mkdir()
        self._kvtool = kvtool
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
        """Returns a report line per partition; raises Failure if one differs from what the package writes."""
        dumps = []
        for name, devices in PLACES.items():
            for device in devices:
                dump = self.package.with_name(f"{device}.dump")
                dump.write_bytes(nor.read(flash, device))
                dumps.append(f"{name}={dump}")
        return _run(self._kvtool, "verify", self.package, *dumps).splitlines()


def _run(*command):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if result.returncode != 0:
        raise Failure(f"{command[0]}: status {result.returncode}: {result.stdout}")
    return result.stdout
