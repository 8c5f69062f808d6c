// SPDX-License-Identifier: MIT
// Insertion and splitting: edits of nodes and what they ask of the level
// above.
//
// A change of the tree is an edit of one node: some records at one place go,
// some come in (insertion: one leaf record in; deletion: one out; the level
// above a split: one index record replaced by one per part). The edit is
// made on a private copy of the checked node (btree_node.cpp) by two
// primitives, insert record and remove records, which also shift the open
// locators of the node, and the copy is written back whole.
//
// When the records do not fit, the node is split (morv_btree_split_node):
// the edited sequence of records is cut where the two parts' occupied sizes
// differ least, or, when records are large beside the node, greedily into as
// few parts as fit; a free node is claimed for each part after the first,
// the records move there with their locators, and the parts are chained in
// the node's place (the node that followed links back to the last part, or
// lastLeafNode becomes it). The root never splits, so a tree never deepens.
//
// What the level above must learn becomes its edit (morv_btree_add_index_record
// names the step): one index record per part replacing the node's, each
// carrying its part's first key, or the node's own record with a smaller
// first key. A first key that grew, and a node left empty, wait for the end
// of the transaction (btree_journal.cpp, btree_delete.cpp): the old key still
// leads every search to the right child.
#include <cstring>

#include "btree_cursor.hpp"
#include "btree_internal.hpp"

using namespace morv_bt;

namespace morv_bt {
namespace {

// Locators of records that an edit takes away name nothing any more.
void mark_removed(morv_btree* tree, uint32_t number, uint16_t i, uint16_t count) {
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (!p->deleted && p->node_number == number && p->record_index >= i &&
        p->record_index < i + count) {
      p->deleted = 1;
    }
  }
}

// Moves the records of `from` from index `first` on into the empty node `to`,
// their locators with them.
void move_tail(morv_btree* tree, node_copy* from, uint16_t first, node_copy* to) {
  const uint16_t ns = tree->node_size;
  const checked_node f = from->view(ns);
  const uint16_t n = f.count();
  for (uint16_t j = first; j < n; ++j)
    insert_record(tree, to, static_cast<uint16_t>(j - first), f.record(j), f.record_size(j));
  const checked_node t = to->view(ns);
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (p->deleted || p->node_number != from->number || p->record_index < first) continue;
    p->node_number = to->number;
    p->record_index = static_cast<uint16_t>(p->record_index - first);
    p->data_offset = node_offset(tree, to->number) + t.offset(p->record_index) + p->raw_data_offset;
  }
  remove_records(tree, from, first, static_cast<uint16_t>(n - first));
}

// What one level leaves for the level above: its edit, whose index records
// live in `storage`.
struct upward {
  edit change;
  bool has_change = false;
  bool adds = false;  // index records of new nodes come in
  morv::buffer<uint8_t> storage;
};

// The edited sequence of a node's records (the node after the edit's
// removal, with the edit's records at `at`), by size.
struct sequence {
  checked_node node;
  uint16_t ns;
  const edit* e;
  size_t length() const { return node.count() + e->count; }
  size_t size(size_t j) const {
    if (j < e->at) return node.record_size(j);
    if (j < e->at + e->count) return e->sizes[j - e->at];
    return node.record_size(j - e->count);
  }
};

bool fits(uint16_t ns, size_t records, size_t bytes) {
  return nd::kDescriptorSize + bytes + nd::kOffsetEntrySize * (records + 1) <= ns;
}

