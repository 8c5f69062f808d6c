// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "volume_test_support.hpp"

using namespace volume_test;

TEST(VolumeHeader, LocatedAtByte1024ForEverySectorSizeAndFlushedAsWholeSectors) {
  for (uint32_t sector_size : {512u, 2048u, 4096u}) {
    SCOPED_TRACE(sector_size);
    TempFile file;
    const auto image = header_image(vh::kSignatureHfsx);
    file.write_all(image);
    OpenDevice dev(file.path(), false, sector_size);
    morv_seam_reset_stats();
    uint8_t* buffer = nullptr;
    size_t length = 0;
    uint8_t* header = nullptr;
    ASSERT_EQ(morv_volume_read_header(dev.device, &buffer, &length, &header), MORV_OK);
    EXPECT_EQ(length, sector_size);
    EXPECT_EQ(morv_seam_get_stats().read_bytes, sector_size);
    EXPECT_EQ(header - buffer, sector_size == 512 ? 0 : 1024);
    EXPECT_EQ(memcmp(header, &image[1024], vh::kSize), 0);
    const char* kind = nullptr;
    EXPECT_EQ(morv_volume_check_signature(header, &kind), MORV_OK);
    EXPECT_STREQ(kind, "X");

    morv_volume volume{};
    volume.header = header;
    morv_volume_decrement_file_count(&volume, 1);    // 0 - 1 wraps
    morv_volume_increment_free_blocks(&volume, 5);
    morv_volume_decrement_free_blocks(&volume, 2);
    morv_volume_set_next_allocation(&volume, 0x01020304);
    morv_volume_increment_next_catalog_id(&volume);
    morv_volume_decrement_folder_count(&volume, 0);
    EXPECT_EQ(load_be32(header + vh::kFileCount), 4294967295u);
    ASSERT_EQ(morv_volume_write_header(dev.device, buffer, length), MORV_OK);
    morv_free(buffer);

    // Only the header's sectors change, and within them only the updated fields.
    auto expected = image;
    store_be32(&expected[1024 + vh::kFileCount], 4294967295u);
    store_be32(&expected[1024 + vh::kFreeBlocks], load_be32(&image[1024 + vh::kFreeBlocks]) + 3);
    store_be32(&expected[1024 + vh::kNextAllocation], 0x01020304);
    store_be32(&expected[1024 + vh::kNextCatalogId], load_be32(&image[1024 + vh::kNextCatalogId]) + 1);
    EXPECT_EQ(file.read_all(), expected);
  }
}

TEST(VolumeHeader, RefusesOtherSignaturesAndReportsReadAndWriteFailures) {
  uint8_t header[vh::kSize] = {};
  const char* kind = "unchanged";
  store_be16(header, 0x4244);  // plain HFS or an HFS wrapper
  EXPECT_LOGGED(morv_volume_check_signature(header, &kind), MORV_ERR_GENERIC,
                "Invalid signature word for HFS+ volume: 0x16964\n");
  EXPECT_STREQ(kind, "unchanged");

  TempFile file;
  file.write_all(header_image(vh::kSignatureHfsPlus));
  OpenDevice dev(file.path());
  uint8_t* buffer = nullptr;
  size_t length = 0;
  uint8_t* at = nullptr;
  morv_seam_fail_at(MORV_SEAM_READ, 1);
  EXPECT_LOGGED(morv_volume_read_header(dev.device, &buffer, &length, &at), MORV_ERR_IO,
                "Error while reading volume header disk sector.\n");
  EXPECT_EQ(buffer, nullptr);
  uint8_t sector[512] = {};
  morv_seam_fail_at(MORV_SEAM_WRITE, 1);
  EXPECT_LOGGED(morv_volume_write_header(dev.device, sector, sizeof sector), MORV_ERR_IO,
                "Error while flushing volume header.\n");
  EXPECT_EQ(file.read_all(), header_image(vh::kSignatureHfsPlus));
}

