// SPDX-License-Identifier: MIT
// Helpers of the allocation, growth and deletion tests: a volume opened with
// its allocation file, flushed whole and checked, fork data of given extents,
// catalog changes by CNID or path, and a failure loop that reopens the volume
// between kinds of failure and demands the image back unchanged after each.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "allocation.hpp"
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
  morv_btree* catalog_tree() const { return morv_catalog_btree(volume->catalog); }
  // Whether the bitmap marks `block`, as the cache holds it.
  bool marked(uint32_t block) const { return (bitmap_byte(block / 8) & (0x80u >> (block % 8))) != 0; }
  // Bitmap, extents overflow tree, catalog, then the header.
  void flush() {
    ASSERT_EQ(morv_volume_flush_all(volume), MORV_OK);
  }
  // Flushes everything and runs the volume checker: empty when clean.
  std::string check() {
    flush();
    return morv_test::check_image(file.path());
  }
  uint32_t free_blocks() const { return field(volume, vh::kFreeBlocks); }
  uint32_t files() const { return field(volume, vh::kFileCount); }
  uint32_t folders() const { return field(volume, vh::kFolderCount); }
  // The bitmap's byte `index`, as the cache holds it.
  uint8_t bitmap_byte(uint64_t index) const {
    uint8_t b = 0;
    EXPECT_EQ(morv_fork_read(morv_bitmap_fork(volume->bitmap), index, &b, 1, nullptr), MORV_OK);
    return b;
  }
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

// Fork data with the given extents and as many blocks.
inline std::vector<uint8_t> fork_data(std::initializer_list<std::pair<uint32_t, uint32_t>> extents) {
  std::vector<uint8_t> fd(forkdata::kSize);
  uint32_t total = 0, i = 0;
  for (auto [start, count] : extents) {
    store_be32(&fd[forkdata::kExtents + 8 * i], start);
    store_be32(&fd[forkdata::kExtents + 8 * i++ + 4], count);
    total += count;
  }
  store_be32(&fd[forkdata::kTotalBlocks], total);
  return fd;
}

// The startup file's fork data in the header (empty on builder images), and
// its extent `i`.
inline uint8_t* startup(morv_volume* v) { return v->header + vh::kStartupFile; }
inline std::pair<uint32_t, uint32_t> extent(morv_volume* v, size_t i) {
  const uint8_t* e = startup(v) + forkdata::kExtents + 8 * i;
  return {load_be32(e), load_be32(e + 4)};
}
// The startup file opened with a clump of `blocks`.
inline morv_fork* startup_fork(morv_volume* v, uint32_t blocks) {
  store_be32(startup(v) + forkdata::kClumpSize, blocks * 4096);
  morv_fork* fork = nullptr;
  EXPECT_EQ(morv_fork_create(v->device, v->extents, 0, v->header, kStartupFileCnid, startup(v), 0, &fork),
            MORV_OK);
  return fork;
}
// Runs `f` on a fresh startup fork of the volume (for failure loops).
template <typename F>
morv_err with_startup(morv_volume* v, F f) {
  morv_fork* fork = nullptr;
  if (morv_err err = morv_fork_create(v->device, v->extents, 0, v->header, kStartupFileCnid, startup(v), 0, &fork))
    return err;
  const morv_err err = f(fork);
  morv_fork_destroy(&fork);
  return err;
}

// Catalog tree header record fields, from the header node's start.
constexpr size_t kTotalNodes = 14 + 22;
constexpr size_t kFreeNodes = 14 + 26;
inline uint32_t header_field(Volume& v, size_t offset) {
  uint8_t bytes[4];
  EXPECT_EQ(morv_fork_read(v.catalog_tree()->fork, offset, bytes, 4, nullptr), MORV_OK);
  return load_be32(bytes);
}

// Folder `cnid` directly in the root, as its folder record or its thread;
// the root's valence and the header's counts are left to `account`.
inline morv_err insert_half(morv_catalog* catalog, uint32_t cnid, bool thread) {
  const std::u16string name = u"grown " + std::u16string(1, u'a' + cnid % 26) +
                              std::u16string(1, u'a' + cnid / 26 % 26);
  std::vector<uint8_t> key, data;
  if (thread) {
    key = morv_test::make_key(cnid, u"");
    data.resize(catalog::kThreadFixedSize + 2 * name.size());
    store_be16(&data[0], catalog::kFolderThreadRecord);
    store_be32(&data[catalog::kThreadParentId], kRootFolderCnid);
    store_be16(&data[catalog::kThreadName], static_cast<uint16_t>(name.size()));
    for (size_t i = 0; i < name.size(); ++i) store_be16(&data[10 + 2 * i], name[i]);
  } else {
    key = morv_test::make_key(kRootFolderCnid, name);
    data.resize(catalog::kFolderRecordSize);
    store_be16(&data[0], catalog::kFolderRecord);
    store_be32(&data[catalog::kRecordCnid], cnid);
  }
  morv_catalog_record_locator* inserted = nullptr;
  morv_err err = morv_catalog_insert_record(catalog, key.data(), data.data(),
                                            static_cast<uint16_t>(data.size()), nullptr, &inserted);
  if (!err) morv_catalog_record_locator_close(&inserted);
  return err;
}
// Root valence, folderCount and nextCatalogID for `added` more folders.
inline void account(Volume& v, uint32_t valence, uint32_t folders, uint32_t next_id, uint32_t added) {
  morv_test::Found root = morv_test::by_cnid(v.volume->catalog, kRootFolderCnid, 1);
  ASSERT_NE(root.get(), nullptr);
  std::vector<uint8_t> record(root.data(), root.data() + catalog::kFolderRecordSize);
  store_be32(&record[catalog::kFolderValence], valence + added);
  EXPECT_EQ(morv_btree_record_locator_write_data(root.get()->btree_locator, record.data(), record.size()),
            MORV_OK);
  store_be32(v.volume->header + vh::kFolderCount, folders + added);
  store_be32(v.volume->header + vh::kNextCatalogId, next_id + added);
}

// Deletes the file or folder of `cnid` (found through its thread, so without
// a parent locator) or at `parts` from the root (with one).
inline morv_err delete_record(morv_volume* v, uint32_t cnid) {
  morv_test::Found r;
  const morv_err err = morv_test::find(v->catalog, cnid, 1, &r);
  return err ? err : morv_catalog_delete(v->catalog, v, r.get());
}
inline morv_err delete_record(morv_volume* v, std::vector<std::u16string> parts) {
  morv_test::Found r;
  const morv_err err = morv_test::find(v->catalog, std::move(parts), &r);
  return err ? err : morv_catalog_delete(v->catalog, v, r.get());
}
// Makes file `cnid` a symbolic link to `target`.
inline morv_err make_symlink(morv_volume* v, uint32_t cnid, const std::u16string& target) {
  morv_test::Found r;
  const morv_err err = morv_test::find(v->catalog, cnid, 1, &r);
  const std::vector<uint16_t> units(target.begin(), target.end());
  return err ? err : morv_catalog_mksymlink(r.get(), units.data(), units.size(), v);
}

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
