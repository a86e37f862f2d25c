#!/usr/bin/env python3
"""Runs the example LAVA job lava/jobs/qemu-arm64.yaml for real, with
Debian's lava-dispatcher (lava-run, no server), and checks what LAVA
recorded against the KTAP the campaign printed in the job's log:

- each result of the KTAP (a row <row>, a step <row>.<step>) is a test case
  of the definition, with pass, fail or skip as KTAP says, and there are
  no others but the case qvexfat-campaign;
- the test set "stack" holds the cases kernel, checker and tool, whose
  references are the KTAP's "# kernel:", "# checker:" and "# tool:";
- a row known to fail on this stack, bitmap-cleared-under-file (the driver
  gives a file's clusters to the next new file), is a failed case;
- a second run of the definition, whose campaign is stopped with SIGTERM
  as its second row begins (test/lava/interrupted-campaign.sh stands in
  for the campaign on the board), has its first row, the interrupted row
  as failed and the rows not reached as skipped, each sent to LAVA as its
  line came, and the case qvexfat-campaign failed.

It then compares what LAVA recorded, case by case, with expect.out
(--update writes it). What it sets up and what labs do not need: the
job's URLs point at the files made here (the kernel of the fetched
Debian 12 machine, an initramfs of the static programs) and its repository
at a git snapshot of lava/ as it is in the working tree, and lava-run gets
the device configuration a server would render (qemu-device.yaml).

    run-job.py <kernel-cache> <static-build> <scratch> [--update]

Exit status 0 when all holds, 1 when not, 77 (1 under CI=true) when
lava-run, a TFTP server's configuration, the kernel or the static build is
missing.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import yaml

HERE = Path(__file__).resolve().parent
SOURCE = HERE.parent.parent
sys.path.insert(0, str(HERE.parent / "kernel"))
sys.path.insert(0, str(HERE.parent))
from machine import CONSOLE, build_initramfs, unavailable  # noqa: E402
from run_case import compare  # noqa: E402

DEFINITIONS = ["0_qvexfat-campaign", "1_qvexfat-campaign-interrupted"]
FAILING_ROW = "bitmap-cleared-under-file"
WHOLE_RUN_ROWS = "damage,truncate,stream.DataLength.frag-a.middlebit"
# The rows of the interrupted run, in the campaign's order: the second is
# stopped a second after it begins, in whichever of its steps that is.
INTERRUPTED_ROWS = "fat-root-chain,upcase,root-entry-unused"


def missing(cache, static):
    if not shutil.which("lava-run"):
        return "lava-dispatcher is not installed (scripts/install-deps.sh --lava)"
    if not Path("/etc/default/tftpd-hpa").is_file() or not shutil.which("in.tftpd"):
        return "no TFTP server for lava-run's tftp deploy (tftpd-hpa; scripts/install-deps.sh --lava)"
    for program in ["bin/qvexfat-test", "bin/qvexfat-campaign"]:
        if not (Path(static) / program).is_file():
            return f"{Path(static) / program}: no such file (cmake --build --preset aarch64-static)"
    return unavailable(cache)


def make_job(cache, static, scratch):
    """The example job with its URLs and repository on what is made here."""
    kernel = build_initramfs(cache, Path(static) / "bin/qvexfat-test", scratch / "ramdisk.cpio.gz",
                             {"/usr/libexec/qvexfat-campaign": Path(static) / "bin/qvexfat-campaign",
                              "/usr/bin/qvexfat-campaign": HERE / "interrupted-campaign.sh"},
                             CONSOLE)
    repository = scratch / "repository"
    shutil.copytree(SOURCE / "lava", repository / "lava")
    git = ["git", "-C", str(repository), "-c", "user.name=run-job", "-c", "user.email=run-job@localhost"]
    for command in (["init", "-q"], ["add", "-A"], ["commit", "-q", "-m", "lava/ as tested"]):
        subprocess.run(git + command, check=True)
    job = yaml.safe_load((SOURCE / "lava/jobs/qemu-arm64.yaml").read_text())
    for action in job["actions"]:
        if "deploy" in action:
            action["deploy"]["kernel"]["url"] = f"file://{kernel.resolve()}"
            action["deploy"]["ramdisk"]["url"] = f"file://{scratch / 'ramdisk.cpio.gz'}"
        if "test" in action:
            definitions = action["test"]["definitions"]
            definitions[0]["repository"] = str(repository)
            # The damage rows and one volume row: the kernel cases run every
            # row on this kernel already, side by side with this job.
            definitions[0]["parameters"] = dict(definitions[0].get("parameters", {}), ONLY=WHOLE_RUN_ROWS)
            interrupted = dict(definitions[0], name="qvexfat-campaign-interrupted")
            interrupted["parameters"] = dict(interrupted.get("parameters", {}), ONLY=INTERRUPTED_ROWS)
            definitions.append(interrupted)
    path = scratch / "job.yaml"
    path.write_text(yaml.safe_dump(job, sort_keys=False))
    return path


def read_log(text):
    """(the serial port's lines, LAVA's results) from lava-run's log."""
    target, results = [], []
    for line in text.splitlines():
        if not line.startswith("{"):
            continue
        try:
            entry = yaml.safe_load(line)
        except yaml.YAMLError:
            continue
        if entry["lvl"] == "target" and isinstance(entry["msg"], str):
            target.append(entry["msg"])
        elif entry["lvl"] == "results":
            results.append(entry["msg"])
    return target, results


