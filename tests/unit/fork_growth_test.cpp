// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstring>

#include "alloc_test_support.hpp"
#include "fork_test_support.hpp"

using namespace alloc_test;
using morv_test::has;
using morv_test::logged;

// 256 blocks of 4 KiB, free from 29 to 254 (block 255 holds the alternate header).
const char* const kSmall = "--size 1048576 --label Grow";

TEST(ForkGrowth, ClumpsLengthenOrAddExtentsShrinkingFreesAndTheAlternateHeaderFollows) {
  Volume v(kSmall);
  morv_fork* fork = startup_fork(v.volume, 4);
  const uint32_t free_blocks = field(v.volume, vh::kFreeBlocks);
  uint32_t added = 0;
  ASSERT_EQ(morv_fork_expand(fork, v.volume, &added), MORV_OK);
  EXPECT_EQ(added, 4u);
  EXPECT_EQ(extent(v.volume, 0), std::make_pair(29u, 4u));
  EXPECT_EQ(load_be32(startup(v.volume) + forkdata::kTotalBlocks), 4u);
  // logicalSize follows the fork, so that its I/O reaches the new blocks.
  EXPECT_EQ(load_be64(startup(v.volume)), 16384u);
  EXPECT_EQ(*fork->logical_size, 16384u);
  EXPECT_EQ(field(v.volume, vh::kFreeBlocks), free_blocks - 4);
  EXPECT_EQ(field(v.volume, vh::kNextAllocation), 33u);
  const auto data = fork_test::bytes_of(16384, 3);
  ASSERT_EQ(morv_fork_write(fork, 0, data.data(), data.size(), nullptr), MORV_OK);
  ASSERT_EQ(morv_fork_flush(fork), MORV_OK);
  const auto image = v.bytes();
  EXPECT_TRUE(std::equal(data.begin(), data.end(), image.begin() + 29 * 4096));

  // The next clump lengthens the extent; with the block behind it taken,
  // the one after gets the next extent.
  ASSERT_EQ(morv_fork_expand(fork, v.volume, &added), MORV_OK);
  EXPECT_EQ(extent(v.volume, 0), std::make_pair(29u, 8u));
  ASSERT_EQ(AllocateExtentAllocationBlocks(37, 1, v.volume), MORV_OK);
  ASSERT_EQ(morv_fork_expand(fork, v.volume, &added), MORV_OK);
  EXPECT_EQ(extent(v.volume, 1), std::make_pair(38u, 4u));
  ASSERT_EQ(FreeAllocationBlock(37, v.volume->bitmap), MORV_OK);
  morv_volume_increment_free_blocks(v.volume, 1);
  EXPECT_EQ(v.check(), "");  // bitmap, freeBlocks and the alternate header's extents

  // Shrinking by 6 drops the second extent and cuts the first to 6 blocks.
  ASSERT_EQ(morv_fork_shrink(fork, v.volume, 6), MORV_OK);
  EXPECT_EQ(extent(v.volume, 0), std::make_pair(29u, 6u));
  EXPECT_EQ(extent(v.volume, 1), std::make_pair(0u, 0u));
  EXPECT_EQ(*fork->logical_size, 6u * 4096);
  EXPECT_FALSE(v.marked(35) || v.marked(40) || v.marked(43));
  EXPECT_TRUE(v.marked(34));
  std::vector<uint8_t> back(4096);
  ASSERT_EQ(morv_fork_read(fork, 4096, back.data(), back.size(), nullptr), MORV_OK);
  EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin() + 4096));
  ASSERT_EQ(morv_fork_shrink(fork, v.volume, 6), MORV_OK);
  EXPECT_EQ(field(v.volume, vh::kFreeBlocks), free_blocks);
  EXPECT_EQ(v.check(), "");
  const uint64_t alternate = 256 * 4096 - 1024;
  const auto flushed = v.bytes();
  // The alternate copy holds the special files' fork data as the header does.
  EXPECT_EQ(memcmp(&flushed[alternate + vh::kAllocationFile], &flushed[1024 + vh::kAllocationFile],
                   vh::kSize - vh::kAllocationFile), 0);
  // A flush with no fork data change writes the header's sector only.
  morv_seam_reset_stats();
  ASSERT_EQ(morv_volume_flush(v.volume), MORV_OK);
  EXPECT_EQ(morv_seam_get_stats().writes, 1u);
  morv_fork_destroy(&fork);
}

