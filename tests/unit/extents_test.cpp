// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "btree_test_support.hpp"

using namespace btree_test;
using testing::HasSubstr;

TEST(ExtentsKeys, OrderByFileThenForkTypeThenStartBlock) {
  const Key keys[] = {ext_key({20, 0x00, 100}), ext_key({20, 0x00, 101}), ext_key({20, 0xFF, 0}),
                      ext_key({21, 0x00, 0})};
  for (size_t i = 0; i < 4; ++i) {
    for (size_t j = 0; j < 4; ++j) {
      const int c = morv_extents_compare_keys(keys[i].data(), keys[j].data(), 0);
      EXPECT_TRUE((c <=> 0) == (i <=> j)) << i << " against " << j << ": " << c;
    }
  }
  Key bad = keys[0];
  store_be16(bad.data(), 12);
  const std::string log = logged([&] {
    EXPECT_EQ(morv_extents_compare_keys(bad.data(), keys[0].data(), 0), -1);
    EXPECT_EQ(morv_extents_compare_keys(keys[0].data(), bad.data(), 0), -1);
  });
  EXPECT_THAT(log, HasSubstr("in a. Expected: 12 Actual: 12\n"));
  EXPECT_THAT(log, HasSubstr("in b. Expected: 12 Actual: 12\n"));
}

TEST(ExtentsTree, EmptyTreeLookupThenInsertMakesARootLeaf) {
  Image image("--size 8388608 --label E --free-extents-nodes 8");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  EXPECT_EQ(lookup(image.extents(), {30, 0, 0}), 0);
  const Header before = read_header(image.tree());
  ASSERT_EQ(before.root, 0u);
  const Record rec = ext_record({30, 0, 8}, 1);
  ASSERT_EQ(insert(image.extents(), {30, 0, 8}, rec), MORV_OK);
  const Header after = read_header(image.tree());
  EXPECT_TRUE(after.depth == 1 && after.root != 0 && after.first_leaf == after.root &&
              after.last_leaf == after.root);
  EXPECT_EQ(after.leaf_records, 1u);
  EXPECT_EQ(after.free_nodes, before.free_nodes - 1);
  Record r{};
  EXPECT_EQ(lookup(image.extents(), {30, 0, 8}, &r), 1);
  EXPECT_EQ(r, rec);
  EXPECT_EQ(lookup(image.extents(), {30, 0, 9}), 0);  // inside its range, not its start
  EXPECT_EQ(insert(image.extents(), {30, 0, 8}, rec), MORV_ERR_EXISTS);
  ASSERT_EQ(morv_fork_flush(image.tree()->fork), MORV_OK);
  EXPECT_EQ(check_structure(image.path()), "");
}

TEST(ExtentsTree, FragmentedCatalogResolvesThroughTheTree) {
  // 8 extents in the fork data, 12 from two records; without those records
  // the fork cannot be opened whole.
  Image image("--size 16777216 --label F --files 30 --catalog-fragments 20");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* catalog = nullptr;
  ASSERT_EQ(image.open_catalog(&catalog, test_compare), MORV_OK);
  EXPECT_EQ(morv_fork_extent_count(catalog->fork), 20u);
  morv_btree_destroy(&catalog);
  EXPECT_THAT(logged([&] {
                EXPECT_NE(morv_btree_create(image.device(), nullptr, 0, image.volume_header(),
                                            kBtreeKindCatalog, test_compare, &catalog),
                          MORV_OK);
              }),
              HasSubstr("Error while reading catalog B-Tree into memory.\n"));
  EXPECT_EQ(catalog, nullptr);
}

TEST(ExtentsTree, WrongTreeTypeOrKindIsRefused) {
  Image image("--size 8388608 --label X --corrupt extents-btree-type");
  morv_btree* tree = nullptr;
  const std::string log = logged([&] {
    EXPECT_EQ(image.open_extents(), MORV_ERR_CORRUPT);
    EXPECT_EQ(morv_btree_create(image.device(), nullptr, 1, image.volume_header(), 5,
                                test_compare, &tree),
              MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_THAT(log, HasSubstr("Error while reading Extents B-Tree into memory.\n"));
  EXPECT_THAT(log, HasSubstr("Error while reading unknown B-Tree into memory.\n"));
  EXPECT_EQ(tree, nullptr);
}

// Found by fuzzing: a tree opened straight from a header that set-up never
// saw, one claiming more blocks than the device holds, once sized its fork's
// cache from it (100 GB).
TEST(ExtentsTree, AForkClaimingMoreThanItsDeviceIsRefusedBeforeAnythingIsSized) {
  Image image("--size 8388608 --label X");
  uint8_t* header = image.volume_header();
  uint8_t* fork = header + vh::kExtentsFile;
  store_be32(header + vh::kBlockSize, 0x80000000);
  store_be32(header + vh::kTotalBlocks, 0xFFFFFFFF);
  std::fill_n(fork + forkdata::kExtents, 64, 0);
  store_be32(fork + forkdata::kExtents + 4, 0xFFFFFF00);  // one extent covering the fork
  store_be32(fork + forkdata::kTotalBlocks, 0xFFFFFF00);
  store_be64(fork + forkdata::kLogicalSize, uint64_t{0xFFFFFF00} << 31);
  EXPECT_LOGGED(image.open_extents(), MORV_ERR_CORRUPT, "more than its device's 8388608 bytes.\n");
  EXPECT_EQ(image.extents(), nullptr);
}
