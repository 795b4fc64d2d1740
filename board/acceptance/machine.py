"""The emulated board: one QEMU process with its console, its bench line and its control connection (QMP)."""

import json
import re
import socket
import subprocess
import threading
import time

from channel import PATIENCE, Channel, Failure

BOOT_TIMEOUT = 90
BUTTON = {"path": "/machine/soc/gpio", "property": "gpioD2"}  # line 26; low is pressed
# The kernel's cipher self-tests would take a fifth of each boot.
KERNEL_ARGUMENTS = "console=ttyS4,115200n8 earlycon=uart8250,mmio32,0x1e784000 panic=3 quiet cryptomgr.notests"


class Qmp:
    """QEMU's control connection: commands, their answers, and a callback for each event."""

    def __init__(self, connection, on_event):
        self._connection = connection
        self._on_event = on_event
        self._answers = {}
        self._last_id = 0
        self._ended = False
        self._changed = threading.Condition()
        threading.Thread(target=self._collect, args=[connection.makefile("rb")], name="qmp", daemon=True).start()

    def _collect(self, lines):
        try:
            for line in lines:
                message = json.loads(line)
                if "event" in message:
                    self._on_event(message["event"])
                elif "id" in message:
                    with self._changed:
                        self._answers[message["id"]] = message
                        self._changed.notify_all()
        except OSError:
            pass  # The connection to a killed emulator may end with a reset instead of end of file.
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def send(self, execute, arguments):
        """Sends without waiting for the answer, so the event callback may call it. Returns the command's number."""
        with self._changed:
            self._last_id += 1
            number = self._last_id
            message = {"execute": execute, "arguments": arguments, "id": number}
            self._connection.sendall(json.dumps(message).encode() + b"\n")
        return number

    def command(self, execute, **arguments):
        number = self.send(execute, arguments)
        with self._changed:
            self._changed.wait_for(lambda: number in self._answers or self._ended, 30 * PATIENCE)
            answer = self._answers.pop(number, {"error": {"desc": "no answer"}})
        if "error" in answer:
            raise Failure(f"QEMU: {execute}: {answer['error']['desc']}")
        return answer["return"]


class Machine:
    """A new Machine boots at once. kill() cuts the power; the flash file stays, and another Machine may use it.

    program names one of the programs in the image, or is "none". memory is in MiB.
    """

    def __init__(self, image, flash, program, terminal=False, memory=256):
        self._resets = 0
        self._watchdog_struck = 0.0  # on the monotonic clock
        self._changed = threading.Condition()
        bench, bench_there = socket.socketpair()
        qmp, qmp_there = socket.socketpair()
        command = self._command(image, flash, f"program={program}", memory, bench_there.fileno(), qmp_there.fileno(),
                                terminal)
        # The emulator dies with the thread that starts it, even if this program is killed.
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
        try:
            self._qmp.command("qmp_capabilities")
            self.press_button(False)
            self.tcp_port, self.udp_port = self._ports()
            self._qmp.command("cont")
        except Failure:
            self.kill()
            raise

    @staticmethod
    def _command(image, flash, argument, memory, bench, qmp, terminal):
        return [
            "qemu-system-arm", "-M", "ast2600-evb,fmc-model=s25fl129p1", "-m", str(memory), "-nodefaults", "-S",
            "-display", "none", "-kernel", f"{image}/kernel", "-dtb", f"{image}/board.dtb",
            "-initrd", f"{image}/initramfs", "-append", f"{KERNEL_ARGUMENTS} {argument}",
            "-drive", f"file={flash},if=mtd,format=raw", "-watchdog-action", "reset",
            "-chardev", f"stdio,id=console,mux={'on' if terminal else 'off'},signal=off", "-serial", "chardev:console",
            *(["-mon", "chardev=console"] if terminal else []),
            "-chardev", f"socket,id=bench,fd={bench}", "-serial", "chardev:bench",
            "-chardev", f"socket,id=qmp,fd={qmp}", "-mon", "chardev=qmp,mode=control",
            "-nic", "user,hostfwd=tcp:127.0.0.1:0-:80,hostfwd=udp:127.0.0.1:0-:6789"]

    def _ports(self):
        """Returns the two forwarded ports. The host's kernel chose free ones."""
        text = self._qmp.command("human-monitor-command", **{"command-line": "info usernet"})
        ports = {kind: int(port) for kind, port in re.findall(r"(TCP|UDP)\[HOST_FORWARD\]\s+\d+\s+127\.0\.0\.1\s+(\d+)",
                                                              text)}
        if len(ports) != 2 or 0 in ports.values():
            raise Failure(f"no forwarded ports in: {text}")
        return ports["TCP"], ports["UDP"]

    def _event(self, name):
        with self._changed:
            if name == "WATCHDOG":
                self._watchdog_struck = time.monotonic()
            elif name == "RESET":
                # The emulated chip loses its inputs in a reset; a real line has a pull-up.
                self._qmp.send("qom-set", BUTTON | {"value": True})
                self._boot_begin = self._bench.position()
                self._resets += 1
            self._changed.notify_all()

    def press_button(self, pressed):
        self._qmp.command("qom-set", **BUTTON, value=not pressed)

    def reset_count(self):
        with self._changed:
            return self._resets

    def wait_reset(self, count, timeout):
        """Waits for the count-th reset of this machine, for PATIENCE times timeout seconds.

        Returns the monotonic time of the watchdog's last reset.
        """
        timeout *= PATIENCE
        with self._changed:
            if not self._changed.wait_for(lambda: self._resets >= count, timeout):
                raise Failure(f"no reset within {timeout:g} s")
            return self._watchdog_struck

    def wait_boot(self):
        """Waits until the platform has started in the current boot and the bench line answers."""
        self._bench.wait("^bench shell\n", BOOT_TIMEOUT, self._boot_begin)

    def run(self, command, timeout=20):
        """Runs one line of shell on the board. Returns its output; raises Failure if its status is not 0."""
        sent = self._bench.position()
        self._bench_socket.sendall(command.encode() + b"\n")
        answer = self._bench.wait("\x1e([0-9]+)\n", timeout, sent)
        output = self._bench.since(sent)[:answer.start() - sent]
        if answer[1] != "0":
            raise Failure(f"on the board: {command}: status {answer[1]}: {output.strip()}")
        return output

    def kill(self):
        self.process.kill()
        self.process.wait()
