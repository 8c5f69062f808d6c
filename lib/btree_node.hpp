// SPDX-License-Identifier: MIT
// B-tree nodes: the on-disk node format, the one check every node passes
// before the engine reads it, and the per-tree cache of checked nodes.
// Internal to the B-tree engine (lib/btree*.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

#include "btree.hpp"
#include "support_unix.hpp"

namespace morv_bt {

namespace nd {
constexpr size_t kDescriptorSize = 14;
constexpr size_t kFLink = 0;
constexpr size_t kBLink = 4;
constexpr size_t kKind = 8;
constexpr size_t kHeight = 9;
constexpr size_t kNumRecords = 10;
constexpr int8_t kKindLeaf = -1;
constexpr int8_t kKindIndex = 0;
constexpr int8_t kKindHeader = 1;
constexpr int8_t kKindMap = 2;
constexpr uint8_t kLeafHeight = 1;
constexpr uint16_t kFirstRecordOffset = 14;
constexpr uint16_t kHeaderNodeRecords = 3;
constexpr uint16_t kMapNodeRecords = 1;
constexpr uint16_t kMapRecordIndex = 2;         // the header node's bitmap record
constexpr size_t kHeaderNodeNonMapBytes = 256;  // descriptor, header and user records, offsets
constexpr size_t kIndexDataSize = 4;            // child node number
constexpr size_t kOffsetEntrySize = 2;
// A record of R bytes fits in an empty node when R + kRecordOverhead <= nodeSize:
// the descriptor and two offset entries (the record's and the free space's).
constexpr size_t kRecordOverhead = kDescriptorSize + 2 * kOffsetEntrySize;
}  // namespace nd

namespace hr {  // BTHeaderRec, relative to the record (at fork byte 14)
constexpr uint64_t kForkOffset = 14;
constexpr size_t kSize = 106;
constexpr size_t kTreeDepth = 0;
constexpr size_t kRootNode = 2;
constexpr size_t kLeafRecords = 6;
constexpr size_t kFirstLeafNode = 10;
constexpr size_t kLastLeafNode = 14;
constexpr size_t kNodeSize = 18;
constexpr size_t kMaxKeyLength = 20;
constexpr size_t kTotalNodes = 22;
constexpr size_t kFreeNodes = 26;
constexpr size_t kBtreeType = 36;
constexpr size_t kKeyCompareType = 37;
constexpr size_t kAttributes = 38;
constexpr uint8_t kHfsBtreeType = 0;
constexpr uint32_t kBigKeysMask = 0x2;
constexpr size_t kNodeStartBytes = 120;  // descriptor + header record of node 0
}  // namespace hr

constexpr uint16_t kMinNodeSize = 512;
constexpr uint16_t kMaxNodeSize = 32768;
// The longest key of any HFS+ tree (a catalog key: keyLength 516) and its
// length field. Keys read from nodes are checked against it.
constexpr uint16_t kMaxKeyLength = 516;
constexpr size_t kMaxKeySize = kMaxKeyLength + 2;
constexpr size_t kMaxIndexRecordSize = kMaxKeySize + nd::kIndexDataSize;
// Far deeper than any real tree: with two children per index node, 2^63
// leaves. treeDepth beyond it is damage.
constexpr uint16_t kMaxTreeDepth = 64;
// Checked nodes a tree keeps: a descent's path and the nodes an edit reads
// beside it.
constexpr size_t kCacheSlots = 8;

inline size_t padded(size_t size) { return size + (size & 1); }
inline uint64_t node_offset(const morv_btree* tree, uint32_t node) {
  return uint64_t{node} * tree->node_size;
}

// The header record, decoded from node 0.
struct tree_header {
  uint8_t raw[hr::kSize];
  uint16_t depth() const { return load_be16(raw + hr::kTreeDepth); }
  uint32_t root() const { return load_be32(raw + hr::kRootNode); }
  uint32_t leaf_records() const { return load_be32(raw + hr::kLeafRecords); }
  uint32_t first_leaf() const { return load_be32(raw + hr::kFirstLeafNode); }
  uint32_t last_leaf() const { return load_be32(raw + hr::kLastLeafNode); }
  uint32_t total_nodes() const { return load_be32(raw + hr::kTotalNodes); }
  uint32_t free_nodes() const { return load_be32(raw + hr::kFreeNodes); }
  uint8_t compare_type() const { return raw[hr::kKeyCompareType]; }
  void set(size_t field, uint32_t value) { store_be32(raw + field, value); }
  void set_depth(uint16_t depth) { store_be16(raw + hr::kTreeDepth, depth); }
};

// A node that passed its check. Every accessor stays inside the node: the
// check made sure of the offsets, keys and children it reads.
class checked_node {
 public:
  checked_node() = default;
  checked_node(const uint8_t* bytes, uint32_t number, uint16_t node_size)
      : bytes_(bytes), number_(number), ns_(node_size) {}
  uint32_t number() const { return number_; }
  int8_t kind() const { return static_cast<int8_t>(bytes_[nd::kKind]); }
  uint8_t height() const { return bytes_[nd::kHeight]; }
  uint16_t count() const { return load_be16(bytes_ + nd::kNumRecords); }
  uint32_t flink() const { return load_be32(bytes_ + nd::kFLink); }
  uint32_t blink() const { return load_be32(bytes_ + nd::kBLink); }
  bool is_leaf() const { return kind() == nd::kKindLeaf; }
  // Record i's offset; i == count() is the free space's.
  uint16_t offset(size_t i) const {
    return load_be16(bytes_ + ns_ - nd::kOffsetEntrySize * (i + 1));
  }
  const uint8_t* record(size_t i) const { return bytes_ + offset(i); }
  size_t record_size(size_t i) const { return size_t{offset(i + 1)} - offset(i); }
  // The key of record i (its keyLength field) and its size without padding.
  const uint8_t* key(size_t i) const { return record(i); }
  size_t key_size(size_t i) const { return size_t{load_be16(record(i))} + 2; }
  uint32_t child(size_t i) const { return load_be32(record(i) + padded(key_size(i))); }
  // Bytes free for records and their offset entries.
  size_t free_room() const {
    return ns_ - offset(count()) - nd::kOffsetEntrySize * (count() + 1u);
  }
  const uint8_t* bytes() const { return bytes_; }
  uint16_t node_size() const { return ns_; }

