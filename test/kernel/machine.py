#!/usr/bin/env python3
"""An emulated 64-bit Arm machine booting one Debian release's arm64 kernel
with that release's busybox, exfatprogs and C library, so that the tool
can be tried on Linux's own exFAT driver (see the README's "Kernel
cases"). Shell command lines run in it from the host.

    python3 test/kernel/machine.py start <cache> <tool> <scratch> [<guest path>=<host path> ...]
    python3 test/kernel/machine.py run <scratch> <shell command line>
    python3 test/kernel/machine.py initramfs <cache> <tool> <out.cpio.gz> [<guest path>=<host path> ...]
    python3 test/kernel/machine.py stop <scratch>

<cache> is what test/kernel/fetch.sh fetched for the release
(build/kernel-cache/<release>). start exits with 77 when qemu or the
release's kernel is missing, saying why; 1 under CI=true.

initramfs makes the same initramfs with a shell on the serial port in
place of the channel, for a lab's own jobs (lava/).

The guest's serial port is the command channel, served by qemu as the unix
socket <scratch>/channel.sock to one client at a time. A request is the
line "<id> <timeout, 0 for none> <command in base64> <id>"; the answer is
"@@qvx <id> <status> <stdout length> <stderr length>\n<stdout><stderr>@@qvx
<id> end\n". A new random id each time lets a client skip what an earlier
one left unread, and the guest ignore a line a client left unfinished.
The guest reads requests a byte at a time: keep commands short. The
kernel's console goes to <scratch>/console.log (serial.log before it).
"""

import base64
import gzip
import lzma
import os
import re
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

MODULES = ["virtio_mmio", "virtio_console", "loop", "exfat", "dm_mod", "dm_log_writes"]
LIBRARY_DIRS = ["lib/aarch64-linux-gnu", "usr/lib/aarch64-linux-gnu"]
LOADER = "ld-linux-aarch64.so.1"  # in /lib, where the binaries ask for it

# PID 1 in the guest: the same start for both kinds of initramfs. Until
# the serial port is taken, what it prints goes to the kernel log, so that
# a failing step shows in console.log.
BOOT = """#!/bin/sh
/bin/busybox mount -t devtmpfs dev /dev
exec </dev/null >/dev/kmsg 2>&1
/bin/busybox mount -t proc proc /proc
/bin/busybox --install -s /bin
export PATH=/bin:/usr/bin:/usr/sbin
mount -t sysfs sys /sys
mount -t tmpfs -o size=1g tmp /tmp
{insmod}
"""

# A shell on the serial port, for a person or a lab's scheduler (LAVA).
# The kernel's messages stay in its log (where the campaign reads them)
# and off the console, where they would split the lines a scheduler reads.
CONSOLE = BOOT + """dmesg -n 1
export HOME=/root PS1='qvexfat-dut# '
mkdir -p /root /var/tmp
exec setsid cttyhack sh
"""

# The command channel that Machine drives.
INIT = BOOT + """exec <>/dev/ttyAMA0 >&0 2>/dev/null
stty raw -echo
dmesg -c >/dev/null
echo '@@qvx ready'
while read -r id limit command check; do
  [ -n "$id" ] && [ "$id" = "$check" ] || continue
  # uudecode: Debian 11's busybox has no base64.
  printf 'begin-base64 644 -\n%s\n====\n' "$command" | uudecode -o /run/command
  rm -f /run/timedout
  # Its own session, so that a time-out kills whatever it started too.
  setsid sh /run/command </dev/null >/run/stdout 2>/run/stderr &
  pid=$!
  watchdog=
  if [ "$limit" != 0 ]; then
    sh -c 'sleep $0 && touch /run/timedout && kill -KILL -$1' "$limit" "$pid" &
    watchdog=$!
  fi
  wait "$pid"
  status=$?
  # By its pid: a group it had yet to make could be missed.
  if [ -n "$watchdog" ]; then kill -KILL "$watchdog"; wait "$watchdog"; fi
  [ -e /run/timedout ] && status=timeout
  echo "@@qvx $id $status $(stat -c %s /run/stdout) $(stat -c %s /run/stderr)"
  cat /run/stdout /run/stderr
  echo "@@qvx $id end"
done
"""


# --- The initramfs -----------------------------------------------------------

def cpio(entries):
    out = bytearray()
    for inode, (name, mode, data, rdev) in enumerate(
            entries + [("TRAILER!!!", 0, b"", 0)], 1):
        name = name.encode() + b"\0"
        fields = [inode, mode, 0, 0, 1, 0, len(data), 0, 0,
                  os.major(rdev), os.minor(rdev), len(name), 0]
        out += b"070701" + "".join(f"{f:08x}" for f in fields).encode() + name
        out += bytes(-len(out) % 4) + data
        out += bytes(-len(out) % 4)
    return bytes(out)


