#include <gtest/gtest.h>

#include <random>

#include "btree_test_support.hpp"

using namespace btree_test;

namespace {

// The tree's leaf records as extents keys and records.
std::map<ExtKey, Record> tree_contents(morv_btree* tree) {
  const Key lowest = ext_key({0, 0, 0});
  std::map<ExtKey, Record> out;
  ExtKey prev{};
  bool first = true;
  for (const auto& [key, data] : walk(tree, lowest.data())) {
    EXPECT_EQ(key.size(), 12u);
    EXPECT_EQ(data.size(), 64u);
    const ExtKey k = ext_tuple(key.data());
    EXPECT_TRUE(first || prev < k) << "iteration out of key order";
    first = false;
    prev = k;
    Record r{};
    std::copy_n(data.begin(), std::min<size_t>(64, data.size()), r.begin());
    out[k] = r;
  }
  return out;
}

// Searches one key and compares with what the model says about it.
void expect_lookup(morv_extents* ext, const std::map<ExtKey, Record>& model, const ExtKey& k) {
  int found = -1;
  Record r{};
  ASSERT_EQ(morv_extents_get_next_extent_record(ext, std::get<1>(k), std::get<0>(k),
                                                std::get<2>(k), &found, r.data()),
            MORV_OK);
  auto it = model.find(k);
  ASSERT_EQ(found, it != model.end() ? 1 : 0);
  if (found) {
    EXPECT_EQ(r, it->second);
  }
}

struct ModelRun {
  uint16_t node_size;
  std::string shape;  // builder options beyond the node size
  int steps;
};

// Random insertions and deletions against an ordered model. Deletions that
// would empty a node are skipped: an emptied node stays in the tree, which
// the checker rightly reports (tested on its own below).
void run_model(const ModelRun& run, uint32_t seed) {
  Image image("--size 134217728 --label M --files 60 --extents-node-size " +
              std::to_string(run.node_size) + " " + run.shape);
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* tree = image.tree();
  std::map<ExtKey, Record> model = tree_contents(tree);
  const Header start = read_header(tree);
  ASSERT_EQ(start.leaf_records, model.size());
  std::mt19937 rng(seed);
  bool full = false;
  uint32_t inserted = 0, deleted = 0;
  const int steps = scaled(run.steps);
  int full_since = 0;
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE(step);
    if (full && step - full_since > 100) full = false;  // room again after deletions?
    ExtKey k;
    if (!full && (model.size() < 8 || rng() % 100 < 65)) {
      do {
        k = {16 + rng() % 400, rng() % 2 ? 0x00 : 0xFF, rng() % 100000};
      } while (model.count(k));
      const Record r = ext_record(k, step);
      const morv_err err = morv_extents_insert(image.extents(), std::get<1>(k), std::get<0>(k),
                                               std::get<2>(k), r.data());
      if (err == MORV_ERR_INTERNAL || err == MORV_ERR_UNSUPPORTED) {
        // The root is full or no node is free: refused before any change.
        full = true;
        full_since = step;
        EXPECT_EQ(read_header(tree).leaf_records, model.size());
      } else {
        ASSERT_EQ(err, MORV_OK);
        model[k] = r;
        ++inserted;
      }
    } else {
      auto it = model.begin();
      std::advance(it, rng() % model.size());
      k = it->first;
      morv_btree_search_result found;
      morv_btree_search_result_init(&found);
      const Key key = ext_key(k);
      ASSERT_EQ(morv_btree_search_node(tree, key.data(), &found), MORV_OK);
      ASSERT_TRUE(found.locator && found.exact_match);
      if (node_records(tree, *found.locator->node_number) > 1) {
        ASSERT_EQ(morv_btree_delete_record(tree, found.locator), MORV_OK);
        model.erase(it);
        ++deleted;
      }
      morv_btree_search_result_release(&found);
    }
    expect_lookup(image.extents(), model, k);
    if (::testing::Test::HasFatalFailure()) return;
    if (step % 500 == 499) {
      ASSERT_EQ(tree_contents(tree), model);
    }
  }
  ASSERT_EQ(tree_contents(tree), model);
  const Header end = read_header(tree);
  EXPECT_EQ(end.leaf_records, model.size());
  EXPECT_GT(inserted, 0u);
  ASSERT_EQ(morv_fork_flush(tree->fork), MORV_OK);
  EXPECT_EQ(check_structure(image.path()), "");
  printf("  node size %u, %s: %u inserted, %u deleted, %zu records, depth %u, %u free nodes%s\n",
         run.node_size, run.shape.c_str(), inserted, deleted, model.size(), end.depth,
         end.free_nodes, full ? ", tree filled" : "");
}

}  // namespace

