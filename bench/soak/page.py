"""The part of docs/soak.md that a run writes."""

import textwrap

WIDTH = 120


def prose(sentences):
    return textwrap.wrap(" ".join(sentences), WIDTH)


def table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|---|" + "---:|" * (len(heads) - 1)]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]


def replace(page, name, lines):
    """Replaces what is between the markers of that name."""
    begin, end = f"<!-- {name}: begin -->\n", f"<!-- {name}: end -->\n"
    head, rest = page.read_text(encoding="utf-8").split(begin)
    text = "".join(f"{line}\n" for line in lines)
    page.write_text(head + begin + text + end + rest.split(end)[1], encoding="utf-8")
