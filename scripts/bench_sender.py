#!/usr/bin/env python3
"""bench_sender.py HOST PORT FILE STORED [--upgrade]: sends FILE and prints the seconds until it is stored.

STORED is this machine's path of the receiver's file; the last 8 KiB may still be in the receiver's buffers.
--upgrade first announces FILE to the camera and lets it free memory, which the time does not include.
"""
import os
import socket
import struct
import sys
import time

host, port, source, stored = sys.argv[1:5]
data = open(source, "rb").read()
with socket.create_connection((host, int(port))) as connection:
    if "--upgrade" in sys.argv[5:]:
        connection.sendall(struct.pack("<HHHHIII12x", 0, 0, 0x2002, 0, 0, len(data) + 37, 1))
        time.sleep(1.5)  # The camera reads nothing during this pause of the protocol.
    begun = time.monotonic()
    connection.sendall(data)
    while not os.path.exists(stored) or os.stat(stored).st_size < len(data) - 8192:
        if time.monotonic() - begun > 60:
            sys.exit("bench_sender: not stored within a minute")
        time.sleep(0.0005)
    print("%.4f" % (time.monotonic() - begun))