// Cuts the sequence into nodes: in two, as evenly as the sizes allow, or,
// when no cut in two fits (records large beside the node), greedily into as
// few as needed. starts[p] is the first record of part p.
[[nodiscard]] morv_err choose_parts(const sequence& seq, size_t* starts, size_t* parts) {
  const size_t n = seq.length();
  size_t total = 0;
  for (size_t j = 0; j < n; ++j) total += seq.size(j);
  size_t best = 0;
  size_t best_difference = SIZE_MAX;
  size_t left = 0;
  for (size_t s = 1; s < n; ++s) {
    left += seq.size(s - 1);
    if (!fits(seq.ns, s, left) || !fits(seq.ns, n - s, total - left)) continue;
    const size_t l = left + 2 * s;
    const size_t r = total - left + 2 * (n - s);
    const size_t difference = l > r ? l - r : r - l;
    if (difference < best_difference) {
      best_difference = difference;
      best = s;
    }
  }
  starts[0] = 0;
  if (best) {
    starts[1] = best;
    *parts = 2;
    return MORV_OK;
  }
  size_t count = 1;
  size_t records = 0;
  size_t bytes = 0;
  for (size_t j = 0; j < n; ++j) {
    if (records && !fits(seq.ns, records + 1, bytes + seq.size(j))) {
      if (count == kMaxParts) {
        MORV_CRITICAL("Internal error: Occupied size for both split (%lu) and claimed (%lu) nodes "
                      "exceed the node size (%hu)!\n",
                      morv_ul(static_cast<uint32_t>(bytes)),
                      morv_ul(static_cast<uint32_t>(total - bytes)), seq.ns);
        return MORV_ERR_INTERNAL;
      }
      starts[count++] = j;
      records = 0;
      bytes = 0;
    }
    ++records;
    bytes += seq.size(j);
  }
  *parts = count;
  return MORV_OK;
}

// Chains the parts of a split behind each other in place of `x` alone, and
// points the node that followed `x` (or lastLeafNode) at the last part.
[[nodiscard]] morv_err link_parts(morv_btree* tree, node_copy* parts, size_t count) {
  const uint16_t ns = tree->node_size;
  const checked_node x = parts[0].view(ns);
  const uint32_t old_flink = x.flink();
  const bool leaf = x.is_leaf();
  for (size_t p = 1; p < count; ++p) {
    set_link(&parts[p - 1], nd::kFLink, parts[p].number);
    set_link(&parts[p], nd::kBLink, parts[p - 1].number);
  }
  const uint32_t last = parts[count - 1].number;
  set_link(&parts[count - 1], nd::kFLink, old_flink);
  if (old_flink) {
    morv_err err = check_sibling(tree, old_flink, parts[0].view(ns), nd::kBLink);
    if (err) return err;
    uint8_t link[4];
    store_be32(link, last);
    if ((err = tree_write(tree, node_offset(tree, old_flink) + nd::kBLink, link, sizeof link))) {
      MORV_ERROR("Error while writing back modified node descriptor.\n");
    }
    return err;
  }
  if (!leaf) return MORV_OK;
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  h.set(hr::kLastLeafNode, last);
  return write_tree_header(tree, h);
}

// Splits `parts[0]` (the node after the edit's removal) at the cuts `starts`
// of the edited sequence: claims a node for every part after the first,
// moves the records there and places the edit's records.
[[nodiscard]] morv_err split_at(morv_btree* tree, const edit& e, node_copy* parts,
                                const size_t* starts, size_t count, placement* placed) {
  const uint16_t ns = tree->node_size;
  node_copy& x = parts[0];
  const checked_node xv = x.view(ns);
  morv_err err = MORV_OK;
  for (size_t p = 1; p < count; ++p) {
    uint32_t number = 0;
    if ((err = claim(tree, &number))) {
      MORV_ERROR("Error while claiming node.\n");
      return err;
    }
    if ((err = new_node(tree, number, xv.kind(), xv.height(), &parts[p]))) return err;
  }
  // The old records of each part leave x, the last part first.
  for (size_t p = count; p-- > 1;) {
    const size_t s = starts[p];
    const size_t first = s <= e.at ? s : (s >= e.at + e.count ? s - e.count : e.at);
    move_tail(tree, &x, static_cast<uint16_t>(first), &parts[p]);
  }
  for (size_t q = 0; q < e.count; ++q) {
    const size_t j = e.at + q;
    size_t p = count - 1;
    while (starts[p] > j) --p;
    const uint16_t local = static_cast<uint16_t>(j - starts[p]);
    insert_record(tree, &parts[p], local, e.records[q], e.sizes[q]);
    if (q == 0 && placed) *placed = placement{parts[p].number, local};
  }
  if ((err = link_parts(tree, parts, count))) return err;
  for (size_t p = count; p-- > 0;) {
    if ((err = write_node(tree, parts[p]))) {
      MORV_ERROR(p ? "Error while writing back modified claimed node.\n"
                   : "Error while writing back modified split node.\n");
      return err;
    }
  }
  return MORV_OK;
}

