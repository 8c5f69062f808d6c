#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Build an HFS+ or HFSX volume image for the tests.

    mkimage.py OUT --size BYTES --label TEXT [options]

The image is a complete, consistent volume in the published HFS+ layout
(Apple TN1150): boot blocks, volume header and alternate volume header, the
allocation file, the extents overflow B-tree and the catalog B-tree, with a
root folder named after the label and optional generated folders and files.
It shares no code with the C++ library: it is an independent writer of the
format so that it can catch the library's mistakes.  Optional corruptions
damage exactly one structure and leave the rest consistent.

Layout choices made here (all allowed by the format):
  * allocation blocks in order: reserved blocks covering bytes 0..1535 (boot
    blocks and volume header), allocation file, extents overflow file, catalog
    fragments separated by one free block, with --journal the journal info
    block and the journal (--journal-size, default 512 KiB, in whole blocks), then the one-block extents
    of the fragmented files, each followed by a free block; the block(s)
    holding the last 1024 bytes of totalBlocks x blockSize are allocated;
  * with --journal the info block and the journal are the data forks of the
    root's files .journal_info_block and .journal, as on a Mac;
  * the alternate volume header is written 1024 bytes before the end of the
    image and, when the size is not a multiple of the block size, also 1024
    bytes before the end of the last allocation block;
  * bits of the allocation bitmap past totalBlocks are zero;
  * B-tree nodes: header node 0, map nodes 1..m, then the leaves in key
    order, then the index levels bottom up (the root is the last used node);
    free nodes follow, so the node bitmap marks a prefix of the tree.  With
    --scatter-nodes the leaf and index nodes take random numbers (from
    --seed) among all nodes past the map nodes, free nodes between them;
  * map node record length is nodeSize - 20 (the two spare bytes keep the
    record a multiple of four, as the Apple implementation does);
  * the extents overflow node size defaults to 4096 (TN1150 volumes usually
    use 512 there; any power of two from 512 to 32768 is accepted);
  * generated names: "folder N" and "file NNNNNN"/"File NNNNNN" (odd files
    upper case, so that the case-folding and binary orders differ), padded
    with "x" to --name-length units; CNIDs from 16, folders first; folders
    directly in the root, or in chains of --nesting; file i goes to the root
    (i mod (folders + 1) = 0) or to folder i mod (folders + 1);
  * HFSX folders carry kHFSHasFolderCountMask with their subfolder count.
