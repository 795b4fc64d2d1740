#!/usr/bin/env python3
"""answer.py HOST PORT REQUEST: asks until a server answers, REQUEST in hexadecimal digits, one connection at a time.

Prints a line once it has been refused, and then the monotonic time of the first answer.
"""
import socket
import sys
import time


def answered(address, request):
    try:
        with socket.create_connection(address, 2) as connection:
            connection.sendall(request)
            return bool(connection.recv(1))
    except OSError:
        return False


def main(host, port, request):
    deadline = time.monotonic() + 60
    refused = False
    while not answered((host, int(port)), bytes.fromhex(request)):
        if time.monotonic() > deadline:
            sys.exit("answer: none within a minute")
        if not refused:
            print("refused", flush=True)
            refused = True
        time.sleep(0.0002)
    print(time.monotonic())


main(*sys.argv[1:])
