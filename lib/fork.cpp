// SPDX-License-Identifier: MIT
// Forks: an HFS+ fork as a flat byte range, and its block cache.
//
// On disk a fork is described by an HFSPlusForkData (80 bytes): logicalSize
// (u64, offset 0), clumpSize (u32, 8), totalBlocks (u32, 12) and eight
// HFSPlusExtentDescriptors (offset 16), each startBlock (u32) and blockCount
// (u32). Fork byte b lives in allocation block b / blockSize of the fork,
// found by walking the extents in order; the first descriptor with
// blockCount 0 ends the list, and a list that does not reach totalBlocks
// continues in the extents overflow tree under the key (fork type, file ID,
// first fork block of the record). All extents are resolved once, at create,
// into one array kept in on-disk byte order.
//
// The cache cuts the fork into items of 1 MiB, created on first use and kept
// until the fork is destroyed. Each item has one valid bit and one
// modification bit per fork sector (the fork's I/O unit: the device sector,
// or larger when asked). Invariants:
//   - a sector's bytes in an item are current when its valid or its
//     modification bit is set, and reads fetch exactly the other sectors, one
//     device request chain per sector;
//   - an item's `modified` equals its number of set modification bits, and the
//     fork's `dirty_items` equals the number of items with `modified` != 0;
//   - writes touch only the cache; a flush writes each run of adjacent
//     modified sectors of an item in one device request, then clears them.
// Lock order: items lock, then dirty lock, then one item lock.
#include "fork.hpp"

#include <algorithm>
#include <cstring>

#include "device_unix.hpp"
#include "extents.hpp"
#include "support_unix.hpp"

// The cache's own structures and steps: private to this file.
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
  uint64_t writes;     // changes to the fork's bytes or size so far, failed ones included
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

