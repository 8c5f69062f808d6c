// SPDX-License-Identifier: MIT
// Allocation policy: write locations, and the growth and shrinking of the
// special files whose fork data lies in the volume header.
//
// A change is prepared completely (location, arrays, new fork data) before
// anything is published, so that every failure after publication only has
// to put the saved fork data back and release what the bitmap gave. The
// fork's cache follows through the fork's resize calls, under its items lock.
#include "allocation.hpp"

#include <algorithm>
#include <cstring>

#include "bitmap.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "volume.hpp"

namespace {
constexpr const char* kLogSource = "allocation";
constexpr uint8_t kDataForkType = 0x00;
constexpr uint64_t kCacheItemSize = 1048576;  // the fork cache's slot size

uint32_t header_field(const morv_volume* volume, size_t offset) {
  return load_be32(volume->header + offset);
}
uint32_t extent_start(const uint8_t* record, size_t i) {
  return load_be32(record + i * forkdata::kExtentSize + forkdata::kExtentStartBlock);
}
uint32_t extent_blocks(const uint8_t* record, size_t i) {
  return load_be32(record + i * forkdata::kExtentSize + forkdata::kExtentBlockCount);
}
uint8_t* extent_at(uint8_t* fork_data, size_t i) {
  return fork_data + forkdata::kExtents + i * forkdata::kExtentSize;
}
size_t extents_in_use(const uint8_t* fork_data) {
  size_t n = 0;
  while (n < forkdata::kExtentsPerRecord && extent_blocks(fork_data + forkdata::kExtents, n) != 0) ++n;
  return n;
}

}  // namespace

// ---- Runs of blocks ----

morv_err AllocateExtentAllocationBlocks(uint32_t start_block, uint32_t count, morv_volume* volume) {
  if (!volume || !volume->bitmap) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = morv_bitmap_mark_run(volume->bitmap, start_block, count)) return err;
  morv_volume_decrement_free_blocks(volume, count);
  if (header_field(volume, vh::kNextAllocation) == start_block)
    morv_volume_set_next_allocation(volume, static_cast<uint32_t>(uint64_t{start_block} + count));
  return MORV_OK;
}

morv_err morv_bitmap_release_run(morv_volume* volume, uint32_t start_block, uint32_t count,
                                 uint32_t next_allocation) {
  const morv_err result = morv_bitmap_clear_run(volume->bitmap, start_block, count);
  morv_volume_increment_free_blocks(volume, count);
  morv_volume_set_next_allocation(volume, next_allocation);
  return result;
}

morv_err FindContiguousUnallocated(morv_volume* volume, uint32_t wanted, uint32_t hint,
                                   morv_write_location* out) {
  if (!volume || !volume->bitmap || !out) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint32_t total = header_field(volume, vh::kTotalBlocks);
  if (hint == 0) hint = header_field(volume, vh::kNextAllocation);
  if (hint >= total) hint = total ? total - 1 : 0;
  uint32_t start = 0;
  bool found = false;
  if (morv_err err = morv_bitmap_find_run(volume->bitmap, wanted, hint, &start, &found)) return err;
  morv_write_location location{};
  if (found) {
    location.start_block = start;
    location.block_count = wanted;
  }
  *out = location;
  return MORV_OK;
}

// ---- Write locations ----

