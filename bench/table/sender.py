#!/usr/bin/env python3
"""sender.py HOST PORT FILE STORED [PROCESS [finish]]: sends FILE to a receiver on the board and prints JSON.

STORED is this machine's path of the receiver's file; the last 8 KiB may still be in the receiver's buffers. With
PROCESS, the receiver is a camera's program with this process number, and FILE is a package. The camera then gets the
upgrade request first, and frees memory; the times do not include this. With "finish" the trailer and the camera's check
follow.
"""
import hashlib
import json
import os
import socket
import struct
import sys
import time

from process import anonymous, processor_time

HEADER = "<HHHHIII12x"
UPGRADE = 0x2002


def await_stored(path, size):
    deadline = time.monotonic() + 60
    while not os.path.exists(path) or os.stat(path).st_size < size:
        if time.monotonic() > deadline:
            sys.exit("sender: not stored within a minute")
        time.sleep(0.0005)


def finish(connection, data, process):
    """Sends the trailer and returns how long the camera checked the package."""
    trailer = b"MD5:" + hashlib.md5(data).hexdigest().encode() + b"\n"
    before, began = processor_time(process), time.monotonic()
    connection.settimeout(60)
    connection.sendall(trailer)
    reply = connection.recv(32, socket.MSG_WAITALL)
    checked = time.monotonic() - began
    if len(reply) != 32 or struct.unpack("<HH", reply[4:8]) != (UPGRADE, 0):
        sys.exit("sender: the package was not accepted")
    return {"check": checked, "checkProcessor": processor_time(process) - before}


def main(host, port, source, stored, process="", end=""):
    with open(source, "rb") as file:
        data = file.read()
    with socket.create_connection((host, int(port))) as connection:
        if process:
            connection.sendall(struct.pack(HEADER, 0, 0, UPGRADE, 0, 0, len(data) + 37, 1))
            time.sleep(1.5)  # The camera reads nothing during this pause of the protocol.
        before = processor_time(process) if process else 0
        began = time.monotonic()
        connection.sendall(data)
        await_stored(stored, len(data) - 8192)
        result = {"stored": time.monotonic() - began}
        if process:
            result |= {"processor": processor_time(process) - before, "anonymous": anonymous(process)}
        if end:
            result |= finish(connection, data, process)
    print(json.dumps(result))


main(*sys.argv[1:])