TEST(Volume, OpensWithItsLabelAndRefusesDamagedVolumes) {
  {
    OpenVolume v("--size 4194304 --label " + std::string(255, 'L') + " --files 4");
    ASSERT_EQ(v.err, MORV_OK);
    EXPECT_EQ(v.label(), std::u16string(255, u'L'));
    EXPECT_EQ(v.volume->bitmap, nullptr);
    EXPECT_EQ(v.volume->attributes, nullptr);
  }
  const struct { const char* corruption; morv_err err; const char* message; const char* also; } refused[] = {
      {"bad-signature", MORV_ERR_GENERIC, "Invalid signature word for HFS+ volume",
       "Error while setting up HFS volume.\n"},
      {"no-root-thread --files 3", MORV_ERR_CORRUPT, "Root directory not found!\n", ""},
      // A 256-unit name makes a key longer than any HFS+ key: its node is refused.
      {"long-root-name", MORV_ERR_CORRUPT, "is longer than any HFS+ key (keyLength 518).\n", ""},
      {"extents-btree-type", MORV_ERR_CORRUPT, "Error while loading extents overflow file from HFS+ volume.\n", ""},
      {"btree-type --hfsx", MORV_ERR_CORRUPT, "Error while loading catalog file.\n", ""},
  };
  for (const auto& r : refused) {
    const std::string log = open_failure(std::string("--size 4194304 --label X --corrupt ") + r.corruption, r.err);
    EXPECT_TRUE(has(log, r.message) && has(log, r.also)) << r.corruption << ": " << log;
  }
}

TEST(Volume, AllocationFileIsOnlyOpenedWhenAsked) {
  // An allocation file whose fork data holds an empty extent with a start
  // block: a volume that skips it opens.
  PatchedVolume v("--size 4194304 --label Skip", [](std::vector<uint8_t>& image) {
    uint8_t* extent = &image[1024 + vh::kAllocationFile + forkdata::kExtents + forkdata::kExtentSize];
    store_be32(extent + forkdata::kExtentStartBlock, 77);
    store_be32(extent + forkdata::kExtentBlockCount, 0);
  });
  morv_volume* volume = nullptr;
  std::string log;
  // Fork creation reports any failure of its own as an allocation failure.
  EXPECT_EQ(logged_into(log, [&] { return morv_volume_create(v.dev->device, 0, &volume); }), MORV_ERR_NO_MEMORY);
  EXPECT_TRUE(has(log, "Found zero-sized extent with non-0 start block.\n")) << log;
  EXPECT_TRUE(has(log, "Unable to load allocation file.\n")) << log;
  EXPECT_EQ(volume, nullptr);
}

TEST(Volume, EveryInjectedFailureOfSetUpIsReportedAndLeavesNothing) {
  BuiltImage image("--size 8388608 --label Faults --files 50 --catalog-fragments 12");
  OpenDevice dev(image.file.path(), true);
  for (unsigned ops : {unsigned{MORV_SEAM_ALLOC}, unsigned{MORV_SEAM_READ}}) {
    morv_volume* volume = nullptr;
    std::string log;
    EXPECT_GT(fail_each(ops, [&] { return logged_into(log, [&] { return morv_volume_create(dev.device, 0, &volume); }); },
                        [&](morv_err err, bool failed, uint64_t n) {
      if (!failed) {
        EXPECT_EQ(err, MORV_OK) << log;
        morv_volume_destroy(&volume);
        return;
      }
      // Read failures inside fork creation come back as allocation failures.
      EXPECT_TRUE(err == MORV_ERR_NO_MEMORY || (ops == MORV_SEAM_READ && err == MORV_ERR_IO)) << "n=" << n << log;
      EXPECT_EQ(volume, nullptr);
      EXPECT_TRUE(has(log, "Error while setting up HFS volume.\n") ||
                  has(log, "Error while allocating memory for morv_volume.\n")) << log;
    }), 4u);
  }
}

