// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "alloc_test_support.hpp"

using namespace alloc_test;
using morv_test::has;
using morv_test::logged;

// 256 blocks of 4 KiB: 0 reserved, 1 allocation file, 2-10 extents overflow
// file, 11-28 catalog, 29-254 free, 255 the alternate header's.
const char* const kSmall = "--size 1048576 --label Bits";

TEST(BitmapBits, OrderRollbackFreeingInPlaceAndInjectedFailures) {
  Volume v(kSmall);
  morv_bitmap* bitmap = v.volume->bitmap;
  const uint32_t free_blocks = field(v.volume, vh::kFreeBlocks);
  // Block 32 is byte 4's most significant bit, block 39 its least.
  ASSERT_EQ(AllocateExtentAllocationBlocks(32, 1, v.volume), MORV_OK);
  EXPECT_EQ(v.bitmap_byte(4), 0x80);
  ASSERT_EQ(AllocateExtentAllocationBlocks(39, 1, v.volume), MORV_OK);
  EXPECT_EQ(v.bitmap_byte(4), 0x81);
  // A run whose third block is taken sets two bits, clears them again, returns 1.
  EXPECT_LOGGED(AllocateExtentAllocationBlocks(37, 4, v.volume), MORV_ERR_GENERIC,
                "Block 39 is already allocated.\n");
  EXPECT_EQ(v.bitmap_byte(4), 0x81);
  EXPECT_EQ(field(v.volume, vh::kFreeBlocks), free_blocks - 2);
  // A run starting at nextAllocation moves it behind the run.
  ASSERT_EQ(field(v.volume, vh::kNextAllocation), 29u);
  ASSERT_EQ(AllocateExtentAllocationBlocks(29, 2, v.volume), MORV_OK);
  EXPECT_EQ(field(v.volume, vh::kNextAllocation), 31u);
  EXPECT_EQ(AllocateExtentAllocationBlocks(250, 7, v.volume), MORV_ERR_INVALID_ARGUMENT);  // past block 255

  // Freeing writes the block's byte at its own place: byte 0 (blocks 0-7,
  // all in use) is the start of the 4 KiB chunk and stays as it is.
  ASSERT_EQ(FreeAllocationBlock(39, bitmap), MORV_OK);
  EXPECT_EQ(v.bitmap_byte(4), 0x80);
  EXPECT_EQ(v.bitmap_byte(0), 0xFF);
  for (uint32_t b : {32u, 29u, 30u}) ASSERT_EQ(FreeAllocationBlock(b, bitmap), MORV_OK);
  morv_volume_increment_free_blocks(v.volume, 4);
  v.flush();
  // A block already free: 1, and nothing is written.
  EXPECT_EQ(FreeAllocationBlock(39, bitmap), MORV_ERR_GENERIC);
  EXPECT_EQ(morv_fork_dirty_items(morv_bitmap_fork(bitmap)), 0u);
  EXPECT_EQ(v.check(), "");

  EXPECT_GT(alloc_test::fail_each_unchanged(v, [](morv_volume* vol) {
              return AllocateExtentAllocationBlocks(60, 20, vol);
            }), 0u);
  EXPECT_TRUE(v.marked(79));
  EXPECT_EQ(field(v.volume, vh::kFreeBlocks), free_blocks - 20);
  // Freed again through fork data holding them, under the same failures.
  const auto held = fork_data({{60, 5}, {65, 15}});
  alloc_test::fail_each_unchanged(v, [&](morv_volume* vol) {
    uint32_t freed = 0;
    morv_err err = FreeExtentAllocationBlocks(held.data(), 0, 20, vol->bitmap, &freed);
    if (!err) { EXPECT_EQ(freed, 20u); }
    return err;
  });
  morv_volume_increment_free_blocks(v.volume, 20);
  EXPECT_EQ(v.check(), "");
}

