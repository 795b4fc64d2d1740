#!/usr/bin/env python3
"""mutants.py [--module NAME] [--name NAME] [--all] [--check] [--jobs N]: breaks the programs on purpose, one small
fault at a time, and shows which tests notice. docs/testing.md says how to read the output.

The rules in tests/mutants/MODULE.toml describe the faults. A copy of the tree in build/mutants gets one fault at a time
and is built; then the tests that the rule names run until one fails. The exit status is 0 if at least 95 % of the
faults were noticed, 1 if fewer were, and 2 if a rule is wrong or a test fails without any fault.
"""

import argparse
import fnmatch
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import tomllib
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutants"
TREE = WORK / "tree"
BUILD = WORK / "build"
RULES = ROOT / "tests" / "mutants"
GOAL = 0.95
# What a system test runs besides its own program.
BOARD_PROGRAMS = ["upgradeMain", "vboard", "kvtool", "cameraMain"]


@dataclass
class Mutant:
    module: str
    name: str
    file: str
    find: str
    replace: str
    tests: list = field(default_factory=list)  # "PROGRAM [GTEST FILTER]", the most likely to fail first
    equivalent: str = ""  # why no test can notice it


class RuleError(Exception):
    pass


def fits_a_test(test):
    program, *filters = test.split()
    cases = []
    for source in (ROOT / "tests").glob(f"*/{program}.cpp"):
        cases += re.findall(r"^TEST(?:_F|_P)?\((\w+), (\w+)\)", source.read_text(), re.MULTILINE)
    return any(fnmatch.fnmatchcase(f"{suite}.{case}", filters[0] if filters else "*") for suite, case in cases)


def read_rules(module, name):
    """Reads the rules of that module and name, or all rules. Raises RuleError if one does not fit the sources."""
    mutants = []
    for path in sorted(RULES.glob(f"{module or '*'}.toml")):
        rules = tomllib.loads(path.read_text())
        for entry in rules["mutant"]:
            entry = {"tests": rules.get("tests", []), **entry}
            try:
                mutants.append(Mutant(module=path.stem, **entry))
            except TypeError as error:
                raise RuleError(f"{path.name}: {entry.get('name', '?')}: {error}") from error
    mutants = [mutant for mutant in mutants if (name or "") in mutant.name]
    if not mutants:
        raise RuleError("no rule has that name")
    faults = []
    for number, mutant in enumerate(mutants):
        where = f"{mutant.module}: {mutant.name}"
        if any((m.module, m.name) == (mutant.module, mutant.name) for m in mutants[:number]):
            faults.append(f"{where}: two rules have this name")
        count = (ROOT / mutant.file).read_text().count(mutant.find) if (ROOT / mutant.file).is_file() else 0
        if count != 1:
            faults.append(f"{where}: its text occurs {count} times in {mutant.file}, not once")
        if not mutant.tests and not mutant.equivalent:
            faults.append(f"{where}: names no test")
        faults += [f"{where}: no test fits '{test}'" for test in mutant.tests if not fits_a_test(test)]
    if faults:
        raise RuleError("\n".join(faults))
    return mutants


