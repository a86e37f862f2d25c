#!/usr/bin/env python3
"""Runs one case of the test suite and compares what it did with what it
must do.

A case is a directory with two files:
  case.txt    what to set up and what to do, one step a line: the step_*
              methods of Case below, each with its arguments
  expect.out  the transcript the steps must produce, exactly; {IMAGE}, {DEV}
              and {V} stand for the scratch image, loop device and volume,
              and {N}, {HEX}, {NAME}, {*} match what varies from run to run

A case that begins with `machine` (or makes a `volume kernel`) runs in
the running arm64 machine of test/kernel/machine.py, on Linux's driver.

Exit status: 0 when the transcript matches, 1 when it does not (a unified
diff is printed), 77 when the case needs mounts this machine cannot make,
or the arm64 machine where qemu or its kernel is missing.
"""

import argparse
import base64
import ctypes
import difflib
import glob
import hashlib
import lzma
import random
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "kernel"))
from machine import Machine, host_release, unavailable  # noqa: E402
import campaign_tables  # noqa: E402
import ktap_check  # noqa: E402
SKIP = 77
PR_SET_CHILD_SUBREAPER = 36
NAME_PATTERN = ("abcdefghijklmnopqrstuvwxyz" "ABCDEFGHIJKLMNOPQRSTUVWXYZ") * 5


class CaseError(Exception):
    """The case itself is wrong (a step that cannot be carried out)."""


def u32(data, at):
    return int.from_bytes(data[at:at + 4], "little")


def size_value(text):
    """'16M', '4K', '0x1000' or '512' as a number of bytes."""
    units = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}
    if text[-1:].upper() in units:
        return int(text[:-1], 0) * units[text[-1].upper()]
    return int(text, 0)


# --- Images ------------------------------------------------------------------

class Image:
    """The case's scratch image, with the names that offsets in case.txt
    may use, read afresh from its current bytes."""

    def __init__(self, path):
        self.path = path

    def read(self, at=0, length=None):
        with open(self.path, "rb") as f:
            f.seek(at)
            return f.read() if length is None else f.read(length)

    def write(self, at, data):
        with open(self.path, "r+b") as f:
            f.seek(at)
            f.write(data)

    def names(self):
        boot = self.read(0, 512)
        heap = u32(boot, 88) * 512
        cluster_bytes = 512 << (boot[109] & 31)  # the tool addresses 512-byte sectors

        def cluster(n):
            return heap + (n - 2) * cluster_bytes

        names = {"fat": u32(boot, 80) * 512, "heap": heap, "cluster": cluster,
                 "cb": cluster_bytes, "count": u32(boot, 92),
                 "root": cluster(u32(boot, 96))}
        root = self.read(names["root"], cluster_bytes)
        for slot in range(0, len(root) - 31, 32):
            kind = {0x81: "bitmap", 0x82: "upcase"}.get(root[slot])
            if kind:
                names[kind] = cluster(u32(root, slot + 20))
                names[kind + "_entry"] = names["root"] + slot
        return names

    def offset(self, expression):
        try:
            return eval(expression, {"__builtins__": {}}, self.names())
        except Exception as e:
            raise CaseError(f"bad offset {expression!r}: {e}")


def set_checksum(entries):
    total = 0
    for i, byte in enumerate(b"".join(entries)):
        if i not in (2, 3):
            total = ((total >> 1) | ((total & 1) << 15)) + byte & 0xFFFF
    return total


def entry_set(name, options):
    """File, Stream Extension and File Name entries of one file or
    directory, with a correct set checksum and a name hash over the name
    up-cased as mkfs.exfat's table does for ASCII letters (other characters
    are hashed as they are: patch the hash for those)."""
    units = name.encode("utf-16-le")
    length = len(units) // 2
    upcased = "".join(c.upper() if len(c.upper()) == 1 and c.isascii() else c
                      for c in name).encode("utf-16-le")
    name_hash = 0
    for byte in upcased:
        name_hash = ((name_hash >> 1) | ((name_hash & 1) << 15)) + byte & 0xFFFF
    size = int(options.get("size", "0"), 0)
    names = [units[i:i + 30] for i in range(0, max(len(units), 1), 30)]
    file = bytearray(32)
    file[0], file[1] = 0x85, 1 + len(names)
    attr = 0x10 if "dir" in options else int(options.get("attr", "0x20"), 0)
    file[4:6] = attr.to_bytes(2, "little")
    stream = bytearray(32)
    stream[0], stream[1], stream[3] = 0xC0, 1 | (2 if "nofat" in options else 0), length
    stream[4:6] = name_hash.to_bytes(2, "little")
    stream[8:16] = int(options.get("valid", str(size)), 0).to_bytes(8, "little")
    stream[20:24] = int(options.get("first", "0"), 0).to_bytes(4, "little")
    stream[24:32] = size.to_bytes(8, "little")
    entries = [file, stream] + [bytes([0xC1, 0]) + part.ljust(30, b"\0") for part in names]
    file[2:4] = set_checksum(entries).to_bytes(2, "little")
    return b"".join(entries)


def nested_directories(image, depth, first):
    """A chain of `depth` directories, one cluster each, from cluster
    `first` on, each holding the next; the root holds the first at its
    slot 8 (fill the slots before it)."""
    names = image.names()
    for level in range(depth):
        cluster = first + level
        child = {"first": str(cluster), "size": str(names["cb"]), "dir": ""}
        at = names["root"] + 32 * 8 if level == 0 else names["cluster"](cluster - 1)
        image.write(at, entry_set(f"d{level}", child))
        image.write(names["fat"] + 4 * cluster, b"\xff\xff\xff\xff")
        bitmap_byte = names["bitmap"] + (cluster - 2) // 8
        image.write(bitmap_byte, bytes([image.read(bitmap_byte, 1)[0] | 1 << (cluster - 2) % 8]))
        image.write(names["cluster"](cluster), bytes(names["cb"]))


def shown_name(path):
    """A path with the name the tests made from the name pattern and an
    index shown as {NAME} and the index, as it varies from run to run."""
    match = re.fullmatch(r"(.*/)?([A-Za-z]*)(\d+)", path)
    if match and NAME_PATTERN.startswith(match.group(2)):
        return (match.group(1) or "") + "{NAME}" + match.group(3)
    return path


