"""The peers on the emulated board: an image with them, and how each is started."""

import os
import pathlib
import shutil
import subprocess

from sizes import ARCH

HERE = pathlib.Path(__file__).parent
PROGRAMS = ("usr/sbin/watchdog", "usr/bin/dbus-daemon", "usr/bin/rauc", "usr/bin/swupdate", "usr/sbin/flashcp")
# The board has one hardware watchdog; the second device is the kernel's own timer. rauc is a service on a D-Bus, so the
# bus is up before it starts. swupdate, as Debian builds it, wants a certificate.
COMMANDS = {
    "busybox": "busybox watchdog -F /dev/watchdog0",
    "watchdog": "/usr/sbin/watchdog -F -c /etc/watchdog.conf",
    "dbus": "dbus-daemon --config-file=/etc/bus.conf --nofork --nopidfile",
    "rauc": "env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/bus rauc --override-boot-slot=A service",
    "swupdate": "swupdate -H camera:1 -k /etc/keyring.pem -w '--document-root /tmp/www --port 8080'",
}
# Shell conditions; $pid is the peer's process. rauc has its threads once it is on the bus.
READY = {
    "busybox": "ls -l /proc/$pid/fd | grep -q /dev/watchdog",
    "watchdog": "ls -l /proc/$pid/fd | grep -q /dev/watchdog",
    "dbus": "test -S /run/bus",
    "rauc": "test $(ls /proc/$pid/task | wc -l) -ge 3",
    "swupdate": "netstat -ltn | grep -q :8080",
}


def make_image(base, packages, out):
    """Adds the peers to the board's image in the folder base. Returns the folder out with the new image."""
    shutil.rmtree(out, ignore_errors=True)
    root = out / "root"
    shutil.copytree(HERE / "rootfs", root, symlinks=True)
    libraries = root / "usr/lib" / ARCH
    libraries.mkdir(parents=True)
    for path in PROGRAMS:
        program = packages.program(path)
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(program, root / path)
        for name, file in packages.libraries(program).items():
            shutil.copy(file, libraries / name)
    shutil.copy(next(folder for folder in packages.folders for folder in folder.glob(
        "lib/modules/*/kernel/drivers/watchdog/softdog.ko")), root / "usr/lib")
    _make_certificate(root / "etc/keyring.pem")
    for name in ("kernel", "board.dtb"):
        os.symlink(base / name, out / name)
    files = subprocess.run(["find", ".", "-mindepth", "1"], cwd=root, check=True, capture_output=True).stdout
    added = subprocess.run(["cpio", "--quiet", "-o", "-H", "newc", "-R", "0:0"], cwd=root, input=files, check=True,
                           capture_output=True).stdout
    (out / "initramfs").write_bytes((base / "initramfs").read_bytes() + added)
    return out


def _make_certificate(file):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", os.devnull, "-out", file,
                    "-subj", "/CN=camera"], check=True, stderr=subprocess.DEVNULL)


def start(machine):
    """Starts all peers and waits until each is ready."""
    machine.run("insmod /usr/lib/softdog.ko; mkdir -p /tmp/www /var/log/watchdog /var/run")
    for name, command in COMMANDS.items():
        # Both watchdog daemons lock the same file.
        machine.run(f"rm -f /var/run/watchdog.pid; start_peer {name} {command}; pid=$(cat /run/peer-{name}); n=0; "
                    f"until ({READY[name]}) 2>/dev/null; do n=$((n + 1)); "
                    f"kill -0 $pid && test $n -lt 300 || {{ cat /tmp/{name}.log; exit 1; }}; usleep 100000; done", 90)


def process(name):
    """Shell words for the number of a peer's process."""
    return f"$(cat /run/peer-{name})"
