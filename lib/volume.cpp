// SPDX-License-Identifier: MIT
// Volume header access and the volume object.
//
// The header sits at byte 1024 whatever the device's sector size S: it is read
// as the whole sectors that cover its 512 bytes (sector 2 alone for S = 512,
// sector 0 for S = 2048 or 4096) and written back as the same sectors, so a
// flush rewrites the bytes that share those sectors exactly as they were read.
//
// The alternate volume header, 1024 bytes before the end of the volume
// (totalBlocks x blockSize), repeats where the special files live. Once a
// special file's fork data changes, the next flush also writes the five
// special-file fork data records into the alternate copy, so that a checker
// comparing the two finds them in step.
#include "volume.hpp"

#include <cstring>
#include <iterator>

#include "bitmap.hpp"
#include "btree.hpp"
#include "catalog.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "volume";
// Allocation blocks are powers of two from one sector up to one fork cache
// item, which must hold whole blocks.
constexpr uint32_t kMinBlockSize = 512;
constexpr uint32_t kMaxBlockSize = 1048576;
}

struct morv_volume_private {
  morv_rwlock* label_lock;  // guards the cached label only
  uint8_t* header_buffer;
  size_t header_buffer_length;
  uint8_t* header;
  uint16_t label_length;
  uint8_t label[2 * 256];  // big-endian units, as in the root folder's key
  // The special files' fork data as read, or as last written to the
  // alternate header: the alternate is stale exactly when the header's
  // differ from these, so a change that is put back leaves it alone.
  uint8_t written_forks[5 * forkdata::kSize];
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

namespace {

constexpr uint64_t kAlternateFromEnd = 1024;
// The header fields that the alternate copy keeps in step: the fork data of
// the special files.
constexpr size_t kSpecialForks[] = {vh::kAllocationFile, vh::kExtentsFile, vh::kCatalogFile,
                                    vh::kAttributesFile, vh::kStartupFile};

// Copies the special files' fork data into the alternate header; writes its
// sectors only when that changes them.
[[nodiscard]] morv_err write_alternate_header(morv_volume* volume) {
  morv_device* device = volume->device;
  const uint8_t* header = volume->header;
  const uint64_t volume_bytes =
      uint64_t{load_be32(header + vh::kTotalBlocks)} * load_be32(header + vh::kBlockSize);
  if (volume_bytes < vh::kOffsetOnDisk + vh::kSize + kAlternateFromEnd) {
    MORV_ERROR("Volume of %llu bytes has no room for an alternate volume header.\n",
               morv_ull(volume_bytes));
    return MORV_ERR_CORRUPT;
  }
  const uint64_t offset = volume_bytes - kAlternateFromEnd;
  const uint32_t s = device->sector_size;
  const uint32_t in_sector = static_cast<uint32_t>(offset % s);
  const uint32_t count = static_cast<uint32_t>((in_sector + vh::kSize + s - 1) / s);
  void* sectors = nullptr;
  if (morv_err err = morv_device_read_disk_sectors(device, offset / s, count, &sectors)) {
    MORV_ERROR("Error while reading alternate volume header.\n");
    return err;
  }
  morv::buffer<uint8_t> held(static_cast<uint8_t*>(sectors));
  uint8_t* alternate = held.get() + in_sector;
  bool changed = false;
  for (size_t field : kSpecialForks) {
    if (memcmp(alternate + field, header + field, forkdata::kSize) == 0) continue;
    memcpy(alternate + field, header + field, forkdata::kSize);
    changed = true;
  }
  if (!changed) return MORV_OK;
  if (morv_err err = morv_device_write_disk_sectors(device, offset / s, count, held.get())) {
    MORV_ERROR("Error while writing alternate volume header.\n");
    return err;
  }
  return MORV_OK;
}

void copy_special_forks(uint8_t* to, const uint8_t* header) {
  for (size_t i = 0; i < std::size(kSpecialForks); ++i)
    memcpy(to + i * forkdata::kSize, header + kSpecialForks[i], forkdata::kSize);
}

bool special_forks_changed(const uint8_t* header, const uint8_t* written) {
  for (size_t i = 0; i < std::size(kSpecialForks); ++i)
    if (memcmp(written + i * forkdata::kSize, header + kSpecialForks[i], forkdata::kSize) != 0)
      return true;
  return false;
}

}  // namespace

morv_err morv_volume_flush(morv_volume* volume) {
  morv_volume_private* priv = volume->priv;
  if (morv_err err = morv_volume_write_header(volume->device, priv->header_buffer,
                                              priv->header_buffer_length))
    return err;
  if (!special_forks_changed(volume->header, priv->written_forks)) return MORV_OK;
  if (morv_err err = write_alternate_header(volume)) {
    MORV_ERROR("Error while flushing volume header.\n");
    return err;
  }
  copy_special_forks(priv->written_forks, volume->header);
  return MORV_OK;
}

morv_err morv_volume_flush_all(morv_volume* volume) {
  if (volume->bitmap)
    if (morv_err err = morv_bitmap_flush(volume->bitmap)) return err;
  if (morv_err err = morv_extents_flush(volume->extents)) return err;
  if (morv_err err = morv_catalog_flush(volume->catalog)) return err;
  return morv_volume_flush(volume);
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

// ---- Set-up and teardown ----

namespace {

// What set-up hands to create: the objects it opened and the private part.
struct volume_parts {
  morv_bitmap* bitmap = nullptr;
  morv_extents* extents = nullptr;
  morv_catalog* catalog = nullptr;
  morv_btree* attributes = nullptr;
  morv_volume_private* priv = nullptr;
};

// Finds the root folder record through its thread. On success `root` holds
// an exact match with a locator.
morv_err find_root_folder(morv_catalog* catalog, morv_catalog_search_result* root,
                          const char* lookup_message, const char* missing_message) {
  if (morv_err err = morv_catalog_search_by_cnid(catalog, kRootFolderCnid, 1, root)) {
    morv_log(kLogSource, __LINE__, "morv_volume_setup", "ERROR", "%s", lookup_message);
    return err;
  }
  if (!root->locator) {
    MORV_CRITICAL("Unexpected: morv_catalog_search_by_cnid returned NULL locator but no error.\n");
    return MORV_ERR_INTERNAL;
  }
  if (!root->exact_match) {
    morv_log(kLogSource, __LINE__, "morv_volume_setup", "ERROR", "%s", missing_message);
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// The volume must fit the sizes the forks are checked against: a sane block
// size, and no more blocks than the device holds (when its size can be
// found), so that no fork can claim more than the device.
[[nodiscard]] morv_err check_volume_size(morv_device* device, const uint8_t* header) {
  const uint32_t block_size = load_be32(header + vh::kBlockSize);
  const uint32_t total_blocks = load_be32(header + vh::kTotalBlocks);
  if (block_size < kMinBlockSize || block_size > kMaxBlockSize || (block_size & (block_size - 1))) {
    MORV_ERROR("Allocation block size %lu is not a power of two from %lu to %lu.\n",
               morv_ul(block_size), morv_ul(kMinBlockSize), morv_ul(kMaxBlockSize));
    return MORV_ERR_CORRUPT;
  }
  // A size that does not even cover the header just read is no size at all
  // (some devices report 0): the check is skipped then.
  uint64_t device_bytes = 0;
  if (morv_device_get_size(device, &device_bytes) != MORV_OK ||
      device_bytes < vh::kOffsetOnDisk + vh::kSize)
    return MORV_OK;
  if (uint64_t{total_blocks} * block_size > device_bytes) {
    MORV_ERROR("Volume of %lu allocation blocks of %lu bytes does not fit on its device of %llu "
               "bytes.\n",
               morv_ul(total_blocks), morv_ul(block_size), morv_ull(device_bytes));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// The root folder's name from the key of its record, checked against the key.
[[nodiscard]] morv_err read_root_name(const morv_catalog_search_result* root,
                                      uint16_t* length, const uint8_t** name) {
  const morv_btree_record_locator* record = root->locator->btree_locator;
  if (morv_err err = morv_catalog_key_name_length(record->key, record->key_size, length)) {
    MORV_ERROR("Error while reading the name of the root directory.\n");
    return err;
  }
  *name = record->key + catalog::kKeyName;
  return MORV_OK;
}

}  // namespace

morv_err morv_volume_setup(morv_device* device, uint32_t skip_allocation_file, volume_parts* out) {
  volume_parts parts;
  uint8_t* buffer = nullptr;
  morv_rwlock* label_lock = nullptr;
  morv_catalog_search_result root;
  morv_catalog_search_result_init(&root);
  morv::scope_exit cleanup([&] {
    if (label_lock && morv_rwlock_destroy(&label_lock))
      MORV_WARNING("Error while destroying volume label lock on cleanup. Ignoring...\n");
    morv_catalog_search_result_release(&root);
    if (parts.bitmap) morv_bitmap_destroy(&parts.bitmap);
    if (parts.attributes) morv_btree_destroy(&parts.attributes);
    if (parts.catalog) morv_catalog_destroy(&parts.catalog);
    if (parts.extents) morv_extents_destroy(&parts.extents);
    morv_free(buffer);
    morv_free(parts.priv);
  });

  parts.priv = static_cast<morv_volume_private*>(morv_calloc(1, sizeof(morv_volume_private)));
  if (!parts.priv) {
    MORV_ERROR("Error while allocating memory for morv_volume_private.\n");
    return MORV_ERR_NO_MEMORY;
  }
  size_t buffer_length = 0;
  uint8_t* header = nullptr;
  if (morv_err err = morv_volume_read_header(device, &buffer, &buffer_length, &header)) return err;
  const char* kind = nullptr;
  if (morv_err err = morv_volume_check_signature(header, &kind)) return err;
  if (morv_err err = check_volume_size(device, header)) return err;
  if (morv_err err = morv_extents_create(device, header, &parts.extents)) {
    MORV_ERROR("Error while loading extents overflow file from HFS%s volume.\n", kind);
    return err;
  }
  if (morv_err err = morv_catalog_create(device, parts.extents, header, &parts.catalog)) {
    MORV_ERROR("Error while loading catalog file.\n");
    return err;
  }
  if (!skip_allocation_file) {
    if (morv_err err = morv_bitmap_create(header, device, parts.extents, &parts.bitmap)) {
      MORV_ERROR("Unable to load allocation file.\n");
      return err;
    }
  }
  if (morv_err err = find_root_folder(parts.catalog, &root, "Error while looking up root directory.\n",
                                      "Root directory not found!\n"))
    return err;
  if (morv_err err = morv_rwlock_create(&label_lock)) {
    MORV_ERROR("Error while creating volume lock.\n");
    return err;
  }
  uint16_t label_length = 0;
  const uint8_t* label = nullptr;
  if (morv_err err = read_root_name(&root, &label_length, &label)) return err;
  if (label_length > catalog::kMaxNameLength) {
    // No newline: the next message continues this line.
    MORV_ERROR("Invalid volume label length: %hu", label_length);
    return MORV_ERR_CORRUPT;
  }
  morv_volume_private* priv = parts.priv;
  memset(priv, 0, sizeof(*priv));
  priv->header_buffer = buffer;
  priv->header_buffer_length = buffer_length;
  priv->header = header;
  copy_special_forks(priv->written_forks, header);
  priv->label_lock = label_lock;
  priv->label_length = label_length;
  memcpy(priv->label, label, 2 * size_t{label_length});
  morv_catalog_search_result_release(&root);
  cleanup.release();
  *out = parts;
  return MORV_OK;
}

morv_err morv_volume_create(morv_device* device, uint32_t skip_allocation_file, morv_volume** out) {
  auto* volume = static_cast<morv_volume*>(morv_calloc(1, sizeof(morv_volume)));
  if (!volume) {
    MORV_ERROR("Error while allocating memory for morv_volume.\n");
    return MORV_ERR_NO_MEMORY;
  }
  volume_parts parts;
  if (morv_err err = morv_volume_setup(device, skip_allocation_file, &parts)) {
    MORV_ERROR("Error while setting up HFS volume.\n");
    morv_free(volume);
    return err;
  }
  volume->device = device;
  volume->header = parts.priv->header;
  volume->label_length = &parts.priv->label_length;
  volume->label = parts.priv->label;
  volume->bitmap = parts.bitmap;
  volume->extents = parts.extents;
  volume->catalog = parts.catalog;
  volume->attributes = parts.attributes;
  volume->priv = parts.priv;
  *out = volume;
  return MORV_OK;
}

void morv_volume_destroy(morv_volume** volume_pointer) {
  morv_volume* volume = *volume_pointer;
  morv_volume_private* priv = volume->priv;
  if (morv_err err = morv_rwlock_destroy(&priv->label_lock))
    MORV_CRITICAL("Error %llu while destroying volume label lock.\n", morv_ull(err));
  if (volume->bitmap) morv_bitmap_destroy(&volume->bitmap);
  if (volume->attributes) morv_btree_destroy(&volume->attributes);
  morv_catalog_destroy(&volume->catalog);
  morv_extents_destroy(&volume->extents);
  morv_free(priv->header_buffer);
  morv_free(priv);
  memset(volume, 0, sizeof(*volume));
  morv_free(volume);
  *volume_pointer = nullptr;
}

// ---- Label change ----

morv_err morv_volume_set_label(morv_volume* volume, const uint16_t* label, size_t count) {
  if (count > catalog::kMaxNameLength) {
    MORV_ERROR("Label length (%zu) too large.\n", count);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (count == 0 || !label) {
    MORV_ERROR("Label length (0) too small: a volume name holds at least one character.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv_catalog_search_result root;
  morv_catalog_search_result_init(&root);
  morv_err err = morv_catalog_search_by_cnid(volume->catalog, kRootFolderCnid, 1, &root);
  bool locked = false;
  do {
    if (err) {
      MORV_ERROR("Error while looking up catalog record of root directory.\n");
      break;
    }
    if (!root.locator) {
      MORV_CRITICAL("Unexpected: morv_catalog_search_by_cnid returned NULL locator but no error.\n");
      err = MORV_ERR_INTERNAL;
      break;
    }
    if (!root.exact_match) {
      MORV_ERROR("Could not find catalog record of root directory.\n");
      err = MORV_ERR_CORRUPT;
      break;
    }
    // The root folder keeps its parent (CNID 1, passed in on-disk order).
    uint8_t parent_be[4];
    store_be32(parent_be, kRootParentCnid);
    uint32_t parent;
    memcpy(&parent, parent_be, 4);
    if ((err = morv_catalog_rename_record(volume->catalog, &root.locator, parent, label, count))) {
      MORV_ERROR("Error while renaming record.\n");
      break;
    }
    // The lock guards only the cached copy, not the catalog.
    if ((err = morv_rwlock_lock_write(volume->priv->label_lock))) {
      MORV_ERROR("Error while acquiring exclusive volume lock.\n");
      break;
    }
    locked = true;
    memcpy(volume->priv->label, label, 2 * count);
    volume->priv->label_length = static_cast<uint16_t>(count);
  } while (false);

  if (root.locator) {
    if (!err) MORV_WARNING("'loc' non-NULL (%p) on successful return.\n", static_cast<void*>(root.locator));
    morv_catalog_search_result_release(&root);
  }
  if (locked) {
    if (morv_err unlock = morv_rwlock_unlock(volume->priv->label_lock)) {
      MORV_CRITICAL("Error while unlocking volume lock.\n");
      if (!err) err = unlock;
    }
  }
  return err;
}

void morv_volume_update_fork_data(morv_volume* volume, uint32_t cnid, const uint8_t* fork_data) {
  size_t offset = 0;
  switch (cnid) {
    case kExtentsFileCnid: offset = vh::kExtentsFile; break;
    case kCatalogFileCnid: offset = vh::kCatalogFile; break;
    case kAllocationFileCnid: offset = vh::kAllocationFile; break;
    case kStartupFileCnid: offset = vh::kStartupFile; break;
    case kAttributesFileCnid: offset = vh::kAttributesFile; break;
    default:
      MORV_CRITICAL("Unexpected catalog node ID for volume header file: %lu", morv_ul(cnid));
      return;
  }
  memcpy(volume->header + offset, fork_data, forkdata::kSize);
}

// ---- Whether the volume may be changed ----
//
// The attribute bits of the volume header and, for a journaled volume,
// whether its journal still holds transactions (layouts in volume.hpp).
//
// Every byte range read here comes from the volume and is checked against the
// volume's extent (totalBlocks x blockSize, in 64-bit arithmetic) before it
// is read; a range that does not fit makes the journal "damaged", which a
// writer must treat like a journal it cannot check.

namespace {

constexpr uint32_t kAttributeUnmounted = 1u << 8;
constexpr uint32_t kAttributeInconsistent = 1u << 11;
constexpr uint32_t kAttributeJournaled = 1u << 13;
constexpr uint32_t kAttributeSoftwareLock = 1u << 15;

// JournalInfoBlock, big-endian.
namespace jib {
constexpr size_t kFlags = 0;
constexpr size_t kOffset = 36;
constexpr size_t kReadLength = 44;  // through the offset field
constexpr uint32_t kInFileSystem = 0x1;
constexpr uint32_t kNeedsInit = 0x4;
}  // namespace jib

// journal_header, in the byte order its endian field shows.
namespace jhdr {
constexpr size_t kMagic = 0;
constexpr size_t kEndian = 4;
constexpr size_t kStart = 8;
constexpr size_t kEnd = 16;
constexpr size_t kReadLength = 24;  // through the end field
constexpr uint32_t kMagicValue = 0x4A4E4C78;  // "JNLx"
constexpr uint32_t kEndianValue = 0x12345678;
}  // namespace jhdr

uint32_t load_le32(const uint8_t* p) {
  return (uint32_t{p[3]} << 24) | (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
}
uint64_t load_le64(const uint8_t* p) { return (uint64_t{load_le32(p + 4)} << 32) | load_le32(p); }

// Reads `length` bytes at byte `offset` of the volume, which must lie inside
// its first `volume_bytes`. *in_range is false (and nothing is read) when
// they do not; otherwise *data points at the bytes inside *sectors.
[[nodiscard]] morv_err read_volume_bytes(morv_device* device, uint64_t volume_bytes,
                                         uint64_t offset, uint32_t length,
                                         morv::buffer<uint8_t>* sectors, const uint8_t** data,
                                         bool* in_range) {
  *in_range = offset <= volume_bytes && length <= volume_bytes - offset;
  if (!*in_range) return MORV_OK;
  const uint32_t sector_size = device->sector_size;
  const uint32_t in_sector = static_cast<uint32_t>(offset % sector_size);
  const uint32_t count = (in_sector + length + sector_size - 1) / sector_size;
  void* buffer = nullptr;
  if (morv_err err = morv_device_read_disk_sectors(device, offset / sector_size, count, &buffer))
    return err;
  sectors->reset(static_cast<uint8_t*>(buffer));
  *data = sectors->get() + in_sector;
  return MORV_OK;
}

// Decides from a journal header whether the journal holds transactions.
morv_volume_state journal_header_state(const uint8_t* header) {
  const bool big = load_be32(header + jhdr::kEndian) == jhdr::kEndianValue;
  if (!big && load_le32(header + jhdr::kEndian) != jhdr::kEndianValue)
    return MORV_VOLUME_JOURNAL_DAMAGED;
  const auto u32 = [big](const uint8_t* p) { return big ? load_be32(p) : load_le32(p); };
  const auto u64 = [big](const uint8_t* p) { return big ? load_be64(p) : load_le64(p); };
  if (u32(header + jhdr::kMagic) != jhdr::kMagicValue) return MORV_VOLUME_JOURNAL_DAMAGED;
  return u64(header + jhdr::kStart) != u64(header + jhdr::kEnd) ? MORV_VOLUME_JOURNAL_DIRTY
                                                                : MORV_VOLUME_WRITABLE;
}

// The journal's state: follows journalInfoBlock to the info block and, when
// the journal is initialised and in this file system, to its header.
[[nodiscard]] morv_err journal_state(morv_device* device, const uint8_t* header,
                                     morv_volume_state* out_state) {
  const uint64_t block_size = load_be32(header + vh::kBlockSize);
  const uint64_t volume_bytes = block_size * load_be32(header + vh::kTotalBlocks);
  const uint64_t info_offset = block_size * load_be32(header + vh::kJournalInfoBlock);
  // The info block cannot share the boot blocks and the volume header.
  if (info_offset < vh::kOffsetOnDisk + vh::kSize) {
    *out_state = MORV_VOLUME_JOURNAL_DAMAGED;
    return MORV_OK;
  }
  morv::buffer<uint8_t> info_sectors;
  const uint8_t* info = nullptr;
  bool in_range = false;
  if (morv_err err = read_volume_bytes(device, volume_bytes, info_offset, jib::kReadLength,
                                       &info_sectors, &info, &in_range)) {
    MORV_ERROR("Error while reading the journal info block.\n");
    return err;
  }
  if (!in_range) {
    *out_state = MORV_VOLUME_JOURNAL_DAMAGED;
    return MORV_OK;
  }
  const uint32_t flags = load_be32(info + jib::kFlags);
  if (flags & jib::kNeedsInit) {
    *out_state = MORV_VOLUME_WRITABLE;  // the next mount initialises it: nothing to replay
    return MORV_OK;
  }
  if (!(flags & jib::kInFileSystem)) {
    *out_state = MORV_VOLUME_JOURNAL_ELSEWHERE;
    return MORV_OK;
  }
  morv::buffer<uint8_t> header_sectors;
  const uint8_t* journal_header = nullptr;
  if (morv_err err = read_volume_bytes(device, volume_bytes, load_be64(info + jib::kOffset),
                                       jhdr::kReadLength, &header_sectors, &journal_header,
                                       &in_range)) {
    MORV_ERROR("Error while reading the journal header.\n");
    return err;
  }
  *out_state = in_range ? journal_header_state(journal_header) : MORV_VOLUME_JOURNAL_DAMAGED;
  return MORV_OK;
}

}  // namespace

morv_err morv_volume_check_state(const morv_volume* volume, morv_volume_state* out_state) {
  const uint32_t attributes = load_be32(volume->header + vh::kAttributes);
  morv_volume_state state = MORV_VOLUME_WRITABLE;
  if (attributes & kAttributeSoftwareLock) {
    state = MORV_VOLUME_SOFTWARE_LOCKED;
  } else if (attributes & kAttributeJournaled) {
    if (morv_err err = journal_state(volume->device, volume->header, &state)) return err;
  }
  if (state == MORV_VOLUME_WRITABLE && (attributes & kAttributeInconsistent))
    state = MORV_VOLUME_INCONSISTENT;
  if (state == MORV_VOLUME_WRITABLE && !(attributes & kAttributeUnmounted))
    state = MORV_VOLUME_NOT_UNMOUNTED;
  *out_state = state;
  return MORV_OK;
}