namespace {

// Walks all extents of a fork: *out_count extents, the last ending at
// allocation block *out_end (0 for a fork without blocks).
[[nodiscard]] morv_err walk_fork_extents(uint32_t cnid, uint8_t fork_type, const uint8_t* fork_data,
                                         morv_extents* extents, uint32_t* out_count,
                                         uint64_t* out_end) {
  const uint32_t total = load_be32(fork_data + forkdata::kTotalBlocks);
  uint8_t record[forkdata::kExtentRecordSize];
  memcpy(record, fork_data + forkdata::kExtents, sizeof record);
  uint64_t seen = 0;
  uint32_t count = 0;
  uint64_t end = 0;
  while (seen < total) {
    for (size_t i = 0; i < forkdata::kExtentsPerRecord && seen < total; ++i, ++count) {
      if (extent_blocks(record, i) == 0) {
        MORV_ERROR("Encountered zero block count in extent.\n");
        return MORV_ERR_CORRUPT;
      }
      seen += extent_blocks(record, i);
      end = uint64_t{extent_start(record, i)} + extent_blocks(record, i);
      if (seen > total) {
        MORV_ERROR("Inconsistent extent record: Found more blocks than the number of allocated "
                   "blocks (%llu > %lu).\n",
                   morv_ull(seen), morv_ul(total));
        return MORV_ERR_CORRUPT;
      }
    }
    if (seen == total) break;
    if (!extents) {
      MORV_ERROR("List of extents ends before all blocks have been accounted for. Missing %lu "
                 "blocks.\n",
                 morv_ul(static_cast<uint32_t>(total - seen)));
      return MORV_ERR_CORRUPT;
    }
    int found = 0;
    if (morv_err err = morv_extents_get_next_extent_record(
            extents, fork_type, cnid, static_cast<uint32_t>(seen), &found, record)) {
      MORV_ERROR("Error while looking up next extent record.\n");
      return err;
    }
    if (!found) {
      MORV_ERROR("Could not find next extent record.\n");
      return MORV_ERR_CORRUPT;
    }
  }
  *out_count = count;
  *out_end = end;
  return MORV_OK;
}

}  // namespace

morv_err FindWriteLocation(uint32_t cnid, uint8_t fork_type, const uint8_t* fork_data,
                           morv_volume* volume, uint64_t /*logical_size*/, uint32_t clump_size,
                           morv_write_location* out) {
  if (!fork_data || !volume || !volume->bitmap || !out) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint32_t block_size = header_field(volume, vh::kBlockSize);
  const uint32_t wanted =
      static_cast<uint32_t>((uint64_t{clump_size} + block_size - 1) / block_size);
  uint32_t count = 0;
  uint64_t end = 0;
  if (morv_err err = walk_fork_extents(cnid, fork_type, fork_data, volume->extents, &count, &end))
    return err;
  // An end past 32 bits never matches a start block, and a hint past the
  // volume is clamped by the search.
  const uint32_t hint = end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end);
  morv_write_location location{};
  if (morv_err err = FindContiguousUnallocated(volume, wanted, hint, &location)) {
    MORV_ERROR("Error while searching the bitmap for a free region of %lu.\n", morv_ul(wanted));
    return err;
  }
  const bool continues = count == 0 || (location.block_count != 0 && location.start_block == end);
  location.extent_index = continues ? (count ? count - 1 : 0) : count;
  *out = location;
  return MORV_OK;
}

namespace {

// The fork-data extent that a write of [offset, offset + length) reaches:
// *fits when the extents already cover it; else *index is the last extent in
// use (0 for an empty fork), or 8 when all eight are in use.
void reach_of_write(const uint8_t* record, uint32_t block_size, uint64_t offset, uint64_t length,
                    size_t* index, bool* fits) {
  uint64_t covered = 0;
  *fits = false;
  for (size_t i = 0; i < forkdata::kExtentsPerRecord; ++i) {
    if (extent_start(record, i) == 0 && extent_blocks(record, i) == 0) {
      *index = i ? i - 1 : 0;
      return;
    }
    covered += uint64_t{extent_blocks(record, i)} * block_size;
    *index = i;
    if (offset + length <= covered) {
      *fits = true;
      return;
    }
  }
  *index = forkdata::kExtentsPerRecord;
}

}  // namespace

