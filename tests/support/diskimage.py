# SPDX-License-Identifier: MIT
"""Test tooling: whole-disk images around volumes, and the first sectors of
other file systems, for the tests of what morvlabel says a file holds.

Partition tables (offsets in bytes, integers little-endian):

- MBR: four 16-byte entries from 446 (status, CHS, type at +4, first sector
  u32 at +8, sector count u32 at +12) and 0x55 0xAA at 510. An extended
  partition (type 0x05) holds a chain of extended boot records: entry 0 is a
  logical partition relative to its own record, entry 1 links to the next
  record relative to the extended partition.
- GPT: a protective MBR, the header "EFI PART" in block 1 (revision 1.0,
  header size 92, CRC32s of header and entries, entries from block 2, 128
  entries of 128 bytes: type GUID, unique GUID, first and last block, flags,
  UTF-16LE name), and the backup entries and header at the end of the disk.

Other file systems are only their marks: enough of a boot sector, superblock
or volume descriptor for a reader to recognise them, never a usable volume.
"""

import os
import struct
import uuid
import zlib

SECTOR = 512
HFS_PLUS_TYPE = uuid.UUID("48465300-0000-11AA-AA11-00306543ECAC")
LINUX_DATA_TYPE = uuid.UUID("0FC63DAF-8483-4772-8E79-3D69D8477DE4")


def _blank(path, size):
    with open(path, "wb") as f:
        f.truncate(size)


def _put(path, offset, data):
    with open(path, "r+b") as f:
        f.seek(offset)
        f.write(data)


def _copy_volume(path, offset, volume):
    with open(volume, "rb") as src:
        _put(path, offset, src.read())


def _mbr_entry(kind, first, count, status=0):
    return struct.pack("<B3sB3sII", status, b"\xfe\xff\xff", kind, b"\xfe\xff\xff", first, count)


def _mbr_sector(entries, boot=b""):
    sector = bytearray(SECTOR)
    sector[:len(boot)] = boot
    for i, entry in enumerate(entries):
        sector[446 + 16 * i:462 + 16 * i] = entry
    sector[510:512] = b"\x55\xaa"
    return bytes(sector)


