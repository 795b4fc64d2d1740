"""Prints each finished step, and the console of the board whose step fails."""

import contextlib
import threading
import time

CONSOLE_LINES = 60


class Report:
    def __init__(self):
        self.failed = False
        self._closed = False
        self._failure = ""
        self.began = time.monotonic()
        self._lock = threading.Lock()

    @contextlib.contextmanager
    def step(self, board, title):
        """Yields a list that collects lines of detail."""
        began = time.monotonic()
        details = []
        try:
            yield details
        except Exception as failure:
            self._print_failure(board, title, failure)
            raise
        with self._lock:
            print(f"{board.name}  {time.monotonic() - began:6.1f} s  {title}")
            for line in details:
                print(f"             {line}")

    def _print_failure(self, board, title, failure):
        with self._lock:
            if self.failed or self._closed:
                return  # A step of another board, cut short because everything stops.
            self.failed = True
            self._failure = f"{board.name}  FAILED     {title}\n{failure}"
            print(self._failure)
            if board.machine:
                print(f"--- the last {CONSOLE_LINES} lines of board {board.name}'s console:")
                print("\n".join(board.machine.console.since(0).splitlines()[-CONSOLE_LINES:]))
                print(f"--- end of the console. Why it is shown:\n{self._failure}")

    def close(self):
        """Silences later failures: they come from switching the boards off."""
        with self._lock:
            self._closed = True

    def print_end(self):
        """Prints the time, and once more which step failed: people look at the end of a log first."""
        print(f"total: {time.monotonic() - self.began:.1f} s")
        print("Not real on this board: erasing takes no time, and the kernel is not booted from flash.")
        if self._failure:
            print(self._failure)
