"""The tables of docs/performance.md and its pictures, from one run's data."""

import os
import platform
import subprocess

import budgets
from results import show

BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"
# Section of the page: the beginnings of its rows' keys.
SECTIONS = {
    "Size": ("size.",),
    "Memory while idle": ("memory.",),
    "Wake-ups while idle": ("wakeups.",),
    "Start": ("start.",),
    "Upload and upgrade": ("upload.", "md5", "flash.", "journey"),
    "Discovery": ("discovery.",),
    "Growth": ("connections.", "packages."),
}


def machine():
    """Describes the machine of this run."""
    with open("/proc/cpuinfo", encoding="utf-8", errors="replace") as file:
        names = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    return {"processor": names[0] if names else platform.machine(), "processors": os.cpu_count(),
            "kernel": platform.release(), "load": round(os.getloadavg()[2], 1)}


def tables(data):
    """Returns the lines of the page between its markers."""
    limits = budgets.load()
    on = data["machine"]
    lines = ["## Figures", "",
             f"One run of {data['minutes']:.0f} minutes on {on['processors']} cores ({on['processor']}).",
             f"The load average of its last 15 minutes was {on['load']}.", ""]
    for title, keys in SECTIONS.items():
        lines += [f"### {title}", "", "| what | upgradeMain | against | theirs | ratio | budget |",
                  "|---|---:|---|---:|---:|---|"]
        for key, budget in limits.items():
            if not key.startswith(keys):
                continue
            row = data["rows"].get(key)
            if row:
                lines.append(f"| {row['title']} | {show(row['ours'], row['unit'])} | {row['against']} | "
                             f"{show(row['theirs'], row['unit'])} | {row['ratio']:.3g} | {budgets.limit(budget)} |")
            else:
                lines.append(f"| `{key}` | NOT RUN | {data['notRun'].get(key, '')} | | | {budgets.limit(budget)} |")
        lines.append("")
    return lines[:-1]


def replace_tables(file, lines):
    text = file.read_text(encoding="utf-8")
    head, rest = text.split(BEGIN)
    file.write_text(head + BEGIN + "\n" + "\n".join(lines) + "\n" + END + rest.split(END)[1], encoding="utf-8")


def _gnuplot(file, width, height, script):
    script = (f'set terminal svg size {width},{height} font "sans,12" background "white"\nset output "{file}"\n'
              'set style fill solid 0.9 border rgb "#ffffff"\nset grid ytics lc rgb "#dddddd"\nset tics nomirror\n'
              'set border 3\nset key top left\n' + script)
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def _block(name, rows):
    return f"${name} << EOD\n" + "\n".join(" ".join(str(word) for word in row) for row in rows) + "\nEOD\n"


def _bars(title, name, rows, script=""):
    """A panel with a bar for each row: label, value, 1 for the program itself."""
    colours = {True: "0x1f6fb2", False: "0x9a9a9a"}
    return (_block(name, [(f'"{label}"', value, colours[own], show(value, "")) for label, value, own in rows]) +
            f'set title "{title}"\nset xtics rotate by -30\nset boxwidth 0.7\n{script}'
            f'plot ${name} using 0:2:3:xtic(1) with boxes lc rgb variable notitle, '
            f'${name} using 0:2:4 with labels offset 0,0.6 font ",10" notitle\n')


def draw_peers(file, data):
    rows = data["rows"]
    sizes = [("upgradeMain, static", rows["size.busybox"]["ours"], True),
             ("upgradeMain, libraries", rows["size.rauc"]["ours"], True)]
    sizes += [(name, rows[f"size.{name}"]["theirs"], False) for name in ("busybox", "watchdog", "rauc", "swupdate")]
    panels = [_bars("KiB on flash", "size", [(name, size / 1024, own) for name, size, own in sizes],
                    "set logscale y\nset yrange [10:200000]\n")]
    for title, value, limits in (("KiB resident", "resident", "set logscale y\nset yrange [100:30000]\n"),
                                 ("wake-ups a minute", "wakeups", "unset logscale y\nset yrange [0:*]\n")):
        costs = sorted(data["curves"]["idle"].items(), key=lambda cost: not cost[0].startswith(("normal", "recovery")))
        bars = [(name, cost[value], name.startswith(("normal", "recovery"))) for name, cost in costs]
        panels.append(_bars(title, value, bars, limits))
    _gnuplot(file, 1000, 420, "set multiplot layout 1,3\nset bmargin 7\nset rmargin 5\n" + "".join(panels))


def draw_growth(file, data):
    connections, packages = data["curves"]["connections"], data["curves"]["packages"]
    script = _block("connections", [(point["connections"], point["anonymous"], 1e6 * point["processor"])
                                    for point in connections])
    script += _block("packages", [(point["mib"], point["anonymous"], point["stored"] + point["check"])
                                  for point in packages])
    script += "set multiplot layout 1,4\nset yrange [0:*]\nset xrange [0:*]\nset pointsize 0.8\nset rmargin 4\n"
    for name, column, title, axis in (("connections", 2, "KiB of own memory", "connections"),
                                      ("connections", 3, "µs of processor time an answer", "connections"),
                                      ("packages", 2, "KiB of own memory", "package, MiB"),
                                      ("packages", 3, "s to receive and check", "package, MiB")):
        script += (f'set title "{title}"\nset xlabel "{axis}"\n'
                   f'plot ${name} using 1:{column} with linespoints lw 2 pt 7 lc rgb "#1f6fb2" notitle\n')
    _gnuplot(file, 1000, 280, script)


def draw_ratios(file, data):
    """How far each speed is from its peer: 1 is the peer."""
    names = {"start.armed": "start to armed", "start.answers": "start to TCP 80", "upload.shaped": "upload, 100 Mbit/s",
             "upload.free": "upload, no limit", "md5": "MD5", "flash.flashcp": "flash / flashcp",
             "flash.model": "flash / NOR model", "journey": "journey / floor"}
    rows = [(name, data["rows"][key]["ratio"], True) for key, name in names.items() if key in data["rows"]]
    line = 'set arrow from graph 0, first 1 to graph 1, first 1 nohead dt 2 lc rgb "#444444"\n'
    _gnuplot(file, 800, 360, "set bmargin 7\nset yrange [0:*]\n" + line +
             _bars("Ratio to the peer or limit of each row", "ratios", rows))


PICTURES = {"performance-peers.svg": draw_peers, "performance-ratios.svg": draw_ratios,
            "performance-growth.svg": draw_growth}


def write(docs, data):
    """Rewrites the page's tables and its pictures. A picture whose rows were not measured stays."""
    replace_tables(docs / "performance.md", tables(data))
    for name, draw in PICTURES.items():
        try:
            draw(docs / name, data)
        except KeyError as missing:
            print(f"bench: {name} stays as it was: {missing} was not measured")
