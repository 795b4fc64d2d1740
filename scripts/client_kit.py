#!/usr/bin/python3
"""client_kit.py [--check] [BIN-FOLDER]: writes the transcripts in docs/client-kit.md from a virtual board.

`kvtool conform --destructive` talks to the unchanged program. Session and serial number are random; the page shows
fixed values in their place, so that two runs give the same page. With --check the page stays as it is, and the exit
status is 1 if it is not what the board says now.
"""
import argparse
import difflib
import json
import pathlib
import re
import signal
import subprocess
import sys
import tempfile

TOP = pathlib.Path(__file__).resolve().parent.parent
PAGE = TOP / "docs/client-kit.md"
BEGIN, END = "<!-- transcripts -->\n", "<!-- end of the transcripts -->\n"
ADDRESS = "192.168.10.2"
SERIAL = "04 BC 28 82 DB C5 EC 08"
SECONDS = 240


def run(*command):
    done = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=SECONDS, check=False)
    if done.returncode != 0:
        raise SystemExit(f"client_kit: {' '.join(map(str, command))} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def transcript(programs):
    with tempfile.TemporaryDirectory(prefix="kv-client-kit-") as folder:
        work = pathlib.Path(folder)
        # It takes some seconds to flash, so that the rule about a second upload can be tried.
        (work / "image").write_bytes(bytes(i * i // 7 % 251 for i in range(3000000)))
        run(programs / "kvtool", "pack", "-o", work / "package", f"rootfs={work / 'image'}")
        board = [programs / "vboard", "--state", work / "board"]
        with open(work / "runner.log", "w", encoding="utf-8") as log:
            command = [*board, "run", "--quiet", "--no-wifi", "--nor-timing", "--", programs / "upgradeMain"]
            with subprocess.Popen(command, stdout=log, stderr=log) as runner:
                try:
                    run(*board, "wait", "--timeout", "60", "--log", "app file not exist!")
                    info = run(*board, "exec", "--", programs / "kvtool", "info", ADDRESS, "--json")
                    run(*board, "exec", "--", programs / "kvtool", "conform", ADDRESS, "--destructive",
                        "--package", work / "package", "--transcript", work / "transcript")
                finally:
                    runner.send_signal(signal.SIGTERM)
        text = (work / "transcript").read_text(encoding="ascii")
    serial = json.loads(info)["serial"]
    text = text.replace(" ".join(serial[i:i + 2].upper() for i in range(0, 16, 2)), SERIAL)
    # The top byte of each session that a reply carries.
    return re.sub(r"^(< 00 00 01 01 .. .. .. .. 01 00 00) ..", r"\1 82", text, flags=re.MULTILINE)


def main():
    parser = argparse.ArgumentParser(description="Write the transcripts in docs/client-kit.md from a virtual board.")
    parser.add_argument("--check", action="store_true", help="only compare")
    parser.add_argument("programs", nargs="?", type=pathlib.Path, default=TOP / "build/bin", metavar="BIN-FOLDER")
    options = parser.parse_args()
    page = PAGE.read_text(encoding="utf-8")
    before, rest = page.split(BEGIN)
    after = rest.split(END)[1]
    fresh = f"{before}{BEGIN}\n```\n{transcript(options.programs).rstrip()}\n```\n\n{END}{after}"
    if not options.check:
        PAGE.write_text(fresh, encoding="utf-8")
        return 0
    sys.stdout.writelines(difflib.unified_diff(page.splitlines(True), fresh.splitlines(True), "page", "board"))
    if fresh != page:
        print("client_kit: docs/client-kit.md is not what the board says: run `make client-kit`", file=sys.stderr)
    return int(fresh != page)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
