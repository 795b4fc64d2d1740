"""A board with its flash, kvtool runs against it, and the steps that several stories share."""

import subprocess

import nor
from channel import PATIENCE, Failure
from machine import Machine

JOIN_TIMEOUT = 90
RESET_TIMEOUT = 60


class Board:
    """program names one of the programs in the image: dynamic, static or musl. memory is in MiB."""

    def __init__(self, name, program, image, kvtool, folder, memory=256):
        self.name = name
        self.program = program
        self.memory = memory
        self.flash = folder / f"{name}.nor"
        self.machine = None
        self.since = 0  # position in the console where the current step began
        self._abandoned = False
        self._image = image
        self._kvtool = kvtool
        nor.create(self.flash)

    def power_on(self):
        if self._abandoned:
            raise Failure("abandoned")
        self.since = 0
        self.machine = Machine(self._image, self.flash, self.program, memory=self.memory)

    def power_off(self):
        if self.machine:
            self.machine.kill()

    def abandon(self):
        """Switches the board off for good. Any thread may call it."""
        self._abandoned = True
        self.power_off()

    def see(self, pattern, timeout=30):
        """Waits for a line of the current step. Later waits search after it."""
        found = self.machine.console.wait(pattern, timeout, self.since)
        self.since = found.end()
        return found

    def never_saw(self, text, since):
        if text in self.machine.console.since(since):
            raise Failure(f"console: {text}")

    def tool(self, *arguments, timeout=120):
        """Returns kvtool's output; raises Failure if its status is not 0."""
        result = subprocess.run([self._kvtool, *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                timeout=PATIENCE * timeout, check=False)
        if result.returncode != 0:
            raise Failure(f"kvtool {arguments[0]}: status {result.returncode}: {result.stdout}")
        return result.stdout

    def discover(self):
        return self.tool("discover", "127.0.0.1", "--port", str(self.machine.udp_port))

    def info(self):
        return self.tool("info", "127.0.0.1", "--port", str(self.machine.tcp_port))

    def send_package(self, package):
        return self.tool("upgrade", "127.0.0.1", str(package), "--port", str(self.machine.tcp_port), "--no-follow")

    def boot_into_recovery(self):
        self.machine.wait_boot()
        self.see("app file not exist!", 10)

    def join_network(self):
        """Returns the address that the device got."""
        self.see("^# /root/wifi_connect.sh sta /tmp/wpa_supplicant.conf$", JOIN_TIMEOUT)
        self.see("state:COMPLETED", JOIN_TIMEOUT)
        address = self.see(r"lease of (\S+) obtained", JOIN_TIMEOUT)[1]
        self.see("into wifi guard", JOIN_TIMEOUT)
        return address

    def boot_into_application(self):
        self.machine.wait_boot()
        self.see("app file exist!", 10)
        self.see("Process cameraMain online", 20)

    def upgrade_to(self, firmware):
        """Sends the package, waits for the reset, and compares the flash. Returns lines for the report."""
        resets = self.machine.reset_count()
        self.send_package(firmware.package)
        self.see("name: uboot, end", 120)
        self.machine.wait_reset(resets + 1, RESET_TIMEOUT)
        return firmware.compare(self.flash)
