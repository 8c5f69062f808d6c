// Forks: one HFS+ fork (the data of a special file such as the catalog or the
// extents overflow file) seen as a flat byte range of `logicalSize` bytes over
// its allocation blocks, with a block cache of 1 MiB items.
#pragma once

#include <cstddef>
#include <cstdint>

#include "morv.hpp"

struct morv_device;
struct morv_extents;
struct morv_fork_private;

struct morv_fork {
  const uint64_t* logical_size;  // the current logical size, held in the private part
  uint32_t block_size;           // the volume's allocation block size
  morv_fork_private* priv;
};

// Builds a fork over `fork_data` (an HFSPlusForkData in on-disk order that
// must outlive the fork; normally inside the in-memory volume header),
// resolving all its extents up front: the eight of the fork data, then the
// extents overflow tree's records. `extents` may be null only when `partial`
// is non-zero. `volume_header` gives blockSize. The fork's I/O unit is the
// larger of the device's sector size and `min_sector_size`.
[[nodiscard]] morv_err morv_fork_create(morv_device* device, morv_extents* extents, int partial,
                                        const uint8_t* volume_header, uint32_t cnid,
                                        uint8_t* fork_data, uint32_t min_sector_size,
                                        morv_fork** out_fork);
// Frees the fork and its cache without writing anything; clears the handle.
void morv_fork_destroy(morv_fork** fork);

// Copies `length` bytes at `offset` into `buffer`; *bytes_read (optional) is
// length on success, 0 on failure.
[[nodiscard]] morv_err morv_fork_read(morv_fork* fork, uint64_t offset, void* buffer, size_t length,
                                      size_t* bytes_read);
// Points *out at `length` cached bytes at `offset` (within one 1 MiB cache
// item). Each map is released by one morv_fork_unmap with the same offset.
[[nodiscard]] morv_err morv_fork_map(morv_fork* fork, uint64_t offset, uint8_t** out, size_t length,
                                     size_t* mapped_length);
[[nodiscard]] morv_err morv_fork_unmap(morv_fork* fork, uint64_t offset, uint8_t** pointer,
                                       size_t length);

// Copies bytes into the cache and marks their sectors modified; nothing
// reaches the device before a flush.
[[nodiscard]] morv_err morv_fork_write(morv_fork* fork, uint64_t offset, const void* buffer,
                                       size_t length, size_t* bytes_written);
// Changes with every write into the fork's bytes (morv_fork_write and
// morv_fork_fill), so that a client keeping its own copies of fork bytes can
// tell whether anyone wrote since it last looked.
uint64_t morv_fork_write_count(const morv_fork* fork);
[[nodiscard]] morv_err morv_fork_fill(morv_fork* fork, uint64_t offset, uint64_t length,
                                      uint8_t value, uint64_t* bytes_filled);
// Writes every modified sector back, each run of adjacent ones in one request.
[[nodiscard]] morv_err morv_fork_flush(morv_fork* fork);
[[nodiscard]] morv_err morv_fork_flush_internal(morv_fork* fork, uint64_t offset, uint64_t length);

// ---- Growth and shrinking (special files whose fork data is in the volume header) ----

struct morv_volume;
struct morv_write_location;

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

// ---- Internals shared by the fork operations (and their tests) ----

struct morv_rwlock;

// One 1 MiB slice of the fork held in memory. Bit k of the valid bitmap says
// that fork sector k of the slice holds current bytes; bit k of the
// modification bitmap that it was changed and not yet written back.
// `modified` is the number of set modification bits.
struct morv_fork_cache_item {
  morv_rwlock* item_lock;
  uint8_t* data;
  size_t data_size;
  uint8_t* valid_bitmap;
  size_t valid_bitmap_size;
  uint8_t* modification_bitmap;
  size_t modification_bitmap_size;
  uint64_t references;
  size_t modified;
};

struct morv_fork_private {
  morv_device* device;
  uint32_t cnid;
  uint8_t* fork_data;  // by reference: normally inside the in-memory volume header
  uint64_t logical_size;
  uint8_t* extents;  // resolved HFSPlusExtentDescriptors, on-disk byte order
  size_t extents_count;
  morv_rwlock* items_lock;
  morv_fork_cache_item** items;  // a slot stays null until its item is first needed
  size_t items_length;
  size_t cache_item_size;
  uint32_t sector_size;  // the fork's I/O unit, a multiple of the device's sector
  morv_rwlock* dirty_lock;
  size_t dirty_items;  // items whose `modified` is not 0
  uint64_t writes;     // morv_fork_write calls so far, failed ones included
};

// Called once per contiguous run of a fork byte range on the device.
using morv_fork_io_operation = morv_err (*)(void* context, uint64_t device_offset,
                                            uint64_t fork_offset, uint64_t length);

struct morv_fork_read_io_context {
  morv_device* device;
  uint8_t* destination;
  uint64_t delivered;  // bytes already placed at `destination`
};

struct morv_fork_write_io_context {
  morv_fork* fork;
  uint32_t device_shift;                // log2 of the device sector size
  uint32_t sector_shift;                // log2 of device sectors per fork sector
  uint64_t device_sectors_per_sector;  // 1 << sector_shift
};

[[nodiscard]] morv_err morv_fork_private_create(morv_device* device, morv_extents* extents,
                                                int partial, uint32_t cnid, uint8_t* fork_data,
                                                uint32_t sector_size,
                                                morv_fork_private** out_private);
// Lists the fork's extents (8-byte descriptors, on-disk order) into a new
// array owned by the caller.
[[nodiscard]] morv_err morv_fork_resolve_extents(morv_extents* extents, int partial, uint32_t cnid,
                                                 const uint8_t* fork_data, uint8_t** out_extents,
                                                 size_t* out_count);

[[nodiscard]] morv_err morv_fork_cache_item_create(morv_fork* fork,
                                                   morv_fork_cache_item** out_item);
void morv_fork_cache_item_destroy(morv_fork_cache_item* item);
// Makes every fork sector touched by the range valid in the cache and takes
// one reference on its item per sector visited.
[[nodiscard]] morv_err morv_fork_read_into_cache(morv_fork* fork, uint64_t offset, uint64_t length);
[[nodiscard]] morv_err morv_fork_do_device_io(morv_fork* fork, uint64_t offset, uint64_t length,
                                              morv_fork_io_operation operation, void* context);
[[nodiscard]] morv_err morv_fork_process_read_io(void* context, uint64_t device_offset,
                                                 uint64_t fork_offset, uint64_t length);
[[nodiscard]] morv_err morv_fork_process_write_io(void* context, uint64_t device_offset,
                                                  uint64_t fork_offset, uint64_t length);
