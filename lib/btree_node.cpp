// SPDX-License-Identifier: MIT
// B-tree nodes: the one check, the cache of checked nodes, the header record
// and the one write path.
//
// Every node the engine reads enters through get_node, get_header_node or
// get_map_node. Each reads the node's bytes from the fork into a slot of the
// tree's cache (a private copy) and checks the copy once:
//
//   leaf and index nodes  kind -1 or 0, the kind matching the height (leaves
//                         at 1, index nodes above) and the level expected;
//                         fLink and bLink inside the tree and not the node
//                         itself; numRecords + 1 offset entries inside the
//                         node; record offsets even, ascending from 14 and
//                         below the offset array; every record holding its
//                         key (keyLength + 2 <= 518 bytes, padded to even)
//                         and, in an index node, the child's number behind
//                         it, a node of the tree other than this one.
//   the header node       kind 1, three records, the map record (nodeSize -
//                         256 bytes) inside the node, fLink inside the tree.
//   map nodes             kind 2, one record, fLink inside the tree, a map
//                         record inside the node that is not empty.
//
// A checked copy is handed out as a checked_node, whose accessors are the
// only readers of records, keys and children; they read nothing the check
// did not bound. The copy stays in the cache until the engine writes into
// the node (write_bytes drops it), the slot is needed for another node, or
// the fork changed behind the engine's back: the fork's write count or size
// differs from what the copies were taken at. The copies are the engine's
// own, so nothing the fork's cache does (evicting, re-reading from the
// device, remapping) and nothing on the volume can change checked bytes.
//
// The header record is decoded once, when first needed, and kept; the one
// write path keeps the kept copy in step with every byte written over it,
// and it is checked against the tree's file each time it is handed out.
#include "btree_node.hpp"

#include <cstring>

#include "btree_internal.hpp"
#include "fork.hpp"

using namespace morv_bt;