def needed_libraries(path):
    with open(path, "rb") as f:
        if f.read(4) != b"\x7fELF":  # a script
            return []
    readelf = shutil.which("aarch64-linux-gnu-readelf") or "readelf"
    dynamic = subprocess.run([readelf, "-d", path], capture_output=True,
                             text=True, check=True).stdout
    return re.findall(r"\(NEEDED\)\s+Shared library: \[(.+?)\]", dynamic)


def libraries(binaries, roots):
    """{name: host path} of the loader and every library the binaries
    load, from the arm64 trees of the roots in turn."""
    found, wanted = {}, [LOADER] + [lib for b in binaries for lib in needed_libraries(b)]
    while wanted:
        name = wanted.pop()
        if name in found:
            continue
        paths = [Path(r, d, name) for r in roots for d in LIBRARY_DIRS]
        path = next((p for p in paths if p.exists()), None)
        if path is None:
            raise FileNotFoundError(f"{name}: not in {', '.join(map(str, paths))}")
        found[name] = path
        wanted += needed_libraries(path)
    return found


def modules(module_dir, names):
    """The module paths (relative to module_dir, .ko or compressed) to
    insmod for the named modules, each after those it depends on; built-in
    ones are left out."""
    depends = {}
    for line in (module_dir / "modules.dep").read_text().splitlines():
        path, _, deps = line.partition(":")
        depends[path] = deps.split()
    by_name = {Path(p).name.split(".ko")[0].replace("-", "_"): p for p in depends}
    builtin = (module_dir / "modules.builtin").read_text()
    order = []

    def visit(path):
        for dep in depends[path]:
            visit(dep)
        if path not in order:
            order.append(path)

    for name in names:
        if name in by_name:
            visit(by_name[name])
        elif not re.search(rf"/{name}\.ko$", builtin, re.M):
            raise FileNotFoundError(f"kernel module {name} not in {module_dir}")
    return order


def module_bytes(path):
    """A module as insmod takes it: newer kernels ship theirs compressed,
    and busybox's insmod reads only plain ones."""
    data = path.read_bytes()
    if path.suffix == ".xz":
        return lzma.decompress(data)
    if path.suffix == ".gz":
        return gzip.decompress(data)
    if path.suffix == ".zst":
        return subprocess.run(["zstd", "-dc", str(path)], capture_output=True, check=True).stdout
    return data


def host_release():
    """This machine's own Debian release, whose arm64 multiarch tree has
    the libraries of the dynamically linked aarch64 build."""
    for line in Path("/etc/os-release").read_text().splitlines():
        if line.startswith("VERSION_CODENAME="):
            return line.split("=", 1)[1].strip('"')
    return None


def build_initramfs(cache, tool, path, extra=None, init=None):
    cache = Path(cache)
    release = (cache / "kernel-release").read_text().strip()
    root = cache / "root"
    module_dir = root / "lib/modules" / release
    kos = modules(module_dir, MODULES)
    # In /usr/bin from Debian 13 on.
    busybox = next((p for p in (root / "bin/busybox", root / "usr/bin/busybox") if p.is_file()),
                   root / "bin/busybox")
    binaries = {"/usr/sbin/mkfs.exfat": root / "usr/sbin/mkfs.exfat",
                "/usr/sbin/fsck.exfat": root / "usr/sbin/fsck.exfat",
                "/usr/bin/qvexfat-test": Path(tool)}
    binaries.update({guest: Path(host) for guest, host in (extra or {}).items()})
    for host in binaries.values():
        if not host.is_file():
            raise FileNotFoundError(f"{host}: no such file")
    # The release's own libraries; the host's arm64 tree only where it is
    # the same release (for the dynamically linked tool's C++ libraries).
    roots = [root] + ([Path("/")] if cache.resolve().name == host_release() else [])
    libs = libraries(list(binaries.values()), roots)

    directory, executable = 0o040755, 0o100755
    entries = [(d, directory, b"", 0) for d in [
        "bin", "dev", "etc", "lib", "lib/aarch64-linux-gnu", "lib/modules",
        "mnt", "proc", "run", "sys", "tmp", "usr", "usr/bin", "usr/lib", "usr/sbin"]]
    entries += [("etc/mtab", 0o120777, b"/proc/self/mounts", 0),
                ("bin/busybox", executable, busybox.read_bytes(), 0),
                ("bin/sh", 0o120777, b"busybox", 0),
                (f"lib/{LOADER}", 0o120777, f"aarch64-linux-gnu/{LOADER}".encode(), 0)]
    entries += [(guest[1:], executable, host.read_bytes(), 0)
                for guest, host in binaries.items()]
    entries += [(f"lib/aarch64-linux-gnu/{name}", executable, host.read_bytes(), 0)
                for name, host in libs.items()]
    ko_names = [Path(ko).name.split(".ko")[0] + ".ko" for ko in kos]
    entries += [(f"lib/modules/{name}", 0o100644, module_bytes(module_dir / ko), 0)
                for name, ko in zip(ko_names, kos)]
    insmod = "\n".join(f"insmod /lib/modules/{name}" for name in ko_names)
    entries.append(("init", executable, (init or INIT).format(insmod=insmod).encode(), 0))
    Path(path).write_bytes(gzip.compress(cpio(entries), compresslevel=6))
    # Beside its modules in the newest kernel packages.
    kernel = root / "boot" / f"vmlinuz-{release}"
    return kernel if kernel.is_file() else module_dir / "vmlinuz"