TEST(BtreeModel, RandomInsertionsAndDeletionsMatchAnOrderedModel) {
  const ModelRun runs[] = {
      {512, "--free-extents-nodes 0", 300},  // empty: one root leaf, which fills
      {512, "--free-extents-nodes 600 --fragmented-files 30 --file-fragments 24", 3000},
      {512, "--free-extents-nodes 900 --fragmented-files 40 --file-fragments 60", 4000},
      {1024, "--free-extents-nodes 400 --fragmented-files 40 --file-fragments 100", 3000},
      {2048, "--free-extents-nodes 200 --fragmented-files 50 --file-fragments 100", 2000},
      {4096, "--free-extents-nodes 100 --fragmented-files 60 --file-fragments 200", 2000},
      {32768, "--free-extents-nodes 16 --fragmented-files 4 --file-fragments 16", 1000},
  };
  uint32_t seed = 1;
  for (const auto& run : runs) {
    SCOPED_TRACE(std::to_string(run.node_size) + " " + run.shape);
    run_model(run, seed++);
    if (HasFatalFailure()) return;
  }
}

namespace {

const char* kDeepExtents =
    "--size 134217728 --label D --files 60 --extents-node-size 512 --free-extents-nodes 900 "
    "--fragmented-files 40 --file-fragments 60";

morv_btree_record_locator* find(morv_btree* tree, const ExtKey& k) {
  morv_btree_search_result r;
  morv_btree_search_result_init(&r);
  const Key key = ext_key(k);
  EXPECT_EQ(morv_btree_search_node(tree, key.data(), &r), MORV_OK);
  EXPECT_TRUE(r.exact_match);
  return r.exact_match ? r.locator : (morv_btree_search_result_release(&r), nullptr);
}

// The record that the locator's node and index name now, read from the fork.
ExtKey key_at(morv_btree* tree, const morv_btree_record_locator* l) {
  std::vector<uint8_t> node(tree->node_size);
  EXPECT_EQ(morv_fork_read(tree->fork, uint64_t{*l->node_number} * tree->node_size, node.data(),
                           node.size(), nullptr),
            MORV_OK);
  const uint16_t off = load_be16(&node[node.size() - 2 * (*l->record_index + 1u)]);
  return ext_tuple(&node[off]);
}

}  // namespace