// Splits so that the edit's records fit.
[[nodiscard]] morv_err split(morv_btree* tree, const edit& e, node_copy* parts, size_t* count,
                             placement* placed) {
  size_t starts[kMaxParts];
  morv_err err = choose_parts(sequence{parts[0].view(tree->node_size), tree->node_size, &e},
                              starts, count);
  if (err) return err;
  return split_at(tree, e, parts, starts, *count, placed);
}

// What the parent of a node edited at `level` must do: take index records
// for the parts of a split, or a smaller first key now; a grown first key
// and an emptied node wait for the end of the transaction.
[[nodiscard]] morv_err prepare_up(morv_btree* tree, const tree_header& h, const tree_path& path,
                                  size_t level, const node_copy* parts, size_t count,
                                  upward* up) {
  const uint16_t ns = tree->node_size;
  const checked_node x = parts[0].view(ns);
  const uint8_t height = x.height();
  const uint32_t parent_number = path.node[level - 1];
  const uint16_t i = path.index[level - 1];
  node_ref parent;
  morv_err err = get_node(tree, h, parent_number, static_cast<uint8_t>(height + 1), &parent);
  if (err) {
    MORV_ERROR("Error while searching for index node to modify.\n");
    return err;
  }
  if (i >= parent->count() || parent->child(i) != x.number()) {
    MORV_ERROR("Invalid node data: Index record %hu of node %lu does not point to node %lu.\n", i,
               morv_ul(parent_number), morv_ul(x.number()));
    return MORV_ERR_CORRUPT;
  }
  const uint8_t* parent_key = parent->key(i);
  if (count == 1) {
    if (x.count() == 0) return pend(tree, x.number(), height, parent_key);
    const uint8_t* first = x.key(0);
    if (same_key(first, parent_key)) return MORV_OK;
    if (tree->priv->compare_keys(first, parent_key, h.compare_type()) >= 0)
      return pend(tree, x.number(), height, parent_key);
  }
  size_t bytes = 0;
  for (size_t p = 0; p < count; ++p) bytes += index_record_size(parts[p].view(ns).key(0));
  if (!up->storage.allocate(bytes)) {
    MORV_ERROR("Error while allocating %zu bytes for index records.\n", bytes);
    return MORV_ERR_NO_MEMORY;
  }
  up->change = edit{};
  up->change.at = i;
  up->change.remove = 1;
  up->change.count = count;
  uint8_t* out = up->storage.get();
  for (size_t p = 0; p < count; ++p) {
    const uint8_t* key = parts[p].view(ns).key(0);
    make_index_record(key, parts[p].number, out);
    up->change.records[p] = out;
    up->change.sizes[p] = index_record_size(key);
    out += up->change.sizes[p];
  }
  up->has_change = true;
  up->adds = count > 1;
  unpend(tree, x.number());
  return MORV_OK;
}

// Applies `e` to the node at `level` of `path`; *up receives what the level
// above must do.
[[nodiscard]] morv_err edit_node(morv_btree* tree, const tree_path& path, size_t level,
                                 const edit& e, placement* placed, upward* up) {
  const uint16_t ns = tree->node_size;
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  const uint8_t height = static_cast<uint8_t>(h.depth() - level);
  node_copy parts[kMaxParts];
  node_copy& x = parts[0];
  if ((err = read_node(tree, h, path.node[level], height, &x))) {
    MORV_ERROR("Error while reading complete node data of node where record should be inserted.\n");
    return err;
  }
  const uint16_t records = x.view(ns).count();
  if (e.at + e.remove > records) {
    MORV_CRITICAL("Internal error: Edit of records %hu to %hu beyond the %hu records of node %lu.\n",
                  e.at, static_cast<uint16_t>(e.at + e.remove), records, morv_ul(x.number));
    return MORV_ERR_INTERNAL;
  }
  mark_removed(tree, x.number, e.at, e.remove);
  remove_records(tree, &x, e.at, e.remove);
  size_t need = 0;
  for (size_t q = 0; q < e.count; ++q) need += e.sizes[q] + nd::kOffsetEntrySize;
  size_t count = 1;
  if (need <= x.view(ns).free_room()) {
    for (size_t q = 0; q < e.count; ++q)
      insert_record(tree, &x, static_cast<uint16_t>(e.at + q), e.records[q], e.sizes[q]);
    if (placed && e.count) *placed = placement{x.number, e.at};
    if ((err = write_node(tree, x))) {
      MORV_ERROR("Error while writing out modified node after inserting record.\n");
      return err;
    }
  } else {
    if (level == 0) {
      MORV_ERROR("Unable to split root node.\n");
      return MORV_ERR_INTERNAL;
    }
    if ((err = split(tree, e, parts, &count, placed))) {
      MORV_ERROR("Error while splitting node.\n");
      return err;
    }
  }
  if (level > 0) return prepare_up(tree, h, path, level, parts, count, up);
  // The root has no index record; an emptied root leaves the tree empty.
  if (x.view(ns).count() == 0) return pend(tree, x.number, height, nullptr);
  return MORV_OK;
}

}  // namespace

