// SPDX-License-Identifier: MIT
// Helpers of the B-tree and extents overflow tests: an image from the
// builder opened as a device with its volume header in memory, extents keys
// and records, a walk of a tree's leaf records, the structure-only checker.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "btree.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"

namespace btree_test {

using Key = std::array<uint8_t, 12>;
using Record = std::array<uint8_t, 64>;
using ExtKey = std::tuple<uint32_t, uint8_t, uint32_t>;  // fileID, forkType, startBlock: key order

inline Key ext_key(const ExtKey& k) {
  Key key{};
  store_be16(key.data(), 10);
  key[2] = std::get<1>(k);
  store_be32(key.data() + 4, std::get<0>(k));
  store_be32(key.data() + 8, std::get<2>(k));
  return key;
}
inline ExtKey ext_tuple(const uint8_t* key) {
  return {load_be32(key + 4), key[2], load_be32(key + 8)};
}
// Recognisable content: the key's fields and a generation number.
inline Record ext_record(const ExtKey& k, uint32_t generation) {
  Record r{};
  for (size_t i = 0; i < r.size(); i += 16) {
    store_be32(&r[i], std::get<0>(k));
    store_be32(&r[i + 4], std::get<2>(k));
    store_be32(&r[i + 8], generation);
    store_be32(&r[i + 12], static_cast<uint32_t>(i) ^ std::get<1>(k));
  }
  return r;
}

// An image from the builder, opened read-write with its volume header.
class Image {
 public:
  explicit Image(const std::string& args) {
    morv_test::build_image(args, file_);
    open_device();
  }
  ~Image() { close_all(); }
  void open_device() {
    fd_ = ::open(file_.path().c_str(), O_RDWR);
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(morv_device_create(fd_, 0, 512, 0, &device_), MORV_OK);
    void* sector = nullptr;
    EXPECT_EQ(morv_device_read_disk_sectors(device_, 2, 1, &sector), MORV_OK);
    header_.assign(static_cast<uint8_t*>(sector), static_cast<uint8_t*>(sector) + 512);
    free(sector);
  }
  void close_all() {
    morv_extents_destroy(&extents_);
    if (device_) morv_device_destroy(&device_);
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  morv_err open_extents() { return morv_extents_create(device_, header_.data(), &extents_); }
  // The catalog file as a tree of keys in `compare`'s order, its overflow
  // extents resolved through the extents tree when that is open.
  morv_err open_catalog(morv_btree** tree, morv_btree_compare_keys_fn compare) {
    return morv_btree_create(device_, extents_, 0, header_.data(), kBtreeKindCatalog, compare, tree);
  }
  morv_btree* tree() const { return extents_->tree; }
  morv_extents* extents() const { return extents_; }
  morv_device* device() const { return device_; }
  uint8_t* volume_header() { return header_.data(); }
  const std::string& path() const { return file_.path(); }
  std::vector<uint8_t> bytes() const { return file_.read_all(); }

 private:
  morv_test::TempFile file_;
  int fd_ = -1;
  morv_device* device_ = nullptr;
  morv_extents* extents_ = nullptr;
  std::vector<uint8_t> header_;
};

// Bytes of a special file as the image holds them, read or patched before
// the file is opened (the builder lays each special file out in one extent).
// `fork_field` is the file's fork data offset in the volume header.
inline uint64_t file_start(Image& image, size_t fork_field) {
  const uint8_t* fork_data = image.volume_header() + fork_field;
  return uint64_t{load_be32(fork_data + forkdata::kExtents)} *
         load_be32(image.volume_header() + vh::kBlockSize);
}
inline std::vector<uint8_t> read_file(Image& image, size_t fork_field, uint64_t offset, size_t n) {
  std::vector<uint8_t> out(n);
  const int fd = ::open(image.path().c_str(), O_RDONLY);
  EXPECT_EQ(pread(fd, out.data(), n, static_cast<off_t>(file_start(image, fork_field) + offset)),
            static_cast<ssize_t>(n));
  ::close(fd);
  return out;
}
inline void patch_file(Image& image, size_t fork_field, uint64_t offset,
                       const std::vector<uint8_t>& bytes) {
  const int fd = ::open(image.path().c_str(), O_RDWR);
  EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(),
                   static_cast<off_t>(file_start(image, fork_field) + offset)),
            static_cast<ssize_t>(bytes.size()));
  ::close(fd);
}
// An extents tree of 512-byte nodes with 2600 free nodes after the used ones:
// the header's map record covers nodes 0..2047, a map node the rest.
inline const char* const kMapNodeExtents =
    "--size 16777216 --label N --files 10 --extents-node-size 512 --free-extents-nodes 2600 "
    "--fragmented-files 10 --file-fragments 60";

