"""Times of the unchanged program on the virtual board, each beside a peer's or a limit."""

import json
import os
import pathlib
import random
import shutil
import struct
import subprocess
import sys
import time

from results import median
from process import find, processor_time
from virtual import ADDRESS, HERE, await_value, board

ROUNDS = 5
SECONDS = 1.0
# Prints the time and becomes the program that follows.
STARTER = "import os, sys, time; print(time.monotonic(), flush=True); os.execvp(sys.argv[1], sys.argv[1:])"
LOGIN = struct.pack("<HHHHIII12x", 0, 0x101, 0, 0, 0, 0, 0).hex()
GET = b"GET / HTTP/1.0\r\n\r\n".hex()
RATE = 100e6  # bits a second of a camera's Ethernet
# The images of a camera, in bytes.
IMAGES = {"uboot": 300 << 10, "kernel": 1800 << 10, "rootfs": 3500 << 10, "app": 3000 << 10}


def _start_once(camera, command, request):
    """Starts a program on a freshly reset board. Returns the seconds until the watchdog is armed or, with a request,
    until TCP port 80 answers it."""
    boot = json.loads(camera.do("status", "--json"))["boot"]
    client = None
    if request:
        client = camera.start("exec", "--", sys.executable, "-B", HERE / "answer.py", ADDRESS, "80", request)
        client.stdout.readline()
    program = camera.start("exec", "--board", "--", "/usr/bin/python3", "-c", STARTER, *command)
    began = float(program.stdout.readline())
    if client:
        ended = float(client.communicate()[0])
    else:
        ended = camera.await_operation(lambda step: step["op"] == "ioctl:SETTIMEOUT" and step["t"] > began)["t"]
    camera.do("reset")
    camera.wait("--boot", boot + 1)
    program.wait()
    return ended - began


def measure_start(figures, bin_folder, _folder):
    with board(bin_folder, program=("/bin/sleep", "infinity")) as camera:
        camera.wait("--boot", 1)
        shutil.copy(bin_folder / "upgradeMain", camera.state / "param")
        program = ["/param/upgradeMain"]
        for key, title, peer, command, requests in (
                ("start.armed", "start until the watchdog is armed", "busybox watchdog",
                 ["busybox", "watchdog", "-F", "/dev/watchdog"], (None, None)),
                ("start.answers", "start until TCP port 80 answers", "busybox httpd",
                 ["busybox", "httpd", "-f", "-p", "80"], (LOGIN, GET))):
            ours, theirs = [], []
            for _ in range(ROUNDS):
                ours.append(_start_once(camera, program, requests[0]))
                theirs.append(_start_once(camera, command, requests[1]))
            figures.add(key, title, "ms", 1000 * median(ours), peer, 1000 * median(theirs))


def _store_with_socat(camera, root, file):
    stored = root / "tmp/socat.FLS"
    on_board = ("exec", "--board", "--")
    listener = camera.start(*on_board, "socat", "-u", "TCP-LISTEN:9000,reuseaddr", "CREATE:/tmp/socat.FLS")
    camera.do(*on_board, "timeout", "10", "sh", "-c", "until ss -ltn | grep -q ':9000 '; do sleep 0.05; done")
    seconds = camera.client("sender.py", ADDRESS, 9000, file, stored)["stored"]
    listener.wait()
    stored.unlink()
    return seconds


def measure_upload(figures, bin_folder, folder):
    with board(bin_folder) as camera:
        camera.in_recovery()
        process = camera.program()
        root = pathlib.Path(f"/proc/{process}/root")
        package = root / "tmp/upGradeFile.FLS"
        for key, rate, mib, title in (("upload.shaped", "100mbit", 16, "upload over a link of 100 Mbit/s"),
                                      ("upload.free", None, 64, "upload over a link without a limit")):
            file = folder / f"{mib}.bin"
            file.write_bytes(os.urandom(mib << 20))
            if rate:
                camera.shape(rate)
            ours, theirs = [], []
            for _ in range(ROUNDS):
                theirs.append(_store_with_socat(camera, root, file))
                package.unlink(missing_ok=True)
                ours.append(camera.client("sender.py", ADDRESS, 80, file, package, process)["stored"])
            if rate:
                camera.shape(None)
            figures.add(key, title, "MiB/s", mib / median(ours), "socat", mib / median(theirs))


