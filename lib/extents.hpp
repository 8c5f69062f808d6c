// The extents overflow file (CNID 3): an HFS+ B-tree whose records hold the
// extents of forks beyond the eight of their HFSPlusForkData.
//
// HFSPlusExtentKey (12 bytes): keyLength (u16, always 10), forkType (u8, 0x00
// data, 0xFF resource), pad (u8), fileID (u32), startBlock (u32, the fork's
// allocation block at which the record's first extent begins). The record is
// an HFSPlusExtentRecord: eight extent descriptors, unused ones zero.
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_extents;

// Looks up the record with exactly the key (fork type, cnid, start block).
// On success *found is 1 and the 64 record bytes are copied to `record`, or
// *found is 0 when no record has exactly that key.
[[nodiscard]] morv_err morv_extents_get_next_extent_record(morv_extents* extents, uint8_t fork_type,
                                                           uint32_t cnid, uint32_t start_block,
                                                           int* found, uint8_t* record);
