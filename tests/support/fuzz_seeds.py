#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Seed corpus of the fuzz targets, made at build time by the image builder.

    fuzz_seeds.py OUT_DIR

Writes OUT_DIR/print, change, btree, alloc, unicode and journal.  The volume seeds
are small volumes of every shape tests/support/mkimage.py makes (HFS+ and HFSX, block
and node sizes, fragmented catalog, overflow extents, deep and scattered
trees, full and empty catalogs, and each of its --corrupt damages), each on
the smallest device that holds it.  The boot blocks (bytes 0..1023, which
the library never reads) carry what a target takes besides the image: the
label choice of fuzz_change, the operation scripts of fuzz_btree and
fuzz_alloc; fuzz_print gets them zero.
"""

import json
import os
import re
import shutil
import struct
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))

MKIMAGE = os.path.join(HERE, "mkimage.py")
sys.path.insert(0, HERE)
from mkimage import hfs_name  # noqa: E402  the stored (decomposed) form of a name
LABEL = "Fuzz"
BOOT = 1024

SMALL = ["--block-size", "512", "--catalog-node-size", "512", "--extents-node-size", "512",
         "--free-catalog-nodes", "2", "--free-extents-nodes", "1"]
DEEP = SMALL + ["--files", "14", "--name-length", "100"]

# name: mkimage options (besides the output, --label and --size).
SHAPES = {
    "empty": SMALL,
    "few": SMALL + ["--files", "3", "--folders", "1"],
    "hfsx": SMALL + ["--hfsx", "--files", "5", "--folders", "2"],
    "node1k": SMALL + ["--catalog-node-size", "1024", "--files", "6", "--folders", "2"],
    "node4k": ["--block-size", "512", "--catalog-node-size", "4096", "--extents-node-size", "512",
               "--free-catalog-nodes", "1", "--free-extents-nodes", "1", "--files", "8"],
    "block4k": ["--block-size", "4096", "--catalog-node-size", "4096", "--extents-node-size",
                "4096", "--free-catalog-nodes", "1", "--free-extents-nodes", "1",
                "--files", "4", "--folders", "1"],
    "block2k-node1k": ["--block-size", "2048", "--catalog-node-size", "1024",
                       "--extents-node-size", "1024", "--free-catalog-nodes", "2",
                       "--free-extents-nodes", "2", "--files", "5"],
    "fragmented-catalog": SMALL + ["--free-catalog-nodes", "12", "--catalog-fragments", "10",
                                   "--files", "2"],
    "overflow-extents": SMALL + ["--files", "3", "--fragmented-files", "1",
                                 "--file-fragments", "10"],
    "deep": DEEP,
    "deep-no-free": DEEP + ["--free-catalog-nodes", "0"],
    "full-no-free": SMALL + ["--files", "6", "--free-catalog-nodes", "0"],
    "half-full": SMALL + ["--files", "8", "--fill", "50"],
    "scattered": SMALL + ["--files", "8", "--folders", "2", "--scatter-nodes", "--seed", "3",
                          "--free-catalog-nodes", "6"],
    "nested": SMALL + ["--folders", "4", "--nesting", "3", "--files", "4"],
    "long-names": ["--block-size", "512", "--catalog-node-size", "4096",
                   "--extents-node-size", "512", "--free-catalog-nodes", "1",
                   "--free-extents-nodes", "0", "--files", "3", "--name-length", "255"],
    "non-ascii-label": SMALL + ["--files", "2", "--label", "\u00c9t\u00e9 \ud55c\uad6d"],
    "max-label": SMALL + ["--catalog-node-size", "1024", "--files", "2", "--label", "L" * 255],
}
for damage in ("bad-signature", "header-kind", "header-records", "btree-type",
               "extents-btree-type", "offsets-order", "no-root-thread", "long-root-name"):
    base = ["--catalog-node-size", "1024"] if damage == "long-root-name" else []
    SHAPES["corrupt-" + damage] = SMALL + ["--files", "3"] + base + ["--corrupt", damage]
for damage in ("index-self", "index-beyond", "index-cycle"):
    SHAPES["corrupt-" + damage] = DEEP + ["--corrupt", damage]

# fuzz_change: label choices (first boot byte; see fuzz_change.cpp).
CHANGE_LABELS = {"same-length": 0, "longer": 1, "max": 14, "precomposed": 6}


# ---------------------------------------------------------------- images

TOO_SMALL = re.compile(r"needs (\d+) allocation blocks of (\d+) bytes")


def build(name, options, work):
    """The image on the smallest device the image builder accepts for it."""
    path = os.path.join(work, name + ".img")
    args = list(options)
    if "--label" not in args:
        args += ["--label", LABEL]
    size = 4096
    for _ in range(32):
        out = subprocess.run([sys.executable, MKIMAGE, path, "--size", str(size), "--info"] + args,
                             capture_output=True, text=True)
        need = TOO_SMALL.search(out.stderr)
        if out.returncode == 0 or "too small" not in out.stderr:
            break
        if need:
            size = max(size + 512, int(need.group(1)) * int(need.group(2)))
        else:
            size *= 2
    if out.returncode != 0:
        raise SystemExit("fuzz_seeds: %s: %s" % (name, out.stderr.strip()))
    with open(path, "rb") as f:
        return f.read(), json.loads(out.stdout)


# ---------------------------------------------------------------- findings

# Damages found by fuzzing or reported against the library, kept as seeds so
# that every smoke run tries them again: an image builder shape, then a patch
# of a few bytes.

CATALOG_FORK = 272
EXTENTS_FORK = 192


def tree_node(image, fork, node):
    """Byte offset of node `node` of the tree in the special file whose fork
    data is at `fork` in the volume header (the tree in its first extent),
    and the node size."""
    header = image[1024:1536]
    block_size = struct.unpack_from(">I", header, 40)[0]
    start = struct.unpack_from(">I", header, fork + 16)[0] * block_size
    node_size = struct.unpack_from(">H", image, start + 14 + 18)[0]
    return start + node * node_size, node_size


def leaf_records(image, fork=CATALOG_FORK):
    """(node, byte offset, size) of every leaf record of a tree."""
    base, node_size = tree_node(image, fork, 0)
    total = struct.unpack_from(">I", image, base + 14 + 22)[0]
    for node in range(1, total):
        at = base + node * node_size
        kind, count = struct.unpack_from(">bxH", image, at + 8)
        if kind != -1:
            continue
        offsets = [struct.unpack_from(">H", image, at + node_size - 2 * (i + 1))[0]
                   for i in range(count + 1)]
        for i in range(count):
            yield node, at + offsets[i], offsets[i + 1] - offsets[i]


def catalog_record(image, parent, name_length):
    """Offset and size of the first leaf record keyed (parent, a name of
    `name_length` units)."""
    for _, at, size in leaf_records(image):
        if struct.unpack_from(">IH", image, at + 2) == (parent, name_length):
            return at, size
    raise SystemExit("fuzz_seeds: no catalog record of parent %d" % parent)


def patch(image, at, data):
    return image[:at] + data + image[at + len(data):]


def root_name_length(image):
    """The root folder's nodeName length says 255 units; its keyLength
    holds 4: volume set-up copied the label beyond the key."""
    at, _ = catalog_record(image, 1, len(LABEL))
    return patch(image, at + 6, b"\x00\xff")


def fork_size(image):
    """The catalog's logicalSize is 2^48 bytes: the fork sized its cache
    item array (2 GiB) from it before any check."""
    return patch(image, 1024 + CATALOG_FORK, struct.pack(">Q", 1 << 48))


def fork_beyond_device(image):
    """Blocks of 2 GiB, and an extents file of 0xFFFFFF00 of them in one
    extent: a tree opened without set-up's check of the volume against its
    device sized a 70 TB cache item array."""
    header = patch(image[1024:1536], 40, struct.pack(">II", 0x80000000, 0xFFFFFFFF))
    fork = struct.pack(">QII", 0xFFFFFF00 << 31, 0, 0xFFFFFF00)
    fork += struct.pack(">II", 0, 0xFFFFFF00) + bytes(56)
    return patch(image, 1024, patch(header, EXTENTS_FORK, fork))


def total_nodes(image):
    """An index cycle under totalNodes 0xFFFFFFFF: the descent was bounded
    only by totalNodes."""
    header, _ = tree_node(image, CATALOG_FORK, 0)
    return patch(image, header + 14 + 22, b"\xff\xff\xff\xff")


def leaf_cycle(image):
    """A leaf whose fLink is itself: iteration from the first leaf never
    ended (every step returned a record)."""
    node = sorted({n for n, _, _ in leaf_records(image)})[1]
    at, _ = tree_node(image, CATALOG_FORK, node)
    return patch(image, at, struct.pack(">I", node))


def whole_record_key(image, parent, name_length):
    """The record's keyLength covers the whole record, leaving no data."""
    at, size = catalog_record(image, parent, name_length)
    return patch(image, at, struct.pack(">H", size - 2))


