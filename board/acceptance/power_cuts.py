"""Power cuts at several points of an upgrade. The test checks the flash after each, and then what the program does."""

import random

import nor
from channel import Failure
from firmware import FILLER, PLACES
from stories import DEBUG_MARKER

BOOT_CHAIN = ("uboot", "kernel", "rootfs")
BLOCK = 64 << 10
HALF_WRITTEN = r"Write 64 Kibyte @ [0-9a-f]+ -- [3-5][0-9] %"

# Where the power fails: lines that the program logs one after the other, and what the boot chain must then be.
CUTS = [
    ("while the kernel is written", ["name: kernel, start", HALF_WRITTEN],
     {"uboot": "old", "kernel": "torn", "rootfs": "old"}),
    ("while the root file system is written", ["name: rootfs, start", HALF_WRITTEN],
     {"uboot": "old", "kernel": "new", "rootfs": "torn"}),
    # No application is on the flash, so erasing its partition changes nothing.
    ("between the root file system and the application", ["name: rootfs, end", "erase mtd: /dev/mtd5"],
     {"uboot": "old", "kernel": "new", "rootfs": "new"}),
    # It is short. The cut must come before its six chunks are written.
    ("while the boot loader is written", ["name: uboot, start", "write mtd: /dev/mtd0"],
     {"uboot": "torn", "kernel": "new", "rootfs": "new"}),
]


def power_cut_story(board, report, firmware):
    """One upgrade after another is cut. The last one is not."""
    noise = random.Random(2)
    versions = {"old": {name: noise.randbytes(FILLER[name]) for name in BOOT_CHAIN},
                "new": {name: firmware.images[name].read_bytes() for name in BOOT_CHAIN}}
    for name, image in versions["old"].items():
        _program(board.flash, name, image)
    for where, lines, expected in CUTS:
        with report.step(board, f"recovery; an upgrade; power cut {where}") as details:
            board.power_on()
            _recover(board)
            if "uboot" in lines[0]:
                # The application is there after this cut, so recovery must be asked for.
                board.machine.run(f"touch {DEBUG_MARKER}; sync")
            board.send_package(firmware.package)
            for line in lines:
                board.see(line, 120)
            board.power_off()
            found = {name: _version(board.flash, name, versions) for name in BOOT_CHAIN}
            if found != expected:
                raise Failure(f"the flash holds {found}, expected {expected}")
            details.append(", ".join(f"{name} {version}" for name, version in found.items()) + f": {_verdict(found)}")
    with report.step(board, "recovery, although a real board would be dead; an upgrade that is not cut") as details:
        board.power_on()
        _recover(board)
        details += board.upgrade_to(firmware)
    with report.step(board, "the application is alive"):
        board.boot_into_application()
    with report.step(board, "the application's first block loses its second half: the board finds it, recovery"):
        board.power_off()
        image = nor.read(board.flash, "app")
        nor.write(board.flash, "app", image[:BLOCK // 2] + nor.ERASED * (BLOCK // 2) + image[BLOCK:])
        board.power_on()
        board.machine.wait_boot()
        board.see("board: mtd5 is damaged", 10)
        board.see("app file not exist!", 10)


def _recover(board):
    board.machine.wait_boot()
    board.see("app file not exist!|^# rm " + DEBUG_MARKER, 10)
    board.join_network()


def _program(flash, name, image):
    for device in PLACES[name]:
        size = nor.LAYOUT[device][1]
        nor.write(flash, device, image[:size])
        image = image[size:]


def _version(flash, name, versions):
    held = nor.read(flash, *PLACES[name])
    return next((version for version, images in versions.items() if held.startswith(images[name])), "torn")


def _verdict(found):
    """What a board that boots from this flash would do, as in docs/powercut.md."""
    if found["uboot"] == "torn":
        return "dead"
    if "torn" in found.values():
        return "needs the boot loader's rescue"
    return "recovers by itself"
