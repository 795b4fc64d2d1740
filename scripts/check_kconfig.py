#!/usr/bin/python3
"""check_kconfig.py CONFIG_IN: checks the package's Buildroot menu, with stand-ins for Buildroot's own symbols."""
import os
import sys
import tempfile

import kconfiglib

# The recipe's dependencies and selections.
NEEDS = ["USE_MMU", "INSTALL_LIBSTDCPP", "TOOLCHAIN_HAS_THREADS", "TOOLCHAIN_GCC_AT_LEAST_7"]
SELECTS = ["PACKAGE_LIBEVENT", "PACKAGE_LIBMD", "PACKAGE_LIBOPING"]


def main():
    with tempfile.NamedTemporaryFile("w", suffix=".in") as top:
        for name in NEEDS + ["STATIC_LIBS", "PACKAGE_LIBSODIUM"] + SELECTS:
            top.write(f'config BR2_{name}\n\tbool "{name}"\n')
        top.write(f'source "{os.path.abspath(sys.argv[1])}"\n')
        top.flush()
        menu = kconfiglib.Kconfig(top.name, warn_to_stderr=False)
    problems = list(menu.warnings)
    package = menu.syms["BR2_PACKAGE_UPGRADEMAIN"]
    for name in NEEDS:
        if package.assignable:
            problems.append(f"can be chosen without {name}")
        menu.syms[f"BR2_{name}"].set_value(2)
    if not package.set_value(2) or package.tri_value != 2:
        problems.append("cannot be chosen")
    for name in SELECTS:
        if menu.syms[f"BR2_{name}"].tri_value != 2:
            problems.append(f"does not select {name}")
    menu.syms["BR2_PACKAGE_UPGRADEMAIN_SIGNED"].set_value(2)
    if menu.syms["BR2_PACKAGE_LIBSODIUM"].tri_value != 2:
        problems.append("trusted keys do not select PACKAGE_LIBSODIUM")
    menu.syms["BR2_STATIC_LIBS"].set_value(2)
    if package.tri_value != 0:
        problems.append("can be chosen with static libraries")
    for problem in problems:
        print(f"check_kconfig: {problem}", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
