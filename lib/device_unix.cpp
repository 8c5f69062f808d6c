// SPDX-License-Identifier: MIT
// Block device access over a POSIX descriptor. All transfers go through the
// seam (support_unix) so that tests can count and fail them.
#include "device_unix.hpp"

#include <cerrno>
#include <cstring>
#include <sys/file.h>
#include <unistd.h>

#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "device_unix";
}

struct morv_device_private {
  int fd;
};

morv_err morv_device_create(int fd, int read_only, uint32_t sector_size, uint64_t sector_count,
                            morv_device** out_device) {
  morv::buffer<morv_device> device(static_cast<morv_device*>(morv_calloc(1, sizeof(morv_device))));
  morv::buffer<morv_device_private> priv(
      static_cast<morv_device_private*>(morv_calloc(1, sizeof(morv_device_private))));
  if (!device || !priv) return MORV_ERR_NO_MEMORY;

  // Blocking: a second process waits here until the first releases the volume.
  if (flock(fd, read_only ? LOCK_SH : LOCK_EX) != 0) {
    MORV_ERROR("Error while locking device for %s access: %s (%d).\n",
               read_only ? "shared" : "exclusive", strerror(errno), errno);
    return MORV_ERR_GENERIC;
  }
  priv.get()->fd = fd;
  device.get()->read_only = read_only;
  device.get()->sector_size = sector_size;
  device.get()->sector_count = sector_count;
  device.get()->priv = priv.release();
  *out_device = device.release();
  return MORV_OK;
}

void morv_device_destroy(morv_device** device) {
  if (flock((*device)->priv->fd, LOCK_UN) != 0)
    MORV_WARNING("Error while unlocking device on destroy: %s (%d) Ignoring...\n", strerror(errno),
                 errno);
  morv_free((*device)->priv);
  memset(*device, 0, sizeof(morv_device));
  morv_free(*device);
  *device = nullptr;
}

namespace {

// Byte offset and length of a sector run, checked against what pread64 and
// pwrite64 can address: a negative file offset, or a length that does not
// fit in 32 bits, is refused.
[[nodiscard]] morv_err transfer_extent(const morv_device* device, uint64_t first_sector,
                                       uint32_t sector_count, const char* direction,
                                       uint64_t* offset, uint64_t* length) {
  *offset = uint64_t{device->sector_size} * first_sector;
  if (static_cast<int64_t>(*offset) < 0) {
    MORV_ERROR(
        "Invalid parameter: %s offset is beyond the number of sectors addressable by system APIs "
        "(sector %llu => offset %llu).\n",
        direction, morv_ull(first_sector), morv_ull(*offset));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  *length = uint64_t{device->sector_size} * sector_count;
  if ((*length >> 32) != 0) {
    MORV_ERROR("Invalid parameter: Resulting buffer would be larger than addressable space (%llu).\n",
               morv_ull(*length));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_device_read_disk_sectors(morv_device* device, uint64_t first_sector,
                                       uint32_t sector_count, void** buffer) {
  uint64_t offset = 0;
  uint64_t length = 0;
  if (morv_err err = transfer_extent(device, first_sector, sector_count, "Read", &offset, &length))
    return err;

  const bool self_allocated = *buffer == nullptr;
  morv::buffer<uint8_t> owned;
  void* target = *buffer;
  if (self_allocated) {
    owned.reset(static_cast<uint8_t*>(morv_malloc(static_cast<size_t>(length))));
    if (!owned) {
      MORV_ERROR("Error while allocating read buffer of %llu bytes.\n", morv_ull(length));
      return MORV_ERR_NO_MEMORY;
    }
    target = owned.get();
  }
  const ssize_t n = morv_seam_pread(device->priv->fd, target, static_cast<size_t>(length), offset);
  if (n < 0) {
    const int saved = errno;
    if (n != -1) MORV_WARNING("Unexpected return value from '%s': %zd\n", "pread", n);
    MORV_ERROR("Error while reading %llu bytes from device offset %llu into %s buffer %p: %s (%d)\n",
               morv_ull(length), morv_ull(offset), self_allocated ? "self-allocated" : "caller-provided",
               target, strerror(saved), saved);
    return MORV_ERR_IO;
  }
  if (static_cast<uint64_t>(n) != length) {
    MORV_ERROR("Partial read into buffer: %zd/%llu bytes read\n", n, morv_ull(length));
    return MORV_ERR_IO;
  }
  if (self_allocated) *buffer = owned.release();
  return MORV_OK;
}

morv_err morv_device_write_disk_sectors(morv_device* device, uint64_t first_sector,
                                        uint32_t sector_count, const void* buffer) {
  uint64_t offset = 0;
  uint64_t length = 0;
  if (morv_err err = transfer_extent(device, first_sector, sector_count, "Write", &offset, &length))
    return err;

  const ssize_t n = morv_seam_pwrite(device->priv->fd, buffer, static_cast<size_t>(length), offset);
  if (n < 0) {
    const int saved = errno;
    if (n != -1) MORV_WARNING("Unexpected return value from '%s': %zd\n", "pwrite", n);
    MORV_ERROR("Error while writing %llu bytes to device offset %llu from buffer %p: %s (%d)\n",
               morv_ull(length), morv_ull(offset), buffer, strerror(saved), saved);
    return MORV_ERR_IO;
  }
  if (static_cast<uint64_t>(n) != length) {
    MORV_ERROR("Partial write of buffer contents: %zd/%llu bytes written\n", n, morv_ull(length));
    return MORV_ERR_IO;
  }
  return MORV_OK;
}

morv_err morv_device_sync(morv_device* device) {
  if (morv_seam_fsync(device->priv->fd) != 0) {
    const int saved = errno;
    MORV_ERROR("Error while syncing device: %s (%d)\n", strerror(saved), saved);
    return MORV_ERR_IO;
  }
  return MORV_OK;
}

morv_err morv_device_get_size(morv_device* device, uint64_t* out_bytes) {
  const off64_t end = lseek64(device->priv->fd, 0, SEEK_END);
  if (end < 0) return MORV_ERR_IO;
  *out_bytes = static_cast<uint64_t>(end);
  return MORV_OK;
}
