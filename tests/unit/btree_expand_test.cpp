// SPDX-License-Identifier: MIT
// GCC 12 at -O3 vectorizes make_key's name loop even for the empty name of a
// thread key, and then warns of a store past the 8-byte key that the loop
// never makes.
#pragma GCC diagnostic ignored "-Wstringop-overflow"

#include <gtest/gtest.h>

#include "alloc_test_support.hpp"

using namespace alloc_test;

// A catalog of 2048 nodes of 512 bytes, none free: its header map record
// (256 bytes) is full, so the first growth must chain a map node. A clump is
// 8 nodes.
const char* const kFullCatalog =
    "--size 2097152 --label Grow --block-size 512 --catalog-node-size 512 --catalog-nodes 2048 "
    "--catalog-clump-size 4096";

TEST(BtreeExpand, FullCatalogGrowsClumpByClumpChainingAMapNodeAndFailuresUndoEverything) {
  Volume v(kFullCatalog);
  ASSERT_EQ(header_field(v, kTotalNodes), 2048u);
  ASSERT_EQ(header_field(v, kFreeNodes), 0u);
  const uint32_t valence = morv_test::valence_of(v.volume->catalog, kRootFolderCnid);
  const uint32_t folders = field(v.volume, vh::kFolderCount);
  const uint32_t first_id = field(v.volume, vh::kNextCatalogId);

  uint32_t added = 0, growths = 0;
  bool thread = false;
  while (growths < 4) {
    const morv_err err = insert_half(v.volume->catalog, first_id + added, thread);
    if (err == MORV_OK) {
      if (thread) ++added;
      thread = !thread;
      continue;
    }
    // No free node: grow by a clump (the tree must be flushed first), then
    // insert the same record again.
    ASSERT_EQ(err, MORV_ERR_UNSUPPORTED);
    account(v, valence, folders, first_id, added);
    v.flush();
    if (!thread) {
      EXPECT_EQ(v.check(), "");  // between whole folders
    }
    const uint32_t total = header_field(v, kTotalNodes);
    const uint32_t free_nodes = header_field(v, kFreeNodes);
    EXPECT_GT(alloc_test::fail_each_unchanged(v, [](morv_volume* vol) {
                return morv_btree_expand(morv_catalog_btree(vol->catalog), vol);
              }), 0u);
    // The first growth spends one new node on the map node.
    EXPECT_EQ(header_field(v, kTotalNodes), total + 8);
    EXPECT_EQ(header_field(v, kFreeNodes), free_nodes + (growths == 0 ? 7 : 8));
    ++growths;
  }
  account(v, valence, folders, first_id, added);
  if (thread) {
    ASSERT_EQ(insert_half(v.volume->catalog, first_id + added++, true), MORV_OK);
  }
  account(v, valence, folders, first_id, added);
  EXPECT_EQ(v.check(), "");
  EXPECT_GT(added, 20u);
  // Node 2048, the first new node, is the map node behind the header node.
  uint8_t descriptor[14];
  ASSERT_EQ(morv_fork_read(v.catalog_tree()->fork, 0, descriptor, 14, nullptr), MORV_OK);
  EXPECT_EQ(load_be32(descriptor), 2048u);
  ASSERT_EQ(morv_fork_read(v.catalog_tree()->fork, 2048 * 512, descriptor, 14, nullptr), MORV_OK);
  EXPECT_EQ(static_cast<int8_t>(descriptor[8]), 2);
}

TEST(BtreeExpand, RefusesClumpsOfPartNodesAndBitsPastTheLastNode) {
  // A clump of 1.5 nodes would leave the tree file ending inside a node.
  Volume odd("--size 2097152 --label Odd --block-size 512 --catalog-node-size 1024 "
             "--catalog-clump-size 1536");
  const auto before = odd.bytes();
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_btree_expand(odd.catalog_tree(), odd.volume), MORV_ERR_UNSUPPORTED);
  testing::internal::GetCapturedStderr();
  odd.flush();
  EXPECT_EQ(odd.bytes(), before);
  // A transaction puts back nodes, not a grown file: no growth inside one.
  Volume busy("--size 2097152 --label Busy --block-size 512 --catalog-node-size 512");
  ASSERT_EQ(morv_btree_transaction_begin(busy.catalog_tree()), MORV_OK);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_btree_expand(busy.catalog_tree(), busy.volume), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("inside a transaction"), std::string::npos);
  EXPECT_EQ(morv_btree_transaction_end(busy.catalog_tree(), MORV_OK), MORV_OK);
  // A node bitmap that marks a node past totalNodes is damaged: growing
  // would make that node look in use.
  Volume v("--size 2097152 --label Stray --block-size 512 --catalog-node-size 512");
  const uint32_t stray = header_field(v, kTotalNodes) + 3;
  const uint64_t at = 248 + stray / 8;  // the header node's map record begins at 248
  uint8_t byte = 0;
  ASSERT_EQ(morv_fork_read(v.catalog_tree()->fork, at, &byte, 1, nullptr), MORV_OK);
  byte |= static_cast<uint8_t>(0x80u >> (stray % 8));
  ASSERT_EQ(morv_fork_write(v.catalog_tree()->fork, at, &byte, 1, nullptr), MORV_OK);
  ASSERT_EQ(morv_fork_flush(v.catalog_tree()->fork), MORV_OK);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_btree_expand(v.catalog_tree(), v.volume), MORV_ERR_CORRUPT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("past the last node"), std::string::npos);
}