# --- The machine -------------------------------------------------------------

class Channel:
    """One connection to the command channel, reading against a deadline."""

    def __init__(self, scratch, deadline=None):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            self.socket.connect(str(Path(scratch) / "channel.sock"))
        except OSError as error:
            self.socket.close()
            raise ConnectionError(f"no machine running in {scratch}: {error}")
        self.scratch, self.deadline, self.data = scratch, deadline, bytearray()

    def close(self):
        self.socket.close()

    def send(self, command, limit=0):
        """Sends a request; returns its id. The leading newline ends a line
        a client gone mid-write left."""
        rid = secrets.token_hex(8)
        encoded = base64.b64encode(command.encode()).decode()
        self.socket.sendall(f"\n{rid} {limit} {encoded} {rid}\n".encode())
        return rid

    def receive(self):
        left = None if self.deadline is None else self.deadline - time.monotonic()
        if left is not None and left <= 0:
            raise TimeoutError("the machine did not answer in time")
        self.socket.settimeout(left)
        chunk = self.socket.recv(1 << 16)  # TimeoutError (socket.timeout) past the deadline
        if not chunk:
            raise ConnectionError(f"the machine has gone (see {self.scratch}/console.log)")
        self.data += chunk

    def read_until(self, marker):
        start = 0
        while (at := self.data.find(marker, start)) < 0:
            start = max(0, len(self.data) - len(marker) + 1)
            self.receive()
        text = self.read(at)
        del self.data[:len(marker)]
        return text

    def read(self, length):
        while len(self.data) < length:
            self.receive()
        text = bytes(self.data[:length])
        del self.data[:length]
        return text


def our_qemu(scratch):
    """The pid of the qemu serving this scratch directory, or None."""
    scratch = Path(scratch).resolve()
    try:
        pid = int((scratch / "qemu.pid").read_text())
        cmdline = Path(f"/proc/{pid}/cmdline").read_bytes()
    except (OSError, ValueError):
        return None
    # A zombie's command line is empty; a reused pid's is another's.
    return pid if str(scratch / "channel.sock").encode() in cmdline else None


class Machine:
    def __init__(self, cache_dir, tool_path, scratch_dir, extra=None, boot_timeout=300):
        """Boots the machine and waits until it takes commands. extra maps
        paths in the guest to host files to copy there."""
        scratch = self.scratch = Path(scratch_dir).resolve()
        scratch.mkdir(parents=True, exist_ok=True)
        if our_qemu(scratch):
            raise RuntimeError(f"a machine is already running in {scratch}")
        channel = scratch / "channel.sock"
        if len(str(channel)) >= 108:
            raise ValueError(f"{channel}: too long for a unix socket's path")
        channel.unlink(missing_ok=True)
        kernel = build_initramfs(cache_dir, tool_path, scratch / "initramfs.cpio.gz", extra)
        command = [
            "qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a57",
            "-m", "2048", "-smp", "2", "-nographic", "-no-reboot",
            "-kernel", str(kernel), "-initrd", str(scratch / "initramfs.cpio.gz"),
            # earlycon: boot messages on the serial port until the virtio
            # console comes up (with the modules), in case the kernel dies
            # before; panic=-1 with -no-reboot: qemu exits when it does.
            "-append", "console=hvc0 earlycon panic=-1",
            "-monitor", "none", "-nic", "none",
            "-chardev", f"socket,id=channel,path={channel},server=on,wait=off",
            "-serial", "chardev:channel",
            "-chardev", f"file,id=console,path={scratch / 'console.log'}",
            "-device", "virtio-serial-device",
            "-device", "virtconsole,chardev=console"]
        with open(scratch / "qemu.log", "wb") as log:
            self.qemu = subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                         stdout=log, stderr=log,
                                         start_new_session=True)
        (scratch / "qemu.pid").write_text(f"{self.qemu.pid}\n")
        try:
            self._wait_ready(time.monotonic() + boot_timeout)
        except BaseException:
            self.qemu.kill()
            self.qemu.wait()
            raise

    def _wait_ready(self, deadline):
        while not (self.scratch / "channel.sock").exists():
            if self.qemu.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"qemu did not start: see {self.scratch}/qemu.log")
            time.sleep(0.05)
        channel = Channel(self.scratch, deadline)
        try:
            # Kept for when the kernel dies before its console is up.
            (self.scratch / "serial.log").write_bytes(channel.read_until(b"@@qvx ready\n"))
        except (TimeoutError, ConnectionError) as error:
            raise RuntimeError(f"the machine did not boot ({error}): see "
                               f"{self.scratch}/console.log, serial.log and qemu.log")
        finally:
            channel.close()

    @classmethod
    def attach(cls, scratch_dir):
        """The machine that `start` left running in scratch_dir."""
        machine = cls.__new__(cls)
        machine.scratch = Path(scratch_dir).resolve()
        return machine

    def run(self, command, timeout=None):
        """Runs a shell command line in the guest: (exit status, stdout,
        stderr), the output as bytes. Past timeout seconds the command and
        whatever it started are killed and subprocess.TimeoutExpired is
        raised."""
        limit = 0 if timeout is None else max(1, round(timeout))
        # The answer's own time on top, however slow the emulation.
        deadline = None if timeout is None else time.monotonic() + limit + 60
        channel = Channel(self.scratch, deadline)
        try:
            rid = channel.send(command, limit)
            channel.read_until(f"@@qvx {rid} ".encode())
            status, out_length, err_length = channel.read_until(b"\n").split()
            out, err = channel.read(int(out_length)), channel.read(int(err_length))
            if channel.read_until(b"\n") != f"@@qvx {rid} end".encode():
                raise ConnectionError("the machine's answer was garbled")
        except TimeoutError:
            raise subprocess.TimeoutExpired(command, timeout) from None
        finally:
            channel.close()
        if status == b"timeout":
            raise subprocess.TimeoutExpired(command, timeout, out, err)
        return int(status), out, err

    def kernel_log(self):
        """The kernel log's lines since the previous call by any process."""
        status, out, err = self.run("dmesg -c", timeout=60)
        return out.decode(errors="replace").splitlines()


