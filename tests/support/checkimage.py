#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Independent consistency checker for an unmounted HFS+ / HFSX volume image.

usage: checkimage.py IMAGE [--offset BYTES] [--allow-orphan-blocks] [--structure-only]
                           [--no-replay] [--replayed OUT] [-v]

Reads the volume with its own reading of the published format (Apple TN1150),
sharing nothing with the C++ library or the image builder, and prints one line
per violated invariant. Exit status: 0 clean, 1 violations found, 2 usage or
I/O error.

Layout reminders (all integers big-endian):
  volume header     512 bytes at byte 1024, alternate copy 1024 bytes before
                    the end of the volume (totalBlocks * blockSize)
  fork data         logicalSize u64, clumpSize u32, totalBlocks u32, then
                    eight (startBlock u32, blockCount u32) extents
  B-tree node       fLink u32, bLink u32, kind s8, height u8, numRecords u16,
                    reserved u16; record offsets as u16 from the node's end
                    backwards, entry numRecords being the free-space offset
  header node       header record (106 bytes) at 14, user record (128) at
                    120, map record (nodeSize - 256) at 248
  catalog key       keyLength u16, parentID u32, name length u16, UTF-16 units
  extents key       keyLength u16 (10), forkType u8, pad u8, fileID u32,
                    startBlock u32; record: eight extents

A journaled volume is checked as it will read after its journal is replayed:
a dirty journal (not stale: lastMountedVersion HFSJ) is applied in memory
first, and a damaged journal is a violation (the volume is then checked as it
lies).  --no-replay checks the volume as it lies; --replayed OUT also writes
the replayed image (the journal marked clean) to OUT.

--allow-orphan-blocks stops reporting blocks that the allocation bitmap marks
but nothing uses: such a block only wastes space (fsck_hfs calls it a minor
repair), and xorriso leaves one behind the extents overflow file of every
volume it makes. Blocks used but not marked are always reported.

