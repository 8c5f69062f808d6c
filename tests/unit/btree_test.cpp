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