TEST(VolumeLabel, RenamesTheRootFolderOnlyInTheCatalog) {
  OpenVolume v("--size 8388608 --block-size 512 --catalog-node-size 512 --label Before --files 120 --fill 70");
  ASSERT_EQ(v.err, MORV_OK);
  const auto pristine = v.file.read_all();
  const std::vector<uint8_t> header_before(v.volume->header, v.volume->header + vh::kSize);

  // Nothing reaches the disk before the flush.
  const auto name = big_endian(std::u16string(60, u'y'));
  ASSERT_EQ(morv_volume_set_label(v.volume, name.data(), name.size()), MORV_OK);
  EXPECT_EQ(v.label(), std::u16string(60, u'y'));
  EXPECT_EQ(v.file.read_all(), pristine);
  EXPECT_EQ(std::vector<uint8_t>(v.volume->header, v.volume->header + vh::kSize), header_before);
  ASSERT_EQ(morv_catalog_flush(v.volume->catalog), MORV_OK);
  EXPECT_EQ(check_image(v.file.path()), "");

  // An empty name would give the root folder no name, and another record
  // its parent's thread key: refused before anything changes.
  const auto renamed = v.file.read_all();
  EXPECT_LOGGED(morv_volume_set_label(v.volume, nullptr, 0), MORV_ERR_INVALID_ARGUMENT, "too small");
  Found root;
  ASSERT_EQ(find(v.volume->catalog, kRootFolderCnid, 1, &root), MORV_OK);
  EXPECT_LOGGED(morv_catalog_rename_record(v.volume->catalog, &root.result.locator,
                                           on_disk(kRootParentCnid), nullptr, 0),
                MORV_ERR_INVALID_ARGUMENT, "empty name");
  ASSERT_EQ(morv_catalog_flush(v.volume->catalog), MORV_OK);
  EXPECT_EQ(v.file.read_all(), renamed);
  EXPECT_EQ(v.label(), std::u16string(60, u'y'));

  // update_fork_data touches exactly its field, and refuses CNIDs without one.
  uint8_t fork_data[forkdata::kSize];
  memset(fork_data, 0xAB, sizeof fork_data);
  morv_volume_update_fork_data(v.volume, kCatalogFileCnid, fork_data);
  auto expected = header_before;
  memset(&expected[vh::kCatalogFile], 0xAB, forkdata::kSize);
  EXPECT_EQ(std::vector<uint8_t>(v.volume->header, v.volume->header + vh::kSize), expected);
  EXPECT_TRUE(has(logged([&] {
    morv_volume_update_fork_data(v.volume, kBadBlocksFileCnid, fork_data);
    morv_volume_update_fork_data(v.volume, 9, fork_data);
  }), "Unexpected catalog node ID for volume header file: 5"));
  EXPECT_EQ(std::vector<uint8_t>(v.volume->header, v.volume->header + vh::kSize), expected);
  memcpy(v.volume->header + vh::kCatalogFile, &header_before[vh::kCatalogFile], forkdata::kSize);
}

TEST(VolumeLabel, InjectedFailuresLeaveTheCatalogAsItWas) {
  const std::string args =
      "--size 8388608 --block-size 512 --catalog-node-size 512 --label Stable --files 200 --fill 70";
  const auto name = big_endian(u"A much longer label that moves records between nodes");
  for (unsigned ops : {unsigned{MORV_SEAM_ALLOC}, unsigned{MORV_SEAM_READ}}) {
    for (uint64_t n = 1;; ++n) {
      OpenVolume v(args);
      ASSERT_EQ(v.err, MORV_OK);
      const auto pristine = v.file.read_all();
      morv_seam_fail_at(ops, n);
      testing::internal::CaptureStderr();
      const morv_err err = morv_volume_set_label(v.volume, name.data(), name.size());
      const std::string log = testing::internal::GetCapturedStderr();
      const bool delivered = morv_seam_failure_delivered();
      morv_seam_fail_at(0, 0);
      if (!delivered) {
        ASSERT_EQ(err, MORV_OK);
        break;
      }
      EXPECT_NE(err, MORV_OK) << "n=" << n;
      EXPECT_EQ(v.label(), u"Stable");
      // The catalog's cache is as it was: flushing it writes nothing new.
      ASSERT_EQ(morv_catalog_flush(v.volume->catalog), MORV_OK);
      ASSERT_EQ(v.file.read_all(), pristine) << "n=" << n;
    }
  }
}