TEST(BtreeLocators, FollowMovesShareAndRefuseWritesAfterDeletion) {
  Image image(kDeepExtents);
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* tree = image.tree();
  auto model = tree_contents(tree);
  // Hold a locator on every record of the tree's third leaf.
  auto it = model.begin();
  std::advance(it, 13);
  morv_btree_record_locator* probe = find(tree, it->first);
  const uint32_t leaf = *probe->node_number;
  morv_btree_record_locator_close(&probe);
  std::vector<std::pair<ExtKey, morv_btree_record_locator*>> held;
  for (const auto& [k, r] : model) {
    morv_btree_record_locator* l = find(tree, k);
    if (*l->node_number == leaf) {
      held.emplace_back(k, l);
    } else {
      morv_btree_record_locator_close(&l);
    }
  }
  ASSERT_GE(held.size(), 2u);
  // Shared: a second open of the same record is the same locator.
  morv_btree_record_locator* again = find(tree, held[0].first);
  EXPECT_EQ(again, held[0].second);
  morv_btree_record_locator_close(&again);
  EXPECT_EQ(again, nullptr);
  EXPECT_EQ(ext_tuple(held[0].second->key), held[0].first);  // still open after one close
  // Insert keys between the first two held records until the leaf has split.
  const ExtKey lo = held[0].first;
  for (uint32_t i = 1; i < 8; ++i) {
    const ExtKey k{std::get<0>(lo), std::get<1>(lo), std::get<2>(lo) + i};
    if (!(k < held[1].first)) break;
    const Record r = ext_record(k, i);
    ASSERT_EQ(morv_extents_insert(image.extents(), std::get<1>(k), std::get<0>(k), std::get<2>(k),
                                  r.data()),
              MORV_OK);
    model[k] = r;
    for (const auto& [hk, l] : held) ASSERT_EQ(key_at(tree, l), hk) << "after insertion " << i;
  }
  EXPECT_NE(*held.back().second->node_number, leaf) << "the leaf never split";
  // Data written through a moved locator lands on its record.
  Record fresh = ext_record(held.back().first, 777);
  ASSERT_EQ(morv_btree_record_locator_write_data(held.back().second, fresh.data(), fresh.size()),
            MORV_OK);
  model[held.back().first] = fresh;
  EXPECT_EQ(morv_btree_record_locator_write_data(held.back().second, fresh.data(), 65),
            MORV_ERR_INVALID_ARGUMENT);
  // Deleting the first held record shifts the others and marks it deleted.
  ASSERT_EQ(morv_btree_delete_record(tree, held[0].second), MORV_OK);
  model.erase(held[0].first);
  for (size_t i = 1; i < held.size(); ++i) EXPECT_EQ(key_at(tree, held[i].second), held[i].first);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_btree_record_locator_write_data(held[0].second, fresh.data(), fresh.size()),
            MORV_ERR_INTERNAL);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Attempted to write data to deleted "
                                                        "locator.\n"),
            std::string::npos);
  EXPECT_EQ(ext_tuple(held[0].second->key), held[0].first);  // the copy stays readable
  morv_btree_record_locator* successor = find(tree, held[1].first);
  EXPECT_NE(successor, held[0].second);
  morv_btree_record_locator_close(&successor);
  EXPECT_EQ(tree_contents(tree), model);
  // Three locators left open, one of them twice: freed and reported at destroy.
  morv_btree_record_locator* twice = find(tree, held[1].first);
  EXPECT_EQ(twice, held[1].second);
  for (size_t i = 0; i < held.size(); ++i) {
    if (i < 1 || i > 3) morv_btree_record_locator_close(&held[i].second);
  }
  ASSERT_EQ(morv_fork_flush(tree->fork), MORV_OK);
  testing::internal::CaptureStderr();
  image.close_all();
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Cleaned up 3 leaked B-tree record locators on destroy.\n"),
            std::string::npos);
  EXPECT_EQ(check_structure(image.path()), "");
}

TEST(BtreeDamage, DamagedCatalogTreesEndWithCorrupt) {
  // The search for the root folder's thread record (parent 2, empty name)
  // passes the damaged node; keys order by parent, then name.
  const auto compare = [](const uint8_t* a, const uint8_t* b, uint32_t) -> int {
    const uint32_t pa = load_be32(a + 2), pb = load_be32(b + 2);
    if (pa != pb) return pa < pb ? -1 : 1;
    const size_t la = load_be16(a) - 6u, lb = load_be16(b) - 6u;
    const int c = memcmp(a + 8, b + 8, std::min(la, lb));
    return c ? c : (la < lb ? -1 : la > lb);
  };
  const struct {
    const char* corruption;
    const char* message;
    bool at_open;
  } cases[] = {
      {"index-self", "Index node points back to itself. Inconsistent B-tree.\n", false},
      {"index-beyond", "Index node points to node after the last node. Inconsistent B-tree.\n",
       false},
      {"index-cycle", "Aborting search due to cyclic references in the B-tree.\n", false},
      {"offsets-order", "Invalid node data: Records offsets are not in order", false},
      {"header-kind", "Node kind 0, 768 records - should be kind 1, 3 records", true},
      {"header-records", "Node kind 1, 512 records - should be kind 1, 3 records", true},
      {"btree-type", "Tree type, according to header node, is 128", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.corruption);
    Image image(std::string("--size 16777216 --label C --files 300 --catalog-node-size 512 "
                            "--corrupt ") + c.corruption);
    ASSERT_EQ(image.open_extents(), MORV_OK);
    morv_btree* catalog = nullptr;
    testing::internal::CaptureStderr();
    morv_err err = morv_btree_create(image.device(), image.extents(), 0, image.volume_header(),
                                     kBtreeKindCatalog, compare, &catalog);
    if (!c.at_open && err == MORV_OK) {
      uint8_t thread_key[8] = {0, 6, 0, 0, 0, 2, 0, 0};
      morv_btree_search_result r;
      morv_btree_search_result_init(&r);
      err = morv_btree_search_node(catalog, thread_key, &r);
      EXPECT_EQ(r.locator, nullptr);
      morv_btree_destroy(&catalog);
    }
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, MORV_ERR_CORRUPT);
    EXPECT_NE(log.find(c.message), std::string::npos) << log;
    EXPECT_EQ(catalog, nullptr);
  }
}

