"""What the program costs on the board: memory and wake-ups."""

import re

from channel import Failure

MOST_RESIDENT = 2048  # KiB
MOST_ANONYMOUS = 512
# As the kernel cuts their names. They have nothing to do while nobody asks.
SLEEPERS = ("__KV_HV_LoopPro", "__KV_SIGNAL_Pro")
SUPERVISOR = "$(pidof upgradeMain)"


def memory(machine):
    """Resident and anonymous KiB. From smaps: the quick counters in status are off by up to 63 pages a thread."""
    text = machine.run(f"cat /proc/{SUPERVISOR}/smaps_rollup")
    return tuple(int(re.search(rf"^{name}:\s+(\d+) kB", text, re.MULTILINE)[1]) for name in ("Rss", "Anonymous"))


def _switches(text):
    return {tid: (name, int(count)) for tid, name, count in re.findall(r"^(\d+) (\S+) (\d+)$", text, re.MULTILINE)}


def wakeups(machine, seconds=10):
    """Voluntary context switches of each thread in about SECONDS: the seconds it took, a list of name and count."""
    look = (f"cut -d ' ' -f 1 /proc/uptime; for task in /proc/{SUPERVISOR}/task/*; do "
            "echo ${task##*/} $(cat $task/comm) "
            "$(sed -n 's/^voluntary_ctxt_switches:[[:space:]]*//p' $task/status); done")
    first, second = machine.run(f"{look}; echo; sleep {seconds}; {look}", seconds + 20).split("\n\n")
    before, after = _switches(first), _switches(second)
    threads = [(name, count - before[tid][1]) for tid, (name, count) in after.items() if tid in before]
    return float(second.split()[0]) - float(first.split()[0]), threads


def report(machine):
    """Lines for the report; Failure when a goal is missed."""
    resident, anonymous = memory(machine)
    seconds, threads = wakeups(machine)
    if resident > MOST_RESIDENT or anonymous > MOST_ANONYMOUS:
        raise Failure(f"{resident} KiB resident, {anonymous} KiB anonymous: "
                      f"more than {MOST_RESIDENT} and {MOST_ANONYMOUS}")
    restless = [name for name, count in threads if count and name in SLEEPERS]
    if restless:
        raise Failure(f"woke without work: {', '.join(restless)}")
    return [f"memory: {resident} KiB resident, {anonymous} KiB of it anonymous",
            f"voluntary context switches in {seconds:.1f} s: {sum(count for _, count in threads)}",
            "  " + ", ".join(f"{name} {count}" for name, count in threads if count),
            "  none in the other threads: " + str(sum(not count for _, count in threads))]
