"""The README's field table: for each Debian release, what the quick tier
of field rows (qvexfat-campaign --only fields) made of each change, counted
from the Markdown matrices of that release's run, and the rows that were
not ok, each named with why.

    python3 test/field_table.py README.md RELEASE=MARKDOWN...

writes the table between the lines BEGIN and END of the README.
"""

import re
import sys

from campaign_tables import DEBIAN, heading

BEGIN = "<!-- field table: scripts/field-table.sh -->"
END = "<!-- end of the field table -->"

# What each count is of, and which cells it takes.
COUNTS = [
    ("rows run", lambda code: code != "—"),
    ("the checker caught the change", lambda code: code.startswith("c")),
    ("the driver refused the volume", lambda code: code[1:] == "r"),
    ("the driver took it read-only", lambda code: code[1:] == "o"),
    ("the driver took it", lambda code: code[1:] == "t"),
    ("not ok: a hazard", lambda code: code == "**H**"),
    ("not ok: a time limit", lambda code: code == "**T**"),
    ("not ok: not carried out", lambda code: code == "**E**"),
    ("skipped: the verb changed nothing", lambda code: code == "·"),
]


def parse(markdown):
    """(the stack as a dict, every matrix cell's code, [(row, why)] of the rows not ok)."""
    stack = dict(line[2:].split(": ", 1) for line in markdown.splitlines()
                 if line.startswith("- ") and ": " in line and not line.startswith("- `"))
    codes = []
    in_matrix = False
    for line in markdown.splitlines():
        if not line.startswith("|"):
            in_matrix = False
            continue
        cells = [cell.strip() for cell in line.strip().strip("|").split(" | ")]
        if cells[0] == "---" or cells[0].startswith("---"):
            in_matrix = True
            continue
        if in_matrix:
            codes.extend(cells[1:])
    not_ok = [(match.group(1), match.group(2))
              for match in re.finditer(r"^- `([^`]+)`: not ok[^:]*: (.*)$", markdown, re.M)]
    return stack, codes, not_ok


def briefly(why):
    """A row's reasons, the first two of them: the rest is in its KTAP."""
    reasons = why.split("; ")
    return "; ".join(reasons[:2]) + (f" (and {len(reasons) - 2} more)" if len(reasons) > 2 else "")


def render(runs):
    """The table and the lists of rows not ok, releases in Debian's order."""
    releases = sorted(runs, key=lambda release: DEBIAN[release])
    parsed = {release: parse(runs[release]) for release in releases}
    header = [""] + [heading(release, parsed[release][0].get("kernel", "?"), parsed[release][0].get("checker", "?"))
                     for release in releases]
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    for name, takes in COUNTS:
        lines.append("| " + " | ".join([name] + [str(sum(1 for code in parsed[release][1] if takes(code)))
                                                  for release in releases]) + " |")
    text = "\n".join(lines) + "\n"
    for release in releases:
        not_ok = parsed[release][2]
        text += f"\nNot ok on Debian {DEBIAN[release]} ({release}), {len(not_ok)} rows:\n\n"
        text += "".join(f"- `{row}`: {briefly(why)}\n" for row, why in not_ok) or "- none\n"
    return text


def main(argv):
    readme, runs = argv[0], dict(arg.split("=", 1) for arg in argv[1:])
    text = open(readme).read()
    begin, end = text.index(BEGIN) + len(BEGIN), text.index(END)
    table = render({release: open(path).read() for release, path in runs.items()})
    with open(readme, "w") as out:
        out.write(text[:begin] + "\n" + table + text[end:])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