TEST(BitmapBits, FreeingExtentRangesIsAllOrNothing) {
  Volume v(kSmall);
  ASSERT_EQ(AllocateExtentAllocationBlocks(40, 3, v.volume), MORV_OK);
  ASSERT_EQ(AllocateExtentAllocationBlocks(50, 2, v.volume), MORV_OK);
  const auto fd = fork_data({{40, 3}, {50, 2}});
  // Fork blocks 2-3 are block 42 of the first extent and 50 of the second.
  uint32_t freed = 0;
  ASSERT_EQ(FreeExtentAllocationBlocks(fd.data(), 2, 2, v.volume->bitmap, &freed), MORV_OK);
  EXPECT_EQ(freed, 2u);
  EXPECT_FALSE(v.marked(42));
  EXPECT_FALSE(v.marked(50));
  EXPECT_TRUE(v.marked(51));
  // Block 42 is free now: freeing the whole fork stops there and marks 40
  // and 41 again.
  freed = 99;
  EXPECT_LOGGED(FreeExtentAllocationBlocks(fd.data(), 0, 5, v.volume->bitmap, &freed), MORV_ERR_GENERIC,
                "Error while freeing allocation block 42.\n");
  EXPECT_EQ(freed, 99u);
  EXPECT_TRUE(v.marked(40) && v.marked(41) && v.marked(51));
  // A range past the extents frees what they hold.
  ASSERT_EQ(FreeExtentAllocationBlocks(fd.data(), 0, 2, v.volume->bitmap, &freed), MORV_OK);
  ASSERT_EQ(FreeExtentAllocationBlocks(fd.data(), 4, 100, v.volume->bitmap, &freed), MORV_OK);
  EXPECT_EQ(freed, 1u);
  morv_volume_increment_free_blocks(v.volume, 5);
  EXPECT_EQ(v.check(), "");

  // An extent whose end passes block 2^32 - 1: fork blocks 2-5 would be
  // blocks 0-3 once truncated (the header and the bitmap itself). Refused
  // before any bit changes, and such a startup file is never opened.
  const auto wraps = fork_data({{0xFFFFFFFEu, 6}});
  EXPECT_LOGGED(FreeExtentAllocationBlocks(wraps.data(), 2, 4, v.volume->bitmap, &freed), MORV_ERR_CORRUPT,
                "lies beyond the volume's 256 allocation blocks");
  EXPECT_EQ(v.bitmap_byte(0), 0xFF);
  std::copy(wraps.begin(), wraps.end(), startup(v.volume));
  morv_fork* fork = nullptr;
  EXPECT_LOGGED(morv_fork_create(v.device, v.volume->extents, 0, v.volume->header, kStartupFileCnid,
                                 startup(v.volume), 0, &fork),
                MORV_ERR_CORRUPT, "lies beyond the volume's 256 allocation blocks");
  EXPECT_EQ(fork, nullptr);
}

