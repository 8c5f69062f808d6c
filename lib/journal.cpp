// SPDX-License-Identifier: MIT
// The HFS+ journal (see journal.hpp for the overview).
//
// Journal info block (180 bytes at allocation block journalInfoBlock,
// big-endian): flags u32 (1 in this volume, 2 on another device, 4 header to
// be initialised), 32 reserved bytes, offset u64 (byte offset of the journal
// from the start of the volume), size u64 (header sector plus buffer).
//
// Journal header (first jhdr_size bytes of the journal, the writer's order):
//   0 magic "JNLx" (or the older "JHDR", which has no checksum)
//   4 endian 0x12345678          8 start u64       16 end u64
//  24 size u64                   32 blhdr_size u32 36 checksum u32 (bytes 0..43)
//  40 jhdr_size u32              44 sequence_num u32
//
// Block list area (blhdr_size bytes, then the data of its entries in order):
//   0 max_blocks u16   2 num_blocks u16 (entries in use, entry 0 included)
//   4 bytes_used u32   8 checksum u32 (bytes 0..31)   12 flags u32
//  16 entry 0: bnum u64 (non-zero: more lists follow), 0, sequence u32
//  16 + 16 i: entry i: bnum u64 (all ones: killed), bsize u32, data checksum u32
//
// Positions inside the journal are byte offsets from its header; the buffer
// is the ring [jhdr_size, size): a read that reaches size goes on at
// jhdr_size. The walk below accepts a list only when it lies wholly inside
// [start, end), so the used bytes bound the number of lists and entries.
#include "journal.hpp"

#include <cstring>

#include "support_unix.hpp"

namespace {

constexpr const char* kLogSource = "journal";

constexpr uint32_t kVolumeJournaled = 1u << 13;
constexpr size_t kLastMountedVersion = 8;
constexpr uint32_t kJournaledWriter = 0x4846534A;  // "HFSJ"

namespace jib {
constexpr size_t kSize = 180;
constexpr size_t kFlags = 0;
constexpr size_t kOffset = 36;
constexpr size_t kJournalSize = 44;
constexpr uint32_t kInFs = 1;
constexpr uint32_t kOnOtherDevice = 2;
constexpr uint32_t kNeedInit = 4;
constexpr uint32_t kKnownFlags = kInFs | kOnOtherDevice | kNeedInit;
}  // namespace jib

namespace hdr {
constexpr size_t kMagic = 0;
constexpr size_t kEndian = 4;
constexpr size_t kStart = 8;
constexpr size_t kEnd = 16;
constexpr size_t kSize = 24;
constexpr size_t kBlockListSize = 32;
constexpr size_t kChecksum = 36;
constexpr size_t kSectorSize = 40;
constexpr size_t kChecksummed = 44;
constexpr size_t kFields = 48;
constexpr uint32_t kMagicCurrent = 0x4A4E4C78;  // "JNLx"
constexpr uint32_t kMagicOld = 0x4A484452;      // "JHDR"
constexpr uint32_t kEndianMark = 0x12345678;
constexpr uint64_t kMinJournal = 256 * 1024;
constexpr uint64_t kMaxJournal = uint64_t{1} << 30;
// No medium has larger sectors; bounds the header buffer.
constexpr uint32_t kMaxSector = 65536;
}  // namespace hdr

namespace blist {
constexpr size_t kMaxBlocks = 0;
constexpr size_t kNumBlocks = 2;
constexpr size_t kBytesUsed = 4;
constexpr size_t kChecksum = 8;
constexpr size_t kFlags = 12;
constexpr size_t kSequence = 28;  // entry 0's last word
constexpr size_t kChecksummed = 32;
constexpr size_t kEntrySize = 16;
constexpr size_t kEntryBnum = 0;
constexpr size_t kEntryBsize = 8;
constexpr size_t kEntryChecksum = 12;
constexpr uint32_t kDataChecksums = 1;
constexpr uint64_t kKilled = ~uint64_t{0};
// num_blocks is 16 bits: entry 0 and up to 65535 more fit in this many bytes.
constexpr uint32_t kMaxArea = kEntrySize * 65537;
}  // namespace blist

// Data is copied between the journal and its place in pieces of this size.
constexpr uint32_t kCopyChunk = 65536;

}  // namespace

