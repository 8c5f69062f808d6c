// Journal tests over builder volumes with pending transactions: replay must
// give the builder's directly changed copy, the overlay must show it without
// writing, and damage must be refused with nothing written.
#include "journal.hpp"

#include <memory>
#include <string>
#include <vector>

#include "catalog_fixtures.hpp"

namespace {

using namespace morv_test;

constexpr const char* kBase = "--size 8388608 --label Vol --files 60 --folders 3 --journal dirty";

// A dirty builder volume and the image a correct replay leaves.
struct Dirty {
  explicit Dirty(const std::string& options) {
    const std::string command = std::string(MORV_PYTHON) + " " MORV_SOURCE_DIR
                                "/tests/support/mkimage.py " + image.path() + " --journal-applied " +
                                applied.path() + " " + kBase + " " + options;
    EXPECT_EQ(run(command), 0) << command;
    before = image.read_all();
    want = applied.read_all();
  }
  TempFile image, applied;
  std::vector<uint8_t> before, want;
};

// The volume header and the journal of an image, opened on a device of
// `sector_size`.
struct Opened {
  Opened(const std::string& path, bool read_only, uint32_t sector_size = 512)
      : dev(path, read_only, sector_size) {
    header.resize(1024 + sector_size);
    void* target = header.data();
    err = morv_device_read_disk_sectors(dev.device, 0, (1024 + sector_size) / sector_size, &target);
    if (err == MORV_OK) err = morv_journal_open(dev.device, header.data() + 1024, &journal);
  }
  ~Opened() { morv_journal_destroy(&journal); }
  OpenDevice dev;
  std::vector<uint8_t> header;
  morv_journal* journal = nullptr;
  morv_err err = MORV_OK;
};

morv_err replay(const std::string& path, uint32_t sector_size = 512) {
  Opened o(path, false, sector_size);
  return o.err != MORV_OK ? o.err : morv_journal_replay(o.journal);
}

// The same, where even the device's creation may fail.
morv_err replay_under_failures(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR);
  morv_device* device = nullptr;
  morv_err err = morv_device_create(fd, 0, 512, 0, &device);
  uint8_t header[512];
  void* target = header;
  if (err == MORV_OK) err = morv_device_read_disk_sectors(device, 2, 1, &target);
  morv_journal* journal = nullptr;
  if (err == MORV_OK) err = morv_journal_open(device, header, &journal);
  if (err == MORV_OK) err = morv_journal_replay(journal);
  morv_journal_destroy(&journal);
  if (device) morv_device_destroy(&device);
  close(fd);
  return err;
}

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
      {"jib-flags", "undefined flags"},
      {"jib-not-in-fs", "on another device"},
      {"jib-beyond", "past the end of the volume"},
      {"jib-overlap", "overlaps the volume header"},
      {"magic", "unknown magic"},
      {"endian", "byte order mark"},
      {"header-checksum", "header's checksum"},
      {"jhdr-size", "sector size"},
      {"size-mismatch", "size disagrees"},
      {"size-small", "unusable journal size"},
      {"start-range", "start or end"},
      {"end-align", "start or end"},
      {"blhdr-zero", "block list header size"},
      {"blhdr-align", "block list header size"},
      {"blhdr-large", "block list header size"},
      {"past-end", "runs past the end"},
      {"list-checksum", "block list's checksum"},
      {"max-blocks", "entry counts"},
      {"num-blocks", "entry counts"},
      {"bsize-zero", "whole number of sectors"},
      {"bsize-align", "whole number of sectors"},
      {"bnum-beyond", "past the end of the device"},
      {"bytes-used", "byte count"},
      {"sequence", "sequence number"},
      {"data-checksum", "data checksum"},
      {"into-journal", "writes into the journal"},
      {"into-jib", "writes into the journal"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.kind);
    Dirty d(std::string("--journal-rename A --journal-rename B --journal-damage ") + c.kind);
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
