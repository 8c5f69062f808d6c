#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A second reader of HFS+ volumes: the Linux kernel's hfsplus driver.

Debian's kernel image boots under qemu-system-x86_64 (software emulation, no
network, serial console) from a tiny initramfs: a static busybox, the kernel
modules that hfsplus and a virtio disk need, and an init script made from the
operations asked for.  Each image is one virtio disk.  The driver reads HFS+
for its own purposes, so what it lists, and what it writes when it changes a
volume, is an independent judgement of an image.

As a library:

    batch = Batch()                       # KernelUnavailable if it cannot boot
    seen = batch.list("a.img")            # index of the operation's result
    batch.change("b.img", [("mkdir", "new"), ("write", "new/f", b"text"),
                           ("symlink", "new/f", "link"), ("link", "new/f", "hard"),
                           ("remove", "old file"), ("rmdir", "old folder")])
    result = batch.run()                  # one boot for everything
    result["ops"][seen]["entries"]["/new/f"]["sha256"]

Every operation mounts its image (read-only for list, read-write for change),
does its work, unmounts and collects the kernel's log lines of that time
("log"; a refused mount also has "mount_error").  A list reports "entries",
per path from the volume's root ("/" is the root): type, mode, perm, links,
size, inode (the CNID under hfsplus), the symlink's "target" (readlink) and a
regular file's "sha256"; "statfs" (blocks, free, block_size); "ls" (the
lines of `ls -lanR`); "warnings" (errors of those commands, e.g. read
errors).  A change reports each step's exit status and error output,
"read_only" when the kernel refused to mount it writable, and whether the
unmount succeeded.  Disks that only lists use are attached read-only.
The run reports "finished" (the script ran to its end), "timed_out",
"setup_errors", the kernel's "console", and the times: "wall_seconds" on
the host, "init_seconds" and "boot_seconds" (guest clock when init started
and when the disks were ready) and each operation's "seconds".