def refresh_tree():
    """Makes the copy equal to the tree. An unchanged file keeps its time, so little is built again."""
    listed = subprocess.run(["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            capture_output=True, text=True)
    if listed.returncode == 0:
        names = {name for name in listed.stdout.split("\0") if name and (ROOT / name).is_file()}
    else:
        names = {str(path.relative_to(ROOT)) for path in ROOT.rglob("*")
                 if path.is_file() and path.relative_to(ROOT).parts[0] not in ("build", ".git")}
    for name in names:
        copy = TREE / name
        if not copy.is_file() or copy.read_bytes() != (ROOT / name).read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(ROOT / name, copy)
            shutil.copymode(ROOT / name, copy)
    for copy in TREE.rglob("*"):
        if copy.is_file() and str(copy.relative_to(TREE)) not in names:
            copy.unlink()


def quiet(command):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        raise RuleError(result.stdout[-4000:])
    return result.stdout


def configure():
    # Debugging information would take most of the linking time. The normal build reports warnings.
    quiet(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-Og",
           "-DKV_WERROR=OFF", f"-DKV_BIN_DIR={BUILD}/bin"])


class Bench:
    """Builds and runs test programs."""

    def __init__(self, jobs, scratch):
        self.jobs = jobs
        self.environment = {**os.environ, "TMPDIR": scratch}
        listed = json.loads(quiet(["ctest", "--test-dir", BUILD, "--show-only=json-v1"]))
        self.commands = {test["name"]: test["command"] for test in listed["tests"] if "command" in test}
        self.usual = {}  # seconds that a test takes when nothing is wrong

    def build(self, tests):
        targets = {test.split()[0] for test in tests}
        if any((ROOT / "tests/system" / f"{name}.cpp").is_file() for name in targets):
            targets.update(BOARD_PROGRAMS)
        quiet(["cmake", "--build", BUILD, "-j", str(self.jobs), "--target", *sorted(targets)])

    def run(self, test, limit, fail_fast):
        """Returns the names of the cases that failed."""
        program, *filters = test.split()
        command = self.commands.get(program, [f"{BUILD}/bin/{program}"])
        environment = {**self.environment, "GTEST_FILTER": filters[0] if filters else "*"}
        if fail_fast:
            environment["GTEST_FAIL_FAST"] = "1"
        # A file, not a pipe: processes that a test leaves running would keep a pipe open.
        with tempfile.TemporaryFile("w+", errors="replace") as output:
            process = subprocess.Popen(command, cwd=BUILD, env=environment, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=subprocess.STDOUT, start_new_session=True)
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = None
            finally:
                end_group(process)
            output.seek(0)
            text = output.read()
        if status == 0:
            if "[  PASSED  ] 0 tests" in text or "Running 0 tests" in text:
                raise RuleError(f"{test}: selects no test")
            return []
        failed = re.findall(r"\[  FAILED  \] (\S+?)(?:,.*)? \(\d+ ms\)$", text, re.MULTILINE)
        if failed:
            return list(dict.fromkeys(failed))
        begun = re.findall(r"\[ RUN      \] (\S+)$", text, re.MULTILINE)
        how = "does not end" if status is None else f"ends with {status}"
        return [f"{begun[-1] if begun else program} ({how})"]

    def try_without_fault(self, tests):
        new = [test for test in tests if test not in self.usual]
        if not new:
            return
        self.build(new)
        for test in new:
            start = time.monotonic()
            # Try a second time: on a busy machine a test may time out.
            failed = self.run(test, 300, False) and self.run(test, 300, False)
            if failed:
                raise RuleError(f"{test} fails without any fault: {', '.join(failed)}")
            self.usual[test] = time.monotonic() - start

    def killers(self, mutant, every):
        target = TREE / mutant.file
        original = target.read_text()
        found = []
        try:
            target.write_text(original.replace(mutant.find, mutant.replace))
            try:
                self.build(mutant.tests)
            except RuleError as error:
                raise RuleError(f"{mutant.module}: {mutant.name} cannot be built:\n{error}") from error
            for test in mutant.tests:
                failed = self.run(test, 30 + 3 * self.usual[test], not every)
                found += [f"{test.split()[0]}: {name}" for name in failed]
                if found and not every:
                    break
        finally:
            target.write_text(original)
        return found


def end_group(process):
    """Ends the test and the processes that it has left running. A virtual board needs a moment to clean up."""
    for number in (signal.SIGTERM, signal.SIGKILL):
        end = time.monotonic() + 10
        try:
            os.killpg(process.pid, number)
            while time.monotonic() < end:
                process.poll()
                os.killpg(process.pid, 0)
                time.sleep(0.02)
        except ProcessLookupError:
            break
    process.wait()


def print_table(results):
    print(f"\n{'module':8} {'faults':>6} {'not counted':>11} {'killed':>6} {'survived':>8} {'rate':>6}")
    total = [0, 0, 0]
    for module in sorted({mutant.module for mutant, _ in results}) + ["all"]:
        rows = [(m, found) for m, found in results if module in (m.module, "all")]
        left_out = sum(bool(m.equivalent) for m, _ in rows)
        killed = sum(bool(found) for m, found in rows if not m.equivalent)
        counted = len(rows) - left_out
        rate = killed / counted if counted else 1.0
        print(f"{module:8} {len(rows):6} {left_out:11} {killed:6} {counted - killed:8} {100 * rate:4.0f} %")
    return rate


def try_all(mutants, options):
    WORK.mkdir(parents=True, exist_ok=True)
    refresh_tree()
    configure()
    results = []
    with tempfile.TemporaryDirectory(prefix="kv-mutants-") as scratch:
        bench = Bench(options.jobs, scratch)
        for mutant in mutants:
            label = f"{mutant.module:8} {mutant.name}"
            if mutant.equivalent:
                results.append((mutant, []))
                print(f"no fault  {label}: {mutant.equivalent}", flush=True)
                continue
            bench.try_without_fault(mutant.tests)
            found = bench.killers(mutant, options.all)
            results.append((mutant, found))
            word, what = ("killed", found) if found else ("SURVIVED", mutant.tests)
            print(f"{word:9} {label}: {', '.join(what)}", flush=True)
    return print_table(results)


def main():
    parser = argparse.ArgumentParser(description="Break the programs on purpose and see which tests notice.")
    parser.add_argument("--module", help="only the faults of tests/mutants/MODULE.toml")
    parser.add_argument("--name", help="only the faults whose name contains this")
    parser.add_argument("--all", action="store_true", help="run every named test, not only up to the first that fails")
    parser.add_argument("--check", action="store_true", help="only check whether each rule still fits the sources")
    parser.add_argument("--jobs", type=int, default=2, help="compilers at a time")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        mutants = read_rules(options.module, options.name)
        if options.check:
            return 0
        return 0 if try_all(mutants, options) >= GOAL else 1
    except RuleError as error:
        print(f"mutants: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