def root_thread_no_data(image):
    return whole_record_key(image, 2, 0)


def root_folder_no_data(image):
    return whole_record_key(image, 1, len(LABEL))


def extents_wrap(image):
    """The catalog's overflow extents record holds eight extents of 2^32
    blocks in all: the count of blocks seen wrapped to where it was and the
    same record was found again and again."""
    _, at, _ = next(leaf_records(image, EXTENTS_FORK))
    counts = [0xFFFFFFF9] + [1] * 7
    record = b"".join(struct.pack(">II", struct.unpack_from(">I", image, at + 12)[0], c)
                      for c in counts)
    return patch(image, at + 12, record)


# ---------------------------------------------------------------- scripts

def catalog_key(parent, name):
    return bytes([parent]) + name


def name_empty():
    return b"\x00"


def name_folder(n, pad=0):
    return bytes([1, n, pad])


def name_file(n, pad=0):
    return bytes([2, n, pad])


def name_x(count):
    return bytes([3, count])


def name_raw(text):
    units = text.encode("utf-16-be", "surrogatepass")
    return bytes([4, len(units) // 2]) + units


def extents_key(fork_type, file_id, start):
    return struct.pack(">BII", fork_type, file_id, start)


SEARCH, ITERATE, INSERT, DELETE, RENAME, CLAIM, FLUSH, BY_CNID = range(1, 9)
EXT = 0x80


def op(code, *parts):
    return bytes([code]) + b"".join(parts)


def insert(key, size, fill=0x41, code=INSERT):
    return op(code, key, struct.pack(">HB", size, fill))


def scripts(info, pad):
    """Operation scripts for one image; `pad` is the generated names' length."""
    first_file = 16 + info.get("folders", 0)
    label = name_raw(hfs_name(info["label"]))
    read = (op(ITERATE, catalog_key(0, name_empty()))
            + op(ITERATE | EXT, extents_key(0, 0, 0))
            + op(SEARCH, catalog_key(1, label))
            + op(BY_CNID, bytes([2, 1]))
            + op(BY_CNID, bytes([first_file, 0])))
    rename = (op(RENAME, bytes([2, 1]), name_raw("Renamed volume"))
              + op(RENAME, bytes([2, 1]), name_x(255))
              + op(RENAME, bytes([first_file, 2]), name_raw("moved file"))
              + op(RENAME, bytes([16, 2]), name_folder(99, pad))
              + op(FLUSH))
    grow = b"".join(insert(catalog_key(2, name_file(100 + i, pad)), 248, i) for i in range(6))
    grow += op(CLAIM) + insert(catalog_key(2, name_x(200)), 300) + op(FLUSH)
    shrink = (op(DELETE, catalog_key(2, name_file(0, pad)))
              + op(DELETE, catalog_key(2, name_file(1, pad)))
              + op(DELETE, catalog_key(first_file, name_empty()))
              + op(DELETE, catalog_key(1, label))
              + op(ITERATE, catalog_key(0, name_empty()))
              + insert(catalog_key(1, label), 88, 0))
    extents = b"".join(insert(extents_key(0, 40 + i % 3, 8 * i), 64, i, INSERT | EXT)
                       for i in range(12))
    extents += (op(DELETE | EXT, extents_key(0, 40, 0)) + op(CLAIM | EXT)
                + op(ITERATE | EXT, extents_key(0, 0, 0)) + op(FLUSH | EXT))
    return {"read": read, "rename": rename, "grow": grow, "shrink": shrink, "extents": extents}


# ---------------------------------------------------------------- fuzz_alloc scripts

def alloc_scripts(info):
    """Operation scripts of fuzz_alloc (format in tests/fuzz/fuzz_alloc.cpp)."""
    first_file = 16 + info.get("folders", 0)
    b = lambda *v: bytes(v)
    u32 = lambda v: struct.pack(">I", v)
    mixed = (b(1, first_file) + b(5, first_file + 1, 10) + b(2, 4) + b(3, 2) + b(4, 0) + b(4, 1)
             + b(6) + struct.pack(">H", 3) + u32(0) + b(7) + u32(40) + b(5)
             + b(8) + u32(0xFFFFFFFE) + b(6) + b(9, 3) + b(1, 16))
    grow = b(2, 8) + b(9, 2) + b(4, 0) + b(4, 0) + b(4, 1) + b(3, 8) + b(2, 1) + b(3, 1)
    delete = b"".join(b(1, c) for c in range(first_file, first_file + 4)) + b(1, 16) + b(1, 2)
    bits = (b(7) + u32(0) + b(3) + b(7) + u32(0xFFFFFFFF) + b(2) + b(8) + u32(29) + b(4)
            + b(6) + struct.pack(">H", 2) + u32(0xFFFFFFF0))
    return {"mixed": mixed, "grow": grow, "delete": delete, "bits": bits}


# ---------------------------------------------------------------- findings' seeds

def bitmap_live_nodes(image):
    """The node bitmap marks nodes 0 to 7 free although they are in use: a
    claim handed out a live node, and reopening a record over it copied the
    new record's size into an open locator's smaller copy."""
    header, _ = tree_node(image, CATALOG_FORK, 0)
    return patch(image, header + 14 + 106 + 128, b"\x00")


def map_record_offset(image):
    """The header node's map record starts inside the header record (at 91,
    not 248): the node bitmap was read from the wrong bytes and a claim
    handed out a live node, as above."""
    header, node_size = tree_node(image, CATALOG_FORK, 0)
    return patch(image, header + node_size - 6, struct.pack(">H", 91))


# Moves the first item (CNID 16) into the root under a new name, the root
# folder's locator open as its parent.
MOVE_FIRST_ITEM = op(RENAME, bytes([16, 2]), name_raw("moved file"))

# name: (shape, patch, targets, fuzz_btree script or None for the default)
FOUND = {
    "found-root-name-length": ("few", root_name_length, ("print", "change"), None),
    "found-fork-size": ("few", fork_size, ("print", "change", "btree"), None),
    "found-fork-beyond-device": ("few", fork_beyond_device, ("btree",), None),
    "found-total-nodes": ("corrupt-index-cycle", total_nodes, ("print", "change"), None),
    "found-leaf-cycle": ("few", leaf_cycle, ("btree",), None),
    "found-bitmap-live-nodes": ("half-full", bitmap_live_nodes, ("btree",), MOVE_FIRST_ITEM),
    "found-map-record-offset": ("hfsx", map_record_offset, ("btree",), MOVE_FIRST_ITEM),
    "known-root-thread-no-data": ("few", root_thread_no_data, ("print", "change"), None),
    "known-root-folder-no-data": ("few", root_folder_no_data, ("change",), None),
    "known-extents-wrap": ("fragmented-catalog", extents_wrap, ("print",), None),
}


# ---------------------------------------------------------------- unicode

def unicode_seeds():
    texts = ["Macintosh HD", "\u00c9t\u00e9", "E\u0301te\u0301", "\ud55c\uad6d\uc5b4",
             "\u1100\u1161\u11a8", "A\u0302\u0300", ";", "\u00c6", "\u1f80\u0301",
             "a\u200dB", "\U0001F600 smile", "x" * 255]
    seeds = {}
    for i, t in enumerate(texts):
        seeds["utf8-%02d" % i] = t.encode("utf-8")
        units = t.encode("utf-16-le", "surrogatepass")
        seeds["utf16-%02d" % i] = bytes([len(units) // 4, len(units) // 3]) + units
    bad = [b"\xf4\x90\x80\x80", b"\xed\xa0\x80", b"\xe0\x80\x80", b"\xc0\x80", b"ab\xc3",
           b"\x01\x02" + b"\x00\xd8A\x00", b"\x01\x02" + b"\x00\xdc", b"\x02\x04a\x00\x00\x00b\x00"]
    for i, b in enumerate(bad):
        seeds["bad-%02d" % i] = b
    # Found by fuzzing: composition went on past a 0 unit behind a unit that
    # a single-unit row composes (U+0060).
    seeds["found-compose-past-zero"] = b"\0\0" + struct.pack("<3H", 0x60, 0, 0x58)
    return seeds


# ---------------------------------------------------------------- journal

# fuzz_journal takes the pieces of a journaled volume that the journal code
# reads (see fuzz_journal.cpp): the volume header, the info block, the first
# 32 KiB of the journal and its last bytes, from 512 KiB builder volumes whose
# transactions fit a 256 KiB journal.
JOURNAL_BASE = ["--size", "524288", "--journal-size", "262144", "--files", "6",
                "--journal", "dirty"]
JOURNAL_SHAPES = {
    "dirty": [],
    "big-endian": ["--journal-byte-order", "big"],
    "wrap-header": ["--journal-wrap", "header", "--journal-killed"],
    "wrap-data": ["--journal-wrap", "data", "--journal-rename", "A", "--journal-rename", "Bee"],
    "lists": ["--journal-list-entries", "1", "--journal-rename", "A", "--journal-rename", "B"],
    "old": ["--journal-format", "old", "--journal-byte-order", "big"],
    "sector4k": ["--journal-sector", "4096", "--journal-blhdr", "8192"],
    "stale": ["--journal-stale"],
    "clean": ["--journal", "clean"],
    "uninitialised": ["--journal", "uninitialised"],
}
JOURNAL_HEAD = 32768


def journal_seed(image):
    vh = image[1024:1536]
    bs = struct.unpack_from(">I", vh, 40)[0]
    info = struct.unpack_from(">I", vh, 12)[0] * bs
    offset, size = struct.unpack_from(">QQ", image, info + 36)
    journal = image[offset:offset + size]
    tail = journal[JOURNAL_HEAD:].rstrip(b"\0")
    end = journal[len(journal) - 30720:] if len(tail) > len(journal) - JOURNAL_HEAD - 30720 else b""
    return vh + image[info:info + 512] + journal[:JOURNAL_HEAD] + end


def journal_seeds(work):
    from mkimage import JOURNAL_DAMAGE  # noqa: E402
    shapes = dict(JOURNAL_SHAPES)
    for kind in JOURNAL_DAMAGE:
        shapes["damage-" + kind] = ["--journal-rename", "A", "--journal-rename", "B",
                                    "--journal-damage", kind]
    seeds = {}
    for name, options in shapes.items():
        path = os.path.join(work, "journal.img")
        out = subprocess.run([sys.executable, MKIMAGE, path, "--label", LABEL] + JOURNAL_BASE
                             + options, capture_output=True, text=True)
        if out.returncode != 0:
            raise SystemExit("fuzz_seeds: journal %s: %s" % (name, out.stderr.strip()))
        with open(path, "rb") as f:
            seeds[name] = journal_seed(f.read())
    return seeds


# ---------------------------------------------------------------- output

def write(directory, name, data):
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as f:
        f.write(data)


def main(argv):
    if len(argv) != 2:
        print("usage: fuzz_seeds.py OUT_DIR", file=sys.stderr)
        return 2
    out = argv[1]
    work = os.path.join(out, "work")
    for sub in ("print", "change", "btree", "unicode", "alloc", "journal", "work"):
        shutil.rmtree(os.path.join(out, sub), ignore_errors=True)
    os.makedirs(work)
    images = {}
    for name, options in SHAPES.items():
        image, info = build(name, options, work)
        images[name] = image
        label = options[options.index("--label") + 1] if "--label" in options else LABEL
        info["label"] = label
        info["folders"] = int(options[options.index("--folders") + 1]) if "--folders" in options else 0
        pad = int(options[options.index("--name-length") + 1]) if "--name-length" in options else 0
        body = image[BOOT:]
        write(os.path.join(out, "print"), name, image)
        for label_name, choice in CHANGE_LABELS.items():
            boot = bytes([choice]).ljust(BOOT, b"\0")
            write(os.path.join(out, "change"), "%s-%s" % (name, label_name), boot + body)
        for script_name, script in scripts(info, pad).items():
            if len(script) > BOOT:
                continue  # a script around a 255-unit label does not fit
            write(os.path.join(out, "btree"), "%s-%s" % (name, script_name),
                  script.ljust(BOOT, b"\0") + body)
        for script_name, script in alloc_scripts(info).items():
            write(os.path.join(out, "alloc"), "%s-%s" % (name, script_name),
                  script.ljust(BOOT, b"\0") + body)
    for name, (shape, damage, targets, script) in FOUND.items():
        image = damage(images[shape])
        boots = {"print": b"", "change": bytes([0]),
                 "btree": script or (op(ITERATE, catalog_key(0, name_empty()))
                                     + op(BY_CNID, bytes([2, 1]))
                                     + op(RENAME, bytes([2, 1]), name_raw("Found")))}
        for target in targets:
            write(os.path.join(out, target), name, boots[target].ljust(BOOT, b"\0") + image[BOOT:])
    for name, data in unicode_seeds().items():
        write(os.path.join(out, "unicode"), name, data)
    for name, data in journal_seeds(work).items():
        write(os.path.join(out, "journal"), name, data)
    shutil.rmtree(work)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
