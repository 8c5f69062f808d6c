// Helpers of the allocation tests: a volume opened with its allocation file,
// flushed whole and checked, and a failure loop that reopens the volume
// between kinds of failure and demands the image back unchanged after each.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "bitmap.hpp"
#include "btree.hpp"
#include "catalog.hpp"
#include "catalog_fixtures.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "volume.hpp"

namespace alloc_test {

inline uint32_t field(const morv_volume* v, size_t offset) { return load_be32(v->header + offset); }

// A builder image opened as a volume with its allocation bitmap.
struct Volume : morv_test::OpenVolume {
  explicit Volume(const std::string& args) : OpenVolume(args, 0) { EXPECT_EQ(err, MORV_OK); }
  morv_btree* catalog_tree() const { return volume->catalog->priv->tree; }
  // Whether the bitmap marks `block`, as the cache holds it.
  bool marked(uint32_t block) const {
    uint8_t byte = 0;
    EXPECT_EQ(morv_fork_read(volume->bitmap->priv->fork, block / 8, &byte, 1, nullptr), MORV_OK);
    return (byte & (0x80u >> (block % 8))) != 0;
  }
  // Bitmap, extents overflow tree, catalog, then the header.
  void flush() {
    ASSERT_EQ(morv_bitmap_flush(volume->bitmap), MORV_OK);
    ASSERT_EQ(morv_fork_flush(volume->extents->tree->fork), MORV_OK);
    ASSERT_EQ(morv_fork_flush(catalog_tree()->fork), MORV_OK);
    ASSERT_EQ(morv_volume_flush(volume), MORV_OK);
  }
  std::string check() const { return morv_test::check_image(file.path()); }
  // Drops everything held in memory and opens the image again, after
  // writing `image` over it when given.
  void reopen(const std::vector<uint8_t>* image = nullptr) {
    morv_volume_destroy(&volume);
    if (image) {
      ASSERT_EQ(pwrite(fd, image->data(), image->size(), 0), static_cast<ssize_t>(image->size()));
    }
    ASSERT_EQ(morv_volume_create(device, 0, &volume), MORV_OK);
  }
  std::vector<uint8_t> bytes() const {
    struct stat st {};
    EXPECT_EQ(fstat(fd, &st), 0);
    std::vector<uint8_t> out(static_cast<size_t>(st.st_size));
    EXPECT_EQ(pread(fd, out.data(), out.size(), 0), static_cast<ssize_t>(out.size()));
    return out;
  }
};

// Runs `op(volume)` with the n-th allocation, then the n-th device read,
// then the n-th device write failing, n = 1, 2, ... until it succeeds. Each
// failure must return MORV_ERR_NO_MEMORY or MORV_ERR_IO as the kind says and
// leave the image, once flushed, byte for byte as before; after each kind
// the volume is reopened on the image as it was to drop the successful run
// (the cache and what it wrote to the device), except after the last,
// whose success stays. Returns the number of failures delivered.
template <typename Op>
uint64_t fail_each_unchanged(Volume& v, Op op) {
  v.flush();
  const std::vector<uint8_t> before = v.bytes();
  uint64_t failures = 0;
  const std::pair<morv_seam_op, morv_err> kinds[] = {
      {MORV_SEAM_ALLOC, MORV_ERR_NO_MEMORY}, {MORV_SEAM_READ, MORV_ERR_IO}, {MORV_SEAM_WRITE, MORV_ERR_IO}};
  for (const auto& [kind, expected] : kinds) {
    for (uint64_t n = 1;; ++n) {
      morv_seam_fail_at(kind, n);
      testing::internal::CaptureStderr();
      const morv_err err = op(v.volume);
      testing::internal::GetCapturedStderr();
      const bool failed = morv_seam_failure_delivered();
      morv_seam_fail_at(MORV_SEAM_ALL, 0);
      if (!failed) {
        EXPECT_EQ(err, MORV_OK) << "kind " << kind;
        break;
      }
      ++failures;
      EXPECT_EQ(err, expected) << "kind " << kind << " n " << n;
      v.flush();
      if (v.bytes() != before) {
        ADD_FAILURE() << "image changed after failure " << n << " of kind " << kind;
        return failures;
      }
    }
    if (kind != MORV_SEAM_WRITE) v.reopen(&before);
  }
  return failures;
}

}  // namespace alloc_test