TEST(ForkGrowth, WriteLocationsLengthenTheLastExtentOrFillTheNextOnly) {
  uint8_t fd[forkdata::kSize] = {};
  auto apply = [&](uint32_t index, uint32_t start, uint32_t count) {
    morv_write_location loc{};
    loc.extent_index = index;
    loc.start_block = start;
    loc.block_count = count;
    return UpdateForkExtents(fd, &loc);
  };
  ASSERT_EQ(apply(0, 40, 2), MORV_OK);
  ASSERT_EQ(apply(0, 42, 3), MORV_OK);  // continues extent 0
  ASSERT_EQ(apply(1, 50, 1), MORV_OK);
  EXPECT_EQ(load_be32(fd + forkdata::kExtents + 4), 5u);
  EXPECT_EQ(load_be32(fd + forkdata::kExtents + 8), 50u);
  EXPECT_EQ(load_be32(fd + forkdata::kTotalBlocks), 6u);
  EXPECT_EQ(load_be64(fd), 0u);  // logicalSize is the caller's
  uint8_t before[forkdata::kSize];
  memcpy(before, fd, sizeof fd);
  // Replacing a used extent would lose its blocks, skipping one would end
  // the list early: both refused, like an empty run.
  EXPECT_EQ(apply(0, 60, 1), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(apply(3, 60, 1), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(apply(2, 60, 0), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_LOGGED(apply(8, 60, 1), MORV_ERR_EXTENT_LIMIT,
                "Unable to update fork extents beyond the first 8 extents.");
  EXPECT_EQ(memcmp(before, fd, sizeof fd), 0);
  EXPECT_EQ(UpdateForkExtents(nullptr, nullptr), MORV_ERR_INVALID_ARGUMENT);
}

TEST(ForkGrowth, RefusalsLeaveHeaderAndBitmapAlone) {
  Volume v(kSmall);
  morv_fork* fork = startup_fork(v.volume, 4);
  auto unchanged = [&](morv_fork* f, morv_err expected, const char* message) {
    const std::vector<uint8_t> header(v.volume->header, v.volume->header + vh::kSize);
    uint32_t added = 77;
    EXPECT_LOGGED(morv_fork_expand(f, v.volume, &added), expected, message);
    EXPECT_EQ(added, 77u);
    EXPECT_EQ(memcmp(header.data(), v.volume->header, vh::kSize), 0);
    EXPECT_FALSE(v.marked(29) || v.marked(32));
  };
  // The bad blocks file has no fork data in the header.
  uint8_t bad_blocks[forkdata::kSize] = {};
  morv_fork* other = nullptr;
  ASSERT_EQ(morv_fork_create(v.device, nullptr, 1, v.volume->header, 5, bad_blocks, 0, &other), MORV_OK);
  unchanged(other, MORV_ERR_INTERNAL, "Invalid CNID for morv_fork_expand (5). We currently only "
                                      "support forks with their fork data in the volume header.\n");
  EXPECT_LOGGED(morv_fork_shrink(other, v.volume, 1), MORV_ERR_INTERNAL,
                "Invalid CNID for morv_fork_shrink (5).");
  morv_fork_destroy(&other);
  // The bitmap's own fork would write through itself while growing.
  unchanged(morv_bitmap_fork(v.volume->bitmap), MORV_ERR_INTERNAL, "serves as the volume's bitmap");
  // Eight extents in use (inside the extents file, so the run cannot
  // continue the last): no ninth.
  const auto eight_fd = fork_data({{2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}, {7, 1}, {8, 1}, {9, 1}});
  std::copy(eight_fd.begin() + forkdata::kTotalBlocks, eight_fd.end(), startup(v.volume) + forkdata::kTotalBlocks);
  morv_fork* eight = nullptr;
  ASSERT_EQ(morv_fork_create(v.device, v.volume->extents, 0, v.volume->header, 7, startup(v.volume), 0, &eight),
            MORV_OK);
  unchanged(eight, MORV_ERR_EXTENT_LIMIT, "Unable to update fork extents beyond the first 8 extents.");
  EXPECT_EQ(morv_fork_shrink(eight, v.volume, 9), MORV_ERR_INVALID_ARGUMENT);
  morv_fork_destroy(&eight);
  memset(startup(v.volume), 0, forkdata::kSize);
  // A clump below the block size adds 0 blocks and changes nothing.
  store_be32(startup(v.volume) + forkdata::kClumpSize, 4095);
  uint32_t added = 9;
  ASSERT_EQ(morv_fork_expand(fork, v.volume, &added), MORV_OK);
  EXPECT_EQ(added, 0u);
  EXPECT_EQ(load_be32(startup(v.volume) + forkdata::kTotalBlocks), 0u);
  // Unflushed writes are refused by the trailing flush, until flushed.
  store_be32(startup(v.volume) + forkdata::kClumpSize, 4 * 4096);
  ASSERT_EQ(morv_fork_expand(fork, v.volume, &added), MORV_OK);
  ASSERT_EQ(morv_fork_write(fork, 100, "x", 1, nullptr), MORV_OK);
  EXPECT_LOGGED(morv_fork_expand(fork, v.volume, &added), MORV_ERR_INVALID_ARGUMENT,
                "Error while flushing trailing part of fork.\n");
  ASSERT_EQ(morv_fork_flush(fork), MORV_OK);
  ASSERT_EQ(morv_fork_expand(fork, v.volume, &added), MORV_OK);
  ASSERT_EQ(morv_fork_shrink(fork, v.volume, 8), MORV_OK);
  morv_fork_destroy(&fork);
  EXPECT_EQ(v.check(), "");

  // A volume without a free run of the clump: an error, and no block 0
  // (nor any other) is allocated.
  Volume tight("--size 1048576 --label Tight --free-blocks 3");
  fork = startup_fork(tight.volume, 4);
  const uint32_t free_blocks = field(tight.volume, vh::kFreeBlocks);
  EXPECT_LOGGED(morv_fork_expand(fork, tight.volume, &added), MORV_ERR_UNSUPPORTED,
                "No free run of 4 blocks found in the allocation file.\n");
  EXPECT_EQ(field(tight.volume, vh::kFreeBlocks), free_blocks);
  EXPECT_EQ(load_be32(startup(tight.volume) + forkdata::kTotalBlocks), 0u);
  morv_fork_destroy(&fork);
  // A fork whose extents continue in an overflow record cannot take a ninth.
  Volume frag("--size 4194304 --label Frag --catalog-fragments 10");
  EXPECT_EQ(morv_fork_expand(frag.catalog_tree()->fork, frag.volume, &added), MORV_ERR_EXTENT_LIMIT);
}

TEST(ForkGrowth, InjectedFailuresLeaveTheVolumeAsItWas) {
  Volume v(kSmall);
  store_be32(startup(v.volume) + forkdata::kClumpSize, 3 * 4096);
  auto expand = [](morv_volume* vol) {
    return with_startup(vol, [&](morv_fork* f) {
      uint32_t added = 0;
      return morv_fork_expand(f, vol, &added);
    });
  };
  EXPECT_GT(alloc_test::fail_each_unchanged(v, expand), 0u);
  EXPECT_EQ(load_be32(startup(v.volume) + forkdata::kTotalBlocks), 3u);
  EXPECT_EQ(v.check(), "");
  EXPECT_GT(alloc_test::fail_each_unchanged(v, [](morv_volume* vol) {
              return with_startup(vol, [&](morv_fork* f) { return morv_fork_shrink(f, vol, 2); });
            }), 0u);
  EXPECT_EQ(load_be32(startup(v.volume) + forkdata::kTotalBlocks), 1u);
  EXPECT_EQ(v.check(), "");
  // A growth taken back after writes into its blocks leaves nothing to
  // write and the image as it was.
  const auto before = v.bytes();
  with_startup(v.volume, [&](morv_fork* f) {
    morv_fork_growth growth{};
    uint32_t added = 0;
    EXPECT_EQ(morv_fork_expand_recorded(f, v.volume, &added, &growth), MORV_OK);
    EXPECT_EQ(morv_fork_write(f, 4096, "new", 3, nullptr), MORV_OK);
    EXPECT_EQ(morv_fork_undo_growth(f, v.volume, &growth), MORV_OK);
    EXPECT_EQ(morv_fork_dirty_items(f), 0u);
    EXPECT_EQ(*f->logical_size, 4096u);
    return MORV_OK;
  });
  v.flush();
  EXPECT_EQ(v.bytes(), before);

  // The alternate header disagrees with the primary (one of them damaged):
  // a growth taken back changes no fork data, so a flush leaves the
  // alternate alone instead of copying the primary's records over it.
  const uint64_t alternate = 256 * 4096 - 1024 + vh::kAttributesFile + forkdata::kClumpSize;
  ASSERT_EQ(pwrite(v.fd, "\x7f", 1, static_cast<off_t>(alternate)), 1);
  v.reopen();
  const auto damaged = v.bytes();
  with_startup(v.volume, [&](morv_fork* f) {
    morv_fork_growth growth{};
    uint32_t added = 0;
    EXPECT_EQ(morv_fork_expand_recorded(f, v.volume, &added, &growth), MORV_OK);
    EXPECT_EQ(morv_fork_undo_growth(f, v.volume, &growth), MORV_OK);
    return MORV_OK;
  });
  v.flush();
  EXPECT_EQ(v.bytes(), damaged);
}
