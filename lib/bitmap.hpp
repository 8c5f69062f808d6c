// SPDX-License-Identifier: MIT
// The allocation file (CNID 6): one bit per allocation block of the volume,
// block n at bit 7 - (n mod 8) of byte n / 8 (the most significant bit of byte
// 0 is block 0); a set bit means the block is allocated. It is opened as a
// fork whose I/O unit is a whole allocation block.
//
// The bitmap, the volume header's freeBlocks and the extents of every fork
// agree: a block is marked exactly when some fork (or the volume's reserved
// areas) uses it, and freeBlocks counts the clear bits below totalBlocks.
// Every operation here that changes bits either completes or puts the bits
// back; bits past totalBlocks are never touched.
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_device;
struct morv_extents;
struct morv_fork;

struct morv_bitmap_private;

struct morv_bitmap {
  morv_bitmap_private* priv;
};

[[nodiscard]] morv_err morv_bitmap_create(uint8_t* volume_header, morv_device* device,
                                          morv_extents* extents, morv_bitmap** out);
// Destroys the bitmap's fork without flushing it; clears the handle.
void morv_bitmap_destroy(morv_bitmap** bitmap);
// Writes the allocation file's modified cache blocks back.
[[nodiscard]] morv_err morv_bitmap_flush(morv_bitmap* bitmap);
// The allocation file's fork (owned by the bitmap).
morv_fork* morv_bitmap_fork(const morv_bitmap* bitmap);

// Clears the bit of `block`. MORV_ERR_GENERIC (nothing written) when it was
// already clear. freeBlocks is the caller's to raise.
[[nodiscard]] morv_err FreeAllocationBlock(uint32_t block, morv_bitmap* bitmap);
// Clears the bits of fork blocks [first_block, first_block + count) that the
// fork data's eight extents hold; *out_freed (optional) is how many. All or
// nothing. freeBlocks is the caller's to raise.
[[nodiscard]] morv_err FreeExtentAllocationBlocks(const uint8_t* fork_data, uint32_t first_block,
                                                  uint32_t count, morv_bitmap* bitmap,
                                                  uint32_t* out_freed);
// Undoes a successful FreeExtentAllocationBlocks with the same fork data,
// first block and count: marks those blocks allocated again. It writes only
// bytes whose sectors the free loaded, so it needs no memory and no device
// transfer. freeBlocks is the caller's.
[[nodiscard]] morv_err morv_bitmap_restore_extent_blocks(const uint8_t* fork_data,
                                                         uint32_t first_block, uint32_t count,
                                                         morv_bitmap* bitmap);

// Marks blocks [start_block, start_block + count) allocated.
// MORV_ERR_GENERIC when a block of the run is already allocated, and
// MORV_ERR_INVALID_ARGUMENT when the run passes totalBlocks; on any failure
// no bit stays changed. freeBlocks is the caller's.
[[nodiscard]] morv_err morv_bitmap_mark_run(morv_bitmap* bitmap, uint32_t start_block,
                                            uint32_t count);
// Clears the bits of a run that morv_bitmap_mark_run marked. It touches only
// cache sectors that the marking loaded, so it needs no memory and no device
// transfer.
[[nodiscard]] morv_err morv_bitmap_clear_run(morv_bitmap* bitmap, uint32_t start_block,
                                             uint32_t count);
// First fit for `wanted` free blocks: runs starting at `hint` (below
// totalBlocks) or later, then from block 0 up to the hint; a run never passes
// the last block. *out_found is false when there is none.
[[nodiscard]] morv_err morv_bitmap_find_run(morv_bitmap* bitmap, uint32_t wanted, uint32_t hint,
                                            uint32_t* out_start, bool* out_found);
