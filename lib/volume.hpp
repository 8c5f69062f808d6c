// The volume: the in-memory HFS+ volume header and the objects opened over it.
//
// HFSPlusVolumeHeader is the 512-byte record at byte 1024 of the volume (the
// layout is in morv.hpp, namespace vh). The volume keeps one copy of the
// whole device sectors that hold it for its lifetime; every header field is
// read and updated in that copy, in on-disk byte order, and reaches the disk
// only through morv_volume_flush. The alternate header near the end of the
// volume is written only when a special file's extents have changed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "morv.hpp"

struct morv_device;
struct morv_bitmap;
struct morv_extents;
struct morv_catalog;
struct morv_btree;
struct morv_volume_private;

struct morv_volume {
  morv_device* device;          // not owned
  uint8_t* header;              // the in-memory volume header
  const uint16_t* label_length; // cached label length (UTF-16 units)
  const uint8_t* label;         // cached label, big-endian UTF-16 units
  morv_bitmap* bitmap;          // null when the allocation file was not loaded
  morv_extents* extents;
  morv_catalog* catalog;
  morv_btree* attributes;       // never filled; released if ever set
  morv_volume_private* priv;
};

// Opens the volume on `device`: header, extents overflow tree, catalog, the
// allocation file unless `skip_allocation_file`, the root folder and its name
// (the label). Nothing is left behind on failure.
[[nodiscard]] morv_err morv_volume_create(morv_device* device, uint32_t skip_allocation_file,
                                          morv_volume** out);
// Releases everything the volume owns without flushing; clears the handle.
void morv_volume_destroy(morv_volume** volume);

// Renames the root folder to `count` big-endian units and caches the new
// label. Only the catalog changes.
[[nodiscard]] morv_err morv_volume_set_label(morv_volume* volume, const uint16_t* label,
                                             size_t count);
// Replaces the in-memory fork data of special file `cnid` (3, 4, 6, 7, 8).
void morv_volume_update_fork_data(morv_volume* volume, uint32_t cnid, const uint8_t* fork_data);

// Reads the sectors holding the header. On success *buffer (to be freed with
// morv_free), its length in bytes and the header's address inside it are set.
[[nodiscard]] morv_err morv_volume_read_header(morv_device* device, uint8_t** buffer,
                                               size_t* buffer_length, uint8_t** header);
// Checks the signature; *kind_text is "+" for HFS+ and "X" for HFSX.
[[nodiscard]] morv_err morv_volume_check_signature(const uint8_t* header, const char** kind_text);

// Writes the whole header sector buffer back to the device and, after a
// special file's fork data changed, the special files' fork data into the
// alternate volume header.
[[nodiscard]] morv_err morv_volume_flush(morv_volume* volume);
// The write of morv_volume_flush, for a buffer read by morv_volume_read_header.
[[nodiscard]] morv_err morv_volume_write_header(morv_device* device, const uint8_t* buffer,
                                                size_t buffer_length);

// In-memory header field updates: unsigned 32-bit arithmetic, wrapping.
void morv_volume_decrement_file_count(morv_volume* volume, uint32_t value);
void morv_volume_decrement_folder_count(morv_volume* volume, uint32_t value);
void morv_volume_increment_free_blocks(morv_volume* volume, uint32_t value);
void morv_volume_decrement_free_blocks(morv_volume* volume, uint32_t value);
void morv_volume_set_next_allocation(morv_volume* volume, uint32_t value);
void morv_volume_increment_next_catalog_id(morv_volume* volume);
