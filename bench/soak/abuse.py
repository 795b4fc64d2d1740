"""Abuse by clients, too little memory, too few descriptors, and a log that nobody reads."""

import contextlib
import resource
import subprocess
import time

import client
from board import Footprint
from judge import ANYTHING, PATIENCE, Judge
from limits import MIB, MemoryGroup, limited

WATCHDOG = 30    # its time-out in seconds
DEAD_PEER = 140  # seconds after which the kernel must have given up a peer that is gone
GONE = "192.168.10.77"  # the address of those peers


class Abuse(Judge):
    def at_once(self):
        with self.phase("1,000 at once") as row:
            connections = self.open_and_ask(1000)
            full = Footprint(self.process)
            client.close_all(connections)
            row.notes = f"{full.descriptors} fd, {full.anonymous} KiB while open"

    def one_after_the_other(self):
        with self.phase("10,000 in turn") as row:
            began = time.monotonic()
            for _ in range(10_000):
                with contextlib.closing(client.connect()) as connection:
                    client.ask(connection)
            row.notes = f"{10_000 / (time.monotonic() - began):.0f}/s, each answered"

    def slow_and_half_open(self):
        """Readers that ask and do not read, writers that send a byte at a time, peers that close their half, and peers
        that are gone. All the while the others are served."""
        with self.phase("slow and half-open") as row:
            subprocess.run(["ip", "address", "add", f"{GONE}/24", "dev", "lan0"], check=True)
            client.vanish(client.connect_many(200, source=GONE))
            subprocess.run(["ip", "address", "del", f"{GONE}/24", "dev", "lan0"], check=True)
            readers = client.connect_many(200, receive_buffer=2048)
            halves = client.connect_many(200)
            writers = client.connect_many(50)
            slowest = self._torment(readers, halves, writers)
            client.close_all([*readers, *halves, *writers])
            self.serve_again()
            # The kernel gives up the peers that are gone. Nothing can end this earlier.
            left = self.board.settled(self.process, row.before, ANYTHING, timeout=DEAD_PEER)
            dead = left.descriptors - row.before.descriptors
            row.notes = f"others waited up to {slowest:.2f} s; {dead} dead peers left"

    def _torment(self, readers, halves, writers):
        for connection in halves:
            connection.send(client.frame(client.INFO)[:16])
            connection.shutdown(client.socket.SHUT_WR)
        for connection in readers:
            connection.setblocking(False)
        slowest, pieces = 0.0, client.frame(client.INFO)
        for at in range(len(pieces)):
            for connection in readers:
                with contextlib.suppress(OSError):
                    connection.send(pieces * 50)
            for connection in writers:
                with contextlib.suppress(OSError):
                    connection.send(pieces[at:at + 1])
            slowest = max(slowest, client.await_service(PATIENCE))
            time.sleep(0.1)
        return slowest

    def datagrams(self):
        with self.phase("100,000 datagrams") as row:
            searches, answers = client.flood(100_000, self.noise)
            row.notes = f"{answers} of {searches} searches answered"

    def cut_uploads(self):
        with self.phase("40 uploads cut") as row:
            sent = 0
            for number in range(40):
                size = self.noise.randrange(1, 3 * MIB)
                last = client.REPLY_SIZE + size + client.TRAILER_SIZE - 1
                cut = self.noise.choice([self.noise.randrange(1, 33), last, self.noise.randrange(33, last)])
                sent += self.cut_upload(size, cut, reset=number % 2 == 1)
            row.notes = f"{sent} taken up to the cut"

    def few_descriptors(self):
        with self.phase("32 descriptors") as row, limited(self.process, resource.RLIMIT_NOFILE, self._few()):
            connections = client.connect_many(40)
            served = sum(self._answered(connection) for connection in connections)
            client.close_all(connections[3:])
            self.cut_upload(200_000, 100_000)
            client.close_all(connections[:3])
            self.serve_again()
            row.notes = f"{served} of 40 served while all are open"

    def _few(self):
        """A sanitizer needs descriptors of its own."""
        return 32 if not self.relaxed else Footprint(self.process).descriptors + 5

    @staticmethod
    def _answered(connection):
        connection.settimeout(0.05)
        with contextlib.suppress(OSError):
            return len(client.ask(connection)) == client.REPLY_SIZE
        return False

    def small_tmp(self):
        """A package that does not fit: the device must say so and reboot."""
        self.board.do("exec", "--board", "--", "mount", "-o", "remount,size=8m", "/tmp")
        with self.phase("8 MiB of /tmp") as row:
            boot = self.boot
            client.upload(client.package(12 * MIB, self.noise))
            self.next_boot("reboot")
            self.board.wait(boot, log="fwrite 8192 bytes failed. ret = ", timeout=10)
            row.notes = "12 MiB refused by a reboot"

    @contextlib.contextmanager
    def scarce(self, name):
        """A phase with a memory cgroup of 4 MiB above idle: it counts what the kernel keeps for the program too."""
        with contextlib.ExitStack() as stack:
            try:
                group = stack.enter_context(MemoryGroup())
            except OSError as error:
                print(f"NOT RUN: {name}: {error}", flush=True)
                yield None, None
                return
            row = stack.enter_context(self.phase(name))
            group.hold(self.process, 4 * MIB)
            yield row, group

    def crowded_memory(self):
        """What 1,000 clients can take must fit, even if they do not read."""
        with self.scarce("4 MiB, 1,000 clients") as (row, group):
            if row is None:
                return
            connections = self.open_and_ask(1000)
            for connection in connections:
                connection.setblocking(False)
                with contextlib.suppress(OSError):
                    connection.send(client.frame(client.INFO) * 100)
            client.close_all(connections)
            self.serve_again()
            row.notes = f"{group.peak() // 1024} KiB at most, the kernel's included"
            if group.kills():
                self.explain("the kernel has killed it for lack of memory")

    def no_memory(self):
        """A package goes to memory. When there is none left, the kernel kills the program; the watchdog then resets."""
        with self.scarce("4 MiB, 8 MiB upload") as (row, group):
            if row is None:
                return
            with contextlib.suppress(OSError):
                client.upload(client.package(8 * MIB, self.noise), cut=7 * MIB)
            self.next_boot("watchdog", WATCHDOG + 15)
            row.notes = f"{group.kills()} killed by the kernel, then reset"

    def no_data(self):
        """4 MiB above idle, for what the program asks for itself: its allocations fail."""
        if self.relaxed:
            print("NOT RUN: out of memory, malloc: a sanitizer's own memory has no such limit", flush=True)
            return
        with self.phase("out of memory, malloc") as row:
            self._starve()
            # The allocator keeps a part of the largest amount that was ever used.
            row.before = self.board.settled(self.process, row.before, ANYTHING, timeout=3)
            opened, full = self._starve()
            row.notes = f"{opened} open, {full.anonymous} KiB"

    def _starve(self):
        """Opens connections until the program cannot take more. Returns how many, and the program's footprint then."""
        with limited(self.process, resource.RLIMIT_DATA, self._idle_data + 4 * MIB):
            connections = []
            with contextlib.suppress(OSError):
                while True:
                    connections.append(client.connect())
                    if len(connections) % 200 == 0:
                        client.ask(connections[-1])
            full = Footprint(self.process)
            client.close_all(connections)
            self.serve_again()
        client.close_all(self.open_and_ask(1000))  # makes the allocator return what it can
        return len(connections), full

    def blocked_log(self):
        with self.phase("stderr blocked") as row:
            self.board.do("fault", "trace", "block")
            began = time.monotonic()
            connections = client.connect_many(100)
            for connection in connections:
                connection.sendall(client.frame(client.INFO))
            client.flood(5000, self.noise)
            time.sleep(max(0, began + 10 - time.monotonic()))  # a span of time in which only the feeder can work
            with contextlib.suppress(client.NoService):
                client.await_service(0.5)
                self.explain("an answer while the log blocks: the pipe was not full")
            client.close_all(connections)
            self.board.do("fault", "trace", "off")
            self.serve_again()
            row.notes = "10 s without a reader"
