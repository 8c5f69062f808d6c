# SPDX-License-Identifier: MIT
"""Helpers of the end-to-end tests of morvlabel: running the tool (through an
emulator when cross-built), building and checking images, reading labels
back with blkid."""

import contextlib
import hashlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unicodedata
import unittest

SUPPORT = os.path.dirname(os.path.abspath(__file__))
TOOL = os.environ.get("MORVLABEL", "")
FAULTY_TOOL = os.environ.get("MORVLABEL_FAULTS", "")
EMULATOR = [e for e in os.environ.get("MORV_EMULATOR", "").split(";") if e]
USAGE = (b"morvlabel 3014.8.10\n"
         b"usage: morvlabel [--output-mode=<raw|composed>] <device> [<new label>]\n")


def tool(*args, binary=None, env=None, wrapper=()):
    command = list(wrapper) + EMULATOR + [binary or TOOL] + [os.fsencode(a) if isinstance(a, str) else a for a in args]
    return subprocess.run(command, capture_output=True, env=env, timeout=600)


def build(path, label, *options):
    out = subprocess.run([sys.executable, os.path.join(SUPPORT, "mkimage.py"), path,
                          "--label", label, "--info"] + [str(o) for o in options],
                         capture_output=True, check=True)
    return json.loads(out.stdout)


def build_xorriso(path, label, files):
    """A volume made by xorriso (skips the test where xorriso is missing)."""
    if shutil.which("xorriso") is None:
        raise unittest.SkipTest("xorriso is not installed")
    subprocess.run([sys.executable, os.path.join(SUPPORT, "xorrisoimage.py"), path, "--label", label,
                    "--files", str(files)], check=True, capture_output=True)


def build_hybrid_iso(path, label):
    """A whole ISO 9660 / HFS+ hybrid from xorriso: an Apple partition map
    whose third entry is the HFS+ volume, 64 KiB in."""
    if shutil.which("xorriso") is None:
        raise unittest.SkipTest("xorriso is not installed")
    tree = path + ".tree"
    os.mkdir(tree)
    with open(os.path.join(tree, "readme.txt"), "w") as f:
        f.write("hybrid\n")
    subprocess.run(["xorriso", "-as", "mkisofs", "-hfsplus", "-V", label, "-o", path, tree],
                   check=True, capture_output=True)


def partx_partitions(path):
    """{number: byte offset} of the partitions util-linux's partx finds."""
    out = subprocess.run(["partx", "--show", "--bytes", "--noheadings", "-o", "NR,START", path],
                         capture_output=True, text=True, check=True)
    return {int(nr): int(start) * 512 for nr, start in (line.split() for line in out.stdout.splitlines())}


@contextlib.contextmanager
def loop_device(test, path, *options):
    """`path` attached to a free loop device for the time of the block;
    skips the test where none can be attached."""
    if shutil.which("losetup") is None or os.geteuid() != 0:
        test.skipTest("needs root and losetup to attach loop devices")
    out = subprocess.run(["losetup", "--find", "--show", *options, path], capture_output=True, text=True)
    if out.returncode != 0:
        test.skipTest("no loop device can be attached here: " + out.stderr.strip())
    device = out.stdout.strip()
    try:
        yield device
    finally:
        subprocess.run(["losetup", "--detach", device], check=True)


def needs_mount_namespace(test):
    if shutil.which("unshare") is None or os.geteuid() != 0:
        test.skipTest("needs root and unshare to mount in a private namespace")


def tool_in_mount_namespace(test, script, script_args, *args):
    """Runs the tool with `args` in a private mount namespace, once the shell
    `script` (given `script_args`, which it shifts away before exec'ing the
    tool in its place) has mounted what it needs; skips the test where
    mounting is not permitted (the script exits 99) or not possible."""
    needs_mount_namespace(test)
    command = ["unshare", "-m", "sh", "-c", script, "sh"] + list(script_args) + EMULATOR + [TOOL]
    result = subprocess.run(command + list(args), capture_output=True)
    if result.returncode == 99:
        test.skipTest("mounting is not permitted here")
    return result


def check(test, path, *options):
    out = subprocess.run([sys.executable, os.path.join(SUPPORT, "checkimage.py"), path, *options],
                         capture_output=True, text=True)
    test.assertEqual(out.returncode, 0, out.stdout + out.stderr)


