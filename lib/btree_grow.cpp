// SPDX-License-Identifier: MIT
// Tree growth.
//
// morv_btree_expand grows a tree's file by one clump of its fork (clumpSize
// of the fork data) and turns the new nodes into free nodes of the tree:
// totalNodes and freeNodes rise and the node bitmap covers them. When the
// header node's map record and the map nodes chained behind it hold too few
// bits, the first new node becomes a map node (kind 2, one record of
// nodeSize - 20 bitmap bytes), marked in use and linked from the last map
// node's fLink. Each change to an existing node is journaled first; on a
// failure the journal is written back, newest first, and the fork's growth
// is taken back, so the tree, the bitmap and the volume header are as they
// were. The new nodes' contents are left as they are: a claim initialises
// the node it takes.

#include <cstring>

#include "allocation.hpp"
#include "btree_internal.hpp"
#include "fork.hpp"
#include "volume.hpp"

using namespace morv_bt;

namespace morv_bt {
namespace {

constexpr size_t kMapNodeNonMapBytes = 20;  // descriptor, two offsets, two spare bytes

// One part of the node bitmap: `length` bytes at `first` in node `node`,
// holding the bits from byte `earlier` of the whole bitmap on.
struct part {
  uint32_t node;
  uint16_t first;
  uint64_t length;
  uint64_t earlier;
};

// What the chain of map parts looks like, and the bytes the growth will change.
struct chain {
  uint8_t header_record[hr::kSize];
  uint32_t total_nodes;
  uint32_t last_node;       // the node whose fLink ends the chain (0: the header node)
  uint64_t capacity;        // nodes the bitmap has bits for
  bool own_bit_found;       // node totalNodes' bit lies in an existing part ...
  uint64_t own_bit_offset;  // ... at this fork offset,
  uint8_t own_bit_byte;     // ... in this byte.
};

// Checks one part: it marks no node past totalNodes.
[[nodiscard]] morv_err check_part(const uint8_t* node, const part& p, uint64_t node_offset,
                                  chain* c) {
  const uint64_t from = c->total_nodes > p.earlier * 8 ? c->total_nodes - p.earlier * 8 : 0;
  for (uint64_t i = from; i < p.length * 8; ++i) {
    const uint64_t n = p.earlier * 8 + i;
    const uint8_t byte = node[p.first + i / 8];
    if (n == c->total_nodes) {
      c->own_bit_found = true;
      c->own_bit_offset = node_offset + p.first + i / 8;
      c->own_bit_byte = byte;
    }
    if (n >= c->total_nodes && (byte & (0x80u >> (i % 8)))) {
      MORV_ERROR("Invalid node data: the node bitmap marks node %llu, past the last node (%lu).\n",
                 morv_ull(n), morv_ul(c->total_nodes));
      return MORV_ERR_CORRUPT;
    }
  }
  c->capacity = (p.earlier + p.length) * 8;
  return MORV_OK;
}

// Walks the header node and the map nodes behind it, bounded by totalNodes.
[[nodiscard]] morv_err walk_chain(morv_btree* tree, chain* c) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) {
    MORV_ERROR("Error while mapping B-tree header record.\n");
    return err;
  }
  memcpy(c->header_record, h.raw, hr::kSize);
  c->total_nodes = h.total_nodes();
  node_ref node;
  map_part mp{};
  if ((err = get_header_node(tree, h, &node, &mp))) return err;
  part p{0, mp.first, mp.length, 0};
  if ((err = check_part(node->bytes(), p, 0, c))) return err;
  c->last_node = 0;
  cycle_check cycle(0);
  for (uint32_t link = node->flink(); link != 0;) {
    if (!cycle.step(link)) {
      MORV_ERROR("Invalid node data: The map nodes loop back to node %lu.\n", morv_ul(link));
      return MORV_ERR_CORRUPT;
    }
    if ((err = get_map_node(tree, h, link, &node, &mp))) {
      MORV_ERROR("Error while mapping last map node's descriptor.\n");
      return err;
    }
    p = part{link, mp.first, mp.length, p.earlier + p.length};
    if ((err = check_part(node->bytes(), p, node_offset(tree, link), c))) return err;
    c->last_node = link;
    link = node->flink();
  }
  return MORV_OK;
}

// How the tree grows: nodes added, and whether a map node is needed.
struct plan {
  uint32_t blocks;
  uint32_t new_nodes;
  bool map_node;
};

