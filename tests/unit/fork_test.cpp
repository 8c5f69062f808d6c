#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <fcntl.h>
#include <unistd.h>

#include "device_unix.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"

namespace {

struct Extent {
  uint32_t start;
  uint32_t count;
};

struct Request {
  morv_seam_op op;
  uint64_t offset;
  size_t length;
  bool operator==(const Request&) const = default;
};
std::vector<Request> g_requests;
void record(void*, morv_seam_op op, uint64_t offset, size_t length) {
  g_requests.push_back({op, offset, length});
}

// An image file of `blocks` allocation blocks filled with a position-dependent
// pattern, a volume header naming the block size, and fork data whose extents
// the test places. `disk` models the file's expected contents.
class ForkImage {
 public:
  ForkImage(uint32_t block_size, uint32_t blocks, std::vector<Extent> extents,
            uint64_t logical_size = 0, uint32_t device_sector = 512)
      : block_size_(block_size), extents_(std::move(extents)), disk(uint64_t{block_size} * blocks) {
    for (size_t i = 0; i < disk.size(); ++i) disk[i] = static_cast<uint8_t>(i * 7 + i / 509);
    file.write_all(disk);
    store_be32(header + vh::kBlockSize, block_size);
    uint32_t total = 0;
    for (size_t i = 0; i < extents_.size(); ++i) {
      store_be32(fork_data + forkdata::kExtents + 8 * i, extents_[i].start);
      store_be32(fork_data + forkdata::kExtents + 8 * i + 4, extents_[i].count);
      total += extents_[i].count;
    }
    store_be32(fork_data + forkdata::kTotalBlocks, total);
    store_be64(fork_data, logical_size ? logical_size : uint64_t{total} * block_size);
    fd_ = open(file.path().c_str(), O_RDWR);
    EXPECT_EQ(morv_device_create(fd_, 0, device_sector, 0, &device), MORV_OK);
  }
  ~ForkImage() {
    morv_seam_set_observer(nullptr, nullptr);
    morv_seam_fail_at(MORV_SEAM_ALL, 0);
    if (fork) morv_fork_destroy(&fork);
    morv_device_destroy(&device);
    close(fd_);
  }
  morv_err create(uint32_t min_sector = 0) {
    return morv_fork_create(device, nullptr, 1, header, 4, fork_data, min_sector, &fork);
  }
  uint64_t device_offset(uint64_t fork_offset) const {
    for (const Extent& e : extents_) {
      const uint64_t bytes = uint64_t{e.count} * block_size_;
      if (fork_offset < bytes) return uint64_t{e.start} * block_size_ + fork_offset;
      fork_offset -= bytes;
    }
    ADD_FAILURE() << "fork offset beyond the extents";
    return 0;
  }
  std::vector<uint8_t> fork_bytes(uint64_t offset, size_t length) const {
    std::vector<uint8_t> out(length);
    for (size_t i = 0; i < length; ++i) out[i] = disk[device_offset(offset + i)];
    return out;
  }
  // Writes through the fork and into the model.
  void write(uint64_t offset, const std::vector<uint8_t>& bytes) {
    size_t written = 1;
    ASSERT_EQ(morv_fork_write(fork, offset, bytes.data(), bytes.size(), &written), MORV_OK);
    EXPECT_EQ(written, bytes.size());
    for (size_t i = 0; i < bytes.size(); ++i) disk[device_offset(offset + i)] = bytes[i];
  }
  void observe() {
    g_requests.clear();
    morv_seam_reset_stats();
    morv_seam_set_observer(record, nullptr);
  }
  morv_fork_private* priv() const { return fork->priv; }

  uint32_t block_size_;
  std::vector<Extent> extents_;
  std::vector<uint8_t> disk;
  morv_test::TempFile file;
  uint8_t header[vh::kSize] = {};
  uint8_t fork_data[forkdata::kSize] = {};
  int fd_ = -1;
  morv_device* device = nullptr;
  morv_fork* fork = nullptr;
};

std::vector<uint8_t> bytes_of(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 13);
  return v;
}

