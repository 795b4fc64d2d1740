"""Sizes of the ARM programs and of the peers' in Debian's armhf packages, alone and with the libraries they load."""

import pathlib
import re
import subprocess

ARCH = "arm-linux-gnueabihf"
# Parts of the C library: every one of the programs needs it, and a device has it once.
C_LIBRARY = re.compile(r"(libc|libm|libdl|libpthread|libresolv|ld-linux-armhf)\.so")


class Packages:
    """Unpacked armhf packages in some folders."""

    def __init__(self, *folders):
        self.folders = [pathlib.Path(folder) for folder in folders]
        self._libraries = {}
        for folder in self.folders:
            for place in (f"lib/{ARCH}", f"usr/lib/{ARCH}"):
                for file in sorted((folder / place).glob("*.so*")):
                    self._libraries.setdefault(file.name, file)

    def program(self, path):
        return next(folder / path for folder in self.folders if (folder / path).exists())

    def libraries(self, program):
        """Maps the names of the libraries that a program loads to their files."""
        found, todo = {}, [program]
        while todo:
            dynamic = subprocess.run(["readelf", "-d", todo.pop()], check=True, capture_output=True, text=True).stdout
            for name in re.findall(r"NEEDED.*\[(.*)\]", dynamic):
                if name not in found:
                    found[name] = self._libraries[name]
                    todo.append(found[name])
        return found

    def complete_size(self, program):
        """Bytes of a program and its libraries, without the C library."""
        return program.stat().st_size + sum(file.stat().st_size for name, file in self.libraries(program).items()
                                            if not C_LIBRARY.match(name))


def measure(figures, packages, arm):
    """`arm`: folder with the ARM programs by kind."""
    dynamic, musl = arm / "dynamic/upgradeMain", arm / "musl/upgradeMain"
    size = dynamic.stat().st_size
    watchdog = packages.program("usr/sbin/watchdog")
    figures.add("size.watchdog", "program file, shared libraries", "bytes", size, "watchdog",
                watchdog.stat().st_size)
    complete = packages.complete_size(dynamic)
    for name in ("rauc", "swupdate"):
        figures.add(f"size.{name}", "program and its libraries without the C library", "bytes", complete, name,
                    packages.complete_size(packages.program(f"usr/bin/{name}")))
    figures.add("size.busybox", "one static file", "bytes", musl.stat().st_size,
                "busybox-static, with all its other commands", packages.program("bin/busybox").stat().st_size)
