// SPDX-License-Identifier: MIT
// The extents overflow file (CNID 3): an HFS+ B-tree whose records hold the
// extents of forks beyond the eight of their HFSPlusForkData.
//
// HFSPlusExtentKey (12 bytes): keyLength (u16, always 10), forkType (u8, 0x00
// data, 0xFF resource), pad (u8), fileID (u32), startBlock (u32, the fork's
// allocation block at which the record's first extent begins). The record is
// an HFSPlusExtentRecord: eight extent descriptors, unused ones zero. Keys
// sort by fileID, then forkType, then startBlock.
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_btree;
struct morv_btree_search_result;
struct morv_device;
struct morv_extents_private;

namespace extkey {
inline constexpr size_t kSize = 12;
inline constexpr uint16_t kKeyLength = 10;  // bytes behind the keyLength field
inline constexpr size_t kForkType = 2;
inline constexpr size_t kPad = 3;
inline constexpr size_t kFileId = 4;
inline constexpr size_t kStartBlock = 8;
inline constexpr uint8_t kDataFork = 0x00;
inline constexpr uint8_t kResourceFork = 0xFF;
}  // namespace extkey

struct morv_extents {
  morv_btree* tree;
  morv_extents_private* priv;
};

// Opens and validates the extents overflow tree of the in-memory volume
// header (its extentsFile fork data).
[[nodiscard]] morv_err morv_extents_create(morv_device* device, uint8_t* volume_header,
                                           morv_extents** out_extents);
void morv_extents_destroy(morv_extents** extents);
// Writes the extents overflow file's modified cache blocks back.
[[nodiscard]] morv_err morv_extents_flush(morv_extents* extents);
// *out_valid is 1 when the tree's header suits an extents overflow file.
[[nodiscard]] morv_err morv_extents_validate(morv_btree* tree, int* out_valid);
int morv_extents_compare_keys(const uint8_t* a, const uint8_t* b, uint32_t compare_type);

// Looks up the record with exactly the key (fork type, cnid, start block).
// On success *found is 1 and the 64 record bytes are copied to `record`, or
// *found is 0 when no record has exactly that key.
[[nodiscard]] morv_err morv_extents_get_next_extent_record(morv_extents* extents, uint8_t fork_type,
                                                           uint32_t cnid, uint32_t start_block,
                                                           int* found, uint8_t* record);
// The B-tree search for the key; the result's locator is the caller's.
[[nodiscard]] morv_err morv_extents_search(morv_extents* extents, uint8_t fork_type, uint32_t cnid,
                                           uint32_t start_block,
                                           morv_btree_search_result* out_result);
// Inserts a 64-byte extent record under the key.
[[nodiscard]] morv_err morv_extents_insert(morv_extents* extents, uint8_t fork_type, uint32_t cnid,
                                           uint32_t start_block, const uint8_t* record);
