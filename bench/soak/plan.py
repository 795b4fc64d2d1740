"""What happens in a day: times in seconds of the board, counted from the supervisor's start in a boot."""

import random

HOUR = 3600
SLOT = 300        # of a watched application: a silence at its start, and quiet at its end
OUTAGE_SLOT = 720  # of a station in recovery
QUIET = 20        # before the end of a slot: the moment for a measurement


class Watched:
    """An application that lives for `seconds`: in each slot a silence, which the supervisor must notice and which is
    too short for a restart. One silence in the middle of the time is long enough for one."""

    def __init__(self, seconds, seed):
        noise = random.Random(seed)
        count = int(seconds // SLOT)
        self.steps = []  # (time, mode)
        for slot in range(count):
            start = slot * SLOT + noise.randrange(20, 60)
            length = noise.randrange(135, 155) if slot == count // 2 else noise.randrange(30, 101)
            self.steps += [(start, "silent"), (start + length, "beat")]
        self.seconds = count * SLOT


class Outages:
    """An access point that goes away or falls mute in each slot, and comes back. A slot's outage is long enough for
    the station to notice it and short enough to be joined again in the slot."""

    def __init__(self, seconds, seed):
        noise = random.Random(seed)
        self.slots = []  # (start, end, kind)
        for slot in range(int(seconds // OUTAGE_SLOT)):
            start = slot * OUTAGE_SLOT + noise.randrange(20, 60)
            self.slots.append((start, start + noise.randrange(100, 330), noise.choice(["down", "down", "mute"])))
        self.seconds = len(self.slots) * OUTAGE_SLOT
