// SPDX-License-Identifier: MIT
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
// morv_fork_fill) and every resize, so that a client keeping its own copies
// of fork bytes can tell whether anyone changed them since it last looked.
uint64_t morv_fork_write_count(const morv_fork* fork);
[[nodiscard]] morv_err morv_fork_fill(morv_fork* fork, uint64_t offset, uint64_t length,
                                      uint8_t value, uint64_t* bytes_filled);
// Writes every modified sector back, each run of adjacent ones in one request.
[[nodiscard]] morv_err morv_fork_flush(morv_fork* fork);
[[nodiscard]] morv_err morv_fork_flush_internal(morv_fork* fork, uint64_t offset, uint64_t length);

// ---- Resizing (the cache's side of a growth or shrink; the allocation
// module decides where blocks go and changes the fork data) ----

struct morv_fork_cache_item;

// The file that owns the fork, and its fork data (on-disk order, by
// reference: normally inside the in-memory volume header).
uint32_t morv_fork_cnid(const morv_fork* fork);
uint8_t* morv_fork_data(const morv_fork* fork);
// Cache slots (one per 1 MiB of the logical size), and the slots holding
// writes not yet flushed.
size_t morv_fork_cache_slots(const morv_fork* fork);
// The fork's I/O unit in bytes, and the number of its resolved extents.
uint32_t morv_fork_sector_size(const morv_fork* fork);
size_t morv_fork_extent_count(const morv_fork* fork);
// Sectors of cache slot `slot` modified and not yet written (0 for a slot
// not yet in use).
size_t morv_fork_modified_sectors(const morv_fork* fork, size_t slot);
// References that reads and mappings hold on cache slot `slot`.
uint64_t morv_fork_references(const morv_fork* fork, size_t slot);
size_t morv_fork_dirty_items(const morv_fork* fork);

// A resize holds the fork's items lock for writing from start to end: no
// read, write or flush of the fork runs meanwhile.
[[nodiscard]] morv_err morv_fork_lock_resize(morv_fork* fork);
// Releases the lock; an unlock failure becomes the result only after success.
[[nodiscard]] morv_err morv_fork_unlock_resize(morv_fork* fork, morv_err result);

// The arrays of a fork of `logical_size` bytes, allocated before anything
// changes so that installing them cannot fail.
struct morv_fork_resize {
  morv_fork_cache_item** items;
  size_t items_length;
  uint8_t* extents;  // room for the eight extents of a fork data
  uint64_t logical_size;
};
[[nodiscard]] morv_err morv_fork_prepare_resize(const morv_fork* fork, uint64_t logical_size,
                                                morv_fork_resize* out);
void morv_fork_cancel_resize(morv_fork_resize* resize);
// Installs a prepared resize: the cache past the new end is dropped (nothing
// reaches the device), and the extents become those of `fork_data`, which
// must hold the whole fork in its eight extents.
void morv_fork_commit_resize(morv_fork* fork, morv_fork_resize* resize, const uint8_t* fork_data);
// Takes a committed growth back without allocating: the cache past
// `logical_size` is dropped, `slots` slots stay in use, and the extents
// become those of `fork_data`.
void morv_fork_restore_size(morv_fork* fork, uint64_t logical_size, size_t slots,
                            const uint8_t* fork_data);

// ---- Set-up steps, named for their tests ----

struct morv_fork_private;

[[nodiscard]] morv_err morv_fork_private_create(morv_device* device, morv_extents* extents,
                                                int partial, uint32_t cnid, uint8_t* fork_data,
                                                uint32_t sector_size,
                                                morv_fork_private** out_private);
// Lists the fork's extents (8-byte descriptors, on-disk order) into a new
// array owned by the caller.
[[nodiscard]] morv_err morv_fork_resolve_extents(morv_extents* extents, int partial, uint32_t cnid,
                                                 const uint8_t* fork_data, uint8_t** out_extents,
                                                 size_t* out_count);