struct morv_journal_entry {
  uint64_t device_offset;  // bytes from the start of the device
  uint32_t position;       // journal offset of its data (the journal is at most 1 GiB)
  uint32_t size;
};

struct morv_journal {
  morv_device* device;
  morv_journal_state state;
  bool little_endian;
  bool checksummed_header;  // "JNLx"; "JHDR" headers carry none
  uint64_t offset;          // of the header, from the start of the device
  uint64_t size;
  uint32_t sector;          // jhdr_size
  uint32_t list_size;       // blhdr_size
  uint64_t start;
  uint64_t end;
  uint64_t device_bytes;
  uint64_t info_offset;
  uint32_t info_span;  // the allocation block that holds the info block
  morv_journal_entry* entries;
  size_t count;
  size_t capacity;
};

namespace {

// ---------------------------------------------------------------- helpers

uint32_t journal_checksum(const uint8_t* p, size_t n) {
  uint32_t acc = 0;
  for (size_t i = 0; i < n; ++i) acc = (acc << 8) ^ (acc + p[i]);
  return ~acc;
}

uint32_t load32(const morv_journal* j, const uint8_t* p) {
  if (!j->little_endian) return load_be32(p);
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}
uint16_t load16(const morv_journal* j, const uint8_t* p) {
  return j->little_endian ? static_cast<uint16_t>(p[0] | (p[1] << 8)) : load_be16(p);
}
uint64_t load64(const morv_journal* j, const uint8_t* p) {
  const uint64_t a = load32(j, p);
  const uint64_t b = load32(j, p + 4);
  return j->little_endian ? (b << 32) | a : (a << 32) | b;
}
void store32(const morv_journal* j, uint8_t* p, uint32_t v) {
  if (!j->little_endian) return store_be32(p, v);
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void store64(const morv_journal* j, uint8_t* p, uint64_t v) {
  const uint32_t lo = static_cast<uint32_t>(v);
  const uint32_t hi = static_cast<uint32_t>(v >> 32);
  store32(j, p, j->little_endian ? lo : hi);
  store32(j, p + 4, j->little_endian ? hi : lo);
}

// Reads `length` bytes at byte `offset` of the device, through the whole
// device sectors that hold them.
[[nodiscard]] morv_err read_bytes(morv_device* d, uint64_t offset, uint32_t length, uint8_t* out) {
  const uint32_t ss = d->sector_size;
  const uint64_t first = offset / ss;
  const uint64_t last = (offset + length + ss - 1) / ss;
  if (offset % ss == 0 && length % ss == 0) {
    void* target = out;
    return morv_device_read_disk_sectors(d, first, static_cast<uint32_t>(last - first), &target);
  }
  morv::buffer<uint8_t> scratch;
  if (!scratch.allocate(static_cast<size_t>((last - first) * ss))) return MORV_ERR_NO_MEMORY;
  void* target = scratch.get();
  if (morv_err err = morv_device_read_disk_sectors(d, first, static_cast<uint32_t>(last - first), &target))
    return err;
  memcpy(out, scratch.get() + offset % ss, length);
  return MORV_OK;
}

// Writes `length` bytes at byte `offset`; sectors only partly covered are
// read first so that their other bytes stay as they are.
[[nodiscard]] morv_err write_bytes(morv_device* d, uint64_t offset, uint32_t length, const uint8_t* in) {
  const uint32_t ss = d->sector_size;
  const uint64_t first = offset / ss;
  const uint64_t last = (offset + length + ss - 1) / ss;
  const uint32_t sectors = static_cast<uint32_t>(last - first);
  if (offset % ss == 0 && length % ss == 0) return morv_device_write_disk_sectors(d, first, sectors, in);
  morv::buffer<uint8_t> scratch;
  if (!scratch.allocate(size_t{sectors} * ss)) return MORV_ERR_NO_MEMORY;
  void* target = scratch.get();
  if (morv_err err = morv_device_read_disk_sectors(d, first, sectors, &target)) return err;
  memcpy(scratch.get() + offset % ss, in, length);
  return morv_device_write_disk_sectors(d, first, sectors, scratch.get());
}

// Ring arithmetic over the buffer [sector, size).
uint64_t advance(const morv_journal* j, uint64_t pos, uint64_t n) {
  const uint64_t capacity = j->size - j->sector;
  return j->sector + (pos - j->sector + n % capacity) % capacity;
}

// Reads `length` bytes of the ring at `pos`, going round at its end.
[[nodiscard]] morv_err ring_read(morv_journal* j, uint64_t pos, uint32_t length, uint8_t* out) {
  while (length > 0) {
    const uint32_t piece = static_cast<uint32_t>(length < j->size - pos ? length : j->size - pos);
    if (morv_err err = read_bytes(j->device, j->offset + pos, piece, out)) return err;
    out += piece;
    length -= piece;
    pos = advance(j, pos, piece);
  }
  return MORV_OK;
}

[[nodiscard]] morv_err damaged(const char* what) {
  MORV_ERROR("The journal is damaged: %s.\n", what);
  return MORV_ERR_CORRUPT;
}

// ---------------------------------------------------------------- open

[[nodiscard]] morv_err read_info_block(morv_journal* j, const uint8_t* vh, uint32_t* flags) {
  const uint32_t block_size = load_be32(vh + vh::kBlockSize);
  const uint64_t volume_bytes = uint64_t{load_be32(vh + vh::kTotalBlocks)} * block_size;
  j->info_offset = uint64_t{load_be32(vh + vh::kJournalInfoBlock)} * block_size;
  j->info_span = block_size;
  if (block_size < jib::kSize || j->info_offset + jib::kSize > volume_bytes ||
      j->info_offset + jib::kSize > j->device_bytes)
    return damaged("the journal info block lies outside the volume");
  uint8_t info[jib::kSize];
  if (morv_err err = read_bytes(j->device, j->info_offset, jib::kSize, info)) {
    MORV_ERROR("Error while reading the journal info block.\n");
    return err;
  }
  *flags = load_be32(info + jib::kFlags);
  if (*flags & jib::kNeedInit) return MORV_OK;
  if (*flags & ~jib::kKnownFlags) return damaged("the journal info block has undefined flags");
  if (!(*flags & jib::kInFs) || (*flags & jib::kOnOtherDevice))
    return damaged("the journal is on another device");
  j->offset = load_be64(info + jib::kOffset);
  j->size = load_be64(info + jib::kJournalSize);
  if (j->size < hdr::kMinJournal || j->size > hdr::kMaxJournal)
    return damaged("the journal info block gives an unusable journal size");
  if (j->offset > volume_bytes || j->size > volume_bytes - j->offset || j->offset + j->size > j->device_bytes)
    return damaged("the journal runs past the end of the volume");
  if (j->offset < vh::kOffsetOnDisk + vh::kSize ||
      (j->offset < j->info_offset + block_size && j->info_offset < j->offset + j->size))
    return damaged("the journal overlaps the volume header or its info block");
  return MORV_OK;
}

// Decides the byte order from the magic and checks every header field.
[[nodiscard]] morv_err read_header(morv_journal* j) {
  uint8_t h[hdr::kFields];
  if (morv_err err = read_bytes(j->device, j->offset, hdr::kFields, h)) {
    MORV_ERROR("Error while reading the journal header.\n");
    return err;
  }
  const uint32_t magic = load_be32(h + hdr::kMagic);
  const uint32_t swapped = __builtin_bswap32(magic);
  if (magic == hdr::kMagicCurrent || magic == hdr::kMagicOld) {
    j->little_endian = false;
  } else if (swapped == hdr::kMagicCurrent || swapped == hdr::kMagicOld) {
    j->little_endian = true;
  } else {
    return damaged("the journal header has an unknown magic number");
  }
  j->checksummed_header = load32(j, h + hdr::kMagic) == hdr::kMagicCurrent;
  if (load32(j, h + hdr::kEndian) != hdr::kEndianMark)
    return damaged("the journal header's byte order mark is wrong");
  if (j->checksummed_header) {
    uint8_t copy[hdr::kChecksummed];
    memcpy(copy, h, sizeof copy);
    memset(copy + hdr::kChecksum, 0, 4);
    if (journal_checksum(copy, sizeof copy) != load32(j, h + hdr::kChecksum))
      return damaged("the journal header's checksum does not match");
  }
  j->sector = load32(j, h + hdr::kSectorSize);
  if (j->sector < 512 || j->sector > hdr::kMaxSector || (j->sector & (j->sector - 1)))
    return damaged("the journal's sector size is not a power of two from 512 to 65536");
  if (load64(j, h + hdr::kSize) != j->size || j->size % j->sector)
    return damaged("the journal header's size disagrees with the info block or its sector size");
  j->start = load64(j, h + hdr::kStart);
  j->end = load64(j, h + hdr::kEnd);
  for (uint64_t v : {j->start, j->end})
    if (v < j->sector || v > j->size || v % 512)
      return damaged("the journal's start or end lies outside its buffer");
  if (j->start == j->size) j->start = j->sector;
  j->list_size = load32(j, h + hdr::kBlockListSize);
  if (j->list_size == 0 || j->list_size % j->sector || j->list_size > j->size - j->sector)
    return damaged("the journal's block list header size does not fit its buffer");
  return MORV_OK;
}

[[nodiscard]] morv_err add_entry(morv_journal* j, uint64_t device_offset, uint64_t position, uint32_t size) {
  if (j->count == j->capacity) {
    const size_t capacity = j->capacity ? 2 * j->capacity : 64;
    auto* grown = static_cast<morv_journal_entry*>(morv_calloc(capacity, sizeof(morv_journal_entry)));
    if (!grown) return MORV_ERR_NO_MEMORY;
    if (j->count) memcpy(grown, j->entries, j->count * sizeof(morv_journal_entry));
    morv_free(j->entries);
    j->entries = grown;
    j->capacity = capacity;
  }
  j->entries[j->count++] = {device_offset, static_cast<uint32_t>(position), size};
  return MORV_OK;
}

// True when [offset, offset + size) meets the journal or its info block.
bool hits_journal(const morv_journal* j, uint64_t offset, uint64_t size) {
  return (offset < j->offset + j->size && j->offset < offset + size) ||
         (offset < j->info_offset + j->info_span && j->info_offset < offset + size);
}

[[nodiscard]] morv_err data_checksum(morv_journal* j, uint64_t pos, uint32_t size, uint32_t* out) {
  morv::buffer<uint8_t> chunk;
  if (!chunk.allocate(kCopyChunk)) return MORV_ERR_NO_MEMORY;
  uint32_t acc = 0;
  for (uint32_t done = 0; done < size;) {
    const uint32_t piece = size - done < kCopyChunk ? size - done : kCopyChunk;
    if (morv_err err = ring_read(j, advance(j, pos, done), piece, chunk.get())) return err;
    for (uint32_t i = 0; i < piece; ++i) acc = (acc << 8) ^ (acc + chunk[i]);
    done += piece;
  }
  *out = ~acc;
  return MORV_OK;
}

// Checks one block list at `pos` with `left` bytes of the transactions
// remaining, and records its blocks. `sequence` carries the previous newer
// list's number (0: none yet).
[[nodiscard]] morv_err walk_list(morv_journal* j, uint64_t pos, uint64_t left, uint32_t* sequence,
                                 uint32_t* used) {
  const uint32_t area_size = j->list_size < blist::kMaxArea ? j->list_size : blist::kMaxArea;
  morv::buffer<uint8_t> area;
  if (!area.allocate(area_size)) return MORV_ERR_NO_MEMORY;
  if (morv_err err = ring_read(j, pos, area_size, area.get())) {
    MORV_ERROR("Error while reading a journal block list.\n");
    return err;
  }
  uint8_t copy[blist::kChecksummed];
  memcpy(copy, area.get(), sizeof copy);
  memset(copy + blist::kChecksum, 0, 4);
  if (journal_checksum(copy, sizeof copy) != load32(j, area.get() + blist::kChecksum))
    return damaged("a block list's checksum does not match");
  const uint32_t max_blocks = load16(j, area.get() + blist::kMaxBlocks);
  const uint32_t num_blocks = load16(j, area.get() + blist::kNumBlocks);
  if (max_blocks < 1 || num_blocks < 1 || num_blocks > max_blocks ||
      blist::kEntrySize * (uint64_t{num_blocks} + 1) > j->list_size)
    return damaged("a block list's entry counts are impossible");
  uint64_t total = j->list_size;
  for (uint32_t i = 1; i < num_blocks; ++i) {
    const uint8_t* e = area.get() + blist::kEntrySize * (i + 1);
    const uint64_t bnum = load64(j, e + blist::kEntryBnum);
    const uint32_t bsize = load32(j, e + blist::kEntryBsize);
    if (bsize == 0 || bsize % j->sector) return damaged("a block's size is not a whole number of sectors");
    if (bnum != blist::kKilled) {
      if (bnum > (j->device_bytes - bsize) / j->sector || j->device_bytes < bsize)
        return damaged("a block lies past the end of the device");
      if (hits_journal(j, bnum * j->sector, bsize))
        return damaged("a transaction writes into the journal or its info block");
    }
    total += bsize;
  }
  const uint32_t bytes_used = load32(j, area.get() + blist::kBytesUsed);
  if (bytes_used != total || bytes_used > left)
    return damaged("a block list's byte count disagrees with its blocks or runs past the end");
  const uint32_t flags = load32(j, area.get() + blist::kFlags);
  if (flags != 0) {
    const uint32_t seq = load32(j, area.get() + blist::kSequence);
    if (*sequence != 0 && seq != 0 && seq != *sequence && seq != *sequence + 1)
      return damaged("a block list's sequence number is out of order");
    *sequence = seq;
  }
  uint64_t at = advance(j, pos, j->list_size);
  for (uint32_t i = 1; i < num_blocks; ++i) {
    const uint8_t* e = area.get() + blist::kEntrySize * (i + 1);
    const uint64_t bnum = load64(j, e + blist::kEntryBnum);
    const uint32_t bsize = load32(j, e + blist::kEntryBsize);
    const uint32_t stored = load32(j, e + blist::kEntryChecksum);
    if (bnum != blist::kKilled) {
      if ((flags & blist::kDataChecksums) && stored != 0) {
        uint32_t sum = 0;
        if (morv_err err = data_checksum(j, at, bsize, &sum)) return err;
        if (sum != stored) return damaged("a block's data checksum does not match");
      }
      if (morv_err err = add_entry(j, bnum * j->sector, at, bsize)) return err;
    }
    at = advance(j, at, bsize);
  }
  *used = bytes_used;
  return MORV_OK;
}

// Walks [start, end), validating every list and recording every block.
[[nodiscard]] morv_err walk(morv_journal* j) {
  const uint64_t capacity = j->size - j->sector;
  uint64_t left = (j->end + capacity - j->start) % capacity;
  uint64_t pos = j->start;
  uint32_t sequence = 0;
  while (left > 0) {
    uint32_t used = 0;
    if (morv_err err = walk_list(j, pos, left, &sequence, &used)) return err;
    pos = advance(j, pos, used);
    left -= used;  // every list uses at least one sector: the loop ends
  }
  return MORV_OK;
}

[[nodiscard]] morv_err open_journal(morv_journal* j, const uint8_t* vh) {
  if (morv_err err = morv_device_get_size(j->device, &j->device_bytes)) {
    MORV_ERROR("Error while finding the size of the device.\n");
    return err;
  }
  uint32_t flags = 0;
  if (morv_err err = read_info_block(j, vh, &flags)) return err;
  if (flags & jib::kNeedInit) {
    j->state = MORV_JOURNAL_UNINITIALISED;
    return MORV_OK;
  }
  if (morv_err err = read_header(j)) return err;
  const uint64_t end = j->end == j->size ? j->sector : j->end;
  if (j->start == end) {
    j->state = MORV_JOURNAL_CLEAN;
    return MORV_OK;
  }
  if (load_be32(vh + kLastMountedVersion) != kJournaledWriter) {
    j->state = MORV_JOURNAL_STALE;
    return MORV_OK;
  }
  j->state = MORV_JOURNAL_DIRTY;
  return walk(j);
}

}  // namespace

morv_err morv_journal_open(morv_device* device, const uint8_t* volume_header, morv_journal** out_journal) {
  if (!(load_be32(volume_header + vh::kAttributes) & kVolumeJournaled)) {
    *out_journal = nullptr;
    return MORV_OK;
  }
  auto* j = static_cast<morv_journal*>(morv_calloc(1, sizeof(morv_journal)));
  if (!j) {
    MORV_ERROR("Error while allocating memory for the journal.\n");
    return MORV_ERR_NO_MEMORY;
  }
  morv::scope_exit guard([&] { morv_journal_destroy(&j); });
  j->device = device;
  if (morv_err err = open_journal(j, volume_header)) {
    MORV_ERROR("Error while opening the journal.\n");
    return err;
  }
  guard.release();
  *out_journal = j;
  return MORV_OK;
}

void morv_journal_destroy(morv_journal** journal) {
  if (!*journal) return;
  morv_free((*journal)->entries);
  morv_free(*journal);
  *journal = nullptr;
}

morv_journal_state morv_journal_get_state(const morv_journal* journal) { return journal->state; }

uint64_t morv_journal_pending_blocks(const morv_journal* journal) { return journal->count; }

morv_err morv_journal_read_sectors(morv_journal* journal, uint64_t first_sector, uint32_t sector_count,
                                   void* buffer) {
  void* target = buffer;
  if (morv_err err = morv_device_read_disk_sectors(journal->device, first_sector, sector_count, &target))
    return err;
  const uint64_t lo = first_sector * journal->device->sector_size;
  const uint64_t hi = lo + uint64_t{sector_count} * journal->device->sector_size;
  auto* out = static_cast<uint8_t*>(buffer);
  // Journal order: a later copy of a byte overwrites an earlier one.
  for (size_t i = 0; i < journal->count; ++i) {
    const morv_journal_entry& e = journal->entries[i];
    const uint64_t from = e.device_offset > lo ? e.device_offset : lo;
    const uint64_t to = e.device_offset + e.size < hi ? e.device_offset + e.size : hi;
    if (from >= to) continue;
    const uint64_t pos = advance(journal, e.position, from - e.device_offset);
    if (morv_err err = ring_read(journal, pos, static_cast<uint32_t>(to - from), out + (from - lo))) {
      MORV_ERROR("Error while reading a journaled block.\n");
      return err;
    }
  }
  return MORV_OK;
}

namespace {

[[nodiscard]] morv_err apply_entry(morv_journal* j, const morv_journal_entry& e, uint8_t* chunk) {
  for (uint32_t done = 0; done < e.size;) {
    const uint32_t piece = e.size - done < kCopyChunk ? e.size - done : kCopyChunk;
    if (morv_err err = ring_read(j, advance(j, e.position, done), piece, chunk)) return err;
    if (morv_err err = write_bytes(j->device, e.device_offset + done, piece, chunk)) return err;
    done += piece;
  }
  return MORV_OK;
}

// Rewrites the header sector with start = end: the journal is then empty.
[[nodiscard]] morv_err mark_clean(morv_journal* j) {
  morv::buffer<uint8_t> sector;
  if (!sector.allocate(j->sector)) return MORV_ERR_NO_MEMORY;
  if (morv_err err = read_bytes(j->device, j->offset, j->sector, sector.get())) return err;
  store64(j, sector.get() + hdr::kStart, j->end);
  if (j->checksummed_header) {
    memset(sector.get() + hdr::kChecksum, 0, 4);
    store32(j, sector.get() + hdr::kChecksum, journal_checksum(sector.get(), hdr::kChecksummed));
  }
  return write_bytes(j->device, j->offset, j->sector, sector.get());
}

}  // namespace

morv_err morv_journal_replay(morv_journal* journal) {
  if (journal->state != MORV_JOURNAL_DIRTY) return MORV_OK;
  morv::buffer<uint8_t> chunk;
  if (!chunk.allocate(kCopyChunk)) {
    MORV_ERROR("Error while allocating memory for the journal replay.\n");
    return MORV_ERR_NO_MEMORY;
  }
  for (size_t i = 0; i < journal->count; ++i) {
    if (morv_err err = apply_entry(journal, journal->entries[i], chunk.get())) {
      MORV_ERROR("Error while writing a journaled block in place.\n");
      return err;
    }
  }
  // The blocks must be on the medium before the header says they are.
  if (morv_err err = morv_device_sync(journal->device)) return err;
  if (morv_err err = mark_clean(journal)) {
    MORV_ERROR("Error while marking the journal clean.\n");
    return err;
  }
  if (morv_err err = morv_device_sync(journal->device)) return err;
  journal->start = journal->end;
  journal->count = 0;
  journal->state = MORV_JOURNAL_CLEAN;
  return MORV_OK;
}
