"""The program's cost on the board: memory and wake-ups."""

import re

from channel import Failure

MOST_RESIDENT = 2048  # KiB
MOST_ANONYMOUS = 512
# Thread names as the kernel truncates them. These threads sleep unless a client or a signal comes.
SLEEPERS = ("__KV_HV_LoopPro", "__KV_SIGNAL_Pro")
SUPERVISOR = "$(pidof upgradeMain)"


def memory(machine, process=SUPERVISOR):
    """Returns resident and anonymous KiB, from smaps: those in status are off by up to 63 pages per thread.

    process is shell words for the number of the process.
    """
    text = machine.run(f"cat /proc/{process}/smaps_rollup")
    return tuple(int(re.search(rf"^{name}:\s+(\d+) kB", text, re.MULTILINE)[1]) for name in ("Rss", "Anonymous"))


def _switches(text):
    return {tid: (int(process), name, int(count))
            for process, tid, name, count in re.findall(r"^(\d+) (\d+) (\S+) (\d+)$", text, re.MULTILINE)}


def wakeups(machine, seconds=10, processes=(SUPERVISOR,)):
    """Counts each thread's voluntary context switches.

    processes are shell words for the numbers of processes. Returns the seconds measured and, for each process, a list
    of (name of the thread, count).
    """
    look = (f"cut -d ' ' -f 1 /proc/uptime; n=0; for process in {' '.join(processes)}; do "
            "for task in /proc/$process/task/*; do echo $n ${task##*/} $(cat $task/comm) "
            "$(sed -n 's/^voluntary_ctxt_switches:[[:space:]]*//p' $task/status); done; n=$((n + 1)); done")
    first, second = machine.run(f"{look}; echo; sleep {seconds}; {look}", seconds + 20).split("\n\n")
    before, after = _switches(first), _switches(second)
    threads = [[] for _ in processes]
    for tid, (process, name, count) in after.items():
        if tid in before:
            threads[process].append((name, count - before[tid][2]))
    return float(second.split()[0]) - float(first.split()[0]), threads


def _restless(threads):
    return [name for name, count in threads if count and name in SLEEPERS]


def report(machine):
    """Returns lines for the report; raises Failure if a goal is missed."""
    resident, anonymous = memory(machine)
    seconds, [threads] = wakeups(machine)
    if resident > MOST_RESIDENT or anonymous > MOST_ANONYMOUS:
        raise Failure(f"{resident} KiB resident, {anonymous} KiB anonymous; "
                      f"the limits are {MOST_RESIDENT} and {MOST_ANONYMOUS}")
    if _restless(threads):
        # A slow board may have been answering the last search. If so, the next seconds are quiet.
        seconds, threads = wakeups(machine)
    if restless := _restless(threads):
        raise Failure(f"woke up without work: {', '.join(restless)}")
    return [f"memory: {resident} KiB resident, {anonymous} KiB of it anonymous",
            f"voluntary context switches in {seconds:.1f} s: {sum(count for _, count in threads)}",
            "  " + ", ".join(f"{name} {count}" for name, count in threads if count),
            "  threads without any: " + str(sum(not count for _, count in threads))]
