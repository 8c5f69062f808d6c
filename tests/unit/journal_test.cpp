// SPDX-License-Identifier: MIT
// Journal tests over builder volumes with pending transactions: replay must
// give the builder's directly changed copy, the overlay must show it without
// writing, and damage must be refused with nothing written.
#include "journal.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include "journal_test_support.hpp"

namespace {

using namespace journal_test;

TEST(Journal, EveryPendingShapeReplaysToTheBuilderCopyOnce) {
  const struct {
    const char* options;
    uint32_t device_sector;
  } cases[] = {
      {"", 512},
      {"--journal-byte-order big --journal-killed", 512},
      {"--journal-wrap header --journal-list-entries 2", 512},
      {"--journal-wrap data --journal-rename A --journal-rename 'A longer label' --journal-rename B",
       512},
      {"--journal-format old --journal-byte-order big --journal-wrap data", 512},
      {"--journal-sector 4096 --journal-blhdr 8192 --block-size 512", 512},
      {"--journal-wrap data --journal-killed", 4096},  // blocks smaller than the device's sectors
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    Dirty d(c.options);
    {
      Opened o(d.image.path(), true);
      ASSERT_EQ(o.err, MORV_OK);
      EXPECT_EQ(morv_journal_get_state(o.journal), MORV_JOURNAL_DIRTY);
    }
    ASSERT_EQ(replay(d.image.path(), c.device_sector), MORV_OK);
    EXPECT_TRUE(d.image.read_all() == d.want) << "replay differs from the builder's copy";
    EXPECT_EQ(check_image(d.image.path(), "--no-replay"), "");
    Opened again(d.image.path(), false);
    ASSERT_EQ(again.err, MORV_OK);
    EXPECT_EQ(morv_journal_get_state(again.journal), MORV_JOURNAL_CLEAN);
    morv_seam_reset_stats();
    EXPECT_EQ(morv_journal_replay(again.journal), MORV_OK);
    EXPECT_EQ(morv_seam_get_stats().writes, 0u);
  }
}

TEST(Journal, OverlayShowsTheReplayedVolumeAndWritesNothing) {
  Dirty d("--journal-wrap data --journal-killed --journal-rename A --journal-rename 'Second name'");
  Opened o(d.image.path(), true);
  ASSERT_EQ(o.err, MORV_OK);
  EXPECT_GT(morv_journal_pending_blocks(o.journal), 4u);
  const uint64_t jib = uint64_t{load_be32(&d.before[1024 + vh::kJournalInfoBlock])} *
                       load_be32(&d.before[1024 + vh::kBlockSize]);
  const uint64_t journal_header = load_be64(&d.before[jib + 36]);
  morv_seam_reset_stats();
  // Reads of odd lengths and offsets, so that blocks are cut at both ends.
  std::vector<uint8_t> seen(d.before.size());
  for (uint64_t sector = 0, n = 1; sector < seen.size() / 512; sector += n, n = n % 13 + 1) {
    const uint32_t count = static_cast<uint32_t>(std::min<uint64_t>(n, seen.size() / 512 - sector));
    ASSERT_EQ(morv_journal_read_sectors(o.journal, sector, count, &seen[sector * 512]), MORV_OK);
  }
  EXPECT_EQ(morv_seam_get_stats().writes, 0u);
  // Everything but the journal's header reads as after replay.
  for (uint64_t i = journal_header; i < journal_header + 512; ++i) seen[i] = d.want[i];
  EXPECT_TRUE(seen == d.want);
  EXPECT_TRUE(d.image.read_all() == d.before);
}

TEST(Journal, JournalsWithNothingToReplayAreLeftAlone) {
  const struct {
    const char* options;
    int state;  // 0: no journal
  } cases[] = {
      {"--size 8388608 --label V --journal dirty --journal-stale", MORV_JOURNAL_STALE},
      {"--size 8388608 --label V --journal clean --journal-byte-order big", MORV_JOURNAL_CLEAN},
      {"--size 8388608 --label V --journal uninitialised", MORV_JOURNAL_UNINITIALISED},
      {"--size 8388608 --label V", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    TempFile image;
    build_image(c.options, image);
    const std::vector<uint8_t> before = image.read_all();
    Opened o(image.path(), false);
    ASSERT_EQ(o.err, MORV_OK);
    ASSERT_EQ(o.journal != nullptr, c.state != 0);
    if (!o.journal) continue;
    EXPECT_EQ(morv_journal_get_state(o.journal), c.state);
    EXPECT_EQ(morv_journal_pending_blocks(o.journal), 0u);
    EXPECT_EQ(morv_journal_replay(o.journal), MORV_OK);
    EXPECT_TRUE(image.read_all() == before);
  }
}

TEST(Journal, DamageIsNamedAndNothingIsWritten) {
  const struct {
    const char* kind;
    const char* says;
  } cases[] = {
      {"jib-flags", "undefined flags"}, {"jib-not-in-fs", "on another device"},
      {"jib-beyond", "past the end of the volume"}, {"jib-overlap", "overlaps the volume header"},
      {"magic", "unknown magic"}, {"endian", "byte order mark"},
      {"header-checksum", "header's checksum"}, {"jhdr-size", "sector size"},
      {"size-mismatch", "size disagrees"}, {"size-small", "unusable journal size"},
      {"start-range", "start or end"}, {"end-align", "start or end"},
      {"blhdr-zero", "block list header size"}, {"blhdr-align", "block list header size"},
      {"blhdr-large", "block list header size"}, {"past-end", "runs past the end"},
      {"list-checksum", "block list's checksum"}, {"max-blocks", "entry counts"},
      {"num-blocks", "entry counts"}, {"bsize-zero", "whole number of sectors"},
      {"bsize-align", "whole number of sectors"}, {"bnum-beyond", "past the end of the device"},
      {"bytes-used", "byte count"}, {"sequence", "sequence number"},
      {"data-checksum", "data checksum"}, {"into-journal", "writes into the journal"},
      {"into-jib", "writes into the journal"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kind);
    Dirty d(std::string("--journal-list-entries 1 --journal-damage ") + c.kind);
    std::string log;
    morv_seam_reset_stats();
    EXPECT_EQ(logged_into(log, [&] { return replay(d.image.path()); }), MORV_ERR_CORRUPT);
    EXPECT_THAT(log, testing::HasSubstr("The journal is damaged: "));
    EXPECT_THAT(log, testing::HasSubstr(c.says));
    EXPECT_EQ(morv_seam_get_stats().writes, 0u);
    EXPECT_TRUE(d.image.read_all() == d.before);
  }
}

// Every allocation, read, write and sync failing in turn: a failure before
// the first write leaves the image as it was; after it, the image still
// replays to the same end.
TEST(Journal, FailuresLeaveTheImageReplayable) {
  Dirty d("--journal-wrap header --journal-killed --journal-rename A --journal-rename 'Name two'");
  TempFile scratch;
  uint64_t before_writing = 0;
  const uint64_t runs = fail_each(
      MORV_SEAM_ALL,
      [&] {
        scratch.write_all(d.before);
        morv_seam_reset_stats();
        std::string log;
        return logged_into(log, [&] { return replay_under_failures(scratch.path()); });
      },
      [&](morv_err err, bool failed, uint64_t n) {
        SCOPED_TRACE(n);
        if (!failed) {
          EXPECT_EQ(err, MORV_OK);
          EXPECT_TRUE(scratch.read_all() == d.want);
          return;
        }
        EXPECT_NE(err, MORV_OK);
        morv_seam_fail_at(MORV_SEAM_ALL, 0);
        if (morv_seam_get_stats().writes == 0) {
          ++before_writing;
          EXPECT_TRUE(scratch.read_all() == d.before);
        }
        EXPECT_EQ(replay(scratch.path()), MORV_OK);
        EXPECT_TRUE(scratch.read_all() == d.want);
      });
  EXPECT_GT(runs, 10u);
  EXPECT_GT(before_writing, 0u);
  EXPECT_LT(before_writing, runs);
}

}  // namespace
