#!/usr/bin/env python3
"""kernel_image.py ZIMAGE OUT: unpacks a kernel and wraps it for a boot loader.

If the emulated processor unpacked it, that would take a third of each boot.
"""

import lzma
import struct
import sys
import zlib

XZ_MAGIC = b"\xfd7zXZ\0"
# Memory starts at 0x80000000. Kernels that also run on Qualcomm's and Amlogic's chips start 2 MiB and 32 KiB above.
LOAD_ADDRESS = 0x80208000
OS_LINUX, ARCH_ARM, TYPE_KERNEL, NOT_COMPRESSED = 5, 2, 2, 0


def unpack(zimage):
    at = -1
    while (at := zimage.find(XZ_MAGIC, at + 1)) >= 0:
        try:
            return lzma.LZMADecompressor(lzma.FORMAT_XZ).decompress(zimage[at:])
        except lzma.LZMAError:
            continue  # The unpacking code contains the magic number too.
    sys.exit("kernel_image: no xz stream in the kernel")


def header(kernel, own_crc):
    return struct.pack(">7I4B32s", 0x27051956, own_crc, 0, len(kernel), LOAD_ADDRESS, LOAD_ADDRESS, zlib.crc32(kernel),
                       OS_LINUX, ARCH_ARM, TYPE_KERNEL, NOT_COMPRESSED, b"Linux")


def main(source, target):
    with open(source, "rb") as file:
        kernel = unpack(file.read())
    with open(target, "wb") as file:
        file.write(header(kernel, zlib.crc32(header(kernel, 0))))
        file.write(kernel)


if __name__ == "__main__":
    main(*sys.argv[1:])
