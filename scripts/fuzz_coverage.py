#!/usr/bin/python3
"""fuzz_coverage.py NAME...: prints how many lines the fuzzers of these names reached in each file that takes data from
outside apart. Reads the profiles in build/fuzz-coverage. Exits with 1 if a file is below 90 %."""
import json
import os
import pathlib
import subprocess
import sys

GOAL = 90
ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "fuzz-coverage"
# The files, after the fuzzer that reaches most of them.
FILES = {
    "protocol": ["mini/kv_mini_protocol.cpp", "mini/kv_mini_session.cpp", "mini/kv_mini_upgrade.cpp",
                 "mini/kv_mini_upgrade_check.cpp"],
    "flash": ["flash/kv_upgrade_package.cpp", "flash/kv_fullhan_flash.cpp", "flash/kv_flash_region.cpp",
              "tools/package/flash_image.cpp"],
    "discovery": ["mini/kv_mini_discovery.cpp", "mini/kv_des.cpp"],
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


def main():
    names = sys.argv[1:]
    profile = BUILD / "all.profdata"
    profiles = [BUILD / f"{name}.profraw" for name in names]
    subprocess.run(["llvm-profdata", "merge", "-o", profile, *profiles], check=True)
    objects = [argument for name in names[1:] for argument in ("-object", BUILD / "bin" / f"fuzz_{name}")]
    exported = subprocess.run(["llvm-cov", "export", "-summary-only", f"-instr-profile={profile}",
                               BUILD / "bin" / f"fuzz_{names[0]}", *objects], check=True, capture_output=True)
    files = json.loads(exported.stdout)["data"][0]["files"]
    lines = {os.path.normpath(file["filename"]): file["summary"]["lines"] for file in files}
    low = 0
    print("| fuzzer | file | lines | reached |\n|---|---|---:|---:|")
    for name in names:
        for file in FILES[name]:
            found = lines[str(ROOT / file)]
            low += found["percent"] < GOAL
            print(f"| {name} | `{file}` | {found['count']} | {found['percent']:.0f} % |")
    if low > 0:
        print(f"fuzz_coverage: {low} files are below {GOAL} %", file=sys.stderr)
    return 1 if low > 0 else 0


if __name__ == "__main__":
    sys.exit(main())
