#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <utility>
#include <unistd.h>
#include <vector>

#include "btree.hpp"
#include "catalog.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"
#include "volume.hpp"
#include "catalog_fixtures.hpp"

namespace {

using namespace morv_test;


int compare(uint32_t pa, const std::u16string& a, uint32_t pb, const std::u16string& b, uint32_t type) {
  return morv_catalog_compare_keys(make_key(pa, a).data(), make_key(pb, b).data(), type);
}

// A CNID in on-disk byte order, as rename takes its new parent.
uint32_t on_disk(uint32_t cnid) {
  uint8_t bytes[4];
  store_be32(bytes, cnid);
  uint32_t value;
  memcpy(&value, bytes, 4);
  return value;
}

// Renames through a name given in host order.
morv_err rename_to(OpenCatalog& cat, morv_catalog_record_locator** locator, uint32_t parent,
                const std::u16string& name) {
  const std::vector<uint8_t> key = make_key(0, name);
  return morv_catalog_rename_record(cat.catalog, locator, on_disk(parent),
                                    reinterpret_cast<const uint16_t*>(&key[8]), name.size());
}

// Walks the records behind `from` (by get_next) to the first of `type`
// under `parent`; returns its name and CNID.
std::pair<std::u16string, uint32_t> first_child(OpenCatalog& cat, morv_catalog_record_locator* from,
                                                uint32_t parent, uint16_t type) {
  std::pair<std::u16string, uint32_t> found;
  morv_catalog_record_locator* cur = nullptr;
  EXPECT_EQ(morv_catalog_get_next_record(cat.catalog, from, &cur), MORV_OK);
  while (cur && load_be32(cur->btree_locator->key + 2) == parent && found.first.empty()) {
    if (type_of(cur) == type)
      found = {key_name(cur->btree_locator->key), load_be32(cur->btree_locator->data + catalog::kRecordCnid)};
    morv_catalog_record_locator* following = nullptr;
    EXPECT_EQ(morv_catalog_get_next_record(cat.catalog, cur, &following), MORV_OK);
    morv_catalog_record_locator_close(&cur);
    cur = following;
  }
  if (cur) morv_catalog_record_locator_close(&cur);
  return found;
}

}  // namespace

TEST(CatalogKeys, OrderByParentThenNameInTheVolumesMode) {
  EXPECT_LT(compare(16, u"zzz", 17, u"aaa", 0xCF), 0);
  EXPECT_GT(compare(17, u"", 16, u"zzz", 0xBC), 0);
  EXPECT_EQ(compare(16, u"FOO", 16, u"foo", 0xCF), 0);
  EXPECT_LT(compare(16, u"FOO", 16, u"foo", 0xBC), 0);
  EXPECT_LT(compare(16, u"", 16, u"a", 0xCF), 0);
  // Names starting with U+0000 in the root folder: first in binary mode,
  // last in case-folding mode, and never equal (A wins the tie).
  const std::u16string hidden = std::u16string(1, u'\0') + u"meta";
  EXPECT_LT(compare(2, hidden, 2, u"A", 0xBC), 0);
  EXPECT_GT(compare(2, hidden, 2, u"zz", 0xCF), 0);
  EXPECT_LT(compare(2, u"A", 2, hidden, 0xCF), 0);
  EXPECT_LT(compare(2, hidden, 2, hidden, 0xBC), 0);
  EXPECT_GT(compare(2, hidden, 2, hidden, 0xCF), 0);

  std::vector<uint8_t> short_key = make_key(16, u"");
  store_be16(&short_key[0], 5);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_catalog_compare_keys(short_key.data(), make_key(1, u"").data(), 0xCF), -1);
  EXPECT_EQ(morv_catalog_compare_keys(make_key(1, u"").data(), short_key.data(), 0xCF), -1);
  EXPECT_EQ(compare(1, u"a", 1, u"a", 0), -1);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Data in A is too small to be a HFSPlusCatalogKey (5 bytes).\n"), std::string::npos);
  EXPECT_NE(log.find("Data in B is too small to be a HFSPlusCatalogKey (5 bytes).\n"), std::string::npos);
  EXPECT_NE(log.find("Illegal value for compare_type: 0x0\n"), std::string::npos);
}