size_t index_record_size(const uint8_t* key) { return padded(size_t{load_be16(key)} + 2) + 4; }

void make_index_record(const uint8_t* key, uint32_t child, uint8_t* out) {
  const size_t key_size = size_t{load_be16(key)} + 2;
  memcpy(out, key, key_size);
  if (key_size & 1) out[key_size] = 0;
  store_be32(out + padded(key_size), child);
}

bool same_key(const uint8_t* a, const uint8_t* b) {
  return load_be16(a) == load_be16(b) && memcmp(a, b, size_t{load_be16(a)} + 2) == 0;
}

morv_err check_sibling(morv_btree* tree, uint32_t number, const checked_node& of,
                       size_t link_field) {
  tree_header h;
  node_ref sibling;
  morv_err err = read_tree_header(tree, &h);
  if (!err) err = get_node(tree, h, number, of.height(), &sibling);
  if (err) {
    MORV_ERROR("Error while reading node descriptor of claimed node's forward linked node.\n");
    return err;
  }
  const uint32_t link = link_field == nd::kFLink ? sibling->flink() : sibling->blink();
  if (link != of.number() || sibling->kind() != of.kind()) {
    MORV_ERROR("Invalid node data: Node %lu does not link back to its neighbour %lu.\n",
               morv_ul(number), morv_ul(of.number()));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

morv_err edit_levels(morv_btree* tree, const tree_path& path, size_t level, const edit& first,
                     placement* placed) {
  upward a;
  upward b;
  upward* next = &a;
  upward* spare = &b;
  edit e = first;
  bool adds = false;
  for (size_t l = level;; --l) {
    next->has_change = false;
    morv_err err = edit_node(tree, path, l, e, l == level ? placed : nullptr, next);
    if (err) {
      if (l != level)
        MORV_ERROR(adds ? "Error while inserting new index record for claimed node.\n"
                        : "Error while adding index record.\n");
      return err;
    }
    if (!next->has_change) return MORV_OK;
    e = next->change;  // its records live in next->storage until the level after
    adds = next->adds;
    upward* used = next;
    next = spare;
    spare = used;
  }
}

morv_err bump_leaf_records(morv_btree* tree, bool up) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) {
    MORV_ERROR("Error while reading B-tree header record.\n");
    return err;
  }
  h.set(hr::kLeafRecords, h.leaf_records() + (up ? 1u : uint32_t{0xFFFFFFFF}));
  if ((err = tree_write(tree, hr::kForkOffset, h.raw, hr::kSize))) {
    if (up)
      MORV_ERROR("Error while writing out incremented leaf record count in header record.\n");
    else
      MORV_ERROR("Error while writing out decremented 'leafRecords' in B-tree header record.\n");
  }
  return err;
}

}  // namespace morv_bt

