// SPDX-License-Identifier: MIT
// Deletion and re-keying.
//
// Deleting a record is an edit of its node that takes the record out
// (btree_insert.cpp): the node is compacted, the open locators behind the
// record move down, the record's own locator is marked deleted, and
// leafRecords drops for a leaf. The record is found again from the root by
// its key before anything changes, so a locator that no longer names the
// record its key leads to is refused as damage.
//
// What a deletion leaves for the end of the transaction is settled here,
// from the lowest level up: a node whose first key grew gets an index record
// carrying its new first key (re-keying); a node left empty is unlinked from
// its neighbours (and from firstLeafNode or lastLeafNode), given back to the
// node bitmap, and its index record is taken out of its parent, which may
// leave the parent waiting in turn. An emptied root leaves a tree without a
// root: rootNode, treeDepth and both leaf links 0.
#include <cstring>

#include "btree_cursor.hpp"
#include "btree_internal.hpp"

using namespace morv_bt;

namespace morv_bt {
namespace {

[[nodiscard]] morv_err delete_body(morv_btree* tree, morv_btree_record_locator* locator) {
  const morv_btree_record_locator_private* lp = locator->priv;
  if (lp->deleted) {
    MORV_CRITICAL("Attempted to delete the record of a deleted locator.\n");
    return MORV_ERR_INTERNAL;
  }
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  const uint32_t node = lp->node_number;
  const uint16_t index = lp->record_index;
  // The record's level is its node's height.
  uint8_t height = 0;
  if (h.root() != 0) {
    node_ref n;
    if ((err = get_node(tree, h, node, 0, &n))) {
      MORV_ERROR("Error while mapping raw node data.\n");
      return err;
    }
    height = n->height();
  }
  if (height == 0 || height > h.depth() || locator->key_size > kMaxKeySize) {
    MORV_ERROR("Invalid node data: Record %hu of node %lu is not where its key leads.\n", index,
               morv_ul(node));
    return MORV_ERR_CORRUPT;
  }
  uint8_t key[kMaxKeySize];
  memcpy(key, locator->key, locator->key_size);
  cursor c;
  if ((err = descend(tree, h, key, h.root(), static_cast<uint8_t>(h.depth()), height, &c)))
    return err;
  const tree_path& path = c.path;
  if (!c.at.exact || path.node[path.last()] != node || path.index[path.last()] != index) {
    MORV_ERROR("Invalid node data: Record %hu of node %lu is not where its key leads.\n", index,
               morv_ul(node));
    return MORV_ERR_CORRUPT;
  }
  c.node.release();
  edit e;
  e.at = index;
  e.remove = 1;
  if ((err = edit_levels(tree, path, path.last(), e, nullptr))) return err;
  return height == nd::kLeafHeight ? bump_leaf_records(tree, false) : MORV_OK;
}

// ---- what waits for the end of a transaction ----

// The tree's last node went: the tree has no root any more.
[[nodiscard]] morv_err empty_tree(morv_btree* tree, uint32_t root) {
  morv_err err = free_node(tree, root);
  tree_header h;
  if (err || (err = read_tree_header(tree, &h))) return err;
  h.set_depth(0);
  h.set(hr::kRootNode, 0);
  h.set(hr::kFirstLeafNode, 0);
  h.set(hr::kLastLeafNode, 0);
  return write_tree_header(tree, h);
}

// Unlinks the emptied node `x` at `level` of `path` from its neighbours,
// frees it and takes its index record out of its parent.
[[nodiscard]] morv_err remove_node(morv_btree* tree, const tree_path& path, size_t level,
                                   const node_copy& x) {
  const checked_node xv = x.view(tree->node_size);
  const uint32_t flink = xv.flink();
  const uint32_t blink = xv.blink();
  uint8_t link[4];
  morv_err err = MORV_OK;
  if (blink) {
    store_be32(link, flink);
    if ((err = check_sibling(tree, blink, xv, nd::kFLink)) ||
        (err = tree_write(tree, node_offset(tree, blink) + nd::kFLink, link, sizeof link)))
      return err;
  }
  if (flink) {
    store_be32(link, blink);
    if ((err = check_sibling(tree, flink, xv, nd::kBLink)) ||
        (err = tree_write(tree, node_offset(tree, flink) + nd::kBLink, link, sizeof link)))
      return err;
  }
  if (xv.is_leaf()) {
    tree_header h;
    if ((err = read_tree_header(tree, &h))) return err;
    if (h.first_leaf() == x.number) h.set(hr::kFirstLeafNode, flink);
    if (h.last_leaf() == x.number) h.set(hr::kLastLeafNode, blink);
    if ((err = write_tree_header(tree, h))) return err;
  }
  if ((err = free_node(tree, x.number))) return err;
  edit e;
  e.at = path.index[level - 1];
  e.remove = 1;
  if ((err = edit_levels(tree, path, level - 1, e, nullptr)))
    MORV_ERROR("Error while deleting index record from B-tree.\n");
  return err;
}

// Brings the index record of one waiting node in step: its child's first key,
// or, for an emptied node, no record and no node.
[[nodiscard]] morv_err settle_one(morv_btree* tree, const pending_node& entry) {
  const uint16_t ns = tree->node_size;
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  if (entry.number == h.root()) {
    node_copy root;
    if ((err = read_node(tree, h, entry.number, static_cast<uint8_t>(h.depth()), &root))) return err;
    return root.view(ns).count() ? MORV_OK : empty_tree(tree, entry.number);
  }
  if (entry.key_size == 0 || entry.height >= h.depth()) {
    MORV_CRITICAL("Internal error: Node %lu waits for an index record it does not have.\n",
                  morv_ul(entry.number));
    return MORV_ERR_INTERNAL;
  }
  cursor c;
  if ((err = descend(tree, h, entry.key, h.root(), static_cast<uint8_t>(h.depth()),
                     static_cast<uint8_t>(entry.height + 1), &c))) {
    MORV_ERROR("Error while searching for index record of deleted record's node.\n");
    return err;
  }
  tree_path path = c.path;
  const size_t parent_level = path.last();
  const uint16_t i = path.index[parent_level];
  if (!c.at.exact || c.node->child(i) != entry.number) {
    MORV_ERROR("Index record of deleted record's node not found.\n");
    return MORV_ERR_CORRUPT;
  }
  c.node.release();
  path.node[parent_level + 1] = entry.number;
  path.index[parent_level + 1] = 0;
  path.levels = parent_level + 2;
  node_copy x;
  if ((err = read_node(tree, h, entry.number, entry.height, &x))) return err;
  if (x.view(ns).count() == 0) return remove_node(tree, path, parent_level + 1, x);
  const uint8_t* first = x.view(ns).key(0);
  if (same_key(first, entry.key)) return MORV_OK;
  uint8_t index_record[kMaxIndexRecordSize];
  make_index_record(first, x.number, index_record);
  edit e;
  e.at = i;
  e.remove = 1;
  e.count = 1;
  e.records[0] = index_record;
  e.sizes[0] = index_record_size(first);
  return edit_levels(tree, path, parent_level, e, nullptr);
}

// Settles the waiting nodes from the lowest level up: settling one may make
// its parent wait, never a node at its own level or below.
}  // namespace

morv_err settle_pending(morv_btree* tree) {
  transaction& t = tree->priv->txn;
  while (t.pending_count) {
    size_t low = 0;
    for (size_t i = 1; i < t.pending_count; ++i)
      if (t.pending[i].height < t.pending[low].height) low = i;
    const pending_node entry = t.pending[low];
    t.pending[low] = t.pending[--t.pending_count];
    morv_err err = settle_one(tree, entry);
    if (err) return err;
  }
  return MORV_OK;
}

}  // namespace morv_bt

morv_err morv_btree_delete_record_internal(morv_btree* tree, morv_btree_record_locator* locator) {
  txn_begin(tree);
  return txn_end(tree, delete_body(tree, locator));
}

morv_err morv_btree_delete_record(morv_btree* tree, morv_btree_record_locator* locator) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  morv_err err = lock.lock_write();
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  return lock.finish(morv_btree_delete_record_internal(tree, locator));
}
