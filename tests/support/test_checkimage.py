# SPDX-License-Identifier: MIT
"""Tests of the volume checker against xorriso volumes, builder volumes and
deliberate damage."""

import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unicodedata
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
CHECK = os.path.join(HERE, "checkimage.py")
XORRISO = os.path.join(HERE, "xorrisoimage.py")
BUILD = os.path.join(HERE, "mkimage.py")
sys.path.insert(0, HERE)

SIZE = 4 * 1024 * 1024


def run(*cmd):
    return subprocess.run([sys.executable] + [str(c) for c in cmd], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, universal_newlines=True, timeout=120)


def be32(b, o):
    return struct.unpack_from(">I", b, o)[0]


class Image:
    """A builder image in memory with just enough reading to aim a patch."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as f:
            self.data = bytearray(f.read())
        self.bs = be32(self.data, 1024 + 40)
        cat_start = be32(self.data, 1024 + 272 + 16)   # first catalog extent
        self.cat = cat_start * self.bs
        self.node_size = struct.unpack_from(">H", self.data, self.cat + 32)[0]

    def node(self, n):
        return self.cat + n * self.node_size

    def leaf_records(self):
        """(offset of key, offset of record data) of every catalog leaf record."""
        n = be32(self.data, self.cat + 14 + 10)        # firstLeafNode
        while n:
            base = self.node(n)
            nrec = struct.unpack_from(">H", self.data, base + 10)[0]
            for i in range(nrec):
                off = base + struct.unpack_from(">H", self.data, base + self.node_size - 2 * (i + 1))[0]
                klen = struct.unpack_from(">H", self.data, off)[0]
                yield off, off + 2 + klen
            n = be32(self.data, base)

    def node_bitmap_byte(self, n):
        """Offset of the byte that holds node n's bit: the header node's map
        record, then the map nodes chained through fLink."""
        part, length, byte = self.node(0) + 14 + 106 + 128, self.node_size - 256, n // 8
        link = be32(self.data, self.node(0))
        while byte >= length:
            byte -= length
            base = self.node(link)
            first, free = struct.unpack_from(">HH", self.data, base + self.node_size - 4)[::-1]
            part, length, link = base + first, free - first, be32(self.data, base)
        return part + byte

    def add32(self, offset, delta):
        struct.pack_into(">I", self.data, offset, (be32(self.data, offset) + delta) & 0xFFFFFFFF)

    def save(self):
        with open(self.path, "wb") as f:
            f.write(self.data)


class CheckerTestCase(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="checkimage-test.")
        self.addCleanup(shutil.rmtree, self.tmp)

    def path(self, name):
        return os.path.join(self.tmp, name)

    def check(self, image, *extra):
        r = run(CHECK, image, *extra)
        self.assertNotIn("Traceback", r.stderr)
        return r.returncode, r.stdout

    def assert_clean(self, image, *extra):
        rc, out = self.check(image, *extra)
        self.assertEqual((rc, out), (0, ""))

    def assert_fault(self, image, *fragments):
        rc, out = self.check(image)
        self.assertEqual(rc, 1, out)
        for fragment in fragments:
            self.assertIn(fragment, out)
        self.assertLess(len(out.splitlines()), 8, "one fault should give a few lines:\n" + out)
        return out

    def build(self, name, *args, size=SIZE):
        out = self.path(name)
        r = run(BUILD, out, "--size", size, "--label", "Test Vol", *args)
        self.assertEqual(r.returncode, 0, r.stderr)
        return out


@unittest.skipUnless(shutil.which("xorriso") and shutil.which("blkid"), "needs xorriso and blkid")
class XorrisoVolumes(CheckerTestCase):
    def test_xorriso_volumes_pass_and_carry_the_label(self):
        cases = [("MyLabel", 0, 2048), ("Ünïcödé Lábel", 7, 2048), ("日本語ラベル", 300, 512)]
        for label, files, bs in cases:
            with self.subTest(label=label, files=files):
                out = self.path("x.img")
                r = run(XORRISO, out, "--label", label, "--files", files, "--block-size", bs)
                self.assertEqual(r.returncode, 0, r.stderr)
                with open(out, "rb") as f:
                    self.assertEqual(f.read(1026)[1024:], b"H+")
                self.assert_clean(out, "--allow-orphan-blocks")
                # xorriso's one leaked block is seen without the allowance
                rc, text = self.check(out)
                self.assertEqual(rc, 1)
                self.assertRegex(text, r"^allocation bitmap: blocks marked but used by nothing: \d+\n$")
                blkid = subprocess.run(["blkid", "-p", "-o", "value", "-s", "LABEL", out],
                                       stdout=subprocess.PIPE, universal_newlines=True)
                self.assertEqual(unicodedata.normalize("NFC", blkid.stdout.strip()),
                                 unicodedata.normalize("NFC", label))

    def test_offset_reads_a_volume_inside_a_larger_file(self):
        vol = self.path("x.img")
        self.assertEqual(run(XORRISO, vol, "--label", "Inner", "--files", 3).returncode, 0)
        outer = self.path("outer.img")
        with open(vol, "rb") as f, open(outer, "wb") as g:
            g.write(b"\xAA" * 8192 + f.read() + b"\x55" * 4096)
        self.assert_clean(outer, "--offset", 8192, "--allow-orphan-blocks")
        self.assert_fault(outer, "bad signature")


@unittest.skipUnless(os.path.exists(BUILD), "needs the image builder")
class BuilderVolumes(CheckerTestCase):
    def test_builder_variants_pass(self):
        variants = [
            (),
            ("--hfsx",),
            ("--files", 300, "--folders", 20),
            ("--files", 1500, "--catalog-node-size", 512, "--catalog-fragments", 12),
            ("--block-size", 512, "--files", 100, "--fragmented-files", 5, "--file-fragments", 12),
            ("--hfsx", "--files", 400, "--folders", 40, "--name-length", 60),
            ("--extents-node-size", 512, "--files", 40, "--fragmented-files", 30, "--file-fragments", 20),
            ("--hfsx", "--files", 300, "--folders", 50, "--nesting", 5, "--scatter-nodes",
             "--catalog-node-size", 512),
        ]
        for args in variants:
            with self.subTest(args=args):
                self.assert_clean(self.build("v.img", *args, size=4 * SIZE))

    def test_each_corruption_is_named(self):
        deep = ("--files", 400, "--catalog-node-size", 512)
        cases = [
            ("bad-signature", (), ["volume header: bad signature 0x"]),
            ("header-kind", (), ["catalog header: node 0 has kind"]),
            ("header-records", (), ["catalog header: node 0 has kind 1 and"]),
            ("btree-type", (), ["catalog header: btreeType"]),
            ("extents-btree-type", (), ["extents overflow header: btreeType"]),
            ("index-self", deep, ["points back at its own node"]),
            ("index-beyond", deep, ["outside 1.."]),
            ("index-cycle", deep, ["already in the tree"]),
            ("offsets-order", (), ["catalog node", "record offsets not strictly increasing"]),
            ("no-root-thread", (), ["no thread record for the root folder"]),
            ("long-root-name", ("--catalog-node-size", 4096), ["name of 256 units is longer than 255"]),
        ]
        for kind, args, fragments in cases:
            with self.subTest(kind=kind):
                self.assert_clean(self.build("clean.img", *args))
                self.assert_fault(self.build("bad.img", "--corrupt", kind, *args), *fragments)

    def patched(self, *args):
        return Image(self.build("p.img", *args))

    def test_byte_patches_are_caught(self):
        def leaf_records(img):
            img.add32(img.cat + 14 + 6, 1)

        def node_bitmap_bit(img):
            root = be32(img.data, img.cat + 14 + 2)
            map_at = img.cat + 14 + 106 + 128
            img.data[map_at + root // 8] &= ~(0x80 >> (root % 8)) & 0xFF

        def root_valence(img):
            for key, rec in img.leaf_records():
                if be32(img.data, key + 2) == 1:
                    img.add32(rec + 4, 1)

        def free_blocks(img):
            img.add32(1024 + 48, 1)

        def stray_block(img):
            last = be32(img.data, 1024 + 44) - 1
            bitmap = be32(img.data, 1024 + 112 + 16) * img.bs
            img.data[bitmap + (last - 20) // 8] |= 0x80 >> ((last - 20) % 8)

        def thread_name(img):
            for key, rec in img.leaf_records():
                if struct.unpack_from(">H", img.data, rec)[0] == 4:   # a file thread
                    img.data[rec + 11] ^= 0x01
                    return

        def alternate_signature(img):
            end = be32(img.data, 1024 + 44) * img.bs
            img.data[end - 1024] = 0

        def next_catalog_id(img):
            struct.pack_into(">I", img.data, 1024 + 64, 17)

        def extents_beyond_volume(img):
            total = be32(img.data, 1024 + 44)
            for key, rec in img.leaf_records():
                if struct.unpack_from(">H", img.data, rec)[0] == 2 and be32(img.data, rec + 88 + 12):
                    struct.pack_into(">I", img.data, rec + 88 + 16, total)
                    return

        def overflow_start(img):
            ext = be32(img.data, 1024 + 192 + 16) * img.bs
            ext_ns = struct.unpack_from(">H", img.data, ext + 32)[0]
            leaf = ext + be32(img.data, ext + 14 + 10) * ext_ns
            img.add32(leaf + 14 + 8, 1)          # startBlock of the first key

        def shared_block(img):
            cat_block = be32(img.data, 1024 + 272 + 16)
            for key, rec in img.leaf_records():
                if struct.unpack_from(">H", img.data, rec)[0] == 2 and be32(img.data, rec + 88 + 12):
                    struct.pack_into(">I", img.data, rec + 88 + 16, cat_block)
                    return

        def node_past_total(img):
            total = be32(img.data, img.cat + 14 + 22)
            img.data[img.node_bitmap_byte(total)] |= 0x80 >> (total % 8)

        def alternate_extents(img):
            end = be32(img.data, 1024 + 44) * img.bs
            img.add32(end - 1024 + 272 + 20, 1)   # the catalog's first blockCount

        cases = [
            (node_past_total, ["catalog node bitmap: nodes past totalNodes"]),
            (alternate_extents, ["extents of the catalog file differ"]),
            (overflow_start, ["overflow record at fork block 9, but the fork's earlier extents end at block 8"]),
            (shared_block, ["are also used by"]),
            (leaf_records, ["catalog header: leafRecords"]),
            (node_bitmap_bit, ["catalog node bitmap: nodes in use but not marked"]),
            (root_valence, ["catalog folder 2", "valence"]),
            (free_blocks, ["volume header: freeBlocks"]),
            (stray_block, ["allocation bitmap: blocks marked but used by nothing"]),
            (thread_name, ["thread record"]),
            (alternate_signature, ["alternate volume header: bad signature"]),
            (next_catalog_id, ["nextCatalogID 17"]),
            (extents_beyond_volume, ["runs past the volume", "allocation bitmap"]),
        ]
        for patch, fragments in cases:
            with self.subTest(patch=patch.__name__):
                img = self.patched("--files", 200, "--catalog-node-size", 512,
                                          "--fragmented-files", 3, "--file-fragments", 12)
                before = bytes(img.data)
                patch(img)
                self.assertTrue(bytes(img.data) != before, "patch changed nothing")
                img.save()
                self.assert_fault(img.path, *fragments)

    def test_link_records_are_checked(self):
        # Builder files turned into symbolic and hard links by their Finder
        # type; well-formed links made by the Linux kernel pass (kernel_reader).
        def files(img, with_data):
            for key, rec in img.leaf_records():
                if struct.unpack_from(">H", img.data, rec)[0] == 2 and \
                        bool(be32(img.data, rec + 88 + 12)) == with_data:
                    yield rec

        def relabel(rec, kind, mode=None, special=None):
            img.data[rec + 48:rec + 56] = kind
            if mode is not None:
                struct.pack_into(">H", img.data, rec + 42, mode)
            if special is not None:
                struct.pack_into(">I", img.data, rec + 44, special)

        cases = [
            (False, b"slnkrhap", 0o120777, None, ["symbolic link has no target"]),
            (True, b"slnkrhap", None, None, ["fileMode 0100644 disagrees with fdType 'slnk'"]),
            (False, b"\0" * 8, 0o120777, None, ["fileMode 0120777 disagrees with fdType"]),
            (True, b"hlnkhfs+", 0, 7, ["hard link has a non-empty data fork",
                                       "hard link names iNode7, which is not in a private metadata "
                                       "folder: the root has none"]),
        ]
        for with_data, kind, mode, special, fragments in cases:
            with self.subTest(kind=kind, mode=mode):
                img = self.patched("--files", 6, "--fragmented-files", 2, "--file-fragments", 3,
                                   "--file-data")
                relabel(next(files(img, with_data)), kind, mode, special)
                img.save()
                self.assertEqual(self.assert_fault(img.path, *fragments).count("\n"), len(fragments))
        img = self.patched("--files", 6, "--fragmented-files", 2, "--file-fragments", 3)
        relabel(next(files(img, True)), b"slnkrhap", 0o120777)
        img.save()
        self.assert_fault(img.path, "symbolic link target holds a NUL byte")

    def test_node_bitmap_continues_in_map_nodes(self):
        args = ("--files", 3000, "--catalog-node-size", 512, "--free-catalog-nodes", 40000,
                "--scatter-nodes", "--seed", 1)
        img = Image(self.build("m.img", *args, size=8 * SIZE))
        self.assert_clean(img.path)
        root = be32(img.data, img.cat + 14 + 2)
        total = be32(img.data, img.cat + 14 + 22)
        self.assertGreater(root, 8 * (img.node_size - 256), "root should lie in a map node's range")
        img.data[img.node_bitmap_byte(root)] ^= 0x80 >> (root % 8)
        img.data[img.node_bitmap_byte(total - 1)] ^= 0x80 >> ((total - 1) % 8)
        img.save()
        self.assert_fault(img.path, "nodes in use but not marked: %d" % root,
                          "nodes marked but not in use: %d" % (total - 1))

    def test_name_order_follows_the_key_compare_type(self):
        # Builder names alternate "File N" / "file N": ascending under case
        # folding, out of order under binary compare.
        img = self.patched("--files", 20)
        img.data[img.cat + 14 + 37] = 0xBC
        img.save()
        self.assert_fault(img.path, "keyCompareType 0xBC on an HFS+ volume")
        img.data[1024:1026] = b"HX"
        end = be32(img.data, 1024 + 44) * img.bs
        img.data[end - 1024:end - 1022] = b"HX"
        img.save()
        rc, out = self.check(img.path)
        self.assertEqual(rc, 1)
        self.assertIn("catalog node 1: record 3 key (2, 'File 000001') is not above the previous key", out)
        self.assertNotIn("keyCompareType", out)

    def test_damaged_images_never_crash(self):
        clean = Image(self.build("r.img", "--files", 300, "--catalog-node-size", 512,
                                 "--extents-node-size", 512, "--fragmented-files", 10,
                                 "--file-fragments", 12))
        meta_end = clean.cat + be32(clean.data, 1024 + 272 + 20) * clean.bs
        rng = random.Random(7)
        for i in range(30):
            img = Image(clean.path)
            img.path = self.path("damaged.img")
            for _ in range(rng.randint(1, 6)):
                at = rng.randrange(1024, meta_end - 8)
                img.data[at:at + 4] = bytes(rng.randrange(256) for _ in range(4))
            img.save()
            r = run(CHECK, img.path)
            self.assertIn(r.returncode, (0, 1), r.stderr)
            self.assertEqual(r.stderr, "")
        # sizes far beyond the image must be reported, not allocated
        img = Image(clean.path)
        struct.pack_into(">I", img.data, 1024 + 44, 0xFFFFFFF0)
        struct.pack_into(">QII", img.data, 1024 + 272, 1 << 62, 0, 0x7FFFFFFF)
        struct.pack_into(">II", img.data, 1024 + 272 + 16, 0, 0x7FFFFFFF)
        img.save()
        self.assert_fault(img.path, "exceeds the image", "catalog file fork: logicalSize")

    def test_usage_errors(self):
        self.assertEqual(run(CHECK).returncode, 2)
        self.assertEqual(run(CHECK, self.path("missing.img")).returncode, 2)
        self.assertEqual(run(CHECK, "a", "--offset").returncode, 2)
        empty = self.path("empty.img")
        open(empty, "wb").close()
        self.assertEqual(self.check(empty)[0], 1)


class Journals(CheckerTestCase):
    JOURNAL = ["--files", 20, "--journal", "dirty"]

    def replayed(self, image):
        out = self.path("replayed.img")
        rc, text = self.check(image, "--replayed", out)
        with open(out, "rb") as f:
            return rc, text, f.read()

    def test_replay_agrees_with_the_builder(self):
        """The checker's own replay of every dirty shape gives the builder's
        directly changed copy; a stale journal is left alone."""
        shapes = ([], ["--journal-byte-order", "big", "--journal-killed"],
                  ["--journal-wrap", "header", "--journal-list-entries", "2"],
                  ["--journal-wrap", "data", "--journal-format", "old"],
                  ["--journal-rename", "One", "--journal-rename", "Two", "--journal-rename", "Three"],
                  ["--journal-sector", 4096, "--journal-blhdr", 8192, "--block-size", 512],
                  ["--journal-stale"])
        for shape in shapes:
            with self.subTest(shape=shape):
                applied = self.path("applied.img")
                image = self.build("j.img", *self.JOURNAL, "--journal-applied", applied, *shape)
                with open(image, "rb") as f, open(applied, "rb") as g:
                    before, want = f.read(), g.read()
                rc, text, got = self.replayed(image)
                self.assertEqual((rc, text), (0, ""))
                self.assertTrue(got == want, "replay differs from the builder's copy")
                self.assertEqual(got == before, "--journal-stale" in shape)

    def test_replay_is_checked(self):
        """A journaled block that breaks the catalog is found after replay and
        not before (old-format lists carry no data checksum to stop it)."""
        image = self.build("j.img", *self.JOURNAL, "--journal-format", "old")
        with open(image, "r+b") as f:
            data = bytearray(f.read())
            bs = be32(data, 1024 + 40)
            offset = struct.unpack_from(">Q", data, be32(data, 1024 + 12) * bs + 36)[0]
            first_block = offset + 512 + 4096              # the data after the first list header
            data[first_block:first_block + 4096] = bytes(4096)
            f.seek(0)
            f.write(data)
        self.assert_clean(image, "--no-replay")
        self.assertEqual(self.check(image)[0], 1)

    def test_each_damage_is_named_and_nothing_replayed(self):
        """Every damage of the builder's list is reported as a journal fault,
        and the replayed image is the image as it lies."""
        from mkimage import JOURNAL_DAMAGE  # noqa: E402
        for kind in JOURNAL_DAMAGE:
            with self.subTest(kind=kind):
                image = self.build("j.img", *self.JOURNAL, "--journal-list-entries", 1,
                                   "--journal-damage", kind)
                with open(image, "rb") as f:
                    before = f.read()
                rc, text, got = self.replayed(image)
                self.assertEqual((rc, text.split(":")[0]), (1, "journal"), text)
                self.assertTrue(got == before, "a damaged journal was replayed")


if __name__ == "__main__":
    unittest.main()