morv_err UpdateForks(morv_volume* volume, uint8_t* fork_data, uint64_t offset, uint32_t length,
                     morv_write_location* out) {
  if (!fork_data || !volume || !out) {
    MORV_ERROR("HFSPlus:ERROR: [%s] Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint32_t block_size = header_field(volume, vh::kBlockSize);
  const uint32_t needed = static_cast<uint32_t>((uint64_t{length} + block_size - 1) / block_size);
  uint8_t* record = fork_data + forkdata::kExtents;
  size_t index = 0;
  bool fits = false;
  reach_of_write(record, block_size, offset, length, &index, &fits);
  if (index == forkdata::kExtentsPerRecord) {
    MORV_ERROR("HFSPlus: [%s] Not handling overflow extents yet.\n", __func__);
    return MORV_ERR_EXTENT_LIMIT;
  }
  morv_write_location location{};
  location.extent_index = static_cast<uint32_t>(index);
  if (fits || needed == 0) {  // an empty write needs no block either
    *out = location;
    return MORV_OK;
  }
  uint8_t* e = record + index * forkdata::kExtentSize;
  const bool empty = extent_blocks(record, index) == 0;
  const uint64_t end = uint64_t{extent_start(record, index)} + extent_blocks(record, index);
  const uint32_t hint = empty ? 0 : (end > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(end));
  if (morv_err err = FindContiguousUnallocated(volume, needed, hint, &location)) {
    MORV_ERROR("Error while looking up unallocated region.\n");
    return err;
  }
  // Nothing found is a failure here: there is no run to record.
  if (location.block_count == 0 || location.start_block == 0) {
    MORV_ERROR("No free run of %lu blocks found in the allocation file.\n", morv_ul(needed));
    return MORV_ERR_UNSUPPORTED;
  }
  const bool continues = !empty && location.start_block == end;
  if (!empty && !continues) {
    if (++index == forkdata::kExtentsPerRecord) {
      MORV_ERROR("HFSPlus: [%s] Not handling overflow extents yet.\n", __func__);
      return MORV_ERR_EXTENT_LIMIT;
    }
    e = record + index * forkdata::kExtentSize;
  }
  if (morv_err err = AllocateExtentAllocationBlocks(location.start_block, needed, volume)) {
    MORV_ERROR("Error while marking %lu blocks starting at block %lu as allocated in the "
               "allocation file.\n",
               morv_ul(needed), morv_ul(location.start_block));
    return err;
  }
  if (continues) {
    store_be32(e + forkdata::kExtentBlockCount, extent_blocks(record, index) + needed);
  } else {
    store_be32(e + forkdata::kExtentStartBlock, location.start_block);
    store_be32(e + forkdata::kExtentBlockCount, needed);
  }
  store_be32(fork_data + forkdata::kTotalBlocks,
             load_be32(fork_data + forkdata::kTotalBlocks) + needed);
  location.extent_index = static_cast<uint32_t>(index);
  location.requested_length = length;
  location.requested_length_copy = length;
  *out = location;
  return MORV_OK;
}

// ---- Growth and shrinking ----

namespace {

// CNIDs 3, 4, 6, 7 and 8: bit n of the mask is CNID n.
constexpr uint32_t kHeaderForkCnids = 0x1D8;
constexpr uint32_t kMaxHeaderForkCnid = 8;

bool header_fork(uint32_t cnid) { return cnid <= kMaxHeaderForkCnid && ((kHeaderForkCnids >> cnid) & 1u); }

// The allocation file's own fork cannot take blocks from itself: its items
// lock would be held by the growth while the bitmap writes through it.
bool is_bitmap_fork(const morv_fork* fork, const morv_volume* volume) {
  return volume->bitmap && morv_bitmap_fork(volume->bitmap) == fork;
}

// Publishes fork data to the volume header and to the fork's own reference
// (which is normally the header's copy already).
void publish(morv_fork* fork, morv_volume* volume, const uint8_t* fork_data) {
  morv_volume_update_fork_data(volume, morv_fork_cnid(fork), fork_data);
  uint8_t* own = morv_fork_data(fork);
  if (memcmp(own, fork_data, forkdata::kSize) != 0) memcpy(own, fork_data, forkdata::kSize);
}

[[nodiscard]] morv_err check_supported(const morv_fork* fork, const morv_volume* volume,
                                       const char* operation) {
  const uint32_t cnid = morv_fork_cnid(fork);
  if (!header_fork(cnid)) {
    MORV_ERROR("Invalid CNID for %s (%lu). We currently only support forks with their fork data "
               "in the volume header.\n",
               operation, morv_ul(cnid));
    return MORV_ERR_INTERNAL;
  }
  if (is_bitmap_fork(fork, volume)) {
    MORV_ERROR("The allocation file cannot grow or shrink while it serves as the volume's "
               "bitmap.\n");
    return MORV_ERR_INTERNAL;
  }
  return MORV_OK;
}

// Where `blocks` new blocks go; a search that finds no run is a failure
// here, so that nothing is ever allocated for it.
[[nodiscard]] morv_err locate_growth(morv_fork* fork, morv_volume* volume, uint32_t blocks,
                                     morv_write_location* location) {
  morv_err err = FindWriteLocation(morv_fork_cnid(fork), kDataForkType, morv_fork_data(fork), volume,
                                   *fork->logical_size, blocks * fork->block_size, location);
  if (!err && location->block_count == 0) {
    MORV_ERROR("No free run of %lu blocks found in the allocation file.\n", morv_ul(blocks));
    err = MORV_ERR_UNSUPPORTED;
  }
  if (err) MORV_ERROR("Error while searching for write location for expanded fork.\n");
  return err;
}

// The arrays and fork data of a growth, prepared before anything changes.
struct growth_plan {
  morv_fork_resize resize{};
  uint8_t fork_data[forkdata::kSize] = {};
  ~growth_plan() { morv_fork_cancel_resize(&resize); }
};

[[nodiscard]] morv_err check_growth_size(const morv_fork* fork, uint64_t new_total,
                                         uint64_t new_items_length) {
  if (new_items_length < morv_fork_cache_slots(fork)) {
    MORV_CRITICAL("Internal error: New items array is smaller than old items array.\n");
    return MORV_ERR_INTERNAL;
  }
  if (new_total > UINT32_MAX) {
    MORV_ERROR("Cannot expand fork beyond 2^32 blocks (attempted to expand fork to %llu blocks).\n",
               morv_ull(new_total));
    return MORV_ERR_UNSUPPORTED;
  }
  return MORV_OK;
}

// Resize lock held.
[[nodiscard]] morv_err plan_growth(morv_fork* fork, uint32_t blocks,
                                   const morv_write_location* location, growth_plan* plan) {
  const uint64_t b = fork->block_size;
  const uint8_t* fork_data = morv_fork_data(fork);
  const uint64_t old_total = load_be32(fork_data + forkdata::kTotalBlocks);
  const uint64_t new_total = old_total + blocks;
  const uint64_t new_items_length = (new_total * b + kCacheItemSize - 1) / kCacheItemSize;
  if (morv_err err = check_growth_size(fork, new_total, new_items_length)) return err;
  // The length wraps: the trailing part lies past the new end, so a fork
  // holding unflushed writes is refused here. Kept as it stands.
  if (morv_err err = morv_fork_flush_internal(fork, new_total * b, (old_total - new_total) * b)) {
    MORV_ERROR("Error while flushing trailing part of fork.\n");
    return err;
  }
  if (morv_err err = morv_fork_prepare_resize(fork, new_total * b, &plan->resize)) return err;
  memcpy(plan->fork_data, fork_data, forkdata::kSize);
  if (morv_err err = UpdateForkExtents(plan->fork_data, location)) {
    MORV_ERROR("Error while updating fork extents.\n");
    return err;
  }
  // The fork data's logicalSize follows the fork's, so that I/O reaches the new blocks.
  store_be64(plan->fork_data + forkdata::kLogicalSize, new_total * b);
  return MORV_OK;
}

// Resize lock held: everything from the saved record to the installed cache.
[[nodiscard]] morv_err grow_locked(morv_fork* fork, morv_volume* volume, uint32_t blocks,
                                   const morv_write_location& location, morv_fork_growth* record) {
  memcpy(record->saved_fork_data, morv_fork_data(fork), forkdata::kSize);
  record->saved_next_allocation = header_field(volume, vh::kNextAllocation);
  record->start_block = location.start_block;
  record->blocks = blocks;
  record->old_logical_size = *fork->logical_size;
  record->old_items_length = morv_fork_cache_slots(fork);
  growth_plan plan;
  if (morv_err err = plan_growth(fork, blocks, &location, &plan)) return err;
  publish(fork, volume, plan.fork_data);
  if (morv_err err = AllocateExtentAllocationBlocks(location.start_block, blocks, volume)) {
    MORV_ERROR("Error while marking %lu blocks starting at block %lu as allocated in the "
               "allocation file.\n",
               morv_ul(blocks), morv_ul(location.start_block));
    publish(fork, volume, record->saved_fork_data);
    return err;
  }
  morv_fork_commit_resize(fork, &plan.resize, plan.fork_data);
  return MORV_OK;
}

}  // namespace

morv_err UpdateForkExtents(uint8_t* fork_data, const morv_write_location* location) {
  if (!fork_data || !location) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint32_t index = location->extent_index;
  if (index >= forkdata::kExtentsPerRecord) {
    MORV_ERROR("Unable to update fork extents beyond the first 8 extents.");
    return MORV_ERR_EXTENT_LIMIT;
  }
  uint8_t* e = extent_at(fork_data, index);
  const uint64_t total = uint64_t{load_be32(fork_data + forkdata::kTotalBlocks)} + location->block_count;
  const bool continues = uint64_t{extent_start(e, 0)} + extent_blocks(e, 0) == location->start_block;
  // A run may only lengthen the extent it continues or fill the first empty
  // extent: replacing a used extent would lose its blocks, and a gap would
  // end the list early.
  const size_t used = extents_in_use(fork_data);
  const bool fills_next = index == used;
  if (location->block_count == 0 || total > UINT32_MAX ||
      (continues ? index + 1 != used : !fills_next)) {
    MORV_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (continues) {
    store_be32(e + forkdata::kExtentBlockCount, extent_blocks(e, 0) + location->block_count);
  } else {
    store_be32(e + forkdata::kExtentStartBlock, location->start_block);
    store_be32(e + forkdata::kExtentBlockCount, location->block_count);
  }
  store_be32(fork_data + forkdata::kTotalBlocks, static_cast<uint32_t>(total));
  return MORV_OK;
}

morv_err morv_fork_expand_recorded(morv_fork* fork, morv_volume* volume,
                                   uint32_t* out_blocks_added, morv_fork_growth* growth) {
  const uint32_t blocks =
      load_be32(morv_fork_data(fork) + forkdata::kClumpSize) / fork->block_size;
  if (morv_err err = check_supported(fork, volume, "morv_fork_expand")) return err;
  morv_fork_growth record{};
  if (blocks != 0) {
    morv_write_location location{};
    if (morv_err err = locate_growth(fork, volume, blocks, &location)) return err;
    if (morv_err err = morv_fork_lock_resize(fork)) return err;
    morv_err err = grow_locked(fork, volume, blocks, location, &record);
    if ((err = morv_fork_unlock_resize(fork, err))) return err;
  }
  if (growth) *growth = record;
  *out_blocks_added = blocks;
  return MORV_OK;
}

morv_err morv_fork_expand(morv_fork* fork, morv_volume* volume, uint32_t* out_blocks_added) {
  return morv_fork_expand_recorded(fork, volume, out_blocks_added, nullptr);
}

morv_err morv_fork_undo_growth(morv_fork* fork, morv_volume* volume, const morv_fork_growth* growth) {
  if (growth->blocks == 0) return MORV_OK;
  if (morv_err err = morv_fork_lock_resize(fork)) return err;
  morv_fork_restore_size(fork, growth->old_logical_size, growth->old_items_length,
                         growth->saved_fork_data);
  publish(fork, volume, growth->saved_fork_data);
  const morv_err err = morv_bitmap_release_run(volume, growth->start_block, growth->blocks,
                                               growth->saved_next_allocation);
  return morv_fork_unlock_resize(fork, err);
}

namespace {

// The fork data of a fork cut to `new_total` blocks.
void cut_fork_data(uint8_t* fork_data, uint64_t new_total, uint64_t new_logical_size) {
  uint64_t before = 0;
  for (size_t i = 0; i < forkdata::kExtentsPerRecord; ++i) {
    uint8_t* e = extent_at(fork_data, i);
    const uint64_t blocks = extent_blocks(fork_data + forkdata::kExtents, i);
    if (before >= new_total) {
      memset(e, 0, forkdata::kExtentSize);
    } else if (before + blocks > new_total) {
      store_be32(e + forkdata::kExtentBlockCount, static_cast<uint32_t>(new_total - before));
    }
    before += blocks;
  }
  store_be32(fork_data + forkdata::kTotalBlocks, static_cast<uint32_t>(new_total));
  store_be64(fork_data + forkdata::kLogicalSize, new_logical_size);
}

// A shrink is only taken on forks that lie wholly in their eight extents.
[[nodiscard]] morv_err check_shrink(const uint8_t* fork_data, uint32_t blocks_to_remove) {
  const uint32_t total = load_be32(fork_data + forkdata::kTotalBlocks);
  if (blocks_to_remove > total) {
    MORV_ERROR("Cannot remove %lu blocks from a fork of %lu blocks.\n", morv_ul(blocks_to_remove),
               morv_ul(total));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint64_t held = 0;
  for (size_t i = 0; i < forkdata::kExtentsPerRecord; ++i)
    held += extent_blocks(fork_data + forkdata::kExtents, i);
  if (held != total) {
    MORV_ERROR("Unable to update fork extents beyond the first 8 extents.");
    return MORV_ERR_EXTENT_LIMIT;
  }
  return MORV_OK;
}

// Resize lock held.
[[nodiscard]] morv_err shrink_locked(morv_fork* fork, morv_volume* volume, uint32_t blocks) {
  const uint64_t b = fork->block_size;
  const uint64_t logical = *fork->logical_size;
  uint8_t saved[forkdata::kSize];
  memcpy(saved, morv_fork_data(fork), sizeof saved);
  const uint64_t old_total = load_be32(saved + forkdata::kTotalBlocks);
  const uint64_t new_total = old_total - blocks;
  const uint64_t new_logical = std::min(logical, new_total * b);
  const uint64_t new_items_length = (new_logical + kCacheItemSize - 1) / kCacheItemSize;
  if (new_items_length > morv_fork_cache_slots(fork)) {
    MORV_CRITICAL("Internal error: New items array is larger than old items array.\n");
    return MORV_ERR_INTERNAL;
  }
  if (new_logical < logical)
    if (morv_err err = morv_fork_flush_internal(fork, new_logical, logical - new_logical)) {
      MORV_ERROR("Error while flushing trailing part of fork.\n");
      return err;
    }
  morv_fork_resize resize{};
  if (morv_err err = morv_fork_prepare_resize(fork, new_logical, &resize)) return err;
  morv::scope_exit cancel([&] { morv_fork_cancel_resize(&resize); });
  uint8_t cut[forkdata::kSize];
  memcpy(cut, saved, sizeof cut);
  cut_fork_data(cut, new_total, new_logical);
  publish(fork, volume, cut);
  uint32_t freed = 0;
  if (morv_err err = FreeExtentAllocationBlocks(saved, static_cast<uint32_t>(new_total), blocks,
                                                volume->bitmap, &freed)) {
    MORV_ERROR("Error while freeing %lu blocks in fork starting at block %lu.\n", morv_ul(blocks),
               morv_ul(static_cast<uint32_t>(new_total)));
    publish(fork, volume, saved);
    return err;
  }
  if (freed < blocks)
    MORV_ERROR("Unable to free all allocated blocks. Freed %lu / %lu blocks.\n", morv_ul(freed),
               morv_ul(blocks));
  morv_volume_increment_free_blocks(volume, freed);
  morv_fork_commit_resize(fork, &resize, cut);
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_shrink(morv_fork* fork, morv_volume* volume, uint32_t blocks_to_remove) {
  if (morv_err err = check_supported(fork, volume, "morv_fork_shrink")) return err;
  if (morv_err err = morv_fork_lock_resize(fork)) return err;
  morv_err err = check_shrink(morv_fork_data(fork), blocks_to_remove);
  if (!err && blocks_to_remove != 0) err = shrink_locked(fork, volume, blocks_to_remove);
  return morv_fork_unlock_resize(fork, err);
}
