#!/usr/bin/python3
"""fuzz_coverage.py NAME...: prints how many lines the fuzzers with these names reached in each file that parses data
from outside, and writes the table into docs/testing.md if these are all the fuzzers. Reads the profiles in
build/fuzz-coverage. Exits with 1 if a file is below 90 %."""
import os
import pathlib
import re
import subprocess
import sys

GOAL = 90
ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "fuzz-coverage"
DOCS = ROOT / "docs" / "testing.md"
# The files, each under the fuzzer that reaches most of its lines.
FILES = {
    "protocol": ["mini/kv_mini_protocol.cpp", "mini/kv_mini_session.cpp", "mini/kv_mini_upgrade.cpp",
                 "mini/kv_mini_upgrade_check.cpp"],
    "flash": ["flash/kv_upgrade_package.cpp", "flash/kv_fullhan_flash.cpp", "flash/kv_flash_region.cpp",
              "tools/package/flash_image.cpp"],
    "discovery": ["mini/kv_mini_discovery.cpp", "mini/kv_des.cpp"],
    "loop": ["hv/io.cpp", "hv/loop.cpp", "hv/post.cpp", "hv/server.cpp", "hv/stream.cpp", "hv/timer.cpp"],
    "heartbeat": ["main/kv_monitor.cpp"],
    "supplicant": ["wifi/kv_wpa_ctrl.cpp", "wifi/kv_wpa_query.cpp"],
    "console": ["common/kv_mini_console.cpp"],
    "net": ["net/kv_net_route.cpp", "net/kv_net_dns.cpp"],
    "search": ["tools/device/discovery_client.cpp", "tools/device/discovery_reply.cpp"],
    "session": ["tools/device/protocol_client.cpp", "tools/device/upgrade_session.cpp", "tools/device/probe.cpp"],
    "package": ["tools/package/check.cpp", "tools/package/compare.cpp", "tools/package/extract.cpp",
                "tools/package/builder.cpp", "tools/package/package_json.cpp"],
    "recipe": ["tools/package/recipe.cpp", "tools/package/layout.cpp", "tools/package/minisign_files.cpp",
               "tools/base/text.cpp"],
    "signature": ["flash/kv_package_signature.cpp", "tools/package/signature.cpp"],
    "journal": ["tools/fleet/journal.cpp", "tools/fleet/state.cpp"],
}

# The compiler runs these functions. No program contains them, so no line of them can be reached.
COMPILE_TIME = {"flash/kv_package_signature.cpp": ["SixBits", "DecodeKey", "DecodeKeys"]}


def export(names):
    """Returns {file: {line: count}} and {file: [(first line, function)]}."""
    profile = BUILD / "all.profdata"
    profiles = [BUILD / f"{name}.profraw" for name in names]
    subprocess.run(["llvm-profdata", "merge", "-o", profile, *profiles], check=True)
    objects = [argument for name in names[1:] for argument in ("-object", BUILD / "bin" / f"fuzz_{name}")]
    exported = subprocess.run(["llvm-cov", "export", "-format=lcov", f"-instr-profile={profile}",
                               BUILD / "bin" / f"fuzz_{names[0]}", *objects],
                              check=True, capture_output=True, text=True)
    lines, functions, file = {}, {}, ""
    for record in exported.stdout.splitlines():
        key, _, value = record.partition(":")
        if key == "SF":
            file = os.path.relpath(os.path.normpath(value), ROOT)
        elif key == "DA":
            number, count = value.split(",")[:2]
            lines.setdefault(file, {})[int(number)] = int(count)
        elif key == "FN":
            number, name = value.split(",", 1)
            functions.setdefault(file, []).append((int(number), name))
    return lines, functions


def drop_compile_time(lines, functions, symbols):
    for file, names in COMPILE_TIME.items():
        starts = sorted(set(functions[file])) + [(max(lines[file]) + 1, "")]
        for (first, name), (end, _) in zip(starts, starts[1:]):
            if any(f"{len(wanted)}{wanted}" in name for wanted in names):
                if name.rpartition(":")[2] in symbols:
                    sys.exit(f"fuzz_coverage: a program contains {name}, so its lines count")
                for line in range(first, end):
                    lines[file].pop(line, None)


def main():
    names = sys.argv[1:]
    lines, functions = export(names)
    if "signature" in names:
        symbols = subprocess.run(["nm", BUILD / "bin" / "fuzz_signature"], check=True, capture_output=True, text=True)
        drop_compile_time(lines, functions, {line.split()[-1] for line in symbols.stdout.splitlines()})
    low = 0
    table = ["| fuzzer | file | lines | reached |", "|---|---|---:|---:|"]
    for name in names:
        for file in FILES[name]:
            counts = lines[file].values()
            percent = 100 * sum(1 for count in counts if count > 0) / len(counts)
            low += percent < GOAL
            table.append(f"| `{name}` | `{file}` | {len(counts)} | {percent:.0f} % |")
    print("\n".join(table))
    if set(names) == set(FILES):
        text = DOCS.read_text(encoding="utf-8")
        block = "\n".join(["<!-- coverage: begin -->", *table, "<!-- coverage: end -->"])
        DOCS.write_text(re.sub(r"<!-- coverage: begin -->.*<!-- coverage: end -->", block, text, flags=re.S),
                        encoding="utf-8")
    if low > 0:
        print(f"fuzz_coverage: {low} files are below {GOAL} %", file=sys.stderr)
    return 1 if low > 0 else 0


if __name__ == "__main__":
    sys.exit(main())