// A non-null stand-in for the extents overflow tree, for forks complete in
// their fork data, which never consult it (lookups through a real tree are
// tested with the extents overflow tree).
morv_extents* const kSomeTree = reinterpret_cast<morv_extents*>(0x1000);

}  // namespace

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
    EXPECT_EQ(img.priv()->extents_count, 0u);
    EXPECT_EQ(img.priv()->items_length, 0u);
  }
  for (auto [size, items] : {std::pair<uint64_t, size_t>{1048576, 1}, {1048577, 2}}) {
    ForkImage img(4096, 4, {{1, 300}}, size);
    ASSERT_EQ(img.create(), MORV_OK);
    EXPECT_EQ(img.priv()->items_length, items);
    EXPECT_EQ(img.priv()->sector_size, 512u);
  }
  uint8_t* untouched = reinterpret_cast<uint8_t*>(&g_requests);
  size_t count = 99;
  {  // an empty extent with a start block, although the fork is already covered
    ForkImage img(512, 8, {{1, 2}});
    store_be32(img.fork_data + forkdata::kExtents + 8 * 1, 5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(morv_fork_resolve_extents(nullptr, 1, 4, img.fork_data, &untouched, &count),
              MORV_ERR_CORRUPT);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Found zero-sized extent with non-0 start block.\n"),
              std::string::npos);
  }
  {  // blocks missing behind eight full extents
    ForkImage img(512, 40, eight);
    store_be32(img.fork_data + forkdata::kTotalBlocks, 20);
    testing::internal::CaptureStderr();
    EXPECT_EQ(morv_fork_resolve_extents(nullptr, 0, 4, img.fork_data, &untouched, &count),
              MORV_ERR_INTERNAL);
    morv_fork_private* priv = nullptr;
    EXPECT_EQ(morv_fork_private_create(img.device, nullptr, 0, 4, img.fork_data, 512, &priv),
              MORV_ERR_INVALID_ARGUMENT);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("No morv_extents reference and we are not reading extents partially.\n"),
              std::string::npos);
    EXPECT_NE(log.find("NULL extents overflow file.\n"), std::string::npos);
    EXPECT_EQ(priv, nullptr);
    EXPECT_EQ(img.fork, nullptr);
    EXPECT_EQ(untouched, reinterpret_cast<uint8_t*>(&g_requests));
    EXPECT_EQ(count, 99u);
    ASSERT_EQ(img.create(), MORV_OK);  // partial: what the fork data holds
    EXPECT_EQ(img.priv()->extents_count, 8u);
  }
  {  // fewer than eight extents that stop short of totalBlocks
    ForkImage img(512, 8, {{1, 2}});
    store_be32(img.fork_data + forkdata::kTotalBlocks, 3);
    testing::internal::CaptureStderr();
    EXPECT_EQ(morv_fork_resolve_extents(kSomeTree, 0, 4, img.fork_data, &untouched, &count),
              MORV_ERR_CORRUPT);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Last extent ends before the end of the fork.\n"),
              std::string::npos);
  }
}

TEST(ForkRead, AcrossExtentsAndItemBorderServedOnce) {
  // 264 blocks of 4 KiB: 200 at block 300, then 64 at block 10; item 1 starts
  // at fork block 256, inside the second extent.
  ForkImage img(4096, 600, {{300, 200}, {10, 64}});
  ASSERT_EQ(img.create(), MORV_OK);
  const uint64_t border = 1048576;
  const uint64_t extent_end = 200 * 4096;
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

  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_fork_read(img.fork, 264 * 4096 - 8, buf.data(), 9, &got), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(got, 0u);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Attempted to read outside allocated fork size! Offset: 1081336, Length: 9, fork "
                "data size: 1081344\n"),
            std::string::npos);
}

TEST(ForkRead, PartialLastSector) {
  ForkImage img(512, 8, {{3, 2}}, 1000);
  ASSERT_EQ(img.create(), MORV_OK);
  std::vector<uint8_t> buf(600, 0xEE);
  size_t got = 0;
  img.observe();
  ASSERT_EQ(morv_fork_read(img.fork, 500, buf.data(), 500, &got), MORV_OK);
  // One whole device sector each; the partial one's 488 bytes are taken from
  // the end of its device sector, and nothing past the logical size is copied.
  const std::vector<Request> expected = {{MORV_SEAM_READ, 3 * 512, 512},
                                         {MORV_SEAM_READ, 4 * 512, 512}};
  EXPECT_EQ(g_requests, expected);
  EXPECT_TRUE(std::equal(buf.begin(), buf.begin() + 12, img.disk.begin() + 3 * 512 + 500));
  EXPECT_TRUE(std::equal(buf.begin() + 12, buf.begin() + 500, img.disk.begin() + 4 * 512 + 24));
  EXPECT_EQ(buf[500], 0xEE);
  EXPECT_EQ(morv_fork_read(img.fork, 1000, buf.data(), 0, &got), MORV_OK);  // empty, at the end
}