def stop(scratch, grace=10):
    """Powers off the machine in scratch; its qemu is gone afterwards."""
    pid = our_qemu(scratch)
    if pid is None:
        return
    deadline = time.monotonic() + grace
    try:
        channel = Channel(scratch, deadline)
        try:
            channel.send("poweroff -f")
            # Connected until qemu has gone: qemu drops what a client sent
            # if the client leaves before the guest has read it all.
            while True:
                channel.receive()
        finally:
            channel.close()
    except OSError:  # gone, or not answering in time
        pass
    while our_qemu(scratch) and time.monotonic() < deadline:
        time.sleep(0.1)
    if our_qemu(scratch):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def unavailable(cache):
    """Why no machine can be booted on this host, or None."""
    if not shutil.which("qemu-system-aarch64"):
        return "qemu-system-aarch64 is not installed (scripts/install-deps.sh --aarch64)"
    cache = Path(cache)
    if (cache / "unavailable").is_file():
        return f"{cache.name}: {(cache / 'unavailable').read_text().strip()}"
    if not (cache / "kernel-release").is_file():
        return (f"no arm64 kernel fetched into {cache} "
                f"(test/kernel/fetch.sh {cache.parent} {cache.name})")
    return None


# --- Command line ------------------------------------------------------------

def main(argv):
    match argv:
        case ["start", cache, tool, scratch, *files] if all("=" in f for f in files):
            reason = unavailable(cache) or next(
                (f"{path}: no such file (not built?)" for path in [tool] + [f.split("=", 1)[1] for f in files]
                 if not Path(path).is_file()), None)
            if reason:
                print(f"machine: cannot boot: {reason}", file=sys.stderr)
                return 1 if os.environ.get("CI") == "true" else 77
            stop(scratch)  # one that a killed test run left behind
            began = time.monotonic()
            try:
                Machine(cache, tool, scratch, dict(f.split("=", 1) for f in files))
            except (OSError, RuntimeError) as error:
                print(f"machine: {error}", file=sys.stderr)
                return 1
            print(f"machine: booted in {time.monotonic() - began:.1f} s; "
                  f"channel {Path(scratch).resolve() / 'channel.sock'}")
            return 0
        case ["initramfs", cache, tool, path, *files] if all("=" in f for f in files):
            kernel = build_initramfs(cache, tool, path, dict(f.split("=", 1) for f in files), CONSOLE)
            print(f"{path}: boots {kernel} to a shell on its serial port")
            return 0
        case ["run", scratch, command]:
            status, out, err = Machine.attach(scratch).run(command)
            sys.stdout.buffer.write(out)
            sys.stderr.buffer.write(err)
            return status
        case ["stop", scratch]:
            stop(scratch)
            return 0
    return usage()


def usage():
    print("usage:" + __doc__.split("\n\n")[1], file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