 private:
  const uint8_t* bytes_ = nullptr;
  uint32_t number_ = 0;
  uint16_t ns_ = 0;
};

// A checked node of the tree's cache, held in place while the reference
// lives: nothing evicts a slot that is referenced.
class node_ref {
 public:
  node_ref() = default;
  node_ref(const node_ref&) = delete;
  node_ref& operator=(const node_ref&) = delete;
  ~node_ref() { release(); }
  void release();
  const checked_node* operator->() const { return &node_; }
  const checked_node& operator*() const { return node_; }
  explicit operator bool() const { return slot_ != nullptr; }

 private:
  friend struct node_access;
  checked_node node_;
  struct node_slot* slot_ = nullptr;
};

// One slot of the cache: a private copy of a node's bytes as checked. Copies,
// not pointers into the fork's cache, so that nothing the fork does (evict,
// re-read, remap) changes bytes the engine has checked.
struct node_slot {
  uint8_t* bytes;
  uint32_t number;
  uint32_t pins;
  uint64_t used;    // clock of the last use, for eviction
  uint8_t form;     // what the bytes were checked as (node_form)
  bool valid;
  uint16_t first;   // map parts: the bitmap's offset in the node ...
  uint32_t length;  // ... and its bytes
};

struct node_cache {
  node_slot slots[kCacheSlots];
  uint64_t clock;
  // What the copies were taken from: the fork's write count and size. A
  // write around the engine, a growth or a cut of the file drops them all.
  uint64_t fork_writes;
  uint64_t fork_size;
  tree_header header;
  bool header_loaded;
};

void node_cache_destroy(node_cache* cache);

// ---- the one way in ----

// Node `number` as a leaf or index node at `height` (0: at the height it
// has), checked against the header `h`: kind against height, record offsets
// even, ascending and inside the node, keys inside their records and no
// longer than any HFS+ key, children and sibling links inside the tree.
[[nodiscard]] morv_err get_node(morv_btree* tree, const tree_header& h, uint32_t number,
                                uint8_t height, node_ref* out);

// A part of the node bitmap: `length` bytes at offset `first` of its node.
struct map_part {
  uint16_t first;
  uint32_t length;
};

// The header node (node 0) and its map record, checked: kind 1, three
// records, the map record inside the node.
[[nodiscard]] morv_err get_header_node(morv_btree* tree, const tree_header& h, node_ref* out,
                                       map_part* part);
// Map node `number`, checked: kind 2, one record, fLink inside the tree, a
// map record that lies inside the node and is not empty.
[[nodiscard]] morv_err get_map_node(morv_btree* tree, const tree_header& h, uint32_t number,
                                    node_ref* out, map_part* part);

// The header record, decoded once and kept; checked against the tree's file
// each time it is handed out.
[[nodiscard]] morv_err read_tree_header(morv_btree* tree, tree_header* h);
// The one writer of the header record (through the undo journal).
[[nodiscard]] morv_err write_tree_header(morv_btree* tree, const tree_header& h);
// The header node's descriptor and header record checked at open, before the
// tree object exists.
[[nodiscard]] morv_err check_header_node(morv_fork* fork, uint16_t* out_node_size,
                                         uint16_t* out_max_key_length);

// The one write path: every change of the tree's file goes through here, the
// undo journal's restores and tree growth included. It drops the cached
// copies of the nodes it touches and keeps the decoded header in step.
[[nodiscard]] morv_err write_bytes(morv_btree* tree, uint64_t offset, const void* data,
                                   size_t length);

// ---- node copies to edit ----

// A private, checked copy of one node, changed by the edit primitives and
// written back whole.
struct node_copy {
  uint32_t number = 0;
  morv::buffer<uint8_t> bytes;
  uint8_t* get() const { return bytes.get(); }
  checked_node view(uint16_t node_size) const { return checked_node(bytes.get(), number, node_size); }
};

[[nodiscard]] morv_err read_node(morv_btree* tree, const tree_header& h, uint32_t number,
                                 uint8_t height, node_copy* out);
// An empty node of `kind` and `height` numbered `number`, to be filled.
[[nodiscard]] morv_err new_node(morv_btree* tree, uint32_t number, int8_t kind, uint8_t height,
                                node_copy* out);
[[nodiscard]] morv_err write_node(morv_btree* tree, const node_copy& node);

// The edit primitives. Puts a record of `size` bytes at index `i` of `node`,
// which has room for it and its offset entry; the records behind move up, and
// so do their open locators.
void insert_record(morv_btree* tree, node_copy* node, uint16_t i, const uint8_t* record,
                   size_t size);
// Takes `count` records out of `node` from index `i`; the records behind move
// down, and so do their open locators. The bytes left behind are zeroed.
void remove_records(morv_btree* tree, node_copy* node, uint16_t i, uint16_t count);
void set_link(node_copy* node, size_t field, uint32_t value);

}  // namespace morv_bt