TEST(ForkMap, BorderReferencesAndPointers) {
  ForkImage img(4096, 600, {{300, 264}});
  ASSERT_EQ(img.create(), MORV_OK);
  uint8_t* p = nullptr;
  size_t mapped = 7;
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_fork_unmap(img.fork, 1048576, &p, 512), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Cache item 1 does not exist and cannot be unmapped.\n"),
            std::string::npos);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_fork_map(img.fork, 1048560, &p, 32, &mapped), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Cannot map region crossing cache item borders (offset: 1048560, length: 32, "
                "first_cache_item: 0, last_cache_item: 1).\n"),
            std::string::npos);
  EXPECT_EQ(mapped, 0u);
  EXPECT_EQ(p, nullptr);
  std::vector<uint8_t> buf(32);
  EXPECT_EQ(morv_fork_read(img.fork, 1048560, buf.data(), 32, nullptr), MORV_OK);

  ASSERT_EQ(morv_fork_map(img.fork, 1024, &p, 1536, &mapped), MORV_OK);
  EXPECT_EQ(mapped, 1536u);
  morv_fork_cache_item* item = img.priv()->items[0];
  EXPECT_EQ(p, item->data + 1024);
  EXPECT_EQ(std::vector<uint8_t>(p, p + 1536), img.fork_bytes(1024, 1536));
  const uint64_t before = item->references;  // one per sector mapped
  uint8_t* wrong = p + 512;
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_fork_unmap(img.fork, 1024, &wrong, 1536), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Unexpected pointer when unmapping"),
            std::string::npos);
  EXPECT_EQ(item->references, before);
  EXPECT_EQ(morv_fork_unmap(img.fork, 1024, &p, 1536), MORV_OK);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(item->references, before - 1);
  EXPECT_EQ(before, 3u);
  testing::internal::CaptureStderr();
  morv_fork_destroy(&img.fork);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(" with 2 remaining references.\n"),
            std::string::npos);
  EXPECT_EQ(img.fork, nullptr);
}

namespace {

// Fork sectors 0-15 at block 40, 16-25 at block 2, 26-2055 at block 60: two
// cache items. The writes leave modified runs that extents and the item border
// split: 14-15 | 16-17 | 30 | 2047 | 2048.
ForkImage* dirty_image() {
  auto* img = new ForkImage(512, 2100, {{40, 16}, {2, 10}, {60, 2030}});
  EXPECT_EQ(img->create(), MORV_OK);
  img->write(14 * 512, bytes_of(2048, 1));
  img->write(30 * 512 + 100, {0x5A});
  img->write(1048576 - 256, bytes_of(512, 2));
  return img;
}

}  // namespace