TEST(BitmapSearch, FirstFitOnByteBoundariesWrapsOnceAndNeverPassesTheEnd) {
  Volume v(kSmall);
  morv_write_location loc{};
  // Hint 0 is nextAllocation (29), where the free space begins.
  ASSERT_EQ(FindContiguousUnallocated(v.volume, 4, 0, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 29u);
  EXPECT_EQ(loc.block_count, 4u);
  // From an allocated block the first free run after it, wherever it starts.
  ASSERT_EQ(FindContiguousUnallocated(v.volume, 4, 12, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 29u);
  // More than any free run: around once, then nothing, as count 0 at block 0.
  loc.start_block = 7;
  ASSERT_EQ(FindContiguousUnallocated(v.volume, 227, 100, &loc), MORV_OK);
  EXPECT_EQ(loc.block_count, 0u);
  EXPECT_EQ(loc.start_block, 0u);
  // With the last block free, a run of one may start there, a run of two may
  // not: it would pass totalBlocks.
  ASSERT_EQ(FreeAllocationBlock(255, v.volume->bitmap), MORV_OK);
  ASSERT_EQ(FindContiguousUnallocated(v.volume, 1, 255, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 255u);
  ASSERT_EQ(FindContiguousUnallocated(v.volume, 2, 255, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 29u);
  ASSERT_EQ(AllocateExtentAllocationBlocks(255, 1, v.volume), MORV_OK);
  morv_volume_increment_free_blocks(v.volume, 1);
  EXPECT_EQ(v.check(), "");

  // A full volume: from its last block around to block 0 and back, nothing.
  Volume full("--size 1048576 --label Full --free-blocks 0");
  const uint32_t last = field(full.volume, vh::kTotalBlocks) - 1;
  loc.block_count = 9;
  ASSERT_EQ(FindContiguousUnallocated(full.volume, 1, last, &loc), MORV_OK);
  EXPECT_EQ(loc.block_count, 0u);
  EXPECT_EQ(loc.start_block, 0u);

  // Free runs that begin inside a byte are seen: only 31, 33, 35, 37, 39
  // and 40 free, two blocks are found at 39; with 40 taken, a symbolic
  // link still gets a block.
  Volume odd("--size 1048576 --label Odd --files 1");
  std::vector<uint32_t> filler;
  for (uint32_t b = 0; b < 256; ++b) {
    if (b == 31 || (b >= 33 && b <= 39 && b % 2) || b == 40 || odd.marked(b)) continue;
    ASSERT_EQ(AllocateExtentAllocationBlocks(b, 1, odd.volume), MORV_OK) << b;
    filler.push_back(b);
  }
  ASSERT_EQ(FindContiguousUnallocated(odd.volume, 2, 0, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 39u);
  EXPECT_EQ(loc.block_count, 2u);
  ASSERT_EQ(AllocateExtentAllocationBlocks(40, 1, odd.volume), MORV_OK);
  ASSERT_EQ(make_symlink(odd.volume, 16, u"target"), MORV_OK);
  EXPECT_EQ(odd.free_blocks(), 4u);
  filler.push_back(40);
  for (uint32_t b : filler) ASSERT_EQ(FreeAllocationBlock(b, odd.volume->bitmap), MORV_OK);
  morv_volume_increment_free_blocks(odd.volume, static_cast<uint32_t>(filler.size()));
  EXPECT_EQ(odd.check(), "");
}

TEST(BitmapSearch, WriteLocationsFollowTheLastExtentThroughOverflowRecords) {
  Volume v(kSmall);
  uint8_t* header = v.volume->header;
  morv_write_location loc{};
  // The catalog (11-28) ends where the free space begins: it is lengthened.
  ASSERT_EQ(FindWriteLocation(4, 0, header + vh::kCatalogFile, v.volume, 0, 8192, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 29u);
  EXPECT_EQ(loc.block_count, 2u);
  EXPECT_EQ(loc.extent_index, 0u);
  // The extents file (2-10) is followed by the catalog: a new extent.
  ASSERT_EQ(FindWriteLocation(3, 0, header + vh::kExtentsFile, v.volume, 0, 4097, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 29u);
  EXPECT_EQ(loc.extent_index, 1u);
  // An empty fork starts at nextAllocation in its first extent.
  ASSERT_EQ(FindWriteLocation(7, 0, header + vh::kStartupFile, v.volume, 0, 1, &loc), MORV_OK);
  EXPECT_EQ(loc.start_block, 29u);
  EXPECT_EQ(loc.extent_index, 0u);

  auto refused = [&](std::vector<uint8_t> fd, morv_err expected, const char* message) {
    EXPECT_TRUE(has(logged([&] {
      EXPECT_EQ(FindWriteLocation(4, 0, fd.data(), v.volume, 0, 4096, &loc), expected);
    }), message)) << message;
  };
  auto gap = fork_data({{11, 18}});
  store_be32(&gap[forkdata::kTotalBlocks], 20);
  refused(gap, MORV_ERR_CORRUPT, "Encountered zero block count in extent.\n");
  store_be32(&gap[forkdata::kTotalBlocks], 10);
  refused(gap, MORV_ERR_CORRUPT, "Inconsistent extent record: Found more blocks than the number of "
                                 "allocated blocks (18 > 10).\n");
  auto eight = fork_data({{11, 1}, {12, 1}, {13, 1}, {14, 1}, {15, 1}, {16, 1}, {17, 1}, {18, 1}});
  store_be32(&eight[forkdata::kTotalBlocks], 9);
  refused(eight, MORV_ERR_CORRUPT, "Could not find next extent record.\n");
  EXPECT_EQ(FindWriteLocation(4, 0, nullptr, v.volume, 0, 1, &loc), MORV_ERR_INVALID_ARGUMENT);

  // Ten catalog fragments, the last two in an overflow record: the run
  // continues the tenth extent; failures come back as they are.
  Volume frag("--size 4194304 --label Frag --catalog-fragments 10");
  auto locate = [](morv_volume* vol) {
    morv_write_location l{};
    morv_err err = FindWriteLocation(4, 0, vol->header + vh::kCatalogFile, vol, 0, 4096, &l);
    if (!err) { EXPECT_EQ(l.extent_index, 9u); }
    return err;
  };
  EXPECT_GT(alloc_test::fail_each_unchanged(frag, locate), 0u);
}

TEST(BitmapUpdateForks, WritesBeyondTheExtentsTakeBlocksAllOrNothing) {
  Volume v(kSmall);
  auto fd = fork_data({});  // a file's empty data fork
  morv_write_location loc{};
  ASSERT_EQ(UpdateForks(v.volume, fd.data(), 0, 5000, &loc), MORV_OK);
  EXPECT_EQ(fd, fork_data({{29, 2}}));
  EXPECT_EQ(loc.block_count, 2u);
  EXPECT_EQ(loc.requested_length, 5000u);
  EXPECT_EQ(loc.requested_length_copy, 5000u);
  EXPECT_TRUE(v.marked(29) && v.marked(30));
  // A write inside the extents needs nothing.
  ASSERT_EQ(UpdateForks(v.volume, fd.data(), 4096, 100, &loc), MORV_OK);
  EXPECT_EQ(loc.block_count, 0u);
  // Past them: the run continues the extent, or, once its next block is
  // taken, opens the next one.
  ASSERT_EQ(UpdateForks(v.volume, fd.data(), 8192, 4096, &loc), MORV_OK);
  EXPECT_EQ(fd, fork_data({{29, 3}}));
  ASSERT_EQ(AllocateExtentAllocationBlocks(32, 1, v.volume), MORV_OK);
  ASSERT_EQ(UpdateForks(v.volume, fd.data(), 12288, 4096, &loc), MORV_OK);
  EXPECT_EQ(fd, fork_data({{29, 3}, {33, 1}}));
  EXPECT_EQ(loc.extent_index, 1u);

  auto full = fork_data({{2, 1}, {3, 1}, {4, 1}, {5, 1}, {6, 1}, {7, 1}, {8, 1}, {9, 1}});
  const auto before = full;
  EXPECT_LOGGED(UpdateForks(v.volume, full.data(), 8 * 4096, 1, &loc), MORV_ERR_EXTENT_LIMIT,
                "HFSPlus: [UpdateForks] Not handling overflow extents yet.\n");
  EXPECT_EQ(full, before);
  // Under failures the fork data changes only with a successful call.
  alloc_test::fail_each_unchanged(v, [&](morv_volume* vol) {
    auto copy = fd;
    morv_err err = UpdateForks(vol, copy.data(), 16384, 4096, &loc);
    if (err) { EXPECT_EQ(copy, fd); }
    return err;
  });
  fd = fork_data({{29, 3}, {33, 2}});
  uint32_t freed = 0;
  ASSERT_EQ(FreeExtentAllocationBlocks(fd.data(), 0, 5, v.volume->bitmap, &freed), MORV_OK);
  ASSERT_EQ(FreeAllocationBlock(32, v.volume->bitmap), MORV_OK);
  morv_volume_increment_free_blocks(v.volume, freed + 1);
  EXPECT_EQ(v.check(), "");

  // No free run: an error, and the fork data keeps no run at block 0.
  Volume none("--size 1048576 --label Full --free-blocks 0");
  auto empty = fork_data({});
  EXPECT_EQ(UpdateForks(none.volume, empty.data(), 0, 1, &loc), MORV_ERR_UNSUPPORTED);
  EXPECT_EQ(empty, fork_data({}));
}