def measure_discovery(figures, bin_folder, _folder):
    """The rate of answers, and the processor time that each takes, beside a bare echo's. Takes the best of all rounds,
    which depends least on what else the machine does."""
    with board(bin_folder) as camera:
        camera.in_recovery()
        # The board cannot see the build folder, only its /param.
        program = camera.state / "param/udp_bench"
        for helper in ("udp_bench", "answer_cost"):
            shutil.copy(bin_folder / helper, camera.state / "param")
        figures.curves["answer"] = json.loads(camera.do("exec", "--board", "--", "/param/answer_cost"))
        echo = camera.start("exec", "--board", "--", "/param/udp_bench", "echo", "7")
        processes = {"7": await_value(lambda: find(program)), "6789": camera.program()}
        for flight, text in ((1, "one at a time"), (8, "eight under way")):
            rates, costs = {port: [] for port in processes}, {port: [] for port in processes}
            for _ in range(ROUNDS):
                for port, process in processes.items():
                    before = processor_time(process)
                    rate = float(camera.do("exec", "--", program, "ask", ADDRESS, port, SECONDS, flight))
                    rates[port].append(rate)
                    costs[port].append((processor_time(process) - before) / (rate * SECONDS))
            figures.add(f"discovery.rate{flight}", f"answers to searches, {text}", "/s", max(rates["6789"]),
                        "a bare UDP echo", max(rates["7"]))
            figures.add(f"discovery.cost{flight}", f"processor time of an answer, {text}", "µs",
                        1e6 * min(costs["6789"]), "a bare UDP echo", 1e6 * min(costs["7"]))
        camera.do("reset")
        echo.wait()


def make_package(bin_folder, folder, images):
    """Packs images of random bytes. Returns the package's path."""
    noise = random.Random(1)
    words = []
    for name, size in images.items():
        file = folder / f"{name}.img"
        file.write_bytes(noise.randbytes(size))
        words += [f"{name}={file}", f"--size={name}={size}"]
    package = folder / ("-".join(f"{name}{size}" for name, size in images.items()) + ".FLS")
    subprocess.run([bin_folder / "kvtool", "pack", "-o", package, *words], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    return package


def measure_journey(figures, bin_folder, folder):
    """An upgrade as a technician sees it, and the writing alone, against the least that chip and link need."""
    package = make_package(bin_folder, folder, IMAGES)
    inspected = subprocess.run([bin_folder / "kvtool", "inspect", package, "--json"], check=True, capture_output=True,
                               text=True).stdout
    model = json.loads(inspected)["power"]["seconds"]
    with board(bin_folder, "--nor-timing") as camera:
        camera.in_recovery()
        camera.shape(f"{RATE:.0f}bit")
        began = time.monotonic()
        tool = camera.start("exec", "--", bin_folder / "kvtool", "upgrade", ADDRESS, package, "--no-follow")
        reset = camera.await_operation(lambda step: step["op"] == "reset", 300)["t"]
        tool.communicate()
        first = camera.await_operation(lambda step: step["op"] == "erase" or step["op"].endswith("ERASE"))["t"]
    figures.add("flash.model", f"writing a package of {package.stat().st_size >> 10} KiB, until the reboot", "s",
                reset - first, "the NOR model of kvtool inspect", model)
    figures.add("journey", "the whole upgrade, from kvtool's start to the reboot", "s", reset - began,
                "erase + program + bytes over 100 Mbit/s", model + package.stat().st_size * 8 / RATE)