TEST(BtreeClaims, LowestFreeNodeFromHeaderMapAndMapNodesThenExhaustion) {
  // 2608 nodes of 512 bytes: the header's map record covers nodes 0..2047,
  // a map node the rest.
  Image image("--size 16777216 --label N --extents-node-size 512 --free-extents-nodes 2600");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* tree = image.tree();
  const Header before = read_header(tree);
  ASSERT_GT(before.total_nodes, 2048u + 8u);
  std::vector<uint32_t> claimed;
  morv_err err = MORV_OK;
  for (uint32_t i = 0; i <= before.free_nodes; ++i) {
    uint32_t node = 0;
    testing::internal::CaptureStderr();
    err = morv_btree_claim_node(tree, &node);
    const std::string log = testing::internal::GetCapturedStderr();
    if (err) {
      EXPECT_NE(log.find("Need to expand B-tree, but this is not yet implemented.\n"),
                std::string::npos);
      break;
    }
    claimed.push_back(node);
  }
  EXPECT_EQ(err, MORV_ERR_UNSUPPORTED);
  ASSERT_EQ(claimed.size(), before.free_nodes);
  for (size_t i = 1; i < claimed.size(); ++i) ASSERT_EQ(claimed[i], claimed[i - 1] + 1);
  EXPECT_EQ(claimed.back(), before.total_nodes - 1);
  EXPECT_EQ(read_header(tree).free_nodes, 0u);
  // Every node's bit is now set, in the header node and in the map node.
  std::vector<uint8_t> header_node(512), map_node(512);
  ASSERT_EQ(morv_fork_read(tree->fork, 0, header_node.data(), 512, nullptr), MORV_OK);
  const uint32_t map = load_be32(header_node.data());
  ASSERT_NE(map, 0u);
  ASSERT_EQ(morv_fork_read(tree->fork, uint64_t{map} * 512, map_node.data(), 512, nullptr), MORV_OK);
  const uint16_t header_map = load_be16(&header_node[512 - 6]);
  const uint16_t node_map = load_be16(&map_node[512 - 2]);
  for (uint32_t n = 0; n < before.total_nodes; ++n) {
    const uint8_t byte = n < 2048 ? header_node[header_map + n / 8] : map_node[node_map + (n - 2048) / 8];
    ASSERT_TRUE(byte & (0x80 >> (n % 8))) << "node " << n;
  }
  // The header node's own offset array is untouched by the claims.
  EXPECT_EQ(load_be16(&header_node[512 - 8]), 512 - 8);
}

TEST(BtreeClaims, NoFreeNodeRefusesASplitAndChangesNothing) {
  Image image("--size 16777216 --label N --files 10 --extents-node-size 512 "
              "--free-extents-nodes 0 --fragmented-files 10 --file-fragments 60");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* tree = image.tree();
  uint32_t node = 0;
  while (read_header(tree).free_nodes) ASSERT_EQ(morv_btree_claim_node(tree, &node), MORV_OK);
  const auto model = tree_contents(tree);
  std::vector<uint8_t> before(*tree->fork->logical_size);
  ASSERT_EQ(morv_fork_read(tree->fork, 0, before.data(), before.size(), nullptr), MORV_OK);
  // Builder leaves are full: any new key needs a split.
  const ExtKey k{std::get<0>(model.begin()->first), 0, std::get<2>(model.begin()->first) + 1};
  const Record r = ext_record(k, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_extents_insert(image.extents(), 0, std::get<0>(k), std::get<2>(k), r.data()),
            MORV_ERR_UNSUPPORTED);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Need to expand B-tree, but this is not yet implemented.\n"),
            std::string::npos);
  std::vector<uint8_t> after(before.size());
  ASSERT_EQ(morv_fork_read(tree->fork, 0, after.data(), after.size(), nullptr), MORV_OK);
  EXPECT_TRUE(before == after);
}

namespace {

// Runs `op` on a fresh copy of the deep image with the n-th operation of
// `kind` failing, for n = 1, 2, ... until it succeeds; each failure must give
// `expected`, leave no locator open for the tree to clean up, and leak
// nothing (the sanitizer build).
template <typename Op>
void fail_each(unsigned kind, morv_err expected, Op op) {
  for (uint64_t n = 1;; ++n) {
    SCOPED_TRACE(n);
    Image image(kDeepExtents);
    ASSERT_EQ(image.open_extents(), MORV_OK);
    testing::internal::CaptureStderr();
    morv_seam_fail_at(kind, n);
    const morv_err err = op(image);
    const bool delivered = morv_seam_failure_delivered();
    morv_seam_fail_at(kind, 0);
    image.close_all();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.find("leaked"), std::string::npos) << log;
    if (!delivered) {
      ASSERT_EQ(err, MORV_OK);
      ASSERT_GT(n, 1u);
      return;
    }
    ASSERT_EQ(err, expected);
    ASSERT_LT(n, 2000u);
  }
}

}  // namespace