def ktap_runs(target):
    """For each run of the campaign in the log, in order: {case name:
    pass|fail|skip} and the stack its KTAP says."""
    runs, cases, stack, rows = [], None, {}, []
    for line in target:
        if line.startswith("+ qvexfat-campaign --"):
            cases, stack, rows = {}, {}, []
        elif line.startswith("+ qvexfat-campaign exited") and cases is not None:
            runs.append((cases, stack))
            cases = None
        elif cases is None:
            continue
        elif m := re.match(r"# (kernel|checker|tool): (.*)", line):
            stack.setdefault(m[1], m[2])
        elif m := re.match(r"( *)# Subtest: (\S+)", line):
            # A row, or the test of a structure whose field rows are a
            # level further in: a step is named after the row it is in.
            rows = rows[:len(m[1]) // 2 - 1] + [m[2]]
        elif m := re.match(r"( *)(not )?ok \d+ (\S+)( # SKIP)?", line):
            depth = len(m[1]) // 2
            name = f"{rows[depth - 1]}.{m[3]}" if depth and not (depth == 1 and len(rows) > 1) else m[3]
            cases[name] = "skip" if m[4] else "fail" if m[2] else "pass"
    return runs


def check_run(definition, results, ktap, stack, steps=True):
    """What LAVA recorded for one run of the definition against its KTAP,
    and the cases it recorded (with `steps`, the rows' steps too)."""
    transcript = []
    ours = [r for r in results if r.get("definition") == definition]
    lava = {r["case"]: r for r in ours}
    for key, value in stack.items():
        reference = lava.get(key, {}).get("reference")
        if reference != re.sub(r"^exfatprogs version : ", "exfatprogs ", value).replace(" ", "-"):
            transcript.append(f"stack {key}: {reference!r} for {value!r}")
    for name, result in ktap.items():
        if lava.get(name, {}).get("result") != result:
            transcript.append(f"{name}: {lava.get(name, {}).get('result', 'no case')} where KTAP says {result}")
    extra = set(lava) - set(ktap) - set(stack) - {"qvexfat-campaign"}
    transcript += [f"{name}: a case KTAP does not have" for name in sorted(extra)]
    for r in ours:
        if not steps and "." in r["case"]:
            continue
        where = f"{r['set']}/" if "set" in r else ""
        shown = re.sub(r"^(\d+\.\d+)\..*", r"Linux \1", r["reference"]) if r["case"] == "kernel" else r.get("reference")
        transcript.append(f"{definition}: {where}{r['case']}: {r['result']}" + (f" ({shown})" if shown else ""))
    return transcript, lava


def check(log):
    target, results = read_log(log)
    transcript = [f"job: {next((r['result'] for r in results if r.get('case') == 'job'), 'no result')}"]
    runs = ktap_runs(target)
    if len(runs) != len(DEFINITIONS):
        return transcript + [f"{len(runs)} runs of the campaign in the log, not {len(DEFINITIONS)}"]
    whole, lava = check_run(DEFINITIONS[0], results, *runs[0])
    if lava.get(FAILING_ROW, {}).get("result") != "fail":
        whole.append(f"{FAILING_ROW}: not shown as failed")
    interrupted, lava = check_run(DEFINITIONS[1], results, *runs[1], steps=False)
    rows = INTERRUPTED_ROWS.split(",")
    wanted = {rows[1]: "fail", rows[2]: "skip", "qvexfat-campaign": "fail"}
    for name, result in wanted.items():
        if lava.get(name, {}).get("result") != result or rows[0] not in lava:
            interrupted.append(f"the interrupted run: {name} is not {result}, or {rows[0]} is missing")
    return transcript + whole + interrupted


def main(argv):
    update = "--update" in argv
    argv = [a for a in argv if a != "--update"]
    if len(argv) != 3:
        print(__doc__.split("\n\n")[3], file=sys.stderr)
        return 2
    cache, static, scratch = argv[0], argv[1], Path(argv[2]).resolve()
    reason = missing(cache, static)
    if reason:
        print(f"lava: cannot run the job: {reason}")
        return 1 if os.environ.get("CI") == "true" else 77
    shutil.rmtree(scratch, ignore_errors=True)
    scratch.mkdir(parents=True)
    job = make_job(cache, static, scratch)
    run = subprocess.run(["lava-run", "--job-id", f"qvexfat-{os.getpid()}", "--output-dir", str(scratch / "out"),
                          "--device", str(HERE / "qemu-device.yaml"), str(job)],
                         capture_output=True, text=True, timeout=1500)
    (scratch / "lava-run.log").write_text(run.stdout + run.stderr)
    transcript = check(run.stdout + run.stderr)
    expect = HERE / "expect.out"
    if update:
        expect.write_text("\n".join(transcript) + "\n")
        return 0
    diff = compare(expect.read_text().splitlines(), transcript)
    if diff is None and run.returncode == 0:
        shutil.rmtree(scratch, ignore_errors=True)
        return 0
    print(diff or f"lava-run exited with {run.returncode}")
    print(f"lava-run's log: {scratch / 'lava-run.log'}")
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