Alternate volume header: only fields that describe where the volume's
structures live are compared (signature, version, blockSize, totalBlocks and
the extents of the five special files). Counters and dates (modifyDate,
writeCount, free/file/folder counts, nextCatalogID, attributes, fork
logicalSize...) legitimately lag behind the primary copy, because an
implementation only rewrites the alternate when the structural layout changes.
"""

import mmap
import re
import os
import struct
import sys

VH_OFFSET = 1024
VH_SIZE = 512
SIG_HFSPLUS = 0x482B
SIG_HFSX = 0x4858

NODE_DESC_SIZE = 14
HEADER_REC_SIZE = 106
USER_REC_SIZE = 128
KIND_LEAF, KIND_INDEX, KIND_HEADER, KIND_MAP = -1, 0, 1, 2
BTREE_BIG_KEYS = 0x2
BTREE_VARIABLE_INDEX_KEYS = 0x4

CMP_CASE_FOLDING = 0xCF
CMP_BINARY = 0xBC

REC_FOLDER, REC_FILE, REC_FOLDER_THREAD, REC_FILE_THREAD = 1, 2, 3, 4
FOLDER_REC_SIZE = 88
FILE_REC_SIZE = 248
THREAD_REC_MIN = 10
FOLDER_HAS_FOLDER_COUNT = 0x10
MAX_NAME_UNITS = 255

CNID_ROOT_PARENT, CNID_ROOT = 1, 2
CNID_EXTENTS, CNID_CATALOG, CNID_BADBLOCKS = 3, 4, 5
CNID_ALLOCATION, CNID_STARTUP, CNID_ATTRIBUTES = 6, 7, 8
FIRST_USER_CNID = 16
FORK_DATA, FORK_RSRC = 0x00, 0xFF

# File records: BSD fileMode and special (a hard link's iNodeNum, an indirect
# node's link count), Finder fdType and fdCreator, the two forks.
FILE_MODE_AT, FILE_SPECIAL_AT = 42, 44
FILE_TYPE_AT, FILE_CREATOR_AT = 48, 52
DATA_FORK_AT, RSRC_FORK_AT = 88, 168
HARD_LINK = (b"hlnk", b"hfs+")
SYMLINK = (b"slnk", b"rhap")
S_IFMT, S_IFLNK = 0o170000, 0o120000
# Hard links point at indirect node files "iNode<iNodeNum>" in this folder
# of the root.
PRIVATE_FOLDER = (0, 0, 0, 0) + tuple(ord(c) for c in "HFS+ Private Data")
INODE_NAME = re.compile(r"iNode([0-9]+)")

# Special-file fork data in the volume header: (CNID, name, offset).
SPECIAL_FORKS = (
    (CNID_ALLOCATION, "allocation file", 112),
    (CNID_EXTENTS, "extents overflow file", 192),
    (CNID_CATALOG, "catalog file", 272),
    (CNID_ATTRIBUTES, "attributes file", 352),
    (CNID_STARTUP, "startup file", 432),
)

MAX_LINES_PER_KIND = 25

# Bits of a bitmap byte, most significant first, as one 0/1 byte per bit.
BIT_EXPAND = [bytes((b >> (7 - i)) & 1 for i in range(8)) for b in range(256)]


def be16(b, o):
    return (b[o] << 8) | b[o + 1]


def be32(b, o):
    return struct.unpack_from(">I", b, o)[0]


def be64(b, o):
    return struct.unpack_from(">Q", b, o)[0]


def bits_of(bitmap, count):
    """One byte (0 or 1) per bit of `bitmap`, first `count` bits."""
    out = b"".join(BIT_EXPAND[x] for x in bitmap[: (count + 7) // 8])
    return out[:count].ljust(count, b"\0")


def runs(indices):
    """Collapse sorted integers into (first, last) runs."""
    out = []
    for i in indices:
        if out and out[-1][1] == i - 1:
            out[-1][1] = i
        else:
            out.append([i, i])
    return out


def fmt_runs(rs, limit=8):
    text = ", ".join(str(a) if a == b else "%d-%d" % (a, b) for a, b in rs[:limit])
    if len(rs) > limit:
        text += ", ... (%d ranges)" % len(rs)
    return text


def name_text(units):
    try:
        return "".join(chr(u) for u in units).encode("utf-16-be", "surrogatepass").decode(
            "utf-16-be", "replace")
    except (ValueError, UnicodeError):
        return "?"


class Report:
    """Collects violation lines; limits floods of one kind of fault."""

    def __init__(self):
        self.lines = []
        self.per_kind = {}
        self.suppressed = {}

    def add(self, where, msg, kind=None):
        kind = kind or where.split(" ")[0] + ": " + re.sub(r"\d+|'.*?'", "#", msg)[:40]
        n = self.per_kind.get(kind, 0) + 1
        self.per_kind[kind] = n
        if n > MAX_LINES_PER_KIND:
            self.suppressed[kind] = self.suppressed.get(kind, 0) + 1
            return
        self.lines.append("%s: %s" % (where, msg))

    def output(self):
        out = list(self.lines)
        for kind, n in sorted(self.suppressed.items()):
            out.append("%s... (%d more lines like this not shown)" % (kind, n))
        return out

    def __bool__(self):
        return bool(self.lines)


def load_case_folding():
    """Folding table of the HFS+ case-insensitive order: unit -> folded unit."""
    here = os.path.dirname(os.path.abspath(__file__))
    path = os.path.join(here, "..", "..", "scripts", "data", "hfsplus-case-folding.txt")
    table = {}
    with open(path, encoding="ascii") as f:
        for line in f:
            line = line.split("#", 1)[0].split()
            if len(line) == 2:
                table[int(line[0], 16)] = int(line[1], 16)
    return table


class ForkData:
    def __init__(self, raw, owner):
        self.owner = owner
        self.logical_size = be64(raw, 0)
        self.clump_size = be32(raw, 8)
        self.total_blocks = be32(raw, 12)
        self.extents = [(be32(raw, 16 + 8 * i), be32(raw, 20 + 8 * i)) for i in range(8)]


def parse_extent_record(raw):
    return [(be32(raw, 8 * i), be32(raw, 8 * i + 4)) for i in range(8)]


# ---------------------------------------------------------------- journal
#
# A journaled volume (attributes bit 13) names its journal info block in the
# volume header (journalInfoBlock, offset 12); the info block (big-endian)
# gives flags, the journal's byte offset (36) and size (44).  The journal's
# header and block lists are in the byte order its magic reveals; a
# transaction's sectors land at bnum x jhdr_size from the start of the device.
# The checker replays a dirty journal in memory and checks the result: the
# volume as the next mount will see it.

ATTR_JOURNALED = 1 << 13
JIB_IN_FS, JIB_OTHER_DEVICE, JIB_NEED_INIT = 1, 2, 4
JNL_MAGIC, JNL_MAGIC_OLD, JNL_ENDIAN = 0x4A4E4C78, 0x4A484452, 0x12345678
JNL_KILLED = (1 << 64) - 1
JNL_MIN, JNL_MAX = 256 * 1024, 1 << 30


def jnl_checksum(raw):
    acc = 0
    for b in raw:
        acc = ((acc << 8) ^ (acc + b)) & 0xFFFFFFFF
    return acc ^ 0xFFFFFFFF


class JournalDamage(Exception):
    pass


class Journal:
    """Reads the journal of a volume image (bytes-like, from the device's
    start) and works out the writes its replay makes.  `state` ends as
    "none", "uninitialised", "clean", "stale" or "dirty"; damage raises
    JournalDamage with what is wrong."""

    def __init__(self, data):
        self.data = data
        self.writes = []          # (device offset, bytes) in replay order
        self.header_at = None
        self.clean_header = None
        self.state = "none"
        vh = bytes(data[VH_OFFSET:VH_OFFSET + VH_SIZE])
        if len(vh) < VH_SIZE or not be32(vh, 4) & ATTR_JOURNALED:
            return
        bs = be32(vh, 40)
        if bs < 512 or bs & (bs - 1):
            return                # the header check reports it
        self.volume_bytes = be32(vh, 44) * bs
        self.jib_at = be32(vh, 12) * bs
        jib = bytes(data[self.jib_at:self.jib_at + 180])
        if len(jib) < 180 or self.jib_at + 180 > self.volume_bytes:
            raise JournalDamage("journal info block %d lies outside the volume" % be32(vh, 12))
        flags, offset, size = be32(jib, 0), be64(jib, 36), be64(jib, 44)
        if flags & JIB_NEED_INIT:
            self.state = "uninitialised"
            return
        if flags & ~(JIB_IN_FS | JIB_OTHER_DEVICE | JIB_NEED_INIT):
            raise JournalDamage("journal info block flags 0x%x have undefined bits" % flags)
        if not flags & JIB_IN_FS or flags & JIB_OTHER_DEVICE:
            raise JournalDamage("journal is on another device (info block flags 0x%x)" % flags)
        if offset + size > self.volume_bytes or offset + size > len(data):
            raise JournalDamage("journal at %d, %d bytes, runs past the volume" % (offset, size))
        if offset < VH_OFFSET + VH_SIZE or (offset < self.jib_at + bs and self.jib_at < offset + size):
            raise JournalDamage("journal at %d overlaps the volume header or its info block" % offset)
        self.offset, self.size, self.jib_size = offset, size, size
        self.read_header(bytes(data[offset:offset + 48]), be32(vh, 8) == 0x4846534A)

    def read_header(self, h, hfsj):
        if struct.unpack(">I", h[0:4])[0] in (JNL_MAGIC, JNL_MAGIC_OLD):
            order = ">"
        elif struct.unpack("<I", h[0:4])[0] in (JNL_MAGIC, JNL_MAGIC_OLD):
            order = "<"
        else:
            raise JournalDamage("journal header magic %s is unknown" % h[0:4].hex())
        magic, endian, start, end, size, blhdr, checksum, jhdr, _ = struct.unpack(order + "IIQQQIIII", h[:48])
        self.order = order
        if endian != JNL_ENDIAN:
            raise JournalDamage("journal header endian word 0x%08x is not 0x12345678" % endian)
        if magic == JNL_MAGIC:
            raw = bytearray(h[:44])
            raw[36:40] = bytes(4)
            if jnl_checksum(raw) != checksum:
                raise JournalDamage("journal header checksum 0x%08x, computed 0x%08x"
                                    % (checksum, jnl_checksum(raw)))
        if jhdr < 512 or jhdr & (jhdr - 1):
            raise JournalDamage("journal sector size %d is not a power of two of 512 or more" % jhdr)
        if size != self.jib_size or size % jhdr or not JNL_MIN <= size <= JNL_MAX:
            raise JournalDamage("journal size %d (info block: %d) is unusable" % (size, self.jib_size))
        for name, v in (("start", start), ("end", end)):
            if not jhdr <= v <= size or v % 512:
                raise JournalDamage("journal %s %d is outside [%d, %d] or not sector aligned"
                                    % (name, v, jhdr, size))
        if blhdr == 0 or blhdr % jhdr or blhdr > size - jhdr:
            raise JournalDamage("block list header size %d does not fit the journal" % blhdr)
        self.jhdr, self.blhdr = jhdr, blhdr
        start, end = (jhdr if start == size else start), (jhdr if end == size else end)
        if start == end:
            self.state = "clean"
            return
        if not hfsj:
            self.state = "stale"
            return
        self.state = "dirty"
        self.walk(start, end)
        clean = bytearray(self.data[self.offset:self.offset + jhdr])
        struct.pack_into(order + "Q", clean, 8, struct.unpack_from(order + "Q", clean, 16)[0])
        if magic == JNL_MAGIC:
            struct.pack_into(order + "I", clean, 36, 0)
            struct.pack_into(order + "I", clean, 36, jnl_checksum(bytes(clean[:44])))
        self.header_at, self.clean_header = self.offset, bytes(clean)

    def ring(self, pos, n):
        """n bytes of the buffer at pos, going round from the end to jhdr."""
        out = b""
        while len(out) < n:
            take = min(n - len(out), self.size - pos)
            out += bytes(self.data[self.offset + pos:self.offset + pos + take])
            pos = self.jhdr if pos + take == self.size else pos + take
        return out

    def walk(self, start, end):
        capacity = self.size - self.jhdr
        left = (end - start) % capacity
        pos, prev_seq, o = start, None, self.order
        while left > 0:
            where = "block list at journal offset %d" % pos
            area = self.ring(pos, self.blhdr)
            max_blocks, num_blocks, used, checksum, flags = struct.unpack_from(o + "HHIII", area, 0)
            raw = bytearray(area[:32])
            raw[8:12] = bytes(4)
            if jnl_checksum(raw) != checksum:
                raise JournalDamage("%s: checksum mismatch" % where)
            if max_blocks < 1 or not 1 <= num_blocks <= max_blocks or 16 + 16 * num_blocks > self.blhdr:
                raise JournalDamage("%s: %d entries of %d" % (where, num_blocks, max_blocks))
            entries = [struct.unpack_from(o + "QII", area, 16 + 16 * i) for i in range(1, num_blocks)]
            total = 0
            for bnum, bsize, _ in entries:
                if bsize == 0 or bsize % self.jhdr:
                    raise JournalDamage("%s: block of %d bytes" % (where, bsize))
                if bnum != JNL_KILLED:
                    lo, hi = bnum * self.jhdr, bnum * self.jhdr + bsize
                    if hi > len(self.data):
                        raise JournalDamage("%s: block %d runs past the device" % (where, bnum))
                    if lo < self.offset + self.size and self.offset < hi or \
                            lo < self.jib_at + 512 and self.jib_at < hi:
                        raise JournalDamage("%s: block %d writes into the journal" % (where, bnum))
                total += bsize
            if used != self.blhdr + total or used > left:
                raise JournalDamage("%s: bytes_used %d, entries need %d, %d left"
                                    % (where, used, self.blhdr + total, left))
            seq = struct.unpack_from(o + "I", area, 28)[0]
            if flags:
                if prev_seq and seq and seq not in (prev_seq, (prev_seq + 1) & 0xFFFFFFFF):
                    raise JournalDamage("%s: sequence %d after %d" % (where, seq, prev_seq))
                prev_seq = seq
            at = (pos - self.jhdr + self.blhdr) % capacity + self.jhdr
            for bnum, bsize, check in entries:
                block = self.ring(at, bsize)
                if flags & 1 and check and bnum != JNL_KILLED and jnl_checksum(block) != check:
                    raise JournalDamage("%s: data checksum of block %d" % (where, bnum))
                if bnum != JNL_KILLED:
                    self.writes.append((bnum * self.jhdr, block))
                at = (at - self.jhdr + bsize) % capacity + self.jhdr
            pos = (pos - self.jhdr + used) % capacity + self.jhdr
            left -= used

    def replayed(self):
        """The image after replay (a copy), or the data itself when nothing
        is to be replayed."""
        if not self.writes and self.clean_header is None:
            return self.data
        out = bytearray(self.data)
        for at, block in self.writes:
            out[at:at + len(block)] = block
        out[self.header_at:self.header_at + len(self.clean_header)] = self.clean_header
        return out


class Volume:
    def __init__(self, data, report):
        self.data = data          # bytes-like view of the volume (from its start)
        self.r = report
        self.fold = None
        self.allow_orphans = False
        self.structure_only = False

    # ---------------------------------------------------------------- reading
    def read_extents(self, extents, limit):
        """Concatenate the bytes of `extents`, at most `limit` bytes, clipped
        to the image (missing bytes read as zero)."""
        parts = []
        have = 0
        limit = min(limit, len(self.data))    # no fork is larger than the image
        bs = self.block_size
        for start, count in extents:
            if have >= limit:
                break
            want = min(count * bs, limit - have)
            lo = start * bs
            chunk = self.data[lo:lo + want] if lo < len(self.data) else b""
            parts.append(bytes(chunk).ljust(want, b"\0"))
            have += want
        return b"".join(parts)

    # ---------------------------------------------------------- volume header
    def check_header(self):
        d = self.data
        if len(d) < VH_OFFSET + VH_SIZE:
            self.r.add("volume header", "image too small (%d bytes) to hold a volume header" % len(d))
            return False
        vh = bytes(d[VH_OFFSET:VH_OFFSET + VH_SIZE])
        self.vh = vh
        self.signature = be16(vh, 0)
        if self.signature not in (SIG_HFSPLUS, SIG_HFSX):
            self.r.add("volume header", "bad signature 0x%04X (want 0x482B H+ or 0x4858 HX)"
                       % self.signature)
            return False
        self.block_size = be32(vh, 40)
        self.total_blocks = be32(vh, 44)
        self.free_blocks = be32(vh, 48)
        self.file_count = be32(vh, 32)
        self.folder_count = be32(vh, 36)
        self.next_cnid = be32(vh, 64)
        bs = self.block_size
        if bs < 512 or bs & (bs - 1):
            self.r.add("volume header", "blockSize %d is not a power of two >= 512" % bs)
            return False
        self.volume_bytes = self.total_blocks * bs
        if self.volume_bytes > len(d):
            self.r.add("volume header", "totalBlocks %d x blockSize %d = %d bytes exceeds the image (%d bytes)"
                       % (self.total_blocks, bs, self.volume_bytes, len(d)))
        if self.volume_bytes < VH_OFFSET + VH_SIZE + 1024:
            self.r.add("volume header", "volume of %d blocks is too small" % self.total_blocks)
            return False
        self.forks = {}
        for cnid, name, off in SPECIAL_FORKS:
            self.forks[cnid] = ForkData(vh[off:off + 80], name)
        self.check_alternate_header()
        return True

    def check_alternate_header(self):
        off = self.volume_bytes - 1024
        if off + VH_SIZE > len(self.data):
            self.r.add("alternate volume header", "lies beyond the end of the image (at byte %d)" % off)
            return
        alt = bytes(self.data[off:off + VH_SIZE])
        sig = be16(alt, 0)
        if sig not in (SIG_HFSPLUS, SIG_HFSX):
            self.r.add("alternate volume header", "bad signature 0x%04X at byte %d" % (sig, off))
            return
        vh = self.vh
        fields = (("signature", 0, 2), ("version", 2, 2), ("blockSize", 40, 4),
                  ("totalBlocks", 44, 4))
        for name, o, n in fields:
            if alt[o:o + n] != vh[o:o + n]:
                self.r.add("alternate volume header", "%s differs from the volume header (%s vs %s)"
                           % (name, alt[o:o + n].hex(), vh[o:o + n].hex()))
        for cnid, name, o in SPECIAL_FORKS:
            # totalBlocks and the eight extents: where the special file lives
            if alt[o + 12:o + 80] != vh[o + 12:o + 80]:
                self.r.add("alternate volume header", "extents of the %s differ from the volume header" % name)

    # ----------------------------------------------------------------- B-trees
    def check_btree(self, tag, fork_bytes, logical_size, cnid):
        """Walk one B-tree; returns the leaf records [(node, key, data)] in
        tree order, or None when the tree cannot be read at all."""
        r = self.r
        self.walk_damaged = False
        if len(fork_bytes) < 512:
            r.add("%s header" % tag, "tree file too short (%d bytes)" % len(fork_bytes))
            return None
        fl, bl, kind, height, nrec = struct.unpack_from(">IIbBH", fork_bytes, 0)
        hdr_ok = True
        if kind != KIND_HEADER or nrec != 3:
            r.add("%s header" % tag, "node 0 has kind %d and %d records, want header kind 1 with 3 records"
                  % (kind, nrec))
            hdr_ok = False
        (depth, root, leaf_records, first_leaf, last_leaf, node_size, max_key,
         total_nodes, free_nodes) = struct.unpack_from(">HIIIIHHII", fork_bytes, 14)
        btree_type = fork_bytes[14 + 36]
        cmp_type = fork_bytes[14 + 37]
        attributes = be32(fork_bytes, 14 + 38)
        if node_size < 512 or node_size > 32768 or node_size & (node_size - 1):
            r.add("%s header" % tag, "nodeSize %d is not a power of two in 512..32768" % node_size)
            return None
        if logical_size != total_nodes * node_size:
            r.add("%s header" % tag, "fork logicalSize %d != totalNodes %d x nodeSize %d"
                  % (logical_size, total_nodes, node_size))
        if btree_type != 0:
            r.add("%s header" % tag, "btreeType %d, want 0 (kHFSBTreeType)" % btree_type)
        if not attributes & BTREE_BIG_KEYS:
            r.add("%s header" % tag, "attributes 0x%X lack the big keys bit (0x2)" % attributes)
        if cnid == CNID_CATALOG:
            if not attributes & BTREE_VARIABLE_INDEX_KEYS:
                r.add("%s header" % tag, "attributes 0x%X lack the variable index keys bit (0x4)" % attributes)
            if self.signature == SIG_HFSPLUS and cmp_type != CMP_CASE_FOLDING:
                r.add("%s header" % tag, "keyCompareType 0x%02X on an HFS+ volume, want 0xCF (case folding)"
                      % cmp_type)
            elif self.signature == SIG_HFSX and cmp_type not in (CMP_CASE_FOLDING, CMP_BINARY):
                r.add("%s header" % tag, "keyCompareType 0x%02X, want 0xCF or 0xBC" % cmp_type)
            want_max = 516
        else:
            want_max = 10
        if max_key != want_max:
            r.add("%s header" % tag, "maxKeyLength %d, want %d" % (max_key, want_max))
        # HFS+ catalogs are always case-insensitive; only HFSX may be binary.
        self.cmp_binary = cnid == CNID_CATALOG and self.signature == SIG_HFSX and cmp_type == CMP_BINARY

        avail = len(fork_bytes) // node_size
        if total_nodes > avail:
            r.add("%s header" % tag, "totalNodes %d but the fork holds only %d nodes" % (total_nodes, avail))
        nnodes = min(total_nodes, avail)

        def node(n):
            return fork_bytes[n * node_size:(n + 1) * node_size]

        def offsets(n, buf, nrec):
            """Record offsets (numRecords + 1 entries, last = free space) if sane."""
            where = "%s node %d" % (tag, n)
            if 2 * (nrec + 1) > node_size - NODE_DESC_SIZE:
                r.add(where, "numRecords %d cannot fit in the node" % nrec)
                return None
            array_start = node_size - 2 * (nrec + 1)
            offs = struct.unpack_from(">%dH" % (nrec + 1), buf, array_start)[::-1]
            ok = True
            if offs[0] != NODE_DESC_SIZE:
                r.add(where, "record 0 at offset %d, want 14" % offs[0])
                ok = False
            for i in range(nrec + 1):
                if offs[i] & 1:
                    r.add(where, "record offset %d (entry %d) is odd" % (offs[i], i))
                    ok = False
                if i and offs[i] <= offs[i - 1]:
                    r.add(where, "record offsets not strictly increasing at record %d (%d after %d)"
                          % (i, offs[i], offs[i - 1]))
                    ok = False
            if offs[nrec] > array_start:
                r.add(where, "free space offset %d runs into the offset array at %d" % (offs[nrec], array_start))
                ok = False
            return offs if ok else None

        # Header node record layout.
        hbuf = node(0)
        hoffs = offsets(0, hbuf, 3) if hdr_ok else None
        if hoffs is not None:
            want = (14, 14 + HEADER_REC_SIZE, 14 + HEADER_REC_SIZE + USER_REC_SIZE, node_size - 8)
            if tuple(hoffs) != want:
                r.add("%s node 0" % tag, "header node record offsets %s, want %s" % (list(hoffs), list(want)))

        # ---- walk the tree level by level from the root
        in_use = {0}
        leaves = []
        if root == 0:
            if depth != 0 or leaf_records != 0 or first_leaf != 0 or last_leaf != 0:
                r.add("%s header" % tag, "empty tree (rootNode 0) but treeDepth %d, leafRecords %d, "
                      "firstLeafNode %d, lastLeafNode %d" % (depth, leaf_records, first_leaf, last_leaf))
        elif root >= nnodes:
            r.add("%s header" % tag, "rootNode %d beyond totalNodes %d" % (root, total_nodes))
        else:
            if depth == 0:
                r.add("%s header" % tag, "rootNode %d but treeDepth 0" % root)
            leaves = self.walk(tag, node, offsets, root, depth, nnodes, in_use, cnid,
                               (leaf_records, first_leaf, last_leaf))

        if self.walk_damaged or hoffs is None:
            return leaves
        # ---- node allocation bitmap: header map record, then map nodes
        bitmap = []
        if hoffs is not None:
            bitmap.append(hbuf[hoffs[2]:hoffs[3]])
        seen_map = set()
        link = fl
        while link:
            where = "%s node %d" % (tag, link)
            if link >= nnodes:
                r.add(where, "map node link beyond totalNodes %d" % total_nodes)
                break
            if link in seen_map or link in in_use:
                r.add(where, "map node chain reaches node %d twice or reaches a tree node" % link)
                break
            seen_map.add(link)
            in_use.add(link)
            buf = node(link)
            mfl, mbl, mkind, mh, mn = struct.unpack_from(">IIbBH", buf, 0)
            if mkind != KIND_MAP or mn != 1:
                r.add(where, "map node has kind %d and %d records, want kind 2 with 1 record" % (mkind, mn))
                break
            moffs = offsets(link, buf, 1)
            if moffs is None:
                break
            bitmap.append(buf[moffs[0]:moffs[1]])
            link = mfl
        bitmap = b"".join(bitmap)
        if len(bitmap) * 8 < total_nodes:
            r.add("%s node bitmap" % tag, "covers %d nodes, fewer than totalNodes %d"
                  % (len(bitmap) * 8, total_nodes))
        past = [n for n in range(total_nodes, len(bitmap) * 8) if bitmap[n >> 3] & (0x80 >> (n & 7))]
        if past:
            # A grown tree would take these nodes for used ones.
            r.add("%s node bitmap" % tag, "nodes past totalNodes %d marked: %s"
                  % (total_nodes, fmt_runs(runs(past))))
        marked = bits_of(bitmap, nnodes)
        expect = bytearray(nnodes)
        for n in in_use:
            if n < nnodes:
                expect[n] = 1
        if marked != bytes(expect):
            unmarked = [n for n in range(nnodes) if expect[n] and not marked[n]]
            stray = [n for n in range(nnodes) if marked[n] and not expect[n]]
            if unmarked:
                r.add("%s node bitmap" % tag, "nodes in use but not marked: %s" % fmt_runs(runs(unmarked)))
            if stray:
                r.add("%s node bitmap" % tag, "nodes marked but not in use: %s" % fmt_runs(runs(stray)))
        used = sum(1 for n in in_use if n < nnodes)
        if free_nodes != total_nodes - used:
            r.add("%s header" % tag, "freeNodes %d, want totalNodes %d - %d nodes in use = %d"
                  % (free_nodes, total_nodes, used, total_nodes - used))
        return leaves

    def walk(self, tag, node, offsets, root, depth, nnodes, in_use, cnid, hdr):
        r = self.r
        leaf_records, first_leaf, last_leaf = hdr
        keyfn = self.catalog_sort_key if cnid == CNID_CATALOG else self.extents_sort_key
        max_keylen = 516 if cnid == CNID_CATALOG else 10
        leaves = []
        # level: list of (node number, key expected as its first key or None)
        level = [(root, None)]
        height = depth
        leaf_chain = None
        damaged = False
        in_use.add(root)
        while level and height >= 1:
            nodes_here = []
            next_level = []
            prev_key = None
            for n, parent_key in level:
                where = "%s node %d" % (tag, n)
                buf = node(n)
                fl, bl, kind, h, nrec = struct.unpack_from(">IIbBH", buf, 0)
                want_kind = KIND_LEAF if height == 1 else KIND_INDEX
                if kind != want_kind:
                    r.add(where, "kind %d at height %d, want %d" % (kind, height, want_kind))
                    damaged = True
                    continue
                nodes_here.append((n, fl, bl))
                if h != height:
                    r.add(where, "height field %d, want %d" % (h, height))
                if nrec == 0:
                    r.add(where, "node in the tree holds no records")
                    continue
                offs = offsets(n, buf, nrec)
                if offs is None:
                    damaged = True
                    continue
                for i in range(nrec):
                    start, end = offs[i], offs[i + 1]
                    if end - start < 2:
                        r.add(where, "record %d too short for a key length" % i)
                        break
                    klen = be16(buf, start)
                    data_at = start + 2 + klen + (klen & 1)
                    need = data_at + (4 if kind == KIND_INDEX else 0)
                    if need > end:
                        r.add(where, "record %d keyLength %d does not fit the record (%d bytes)"
                              % (i, klen, end - start))
                        damaged = True
                        break
                    if klen > max_keylen:
                        r.add(where, "record %d keyLength %d exceeds maxKeyLength %d" % (i, klen, max_keylen))
                    keyb = buf[start:start + 2 + klen]
                    sk = keyfn(keyb, where, i)
                    if sk is None:
                        damaged = True
                        break
                    if i == 0 and parent_key is not None and keyb != parent_key:
                        r.add(where, "first key differs from the index key that points here")
                    if prev_key is not None and not prev_key < sk:
                        r.add(where, "record %d key %s is not above the previous key %s"
                              % (i, self.key_text(cnid, sk), self.key_text(cnid, prev_key)))
                    prev_key = sk
                    if kind == KIND_INDEX:
                        child = be32(buf, data_at)
                        if child == 0 or child >= nnodes:
                            r.add(where, "record %d points at node %d outside 1..%d"
                                  % (i, child, nnodes - 1))
                            damaged = True
                        elif child == n:
                            r.add(where, "record %d points back at its own node" % i)
                            damaged = True
                        elif child in in_use:
                            r.add(where, "record %d points at node %d, which is already in the tree "
                                  "(a cycle or a shared child)" % (i, child))
                            damaged = True
                        else:
                            in_use.add(child)
                            next_level.append((child, keyb))
                    else:
                        leaves.append((n, keyb, buf[data_at:end]))
            # sibling links of this level, in key order, ends 0; a level
            # with lost nodes would only repeat the fault reported above
            for j, (n, fl, bl) in enumerate(nodes_here if not damaged else ()):
                want_f = nodes_here[j + 1][0] if j + 1 < len(nodes_here) else 0
                want_b = nodes_here[j - 1][0] if j else 0
                if fl != want_f or bl != want_b:
                    r.add("%s node %d" % (tag, n), "sibling links fLink %d bLink %d, want %d and %d"
                          % (fl, bl, want_f, want_b))
            if height == 1:
                leaf_chain = nodes_here
            in_use.update(n for n, _ in level)
            level = next_level
            height -= 1
        if level:
            r.add("%s header" % tag, "treeDepth %d but the tree continues below the leaf level" % depth)
            damaged = True
        self.walk_damaged = damaged
        if damaged:
            # Tree-wide counts and the node bitmap cannot be judged on a
            # partial walk; the lines above name the fault.
            return leaves
        if leaf_chain is not None and leaf_chain:
            if first_leaf != leaf_chain[0][0] or last_leaf != leaf_chain[-1][0]:
                r.add("%s header" % tag, "firstLeafNode %d lastLeafNode %d, leaf chain runs %d..%d"
                      % (first_leaf, last_leaf, leaf_chain[0][0], leaf_chain[-1][0]))
        if leaf_records != len(leaves):
            r.add("%s header" % tag, "leafRecords %d but the leaves hold %d records"
                  % (leaf_records, len(leaves)))
        return leaves

    # -------------------------------------------------------- key orderings
    def catalog_sort_key(self, keyb, where, i):
        klen = be16(keyb, 0)
        if klen < 6:
            self.r.add(where, "record %d catalog keyLength %d below 6" % (i, klen))
            return None
        parent = be32(keyb, 2)
        nlen = be16(keyb, 6)
        if klen != 6 + 2 * nlen:
            self.r.add(where, "record %d keyLength %d does not match name length %d" % (i, klen, nlen))
            return None
        if nlen > MAX_NAME_UNITS:
            self.r.add(where, "record %d (%d, ...) name of %d units is longer than 255" % (i, parent, nlen))
        units = struct.unpack_from(">%dH" % nlen, keyb, 8)
        if self.cmp_binary:
            return (parent, units)
        fold = self.fold
        return (parent, tuple(f for f in (fold.get(u, u) for u in units) if f))

    def extents_sort_key(self, keyb, where, i):
        klen = be16(keyb, 0)
        if klen != 10:
            self.r.add(where, "record %d extents keyLength %d, want 10" % (i, klen))
            return None
        fork_type, _pad, file_id, start = struct.unpack_from(">BBII", keyb, 2)
        return (file_id, fork_type, start)

    def key_text(self, cnid, sk):
        if cnid == CNID_CATALOG:
            return "(%d, %r)" % (sk[0], name_text(u for u in sk[1] if u != 0xFFFF))
        return "(file %d, fork 0x%02X, block %d)" % sk

    # ----------------------------------------------------- extents overflow
    def load_overflow(self):
        fd = self.forks[CNID_EXTENTS]
        raw = self.read_extents(fd.extents, fd.logical_size)
        leaves = self.check_btree("extents overflow", raw, fd.logical_size, CNID_EXTENTS)
        # Without every overflow record, fork block counts cannot be judged.
        self.overflow_complete = leaves is not None and not self.walk_damaged
        self.overflow = {}   # (fileID, forkType) -> [(startBlock, extents)]
        for n, keyb, data in leaves or ():
            fork_type, _pad, file_id, start = struct.unpack_from(">BBII", keyb, 2)
            where = "extents overflow node %d" % n
            if len(data) != 64:
                self.r.add(where, "record for file %d has %d bytes, want 64" % (file_id, len(data)))
                continue
            if fork_type not in (FORK_DATA, FORK_RSRC):
                self.r.add(where, "record for file %d has forkType 0x%02X" % (file_id, fork_type))
            self.overflow.setdefault((file_id, fork_type), []).append((start, parse_extent_record(data), n))
        self.overflow_used = set()

    def fork_extents(self, fd, file_id, fork_type, where):
        """All extents of a fork (fork data, then overflow records), checked
        for continuity and against totalBlocks."""
        extents = []
        total = 0
        ended = False
        for s, c in fd.extents:
            if c == 0:
                ended = True
                if s:
                    self.r.add(where, "empty extent with startBlock %d" % s)
                continue
            if ended:
                self.r.add(where, "extent after an empty extent in the fork data")
            extents.append((s, c))
            total += c
        recs = self.overflow.get((file_id, fork_type), [])
        if recs:
            self.overflow_used.add((file_id, fork_type))
            if file_id == CNID_EXTENTS:
                self.r.add(where, "the extents overflow file has records in its own tree")
            elif any(c == 0 for s, c in fd.extents):
                self.r.add(where, "overflow records exist though the fork data has unused extents")
        for start, ext, node in recs:
            if start != total:
                self.r.add(where, "overflow record at fork block %d, but the fork's earlier extents end at block %d"
                           % (start, total))
            ended = False
            for s, c in ext:
                if c == 0:
                    ended = True
                    continue
                if ended:
                    self.r.add(where, "overflow record at block %d has an extent after an empty one" % start)
                extents.append((s, c))
                total += c
        if total != fd.total_blocks and self.overflow_complete:
            self.r.add(where, "totalBlocks %d but its extents hold %d blocks" % (fd.total_blocks, total))
        if fd.logical_size > fd.total_blocks * self.block_size:
            self.r.add(where, "logicalSize %d exceeds totalBlocks %d x blockSize %d"
                       % (fd.logical_size, fd.total_blocks, self.block_size))
        for s, c in extents:
            if s + c > self.total_blocks:
                self.r.add(where, "extent %d+%d runs past the volume's %d blocks" % (s, c, self.total_blocks))
        return extents

    # ---------------------------------------------------------------- catalog
    def check_catalog(self):
        r = self.r
        fd = self.forks[CNID_CATALOG]
        extents = self.fork_extents(fd, CNID_CATALOG, FORK_DATA, "catalog file fork")
        raw = self.read_extents(extents, fd.logical_size)
        leaves = self.check_btree("catalog", raw, fd.logical_size, CNID_CATALOG)
        if leaves is None or self.walk_damaged:
            return None
        folders = {}     # cnid -> (parent, name, valence, flags, folderCount, node)
        files = {}       # cnid -> (parent, name, node, record)
        threads = {}     # cnid -> (type, parent, name, node)
        by_key = {}      # (parent, name) -> cnid
        children = {}
        child_folders = {}
        for n, keyb, data in leaves:
            where = "catalog node %d" % n
            parent = be32(keyb, 2)
            nlen = be16(keyb, 6)
            name = struct.unpack_from(">%dH" % nlen, keyb, 8)
            if len(data) < 2:
                r.add(where, "record (%d, %r) has no record type" % (parent, name_text(name)))
                continue
            rtype = be16(data, 0)
            if rtype in (REC_FOLDER, REC_FILE):
                size = FOLDER_REC_SIZE if rtype == REC_FOLDER else FILE_REC_SIZE
                if len(data) != size:
                    r.add(where, "%s record (%d, %r) has %d bytes, want %d"
                          % ("folder" if rtype == REC_FOLDER else "file", parent, name_text(name), len(data), size))
                    if len(data) < size:
                        continue
                cnid = be32(data, 8)
                if cnid in folders or cnid in files:
                    r.add(where, "CNID %d of record (%d, %r) is used twice" % (cnid, parent, name_text(name)))
                    continue
                if cnid < FIRST_USER_CNID and cnid != CNID_ROOT:
                    r.add(where, "record (%d, %r) has reserved CNID %d" % (parent, name_text(name), cnid))
                if cnid == CNID_ROOT and parent != CNID_ROOT_PARENT:
                    r.add(where, "root folder record has parentID %d, want 1" % parent)
                if parent == CNID_ROOT_PARENT and cnid != CNID_ROOT:
                    r.add(where, "record (%d, %r) with CNID %d sits in the root's parent"
                          % (parent, name_text(name), cnid))
                by_key[(parent, name)] = cnid
                children[parent] = children.get(parent, 0) + 1
                if rtype == REC_FOLDER:
                    if cnid == CNID_ROOT_PARENT:
                        r.add(where, "folder record with CNID 1")
                    folders[cnid] = (parent, name, be32(data, 4), be16(data, 2), be32(data, 84), n)
                    child_folders[parent] = child_folders.get(parent, 0) + 1
                else:
                    files[cnid] = (parent, name, n, data)
                    if data[48:56] == b"fdrpMACS" and be16(data, 2) & 0x20:
                        child_folders[parent] = child_folders.get(parent, 0) + 1
            elif rtype in (REC_FOLDER_THREAD, REC_FILE_THREAD):
                if nlen != 0:
                    r.add(where, "thread record key (%d, %r) has a non-empty name" % (parent, name_text(name)))
                if len(data) < THREAD_REC_MIN:
                    r.add(where, "thread record for CNID %d has %d bytes" % (parent, len(data)))
                    continue
                tparent = be32(data, 4)
                tlen = be16(data, 8)
                if tlen > MAX_NAME_UNITS:
                    r.add(where, "thread record for CNID %d holds a name of %d units, longer than 255"
                          % (parent, tlen))
                if len(data) != THREAD_REC_MIN + 2 * tlen:
                    r.add(where, "thread record for CNID %d has %d bytes for a name of %d units (want %d)"
                          % (parent, len(data), tlen, THREAD_REC_MIN + 2 * tlen))
                    if THREAD_REC_MIN + 2 * tlen > len(data):
                        continue
                tname = struct.unpack_from(">%dH" % tlen, data, 10)
                threads[parent] = (rtype, tparent, tname, n)
            else:
                r.add(where, "record (%d, %r) has unknown record type %d" % (parent, name_text(name), rtype))

        # root folder and its thread
        root = folders.get(CNID_ROOT)
        if root is None:
            r.add("catalog", "no root folder record (parentID 1, folderID 2)")
        th = threads.get(CNID_ROOT)
        if th is None:
            r.add("catalog", "no thread record for the root folder (key 2, empty name)")

        # threads of every folder and file, and records behind every thread
        for table, want_type, what in ((folders, REC_FOLDER_THREAD, "folder"), (files, REC_FILE_THREAD, "file")):
            for cnid, rec in table.items():
                parent, name = rec[0], rec[1]
                where = "catalog %s %d (%d, %r)" % (what, cnid, parent, name_text(name))
                t = threads.get(cnid)
                if t is None:
                    if cnid != CNID_ROOT:
                        r.add(where, "has no thread record")
                    continue
                ttype, tparent, tname, tnode = t
                if ttype != want_type:
                    r.add(where, "thread record has type %d, want %d" % (ttype, want_type))
                if tparent != parent or tname != name:
                    r.add(where, "thread record names (%d, %r)" % (tparent, name_text(tname)))
                if cnid != CNID_ROOT and parent not in folders:
                    r.add(where, "parent %d is not an existing folder" % parent)
        for cnid, (ttype, tparent, tname, tnode) in threads.items():
            target = by_key.get((tparent, tname))
            if target != cnid:
                r.add("catalog node %d" % tnode, "thread record of CNID %d points at (%d, %r), %s"
                      % (cnid, tparent, name_text(tname),
                         "which does not exist" if target is None else "which is CNID %d" % target))

        # valences, counts, CNID bound
        for cnid, (parent, name, valence, flags, fcount, node) in folders.items():
            where = "catalog folder %d (%d, %r)" % (cnid, parent, name_text(name))
            want = children.get(cnid, 0)
            if valence != want:
                r.add(where, "valence %d, but it holds %d items" % (valence, want))
            if flags & FOLDER_HAS_FOLDER_COUNT and fcount != child_folders.get(cnid, 0):
                r.add(where, "folderCount %d, but it holds %d folders" % (fcount, child_folders.get(cnid, 0)))
        if self.file_count != len(files):
            r.add("volume header", "fileCount %d, catalog holds %d file records" % (self.file_count, len(files)))
        nfolders = len(folders) - (1 if root is not None else 0)
        if self.folder_count != nfolders:
            r.add("volume header", "folderCount %d, catalog holds %d folders besides the root"
                  % (self.folder_count, nfolders))
        ids = set(folders) | set(files) | set(threads)
        if ids and self.next_cnid <= max(ids):
            r.add("volume header", "nextCatalogID %d is not above the highest CNID %d" % (self.next_cnid, max(ids)))
        self.catalog_extents = extents
        self.check_links(files, folders)
        return files

    def check_links(self, files, folders):
        """Hard-link and symbolic-link file records.  A hard link ("hlnk"
        "hfs+") has empty forks and names, by its iNodeNum, an indirect node
        file in the root's private folder, whose link count is the number of
        links naming it.  A symbolic link ("slnk" "rhap") holds its target,
        at least one byte and no NUL, in its data fork, none in its resource
        fork, and its fileMode (when set) says symbolic link."""
        r = self.r
        private = [c for c, f in folders.items() if f[0] == CNID_ROOT and f[1] == PRIVATE_FOLDER]
        inodes = {}       # iNodeNum -> [link count, links seen, where]
        for cnid, (parent, name, _node, data) in files.items():
            number = INODE_NAME.fullmatch(name_text(name))
            if private and parent == private[0] and number:
                where = "catalog file %d (%d, %r)" % (cnid, parent, name_text(name))
                inodes[int(number.group(1))] = [be32(data, FILE_SPECIAL_AT), 0, where]
        for cnid, (parent, name, _node, data) in files.items():
            where = "catalog file %d (%d, %r)" % (cnid, parent, name_text(name))
            kind = (bytes(data[FILE_TYPE_AT:FILE_TYPE_AT + 4]),
                    bytes(data[FILE_CREATOR_AT:FILE_CREATOR_AT + 4]))
            mode = be16(data, FILE_MODE_AT)
            if mode and ((mode & S_IFMT) == S_IFLNK) != (kind == SYMLINK):
                r.add(where, "fileMode 0%o disagrees with fdType %r fdCreator %r"
                      % (mode, kind[0].decode("latin-1"), kind[1].decode("latin-1")))
            if kind == HARD_LINK:
                for label, at in (("data", DATA_FORK_AT), ("resource", RSRC_FORK_AT)):
                    if be64(data, at) or be32(data, at + 12):
                        r.add(where, "hard link has a non-empty %s fork" % label)
                number = be32(data, FILE_SPECIAL_AT)
                if number in inodes:
                    inodes[number][1] += 1
                else:
                    r.add(where, "hard link names iNode%d, which is not in %s"
                          % (number, "the private metadata folder" if private
                             else "a private metadata folder: the root has none"))
            elif kind == SYMLINK:
                self.check_symlink_target(where, data)
        for number, (count, links, where) in sorted(inodes.items()):
            if count != links:
                r.add(where, "link count %d, but %d hard links name it" % (count, links))

    def check_symlink_target(self, where, data):
        fd = ForkData(data[DATA_FORK_AT:DATA_FORK_AT + 80], "symbolic link")
        if be64(data, RSRC_FORK_AT) or be32(data, RSRC_FORK_AT + 12):
            self.r.add(where, "symbolic link has a non-empty resource fork")
        if fd.logical_size == 0:
            self.r.add(where, "symbolic link has no target (empty data fork)")
        elif fd.logical_size <= sum(c for _, c in fd.extents) * self.block_size:
            if b"\0" in self.read_extents(fd.extents, fd.logical_size):
                self.r.add(where, "symbolic link target holds a NUL byte")

    # ---------------------------------------------------------- allocation
    def check_allocation(self, files):
        r = self.r
        bs = self.block_size
        total = self.total_blocks
        owners = []   # (start, count, owner)
        head_last = (VH_OFFSET + VH_SIZE - 1) // bs
        owners.append((0, head_last + 1, "volume header"))
        alt_first = (self.volume_bytes - 1024) // bs
        owners.append((alt_first, total - alt_first, "alternate volume header"))
        special_ext = {CNID_CATALOG: self.catalog_extents}
        for cnid, name, _off in SPECIAL_FORKS:
            if cnid not in special_ext:
                special_ext[cnid] = self.fork_extents(self.forks[cnid], cnid, FORK_DATA, name + " fork")
            for s, c in special_ext[cnid]:
                owners.append((s, c, name))
        bad = self.overflow.get((CNID_BADBLOCKS, FORK_DATA), [])
        if bad:
            self.overflow_used.add((CNID_BADBLOCKS, FORK_DATA))
        for _start, ext, _n in bad:
            for s, c in ext:
                if c:
                    owners.append((s, c, "bad blocks file"))
                    if s + c > total:
                        r.add("bad blocks file", "extent %d+%d runs past the volume" % (s, c))
        for cnid, (parent, name, node, data) in files.items():
            for fork_type, off, label in ((FORK_DATA, 88, "data"), (FORK_RSRC, 168, "resource")):
                fd = ForkData(data[off:off + 80], "file %d %s fork" % (cnid, label))
                where = "catalog file %d (%d, %r) %s fork" % (cnid, parent, name_text(name), label)
                for s, c in self.fork_extents(fd, cnid, fork_type, where):
                    owners.append((s, c, fd.owner))
        for key, recs in self.overflow.items():
            if key not in self.overflow_used:
                r.add("extents overflow node %d" % recs[0][2], "records for file %d fork 0x%02X belong to no file"
                      % key)

        # overlaps between any two users of a block
        owners.sort()
        reach_end, reach_owner = 0, None
        for s, c, who in owners:
            if c == 0:
                continue
            if s < reach_end:
                r.add("allocation", "blocks %d..%d of %s are also used by %s"
                      % (s, min(reach_end, s + c) - 1, who, reach_owner), kind="overlap")
            if s + c > reach_end:
                reach_end, reach_owner = s + c, who

        # the allocation bitmap itself
        afd = self.forks[CNID_ALLOCATION]
        need = (total + 7) // 8
        if afd.logical_size < need:
            r.add("allocation file", "logicalSize %d is smaller than the %d bytes the bitmap needs"
                  % (afd.logical_size, need))
        bitmap = self.read_extents(special_ext[CNID_ALLOCATION], need)
        marked = bits_of(bitmap, total)
        expect = bytearray(total)
        for s, c, _who in owners:
            if s < total:
                e = min(total, s + c)
                expect[s:e] = b"\1" * (e - s)
        free = marked.count(0)
        if free != self.free_blocks:
            r.add("volume header", "freeBlocks %d, the allocation bitmap has %d clear bits" % (self.free_blocks, free))
        if marked != bytes(expect):
            unmarked = [i for i in range(total) if expect[i] and not marked[i]]
            stray = [i for i in range(total) if marked[i] and not expect[i]]
            if unmarked:
                r.add("allocation bitmap", "blocks in use but not marked: %s" % fmt_runs(runs(unmarked)))
            if stray and not self.allow_orphans:
                r.add("allocation bitmap", "blocks marked but used by nothing: %s" % fmt_runs(runs(stray)))

    def check(self):
        if not self.check_header():
            return
        self.fold = load_case_folding()
        self.load_overflow()
        if self.structure_only:
            # B-tree structure and key order only: records need not belong
            # to files, blocks need not be accounted for.
            fd = self.forks[CNID_CATALOG]
            extents = self.fork_extents(fd, CNID_CATALOG, FORK_DATA, "catalog file fork")
            self.check_btree("catalog", self.read_extents(extents, fd.logical_size),
                             fd.logical_size, CNID_CATALOG)
            return
        files = self.check_catalog()
        if files is None or not self.overflow_complete or self.volume_bytes > len(self.data):
            return
        self.check_allocation(files)


def main(argv):
    args = list(argv[1:])
    verbose = False
    allow_orphans = False
    structure_only = False
    replay = True
    replayed_out = None
    offset = 0
    image = None
    try:
        while args:
            a = args.pop(0)
            if a == "-v":
                verbose = True
            elif a == "--allow-orphan-blocks":
                allow_orphans = True
            elif a == "--structure-only":
                structure_only = True
            elif a == "--no-replay":
                replay = False
            elif a == "--replayed":
                replayed_out = args.pop(0)
            elif a == "--offset":
                offset = int(args.pop(0), 0)
            elif a.startswith("--offset="):
                offset = int(a.split("=", 1)[1], 0)
            elif a.startswith("-") or image is not None:
                raise ValueError(a)
            else:
                image = a
        if image is None or offset < 0:
            raise ValueError("missing image")
    except (ValueError, IndexError):
        sys.stderr.write("usage: checkimage.py IMAGE [--offset BYTES] [--allow-orphan-blocks] "
                         "[--structure-only] [--no-replay] [--replayed OUT] [-v]\n")
        return 2
    try:
        f = open(image, "rb")
    except OSError as e:
        sys.stderr.write("checkimage: %s: %s\n" % (image, e.strerror))
        return 2
    with f:
        size = os.fstat(f.fileno()).st_size
        if size > offset:
            mm = mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ)
            data = memoryview(mm)[offset:]
        else:
            mm, data = None, b""
        report = Report()
        if replay:
            try:
                data = Journal(data).replayed()
            except JournalDamage as e:
                report.add("journal", str(e))
            except (IndexError, struct.error, ValueError, OverflowError, MemoryError) as e:
                report.add("journal", "stopped on unreadable data (%s: %s)" % (type(e).__name__, e))
        if replayed_out is not None:
            try:
                with open(replayed_out, "wb") as out:
                    out.write(data)
            except OSError as e:
                sys.stderr.write("checkimage: %s: %s\n" % (replayed_out, e.strerror))
                return 2
        vol = Volume(data, report)
        vol.allow_orphans = allow_orphans
        vol.structure_only = structure_only
        try:
            vol.check()
        except (IndexError, struct.error, ValueError, OverflowError, MemoryError) as e:
            # Damage the checks above did not foresee: still one line, no traceback.
            report.add("checker", "stopped on unreadable data (%s: %s)" % (type(e).__name__, e))
    for line in report.output():
        print(line)
    if verbose and not report:
        print("%s: no problems found" % image)
    return 1 if report else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