TEST(BtreeFailures, InsertDeleteSearchFailCleanlyAtEveryStep) {
  const ExtKey k{17, 0, 9};  // inside a full leaf: the insertion splits it
  const Record r = ext_record(k, 5);
  for (auto [kind, expected] : {std::pair{MORV_SEAM_ALLOC, MORV_ERR_NO_MEMORY},
                                std::pair{MORV_SEAM_READ, MORV_ERR_IO}}) {
    SCOPED_TRACE(kind);
    fail_each(kind, expected, [&](Image& image) {
      return morv_extents_insert(image.extents(), 0, 17, 9, r.data());
    });
    fail_each(kind, expected, [&](Image& image) {
      morv_btree_search_result found;
      morv_btree_search_result_init(&found);
      const Key key = ext_key({17, 0, 8});
      morv_err err = morv_btree_search_node(image.tree(), key.data(), &found);
      if (!err) err = morv_btree_delete_record(image.tree(), found.locator);
      morv_btree_search_result_release(&found);
      return err;
    });
    fail_each(kind, expected, [&](Image& image) {
      int found = 0;
      Record out{};
      const morv_err err =
          morv_extents_get_next_extent_record(image.extents(), 0, 17, 16, &found, out.data());
      return err ? err : (found ? MORV_OK : MORV_ERR_GENERIC);
    });
  }
}

namespace {

// Test keys in a catalog tree: parentIDs above every real one, then bytes of
// any length (odd keyLengths included), compared bytewise, shorter first.
constexpr uint32_t kTestParent = 0x7FFFFF00;
int test_compare(const uint8_t* a, const uint8_t* b, uint32_t) {
  const uint32_t pa = load_be32(a + 2), pb = load_be32(b + 2);
  if (pa != pb) return pa < pb ? -1 : 1;
  const size_t la = load_be16(a) - 4u, lb = load_be16(b) - 4u;
  const int c = memcmp(a + 6, b + 6, std::min(la, lb));
  return c ? c : (la < lb ? -1 : la > lb);
}

}  // namespace

