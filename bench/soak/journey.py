#!/usr/bin/python3
"""The abuses of `make load`, one after the other, on a board that is on. load.py runs it in the bench's network."""

import argparse
import copy
import json
import pathlib
import subprocess
import sys

import client
from abuse import Abuse
from board import Board, Footprint, Problem, interruptible
from judge import ANYTHING, PATIENCE, Row
from limits import data_size
from storms import Storms


class Journey(Abuse, Storms):
    def warm_up(self):
        """What is set up once at first use, so that it does not look like growth: the allocator keeps some of what
        many clients took, and a cut upload leaves its file open until the next one."""
        self.board.wait(self.boot, log="into wifi guard")
        self.row = Row("idle, at the start")
        self.row.before = Footprint(self.process)
        self._idle_data = data_size(self.process)
        self.row.notes = "nobody has asked anything yet"
        self.rows.append(self.row)
        self.row = Row("warming up")
        self.cut_upload(100_000, 50_000)
        for count in (1000, 5000, 1000, 5000):
            client.close_all(self.open_and_ask(count))
        client.flood(1000, self.noise)
        client.await_service(PATIENCE)
        expected = copy.copy(self.rows[0].before)
        expected.descriptors += 1
        grown = self.board.settled(self.process, expected, ANYTHING, timeout=3).grown(expected, ANYTHING)
        if grown:
            self.explain(f"not flat: {', '.join(grown)}")

    def phases(self):
        """The first end is an orderly one: a sanitizer then looks for what all the clients before have left behind."""
        return [self.at_once, self.one_after_the_other, self.datagrams, self.slow_and_half_open, self.cut_uploads,
                self.few_descriptors, self.blocked_log, self.no_data, self.crowded_memory, self.ending,
                self.no_memory, self.small_tmp, self.disarming, self.flashing, self.everything]

    def run(self, only):
        """Raises Problem if something happens that must not."""
        try:
            self.warm_up()
            for phase in self.phases():
                if not only or phase.__name__ in only:
                    phase()
        except (OSError, subprocess.SubprocessError, client.NoService) as error:
            self.explain(str(error))


def main():
    parser = argparse.ArgumentParser(prog="journey", description=__doc__.splitlines()[0])
    parser.add_argument("bin", type=pathlib.Path, help="folder of the programs")
    parser.add_argument("state", type=pathlib.Path, help="the board's state folder")
    parser.add_argument("report", type=pathlib.Path, help="file that receives the rows")
    parser.add_argument("--relaxed", action="store_true", help="a sanitizer's build: judge neither time nor memory")
    parser.add_argument("--only", help="phases whose method has one of these names, with commas")
    options = parser.parse_args()
    interruptible()
    journey = Journey(Board(options.bin, options.state), options.relaxed, seed=1)
    try:
        journey.run(options.only.split(",") if options.only else [])
    except Problem as problem:
        print(f"load: {problem}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    options.report.write_text(json.dumps([row.cells() for row in journey.rows]), encoding="utf-8")
    return int(any(row.missed for row in journey.rows))


if __name__ == "__main__":
    sys.exit(main())