morv_err morv_btree_node_make_record(const uint8_t* key, uint16_t key_length, const void* data,
                                     uint16_t data_size, uint8_t* destination,
                                     uint16_t record_size) {
  size_t cur = size_t{key_length} + 2;
  if (cur > record_size) {
    MORV_CRITICAL("Not enough space for the record key.\n");
    return MORV_ERR_INTERNAL;
  }
  memcpy(destination, key, cur);
  if (key_length & 1) {
    if (size_t{key_length} + 3 > record_size) {
      MORV_CRITICAL("Not enough space for record key padding.\n");
      return MORV_ERR_INTERNAL;
    }
    destination[cur++] = 0;
  }
  if (cur + data_size > record_size) {
    MORV_CRITICAL("Not enough space for the record data.\n");
    return MORV_ERR_INTERNAL;
  }
  if (data_size) memcpy(destination + cur, data, data_size);
  cur += data_size;
  if (data_size & 1) {
    if (cur + 1 > record_size) {
      MORV_CRITICAL("Not enough space for record data padding.\n");
      return MORV_ERR_INTERNAL;
    }
    destination[cur++] = 0;
  }
  if (cur != record_size) {
    MORV_CRITICAL("Unexpected: Calculation mismatch between cur_offset (%zu) and record_size (%hu).\n",
                  cur, record_size);
    return MORV_ERR_INTERNAL;
  }
  return MORV_OK;
}

