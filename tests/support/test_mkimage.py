# SPDX-License-Identifier: MIT
"""Tests of the HFS+ image builder: blkid must recognise its volumes, an
independent decoding of each image must find the invariants of the format,
and the volume checker (when present) must pass clean images and fail each
corruption."""

import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unicodedata
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
MKIMAGE = os.path.join(HERE, "mkimage.py")
CHECKIMAGE = os.path.join(HERE, "checkimage.py")
FOLDING = os.path.join(os.path.dirname(os.path.dirname(HERE)), "scripts", "data",
                       "hfsplus-case-folding.txt")
BLKID = shutil.which("blkid") or "/usr/sbin/blkid"


def load_folding():
    fold = list(range(65536))
    with open(FOLDING) as f:
        for line in f:
            if line.strip() and not line.startswith("#"):
                a, b = line.split()
                fold[int(a, 16)] = int(b, 16)
    return fold


FOLD = load_folding()


def fast_unicode_compare(a, b):
    """The HFS+ case-insensitive name order, unit by unit (lists of ints)."""
    i = j = 0
    while True:
        c1 = c2 = 0
        while i < len(a) and c1 == 0:
            c1 = FOLD[a[i]]
            i += 1
        while j < len(b) and c2 == 0:
            c2 = FOLD[b[j]]
            j += 1
        if c1 != c2:
            return -1 if c1 < c2 else 1
        if c1 == 0:
            return 0


def compare_keys(a, b, binary):
    if a[0] != b[0]:
        return -1 if a[0] < b[0] else 1
    if binary:
        return (a[1] > b[1]) - (a[1] < b[1])
    return fast_unicode_compare(a[1], b[1])