What the driver does that a test must expect: a directory's size is 2 plus
its valence; every read-write mount adds the private metadata folder
"\0\0\0\0HFS+ Private Data" to the root (hidden from listings); `ln` moves the
file into that folder as "iNode<random number>" and leaves link records
("hlnk" "hfs+") whose iNodeNum is that number, not the file's CNID; a volume
not marked cleanly unmounted is mounted read-only; it fails (ENOSPC) to
split some full 512-byte catalog nodes whose last record is the only one
past the middle, so a read-write mount of a full 512-byte-node catalog can
fail (Apple's format asks for 4 KiB catalog nodes).

As a command (JSON on stdout; exit status 77 when the kernel cannot be
provisioned, 1 when the run failed):

    kernelreader.py --provision
    kernelreader.py list IMAGE...
    kernelreader.py run SCRIPT.json     # [{"op": "list", "image": P},
                                        #  {"op": "change", "image": P,
                                        #   "steps": [["mkdir", "d"], ...]}]

Provisioning: qemu-system-x86_64 and a static busybox come from the Debian
packages qemu-system-x86 and busybox-static (scripts/deps.sh).  The kernel is
the package that linux-image-amd64 depends on, fetched with `apt-get
download` (never installed) and unpacked; only the kernel image and the
needed modules (dependencies read from each module's .modinfo) are kept, in
$MORV_KERNEL_CACHE or build/kernel/ of the source tree.  Booting uses TCG
($MORV_KERNEL_ACCEL may name another accelerator, e.g. kvm).

Names inside the volume must not contain newlines: results travel as lines.
"""

import json
import os
import re
import shutil
import stat
import struct
import subprocess
import sys
import tempfile
import time

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
KERNEL_META_PACKAGE = "linux-image-amd64"
# Modules loaded before any operation, with their dependencies: the virtio
# disk, the UTF-8 name table hfsplus asks for, the driver itself.
WANTED_MODULES = ("virtio_pci", "virtio_blk", "nls_utf8", "hfsplus")
MAX_DISKS = 20
DEFAULT_TIMEOUT = 300
EXIT_UNAVAILABLE = 77

STEP_ARITY = {"mkdir": 1, "write": 2, "symlink": 2, "link": 2, "remove": 1, "rmdir": 1,
              "rename": 2}


class KernelUnavailable(Exception):
    """The emulator, busybox or the kernel cannot be had on this machine."""


# ---------------------------------------------------------------- provisioning

def cache_dir():
    return os.environ.get("MORV_KERNEL_CACHE") or os.path.join(REPO, "build", "kernel")


def elf_section(data, wanted):
    """Bytes of the ELF64 little-endian section named `wanted`, or None."""
    if data[:4] != b"\x7fELF" or data[4] != 2 or data[5] != 1:
        return None
    shoff, = struct.unpack_from("<Q", data, 0x28)
    shentsize, shnum, shstrndx = struct.unpack_from("<HHH", data, 0x3A)

    def section(i):
        at = shoff + i * shentsize
        name, = struct.unpack_from("<I", data, at)
        offset, size = struct.unpack_from("<QQ", data, at + 0x18)
        return name, data[offset:offset + size]

    _, names = section(shstrndx)
    for i in range(shnum):
        name, body = section(i)
        if names[name:names.index(b"\0", name)] == wanted:
            return body
    return None


def module_depends(path):
    with open(path, "rb") as f:
        info = elf_section(f.read(), b".modinfo") or b""
    for field in info.split(b"\0"):
        if field.startswith(b"depends="):
            return [d for d in field[8:].decode().split(",") if d]
    return []


def module_order(tree, wanted):
    """Paths of `wanted` modules and everything they depend on, each after
    its dependencies.  `tree` is an unpacked lib/modules/<version>."""
    paths = {}
    for top, _, files in os.walk(tree):
        for name in files:
            if name.endswith(".ko"):
                paths[name[:-3].replace("-", "_")] = os.path.join(top, name)
    order = []

    def visit(name, chain):
        name = name.replace("-", "_")
        if name in order:
            return
        if name in chain:
            raise KernelUnavailable("module dependency cycle through %s" % name)
        if name not in paths:
            raise KernelUnavailable("the kernel package has no module %s" % name)
        for dep in module_depends(paths[name]):
            visit(dep, chain + [name])
        order.append(name)

    for name in wanted:
        visit(name, [])
    return [paths[n] for n in order]


def run_quiet(cmd, cwd=None):
    try:
        out = subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=600)
    except (OSError, subprocess.TimeoutExpired) as e:
        raise KernelUnavailable("%s: %s" % (cmd[0], e))
    if out.returncode:
        raise KernelUnavailable("%s failed: %s" % (" ".join(cmd), out.stderr.strip()[-500:]))
    return out.stdout


def kernel_package():
    out = run_quiet(["apt-cache", "depends", KERNEL_META_PACKAGE])
    m = re.search(r"Depends: (linux-image-\S+-amd64)\b", out)
    if not m:
        raise KernelUnavailable("apt-cache names no kernel behind %s" % KERNEL_META_PACKAGE)
    return m.group(1)


def fetch_kernel(cache, package):
    """Download `package`, keep its kernel image and the wanted modules."""
    os.makedirs(cache, exist_ok=True)
    work = tempfile.mkdtemp(prefix="fetch-", dir=cache)
    try:
        run_quiet(["apt-get", "download", package], cwd=work)
        debs = [f for f in os.listdir(work) if f.endswith(".deb")]
        if len(debs) != 1:
            raise KernelUnavailable("apt-get download %s left %d packages" % (package, len(debs)))
        tree = os.path.join(work, "tree")
        run_quiet(["dpkg-deb", "-x", os.path.join(work, debs[0]), tree])
        kernels = [f for f in os.listdir(os.path.join(tree, "boot")) if f.startswith("vmlinuz-")]
        versions = os.listdir(os.path.join(tree, "lib", "modules"))
        if len(kernels) != 1 or len(versions) != 1:
            raise KernelUnavailable("%s holds %d kernel images for %d module trees"
                                    % (package, len(kernels), len(versions)))
        modules = module_order(os.path.join(tree, "lib", "modules", versions[0]), WANTED_MODULES)
        keep = os.path.join(work, "keep")
        os.makedirs(os.path.join(keep, "modules"))
        shutil.copy(os.path.join(tree, "boot", kernels[0]), os.path.join(keep, "vmlinuz"))
        names = []
        for i, path in enumerate(modules):
            names.append("%02d-%s" % (i, os.path.basename(path)))
            shutil.copy(path, os.path.join(keep, "modules", names[-1]))
        with open(os.path.join(keep, "kernel.json"), "w") as f:
            json.dump({"package": package, "version": versions[0], "modules": names}, f)
        try:
            os.rename(keep, os.path.join(cache, package))
        except OSError:
            # Another run unpacked the same package first.
            if not os.path.isfile(os.path.join(cache, package, "kernel.json")):
                raise
    finally:
        shutil.rmtree(work, ignore_errors=True)


def static_busybox():
    path = shutil.which("busybox") or "/bin/busybox"
    try:
        with open(path, "rb") as f:
            head = f.read(64)
            f.seek(0)
            data = f.read()
    except OSError:
        raise KernelUnavailable("no busybox (Debian package busybox-static)")
    if head[:4] != b"\x7fELF":
        raise KernelUnavailable("%s is not an ELF program" % path)
    phoff, = struct.unpack_from("<Q", data, 0x20)
    phentsize, phnum = struct.unpack_from("<HH", data, 0x36)
    PT_INTERP = 3
    for i in range(phnum):
        if struct.unpack_from("<I", data, phoff + i * phentsize)[0] == PT_INTERP:
            raise KernelUnavailable("%s is linked dynamically; install busybox-static" % path)
    return path


class Kernel:
    """A provisioned kernel: image, modules in load order, emulator, busybox."""

    def __init__(self, root, qemu, busybox):
        with open(os.path.join(root, "kernel.json")) as f:
            meta = json.load(f)
        self.package = meta["package"]
        self.version = meta["version"]
        self.vmlinuz = os.path.join(root, "vmlinuz")
        self.modules = [os.path.join(root, "modules", m) for m in meta["modules"]]
        self.qemu = qemu
        self.busybox = busybox


def provision(cache=None, fetch=True):
    """The kernel to boot, fetched into the cache when none is there yet.
    Raises KernelUnavailable with the reason."""
    qemu = shutil.which("qemu-system-x86_64")
    if not qemu:
        raise KernelUnavailable("no qemu-system-x86_64 (Debian package qemu-system-x86)")
    busybox = static_busybox()
    cache = cache or cache_dir()
    have = sorted(d for d in (os.listdir(cache) if os.path.isdir(cache) else [])
                  if os.path.isfile(os.path.join(cache, d, "kernel.json")))
    if not have:
        if not fetch:
            raise KernelUnavailable("no kernel in %s" % cache)
        package = kernel_package()
        try:
            fetch_kernel(cache, package)
        except OSError as e:
            raise KernelUnavailable("cannot unpack %s into %s: %s" % (package, cache, e))
        have = [package]
    return Kernel(os.path.join(cache, have[-1]), qemu, busybox)


# ---------------------------------------------------------------- initramfs

def cpio_entry(name, mode, data=b"", rdev=(0, 0), ino=0):
    """One member of a "newc" cpio archive, the format the kernel unpacks."""
    name = name.encode() + b"\0"
    fields = (ino, mode, 0, 0, 1, 0, len(data), 0, 0, rdev[0], rdev[1], len(name), 0)
    head = b"070701" + b"".join(b"%08X" % v for v in fields) + name
    head += b"\0" * (-len(head) % 4)
    return head + data + b"\0" * (-len(data) % 4)


def initramfs(kernel, script, blobs):
    parts = []
    files = [("init", stat.S_IFREG | 0o755, script.encode())]
    with open(kernel.busybox, "rb") as f:
        files.append(("bin/busybox", stat.S_IFREG | 0o755, f.read()))
    for path in kernel.modules:
        with open(path, "rb") as f:
            files.append(("lib/modules/" + os.path.basename(path), stat.S_IFREG | 0o644, f.read()))
    for i, blob in enumerate(blobs):
        files.append(("data/%d" % i, stat.S_IFREG | 0o644, blob))
    for d in ("bin", "dev", "proc", "sys", "mnt", "tmp", "lib", "lib/modules", "data"):
        parts.append(cpio_entry(d, stat.S_IFDIR | 0o755))
    # The kernel opens /dev/console for init before anything is mounted.
    parts.append(cpio_entry("dev/console", stat.S_IFCHR | 0o600, rdev=(5, 1)))
    for name, mode, data in files:
        parts.append(cpio_entry(name, mode, data))
    parts.append(cpio_entry("TRAILER!!!", 0))
    return b"".join(parts)


# ---------------------------------------------------------------- the VM script

def sh_quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


def vm_path(path):
    rel = path.lstrip("/")
    return sh_quote("/mnt/" + rel if rel else "/mnt")


PRELUDE = r"""#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
exec 3>/dev/ttyS1
stty -F /dev/ttyS1 raw -echo 2>/dev/null
up() { read u rest </proc/uptime; echo "$u"; }
say() { printf '%s\n' "$*" >&3; }
tag() { sed "s/^/$1 /" >&3; }
say "@boot $(up)"
for m in /lib/modules/*.ko; do
  insmod "$m" 2>/tmp/e || { say "@insmod ${m##*/}"; tag X </tmp/e; }
done
n=0
while [ "$(ls /sys/block | grep -c '^vd')" -lt {disks} ] && [ $n -lt 500 ]; do usleep 20000; n=$((n+1)); done
for b in /sys/block/vd*; do s=$(cat "$b/serial"); eval "D_$s=/dev/${b##*/}"; done
i=0
while [ $i -lt {disks} ]; do eval "[ -n \"\$D_d$i\" ]" || say "@nodisk d$i"; i=$((i+1)); done
dmesg -c >/dev/null
say "@ready $(up)"
"""

EPILOGUE = r"""say "@done $(up)"
sync
reboot -f
"""

LIST_BODY = r"""  cd /mnt
  stat -f -c 'F %b %f %S' . >&3 2>>/tmp/w
  find . -print0 | xargs -0 stat -c 'E %f %h %s %i %n' >&3 2>>/tmp/w
  find . -type l | while IFS= read -r p; do say "L $p"; say "T $(readlink "$p")"; done
  find . -type f -print0 | xargs -0 -r sha256sum >/tmp/h 2>>/tmp/w; tag H </tmp/h
  ls -lanR . >/tmp/ls 2>>/tmp/w; tag R </tmp/ls
  tag W </tmp/w
  cd /
"""


def op_script(index, op, disk, options, body):
    mode = ("ro" if op == "list" else "rw") + ",loud" + ("," + options if options else "")
    return "\n".join([
        'say "@op %d %s $(up)"' % (index, op),
        ": >/tmp/w",
        'if mount -t hfsplus -o %s "$D_d%d" /mnt 2>/tmp/e; then' % (sh_quote(mode), disk),
        '  say "@mounted"',
        "  grep -q '^[^ ]* /mnt hfsplus ro[, ]' /proc/mounts && say \"@readonly\"",
        body.rstrip("\n"),
        '  sync',
        '  if umount /mnt 2>/tmp/e; then say "@unmounted"; else say "@umount-failed"; tag X </tmp/e; fi',
        'else',
        '  say "@mount-failed"; tag X </tmp/e',
        'fi',
        "dmesg -c | tag K",
        'say "@end %d $(up)"' % index,
        ""])


def step_command(step, blobs):
    kind = step[0]
    if kind not in STEP_ARITY or len(step) != 1 + STEP_ARITY[kind]:
        raise ValueError("bad step %r" % (step,))
    a = step[1]
    if kind == "mkdir":
        return "mkdir -- %s" % vm_path(a)
    if kind == "write":
        data = step[2].encode() if isinstance(step[2], str) else bytes(step[2])
        blobs.append(data)
        return "cat /data/%d >%s" % (len(blobs) - 1, vm_path(a))
    if kind == "symlink":
        return "ln -s -- %s %s" % (sh_quote(a), vm_path(step[2]))
    if kind == "link":
        return "ln -- %s %s" % (vm_path(a), vm_path(step[2]))
    if kind == "remove":
        return "rm -- %s" % vm_path(a)
    if kind == "rmdir":
        return "rmdir -- %s" % vm_path(a)
    return "mv -- %s %s" % (vm_path(a), vm_path(step[2]))


# ---------------------------------------------------------------- the report

def kind_of(mode):
    for test, name in ((stat.S_ISDIR, "dir"), (stat.S_ISREG, "file"), (stat.S_ISLNK, "symlink"),
                       (stat.S_ISCHR, "char"), (stat.S_ISBLK, "block"), (stat.S_ISFIFO, "fifo"),
                       (stat.S_ISSOCK, "socket")):
        if test(mode):
            return name
    return "unknown"


def volume_path(found):
    """"./a/b" as find prints it to "/a/b"."""
    return "/" + found[2:] if found.startswith("./") else "/"


def new_op(kind, image, started):
    op = {"op": kind, "image": image, "started": started, "seconds": None, "finished": False,
          "mounted": False, "read_only": False, "unmounted": False,
          "mount_error": [], "umount_error": [], "log": []}
    if kind == "list":
        op.update(entries={}, statfs=None, ls=[], warnings=[])
    else:
        op["steps"] = []
    return op


class ReportParser:
    """The lines the init script writes, to the structured result.  A line
    is a tag, a space and the rest; X lines are error output belonging to
    the event before them."""

    def __init__(self, ops):
        self.ops = ops
        self.result = {"ops": [], "setup_errors": [], "unparsed": [], "finished": False,
                       "init_seconds": None, "boot_seconds": None, "guest_seconds": None}
        self.op = None
        self.errors = self.result["setup_errors"]
        self.link = None

    def feed(self, line):
        tag, _, rest = line.partition(" ")
        handler = getattr(self, "on_" + tag.lstrip("@").replace("-", "_"), None)
        try:
            if handler is None or (self.op is None and not tag.startswith("@") and tag != "X"):
                raise ValueError(tag)
            handler(rest)
        except (ValueError, IndexError, KeyError, TypeError, AttributeError):
            if line:
                self.result["unparsed"].append(line)

    def on_boot(self, rest):
        self.result["init_seconds"] = float(rest)

    def on_ready(self, rest):
        self.result["boot_seconds"] = float(rest)

    def on_insmod(self, rest):
        self.result["setup_errors"].append("insmod %s failed" % rest)
        self.errors = self.result["setup_errors"]

    def on_nodisk(self, rest):
        self.result["setup_errors"].append("no disk with serial %s" % rest)

    def on_op(self, rest):
        index, kind, started = rest.split(" ")
        self.op = new_op(kind, self.ops[int(index)]["image"], float(started))
        self.request = self.ops[int(index)]
        self.result["ops"].append(self.op)
        self.errors = self.result["setup_errors"]

    def on_mounted(self, rest):
        self.op["mounted"] = True

    def on_readonly(self, rest):
        self.op["read_only"] = True

    def on_mount_failed(self, rest):
        self.errors = self.op["mount_error"]

    def on_unmounted(self, rest):
        self.op["unmounted"] = True

    def on_umount_failed(self, rest):
        self.errors = self.op["umount_error"]

    def on_X(self, rest):
        self.errors.append(rest)

    def on_K(self, rest):
        self.op["log"].append(rest)

    def on_W(self, rest):
        self.op["warnings"].append(rest)

    def on_R(self, rest):
        self.op["ls"].append(rest)

    def on_F(self, rest):
        blocks, free, size = rest.split(" ")
        self.op["statfs"] = {"blocks": int(blocks), "free": int(free), "block_size": int(size)}

    def on_E(self, rest):
        mode, links, size, ino, found = rest.split(" ", 4)
        mode = int(mode, 16)
        self.op["entries"].setdefault(volume_path(found), {}).update(
            type=kind_of(mode), mode=mode, perm=stat.S_IMODE(mode), links=int(links),
            size=int(size), inode=int(ino))

    def on_L(self, rest):
        self.link = volume_path(rest)

    def on_T(self, rest):
        self.op["entries"].setdefault(self.link, {})["target"] = rest

    def on_H(self, rest):
        digest, found = rest[:64], rest[66:]
        self.op["entries"].setdefault(volume_path(found), {})["sha256"] = digest

    def on_S(self, rest):
        index, status = rest.split(" ")
        self.op["steps"].append({"step": self.request["steps"][int(index)], "status": int(status),
                                 "output": []})
        self.errors = self.op["steps"][-1]["output"]

    def on_end(self, rest):
        self.op["seconds"] = round(float(rest.split(" ")[1]) - self.op["started"], 2)
        self.op["finished"] = True
        self.op = None

    def on_done(self, rest):
        self.result["finished"] = True
        self.result["guest_seconds"] = float(rest)


def parse_report(text, ops):
    parser = ReportParser(ops)
    for line in text.replace("\r\n", "\n").split("\n"):
        parser.feed(line)
    return parser.result


# ---------------------------------------------------------------- batches

class Batch:
    """Operations on images, run in order in one boot by run()."""

    def __init__(self, kernel=None, timeout=DEFAULT_TIMEOUT, memory_mb=256):
        self.kernel = kernel or provision()
        self.timeout = timeout
        self.memory_mb = memory_mb
        self.disks = []          # [path, writable]
        self.ops = []

    def _disk(self, image, writable):
        path = os.path.realpath(image)
        if not os.path.isfile(path):
            raise ValueError("%s is not a file" % image)
        for i, disk in enumerate(self.disks):
            if disk[0] == path:
                disk[1] = disk[1] or writable
                return i
        if len(self.disks) == MAX_DISKS:
            raise ValueError("at most %d images in one boot" % MAX_DISKS)
        self.disks.append([path, writable])
        return len(self.disks) - 1

    def list(self, image, options=""):
        """Mount read-only and report every file and folder.  Returns the
        index of the result in run()["ops"].  `options` are more mount
        options for hfsplus (e.g. "force")."""
        self.ops.append({"op": "list", "image": image, "disk": self._disk(image, False),
                         "options": options})
        return len(self.ops) - 1

    def change(self, image, steps, options=""):
        """Mount read-write, apply `steps` in order, unmount.  Steps (paths
        from the volume's root): ("mkdir", path), ("write", path, bytes or
        str), ("symlink", target, path), ("link", existing, path),
        ("remove", path), ("rmdir", path), ("rename", old, new)."""
        steps = [tuple(s) for s in steps]
        for s in steps:
            step_command(s, [])
        self.ops.append({"op": "change", "image": image, "disk": self._disk(image, True),
                         "steps": steps, "options": options})
        return len(self.ops) - 1

    def script(self):
        blobs = []
        parts = [PRELUDE.replace("{disks}", str(len(self.disks)))]
        for i, op in enumerate(self.ops):
            if op["op"] == "list":
                body = LIST_BODY
            else:
                lines = ["  cd /mnt"]
                for j, step in enumerate(op["steps"]):
                    lines.append('  { %s; } >/tmp/e 2>&1; say "S %d $?"; tag X </tmp/e'
                                 % (step_command(step, blobs), j))
                lines.append("  cd /")
                body = "\n".join(lines)
            parts.append(op_script(i, op["op"], op["disk"], op["options"], body))
        parts.append(EPILOGUE)
        return "".join(parts), blobs

    def command(self, work):
        k = self.kernel
        cmd = [k.qemu, "-accel", os.environ.get("MORV_KERNEL_ACCEL", "tcg"),
               "-machine", "pc", "-m", str(self.memory_mb), "-smp", "1",
               "-nodefaults", "-no-user-config", "-display", "none", "-nic", "none",
               "-no-reboot", "-kernel", k.vmlinuz, "-initrd", os.path.join(work, "initramfs"),
               "-append", "console=ttyS0 panic=-1 loglevel=4",
               "-serial", "file:" + os.path.join(work, "console"),
               "-serial", "file:" + os.path.join(work, "report")]
        for i, (path, writable) in enumerate(self.disks):
            cmd += ["-drive", "if=none,id=d%d,file=%s,format=raw,readonly=%s"
                    % (i, path.replace(",", ",,"), "off" if writable else "on"),
                    "-device", "virtio-blk-pci,drive=d%d,serial=d%d" % (i, i)]
        return cmd

    def run(self):
        """Boot, run every operation, return the report (see the module's
        description); "timed_out" and "finished" say whether it ran to the end."""
        if not self.ops:
            raise ValueError("nothing to run")
        work = tempfile.mkdtemp(prefix="kernelreader-")
        try:
            script, blobs = self.script()
            with open(os.path.join(work, "initramfs"), "wb") as f:
                f.write(initramfs(self.kernel, script, blobs))
            started = time.monotonic()
            timed_out = False
            try:
                proc = subprocess.run(self.command(work), capture_output=True, text=True,
                                      timeout=self.timeout)
                qemu_errors = proc.stderr
            except subprocess.TimeoutExpired as e:
                timed_out = True
                qemu_errors = e.stderr.decode(errors="replace") if e.stderr else ""
            wall = time.monotonic() - started
            report, console = (self._read(work, n) for n in ("report", "console"))
        finally:
            shutil.rmtree(work, ignore_errors=True)
        result = parse_report(report, self.ops)
        result.update(wall_seconds=round(wall, 2), timed_out=timed_out, console=console,
                      qemu_errors=qemu_errors, kernel=self.kernel.version)
        return result

    @staticmethod
    def _read(work, name):
        try:
            with open(os.path.join(work, name), "rb") as f:
                return f.read().decode("utf-8", "surrogateescape")
        except OSError:
            return ""


# ---------------------------------------------------------------- command line

USAGE = """usage: kernelreader.py --provision
       kernelreader.py list IMAGE...
       kernelreader.py run SCRIPT.json"""


def main(argv):
    if argv[:1] == ["--provision"] and len(argv) == 1:
        try:
            k = provision()
        except KernelUnavailable as e:
            print("kernelreader: %s" % e, file=sys.stderr)
            return EXIT_UNAVAILABLE
        print("%s (%s): %s" % (k.package, k.version, os.path.dirname(k.vmlinuz)))
        return 0
    if len(argv) < 2 or argv[0] not in ("list", "run") or (argv[0] == "run" and len(argv) != 2):
        print(USAGE, file=sys.stderr)
        return 2
    try:
        if argv[0] == "list":
            ops = [{"op": "list", "image": p} for p in argv[1:]]
        else:
            with open(argv[1]) as f:
                ops = json.load(f)
        batch = Batch()
        for op in ops:
            if op.get("op") == "list":
                batch.list(op["image"], op.get("options", ""))
            elif op.get("op") == "change":
                batch.change(op["image"], op.get("steps", []), op.get("options", ""))
            else:
                raise ValueError("unknown operation %r" % op.get("op"))
        result = batch.run()
    except KernelUnavailable as e:
        print("kernelreader: %s" % e, file=sys.stderr)
        return EXIT_UNAVAILABLE
    except (OSError, ValueError, KeyError, TypeError) as e:
        print("kernelreader: %s" % e, file=sys.stderr)
        return 2
    json.dump(result, sys.stdout, indent=1)
    print()
    return 0 if result["finished"] and not result["timed_out"] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
