// SPDX-License-Identifier: MIT
// Search and iteration: the cursor.
//
// A search descends from the root (or a given node) to the level asked for.
// In each node a binary search finds the first record whose key is not
// before the search key (or the last record); in an index node the descent
// follows the last record whose key is not after the search key, which is
// the child whose keys begin at or before it (a key before a node's first
// key goes to the first child). Each step goes one level down, and the
// child must be checked at exactly its parent's height less one, so a
// descent ends within treeDepth steps and a cycle is met as a height that
// does not fit. The nodes and indexes passed make the cursor's path; the
// node it ends in stays held (a checked node of the cache) while the
// cursor lives, and the locator of the record found is opened from it.
//
// Iteration steps the index within the held node and crosses to the next
// node of the same level through fLink (back through bLink). The node
// crossed to is checked once when it enters the cache, must link back, have
// the kind and height of the one left, and (going forward) begin with a key
// after the last one passed; a chain of empty nodes is bounded by
// totalNodes and checked for cycles. A record's locator takes its place
// (node, index, fork offset) from the cursor.
#include "btree_cursor.hpp"

#include "btree_internal.hpp"

using namespace morv_bt;

namespace morv_bt {
namespace {

// The first record of the checked node with records whose key is not before
// `key`, or the last record; *out_compare is that record's comparison.
uint16_t search_node(const morv_btree* tree, const checked_node& node, const uint8_t* key,
                     uint8_t compare_type, int* out_compare) {
  const morv_btree_compare_keys_fn compare = tree->priv->compare_keys;
  uint32_t lo = 0;
  uint32_t hi = node.count();
  int at_hi = -1;
  while (lo < hi) {
    const uint32_t mid = lo + (hi - lo) / 2;
    const int c = compare(node.key(mid), key, compare_type);
    if (c >= 0) {
      hi = mid;
      at_hi = c;
    } else {
      lo = mid + 1;
    }
  }
  if (lo == node.count()) {
    *out_compare = -1;
    return static_cast<uint16_t>(lo - 1);
  }
  *out_compare = at_hi;
  return static_cast<uint16_t>(lo);
}

}  // namespace

morv_err descend(morv_btree* tree, const tree_header& h, const uint8_t* key, uint32_t start,
                 uint8_t start_height, uint8_t stop_height, cursor* c) {
  uint32_t number = start;
  uint8_t height = start_height;
  tree_path& path = c->path;
  path.levels = 0;
  for (;;) {
    morv_err err = get_node(tree, h, number, 0, &c->node);
    if (err) return err;
    const checked_node& node = *c->node;
    // A child at or above its parent's height closes a cycle.
    if (path.levels > 0 && node.height() > height) {
      MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    if (node.height() != height) {
      MORV_ERROR("Invalid node data: Node %lu of kind %hhd has height %u where height %u was "
                 "expected.\n",
                 morv_ul(number), node.kind(), node.height(), height);
      return MORV_ERR_CORRUPT;
    }
    const size_t level = path.levels++;
    path.node[level] = number;
    path.index[level] = 0;
    if (node.count() == 0) {
      if (height != stop_height) {
        MORV_ERROR("Invalid node data: Index node %lu holds no records.\n", morv_ul(number));
        return MORV_ERR_CORRUPT;
      }
      c->at = stop{false, false, false};
      return MORV_OK;
    }
    int cmp = 0;
    const uint16_t i = search_node(tree, node, key, h.compare_type(), &cmp);
    if (height == stop_height) {
      path.index[level] = i;
      c->at = stop{true, cmp == 0, cmp < 0};
      return MORV_OK;
    }
    // The last index record whose key is not after the search key leads on;
    // a key before the node's first key goes to the first child.
    const uint16_t followed = (i > 0 && cmp > 0) ? static_cast<uint16_t>(i - 1) : i;
    path.index[level] = followed;
    number = node.child(followed);
    --height;
  }
}

namespace {

// Follows the cursor's node's link at `field` to the next node of its level
// that holds records; *end is set at the end of the level. The node must link
// back and have the same height; going forward its first key must come after
// `key`, going back its last key before it.
[[nodiscard]] morv_err cross(morv_btree* tree, const tree_header& h, cursor* c, bool forward,
                             const uint8_t* key, bool* end) {
  const uint8_t height = c->node->height();
  uint32_t number = c->node->number();
  cycle_check cycle(number);
  node_ref next;
  uint32_t link = forward ? c->node->flink() : c->node->blink();
  for (uint64_t hops = 0;; ++hops) {
    if (link == 0) {
      *end = true;
      return MORV_OK;
    }
    if (hops >= h.total_nodes() || !cycle.step(link)) {
      MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    if (morv_err err = get_node(tree, h, link, height, &next)) {
      MORV_ERROR("Error while mapping raw node data of next node.\n");
      return err;
    }
    const uint32_t back = forward ? next->blink() : next->flink();
    if (back != number) {
      MORV_ERROR("Invalid node data: Node %lu follows node %lu but links back to node %lu.\n",
                 morv_ul(link), morv_ul(number), morv_ul(back));
      return MORV_ERR_CORRUPT;
    }
    number = link;
    if (next->count() == 0) {
      link = forward ? next->flink() : next->blink();
      continue;
    }
    const uint16_t at = forward ? 0 : static_cast<uint16_t>(next->count() - 1);
    const int cmp = tree->priv->compare_keys(next->key(at), key, h.compare_type());
    if (forward ? cmp <= 0 : cmp >= 0) {
      MORV_ERROR("Invalid node data: The keys of node %lu do not follow those before it.\n",
                 morv_ul(link));
      return MORV_ERR_CORRUPT;
    }
    const size_t last = c->path.last();
    c->path.node[last] = link;
    c->path.index[last] = at;
    // The levels above no longer lead here.
    c->path.node[0] = c->path.node[last];
    c->path.index[0] = at;
    c->path.levels = 1;
    c->node.release();
    if (morv_err err = get_node(tree, h, link, height, &c->node)) return err;
    *end = false;
    return MORV_OK;
  }
}

}  // namespace

morv_err cursor_next(morv_btree* tree, const tree_header& h, cursor* c, bool* end) {
  const size_t last = c->path.last();
  const uint16_t i = c->path.index[last];
  if (i + 1u < c->node->count()) {
    c->path.index[last] = static_cast<uint16_t>(i + 1);
    *end = false;
    return MORV_OK;
  }
  uint8_t key[kMaxKeySize];
  memcpy(key, c->node->key(i), c->node->key_size(i));
  return cross(tree, h, c, true, key, end);
}

morv_err cursor_prev(morv_btree* tree, const tree_header& h, cursor* c, bool* end) {
  const size_t last = c->path.last();
  const uint16_t i = c->path.index[last];
  if (i > 0 && i <= c->node->count()) {
    c->path.index[last] = static_cast<uint16_t>(i - 1);
    *end = false;
    return MORV_OK;
  }
  uint8_t key[kMaxKeySize];
  memcpy(key, c->node->key(0), c->node->key_size(0));
  return cross(tree, h, c, false, key, end);
}

morv_err open_on(morv_btree* tree, const checked_node& node, uint16_t index,
                 morv_btree_record_locator** out_locator) {
  return morv_btree_record_locator_open(tree, node.number(), index, node.record(index),
                                        node.record_size(index),
                                        node_offset(tree, node.number()) + node.offset(index),
                                        out_locator);
}

morv_err open_at(morv_btree* tree, const cursor& c, morv_btree_record_locator** out_locator) {
  return open_on(tree, *c.node, c.path.index[c.path.last()], out_locator);
}

namespace {

// Runs a search or a step of iteration under the tree's lock, which both
// take in write mode because opening a locator changes the open list;
// `undo` gives back what `op` handed out when the lock cannot be released.
template <typename Op, typename Undo>
[[nodiscard]] morv_err under_search_lock(morv_btree* tree, Op op, Undo undo) {
  morv_rwlock* lock = tree->priv->open_locators_lock;
  morv_err err = morv_rwlock_lock_write(lock);
  if (err) {
    MORV_ERROR("Error while acquiring open locators list lock in write mode.\n");
    return err;
  }
  err = op();
  if (morv_err unlock_err = morv_rwlock_unlock(lock)) {
    MORV_ERROR("Error while releasing open locators list read-mode lock.\n");
    if (!err) {
      undo();
      err = unlock_err;
    }
  }
  return err;
}

}  // namespace
}  // namespace morv_bt

void morv_btree_search_result_init(morv_btree_search_result* result) {
  *result = morv_btree_search_result{0, 0, nullptr};
}

void morv_btree_search_result_release(morv_btree_search_result* result) {
  if (result->locator) morv_btree_record_locator_close(&result->locator);
  *result = morv_btree_search_result{0, 0, nullptr};
}

morv_err morv_btree_search_node_internal(morv_btree* tree, const uint8_t* search_key,
                                         uint32_t start_node, int mode, uint8_t height,
                                         morv_btree_search_result* out_result) {
  if (!search_key) {
    MORV_ERROR("HFSPlus:%s: Invalid Search key\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) {
    MORV_ERROR("Error while mapping B-tree header record.\n");
    return err;
  }
  const uint32_t start = start_node ? start_node : h.root();
  if (start == 0) {  // a tree without a root holds no record
    *out_result = morv_btree_search_result{0, 0, nullptr};
    return MORV_OK;
  }
  if (h.total_nodes() < start) {
    MORV_ERROR("HFSPlus:%s: Starting Node %lu > Total Nodes %lu\n", __func__, morv_ul(start),
               morv_ul(h.total_nodes()));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint8_t start_height = static_cast<uint8_t>(h.depth());
  if (start_node) {
    node_ref n;
    if ((err = get_node(tree, h, start, 0, &n))) return err;
    start_height = n->height();
  }
  const uint8_t stop_height = mode == -1 ? nd::kLeafHeight : height;
  if (stop_height < nd::kLeafHeight || stop_height > start_height) {
    MORV_ERROR("Invalid parameter: Height %u is outside the tree below node %lu (height %u).\n",
               stop_height, morv_ul(start), start_height);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  cursor c;
  if ((err = descend(tree, h, search_key, start, start_height, stop_height, &c))) return err;
  morv_btree_record_locator* locator = nullptr;
  if (c.at.has_record && (err = open_at(tree, c, &locator))) {
    MORV_ERROR("Error while creating morv_btree_record_locator.\n");
    return err;
  }
  *out_result = morv_btree_search_result{c.at.exact, c.at.after_last, locator};
  return MORV_OK;
}

morv_err morv_btree_search_node(morv_btree* tree, const uint8_t* search_key,
                                morv_btree_search_result* out_result) {
  morv_btree_search_result result{};
  morv_err err = under_search_lock(
      tree, [&] { return morv_btree_search_node_internal(tree, search_key, 0, -1, 0, &result); },
      [&] { morv_btree_search_result_release(&result); });
  if (err) return err;
  *out_result = result;
  return MORV_OK;
}

morv_err morv_btree_get_next_record_internal(morv_btree* tree, morv_btree_record_locator* locator,
                                             morv_btree_record_locator** out_next) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  cursor c;
  const uint32_t number = *locator->node_number;
  if ((err = get_node(tree, h, number, 0, &c.node))) {
    MORV_ERROR("Error while mapping raw node data.\n");
    return err;
  }
  const uint16_t count = c.node->count();
  const uint32_t wanted = uint32_t{*locator->record_index} + 1;
  if (count < wanted) {
    MORV_ERROR("Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
               static_cast<uint16_t>(wanted), count);
    return MORV_ERR_CORRUPT;
  }
  c.path.levels = 1;
  c.path.node[0] = number;
  bool end = false;
  if (wanted < count) {
    c.path.index[0] = static_cast<uint16_t>(wanted);
  } else {
    // Past the node's last record: the search goes on after the locator's
    // key, which the node's own records need not hold (a node emptied
    // behind a locator).
    c.path.index[0] = count ? static_cast<uint16_t>(count - 1) : 0;
    if ((err = cross(tree, h, &c, true, locator->key, &end))) return err;
  }
  morv_btree_record_locator* next = nullptr;
  if (!end && (err = open_at(tree, c, &next))) {
    MORV_ERROR("Error while creating target record locator.\n");
    return err;
  }
  *out_next = next;
  return MORV_OK;
}

morv_err morv_btree_get_next_record(morv_btree* tree, morv_btree_record_locator* locator,
                                    morv_btree_record_locator** out_next) {
  morv_btree_record_locator* next = nullptr;
  morv_err err = under_search_lock(
      tree, [&] { return morv_btree_get_next_record_internal(tree, locator, &next); },
      [&] { morv_btree_record_locator_close(&next); });
  if (err) return err;
  *out_next = next;
  return MORV_OK;
}
