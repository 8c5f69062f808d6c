#include <gtest/gtest.h>

#include "btree_test_support.hpp"

using namespace btree_test;

namespace {
int no_compare(const uint8_t*, const uint8_t*, uint32_t) { return 0; }
}  // namespace

TEST(ExtentsKeys, OrderByFileThenForkTypeThenStartBlock) {
  const Key a = ext_key({20, 0x00, 100});
  const Key b = ext_key({20, 0x00, 101});
  const Key rsrc = ext_key({20, 0xFF, 0});
  const Key next_file = ext_key({21, 0x00, 0});
  EXPECT_LT(morv_extents_compare_keys(a.data(), b.data(), 0), 0);
  EXPECT_GT(morv_extents_compare_keys(b.data(), a.data(), 0), 0);
  EXPECT_EQ(morv_extents_compare_keys(a.data(), a.data(), 0), 0);
  EXPECT_LT(morv_extents_compare_keys(b.data(), rsrc.data(), 0), 0);
  EXPECT_LT(morv_extents_compare_keys(rsrc.data(), next_file.data(), 0), 0);
  Key bad = a;
  store_be16(bad.data(), 12);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_extents_compare_keys(bad.data(), a.data(), 0), -1);
  EXPECT_EQ(morv_extents_compare_keys(a.data(), bad.data(), 0), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("in a. Expected: 12 Actual: 12\n"), std::string::npos);
  EXPECT_NE(log.find("in b. Expected: 12 Actual: 12\n"), std::string::npos);
}

TEST(ExtentsTree, EmptyTreeLookupThenInsertMakesARootLeaf) {
  Image image("--size 8388608 --label E --free-extents-nodes 8");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  int found = -1;
  Record r{};
  ASSERT_EQ(morv_extents_get_next_extent_record(image.extents(), 0, 30, 0, &found, r.data()),
            MORV_OK);
  EXPECT_EQ(found, 0);
  const Header before = read_header(image.tree());
  ASSERT_EQ(before.root, 0u);
  const Record rec = ext_record({30, 0, 8}, 1);
  ASSERT_EQ(morv_extents_insert(image.extents(), 0, 30, 8, rec.data()), MORV_OK);
  const Header after = read_header(image.tree());
  EXPECT_EQ(after.depth, 1);
  EXPECT_NE(after.root, 0u);
  EXPECT_EQ(after.first_leaf, after.root);
  EXPECT_EQ(after.last_leaf, after.root);
  EXPECT_EQ(after.leaf_records, 1u);
  EXPECT_EQ(after.free_nodes, before.free_nodes - 1);
  ASSERT_EQ(morv_extents_get_next_extent_record(image.extents(), 0, 30, 8, &found, r.data()),
            MORV_OK);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(r, rec);
  // a block inside the record's range is not the start of a record
  ASSERT_EQ(morv_extents_get_next_extent_record(image.extents(), 0, 30, 9, &found, r.data()),
            MORV_OK);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(morv_extents_insert(image.extents(), 0, 30, 8, rec.data()), MORV_ERR_EXISTS);
  ASSERT_EQ(morv_fork_flush(image.tree()->fork), MORV_OK);
  EXPECT_EQ(check_structure(image.path()), "");
}

TEST(ExtentsTree, FragmentedCatalogResolvesThroughTheTree) {
  Image image("--size 16777216 --label F --files 30 --catalog-fragments 20");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* catalog = nullptr;
  ASSERT_EQ(morv_btree_create(image.device(), image.extents(), 0, image.volume_header(),
                              kBtreeKindCatalog, no_compare, &catalog),
            MORV_OK);
  EXPECT_EQ(catalog->fork->priv->extents_count, 20u);  // 8 in the fork data, 12 from two records
  uint64_t blocks = 0;
  for (size_t i = 0; i < catalog->fork->priv->extents_count; ++i) {
    blocks += load_be32(catalog->fork->priv->extents + 8 * i + 4);
  }
  EXPECT_EQ(blocks, load_be32(image.volume_header() + vh::kCatalogFile + forkdata::kTotalBlocks));
  morv_btree_destroy(&catalog);
  EXPECT_EQ(catalog, nullptr);
  // The same fork without its overflow records cannot be opened whole.
  testing::internal::CaptureStderr();
  EXPECT_NE(morv_btree_create(image.device(), nullptr, 0, image.volume_header(), kBtreeKindCatalog,
                              no_compare, &catalog),
            MORV_OK);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Error while reading catalog B-Tree into "
                                                        "memory.\n"),
            std::string::npos);
}

TEST(ExtentsTree, WrongTreeTypeOrKindIsRefused) {
  Image image("--size 8388608 --label X --corrupt extents-btree-type");
  testing::internal::CaptureStderr();
  EXPECT_EQ(image.open_extents(), MORV_ERR_CORRUPT);
  morv_btree* tree = nullptr;
  EXPECT_EQ(morv_btree_create(image.device(), nullptr, 1, image.volume_header(), 5, no_compare,
                              &tree),
            MORV_ERR_INVALID_ARGUMENT);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Tree type, according to header node, is 128 - and not kHFSBTreeType (0)\n"),
            std::string::npos);
  EXPECT_NE(log.find("Error while reading Extents B-Tree into memory.\n"), std::string::npos);
  EXPECT_NE(log.find("Error while reading unknown B-Tree into memory.\n"), std::string::npos);
  EXPECT_EQ(tree, nullptr);
}
