// SPDX-License-Identifier: MIT
// The HFS+ journal: reading it, showing a volume as it will read once its
// pending transactions are applied, and applying them (replay).
//
// A journaled volume (attributes bit 13) names its journal info block in the
// volume header (journalInfoBlock). The info block, big-endian, locates the
// journal: one header sector of jhdr_size bytes, then a circular buffer of
// transactions, all in the byte order of the machine that wrote them. Each
// transaction is one or more block lists: a blhdr_size area describing
// whole-sector blocks (device position bnum x jhdr_size, length bsize),
// followed by their data. The header's [start, end) is what has not been
// applied in place yet.
//
// Opening reads and validates everything before anything relies on it: the
// info block, the header, and every block list between start and end (their
// checksums, counts, block sizes and positions, and the data checksums newer
// writers keep). Damage of any kind fails the open with MORV_ERR_CORRUPT and
// a message saying what is wrong; nothing is ever written for a damaged
// journal. Every walk is bounded by the journal's size, which must lie between
// 256 KiB and 1 GiB.
//
// A journal whose volume was last mounted by a writer that ignores journals
// (lastMountedVersion other than "HFSJ") is stale: its transactions are older
// than what lies in place, so it is neither shown nor replayed.
#pragma once

#include <cstdint>

#include "device_unix.hpp"
#include "morv.hpp"

enum morv_journal_state : uint32_t {
  MORV_JOURNAL_UNINITIALISED = 1,  // the info block asks for a new header: no transactions
  MORV_JOURNAL_CLEAN = 2,          // start == end
  MORV_JOURNAL_STALE = 3,          // transactions, but the volume was written behind their back
  MORV_JOURNAL_DIRTY = 4,          // transactions to apply
};

struct morv_journal;

// Opens the journal of the volume whose 512-byte header (on-disk order) is
// `volume_header`, on `device`. A volume without the journaled bit gets a
// null handle and MORV_OK.
[[nodiscard]] morv_err morv_journal_open(morv_device* device, const uint8_t* volume_header,
                                         morv_journal** out_journal);
// Frees the journal (writes nothing); clears the handle. Accepts a null handle.
void morv_journal_destroy(morv_journal** journal);

morv_journal_state morv_journal_get_state(const morv_journal* journal);
// Number of blocks (non-killed entries) a replay would write.
uint64_t morv_journal_pending_blocks(const morv_journal* journal);

// The overlay: reads `sector_count` device sectors from `first_sector` into
// `buffer` as they will read after replay (the newest journaled copy of every
// byte; the device's bytes elsewhere). Writes nothing.
[[nodiscard]] morv_err morv_journal_read_sectors(morv_journal* journal, uint64_t first_sector,
                                                 uint32_t sector_count, void* buffer);

// Applies every pending transaction in place, syncs, then marks the journal
// clean (start = end) and syncs again. Does nothing for a journal that is not
// dirty. A failure part-way leaves the header as it was, so a later replay
// does the whole work again.
[[nodiscard]] morv_err morv_journal_replay(morv_journal* journal);