class Image:
    """Independent decoding of a built image."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as f:
            self.d = f.read()
        self.size = len(self.d)
        h = self.d[1024:1536]
        self.hdr = h
        self.sig, self.version, self.attributes = struct.unpack_from(">2sHI", h, 0)
        (self.file_count, self.folder_count, self.bs, self.total_blocks, self.free_blocks,
         self.next_alloc, _, _, self.next_cnid) = struct.unpack_from(">9I", h, 32)
        self.forks = {n: self.fork(h, off) for n, off in
                      (("allocation", 112), ("extents", 192), ("catalog", 272))}
        self.ext_tree = self.tree_of("extents", self.forks["extents"][2])
        overflow = {}
        for key, data in self.leaf_records(self.ext_tree):
            _, fork_type, _, fid, start = struct.unpack(">HBBII", key)
            exts = [e for e in struct.iter_unpack(">II", data) if e[1]]
            overflow.setdefault((fid, fork_type), []).append((start, exts))
        self.overflow = overflow
        self.cat_extents = self.full_extents(4, self.forks["catalog"][2])
        self.cat = self.tree_of("catalog", self.cat_extents)

    def fork(self, buf, off):
        size, clump, blocks = struct.unpack_from(">QII", buf, off)
        exts = [e for e in struct.iter_unpack(">II", buf[off + 16:off + 80]) if e[1]]
        return size, blocks, exts

    def full_extents(self, fid, exts, fork_type=0):
        exts = list(exts)
        for start, more in sorted(self.overflow.get((fid, fork_type), [])):
            assert start == sum(c for _, c in exts), "overflow record out of place"
            exts += more
        return exts

    def tree_of(self, name, exts):
        data = b"".join(self.d[s * self.bs:(s + c) * self.bs] for s, c in exts)
        hdr = struct.unpack_from(">HIIIIHHII", data, 14)
        keys = ("depth", "root", "leaf_records", "first_leaf", "last_leaf", "node_size",
                "max_key", "total_nodes", "free_nodes")
        t = dict(zip(keys, hdr), data=data)
        t["btree_type"], t["compare"], t["attributes"] = struct.unpack_from(">BBI", data, 14 + 36)
        return t

    def node(self, tree, n):
        ns = tree["node_size"]
        base = n * ns
        flink, blink, kind, height, count = struct.unpack_from(">IIbBH", tree["data"], base)
        offs = struct.unpack_from(">%dH" % (count + 1), tree["data"], base + ns - 2 * (count + 1))
        offs = offs[::-1]
        recs = [tree["data"][base + offs[i]:base + offs[i + 1]] for i in range(count)]
        return flink, blink, kind, height, recs

    def leaf_records(self, tree):
        n, prev = tree["first_leaf"], 0
        while n:
            flink, blink, kind, height, recs = self.node(tree, n)
            assert (kind, height, blink) == (-1, 1, prev), "leaf %d: bad descriptor" % n
            for r in recs:
                klen = struct.unpack_from(">H", r)[0]
                yield r[:2 + klen], r[2 + klen:]
            prev, n = n, flink
        assert prev == tree["last_leaf"]

    def catalog(self):
        out = []
        for key, data in self.leaf_records(self.cat):
            parent, nlen = struct.unpack_from(">IH", key, 2)
            name = list(struct.unpack_from(">%dH" % nlen, key, 8))
            out.append(((parent, name), data))
        return out

    def bitmap_bit(self, block):
        start = self.forks["allocation"][2][0][0] * self.bs
        return self.d[start + block // 8] >> (7 - block % 8) & 1


def units(text):
    b = text.encode("utf-16-be", "surrogatepass")
    return list(struct.unpack(">%dH" % (len(b) // 2), b))


class MkimageTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="mkimage-")
        self.addCleanup(shutil.rmtree, self.tmp)

    def run_mkimage(self, name, *args):
        path = os.path.join(self.tmp, name)
        r = subprocess.run([sys.executable, MKIMAGE, path] + [str(a) for a in args],
                           capture_output=True, text=True)
        return path, r

    def build(self, name, *args):
        path, r = self.run_mkimage(name, *args)
        self.assertEqual(r.returncode, 0, r.stderr)
        return path

    def checker(self, path):
        r = subprocess.run([sys.executable, CHECKIMAGE, path], capture_output=True, text=True)
        return r.returncode, r.stdout + r.stderr

    def blkid(self, path):
        r = subprocess.run([BLKID, "-p", "-o", "udev", path], capture_output=True)
        out = {}
        for line in r.stdout.split(b"\n"):
            if b"=" in line:
                k, v = line.split(b"=", 1)
                out[k.decode()] = re.sub(rb"\\x([0-9a-fA-F]{2})",
                                         lambda m: bytes([int(m.group(1), 16)]), v).decode()
        return {"TYPE": out.get("ID_FS_TYPE"), "LABEL": out.get("ID_FS_LABEL_ENC")}

    def check_volume(self, path, size, label, bs, cns, ens, hfsx, files, folders, frags,
                     free):
        img = Image(path)
        self.assertEqual((img.sig, img.version), (b"HX", 5) if hfsx else (b"H+", 4))
        self.assertTrue(img.attributes & 0x100)
        self.assertEqual(img.d[size - 1024:size - 512], img.hdr, "alternate header")
        self.assertEqual(img.d[:1024], bytes(1024), "boot blocks")
        self.assertEqual((img.bs, img.total_blocks), (bs, size // bs))
        self.assertEqual((img.file_count, img.folder_count), (files, folders))
        # Allocation bitmap: set bits = used blocks, special files marked, the
        # bits past totalBlocks clear.
        alloc_size, alloc_blocks, alloc_ext = img.forks["allocation"]
        bitmap = img.d[alloc_ext[0][0] * bs:alloc_ext[0][0] * bs + alloc_size]
        set_bits = sum(bin(b).count("1") for b in bitmap)
        self.assertEqual(set_bits, img.total_blocks - img.free_blocks)
        self.assertEqual(sum(img.bitmap_bit(b) for b in range(img.total_blocks)), set_bits)
        self.assertTrue(img.bitmap_bit(0) and img.bitmap_bit(img.total_blocks - 1))
        for name in ("allocation", "extents"):
            for s, c in img.forks[name][2]:
                self.assertTrue(all(img.bitmap_bit(b) for b in range(s, s + c)), name)
        # Catalog: fragments, sizes, free nodes, header fields.
        cat = img.cat
        cat_size, cat_blocks, _ = img.forks["catalog"]
        self.assertEqual(len(img.cat_extents), frags)
        for (s1, c1), (s2, _) in zip(img.cat_extents, img.cat_extents[1:]):
            self.assertGreater(s2, s1 + c1, "catalog fragments adjacent")
        for s, c in img.cat_extents:
            self.assertTrue(all(img.bitmap_bit(b) for b in range(s, s + c)))
        self.assertEqual(cat_size, cat["total_nodes"] * cns)
        self.assertEqual(cat_blocks * bs, cat_size)
        if free is not None:
            # Whole allocation blocks may add a few nodes when they are smaller.
            self.assertGreaterEqual(cat["free_nodes"], free)
            self.assertLess(cat["free_nodes"], free + max(1, bs // cns))
        self.assertEqual((cat["node_size"], cat["max_key"], cat["btree_type"], cat["compare"],
                          cat["attributes"]), (cns, 516, 0, 0xBC if hfsx else 0xCF, 6))
        ext = img.ext_tree
        self.assertEqual((ext["node_size"], ext["max_key"], ext["attributes"]), (ens, 10, 2))
        # Catalog records: order, counts, threads, valences, root name.
        recs = img.catalog()
        self.assertEqual(len(recs), cat["leaf_records"])
        for (a, _), (b, _) in zip(recs, recs[1:]):
            self.assertLess(compare_keys(a, b, hfsx), 0, "keys out of order: %r %r" % (a, b))
        by_key = dict((tuple([k[0]] + k[1]), d) for k, d in recs)
        kinds = [struct.unpack_from(">H", d)[0] for _, d in recs]
        self.assertEqual((kinds.count(1), kinds.count(2)), (folders + 1, files))
        self.assertEqual(kinds.count(3) + kinds.count(4), folders + files + 1)
        valence = {}
        for (parent, name), d in recs:
            rtype = struct.unpack_from(">H", d)[0]
            if rtype in (1, 2):
                cnid = struct.unpack_from(">I", d, 8)[0]
                self.assertLess(cnid, img.next_cnid)
                valence[parent] = valence.get(parent, 0) + 1
                thread = by_key[(cnid,)]
                t_type, _, t_parent, t_len = struct.unpack_from(">HHIH", thread)
                self.assertEqual((t_type, t_parent), (rtype + 2, parent))
                self.assertEqual(list(struct.unpack_from(">%dH" % t_len, thread, 10)), name)
        for (parent, name), d in recs:
            if struct.unpack_from(">H", d)[0] == 1:
                cnid = struct.unpack_from(">I", d, 8)[0]
                self.assertEqual(struct.unpack_from(">I", d, 4)[0], valence.get(cnid, 0))
        root_key, root = recs[0]
        self.assertEqual(root_key, (1, units(unicodedata.normalize("NFD", label))))
        self.assertEqual(struct.unpack_from(">I", root, 8)[0], 2)
        return img

    def test_matrix(self):
        # size, label, block, catalog node, extents node, hfsx, files, folders,
        # fragments, free catalog nodes, more options
        matrix = [
            (20 << 20, "Plain", 512, 512, 512, False, 300, 7, 9, 0, []),
            (20 << 20, "Café Ünïcode", 1024, 4096, 32768, True, 1, 0, 8, None, []),
            (20 << 20, "Deep nodes", 4096, 32768, 4096, False, 0, 0, 20, None, []),
            (64 << 20, "Big blocks", 65536, 4096, 512, True, 300, 3, 1, 0, []),
            (200000000, "Big", 4096, 4096, 4096, False, 50000, 100, 9, 0, []),
            (20 << 20, "Ünïcode HX", 512, 32768, 4096, True, 700, 20, 20, 0,
             ["--nesting", 5]),
            (20 << 20, "Scattered", 512, 512, 512, False, 2000, 10, 3, 500,
             ["--scatter-nodes", "--seed", 7]),
        ]
        have_checker = os.path.exists(CHECKIMAGE)
        for i, row in enumerate(matrix):
            size, label, bs, cns, ens, hfsx, files, folders, frags, free, more = row
            with self.subTest(row=i):
                args = ["--size", size, "--label", label, "--block-size", bs,
                        "--catalog-node-size", cns, "--extents-node-size", ens,
                        "--files", files, "--folders", folders, "--catalog-fragments", frags]
                args += ["--hfsx"] if hfsx else []
                args += ["--free-catalog-nodes", free] if free is not None else []
                args += more
                path = self.build("m%d.img" % i, *args)
                self.check_volume(path, size, label, bs, cns, ens, hfsx, files, folders,
                                  frags, free)
                info = self.blkid(path)
                self.assertEqual(info.get("TYPE"), "hfsplus")
                # blkid finds the first leaf by whole blocks and needs room for
                # a 255-unit key in it, so it reads labels only from catalogs
                # whose nodes are at least as large as a block and 1 KiB.
                if cns >= bs and cns >= 1024:
                    self.assertEqual(info.get("LABEL"), unicodedata.normalize("NFD", label))
                if have_checker:
                    rc, out = self.checker(path)
                    self.assertEqual(rc, 0, out)

    def test_extents_overflow_and_big_keys(self):
        # 40 files of 30 one-block extents: 3 overflow records each, with
        # 512-byte extents nodes a tree of depth 2 or more.
        size = 16 << 20
        path = self.build("f.img", "--size", size, "--label", "Frag", "--block-size", 512,
                          "--extents-node-size", 512, "--files", 300, "--folders", 4,
                          "--fragmented-files", 40, "--file-fragments", 30,
                          "--free-extents-nodes", 0, "--name-length", 255,
                          "--catalog-fragments", 12)
        img = self.check_volume(path, size, "Frag", 512, 4096, 512, False, 300, 4, 12, None)
        self.assertGreaterEqual(img.ext_tree["depth"], 2)
        self.assertEqual(img.ext_tree["free_nodes"], 0)
        fragmented = 0
        for key, d in img.catalog():
            if struct.unpack_from(">H", d)[0] == 2:
                self.assertEqual(len(key[1]), 255)
                cnid = struct.unpack_from(">I", d, 8)[0]
                size_b, blocks, exts = img.fork(d, 88)
                if not blocks:
                    continue
                fragmented += 1
                exts = img.full_extents(cnid, exts)
                self.assertEqual((size_b, blocks, len(exts)), (30 * 512, 30, 30))
                for (s1, c1), (s2, _) in zip(exts, exts[1:]):
                    self.assertGreater(s2, s1 + c1)
                self.assertTrue(all(img.bitmap_bit(s) for s, _ in exts))
        self.assertEqual(fragmented, 40)
        if os.path.exists(CHECKIMAGE):
            rc, out = self.checker(path)
            self.assertEqual(rc, 0, out)

    def test_resource_forks_varied_fragments_and_hard_links(self):
        # Fragmented file j has 1 + j mod 12 data and 9 resource fragments,
        # overflow records of both fork types; the first file is the
        # indirect node file of two hard links that carry its number.
        path = self.build("r.img", "--size", 8 << 20, "--label", "R", "--files", 14,
                          "--fragmented-files", 13, "--file-fragments", 12, "--varied-fragments",
                          "--resource-fragments", 9, "--hard-links", 2, "--hard-link-number", 77)
        img = Image(path)
        seen = {}
        for key, d in img.catalog():
            if struct.unpack_from(">H", d)[0] != 2:
                continue
            cnid, special = struct.unpack_from(">I", d, 8)[0], struct.unpack_from(">I", d, 44)[0]
            name = "".join(map(chr, key[1]))
            forks = [img.full_extents(cnid, img.fork(d, off)[2], t) for off, t in ((88, 0), (168, 0xFF))]
            seen[name] = ([len(e) for e in forks], special, d[48:56])
        self.assertEqual(seen["iNode77"], ([1, 9], 2, bytes(8)))
        self.assertEqual([seen["link %d" % i] for i in range(2)], [([0, 0], 77, b"hlnkhfs+")] * 2)
        self.assertEqual(sorted(v[0] for k, v in seen.items() if k.lower().startswith("file")),
                         sorted([[0, 0]] + [[1 + j % 12, 9] for j in range(1, 13)]))
        if os.path.exists(CHECKIMAGE):
            rc, out = self.checker(path)
            self.assertEqual(rc, 0, out)

    def test_label_decomposition(self):
        # HFS+ decomposes as its own table says: Greek tonos as U+030D, letter
        # symbols (U+2126) and compatibility ideographs kept, Hangul split into
        # jamo, astral characters as surrogate pairs.
        label = "\u03ac\u2126\uf900\uac01\U0001F600e\u0301"
        path = self.build("d.img", "--size", 4 << 20, "--label", label)
        self.assertEqual(Image(path).catalog()[0][0][1],
                         [0x03B1, 0x030D, 0x2126, 0xF900, 0x1100, 0x1161, 0x11A8,
                          0xD83D, 0xDE00, 0x0065, 0x0301])

    def test_orders_differ_between_hfs_and_hfsx(self):
        names = {}
        for hfsx in (False, True):
            path = self.build("o%d.img" % hfsx, "--size", 4 << 20, "--label", "O",
                              "--files", 20, *(["--hfsx"] if hfsx else []))
            names[hfsx] = [k[1] for k, _ in Image(path).catalog() if k[0] == 2]
        self.assertEqual(sorted(map(tuple, names[False])), sorted(map(tuple, names[True])))
        self.assertNotEqual(names[False], names[True])

    def test_errors(self):
        cases = [
            (["--size", 64 << 10, "--files", 2000], "too small"),
            (["--size", 4 << 20, "--block-size", 3000], "block size"),
            (["--size", 4 << 20, "--catalog-node-size", 256], "node size"),
            (["--size", (4 << 20) + 100], "512"),
            (["--size", 4 << 20, "--label", "\u00e9" * 128], "255"),
            (["--size", 4 << 20, "--files", 10, "--corrupt", "index-cycle"], "files"),
            (["--size", 4 << 20, "--catalog-fragments", 20, "--free-catalog-nodes", 0],
             "fragments"),
            (["--size", 4 << 20, "--corrupt", "extents-wrap"], "--catalog-fragments 9"),
            (["--size", 4 << 20, "--label", "x" * 255, "--corrupt", "root-name-length"], "shorter"),
        ]
        for args, text in cases:
            with self.subTest(args=args):
                if "--label" not in args:
                    args = args + ["--label", "E"]
                path, r = self.run_mkimage("e.img", *args)
                self.assertEqual(r.returncode, 1)
                self.assertIn(text, r.stderr)
        # 255 units after decomposition still fit.
        self.build("ok.img", "--size", 4 << 20, "--label", "\u00e9" * 127 + "a")

    def test_sizing_options(self):
        args = ["--size", 2 << 20, "--label", "N", "--block-size", 512, "--catalog-node-size", 512]
        path = self.build("n.img", *args, "--catalog-nodes", 2048, "--catalog-clump-size", 4096)
        with open(path, "rb") as f:
            data = f.read()
        vh = data[1024:1536]
        start = struct.unpack_from(">I", vh, 272 + 16)[0] * 512
        total, free = struct.unpack_from(">II", data, start + 14 + 22)
        self.assertEqual((total, free), (2048, 0))
        self.assertEqual(struct.unpack_from(">I", vh, 272 + 8)[0], 4096)
        path = self.build("f.img", "--size", 4 << 20, "--label", "F", "--free-blocks", 5)
        with open(path, "rb") as f:
            f.seek(1024 + 48)
            self.assertEqual(struct.unpack(">I", f.read(4))[0], 5)
        _, r = self.run_mkimage("s.img", "--size", 1 << 20, "--label", "S", "--free-blocks", 300)
        self.assertIn("fewer than --free-blocks", r.stderr)
        _, r = self.run_mkimage("u.img", *args, "--catalog-nodes", 300)   # one more leaf adds two
        self.assertIn("exactly 300 nodes", r.stderr)

    def test_corruptions(self):
        kinds = ["bad-signature", "header-kind", "header-records", "btree-type",
                 "extents-btree-type", "index-self", "index-beyond", "index-cycle",
                 "offsets-order", "no-root-thread", "long-root-name"]
        have_checker = os.path.exists(CHECKIMAGE)
        for kind in kinds:
            with self.subTest(kind=kind):
                ns = 4096 if kind == "long-root-name" else 512
                path = self.build("c.img", "--size", 16 << 20, "--label", "C",
                                  "--catalog-node-size", ns, "--block-size", 512,
                                  "--files", 2000, "--corrupt", kind)
                if kind == "bad-signature":
                    with open(path, "rb") as f:
                        f.seek(1024)
                        self.assertNotIn(f.read(2), (b"H+", b"HX"))
                    continue
                img = Image(path)
                cat = img.cat
                if kind == "long-root-name":
                    self.assertEqual(len(img.catalog()[0][0][1]), 256)
                elif kind == "no-root-thread":
                    self.assertNotIn((2, []), [k for k, _ in img.catalog()])
                elif kind.startswith("index-"):
                    # Follow the first index records from the root: the
                    # descent must reach a bad node before any leaf.
                    n, seen = cat["root"], []
                    while 0 < n < cat["total_nodes"] and n not in seen:
                        seen.append(n)
                        _, _, kind_, _, recs = img.node(cat, n)
                        if kind_ != 0:
                            break
                        klen = struct.unpack_from(">H", recs[0])[0]
                        n = struct.unpack_from(">I", recs[0], 2 + klen)[0]
                    self.assertTrue(n >= cat["total_nodes"] or n in seen, kind)
                if have_checker:
                    rc, out = self.checker(path)
                    self.assertEqual(rc, 1, "%s: %s" % (kind, out))

    def test_volume_states(self):
        """Attribute bits, and journals whose info block and header decode to
        the asked state, owned by the root's journal files."""
        for options, bits in ((["--not-unmounted"], 0), (["--inconsistent"], 0x900),
                              (["--software-lock"], 0x8100)):
            img = Image(self.build("s.img", "--size", 4 << 20, "--label", "S", *options))
            self.assertEqual(img.attributes, bits, options)
        for state in ("clean", "uninitialised", "dirty", "other-device", "damaged"):
            for order, bs in (("little", 4096), ("big", 512)):
                with self.subTest(state=state, order=order):
                    path = self.build("j.img", "--size", 8 << 20, "--label", "J", "--files", 5,
                                      "--block-size", bs, "--journal", state,
                                      "--journal-byte-order", order)
                    img = Image(path)
                    self.assertEqual(img.attributes, 0x2100)
                    self.assertEqual(img.hdr[8:12], b"HFSJ")
                    self.assertEqual(img.file_count, 6 if state == "other-device" else 7)
                    files = {bytes(struct.pack(">%dH" % len(n), *n)).decode("utf-16-be"): d
                             for (parent, n), d in img.catalog() if parent == 2 and d[1] == 2}
                    forks = {name: img.fork(files[name], 88) for name in files
                             if name.startswith(".journal")}
                    info_block = struct.unpack_from(">I", img.hdr, 12)[0]
                    self.assertEqual(forks[".journal_info_block"], (bs, 1, [(info_block, 1)]))
                    flags, offset, size = struct.unpack_from(">I32xQQ", img.d, info_block * bs)
                    if state == "other-device":
                        self.assertEqual((flags, sorted(forks)), (2, [".journal_info_block"]))
                        continue
                    self.assertEqual(flags, 5 if state == "uninitialised" else 1)
                    jsize, jblocks, jexts = forks[".journal"]
                    self.assertEqual((offset, size), (jexts[0][0] * bs, jsize))
                    fmt = ("<" if order == "little" else ">") + "IIQQQIII"
                    magic, endian, start, end, hsize, _, checksum, _ = struct.unpack_from(
                        fmt, img.d, offset)
                    if state in ("uninitialised", "damaged"):
                        self.assertEqual(img.d[offset:offset + 512], bytes(512))
                        continue
                    self.assertEqual((magic, endian, hsize), (0x4A4E4C78, 0x12345678, size))
                    self.assertEqual(start != end, state == "dirty")
                    self.assertNotEqual(checksum, 0)
                    if os.path.exists(CHECKIMAGE):
                        self.assertEqual(self.checker(path), (0, ""))

    def test_dirty_journals(self):
        """The copy a replay must give is the volume built directly with the
        last label (outside the journal and the volume UUID, which follows the
        first label), and the transactions start where --journal-wrap puts
        them: the first block list header, or its first block, split at the
        end of the buffer."""
        cases = (([], [], "Vol 2"),
                 (["--journal-byte-order", "big"], ["--journal-wrap", "header", "--journal-killed"],
                  "Vol 2"),
                 ([], ["--journal-wrap", "data", "--journal-rename", "A", "--journal-rename",
                       "A much longer label", "--journal-list-entries", "1"], "A much longer label"),
                 (["--block-size", 512, "--journal-sector", 4096, "--journal-blhdr", 8192],
                  ["--journal-format", "old"], "Vol 2"))
        for shape, journal, final in cases:
            with self.subTest(shape=shape, journal=journal):
                common = ["--size", 4 << 20, "--files", 30, "--folders", 3] + shape
                applied = os.path.join(self.tmp, "a.img")
                dirty = Image(self.build("d.img", "--label", "Vol", "--journal", "dirty",
                                         "--journal-applied", applied, *common, *journal))
                direct = Image(self.build("f.img", "--label", final, "--journal", "clean", *common))
                after = Image(applied)
                jib = struct.unpack_from(">I", dirty.hdr, 12)[0] * dirty.bs
                offset, size = struct.unpack_from(">QQ", dirty.d, jib + 36)
                uuid = {1024 + 104 + i for i in range(8)} | {dirty.size - 1024 + 104 + i
                                                              for i in range(8)}
                differ = lambda a, b: {i for i in range(0, len(a), 512)
                                       if a[i:i + 512] != b[i:i + 512]
                                       and not offset <= i < offset + size}
                self.assertEqual(differ(after.d, direct.d) - {i // 512 * 512 for i in uuid}, set())
                self.assertTrue(any(after.d[i] != direct.d[i] for i in uuid),
                                "the UUID follows the first label")
                self.assertNotEqual(differ(dirty.d, after.d), set())
                self.assertEqual(dirty.d[offset + 512:offset + size], after.d[offset + 512:offset + size])
                order = "<" if dirty.d[offset] == 0x78 else ">"
                start, end, jsize, blhdr, _, jhdr = struct.unpack_from(order + "QQQIII", dirty.d,
                                                                       offset + 8)
                self.assertEqual((jsize, start != end), (size, True))
                wrap = journal[journal.index("--journal-wrap") + 1] if "--journal-wrap" in journal else None
                self.assertEqual(start + blhdr > size, wrap == "header")
                self.assertEqual(start + blhdr < size < start + blhdr + 4096, wrap == "data")
                self.assertEqual(self.checker(dirty.path), (0, ""))


if __name__ == "__main__":
    unittest.main()
