// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "catalog_fixtures.hpp"

using namespace morv_test;

namespace {

int compare(uint32_t pa, const std::u16string& a, uint32_t pb, const std::u16string& b, uint32_t type) {
  return morv_catalog_compare_keys(make_key(pa, a).data(), make_key(pb, b).data(), type);
}

}  // namespace

TEST(CatalogKeys, OrderByParentThenNameInTheVolumesMode) {
  // Names starting with U+0000 in the root folder: first in binary mode,
  // last in case-folding mode, and never equal (A wins the tie).
  const std::u16string hidden = std::u16string(1, u'\0') + u"meta";
  const struct { uint32_t pa; std::u16string a; uint32_t pb; std::u16string b; uint32_t type; int order; } cases[] = {
      {16, u"zzz", 17, u"aaa", 0xCF, -1}, {17, u"", 16, u"zzz", 0xBC, 1},   {16, u"FOO", 16, u"foo", 0xCF, 0},
      {16, u"FOO", 16, u"foo", 0xBC, -1}, {16, u"", 16, u"a", 0xCF, -1},    {2, hidden, 2, u"A", 0xBC, -1},
      {2, hidden, 2, u"zz", 0xCF, 1},     {2, u"A", 2, hidden, 0xCF, -1},   {2, hidden, 2, hidden, 0xBC, -1},
      {2, hidden, 2, hidden, 0xCF, 1}};
  for (const auto& c : cases) {
    const int got = compare(c.pa, c.a, c.pb, c.b, c.type);
    EXPECT_EQ((got > 0) - (got < 0), c.order) << c.pa << " " << c.pb << " " << c.type;
  }

  std::vector<uint8_t> short_key = make_key(16, u"");
  store_be16(&short_key[0], 5);
  const std::string log = logged([&] {
    EXPECT_EQ(morv_catalog_compare_keys(short_key.data(), make_key(1, u"").data(), 0xCF), -1);
    EXPECT_EQ(morv_catalog_compare_keys(make_key(1, u"").data(), short_key.data(), 0xCF), -1);
    EXPECT_EQ(compare(1, u"a", 1, u"a", 0), -1);
  });
  EXPECT_TRUE(has(log, "Data in A is too small to be a HFSPlusCatalogKey (5 bytes).\n"));
  EXPECT_TRUE(has(log, "Data in B is too small to be a HFSPlusCatalogKey (5 bytes).\n"));
  EXPECT_TRUE(has(log, "Illegal value for compare_type: 0x0\n"));
}

TEST(CatalogLookups, ByCnidThreadAndPath) {
  OpenCatalog cat("--size 8388608 --label Root --files 30 --folders 3");
  Found root = cat.by_cnid(kRootFolderCnid, 1);
  ASSERT_NE(root.get(), nullptr);
  EXPECT_EQ(root.result.exact_match, 1u);
  EXPECT_EQ(type_of(root.get()), catalog::kFolderRecord);
  EXPECT_EQ(key_name(root.get()->btree_locator->key), u"Root");
  EXPECT_EQ(type_of(cat.by_cnid(kRootFolderCnid, 0).get()), catalog::kFolderThreadRecord);
  // No thread for this CNID: success, not exact, a locator at the insert place.
  Found missing = cat.by_cnid(0x7FFFFFF0u, 1);
  EXPECT_EQ(missing.result.exact_match, 0u);
  EXPECT_NE(missing.get(), nullptr);

  // Paths: the root itself, a missing name in a folder, a file, through a file.
  Found found;
  ASSERT_EQ(find(cat.catalog, {}, &found), MORV_OK);
  EXPECT_EQ(load_be32(found.data() + catalog::kRecordCnid), kRootFolderCnid);
  const std::u16string folder = first_child(cat.catalog, root.get(), kRootFolderCnid, catalog::kFolderRecord).first;
  const std::u16string file = first_child(cat.catalog, root.get(), kRootFolderCnid, catalog::kFileRecord).first;
  ASSERT_FALSE(folder.empty());
  ASSERT_FALSE(file.empty());

  ASSERT_EQ(by_path(cat.catalog, {folder, u"no such name"}, &found), MORV_OK);
  EXPECT_EQ(found.result.exact_match, 0u);
  ASSERT_NE(found.get(), nullptr);
  ASSERT_NE(*found.get()->parent, nullptr);
  EXPECT_EQ(key_name((*found.get()->parent)->btree_locator->key), folder);

  ASSERT_EQ(find(cat.catalog, {file}, &found), MORV_OK);
  EXPECT_EQ(found.get()->record_type, catalog::kFileRecord);

  EXPECT_LOGGED(by_path(cat.catalog, {file, u"x"}, &found), MORV_ERR_INTERNAL,
                "Unexpected record type for parent directory in lookup: 2.\n");
  EXPECT_EQ(found.get(), nullptr);
}

