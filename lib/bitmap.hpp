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
struct morv_volume;

struct morv_bitmap_private;

struct morv_bitmap {
  morv_bitmap_private* priv;
};

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
// Marks blocks [start_block, start_block + count) allocated, lowers freeBlocks
// by count and moves nextAllocation past the run when it pointed at its
// start. MORV_ERR_GENERIC when a block of the run is already allocated; on
// any failure no bit stays changed.
[[nodiscard]] morv_err AllocateExtentAllocationBlocks(uint32_t start_block, uint32_t count,
                                                      morv_volume* volume);
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
// First-fit search for `wanted` free blocks from `hint` (0: nextAllocation),
// wrapping once around the volume. Finding nothing is success with a block
// count of 0.
[[nodiscard]] morv_err FindContiguousUnallocated(morv_volume* volume, uint32_t wanted,
                                                 uint32_t hint, morv_write_location* out);
// Undoes a successful AllocateExtentAllocationBlocks of the same run: clears
// the bits, raises freeBlocks by count and puts nextAllocation back to
// `next_allocation`. It touches only cache sectors that the allocation
// loaded, so it needs no memory and no device transfer.
[[nodiscard]] morv_err morv_bitmap_release_run(morv_volume* volume, uint32_t start_block,
                                               uint32_t count, uint32_t next_allocation);
