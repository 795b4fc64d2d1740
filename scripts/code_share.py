#!/usr/bin/python3
"""code_share.py [CEILING]: prints the tests' share of the code lines, in percent. Exits with 1 if it is above CEILING.

Code lines are the lines of the committed .cpp, .h, .py and .sh files that are neither blank nor comments. Tests are the
files below tests/.
"""
import io
import re
import subprocess
import sys
import tokenize


def c_lines(text):
    """Counts lines after removing comments, but not text in literals that looks like a comment."""
    token = re.compile(r'//[^\n]*|/\*.*?\*/|R"([^()\s]*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'', re.S)
    text = token.sub(lambda m: re.sub(r"[^\n]", "", m[0]) if m[0][:2] in ("//", "/*") else m[0], text)
    return sum(1 for line in text.splitlines() if line.strip())


def python_lines(text):
    """Counts lines with a token. A string that is a statement of its own counts as a comment."""
    lines, first = set(), True
    skip = (tokenize.COMMENT, tokenize.NL, tokenize.INDENT, tokenize.DEDENT, tokenize.ENDMARKER, tokenize.NEWLINE)
    tokens = list(tokenize.generate_tokens(io.StringIO(text).readline))
    for token, after in zip(tokens, tokens[1:] + tokens[-1:]):
        if token.type == tokenize.NEWLINE:
            first = True
        elif token.type not in skip:
            if not (first and token.type == tokenize.STRING and after.type == tokenize.NEWLINE):
                lines.update(range(token.start[0], token.end[0] + 1))
            first = False
    return len(lines)


def shell_lines(text):
    return sum(1 for line in text.splitlines() if line.strip() and not line.lstrip().startswith("#"))


COUNTS = {"cpp": c_lines, "h": c_lines, "py": python_lines, "sh": shell_lines}


def main():
    names = subprocess.run(["git", "ls-files", "-z"], check=True, capture_output=True, text=True).stdout.split("\0")
    lines = {True: 0, False: 0}
    for name in names:
        count = COUNTS.get(name.rpartition(".")[2])
        if count:
            with open(name, encoding="utf-8") as file:
                lines[name.startswith("tests/")] += count(file.read())
    share = 100 * lines[True] / sum(lines.values())
    print(f"tests: {lines[True]} of {sum(lines.values())} code lines, {share:.1f} %")
    if len(sys.argv) > 1 and share > float(sys.argv[1]):
        print(f"code_share: above the ceiling of {sys.argv[1]} %", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