def mbr_disk(path, size, primaries, logicals=()):
    """An MBR disk of `size` bytes. `primaries` and `logicals` are
    (byte offset, byte length, type, volume file or None). Each logical
    partition follows its extended boot record by one sector; the extended
    partition starts at the first record and runs to the end of the disk."""
    _blank(path, size)
    entries = [_mbr_entry(kind, offset // SECTOR, length // SECTOR) for offset, length, kind, _ in primaries]
    if logicals:
        extended = logicals[0][0] - SECTOR
        entries.append(_mbr_entry(0x05, extended // SECTOR, (size - extended) // SECTOR))
        for i, (offset, length, kind, _) in enumerate(logicals):
            link = [_mbr_entry(kind, 1, length // SECTOR)]
            if i + 1 < len(logicals):
                link.append(_mbr_entry(0x05, (logicals[i + 1][0] - SECTOR - extended) // SECTOR, 1))
            _put(path, offset - SECTOR, _mbr_sector(link))
    _put(path, 0, _mbr_sector(entries))
    for offset, _, _, volume in list(primaries) + list(logicals):
        if volume:
            _copy_volume(path, offset, volume)


def ebr_loop(path, size):
    """An MBR disk whose extended boot record links to itself."""
    _blank(path, size)
    _put(path, 0, _mbr_sector([_mbr_entry(0x05, 2048, size // SECTOR - 2048)]))
    _put(path, 2048 * SECTOR, _mbr_sector([_mbr_entry(0x83, 1, 8), _mbr_entry(0x05, 0, 1)]))


def _gpt_header(current, backup, entries_at, last_usable, disk_guid, entries_crc, count, entry_size):
    header = struct.pack("<8sIIIIQQQQ16sQIII", b"EFI PART", 0x10000, 92, 0, 0, current, backup, 34,
                         last_usable, disk_guid, entries_at, count, entry_size, entries_crc)
    crc = zlib.crc32(header)
    return header[:16] + struct.pack("<I", crc) + header[20:]


def gpt_disk(path, size, partitions, count=128, entry_size=128, entries_at=2):
    """A GPT disk of `size` bytes (512-byte blocks). `partitions` are
    (number, byte offset, byte length, type UUID, volume file or None, name).
    `count`, `entry_size` and `entries_at` may be set to damaged values."""
    blocks = size // SECTOR
    _blank(path, size)
    table = bytearray(128 * 128)
    for number, offset, length, kind, _, name in partitions:
        entry = struct.pack("<16s16sQQQ72s", kind.bytes_le, uuid.uuid4().bytes_le, offset // SECTOR,
                            (offset + length) // SECTOR - 1, 0, name.encode("utf-16-le"))
        table[(number - 1) * 128:number * 128] = entry
    entries_crc = zlib.crc32(bytes(table))
    disk_guid = uuid.uuid4().bytes_le
    _put(path, 0, _mbr_sector([_mbr_entry(0xEE, 1, min(blocks - 1, 0xFFFFFFFF))]))
    _put(path, SECTOR, _gpt_header(1, blocks - 1, entries_at, blocks - 34, disk_guid, entries_crc,
                                   count, entry_size))
    _put(path, 2 * SECTOR, bytes(table))
    _put(path, (blocks - 33) * SECTOR, bytes(table))
    _put(path, (blocks - 1) * SECTOR, _gpt_header(blocks - 1, 1, blocks - 33, blocks - 34, disk_guid,
                                                  entries_crc, count, entry_size))
    for _, offset, _, _, volume, _ in partitions:
        if volume:
            _copy_volume(path, offset, volume)


def fat(path, kind, label, size=4 << 20):
    """The boot sector of a FAT12, FAT16 or FAT32 file system."""
    _blank(path, size)
    sector = bytearray(SECTOR)
    sector[0:3] = b"\xeb\x3c\x90"
    sector[3:11] = b"MSDOS5.0"
    sector[11:24] = struct.pack("<HBHBHHBH", 512, 4, 1, 2, 512, 0, 0xF8, 0)
    fields = struct.pack("<BBBI11s8s", 0x80, 0, 0x29, 0x12345678, label.ljust(11).encode(),
                         kind.ljust(8).encode())
    start = 64 if kind == "FAT32" else 36
    sector[start:start + len(fields)] = fields
    sector[510:512] = b"\x55\xaa"
    _put(path, 0, bytes(sector))


def boot_sector(path, oem, size=4 << 20):
    """An NTFS ("NTFS    ") or exFAT ("EXFAT   ") boot sector."""
    _blank(path, size)
    _put(path, 0, b"\xeb\x52\x90" + oem.ljust(8).encode())
    _put(path, 510, b"\x55\xaa")


def hfs(path, label, size=4 << 20, wrapped=None):
    """A plain HFS master directory block, or with `wrapped` (an HFS+ volume
    file) a wrapper around that volume, which is placed at byte 65536."""
    _blank(path, size)
    mdb = bytearray(SECTOR)
    mdb[0:2] = b"BD"
    struct.pack_into(">I", mdb, 20, 4096)  # drAlBlkSiz
    struct.pack_into(">H", mdb, 28, 16)    # drAlBlSt: allocation blocks from sector 16
    name = label.encode("mac_roman")
    mdb[36] = len(name)
    mdb[37:37 + len(name)] = name
    if wrapped:
        start = 65536
        mdb[124:126] = b"H+"
        struct.pack_into(">HH", mdb, 126, (start - 16 * SECTOR) // 4096, os.path.getsize(wrapped) // 4096)
        _copy_volume(path, start, wrapped)
    _put(path, 1024, bytes(mdb))


def iso9660(path, label):
    """The primary volume descriptor and set terminator of an ISO 9660 image."""
    _blank(path, 1 << 20)
    pvd = bytearray(2048)
    pvd[0:7] = b"\x01CD001\x01"
    pvd[40:72] = label.ljust(32).encode()
    _put(path, 16 * 2048, bytes(pvd))
    _put(path, 17 * 2048, b"\xffCD001\x01")
