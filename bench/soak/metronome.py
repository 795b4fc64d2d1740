#!/usr/bin/python3
"""metronome.py SECONDS: wakes up in this rhythm and does nothing else. A line on standard input makes it print its
largest delay since the last such line, in seconds: what the machine itself adds to any program's rhythm.
"""

import select
import sys
import time


def main():
    period, late = float(sys.argv[1]), 0.0
    while True:
        began = time.monotonic()
        asked, _, _ = select.select([sys.stdin], [], [], period)
        late = max(late, time.monotonic() - began - period)
        if asked:
            if not sys.stdin.readline():
                return
            print(late, flush=True)
            late = 0.0


if __name__ == "__main__":
    main()
