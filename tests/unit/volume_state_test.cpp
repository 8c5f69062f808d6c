#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

#include "catalog_fixtures.hpp"
#include "volume_state.hpp"

namespace {

constexpr const char* kBase = "--size 8388608 --label State --files 20";
constexpr auto kUnset = static_cast<morv_volume_state>(99);

// A volume over a builder image whose bytes `patch` may change first, on a
// device of `sector_size`.
struct PatchedVolume {
  template <typename Patch>
  PatchedVolume(const std::string& args, Patch patch, uint32_t sector_size = 512) {
    morv_test::build_image(args, file);
    auto bytes = file.read_all();
    patch(bytes);
    file.write_all(bytes);
    fd = open(file.path().c_str(), O_RDONLY);
    EXPECT_EQ(morv_device_create(fd, 1, sector_size, 0, &device), MORV_OK);
    EXPECT_EQ(morv_volume_create(device, 1, &volume), MORV_OK);
  }
  explicit PatchedVolume(const std::string& args) : PatchedVolume(args, [](auto&) {}) {}
  ~PatchedVolume() {
    if (volume) morv_volume_destroy(&volume);
    morv_device_destroy(&device);
    close(fd);
  }
  morv_volume_state state() const {
    morv_volume_state s = kUnset;
    if (!volume) return s;  // set-up failed, reported above
    EXPECT_EQ(morv_volume_check_state(volume, &s), MORV_OK);
    return s;
  }
  morv_test::TempFile file;
  int fd = -1;
  morv_device* device = nullptr;
  morv_volume* volume = nullptr;
};

// Byte offsets of a builder image's journal info block and journal header.
uint64_t info_block_offset(const std::vector<uint8_t>& image) {
  return uint64_t{load_be32(&image[1024 + vh::kJournalInfoBlock])} *
         load_be32(&image[1024 + vh::kBlockSize]);
}
uint64_t journal_offset(const std::vector<uint8_t>& image) {
  return load_be64(&image[info_block_offset(image) + 36]);
}

// A big-endian field of the volume header, the journal info block or the
// journal header, set to `value`.
enum Structure { kVolumeHeader, kInfoBlock, kJournalHeader };
struct Patch {
  Structure structure;
  size_t field;
  uint64_t value;
  int width;
  void operator()(std::vector<uint8_t>& image) const {
    const uint64_t base = structure == kVolumeHeader ? 1024
                          : structure == kInfoBlock  ? info_block_offset(image)
                                                     : journal_offset(image);
    uint8_t* p = &image[base + field];
    width == 8 ? store_be64(p, value) : store_be32(p, static_cast<uint32_t>(value));
  }
};

}  // namespace

// Each state alone is exercised end to end by the command-line tests; here
// the byte orders and block sizes of clean journals, and which of several
// reasons wins.
TEST(VolumeState, JournalByteOrdersAndTheFirstReasonThatApplies) {
  const struct {
    const char* options;
    morv_volume_state expected;
  } cases[] = {
      {"--journal clean --journal-byte-order big --block-size 512", MORV_VOLUME_WRITABLE},
      {"--journal dirty --journal-byte-order big --block-size 1024", MORV_VOLUME_JOURNAL_DIRTY},
      {"--software-lock --journal dirty --not-unmounted", MORV_VOLUME_SOFTWARE_LOCKED},
      {"--journal dirty --inconsistent --not-unmounted", MORV_VOLUME_JOURNAL_DIRTY},
      {"--journal clean --inconsistent --not-unmounted", MORV_VOLUME_INCONSISTENT},
      {"--journal uninitialised --not-unmounted", MORV_VOLUME_NOT_UNMOUNTED},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    PatchedVolume v(std::string(kBase) + " " + c.options);
    morv_seam_reset_stats();
    EXPECT_EQ(v.state(), c.expected);
    EXPECT_EQ(morv_seam_get_stats().writes, 0u);
  }
}

TEST(VolumeState, JournalStructuresOutsideTheVolumeOrWithoutMarkersAreDamaged) {
  const std::string dirty = std::string(kBase) + " --journal dirty --journal-byte-order big";
  const uint64_t volume_bytes = 8388608;
  const Patch damaged[] = {
      {kVolumeHeader, vh::kJournalInfoBlock, 0, 4},  // over the volume header
      {kVolumeHeader, vh::kJournalInfoBlock, 2048, 4},  // the first block past the volume
      {kVolumeHeader, vh::kJournalInfoBlock, 0xFFFFFFFF, 4},
      {kInfoBlock, 36, volume_bytes - 23, 8},  // the header's 24 bytes cross the end
      {kInfoBlock, 36, ~uint64_t{0} - 7, 8},   // offset + length wraps
      {kJournalHeader, 0, 0x784C4E4A, 4},      // magic in the other byte order
      {kJournalHeader, 4, 0x12345679, 4},      // endian marker in neither
  };
  for (const Patch& patch : damaged) {
    SCOPED_TRACE(patch.value);
    EXPECT_EQ(PatchedVolume(dirty, patch).state(), MORV_VOLUME_JOURNAL_DAMAGED);
  }
  // Neither "in this file system" nor "on another device": not here either.
  EXPECT_EQ(PatchedVolume(dirty, Patch{kInfoBlock, 0, 0, 4}).state(), MORV_VOLUME_JOURNAL_ELSEWHERE);
  EXPECT_EQ(PatchedVolume(dirty, Patch{kInfoBlock, 0, 0x6, 4}).state(), MORV_VOLUME_WRITABLE);

  // A header at an offset that is not sector-aligned and crosses a sector
  // boundary is still read where the info block says, on any sector size.
  const auto move_header = [](std::vector<uint8_t>& image) {
    const uint64_t from = journal_offset(image);
    std::copy_n(&image[from], 512, &image[from + 1000]);
    std::fill_n(&image[from], 512, 0);
    store_be64(&image[info_block_offset(image) + 36], from + 1000);
  };
  for (uint32_t sector_size : {512u, 4096u}) {
    EXPECT_EQ(PatchedVolume(dirty, move_header, sector_size).state(), MORV_VOLUME_JOURNAL_DIRTY);
  }
}

TEST(VolumeState, FailedReadsAreErrorsAndLeaveTheStateUnwritten) {
  morv_volume_state state = kUnset;
  const char* const messages[] = {"Error while reading the journal info block.\n",
                                  "Error while reading the journal header.\n"};
  PatchedVolume v(std::string(kBase) + " --journal dirty");
  for (unsigned ops : {unsigned{MORV_SEAM_ALLOC}, unsigned{MORV_SEAM_READ}}) {
    uint64_t n = 1;
    for (;; ++n) {
      state = kUnset;
      morv_seam_fail_at(ops, n);
      testing::internal::CaptureStderr();
      const morv_err err = morv_volume_check_state(v.volume, &state);
      const std::string log = testing::internal::GetCapturedStderr();
      if (!morv_seam_failure_delivered()) {
        EXPECT_EQ(err, MORV_OK) << log;
        EXPECT_EQ(state, MORV_VOLUME_JOURNAL_DIRTY);
        break;
      }
      EXPECT_EQ(err, ops == MORV_SEAM_ALLOC ? MORV_ERR_NO_MEMORY : MORV_ERR_IO) << "n=" << n;
      ASSERT_LE(n, 2u);
      EXPECT_NE(log.find(messages[n - 1]), std::string::npos) << log;
      EXPECT_EQ(state, kUnset);
    }
    EXPECT_EQ(n, 3u);  // the info block, then the journal header
  }
  morv_seam_fail_at(0, 0);
}