TEST(CatalogLocators, SharedParentsAndLeakedLocatorsAreCounted) {
  OpenCatalog cat("--size 4194304 --label Loc --files 3");
  Found root = cat.by_cnid(kRootFolderCnid, 1), thread = cat.by_cnid(kRootFolderCnid, 0);
  // The thread holds a reference on the root: closing the root's own handle
  // leaves it alive until the thread lets go.
  ASSERT_EQ(morv_catalog_record_locator_set_parent_locator(thread.get(), root.get()), MORV_OK);
  ASSERT_EQ(morv_catalog_record_locator_set_parent_locator(thread.get(), root.get()), MORV_OK);
  morv_catalog_record_locator* root_alias = root.get();
  root = Found();
  EXPECT_EQ(*thread.get()->parent, root_alias);
  EXPECT_EQ(type_of(root_alias), catalog::kFolderRecord);

  // Leak the thread (which keeps the root) and one more lookup of the root.
  Found leaked = cat.by_cnid(kRootFolderCnid, 1);
  EXPECT_EQ(leaked.get()->btree_locator, root_alias->btree_locator);  // one record, one engine locator
  EXPECT_TRUE(has(logged([&] { morv_catalog_destroy(&cat.catalog); }),
                  "Cleaned up 3 leaked catalog record locators on destroy.\n"));
  EXPECT_EQ(cat.catalog, nullptr);
  thread.result.locator = leaked.result.locator = nullptr;  // freed with the catalog
}

TEST(CatalogRename, RootFolderAndFilesKeepThreadsAndValences) {
  // Renames in place, the root's included, are followed record by record by
  // the catalog model; here a file moves to another folder found by path, and
  // the root may not move.
  OpenCatalog cat("--size 8388608 --block-size 512 --label Old --files 200 --folders 4");
  Found root = cat.by_cnid(kRootFolderCnid, 1);
  const uint32_t root_valence = valence_of(root.get());
  EXPECT_LOGGED(rename_to(cat.catalog, &root.result.locator, 16, u"abc"), MORV_ERR_INVALID_ARGUMENT,
                "Attempting to move root directory");
  EXPECT_NE(root.get(), nullptr);
  EXPECT_EQ(key_name(root.get()->btree_locator->key), u"Old");

  // A file of the root moved into the first folder (CNID 16 is a folder).
  ASSERT_EQ(type_of(cat.by_cnid(16, 1).get()), catalog::kFolderRecord);
  const uint32_t folder_valence = valence_of(cat.catalog, 16);
  const auto [file_name, file_cnid] = first_child(cat.catalog, root.get(), kRootFolderCnid, catalog::kFileRecord);
  root = Found();
  Found file;
  ASSERT_EQ(find(cat.catalog, {file_name}, &file), MORV_OK);
  ASSERT_EQ(rename_to(cat.catalog, &file.result.locator, 16, u"Moved file"), MORV_OK);
  EXPECT_EQ(valence_of(cat.catalog, kRootFolderCnid), root_valence - 1);
  EXPECT_EQ(valence_of(cat.catalog, 16), folder_valence + 1);
  Found file_thread = cat.by_cnid(file_cnid, 0);
  EXPECT_EQ(type_of(file_thread.get()), catalog::kFileThreadRecord);
  EXPECT_EQ(load_be32(file_thread.data() + catalog::kThreadParentId), 16u);
  file_thread = Found();
  cat.flush();
  EXPECT_EQ(check_image(cat.file.path()), "");
}

TEST(CatalogRename, MissingThreadIsRecreatedAndFailuresLeaveTheImageUnwritten) {
  OpenCatalog cat("--size 4194304 --label Lonely --files 5 --corrupt no-root-thread");
  // Without a thread the root is found by its key (parent 1, name).
  Found root;
  ASSERT_EQ(morv_catalog_search_node(cat.catalog, make_key(kRootParentCnid, u"Lonely").data(), &root.result), MORV_OK);
  ASSERT_EQ(root.result.exact_match, 1u);
  EXPECT_TRUE(has(logged([&] { ASSERT_EQ(rename_to(cat.catalog, &root.result.locator, kRootParentCnid, u"Found"), MORV_OK); }),
                  "Missing thread record for original file in rename. Creating new thread record...\n"));
  Found thread = cat.by_cnid(kRootFolderCnid, 1);
  EXPECT_EQ(thread.result.exact_match, 1u);
  EXPECT_EQ(key_name(thread.get()->btree_locator->key), u"Found");
  thread = Found();
  cat.flush();
  EXPECT_EQ(check_image(cat.file.path()), "");
}
