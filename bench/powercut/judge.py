"""Judges flash as a real boot would find it."""

import hashlib
import os
import shutil
import subprocess

from firmware import BOOT_CHAIN, PLACES

# What becomes of the device.
RUNS = "runs"
RECOVERS = "recovers by itself"
RESCUE = "needs the boot loader's rescue"
DEAD = "dead"
DECEIVES = "looks well and is not"
CLASSES = (RUNS, RECOVERS, RESCUE, DEAD, DECEIVES)
# What `kvtool inspect` calls them in its windows.
RISKS = {"dead": DEAD, "rescue": RESCUE, "damage": DECEIVES}


class Judge:
    """Compares with the firmware `versions`, a Firmware for each name. Not for several threads at once."""

    def __init__(self, folder, versions):
        folder.mkdir()
        self._folder = folder / "unpacked"
        self._images = {version: firmware.images for version, firmware in versions.items()}
        self._applications = {}
        self._trees = {}
        for version, images in self._images.items():
            self._trees[version] = self._unpack(images["app"])
            assert self._trees[version], f"the {version} application cannot be unpacked"

    def image(self, state, name):
        """The version that the image's partition holds, or None: torn."""
        held = b"".join(bytes(state[device]) for device in PLACES[name])
        for version, images in self._images.items():
            if held.startswith(images[name]):
                return version
        return None

    def application(self, state):
        """A version; None: no file system, so nothing can be mounted; "damaged": mounts, but some of it is lost."""
        cells = bytes(state["mtd5"])
        key = hashlib.blake2b(cells).digest()
        if key not in self._applications:
            self._applications[key] = self._mount(cells)
        return self._applications[key]

    def _mount(self, cells):
        tree = self._unpack(cells)
        if tree is None:
            return None
        return next((version for version, whole in self._trees.items() if whole == tree), "damaged")

    def _unpack(self, image):
        """Returns each file's content, or None if the file system's tables are unreadable. A mount reads those; data
        is read later."""
        shutil.rmtree(self._folder, ignore_errors=True)
        file = self._folder.with_suffix(".img")
        file.write_bytes(image)
        listing = subprocess.run(["unsquashfs", "-ll", file], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                 check=False)
        if listing.returncode != 0:
            return None
        subprocess.run(["unsquashfs", "-quiet", "-no-progress", "-dest", self._folder, file], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, check=False)
        tree = {}
        for root, _, names in os.walk(self._folder):
            for name in names:
                path = os.path.join(root, name)
                with open(path, "rb") as content:
                    tree[os.path.relpath(path, self._folder)] = content.read()
        return tree

    def boot_chain(self, state):
        """RESCUE or DEAD if a part of the boot chain is torn; otherwise None: the board boots."""
        if self.image(state, "uboot") is None:
            return DEAD
        if any(self.image(state, name) is None for name in BOOT_CHAIN):
            return RESCUE
        return None

    def version(self, state, names):
        """The version of these images if they have one in common, otherwise "mixed"."""
        found = {self.application(state) if name == "app" else self.image(state, name) for name in names}
        return found.pop() if len(found) == 1 else "mixed"