[[nodiscard]] morv_err plan_growth(const morv_btree* tree, const chain& c, plan* out) {
  const uint16_t ns = tree->node_size;
  const uint64_t logical_size = *tree->fork->logical_size;
  const uint32_t blocks = load_be32(morv_fork_data(tree->fork) + forkdata::kClumpSize) / tree->fork->block_size;
  const uint64_t bytes = uint64_t{blocks} * tree->fork->block_size;
  if (bytes == 0 || bytes % ns != 0) {
    MORV_ERROR("Cannot expand B-tree: a clump of %llu bytes is not a whole number of %hu-byte "
               "nodes.\n",
               morv_ull(bytes), ns);
    return MORV_ERR_UNSUPPORTED;
  }
  if (logical_size != uint64_t{c.total_nodes} * ns || c.capacity < c.total_nodes) {
    MORV_ERROR("Invalid node data: %lu nodes do not match the tree file (%llu bytes) or its node "
               "bitmap (%llu bits).\n",
               morv_ul(c.total_nodes), morv_ull(logical_size), morv_ull(c.capacity));
    return MORV_ERR_CORRUPT;
  }
  const uint64_t new_total = c.total_nodes + bytes / ns;
  const bool map_node = c.capacity < new_total;
  const uint64_t map_bits = (uint64_t{ns} - kMapNodeNonMapBytes) * 8;
  if (new_total > UINT32_MAX || (map_node && c.capacity + map_bits < new_total)) {
    MORV_ERROR("Cannot expand B-tree to %llu nodes in one step.\n", morv_ull(new_total));
    return MORV_ERR_UNSUPPORTED;
  }
  *out = plan{blocks, static_cast<uint32_t>(bytes / ns), map_node};
  return MORV_OK;
}

// Old bytes of the existing nodes that the growth changes, put back newest
// first.
struct journal {
  struct entry {
    uint64_t offset;
    size_t length;
    uint8_t old[hr::kSize];
    const char* message;
  };
  entry entries[3];
  size_t count = 0;

  void add(uint64_t offset, const uint8_t* old, size_t length, const char* message) {
    entry& e = entries[count++];
    e.offset = offset;
    e.length = length;
    memcpy(e.old, old, length);
    e.message = message;
  }
};

void roll_back(morv_btree* tree, const journal& j) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  for (size_t i = j.count; i-- > 0;) {
    const journal::entry& e = j.entries[i];
    if (write_bytes(tree, e.offset, e.old, e.length) != MORV_OK)
      MORV_ERROR(e.message);
  }
#pragma GCC diagnostic pop
}

// Puts the nodes back, then the fork; the cause stays the result.
[[nodiscard]] morv_err undo(morv_btree* tree, morv_volume* volume, const journal& j,
                            const morv_fork_growth& fork_growth, morv_err err) {
  if (err == MORV_OK) {
    MORV_ERROR("Rollback requested with no error value. Setting dummy error.\n");
    err = MORV_ERR_GENERIC;
  }
  roll_back(tree, j);
  if (morv_fork_undo_growth(tree->fork, volume, &fork_growth) != MORV_OK)
    MORV_ERROR("Error while rolling back fork expansion.\n");
  return err;
}

// Writes a journaled change.
[[nodiscard]] morv_err change(morv_btree* tree, journal* j, uint64_t offset, const uint8_t* old,
                              const uint8_t* bytes, size_t length, const char* rollback_message) {
  j->add(offset, old, length, rollback_message);
  return write_bytes(tree, offset, bytes, length);
}

constexpr const char* kMapRollback = "Error while rolling back modifications to last map node.\n";

// Builds the new map node (node c.total_nodes) in `node`, which is node-sized.
[[nodiscard]] morv_err write_map_node(morv_btree* tree, const chain& c, uint8_t* node) {
  const uint16_t ns = tree->node_size;
  const uint64_t at = uint64_t{c.total_nodes} * ns;
  memset(node, 0, ns);
  node[nd::kKind] = static_cast<uint8_t>(nd::kKindMap);
  store_be16(node + nd::kNumRecords, 1);
  if (!c.own_bit_found) {  // its own bit is the first it holds, or later in it
    const uint64_t bit = c.total_nodes - c.capacity;
    node[nd::kFirstRecordOffset + bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8));
  }
  // A map node has no siblings and no height: bLink and height stay 0.
  if (morv_err err = write_bytes(tree, at, node, ns)) {
    MORV_ERROR("Error while writing out node descriptor of claimed node.\n");
    return err;
  }
  uint8_t entry[nd::kOffsetEntrySize];
  store_be16(entry, static_cast<uint16_t>(nd::kFirstRecordOffset + ns - kMapNodeNonMapBytes));
  if (morv_err err = write_bytes(tree, at + ns - 2 * nd::kOffsetEntrySize, entry, 2)) {
    MORV_ERROR("Error while writing out modified free space pointer.\n");
    return err;
  }
  store_be16(entry, nd::kFirstRecordOffset);
  if (morv_err err = write_bytes(tree, at + ns - nd::kOffsetEntrySize, entry, 2)) {
    MORV_ERROR("Error while writing out modified last record pointer.\n");
    return err;
  }
  return MORV_OK;
}