TEST(ForkWrite, CacheOnlyThenFlushWritesModifiedRuns) {
  std::unique_ptr<ForkImage> img(new ForkImage(512, 2100, {{40, 16}, {2, 10}, {60, 2030}}));
  ASSERT_EQ(img->create(), MORV_OK);
  const std::vector<uint8_t> original = img->disk;
  img->observe();
  img->write(14 * 512, bytes_of(2048, 1));  // whole sectors: nothing read
  EXPECT_TRUE(g_requests.empty());
  img->write(30 * 512 + 100, {0x5A});  // one byte: its sector is read first
  std::vector<Request> expected = {{MORV_SEAM_READ, 60 * 512 + 4 * 512, 512}};
  EXPECT_EQ(g_requests, expected);
  img->write(14 * 512, bytes_of(512, 3));  // the same sector again
  morv_fork_cache_item* item0 = img->priv()->items[0];
  EXPECT_EQ(item0->modified, 5u);
  EXPECT_EQ(img->priv()->dirty_items, 1u);
  img->write(1048576 - 256, bytes_of(512, 2));
  EXPECT_EQ(img->priv()->dirty_items, 2u);
  EXPECT_EQ(item0->modified, 6u);
  EXPECT_EQ(item0->references, 0u);
  EXPECT_EQ(img->file.read_all(), original);
  // A sector written whole and never read is served from the cache: reading
  // it from the device now would lose the write.
  img->observe();
  std::vector<uint8_t> back(512);
  ASSERT_EQ(morv_fork_read(img->fork, 15 * 512, back.data(), back.size(), nullptr), MORV_OK);
  EXPECT_EQ(back, std::vector<uint8_t>(img->disk.begin() + 40 * 512 + 15 * 512,
                                       img->disk.begin() + 40 * 512 + 16 * 512));
  EXPECT_TRUE(g_requests.empty());

  img->observe();
  ASSERT_EQ(morv_fork_flush(img->fork), MORV_OK);
  expected = {{MORV_SEAM_WRITE, 40 * 512 + 14 * 512, 1024},
              {MORV_SEAM_WRITE, 2 * 512, 1024},
              {MORV_SEAM_WRITE, 60 * 512 + 4 * 512, 512},
              {MORV_SEAM_WRITE, img->device_offset(1048576 - 512), 512},
              {MORV_SEAM_WRITE, img->device_offset(1048576), 512}};
  EXPECT_EQ(g_requests, expected);
  EXPECT_EQ(img->file.read_all(), img->disk);
  EXPECT_EQ(img->priv()->dirty_items, 0u);
  EXPECT_EQ(item0->modified, 0u);
  EXPECT_EQ(img->priv()->items[1]->modified, 0u);
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
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_fork_flush(img->fork), MORV_ERR_INTERNAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Modification bitmap block size (512) is not a multiple of sector size (4096).\n"),
            std::string::npos);
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
  std::vector<uint8_t> buf(8);
  testing::internal::CaptureStderr();
  size_t written = 9;
  EXPECT_EQ(morv_fork_fill(img.fork, 40 * 512 - 10, 11, 0, &filled), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(morv_fork_write(img.fork, 40 * 512, buf.data(), 1, &written), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Attempted to fill outside allocated fork size! Offset: 20470, Length: 11, fork "
                "data size: 20480\n"),
            std::string::npos);
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
  for (uint64_t n = 1;; ++n) {
    morv_fork* fork = sentinel;
    morv_seam_fail_at(MORV_SEAM_ALLOC, n);
    const morv_err err = morv_fork_create(img.device, nullptr, 1, img.header, 4, img.fork_data,
                                          0, &fork);
    const bool failed = morv_seam_failure_delivered();
    morv_seam_fail_at(MORV_SEAM_ALL, 0);
    if (!failed) {
      ASSERT_EQ(err, MORV_OK);
      morv_fork_destroy(&fork);
      EXPECT_GT(n, 5u);
      break;
    }
    EXPECT_EQ(err, MORV_ERR_NO_MEMORY) << n;
    EXPECT_EQ(fork, sentinel);
  }
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
      for (uint64_t n = 1;; ++n) {
        ASSERT_EQ(img.create(), MORV_OK);
        std::vector<uint8_t> buf(length, 0xEE);
        size_t count = 7;
        morv_seam_fail_at(kind, n);
        const morv_err err =
            writing ? morv_fork_write(img.fork, offset, data.data(), length, &count)
                    : morv_fork_read(img.fork, offset, buf.data(), length, &count);
        const bool failed = morv_seam_failure_delivered();
        morv_seam_fail_at(MORV_SEAM_ALL, 0);
        EXPECT_EQ(img.file.read_all(), original);
        if (!failed) {
          ASSERT_EQ(err, MORV_OK);
          EXPECT_EQ(count, length);
          if (writing) {
            ASSERT_EQ(morv_fork_flush(img.fork), MORV_OK);
            EXPECT_EQ(img.file.read_all(), written);
            img.file.write_all(original);
          } else {
            EXPECT_EQ(buf, expected_read);
          }
          morv_fork_destroy(&img.fork);
          break;
        }
        EXPECT_EQ(err, kind == MORV_SEAM_ALLOC ? MORV_ERR_NO_MEMORY : MORV_ERR_IO) << n;
        EXPECT_EQ(count, 0u);
        EXPECT_EQ(buf, std::vector<uint8_t>(length, 0xEE));
        morv_fork_destroy(&img.fork);
      }
    }
  }
  testing::internal::GetCapturedStderr();
}

TEST(ForkFailures, FlushWritesOnlyWholeModifiedSectors) {
  // A failed flush leaves the runs before the failing request written and
  // the rest as they were; flushing again completes the image.
  testing::internal::CaptureStderr();
  for (uint64_t n = 1;; ++n) {
    std::unique_ptr<ForkImage> img(dirty_image());
    const std::vector<uint8_t> before = img->file.read_all();
    morv_seam_fail_at(MORV_SEAM_WRITE, n);
    const morv_err err = morv_fork_flush(img->fork);
    const bool failed = morv_seam_failure_delivered();
    morv_seam_fail_at(MORV_SEAM_ALL, 0);
    if (!failed) {
      ASSERT_EQ(err, MORV_OK);
      EXPECT_EQ(img->file.read_all(), img->disk);
      EXPECT_EQ(n, 6u);  // five runs
      break;
    }
    EXPECT_EQ(err, MORV_ERR_IO);
    const std::vector<uint8_t> after = img->file.read_all();
    size_t changed = 0;
    for (size_t s = 0; s < after.size(); s += 512) {
      const bool old = std::equal(after.begin() + s, after.begin() + s + 512, before.begin() + s);
      const bool fresh = std::equal(after.begin() + s, after.begin() + s + 512, img->disk.begin() + s);
      EXPECT_TRUE(old || fresh) << "sector " << s / 512;
      changed += !old;
    }
    EXPECT_LE(changed, 7u);
    ASSERT_EQ(morv_fork_flush(img->fork), MORV_OK);
    EXPECT_EQ(img->file.read_all(), img->disk);
  }
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
  EXPECT_EQ(img.priv()->dirty_items, 0u);
  EXPECT_EQ(img.priv()->items[0]->modified, 0u);
}
