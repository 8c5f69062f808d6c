#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The Linux kernel's hfsplus driver as a second reader, in one boot: it must
list exactly what the image builder says it made (HFS+ and HFSX, several
block and node sizes, fragmented files with overflow extents, a catalog in
many fragments), refuse a damaged volume with a log line, and leave a volume
it changed (files, folders, a symbolic link, a hard link, deletions) clean
under the volume checker. The library and the kernel read each other's
changes: the kernel lists what the library's deletions and symbolic links
left (through tests/support/catalog_probe.cpp, named by MORV_CATALOG_PROBE),
and the library follows the hard links the kernel made.

Exit status 77 (a skip) when qemu or the kernel cannot be provisioned, unless
MORV_KERNEL_REQUIRED is set: then that is a failure."""

import hashlib
import json
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import kernelreader  # noqa: E402
from test_checkimage import Image  # noqa: E402

MiB = 1024 * 1024
# name: (HFSX, block size, catalog node size, files, folders, nesting,
#        fragmented files, fragments each, more options)
SHAPES = {
    "plus-4k": (False, 4096, 4096, 40, 6, 3, 3, 20, []),
    "x-512": (True, 512, 512, 60, 5, 1, 4, 9, ["--extents-node-size", "512", "--name-length", "40"]),
    "x-512-blocks": (True, 512, 4096, 60, 5, 2, 4, 9, ["--extents-node-size", "512"]),
    "plus-2k-catalog-fragments": (False, 2048, 8192, 30, 3, 2, 2, 1,
                                  ["--catalog-fragments", "12", "--scatter-nodes", "--seed", "7"]),
    "x-1k": (True, 1024, 4096, 25, 2, 1, 5, 3, ["--extents-node-size", "1024"]),
}
# The driver fails (ENOSPC) to split some full 512-byte catalog nodes, and a
# read-write mount inserts its private folder at once: the volumes it
# changes have the 4 KiB catalog nodes Apple's format asks for.
CHANGED = ("plus-4k", "x-512-blocks")
SMALL = b"written by Linux\n"
ACCENTED = "caf\u00e9.txt"
BIG = bytes(range(256)) * 41 + b"tail"
LONG_TARGET = "/".join(["deep"] * 120)     # more than one 512-byte block


PROBE = os.environ.get("MORV_CATALOG_PROBE")
# Files with data in 1 to 12 one-block extents and a 9-block resource fork
# (overflow records for both), nested folders, empty files.
LIBRARY_SHAPE = ["--files", "30", "--folders", "4", "--nesting", "2", "--fragmented-files", "12",
                 "--file-fragments", "12", "--varied-fragments", "--resource-fragments", "9"]
# Symbolic link targets as given and as the kernel must read them back.
LINK_TARGETS = {"file 000010": "file 000010", "/folder 1/folder 2": "/folder 1/folder 2",
                "back\\slash": "back/slash", "caf\u00e9/" + "x" * 249: "caf\u00e9/" + "x" * 249}


def sha(data):
    return hashlib.sha256(data).hexdigest()


def build(path, shape, *extra):
    hfsx, bs, ns, files, folders, nesting, frag, frags, more = SHAPES[shape]
    cmd = [sys.executable, os.path.join(HERE, "mkimage.py"), path, "--size", str(8 * MiB),
           "--label", shape, "--block-size", str(bs), "--catalog-node-size", str(ns),
           "--files", str(files), "--folders", str(folders), "--nesting", str(nesting),
           "--fragmented-files", str(frag), "--file-fragments", str(frags), "--file-data",
           "--info", "--info-entries"] + (["--hfsx"] if hfsx else []) + more + list(extra)
    return json.loads(subprocess.run(cmd, capture_output=True, text=True, check=True).stdout)


def builder(path, *args):
    cmd = [sys.executable, os.path.join(HERE, "mkimage.py"), path, "--size", str(8 * MiB),
           "--label", "library", "--file-data", "--info", "--info-entries"] + list(args)
    return json.loads(subprocess.run(cmd, capture_output=True, text=True, check=True).stdout)


def probe(image, *args):
    """Runs catalog_probe; its standard output, or an AssertionError."""
    done = subprocess.run([PROBE, image] + list(args), capture_output=True, text=True)
    if done.returncode:
        raise AssertionError("catalog_probe %r failed:\n%s" % (args, done.stderr))
    return done.stdout


class LibraryPlan:
    """What the library changes before the boot (deletions of files with
    both forks in many extents, of a folder once emptied, of a Mac OS hard
    link; symbolic links), what the kernel must list then, and a volume on
    which the kernel makes hard links for the library to follow afterwards.
    Every volume the library changed must be clean under the checker."""

    def __init__(self, tmp, batch):
        self.unclean = []
        self.changed = os.path.join(tmp, "library.img")
        info = builder(self.changed, *LIBRARY_SHAPE)
        self.want, self.cnids = built(info)
        files = [e for e in info["entries"] if e["type"] == "file"]
        gone = [e["path"] for e in files if e["size"] and e["cnid"] % 2]
        leaf = "/folder 3/folder 4"
        gone += [e["path"] for e in files if os.path.dirname(e["path"]) == leaf and e["path"] not in gone]
        gone.append(leaf)
        empty = [e["path"] for e in files if not e["size"] and e["path"] not in gone]
        self.targets = dict(zip(empty, LINK_TARGETS.values()))
        steps = [("delete", p) for p in gone]
        steps += [("symlink", p, t) for p, t in zip(empty, LINK_TARGETS)]
        probe(self.changed, *[a for step in steps for a in step])
        for p in gone:
            self.want[os.path.dirname(p)][1] -= 1
            del self.want[p]
        for p, t in self.targets.items():
            self.want[p] = ["symlink", len(t.encode()), None]
        self.check(self.changed)
        self.listed = batch.list(self.changed)

        # Mac OS hard links: "link 0" goes, "link 1" stays with the file.
        self.mac = os.path.join(tmp, "mac-links.img")
        info = builder(self.mac, "--files", "3", "--fragmented-files", "1", "--file-fragments", "10",
                       "--hard-links", "2")
        node = next(e for e in info["entries"] if e["path"].endswith("/iNode16"))
        probe(self.mac, "delete", "/link 0")
        self.check(self.mac)
        self.mac_want = {"/": ["dir", 6, None], "/File 000001": ["file", 0, sha(b"")],
                         "/file 000002": ["file", 0, sha(b"")],
                         "/link 1": ["file", node["size"], node["sha256"]]}
        self.mac_listed = batch.list(self.mac)

        # Linux hard links to a file with both forks in overflow records.
        self.linked = os.path.join(tmp, "kernel-links.img")
        self.linked_info = builder(self.linked, "--files", "4", "--folders", "1", "--fragmented-files",
                                   "1", "--file-fragments", "12", "--resource-fragments", "9")
        self.links = ["/file 000000", "/hard a", "/folder 1/hard b"]
        self.linking = batch.change(self.linked, [("link", self.links[0], p) for p in self.links[1:]])
        self.linked_listed = batch.list(self.linked)

    def check(self, path):
        found = checker(path)
        if found.returncode:
            self.unclean.append((path, found.stdout + found.stderr))


def header_free_blocks(path):
    with open(path, "rb") as f:
        f.seek(1024 + 48)
        return struct.unpack(">I", f.read(4))[0]


def built(info):
    """path -> [type, size, sha256 or None] as the builder made it (a
    folder's size under hfsplus is 2 + its valence), and path -> CNID."""
    want = {"/": ["dir", 2, None]}
    for e in info["entries"]:
        want[e["path"]] = ["dir", 2, None] if e["type"] == "folder" else \
            ["file", e["size"], e["sha256"]]
        want[os.path.dirname(e["path"])][1] += 1
    return want, {e["path"]: e["cnid"] for e in info["entries"]} | {"/": 2}


def checker(path):
    return subprocess.run([sys.executable, os.path.join(HERE, "checkimage.py"), path],
                          capture_output=True, text=True)


def inode_record(img):
    """Offset of the record of the one indirect node file ("iNode<N>")."""
    found = [rec for key, rec in img.leaf_records()
             if img.data[key + 8:key + 18].decode("utf-16-be", "replace") == "iNode"]
    assert len(found) == 1, found
    return found[0]


def seen(op):
    return {p: [e["type"], e["size"], e.get("sha256")] for p, e in op["entries"].items()}


def change_plan(info):
    """Steps that touch every kind of record, the paths they delete and what
    they add: a folder with files, a non-ASCII name, a file of several
    blocks, a symbolic link, a hard link, deletion of a file with overflow
    extents, of a plain file and of a folder emptied first, and an rmdir of
    a folder that is not empty, which must fail."""
    entries = info["entries"]
    files = [e for e in entries if e["type"] == "file"]
    fragmented = max(files, key=lambda e: e["size"])["path"]
    plain = next(e["path"] for e in files if e["size"] == 0 and e["path"].count("/") == 1)
    folders = [e["path"] for e in entries if e["type"] == "folder"]
    leaf = next(f for f in folders if not any(g.startswith(f + "/") for g in folders))
    busy = next(f for f in folders if f not in (leaf, os.path.dirname(leaf)))
    inside = [e["path"] for e in entries if os.path.dirname(e["path"]) == leaf]
    steps = [("mkdir", "/made by linux"),
             ("write", "/made by linux/small.txt", SMALL),
             ("write", "/made by linux/" + ACCENTED, b"accent"),
             ("write", "/big", BIG),
             ("symlink", "made by linux/small.txt", "/link to small"),
             ("symlink", LONG_TARGET, "/long link"),
             ("link", "/made by linux/small.txt", "/hard link"),
             ("link", "/hard link", "/made by linux/third name"),
             ("remove", "/made by linux/third name"),
             ("remove", fragmented), ("remove", plain), ("rmdir", busy)]
    steps += [("remove", p) for p in inside] + [("rmdir", leaf)]
    made = {"/made by linux": ["dir", 4, None],
            "/made by linux/small.txt": ["file", len(SMALL), sha(SMALL)],
            "/made by linux/" + ACCENTED: ["file", 6, sha(b"accent")],
            "/big": ["file", len(BIG), sha(BIG)],
            "/link to small": ["symlink", len("made by linux/small.txt"), None],
            "/long link": ["symlink", len(LONG_TARGET), None],
            "/hard link": ["file", len(SMALL), sha(SMALL)]}
    return steps, {fragmented, plain, leaf} | set(inside), made, ("rmdir", busy)


class KernelReader(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="kernel-reader-")
        batch = kernelreader.Batch(KERNEL, timeout=170)
        cls.info, cls.listed = {}, {}
        for shape in SHAPES:
            path = os.path.join(cls.tmp, shape + ".img")
            cls.info[shape] = build(path, shape)
            cls.listed[shape] = batch.list(path)
        broken = os.path.join(cls.tmp, "bad-signature.img")
        build(broken, "x-1k", "--corrupt", "bad-signature")
        cls.refused = batch.list(broken)
        cls.changed = {}
        for shape in CHANGED:
            path = os.path.join(cls.tmp, shape + "-changed.img")
            shutil.copy(os.path.join(cls.tmp, shape + ".img"), path)
            plan = change_plan(cls.info[shape])
            cls.changed[shape] = (path, plan, batch.change(path, plan[0]), batch.list(path))
        cls.library = LibraryPlan(cls.tmp, batch) if PROBE else None
        cls.result = r = batch.run()
        print("kernel %s: %.1f s wall, %.2f s to init, %.2f s to disks ready; per operation: %s"
              % (r["kernel"], r["wall_seconds"], r["init_seconds"] or 0, r["boot_seconds"] or 0,
                 ", ".join("%s %.2f s" % (o["op"], o["seconds"]) for o in r["ops"] if o["finished"])),
              file=sys.stderr)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def op(self, index, mounted=True):
        r = self.result
        tail = r["console"][-2000:] + r["qemu_errors"]
        self.assertFalse(r["timed_out"], tail)
        self.assertEqual(r["setup_errors"] + r["unparsed"], [], tail)
        self.assertGreater(len(r["ops"]), index, tail)
        op = r["ops"][index]
        self.assertTrue(op["finished"], tail)
        if mounted:
            self.assertEqual((op["mounted"], op["unmounted"], op["read_only"]),
                             (True, True, op["op"] == "list"),
                             op["mount_error"] + op["umount_error"] + op["log"])
            self.assertEqual(op.get("warnings", []), [])
        return op

    def test_lists_what_the_builder_made(self):
        for shape, index in self.listed.items():
            with self.subTest(shape=shape):
                op, info, bs = self.op(index), self.info[shape], SHAPES[shape][1]
                want, cnids = built(info)
                self.assertEqual(seen(op), want)
                self.assertEqual(
                    {p: (e["inode"], e["links"], e["perm"]) for p, e in op["entries"].items()},
                    {p: (cnids[p], 1, 0o755 if want[p][0] == "dir" else 0o644) for p in want})
                fs = op["statfs"]
                self.assertEqual((fs["blocks"] * fs["block_size"], fs["free"] * fs["block_size"]),
                                 (info["total_blocks"] * bs, info["free_blocks"] * bs))

    def test_refuses_a_damaged_volume_and_says_why(self):
        op = self.op(self.refused, mounted=False)
        self.assertFalse(op["mounted"])
        self.assertTrue(op["mount_error"])
        self.assertTrue(any("hfsplus: unable to find HFS+ superblock" in line for line in op["log"]),
                        op["log"])

    def test_changes_by_the_kernel_are_listed_and_clean(self):
        for shape, (path, plan, change, after) in self.changed.items():
            with self.subTest(shape=shape):
                steps, gone, made, refused = plan
                op = self.op(change)
                self.assertEqual([s["step"][:2] for s in op["steps"] if s["status"]], [refused])
                self.assertEqual(len(op["steps"]), len(steps))

                listing = self.op(after)
                want, cnids = built(self.info[shape])
                for p in sorted(gone, key=lambda p: -p.count("/")):
                    want[os.path.dirname(p)][1] -= 1
                    del want[p]
                want.update(made)
                # The root also holds the driver's hidden private folder.
                want["/"][1] += sum(os.path.dirname(p) == "/" for p in made) + 1
                self.assertEqual(seen(listing), want)

                e = listing["entries"]
                kept = [p for p in want if p in cnids]
                self.assertEqual({p: e[p]["inode"] for p in kept}, {p: cnids[p] for p in kept})
                fresh = [e[p]["inode"] for p in made]
                self.assertTrue(all(i >= self.info[shape]["next_catalog_id"] for i in fresh), fresh)
                self.assertEqual((e["/link to small"]["target"], e["/long link"]["target"]),
                                 ("made by linux/small.txt", LONG_TARGET))
                small, hard = e["/made by linux/small.txt"], e["/hard link"]
                self.assertEqual((hard["inode"], hard["links"], small["links"]), (small["inode"], 2, 2))
                fs = listing["statfs"]
                self.assertEqual(fs["free"] * fs["block_size"],
                                 header_free_blocks(path) * SHAPES[shape][1])

                check = checker(path)
                self.assertEqual(check.returncode, 0, "the checker on the kernel's volume:\n"
                                 + check.stdout + check.stderr)
                # The checker counts the kernel's links: one more in the
                # indirect node's link count is a fault.
                img = Image(path)
                img.path = path + ".miscounted"
                img.add32(inode_record(img) + 44, 1)
                img.save()
                self.assertRegex(checker(img.path).stdout,
                                 r"^catalog file \d+ \(\d+, 'iNode\d+'\): link count 3, "
                                 r"but 2 hard links name it\n$")


    def test_the_library_and_the_kernel_read_each_others_changes(self):
        if self.library is None:
            self.skipTest("MORV_CATALOG_PROBE names no catalog_probe")
        lib = self.library
        self.assertEqual(lib.unclean, [])
        listing = self.op(lib.listed)
        self.assertEqual(seen(listing), lib.want)
        e = listing["entries"]
        self.assertEqual({p: e[p]["target"] for p in lib.targets}, lib.targets)
        kept = [p for p in lib.want if p in lib.cnids]
        self.assertEqual({p: e[p]["inode"] for p in kept}, {p: lib.cnids[p] for p in kept})

        mac = self.op(lib.mac_listed)
        self.assertEqual(seen(mac), lib.mac_want)
        self.assertEqual((mac["entries"]["/link 1"]["inode"], mac["entries"]["/link 1"]["links"]), (16, 1))

        self.assertEqual([s["status"] for s in self.op(lib.linking)["steps"]], [0, 0])
        linked = self.op(lib.linked_listed)["entries"]
        node = linked[lib.links[0]]["inode"]
        self.assertEqual([linked[p]["inode"] for p in lib.links], [node] * 3)
        self.assertEqual([linked[p]["links"] for p in lib.links], [3] * 3)
        size = 12 * 4096
        follow = [a for p in lib.links for a in ("follow", p, "size", p)]
        self.assertEqual(probe(lib.linked, *follow).split(), [str(node), str(size)] * 3)
        # The last link takes the indirect node file and its blocks with it.
        probe(lib.linked, *[a for p in lib.links for a in ("delete", p)])
        check = checker(lib.linked)
        self.assertEqual(check.returncode, 0, check.stdout + check.stderr)
        self.assertEqual(header_free_blocks(lib.linked), lib.linked_info["free_blocks"] + 12 + 9)


def main():
    global KERNEL
    try:
        KERNEL = kernelreader.provision()
    except kernelreader.KernelUnavailable as e:
        required = bool(os.environ.get("MORV_KERNEL_REQUIRED"))
        print("kernel_reader %s: %s" % ("fails" if required else "skipped", e), file=sys.stderr)
        return 1 if required else kernelreader.EXIT_UNAVAILABLE
    result = unittest.main(exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