namespace morv_bt {

struct node_access {
  static void bind(node_ref* ref, node_slot* slot, uint32_t number, uint16_t node_size) {
    ref->release();
    ++slot->pins;
    ref->slot_ = slot;
    ref->node_ = checked_node(slot->bytes, number, node_size);
  }
};

void node_ref::release() {
  if (slot_) --slot_->pins;
  slot_ = nullptr;
  node_ = checked_node();
}

void node_cache_destroy(node_cache* cache) {
  for (node_slot& s : cache->slots) {
    morv_free(s.bytes);
    s = node_slot{};
  }
}

namespace {

enum node_form : uint8_t { kFormTree = 1, kFormHeader = 2, kFormMap = 3 };

uint16_t entry(const uint8_t* node, uint16_t ns, size_t index) {
  return load_be16(node + ns - nd::kOffsetEntrySize * (index + 1));
}
void set_entry(uint8_t* node, uint16_t ns, size_t index, uint16_t value) {
  store_be16(node + ns - nd::kOffsetEntrySize * (index + 1), value);
}
int8_t kind_of(const uint8_t* node) { return static_cast<int8_t>(node[nd::kKind]); }
uint16_t count_of(const uint8_t* node) { return load_be16(node + nd::kNumRecords); }
uint64_t fork_nodes(const morv_btree* tree) { return *tree->fork->logical_size / tree->node_size; }

// Drops every copy when the fork changed behind the engine.
void sync(morv_btree* tree) {
  node_cache& c = tree->priv->cache;
  const uint64_t writes = morv_fork_write_count(tree->fork);
  const uint64_t size = *tree->fork->logical_size;
  if (writes == c.fork_writes && size == c.fork_size) return;
  for (node_slot& s : c.slots) s.valid = false;
  c.header_loaded = false;
  c.fork_writes = writes;
  c.fork_size = size;
}

node_slot* lookup(morv_btree* tree, uint32_t number, uint8_t form) {
  node_cache& c = tree->priv->cache;
  for (node_slot& s : c.slots) {
    if (s.valid && s.number == number && s.form == form) {
      s.used = ++c.clock;
      return &s;
    }
  }
  return nullptr;
}

// Reads node `number` into a free slot; the slot is valid only once checked.
[[nodiscard]] morv_err load(morv_btree* tree, uint32_t number, node_slot** out) {
  node_cache& c = tree->priv->cache;
  node_slot* victim = nullptr;
  for (node_slot& s : c.slots) {
    if (s.pins) continue;
    if (!victim || (victim->valid && (!s.valid || s.used < victim->used))) victim = &s;
  }
  if (!victim) {
    MORV_CRITICAL("Internal error: Every cached node of the B-tree is in use.\n");
    return MORV_ERR_INTERNAL;
  }
  victim->valid = false;
  if (!victim->bytes) {
    victim->bytes = static_cast<uint8_t*>(morv_malloc(tree->node_size));
    if (!victim->bytes) {
      MORV_ERROR("Error while allocating node-sized buffer for modified contents (%zu bytes).\n",
                 size_t{tree->node_size});
      return MORV_ERR_NO_MEMORY;
    }
  }
  morv_err err = morv_fork_read(tree->fork, node_offset(tree, number), victim->bytes,
                                tree->node_size, nullptr);
  if (err) {
    MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(number));
    return err;
  }
  victim->number = number;
  victim->used = ++c.clock;
  *out = victim;
  return MORV_OK;
}

// Kind against height and the height expected (0: any), links inside the tree.
[[nodiscard]] morv_err check_descriptor(const uint8_t* node, uint32_t number, uint8_t height,
                                        uint32_t total) {
  const int8_t kind = kind_of(node);
  if (kind != nd::kKindLeaf && kind != nd::kKindIndex) {
    MORV_ERROR("Invalid node kind: %hhd\n", kind);
    return MORV_ERR_CORRUPT;
  }
  const uint8_t actual = node[nd::kHeight];
  if ((kind == nd::kKindLeaf) != (actual == nd::kLeafHeight) || (height && actual != height) ||
      actual == 0) {
    MORV_ERROR("Invalid node data: Node %lu of kind %hhd has height %u where height %u was "
               "expected.\n",
               morv_ul(number), kind, actual, height);
    return MORV_ERR_CORRUPT;
  }
  const uint32_t flink = load_be32(node + nd::kFLink);
  const uint32_t blink = load_be32(node + nd::kBLink);
  if (flink >= total || blink >= total || flink == number || blink == number) {
    MORV_ERROR("Invalid node data: Node %lu links to nodes %lu and %lu, outside the tree of %lu "
               "nodes or to itself.\n",
               morv_ul(number), morv_ul(flink), morv_ul(blink), morv_ul(total));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// Offsets of a node's records: each even, inside 14..(start of the offset
// array), ascending; record 0 at 14.
[[nodiscard]] morv_err check_offsets(const uint8_t* node, uint16_t ns, uint32_t number) {
  const uint16_t count = count_of(node);
  if (nd::kOffsetEntrySize * (count + 1u) > ns - nd::kDescriptorSize) {
    MORV_ERROR("Invalid node data: Node cannot fit %hu records given the node size (%hu).\n",
               count, ns);
    return MORV_ERR_CORRUPT;
  }
  const uint16_t first = entry(node, ns, 0);
  if (first != nd::kFirstRecordOffset) {
    MORV_ERROR("HFSPlus:%s: Offset of record 0 in %lu is %hu, and not %zu!\n",
               "morv_btree_search_node_internal", morv_ul(number), first,
               size_t{nd::kFirstRecordOffset});
    return MORV_ERR_CORRUPT;
  }
  const size_t array_start = ns - nd::kOffsetEntrySize * (count + 1u);
  for (uint16_t i = 1; i <= count; ++i) {
    const uint16_t off = entry(node, ns, i);
    const uint16_t prev = entry(node, ns, i - 1u);
    if (off > array_start || (off & 1)) {
      MORV_ERROR("Invalid node data: Offset for record %hu is out of range (%hu).\n", i, off);
      return MORV_ERR_CORRUPT;
    }
    if (off < prev) {
      MORV_ERROR("Invalid node data: Records offsets are not in order (offset for record %hu: %hu, "
                 "offset for record %hu: %hu).\n",
                 static_cast<uint16_t>(i - 1), prev, i, off);
      return MORV_ERR_CORRUPT;
    }
  }
  return MORV_OK;
}

// Every record holds its key (and an index record its child number behind
// it); children lie inside the tree and are not the node itself.
[[nodiscard]] morv_err check_records(const uint8_t* node, uint16_t ns, uint32_t number,
                                     uint32_t total_nodes) {
  const bool index = kind_of(node) == nd::kKindIndex;
  const size_t child_size = index ? nd::kIndexDataSize : 0;
  for (uint16_t i = 0; i < count_of(node); ++i) {
    const uint16_t off = entry(node, ns, i);
    const size_t size = size_t{entry(node, ns, i + 1u)} - off;
    const size_t key_size = size >= 2 ? size_t{load_be16(node + off)} + 2 : 0;
    if (key_size > kMaxKeySize) {
      MORV_ERROR("Invalid node data: Key of record %hu in node %lu is longer than any HFS+ key "
                 "(keyLength %zu).\n",
                 i, morv_ul(number), key_size - 2);
      return MORV_ERR_CORRUPT;
    }
    if (size < 2 || padded(key_size) + child_size > size) {
      MORV_ERROR("Invalid node data: Key of record %hu does not fit in its record (%zu bytes).\n",
                 i, size);
      return MORV_ERR_CORRUPT;
    }
    if (!index) continue;
    const uint32_t child = load_be32(node + off + padded(key_size));
    if (child == number) {
      MORV_ERROR("Index node points back to itself. Inconsistent B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    if (child >= total_nodes || child == 0) {
      MORV_ERROR("Index node points to node after the last node. Inconsistent B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
  }
  return MORV_OK;
}

// The header node's descriptor: kind 1 and three records.
[[nodiscard]] morv_err check_header_descriptor(const uint8_t* d) {
  if (kind_of(d) != nd::kKindHeader || count_of(d) != nd::kHeaderNodeRecords) {
    // The count is printed low byte first, as the message always has.
    MORV_ERROR("HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
               "morv_btree_process", static_cast<int>(kind_of(d)),
               static_cast<int>(d[nd::kNumRecords] | (d[nd::kNumRecords + 1] << 8)));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

[[nodiscard]] morv_err check_link(const uint8_t* node, uint32_t number, uint32_t total) {
  const uint32_t flink = load_be32(node + nd::kFLink);
  if (flink >= total && flink != 0 && number == 0) {
    MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node 0 exceeds the total number of "
               "nodes (%lu).\n",
               morv_ul(flink), morv_ul(total));
    return MORV_ERR_CORRUPT;
  }
  if (flink >= total && flink != 0) {
    MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node %lu exceeds the total number of "
               "nodes (%lu).\n",
               morv_ul(flink), morv_ul(number), morv_ul(total));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// The header node whole: its descriptor, fLink and the map record in place.
[[nodiscard]] morv_err check_header_node_bytes(const uint8_t* node, uint16_t ns, uint32_t total,
                                               map_part* part) {
  morv_err err = check_header_descriptor(node);
  if (err || (err = check_link(node, 0, total))) return err;
  const uint16_t first = entry(node, ns, nd::kMapRecordIndex);
  const size_t length = ns - nd::kHeaderNodeNonMapBytes;
  const size_t limit = ns - nd::kOffsetEntrySize * (nd::kHeaderNodeRecords + 1u);
  if (first < nd::kFirstRecordOffset || first + length > limit) {
    MORV_ERROR("Invalid node data: First record offset is out of range (%hu).", first);
    return MORV_ERR_CORRUPT;
  }
  *part = map_part{first, static_cast<uint32_t>(length)};
  return MORV_OK;
}

// A map node: kind 2, one record, fLink inside the tree, the map record
// inside the node. An empty map record covers no node, so a walk over the
// bitmap would not advance: damage like any other.
[[nodiscard]] morv_err check_map_node_bytes(const uint8_t* node, uint16_t ns, uint32_t number,
                                            uint32_t total, map_part* part) {
  if (kind_of(node) != nd::kKindMap) {
    MORV_ERROR("Invalid node data: Expected map node, got node kind %hhd.\n", kind_of(node));
    return MORV_ERR_CORRUPT;
  }
  if (count_of(node) != nd::kMapNodeRecords) {
    MORV_ERROR("Invalid node data: Unexpected number of records in map node (%hu).\n",
               count_of(node));
    return MORV_ERR_CORRUPT;
  }
  if (morv_err err = check_link(node, number, total)) return err;
  const uint16_t first = entry(node, ns, 0);
  const uint16_t free_space = entry(node, ns, 1);
  const uint16_t limit = static_cast<uint16_t>(ns - 2 * nd::kOffsetEntrySize);
  if (first < nd::kFirstRecordOffset || first > limit) {
    MORV_ERROR("Invalid node data: First record offset is out of range (%hu).", first);
    return MORV_ERR_CORRUPT;
  }
  if (free_space < nd::kFirstRecordOffset || free_space > limit) {
    MORV_ERROR("Invalid node data: Free space offset is out of range (%hu).", free_space);
    return MORV_ERR_CORRUPT;
  }
  if (first >= free_space) {
    MORV_ERROR("Invalid node data: Records offsets out of order in map node %lu (first offset: "
               "%hu, free space: %hu)",
               morv_ul(number), first, free_space);
    return MORV_ERR_CORRUPT;
  }
  *part = map_part{first, static_cast<uint32_t>(free_space - first)};
  return MORV_OK;
}

// A node number every node but the header node must have.
[[nodiscard]] morv_err check_number(uint32_t number, uint32_t total) {
  if (number != 0 && number < total) return MORV_OK;
  MORV_ERROR("Invalid node data: Node %lu is outside the tree of %lu nodes.\n", morv_ul(number),
             morv_ul(total));
  return MORV_ERR_CORRUPT;
}

}  // namespace

morv_err get_node(morv_btree* tree, const tree_header& h, uint32_t number, uint8_t height,
                  node_ref* out) {
  sync(tree);
  const uint16_t ns = tree->node_size;
  const uint32_t total = h.total_nodes();
  morv_err err = check_number(number, total);
  if (err) return err;
  node_slot* s = lookup(tree, number, kFormTree);
  if (s) {
    // The body was checked when the copy was taken; the level asked for and
    // the tree's size may differ from then.
    if ((err = check_descriptor(s->bytes, number, height, total))) return err;
    node_access::bind(out, s, number, ns);
    return MORV_OK;
  }
  if ((err = load(tree, number, &s))) return err;
  if ((err = check_descriptor(s->bytes, number, height, total)) ||
      (err = check_offsets(s->bytes, ns, number)) ||
      (err = check_records(s->bytes, ns, number, total)))
    return err;
  s->form = kFormTree;
  s->valid = true;
  node_access::bind(out, s, number, ns);
  return MORV_OK;
}

morv_err get_header_node(morv_btree* tree, const tree_header& h, node_ref* out, map_part* part) {
  sync(tree);
  const uint16_t ns = tree->node_size;
  node_slot* s = lookup(tree, 0, kFormHeader);
  morv_err err = MORV_OK;
  if (!s) {
    if ((err = load(tree, 0, &s))) {
      MORV_ERROR("Error while mapping complete header node of B-tree.\n");
      return err;
    }
    map_part p{};
    if ((err = check_header_node_bytes(s->bytes, ns, h.total_nodes(), &p))) return err;
    s->first = p.first;
    s->length = p.length;
    s->form = kFormHeader;
    s->valid = true;
  } else if ((err = check_link(s->bytes, 0, h.total_nodes()))) {
    return err;
  }
  *part = map_part{s->first, s->length};
  node_access::bind(out, s, 0, ns);
  return MORV_OK;
}

morv_err get_map_node(morv_btree* tree, const tree_header& h, uint32_t number, node_ref* out,
                      map_part* part) {
  sync(tree);
  const uint16_t ns = tree->node_size;
  morv_err err = check_number(number, h.total_nodes());
  if (err) return err;
  node_slot* s = lookup(tree, number, kFormMap);
  if (!s) {
    if ((err = load(tree, number, &s))) {
      MORV_ERROR("Error %llu while mapping next map node into memory.\n", morv_ull(err));
      return err;
    }
    map_part p{};
    if ((err = check_map_node_bytes(s->bytes, ns, number, h.total_nodes(), &p))) return err;
    s->first = p.first;
    s->length = p.length;
    s->form = kFormMap;
    s->valid = true;
  } else if ((err = check_link(s->bytes, number, h.total_nodes()))) {
    return err;
  }
  *part = map_part{s->first, s->length};
  node_access::bind(out, s, number, ns);
  return MORV_OK;
}

// ---- the header record ----

morv_err read_tree_header(morv_btree* tree, tree_header* h) {
  sync(tree);
  node_cache& c = tree->priv->cache;
  if (!c.header_loaded) {
    morv_err err = morv_fork_read(tree->fork, hr::kForkOffset, c.header.raw, hr::kSize, nullptr);
    if (err) {
      MORV_ERROR("Error while reading B-tree header record.\n");
      return err;
    }
    c.header_loaded = true;
  }
  const tree_header& k = c.header;
  if (k.depth() > kMaxTreeDepth) {
    MORV_ERROR("B-tree depth too large.\n");
    return MORV_ERR_CORRUPT;
  }
  const uint32_t total = k.total_nodes();
  const auto inside = [total](uint32_t node) { return node == 0 || node < total; };
  // A tree has a root exactly when it has a depth.
  const bool root_ok = (k.root() == 0) == (k.depth() == 0) && inside(k.root());
  if (total > fork_nodes(tree) || !root_ok || !inside(k.first_leaf()) ||
      !inside(k.last_leaf())) {
    MORV_ERROR("Invalid B-tree header record: root node %lu, depth %hu, leaves %lu to %lu, %lu "
               "nodes in a file of %llu.\n",
               morv_ul(k.root()), k.depth(), morv_ul(k.first_leaf()), morv_ul(k.last_leaf()),
               morv_ul(total), morv_ull(fork_nodes(tree)));
    return MORV_ERR_CORRUPT;
  }
  *h = k;
  return MORV_OK;
}

morv_err write_tree_header(morv_btree* tree, const tree_header& h) {
  morv_err err = tree_write(tree, hr::kForkOffset, h.raw, hr::kSize);
  if (err) MORV_ERROR("Error while writing out modified B-tree header record.\n");
  return err;
}

// ---- the one write path ----

morv_err write_bytes(morv_btree* tree, uint64_t offset, const void* data, size_t length) {
  sync(tree);
  node_cache& c = tree->priv->cache;
  const morv_err err = morv_fork_write(tree->fork, offset, data, length, nullptr);
  const uint64_t end = offset + length;
  const uint32_t old_total = c.header.total_nodes();
  for (node_slot& s : c.slots) {
    const uint64_t start = node_offset(tree, s.number);
    if (s.valid && offset < start + tree->node_size && end > start) s.valid = false;
  }
  const uint64_t header_end = hr::kForkOffset + hr::kSize;
  if (c.header_loaded && offset < header_end && end > hr::kForkOffset) {
    if (err) {
      c.header_loaded = false;
    } else {
      const uint64_t from = offset > hr::kForkOffset ? offset : hr::kForkOffset;
      const uint64_t to = end < header_end ? end : header_end;
      memcpy(c.header.raw + (from - hr::kForkOffset),
             static_cast<const uint8_t*>(data) + (from - offset), static_cast<size_t>(to - from));
    }
  }
  // Nodes were checked against the tree's size: a new size checks them anew.
  if (!c.header_loaded || c.header.total_nodes() != old_total)
    for (node_slot& s : c.slots) s.valid = false;
  c.fork_writes = morv_fork_write_count(tree->fork);
  c.fork_size = *tree->fork->logical_size;
  return err;
}

// ---- node copies ----

morv_err read_node(morv_btree* tree, const tree_header& h, uint32_t number, uint8_t height,
                   node_copy* out) {
  node_ref ref;
  morv_err err = get_node(tree, h, number, height, &ref);
  if (err) return err;
  if (!out->bytes.allocate(tree->node_size)) {
    MORV_ERROR("Error while allocating node-sized buffer for modified contents (%zu bytes).\n",
               size_t{tree->node_size});
    return MORV_ERR_NO_MEMORY;
  }
  out->number = number;
  memcpy(out->get(), ref->bytes(), tree->node_size);
  return MORV_OK;
}

morv_err new_node(morv_btree* tree, uint32_t number, int8_t kind, uint8_t height,
                  node_copy* out) {
  const uint16_t ns = tree->node_size;
  if (!out->bytes.allocate(ns)) {
    MORV_ERROR("Error while allocating node-sized (%zu bytes) buffer to hold the claimed node "
               "data.\n",
               size_t{ns});
    return MORV_ERR_NO_MEMORY;
  }
  memset(out->get(), 0, ns);
  out->number = number;
  out->get()[nd::kKind] = static_cast<uint8_t>(kind);
  out->get()[nd::kHeight] = height;
  set_entry(out->get(), ns, 0, nd::kFirstRecordOffset);
  return MORV_OK;
}

morv_err write_node(morv_btree* tree, const node_copy& node) {
  morv_err err = tree_write(tree, node_offset(tree, node.number), node.get(), tree->node_size);
  if (err) MORV_ERROR("Error while writing out modified node %lu.\n", morv_ul(node.number));
  return err;
}

void set_link(node_copy* node, size_t field, uint32_t value) {
  store_be32(node->get() + field, value);
}

void insert_record(morv_btree* tree, node_copy* copy, uint16_t i, const uint8_t* record,
                   size_t size) {
  const uint16_t ns = tree->node_size;
  uint8_t* node = copy->get();
  const uint16_t n = count_of(node);
  const uint16_t at = entry(node, ns, i);
  const uint16_t free_start = entry(node, ns, n);
  memmove(node + at + size, node + at, size_t{free_start} - at);
  memcpy(node + at, record, size);
  for (uint32_t k = n + 1u; k > i; --k)
    set_entry(node, ns, k, static_cast<uint16_t>(entry(node, ns, k - 1) + size));
  store_be16(node + nd::kNumRecords, static_cast<uint16_t>(n + 1));
  morv_btree_relocate_open_locators(tree, copy->number, i, n - i, copy->number, 0, 1,
                                    static_cast<uint32_t>(size));
}

void remove_records(morv_btree* tree, node_copy* copy, uint16_t i, uint16_t count) {
  if (count == 0) return;
  const uint16_t ns = tree->node_size;
  uint8_t* node = copy->get();
  const uint16_t n = count_of(node);
  const uint16_t at = entry(node, ns, i);
  const uint16_t end = entry(node, ns, i + count);
  const uint16_t free_start = entry(node, ns, n);
  const uint16_t bytes = static_cast<uint16_t>(end - at);
  memmove(node + at, node + end, size_t{free_start} - end);
  memset(node + free_start - bytes, 0, bytes);
  for (uint32_t k = i + 1u; k + count <= n; ++k)
    set_entry(node, ns, k, static_cast<uint16_t>(entry(node, ns, k + count) - bytes));
  for (uint32_t k = n - count + 1u; k <= n; ++k) set_entry(node, ns, k, 0);
  store_be16(node + nd::kNumRecords, static_cast<uint16_t>(n - count));
  morv_btree_relocate_open_locators(tree, copy->number, static_cast<uint16_t>(i + count),
                                    n - (i + count), copy->number, 1, count, bytes);
}

// ---- at open ----

namespace {

// A mapping of fork bytes that is released on scope exit unless unmapped
// explicitly (the explicit unmap reports its error; the fallback does not).
class mapping {
 public:
  explicit mapping(morv_fork* fork) : fork_(fork) {}
  mapping(const mapping&) = delete;
  mapping& operator=(const mapping&) = delete;
  ~mapping() { (void)unmap(); }
  [[nodiscard]] morv_err map(uint64_t offset, size_t length) {
    uint8_t* p = nullptr;
    size_t mapped = 0;
    morv_err err = morv_fork_map(fork_, offset, &p, length, &mapped);
    if (err) return err;
    ptr_ = p;
    offset_ = offset;
    length_ = length;
    return MORV_OK;
  }
  [[nodiscard]] morv_err unmap() {
    if (!ptr_) return MORV_OK;
    morv_err err = morv_fork_unmap(fork_, offset_, &ptr_, length_);
    ptr_ = nullptr;  // a failed unmap leaves a reference behind; the bytes are not used again
    return err;
  }
  uint8_t* get() const { return ptr_; }
  uint64_t offset() const { return offset_; }

 private:
  morv_fork* fork_;
  uint8_t* ptr_ = nullptr;
  uint64_t offset_ = 0;
  size_t length_ = 0;
};

}  // namespace

// Checks the header node's descriptor and header record through the fork.
morv_err check_header_node(morv_fork* fork, uint16_t* out_node_size,
                           uint16_t* out_max_key_length) {
  mapping descriptor(fork);
  morv_err err = descriptor.map(0, nd::kDescriptorSize);
  if (err) {
    MORV_ERROR("Error while mapping node descriptor of B-tree from its fork.\n");
    return err;
  }
  if ((err = check_header_descriptor(descriptor.get()))) return err;
  mapping header(fork);
  err = header.map(hr::kForkOffset, hr::kSize);
  if (err) {
    MORV_ERROR("Error while mapping header record of B-tree from its fork.\n");
    return err;
  }
  const uint8_t* h = header.get();
  if (h[hr::kBtreeType] != hr::kHfsBtreeType) {
    MORV_ERROR("HFSPlus:%s: Tree type, according to header node, is %d - and not kHFSBTreeType (0)\n",
               "morv_btree_process", static_cast<int>(h[hr::kBtreeType]));
    return MORV_ERR_CORRUPT;
  }
  if (!(load_be32(h + hr::kAttributes) & hr::kBigKeysMask)) {
    MORV_ERROR("Big keys flag not set for HFS+ B-tree.\n");
    return MORV_ERR_CORRUPT;
  }
  const uint16_t node_size = load_be16(h + hr::kNodeSize);
  const uint16_t max_key_length = load_be16(h + hr::kMaxKeyLength);
  // Every node access relies on a node size the format allows.
  if (node_size < kMinNodeSize || node_size > kMaxNodeSize || (node_size & (node_size - 1))) {
    MORV_ERROR("Invalid node size in B-tree header record: %hu\n", node_size);
    return MORV_ERR_CORRUPT;
  }
  // Keys are held in buffers of the longest HFS+ key; every node number is
  // checked against totalNodes, which must not promise more than the file.
  if (max_key_length > kMaxKeyLength) {
    MORV_ERROR("Invalid B-tree header record: maximum key length %hu is beyond %hu.\n",
               max_key_length, kMaxKeyLength);
    return MORV_ERR_CORRUPT;
  }
  const uint32_t total_nodes = load_be32(h + hr::kTotalNodes);
  const uint64_t file_nodes = *fork->logical_size / node_size;
  if (total_nodes > file_nodes) {
    MORV_ERROR("Invalid B-tree header record: %lu nodes, but the tree's file holds %llu.\n",
               morv_ul(total_nodes), morv_ull(file_nodes));
    return MORV_ERR_CORRUPT;
  }
  err = header.unmap();
  if (err) {
    MORV_ERROR("Error while unmapping header record of B-tree from its fork.\n");
  }
  morv_err e2 = descriptor.unmap();
  if (e2) {
    MORV_ERROR("Error while unmapping node descriptor of B-tree from its fork.\n");
    if (!err) err = e2;
  }
  if (err) return err;
  *out_node_size = node_size;
  *out_max_key_length = max_key_length;
  return MORV_OK;
}

}  // namespace morv_bt
