#!/usr/bin/env python3
"""connections.py HOST PROCESS COUNT...: opens connections to a camera and prints JSON, an object for each COUNT.

COUNTs grow; connections stay open. PROCESS is the camera's program. Each new connection asks for the device
information once, and the newest one then asks again and again, one request at a time; the best of some rounds counts.
"""
import json
import resource
import socket
import struct
import sys
import time

from process import anonymous, processor_time

INFORMATION = struct.pack("<HHHHIII12x", 0, 0x101, 0x2003, 0, 0, 0, 0)
ANSWER = 32 + 464
ROUNDS, ASKED = 5, 200


def ask(connection):
    connection.sendall(INFORMATION)
    if len(connection.recv(ANSWER, socket.MSG_WAITALL)) != ANSWER:
        sys.exit("connections: no answer")


def connect(host):
    connection = socket.create_connection((host, 80), 20)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    ask(connection)
    return connection


def time_answers(connection, process):
    """Returns the seconds of an answer, and the seconds of the program's processor time for it."""
    before, began = processor_time(process), time.monotonic()
    for _ in range(ASKED):
        ask(connection)
    return (time.monotonic() - began) / ASKED, (processor_time(process) - before) / ASKED


def main(host, process, *counts):
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    connections, results = [], []
    empty = anonymous(process)
    for count in (int(word) for word in counts):
        began, opened, before = time.monotonic(), count - len(connections), processor_time(process)
        connections += [connect(host) for _ in range(opened)]
        result = {"connections": count, "seconds": (time.monotonic() - began) / opened,
                  "processorToOpen": (processor_time(process) - before) / opened,
                  "anonymous": anonymous(process), "perConnection": (anonymous(process) - empty) / count}
        answers = [time_answers(connections[-1], process) for _ in range(ROUNDS)]
        results.append(result | {"answer": min(answer for answer, _ in answers),
                                 "processor": min(processor for _, processor in answers)})
    print(json.dumps(results))


main(*sys.argv[1:])
