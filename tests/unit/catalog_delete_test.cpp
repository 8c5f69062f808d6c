// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "alloc_test_support.hpp"

using namespace alloc_test;
using morv_test::find;
using morv_test::Found;
using morv_test::has;
using morv_test::logged;

namespace {

// 4 KiB blocks. Folders 16-19 ("folder 1" and "folder 3" in the root,
// "folder 2" in 1, "folder 4" in 3); files 20-49, file i (CNID 20 + i) in
// the root or folder 1 to 4 as i mod 5 says. Files 20-39 hold data in
// 1 to 20 one-block extents and a resource fork in 9, overflow records
// included.
const char* const kShapes =
    "--size 8388608 --label Del --files 30 --folders 4 --nesting 2 --fragmented-files 20 "
    "--file-fragments 20 --varied-fragments --resource-fragments 9";

// Deletes and checks that the header and the checker follow.
void delete_and_check(Volume& v, uint32_t cnid, uint32_t blocks_freed) {
  const uint32_t free_before = v.free_blocks(), files_before = v.files();
  const std::string log = logged([&] { EXPECT_EQ(delete_record(v.volume, cnid), MORV_OK); });
  // No parent locator: the parent is found by the key's parentID.
  EXPECT_TRUE(has(log, "INFO: No parent rec in delete..This is a todo\n")) << log;
  EXPECT_EQ(v.free_blocks(), free_before + blocks_freed) << "CNID " << cnid;
  EXPECT_EQ(v.files(), files_before - 1);
  ASSERT_EQ(v.check(), "") << "after deleting CNID " << cnid;
}

}  // namespace