def blkid_label(path):
    out = subprocess.run(["blkid", "-p", "-o", "value", "-s", "LABEL", path], capture_output=True)
    return out.stdout.rstrip(b"\n")


def blkid_reads_label(block_size, node_size):
    """blkid finds the first catalog leaf in whole blocks and wants room for a
    255-unit key in it: it reports no label for smaller catalog nodes."""
    return node_size > 512 and node_size >= block_size


def contents(path):
    with open(path, "rb") as f:
        return f.read()


def digest(path):
    return hashlib.sha256(contents(path)).hexdigest()


def hfs_decomposed(text):
    """The stored form: canonical decomposition, except the ranges HFS+ leaves alone."""
    out = []
    for ch in text:
        code = ord(ch)
        keep = 0x2000 <= code <= 0x2FFF or 0xF900 <= code <= 0xFAFF
        out.append(ch if keep else unicodedata.normalize("NFD", ch))
    return "".join(out)


def utf16_units(text):
    return len(text.encode("utf-16-be")) // 2


class ImageCase(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="morvlabel-cli-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def path(self, name="volume.img"):
        return os.path.join(self.dir, name)

    def assert_prints(self, image, expected, mode="composed"):
        result = tool("--output-mode=" + mode, image)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, expected.encode("utf-8") + b"\n")
        self.assertEqual(result.stderr, b"")

    def assert_fails(self, result, ending, contains=b""):
        """A run that ends in status 1 with `ending` as its last words."""
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(contains, result.stderr)
        self.assertTrue(result.stderr.endswith(ending), result.stderr)

    def change_and_verify(self, image, info, block_size, node_size, label):
        """Changes the label and checks it every way: blkid (where it can read
        it), the volume checker, both output modes, and that only bytes of
        the catalog file changed."""
        before = contents(image)
        result = tool(image, label)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        stored = hfs_decomposed(label)
        if blkid_reads_label(block_size, node_size):
            self.assertEqual(blkid_label(image), stored.encode("utf-8"))
        check(self, image)
        self.assert_prints(image, stored, mode="raw")
        self.assert_prints(image, unicodedata.normalize("NFC", label))
        after = contents(image)
        self.assertEqual(len(after), len(before))
        catalog = [(start * block_size, (start + count) * block_size)
                   for start, count in info["catalog_extents"]]
        changed = [i for i in range(0, len(before), 4096) if before[i:i + 4096] != after[i:i + 4096]]
        self.assertTrue(changed)
        for chunk in changed:
            for i in range(chunk, min(chunk + 4096, len(before))):
                if before[i] != after[i]:
                    self.assertTrue(any(lo <= i < hi for lo, hi in catalog),
                                    "byte %d outside the catalog changed" % i)

    def run_with_faults(self, ops, args, image, endings):
        """Fails the N-th operation of `ops` for N = 1, 2, ... until a run
        succeeds. Every failed run must end in one of `endings` (or, for a
        change, an allocation failure of its own) with status 1 and no
        sanitizer report (leaks included); a run whose failure comes before
        the flush's first device write must leave the image as it was.
        Returns the number of failed runs, and the image and standard error
        that the last one left."""
        pristine = contents(image)
        changing = len(args) > 1
        last = (pristine, b"")
        for n in range(1, 5000):
            with open(image, "wb") as f:
                f.write(pristine)
            env = dict(os.environ, MORV_FAULT_OPS=ops, MORV_FAULT_AT=str(n))
            result = tool(*args, binary=FAULTY_TOOL, env=env)
            if result.stderr.endswith(b"fault-injection: not delivered\n"):
                self.assertEqual(result.returncode, 0, result.stderr)
                return n - 1, last
            last = (contents(image), result.stderr)
            with self.subTest(ops=ops, n=n):
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertNotIn(b"Sanitizer", result.stderr)
                self.assertNotRegex(result.stderr, rb"0x[0-9a-fA-F]{8,}|\(nil\)", "a log line shows an address")
                lines = result.stderr.splitlines(keepends=True)
                self.assertEqual(lines[-1], b"fault-injection: delivered\n")
                self.assertTrue(lines[-2] in endings or lines[-2].startswith(
                    b"Error when allocating ") and changing, result.stderr)
                if ops == "write":
                    self.assertIn(b"Error while flushing changes to catalog file.\n", result.stderr)
                if ops != "write" or n == 1:
                    self.assertEqual(last[0], pristine,
                                     "a run that failed before its flush changed the image")
        self.fail("the operation never succeeded")
