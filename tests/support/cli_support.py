"""Helpers of the end-to-end tests of morvlabel: running the tool (through an
emulator when cross-built), building and checking images, reading labels
back with blkid."""

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


def tool(*args, binary=None, env=None):
    command = EMULATOR + [binary or TOOL] + [os.fsencode(a) if isinstance(a, str) else a for a in args]
    return subprocess.run(command, capture_output=True, env=env, timeout=600)


def build(path, label, *options):
    out = subprocess.run([sys.executable, os.path.join(SUPPORT, "mkimage.py"), path,
                          "--label", label, "--info"] + [str(o) for o in options],
                         capture_output=True, check=True)
    return json.loads(out.stdout)


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
