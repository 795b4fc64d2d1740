"""Clients of the recovery services, well-behaved and otherwise. Runs in the bench's network."""

import contextlib
import hashlib
import resource
import select
import socket
import struct
import time

ADDRESS = "192.168.10.2"
TCP_PORT, UDP_PORT = 80, 6789
HEARTBEAT, SERIAL, INFO, UPGRADE = 0x0006, 0x0101, 0x2003, 0x2002
REPLY_SIZE, INFO_SIZE, FOUND_SIZE, TRAILER_SIZE = 32, 496, 544, 37
SEARCH_MIN = 13  # bytes of it that make a search
SEARCH = b"searching..".ljust(12, b"\0") + bytes([10]) + bytes(119)


class NoService(Exception):
    """The services did not answer in time."""


def frame(command, size=0, count=0):
    return struct.pack("<HHHHIII12x", 0, 0, command, 0, 0, size, count)


def allow_descriptors(count):
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    if hard != resource.RLIM_INFINITY and hard < count:
        raise OSError(f"{count} descriptors are needed, and only {hard} permitted")
    resource.setrlimit(resource.RLIMIT_NOFILE, (count, hard))


def connect(timeout=10.0, receive_buffer=None, source=None):
    connection = socket.socket()
    connection.settimeout(timeout)
    if receive_buffer:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    if source:
        connection.bind((source, 0))
    try:
        connection.connect((ADDRESS, TCP_PORT))
    except BaseException:
        connection.close()
        raise
    return connection


def receive(connection, size):
    """Reads exactly `size` bytes."""
    data = b""
    while len(data) < size:
        piece = connection.recv(size - len(data))
        if not piece:
            raise ConnectionError("closed")
        data += piece
    return data


def ask(connection, command=HEARTBEAT, size=REPLY_SIZE):
    connection.sendall(frame(command))
    return receive(connection, size)


def _wait_for_tcp(deadline):
    """A new connection gets its answer. Tries again only if the connection is refused or lost: one that waits in the
    queue is served in its turn."""
    while True:
        try:
            with contextlib.closing(connect(max(0.01, deadline - time.monotonic()))) as connection:
                connection.settimeout(max(0.01, deadline - time.monotonic()))
                ask(connection)
                return
        except OSError as error:
            if time.monotonic() >= deadline:
                raise NoService(f"TCP: {error}") from error
            time.sleep(0.01)


def _wait_for_udp(deadline):
    with contextlib.closing(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) as asker:
        asker.connect((ADDRESS, UDP_PORT))
        while time.monotonic() < deadline:
            with contextlib.suppress(OSError):
                asker.send(SEARCH)
            if select.select([asker], [], [], 0.05)[0]:
                with contextlib.suppress(OSError):
                    if len(asker.recv(2048)) == FOUND_SIZE:
                        return
    raise NoService("no answer to searches")


def await_service(timeout):
    """Waits until both services answer. Returns the seconds that it took."""
    began = time.monotonic()
    _wait_for_tcp(began + timeout)
    _wait_for_udp(began + timeout)
    return time.monotonic() - began


def close_all(connections):
    for connection in connections:
        connection.close()


def connect_many(count, **options):
    """Opens `count` connections. Whatever happens, none stays open unless all are returned."""
    connections = []
    try:
        for _ in range(count):
            connections.append(connect(**options))
    except BaseException:
        close_all(connections)
        raise
    return connections


def flood(count, noise, pace=256):
    """Sends datagrams: searches, cut and damaged ones, and noise. Returns how many must be answered, and how many
    answers came. `pace`: the answers are read after so many datagrams."""
    searches = answers = 0
    with contextlib.closing(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)) as sender:
        sender.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        sender.connect((ADDRESS, UDP_PORT))
        sender.setblocking(False)
        for number in range(count):
            kind = noise.randrange(4)
            datagram = (SEARCH, SEARCH[:noise.randrange(len(SEARCH))], noise.randbytes(noise.randrange(1400)),
                        SEARCH[:12] + noise.randbytes(120))[kind]
            searches += datagram.startswith(SEARCH[:SEARCH_MIN])
            with contextlib.suppress(OSError):
                sender.send(datagram)
            if number % pace == 0:
                answers += _drain(sender)
        while select.select([sender], [], [], 0.2)[0]:
            answers += _drain(sender)
    return searches, answers


def _drain(sender):
    count = 0
    with contextlib.suppress(OSError):
        while True:
            sender.recv(2048)
            count += 1
    return count


def package(size, noise):
    """A package that the receiver would store, with its trailer."""
    data = noise.randbytes(size)
    return data + f"MD5:{hashlib.md5(data).hexdigest()}\n".encode()


def upload(data, cut=None, reset=False):
    """Announces a package and sends it, up to byte `cut` of command and package together. With `reset`, the connection
    ends abruptly. Returns whether the device took all that was sent."""
    stream = frame(UPGRADE, len(data), 1) + data
    with contextlib.closing(connect(timeout=15)) as connection:
        if reset:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        try:
            connection.sendall(stream[:cut])
        except OSError:
            return False
    return True


def vanish(connections):
    """Their owner is gone without a word: the kernel forgets them and sends nothing."""
    for connection in connections:
        connection.setsockopt(socket.IPPROTO_TCP, 19, 1)  # TCP_REPAIR
        connection.close()
