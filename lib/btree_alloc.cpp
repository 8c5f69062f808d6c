// SPDX-License-Identifier: MIT
// Node allocation: the node bitmap, claims and frees.
//
// One bit per node says whether the node is in use: node N is bit 7 - N%8 of
// bitmap byte N/8 (the most significant bit is the lowest node). The bitmap
// begins in the header node's map record (record 2, nodeSize - 256 bytes)
// and goes on in map nodes (kind 2, one record) chained from the header
// node's fLink; a byte's place in a part is its index less the bytes of the
// parts before it. freeNodes in the header record counts the clear bits.
//
// A claim takes the lowest free node from node 1 on (node 0 is the header
// node), lowers freeNodes and sets the bit; a free does the opposite. Both
// are writes of the current transaction. The walk over the parts checks
// each node (one rule for the header node, one for map nodes) before any of
// its bits is trusted, and is bounded by totalNodes and a cycle check. A
// bitmap that calls a node free which the tree uses is damage: before a node
// is claimed, the index levels and the map chain are searched for it, so
// that a damaged bitmap cannot make a change overwrite a live node.
#include "btree_cursor.hpp"
#include "btree_internal.hpp"

using namespace morv_bt;

namespace morv_bt {
namespace {

// A walk over the parts of the node bitmap.
class bitmap_walk {
 public:
  bitmap_walk(morv_btree* tree, const tree_header& h) : tree_(tree), h_(h), cycle_(0) {}

  // The header node's map record.
  [[nodiscard]] morv_err start() {
    map_part p{};
    morv_err err = get_header_node(tree_, h_, &node_, &p);
    if (err) return err;
    first_ = p.first;
    length_ = p.length;
    node_number_ = 0;
    earlier_ = 0;
    return MORV_OK;
  }

  // Moves on to the next map node.
  [[nodiscard]] morv_err next() {
    const uint64_t covered = earlier_ + length_;
    const uint32_t link = node_->flink();
    if (link == 0) {
      MORV_ERROR("Missing map node after node %lu (%lu bytes of node bitmap data missing).\n",
                 morv_ul(node_number_),
                 morv_ul(static_cast<uint32_t>((h_.total_nodes() + 7ull) / 8 - covered)));
      return MORV_ERR_CORRUPT;
    }
    if (!cycle_.step(link)) {
      MORV_ERROR("Invalid node data: The map nodes loop back to node %lu.\n", morv_ul(link));
      return MORV_ERR_CORRUPT;
    }
    map_part p{};
    morv_err err = get_map_node(tree_, h_, link, &node_, &p);
    if (err) return err;
    node_number_ = link;
    first_ = p.first;
    length_ = p.length;
    earlier_ = covered;
    return MORV_OK;
  }

  // Makes the part that holds bitmap byte `byte` current.
  [[nodiscard]] morv_err reach(uint64_t byte) {
    while (byte >= earlier_ + length_) {
      morv_err err = next();
      if (err) return err;
    }
    return MORV_OK;
  }

  uint8_t byte_at(uint64_t byte) const { return node_->bytes()[first_ + (byte - earlier_)]; }
  // The fork offset of bitmap byte `byte` of the current part.
  uint64_t fork_offset(uint64_t byte) const {
    return node_offset(tree_, node_number_) + first_ + (byte - earlier_);
  }

