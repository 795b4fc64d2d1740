#!/usr/bin/python3
"""answering_app.py FIRMWARE: answers searches, as an application may, and names FIRMWARE. Part of a test image."""
import fcntl
import socket
import struct
import sys

SIOCGIFHWADDR = 0x8927
SEARCH = b"searching..\0\x0a"
REPLY_SIZE = 544


def mac_of(name):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = fcntl.ioctl(any_socket, SIOCGIFHWADDR, struct.pack("256s", name.encode()))
    return ":".join(f"{byte:02X}" for byte in request[18:24])


def make_reply(mac, firmware):
    reply = bytearray(REPLY_SIZE)
    for offset, value in ((0, b"searching..\0\x0b"), (104, mac.encode()), (144, b"IPC"), (240, b"\0\0\0\x50"),
                          (244, b"\0\0\x02\x2a"), (256, b"\0\0\0\x50"), (384, firmware.encode())):
        reply[offset:offset + len(value)] = value
    return reply


def main():
    reply = make_reply(mac_of("eth0"), sys.argv[1])
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("", 6789))
        while True:
            search, sender = server.recvfrom(2048)
            if search.startswith(SEARCH):
                server.sendto(reply, sender)


if __name__ == "__main__":
    main()
