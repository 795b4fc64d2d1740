#!/usr/bin/python3
"""check_text.py: checks the committed files with the endings and names below, and scripts without an ending, against
the first section of .editorconfig.

Three kinds of lines may be wider: rows of Markdown tables, which cannot be wrapped; code blocks in Markdown, which show
what somebody types or reads on a screen; and lines with a URL. The script also checks that C++ files use anonymous
namespaces instead of file-level `static`, and that each target of the Makefile has a line of help.
"""
import pathlib
import re
import subprocess
import sys

WIDTH = int(re.search(r"^max_line_length = (\d+)", pathlib.Path(".editorconfig").read_text(encoding="utf-8"), re.M)[1])
TEXTS = {".md", ".sh", ".py", ".txt", ".cmake", ".json", ".bash", ".mk", ".in", ".1", ".8", ".init", ".conf",
         ".service", ".fragment", ".example", ".script", ".supp", ".desc", ".toml", ".yml", ".lua", ".js", ".mjs",
         ".css", ".html"}
NAMES = {"Makefile", "run", ".clang-format", ".editorconfig", ".gitignore", "S50upgrademain", "rcS", "inittab"}

problems = []


def complain(path, number, text):
    problems.append(f"{path}:{number}: {text}")


def is_text(path, text):
    return path.suffix in TEXTS or path.name in NAMES or text.startswith("#!")


def check_lines(path, text):
    fenced = before_code = False
    if not text.endswith("\n") or text.endswith("\n\n"):
        complain(path, text.count("\n"), "the file must end with exactly one newline")
    for number, line in enumerate(text.split("\n"), 1):
        if line != line.rstrip():
            complain(path, number, "trailing blanks")
        if path.suffix == ".md" and line.startswith("```"):
            fenced = not fenced
        exempt = "://" in line
        if path.suffix == ".md":
            exempt = exempt or fenced or line.startswith(("|", "    ", "```"))
        if len(line.expandtabs(8)) > WIDTH and not exempt:
            complain(path, number, f"{len(line.expandtabs(8))} columns, more than {WIDTH}")


def check_static(path, text):
    for number, line in enumerate(text.split("\n"), 1):
        if re.match("static ", line):
            complain(path, number, "file-level static: use an anonymous namespace")


def check_help(path, text):
    # .PHONY lists the targets that have a line of help.
    for target, rest in re.findall(r"^([a-z][a-z-]*):(.*)$", text, re.M):
        if not re.search(r"## \S", rest):
            complain(path, 1, f"the target {target} lacks a line of help")


def main():
    names = subprocess.run(["git", "ls-files", "-z"], check=True, capture_output=True, text=True).stdout.split("\0")
    for name in filter(None, names):
        if name.startswith("tests/fuzz/seeds/"):
            continue  # any bytes
        path = pathlib.Path(name)
        if path.suffix == ".png":
            continue
        text = path.read_text(encoding="utf-8")
        if path.suffix in (".cpp", ".h"):
            check_static(path, text)
        elif is_text(path, text):
            check_lines(path, text)
        if name == "Makefile":
            check_help(path, text)
    print("\n".join(problems), file=sys.stderr, end="\n" if problems else "")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
