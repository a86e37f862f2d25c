"""Reads the campaign's KTAP with the Linux kernel's own KTAP parser
(tools/testing/kunit/kunit_parser.py, from Debian's linux-source package,
unpacked by scripts/install-deps.sh into build/kunit-parser/) and says
what a runner reading it would trip over: every error the parser reports
(a plan not met, a result numbered wrongly, a missing result line), a row
that is not ok although none of its steps is (the parser counts the
innermost results, and would call such a run a success), and a SKIP on a
result that is not ok.
"""

import io
import os
import re
import sys

PARSER = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "build", "kunit-parser")


def parser_missing():
    if not os.path.exists(os.path.join(PARSER, "kunit_parser.py")):
        return f"{PARSER}/kunit_parser.py is missing (scripts/install-deps.sh unpacks it)"
    return None


def problems(ktap):
    """The problems of a KTAP text, as lines; none when it reads well."""
    sys.path.insert(0, PARSER)
    import kunit_parser  # noqa: E402
    import kunit_printer  # noqa: E402

    said = io.StringIO()
    kunit_printer.stdout = kunit_parser.stdout = kunit_printer.Printer(said)
    main = kunit_parser.parse_run_tests(ktap.splitlines())
    found = [re.sub(r"^.*\[ERROR\] ", "", line) for line in said.getvalue().splitlines() if "[ERROR]" in line]
    skipped_plan = re.search(r"^1\.\.0 # SKIP", ktap, re.M)
    if main.counts.errors and not (skipped_plan and found == ["Test: main: 0 tests run!"]):
        found = found or [f"{main.counts.errors} parse errors"]
    else:
        found = []
    status = kunit_parser.TestStatus
    for row in main.subtests:
        if row.subtests and row.status == status.FAILURE and \
                not any(step.status == status.FAILURE for step in row.subtests):
            found.append(f"row {row.name.strip()} is not ok, and none of its steps is")
    for line in ktap.splitlines():
        if re.match(r"\s*not ok \d+ .* # SKIP", line):
            found.append(f"SKIP on a result that is not ok: {line.strip()}")
    return ["ktap: " + problem for problem in found]


if __name__ == "__main__":
    print("\n".join(problems(sys.stdin.read())) or "reads well")