namespace morv_bt {
namespace {

// A tree without a root (rootNode 0, treeDepth 0, as a fresh extents
// overflow file is) gets a claimed node as its root leaf, which is also the
// first and last leaf.
[[nodiscard]] morv_err make_root_leaf(morv_btree* tree) {
  node_copy root;
  uint32_t number = 0;
  morv_err err = claim(tree, &number);
  if (err) {
    MORV_ERROR("Error while claiming node.\n");
    return err;
  }
  if ((err = new_node(tree, number, nd::kKindLeaf, nd::kLeafHeight, &root)) ||
      (err = write_node(tree, root)))
    return err;
  tree_header h;
  if ((err = read_tree_header(tree, &h))) return err;
  h.set_depth(1);
  h.set(hr::kRootNode, root.number);
  h.set(hr::kFirstLeafNode, root.number);
  h.set(hr::kLastLeafNode, root.number);
  return write_tree_header(tree, h);
}

// Moves `path` to the leaf that follows its leaf, through the tree's own
// index records (not fLink); *moved is false at the tree's last leaf.
[[nodiscard]] morv_err path_to_next_leaf(morv_btree* tree, const tree_header& h, tree_path* path,
                                         bool* moved) {
  const size_t leaf = path->last();
  *moved = false;
  for (size_t k = leaf; k-- > 0;) {
    node_ref node;
    morv_err err = get_node(tree, h, path->node[k], static_cast<uint8_t>(h.depth() - k), &node);
    if (err) return err;
    if (path->index[k] + 1u >= node->count()) continue;
    ++path->index[k];
    uint32_t child = node->child(path->index[k]);
    for (size_t j = k + 1; j <= leaf; ++j) {
      path->node[j] = child;
      path->index[j] = 0;
      if (j == leaf) break;
      node_ref c;
      if ((err = get_node(tree, h, child, static_cast<uint8_t>(h.depth() - j), &c))) return err;
      if (c->count() == 0) {
        MORV_ERROR("Invalid node data: Index node %lu holds no records.\n", morv_ul(child));
        return MORV_ERR_CORRUPT;
      }
      child = c->child(0);
    }
    *moved = true;
    return MORV_OK;
  }
  return MORV_OK;
}

// A key in the gap between two leaves may go at the end of the first or at
// the start of the second; a caller's location that names the second is
// honoured (a record rebuilt where it was deleted).
[[nodiscard]] morv_err follow_location(morv_btree* tree, const tree_header& h, const uint8_t* key,
                                       const morv_btree_search_result* location, tree_path* path,
                                       uint16_t* position) {
  const uint32_t wanted = *location->locator->node_number;
  tree_path next = *path;
  bool moved = false;
  morv_err err = path_to_next_leaf(tree, h, &next, &moved);
  if (err || !moved || next.node[next.last()] != wanted) return err;
  node_ref node;
  if ((err = get_node(tree, h, wanted, nd::kLeafHeight, &node))) return err;
  if (node->count() != 0 && tree->priv->compare_keys(node->key(0), key, h.compare_type()) <= 0)
    return MORV_OK;
  *path = next;
  *position = 0;
  return MORV_OK;
}

[[nodiscard]] morv_err insert_body(morv_btree* tree, const uint8_t* key, const void* data,
                                   uint16_t data_size, const morv_btree_search_result* location,
                                   morv_btree_record_locator** out_locator) {
  const uint16_t ns = tree->node_size;
  const uint16_t key_length = load_be16(key);
  if (key_length > tree->max_key_length) {
    MORV_ERROR("Invalid parameter: Key length %hu exceeds the tree's maximum key length (%hu).\n",
               key_length, tree->max_key_length);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const size_t r = padded(size_t{key_length} + 2) + padded(data_size);
  if (r + nd::kRecordOverhead > ns) {
    MORV_ERROR("Record cannot fit in a node given the B-tree's node size of %hu bytes (need %zu "
               "bytes).\n",
               ns, r + nd::kRecordOverhead);
    return MORV_ERR_UNSUPPORTED;
  }
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (!err && h.root() == 0 && !(err = make_root_leaf(tree))) err = read_tree_header(tree, &h);
  if (err) return err;
  cursor c;
  if ((err = descend(tree, h, key, h.root(), static_cast<uint8_t>(h.depth()), nd::kLeafHeight,
                     &c))) {
    MORV_ERROR("Error while searching for insert location.\n");
    return err;
  }
  if (c.at.exact) {
    MORV_ERROR("ERROR:Unable to insert because already exists?!\n");
    return MORV_ERR_EXISTS;
  }
  tree_path path = c.path;
  const bool after_last = c.at.after_last;
  uint16_t p = after_last ? c.node->count() : path.index[path.last()];
  c.node.release();
  if (location && location->locator && after_last &&
      *location->locator->node_number != path.node[path.last()] &&
      (err = follow_location(tree, h, key, location, &path, &p)))
    return err;
  morv::buffer<uint8_t> record(static_cast<uint8_t*>(morv_malloc(r)));
  if (!record) {
    MORV_ERROR("Error while allocating node-sized buffer for modified contents (%zu bytes).\n", r);
    return MORV_ERR_NO_MEMORY;
  }
  if ((err = morv_btree_node_make_record(key, key_length, data, data_size, record.get(),
                                         static_cast<uint16_t>(r)))) {
    MORV_CRITICAL("Unexpected: Error while assembling B-tree node record from source key and data.");
    return err;
  }
  edit e;
  e.at = p;
  e.count = 1;
  e.records[0] = record.get();
  e.sizes[0] = r;
  placement placed{};
  if ((err = edit_levels(tree, path, path.last(), e, &placed))) return err;
  if ((err = bump_leaf_records(tree, true))) return err;
  node_ref leaf;
  if ((err = read_tree_header(tree, &h))) {
    MORV_ERROR("Error while reading header record.\n");
    return err;
  }
  if ((err = get_node(tree, h, placed.node, nd::kLeafHeight, &leaf))) {
    MORV_ERROR("Error while reading complete node data of claimed node.\n");
    return err;
  }
  if ((err = open_on(tree, *leaf, placed.index, out_locator))) {
    MORV_ERROR("Error while creating morv_btree_record_locator.\n");
    return err;
  }
  return MORV_OK;
}

}  // namespace
}  // namespace morv_bt

morv_err morv_btree_insert_record_internal(morv_btree* tree, const uint8_t* key, const void* data,
                                           uint16_t data_size, morv_btree_search_result* location,
                                           morv_btree_record_locator** out_locator) {
  if (!key) {
    MORV_ERROR("HFSPlus:%s: Invalid Search key\n", "morv_btree_search_node_internal");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  txn_begin(tree);
  morv_btree_record_locator* locator = nullptr;
  morv_err err = txn_end(tree, insert_body(tree, key, data, data_size, location, &locator));
  if (err) {
    morv_btree_record_locator_close_locked(&locator, 0);
    return err;
  }
  *out_locator = locator;
  return MORV_OK;
}

morv_err morv_btree_insert_record(morv_btree* tree, const uint8_t* key, const void* data,
                                  uint16_t data_size, morv_btree_search_result* location,
                                  morv_btree_record_locator** out_locator) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  morv_err err = lock.lock_write();
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  morv_btree_record_locator* locator = nullptr;
  err = morv_btree_insert_record_internal(tree, key, data, data_size, location, &locator);
  if (!err && (err = lock.finish(err))) morv_btree_record_locator_close(&locator);
  if (err) return err;
  *out_locator = locator;
  return MORV_OK;
}

namespace morv_bt {
namespace {

// The path from the root to node `number` at `height`, found by its first key.
[[nodiscard]] morv_err path_to(morv_btree* tree, const tree_header& h, const checked_node& node,
                               tree_path* out) {
  uint8_t key[kMaxKeySize];
  memcpy(key, node.key(0), node.key_size(0));
  cursor c;
  morv_err err = descend(tree, h, key, h.root(), static_cast<uint8_t>(h.depth()), node.height(), &c);
  if (err) return err;
  if (!c.at.exact || c.path.node[c.path.last()] != node.number() || c.path.index[c.path.last()]) {
    MORV_ERROR("Invalid node data: Record %hu of node %lu is not where its key leads.\n",
               uint16_t{0}, morv_ul(node.number()));
    return MORV_ERR_CORRUPT;
  }
  *out = c.path;
  return MORV_OK;
}

[[nodiscard]] morv_err split_body(morv_btree* tree, uint32_t number, uint16_t split_index,
                                  uint32_t* out_claimed) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) {
    MORV_ERROR("Error while reading header record of B-tree.\n");
    return err;
  }
  node_ref node;
  if ((err = get_node(tree, h, number, 0, &node))) {
    MORV_ERROR("Error while mapping node descriptor of split node.\n");
    return err;
  }
  if (node->height() >= h.depth()) {
    MORV_ERROR("Unable to split root node.\n");
    return MORV_ERR_INTERNAL;
  }
  if (split_index == 0 || split_index >= node->count()) {
    MORV_ERROR("Invalid parameter: Split index %hu of node %lu with %hu records.\n", split_index,
               morv_ul(number), node->count());
    return MORV_ERR_INVALID_ARGUMENT;
  }
  tree_path path;
  if ((err = path_to(tree, h, *node, &path))) return err;
  node.release();
  node_copy parts[2];
  if ((err = read_node(tree, h, number, 0, &parts[0]))) return err;
  const size_t starts[2] = {0, split_index};
  const edit nothing;
  if ((err = split_at(tree, nothing, parts, starts, 2, nullptr))) return err;
  upward up;
  if ((err = prepare_up(tree, h, path, path.last(), parts, 2, &up))) return err;
  if ((err = edit_levels(tree, path, path.last() - 1, up.change, nullptr))) {
    MORV_ERROR("Error while inserting new index record for claimed node.\n");
    return err;
  }
  *out_claimed = parts[1].number;
  return MORV_OK;
}

[[nodiscard]] morv_err add_index_body(morv_btree* tree, const uint8_t* key, uint8_t height,
                                      uint32_t child) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  if (height <= nd::kLeafHeight || height > h.depth() || child == 0 || child >= h.total_nodes() ||
      load_be16(key) > tree->max_key_length) {
    MORV_ERROR("Invalid parameter: Index record for node %lu at height %u.\n", morv_ul(child),
               height);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  cursor c;
  if ((err = descend(tree, h, key, h.root(), static_cast<uint8_t>(h.depth()), height, &c))) {
    MORV_ERROR("Error while searching for location to insert index record.\n");
    return err;
  }
  if (c.at.exact) {
    MORV_ERROR("Index record that we wanted to add already exists.\n");
    return MORV_ERR_EXISTS;
  }
  tree_path path = c.path;
  const uint16_t at = c.at.after_last ? c.node->count() : path.index[path.last()];
  c.node.release();
  uint8_t record[kMaxIndexRecordSize];
  make_index_record(key, child, record);
  edit e;
  e.at = at;
  e.count = 1;
  e.records[0] = record;
  e.sizes[0] = index_record_size(key);
  if ((err = edit_levels(tree, path, path.last(), e, nullptr))) {
    MORV_ERROR("Error while inserting index record.\n");
    return err;
  }
  return MORV_OK;
}

}  // namespace
}  // namespace morv_bt

morv_err morv_btree_split_node(morv_btree* tree, uint32_t node_number, uint16_t split_index,
                               uint32_t* out_claimed) {
  txn_begin(tree);
  uint32_t claimed = 0;
  const morv_err err = txn_end(tree, split_body(tree, node_number, split_index, &claimed));
  if (err) return err;
  *out_claimed = claimed;
  return MORV_OK;
}

morv_err morv_btree_add_index_record(morv_btree* tree, const uint8_t* key, uint8_t height,
                                     uint32_t child) {
  txn_begin(tree);
  return txn_end(tree, add_index_body(tree, key, height, child));
}
