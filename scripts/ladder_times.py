#!/usr/bin/env python3
"""ladder_times.py STATE SPEED STATUS: prints the timeline of a permanent silence from the logs of a stopped board.

STATUS is a file with the board's last `vboard status --json`. The supervisor checks every 3 s. Each step must come at
the first check that finds the silence longer than 5 s (offline) or 120 s (restart, then 60 s later reboot or recovery).
The exit status is 1 if a step comes at another time.
"""
import datetime
import json
import re
import sys

TICK = 3  # seconds between two checks


def main():
    state, speed = sys.argv[1], int(sys.argv[2])
    # Allow for the host's scheduling, 300 ms of host time, and for a clock that shows whole seconds.
    lag = 0.3 * speed + 1
    rows = []  # step, time, and (the time it counts from, the silence that causes it)
    opened = watchdog_opened(f"{state}/ops.jsonl")
    for boot in (1, 2):
        with open(f"{state}/boot-{boot}/trace.log", errors="replace") as trace:
            lines = [entry for entry in map(parse, trace) if entry]
        # Each boot's trace has a clock of its own; the devices' clock runs through all boots. On both, the supervisor's
        # first act is to open the watchdog.
        lines = [(at - lines[0][0] + opened[boot], text) for at, text in lines]
        start = last_beat(lines)
        checks = [(at, int(text.rsplit(" ", 1)[1])) for at, text in lines if "cameraMain off time = " in text]
        if start is None or not checks:
            sys.exit(f"boot {boot}: no silence in the trace")
        steps = [at for at, silence in checks if silence > 120]
        if len(steps) != 2:
            sys.exit(f"boot {boot}: {len(steps)} escalations instead of 2")
        rows.append((f"boot {boot}: last heartbeat" if boot == 1 else f"boot {boot}: supervisor started", start, None))
        rows.append((f"boot {boot}: offline", checks[0][0], (start, 5)))
        rows.append((f"boot {boot}: application restarted", steps[0], (start, 120)))
        rows.append((f"boot {boot}: " + ("reboot" if boot == 1 else "recovery"), steps[1], (steps[0], 60)))

    wrong = False
    print(f"{'step':32} {'seconds':>8}  {'since':>6} {'promised':>10}")
    for what, at, expected in rows:
        passed = at - rows[0][1]
        if expected is None:
            print(f"{what:32} {passed:8.0f}")
            continue
        since, after = at - expected[0], expected[1]
        good = after < since + 1 and since <= after + TICK + lag
        wrong = wrong or not good
        print(f"{what:32} {passed:8.0f}  {since:6.0f} {after:4}…{after + TICK:<4} {'' if good else '  WRONG'}")

    with open(sys.argv[3]) as status:
        gap = json.load(status)["watchdog"]["largestGap"]
    print(f"largest gap between two feeds of the watchdog: {gap:.1f} s; the limit is 30 s")
    print(f"rounding and a busy host may add {lag:.0f} s to a step")
    print("\nEvery step came at the promised time." if not wrong else "\nA step came at the wrong time.")
    sys.exit(wrong)


def parse(line):
    match = re.match(r"\x1b\[[0-9;]*m(\S+ \S+) \[\d\d\] \d+ +\S+ \S+ \x1b\[m(.*)", line)
    if not match:
        return None
    at = datetime.datetime.strptime(match[1], "%Y-%m-%d %H:%M:%S")
    return at.timestamp(), match[2]


def last_beat(lines):
    """Start of the silence: the last heartbeat, or the supervisor's start if there was none. The trace shows only one
    heartbeat out of four, but the first check logs the time since the last one."""
    for at, text in lines:
        match = re.search(r"cameraMain off time = (\d+)", text)
        if match:
            return at - int(match[1])
    return None


def watchdog_opened(name):
    times = {}
    with open(name) as log:
        for operation in map(json.loads, log):
            if operation["op"] == "open" and operation["dev"] == "watchdog":
                times[operation["boot"]] = operation["board"]
    return times


main()
