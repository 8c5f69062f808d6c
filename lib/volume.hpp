// SPDX-License-Identifier: MIT
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
// Writes back everything the volume's objects hold modified: the allocation
// bitmap (when loaded), the extents overflow file, the catalog file, then
// the header. Stops at the first failure.
[[nodiscard]] morv_err morv_volume_flush_all(morv_volume* volume);
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

// ---- Whether the volume may be changed ----
//
// The volume header's `attributes` word (offset 4) records what the last
// system to mount the volume left behind: bit 8 set when it was cleanly
// unmounted, bit 11 when a boot volume was found inconsistent, bit 13 when the
// volume is journaled, bit 15 when it is software-locked (writers must leave
// it alone). A journaled volume's `journalInfoBlock` (offset 12, an
// allocation block number) holds a JournalInfoBlock, big-endian:
//
//   offset 0   flags u32: 1 journal in this file system, 2 on another device,
//                         4 journal needs initialising (holds nothing)
//   offset 4   device_signature, 32 bytes
//   offset 36  offset u64: the journal's byte offset from the volume's start
//   offset 44  size u64
//
// The journal starts with its header, written in the byte order of the Mac
// that wrote it (the endian field reads 0x12345678 in that order):
//
//   offset 0   magic u32 (0x4A4E4C78, "JNLx")   offset 4   endian u32
//   offset 8   start u64                        offset 16  end u64
//
// start != end means transactions that the next Mac to mount the volume will
// replay, writing older copies of blocks over whatever changed since.

// What a change of the volume would meet; anything but WRITABLE means a
// writer must leave the volume alone.
enum morv_volume_state : uint32_t {
  MORV_VOLUME_WRITABLE = 0,
  MORV_VOLUME_SOFTWARE_LOCKED = 1,    // attributes bit 15
  MORV_VOLUME_JOURNAL_DIRTY = 2,      // transactions not yet replayed
  MORV_VOLUME_JOURNAL_ELSEWHERE = 3,  // journal on another device: cannot be checked
  MORV_VOLUME_JOURNAL_DAMAGED = 4,    // info block or header unusable: cannot be checked
  MORV_VOLUME_INCONSISTENT = 5,       // attributes bit 11
  MORV_VOLUME_NOT_UNMOUNTED = 6,      // attributes bit 8 clear
};

// Reads the attribute bits of the in-memory header and, for a journaled
// volume, the journal info block and the journal header from the device.
// The first state that applies, in the order of the enumeration, goes to
// *out_state. Fails (out-parameter unwritten) only when a read fails; a
// journal whose structures lie outside the volume or make no sense is
// MORV_VOLUME_JOURNAL_DAMAGED, not an error.
[[nodiscard]] morv_err morv_volume_check_state(const morv_volume* volume,
                                           morv_volume_state* out_state);
