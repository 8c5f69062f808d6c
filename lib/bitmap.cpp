// SPDX-License-Identifier: MIT
// The allocation bitmap: opening the allocation file, allocating and freeing
// runs of blocks, and choosing where a growing fork's next blocks go.
//
// Bits are read through mappings of the allocation file's fork and changed
// one byte at a time with morv_fork_write at the byte's own position, so a
// change sits in the cache until morv_bitmap_flush. Undoing a change writes
// bytes whose sectors the change already loaded; such a write needs neither
// memory nor a device transfer and so cannot fail for want of either.
#include "bitmap.hpp"

#include <cstring>

#include "fork.hpp"
#include "support_unix.hpp"

struct morv_bitmap_private {
  morv_fork* fork;
  const uint8_t* volume_header;  // the in-memory header: totalBlocks bounds every block
};

namespace {
constexpr const char* kLogSource = "bitmap";

constexpr uint64_t kFreeChunkSize = 4096;  // FreeAllocationBlock maps the bitmap in 4 KiB chunks
constexpr uint32_t kBitsPerByte = 8;

uint8_t block_mask(uint64_t block) { return static_cast<uint8_t>(0x80u >> (block % kBitsPerByte)); }
morv_fork* fork_of(const morv_bitmap* bitmap) { return bitmap->priv->fork; }
uint32_t total_blocks_of(const morv_bitmap* bitmap) {
  return load_be32(bitmap->priv->volume_header + vh::kTotalBlocks);
}
uint32_t extent_start(const uint8_t* record, size_t i) {
  return load_be32(record + i * forkdata::kExtentSize + forkdata::kExtentStartBlock);
}
uint32_t extent_blocks(const uint8_t* record, size_t i) {
  return load_be32(record + i * forkdata::kExtentSize + forkdata::kExtentBlockCount);
}

[[nodiscard]] morv_err read_byte(morv_fork* fork, uint64_t index, uint8_t* out) {
  return morv_fork_read(fork, index, out, 1, nullptr);
}
[[nodiscard]] morv_err write_byte(morv_fork* fork, uint64_t index, uint8_t value) {
  return morv_fork_write(fork, index, &value, 1, nullptr);
}

// Sets or clears the bit of a block whose sector is in the cache already.
[[nodiscard]] morv_err put_bit(morv_fork* fork, uint64_t block, bool allocated) {
  uint8_t byte = 0;
  if (morv_err err = read_byte(fork, block / kBitsPerByte, &byte)) return err;
  byte = allocated ? (byte | block_mask(block)) : (byte & ~block_mask(block));
  return write_byte(fork, block / kBitsPerByte, byte);
}

// A mapping of bitmap bytes released on every path; `first` is the fork
// offset of data[0].
class bitmap_mapping {
 public:
  explicit bitmap_mapping(morv_fork* fork) : fork_(fork) {}
  bitmap_mapping(const bitmap_mapping&) = delete;
  bitmap_mapping& operator=(const bitmap_mapping&) = delete;
  ~bitmap_mapping() { (void)unmap(); }
  [[nodiscard]] morv_err map(uint64_t first, size_t length) {
    if (morv_err err = morv_fork_map(fork_, first, &data_, length, nullptr)) return err;
    first_ = first;
    length_ = length;
    return MORV_OK;
  }
  [[nodiscard]] morv_err unmap() {
    if (!data_) return MORV_OK;
    return morv_fork_unmap(fork_, first_, &data_, length_);
  }
  bool holds(uint64_t index) const { return data_ && index >= first_ && index - first_ < length_; }
  uint8_t at(uint64_t index) const { return data_[index - first_]; }

 private:
  morv_fork* fork_;
  uint8_t* data_ = nullptr;
  uint64_t first_ = 0;
  size_t length_ = 0;
};

}  // namespace

