#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Make a bare HFS+ volume with xorriso, as an independent real-world sample.

usage: xorrisoimage.py OUT --label TEXT [--files N] [--block-size 512|2048]

xorriso writes an ISO 9660 / HFS+ hybrid whose HFS+ volume is a partition of
an Apple partition map: block 0 holds the driver descriptor ("ER", block size
u16 at byte 2), blocks 1.. the map entries ("PM", map size u32 at 4, first
block u32 at 8, block count u32 at 12, name at 16, type at 48, 32 bytes
each). The Apple_HFS partition is copied alone into OUT, so that OUT starts
with the HFS+ volume (volume header at byte 1024).

xorriso 1.5.4 leaves the last byte of the allocation bitmap clear when the
volume's block count is a multiple of 8, although those blocks are in use.
Such a volume is not made: the other HFS+ block size is tried, then one
padding file ("zz-padding") is added until the count is right. xorriso also
leaves one orphan block marked behind the extents overflow file; check these
volumes with checkimage.py --allow-orphan-blocks.
"""

import argparse
import os
import shutil
import struct
import subprocess
import sys
import tempfile

VH_OFFSET = 1024
PADDING_NAME = "zz-padding"


class Failure(Exception):
    pass


def find_hfs_partition(iso):
    """(byte offset, byte length) of the Apple_HFS partition of an ISO."""
    with open(iso, "rb") as f:
        head = f.read(2)
        if head != b"ER":
            raise Failure("%s has no Apple driver descriptor (found %r)" % (iso, head))
        block = struct.unpack(">H", f.read(2))[0]
        if block < 512 or block & (block - 1):
            raise Failure("driver descriptor block size %d is not usable" % block)
        count = None
        i = 1
        while count is None or i <= count:
            f.seek(i * block)
            entry = f.read(80)
            if len(entry) < 80 or entry[:2] != b"PM":
                raise Failure("partition map entry %d missing" % i)
            count = struct.unpack(">I", entry[4:8])[0]
            start, length = struct.unpack(">II", entry[8:16])
            if entry[48:80].rstrip(b"\0") == b"Apple_HFS":
                return start * block, length * block
            i += 1
    raise Failure("%s has no Apple_HFS partition" % iso)


def total_blocks(out):
    with open(out, "rb") as f:
        f.seek(VH_OFFSET)
        vh = f.read(512)
    if vh[:2] != b"H+":
        raise Failure("extracted partition has no HFS+ volume header (found %r)" % vh[:2])
    return struct.unpack(">I", vh[44:48])[0]


def build(out, label, files, block_size, workdir, padding):
    tree = os.path.join(workdir, "tree")
    shutil.rmtree(tree, ignore_errors=True)
    os.mkdir(tree)
    for i in range(files):
        with open(os.path.join(tree, "file%05d.txt" % i), "w") as f:
            f.write("small file %d\n" % i)
    if padding:
        with open(os.path.join(tree, PADDING_NAME), "wb") as f:
            f.write(b"\0" * (2048 * padding))
    iso = os.path.join(workdir, "volume.iso")
    cmd = ["xorriso", "-as", "mkisofs", "-hfsplus", "-hfsplus-block-size", str(block_size),
           "-V", label, "-o", iso, tree]
    try:
        run = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120)
    except (OSError, subprocess.TimeoutExpired) as e:
        raise Failure("cannot run xorriso: %s" % e)
    if run.returncode != 0:
        raise Failure("xorriso failed (%d): %s" % (run.returncode,
                                                   run.stderr.decode("utf-8", "replace").strip()[-500:]))
    start, length = find_hfs_partition(iso)
    with open(iso, "rb") as src, open(out, "wb") as dst:
        src.seek(start)
        data = src.read(length)
        if len(data) != length:
            raise Failure("Apple_HFS partition runs past the end of the ISO")
        dst.write(data)
    return total_blocks(out)


def main(argv):
    p = argparse.ArgumentParser(description="Make a bare HFS+ volume with xorriso.")
    p.add_argument("out")
    p.add_argument("--label", required=True)
    p.add_argument("--files", type=int, default=0)
    p.add_argument("--block-size", type=int, choices=(512, 2048), default=2048)
    a = p.parse_args(argv[1:])
    if a.files < 0:
        p.error("--files must not be negative")
    try:
        with tempfile.TemporaryDirectory(prefix="xorrisoimage.") as work:
            attempts = [(a.block_size, 0), (2560 - a.block_size, 0)] + [(a.block_size, n) for n in (1, 2, 3)]
            for bs, pad in attempts:
                if build(a.out, a.label, a.files, bs, work, pad) % 8:
                    return 0
            raise Failure("could not avoid a block count that is a multiple of 8")
    except Failure as e:
        try:
            os.unlink(a.out)
        except OSError:
            pass
        sys.stderr.write("xorrisoimage: %s\n" % e)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