// Damages the node bitmap of the tree in `fork_field` (nodes of 512 bytes, one
// map node): the header's map record all set, and the map node linked to
// itself with two bytes of bits all set, or with an empty map record. A
// claim then asks the rest of the bitmap of the map node's fLink, itself.
inline void loop_map_node(Image& image, size_t fork_field, bool empty_record) {
  const auto header_node = read_file(image, fork_field, 0, 512);
  const uint32_t map = load_be32(&header_node[0]);
  ASSERT_NE(map, 0u);
  patch_file(image, fork_field, load_be16(&header_node[512 - 6]), std::vector<uint8_t>(256, 0xFF));
  const uint64_t at = uint64_t{map} * 512;
  auto node = read_file(image, fork_field, at, 512);
  store_be32(&node[0], map);
  const uint16_t first = load_be16(&node[510]);
  std::fill(node.begin() + first, node.begin() + first + 2, 0xFF);
  store_be16(&node[508], static_cast<uint16_t>(empty_record ? first : first + 2));
  patch_file(image, fork_field, at, node);
}

inline std::vector<uint8_t> be32(uint32_t v) {
  std::vector<uint8_t> out(4);
  store_be32(out.data(), v);
  return out;
}

// The volume checker limited to B-tree structure and key order.
inline std::string check_structure(const std::string& path) {
  return morv_test::check_image(path, "--structure-only");
}

// Header record fields, through the fork.
struct Header {
  uint16_t depth;
  uint32_t root, leaf_records, first_leaf, last_leaf, total_nodes, free_nodes;
};
inline Header read_header(morv_btree* tree) {
  uint8_t h[106];
  EXPECT_EQ(morv_fork_read(tree->fork, 14, h, sizeof h, nullptr), MORV_OK);
  return {load_be16(h), load_be32(h + 2), load_be32(h + 6), load_be32(h + 10), load_be32(h + 14),
          load_be32(h + 22), load_be32(h + 26)};
}
inline uint16_t node_records(morv_btree* tree, uint32_t node) {
  uint8_t d[14];
  EXPECT_EQ(morv_fork_read(tree->fork, uint64_t{node} * tree->node_size, d, sizeof d, nullptr),
            MORV_OK);
  return load_be16(d + 10);
}

// Every leaf record from the first leaf on, through the engine's iteration.
inline std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> walk(
    morv_btree* tree, const uint8_t* lowest_key) {
  std::vector<std::pair<std::vector<uint8_t>, std::vector<uint8_t>>> out;
  morv_btree_search_result result;
  morv_btree_search_result_init(&result);
  EXPECT_EQ(morv_btree_search_node(tree, lowest_key, &result), MORV_OK);
  morv_btree_record_locator* l = result.locator;
  result.locator = nullptr;
  while (l) {
    out.emplace_back(std::vector<uint8_t>(l->key, l->key + l->key_size),
                     std::vector<uint8_t>(l->data, l->data + l->data_size));
    morv_btree_record_locator* next = nullptr;
    const morv_err err = morv_btree_get_next_record(tree, l, &next);
    EXPECT_EQ(err, MORV_OK);
    morv_btree_record_locator_close(&l);
    if (err) break;
    l = next;
  }
  return out;
}

