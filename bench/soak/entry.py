"""What the programs in this folder have in common: their first options, and how they end."""
import argparse
import pathlib
import subprocess
import sys
import tempfile

from board import Problem, interruptible


def parser(name, about):
    result = argparse.ArgumentParser(prog=name, description=about.splitlines()[0])
    result.add_argument("bin", type=pathlib.Path, help="folder of the programs")
    result.add_argument("--program", type=pathlib.Path, help="another device program than BIN/upgradeMain")
    result.add_argument("--docs", type=pathlib.Path, help="folder whose soak.md is rewritten")
    return result


def execute(options, run):
    """Calls run(options, an empty folder). Returns the exit status: what run returned, 1 after a problem, which is
    printed, or 130 after Ctrl-C or SIGTERM.
    """
    options.bin = options.bin.resolve()
    options.program = options.program or options.bin / "upgradeMain"
    interruptible()
    with tempfile.TemporaryDirectory(prefix="kv-soak-") as folder:
        try:
            return run(options, pathlib.Path(folder))
        except (Problem, OSError, subprocess.SubprocessError) as problem:
            print(f"soak: {problem}", file=sys.stderr)
            return 1
        except KeyboardInterrupt:
            return 130
