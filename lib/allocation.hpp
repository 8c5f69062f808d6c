// SPDX-License-Identifier: MIT
// Allocation policy: where a fork's next blocks go, and the growth and
// shrinking of the special files, over the allocation bitmap, the extents
// overflow tree and the volume header.
//
// A fork's extents are its fork data's eight HFSPlusExtentDescriptors, then
// the extents overflow records of its (fork type, CNID). A write location
// names a free run and the extent that takes it: the last extent when the
// run begins where that extent ends (it is lengthened), else the next one.
// Only special files whose fork data lies in the volume header grow or
// shrink, and only within the eight extents of that fork data; the bitmap,
// freeBlocks, the header's fork data and the fork's cache change together or
// not at all.
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_fork;
struct morv_volume;

// Where a fork's next blocks go. A block count of 0 means that no free run
// was found (or, from UpdateForks, that the write needs no new blocks).
struct morv_write_location {
  uint32_t start_block;
  uint32_t requested_length;       // bytes, filled by UpdateForks, else 0
  uint32_t requested_length_copy;  // the same again
  uint32_t reserved;
  // Index of the extent that takes the run, counted over the fork data's
  // eight and then the overflow records: the last extent when the run
  // continues it, else the next one. 8 or more cannot be stored in the
  // fork data.
  uint32_t extent_index;
  uint32_t block_count;
  uint32_t reserved2;
  uint32_t reserved3;
};

// ---- Runs of blocks, with the volume header's accounting ----

// Marks blocks [start_block, start_block + count) allocated, lowers freeBlocks
// by count and moves nextAllocation past the run when it pointed at its
// start. MORV_ERR_GENERIC when a block of the run is already allocated; on
// any failure no bit stays changed.
[[nodiscard]] morv_err AllocateExtentAllocationBlocks(uint32_t start_block, uint32_t count,
                                                      morv_volume* volume);

// Undoes a successful AllocateExtentAllocationBlocks of the same run: clears
// the bits, raises freeBlocks by count and puts nextAllocation back to
// `next_allocation`. It touches only cache sectors that the allocation
// loaded, so it needs no memory and no device transfer.
[[nodiscard]] morv_err morv_bitmap_release_run(morv_volume* volume, uint32_t start_block,
                                               uint32_t count, uint32_t next_allocation);

// First-fit search for `wanted` free blocks from `hint` (0: nextAllocation),
// wrapping once around the volume. Finding nothing is success with a block
// count of 0.
[[nodiscard]] morv_err FindContiguousUnallocated(morv_volume* volume, uint32_t wanted,
                                                 uint32_t hint, morv_write_location* out);

// ---- Write locations ----


// Where the next ceil(clump_size / blockSize) blocks of a fork go: a free run
// searched from the end of its last extent (the fork data's, then the
// extents overflow records of `cnid` and `fork_type`). Nothing is changed.
[[nodiscard]] morv_err FindWriteLocation(uint32_t cnid, uint8_t fork_type, const uint8_t* fork_data,
                                         morv_volume* volume, uint64_t logical_size,
                                         uint32_t clump_size, morv_write_location* out);
// Prepares the fork data (eight extents only) for a write of `length` bytes
// at `offset`: when the extents do not reach offset + length it allocates
// ceil(length / blockSize) blocks and records them in the fork data
// (extents and totalBlocks; logicalSize is the writer's). MORV_ERR_EXTENT_LIMIT
// when the run would need a ninth extent, MORV_ERR_UNSUPPORTED when no free
// run is found; nothing changes on failure.
[[nodiscard]] morv_err UpdateForks(morv_volume* volume, uint8_t* fork_data, uint64_t offset,
                                   uint32_t length, morv_write_location* out);

// Applies a write location to fork data (on-disk order, in place): the run
// continues the extent at the location's index, or fills that extent when it
// is the first empty one; totalBlocks grows by the run. logicalSize is left.
[[nodiscard]] morv_err UpdateForkExtents(uint8_t* fork_data, const morv_write_location* location);

// Grows the fork by clumpSize / blockSize blocks from the allocation bitmap:
// the fork data (extents, totalBlocks, logicalSize), the volume header's copy
// of it, the bitmap, freeBlocks and the cache change together or not at all.
// Refused while the fork holds unflushed writes.
[[nodiscard]] morv_err morv_fork_expand(morv_fork* fork, morv_volume* volume,
                                        uint32_t* out_blocks_added);
// Cuts the last `blocks_to_remove` blocks off the fork and frees them; the
// cut part's modified sectors are written first and its cache dropped.
[[nodiscard]] morv_err morv_fork_shrink(morv_fork* fork, morv_volume* volume,
                                        uint32_t blocks_to_remove);

// What one growth changed, for taking it back.
struct morv_fork_growth {
  uint8_t saved_fork_data[forkdata::kSize];
  uint32_t saved_next_allocation;
  uint32_t start_block;
  uint32_t blocks;  // 0: nothing to take back
  uint64_t old_logical_size;
  size_t old_items_length;
};
// morv_fork_expand that also records how to take the growth back.
[[nodiscard]] morv_err morv_fork_expand_recorded(morv_fork* fork, morv_volume* volume,
                                                 uint32_t* out_blocks_added,
                                                 morv_fork_growth* growth);
// Takes a recorded growth back whole, the last change to the fork first: the
// cache past the old end is dropped (nothing reaches the device), and the
// fork data, bitmap bits, freeBlocks and nextAllocation are as before. It
// allocates nothing and transfers nothing.
[[nodiscard]] morv_err morv_fork_undo_growth(morv_fork* fork, morv_volume* volume,
                                             const morv_fork_growth* growth);