// Lookups and insertions of extents records by model key.
inline morv_err insert(morv_extents* ext, const ExtKey& k, const Record& r) {
  return morv_extents_insert(ext, std::get<1>(k), std::get<0>(k), std::get<2>(k), r.data());
}
// 1 and the record when the key is in the tree, 0 when not, -1 on error.
inline int lookup(morv_extents* ext, const ExtKey& k, Record* out = nullptr) {
  int found = -1;
  Record r{};
  const morv_err err = morv_extents_get_next_extent_record(ext, std::get<1>(k), std::get<0>(k),
                                                           std::get<2>(k), &found, r.data());
  EXPECT_EQ(err, MORV_OK);
  if (out) *out = r;
  return err ? -1 : found;
}

// The tree's leaf records as extents keys and records, checking their order.
inline std::map<ExtKey, Record> tree_contents(morv_btree* tree) {
  std::map<ExtKey, Record> out;
  for (const auto& [key, data] : walk(tree, ext_key({0, 0, 0}).data())) {
    EXPECT_EQ(key.size(), 12u);
    EXPECT_EQ(data.size(), 64u);
    const ExtKey k = ext_tuple(key.data());
    EXPECT_TRUE(out.empty() || out.rbegin()->first < k) << "iteration out of key order";
    std::copy_n(data.begin(), std::min<size_t>(64, data.size()), out[k].begin());
  }
  return out;
}

// The locator of an extents record that must be in the tree.
inline morv_btree_record_locator* find(morv_btree* tree, const ExtKey& k) {
  morv_btree_search_result r;
  morv_btree_search_result_init(&r);
  EXPECT_EQ(morv_btree_search_node(tree, ext_key(k).data(), &r), MORV_OK);
  EXPECT_TRUE(r.exact_match);
  return r.exact_match ? r.locator : (morv_btree_search_result_release(&r), nullptr);
}

// Searches `key` and deletes the record found there (error if none).
inline morv_err delete_key(morv_btree* tree, const uint8_t* key) {
  morv_btree_search_result r;
  morv_btree_search_result_init(&r);
  morv_err err = morv_btree_search_node(tree, key, &r);
  if (!err) err = r.exact_match ? morv_btree_delete_record(tree, r.locator) : MORV_ERR_GENERIC;
  morv_btree_search_result_release(&r);
  return err;
}

// Read node by node: a read takes a cache reference per sector and gives
// back one per cache item.
inline std::vector<uint8_t> read_fork(morv_btree* tree, uint64_t offset, size_t size) {
  std::vector<uint8_t> out(size);
  for (size_t done = 0; done < size;) {
    const size_t n = std::min<size_t>(size - done, tree->node_size - (offset + done) % tree->node_size);
    EXPECT_EQ(morv_fork_read(tree->fork, offset + done, out.data() + done, n, nullptr), MORV_OK);
    done += n;
  }
  return out;
}

// Whether the tree's node bitmap marks node `n` in use: the header node's map
// record (its third), then the map records of the map nodes its fLink chains.
inline bool node_in_use(morv_btree* tree, uint32_t n) {
  const uint32_t size = tree->node_size;
  for (uint32_t node = 0, record = 2;; record = 0) {
    const auto bytes = read_fork(tree, uint64_t{node} * size, size);
    const uint16_t start = load_be16(&bytes[size - 2 * (record + 1)]);
    const uint32_t bits = 8u * (load_be16(&bytes[size - 2 * (record + 2)]) - start);
    if (n < bits) return bytes[start + n / 8] & (0x80 >> (n % 8));
    n -= bits;
    node = load_be32(bytes.data());
    if (node == 0) return false;
  }
}

// The record that a locator's node and index name now, read from the fork.
inline ExtKey key_at(morv_btree* tree, const morv_btree_record_locator* l) {
  const auto node = read_fork(tree, uint64_t{*l->node_number} * tree->node_size, tree->node_size);
  return ext_tuple(&node[load_be16(&node[node.size() - 2 * (*l->record_index + 1u)])]);
}

