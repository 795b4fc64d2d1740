"""How memory and time grow with connections and with the size of a package, and the digest's time."""

import pathlib
import resource
import subprocess

from speed import make_package
from virtual import ADDRESS, board

CONNECTIONS = (1, 10, 100, 1000)
MIBS = (1, 4, 16, 64)


def measure_connections(figures, bin_folder, _folder):
    with board(bin_folder) as camera:
        camera.in_recovery()
        curve = camera.client("connections.py", ADDRESS, camera.program(), *CONNECTIONS)
    figures.curves["connections"] = curve
    few, many = curve[0], curve[-1]
    figures.add("connections.memory", f"own memory a connection, at {CONNECTIONS[-1]}", "KiB", many["perConnection"],
                "a KiB", 1)
    figures.add("connections.answer", f"processor time of an answer, with {CONNECTIONS[-1]} connections open", "µs",
                1e6 * many["processor"], "the same with one", 1e6 * few["processor"])
    figures.add("connections.open", f"processor time to accept one of {CONNECTIONS[-1]} and answer", "µs",
                1e6 * many["processorToOpen"], "one of ten", 1e6 * curve[1]["processorToOpen"])


def _md5sum(file):
    """Returns md5sum's processor time in seconds."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(["md5sum", file], check=True, stdout=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def measure_packages(figures, bin_folder, folder):
    curve = []
    with board(bin_folder) as camera:
        for boot, mib in enumerate(MIBS, 1):
            package = make_package(bin_folder, folder, {"app": (mib << 20) - 4096})
            process = camera.in_recovery(boot).program()
            stored = pathlib.Path(f"/proc/{process}/root/tmp/upGradeFile.FLS")
            result = camera.client("sender.py", ADDRESS, 80, package, stored, process, "finish")
            curve.append({"mib": package.stat().st_size / (1 << 20), **result})
            if mib < MIBS[-1]:  # The writer writes the image if the board's flash has room for it, and reboots.
                camera.wait("--boot", boot + 1)
    figures.curves["packages"] = curve
    small, large = curve[0], curve[-1]
    figures.add("packages.memory", f"own memory with a package of {MIBS[-1]} MiB stored", "KiB", large["anonymous"],
                f"of {MIBS[0]} MiB", small["anonymous"])
    costs = [1000 * (point["processor"] + point["checkProcessor"]) / point["mib"] for point in curve]
    figures.add("packages.processor", f"processor time to receive and check one MiB of {MIBS[-1]}", "ms", costs[-1],
                f"one of {MIBS[1]}", costs[1])
    figures.add("md5", f"checking a package of {MIBS[-1]} MiB, processor time", "ms", 1000 * large["checkProcessor"],
                "md5sum", 1000 * _md5sum(package))