morv_err morv_bitmap_create(uint8_t* volume_header, morv_device* device, morv_extents* extents,
                            morv_bitmap** out) {
  morv::buffer<morv_bitmap> bitmap(static_cast<morv_bitmap*>(morv_malloc(sizeof(morv_bitmap))));
  if (!bitmap) {
    MORV_ERROR("Error while allocating %zu bytes of memory for morv_bitmap.\n", sizeof(morv_bitmap));
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<morv_bitmap_private> priv(
      static_cast<morv_bitmap_private*>(morv_malloc(sizeof(morv_bitmap_private))));
  if (!priv) {
    MORV_ERROR("Error while allocating %zu bytes of memory for morv_bitmap_private.\n",
               sizeof(morv_bitmap_private));
    return MORV_ERR_NO_MEMORY;
  }
  // A whole allocation block is the I/O unit of the bitmap.
  const uint32_t block_size = load_be32(volume_header + vh::kBlockSize);
  morv_fork* fork = nullptr;
  if (morv_err err = morv_fork_create(device, extents, 0, volume_header, kAllocationFileCnid,
                                      volume_header + vh::kAllocationFile, block_size, &fork)) {
    MORV_ERROR("Error while creating morv_fork for allocation file.\n");
    return err;
  }
  priv.get()->fork = fork;
  priv.get()->volume_header = volume_header;
  bitmap.get()->priv = priv.release();
  *out = bitmap.release();
  return MORV_OK;
}

void morv_bitmap_destroy(morv_bitmap** bitmap) {
  morv_fork_destroy(&(*bitmap)->priv->fork);
  morv_free((*bitmap)->priv);
  morv_free(*bitmap);
  *bitmap = nullptr;
}

morv_err morv_bitmap_flush(morv_bitmap* bitmap) { return morv_fork_flush(bitmap->priv->fork); }

morv_fork* morv_bitmap_fork(const morv_bitmap* bitmap) { return bitmap->priv->fork; }

// ---- Freeing and allocating ----

morv_err FreeAllocationBlock(uint32_t block, morv_bitmap* bitmap) {
  if (!bitmap) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv_fork* fork = fork_of(bitmap);
  const uint64_t byte = block / kBitsPerByte;
  const uint64_t chunk = byte / kFreeChunkSize * kFreeChunkSize;
  // The last chunk of a bitmap that is not a whole number of chunks is
  // mapped as far as the file goes.
  uint64_t length = kFreeChunkSize;
  if (chunk < *fork->logical_size && *fork->logical_size - chunk < length)
    length = *fork->logical_size - chunk;
  bitmap_mapping m(fork);
  morv_err err = byte - chunk < length ? m.map(chunk, static_cast<size_t>(length))
                                       : MORV_ERR_INVALID_ARGUMENT;
  if (err) {
    MORV_ERROR("Error while mapping byte containing bit to clear in allocation file.\n");
    return err;
  }
  morv_err result = MORV_ERR_GENERIC;  // already clear: nothing to write
  if (m.at(byte) & block_mask(block)) {
    // The byte goes back at its own position in the chunk (the format's
    // place for this block), never at the chunk's start.
    result = write_byte(fork, byte, static_cast<uint8_t>(m.at(byte) & ~block_mask(block)));
    if (result) MORV_ERROR("Error while writing back modified byte to allocation file.\n");
  }
  if ((err = m.unmap())) {
    MORV_ERROR("Error while unmapping chunk containing bit to clear.\n");
    if (result == MORV_OK) result = err;
  }
  return result;
}

namespace {

// Clears the bits of blocks [start, end) set by a failed allocation, newest
// first; a failed write is reported and the others are still cleared.
void roll_back_run(morv_fork* fork, uint64_t start, uint64_t end) {
  for (uint64_t b = end; b-- > start;) {
    if (put_bit(fork, b, false) != MORV_OK)
      MORV_ERROR("Error while rolling back modification to bitmap bit %lu.%s\n",
                 morv_ul(static_cast<uint32_t>(b)),
                 " Ignoring and continuing to attempt rollback of remaining blocks...");
  }
}

// Sets the bits of [start, end) from the mapping; *handled is the end of
// the bits set when it stops.
[[nodiscard]] morv_err set_run(morv_fork* fork, const bitmap_mapping& m, uint64_t start,
                               uint64_t end, uint64_t* handled) {
  for (uint64_t b = start; b < end; ++b) {
    const uint8_t byte = m.at(b / kBitsPerByte);
    if (byte & block_mask(b)) {
      MORV_ERROR("Block %d is already allocated.\n", static_cast<int>(b));
      return MORV_ERR_GENERIC;
    }
    if (morv_err err = write_byte(fork, b / kBitsPerByte, byte | block_mask(b))) {
      MORV_ERROR("Error while writing out modified bitmap byte.\n");
      return err;
    }
    *handled = b + 1;
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_bitmap_mark_run(morv_bitmap* bitmap, uint32_t start_block, uint32_t count) {
  const uint64_t start = start_block;
  const uint64_t end = start + count;
  const uint32_t total_blocks = total_blocks_of(bitmap);
  if (end > total_blocks) {
    MORV_ERROR("Blocks %llu to %llu lie beyond the volume's %lu allocation blocks.\n",
               morv_ull(start), morv_ull(end), morv_ul(total_blocks));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (count == 0) return MORV_OK;
  morv_fork* fork = fork_of(bitmap);
  bitmap_mapping m(fork);
  const uint64_t first_byte = start / kBitsPerByte;
  if (morv_err err = m.map(first_byte, static_cast<size_t>((end + 7) / kBitsPerByte - first_byte))) {
    MORV_ERROR("Error while mapping from allocation file the region of data containing the bitmap "
               "bits for the blocks that we are allocating.\n");
    return err;
  }
  uint64_t handled = start;
  morv_err result = set_run(fork, m, start, end, &handled);
  if (result) roll_back_run(fork, start, handled);
  if (morv_err err = m.unmap()) {
    MORV_ERROR("Error while unmapping chunk containing bits to set.\n");
    if (result == MORV_OK) result = err;
  }
  return result;
}

morv_err morv_bitmap_clear_run(morv_bitmap* bitmap, uint32_t start_block, uint32_t count) {
  morv_fork* fork = fork_of(bitmap);
  morv_err result = MORV_OK;
  for (uint64_t b = start_block; b < uint64_t{start_block} + count; ++b) {
    if (morv_err err = put_bit(fork, b, false)) {
      MORV_ERROR("Error while clearing bitmap bit %lu.\n", morv_ul(static_cast<uint32_t>(b)));
      if (result == MORV_OK) result = err;
    }
  }
  return result;
}

namespace {

// The allocation blocks of fork blocks [first, first + count) that an extent
// record holds, in fork order: calls visit(block) until it fails or `limit`
// blocks were visited; *visited counts the successful visits.
template <typename Visit>
[[nodiscard]] morv_err for_each_block(const uint8_t* record, uint64_t first, uint64_t count,
                                      uint64_t limit, uint64_t* visited, Visit visit) {
  const uint64_t end = first + count;
  uint64_t fork_block = 0;
  for (size_t i = 0; i < forkdata::kExtentsPerRecord && *visited < limit; ++i) {
    const uint64_t blocks = extent_blocks(record, i);
    if (blocks == 0) break;
    const uint64_t lo = first > fork_block ? first : fork_block;
    const uint64_t hi = end < fork_block + blocks ? end : fork_block + blocks;
    for (uint64_t fb = lo; fb < hi && *visited < limit; ++fb) {
      if (morv_err err = visit(extent_start(record, i) + (fb - fork_block))) return err;
      ++*visited;
    }
    fork_block += blocks;
  }
  return MORV_OK;
}

// Marks allocated again the first `limit` blocks of fork blocks [first,
// first + count) that an extent record holds, after a free cleared them; a
// failure is reported and the other blocks are still marked.
[[nodiscard]] morv_err mark_again(morv_fork* fork, const uint8_t* record, uint64_t first,
                                  uint64_t count, uint64_t limit) {
  morv_err result = MORV_OK;
  uint64_t restored = 0;
  (void)for_each_block(record, first, count, limit, &restored, [&](uint64_t b) {
    if (morv_err err = put_bit(fork, b, true)) {
      MORV_ERROR("Error while marking block %lu allocated again.\n", morv_ul(static_cast<uint32_t>(b)));
      if (result == MORV_OK) result = err;
    }
    return MORV_OK;
  });
  return result;
}

// The extents in use of a record end, counted in 64 bits, at or before
// totalBlocks: a start and count whose 32-bit sum wraps would otherwise free
// blocks 0, 1, ... and leave the undo of a failed free unable to mark them.
[[nodiscard]] morv_err check_record_inside(const uint8_t* record, const morv_bitmap* bitmap) {
  const uint32_t total = total_blocks_of(bitmap);
  for (size_t i = 0; i < forkdata::kExtentsPerRecord && extent_blocks(record, i) != 0; ++i) {
    const uint64_t end = uint64_t{extent_start(record, i)} + extent_blocks(record, i);
    if (end > total) {
      MORV_ERROR("Extent of blocks %lu to %llu lies beyond the volume's %lu allocation blocks.\n",
                 morv_ul(extent_start(record, i)), morv_ull(end - 1), morv_ul(total));
      return MORV_ERR_CORRUPT;
    }
  }
  return MORV_OK;
}

}  // namespace

morv_err FreeExtentAllocationBlocks(const uint8_t* fork_data, uint32_t first_block, uint32_t count,
                                    morv_bitmap* bitmap, uint32_t* out_freed) {
  if (!fork_data || !bitmap) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint8_t* record = fork_data + forkdata::kExtents;
  if (morv_err err = check_record_inside(record, bitmap)) return err;
  uint64_t freed = 0;
  morv_err err = for_each_block(record, first_block, count, UINT64_MAX, &freed, [&](uint64_t b) {
    morv_err e = FreeAllocationBlock(static_cast<uint32_t>(b), bitmap);
    if (e) MORV_ERROR("Error while freeing allocation block %lu.\n", morv_ul(static_cast<uint32_t>(b)));
    return e;
  });
  if (err) {
    // All or nothing: the blocks already freed are marked again.
    (void)mark_again(fork_of(bitmap), record, first_block, count, freed);
    return err;
  }
  if (out_freed) *out_freed = static_cast<uint32_t>(freed);
  return MORV_OK;
}

morv_err morv_bitmap_restore_extent_blocks(const uint8_t* fork_data, uint32_t first_block,
                                           uint32_t count, morv_bitmap* bitmap) {
  return mark_again(fork_of(bitmap), fork_data + forkdata::kExtents, first_block, count, UINT64_MAX);
}

// ---- Searching ----

namespace {

// Reads bits one fork sector at a time (one allocation block of the
// allocation file), so that a mapping never crosses a cache item and takes
// exactly the one reference its unmap gives back.
class bit_reader {
 public:
  explicit bit_reader(morv_fork* fork, uint32_t sector_size)
      : fork_(fork), sector_size_(sector_size), m_(fork) {}
  [[nodiscard]] morv_err allocated(uint64_t block, bool* out) {
    const uint64_t byte = block / kBitsPerByte;
    if (!m_.holds(byte)) {
      if (morv_err err = m_.unmap()) {
        MORV_ERROR("Error while unmapping previous region of bitmap data.\n");
        return err;
      }
      const uint64_t first = byte / sector_size_ * sector_size_;
      uint64_t length = sector_size_;
      if (first < *fork_->logical_size && *fork_->logical_size - first < length)
        length = *fork_->logical_size - first;
      if (morv_err err = m_.map(first, static_cast<size_t>(length))) {
        MORV_ERROR("Error while mapping region of bitmap data.\n");
        return err;
      }
    }
    *out = (m_.at(byte) & block_mask(block)) != 0;
    return MORV_OK;
  }
  [[nodiscard]] morv_err finish() {
    morv_err err = m_.unmap();
    if (err) MORV_ERROR("Error while unmapping region of bitmap data.\n");
    return err;
  }

 private:
  morv_fork* fork_;
  uint64_t sector_size_;
  bitmap_mapping m_;
};

// First fit over blocks [from, to): the first run of `wanted` free blocks
// that starts before `last_start`, each block read once. *found is false
// when there is none.
[[nodiscard]] morv_err first_fit(bit_reader* bits, uint64_t from, uint64_t to,
                                 uint64_t last_start, uint64_t wanted, uint64_t* start,
                                 bool* found) {
  uint64_t run = 0;
  for (uint64_t b = from; b < to; ++b) {
    bool set = false;
    if (morv_err err = bits->allocated(b, &set)) return err;
    run = set ? 0 : run + 1;
    if (run == wanted) {
      *start = b + 1 - wanted;
      *found = *start < last_start;
      return MORV_OK;
    }
    if (run == 0 && b + 1 >= last_start) break;  // no run can start in time any more
  }
  *found = false;
  return MORV_OK;
}

// The scan of FindContiguousUnallocated: candidates start at the hint, then
// at every later block whose run fits before totalBlocks, then from block 0
// up to the hint. A run never passes the last block.
[[nodiscard]] morv_err scan_for_run(bit_reader* bits, uint64_t total, uint64_t hint,
                                    uint64_t wanted, uint64_t* start, bool* found) {
  *found = false;
  if (morv_err err = first_fit(bits, hint, total, total, wanted, start, found)) return err;
  if (*found || hint == 0) return MORV_OK;
  const uint64_t to = hint + wanted - 1 < total ? hint + wanted - 1 : total;
  return first_fit(bits, 0, to, hint, wanted, start, found);
}

}  // namespace

morv_err morv_bitmap_find_run(morv_bitmap* bitmap, uint32_t wanted, uint32_t hint,
                              uint32_t* out_start, bool* out_found) {
  const uint32_t total = total_blocks_of(bitmap);
  bool found = false;
  uint64_t start = 0;
  if (wanted != 0 && wanted <= total && hint < total) {
    morv_fork* fork = fork_of(bitmap);
    bit_reader bits(fork, morv_fork_sector_size(fork));
    morv_err err = scan_for_run(&bits, total, hint, wanted, &start, &found);
    if (morv_err unmap_err = bits.finish(); !err) err = unmap_err;
    if (err) return err;
  }
  *out_start = found ? static_cast<uint32_t>(start) : 0;
  *out_found = found;
  return MORV_OK;
}
