"""Text from a running board, with waits for patterns in it."""

import re
import threading
import time


# The limits of the waits are those of an idle PC. A busy one delays the emulator, so each is multiplied by this.
PATIENCE = 5


class Failure(Exception):
    """A step did not see what it must see."""


ESCAPES = re.compile(r"\x1b\[[0-9;]*m|\r")
CUT_ESCAPE = re.compile(r"\x1b(\[[0-9;]*)?$")


class Channel:
    """Collects the text of a file object on its own thread. Other threads wait for patterns in the text.

    A position is a number of characters from the beginning. A wait ignores the text before its position, so it does not
    mistake an old line for a new one.
    """

    def __init__(self, stream, name):
        self.name = name
        self._stream = stream
        self._text = ""
        self._ended = False
        self._changed = threading.Condition()
        threading.Thread(target=self._collect, name=name, daemon=True).start()

    def _collect(self):
        rest = ""
        try:
            while data := self._stream.read1(65536):
                text = rest + data.decode("utf-8", "replace")
                cut = CUT_ESCAPE.search(text)
                text, rest = (text[:cut.start()], cut[0]) if cut else (text, "")
                with self._changed:
                    self._text += ESCAPES.sub("", text)
                    self._changed.notify_all()
        except OSError:
            pass  # The connection to a killed emulator may end with a reset instead of end of file.
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def position(self):
        with self._changed:
            return len(self._text)

    def since(self, position):
        with self._changed:
            return self._text[position:]

    def wait(self, pattern, timeout, since):
        """Returns the first match after the position since; raises Failure after PATIENCE times timeout seconds."""
        expression = re.compile(pattern, re.MULTILINE)
        timeout *= PATIENCE
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                found = expression.search(self._text, since)
                if found:
                    return found
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    why = "the emulator ended" if self._ended else f"not within {timeout:g} s"
                    raise Failure(f"{self.name}: not seen: {pattern} ({why})")
                self._changed.wait(left)
