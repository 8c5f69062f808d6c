// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "fork_test_support.hpp"

using namespace fork_test;

TEST(ForkExtents, ResolutionCasesAndCacheGeometry) {
  const std::vector<Extent> eight = {{10, 1}, {12, 2}, {15, 1}, {17, 3},
                                     {21, 1}, {23, 1}, {25, 1}, {27, 2}};
  {  // all eight in use and complete: the overflow tree (which would fail) is not asked
    ForkImage img(512, 40, eight);
    uint8_t* list = nullptr;
    size_t count = 0;
    ASSERT_EQ(morv_fork_resolve_extents(kSomeTree, 0, 4, img.fork_data, &list, &count), MORV_OK);
    EXPECT_EQ(count, 8u);
    EXPECT_EQ(memcmp(list, img.fork_data + forkdata::kExtents, 64), 0);
    morv_free(list);
  }
  {  // empty fork
    ForkImage img(512, 4, {});
    ASSERT_EQ(img.create(), MORV_OK);
    EXPECT_EQ(morv_fork_extent_count(img.fork), 0u);
    EXPECT_EQ(morv_fork_cache_slots(img.fork), 0u);
  }
  for (auto [size, items] : {std::pair<uint64_t, size_t>{1048576, 1}, {1048577, 2}}) {
    ForkImage img(4096, 301, {{1, 300}}, size);
    ASSERT_EQ(img.create(), MORV_OK);
    EXPECT_EQ(morv_fork_cache_slots(img.fork), items);
    EXPECT_EQ(morv_fork_sector_size(img.fork), 512u);
  }
  {  // sizes beyond the fork's blocks, the device's or the volume's are refused before
     // anything is sized (a fuzzed header once sized a 100 GB cache array)
    ForkImage img(512, 8, {{1, 2}}, uint64_t{1} << 42);
    EXPECT_LOGGED(img.create(), MORV_ERR_CORRUPT,
                  "Fork of CNID 4 is 4398046511104 bytes long, beyond its 2 allocation blocks of 512 bytes.\n");
    store_be32(img.fork_data + forkdata::kTotalBlocks, 9);
    EXPECT_LOGGED(img.create(), MORV_ERR_CORRUPT,
                  "Fork of CNID 4 has 9 allocation blocks of 512 bytes, more than its device's "
                  "4096 bytes.\n");
    store_be32(img.fork_data + forkdata::kTotalBlocks, 2);
    store_be64(img.fork_data, 1024);
    store_be32(img.header + vh::kTotalBlocks, 1);
    EXPECT_LOGGED(img.create(), MORV_ERR_CORRUPT,
                  "Fork of CNID 4 has 2 allocation blocks, more than the volume's 1.\n");
    EXPECT_EQ(img.fork, nullptr);
  }
  // Refusals leave the out-parameters alone.
  uint8_t* untouched = reinterpret_cast<uint8_t*>(&g_requests);
  size_t count = 99;
  auto resolve = [&](morv_extents* tree, uint32_t id, ForkImage& img) {
    return morv_fork_resolve_extents(tree, id, 4, img.fork_data, &untouched, &count);
  };
  {  // an empty extent with a start block, although the fork is already covered
    ForkImage img(512, 8, {{1, 2}});
    store_be32(img.fork_data + forkdata::kExtents + 8, 5);
    EXPECT_LOGGED(resolve(nullptr, 1, img), MORV_ERR_CORRUPT,
                  "Found zero-sized extent with non-0 start block.\n");
    // fewer than eight extents that stop short of totalBlocks
    store_be32(img.fork_data + forkdata::kExtents + 8, 0);
    store_be32(img.fork_data + forkdata::kTotalBlocks, 3);
    EXPECT_LOGGED(resolve(kSomeTree, 0, img), MORV_ERR_CORRUPT,
                  "Last extent ends before the end of the fork.\n");
  }
  // Blocks missing behind eight full extents.
  ForkImage img(512, 40, eight);
  store_be32(img.fork_data + forkdata::kTotalBlocks, 20);
  morv_fork_private* priv = nullptr;
  const std::string log = logged([&] {
    EXPECT_EQ(resolve(nullptr, 0, img), MORV_ERR_INTERNAL);
    EXPECT_EQ(morv_fork_private_create(img.device, nullptr, 0, 4, img.fork_data, 512, &priv),
              MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_TRUE(has(log, "No morv_extents reference and we are not reading extents partially.\n"));
  EXPECT_TRUE(has(log, "NULL extents overflow file.\n"));
  EXPECT_EQ(priv, nullptr);
  EXPECT_EQ(untouched, reinterpret_cast<uint8_t*>(&g_requests));
  EXPECT_EQ(count, 99u);
  ASSERT_EQ(img.create(), MORV_OK);  // partial: what the fork data holds
  EXPECT_EQ(morv_fork_extent_count(img.fork), 8u);
}

TEST(ForkRead, ServedOnceAcrossBordersAndPartialLastSector) {
  // 264 blocks of 4 KiB: 200 at block 300, then 64 at block 10; item 1 starts
  // at fork block 256, inside the second extent.
  ForkImage img(4096, 600, {{300, 200}, {10, 64}});
  ASSERT_EQ(img.create(), MORV_OK);
  const uint64_t border = 1048576, extent_end = 200 * 4096;
  std::vector<uint8_t> buf(64);
  size_t got = 0;
  img.observe();
  ASSERT_EQ(morv_fork_read(img.fork, extent_end - 32, buf.data(), 64, &got), MORV_OK);
  EXPECT_EQ(got, 64u);
  EXPECT_EQ(buf, img.fork_bytes(extent_end - 32, 64));
  ASSERT_EQ(morv_fork_read(img.fork, border - 16, buf.data(), 32, &got), MORV_OK);
  EXPECT_EQ(std::vector<uint8_t>(buf.begin(), buf.begin() + 32), img.fork_bytes(border - 16, 32));
  const std::vector<Request> expected = {
      {MORV_SEAM_READ, img.device_offset(extent_end - 512), 512},
      {MORV_SEAM_READ, img.device_offset(extent_end), 512},
      {MORV_SEAM_READ, img.device_offset(border - 512), 512},
      {MORV_SEAM_READ, img.device_offset(border), 512}};
  EXPECT_EQ(g_requests, expected);
  img.observe();  // the same bytes again come from memory only
  ASSERT_EQ(morv_fork_read(img.fork, extent_end - 32, buf.data(), 64, &got), MORV_OK);
  EXPECT_EQ(buf, img.fork_bytes(extent_end - 32, 64));
  EXPECT_TRUE(g_requests.empty());
  EXPECT_EQ(morv_seam_get_stats().allocs, 0u);
  EXPECT_LOGGED(morv_fork_read(img.fork, 264 * 4096 - 8, buf.data(), 9, &got), MORV_ERR_INVALID_ARGUMENT,
                "Attempted to read outside allocated fork size! Offset: 1081336, Length: 9, fork data size: 1081344\n");
  EXPECT_EQ(got, 0u);

  ForkImage small(512, 8, {{3, 2}}, 1000);
  ASSERT_EQ(small.create(), MORV_OK);
  buf.assign(600, 0xEE);
  small.observe();
  ASSERT_EQ(morv_fork_read(small.fork, 500, buf.data(), 500, &got), MORV_OK);
  // One whole device sector each; the partial one's 488 bytes are taken from
  // the end of its device sector, and nothing past the logical size is copied.
  EXPECT_EQ(g_requests, (std::vector<Request>{{MORV_SEAM_READ, 3 * 512, 512}, {MORV_SEAM_READ, 4 * 512, 512}}));
  EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + 12, small.disk.begin() + 3 * 512 + 500));
  EXPECT_TRUE(std::equal(buf.begin() + 12, buf.begin() + 500, small.disk.begin() + 4 * 512 + 24));
  EXPECT_EQ(buf[500], 0xEE);
  EXPECT_EQ(morv_fork_read(small.fork, 1000, buf.data(), 0, &got), MORV_OK);  // empty, at the end
}

TEST(ForkMap, BorderReferencesAndPointers) {
  ForkImage img(4096, 600, {{300, 264}});
  ASSERT_EQ(img.create(), MORV_OK);
  uint8_t* p = nullptr;
  size_t mapped = 7;
  EXPECT_LOGGED(morv_fork_unmap(img.fork, 1048576, &p, 512), MORV_ERR_INVALID_ARGUMENT,
                "Cache item 1 does not exist and cannot be unmapped.\n");
  EXPECT_LOGGED(morv_fork_map(img.fork, 1048560, &p, 32, &mapped), MORV_ERR_INVALID_ARGUMENT,
                "Cannot map region crossing cache item borders (offset: 1048560, length: 32, "
                "first_cache_item: 0, last_cache_item: 1).\n");
  EXPECT_EQ(mapped, 0u);
  EXPECT_EQ(p, nullptr);

  ASSERT_EQ(morv_fork_map(img.fork, 1024, &p, 1536, &mapped), MORV_OK);
  EXPECT_EQ(mapped, 1536u);
  uint8_t* start = nullptr;  // the item's first sector: p lies 1024 bytes into the same buffer
  ASSERT_EQ(morv_fork_map(img.fork, 0, &start, 512, nullptr), MORV_OK);
  EXPECT_EQ(p, start + 1024);
  ASSERT_EQ(morv_fork_unmap(img.fork, 0, &start, 512), MORV_OK);
  EXPECT_EQ(std::vector<uint8_t>(p, p + 1536), img.fork_bytes(1024, 1536));
  EXPECT_EQ(morv_fork_references(img.fork, 0), 3u);  // one per sector mapped
  uint8_t* wrong = p + 512;
  EXPECT_LOGGED(morv_fork_unmap(img.fork, 1024, &wrong, 1536), MORV_ERR_INVALID_ARGUMENT,
                "Unexpected pointer when unmapping");
  EXPECT_EQ(morv_fork_references(img.fork, 0), 3u);
  EXPECT_EQ(morv_fork_unmap(img.fork, 1024, &p, 1536), MORV_OK);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(morv_fork_references(img.fork, 0), 2u);
  EXPECT_TRUE(has(logged([&] { morv_fork_destroy(&img.fork); }), " with 2 remaining references.\n"));
  EXPECT_EQ(img.fork, nullptr);
}

TEST(ForkWrite, CacheOnlyThenFlushWritesModifiedRuns) {
  std::unique_ptr<ForkImage> img = split_image();
  const std::vector<uint8_t> original = img->disk;
  img->observe();
  img->write(14 * 512, bytes_of(2048, 1));  // whole sectors: nothing read
  EXPECT_TRUE(g_requests.empty());
  img->write(30 * 512 + 100, {0x5A});  // one byte: its sector is read first
  EXPECT_EQ(g_requests, (std::vector<Request>{{MORV_SEAM_READ, 60 * 512 + 4 * 512, 512}}));
  img->write(14 * 512, bytes_of(512, 3));  // the same sector again
  EXPECT_EQ(morv_fork_modified_sectors(img->fork, 0), 5u);
  EXPECT_EQ(morv_fork_dirty_items(img->fork), 1u);
  img->write(1048576 - 256, bytes_of(512, 2));
  EXPECT_EQ(morv_fork_dirty_items(img->fork), 2u);
  EXPECT_EQ(morv_fork_modified_sectors(img->fork, 0), 6u);
  EXPECT_EQ(img->file.read_all(), original);
  // A sector written whole and never read is served from the cache: reading
  // it from the device now would lose the write.
  img->observe();
  std::vector<uint8_t> back(512);
  ASSERT_EQ(morv_fork_read(img->fork, 15 * 512, back.data(), back.size(), nullptr), MORV_OK);
  EXPECT_EQ(back, img->fork_bytes(15 * 512, 512));
  EXPECT_TRUE(g_requests.empty());

  img->observe();
  ASSERT_EQ(morv_fork_flush(img->fork), MORV_OK);
  const std::vector<Request> expected = {{MORV_SEAM_WRITE, 40 * 512 + 14 * 512, 1024},
                                         {MORV_SEAM_WRITE, 2 * 512, 1024},
                                         {MORV_SEAM_WRITE, 60 * 512 + 4 * 512, 512},
                                         {MORV_SEAM_WRITE, img->device_offset(1048576 - 512), 512},
                                         {MORV_SEAM_WRITE, img->device_offset(1048576), 512}};
  EXPECT_EQ(g_requests, expected);
  EXPECT_EQ(img->file.read_all(), img->disk);
  EXPECT_EQ(morv_fork_dirty_items(img->fork), 0u);
  EXPECT_EQ(morv_fork_modified_sectors(img->fork, 0), 0u);
  img->observe();
  ASSERT_EQ(morv_fork_flush(img->fork), MORV_OK);
  EXPECT_TRUE(g_requests.empty());

  // A fork sector smaller than the device sector is refused before any I/O,
  // but only when there is something to flush.
  img->device->sector_size = 4096;
  EXPECT_EQ(morv_fork_flush(img->fork), MORV_OK);
  img->device->sector_size = 512;
  img->write(0, bytes_of(512, 4));
  img->device->sector_size = 4096;
  EXPECT_LOGGED(morv_fork_flush(img->fork), MORV_ERR_INTERNAL,
                "Modification bitmap block size (512) is not a multiple of sector size (4096).\n");
  EXPECT_TRUE(g_requests.empty());
  img->device->sector_size = 512;
}

TEST(ForkWrite, FillAndBounds) {
  ForkImage img(512, 64, {{8, 40}});
  ASSERT_EQ(img.create(), MORV_OK);
  img.write(0, {1});  // the item exists from here on
  uint64_t filled = 0;
  morv_seam_reset_stats();
  ASSERT_EQ(morv_fork_fill(img.fork, 100, 3, 0x77, &filled), MORV_OK);
  EXPECT_EQ(filled, 3u);
  EXPECT_EQ(morv_seam_get_stats().allocs, 0u);  // the 8-byte buffer in the frame
  ASSERT_EQ(morv_fork_fill(img.fork, 1000, 5000, 0xA5, &filled), MORV_OK);
  EXPECT_EQ(filled, 5000u);
  // Written sectors are not marked valid, so the result is checked on disk.
  ASSERT_EQ(morv_fork_flush(img.fork), MORV_OK);
  img.disk[8 * 512] = 1;
  std::fill_n(img.disk.begin() + 8 * 512 + 100, 3, 0x77);
  std::fill_n(img.disk.begin() + 8 * 512 + 1000, 5000, 0xA5);
  EXPECT_EQ(img.file.read_all(), img.disk);
  // An empty write, even without a buffer or at the fork's end, does nothing.
  morv_seam_reset_stats();
  size_t written = 9;
  EXPECT_EQ(morv_fork_write(img.fork, 0, nullptr, 0, &written), MORV_OK);
  EXPECT_EQ(morv_fork_write(img.fork, 40 * 512, nullptr, 0, &written), MORV_OK);
  EXPECT_EQ(written, 0u);
  ASSERT_EQ(morv_fork_flush(img.fork), MORV_OK);
  const morv_seam_stats stats = morv_seam_get_stats();
  EXPECT_EQ(stats.allocs + stats.reads + stats.writes, 0u);
  uint8_t byte = 0;
  written = 9;
  EXPECT_LOGGED(morv_fork_fill(img.fork, 40 * 512 - 10, 11, 0, &filled), MORV_ERR_INVALID_ARGUMENT,
                "Attempted to fill outside allocated fork size! Offset: 20470, Length: 11, fork data size: 20480\n");
  EXPECT_LOGGED(morv_fork_write(img.fork, 40 * 512, &byte, 1, &written), MORV_ERR_INVALID_ARGUMENT,
                "Attempted to write outside allocated fork size!");
  EXPECT_EQ(filled, 0u);
  EXPECT_EQ(written, 0u);
}

TEST(ForkFailures, CreateReadWriteEachFailureReported) {
  // 2050 sectors: the range [1048560, end) touches both items and ends in a
  // partial sector, so reads go through whole-sector and lead-out transfers.
  ForkImage img(512, 2100, {{20, 2052}}, 1048576 + 1000);
  const std::vector<uint8_t> original = img.disk;
  morv_fork* const sentinel = reinterpret_cast<morv_fork*>(&g_requests);
  testing::internal::CaptureStderr();
  morv_fork* fork = sentinel;
  EXPECT_GT(fail_each(MORV_SEAM_ALLOC, [&] {
    return morv_fork_create(img.device, nullptr, 1, img.header, 4, img.fork_data, 0, &fork);
  }, [&](morv_err err, bool failed, uint64_t) {
    EXPECT_EQ(err, failed ? MORV_ERR_NO_MEMORY : MORV_OK);
    EXPECT_EQ(fork == sentinel, failed);
  }), 4u);
  morv_fork_destroy(&fork);
  const uint64_t offset = 1048560;
  const size_t length = 1016;
  const std::vector<uint8_t> data = bytes_of(length, 9);
  // The partial last sector's 488 bytes come from the end of its device
  // sector; a flush of that sector writes zeros past the logical size.
  const uint64_t last_sector = img.device_offset(1048576 + 512);
  std::vector<uint8_t> expected_read = img.fork_bytes(offset, length);
  std::copy_n(original.begin() + last_sector + 24, 488, expected_read.end() - 488);
  std::vector<uint8_t> written = original;
  for (size_t i = 0; i < length; ++i) written[img.device_offset(offset + i)] = data[i];
  std::fill_n(written.begin() + last_sector + 488, 24, 0);
  for (bool writing : {false, true}) {
    for (morv_seam_op kind : {MORV_SEAM_ALLOC, MORV_SEAM_READ}) {
      std::vector<uint8_t> buf(length, 0xEE);
      size_t count = 7;
      ASSERT_EQ(img.create(), MORV_OK);
      fail_each(kind, [&] {
        return writing ? morv_fork_write(img.fork, offset, data.data(), length, &count)
                       : morv_fork_read(img.fork, offset, buf.data(), length, &count);
      }, [&](morv_err err, bool failed, uint64_t) {
        EXPECT_EQ(img.file.read_all(), original);
        if (failed) {
          EXPECT_EQ(err, kind == MORV_SEAM_ALLOC ? MORV_ERR_NO_MEMORY : MORV_ERR_IO);
          EXPECT_EQ(count, 0u);
          EXPECT_EQ(buf, std::vector<uint8_t>(length, 0xEE));
        } else {
          EXPECT_EQ(err, MORV_OK);
          EXPECT_EQ(count, length);
          EXPECT_EQ(morv_fork_flush(img.fork), MORV_OK);
          EXPECT_EQ(img.file.read_all(), writing ? written : original);
          EXPECT_TRUE(writing || buf == expected_read);
          img.file.write_all(original);
        }
        morv_fork_destroy(&img.fork);  // a fresh fork for each run: nothing cached
        count = 7;
        if (failed) { EXPECT_EQ(img.create(), MORV_OK); }
      });
    }
  }
  testing::internal::GetCapturedStderr();
}

TEST(ForkFailures, FlushWritesOnlyWholeModifiedSectors) {
  // A failed flush leaves the runs before the failing request written and
  // the rest as they were; flushing again completes the image.
  testing::internal::CaptureStderr();
  std::unique_ptr<ForkImage> img = split_image();
  make_dirty(*img);
  const std::vector<uint8_t> before = img->file.read_all();
  EXPECT_EQ(fail_each(MORV_SEAM_WRITE, [&] { return morv_fork_flush(img->fork); }, [&](morv_err err, bool failed, uint64_t) {
    const std::vector<uint8_t> after = img->file.read_all();
    if (!failed) {
      EXPECT_EQ(err, MORV_OK);
      EXPECT_EQ(after, img->disk);
      return;
    }
    EXPECT_EQ(err, MORV_ERR_IO);
    size_t changed = 0;
    for (size_t s = 0; s < after.size(); s += 512) {
      const bool old = std::equal(after.begin() + s, after.begin() + s + 512, before.begin() + s);
      const bool fresh = std::equal(after.begin() + s, after.begin() + s + 512, img->disk.begin() + s);
      EXPECT_TRUE(old || fresh) << "sector " << s / 512;
      changed += !old;
    }
    EXPECT_LE(changed, 7u);
    EXPECT_EQ(morv_fork_flush(img->fork), MORV_OK);
    EXPECT_EQ(img->file.read_all(), img->disk);
    img = split_image();  // the next run starts from the same state
    make_dirty(*img);
  }), 5u);  // one failure per run
  testing::internal::GetCapturedStderr();
}

TEST(ForkWrite, NodesLargerThanABlockStraddlingTwoExtents) {
  // 4096-byte fork sectors (a catalog's nodes) over 1024-byte blocks whose
  // extents split fork sector 1 between two runs of the device.
  ForkImage img(1024, 64, {{10, 6}, {30, 10}});
  ASSERT_EQ(img.create(4096), MORV_OK);
  std::vector<uint8_t> node(4096);
  ASSERT_EQ(morv_fork_read(img.fork, 4096, node.data(), node.size(), nullptr), MORV_OK);
  EXPECT_EQ(node, img.fork_bytes(4096, 4096));
  img.write(4096, bytes_of(4096, 9));
  img.write(3 * 4096, bytes_of(4096, 5));
  img.observe();
  ASSERT_EQ(morv_fork_flush(img.fork), MORV_OK);
  // The straddling sector goes out as its two parts, each in its own run.
  const std::vector<Request> expected = {{MORV_SEAM_WRITE, 14 * 1024, 2048},
                                         {MORV_SEAM_WRITE, 30 * 1024, 2048},
                                         {MORV_SEAM_WRITE, 36 * 1024, 4096}};
  EXPECT_EQ(g_requests, expected);
  EXPECT_EQ(img.file.read_all(), img.disk);
}