With --journal dirty the journal holds one transaction per --journal-rename
(default one rename to LABEL + " 2"): the sectors in which the volume built
with the new label differs from the one before, and the volume header sector.
--journal-applied writes the image a correct replay leaves (the journal marked
clean with start = end), or the image itself when nothing may be replayed
(--journal-stale, --journal-damage).  The journal writer shares no code with
the library or the checker.
--info prints a JSON summary (tree depths, node counts, root node numbers,
catalog extents) for tests that need to know the shape they got; with
--info-entries it also lists every folder and file (path, CNID, size, SHA-256
of the data fork).  --file-data fills the blocks of the fragmented files with
a pattern naming the file and the block (see file_block), so that a reader
that maps a fork block to the wrong place reads the wrong bytes.
Errors go to stderr with exit status 1.
"""

import argparse
import hashlib
import json
import os
import random
import shutil
import struct
import sys
import unicodedata

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FOLDING_PATH = os.path.join(REPO, "scripts", "data", "hfsplus-case-folding.txt")

# Special catalog node IDs.
CNID_ROOT_PARENT = 1
CNID_ROOT = 2
CNID_EXTENTS = 3
CNID_CATALOG = 4
CNID_ALLOCATION = 6
FIRST_USER_CNID = 16

# Catalog record types.
REC_FOLDER = 1
REC_FILE = 2
REC_FOLDER_THREAD = 3
REC_FILE_THREAD = 4

# B-tree node kinds.
KIND_LEAF = -1
KIND_INDEX = 0
KIND_HEADER = 1
KIND_MAP = 2

BT_BIG_KEYS = 0x2
BT_VARIABLE_INDEX_KEYS = 0x4
COMPARE_CASE_FOLDING = 0xCF
COMPARE_BINARY = 0xBC
CATALOG_MAX_KEY = 516
EXTENTS_MAX_KEY = 10

VOLUME_UNMOUNTED = 1 << 8
HAS_FOLDER_COUNT = 0x10
FILE_THREAD_EXISTS = 0x02

# ---- Volume state: attribute bits and the journal (--journal and friends).
VOLUME_INCONSISTENT = 1 << 11
VOLUME_JOURNALED = 1 << 13
VOLUME_SOFTWARE_LOCK = 1 << 15
LAST_MOUNTED_JOURNALED = 0x4846534A      # "HFSJ": last mounted by a journaling Mac
# JournalInfoBlock (big-endian, 180 bytes): flags u32, device_signature
# 32 bytes, offset u64 (journal's byte offset in the volume), size u64.
JIB = struct.Struct(">I32sQQ128x")
JIB_IN_FS = 0x1
JIB_ON_OTHER_DEVICE = 0x2
JIB_NEED_INIT = 0x4
# journal_header, in the byte order of the Mac that wrote it: magic, endian
# marker, start, end, size (u64 each), blhdr_size, checksum, jhdr_size.
JOURNAL_MAGIC = 0x4A4E4C78               # "JNLx"
JOURNAL_ENDIAN = 0x12345678
JOURNAL_HEADER_SIZE = 512                 # jhdr_size default: the header's sector
JOURNAL_BLOCK_LIST_SIZE = 4096            # blhdr_size default
JOURNAL_BYTES = 512 * 1024                # the journal file, rounded up to whole blocks
LAST_MOUNTED_STALE = b"H+Lx"              # a writer that ignores the journal
JOURNAL_STATES = ("clean", "uninitialised", "dirty", "other-device", "damaged")
JOURNAL_INFO_NAME = ".journal_info_block"
JOURNAL_NAME = ".journal"

# 2024-01-01 00:00:00 UTC in HFS+ time (seconds since 1904-01-01).
HFS_TIME = 1704067200 + 2082844800

CORRUPTIONS = (
    "bad-signature", "header-kind", "header-records", "btree-type",
    "extents-btree-type", "index-self", "index-beyond", "index-cycle",
    "offsets-order", "no-root-thread", "long-root-name",
    # Records whose sizes disagree with their contents, and forks and
    # volumes larger than what holds them.
    "root-name-length", "root-thread-name-length", "root-folder-no-data", "root-thread-no-data",
    "catalog-logical-size", "extents-wrap", "extents-short-record",
    "block-size", "volume-beyond-device",
)

# The root's private folder, which holds the indirect node files of hard links.
PRIVATE_FOLDER = "\0\0\0\0HFS+ Private Data"

NODE_DESC = struct.Struct(">IIbBHH")
EXTENT_KEY = struct.Struct(">HBBII")


class BuildError(Exception):
    pass


# ---------------------------------------------------------------- names

_folding = None


def folding_table():
    """str.translate table of the HFS+ case-folding order: upper case to lower
    case, ignorable units removed, U+0000 to U+FFFF."""
    global _folding
    if _folding is None:
        table = {}
        with open(FOLDING_PATH, encoding="ascii") as f:
            for line in f:
                line = line.strip()
                if not line or line.startswith("#"):
                    continue
                unit, folded = (int(x, 16) for x in line.split())
                table[unit] = None if folded == 0 else folded
        if table.get(0) != 0xFFFF:
            raise BuildError("case-folding data: U+0000 must fold to U+FFFF")
        _folding = table
    return _folding


def name_order(units, binary):
    """Sort key of a name (a str of UTF-16 units) in the volume's order.
    Case folding: units folded, ignorables skipped, folded values compared as
    unsigned 16-bit numbers, a prefix first.  Binary: the units as they are,
    a unit 0 ending the name."""
    if binary:
        zero = units.find("\0")
        return units if zero < 0 else units[:zero]
    return units.translate(folding_table())


# Characters HFS+ leaves whole although current Unicode decomposes them, and
# decompositions that differ from current Unicode (the HFS+ table predates it).
_NO_DECOMPOSE = set(
    [0x01F8, 0x01F9, 0x0218, 0x0219, 0x021A, 0x021B, 0x021E, 0x021F, 0x0400,
     0x040D, 0x0450, 0x045D, 0x04EC, 0x04ED, 0x06C0, 0x06C2, 0x06D3, 0x0A33,
     0x0A36, 0x0DDA, 0x0DDC, 0x0DDD, 0x0DDE, 0x1026, 0x1B06, 0x1B08, 0x1B0A,
     0x1B0C, 0x1B0E, 0x1B12, 0x1B3B, 0x1B3D, 0x1B40, 0x1B41, 0x1B43, 0xFB1D]
    + list(range(0x0226, 0x0234)) + list(range(0x0622, 0x0627)))
_OWN_DECOMPOSITION = {
    0x0310: [0x0306, 0x0307], 0x04D4: [0x00C6], 0x04D5: [0x00E6],
    0x04D8: [0x018F], 0x04D9: [0x0259], 0x04E0: [0x01B7], 0x04E1: [0x0292],
    0x04E8: [0x019F], 0x04E9: [0x0275], 0x09B0: [0x09AC, 0x09BC],
    0x0A5C: [0x0A21, 0x0A3C], 0x0B5F: [0x0B2F, 0x0B3C], 0x0E33: [0x0E4D, 0x0E32],
    0x0EB3: [0x0ECD, 0x0EB2], 0x0F77: [0x0FB2, 0x0F80, 0x0F71],
    0x0F79: [0x0FB3, 0x0F80, 0x0F71], 0x0F73: [0x0F72, 0x0F71],
    0x0F75: [0x0F74, 0x0F71], 0x0F81: [0x0F80, 0x0F71],
}
_TONOS = {0x0344, 0x0385, 0x0386, 0x0388, 0x0389, 0x038A, 0x038C, 0x038E,
          0x038F, 0x0390, 0x03AC, 0x03AD, 0x03AE, 0x03AF, 0x03B0, 0x03CC,
          0x03CD, 0x03CE, 0x03D3}
_IOTA_FIRST = set(range(0x1F80, 0x1FB0)) | {0x1FB2, 0x1FB4, 0x1FB7, 0x1FC2,
                                            0x1FC4, 0x1FC7, 0x1FF2, 0x1FF4, 0x1FF7}


def decompose_char(cp):
    if (cp > 0xFFFF or 0x2000 <= cp <= 0x2FFF or 0xF900 <= cp <= 0xFAFF
            or cp in _NO_DECOMPOSE):
        return [cp]
    if cp in _OWN_DECOMPOSITION:
        return list(_OWN_DECOMPOSITION[cp])
    out = [ord(c) for c in unicodedata.normalize("NFD", chr(cp))]
    if len(out) == 1 and out[0] == cp:
        return out
    # A decomposition whose parts HFS+ decomposes differently (U+04DA ...).
    parts = []
    for u in out:
        parts.extend(_OWN_DECOMPOSITION.get(u, [u]) if u in (0x04D8, 0x04D9, 0x04E8, 0x04E9) else [u])
    out = parts
    if cp in _TONOS:
        out = [0x030D if u == 0x0301 else u for u in out]
    if cp in _IOTA_FIRST and 0x0345 in out:
        out.remove(0x0345)
        out.insert(1, 0x0345)
        if cp == 0x1FF4:
            out[0] = 0x03BF
    return out


def hfs_name(text):
    """UTF-8 text to the stored HFS+ form: decomposed, as a str of UTF-16
    units (astral characters as surrogate pairs)."""
    units = []
    for ch in text:
        for cp in decompose_char(ord(ch)):
            if cp > 0xFFFF:
                cp -= 0x10000
                units.append(0xD800 + (cp >> 10))
                units.append(0xDC00 + (cp & 0x3FF))
            else:
                units.append(cp)
    return "".join(map(chr, units))


def encode_units(units):
    return units.encode("utf-16-be", "surrogatepass")


def catalog_key(parent, units):
    return struct.pack(">HIH", 6 + 2 * len(units), parent, len(units)) + encode_units(units)


# ---------------------------------------------------------------- records

def fork_data(logical_size, clump, total_blocks, extents):
    ext = list(extents)[:8]
    ext += [(0, 0)] * (8 - len(ext))
    flat = [v for e in ext for v in e]
    return struct.pack(">QII16I", logical_size, clump, total_blocks, *flat)


def folder_record(cnid, valence, flags, folder_count):
    return (struct.pack(">HHII5I", REC_FOLDER, flags, valence, cnid, *([HFS_TIME] * 5))
            + struct.pack(">IIBBHI", 0, 0, 0, 0, 0o40755, 0)
            + bytes(32) + struct.pack(">II", 0, folder_count))


def file_record(cnid, data_fork=None, rsrc_fork=None, special=0, codes=bytes(8), mode=0o100644):
    """A file record; `special` is permissions.special (an indirect node
    file's link count, a hard link's iNodeNum), `codes` fdType + fdCreator."""
    return (struct.pack(">HHII5I", REC_FILE, FILE_THREAD_EXISTS, 0, cnid, *([HFS_TIME] * 5))
            + struct.pack(">IIBBHI", 0, 0, 0, 0, mode, special)
            + codes + bytes(24) + struct.pack(">II", 0, 0)
            + (data_fork or bytes(80)) + (rsrc_fork or bytes(80)))


def thread_record(kind, parent, units):
    return struct.pack(">HHIH", kind, 0, parent, len(units)) + encode_units(units)


# ---------------------------------------------------------------- B-trees

class TreePlan:
    """Shape of a B-tree built bottom up from sorted records: which records go
    in which leaf, which children in which index node, node numbers, map nodes
    and the total node count."""

    def __init__(self, key_lens, data_lens, node_size, var_index, max_key_len,
                 free_nodes, nodes_per_block, min_total=0, rng=None, fill=100, chain=0):
        ns = node_size
        cap = ns - 14 - 2          # descriptor and the free-space offset
        limit = cap * fill // 100  # a node is filled up to this many bytes
        self.ns = ns
        self.levels = []           # per level: list of (start, end) into the level below
        sizes = [k + d for k, d in zip(key_lens, data_lens)]
        self.levels.append(self._group(sizes, cap, "record", limit))
        idx_len = (lambda k: k + 4) if var_index else (lambda k: max_key_len + 2 + 4)
        # Key length of the first record of every node of the current level.
        firsts = [key_lens[s] for s, _ in self.levels[0]]
        while len(self.levels[-1]) > 1:
            groups = self._group([idx_len(k) for k in firsts], cap, "index record", limit)
            if len(groups) >= len(firsts):
                raise BuildError("node size %d is too small: an index node cannot hold two "
                                 "index records" % ns)
            self.levels.append(groups)
            firsts = [firsts[s] for s, _ in groups]
        # A valid but absurdly deep tree: index nodes of one record each,
        # stacked above the root.
        if sizes:
            self.levels += [[(0, 1)] for _ in range(chain)]
        if not sizes:
            self.levels = []
        self.used_tree = sum(len(l) for l in self.levels)
        hdr_bits = (ns - 256) * 8
        map_bits = (ns - 20) * 8
        maps = 0
        while True:
            total = max(1 + maps + self.used_tree + free_nodes, min_total)
            total = -(-total // nodes_per_block) * nodes_per_block
            need = max(0, -(-(total - hdr_bits) // map_bits))
            if need <= maps:
                break
            maps = need
        self.maps = maps
        self.total = total
        self.used = 1 + maps + self.used_tree
        self.free = total - self.used
        # Node numbers: header 0, map nodes, leaves, index levels bottom up;
        # scattered at random over the nodes past the map nodes when asked.
        slots = list(range(1 + maps, total))
        if rng is not None:
            slots = rng.sample(slots, self.used_tree)
        self.numbers = []
        n = 0
        for level in self.levels:
            self.numbers.append(slots[n:n + len(level)])
            n += len(level)

    @staticmethod
    def _group(sizes, cap, what, limit):
        groups = []
        start = used = 0
        for i, s in enumerate(sizes):
            c = s + 2
            if c > cap:
                raise BuildError("a %s of %d bytes does not fit in a node (room for %d); "
                                 "use a larger node size" % (what, s, cap - 2))
            if used and used + c > limit:
                groups.append((start, i))
                start, used = i, 0
            used += c
        if sizes:
            groups.append((start, len(sizes)))
        return groups

    @property
    def depth(self):
        return len(self.levels)

    @property
    def root(self):
        return self.numbers[-1][0] if self.levels else 0


def put_node(buf, base, ns, flink, blink, kind, height, records):
    NODE_DESC.pack_into(buf, base, flink, blink, kind, height, len(records), 0)
    pos = 14
    offsets = []
    for r in records:
        offsets.append(pos)
        buf[base + pos:base + pos + len(r)] = r
        pos += len(r)
    offsets.append(pos)
    offsets.reverse()
    struct.pack_into(">%dH" % len(offsets), buf, base + ns - 2 * len(offsets), *offsets)


def serialize_tree(plan, keys, datas, var_index, max_key_len, compare_type, attributes,
                   clump):
    """Whole tree file (totalNodes x nodeSize bytes) for the planned shape."""
    ns = plan.ns
    buf = bytearray(plan.total * ns)
    level_first_keys = []
    n_records = len(keys)
    # Leaves.
    if plan.levels:
        nums = plan.numbers[0]
        firsts = []
        for i, (s, e) in enumerate(plan.levels[0]):
            put_node(buf, nums[i] * ns, ns,
                     nums[i + 1] if i + 1 < len(nums) else 0,
                     nums[i - 1] if i > 0 else 0,
                     KIND_LEAF, 1, [keys[j] + datas[j] for j in range(s, e)])
            firsts.append(keys[s])
        for h in range(1, plan.depth):
            below = plan.numbers[h - 1]
            nums = plan.numbers[h]
            new_firsts = []
            for i, (s, e) in enumerate(plan.levels[h]):
                recs = []
                for j in range(s, e):
                    k = firsts[j]
                    if not var_index:
                        k = struct.pack(">H", max_key_len) + k[2:].ljust(max_key_len, b"\0")
                    recs.append(k + struct.pack(">I", below[j]))
                put_node(buf, nums[i] * ns, ns,
                         nums[i + 1] if i + 1 < len(nums) else 0,
                         nums[i - 1] if i > 0 else 0,
                         KIND_INDEX, h + 1, recs)
                new_firsts.append(firsts[s])
            firsts = new_firsts
    # Header node.
    first_leaf = plan.numbers[0][0] if plan.levels else 0
    last_leaf = plan.numbers[0][-1] if plan.levels else 0
    header_rec = struct.pack(">HIIIIHHIIHIBBI64x", plan.depth, plan.root, n_records,
                             first_leaf, last_leaf, ns, max_key_len, plan.total, plan.free,
                             0, clump, 0, compare_type, attributes)
    assert len(header_rec) == 106
    bitmap = bytearray(-(-plan.total // 8))
    for n in [0] + list(range(1, 1 + plan.maps)) + [n for l in plan.numbers for n in l]:
        bitmap[n >> 3] |= 0x80 >> (n & 7)
    hdr_map = ns - 256
    put_node(buf, 0, ns, 1 if plan.maps else 0, 0, KIND_HEADER, 0,
             [header_rec, bytes(128), bytes(bitmap[:hdr_map]).ljust(hdr_map, b"\0")])
    pos = hdr_map
    map_len = ns - 20
    for m in range(plan.maps):
        node = 1 + m
        base = node * ns
        NODE_DESC.pack_into(buf, base, node + 1 if m + 1 < plan.maps else 0, 0, KIND_MAP, 0, 1, 0)
        part = bitmap[pos:pos + map_len]
        buf[base + 14:base + 14 + len(part)] = part
        struct.pack_into(">HH", buf, base + ns - 4, 14 + map_len, 14)
        pos += map_len
    return buf


def node_records(buf, ns, node):
    base = node * ns
    n = struct.unpack_from(">H", buf, base + 10)[0]
    return [struct.unpack_from(">H", buf, base + ns - 2 * (i + 1))[0] for i in range(n)]


# ---------------------------------------------------------------- volume

def file_block(cnid, index, block_size):
    """Block `index` of the data fork of file `cnid` under --file-data: the
    two numbers in hex, repeated."""
    unit = b"%07x:%07x\n" % (cnid, index)
    return (unit * (block_size // len(unit) + 1))[:block_size]


def power_of_two(n):
    return n > 0 and n & (n - 1) == 0


class Volume:
    def __init__(self, o):
        self.o = o
        bs = o.block_size
        if not power_of_two(bs) or not 512 <= bs <= 65536:
            raise BuildError("block size must be a power of two from 512 to 65536")
        for what, ns in (("catalog", o.catalog_node_size), ("extents", o.extents_node_size)):
            if not power_of_two(ns) or not 512 <= ns <= 32768:
                raise BuildError("%s node size must be a power of two from 512 to 32768" % what)
        if o.size % 512:
            raise BuildError("size %d is not a whole number of 512-byte sectors" % o.size)
        if o.size < 2 * bs or o.size < 4096:
            raise BuildError("size %d is too small for a volume" % o.size)
        self.total_blocks = o.size // bs
        if self.total_blocks > 0xFFFFFFFF:
            raise BuildError("size %d gives more than 2^32 - 1 allocation blocks" % o.size)
        for name in ("files", "folders", "catalog_fragments", "fragmented_files",
                     "file_fragments", "name_length"):
            if getattr(o, name) < 0:
                raise BuildError("--%s must not be negative" % name.replace("_", "-"))
        if o.catalog_fragments < 1:
            raise BuildError("--catalog-fragments must be at least 1")
        if o.fragmented_files > o.files:
            raise BuildError("--fragmented-files %d exceeds --files %d" % (o.fragmented_files, o.files))
        if o.fragmented_files and o.file_fragments < 1:
            raise BuildError("--fragmented-files needs --file-fragments of at least 1")
        if min(o.resource_fragments, o.hard_links, o.hard_link_number) < 0 or o.hard_link_number >> 32:
            raise BuildError("--resource-fragments, --hard-links and --hard-link-number must not be "
                             "negative, and a link number fits in 32 bits")
        if o.hard_links and (o.files < 1 or o.hfsx or o.name_length):
            raise BuildError("--hard-links needs --files 1 or more, no --name-length and no "
                             "--hfsx (whose binary order cannot place the private folder's name)")
        if o.name_length > 255:
            raise BuildError("--name-length must not exceed 255")
        self.binary = o.hfsx
        if any(0xD800 <= ord(c) <= 0xDFFF for c in o.label):
            raise BuildError("label is not valid UTF-8")
        self.label = hfs_name(o.label)
        if o.corrupt == "long-root-name":
            self.label = (self.label + "x" * 256)[:256]
        elif len(self.label) > 255:
            raise BuildError("label is %d UTF-16 units long after decomposition; at most 255 fit"
                             % len(self.label))

    def rng(self):
        return random.Random(self.o.seed) if self.o.scatter_nodes else None

    # ---- catalog contents

    def catalog_entries(self, files):
        """(sort key, key bytes, data bytes or ('file', cnid)) of every record."""
        o = self.o
        entries = []
        folders = o.folders
        cnid = FIRST_USER_CNID
        folder_ids = []
        names = []
        valence = {CNID_ROOT: 0}
        subfolders = {CNID_ROOT: 0}
        nesting = max(1, o.nesting)
        for i in range(1, folders + 1):
            # Chains of up to `nesting` folders, each inside the one before.
            parent = folder_ids[-1] if (i - 1) % nesting else CNID_ROOT
            names.append((parent, "folder %d" % i, "folder", cnid))
            valence[parent] += 1
            subfolders[parent] += 1
            valence[cnid] = subfolders[cnid] = 0
            folder_ids.append(cnid)
            cnid += 1
        parents = [CNID_ROOT] + folder_ids
        for i in range(files):
            parent = parents[i % len(parents)]
            valence[parent] += 1
            names.append((parent, ("File %06d" if i % 2 else "file %06d") % i, "file", cnid))
            cnid += 1
        self.links = {}
        self.link_count = {}
        if o.hard_links:
            cnid = self.add_hard_links(names, valence, subfolders, folder_ids, cnid)
        journal = []
        for role, name in self.journal_files():
            journal.append((CNID_ROOT, name, role, cnid))
            valence[CNID_ROOT] += 1
            cnid += 1
        self.next_cnid = cnid
        self.names = names
        self.journal_names = journal
        longest = max((len(n[1]) for n in names), default=0)
        if o.name_length and o.name_length < longest:
            raise BuildError("--name-length %d is shorter than the generated names (%d units)"
                             % (o.name_length, longest))
        hfsx = self.binary
        order = lambda parent, units: (parent, name_order(units, self.binary))
        # Root folder and its thread.
        entries.append((order(CNID_ROOT_PARENT, self.label),
                        catalog_key(CNID_ROOT_PARENT, self.label),
                        folder_record(CNID_ROOT, valence[CNID_ROOT],
                                      HAS_FOLDER_COUNT if hfsx else 0,
                                      subfolders[CNID_ROOT] if hfsx else 0)))
        if o.corrupt != "no-root-thread":
            entries.append((order(CNID_ROOT, ""), catalog_key(CNID_ROOT, ""),
                            thread_record(REC_FOLDER_THREAD, CNID_ROOT_PARENT, self.label)))
        for parent, name, kind, cid in names:
            if o.name_length:
                name = name.ljust(o.name_length, "x")
            entries.append((order(parent, name), catalog_key(parent, name),
                            folder_record(cid, valence[cid], HAS_FOLDER_COUNT if hfsx else 0,
                                          subfolders[cid] if hfsx else 0)
                            if kind == "folder" else (kind, cid)))
            entries.append(((cid, ""), catalog_key(cid, ""),
                            thread_record(REC_FOLDER_THREAD if kind == "folder" else REC_FILE_THREAD,
                                          parent, name)))
        for parent, name, role, cid in journal:
            entries.append((order(parent, name), catalog_key(parent, name), ("journal", cid, role)))
            entries.append(((cid, ""), catalog_key(cid, ""),
                            thread_record(REC_FILE_THREAD, parent, name)))
        entries.sort(key=lambda e: e[0])
        for a, b in zip(entries, entries[1:]):
            if a[0] == b[0]:
                raise BuildError("two catalog keys compare equal: %r" % (a[1],))
        return entries

    def add_hard_links(self, names, valence, subfolders, folder_ids, cnid):
        """--hard-links N: the first file becomes the indirect node file
        "iNode<its CNID>" of the root's private folder, and N link records
        ("link N" in the root) name it, as Mac OS makes them."""
        private = cnid
        names.append((CNID_ROOT, PRIVATE_FOLDER, "folder", private))
        valence[CNID_ROOT] += 1
        subfolders[CNID_ROOT] += 1
        valence[private] = subfolders[private] = 0
        folder_ids.append(private)
        first = next(i for i, n in enumerate(names) if n[2] == "file")
        parent, _, _, target = names[first]
        number = self.o.hard_link_number or target
        names[first] = (private, "iNode%d" % number, "file", target)
        valence[parent] -= 1
        valence[private] += 1
        for j in range(self.o.hard_links):
            cnid += 1
            names.append((CNID_ROOT, "link %d" % j, "link", cnid))
            valence[CNID_ROOT] += 1
            self.links[cnid] = number
        self.link_count = {target: self.o.hard_links}
        return cnid + 1

    def catalog_plan(self, entries, free, min_total=0):
        o = self.o
        ns = o.catalog_node_size
        return TreePlan([len(e[1]) for e in entries],
                        [248 if isinstance(e[2], tuple) else len(e[2]) for e in entries],
                        ns, True, CATALOG_MAX_KEY, free,
                        max(1, o.block_size // ns), min_total, self.rng(), o.fill,
                        o.catalog_index_chain)

    def files_for_nodes(self, nodes):
        """(files, folders) from --files and --folders on whose catalog, with
        no free node, has exactly `nodes` nodes (--catalog-nodes): the fewest
        files, with up to four more folders when no file count hits it."""
        o = self.o
        base_files, base_folders = o.files, o.folders

        def total(files):
            return self.catalog_plan(self.catalog_entries(files), 0).total
        try:
            for folders in range(base_folders, base_folders + 5):
                o.folders = folders
                lo = hi = base_files
                while total(hi) < nodes:
                    if hi > 4_000_000:
                        raise BuildError("--catalog-nodes %d needs more than 4000000 files" % nodes)
                    lo, hi = hi + 1, max(1, hi * 2)
                while lo < hi:
                    mid = (lo + hi) // 2
                    if total(mid) < nodes:
                        lo = mid + 1
                    else:
                        hi = mid
                if total(lo) == nodes:
                    return lo, folders
        finally:
            o.folders = base_folders
        raise BuildError("no file and folder count gives a catalog of exactly %d nodes; "
                         "try another --name-length or --fill" % nodes)

    def files_for_depth(self, depth):
        """Smallest power-of-two-ish file count that gives the catalog this depth."""
        files = 64
        while files <= 4_000_000:
            plan = self.catalog_plan(self.catalog_entries(files), 0)
            if plan.depth >= depth:
                return files
            files *= 2
        return None

    # ---- build

    def build(self):
        o = self.o
        bs = o.block_size
        if o.catalog_nodes is not None:
            o.files, o.folders = self.files_for_nodes(o.catalog_nodes)
            o.free_catalog_nodes = 0
        entries = self.catalog_entries(o.files)
        cat_ns = o.catalog_node_size
        ext_ns = o.extents_node_size
        cat_free = o.free_catalog_nodes
        explicit_free = cat_free is not None
        if cat_free is None:
            cat_free = 16
        cat_plan = self.catalog_plan(entries, cat_free)
        cat_blocks = cat_plan.total * cat_ns // bs
        if cat_blocks < o.catalog_fragments:
            if explicit_free:
                raise BuildError("the catalog has only %d allocation blocks and cannot be split "
                                 "into %d fragments; give more free catalog nodes"
                                 % (cat_blocks, o.catalog_fragments))
            cat_plan = self.catalog_plan(entries, cat_free,
                                         -(-o.catalog_fragments * bs // cat_ns))
            cat_blocks = cat_plan.total * cat_ns // bs
        self.check_corruption_depth(cat_plan)

        # Catalog fragments: as even as possible.
        nfrag = o.catalog_fragments
        frag_sizes = [cat_blocks // nfrag + (1 if i < cat_blocks % nfrag else 0) for i in range(nfrag)]

        # Extents overflow records: catalog fragments past the eighth, then the
        # fragmented files' extents past their eighth.
        ext_count = -(-max(0, nfrag - 8) // 8)
        frag_files = [e[2][1] for e in entries if isinstance(e[2], tuple) and e[2][0] == "file"]
        frag_files = sorted(frag_files)[:o.fragmented_files]
        k = o.file_fragments
        # --varied-fragments: fragmented file j has 1 + j mod k fragments.
        counts = {cid: 1 + j % k if o.varied_fragments else k for j, cid in enumerate(frag_files)}
        rk = o.resource_fragments if frag_files else 0
        records = lambda n: -(-max(0, n - 8) // 8)
        ext_count += sum(records(n) + records(rk) for n in counts.values())
        ext_free = o.free_extents_nodes if o.free_extents_nodes is not None else 8
        ext_plan = TreePlan([12] * ext_count, [64] * ext_count, ext_ns, False,
                            EXTENTS_MAX_KEY, ext_free, max(1, bs // ext_ns), 0, self.rng())
        ext_blocks = ext_plan.total * ext_ns // bs

        # Allocation block layout.
        tb = self.total_blocks
        reserved = -(-1536 // bs)
        alloc_blocks = -(-(-(-tb // 8)) // bs)
        used = [(0, reserved)]
        blk = reserved
        alloc_ext = (blk, alloc_blocks)
        used.append(alloc_ext)
        blk += alloc_blocks
        ext_ext = (blk, ext_blocks)
        used.append(ext_ext)
        blk += ext_blocks
        cat_exts = []
        for i, s in enumerate(frag_sizes):
            if i:
                blk += 1
            cat_exts.append((blk, s))
            blk += s
        # The journal's files: one block of info, then the journal itself.
        journal_exts = {}
        journal_files = [e[2] for e in entries if isinstance(e[2], tuple) and e[2][0] == "journal"]
        for _, cid, role in sorted(journal_files, key=lambda f: f[2] != "info"):
            count = 1 if role == "info" else journal_bytes(o) // bs
            journal_exts[cid] = (role, blk, count)
            blk += count
        file_exts = {}
        rsrc_exts = {}
        if frag_files:
            blk += 1
        for cid in frag_files:
            file_exts[cid] = []
            for _ in range(counts[cid]):
                file_exts[cid].append((blk, 1))
                blk += 2
            rsrc_exts[cid] = []
            for _ in range(rk):
                rsrc_exts[cid].append((blk, 1))
                blk += 2
        used += cat_exts + [e for v in file_exts.values() for e in v]
        used += [e for v in rsrc_exts.values() for e in v]
        used += [(s, c) for _, s, c in journal_exts.values()]
        # The last 1024 bytes of the blocks hold the alternate volume header
        # (and a reserved sector); they are always allocated.
        alt_first = (tb * bs - 1024) // bs
        alt = list(range(alt_first, tb))
        limit = alt[0] if alt else tb
        if blk > limit:
            raise BuildError("volume of %d bytes is too small: the metadata needs %d allocation "
                             "blocks of %d bytes and only %d are available"
                             % (o.size, blk + len(alt), bs, tb))
        if alt:
            used.append((alt[0], len(alt)))
        self.next_allocation = blk if blk < tb else 0

        # Extents overflow records.
        ext_recs = []

        def overflow(file_id, extents, fork_type=0):
            for start in range(8, len(extents), 8):
                fork_block = sum(c for _, c in extents[:start])
                ext_recs.append((EXTENT_KEY.pack(10, fork_type, 0, file_id, fork_block),
                                 fork_data(0, 0, 0, extents[start:start + 8])[16:]))

        overflow(CNID_CATALOG, cat_exts)
        for cid in frag_files:
            overflow(cid, file_exts[cid])
            overflow(cid, rsrc_exts[cid], 0xFF)
        ext_recs.sort(key=lambda r: struct.unpack(">IBI", r[0][4:8] + r[0][2:3] + r[0][8:12]))
        assert len(ext_recs) == ext_count

        # Catalog records with the files' fork data filled in.
        keys = []
        datas = []
        for _, key, data in entries:
            keys.append(key)
            if isinstance(data, tuple) and data[0] == "link":
                data = file_record(data[1], special=self.links[data[1]], codes=b"hlnkhfs+", mode=0)
            elif isinstance(data, tuple) and data[0] == "journal":
                _, start, count = journal_exts[data[1]]
                data = file_record(data[1], fork_data(count * bs, bs, count, [(start, count)]))
            elif isinstance(data, tuple):
                cid = data[1]
                forks = [fork_data(len(e) * bs, bs, len(e), e) if e else None
                         for e in (file_exts.get(cid), rsrc_exts.get(cid))]
                data = file_record(cid, *forks, special=self.link_count.get(cid, 0))
            datas.append(data)

        cat = serialize_tree(cat_plan, keys, datas, True, CATALOG_MAX_KEY,
                             COMPARE_BINARY if self.binary else COMPARE_CASE_FOLDING,
                             BT_BIG_KEYS | BT_VARIABLE_INDEX_KEYS, self.catalog_clump())
        ext = serialize_tree(ext_plan, [r[0] for r in ext_recs], [r[1] for r in ext_recs],
                             False, EXTENTS_MAX_KEY, 0, BT_BIG_KEYS, ext_ns)

        # Allocation bitmap.
        bitmap = bytearray(alloc_blocks * bs)
        in_use = 0
        for start, count in used:
            set_bits(bitmap, start, count)
            in_use += count
        self.free_blocks = tb - in_use

        self.file_exts = file_exts
        self.forks = {
            "allocation": (alloc_blocks * bs, alloc_blocks, [alloc_ext]),
            "extents": (ext_plan.total * ext_ns, ext_blocks, [ext_ext]),
            "catalog": (cat_plan.total * cat_ns, cat_blocks, cat_exts),
        }
        self.cat_plan, self.ext_plan = cat_plan, ext_plan
        self.cat, self.ext, self.bitmap = cat, ext, bitmap
        self.file_count = o.files + o.hard_links + len(journal_exts)
        self.journal_exts = {role: (s, c) for role, s, c in journal_exts.values()}
        self.folder_count = o.folders + (1 if o.hard_links else 0)
        self.apply_tree_corruption()
        return self

    # ---- corruptions

    def check_corruption_depth(self, plan):
        need = {"index-self": 2, "index-beyond": 2, "index-cycle": 3}.get(self.o.corrupt)
        if need and plan.depth < need:
            files = self.files_for_depth(need)
            hint = ("at least about %d files" % files) if files else "many more files"
            raise BuildError("--corrupt %s needs a catalog tree depth of %d or more, but this "
                             "catalog has depth %d; with these node sizes use %s"
                             % (self.o.corrupt, need, plan.depth, hint))

    def root_thread_path(self):
        """Nodes and record indexes that a search for the root folder's thread
        record (parentID 2, empty name) takes, from the root down."""
        plan, buf, ns = self.cat_plan, self.cat, self.o.catalog_node_size
        target = (CNID_ROOT, "")
        node = plan.root
        path = []
        for _ in range(plan.depth - 1):
            offs = node_records(buf, ns, node)
            chosen = 0
            for i, off in enumerate(offs):
                klen, parent, nlen = struct.unpack_from(">HIH", buf, node * ns + off)
                units = bytes(buf[node * ns + off + 8:node * ns + off + 8 + 2 * nlen]).decode(
                    "utf-16-be", "surrogatepass")
                if (parent, name_order(units, self.binary)) <= target:
                    chosen = i
            path.append((node, chosen, offs[chosen]))
            off = node * ns + offs[chosen]
            klen = struct.unpack_from(">H", buf, off)[0]
            node = struct.unpack_from(">I", buf, off + 2 + klen)[0]
        return path

    def set_child(self, node, off, child):
        ns = self.o.catalog_node_size
        at = node * ns + off
        klen = struct.unpack_from(">H", self.cat, at)[0]
        struct.pack_into(">I", self.cat, at + 2 + klen, child)

    def apply_tree_corruption(self):
        c = self.o.corrupt
        ns = self.o.catalog_node_size
        if c == "header-kind":
            struct.pack_into(">b", self.cat, 8, 0)
        elif c == "header-records":
            struct.pack_into(">H", self.cat, 10, 2)
        elif c == "btree-type":
            self.cat[14 + 36] = 128
        elif c == "extents-btree-type":
            self.ext[14 + 36] = 128
        elif c in ("index-self", "index-beyond", "index-cycle"):
            path = self.root_thread_path()
            node, _, off = path[-1]          # the lowest index node on the path
            if c == "index-self":
                child = node
            elif c == "index-beyond":
                child = self.cat_plan.total
            else:
                child = path[-2][0]          # its parent on the path
            self.set_child(node, off, child)
        elif c == "offsets-order":
            for leaf in self.cat_plan.numbers[0]:
                offs = node_records(self.cat, ns, leaf)
                if len(offs) >= 2:
                    base = leaf * ns
                    struct.pack_into(">HH", self.cat, base + ns - 4, offs[0], offs[1])
                    break
            else:
                raise BuildError("no leaf node has two records to put out of order")
        elif c == "root-name-length":
            # The name length claims more units than keyLength holds.
            at, _ = self.leaf_record(self.cat, self.cat_plan, ns,
                                     catalog_key(CNID_ROOT_PARENT, self.label))
            if len(self.label) >= 255:
                raise BuildError("--corrupt root-name-length needs a label shorter than 255 units")
            struct.pack_into(">H", self.cat, at + 6, 255)
        elif c == "root-thread-name-length":
            # The root's thread names more units than the record holds.
            at, _ = self.leaf_record(self.cat, self.cat_plan, ns, catalog_key(CNID_ROOT, ""))
            struct.pack_into(">H", self.cat, at + 8 + 8, 255)
        elif c in ("root-folder-no-data", "root-thread-no-data"):
            # keyLength covers the whole record, leaving no data bytes.
            key = (catalog_key(CNID_ROOT_PARENT, self.label) if c == "root-folder-no-data"
                   else catalog_key(CNID_ROOT, ""))
            at, size = self.leaf_record(self.cat, self.cat_plan, ns, key)
            struct.pack_into(">H", self.cat, at, size - 2)
        elif c == "extents-wrap":
            # The catalog's first overflow record: eight extents that add up to
            # exactly 2^32 blocks.
            at, _ = self.leaf_record(self.ext, self.ext_plan, self.o.extents_node_size,
                                     struct.pack(">HBBI", EXTENTS_MAX_KEY, 0, 0, CNID_CATALOG))
            start = struct.unpack_from(">I", self.ext, at + 12)[0]
            for i in range(8):
                struct.pack_into(">II", self.ext, at + 12 + 8 * i, start, 1 << 29)
        elif c == "extents-short-record":
            # The catalog's first overflow record keeps 32 of its 64 bytes.
            ens = self.o.extents_node_size
            at, _ = self.leaf_record(self.ext, self.ext_plan, ens,
                                     struct.pack(">HBBI", EXTENTS_MAX_KEY, 0, 0, CNID_CATALOG))
            node, off = divmod(at, ens)
            n = struct.unpack_from(">H", self.ext, node * ens + 10)[0]
            if node_records(self.ext, ens, node)[-1] != off:
                raise BuildError("--corrupt extents-short-record: the record is not its node's last")
            struct.pack_into(">H", self.ext, node * ens + ens - 2 * (n + 1), off + 12 + 32)

    @staticmethod
    def leaf_record(buf, plan, ns, key):
        """Byte position in `buf` and size of the first leaf record whose key
        begins with the bytes `key`."""
        for node in plan.numbers[0] if plan.levels else []:
            offs = node_records(buf, ns, node)
            base = node * ns
            ends = offs[1:] + [struct.unpack_from(">H", buf, base + ns - 2 * (len(offs) + 1))[0]]
            for off, end in zip(offs, ends):
                if bytes(buf[base + off:base + off + len(key)]) == key:
                    return base + off, end - off
        raise BuildError("--corrupt: no leaf record with the key it damages (the extents "
                         "overflow corruptions need --catalog-fragments 9 or more)")

    # ---- volume state: attribute bits and the journal

    def attributes(self):
        o = self.o
        bits = 0 if o.not_unmounted else VOLUME_UNMOUNTED
        bits |= VOLUME_INCONSISTENT if o.inconsistent else 0
        bits |= VOLUME_SOFTWARE_LOCK if o.software_lock else 0
        bits |= VOLUME_JOURNALED if o.journal else 0
        return bits

    def journal_files(self):
        """(role, name) of the root's journal files: the info block always,
        the journal unless it lives on another device."""
        if not self.o.journal:
            return []
        files = [("info", JOURNAL_INFO_NAME)]
        if self.o.journal != "other-device":
            files.append(("journal", JOURNAL_NAME))
        return files

    def last_mounted_version(self):
        o = self.o
        if not o.journal:
            return 0x3130_2E30                       # "10.0"
        if o.journal_stale:
            return struct.unpack(">I", LAST_MOUNTED_STALE)[0]
        return LAST_MOUNTED_JOURNALED

    def journal_blocks(self):
        """(byte offset, bytes) of the journal info block and journal header
        (for a dirty journal: the whole journal)."""
        o = self.o
        if not o.journal:
            return []
        bs = o.block_size
        info_start = self.journal_exts["info"][0]
        if o.journal == "other-device":
            return [(info_start * bs, JIB.pack(JIB_ON_OTHER_DEVICE, bytes(32), 0, 0))]
        if getattr(self, "dirty", None) is not None:
            return self.dirty.blocks
        start, count = self.journal_exts["journal"]
        flags = JIB_IN_FS | (JIB_NEED_INIT if o.journal == "uninitialised" else 0)
        blocks = [(info_start * bs, JIB.pack(flags, bytes(32), start * bs, count * bs))]
        if o.journal == "clean":
            blocks.append((start * bs, self.journal_header(count * bs)))
        return blocks

    def journal_header(self, size):
        """A clean journal header in the chosen byte order."""
        o = self.o
        return JournalHeader(o.journal_byte_order, o.journal_sector, o.journal_blhdr, size,
                             o.journal_sequence).pack()

    # ---- output

    def catalog_clump(self):
        o = self.o
        if o.catalog_clump_size is not None:
            return o.catalog_clump_size
        return max(o.catalog_node_size, o.block_size)

    def volume_header(self):
        o = self.o
        bs = o.block_size
        sig, version = (b"HX", 5) if o.hfsx else (b"H+", 4)
        if o.corrupt == "bad-signature":
            sig = b"BD"
        uuid = hashlib.sha256(("%d:%s" % (o.seed, getattr(o, "uuid_label", o.label))).encode()).digest()[:8]
        finder = struct.pack(">6I", 0, 0, 0, 0, 0, 0) + uuid
        forks = b""
        for name in ("allocation", "extents", "catalog"):
            size, blocks, exts = self.forks[name]
            clump = {"allocation": bs, "extents": max(o.extents_node_size, bs),
                     "catalog": self.catalog_clump()}[name]
            forks += fork_data(size, clump, blocks, exts)
        forks += bytes(160)
        info_block = self.journal_exts.get("info", (0, 0))[0]
        hdr = (sig + struct.pack(">HIIIIIIIIIIIIIIIIIQ", version, self.attributes(),
                                 self.last_mounted_version(),
                                 info_block, HFS_TIME, HFS_TIME, 0, HFS_TIME,
                                 self.file_count, self.folder_count, bs, self.total_blocks,
                                 self.free_blocks, self.next_allocation, 16 * bs, 16 * bs,
                                 self.next_cnid, 1, 1)
               + finder + forks)
        assert len(hdr) == 512, len(hdr)
        hdr = bytearray(hdr)
        if o.corrupt == "catalog-logical-size":
            struct.pack_into(">Q", hdr, 272, 1 << 42)  # catalogFile.logicalSize: 4 TiB
        elif o.corrupt == "block-size":
            struct.pack_into(">I", hdr, 40, bs + bs // 2)  # not a power of two
        elif o.corrupt == "volume-beyond-device":
            struct.pack_into(">I", hdr, 44, 2 * self.total_blocks)
        return bytes(hdr)

    def write(self, path):
        o = self.o
        bs = o.block_size
        hdr = self.volume_header()
        with open(path, "wb") as f:
            f.truncate(o.size)
            f.seek(1024)
            f.write(hdr)
            # Alternate header at the end of the device and, when the size
            # is not a whole number of blocks, also at the end of the last
            # block: readers take "the end of the volume" either way.
            for at in sorted({o.size - 1024, self.total_blocks * bs - 1024}):
                f.seek(at)
                f.write(hdr)
            for name, data in (("allocation", self.bitmap), ("extents", self.ext),
                               ("catalog", self.cat)):
                pos = 0
                for start, count in self.forks[name][2]:
                    write_sparse(f, start * bs, data[pos:pos + count * bs])
                    pos += count * bs
            for at, data in self.journal_blocks():
                f.seek(at)
                f.write(data)
            if o.file_data:
                for cid, exts in self.file_exts.items():
                    for index, (start, _count) in enumerate(exts):
                        f.seek(start * bs)
                        f.write(file_block(cid, index, bs))

    def info(self):
        def tree(plan):
            return {"depth": plan.depth, "root": plan.root, "total_nodes": plan.total,
                    "free_nodes": plan.free, "map_nodes": plan.maps,
                    "leaves": len(plan.levels[0]) if plan.levels else 0}
        return {"total_blocks": self.total_blocks, "free_blocks": self.free_blocks,
                "catalog": tree(self.cat_plan), "extents": tree(self.ext_plan),
                "catalog_extents": self.forks["catalog"][2],
                "next_catalog_id": self.next_cnid,
                "journal": {role: {"start": s, "blocks": c}
                            for role, (s, c) in self.journal_exts.items()}}


    def entries(self):
        """Every folder and file below the root: path from the root (names
        as generated, "/" between them), CNID, and for files the data fork's
        size and SHA-256 (of zeros unless --file-data wrote the blocks)."""
        bs = self.o.block_size
        pad = self.o.name_length
        named = {cid: (parent, name.ljust(pad, "x") if pad else name, kind)
                 for parent, name, kind, cid in self.names}

        def path(cid):
            parts = []
            while cid != CNID_ROOT:
                parent, name, _ = named[cid]
                parts.append(name)
                cid = parent
            return "/" + "/".join(reversed(parts))

        out = []
        for _, _, kind, cid in self.names:
            entry = {"path": path(cid), "cnid": cid, "type": kind}
            if kind == "link":
                entry["number"] = self.links[cid]
            if kind == "file":
                exts = self.file_exts.get(cid, [])
                digest = hashlib.sha256()
                for index in range(len(exts)):
                    digest.update(file_block(cid, index, bs) if self.o.file_data else bytes(bs))
                entry["size"] = len(exts) * bs
                entry["sha256"] = digest.hexdigest()
            out.append(entry)
        for _, name, role, cid in self.journal_names:
            start, count = self.journal_exts[role]
            data = bytearray(count * bs)
            for at, block in self.journal_blocks():
                if start * bs <= at < (start + count) * bs:
                    data[at - start * bs:at - start * bs + len(block)] = block
            out.append({"path": "/" + name, "cnid": cid, "type": "file", "size": len(data),
                        "sha256": hashlib.sha256(data).hexdigest()})
        return out


# ---------------------------------------------------------------- the journal
#
# Journal header (one jhdr_size sector), block lists and their entries are in
# the byte order of the machine that wrote them; the JIB and the sectors the
# transactions carry are big-endian as always.  The buffer is the ring
# [jhdr_size, size) of the journal; a transaction is one or more block lists,
# each a blhdr_size area (header, entry 0, entries, filler) followed by the
# data of its entries.

JOURNAL_MAGIC_OLD = 0x4A484452            # "JHDR"
JOURNAL_KILLED = 0xFFFFFFFFFFFFFFFF       # bnum of a killed entry
JOURNAL_LIST_CHECKSUMS = 0x1              # block list flags: entries carry data checksums
JOURNAL_LIST_FIRST = 0x2                  # block list flags: first list of its transaction
JOURNAL_FILLER = 0x5A
JOURNAL_DAMAGE = (
    # The info block.
    "jib-flags", "jib-not-in-fs", "jib-beyond", "jib-overlap",
    # The header.
    "magic", "endian", "header-checksum", "jhdr-size", "size-mismatch", "size-small",
    "start-range", "end-align", "blhdr-zero", "blhdr-align", "blhdr-large", "past-end",
    # The last block list of the journal.
    "list-checksum", "max-blocks", "num-blocks", "bsize-zero", "bsize-align", "bnum-beyond",
    "bytes-used", "sequence", "data-checksum", "into-journal", "into-jib",
)


def journal_bytes(o):
    """Bytes of the journal (header sector and buffer): --journal-size rounded
    up to whole allocation blocks and whole journal sectors."""
    unit = max(o.block_size, o.journal_sector)
    return -(-o.journal_size // unit) * unit


class JournalHeader:
    def __init__(self, order, jhdr, blhdr, size, sequence, start=None, end=None):
        self.order = "<" if order == "little" else ">"
        self.magic, self.endian = JOURNAL_MAGIC, JOURNAL_ENDIAN
        self.jhdr, self.blhdr, self.size, self.sequence = jhdr, blhdr, size, sequence
        self.start = jhdr if start is None else start
        self.end = self.start if end is None else end
        self.bad_checksum = False

    def pack(self):
        layout = struct.Struct(self.order + "IIQQQIIII")
        fields = [self.magic, self.endian, self.start, self.end, self.size, self.blhdr, 0,
                  self.jhdr, self.sequence]
        checksum = journal_checksum(layout.pack(*fields)[:44])
        fields[6] = checksum ^ (1 if self.bad_checksum else 0)
        return layout.pack(*fields).ljust(self.jhdr, b"\0")


class BlockList:
    """One block list: entries are [bnum, bsize, data checksum, data]."""

    def __init__(self, entries, o, sequence, first, more):
        self.new = o.journal_format == "new"
        self.max_blocks = o.journal_blhdr // 16 - 1
        self.num_blocks = len(entries) + 1
        self.bytes_used = o.journal_blhdr + sum(len(data) for _, data in entries)
        self.flags = (JOURNAL_LIST_CHECKSUMS | (JOURNAL_LIST_FIRST if first else 0)) if self.new else 0
        # Entry 0: newer writers keep "another list follows" in bnum and the
        # sequence number in the last word; older ones use the last word as
        # "next".
        self.entry0 = [1 if more else 0, 0, sequence] if self.new else [0, 0, 1 if more else 0]
        self.entries = []
        for bnum, data in entries:
            if not self.new:
                check = 0xDEADBEEF                   # older writers: garbage
            elif bnum == JOURNAL_KILLED:
                check = 0
            else:
                check = journal_checksum(data)
            self.entries.append([bnum, len(data), check, data])
        self.bad_checksum = False

    def pack(self, order, blhdr):
        area = bytearray(bytes([JOURNAL_FILLER]) * blhdr if self.new else bytes(blhdr))
        struct.pack_into(order + "HHIII", area, 0, self.max_blocks, self.num_blocks,
                         self.bytes_used, 0, self.flags)
        struct.pack_into(order + "QII", area, 16, *self.entry0)
        for i, (bnum, bsize, check, _) in enumerate(self.entries, 1):
            struct.pack_into(order + "QII", area, 16 + 16 * i, bnum, bsize, check)
        checksum = journal_checksum(bytes(area[:32])) ^ (1 if self.bad_checksum else 0)
        struct.pack_into(order + "I", area, 8, checksum)
        return bytes(area) + b"".join(e[3] for e in self.entries)


class DirtyJournal:
    """A journal holding one transaction per --journal-rename (default one
    rename to LABEL + " 2"): each carries the sectors in which the volume
    renamed differs from the volume before, plus the volume header sector.
    `blocks` are the pieces of the image to write, `applied` the whole image
    as a correct replay leaves it (the image unchanged when the journal is
    stale or damaged)."""

    def __init__(self, o, vol, image_of):
        self.o, self.vol = o, vol
        bs = o.block_size
        jhdr, blhdr = o.journal_sector, o.journal_blhdr
        self.jib_at = vol.journal_exts["info"][0] * bs
        jstart, jcount = vol.journal_exts["journal"]
        self.offset, self.size = jstart * bs, jcount * bs
        if not (power_of_two(jhdr) and jhdr >= 512 and blhdr % jhdr == 0 and blhdr >= 2 * 16
                and self.size >= 256 * 1024 and o.size % jhdr == 0):
            raise BuildError("journal sector %d, block list header %d and journal of %d bytes "
                             "do not make a usable journal on %d bytes"
                             % (jhdr, blhdr, self.size, o.size))
        per_list = o.journal_list_entries or blhdr // 16 - 2
        if not 1 <= per_list <= blhdr // 16 - 2:
            raise BuildError("--journal-list-entries must be 1 to %d" % (blhdr // 16 - 2))
        self.order = "<" if o.journal_byte_order == "little" else ">"
        labels = o.journal_rename or [o.label + " 2"]
        images = [image_of(o.label)] + [image_of(label) for label in labels]
        chunk = max(4096, jhdr)
        lists = []
        for t, (before, after) in enumerate(zip(images, images[1:]), 1):
            entries = []
            for at in range(0, len(after), chunk):
                if after[at:at + chunk] != before[at:at + chunk]:
                    entries.append((at // jhdr, after[at:at + chunk]))
            vh_at = 1024 // jhdr * jhdr
            entries.append((vh_at // jhdr, after[vh_at:vh_at + max(512, jhdr)]))
            if o.journal_killed:
                entries.insert(1, (JOURNAL_KILLED, b"\xEE" * chunk))
            groups = [entries[i:i + per_list] for i in range(0, len(entries), per_list)]
            for g, group in enumerate(groups):
                lists.append(BlockList(group, o, o.journal_sequence + t, g == 0,
                                       g + 1 < len(groups)))
        used = sum(l.bytes_used for l in lists)
        capacity = self.size - jhdr
        if used >= capacity:
            raise BuildError("the transactions need %d bytes; the journal's buffer holds %d"
                             % (used, capacity - 1))
        start = jhdr
        if o.journal_wrap == "header":
            if blhdr < 2 * jhdr:
                raise BuildError("--journal-wrap header needs a block list header of two sectors")
            start = self.size - blhdr // jhdr // 2 * jhdr
        elif o.journal_wrap == "data":
            start = self.size - blhdr - jhdr
        end = self.advance(start, used)
        self.header = JournalHeader(o.journal_byte_order, jhdr, blhdr, self.size,
                                    o.journal_sequence + len(labels)
                                    if o.journal_format == "new" else 0, start, end)
        self.jib = [JIB_IN_FS, self.offset, self.size]
        self.lists = lists
        self.damage(o.journal_damage)
        ring = bytearray(self.size)
        pos = start
        for l in lists:
            self.put(ring, pos, l.pack(self.order, blhdr))
            pos = self.advance(pos, l.bytes_used)
        ring[:jhdr] = self.header.pack()
        jib = JIB.pack(self.jib[0], bytes(32), self.jib[1], self.jib[2])
        self.blocks = [(self.jib_at, jib), (self.offset, bytes(ring))]
        if o.journal_damage or o.journal_stale:
            self.applied = None                      # nothing is replayed
        else:
            applied = bytearray(images[-1])
            self.header.start = self.header.end
            ring[:jhdr] = self.header.pack()
            applied[self.jib_at:self.jib_at + len(jib)] = jib
            applied[self.offset:self.offset + self.size] = ring
            self.applied = bytes(applied)

    def advance(self, pos, n):
        jhdr = self.o.journal_sector
        return jhdr + (pos - jhdr + n) % (self.size - jhdr)

    def put(self, ring, pos, data):
        """Writes data at pos, going round from the end to jhdr_size."""
        done = 0
        while done < len(data):
            room = min(len(data) - done, self.size - pos)
            ring[pos:pos + room] = data[done:done + room]
            done += room
            pos = self.advance(pos, room)

    def damage(self, kind):
        if not kind:
            return
        o, h, last = self.o, self.header, self.lists[-1]
        jhdr = o.journal_sector
        first_data = last.entries[0]
        simple = {
            "jib-flags": lambda: self.jib.__setitem__(0, JIB_IN_FS | 0x8),
            "jib-not-in-fs": lambda: self.jib.__setitem__(0, 0),
            "jib-beyond": lambda: self.jib.__setitem__(1, o.size - self.size // 2),
            "jib-overlap": lambda: self.jib.__setitem__(1, 0),
            "magic": lambda: setattr(h, "magic", 0x4A4E4C79),
            "endian": lambda: setattr(h, "endian", 0x87654321),
            "header-checksum": lambda: setattr(h, "bad_checksum", True),
            "jhdr-size": lambda: setattr(h, "jhdr", 3 * jhdr // 2),
            "size-mismatch": lambda: setattr(h, "size", h.size - jhdr),
            "start-range": lambda: setattr(h, "start", h.size + jhdr),
            "end-align": lambda: setattr(h, "end", h.end + 256),
            "blhdr-zero": lambda: setattr(h, "blhdr", 0),
            "blhdr-align": lambda: setattr(h, "blhdr", h.blhdr + jhdr // 2),
            "blhdr-large": lambda: setattr(h, "blhdr", h.size),
            "past-end": lambda: setattr(h, "end", self.advance(h.end, self.size - 2 * jhdr)),
            "list-checksum": lambda: setattr(last, "bad_checksum", True),
            "max-blocks": lambda: setattr(last, "max_blocks", 0),
            "num-blocks": lambda: setattr(last, "num_blocks", last.max_blocks + 1),
            "bsize-zero": lambda: first_data.__setitem__(1, 0),
            "bsize-align": lambda: first_data.__setitem__(1, first_data[1] + jhdr // 2),
            "bnum-beyond": lambda: first_data.__setitem__(0, o.size // jhdr),
            "bytes-used": lambda: setattr(last, "bytes_used", last.bytes_used + jhdr),
            "into-journal": lambda: first_data.__setitem__(0, (self.offset + jhdr) // jhdr),
            "into-jib": lambda: first_data.__setitem__(0, self.jib_at // jhdr),
        }
        if kind == "size-small":
            # Header and info block agree on a journal too small to use.
            h.size = self.jib[2] = 128 * 1024
            h.start = h.end = jhdr
        elif kind in ("sequence", "data-checksum"):
            if not last.new or (kind == "sequence" and len(self.lists) < 2):
                raise BuildError("--journal-damage %s needs the new format%s"
                                 % (kind, " and two block lists" if kind == "sequence" else ""))
            if kind == "sequence":
                last.entry0[2] += 2
            else:
                first_data[2] ^= 1
        else:
            simple[kind]()


def dirty_journal(o, vol):
    """The dirty journal of `vol`, with the images it needs built in memory."""
    import copy
    import tempfile

    def image_of(label):
        r = copy.copy(o)
        r.label, r.uuid_label, r.journal, r.free_blocks = label, o.label, "clean", None
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "image")
            Volume(r).build().write(path)
            with open(path, "rb") as f:
                return f.read()

    return DirtyJournal(o, vol, image_of)


def journal_checksum(header):
    """The journal header's checksum: the header bytes folded as Apple's
    journal code does, with the checksum field zero, then inverted."""
    c = 0
    for b in header:
        c = ((c << 8) ^ (c + b)) & 0xFFFFFFFF
    return ~c & 0xFFFFFFFF


def set_bits(bitmap, start, count):
    end = start + count
    b = start
    while b < end and b % 8:
        bitmap[b >> 3] |= 0x80 >> (b & 7)
        b += 1
    whole = (end - b) // 8
    if whole > 0:
        bitmap[b >> 3:(b >> 3) + whole] = b"\xff" * whole
        b += whole * 8
    while b < end:
        bitmap[b >> 3] |= 0x80 >> (b & 7)
        b += 1


def write_sparse(f, offset, data, chunk=65536):
    zero = bytes(chunk)
    for pos in range(0, len(data), chunk):
        piece = data[pos:pos + chunk]
        if piece != zero[:len(piece)]:
            f.seek(offset + pos)
            f.write(piece)


class _Parser(argparse.ArgumentParser):
    def error(self, message):
        self.print_usage(sys.stderr)
        print("mkimage: %s" % message, file=sys.stderr)
        sys.exit(1)


def parse_args(argv):
    p = _Parser(description="Build an HFS+/HFSX volume image.")
    p.add_argument("out")
    p.add_argument("--size", type=int, required=True, help="image size in bytes")
    p.add_argument("--label", required=True, help="volume name (UTF-8)")
    p.add_argument("--block-size", type=int, default=4096)
    p.add_argument("--catalog-node-size", type=int, default=4096)
    p.add_argument("--extents-node-size", type=int, default=4096)
    p.add_argument("--hfsx", action="store_true", help="HFSX with binary name order")
    p.add_argument("--files", type=int, default=0)
    p.add_argument("--folders", type=int, default=0)
    p.add_argument("--catalog-fragments", type=int, default=1)
    p.add_argument("--free-catalog-nodes", type=int, default=None,
                   help="free catalog nodes (default 16, rounded up to whole blocks)")
    p.add_argument("--free-extents-nodes", type=int, default=None,
                   help="free extents overflow nodes (default 8, rounded up to whole blocks)")
    p.add_argument("--fragmented-files", type=int, default=0)
    p.add_argument("--file-fragments", type=int, default=0)
    p.add_argument("--varied-fragments", action="store_true",
                   help="fragmented file j has 1 + j mod --file-fragments one-block fragments "
                   "(default: every one has --file-fragments)")
    p.add_argument("--resource-fragments", type=int, default=0,
                   help="every fragmented file also has a resource fork of this many one-block "
                   "fragments")
    p.add_argument("--hard-links", type=int, default=0,
                   help="the first file becomes the indirect node file iNode<CNID> of the root's "
                   "private folder, named by this many hard links \"link N\" in the root")
    p.add_argument("--hard-link-number", type=int, default=0,
                   help="the hard links carry this number and their file is iNode<number>, as "
                   "Linux makes them (default: the file's CNID, as Mac OS does)")
    p.add_argument("--nesting", type=int, default=1,
                   help="folders form chains of this many, each inside the previous "
                   "(default 1: all folders directly in the root)")
    p.add_argument("--name-length", type=int, default=0)
    p.add_argument("--fill", type=int, default=100,
                   help="fill catalog nodes up to this percentage of their room (default 100)")
    p.add_argument("--catalog-index-chain", type=int, default=0, metavar="N",
                   help="stack N index nodes of one record each above the catalog's root")
    p.add_argument("--catalog-nodes", type=int, default=None,
                   help="generate files (from --files on) until the catalog has exactly this "
                   "many nodes, none free")
    p.add_argument("--catalog-clump-size", type=int, default=None,
                   help="clumpSize of the catalog (bytes; default the larger of node and "
                   "block size)")
    p.add_argument("--free-blocks", type=int, default=None,
                   help="shrink the volume from --size until exactly this many allocation "
                   "blocks are free (one run, before the alternate header)")
    p.add_argument("--corrupt", choices=CORRUPTIONS)
    p.add_argument("--scatter-nodes", action="store_true",
                   help="place the B-tree nodes at random node numbers (see --seed), "
                   "free nodes between them")
    p.add_argument("--seed", type=int, default=0,
                   help="seed of --scatter-nodes; also varies the volume UUID")
    p.add_argument("--info", action="store_true",
                   help="print a JSON summary of the layout on stdout")
    state = p.add_argument_group(
        "volume state", "attribute bits of the volume header and a journal (the states in "
        "which a change of the volume is unsafe)")
    state.add_argument("--not-unmounted", action="store_true",
                       help="clear the unmounted bit (8): not cleanly unmounted")
    state.add_argument("--inconsistent", action="store_true",
                       help="set the boot-volume-inconsistent bit (11)")
    state.add_argument("--software-lock", action="store_true",
                       help="set the software lock bit (15)")
    state.add_argument("--journal", choices=JOURNAL_STATES,
                       help="set the journaled bit (13) and add the root's %s and %s files: "
                       "clean (start = end), uninitialised (the info block asks for "
                       "initialisation; no header), dirty (start != end: transactions not "
                       "replayed), other-device (the info block puts the journal on another "
                       "device; no %s file), damaged (no header where the info block points)"
                       % (JOURNAL_INFO_NAME, JOURNAL_NAME, JOURNAL_NAME))
    state.add_argument("--journal-byte-order", choices=("little", "big"), default="little",
                       help="byte order of the journal header (default little, as Intel and "
                       "Apple silicon Macs write it; PowerPC Macs write big)")
    state.add_argument("--journal-size", type=int, default=JOURNAL_BYTES,
                       help="bytes of journal (default 512 KiB; rounded up to whole blocks)")
    state.add_argument("--journal-sector", type=int, default=JOURNAL_HEADER_SIZE,
                       help="jhdr_size: the journal's sector, unit of its block numbers "
                       "(default 512)")
    state.add_argument("--journal-blhdr", type=int, default=JOURNAL_BLOCK_LIST_SIZE,
                       help="blhdr_size: bytes of every block list header (default 4096)")
    state.add_argument("--journal-sequence", type=int, default=4660,
                       help="sequence number of the newest transaction before the dirty ones")
    state.add_argument("--journal-rename", action="append", metavar="LABEL",
                       help="with --journal dirty: one transaction renaming the volume to "
                       "LABEL (repeatable, applied in order; default one rename to LABEL 2)")
    state.add_argument("--journal-format", choices=("new", "old"), default="new",
                       help="block lists of newer writers (flags, sequence numbers, data "
                       "checksums) or older ones (flags 0, \"next\" in entry 0)")
    state.add_argument("--journal-list-entries", type=int, default=0, metavar="N",
                       help="at most N entries per block list (a transaction then spans "
                       "several lists)")
    state.add_argument("--journal-killed", action="store_true",
                       help="every transaction also holds a killed entry (bnum all ones) "
                       "whose data must never be written")
    state.add_argument("--journal-wrap", choices=("header", "data"),
                       help="start the transactions so that the first block list header "
                       "(header) or its first block's data (data) is split at the end of the "
                       "buffer")
    state.add_argument("--journal-stale", action="store_true",
                       help="lastMountedVersion H+Lx: a writer ignoring the journal mounted "
                       "last, so the journal must never be replayed")
    state.add_argument("--journal-damage", choices=JOURNAL_DAMAGE,
                       help="with --journal dirty: damage the info block, the header or the "
                       "last block list")
    state.add_argument("--journal-applied", metavar="PATH",
                       help="with --journal dirty: also write the image as a correct replay "
                       "leaves it (the journal marked clean; unchanged when the journal is "
                       "stale or damaged)")
    p.add_argument("--info-entries", action="store_true",
                   help="with --info, also list every folder and file (path, CNID, "
                   "type, size and SHA-256 of the data fork)")
    p.add_argument("--file-data", action="store_true",
                   help="write a pattern naming the file and block into every block "
                   "of the fragmented files (default: the blocks read as zeros)")
    o = p.parse_args(argv)
    if not 10 <= o.fill <= 100:
        p.error("--fill must be between 10 and 100")
    for name in ("free_catalog_nodes", "free_extents_nodes", "catalog_nodes",
                 "catalog_clump_size", "free_blocks"):
        v = getattr(o, name)
        if v is not None and v < 0:
            p.error("--%s must not be negative" % name.replace("_", "-"))
    return o


def fit_free_blocks(o, vol):
    """--free-blocks: rebuild with fewer blocks until exactly that many are
    free (the allocation file may shrink on the way)."""
    for _ in range(8):
        extra = vol.free_blocks - o.free_blocks
        if extra == 0:
            return vol
        if extra < 0:
            raise BuildError("--size %d leaves only %d free blocks, fewer than --free-blocks %d"
                             % (o.size, vol.free_blocks, o.free_blocks))
        o.size = (vol.total_blocks - extra) * o.block_size
        vol = Volume(o).build()
    raise BuildError("no volume size leaves exactly %d free blocks" % o.free_blocks)


def main(argv=None):
    o = parse_args(argv)
    try:
        vol = Volume(o).build()
        if o.free_blocks is not None:
            vol = fit_free_blocks(o, vol)
        if o.journal == "dirty":
            vol.dirty = dirty_journal(o, vol)
        elif o.journal_damage or o.journal_applied or o.journal_rename:
            raise BuildError("--journal-damage, --journal-applied and --journal-rename need "
                             "--journal dirty")
        vol.write(o.out)
        if o.journal_applied:
            if vol.dirty.applied is None:
                shutil.copyfile(o.out, o.journal_applied)
            else:
                with open(o.journal_applied, "wb") as f:
                    f.write(vol.dirty.applied)
    except BuildError as e:
        print("mkimage: %s" % e, file=sys.stderr)
        return 1
    except OSError as e:
        print("mkimage: %s: %s" % (o.out, e.strerror or e), file=sys.stderr)
        return 1
    if o.info:
        info = vol.info()
        if o.info_entries:
            info["entries"] = vol.entries()
        print(json.dumps(info))
    return 0


if __name__ == "__main__":
    sys.exit(main())
