"""One virtual board that is switched on and off by its command line."""

import json
import os
import pathlib
import signal
import subprocess

from firmware import SIZES

SPEED = 10
TIMEOUT = 60  # of the host's seconds, for a boot or an upgrade
OFF = "board: down: "


class Camera:
    """Use it in a `with`. The board is off at first. Call load() only while it is off."""

    def __init__(self, bin_folder, folder):
        self.folder = folder
        folder.mkdir()
        self._vboard = [bin_folder / "vboard", "--state", folder]
        layout = ",".join(f"{name}={size}" for name, size in SIZES.items())
        # The board goes off with the thread that starts it, even if this program is killed.
        self._runner = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", *self._vboard, "run", "--quiet", "--no-wifi", "--no-eth",
             "--speed", str(SPEED), "--layout", layout, "--", bin_folder / "upgradeMain"],
            stdin=subprocess.DEVNULL, start_new_session=True)
        self._boot = 1
        self._operations = folder / "ops.jsonl"
        self._logged = 0

    def __enter__(self):
        self._do("wait", "--boot", 1, "--timeout", TIMEOUT)
        self.off()
        return self

    def __exit__(self, *_):
        self._runner.terminate()
        self._runner.wait()

    def _do(self, *words):
        result = subprocess.run([*self._vboard, *(str(word) for word in words)], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, check=False)
        if result.returncode != 0:
            raise RuntimeError(f"vboard {' '.join(str(word) for word in words)}: {result.stderr.strip()}; "
                               f"boot {self._boot} logged last:\n" + "\n".join(self.trace().splitlines()[-8:]))
        return result.stdout

    def _file(self, device):
        return self.folder / "flash" / f"{device}.bin"

    def load(self, state):
        for device, cells in state.items():
            with open(self._file(device), "r+b") as file:
                file.write(cells)

    def dump(self):
        return {device: bytearray(self._file(device).read_bytes()) for device in SIZES}

    def on(self):
        self._logged = self._operations.stat().st_size
        self._do("power", "on")
        self._boot += 1

    def off(self):
        self._do("power", "off")

    def operations(self):
        """The devices' operations since the last on()."""
        with open(self._operations, encoding="utf-8") as log:
            log.seek(self._logged)
            return [json.loads(line) for line in log]

    def fault(self, options):
        self._do("fault", *options)

    def await_log(self, text):
        self._do("wait", "--boot", self._boot, "--log", text, "--timeout", TIMEOUT)

    def recovers(self):
        """Waits until the program has chosen its mode in the present boot. Returns whether it is recovery."""
        self.await_log("app file ")
        return "app file not exist!" in self.trace()

    def start_writer(self, package):
        """Puts the package where the receiver puts it, and sends the receiver's signal. The program must have logged
        its mode."""
        program = json.loads(self._do("status", "--json"))["program"]["hostPid"]
        place = pathlib.Path(f"/proc/{program}/root/tmp/upGradeFile.FLS")
        place.write_bytes(package.data)
        os.kill(program, signal.SIGUSR2)

    def await_down(self, reason):
        self._do("wait", "--boot", self._boot, "--console-log", OFF, "--timeout", TIMEOUT)
        console = (self.folder / f"boot-{self._boot}/console.log").read_text(encoding="utf-8", errors="replace")
        if OFF + reason not in console:
            raise RuntimeError(f"boot {self._boot} ended with {console[console.index(OFF):].strip()!r}, "
                               f"expected {reason!r}")

    def await_reboot(self):
        """Waits for the program's own reboot and the boot after it. Returns what the program logged before."""
        self.await_down("reboot -f")
        trace = self.trace()
        self._boot += 1
        self._do("wait", "--boot", self._boot, "--timeout", TIMEOUT)
        return trace

    def trace(self):
        """What the program has logged in the present boot."""
        try:
            return (self.folder / f"boot-{self._boot}/trace.log").read_text(encoding="utf-8", errors="replace")
        except FileNotFoundError:
            return ""
