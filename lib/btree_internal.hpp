// SPDX-License-Identifier: MIT
// What the files of the B-tree engine share: the tree's and the locators'
// private parts, the undo journal's state and the steps one part of the
// engine asks of another. Internal to lib/btree*.cpp.
#pragma once

#include <cstring>

#include "btree.hpp"
#include "btree_node.hpp"
#include "support_unix.hpp"

namespace morv_bt {

constexpr const char* kLogSource = "btree";
constexpr char kLocatorTag[8] = {'m', 'o', 'r', 'v', 'b', 'r', 'l', 'a'};
// What the client-facing changes say when their lock cannot be released.
constexpr const char* kReleaseFailed =
    "Error while releasing write lock for open locators list. Will probably crash now...\n";
// Nodes one edit may spread over: the node itself and the nodes it claims.
constexpr size_t kMaxParts = 8;

// A node of the tree whose parent's index record must be brought in step
// when the transaction ends: its first key grew, or it became empty.
// `key` is the index record's key as it stood when the node was noted.
struct pending_node {
  uint32_t number;
  uint8_t height;
  uint16_t key_size;  // 0 for the root, which has no index record
  uint8_t key[kMaxKeySize];
};

// The original bytes of a node written during the transaction.
struct saved_node {
  uint32_t number;
  uint8_t* bytes;
};

struct transaction {
  uint32_t depth;     // nesting of begins
  morv_err failure;   // the first failure reported inside, 0 while none
  saved_node* saved;
  size_t saved_count;
  size_t saved_capacity;
  pending_node* pending;
  size_t pending_count;
  size_t pending_capacity;
};

// Grows `*array` (of `*capacity` elements, `count` in use) so that one more fits.
template <typename T>
[[nodiscard]] bool reserve_one(T** array, size_t* capacity, size_t count) {
  if (count < *capacity) return true;
  const size_t want = *capacity ? 2 * *capacity : 8;
  auto* grown = static_cast<T*>(morv_malloc(want * sizeof(T)));
  if (!grown) return false;
  if (count) memcpy(static_cast<void*>(grown), *array, count * sizeof(T));
  morv_free(*array);
  *array = grown;
  *capacity = want;
  return true;
}

// Brent's cycle detection over a chain of node numbers: the mark jumps to
// the walker at every power of two, so a cycle is met within twice its
// length after it is entered.
class cycle_check {
 public:
  explicit cycle_check(uint32_t start) : mark_(start) {}
  // False when `next` closes a cycle.
  bool step(uint32_t next) {
    if (next == mark_) return false;
    if (++steps_ == limit_) {
      mark_ = next;
      limit_ *= 2;
      steps_ = 0;
    }
    return true;
  }

 private:
  uint32_t mark_;
  uint64_t limit_ = 1;
  uint64_t steps_ = 0;
};

// ---- the undo journal (btree_journal.cpp) ----

void discard_journal(transaction* t);
// Every change of the tree's file made by an operation goes through here: the
// node's original is kept first, then the bytes go down the one write path.
[[nodiscard]] morv_err tree_write(morv_btree* tree, uint64_t offset, const void* data,
                                  size_t length);
void txn_begin(morv_btree* tree);
[[nodiscard]] morv_err txn_end(morv_btree* tree, morv_err result);
[[nodiscard]] morv_err pend(morv_btree* tree, uint32_t number, uint8_t height, const uint8_t* key);
void unpend(morv_btree* tree, uint32_t number);

// ---- node allocation (btree_alloc.cpp) ----

[[nodiscard]] morv_err claim(morv_btree* tree, uint32_t* out_node);
[[nodiscard]] morv_err free_node(morv_btree* tree, uint32_t number);

// ---- edits (btree_insert.cpp) ----

struct tree_path;

// A change of one node's records: `remove` records at `at` go, then the
// `count` records given come in at `at`, in order.
struct edit {
  uint16_t at = 0;
  uint16_t remove = 0;
  size_t count = 0;
  const uint8_t* records[kMaxParts] = {};
  size_t sizes[kMaxParts] = {};
};

// Where the first record of an edit ended up.
struct placement {
  uint32_t node;
  uint16_t index;
};

size_t index_record_size(const uint8_t* key);
// An index record: `key`, padded to even length, and the child's number.
void make_index_record(const uint8_t* key, uint32_t child, uint8_t* out);
bool same_key(const uint8_t* a, const uint8_t* b);
// Applies `e` at `level` of `path` and whatever it asks of the levels above.
[[nodiscard]] morv_err edit_levels(morv_btree* tree, const tree_path& path, size_t level,
                                   const edit& first, placement* placed);
// Checks that `number`, a sibling of `of` at its level, links to `of` at
// `link_field`.
[[nodiscard]] morv_err check_sibling(morv_btree* tree, uint32_t number, const checked_node& of,
                                     size_t link_field);
[[nodiscard]] morv_err bump_leaf_records(morv_btree* tree, bool up);

// ---- deletion (btree_delete.cpp) ----

// Settles what waits for the end of a transaction.
[[nodiscard]] morv_err settle_pending(morv_btree* tree);

}  // namespace morv_bt

struct morv_btree_private {
  uint32_t kind;
  morv_btree_compare_keys_fn compare_keys;
  morv_btree_record_locator* open_locators;
  morv_rwlock* open_locators_lock;
  morv_bt::transaction txn;
  morv_bt::node_cache cache;
};

struct morv_btree_record_locator_private {
  void* allocation;
  uint64_t refcount;
  uint32_t deleted;
  uint32_t node_number;
  uint16_t record_index;
  uint64_t data_offset;
  morv_btree* tree;
  morv_btree_record_locator* prev;
  morv_btree_record_locator* next;
  size_t raw_key_offset;
  size_t raw_data_offset;
  size_t raw_record_size;
  uint8_t* record;  // the copy, behind the fixed parts of the allocation
  // Where the record stood when the outermost transaction began, to be put
  // back if it fails; `born` marks a locator opened during the transaction.
  uint32_t saved_node_number;
  uint16_t saved_record_index;
  uint64_t saved_data_offset;
  uint32_t saved_deleted;
  uint32_t born;
};
