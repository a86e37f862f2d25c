"""The README's campaign tables: one for the damage rows and one for the
volume rows, each with a column per Debian release whose cells are made
from the Markdown table that release's campaign run wrote; and the
power-cut table, a column per release summing up its power-cut run. A run
checks (or, updating, writes) its own release's column and leaves the
others be.

In the README the campaign tables stand between the lines BEGIN and END,
the damage table first, a blank line between them; the power-cut table
between POWER_BEGIN and POWER_END.
"""

import re

BEGIN = "<!-- campaign tables: test/cases/kernel-*/campaign -->"
END = "<!-- end of the campaign tables -->"
POWER_BEGIN = "<!-- power-cut table: test/cases/kernel-*/power-cut -->"
POWER_END = "<!-- end of the power-cut table -->"
DEBIAN = {"bullseye": 11, "bookworm": 12, "trixie": 13}


def parse(text):
    """(header cells, [row cells]) of a Markdown table."""
    lines = [line for line in text.strip("\n").splitlines() if line.startswith("|")]
    cells = [[cell.strip() for cell in line.strip().strip("|").split(" | ")] for line in lines]
    return cells[0], cells[2:]


def render(header, rows):
    lines = [header, ["---"] * len(header)] + rows
    return "\n".join("| " + " | ".join(cells) + " |" for cells in lines) + "\n"


def heading(release, kernel, checker):
    """'Debian 11 (bullseye)<br>Linux 5.10<br>exfatprogs 1.1.0' from the
    KTAP header's values: the kernel's major and minor only, as its ABI
    number moves with every stable update."""
    major_minor = re.match(r"\d+\.\d+", kernel)
    version = checker.removeprefix("exfatprogs version : ").split()[0]
    return (f"Debian {DEBIAN[release]} ({release})<br>"
            f"Linux {major_minor.group(0) if major_minor else kernel}<br>exfatprogs {version}")


def cell(header, cells):
    """One row of a run's table as one cell: the verdict, then each step
    that has something to say, a line each."""
    fields = dict(zip(header, cells))
    verdict = fields.pop("verdict")
    fields.pop(header[0])
    return "<br>".join([verdict] + [f"{name.rstrip('?')}: {value}" for name, value in fields.items()
                                    if value != "—"])


def column(release, kernel, checker, run_table):
    """{row name: cell} of this release, with the heading under None."""
    header, rows = parse(run_table)
    result = {None: heading(release, kernel, checker)}
    result.update({cells[0]: cell(header, cells) for cells in rows})
    return result


def merge(readme_table, first_header, release, new_column):
    """The README's table with this release's column put in (in Debian's
    order), and the lines of that column as the README had them and as
    the run makes them."""
    if readme_table.strip():
        header, rows = parse(readme_table)
    else:
        header, rows = [first_header], []
    releases = [re.search(r"\((\w+)\)", h).group(1) for h in header[1:]]
    old = dict((cells[0], cells[1 + releases.index(release)]) for cells in rows) \
        if release in releases else {}
    old_lines = [header[1 + releases.index(release)]] if release in releases else []
    old_lines += [f"{name}: {value}" for name, value in old.items()]
    if release not in releases:
        at = sum(DEBIAN[r] < DEBIAN[release] for r in releases)
        releases.insert(at, release)
        header.insert(1 + at, "")
        for cells in rows:
            cells.insert(1 + at, "—")
    index = 1 + releases.index(release)
    header[index] = new_column[None]
    known = [cells[0] for cells in rows]
    for name in new_column:
        if name is not None and name not in known:
            rows.append([name] + ["—"] * len(releases))
    for cells in rows:
        cells[index] = new_column.get(cells[0], "—")
    new_lines = [new_column[None]] + [f"{name}: {value}" for name, value in new_column.items()
                                      if name is not None]
    return render(header, rows), old_lines, new_lines


def update(readme, release, kernel, checker, damage_table, volume_table):
    """(the README with this release's columns, [(old lines, new lines)]
    for the damage and the volume table)."""
    if BEGIN not in readme or END not in readme:
        raise ValueError(f"README.md has no {BEGIN} ... {END}")
    head, rest = readme.split(BEGIN, 1)
    tables, tail = rest.split(END, 1)
    parts = tables.strip("\n").split("\n\n") if tables.strip() else ["", ""]
    merged, changes = [], []
    for readme_table, first_header, run_table in zip(parts, ["damage", "test"], [damage_table, volume_table]):
        table, old, new = merge(readme_table, first_header, release,
                                column(release, kernel, checker, run_table))
        merged.append(table)
        changes.append((old, new))
    return head + BEGIN + "\n" + "\n".join(merged) + "\n" + END + tail, changes


def power_cut_column(release, kernel, checker, run_table):
    """{measure: cell} of this release's power-cut run, with the heading
    under None: the points at the marks and at the flushes inside the
    steps, clean or not, each row not ok named; the torn points damaged,
    repaired, with a durable file lost."""
    header, rows = parse(run_table)
    fields = [dict(zip(header, cells)) for cells in rows]
    marks = [f for f in fields if f["power cut"] != "`power-cut.torn`"]
    torn = next(f for f in fields if f["power cut"] == "`power-cut.torn`")
    not_ok = [f"{f['power cut']} ({'; '.join(dict.fromkeys(f['verdict'].split('<br>')[1:]))})"
              for f in marks if f["verdict"] != "ok"]
    flushes = [re.match(r"(\d+) of (\d+) points? kept", f["flush points"]) for f in marks]
    flushes = [m for m in flushes if m]
    column = {None: heading(release, kernel, checker)}
    column["marks: clean, mounted, durable files there, also after a repair"] = (
        f"{len(marks) - len(not_ok)} of {len(marks)}" + "".join(f"<br>not ok: {n}" for n in not_ok))
    column["flushes inside a step: clean, mounted, durable files there, also after a repair"] = (
        f"{sum(int(m.group(1)) for m in flushes)} of {sum(int(m.group(2)) for m in flushes)}")
    column["torn points: damaged"] = torn["fsck.exfat -n"]
    column["torn points: repaired, durable files lost"] = torn["repair"]
    column["torn points: verdict"] = torn["verdict"]
    return column


def update_power_cut(readme, release, kernel, checker, table):
    """(the README with this release's power-cut column, [(old lines, new lines)])."""
    if POWER_BEGIN not in readme or POWER_END not in readme:
        raise ValueError(f"README.md has no {POWER_BEGIN} ... {POWER_END}")
    head, rest = readme.split(POWER_BEGIN, 1)
    old_table, tail = rest.split(POWER_END, 1)
    merged, old, new = merge(old_table.strip("\n"), "power cut", release,
                             power_cut_column(release, kernel, checker, table))
    return head + POWER_BEGIN + "\n" + merged + POWER_END + tail, [(old, new)]
