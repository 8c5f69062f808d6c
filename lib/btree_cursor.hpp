// SPDX-License-Identifier: MIT
// B-tree cursors: a path of (node, record index) from the root down, found by
// a binary search in each node, stepped to the next or previous record across
// sibling links. Internal to the B-tree engine (lib/btree*.cpp).
#pragma once

#include "btree_node.hpp"

namespace morv_bt {

// The nodes a descent passed, from the node it started at (level 0) down,
// and in each the record it followed; in the last, where it stopped.
struct tree_path {
  uint32_t node[kMaxTreeDepth];
  uint16_t index[kMaxTreeDepth];
  size_t levels;
  size_t last() const { return levels - 1; }
};

// How a descent ended in its last node.
struct stop {
  bool has_record;  // false in a node without records
  bool exact;       // the record's key equals the search key
  bool after_last;  // the key sorts after every record of the node
};

// A place in the tree: the path to it, how the search ended there, and the
// checked node it ended in, held while the cursor lives.
struct cursor {
  tree_path path;
  stop at;
  node_ref node;
};

// Descends from node `start` at `start_height` to the node at `stop_height`
// that holds `key`, or where it would go. Each step goes one level down, so
// the walk ends within treeDepth steps.
[[nodiscard]] morv_err descend(morv_btree* tree, const tree_header& h, const uint8_t* key,
                               uint32_t start, uint8_t start_height, uint8_t stop_height,
                               cursor* c);
// Moves the cursor to the next record of its level (crossing to the node its
// fLink names when it stands on the last record), or to the previous one
// (through bLink). *end is set, the cursor unchanged, at the level's end.
[[nodiscard]] morv_err cursor_next(morv_btree* tree, const tree_header& h, cursor* c, bool* end);
[[nodiscard]] morv_err cursor_prev(morv_btree* tree, const tree_header& h, cursor* c, bool* end);
// Opens the locator of the record the cursor stands on.
[[nodiscard]] morv_err open_at(morv_btree* tree, const cursor& c,
                               morv_btree_record_locator** out_locator);
// Opens the locator of record `index` of `node`.
[[nodiscard]] morv_err open_on(morv_btree* tree, const checked_node& node, uint16_t index,
                               morv_btree_record_locator** out_locator);

}  // namespace morv_bt