# --- Mounts --------------------------------------------------------------------

def mounts_unavailable():
    if os.geteuid() != 0:
        return "not running as root (loop devices and mounts need root)"
    for path in ("/dev/fuse", "/dev/loop-control"):
        if not os.access(path, os.R_OK | os.W_OK):
            return f"{path} is missing"
    for program in ("losetup", "mount.exfat-fuse", "mkfs.exfat"):
        if not shutil.which(program):
            return f"{program} is not installed"
    return None


def no_core_dumps():
    """A program the campaign runs that dies of a signal leaves no core
    file, and says the same whatever the machine's core settings."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def parent_of(pid):
    """The parent of a process listed in /proc, or None."""
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return int(stat.read().rsplit(")", 1)[1].split()[1])
    except (OSError, ValueError, IndexError):
        return None


def ends_within(pid, seconds):
    """Whether a child of this process ends within `seconds`; it is reaped."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        try:
            if os.waitpid(pid, os.WNOHANG)[0] == pid:
                return True
        except ChildProcessError:
            return True
        time.sleep(0.02)
    return False


def run(argv, **kwargs):
    return subprocess.run(argv, capture_output=True, text=True, errors="replace", **kwargs)


def must(argv):
    result = run(argv)
    if result.returncode != 0:
        raise CaseError(f"{' '.join(argv)}: {result.stdout}{result.stderr}".strip())
    return result.stdout.strip()


class Mounts:
    """Loop devices and mounts of one case, undone in reverse order."""

    def __init__(self):
        self.undo = []

    def loop(self, image):
        device = must(["losetup", "-f", "--show", image])
        self.undo.append(["losetup", "-d", device])
        return device

    def mount(self, argv, point):
        os.makedirs(point, exist_ok=True)
        must(argv + [point])
        self.undo.append(["umount", point])
        # A FUSE daemon finishes mounting (exfat-fuse marks the volume dirty
        # then) when it answers the kernel's first request, which any access
        # waits for; the case's next step must find the mount complete.
        os.statvfs(point)

    def release(self):
        while self.undo:
            argv = self.undo.pop()
            for _ in range(50):  # a FUSE daemon may hold on for a moment
                if run(argv).returncode == 0:
                    break
                time.sleep(0.1)
            else:
                if argv[0] == "umount":
                    run(["umount", "-l", argv[1]])


# --- The arm64 machine -----------------------------------------------------------

# Kernel log lines a transcript shows: the exFAT driver's, the loop and
# block layers' (I/O errors on the loop device) and reports of a kernel bug,
# but not the "detected capacity change" of every loop attach. The rest is
# the emulated machine's own noise, which comes and goes with the host's
# load ("hrtimer: interrupt took 24326560 ns").
KERNEL_LINES = re.compile(r"^(?!.*detected capacity change).*(exFAT|\bloop\d|I/O error|BUG|WARNING|Oops)")


class Guest:
    """A case's scratch directory in the machine, and the kernel's log."""

    ROOT = "/tmp/case"

    def __init__(self, machine_dir):
        self.machine = Machine.attach(machine_dir)
        self.image, self.volume = f"{self.ROOT}/image.img", f"{self.ROOT}/mnt"
        # A machine of a release other than this host's runs the static
        # build, into which no library can be preloaded: its tool with
        # rand() pinned is a program of its own.
        self.static = self.run("test -x /usr/bin/qvexfat-test-pinned")[0] == 0

    @staticmethod
    def decode(data):
        """A shell pipeline that writes the bytes whose base64 is data
        (uudecode: Debian 11's busybox has no base64)."""
        return f"printf 'begin-base64 644 -\\n%s\\n====\\n' {data} | uudecode -o -"

    def pinned(self, rand_lib):
        """(environment, tool) that run the tool with rand() pinned."""
        if self.static:
            return "", "qvexfat-test-pinned"
        return f"LD_PRELOAD={os.path.basename(rand_lib)} ", "qvexfat-test"

    def run(self, command, timeout=300):
        """(status, stdout, stderr); the shell's 128 + N for a signal as -N."""
        status, out, err = self.machine.run(command, timeout)
        return (128 - status if 128 < status < 128 + 32 else status), out, err

    def must(self, command, timeout=300):
        status, out, err = self.run(command, timeout)
        if status != 0:
            raise CaseError(f"in the machine, {command}: {(out + err).decode(errors='replace')}".strip())
        return out.decode(errors="replace")

    def reset(self):
        """Undoes what an earlier case left mounted; empties the kernel log."""
        self.must(f"awk '$2 ~ \"^{self.ROOT}/\" {{ print $2 }}' /proc/mounts | sort -r | xargs -r umount; "
                  "for d in /dev/loop[0-9]*; do losetup -d $d 2>/dev/null; done; "
                  f"rm -rf {self.ROOT} && mkdir -p {self.volume} && dmesg -c >/dev/null")

    def kernel_lines(self):
        lines = (re.sub(r"^\[ *\d+\.\d+\] ", "", line) for line in self.machine.kernel_log())
        return [line for line in lines if KERNEL_LINES.match(line)]


# --- The steps -----------------------------------------------------------------

