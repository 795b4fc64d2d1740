"""Signals by the hundred, while clients ask."""

import contextlib
import os
import signal
import threading
import time

import client
from judge import PATIENCE, Judge

STORM = 500  # signals


class Storms(Judge):
    @contextlib.contextmanager
    def traffic(self):
        """Clients go on meanwhile. Yields a list whose length is the number of answers."""
        answers, stop = [], threading.Event()

        def talk():
            while not stop.is_set():
                with contextlib.suppress(OSError), contextlib.closing(client.connect(timeout=1)) as connection:
                    while not stop.is_set():
                        answers.append(client.ask(connection, client.INFO, client.INFO_SIZE))

        talkers = [threading.Thread(target=talk) for _ in range(4)]
        for talker in talkers:
            talker.start()
        try:
            yield answers
        finally:
            stop.set()
            for talker in talkers:
                talker.join()

    def storm(self, kinds):
        for _ in range(STORM):
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.process, self.noise.choice(kinds))
            time.sleep(0.001)

    def disarming(self):
        """SIGUSR1 disarms the watchdog and does nothing else, however often it comes."""
        with self.phase("SIGUSR1 storm") as row:
            with self.traffic() as answers:
                self.storm([signal.SIGUSR1])
                before = len(answers)
                deadline = time.monotonic() + 5
                while len(answers) < before + 100 and time.monotonic() < deadline:
                    time.sleep(0.01)
            self.serve_again()
            if len(answers) < before + 100:
                self.explain("no answers after the storm")
            self.board.wait(self.boot, log="Watchdog Stop successful")
            if self.board.status()["watchdog"]["armed"]:
                self.explain("the watchdog is still armed")
            row.notes = f"disarmed; {len(answers)} answers meanwhile"
            row.before.threads -= 1  # the feeder has ended
            service = row.service
        self._reset()  # arms the watchdog again
        row.service = max(service, row.service)

    def flashing(self):
        """SIGUSR2 starts the flash writer once. It finds no whole package and reboots."""
        with self.phase("SIGUSR2 storm") as row:
            boot = self.boot
            with self.traffic() as answers:
                self.storm([signal.SIGUSR2])
                self.board.wait(boot, console="board: down: ")
            self.next_boot("reboot -f")
            row.notes = f"one reboot; {len(answers)} answers before it"
            if self.board.text(boot, "trace.log").count("Scalable partition:") != 1:
                self.explain("the writer did not run exactly once")

    def ending(self):
        """SIGTERM ends the program once, with the watchdog disarmed. Nothing on the board starts it again."""
        with self.phase("SIGTERM storm") as row:
            boot = self.boot
            with self.traffic() as answers:
                self.storm([signal.SIGTERM])
                self.board.wait(boot, console="upgradeMain ended with ")
            if "upgradeMain ended with status 0" not in self.board.text(boot, "console.log"):
                self.explain("it did not end with status 0")
            self.board.wait(boot, log="LoopPoolInit DeInit Success!", timeout=10)
            if self.trace_count("Start Exit!") != 1:
                self.explain("it did not begin its exit exactly once")
            row.notes = f"status 0; {self.trace_count('wait exit!')} refused; {len(answers)} answers"
            self._reset()

    def everything(self):
        """All three at once: the program ends by itself or its writer reboots the board, whichever comes first."""
        with self.phase("all signals") as row:
            boot, console = self.boot, ""
            with self.traffic() as answers:
                self.storm([signal.SIGUSR1, signal.SIGUSR2, signal.SIGTERM])
                deadline = time.monotonic() + PATIENCE
                while "upgradeMain ended with " not in console and "board: down: " not in console:
                    if time.monotonic() > deadline:
                        self.explain("it neither ends nor reboots")
                    time.sleep(0.05)
                    console = self.board.text(boot, "console.log")
            if "board: down: reboot -f" in console:
                row.notes = f"rebooted; {len(answers)} answers"
                self.next_boot("reboot -f")
                return
            if "upgradeMain ended with status 0" not in console:
                self.explain("it did not end with status 0")
            row.notes = f"status 0; {len(answers)} answers"
            self._reset()

    def _reset(self):
        self.board.do("reset")
        self.next_boot("reset")
