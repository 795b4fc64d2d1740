"""What a run has measured: rows, each against a peer or a limit; curves; and the rows that could not be measured."""


class Figures:
    """A row's ratio is ours divided by theirs. Which way is good follows from its budget."""

    def __init__(self):
        self.rows = {}
        self.curves = {}
        self.not_run = {}

    def add(self, key, title, unit, ours, against, theirs):
        """key names the row in budgets.toml. against says what the peer or the limit is."""
        self.rows[key] = {"title": title, "unit": unit, "ours": ours, "against": against, "theirs": theirs,
                          "ratio": ours / theirs}
        print(f"  {key}: {show(ours, unit)} against {show(theirs, unit)} ({against}): {ours / theirs:.3f}")

    def skip(self, key, reason):
        self.not_run[key] = reason


def show(value, unit):
    """A value with three significant digits, or all digits of a whole number."""
    text = f"{value:,.0f}" if abs(value) >= 100 or float(value).is_integer() else f"{value:.3g}"
    return f"{text} {unit}".strip()


def median(values):
    values = sorted(values)
    return (values[(len(values) - 1) // 2] + values[len(values) // 2]) / 2