TEST(CatalogLookups, ByCnidThreadAndPath) {
  OpenCatalog cat("--size 8388608 --label Root --files 30 --folders 3");
  auto root = cat.by_cnid(kRootFolderCnid, 1);
  ASSERT_NE(root.locator, nullptr);
  EXPECT_EQ(root.exact_match, 1u);
  EXPECT_EQ(type_of(root.locator), catalog::kFolderRecord);
  EXPECT_EQ(key_name(root.locator->btree_locator->key), u"Root");
  auto thread = cat.by_cnid(kRootFolderCnid, 0);
  EXPECT_EQ(type_of(thread.locator), catalog::kFolderThreadRecord);
  // No thread for this CNID: success, not exact, a locator at the insert place.
  auto missing = cat.by_cnid(0x7FFFFFF0u, 1);
  EXPECT_EQ(missing.exact_match, 0u);
  EXPECT_NE(missing.locator, nullptr);

  // Paths: the root itself, a missing name in a folder, a file, through a file.
  morv_catalog_search_result children;
  morv_catalog_search_result_init(&children);
  Path empty;
  ASSERT_EQ(morv_catalog_search_by_path(cat.catalog, Path::source, &empty, nullptr, &children), MORV_OK);
  EXPECT_EQ(children.exact_match, 1u);
  EXPECT_EQ(load_be32(children.locator->btree_locator->data + catalog::kRecordCnid), kRootFolderCnid);
  morv_catalog_search_result_release(&children);
  const std::u16string folder = first_child(cat, root.locator, kRootFolderCnid, catalog::kFolderRecord).first;
  const std::u16string file = first_child(cat, root.locator, kRootFolderCnid, catalog::kFileRecord).first;
  ASSERT_FALSE(folder.empty());
  ASSERT_FALSE(file.empty());

  Path to_missing{{folder, u"no such name"}};
  ASSERT_EQ(morv_catalog_search_by_path(cat.catalog, Path::source, &to_missing, nullptr, &children), MORV_OK);
  EXPECT_EQ(children.exact_match, 0u);
  ASSERT_NE(children.locator, nullptr);
  ASSERT_NE(*children.locator->parent, nullptr);
  EXPECT_EQ(key_name((*children.locator->parent)->btree_locator->key), folder);
  morv_catalog_search_result_release(&children);

  Path to_file{{file}};
  ASSERT_EQ(morv_catalog_search_by_path(cat.catalog, Path::source, &to_file, nullptr, &children), MORV_OK);
  EXPECT_EQ(children.exact_match, 1u);
  EXPECT_EQ(children.locator->record_type, catalog::kFileRecord);
  morv_catalog_search_result_release(&children);

  Path through_file{{file, u"x"}};
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_catalog_search_by_path(cat.catalog, Path::source, &through_file, nullptr, &children),
            MORV_ERR_INTERNAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Unexpected record type for parent directory in lookup: 2.\n"),
            std::string::npos);
  EXPECT_EQ(children.locator, nullptr);

  morv_catalog_search_result_release(&root);
  morv_catalog_search_result_release(&thread);
  morv_catalog_search_result_release(&missing);
}

TEST(CatalogLocators, SharedParentsAndLeakedLocatorsAreCounted) {
  OpenCatalog cat("--size 4194304 --label Loc --files 3");
  auto root = cat.by_cnid(kRootFolderCnid, 1);
  auto thread = cat.by_cnid(kRootFolderCnid, 0);
  // The thread holds a reference on the root: closing the root's own handle
  // leaves it alive until the thread lets go.
  ASSERT_EQ(morv_catalog_record_locator_set_parent_locator(thread.locator, root.locator), MORV_OK);
  ASSERT_EQ(morv_catalog_record_locator_set_parent_locator(thread.locator, root.locator), MORV_OK);
  morv_catalog_record_locator* root_alias = root.locator;
  morv_catalog_search_result_release(&root);
  EXPECT_EQ(*thread.locator->parent, root_alias);
  EXPECT_EQ(type_of(root_alias), catalog::kFolderRecord);

  // Leak the thread (which keeps the root) and one more lookup of the root.
  auto leaked = cat.by_cnid(kRootFolderCnid, 1);
  EXPECT_EQ(leaked.locator->btree_locator, root_alias->btree_locator);  // one record, one engine locator
  testing::internal::CaptureStderr();
  morv_catalog_destroy(&cat.catalog);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Cleaned up 3 leaked catalog record locators on destroy.\n"),
            std::string::npos);
  EXPECT_EQ(cat.catalog, nullptr);
}