TEST(BtreeRecords, OddKeyAndDataSizesAndLargeRecordsKeepOrderAndContent) {
  Image image("--size 67108864 --label O --hfsx --files 400 --catalog-node-size 4096 "
              "--free-catalog-nodes 400");
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* tree = nullptr;
  ASSERT_EQ(morv_btree_create(image.device(), image.extents(), 0, image.volume_header(),
                              kBtreeKindCatalog, test_compare, &tree),
            MORV_OK);
  struct KeyLess {
    bool operator()(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) const {
      return test_compare(a.data(), b.data(), 0) < 0;
    }
  };
  std::map<std::vector<uint8_t>, std::vector<uint8_t>, KeyLess> model;  // key -> data
  std::mt19937 rng(11);
  const uint32_t start_records = read_header(tree).leaf_records;
  for (int i = 0; i < scaled(600); ++i) {
    std::vector<uint8_t> key(2 + 4 + 1 + rng() % 120);
    store_be16(key.data(), static_cast<uint16_t>(key.size() - 2));
    store_be32(key.data() + 2, kTestParent);
    for (size_t j = 6; j < key.size(); ++j) key[j] = static_cast<uint8_t>(rng());
    if (model.count(key)) continue;
    const size_t data_size = i % 10 == 0 ? 1200 + rng() % 300 : rng() % 301;  // some near a third
    std::vector<uint8_t> data(data_size);
    for (auto& b : data) b = static_cast<uint8_t>(rng());
    morv_btree_record_locator* l = nullptr;
    const morv_err err = morv_btree_insert_record(tree, key.data(), data.data(),
                                                  static_cast<uint16_t>(data.size()), nullptr, &l);
    if (err == MORV_ERR_INTERNAL && i > 100) break;  // the root is full: refused unchanged
    ASSERT_EQ(err, MORV_OK) << i;
    EXPECT_EQ(l->key_size, key.size());
    EXPECT_EQ(l->data_size, data.size() + (data.size() & 1));
    EXPECT_TRUE(std::equal(data.begin(), data.end(), l->data));
    morv_btree_record_locator_close(&l);
    model[key] = data;
    if (i % 3 == 2) {  // delete a random earlier one
      auto it = model.begin();
      std::advance(it, rng() % model.size());
      morv_btree_search_result r;
      morv_btree_search_result_init(&r);
      ASSERT_EQ(morv_btree_search_node(tree, it->first.data(), &r), MORV_OK);
      ASSERT_TRUE(r.exact_match);
      ASSERT_EQ(morv_btree_delete_record(tree, r.locator), MORV_OK);
      morv_btree_search_result_release(&r);
      model.erase(it);
    }
  }
  // Walk from the lowest test key: every test record, in order, padded as built.
  uint8_t lowest[7] = {0, 5, 0x7F, 0xFF, 0xFF, 0x00, 0};
  size_t seen = 0;
  auto expected = model.begin();
  for (const auto& [key, data] : walk(tree, lowest)) {
    ASSERT_NE(expected, model.end());
    ASSERT_EQ(key, expected->first);
    ASSERT_EQ(data.size(), expected->second.size() + (expected->second.size() & 1));
    EXPECT_TRUE(std::equal(expected->second.begin(), expected->second.end(), data.begin()));
    if (data.size() & 1) {
      EXPECT_EQ(data.back(), 0);
    }
    ++expected;
    ++seen;
  }
  EXPECT_EQ(seen, model.size());
  EXPECT_EQ(read_header(tree).leaf_records, start_records + model.size());
  // A record of nodeSize - 17 bytes (padded to even) cannot be held by any node.
  std::vector<uint8_t> key(8);
  store_be16(key.data(), 6);
  store_be32(key.data() + 2, kTestParent + 1);
  std::vector<uint8_t> huge(4096 - 17 - 8);
  morv_btree_record_locator* l = nullptr;
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_btree_insert_record(tree, key.data(), huge.data(),
                                     static_cast<uint16_t>(huge.size()), nullptr, &l),
            MORV_ERR_UNSUPPORTED);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Record cannot fit in a node given the B-tree's node size of 4096 bytes (need "
                "4098 bytes).\n"),
            std::string::npos);
  morv_btree_destroy(&tree);
}

TEST(BtreeRecords, EmptiedLeafStaysAndTakesRecordsAgain) {
  Image image(kDeepExtents);
  ASSERT_EQ(image.open_extents(), MORV_OK);
  morv_btree* tree = image.tree();
  auto model = tree_contents(tree);
  // Empty the second leaf record by record, from its first record on.
  morv_btree_record_locator* l = find(tree, std::next(model.begin(), 6)->first);
  const uint32_t leaf = *l->node_number;
  morv_btree_record_locator_close(&l);
  std::vector<ExtKey> gone;
  for (auto it = model.begin(); it != model.end();) {
    l = find(tree, it->first);
    const bool here = *l->node_number == leaf;
    if (here) {
      ASSERT_EQ(morv_btree_delete_record(tree, l), MORV_OK);
    }
    morv_btree_record_locator_close(&l);
    if (here) {
      gone.push_back(it->first);
      it = model.erase(it);
    } else {
      ++it;
    }
  }
  EXPECT_EQ(node_records(tree, leaf), 0);
  EXPECT_EQ(tree_contents(tree), model);  // iteration passes over the empty leaf
  int found = 1;
  Record r{};
  ASSERT_EQ(morv_extents_get_next_extent_record(image.extents(), std::get<1>(gone[0]),
                                                std::get<0>(gone[0]), std::get<2>(gone[0]),
                                                &found, r.data()),
            MORV_OK);
  EXPECT_EQ(found, 0);
  // Its index record still carries its last key: records from there on go
  // back into it, those before it into the leaf before.
  for (const ExtKey& k : gone) {
    const Record rec = ext_record(k, 9);
    ASSERT_EQ(morv_extents_insert(image.extents(), std::get<1>(k), std::get<0>(k), std::get<2>(k),
                                  rec.data()),
              MORV_OK);
    model[k] = rec;
  }
  EXPECT_GE(node_records(tree, leaf), 1u);  // those from its index key on
  EXPECT_EQ(tree_contents(tree), model);
  ASSERT_EQ(morv_fork_flush(tree->fork), MORV_OK);
  EXPECT_EQ(check_structure(image.path()), "");
}
