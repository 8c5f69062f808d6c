// Whether a volume's own state lets a writer change it.
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
#pragma once

#include <cstdint>

#include "morv.hpp"

struct morv_volume;

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
