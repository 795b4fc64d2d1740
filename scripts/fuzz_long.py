#!/usr/bin/python3
"""fuzz_long.py [NAME...]: runs each fuzzer, or these, for 10,000,000 executions, but for at most 30 minutes. Two run at
a time for each processor core. They start from the seeds and from what earlier runs have collected in
build/fuzz/corpus. Logs are in build/fuzz/long. Rewrites the table of the runs in docs/testing.md. An input that ends a
fuzzer stays in build/fuzz/crashes. Exits with 1 if there is one, or if a fuzzer was stopped.
fuzz_long.py --table [FOLDER]: prints the table, also of runs that have not ended, from the logs there.
"""
import concurrent.futures
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys

RUNS = 10_000_000
SECONDS = 1800
ROOT = pathlib.Path(__file__).resolve().parent.parent
FUZZ = ROOT / "build" / "fuzz"
LONG = FUZZ / "long"
DOCS = ROOT / "docs" / "testing.md"


def all_names():
    text = (ROOT / "tests" / "fuzz" / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.findall(r"^kv_fuzzer\((\w+)", text, re.M)


def command(name):
    corpus = FUZZ / "corpus" / name
    corpus.mkdir(parents=True, exist_ok=True)
    (FUZZ / "crashes").mkdir(exist_ok=True)
    return [FUZZ / "bin" / f"fuzz_{name}", "-close_fd_mask=3", "-timeout=200", "-rss_limit_mb=2048",
            "-max_len=2048", "-print_final_stats=1", f"-runs={RUNS}", f"-max_total_time={SECONDS}",
            f"-dict={ROOT}/tests/fuzz/words.dict", f"-artifact_prefix={FUZZ}/crashes/{name}-", corpus,
            ROOT / "tests" / "fuzz" / "seeds" / name]


def run(name):
    """Returns whether the fuzzer ran to its limit and found nothing. Its result is then in LONG/NAME.json."""
    log, result = LONG / f"{name}.log", LONG / f"{name}.json"
    result.unlink(missing_ok=True)
    with log.open("wb") as out, subprocess.Popen(command(name), stdout=out, stderr=subprocess.STDOUT) as child:
        status, usage = os.wait4(child.pid, 0)[1:]
        child.returncode = os.waitstatus_to_exitcode(status)
    shutil.rmtree(f"/dev/shm/fuzz-{child.pid}", ignore_errors=True)
    text = log.read_text(encoding="utf-8", errors="replace")
    executions = int((re.findall(r"number_of_executed_units:\s*(\d+)", text) or ["0"])[-1])
    end = "found something"
    if "SUMMARY:" not in text:
        end = "stopped" if child.returncode != 0 else "executions" if executions >= RUNS else "time"
    facts = {"executions": executions, "cpu_seconds": round(usage.ru_utime + usage.ru_stime, 1), "end": end}
    result.write_text(json.dumps(facts) + "\n", encoding="utf-8")
    print(f"{name:12} {row(facts)}", flush=True)
    return end in ("time", "executions")


def row(facts):
    rate = facts["executions"] / max(facts["cpu_seconds"], 1)
    return f"{facts['executions']:,} | {round(rate, -2 if rate >= 1000 else -1):,.0f} | " \
           f"{facts['cpu_seconds'] / 60:.1f} | {facts['end']}"


def under_way(log):
    """What the log of a run that has not ended says. Its processor time is not in the log."""
    counts = re.findall(r"^#(\d+)\s", log.read_text(encoding="utf-8", errors="replace"), re.M)
    return f"{int(counts[-1]):,} | | | not ended" if counts else "0 | | | not ended"


def table(folder):
    lines = ["| fuzzer | executions | a second of processor time | processor minutes | ended by |",
             "|---|---:|---:|---:|---|"]
    for name in all_names():
        result, log = folder / f"{name}.json", folder / f"{name}.log"
        if result.exists():
            lines.append(f"| `{name}` | {row(json.loads(result.read_text(encoding='utf-8')))} |")
        elif log.exists():
            lines.append(f"| `{name}` | {under_way(log)} |")
    return "\n".join(lines)


def main():
    if sys.argv[1:2] == ["--table"]:
        print(table(pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else LONG))
        return 0
    LONG.mkdir(parents=True, exist_ok=True)
    with concurrent.futures.ThreadPoolExecutor(2 * os.cpu_count()) as pool:
        sound = all(list(pool.map(run, sys.argv[1:] or all_names())))
    text = DOCS.read_text(encoding="utf-8")
    block = f"<!-- runs: begin -->\n{table(LONG)}\n<!-- runs: end -->"
    DOCS.write_text(re.sub(r"<!-- runs: begin -->.*<!-- runs: end -->", block, text, flags=re.S), encoding="utf-8")
    return 0 if sound else 1


if __name__ == "__main__":
    sys.exit(main())