// Chains a new map node behind the last one and marks it in use.
[[nodiscard]] morv_err add_map_node(morv_btree* tree, const chain& c, uint8_t* node, journal* j) {
  if (c.own_bit_found) {
    const uint8_t bit = static_cast<uint8_t>(0x80u >> (c.total_nodes % 8));
    const uint8_t byte = c.own_bit_byte | bit;
    if (morv_err err = change(tree, j, c.own_bit_offset, &c.own_bit_byte, &byte, 1, kMapRollback)) {
      MORV_ERROR("Error while writing out modified last map node.\n");
      return err;
    }
  }
  const uint8_t old_link[4] = {0, 0, 0, 0};  // the last node's fLink is 0
  uint8_t link[4];
  store_be32(link, c.total_nodes);
  if (morv_err err = change(tree, j, uint64_t{c.last_node} * tree->node_size + nd::kFLink, old_link,
                            link, sizeof link, kMapRollback)) {
    MORV_ERROR("Error while writing out modified last map node.\n");
    return err;
  }
  return write_map_node(tree, c, node);
}

// Everything after the fork has grown; the journal records what to undo.
// The header record goes first and the new node last, so that a failure
// in the new part of the file (its first cache item) finds the old nodes
// changed and puts them back.
[[nodiscard]] morv_err grow_nodes(morv_btree* tree, const chain& c, const plan& p, uint8_t* node,
                                  journal* j) {
  uint8_t header[hr::kSize];
  memcpy(header, c.header_record, sizeof header);
  store_be32(header + hr::kTotalNodes, c.total_nodes + p.new_nodes);
  store_be32(header + hr::kFreeNodes, load_be32(header + hr::kFreeNodes) + p.new_nodes - (p.map_node ? 1 : 0));
  if (morv_err err = change(tree, j, hr::kForkOffset, c.header_record, header, sizeof header,
                            "Error while reverting B-tree header record modifications.\n")) {
    MORV_ERROR("Error while writing back modified tree header record.\n");
    return err;
  }
  return p.map_node ? add_map_node(tree, c, node, j) : MORV_OK;
}

[[nodiscard]] morv_err expand_locked(morv_btree* tree, morv_volume* volume) {
  // A transaction puts back only nodes: it cannot take a growth of the file
  // back, so a tree grows between changes, never inside one.
  if (tree->priv->txn.depth) {
    MORV_ERROR("Cannot expand a B-tree inside a transaction.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv::buffer<uint8_t> node(static_cast<uint8_t*>(morv_malloc(tree->node_size)));
  if (!node) {
    MORV_ERROR("Error while allocating new map node.\n");
    return MORV_ERR_NO_MEMORY;
  }
  chain c{};
  if (morv_err err = walk_chain(tree, &c)) return err;
  plan p{};
  if (morv_err err = plan_growth(tree, c, &p)) return err;
  morv_fork_growth fork_growth{};
  uint32_t added = 0;
  morv_err err = morv_fork_expand_recorded(tree->fork, volume, &added, &fork_growth);
  if (err) {
    MORV_ERROR("Error while expanding fork.\n");
    return err;
  }
  journal j;
  if (added != p.blocks) {
    MORV_CRITICAL("Internal error: the fork grew by %lu blocks instead of %lu.\n", morv_ul(added),
                  morv_ul(p.blocks));
    err = MORV_ERR_INTERNAL;
  } else {
    err = grow_nodes(tree, c, p, node.get(), &j);
  }
  if (err == MORV_OK) return MORV_OK;
  return undo(tree, volume, j, fork_growth, err);
}

}  // namespace
}  // namespace morv_bt

morv_err morv_btree_expand(morv_btree* tree, morv_volume* volume) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  if (morv_err err = lock.lock_write()) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  return lock.finish(expand_locked(tree, volume));
}