// The node that holds extents record `k`, and the keys of every record there.
inline uint32_t node_of(morv_btree* tree, const ExtKey& k) {
  morv_btree_record_locator* l = find(tree, k);
  const uint32_t node = l ? *l->node_number : 0;
  morv_btree_record_locator_close(&l);
  return node;
}
inline std::vector<ExtKey> leaf_keys(morv_btree* tree, const ExtKey& k) {
  const uint32_t leaf = node_of(tree, k);
  std::vector<ExtKey> keys;
  for (const auto& [key, record] : tree_contents(tree))
    if (node_of(tree, key) == leaf) keys.push_back(key);
  return keys;
}

// Deletes `keys` in one transaction.
inline morv_err delete_all(morv_btree* tree, const std::vector<ExtKey>& keys) {
  morv_err err = morv_btree_transaction_begin(tree);
  if (err) return err;
  for (const ExtKey& k : keys)
    if ((err = delete_key(tree, ext_key(k).data()))) break;
  return morv_btree_transaction_end(tree, err);
}

// Extents trees of 512-byte nodes, four levels deep, with free nodes.
inline const char* const kDeepExtents =
    "--size 134217728 --label D --files 60 --extents-node-size 512 --free-extents-nodes 900 "
    "--fragmented-files 40 --file-fragments 60";
inline const char* const kFailureExtents =
    "--size 16777216 --block-size 512 --label D --files 60 --extents-node-size 512 "
    "--free-extents-nodes 900 --fragmented-files 40 --file-fragments 60";

// Runs `op` on a fresh copy of kFailureExtents with the n-th operation of
// `kind` failing, for n = 1, 2, ... until it succeeds. Each failure must give
// `expected`, leave the tree's cached bytes as they were (so that a flush
// writes nothing new), leave no locator open and leak nothing (the sanitizer
// build); the run that succeeds must leave a consistent tree.
template <typename Op>
void fail_each_fresh(unsigned kind, morv_err expected, Op op) {
  for (uint64_t n = 1;; ++n) {
    SCOPED_TRACE(n);
    Image image(kFailureExtents);
    ASSERT_EQ(image.open_extents(), MORV_OK);
    const auto pristine = image.bytes();
    const uint64_t start = file_start(image, vh::kExtentsFile);
    const std::vector<uint8_t> cached(pristine.begin() + start,
                                      pristine.begin() + start + *image.tree()->fork->logical_size);
    testing::internal::CaptureStderr();
    morv_seam_fail_at(kind, n);
    const morv_err err = op(image);
    const bool delivered = morv_seam_failure_delivered();
    morv_seam_fail_at(kind, 0);
    if (delivered) {
      ASSERT_TRUE(read_fork(image.tree(), 0, cached.size()) == cached);
    }
    ASSERT_EQ(morv_fork_flush(image.tree()->fork), MORV_OK);
    image.close_all();
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::Not(testing::HasSubstr("leaked")));
    if (!delivered) {
      ASSERT_EQ(err, MORV_OK);
      ASSERT_GT(n, 1u);
      EXPECT_EQ(check_structure(image.path()), "");
      return;
    }
    ASSERT_EQ(err, expected);
    ASSERT_TRUE(image.bytes() == pristine);
    ASSERT_LT(n, 2000u);
  }
}

// Catalog-tree keys ordered by parentID, then their remaining bytes compared
// bytewise, shorter first: any length, odd keyLengths included.
constexpr uint32_t kTestParent = 0x7FFFFF00;  // above every real parentID
inline int test_compare(const uint8_t* a, const uint8_t* b, uint32_t) {
  const uint32_t pa = load_be32(a + 2), pb = load_be32(b + 2);
  if (pa != pb) return pa < pb ? -1 : 1;
  const size_t la = load_be16(a) - 4u, lb = load_be16(b) - 4u;
  const int c = memcmp(a + 6, b + 6, std::min(la, lb));
  return c ? c : (la < lb ? -1 : la > lb);
}

using morv_test::has;
using morv_test::logged;

// A scale factor for the long-running tests (MORV_TEST_SCALE, percent).
inline int scaled(int steps) {
  const char* s = getenv("MORV_TEST_SCALE");
  const int percent = s ? atoi(s) : 100;
  return std::max(1, steps * percent / 100);
}

}  // namespace btree_test