 private:
  morv_btree* tree_;
  const tree_header& h_;
  cycle_check cycle_;
  node_ref node_;             // the node holding the current part
  uint32_t node_number_ = 0;  // (0: the header node)
  uint16_t first_ = 0;        // the part's offset in its node
  uint64_t length_ = 0;       // the part's bytes
  uint64_t earlier_ = 0;      // bitmap bytes in the parts before it
};

// Sets or clears node `number`'s bit (which must be the other way) and
// moves freeNodes with it.
[[nodiscard]] morv_err write_node_bit(morv_btree* tree, tree_header* h, bitmap_walk* walk,
                                      uint32_t number, bool in_use) {
  const uint64_t byte = number / 8;
  const uint8_t mask = static_cast<uint8_t>(0x80u >> (number % 8));
  const uint8_t old = walk->byte_at(byte);
  if (static_cast<bool>(old & mask) == in_use) {
    if (in_use)
      MORV_CRITICAL("Internal error: Node is already allocated!\n");
    else
      MORV_CRITICAL("Internal error: Node %lu is already free.\n", morv_ul(number));
    return MORV_ERR_INTERNAL;
  }
  h->set(hr::kFreeNodes, h->free_nodes() + (in_use ? uint32_t{0xFFFFFFFF} : 1u));
  morv_err err = write_tree_header(tree, *h);
  if (err) {
    if (in_use)
      MORV_ERROR("Error while writing out modified tree header record after claiming node.\n");
    else
      MORV_ERROR("Error while writing out modified tree header record after freeing node.\n");
    return err;
  }
  const uint8_t updated = static_cast<uint8_t>(in_use ? old | mask : old & ~mask);
  if ((err = tree_write(tree, walk->fork_offset(byte), &updated, 1))) {
    if (in_use)
      MORV_ERROR("Error while writing out modified bitmap byte after claiming node.\n");
    else
      MORV_ERROR("Error while writing out modified bitmap byte after freeing node.\n");
  }
  return err;
}

// Whether node `n`, which the bitmap calls free, is all the same part of the
// tree: the root, the child of an index record, or a map node. Only index
// nodes and map nodes are read (leaves point at no node), each level along
// fLink from its leftmost node, bounded and checked for cycles.
[[nodiscard]] morv_err check_unused(morv_btree* tree, const tree_header& h, uint32_t n) {
  bool used = n == h.root();
  uint32_t leftmost = h.root();
  for (uint16_t height = h.depth(); !used && height > nd::kLeafHeight; --height) {
    cycle_check cycle(leftmost);
    uint32_t number = leftmost;
    for (uint64_t hops = 0; number != 0 && !used; ++hops) {
      node_ref node;
      morv_err err = get_node(tree, h, number, static_cast<uint8_t>(height), &node);
      if (err) return err;
      const uint16_t count = node->count();
      if (count == 0) {
        MORV_ERROR("Invalid node data: Index node %lu holds no records.\n", morv_ul(number));
        return MORV_ERR_CORRUPT;
      }
      if (hops == 0) leftmost = node->child(0);
      for (uint16_t i = 0; i < count; ++i) used = used || node->child(i) == n;
      number = node->flink();
      if (number != 0 && (hops >= h.total_nodes() || !cycle.step(number))) {
        MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
        return MORV_ERR_CORRUPT;
      }
    }
  }
  node_ref node;
  map_part part{};
  morv_err err = get_header_node(tree, h, &node, &part);
  if (err) return err;
  cycle_check cycle(0);
  for (uint32_t map = node->flink(); map != 0 && !used;) {
    used = map == n;
    if (!cycle.step(map)) {
      MORV_ERROR("Invalid node data: The map nodes loop back to node %lu.\n", morv_ul(map));
      return MORV_ERR_CORRUPT;
    }
    if ((err = get_map_node(tree, h, map, &node, &part))) return err;
    map = node->flink();
  }
  if (!used) return MORV_OK;
  MORV_ERROR("Invalid node data: The node bitmap marks node %lu free, but it is in use.\n",
             morv_ul(n));
  return MORV_ERR_CORRUPT;
}

}  // namespace

// The lowest free node from node 1 on, marked in use.
morv_err claim(morv_btree* tree, uint32_t* out_node) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  bitmap_walk walk(tree, h);
  if ((err = walk.start())) return err;
  const uint32_t total = h.total_nodes();
  for (uint64_t byte = 0; byte * 8 < total; ++byte) {
    if ((err = walk.reach(byte))) return err;
    const uint8_t bits = walk.byte_at(byte);
    if (bits == 0xFF) continue;
    for (uint32_t b = 0; b < 8; ++b) {
      const uint64_t n = byte * 8 + b;
      if (n == 0 || n >= total || (bits & (0x80u >> b))) continue;
      if (h.free_nodes() == 0) {
        MORV_ERROR("Invalid B-tree header record: no free node counted, but node %lu is free.\n",
                   morv_ul(static_cast<uint32_t>(n)));
        return MORV_ERR_CORRUPT;
      }
      if ((err = check_unused(tree, h, static_cast<uint32_t>(n))) ||
          (err = write_node_bit(tree, &h, &walk, static_cast<uint32_t>(n), true)))
        return err;
      *out_node = static_cast<uint32_t>(n);
      return MORV_OK;
    }
  }
  MORV_ERROR("Need to expand B-tree, but this is not yet implemented.\n");
  return MORV_ERR_UNSUPPORTED;
}

// Gives node `number` back to the bitmap.
morv_err free_node(morv_btree* tree, uint32_t number) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  bitmap_walk walk(tree, h);
  if ((err = walk.start()) || (err = walk.reach(number / 8))) return err;
  return write_node_bit(tree, &h, &walk, number, false);
}

}  // namespace morv_bt

morv_err morv_btree_claim_node(morv_btree* tree, uint32_t* out_node_number) {
  txn_begin(tree);
  uint32_t node = 0;
  const morv_err err = txn_end(tree, claim(tree, &node));
  if (err) return err;
  *out_node_number = node;
  return MORV_OK;
}