TEST(CatalogDelete, FilesOfOneToTwentyExtentsWithResourceForksThenFoldersOnceEmpty) {
  Volume v(kShapes);
  for (uint32_t j = 0; j < 20; ++j) delete_and_check(v, 20 + j, j + 1 + 9);

  // Folder 2 (CNID 17) still holds files 22 and 27 (CNIDs 42, 47).
  const uint32_t folders = v.folders();
  const std::vector<uint8_t> before = v.bytes();
  Found folder;
  ASSERT_EQ(find(v.volume->catalog, {u"folder 1", u"folder 2"}, &folder), MORV_OK);
  int can = -1;
  ASSERT_EQ(morv_catalog_can_delete_file(v.volume->catalog, folder.get(), &can), MORV_OK);
  EXPECT_EQ(can, 0);
  EXPECT_LOGGED(morv_catalog_delete(v.volume->catalog, v.volume, folder.get()), MORV_ERR_INVALID_ARGUMENT,
                "Invalid parameter: Folder 17 is not empty.\n");
  v.flush();
  EXPECT_EQ(v.bytes(), before);

  // Through paths the records carry their parent: no warning.
  EXPECT_EQ(logged([&] {
    EXPECT_EQ(delete_record(v.volume, {u"folder 1", u"folder 2", u"file 000022"}), MORV_OK);
    EXPECT_EQ(delete_record(v.volume, {u"folder 1", u"folder 2", u"File 000027"}), MORV_OK);
  }), "");
  ASSERT_EQ(morv_catalog_can_delete_file(v.volume->catalog, folder.get(), &can), MORV_OK);
  EXPECT_EQ(can, 1);
  ASSERT_EQ(morv_catalog_delete(v.volume->catalog, v.volume, folder.get()), MORV_OK);
  EXPECT_EQ(v.folders(), folders - 1);
  ASSERT_EQ(v.check(), "");

  // Neither the root nor a thread record can go, nor a record whose parent
  // locator holds another folder than its parent.
  Found root, thread, file, other;
  ASSERT_EQ(find(v.volume->catalog, kRootFolderCnid, 1, &root), MORV_OK);
  ASSERT_EQ(find(v.volume->catalog, 40, 0, &thread), MORV_OK);
  ASSERT_EQ(find(v.volume->catalog, 40, 1, &file), MORV_OK);
  ASSERT_EQ(find(v.volume->catalog, 16, 1, &other), MORV_OK);
  ASSERT_EQ(morv_catalog_record_locator_set_parent_locator(file.get(), other.get()), MORV_OK);
  const std::string log = logged([&] {
    EXPECT_EQ(morv_catalog_delete(v.volume->catalog, v.volume, root.get()), MORV_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(morv_catalog_delete(v.volume->catalog, v.volume, thread.get()), MORV_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(morv_catalog_delete(v.volume->catalog, v.volume, file.get()), MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_TRUE(has(log, "Invalid parameter: The parent locator does not hold folder 2, the record's parent.\n"));
  EXPECT_TRUE(has(log, "Invalid parameter: The root folder cannot be deleted.\n"));
  EXPECT_TRUE(has(log, "Invalid parameter: Record to delete is not a file or folder record (record type: 4).\n"));
}

TEST(CatalogDelete, MissingThreadsNeitherTakeANeighbourNorHideAChild) {
  // Folders 16-18; files 19 (root) and 20 (in 16); 17 and 18 are empty.
  Volume v("--size 4194304 --label Threads --files 2 --folders 3");
  morv_btree* tree = v.catalog_tree();
  int empty = -1;
  Found empty_folder;
  ASSERT_EQ(find(v.volume->catalog, 17, 1, &empty_folder), MORV_OK);
  // Behind its thread comes the thread of folder 18, another parent's.
  ASSERT_EQ(morv_catalog_is_directory_empty(v.volume->catalog, empty_folder.get(), &empty), MORV_OK);
  EXPECT_EQ(empty, 1);

  // Without their threads, a search for one stops at the next record: for
  // file 19 the thread of file 20, for folder 16 its only child, file 20.
  for (uint32_t cnid : {19u, 16u}) {
    Found thread;
    ASSERT_EQ(find(v.volume->catalog, cnid, 0, &thread), MORV_OK);
    ASSERT_EQ(morv_btree_delete_record(tree, thread.get()->btree_locator), MORV_OK);
  }
  Found busy;
  ASSERT_EQ(find(v.volume->catalog, {u"folder 1"}, &busy), MORV_OK);
  ASSERT_EQ(morv_catalog_is_directory_empty(v.volume->catalog, busy.get(), &empty), MORV_OK);
  EXPECT_EQ(empty, 0);
  // The file goes, its parent's valence and the header's count with it, and
  // the neighbouring thread stays: once folder 16's thread is back (by a
  // rename in place) the checker finds nothing wrong.
  const uint32_t files = v.files();
  EXPECT_LOGGED(delete_record(v.volume, {u"file 000000"}), MORV_OK,
                "No thread record found for deleted file.\n");
  EXPECT_EQ(v.files(), files - 1);
  logged([&] {
    ASSERT_EQ(morv_test::rename_to(v.volume->catalog, &busy.result.locator, kRootFolderCnid, u"folder 1"), MORV_OK);
  });
  EXPECT_EQ(v.check(), "");
}

TEST(CatalogFileRecords, SizesFromEitherForkAndNoWriteOutsideTheRecord) {
  uint8_t file[catalog::kFileRecordSize] = {};
  store_be16(file, catalog::kFileRecord);
  store_be64(file + catalog::kFileResourceFork, 777);
  morv_catalog_record record{file, sizeof file};
  EXPECT_EQ(morv_catalog_record_get_file_size(&record, nullptr), 777u);
  morv_catalog_record_set_file_size(&record, 5);
  EXPECT_EQ(load_be64(file + catalog::kFileDataFork), 5u);
  EXPECT_EQ(morv_catalog_record_get_file_size(&record, nullptr), 5u);

  // A folder record is 88 bytes: the size has nowhere to go.
  uint8_t folder[catalog::kFolderRecordSize + 16];
  memset(folder, 0xA5, sizeof folder);
  store_be16(folder, catalog::kFolderRecord);
  morv_catalog_record short_folder{folder, catalog::kFolderRecordSize};
  std::string log = logged([&] {
    morv_catalog_record_set_file_size(&short_folder, 1);
    morv_catalog_record_set_file_size(nullptr, 1);
    EXPECT_EQ(morv_catalog_record_get_file_size(&short_folder, nullptr), 0u);
  });
  EXPECT_TRUE(has(log, "morv_catalog_record_set_file_size: Can only set size for a file record - This is a "
                       "record of type: 1\n"));
  EXPECT_TRUE(has(log, "Error in morv_catalog_record_set_file_size - no record\n"));
  for (size_t i = catalog::kFolderRecordSize; i < sizeof folder; ++i) EXPECT_EQ(folder[i], 0xA5) << i;
  // A record of another type that has room is written all the same.
  morv_catalog_record long_folder{file, sizeof file};
  store_be16(file, catalog::kFolderRecord);
  EXPECT_TRUE(has(logged([&] { morv_catalog_record_set_file_size(&long_folder, 9); }), "record of type: 1\n"));
  EXPECT_EQ(load_be64(file + catalog::kFileDataFork), 9u);

  // Names for the host: backslashes become slashes; the terminator stays
  // inside the buffer, so a result as long as the buffer does not fit.
  char out[8];
  memset(out, 'x', sizeof out);
  const std::u16string text = u"a\\b\u00e9";
  const std::vector<uint16_t> name(text.begin(), text.end());
  EXPECT_EQ(morv_catalog_widechar_to_utf8(name.data(), name.size(), out, 6), 5u);
  EXPECT_EQ(std::string(out), "a/b\xc3\xa9");
  memset(out, 'x', sizeof out);
  EXPECT_LOGGED(morv_catalog_widechar_to_utf8(name.data(), name.size(), out, 5), 0u,
                "Error while decoding UTF-16.\n");
  EXPECT_EQ(std::string(out + 5, 3), "xxx");
}

TEST(CatalogSymlinks, OneBlockHoldsTheTargetAndRefusalsChangeNothing) {
  // Files 16 (two blocks of data) and 17-19 (empty).
  Volume v("--size 4194304 --label Links --files 4 --fragmented-files 1 --file-fragments 2");
  const uint32_t free_before = v.free_blocks();
  ASSERT_EQ(make_symlink(v.volume, 17, u"made by\\morv/caf\u00e9"), MORV_OK);
  Found link;
  ASSERT_EQ(find(v.volume->catalog, 17, 1, &link), MORV_OK);
  const uint8_t* f = link.data();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(f + 48), 8), "slnkrhap");
  EXPECT_EQ(load_be16(f + catalog::kFileFinderFlags), 0x8000);
  EXPECT_EQ(load_be16(f + catalog::kFileMode), 0xA1FF);
  const uint8_t* fork = f + catalog::kFileDataFork;
  const std::string target = "made by/morv/caf\xc3\xa9";
  EXPECT_EQ(load_be64(fork), target.size());
  EXPECT_EQ(load_be32(fork + forkdata::kTotalBlocks), 1u);
  EXPECT_EQ(load_be32(fork + forkdata::kExtents + 4), 1u);
  const uint32_t block = load_be32(fork + forkdata::kExtents);
  EXPECT_EQ(v.free_blocks(), free_before - 1);
  ASSERT_EQ(v.check(), "");
  const std::vector<uint8_t> image = v.bytes();
  std::string written(reinterpret_cast<const char*>(&image[uint64_t{block} * 4096]), 4096);
  EXPECT_EQ(written, target + std::string(4096 - target.size(), '\0'));

  // The longest target fits; a longer one, one that is no UTF-16, a file
  // with data and a folder are refused.
  ASSERT_EQ(make_symlink(v.volume, 18, std::u16string(255, u'a')), MORV_OK);
  v.flush();
  const std::vector<uint8_t> before = v.bytes();
  const std::string log = logged([&] {
    EXPECT_EQ(make_symlink(v.volume, 19, std::u16string(256, u'a')), MORV_ERR_GENERIC);
    EXPECT_EQ(make_symlink(v.volume, 19, u"\xd800"), MORV_ERR_GENERIC);
    EXPECT_EQ(make_symlink(v.volume, 16, u"x"), MORV_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(make_symlink(v.volume, kRootFolderCnid, u"x"), MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_TRUE(has(log, "At error with no error value set!\n"));
  EXPECT_TRUE(has(log, "Invalid parameter: File 16 holds data; only a file with empty forks can become a symbolic link.\n"));
  v.flush();
  EXPECT_EQ(v.bytes(), before);
  EXPECT_EQ(v.check(), "");

  // No free block: no error value of its own.
  Volume full("--size 1048576 --label Full --files 1 --free-blocks 0");
  EXPECT_LOGGED(make_symlink(full.volume, 16, u"x"), MORV_ERR_GENERIC, "At error with no error value set!\n");
}

TEST(CatalogHardLinks, FollowedByThreadOrByNameAndTheLastLinkTakesTheFile) {
  // File 16 is the indirect node file (ten blocks) in the private folder 19,
  // named by links 20-22 in the root: by its CNID, as Mac OS makes them, or,
  // as Linux makes them, by a number of their own that only its name gives,
  // even when that number is another file's CNID (17).
  const std::string shape = "--size 4194304 --label Hard --files 3 --fragmented-files 1 "
                            "--file-fragments 10 --hard-links 3";
  for (const std::string number : {"", " --hard-link-number 1049797674", " --hard-link-number 17"}) {
    Volume v(shape + number);
    morv_catalog* cat = v.volume->catalog;
    auto follow = [&](uint32_t link_cnid) {
      Found link, target;
      EXPECT_EQ(find(v.volume->catalog, link_cnid, 1, &link), MORV_OK);
      std::vector<uint8_t> copy(link.data(), link.data() + catalog::kFileRecordSize);
      morv_catalog_record record{copy.data(), copy.size()};
      EXPECT_EQ(morv_catalog_follow_hard_link(cat, &record, &target.result), MORV_OK);
      EXPECT_EQ(morv_catalog_record_get_file_size(&record, cat), 40960u);
      return target.result.exact_match ? load_be32(target.data() + catalog::kRecordCnid) : 0u;
    };
    auto link_count = [&] {
      Found node;
      EXPECT_EQ(find(v.volume->catalog, 16, 1, &node), MORV_OK);
      return node.get() ? load_be32(node.data() + catalog::kFileSpecial) : 0u;
    };
    EXPECT_EQ(follow(21), 16u) << number;
    // The file alone would leave its links dangling.
    const auto image = v.bytes();
    EXPECT_LOGGED(delete_record(v.volume, 16u), MORV_ERR_INVALID_ARGUMENT,
                  "Indirect node file 16 is still named by 3 hard links");
    v.flush();
    EXPECT_EQ(v.bytes(), image);
    const uint32_t free_before = v.free_blocks(), files = v.files();
    testing::internal::CaptureStderr();
    ASSERT_EQ(delete_record(v.volume, 20u), MORV_OK);
    EXPECT_EQ(link_count(), 2u);
    ASSERT_EQ(delete_record(v.volume, {u"link 1"}), MORV_OK);
    EXPECT_EQ(link_count(), 1u);
    ASSERT_EQ(v.check(), "");
    ASSERT_EQ(delete_record(v.volume, 22u), MORV_OK);
    testing::internal::GetCapturedStderr();
    Found gone;
    EXPECT_EQ(find(v.volume->catalog, 16, 1, &gone), MORV_ERR_CORRUPT);
    EXPECT_EQ(v.free_blocks(), free_before + 10);
    EXPECT_EQ(v.files(), files - 4);
    EXPECT_EQ(v.check(), "");
  }
}

TEST(CatalogDelete, EveryFailureLeavesTheImageAsItWasAndLeaksNothing) {
  // Folder 16 holds file 18; file 17 is "iNode17" of the private folder 20,
  // named by links 21 and 22; file 19 is empty. Files 17 and 18 have 20 data
  // and 9 resource blocks. Deleted: file 18, then its folder, one link (the
  // link count drops), the other with file 17; file 19 becomes a symbolic
  // link.
  Volume v("--size 4194304 --label Fail --catalog-node-size 512 --extents-node-size 512 --files 3 "
           "--folders 1 --fragmented-files 2 --file-fragments 20 --resource-fragments 9 --hard-links 2");
  const uint32_t free_before = v.free_blocks();
  auto run = [&](auto op) {
    const uint64_t failures = alloc_test::fail_each_unchanged(v, [&](morv_volume* vol) {
      const morv_err err = op(vol);
      EXPECT_FALSE(morv_catalog_has_open_locators(vol->catalog));
      return err;
    });
    EXPECT_GT(failures, 0u);
    EXPECT_EQ(v.check(), "");
  };
  run([](morv_volume* vol) { return delete_record(vol, 18u); });
  run([](morv_volume* vol) { return delete_record(vol, {u"folder 1"}); });
  run([](morv_volume* vol) { return delete_record(vol, {u"link 0"}); });
  run([](morv_volume* vol) { return delete_record(vol, 22u); });
  EXPECT_EQ(v.free_blocks(), free_before + 2 * 29);
  run([](morv_volume* vol) { return make_symlink(vol, 19, u"folder 1/gone"); });
  EXPECT_EQ(v.free_blocks(), free_before + 2 * 29 - 1);
}

TEST(CatalogDelete, DeletingEverythingInRandomOrderEndsAsAFreshEmptyVolume) {
  const std::string shape = "--size 8388608 --label Trip";
  Volume v(shape + " --files 80 --folders 6 --nesting 3 --fragmented-files 12 --file-fragments 12 "
                   "--varied-fragments --resource-fragments 3");
  std::vector<uint32_t> files;
  for (uint32_t cnid = 22; cnid < 102; ++cnid) files.push_back(cnid);
  std::shuffle(files.begin(), files.end(), std::mt19937(10));
  testing::internal::CaptureStderr();
  for (size_t i = 0; i < files.size(); ++i) {
    ASSERT_EQ(delete_record(v.volume, files[i]), MORV_OK) << files[i];
    if (i % 7 == 0) v.flush();
  }
  for (uint32_t folder : {18u, 17u, 16u, 21u, 20u, 19u}) ASSERT_EQ(delete_record(v.volume, folder), MORV_OK);
  testing::internal::GetCapturedStderr();
  ASSERT_EQ(v.check(), "");

  // The same shape built empty: its catalog and extents files as large.
  auto nodes = [&](size_t fork, morv_btree* tree) { return load_be64(v.volume->header + fork) / tree->node_size; };
  Volume fresh(shape + " --free-catalog-nodes " + std::to_string(nodes(vh::kCatalogFile, v.catalog_tree()) - 2) +
               " --free-extents-nodes " + std::to_string(nodes(vh::kExtentsFile, v.volume->extents->tree) - 1));
  for (size_t offset : {vh::kFileCount, vh::kFolderCount, vh::kFreeBlocks, vh::kAllocationFile + forkdata::kTotalBlocks})
    EXPECT_EQ(field(v.volume, offset), field(fresh.volume, offset)) << offset;
  const uint32_t bytes = (field(v.volume, vh::kTotalBlocks) + 7) / 8;
  std::vector<uint8_t> ours(bytes), theirs(bytes);
  ASSERT_EQ(morv_fork_read(morv_bitmap_fork(v.volume->bitmap), 0, ours.data(), bytes, nullptr), MORV_OK);
  ASSERT_EQ(morv_fork_read(morv_bitmap_fork(fresh.volume->bitmap), 0, theirs.data(), bytes, nullptr), MORV_OK);
  EXPECT_EQ(ours, theirs);
}
