// SPDX-License-Identifier: MIT
// Helpers of the fork tests: an image file with a fork placed by extents and
// a model of its expected contents, and a recorder of device transfers.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "device_unix.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"

namespace fork_test {

// A non-null stand-in for the extents overflow tree, for forks complete in
// their fork data, which never consult it (lookups through a real tree are
// tested with the extents overflow tree).
inline morv_extents* const kSomeTree = reinterpret_cast<morv_extents*>(0x1000);

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
inline std::vector<Request> g_requests;
inline void record(void*, morv_seam_op op, uint64_t offset, size_t length) {
  g_requests.push_back({op, offset, length});
}

inline std::vector<uint8_t> bytes_of(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 13);
  return v;
}

using morv_test::fail_each;
using morv_test::has;
using morv_test::logged;

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
    store_be32(header + vh::kTotalBlocks, 1u << 20);  // room for every fork a test places
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
  // Starts recording device transfers and counting from zero.
  void observe() {
    g_requests.clear();
    morv_seam_reset_stats();
    morv_seam_set_observer(record, nullptr);
  }

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

// Fork sectors 0-15 at block 40, 16-25 at block 2, 26-2055 at block 60: two
// cache items of 1 MiB.
inline std::unique_ptr<ForkImage> split_image() {
  auto img = std::make_unique<ForkImage>(512, 2100, std::vector<Extent>{{40, 16}, {2, 10}, {60, 2030}});
  EXPECT_EQ(img->create(), MORV_OK);
  return img;
}
// Leaves modified runs that extents and the item border split:
// 14-15 | 16-17 | 30 | 2047 | 2048.
inline void make_dirty(ForkImage& img) {
  img.write(14 * 512, bytes_of(2048, 1));
  img.write(30 * 512 + 100, {0x5A});
  img.write(1048576 - 256, bytes_of(512, 2));
}

}  // namespace fork_test
