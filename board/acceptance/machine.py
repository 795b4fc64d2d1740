"""The emulated board: one QEMU process with its console, its bench line and its control connection (QMP)."""

import json
import re
import socket
import subprocess
import threading
import time

from channel import Channel, Failure

BOOT_TIMEOUT = 90
BUTTON = ("/machine/soc/gpio", "gpioD2")  # line 26, active low
KERNEL_ARGUMENTS = "console=ttyS4,115200n8 earlycon=uart8250,mmio32,0x1e784000 mem=160M panic=3 quiet"


class Qmp:
    """QEMU's control connection: commands with their answers, and events with the time at which they came."""

    def __init__(self, connection, on_event):
        self._connection = connection
        self._lines = connection.makefile("rb")
        self._on_event = on_event
        self._answers = []
        self._ended = False
        self._changed = threading.Condition()
        threading.Thread(target=self._collect, name="qmp", daemon=True).start()

    def _collect(self):
        try:
            for line in self._lines:
                message = json.loads(line)
                if "event" in message:
                    self._on_event(message["event"])
                elif "QMP" not in message:
                    with self._changed:
                        self._answers.append(message)
                        self._changed.notify_all()
        except OSError:
            pass
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def send(self, execute, **arguments):
        self._connection.sendall(json.dumps({"execute": execute, "arguments": arguments}).encode() + b"\n")

    def command(self, execute, **arguments):
        """Not from the event callback: the answer would have to be read by the thread that waits for it."""
        self.send(execute, **arguments)
        with self._changed:
            if not self._changed.wait_for(lambda: self._answers or self._ended, 30) or not self._answers:
                raise Failure(f"QEMU does not answer {execute}")
            answer = self._answers.pop(0)
        if "error" in answer:
            raise Failure(f"QEMU refuses {execute}: {answer['error']['desc']}")
        return answer["return"]


class Machine:
    """Boots at construction. kill() cuts the power; the flash file stays and another Machine may boot from it."""

    def __init__(self, image, flash, terminal=False):
        self._resets = []  # of (time, whether the watchdog did it)
        self._watchdog = False
        self._changed = threading.Condition()
        bench, bench_there = socket.socketpair()
        qmp, qmp_there = socket.socketpair()
        command = self._command(image, flash, bench_there.fileno(), qmp_there.fileno(), terminal)
        # If this program is killed, the emulator goes with it.
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", *command],
            pass_fds=(bench_there.fileno(), qmp_there.fileno()),
            stdin=None if terminal else subprocess.DEVNULL,
            stdout=None if terminal else subprocess.PIPE,
            stderr=None if terminal else subprocess.STDOUT)
        bench_there.close()
        qmp_there.close()
        self.console = None if terminal else Channel(self.process.stdout, "console")
        self._bench_socket = bench
        self._bench = Channel(bench.makefile("rb"), "bench line")
        self._boot_begin = 0
        self._qmp = Qmp(qmp, self._event)
        self._qmp.command("qmp_capabilities")
        self.press_button(False)
        self.tcp_port, self.udp_port = self._ports()
        self._qmp.command("cont")

    @staticmethod
    def _command(image, flash, bench, qmp, terminal):
        return [
            "qemu-system-arm", "-M", "ast2600-evb,fmc-model=s25fl129p1", "-m", "256", "-nodefaults", "-S",
            "-display", "none", "-kernel", f"{image}/kernel", "-dtb", f"{image}/board.dtb",
            "-initrd", f"{image}/initramfs", "-append", KERNEL_ARGUMENTS,
            "-drive", f"file={flash},if=mtd,format=raw", "-watchdog-action", "reset",
            "-chardev", f"stdio,id=console,mux={'on' if terminal else 'off'}", "-serial", "chardev:console",
            *(["-mon", "chardev=console"] if terminal else []),
            "-chardev", f"socket,id=bench,fd={bench}", "-serial", "chardev:bench",
            "-chardev", f"socket,id=qmp,fd={qmp}", "-mon", "chardev=qmp,mode=control",
            "-nic", "user,hostfwd=tcp:127.0.0.1:0-:80,hostfwd=udp:127.0.0.1:0-:6789"]

    def _ports(self):
        """The kernel of the host chose free ports for the two forwardings."""
        text = self._qmp.command("human-monitor-command", **{"command-line": "info usernet"})
        ports = {kind: int(port) for kind, port in re.findall(r"(TCP|UDP)\[HOST_FORWARD\]\s+\d+\s+127\.0\.0\.1\s+(\d+)",
                                                              text)}
        if len(ports) != 2 or 0 in ports.values():
            raise Failure(f"no forwarded ports in: {text}")
        return ports["TCP"], ports["UDP"]

    def _event(self, name):
        with self._changed:
            if name == "WATCHDOG":
                self._watchdog = True
            elif name == "RESET":
                # A released button's line is pulled up; the emulated chip forgets its inputs in a reset.
                self._qmp_release_button()
                self._boot_begin = self._bench.position()
                self._resets.append((time.monotonic(), self._watchdog))
                self._watchdog = False
            self._changed.notify_all()

    def _qmp_release_button(self):
        pass

    def press_button(self, pressed):
        self._qmp.command("qom-set", path=BUTTON[0], property=BUTTON[1], value=not pressed)
