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
[[nodiscard]] morv_err morv_fork_fill(morv_fork* fork, uint64_t offset, uint64_t length,
                                      uint8_t value, uint64_t* bytes_filled);
// Writes every modified sector back, each run of adjacent ones in one request.
[[nodiscard]] morv_err morv_fork_flush(morv_fork* fork);
[[nodiscard]] morv_err morv_fork_flush_internal(morv_fork* fork, uint64_t offset, uint64_t length);
