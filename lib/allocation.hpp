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
struct morv_write_location;

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