namespace {
constexpr const char* kLogSource = "fork";

constexpr uint32_t kCacheItemShift = 20;
constexpr size_t kCacheItemSize = size_t{1} << kCacheItemShift;  // 1 MiB, a multiple of any sector
constexpr uint64_t kFillBufferMax = 536870912;                     // 512 MiB
constexpr size_t kFillFallbackSize = 8;
constexpr uint8_t kDataForkType = 0x00;

bool fits_size(uint64_t v) { return static_cast<uint64_t>(static_cast<size_t>(v)) == v; }
bool power_of_two(uint64_t v) { return (v & (v - 1)) == 0; }

uint32_t extent_start(const uint8_t* e) { return load_be32(e + forkdata::kExtentStartBlock); }
uint32_t extent_blocks(const uint8_t* e) { return load_be32(e + forkdata::kExtentBlockCount); }

bool bit_is_set(const uint8_t* bitmap, uint64_t i) { return (bitmap[i >> 3] >> (i & 7)) & 1u; }
void set_bit(uint8_t* bitmap, uint64_t i) { bitmap[i >> 3] |= static_cast<uint8_t>(1u << (i & 7)); }
void clear_bit(uint8_t* bitmap, uint64_t i) {
  bitmap[i >> 3] &= static_cast<uint8_t>(~(1u << (i & 7)));
}

// Bytes of each of an item's two bitmaps for fork sectors of `sector_size`.
size_t bitmap_size_for(size_t item_size, uint32_t sector_size) {
  return ((item_size + sector_size - 1) / sector_size + 7) / 8;
}

morv_fork_cache_item* item_at(const morv_fork_private* priv, uint64_t index) {
  return index < priv->items_length ? priv->items[index] : nullptr;
}

// Clean-up of a lock that nobody holds; a failure is logged by the lock itself.
void drop_lock(morv_rwlock** lock) {
  if (*lock) (void)morv_rwlock_destroy(lock);
}

// ---- Extent resolution ----

// Scans one 8-descriptor record, adding its block counts to *blocks_seen.
// *scanned is the number of non-empty descriptors before the first empty one.
// The count is 64-bit and may never pass totalBlocks: eight counts that wrap
// a 32-bit sum would lead back to the same overflow record for ever.
[[nodiscard]] morv_err scan_extent_record(const uint8_t* record, uint32_t total_blocks,
                                          uint64_t* blocks_seen, size_t* scanned) {
  size_t i = 0;
  for (; i < forkdata::kExtentsPerRecord; ++i) {
    const uint8_t* e = record + i * forkdata::kExtentSize;
    if (extent_blocks(e) != 0) {
      *blocks_seen += extent_blocks(e);
      if (*blocks_seen > total_blocks) {
        MORV_ERROR("Extents reach beyond the fork's %lu blocks (at least %llu).\n",
                   morv_ul(total_blocks), morv_ull(*blocks_seen));
        return MORV_ERR_CORRUPT;
      }
      continue;
    }
    if (extent_start(e) != 0) {
      MORV_ERROR("Found zero-sized extent with non-0 start block.\n");
      return MORV_ERR_CORRUPT;
    }
    if (*blocks_seen != total_blocks) {
      MORV_ERROR("Last extent ends before the end of the fork.\n");
      return MORV_ERR_CORRUPT;
    }
    break;
  }
  *scanned = i;
  return MORV_OK;
}

// Replaces *list by a copy grown by the first `scanned` descriptors of `record`.
[[nodiscard]] morv_err append_extents(morv::buffer<uint8_t>* list, size_t* count,
                                      const uint8_t* record, size_t scanned) {
  const size_t bytes = (*count + scanned) * forkdata::kExtentSize;
  auto* grown = static_cast<uint8_t*>(morv_malloc(bytes));
  if (!grown) {
    MORV_ERROR("Error while allocating %zu bytes of memory for expanded fork_extents array.", bytes);
    return MORV_ERR_NO_MEMORY;
  }
  if (*count) memcpy(grown, list->get(), *count * forkdata::kExtentSize);
  memcpy(grown + *count * forkdata::kExtentSize, record, scanned * forkdata::kExtentSize);
  list->reset(grown);
  *count += scanned;
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_resolve_extents(morv_extents* extents, int partial, uint32_t cnid,
                                   const uint8_t* fork_data, uint8_t** out_extents,
                                   size_t* out_count) {
  const uint32_t total_blocks = load_be32(fork_data + forkdata::kTotalBlocks);
  uint8_t record[forkdata::kExtentRecordSize];
  memcpy(record, fork_data + forkdata::kExtents, sizeof record);
  uint64_t blocks_seen = 0;
  morv::buffer<uint8_t> list;
  size_t count = 0;
  for (;;) {
    size_t scanned = 0;
    if (morv_err err = scan_extent_record(record, total_blocks, &blocks_seen, &scanned)) return err;
    if (morv_err err = append_extents(&list, &count, record, scanned)) return err;
    if (blocks_seen == total_blocks) break;
    if (!extents) {
      if (partial) break;
      MORV_CRITICAL("No morv_extents reference and we are not reading extents partially.\n");
      return MORV_ERR_INTERNAL;
    }
    // Always the data fork's key: the special files have no resource fork.
    // blocks_seen is below totalBlocks here, so it fits the key's 32 bits.
    int found = 0;
    if (morv_err err = morv_extents_get_next_extent_record(extents, kDataForkType, cnid,
                                                           static_cast<uint32_t>(blocks_seen),
                                                           &found, record)) {
      MORV_ERROR("Error while searching for overflow extents record for CNID %lu starting with "
                 "block %lu.\n",
                 morv_ul(cnid), morv_ul(static_cast<uint32_t>(blocks_seen)));
      return err;
    }
    if (!found) {
      MORV_ERROR("No overflow extent found for CNID %lu starting with block %lu.\n", morv_ul(cnid),
                 morv_ul(static_cast<uint32_t>(blocks_seen)));
      return MORV_ERR_CORRUPT;
    }
  }
  *out_count = count;
  *out_extents = list.release();
  return MORV_OK;
}

// ---- Create and destroy ----

morv_err morv_fork_private_create(morv_device* device, morv_extents* extents, int partial,
                                  uint32_t cnid, uint8_t* fork_data, uint32_t sector_size,
                                  morv_fork_private** out_private) {
  const uint64_t logical_size = load_be64(fork_data + forkdata::kLogicalSize);
  const uint64_t items_length = (logical_size + (kCacheItemSize - 1)) / kCacheItemSize;
  const uint64_t items_size = items_length * sizeof(morv_fork_cache_item*);
  if (!fits_size(items_size)) {
    MORV_ERROR("Items array too large for address space.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (!fits_size(items_length)) {
    MORV_ERROR("Overflow in 'items_length': %llu\n", morv_ull(items_length));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (!fits_size(items_size)) {
    MORV_ERROR("Overflow in 'items_size': %llu\n", morv_ull(items_size));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (!extents && !partial) {
    MORV_ERROR("NULL extents overflow file.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv::buffer<morv_fork_private> priv(
      static_cast<morv_fork_private*>(morv_calloc(1, sizeof(morv_fork_private))));
  if (!priv) {
    MORV_ERROR("Error while allocating %llu bytes for morv_fork_private.\n",
               morv_ull(sizeof(morv_fork_private)));
    return MORV_ERR_NO_MEMORY;
  }
  uint8_t* resolved = nullptr;
  size_t extents_count = 0;
  if (morv_err err =
          morv_fork_resolve_extents(extents, partial, cnid, fork_data, &resolved, &extents_count)) {
    MORV_ERROR("Error while resolving fork extents.\n");
    return err;
  }
  morv::buffer<uint8_t> extents_list(resolved);
  morv_rwlock* items_lock = nullptr;
  if (morv_err err = morv_rwlock_create(&items_lock)) {
    MORV_ERROR("Error while creating items_lock.\n");
    return err;
  }
  morv::scope_exit destroy_items_lock([&] { drop_lock(&items_lock); });
  morv::buffer<morv_fork_cache_item*> items(
      static_cast<morv_fork_cache_item**>(morv_malloc(static_cast<size_t>(items_size))));
  if (!items) {
    MORV_ERROR("Error while allocating fork cache item array (%llu bytes).\n", morv_ull(items_size));
    return MORV_ERR_NO_MEMORY;
  }
  morv_rwlock* dirty_lock = nullptr;
  if (morv_err err = morv_rwlock_create(&dirty_lock)) {
    MORV_ERROR("Error while creating dirty_lock.\n");
    return err;
  }
  memset(items.get(), 0, static_cast<size_t>(items_size));
  morv_fork_private* p = priv.get();
  p->device = device;
  p->cnid = cnid;
  p->fork_data = fork_data;
  p->logical_size = logical_size;
  p->extents = extents_list.release();
  p->extents_count = extents_count;
  p->items_lock = items_lock;
  p->items = items.release();
  p->items_length = static_cast<size_t>(items_length);
  p->cache_item_size = kCacheItemSize;
  p->sector_size = sector_size;
  p->dirty_lock = dirty_lock;
  p->dirty_items = 0;
  destroy_items_lock.release();
  *out_private = priv.release();
  return MORV_OK;
}

namespace {

// A fork's logicalSize lies within its blocks, and its blocks within the
// volume's and the device's: nothing is sized from a fork before this holds.
// Set-up holds the volume to its device, but a tree may be opened from a
// header nobody checked.
[[nodiscard]] morv_err check_fork_size(morv_device* device, const uint8_t* volume_header,
                                       uint32_t cnid, const uint8_t* fork_data) {
  const uint32_t block_size = load_be32(volume_header + vh::kBlockSize);
  const uint32_t volume_blocks = load_be32(volume_header + vh::kTotalBlocks);
  const uint64_t logical_size = load_be64(fork_data + forkdata::kLogicalSize);
  const uint32_t total_blocks = load_be32(fork_data + forkdata::kTotalBlocks);
  if (total_blocks > volume_blocks) {
    MORV_ERROR("Fork of CNID %lu has %lu allocation blocks, more than the volume's %lu.\n",
               morv_ul(cnid), morv_ul(total_blocks), morv_ul(volume_blocks));
    return MORV_ERR_CORRUPT;
  }
  uint64_t device_bytes = 0;
  if (morv_device_get_size(device, &device_bytes) == MORV_OK && device_bytes > 0 &&
      uint64_t{total_blocks} * block_size > device_bytes) {
    MORV_ERROR("Fork of CNID %lu has %lu allocation blocks of %lu bytes, more than its device's "
               "%llu bytes.\n",
               morv_ul(cnid), morv_ul(total_blocks), morv_ul(block_size), morv_ull(device_bytes));
    return MORV_ERR_CORRUPT;
  }
  if (logical_size > uint64_t{total_blocks} * block_size) {
    MORV_ERROR("Fork of CNID %lu is %llu bytes long, beyond its %lu allocation blocks of %lu "
               "bytes.\n",
               morv_ul(cnid), morv_ull(logical_size), morv_ul(total_blocks), morv_ul(block_size));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// Every extent lies inside the volume: its end, counted in 64 bits, is at
// most totalBlocks. An extent whose 32-bit end wraps past block 2^32 - 1
// would otherwise name blocks 0, 1, ... (the volume header, the bitmap) to
// whoever frees or writes it.
[[nodiscard]] morv_err check_extents_inside(const uint8_t* list, size_t count, uint32_t cnid,
                                            uint32_t volume_blocks) {
  for (size_t i = 0; i < count; ++i) {
    const uint8_t* e = list + i * forkdata::kExtentSize;
    const uint64_t end = uint64_t{extent_start(e)} + extent_blocks(e);
    if (extent_blocks(e) != 0 && end > volume_blocks) {
      MORV_ERROR("Extent %zu of CNID %lu (blocks %lu to %llu) lies beyond the volume's %lu "
                 "allocation blocks.\n",
                 i, morv_ul(cnid), morv_ul(extent_start(e)), morv_ull(end - 1),
                 morv_ul(volume_blocks));
      return MORV_ERR_CORRUPT;
    }
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_create(morv_device* device, morv_extents* extents, int partial,
                          const uint8_t* volume_header, uint32_t cnid, uint8_t* fork_data,
                          uint32_t min_sector_size, morv_fork** out_fork) {
  if (morv_err err = check_fork_size(device, volume_header, cnid, fork_data)) return err;
  const uint32_t volume_blocks = load_be32(volume_header + vh::kTotalBlocks);
  if (morv_err err = check_extents_inside(fork_data + forkdata::kExtents,
                                          forkdata::kExtentsPerRecord, cnid, volume_blocks))
    return err;
  const uint32_t block_size = load_be32(volume_header + vh::kBlockSize);
  const uint32_t sector_size =
      device->sector_size > min_sector_size ? device->sector_size : min_sector_size;
  morv::buffer<morv_fork> fork(static_cast<morv_fork*>(morv_calloc(1, sizeof(morv_fork))));
  if (!fork) {
    MORV_ERROR("Error while allocating %llu bytes for morv_fork.\n", morv_ull(sizeof(morv_fork)));
    return MORV_ERR_NO_MEMORY;
  }
  morv_fork_private* priv = nullptr;
  if (morv_fork_private_create(device, extents, partial, cnid, fork_data, sector_size, &priv) !=
      MORV_OK) {
    // The inner cause is logged above; callers see one value for "no fork".
    MORV_ERROR("Error while creating morv_fork_private.\n");
    return MORV_ERR_NO_MEMORY;
  }
  fork.get()->logical_size = &priv->logical_size;
  fork.get()->block_size = block_size;
  fork.get()->priv = priv;
  // The overflow records' extents, read only now, meet the same bound.
  if (morv_err err = check_extents_inside(priv->extents, priv->extents_count, cnid, volume_blocks)) {
    morv_fork* doomed = fork.release();
    morv_fork_destroy(&doomed);
    return err;
  }
  *out_fork = fork.release();
  return MORV_OK;
}

void morv_fork_destroy(morv_fork** handle) {
  morv_fork* fork = *handle;
  morv_fork_private* priv = fork->priv;
  for (size_t i = 0; i < priv->items_length; ++i)
    if (priv->items[i]) morv_fork_cache_item_destroy(priv->items[i]);
  drop_lock(&priv->dirty_lock);
  morv_free(priv->items);
  drop_lock(&priv->items_lock);
  morv_free(priv->extents);
  morv_free(priv);
  memset(fork, 0, sizeof(morv_fork));
  morv_free(fork);
  *handle = nullptr;
}

// ---- Cache items ----

morv_err morv_fork_cache_item_create(morv_fork* fork, morv_fork_cache_item** out_item) {
  const morv_fork_private* priv = fork->priv;
  const size_t bitmap_size = bitmap_size_for(priv->cache_item_size, priv->sector_size);
  morv::buffer<morv_fork_cache_item> item(
      static_cast<morv_fork_cache_item*>(morv_calloc(1, sizeof(morv_fork_cache_item))));
  if (!item) {
    MORV_ERROR("Error while allocating %zu bytes of memory for morv_fork_cache_item struct.\n",
               sizeof(morv_fork_cache_item));
    return MORV_ERR_NO_MEMORY;
  }
  morv_rwlock* lock = nullptr;
  if (morv_err err = morv_rwlock_create(&lock)) {
    MORV_ERROR("Error while creating item_lock.\n");
    return err;
  }
  morv::scope_exit destroy_lock([&] { drop_lock(&lock); });
  morv::buffer<uint8_t> data(static_cast<uint8_t*>(morv_malloc(priv->cache_item_size)));
  if (!data) {
    MORV_ERROR("Error while allocating %zu bytes of memory for data buffer.\n",
               priv->cache_item_size);
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<uint8_t> valid;
  if (!valid.allocate(bitmap_size)) {
    MORV_ERROR("Error while allocating %zu bytes of memory for valid data bitmap.\n", bitmap_size);
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<uint8_t> modification;
  if (!modification.allocate(bitmap_size)) {
    MORV_ERROR("Error while allocating %zu bytes of memory for data modification bitmap.\n",
               bitmap_size);
    return MORV_ERR_NO_MEMORY;
  }
  morv_fork_cache_item* i = item.get();
  i->item_lock = lock;
  i->data = data.release();
  i->data_size = priv->cache_item_size;
  i->valid_bitmap = valid.release();
  i->valid_bitmap_size = bitmap_size;
  i->modification_bitmap = modification.release();
  i->modification_bitmap_size = bitmap_size;
  i->references = 0;
  i->modified = 0;
  destroy_lock.release();
  *out_item = item.release();
  return MORV_OK;
}

void morv_fork_cache_item_destroy(morv_fork_cache_item* item) {
  if (item->references != 0)
    MORV_WARNING("Destroying cache item %p with %llu remaining references.\n",
                 static_cast<void*>(item), morv_ull(item->references));
  morv_free(item->modification_bitmap);
  morv_free(item->valid_bitmap);
  morv_free(item->data);
  drop_lock(&item->item_lock);
  morv_free(item);
}

namespace {

// Gets fork sector `n` into the cache (items lock held for writing) and takes
// one reference on its item.
[[nodiscard]] morv_err cache_sector(morv_fork* fork, uint64_t n) {
  morv_fork_private* priv = fork->priv;
  const uint32_t s = priv->sector_size;
  const uint64_t sectors_per_item = priv->cache_item_size / s;
  const uint64_t index = n / sectors_per_item;
  // Callers check their ranges against the logical size, so the index is
  // always below the length; the test guards the slot access all the same.
  if (index >= priv->items_length) {
    MORV_CRITICAL("Item index out of bounds: %llu (expected maximum: %zu)\n", morv_ull(index),
                  priv->items_length);
    return MORV_ERR_INTERNAL;
  }
  if (!priv->items[index]) {
    if (morv_fork_cache_item_create(fork, &priv->items[index]) != MORV_OK) {
      MORV_ERROR("Unable to create cache item %zu.\n", static_cast<size_t>(index));
      return MORV_ERR_NO_MEMORY;
    }
  }
  morv_fork_cache_item* item = priv->items[index];
  ++item->references;
  const uint64_t local = n % sectors_per_item;
  // A modified sector is current in the cache even when it was written whole
  // without being read first: reading it again would lose the write.
  if (bit_is_set(item->valid_bitmap, local) || bit_is_set(item->modification_bitmap, local))
    return MORV_OK;

  const uint64_t sector_offset = n * s;
  uint64_t read_length = s;
  if (priv->logical_size - sector_offset < read_length)
    read_length = priv->logical_size - sector_offset;  // the fork's last, partial sector
  const uint64_t offset_in_item = uint64_t{s} * local;
  if (offset_in_item + read_length > item->data_size) {
    MORV_CRITICAL("Unexpected: Read offset is outside the bounds of the cache item (%llu, maximum "
                  "expected: %zu)!\n",
                  morv_ull(offset_in_item + read_length), item->data_size);
    return MORV_ERR_INTERNAL;
  }
  morv_fork_read_io_context context{priv->device, item->data + offset_in_item, 0};
  if (morv_err err = morv_fork_do_device_io(fork, sector_offset, read_length,
                                            morv_fork_process_read_io, &context)) {
    MORV_ERROR("Error %d while reading block %llu from device offset %llu.\n",
               static_cast<int>(err), morv_ull(n), morv_ull(sector_offset));
    return err;
  }
  // Past the logical size the sector is defined as zeros, so that a flush of
  // a partial last sector never writes stale memory.
  if (read_length < s)
    memset(item->data + offset_in_item + read_length, 0, static_cast<size_t>(s - read_length));
  set_bit(item->valid_bitmap, local);
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_read_into_cache(morv_fork* fork, uint64_t offset, uint64_t length) {
  morv_fork_private* priv = fork->priv;
  const uint32_t s = priv->sector_size;
  const uint64_t first = offset / s;
  const uint64_t end = (offset + length + s - 1) / s;
  MORV_RWLOCK_GUARD(items, priv->items_lock, "Unexpected - Unable to unlock items lock!\n");
  if (morv_err err = items.lock_write()) {
    MORV_ERROR("Unable to lock items lock.\n");
    return err;
  }
  morv_err result = MORV_OK;
  for (uint64_t n = first; n < end && result == MORV_OK; ++n) result = cache_sector(fork, n);
  return items.finish(result);
}

// ---- Extent walk ----

namespace {

// The resolved extents must cover the logical size without exceeding
// totalBlocks.
[[nodiscard]] morv_err check_extent_coverage(const morv_fork_private* priv, uint32_t block_size,
                                             uint64_t logical_size, uint32_t total_blocks) {
  uint64_t blocks = 0;
  for (size_t i = 0; i < priv->extents_count; ++i) {
    const uint8_t* e = priv->extents + i * forkdata::kExtentSize;
    if (extent_start(e) == 0 && extent_blocks(e) == 0) break;
    blocks += extent_blocks(e);
  }
  if (blocks > total_blocks) {
    MORV_ERROR("Inconsistent fork data (more blocks than specified found in extent record).\n");
    return MORV_ERR_CORRUPT;
  }
  if (blocks * block_size < logical_size) {
    MORV_ERROR("Too few blocks for the logical size of the fork.\n");
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_do_device_io(morv_fork* fork, uint64_t offset, uint64_t length,
                                morv_fork_io_operation operation, void* context) {
  const morv_fork_private* priv = fork->priv;
  const uint64_t block_size = fork->block_size;
  const uint64_t logical_size = load_be64(priv->fork_data + forkdata::kLogicalSize);
  const uint32_t total_blocks = load_be32(priv->fork_data + forkdata::kTotalBlocks);
  if (total_blocks == 0) {
    MORV_ERROR("HFSPlus:%s: -- Nothing to process in fork!\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (offset >= logical_size) {
    MORV_ERROR("Invalid parameter 'io_offset': Offset (%llu) is beyond the end of the file.\n",
               morv_ull(offset));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (length > logical_size - offset) {
    MORV_ERROR("Invalid parameter 'io_length': Length (%llu) extends beyond the end of the file.\n",
               morv_ull(length));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = check_extent_coverage(priv, fork->block_size, logical_size, total_blocks))
    return err;

  const uint64_t end = offset + length;
  uint64_t p = 0;  // fork byte position of the current extent's start
  for (size_t i = 0; i < priv->extents_count; ++i) {
    if (p >= end) return MORV_OK;
    const uint8_t* e = priv->extents + i * forkdata::kExtentSize;
    if (extent_start(e) == 0 && extent_blocks(e) == 0) {
      MORV_CRITICAL("Unexpected: Reached the end of the allocation before all bytes have been "
                    "processed.\n");
      return MORV_ERR_CORRUPT;
    }
    const uint64_t extent_end = p + extent_blocks(e) * block_size;
    if (extent_end > offset) {
      const uint64_t run_start = offset > p ? offset : p;
      const uint64_t run_end = extent_end < end ? extent_end : end;
      if (morv_err err = operation(context, extent_start(e) * block_size + (run_start - p),
                                   run_start, run_end - run_start)) {
        MORV_ERROR("Error while processing I/O request.\n");
        return err;
      }
    }
    p = extent_end;
  }
  return MORV_OK;
}

// Reads whole device sectors straight into the destination; a partial first
// or last sector goes through a one-sector buffer.
morv_err morv_fork_process_read_io(void* context, uint64_t device_offset, uint64_t /*fork_offset*/,
                                   uint64_t length) {
  auto* ctx = static_cast<morv_fork_read_io_context*>(context);
  const uint64_t d = ctx->device->sector_size;
  uint64_t first = device_offset / d;
  const uint64_t lead_in = device_offset % d;
  const uint64_t end = device_offset + length;
  const uint64_t end_sector = end / d;
  const uint64_t lead_out = end % d;
  uint64_t whole = end_sector - first;
  if (lead_in != 0) {
    void* sector = nullptr;
    if (morv_err err = morv_device_read_disk_sectors(ctx->device, first, 1, &sector)) {
      MORV_ERROR("Error while reading lead-in sector %llu.\n", morv_ull(first));
      return err;
    }
    morv::buffer<uint8_t> held(static_cast<uint8_t*>(sector));
    const uint64_t take = d - lead_in < length ? d - lead_in : length;
    memcpy(ctx->destination + ctx->delivered, held.get() + lead_in, static_cast<size_t>(take));
    ctx->delivered += take;
    if (end_sector == first) return MORV_OK;  // the run ends inside its first sector
    first += 1;
    whole -= 1;
  }
  if (whole != 0) {
    void* target = ctx->destination + ctx->delivered;
    if (morv_err err = morv_device_read_disk_sectors(ctx->device, first,
                                                     static_cast<uint32_t>(whole), &target)) {
      MORV_ERROR("Error while reading %llu fork sectors starting at sector %llu.\n",
                 morv_ull(whole), morv_ull(first));
      return err;
    }
    ctx->delivered += d * whole;
  }
  if (lead_out != 0) {
    void* sector = nullptr;
    if (morv_err err = morv_device_read_disk_sectors(ctx->device, end_sector, 1, &sector)) {
      MORV_ERROR("Error while reading lead-out sector %llu.\n", morv_ull(end_sector));
      return err;
    }
    morv::buffer<uint8_t> held(static_cast<uint8_t*>(sector));
    // The tail bytes are taken from the end of the sector: the long-standing
    // behaviour of this path, kept as it is. Only a fork whose logical size
    // ends inside a device sector gets here; the special files, sized in whole
    // allocation blocks, never do.
    memcpy(ctx->destination + ctx->delivered, held.get() + (d - lead_out),
           static_cast<size_t>(lead_out));
    ctx->delivered += lead_out;
  }
  return MORV_OK;
}

// ---- Map, unmap, read ----

namespace {

// An item number equal to the length passes: it is what an empty range at the
// logical size produces.
[[nodiscard]] morv_err check_item_numbers(const morv_fork_private* priv, uint64_t first,
                                          uint64_t last) {
  const bool first_bad = first > priv->items_length;
  const bool last_bad = last > priv->items_length;
  if (!first_bad && !last_bad) return MORV_OK;
  if (first_bad && last_bad)
    MORV_CRITICAL("Internal inconsistency: %s%s%s cache item number%s out of bounds!\n", "First",
                  " and ", "last", "s");
  else
    MORV_CRITICAL("Internal inconsistency: %s%s%s cache item number%s out of bounds!\n",
                  first_bad ? "First" : "Last", "", "", "");
  return MORV_ERR_INTERNAL;
}

bool outside(const morv_fork_private* priv, uint64_t offset, uint64_t length) {
  return offset > priv->logical_size || priv->logical_size - offset < length;
}

}  // namespace

morv_err morv_fork_map(morv_fork* fork, uint64_t offset, uint8_t** out, size_t length,
                       size_t* mapped_length) {
  if (mapped_length) *mapped_length = 0;
  morv_fork_private* priv = fork->priv;
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  if (outside(priv, offset, length)) {
    MORV_CRITICAL("Attempted to read outside allocated fork size! Offset: %llu, Length: %llu, fork "
                  "data size: %llu\n",
                  morv_ull(offset), morv_ull(length), morv_ull(priv->logical_size));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = check_item_numbers(priv, first, last)) return err;
  if (first != last) {
    MORV_ERROR("Cannot map region crossing cache item borders (offset: %llu, length: %zu, "
               "first_cache_item: %llu, last_cache_item: %llu).\n",
               morv_ull(offset), length, morv_ull(first), morv_ull(last));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = morv_fork_read_into_cache(fork, offset, length)) {
    MORV_ERROR("Error while reading missing disk blocks into cache.\n");
    return err;
  }
  MORV_RWLOCK_GUARD(items, priv->items_lock, "Unexpected - Error while unlocking items lock!\n");
  if (morv_err err = items.lock_read()) {
    MORV_ERROR("Error while read-locking items lock.\n");
    return err;
  }
  morv_fork_cache_item* item = item_at(priv, first);
  if (!item) {
    MORV_CRITICAL("Unexpected - Requested cache item %llu does not exist.\n", morv_ull(first));
    return MORV_ERR_INTERNAL;
  }
  uint8_t* pointer = item->data + offset % priv->cache_item_size;
  if (morv_err err = items.finish(MORV_OK)) return err;
  *out = pointer;
  if (mapped_length) *mapped_length = length;
  return MORV_OK;
}

namespace {

// Drops one reference of a mapping (items lock held for reading).
[[nodiscard]] morv_err release_mapping(const morv_fork_private* priv, morv_fork_cache_item* item,
                                       uint64_t index, uint64_t offset, uint8_t** pointer) {
  MORV_RWLOCK_GUARD(item_guard, item->item_lock, "Unexpected - Error while unlocking item %p!\n",
                    item);
  if (morv_err err = item_guard.lock_write()) {
    MORV_ERROR("Error while write-locking item %p.\n", static_cast<void*>(item));
    return err;
  }
  uint8_t* expected = item->data + offset % priv->cache_item_size;
  if (*pointer != expected) {
    MORV_ERROR("Unexpected pointer when unmapping cache item. Expected %p, got %p.\n",
               static_cast<void*>(expected), static_cast<void*>(*pointer));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (item->references == 0) {
    MORV_ERROR("Cache item %llu has no active references and cannot be unmapped.\n",
               morv_ull(index));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  --item->references;  // one per mapping, whatever its length
  *pointer = nullptr;
  return item_guard.finish(MORV_OK);
}

}  // namespace

morv_err morv_fork_unmap(morv_fork* fork, uint64_t offset, uint8_t** pointer, size_t length) {
  morv_fork_private* priv = fork->priv;
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  if (outside(priv, offset, length)) {
    MORV_CRITICAL("Attempted to unmap region outside allocated fork size! Offset: %llu, Length: "
                  "%llu, fork data size: %llu\n",
                  morv_ull(offset), morv_ull(length), morv_ull(priv->logical_size));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = check_item_numbers(priv, first, last)) return err;
  if (first != last) {
    MORV_ERROR("Cannot unmap region crossing cache item borders (offset: %llu, length: %zu, "
               "first_cache_item: %llu, last_cache_item: %llu).\n",
               morv_ull(offset), length, morv_ull(first), morv_ull(last));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  MORV_RWLOCK_GUARD(items, priv->items_lock, "Unexpected - Error while unlocking items lock!\n");
  if (morv_err err = items.lock_read()) {
    MORV_ERROR("Error while read-locking items lock.\n");
    return err;
  }
  morv_fork_cache_item* item = item_at(priv, first);
  if (!item) {
    MORV_ERROR("Cache item %llu does not exist and cannot be unmapped.\n", morv_ull(first));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  return items.finish(release_mapping(priv, item, first, offset, pointer));
}

namespace {

// Copies out of one item under its lock and drops the reference that
// morv_fork_read_into_cache took for it.
[[nodiscard]] morv_err copy_from_item(morv_fork_cache_item* item, size_t start, uint8_t* out,
                                      size_t count) {
  MORV_RWLOCK_GUARD(item_guard, item->item_lock,
                    "Unexpected - Error while unlocking cur_item's item lock.\n");
  if (morv_err err = item_guard.lock_write()) {
    MORV_ERROR("Error while write-locking cur_item's item lock.\n");
    return err;
  }
  memcpy(out, item->data + start, count);
  if (item->references == 0) {
    MORV_CRITICAL("Unexpected - Cache item that we just copied from has no references (should have "
                  "at least one)!\n");
    // The failure path's unlock message names the items lock; kept as it stands.
    item_guard.set_unlock_message("Unexpected - Error while unlocking items lock.\n");
    return MORV_ERR_INTERNAL;
  }
  --item->references;
  return item_guard.finish(MORV_OK);
}

// Copies [offset, offset + length) out of the cache (items lock held).
[[nodiscard]] morv_err copy_from_items(const morv_fork_private* priv, uint64_t offset,
                                       uint8_t* buffer, size_t length) {
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  size_t remaining = length;
  size_t start = static_cast<size_t>(offset % priv->cache_item_size);
  for (uint64_t i = first; i <= last; ++i) {
    morv_fork_cache_item* item = item_at(priv, i);
    if (!item) {
      MORV_CRITICAL("Unexpected - Requested cache item %zu does not exist.\n",
                    static_cast<size_t>(i));
      return MORV_ERR_INTERNAL;
    }
    const size_t count =
        remaining < item->data_size - start ? remaining : item->data_size - start;
    if (morv_err err = copy_from_item(item, start, buffer + (length - remaining), count))
      return err;
    remaining -= count;
    start = 0;
  }
  if (remaining != 0) {
    MORV_CRITICAL("Unexpected - %zu bytes still remaining to be read!\n", remaining);
    return MORV_ERR_INTERNAL;
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_read(morv_fork* fork, uint64_t offset, void* buffer, size_t length,
                        size_t* bytes_read) {
  if (bytes_read) *bytes_read = 0;
  morv_fork_private* priv = fork->priv;
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  if (outside(priv, offset, length)) {
    MORV_CRITICAL("Attempted to read outside allocated fork size! Offset: %llu, Length: %llu, fork "
                  "data size: %llu\n",
                  morv_ull(offset), morv_ull(length), morv_ull(priv->logical_size));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = check_item_numbers(priv, first, last)) return err;
  if (morv_err err = morv_fork_read_into_cache(fork, offset, length)) {
    MORV_ERROR("Error while reading missing disk blocks into cache.\n");
    return err;
  }
  MORV_RWLOCK_GUARD(items, priv->items_lock, "Unexpected - Error while unlocking items lock!\n");
  if (morv_err err = items.lock_read()) {
    MORV_ERROR("Error while read-locking items lock.\n");
    return err;
  }
  const morv_err result =
      items.finish(copy_from_items(priv, offset, static_cast<uint8_t*>(buffer), length));
  if (result == MORV_OK && bytes_read) *bytes_read = length;
  return result;
}

// ---- Write and fill ----

namespace {

// Copies into the cache (items and dirty locks held for writing), creating
// items as needed and marking the touched sectors modified.
[[nodiscard]] morv_err copy_into_items(morv_fork* fork, uint64_t offset, const uint8_t* buffer,
                                       size_t length) {
  morv_fork_private* priv = fork->priv;
  const uint32_t s = priv->sector_size;
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  size_t remaining = length;
  size_t start = static_cast<size_t>(offset % priv->cache_item_size);
  for (uint64_t i = first; i <= last; ++i) {
    if (!priv->items[i] && morv_fork_cache_item_create(fork, &priv->items[i]) != MORV_OK) {
      MORV_ERROR("Unable to create cache item %zu.\n", static_cast<size_t>(i));
      return MORV_ERR_NO_MEMORY;
    }
    morv_fork_cache_item* item = priv->items[i];
    const size_t count =
        remaining < item->data_size - start ? remaining : item->data_size - start;
    memcpy(item->data + start, buffer + (length - remaining), count);
    const size_t was_modified = item->modified;
    for (size_t k = start / s; k < (start + count + s - 1) / s; ++k) {
      if (bit_is_set(item->modification_bitmap, k)) continue;
      set_bit(item->modification_bitmap, k);
      ++item->modified;
    }
    if (was_modified == 0 && item->modified != 0) ++priv->dirty_items;
    remaining -= count;
    start = 0;
  }
  return MORV_OK;
}

[[nodiscard]] morv_err drop_preread_reference(morv_fork_cache_item* item) {
  if (item->references == 0) {
    MORV_CRITICAL("Unexpected - Cache item that we just copied to has no references (should have "
                  "at least one)!\n");
    return MORV_ERR_INTERNAL;
  }
  --item->references;
  return MORV_OK;
}

// The locked part of a write: copy, then give back the pre-read references.
[[nodiscard]] morv_err write_locked(morv_fork* fork, uint64_t offset, const uint8_t* buffer,
                                    size_t length, bool head_read, bool tail_read) {
  morv_fork_private* priv = fork->priv;
  if (morv_err err = copy_into_items(fork, offset, buffer, length)) return err;
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  if (head_read)
    if (morv_err err = drop_preread_reference(priv->items[first])) return err;
  if (tail_read)
    if (morv_err err = drop_preread_reference(priv->items[last])) return err;
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_write(morv_fork* fork, uint64_t offset, const void* buffer, size_t length,
                         size_t* bytes_written) {
  if (bytes_written) *bytes_written = 0;
  if (length == 0) return MORV_OK;  // nothing to copy, read or mark, wherever it is
  morv_fork_private* priv = fork->priv;
  ++priv->writes;  // counted before anything can fail: a failed write may have changed bytes
  const uint32_t s = priv->sector_size;
  const uint64_t first = offset / priv->cache_item_size;
  const uint64_t last = (offset + length - 1) / priv->cache_item_size;
  if (outside(priv, offset, length)) {
    MORV_CRITICAL("Attempted to write outside allocated fork size! Offset: %llu, Length: %llu, "
                  "fork data size: %llu\n",
                  morv_ull(offset), morv_ull(length), morv_ull(priv->logical_size));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (morv_err err = check_item_numbers(priv, first, last)) return err;
  // Only a partly written sector needs its old bytes: the flush writes whole sectors.
  const bool head_read = offset % s != 0;
  const bool tail_read = (offset + length) % s != 0;
  if (head_read)
    if (morv_err err = morv_fork_read_into_cache(fork, offset / s * s, 1)) {
      MORV_ERROR("Error while reading first block in write range into cache.\n");
      return err;
    }
  if (tail_read)
    if (morv_err err = morv_fork_read_into_cache(fork, (offset + length) / s * s, 1)) {
      MORV_ERROR("Error while reading last block in write range into cache.\n");
      return err;
    }
  MORV_RWLOCK_GUARD(items, priv->items_lock, "Unexpected - Error while unlocking items lock!\n");
  if (morv_err err = items.lock_write()) {
    MORV_ERROR("Error while read-locking items lock.\n");
    return err;
  }
  MORV_RWLOCK_GUARD(dirty, priv->dirty_lock, "Unexpected - Error while unlocking dirty lock!\n");
  if (morv_err err = dirty.lock_write()) {
    MORV_ERROR("Error while write-locking dirty lock.\n");
    return err;
  }
  morv_err result =
      write_locked(fork, offset, static_cast<const uint8_t*>(buffer), length, head_read, tail_read);
  result = items.finish(dirty.finish(result));
  if (result == MORV_OK && bytes_written) *bytes_written = length;
  return result;
}

namespace {

// A fill buffer of up to *size bytes, shrinking by powers of two while memory
// is short; null (and the caller's 8-byte buffer) when even 8 bytes fail.
uint8_t* allocate_fill_buffer(size_t* size) {
  size_t want = *size;
  for (;;) {
    if (auto* p = static_cast<uint8_t*>(morv_malloc(want))) {
      *size = want;
      return p;
    }
    if (want <= kFillFallbackSize) return nullptr;
    if (!power_of_two(want)) {
      size_t rounded = 1;
      while (rounded < want) rounded <<= 1;
      want = rounded;
    }
    want >>= 1;
  }
}

}  // namespace

uint64_t morv_fork_write_count(const morv_fork* fork) { return fork->priv->writes; }

morv_err morv_fork_fill(morv_fork* fork, uint64_t offset, uint64_t length, uint8_t value,
                        uint64_t* bytes_filled) {
  if (bytes_filled) *bytes_filled = 0;
  const morv_fork_private* priv = fork->priv;
  size_t buffer_size = static_cast<size_t>(length < kFillBufferMax ? length : kFillBufferMax);
  if (outside(priv, offset, length)) {
    MORV_CRITICAL("Attempted to fill outside allocated fork size! Offset: %llu, Length: %llu, fork "
                  "data size: %llu\n",
                  morv_ull(offset), morv_ull(length), morv_ull(priv->logical_size));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint8_t fallback[kFillFallbackSize];
  morv::buffer<uint8_t> heap;
  uint8_t* fill = fallback;
  if (buffer_size > kFillFallbackSize) heap.reset(allocate_fill_buffer(&buffer_size));
  if (heap)
    fill = heap.get();
  else
    buffer_size = kFillFallbackSize;
  memset(fill, value, buffer_size);
  uint64_t filled = 0;
  while (filled < length) {
    const size_t chunk =
        static_cast<size_t>(length - filled < buffer_size ? length - filled : buffer_size);
    size_t written = 0;
    if (morv_err err = morv_fork_write(fork, offset + filled, fill, chunk, &written)) {
      MORV_ERROR("Error while filling range [%llu-%llu] (%zu bytes) with byte 0x%X.\n",
                 morv_ull(offset + filled), morv_ull(offset + filled + chunk), chunk,
                 static_cast<unsigned>(value));
      return err;
    }
    filled += written;
  }
  if (bytes_filled) *bytes_filled = filled;
  return MORV_OK;
}

// ---- Flush ----

namespace {

// Index of the lowest set bit of `v` below `bits`, or `bits` when none is.
uint64_t lowest_set_bit(uint64_t v, uint64_t bits) {
  uint64_t i = 0;
  while (i < bits && ((v >> i) & 1u) == 0) ++i;
  return i;
}

// Shifts for turning byte positions into device and fork sector numbers.
[[nodiscard]] morv_err flush_geometry(uint32_t device_sector, uint32_t fork_sector,
                                      morv_fork_write_io_context* context) {
  if (!power_of_two(device_sector)) {
    MORV_ERROR("Sector size is not a power of two: %lu\n", morv_ul(device_sector));
    return MORV_ERR_INTERNAL;
  }
  if (!power_of_two(fork_sector)) {
    MORV_ERROR("Modification bitmap block size is not a power of two: %llu\n",
               morv_ull(fork_sector));
    return MORV_ERR_INTERNAL;
  }
  if (fork_sector < device_sector) {
    MORV_ERROR("Modification bitmap block size (%llu) is not a multiple of sector size (%lu).\n",
               morv_ull(fork_sector), morv_ul(device_sector));
    return MORV_ERR_INTERNAL;
  }
  const uint64_t u32_bits = sizeof(uint32_t) * 8;
  const uint64_t device_shift = lowest_set_bit(device_sector, u32_bits);
  if (device_shift == u32_bits) {
    MORV_ERROR("Failed to translate sector size to bitshift quantity. This should never happen. "
               "i=%llu (sizeof(u32) * 8)=%llu SectorSize=%llu\n",
               morv_ull(device_shift), morv_ull(u32_bits), morv_ull(device_sector));
    return MORV_ERR_INTERNAL;
  }
  const uint64_t size_bits = sizeof(size_t) * 8;
  const uint64_t fork_shift = lowest_set_bit(fork_sector, size_bits);
  if (fork_shift == size_bits) {
    MORV_ERROR("Failed to translate modification bitmap block size to bitshift quantity. This "
               "should never happen. i=%llu (sizeof(size_t) * 8)=%llu "
               "modificationBitmapBlockSize=%llu\n",
               morv_ull(fork_shift), morv_ull(size_bits), morv_ull(fork_sector));
    return MORV_ERR_INTERNAL;
  }
  context->device_shift = static_cast<uint32_t>(device_shift);
  context->sector_shift = static_cast<uint32_t>(fork_shift - device_shift);
  context->device_sectors_per_sector = uint64_t{1} << context->sector_shift;
  return MORV_OK;
}

}  // namespace

morv_err morv_fork_flush_internal(morv_fork* fork, uint64_t offset, uint64_t length) {
  morv_fork_private* priv = fork->priv;
  if (priv->dirty_items == 0) return MORV_OK;
  morv_fork_write_io_context context{};
  context.fork = fork;
  if (morv_err err = flush_geometry(priv->device->sector_size, priv->sector_size, &context))
    return err;
  MORV_RWLOCK_GUARD(dirty, priv->dirty_lock, "Unexpected - Error while unlocking dirty lock!\n");
  if (morv_err err = dirty.lock_write()) {
    MORV_ERROR("Error while write-locking dirty lock.\n");
    return err;
  }
  morv_err result =
      morv_fork_do_device_io(fork, offset, length, morv_fork_process_write_io, &context);
  if (result != MORV_OK) MORV_ERROR("Error while writing fork to disk.\n");
  return dirty.finish(result);
}

namespace {

// One piece of a device run that lies inside one cache item: fork bytes
// [begin, end) of item `index`, and where the run starts in the fork and on
// the device.
struct flush_span {
  uint64_t index;
  uint64_t begin;
  uint64_t end;
  uint64_t run_fork_offset;
  uint64_t run_device_offset;
};

// Writes fork sectors [first, stop) of the item, which are all modified, in
// one device request, then clears their bits. A fork sector larger than an
// allocation block may straddle two extents, and so two device runs: each run
// writes its own part of the sector, and the bit is cleared by the run that
// holds the sector's end (runs are flushed in ascending fork order).
[[nodiscard]] morv_err write_sector_run(const morv_fork_write_io_context* ctx,
                                        morv_fork_cache_item* item, const flush_span& span,
                                        uint64_t first, uint64_t stop) {
  const morv_fork_private* priv = ctx->fork->priv;
  const uint32_t fork_shift = ctx->device_shift + ctx->sector_shift;
  const uint64_t item_first = span.index << (kCacheItemShift - fork_shift);
  const uint64_t begin = std::max(first << fork_shift, span.begin);
  const uint64_t end = std::min(stop << fork_shift, span.end);
  const uint64_t device_sector = (span.run_device_offset + (begin - span.run_fork_offset)) >> ctx->device_shift;
  const uint64_t count = (end - begin + (uint64_t{1} << ctx->device_shift) - 1) >> ctx->device_shift;
  if (count > UINT32_MAX) {
    MORV_CRITICAL("Overflow in number of sectors to write: %llu\n", morv_ull(count));
    return MORV_ERR_INTERNAL;
  }
  const uint8_t* data = item->data + (begin - (span.index << kCacheItemShift));
  if (morv_err err = morv_device_write_disk_sectors(priv->device, device_sector,
                                                    static_cast<uint32_t>(count), data)) {
    MORV_ERROR("Error while writing disk sectors for item %llu block %zu to sector %llu.\n",
               morv_ull(span.index), static_cast<size_t>(first - item_first),
               morv_ull(device_sector));
    return err;
  }
  for (uint64_t k = first; k < stop; ++k) {
    if (((k + 1) << fork_shift) > span.end && span.end < priv->logical_size) continue;
    clear_bit(item->modification_bitmap, k - item_first);
    --item->modified;
  }
  return MORV_OK;
}

// Writes every run of modified sectors of the span (item lock held).
[[nodiscard]] morv_err write_modified_runs(const morv_fork_write_io_context* ctx,
                                           morv_fork_cache_item* item, const flush_span& span) {
  const uint32_t fork_shift = ctx->device_shift + ctx->sector_shift;
  const uint64_t item_first = span.index << (kCacheItemShift - fork_shift);
  const uint64_t end = (span.end + (uint64_t{1} << fork_shift) - 1) >> fork_shift;
  uint64_t k = span.begin >> fork_shift;
  while (k < end) {
    const uint64_t local = k - item_first;
    if ((local & 7) == 0 && item->modification_bitmap[local >> 3] == 0) {
      k += 8;  // a clean byte of the bitmap
      continue;
    }
    if (!bit_is_set(item->modification_bitmap, local)) {
      ++k;
      continue;
    }
    uint64_t stop = k + 1;
    while (stop < end && bit_is_set(item->modification_bitmap, stop - item_first)) ++stop;
    if (morv_err err = write_sector_run(ctx, item, span, k, stop)) return err;
    k = stop;
  }
  return MORV_OK;
}

[[nodiscard]] morv_err flush_item(const morv_fork_write_io_context* ctx,
                                  morv_fork_cache_item* item, const flush_span& span) {
  morv_fork_private* priv = ctx->fork->priv;
  const size_t expected = bitmap_size_for(priv->cache_item_size, priv->sector_size);
  if (item->valid_bitmap_size != expected) {
    MORV_CRITICAL("Unexpected valid bitmap size: %zu (expected %zu).\n", item->valid_bitmap_size,
                  expected);
    return MORV_ERR_INTERNAL;
  }
  if (item->modification_bitmap_size != expected) {
    MORV_CRITICAL("Unexpected modification bitmap size: %zu (expected %zu).\n",
                  item->modification_bitmap_size, expected);
    return MORV_ERR_INTERNAL;
  }
  MORV_RWLOCK_GUARD(item_guard, item->item_lock,
                    "Unexpected - Error while unlocking item's item lock.\n");
  if (morv_err err = item_guard.lock_write()) {
    MORV_ERROR("Error while write-locking item's item lock.\n");
    return err;
  }
  const morv_err result = item_guard.finish(write_modified_runs(ctx, item, span));
  // The dirty lock, held by the flush, covers the count.
  if (result == MORV_OK && item->modified == 0) --priv->dirty_items;
  return result;
}

}  // namespace

morv_err morv_fork_process_write_io(void* context, uint64_t device_offset, uint64_t fork_offset,
                                    uint64_t length) {
  const auto* ctx = static_cast<const morv_fork_write_io_context*>(context);
  morv_fork_private* priv = ctx->fork->priv;
  const uint64_t logical_size = priv->logical_size;
  if (logical_size != 0 && fork_offset >= logical_size) return MORV_OK;
  if (length > logical_size - fork_offset) length = logical_size - fork_offset;
  const uint64_t end = fork_offset + length;
  // Extents are whole allocation blocks, so every run starts and ends on
  // device sectors (or at the logical size); fork sectors larger than a block
  // may be cut by a run's ends.
  const uint64_t device_mask = (uint64_t{1} << ctx->device_shift) - 1;
  if ((fork_offset & device_mask) != 0 || (device_offset & device_mask) != 0 ||
      ((end & device_mask) != 0 && end != logical_size)) {
    MORV_CRITICAL("Unexpected - Run at fork offset %llu (device offset %llu, %llu bytes) is not "
                  "aligned to device sectors.\n",
                  morv_ull(fork_offset), morv_ull(device_offset), morv_ull(length));
    return MORV_ERR_INTERNAL;
  }
  uint64_t handled = 0;
  uint64_t pos = fork_offset;
  while (pos < end) {
    const uint64_t index = pos >> kCacheItemShift;
    if (index >= priv->items_length) {
      MORV_CRITICAL("Item index (%zu) out of bounds (maximum value: %zu).\n",
                    static_cast<size_t>(index), priv->items_length);
      return MORV_ERR_INTERNAL;
    }
    const uint64_t item_end = (index + 1) << kCacheItemShift;
    const uint64_t stop = item_end < end ? item_end : end;
    morv_fork_cache_item* item = priv->items[index];
    if (item && item->modified != 0) {
      const flush_span span{index, pos, stop, fork_offset, device_offset};
      if (morv_err err = flush_item(ctx, item, span)) return err;
    }
    handled += stop - pos;
    pos = stop;
  }
  if (handled < length)
    MORV_CRITICAL("No error, but still only wrote %llu bytes our of expected %llu bytes.\n",
                  morv_ull(handled), morv_ull(length));
  return MORV_OK;
}

morv_err morv_fork_flush(morv_fork* fork) {
  morv_fork_private* priv = fork->priv;
  MORV_RWLOCK_GUARD(items, priv->items_lock, "Unexpected - Error while unlocking items lock!\n");
  if (morv_err err = items.lock_read()) {
    MORV_ERROR("Error while read-locking items lock.\n");
    return err;
  }
  const morv_err result = morv_fork_flush_internal(fork, 0, priv->logical_size);
  if (result == MORV_OK && priv->dirty_items != 0) {
    MORV_WARNING("Dirty items is non-0 (%zu) after successful full flush.\n", priv->dirty_items);
    priv->dirty_items = 0;
  }
  return items.finish(result);
}

// ---- Resizing ----
//
// The cache's side of a growth or a shrink: the allocation module decides
// where the blocks go and changes the fork data; the fork follows it here.
// Arrays are allocated before anything changes, so that installing them
// cannot fail.

namespace {

size_t extents_in_use(const uint8_t* fork_data) {
  size_t n = 0;
  while (n < forkdata::kExtentsPerRecord &&
         extent_blocks(fork_data + forkdata::kExtents + n * forkdata::kExtentSize) != 0)
    ++n;
  return n;
}

// The resolved extents follow the fork data: used only for forks that lie
// wholly in their fork data, whose resolved list is those extents.
void resolve_in_place(morv_fork_private* priv, const uint8_t* fork_data) {
  const size_t n = extents_in_use(fork_data);
  memcpy(priv->extents, fork_data + forkdata::kExtents, n * forkdata::kExtentSize);
  priv->extents_count = n;
}

// Forgets the cache beyond `logical_size`: items wholly past it are freed,
// and in the item that holds it the sectors wholly past it lose their valid
// and modification bits (the bytes past it in its last sector read as
// zeros, as a freshly read last sector does). The items lock, held for
// writing, keeps every writer and flusher (and so the dirty count) out.
void drop_cache_beyond(morv_fork_private* priv, uint64_t logical_size) {
  const uint64_t keep_items = (logical_size + kCacheItemSize - 1) / kCacheItemSize;
  for (size_t i = static_cast<size_t>(keep_items); i < priv->items_length; ++i) {
    morv_fork_cache_item* item = priv->items[i];
    if (!item) continue;
    if (item->modified != 0) --priv->dirty_items;
    morv_fork_cache_item_destroy(item);
    priv->items[i] = nullptr;
  }
  const uint64_t in_item = logical_size % kCacheItemSize;
  morv_fork_cache_item* item = in_item ? item_at(priv, logical_size / kCacheItemSize) : nullptr;
  if (!item) return;
  const uint32_t s = priv->sector_size;
  const uint64_t first_past = (in_item + s - 1) / s;
  if (in_item % s) memset(item->data + in_item, 0, static_cast<size_t>(first_past * s - in_item));
  const size_t was_modified = item->modified;
  for (uint64_t k = first_past; k < priv->cache_item_size / s; ++k) {
    clear_bit(item->valid_bitmap, k);
    if (!bit_is_set(item->modification_bitmap, k)) continue;
    clear_bit(item->modification_bitmap, k);
    --item->modified;
  }
  if (was_modified != 0 && item->modified == 0) --priv->dirty_items;
}

}  // namespace

uint32_t morv_fork_cnid(const morv_fork* fork) { return fork->priv->cnid; }
uint8_t* morv_fork_data(const morv_fork* fork) { return fork->priv->fork_data; }
size_t morv_fork_cache_slots(const morv_fork* fork) { return fork->priv->items_length; }
uint32_t morv_fork_sector_size(const morv_fork* fork) { return fork->priv->sector_size; }
size_t morv_fork_extent_count(const morv_fork* fork) { return fork->priv->extents_count; }
size_t morv_fork_modified_sectors(const morv_fork* fork, size_t slot) {
  const morv_fork_cache_item* item = item_at(fork->priv, slot);
  return item ? item->modified : 0;
}
uint64_t morv_fork_references(const morv_fork* fork, size_t slot) {
  const morv_fork_cache_item* item = item_at(fork->priv, slot);
  return item ? item->references : 0;
}
size_t morv_fork_dirty_items(const morv_fork* fork) { return fork->priv->dirty_items; }

morv_err morv_fork_lock_resize(morv_fork* fork) {
  if (morv_err err = morv_rwlock_lock_write(fork->priv->items_lock)) {
    MORV_ERROR("Error while locking items lock.\n");
    return err;
  }
  return MORV_OK;
}

morv_err morv_fork_unlock_resize(morv_fork* fork, morv_err result) {
  if (morv_err err = morv_rwlock_unlock(fork->priv->items_lock)) {
    MORV_CRITICAL("Unexpected - Error while unlocking items lock!\n");
    if (result == MORV_OK) result = err;
  }
  return result;
}

morv_err morv_fork_prepare_resize(const morv_fork* fork, uint64_t logical_size,
                                  morv_fork_resize* out) {
  (void)fork;
  const uint64_t length = (logical_size + kCacheItemSize - 1) / kCacheItemSize;
  if (!fits_size(length * sizeof(morv_fork_cache_item*))) {
    MORV_CRITICAL("size_t overflow in new_items_size (%llu).\n",
                  morv_ull(length * sizeof(morv_fork_cache_item*)));
    return MORV_ERR_INTERNAL;
  }
  morv::buffer<morv_fork_cache_item*> items;
  morv::buffer<uint8_t> extents;
  if (!items.allocate(static_cast<size_t>(length)) ||
      !extents.allocate(forkdata::kExtentRecordSize)) {
    MORV_ERROR("Error while allocating new items array.\n");
    return MORV_ERR_NO_MEMORY;
  }
  out->items = items.release();
  out->items_length = static_cast<size_t>(length);
  out->extents = extents.release();
  out->logical_size = logical_size;
  return MORV_OK;
}

void morv_fork_cancel_resize(morv_fork_resize* resize) {
  morv_free(resize->items);
  morv_free(resize->extents);
  *resize = morv_fork_resize{};
}

void morv_fork_commit_resize(morv_fork* fork, morv_fork_resize* resize, const uint8_t* fork_data) {
  morv_fork_private* priv = fork->priv;
  if (resize->logical_size < priv->logical_size) drop_cache_beyond(priv, resize->logical_size);
  const size_t kept = std::min(priv->items_length, resize->items_length);
  if (kept) memcpy(resize->items, priv->items, kept * sizeof(morv_fork_cache_item*));
  morv_free(priv->items);
  priv->items = resize->items;
  priv->items_length = resize->items_length;
  morv_free(priv->extents);
  priv->extents = resize->extents;
  resolve_in_place(priv, fork_data);
  priv->logical_size = resize->logical_size;
  ++priv->writes;
  *resize = morv_fork_resize{};
}

void morv_fork_restore_size(morv_fork* fork, uint64_t logical_size, size_t slots,
                            const uint8_t* fork_data) {
  morv_fork_private* priv = fork->priv;
  drop_cache_beyond(priv, logical_size);
  // A larger items array stays; only its length goes back.
  priv->items_length = slots;
  priv->logical_size = logical_size;
  ++priv->writes;
  resolve_in_place(priv, fork_data);
}