// A label no longer than the current one takes no more room in any node:
// renaming to it never fails, whatever the shape of the catalog, even with
// every node full and none free.
TEST(VolumeLabel, ALabelNoLongerThanTheCurrentOneAlwaysFits) {
  const struct { const char* shape; size_t label; } shapes[] = {
      {"--block-size 512 --catalog-node-size 512 --files 300 --free-catalog-nodes 0", 97},
      {"--catalog-node-size 4096 --files 3000 --name-length 200 --free-catalog-nodes 0", 200},
      {"--block-size 512 --catalog-node-size 1024 --files 400 --name-length 60 "
       "--free-catalog-nodes 0", 255},
      {"--block-size 1024 --catalog-node-size 2048 --files 500 --folders 20 --free-catalog-nodes 1",
       150},
      {"--catalog-node-size 8192 --files 900 --name-length 100 --free-catalog-nodes 0 --hfsx", 255},
      {"--block-size 32768 --catalog-node-size 32768 --files 2000 --name-length 90 "
       "--free-catalog-nodes 0",
       255},
  };
  std::mt19937 rng(3);
  for (const auto& s : shapes) {
    SCOPED_TRACE(s.shape);
    OpenVolume v(std::string("--size 67108864 --label ") + std::string(s.label, 'L') + " " + s.shape);
    ASSERT_EQ(v.err, MORV_OK);
    for (int i = 0; i < 6; ++i) {
      const size_t length = i == 0 ? s.label : 1 + rng() % v.label().size();
      std::u16string label(length, u'a');
      for (auto& c : label) c = u"AbCdEf0123"[rng() % 10];
      const auto units = big_endian(label);
      ASSERT_EQ(morv_volume_set_label(v.volume, units.data(), units.size()), MORV_OK) << length;
      EXPECT_EQ(v.label(), label);
    }
    ASSERT_EQ(morv_catalog_flush(v.volume->catalog), MORV_OK);
    EXPECT_EQ(check_image(v.file.path()), "");
  }
}

constexpr const char* kBase = "--size 8388608 --label State --files 20";

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
  const char* const messages[] = {"Error while reading the journal info block.\n",
                                  "Error while reading the journal header.\n"};
  PatchedVolume v(std::string(kBase) + " --journal dirty");
  for (unsigned ops : {unsigned{MORV_SEAM_ALLOC}, unsigned{MORV_SEAM_READ}}) {
    morv_volume_state state = kUnset;
    std::string log;
    const auto check = [&] {
      state = kUnset;
      return logged_into(log, [&] { return morv_volume_check_state(v.volume, &state); });
    };
    // The info block, then the journal header.
    EXPECT_EQ(fail_each(ops, check, [&](morv_err err, bool failed, uint64_t n) {
      if (!failed) {
        EXPECT_EQ(err, MORV_OK) << log;
        EXPECT_EQ(state, MORV_VOLUME_JOURNAL_DIRTY);
        return;
      }
      EXPECT_EQ(err, ops == MORV_SEAM_ALLOC ? MORV_ERR_NO_MEMORY : MORV_ERR_IO) << "n=" << n;
      ASSERT_LE(n, 2u);
      EXPECT_TRUE(has(log, messages[n - 1])) << log;
      EXPECT_EQ(state, kUnset);
    }), 2u);
  }
}
