// SPDX-License-Identifier: MIT
// Block device access: whole sectors read and written at a sector number on an
// already opened descriptor, under an advisory whole-file lock (shared for a
// read-only device, exclusive otherwise) held for the device's lifetime.
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_device_private;

struct morv_device {
  int32_t read_only;
  uint32_t sector_size;
  uint64_t sector_count;  // as given by the creator; never consulted
  morv_device_private* priv;
};

// Takes a blocking flock on `fd` (which stays owned by the caller).
[[nodiscard]] morv_err morv_device_create(int fd, int read_only, uint32_t sector_size,
                                          uint64_t sector_count, morv_device** out_device);
// Releases the lock and frees the device; clears the handle.
void morv_device_destroy(morv_device** device);

// Reads `sector_count` sectors from `first_sector`. If *buffer is non-null the
// data goes there (sector_count * sector_size bytes); otherwise a buffer is
// allocated and, on success only, stored in *buffer for the caller to free.
[[nodiscard]] morv_err morv_device_read_disk_sectors(morv_device* device, uint64_t first_sector,
                                                     uint32_t sector_count, void** buffer);
[[nodiscard]] morv_err morv_device_write_disk_sectors(morv_device* device, uint64_t first_sector,
                                                      uint32_t sector_count, const void* buffer);
// Waits until every write made through the device has reached stable storage.
[[nodiscard]] morv_err morv_device_sync(morv_device* device);
// The size in bytes of what the descriptor holds (a file or a block device),
// found by seeking to its end. Fails when the size cannot be found.
[[nodiscard]] morv_err morv_device_get_size(morv_device* device, uint64_t* out_bytes);
