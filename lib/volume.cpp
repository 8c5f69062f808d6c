// Volume header access and the volume object.
//
// The header sits at byte 1024 whatever the device's sector size S: it is read
// as the whole sectors that cover its 512 bytes (sector 2 alone for S = 512,
// sector 0 for S = 2048 or 4096) and written back as the same sectors, so a
// flush rewrites the bytes that share those sectors exactly as they were read.
#include "volume.hpp"

#include "device_unix.hpp"
#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "volume";
}

struct morv_volume_private {
  uint8_t* header_buffer;
  size_t header_buffer_length;
  uint8_t* header;
};

morv_err morv_volume_read_header(morv_device* device, uint8_t** buffer, size_t* buffer_length,
                                 uint8_t** header) {
  const uint32_t sector_size = device->sector_size;
  const uint64_t first_sector = vh::kOffsetOnDisk / sector_size;
  const uint32_t offset_in_sector = static_cast<uint32_t>(vh::kOffsetOnDisk % sector_size);
  const uint32_t sector_count = (sector_size + offset_in_sector + 511) / sector_size;

  void* sectors = nullptr;
  if (morv_err err = morv_device_read_disk_sectors(device, first_sector, sector_count, &sectors)) {
    MORV_ERROR("Error while reading volume header disk sector%s.\n", sector_count < 2 ? "" : "s");
    return err;
  }
  *buffer = static_cast<uint8_t*>(sectors);
  *buffer_length = size_t{sector_count} * sector_size;
  *header = *buffer + offset_in_sector;
  return MORV_OK;
}

morv_err morv_volume_check_signature(const uint8_t* header, const char** kind_text) {
  const uint16_t signature = load_be16(header + vh::kSignature);
  if (signature == vh::kSignatureHfsPlus) {
    *kind_text = "+";
  } else if (signature == vh::kSignatureHfsx) {
    *kind_text = "X";
  } else {
    // The value is printed in decimal behind "0x"; the message is kept so.
    MORV_ERROR("Invalid signature word for HFS+ volume: 0x%hu\n", signature);
    return MORV_ERR_GENERIC;
  }
  return MORV_OK;
}

morv_err morv_volume_write_header(morv_device* device, const uint8_t* buffer,
                                  size_t buffer_length) {
  const uint32_t sector_size = device->sector_size;
  const uint32_t sector_count = static_cast<uint32_t>(buffer_length / sector_size);
  if (morv_err err = morv_device_write_disk_sectors(device, vh::kOffsetOnDisk / sector_size,
                                                    sector_count, buffer)) {
    MORV_ERROR("Error while flushing volume header.\n");
    return err;
  }
  return MORV_OK;
}

morv_err morv_volume_flush(morv_volume* volume) {
  return morv_volume_write_header(volume->device, volume->priv->header_buffer,
                                  volume->priv->header_buffer_length);
}

namespace {
void add_to_field(morv_volume* volume, size_t offset, uint32_t delta) {
  uint8_t* field = volume->header + offset;
  store_be32(field, load_be32(field) + delta);
}
}  // namespace

void morv_volume_decrement_file_count(morv_volume* volume, uint32_t value) {
  add_to_field(volume, vh::kFileCount, 0u - value);
}
void morv_volume_decrement_folder_count(morv_volume* volume, uint32_t value) {
  add_to_field(volume, vh::kFolderCount, 0u - value);
}
void morv_volume_increment_free_blocks(morv_volume* volume, uint32_t value) {
  add_to_field(volume, vh::kFreeBlocks, value);
}
void morv_volume_decrement_free_blocks(morv_volume* volume, uint32_t value) {
  add_to_field(volume, vh::kFreeBlocks, 0u - value);
}
void morv_volume_set_next_allocation(morv_volume* volume, uint32_t value) {
  store_be32(volume->header + vh::kNextAllocation, value);
}
void morv_volume_increment_next_catalog_id(morv_volume* volume) {
  add_to_field(volume, vh::kNextCatalogId, 1);
}