TEST(CatalogRename, RootFolderAndFilesKeepThreadsAndValences) {
  OpenCatalog cat("--size 8388608 --block-size 512 --label Old --files 200 --folders 4");
  // The root folder: renamed in place, no valence change, thread rebuilt.
  auto root = cat.by_cnid(kRootFolderCnid, 1);
  const uint32_t root_valence = valence_of(root.locator);
  ASSERT_EQ(rename_to(cat, &root.locator, kRootParentCnid, std::u16string(60, u'N')), MORV_OK);
  EXPECT_EQ(root.locator, nullptr);
  root = cat.by_cnid(kRootFolderCnid, 1);
  EXPECT_EQ(key_name(root.locator->btree_locator->key), std::u16string(60, u'N'));
  EXPECT_EQ(valence_of(root.locator), root_valence);
  auto thread = cat.by_cnid(kRootFolderCnid, 0);
  EXPECT_EQ(load_be16(thread.locator->btree_locator->data + catalog::kThreadName), 60);

  // Moving the root under another folder is refused before anything changes.
  testing::internal::CaptureStderr();
  EXPECT_EQ(rename_to(cat, &root.locator, 16, u"abc"), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Attempting to move root directory"),
            std::string::npos);
  EXPECT_NE(root.locator, nullptr);

  // A file of the root moved into the first folder (CNID 16 is a folder).
  auto folder = cat.by_cnid(16, 1);
  ASSERT_EQ(type_of(folder.locator), catalog::kFolderRecord);
  const uint32_t folder_valence = valence_of(folder.locator);
  morv_catalog_search_result_release(&folder);
  const auto [file_name, file_cnid] = first_child(cat, root.locator, kRootFolderCnid, catalog::kFileRecord);
  morv_catalog_search_result_release(&root);
  morv_catalog_search_result_release(&thread);
  Path to_file{{file_name}};
  morv_catalog_search_result file;
  morv_catalog_search_result_init(&file);
  ASSERT_EQ(morv_catalog_search_by_path(cat.catalog, Path::source, &to_file, nullptr, &file), MORV_OK);
  ASSERT_EQ(file.exact_match, 1u);
  ASSERT_EQ(rename_to(cat, &file.locator, 16, u"Moved file"), MORV_OK);
  morv_catalog_search_result_release(&file);
  root = cat.by_cnid(kRootFolderCnid, 1);
  EXPECT_EQ(valence_of(root.locator), root_valence - 1);
  folder = cat.by_cnid(16, 1);
  EXPECT_EQ(valence_of(folder.locator), folder_valence + 1);
  auto file_thread = cat.by_cnid(file_cnid, 0);
  EXPECT_EQ(type_of(file_thread.locator), catalog::kFileThreadRecord);
  EXPECT_EQ(load_be32(file_thread.locator->btree_locator->data + catalog::kThreadParentId), 16u);
  morv_catalog_search_result_release(&root);
  morv_catalog_search_result_release(&folder);
  morv_catalog_search_result_release(&file_thread);
  cat.flush();
  EXPECT_EQ(morv_test::check_image(cat.file.path()), "");
}

TEST(CatalogRename, MissingThreadIsRecreatedAndFailuresLeaveTheImageUnwritten) {
  OpenCatalog cat("--size 4194304 --label Lonely --files 5 --corrupt no-root-thread");
  // Without a thread the root is found by its key (parent 1, name).
  const std::vector<uint8_t> key = make_key(kRootParentCnid, u"Lonely");
  morv_catalog_search_result root;
  morv_catalog_search_result_init(&root);
  ASSERT_EQ(morv_catalog_search_node(cat.catalog, key.data(), &root), MORV_OK);
  ASSERT_EQ(root.exact_match, 1u);
  testing::internal::CaptureStderr();
  ASSERT_EQ(rename_to(cat, &root.locator, kRootParentCnid, u"Found"), MORV_OK);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Missing thread record for original file in rename. Creating new thread record...\n"),
            std::string::npos);
  auto thread = cat.by_cnid(kRootFolderCnid, 1);
  EXPECT_EQ(thread.exact_match, 1u);
  EXPECT_EQ(key_name(thread.locator->btree_locator->key), u"Found");
  morv_catalog_search_result_release(&thread);
  cat.flush();
  EXPECT_EQ(morv_test::check_image(cat.file.path()), "");
}