class Case:
    def __init__(self, args, directory):
        self.args = args
        self.directory = directory
        self.scratch = args.scratch
        self.image = None
        self.device = None
        self.volume = None
        self.mounts = Mounts()
        self.rand = None
        self.timeout = 300
        self.snapshot = None
        self.transcript = []
        self.guest = None
        self.user = None
        self.path = None

    # Setting up the image.
    def step_image(self, name):
        source = os.path.join(self.directory, name)
        if not os.path.exists(source):
            source = os.path.join(HERE, "images", name)
        if self.guest:  # the images are small packed: a few seconds through the channel
            with open(source, "rb") as packed:
                data = base64.b64encode(packed.read()).decode()
            self.guest.must(f"{self.guest.decode(data)} | xz -d >{self.guest.image}")
            return
        self.new_image()
        with lzma.open(source) as packed, open(self.image.path, "wb") as out:
            shutil.copyfileobj(packed, out)

    def step_mkfs(self, size, cluster, *label):
        if self.guest:
            self.guest.must(f"truncate -s {size_value(size)} {self.guest.image} && mkfs.exfat -c "
                            f"{size_value(cluster)} {' '.join('-L ' + shlex.quote(l) for l in label)} "
                            f"{self.guest.image} >/dev/null")
            return
        self.new_image()
        open(self.image.path, "wb").close()
        os.truncate(self.image.path, size_value(size))
        must(["mkfs.exfat", "-c", str(size_value(cluster))] + (["-L", label[0]] if label else [])
             + [self.image.path])

    def new_image(self):
        self.image = Image(os.path.join(self.scratch, "image.img"))
        self.snapshot = None

    def step_size(self, size):
        os.truncate(self.image.path, size_value(size))

    def step_patch(self, at, *hex_bytes):
        self.image.write(self.image.offset(at), bytes.fromhex("".join(hex_bytes)))

    def step_fill(self, at, count, *hex_bytes):
        self.image.write(self.image.offset(at), bytes.fromhex("".join(hex_bytes)) * self.image.offset(count))

    def step_u32(self, at, *values):
        data = b"".join(int(v, 0).to_bytes(4, "little") for v in values)
        self.image.write(self.image.offset(at), data)

    def step_u64(self, at, value):
        self.image.write(self.image.offset(at), int(value, 0).to_bytes(8, "little"))

    def step_set(self, at, name, *options):
        pairs = dict(o.split("=", 1) if "=" in o else (o, "") for o in options)
        self.image.write(self.image.offset(at), entry_set(name, pairs))

    def step_fixsum(self, at):
        offset = self.image.offset(at)
        count = self.image.read(offset + 1, 1)[0] + 1
        data = self.image.read(offset, 32 * count)
        entries = [data[i:i + 32] for i in range(0, len(data), 32)]
        self.image.write(offset + 2, set_checksum(entries).to_bytes(2, "little"))

    def step_bits(self, value, *clusters):
        bitmap = self.image.names()["bitmap"]
        for text in clusters:
            c = self.image.offset(text) - 2
            old = self.image.read(bitmap + c // 8, 1)[0]
            new = old | 1 << c % 8 if value == "1" else old & ~(1 << c % 8)
            self.image.write(bitmap + c // 8, bytes([new]))

    def step_nest(self, depth, first):
        nested_directories(self.image, int(depth, 0), self.image.offset(first))

    def step_rand(self, *values):
        self.rand = " ".join(values)

    def step_timeout(self, seconds):
        """How long a run may take. Under the emulator (the aarch64 build on
        a loaded machine) a run takes several times as long: such a bound
        says a run ends, not how fast the host is."""
        self.timeout = int(seconds) * (5 if self.args.emulator else 1)

    # Mounts.
    def step_machine(self):
        """What follows runs in the arm64 machine, each step's output
        followed by the kernel's log lines as "kernel: ..."."""
        self.guest = Guest(self.args.machine)
        self.guest.reset()
        self.volume = self.guest.volume

    def step_loop(self):
        """Attaches the image to a loop device, {DEV}, without mounting it."""
        if self.guest:  # busybox's losetup has no --show
            self.device = self.guest.must(f"dev=$(losetup -f) && losetup $dev {self.guest.image} "
                                          "&& echo $dev").strip()
            return
        self.device = self.mounts.loop(self.image.path)

    def step_mount(self, *options):
        """Mounts the image on a loop device: exfat-fuse, or the kernel's."""
        self.step_loop()
        if self.guest:
            self.guest.must(f"mount -t exfat {'-o ' + options[0] if options else ''} "
                            f"{self.device} {self.volume}")
            return
        self.volume = os.path.join(self.scratch, "mnt")
        self.mounts.mount(["mount.exfat-fuse"] + (["-o", options[0]] if options else [])
                          + [self.device], self.volume)

    def step_volume(self, kind, *params):
        """A mounted volume for volume mode: exfat-fuse SIZE CLUSTER [ro],
        faultfs FAULT SIZE CLUSTER, tmpfs SIZE, or kernel SIZE CLUSTER [ro]
        (in the machine)."""
        if kind == "kernel":  # then made and mounted as for exfat-fuse, in the machine
            self.step_machine()
        if kind == "tmpfs":
            self.volume = os.path.join(self.scratch, "mnt")
            self.mounts.mount(["mount", "-t", "tmpfs", "-o", f"size={params[0]}", "tmpfs"],
                              self.volume)
            return
        fault = params[0] if kind == "faultfs" else None
        size, cluster = params[1:3] if fault else params[:2]
        self.step_mkfs(size, cluster)
        self.step_mount(*params[2:3] if not fault else ())
        if fault:
            backing = os.path.join(self.volume, "faultfs")
            os.mkdir(backing)
            self.volume = os.path.join(self.scratch, "faulty")
            self.mounts.mount(self.emulated([self.args.faultfs, f"--fault={fault}", backing]),
                              self.volume)

    def step_unmount(self):
        if self.guest:  # the mount may be a `sh` step's, or refused
            self.guest.must(f"if grep -q ' {self.volume} ' /proc/mounts; then umount {self.volume}; fi"
                            + (f" && losetup -d {self.device}" if self.device else ""))
            self.device = None
            return
        self.mounts.release()
        self.volume = self.device = None

    # The damage campaign.
    def step_copy(self, name, as_name=None):
        """A helper of test/campaign/ into the scratch directory, as
        {SCRATCH}/NAME or {SCRATCH}/AS_NAME."""
        with open(os.path.join(HERE, "campaign", name), "rb") as f:
            data = f.read()
        target = as_name or name
        if self.guest:
            self.guest.must(f"mkdir -p $(dirname {Guest.ROOT}/{target}) && "
                            f"{self.guest.decode(base64.b64encode(data).decode())} >{Guest.ROOT}/{target} "
                            f"&& chmod +x {Guest.ROOT}/{target}")
            return
        os.makedirs(os.path.dirname(os.path.join(self.scratch, target)), exist_ok=True)
        shutil.copy(os.path.join(HERE, "campaign", name), os.path.join(self.scratch, target))

    def step_path(self, directory):
        """The campaigns that follow find programs in this directory of the
        scratch directory first."""
        self.path = os.path.join(self.scratch, directory)

    def campaign_command(self, argv):
        """The campaign's command line and environment. Helpers given as
        its --tool find the tool in $QVEXFAT_TOOL and the rand()
        replacement in $QVEXFAT_RAND_LIB (in a static machine, the tool
        built with it in $QVEXFAT_PINNED_TOOL); stand-ins on the host find
        faultfs in $QVEXFAT_FAULTFS."""
        argv = [self.substitute(a) for a in argv]
        if self.guest:
            pinning = ("QVEXFAT_RAND_LIB= QVEXFAT_PINNED_TOOL=qvexfat-test-pinned" if self.guest.static
                       else "QVEXFAT_RAND_LIB=" + os.path.basename(self.args.rand_lib))
            return (f"QVEXFAT_TOOL=qvexfat-test {pinning} TMPDIR={Guest.ROOT} "
                    + shlex.join(["qvexfat-campaign"] + argv)), None
        env = dict(os.environ, QVEXFAT_TOOL=self.args.tool, QVEXFAT_RAND_LIB=self.args.rand_lib,
                   TMPDIR=self.scratch, QVEXFAT_SCRATCH=self.scratch, QVEXFAT_FAULTFS=self.args.faultfs or "")
        if self.path:
            env["PATH"] = self.path + ":" + env["PATH"]
        env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return [self.args.campaign] + argv, env

    def step_campaign_verdicts(self, *argv):
        """qvexfat-campaign, where what the kernel says varies from run to
        run: of its KTAP only the result lines and why each is not ok."""
        self.step_campaign(*argv, verdicts_only=True)

    def step_campaign(self, *argv, verdicts_only=False):
        """qvexfat-campaign: its standard output (the KTAP), its standard
        error as "stderr: ..." lines, its status."""
        self.record("$ qvexfat-campaign " + " ".join(argv))
        command, env = self.campaign_command(argv)
        if self.guest:
            status, out, err = self.guest.run(command, self.timeout)
            # The emulated machine's pace decides which steps pass 30 s.
            err = b"".join(line + b"\n" for line in err.splitlines() if not re.search(rb", waiting for .* for \d+ s$", line))
        else:
            result = subprocess.run(command, capture_output=True, env=env, timeout=self.timeout,
                                    user=self.user, preexec_fn=no_core_dumps)
            status, out, err = result.returncode, result.stdout, result.stderr
        self.check_ktap(out)
        if verdicts_only:
            out = b"".join(line + b"\n" for line in out.splitlines()
                           if re.match(rb"\s*((not )?ok \d|# not ok: )", line))
        self.record_output(out)
        self.record_output(b"".join(b"stderr: " + line + b"\n" for line in err.splitlines()))
        self.record_status(status)

    def check_ktap(self, out):
        """What the kernel's own KTAP parser makes of the campaign's
        output, when it trips over anything: "ktap: ..." lines."""
        missing = ktap_check.parser_missing()
        if missing and os.environ.get("CI") == "true":
            raise CaseError(missing)
        if not missing and b"KTAP version" in out:
            for problem in ktap_check.problems(out.decode(errors="replace")):
                self.record(problem)

    def step_interrupt(self, signal_name, line, *argv):
        """The campaign, sent the signal once its standard error says
        `line`: what it printed but its progress, and its status."""
        self.record(f"$ qvexfat-campaign {' '.join(argv)} # {signal_name} at {line!r}")
        command, env = self.campaign_command(argv)
        child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env,
                                 preexec_fn=no_core_dumps)
        said = []
        for text in child.stderr:
            said.append(text)
            if text.decode(errors="replace").rstrip("\n") == line:
                child.send_signal(getattr(signal, signal_name))
                break
        out, err = child.communicate(timeout=self.timeout)
        self.record_output(out)
        self.check_ktap(out)
        self.record_output(b"".join(b"stderr: " + text + b"\n" for text in (b"".join(said) + err).splitlines()
                                    if not text.startswith(b"[")))
        self.record_status(child.returncode)

    def step_campaign_to(self, where, *argv):
        """qvexfat-campaign with its standard output closed, on /dev/full,
        or on a pipe closed after its first line (head): its standard
        error and its status."""
        self.record(f"$ qvexfat-campaign {' '.join(argv)} # standard output {where}")
        command, env = self.campaign_command(argv)
        out = {"closed": subprocess.DEVNULL, "full": open("/dev/full", "wb"), "head": subprocess.PIPE}[where]
        child = subprocess.Popen(command, stdout=out, stderr=subprocess.PIPE, env=env, preexec_fn=lambda: (
            no_core_dumps(), os.close(1) if where == "closed" else None))
        if where == "head":
            child.stdout.readline()
            child.stdout.close()
        err = child.communicate(timeout=self.timeout)[1]
        self.record_output(b"".join(b"stderr: " + line + b"\n" for line in err.splitlines()
                                    if not line.startswith(b"[")))
        self.record_status(child.returncode)

    def step_contains(self, path, text):
        """Whether a file holds the text anywhere."""
        self.record(f"$ contains {path} {text!r}")
        self.record("yes" if text.encode() in self.read_file(path) else "no")

    def left_behind(self):
        """Mounts below the scratch directory and loop devices over its
        files or over {DEV} (but {DEV} itself). A loop device lets go a
        moment after its last user."""
        for _ in range(30):
            mounts = [line.split()[1] for line in open("/proc/mounts")
                      if line.split()[1].startswith(self.scratch + "/")]
            loops = [" ".join(line.split()) for line in must(["losetup", "-n", "-O", "NAME,BACK-FILE"]).splitlines()
                     if (self.scratch + "/" in line or line.split()[1:] == [self.device])
                     and line.split()[0] != self.device]
            if not mounts and not loops:
                break
            time.sleep(0.1)
        return mounts, loops

    def step_leftovers(self):
        """What must be gone once the campaign has ended."""
        self.record("$ leftovers")
        mounts, loops = self.left_behind()
        self.record("mounts: " + (" ".join(mounts) or "none"))
        self.record("loop devices: " + (", ".join(loops) or "none"))

    def step_signals(self, runs, *argv):
        """The campaign `runs` times, sent SIGINT, SIGTERM, SIGHUP and
        SIGPIPE in turn at a moment drawn (seeded) from the time one whole
        run takes: startup, mkfs, mounts, reads, the repair, the teardown.
        Each must end with 128 + N (or 0 or 1, having ended first) and leave
        nothing mounted, attached, running, or in the scratch directory.
        Only what went wrong is recorded."""
        self.record(f"$ signals {runs} qvexfat-campaign {' '.join(argv)}")
        command, env = self.campaign_command(argv)
        # What a stopped campaign leaves running comes to this process.
        ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        before = set(os.listdir(self.scratch))
        span = self.timeout
        for _ in range(2):  # the shorter of two, as a loaded machine slows one
            started = time.monotonic()
            subprocess.run(command, capture_output=True, env=env, timeout=self.timeout)
            span = min(span, time.monotonic() - started)
        draw = random.Random(int(runs))
        stopped = 0
        for run_number in range(int(runs)):
            signal_number = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGPIPE][run_number % 4]
            moment = draw.uniform(0.01, span)
            child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env,
                                     preexec_fn=no_core_dumps)
            time.sleep(moment)
            child.send_signal(signal_number)
            err = child.communicate(timeout=self.timeout)[1]
            said = f"run {run_number + 1}, {signal_number.name} at {moment:.2f} s:"
            stopped += child.returncode == 128 + signal_number
            if child.returncode not in (0, 1, 128 + signal_number):
                self.record(f"{said} exit {child.returncode}: {err.decode(errors='replace').strip()}")
            mounts, loops = self.left_behind()
            # A process the campaign killed with its group may come here
            # dying (a sanitizer's helper of the tool): only one that does
            # not end is left running.
            strays = [pid for pid in os.listdir("/proc") if parent_of(pid) == os.getpid()
                      and not ends_within(int(pid), 2.0)]
            files = sorted(name for name in set(os.listdir(self.scratch)) - before if not name.endswith(".count"))
            for what, items in (("mounted", mounts), ("attached", loops), ("running", strays), ("files", files)):
                if items:
                    self.record(f"{said} left {what}: {', '.join(items)}")
            for pid in strays:
                os.kill(int(pid), signal.SIGKILL)
                os.waitpid(int(pid), 0)
        self.record(f"{'at least' if stopped >= int(runs) // 4 else 'fewer than'} a quarter of the runs were stopped"
                    " by their signal")

    def step_fuzzed(self, image):
        """For each field row of the campaigns so far, whether the damaged
        volume it kept (`image`.<row>.img) holds the bytes its fuzz line says
        at the byte it names, and whether that byte lies in an entry of the
        structure's type: where the campaign found each field, told apart
        from where it says it did."""
        self.record(f"$ fuzzed {image}")
        types = {"file": 0x85, "stream": 0xC0, "name": 0xC1, "bitmap": 0x81, "upcase": 0x82, "label": 0x83}
        row = None
        changed = {}  # row -> the sectors its make step says it changed
        for line in self.transcript:
            subtest = re.match(r"  # Subtest: (\S+)$", line)
            row = subtest.group(1) if subtest else row
            sectors = re.match(r"  # changed: \d+ sectors?: ([\d ]+)$", line)
            if sectors:
                changed[row] = {int(n) for n in sectors.group(1).split()}
            fuzz = re.match(r"  # fuzz: (\w+)\.\w+ at byte (\d+) of the volume, \d+ bytes: .* -> (.*)$", line)
            if not fuzz:
                continue
            structure, at, new = fuzz.group(1), int(fuzz.group(2)), bytes.fromhex(fuzz.group(3))
            with open(self.substitute(f"{image}.{row}.img"), "rb") as kept:
                kept.seek(at)
                held = kept.read(len(new))
                kept.seek(at - at % 32)
                entry_type = kept.read(1)[0]
            where = ("" if structure not in types else
                     f", in a 0x{entry_type:02x} entry" + ("" if entry_type == types[structure] else " (wrong type)"))
            self.record(f"{row}: {'as said' if held == new else 'not as said: ' + held.hex(' ')}{where}")
        # Each row starts from the same restored volume: two kept volumes
        # differ only where one of the two rows changed a sector.
        rows = list(changed)
        volumes = {r: open(self.substitute(f"{image}.{r}.img"), "rb").read() for r in rows}
        for r in rows[1:]:
            first, this = volumes[rows[0]], volumes[r]
            differing = {at // 512 for at in range(0, len(first), 512) if first[at:at + 512] != this[at:at + 512]}
            extra = sorted(differing - changed[rows[0]] - changed[r])
            self.record(f"{r} beside {rows[0]}: " + (f"also differs in sectors {extra}" if extra else
                                                      "differs only where the two rows changed it"))

    def step_exists(self, path):
        self.record(f"$ exists {path}")
        self.record("yes" if os.path.exists(self.substitute(path)) else "no")

    def step_markdown(self, path):
        """A Markdown file the campaign wrote."""
        self.record(f"$ cat {path}")
        self.record_output(self.read_file(path))

    def read_file(self, path):
        if self.guest:
            return self.guest.run(f"cat {shlex.quote(self.substitute(path))}")[1]
        with open(self.substitute(path), "rb") as f:
            return f.read()

    def step_readme(self, release, damage_path, volume_path):
        """Whether the README's campaign tables hold this release's column
        as this run makes it from the Markdown the campaign wrote (damage
        rows, volume rows) and the kernel and checker its KTAP named; with
        --update the README takes it."""
        self.record(f"$ readme {release} {damage_path} {volume_path}")
        said = dict(line[2:].split(": ", 1) for line in self.transcript
                    if line.startswith(("# kernel: ", "# checker: ")))
        readme_path = os.path.join(os.path.dirname(HERE), "README.md")
        readme = open(readme_path).read()
        try:
            updated, changes = campaign_tables.update(
                readme, release, said["kernel"], said["checker"],
                self.read_file(damage_path).decode(), self.read_file(volume_path).decode())
        except (KeyError, ValueError) as e:
            raise CaseError(f"readme: {e}")
        self.readme_result(readme_path, updated, changes)

    def step_readme_power_cut(self, release, path):
        """Whether the README's power-cut table holds this release's column
        as this run makes it from the Markdown the campaign wrote; with
        --update the README takes it."""
        self.record(f"$ readme-power-cut {release} {path}")
        said = dict(line[2:].split(": ", 1) for line in self.transcript
                    if line.startswith(("# kernel: ", "# checker: ")))
        readme_path = os.path.join(os.path.dirname(HERE), "README.md")
        try:
            updated, changes = campaign_tables.update_power_cut(
                open(readme_path).read(), release, said["kernel"], said["checker"],
                self.read_file(path).decode())
        except (KeyError, ValueError, StopIteration) as e:
            raise CaseError(f"readme-power-cut: {e!r}")
        self.readme_result(readme_path, updated, changes)

    def readme_result(self, readme_path, updated, changes):
        if self.args.update:
            open(readme_path, "w").write(updated)
            self.record("the same")
            return
        diff = [line for old, new in changes
                for line in difflib.unified_diff(old, new, "README.md", "this run", lineterm="")]
        self.record("the same" if not diff else "differs:")
        self.transcript.extend(diff)

    def step_hold(self):
        """A process holds {DEV} open until the case ends."""
        holder = subprocess.Popen(["sleep", "3600"], stdin=open(self.device, "rb"))
        self.mounts.undo.append(["kill", str(holder.pid)])

    def step_user(self, name):
        """The campaigns that follow run as this user."""
        self.user = name

    def image_now(self):
        """The image's bytes, with what a mount on its loop device has written
        but the device still caches flushed to the file first."""
        if self.device and not self.guest:
            fd = os.open(self.device, os.O_RDONLY)
            try:
                os.fsync(fd)
            finally:
                os.close(fd)
        return self.image.read()

    def step_snapshot(self):
        """The image as it is now is what `changes` compares with."""
        self.snapshot = self.image_now()

    # What the case looks at.
    def step_run(self, *argv):
        self.record("$ qvexfat-test " + " ".join(a if re.fullmatch(r"[^\s'\"]+", a) else shlex.quote(a)
                                                 for a in argv))
        try:
            status, out, err = self.run_tool([self.substitute(a) for a in argv])
        except subprocess.TimeoutExpired as e:
            self.record_output(e.stderr or b"")
            self.record(f"[still running after {self.timeout} s]")
            return
        self.record_output(err)
        for line in out.decode(errors="replace").splitlines():
            self.record("stdout: " + line)
        self.record_status(status)

    def run_tool(self, argv):
        if self.guest:  # the machine's initramfs has fixed_rand in the loader's path
            env, tool = "", "qvexfat-test"
            if self.rand is not None:
                preload, tool = self.guest.pinned(self.args.rand_lib)
                env = f"QVEXFAT_RAND={shlex.quote(self.rand)} " + preload
            return self.guest.run(env + shlex.join([tool] + argv), self.timeout)
        env = dict(os.environ)
        preload = []
        if self.rand is not None:
            env["QVEXFAT_RAND"] = self.rand
            preload = [self.args.rand_lib]
            env["ASAN_OPTIONS"] = env.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        command = self.emulated([self.args.tool] + argv, preload, env)
        result = subprocess.run(command, capture_output=True, env=env, timeout=self.timeout)
        return result.returncode, result.stdout, result.stderr

    def step_sh(self, command):
        """A shell command line in the machine, or on the host with the
        tool in $QVEXFAT_TOOL, shown with what it printed (standard output
        and error as one) and its status."""
        self.record("$ " + command)
        if not self.guest:
            env = dict(os.environ, QVEXFAT_TOOL=self.args.tool, TMPDIR=self.scratch)
            done = subprocess.run(["sh", "-c", self.substitute(command)], stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, env=env, timeout=self.timeout)
            self.record_output(done.stdout)
            self.record_status(done.returncode)
            return
        status, out, _ = self.guest.run(f"{{ {self.substitute(command)}\n}} 2>&1", self.timeout)
        self.record_output(out)
        self.record_status(status)

    def step_probe(self, mode, as_user="nobody"):
        """The assertion probe, by default as a user who cannot write the
        kernel log; as root, what it wrote there is shown too."""
        self.record(f"$ assert_probe {mode}" + (" (root)" if as_user == "root" else ""))
        kmsg = os.open("/dev/kmsg", os.O_RDONLY | os.O_NONBLOCK) if as_user == "root" else None
        if kmsg is not None:
            os.lseek(kmsg, 0, os.SEEK_END)
        result = subprocess.run(self.emulated([self.args.probe, mode]), capture_output=True,
                                user=65534 if as_user != "root" and os.geteuid() == 0 else None)
        self.record_output(result.stderr)
        self.record_status(result.returncode)
        while kmsg is not None:
            try:
                record = os.read(kmsg, 8192).decode(errors="replace")
            except BlockingIOError:
                os.close(kmsg)
                break
            if "assert" in record.lower():
                priority, message = record.split(",")[0], record.split(";", 1)[1]
                self.record_output(f"kmsg priority {priority}: {message}".encode())

    def step_changes(self):
        """The bytes that changed since the setup, or since the last look."""
        self.record("$ changes")
        before, after = self.snapshot, self.image_now()
        self.snapshot = after
        if len(before) != len(after):  # bytes past either end count as zeros
            self.record(f"size {len(before)} -> {len(after)}")
        end = max(len(before), len(after))
        before, after = before.ljust(end, b"\0"), after.ljust(end, b"\0")
        lines, at = [], 0
        for block in range(0, end, 4096):  # whole blocks compare fast
            if before[block:block + 4096] == after[block:block + 4096]:
                continue
            at = max(at, block)
            while at < min(block + 4096, end):
                if before[at] == after[at]:
                    at += 1
                    continue
                run_end = at
                while run_end < end and run_end - at < 16 and before[run_end] != after[run_end]:
                    run_end += 1
                lines.append(f"{at:#010x}: {before[at:run_end].hex(' ')} -> {after[at:run_end].hex(' ')}")
                at = run_end
        for line in lines or ["unchanged"]:
            self.record(line)

    def step_fsck(self, path="{IMAGE}"):
        """fsck.exfat -n on the image, or on a file the campaign made."""
        self.record(f"$ fsck.exfat -n {path}")
        if self.guest:
            status, out, _ = self.guest.run(f"fsck.exfat -n {self.substitute(path)} 2>&1")
        else:
            result = subprocess.run(["fsck.exfat", "-n", self.substitute(path)], stdout=subprocess.PIPE,
                                    stderr=subprocess.STDOUT)
            status, out = result.returncode, result.stdout
        self.record_output(out)
        self.record_status(status)

    def step_ls(self, path):
        """Names and sizes under a directory of the volume."""
        self.record(f"$ ls {path}")
        for line in sorted(f"{shown_name(name)} {'dir' if is_dir else size}"
                           for name, size, is_dir in self.entries(path, recursive=True)):
            self.record(line)

    def step_count(self, path):
        self.record(f"$ count {path}")
        found = self.entries(path, recursive=False)
        self.record(f"{len(found)} entries, {sum(size for _, size, _ in found)} bytes")

    def step_md5(self, path):
        self.record(f"$ md5 {path}")
        if self.guest:
            self.record(self.guest.must(f"md5sum {shlex.quote(self.substitute(path))}").split()[0])
            return
        with open(self.substitute(path), "rb") as f:
            self.record(hashlib.md5(f.read()).hexdigest())

    def step_period(self, pattern, length):
        """Whether every byte of each matching file equals the byte `length`
        before it, as the tests write their files."""
        self.record(f"$ period {pattern} {length}")
        n, lines = int(length), []
        for path, data in self.files(self.substitute(pattern)):
            broken = next((i for i in range(n, len(data), n)
                           if data[i:i + n] != data[i - n:i - n + len(data[i:i + n])]), None)
            lines.append(f"{shown_name(os.path.basename(path))}: {len(data)} bytes"
                         + (f", period broken at {broken}" if broken else ""))
        for line in sorted(lines):
            self.record(line)

    # The volume's files, on the host or in the machine.
    def entries(self, path, recursive):
        """(name relative to the directory, size, whether a directory) of
        each entry of a directory, and with recursive of its directories'."""
        top = self.substitute(path)
        if self.guest:
            out = self.guest.must(f"cd {shlex.quote(top)} && find . -mindepth 1 "
                                  f"{'' if recursive else '-maxdepth 1 '}-exec stat -c '%F|%s|%n' {{}} +")
            return [(name[2:], int(size), kind == "directory")
                    for kind, size, name in (line.split("|", 2) for line in out.splitlines())]
        if not os.path.isdir(top):
            raise CaseError(f"{path}: no such directory")
        levels = os.walk(top) if recursive else [next(os.walk(top))]
        return [(os.path.relpath(os.path.join(parent, name), top),
                 os.lstat(os.path.join(parent, name)).st_size, name in dirs)
                for parent, dirs, files in levels for name in dirs + files]

    def files(self, pattern):
        """(path, bytes) of each matching file (from the machine: small ones)."""
        if not self.guest:
            return [(path, open(path, "rb").read()) for path in glob.glob(pattern)]
        paths = self.guest.must(f'for f in {pattern}; do [ -f "$f" ] && echo "$f"; done; true').split()
        return [(path, self.guest.run(f"cat {path}")[1]) for path in paths]

    # Helpers.
    def emulated(self, argv, preload=(), env=None):
        emulator = self.args.emulator.split("|") if self.args.emulator else []
        if preload and emulator:
            return emulator + ["-E", "LD_PRELOAD=" + ":".join(preload)] + argv
        if preload:
            env["LD_PRELOAD"] = ":".join(preload)
        return emulator + argv

    def placeholders(self):
        if self.guest:
            pairs = [("{IMAGE}", self.guest.image), ("{DEV}", self.device),
                     ("{V}", self.volume), ("{SCRATCH}", Guest.ROOT)]
            return [(name, value) for name, value in pairs if value]
        pairs = [("{IMAGE}", self.image.path if self.image else None),
                 ("{DEV}", self.device), ("{V}", self.volume), ("{SCRATCH}", self.scratch),
                 ("{TOOL}", self.args.tool), ("{SRC}", os.path.dirname(HERE))]
        return [(name, value) for name, value in pairs if value]

    def substitute(self, text):
        for name, value in self.placeholders():
            text = text.replace(name, value)
        return text

    def record(self, line):
        self.transcript.append(line)

    def record_status(self, status):
        self.record(f"[exit {status}]" if status >= 0 else f"[signal {-status}]")

    def record_output(self, data):
        text = data.decode(errors="backslashreplace").replace("\r", "\\r")
        for name, value in sorted(self.placeholders(), key=lambda p: -len(p[1])):
            text = text.replace(value, name)
        # The campaign's working directory, made with mkdtemp.
        text = re.sub(r"qvexfat-campaign\.[A-Za-z0-9]{6}", "qvexfat-campaign.XXXXXX", text)
        if self.args.emulator:  # the emulator's own note of a signal is not the program's output
            text = re.sub(r"qemu: uncaught target signal [^\n]*\n", "", text)
        if text:
            lines = text.split("\n")
            if lines[-1]:
                lines[-1] += "[no line end]"
            else:
                lines.pop()
            self.transcript.extend(lines)

    def run(self, lines):
        for number, line in lines:
            words = shlex.split(line)
            step = getattr(self, "step_" + words[0].replace("-", "_"), None)
            if step is None:
                raise CaseError(f"case.txt:{number}: unknown step {words[0]!r}")
            if self.guest and words[0] not in IN_THE_MACHINE:
                raise CaseError(f"case.txt:{number}: {words[0]} cannot run in the machine")
            if self.snapshot is None and words[0] in STEPS_THAT_LOOK and self.image:
                self.snapshot = self.image_now()
            step(*([line.split(None, 1)[1]] if words[0] == "sh" else words[1:]))
            if self.guest:
                messages = self.guest.kernel_lines()
                if words[0] not in ("campaign", "campaign-verdicts"):  # the campaign tells them itself
                    for message in messages:
                        self.record("kernel: " + message)


STEPS_THAT_LOOK = {"run", "changes", "fsck", "loop", "mount", "volume", "campaign"}
MOUNTING_STEPS = {"loop", "mount", "volume", "campaign", "campaign-verdicts", "campaign-to", "interrupt",
                  "signals"}
IN_THE_MACHINE = {"machine", "image", "mkfs", "volume", "loop", "mount", "unmount", "rand",
                  "copy", "campaign", "campaign-verdicts", "markdown", "readme", "readme-power-cut",
                  "timeout", "run", "sh", "fsck", "ls", "count", "md5", "period"}


# --- Comparing -----------------------------------------------------------------

PLACEHOLDER = {"{N}": r"\d+", "{HEX}": r"[0-9a-f]+", "{NAME}": r"[A-Za-z]{0,255}", "{*}": r".*"}


# What differs from run to run in a transcript of the machine, written as
# placeholders when --update writes expect.out: loop device numbers, the
# kernel's release past its major and minor, and the checksums of boot
# regions and entry sets, which take in each volume's random serial number.
VOLATILE = [(re.compile(pattern), replacement) for pattern, replacement in [
    (r"/dev/loop\d+", "/dev/loop{N}"),
    (r"^(stderr: \[\d+/\d+, \d+ left\] .*) in \d+ s$", r"\1 in {N} s"),
    (r"campaign \d+ ended without clearing up", "campaign {N} ended without clearing up"),
    (r"^stderr: qvexfat-campaign: (\d+) rows in \d+ s, \d+ rows a minute$",
     r"stderr: qvexfat-campaign: \1 rows in {N} s, {N} rows a minute"),
    (r"\(loop\d+\)", "(loop{N})"),
    (r"^((  )?# kernel: \d+\.\d+)\..*", r"\1.{*}"),
    (r"invalid checksum \(0x[0-9a-f]+ != 0x[0-9a-f]+\)", "invalid checksum (0x{HEX} != 0x{HEX})"),
    (r"checksum of boot region is not correct\. (?:0x[0-9a-f]+|0), but expected 0x[0-9a-f]+",
     "checksum of boot region is not correct. {*}, but expected 0x{HEX}"),
    (r"invalid VBR checksum 0x[0-9a-f]+ \(expected 0x[0-9a-f]+\)", "invalid VBR checksum 0x{HEX} (expected 0x{HEX})"),
    (r"the checksum 0x[0-9a-f]+ of a file is wrong, expected: 0x[0-9a-f]+",
     "the checksum 0x{HEX} of a file is wrong, expected: 0x{HEX}"),
    (r"Invalid boot checksum \(boot checksum : 0x[0-9a-f]+, checksum : 0x[0-9a-f]+\)",
     "Invalid boot checksum (boot checksum : 0x{HEX}, checksum : 0x{HEX})"),
]]


def with_placeholders(line):
    for pattern, replacement in VOLATILE:
        line = pattern.sub(replacement, line)
    return line


def line_matches(expected, actual):
    if expected == actual:
        return True
    if not any(p in expected for p in PLACEHOLDER):
        return False
    pattern = "".join(PLACEHOLDER.get(part, re.escape(part))
                      for part in re.split(r"(\{N\}|\{HEX\}|\{NAME\}|\{\*\})", expected))
    return re.fullmatch(pattern, actual) is not None


def compare(expected, actual):
    """A unified diff of the transcripts, or None when they match. Lines of
    the actual transcript that a placeholder line matches are shown as the
    placeholder line, so only real differences appear."""
    shown = list(actual)
    for i, (e, a) in enumerate(zip(expected, actual)):
        if line_matches(e, a):
            shown[i] = e
    if shown == expected:
        return None
    return "\n".join(difflib.unified_diff(expected, shown, "expect.out", "actual", lineterm=""))


def read_steps(path):
    steps = []
    with open(path) as f:
        for number, line in enumerate(f, 1):
            line = line.split(" #")[0].strip()
            if line and not line.startswith("#"):
                steps.append((number, line))
    return steps


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("case", help="the case's directory")
    parser.add_argument("--tool", required=True, help="the built qvexfat-test")
    parser.add_argument("--rand-lib", help="the library that fixes rand()'s results")
    parser.add_argument("--faultfs", help="the built faultfs")
    parser.add_argument("--probe", help="the built assertion probe")
    parser.add_argument("--campaign", help="the built qvexfat-campaign")
    parser.add_argument("--emulator", default="", help="'|'-separated command that runs target programs")
    parser.add_argument("--scratch", required=True, help="a directory of the case's own")
    parser.add_argument("--machine", help="the directory of the running arm64 machine")
    parser.add_argument("--kernel-cache", help="what test/kernel/fetch.sh fetched for the machine's release",
                        default=os.path.join(os.path.dirname(HERE), "build", "kernel-cache", host_release()))
    parser.add_argument("--update", action="store_true", help="write the transcript to expect.out")
    args = parser.parse_args()

    steps = read_steps(os.path.join(args.case, "case.txt"))
    if any(line.split()[:2] in (["machine"], ["volume", "kernel"]) for _, line in steps):
        missing = unavailable(args.kernel_cache) if args.machine else "no --machine given"
        reason = missing and f"needs the arm64 machine: {missing}"
    else:
        missing = any(line.split()[0] in MOUNTING_STEPS for _, line in steps) and mounts_unavailable()
        reason = missing and f"needs mounts: {missing}"
    if reason:
        print(reason)
        return 1 if os.environ.get("CI") == "true" else SKIP

    shutil.rmtree(args.scratch, ignore_errors=True)
    os.makedirs(args.scratch)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("killed"))
    case = Case(args, os.path.abspath(args.case))
    try:
        case.run(steps)
    except (CaseError, ConnectionError, subprocess.TimeoutExpired) as e:  # no machine, or a stuck one
        print(f"{args.case}: {e}")
        return 1
    finally:
        case.mounts.release()

    expect_path = os.path.join(args.case, "expect.out")
    if args.update:
        with open(expect_path, "w") as f:
            f.write("\n".join(with_placeholders(line) for line in case.transcript) + "\n")
        return 0
    with open(expect_path) as f:
        expected = f.read().splitlines()
    diff = compare(expected, case.transcript)
    if diff is None:
        shutil.rmtree(args.scratch, ignore_errors=True)
        return 0
    print(diff)
    print(f"scratch files kept in {args.scratch}")
    return 1


if __name__ == "__main__":
    sys.exit(main())
