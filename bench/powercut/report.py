"""Tables and picture of a sweep, for docs/powercut.md and docs/powercut.svg."""

import collections
import html

from judge import CLASSES, DEAD, DECEIVES, RECOVERS, RESCUE, RISKS, RUNS

BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"
SEVERITY = [RUNS, RECOVERS, DECEIVES, RESCUE, DEAD]
COLOURS = {RUNS: "#7fb77e", RECOVERS: "#4a7fb5", RESCUE: "#e6a532", DEAD: "#b5302a", DECEIVES: "#8e44ad"}
LEFT, WIDTH, BAR, PITCH = 250, 640, 18, 30


def _table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads)]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


def _count(outcomes):
    """Counts per class, with the versions of what runs."""
    counts = collections.Counter(outcome.what for outcome in outcomes)
    kinds = collections.Counter(outcome.version for outcome in outcomes if outcome.what == RUNS)
    runs = str(counts[RUNS])
    if kinds:
        runs += " (" + ", ".join(f"{kinds[kind]} {kind}" for kind in ("old", "new", "mixed") if kinds[kind]) + ")"
    return [runs, *(counts[what] for what in CLASSES[1:])]


def cut_rows(orders):
    for order in orders:
        yield [order.name, len(order.cuts), len(order.distinct),
               *_count([order.outcomes[key] for _, key in order.cuts])]


def _spans(spans):
    return ", ".join(f"{end - start:.2f} s from {start:.2f} s on ({image})" for start, end, image in spans) or "none"


def figures(orders, full, minutes, cores):
    """The generated part of the page."""
    cuts, contents, failures = (sum(len(part) for part in parts) for parts in zip(
        *((order.cuts, order.distinct, order.failures) for order in orders)))
    lines = ["## Figures", "", f"{cuts} cuts left {contents} different flash contents.",
             f"Each of these, and each of the {failures} failures, was a run of its own.",
             f"All runs took {minutes:.1f} minutes on {cores} cores.", "", "### Power cuts", ""]
    lines += _table(["order of the images", "cuts", "flash contents", *CLASSES], cut_rows(orders))
    lines += ["", "### When the power must hold", "",
              "For the small package of the sweep. Seconds at the speed of a typical chip, from the first erasure on.",
              ""]
    rows = []
    for order in orders:
        windows = order.windows()
        rows.append([order.name, f"{order.seconds():.2f} s",
                     *(_spans(windows[what]) for what in (RESCUE, DEAD, DECEIVES))])
    lines += _table(["order of the images", "writing takes", f"a cut {RESCUE}", "a cut kills", "nobody notices a cut"],
                    rows)
    lines += ["", "A camera with the standard layout, as `kvtool inspect` predicts it. The boot loader has 300 KiB,",
              "the kernel 1.8 MiB, the root file system 3.5 MiB, the application 3 MiB.", "", "```", *full["text"],
              "```", "", "### Failures that are not cuts", ""]
    rows = []
    for name, part in ((orders[0].name, orders[:1]), ("all orders together", orders)):
        for kind in dict.fromkeys(failure.what() for failure in orders[0].failures):
            outcomes = [order.outcomes[failure] for order in part for failure in order.failures
                        if failure.what() == kind]
            rows.append([name, kind, len(outcomes), *_count(outcomes)])
    return lines + _table(["order of the images", "failure", "failures", *CLASSES], rows)


def replace_figures(page, lines):
    text = page.read_text(encoding="utf-8")
    head, rest = text.split(BEGIN)
    page.write_text(head + BEGIN + "\n" + "\n".join(lines) + "\n" + END + rest.split(END)[1], encoding="utf-8")


def _segments(order):
    """Returns what a cut does and from when to when, for each stretch of equal outcomes."""
    segments = []
    for step in range(0, len(order.cuts), 3):
        inside = [order.outcomes[key].what for cut, key in order.cuts[step:step + 3] if cut.place != "after"]
        what = max(inside, key=SEVERITY.index)
        cut = order.cuts[step][0]
        end = cut.start + cut.seconds
        if segments and segments[-1][0] == what:
            segments[-1][2] = end
        else:
            segments.append([what, cut.start, end])
    return segments


def _predicted_segments(power):
    segments, now = [], 0.0
    for window in power["windows"]:
        segments += [[RECOVERS, now, window["from"]], [RISKS[window["risk"]], window["from"],
                                                      window["from"] + window["seconds"]]]
        now = window["from"] + window["seconds"]
    return [segment for segment in [*segments, [RECOVERS, now, power["seconds"]]] if segment[2] - segment[1] > 1e-6]


class _Picture:
    def __init__(self):
        self._parts, self._top = [], 16

    def text(self, x, y, text, anchor="start", size=13):
        self._parts.append(f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}">'
                           f"{html.escape(text)}</text>")

    def _box(self, x, y, width, height, colour, title=""):
        self._parts.append(f'<rect x="{x:.2f}" y="{y}" width="{width:.2f}" height="{height}" fill="{colour}">'
                           f"<title>{html.escape(title)}</title></rect>")

    def legend(self):
        x = 10
        for what in SEVERITY:
            self._box(x, self._top, 14, 14, COLOURS[what])
            self.text(x + 20, self._top + 12, what)
            x += 40 + 6.6 * len(what)
        self._top += 36

    def panel(self, title, rows, step):
        """Bars with a common scale of seconds. `rows`: name and segments."""
        self.text(10, self._top + 12, title, size=14)
        self._top += 24
        last = max(segments[-1][2] for _, segments in rows)
        scale = WIDTH / last
        for name, segments in rows:
            self.text(LEFT - 8, self._top + 14, name, "end")
            for what, start, end in segments:
                # A stretch narrower than the line of a pen would not be seen.
                self._box(LEFT + start * scale, self._top, max((end - start) * scale, 0.8), BAR, COLOURS[what],
                          f"{what}: {start:.2f} s to {end:.2f} s")
            self._top += PITCH
        tick = 0
        while tick * step <= last:
            x = LEFT + tick * step * scale
            self._parts.append(f'<path d="M{x:.1f} {self._top - 8} v6" stroke="#444"/>')
            self.text(x, self._top + 12, f"{tick * step:g} s", "middle", 12)
            tick += 1
        self._top += 34

    def render(self):
        return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 30}" height="{self._top}" '
                f'font-family="sans-serif"><rect width="100%" height="100%" fill="white"/>' + "\n".join(self._parts)
                + "</svg>\n")


def picture(orders, full):
    drawing = _Picture()
    drawing.legend()
    drawing.panel("Small package of the sweep: when the power is cut, and what becomes of the device",
                  [(order.name, _segments(order)) for order in orders], 0.5)
    drawing.panel("A camera with the standard layout, predicted by kvtool inspect",
                  [("usual order, with boot loader", _predicted_segments(full["power"]))], 5)
    return drawing.render()
