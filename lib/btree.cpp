// SPDX-License-Identifier: MIT
// HFS+ B-tree engine.
//
// On-disk format. A B-tree file is an array of `nodeSize`-byte nodes; node N
// lies at fork byte N x nodeSize. Every node starts with a 14-byte descriptor
//
//   0 fLink u32 | 4 bLink u32 | 8 kind s8 | 9 height u8 | 10 numRecords u16 | 12 reserved u16
//
// (kind -1 leaf, 0 index, 1 header, 2 map; leaves are at height 1) and ends
// with an array of u16 record offsets that grows backwards from the node's
// end: record i's offset is stored at nodeSize - 2(i+1), and the entry at
// index numRecords is the offset of the node's free space.
//
//   +------------+----------+----------+-- free --+------+------+------+
//   | descriptor | record 0 | record 1 |          | free | off1 | off0 |
//   +------------+----------+----------+----------+------+------+------+
//   0            14
//
// Record 0 begins at 14 and offsets increase with the index. A record is a
// big key (u16 keyLength, then keyLength bytes), one zero pad byte when the
// key's size is odd, the data, one zero pad byte when the data size is odd.
// An index record's data is the u32 number of its child node.
//
// Node 0 is the header node: kind 1, three records: the 106-byte header
// record (BTHeaderRec) at 14, a 128-byte user record, and the map record, the
// first part of the node allocation bitmap (nodeSize - 256 bytes). Further
// bitmap parts live in map nodes (kind 2, one record) chained from the header
// node's fLink. Node N is bit 7 - N%8 of bitmap byte N/8; set means in use.
//
// Invariants the engine keeps: records of a node are in key order; every
// index record carries the first key of its child; nodes of one level are
// chained in key order through fLink/bLink, the leaves from firstLeafNode to
// lastLeafNode; the root has height treeDepth and each child one less;
// leafRecords counts the leaf records; freeNodes counts the clear bits of the
// bitmap; no node of the tree is empty (a node emptied by deletions is
// unlinked and freed, and an emptied root leaves the tree without a root,
// rootNode 0). The root never splits, so a tree never deepens.
//
// Trust. Every node enters through one check when it is read (kind against
// height and the level expected, record offsets even, ascending and inside
// the node, keys inside their records, children and sibling links inside the
// tree), and every walk is bounded: a descent by treeDepth, sibling and map
// node chains by totalNodes and a cycle check. The header's totalNodes may
// not exceed what the tree's file holds. Damaged trees end an operation with
// MORV_ERR_CORRUPT rather than a loop or a stray access.
//
// Changes. Insertion and deletion edit one node through two primitives,
// insert record and remove records, which also shift the open locators of
// the node; a node that overflows is split, and what the level above must
// learn (a new first key, the index records of new nodes) becomes the next
// level's edit. Every write goes through the tree's transaction, which keeps
// each touched node's original bytes the first time it is written and puts
// them back, with the open locators' places, when the change fails. Two
// adjustments wait for the end of the transaction: an index record whose
// child's first key grew, and the removal of an emptied node. Until then the
// old key still leads every search to the right child (it is not greater
// than anything below it), and a change made of several operations (a
// rename: delete, then insert) never passes through a tree larger than the
// one it ends with.
//
// Files. btree_node.* nodes, their check and the cache of checked nodes, the
// header record and the one write path; btree_cursor.* search and
// iteration; btree_locator.cpp record locators; btree_alloc.cpp the node
// bitmap; btree_insert.cpp edits, insertion and splitting; btree_delete.cpp
// deletion and what waits for the end of a transaction; btree_journal.cpp
// the undo journal; btree_grow.cpp tree growth; this file opening and
// closing a tree.
#include "btree.hpp"

#include <cstring>

#include "btree_internal.hpp"
#include "device_unix.hpp"
#include "fork.hpp"

using namespace morv_bt;

namespace {

const char* kind_name(uint32_t kind) {
  switch (kind) {
    case kBtreeKindCatalog: return "catalog";
    case kBtreeKindExtents: return "extents overflow";
    case kBtreeKindAttributes: return "attributes";
    default: return "unknown";
  }
}

size_t fork_data_offset(uint32_t kind) {
  switch (kind) {
    case kBtreeKindExtents: return vh::kExtentsFile;
    case kBtreeKindCatalog: return vh::kCatalogFile;
    case kBtreeKindAttributes: return vh::kAttributesFile;
    default: return 0;
  }
}

// Reads nodeSize from the sectors that cover the first 120 bytes of node 0.
[[nodiscard]] morv_err read_node_size(morv_device* device, const uint8_t* volume_header,
                                      const uint8_t* fork_data, uint16_t* out_node_size) {
  const uint32_t block_size = load_be32(volume_header + vh::kBlockSize);
  const uint32_t start_block =
      load_be32(fork_data + forkdata::kExtents + forkdata::kExtentStartBlock);
  const uint64_t offset = uint64_t{block_size} * start_block;
  const uint32_t sector_size = device->sector_size;
  const uint64_t first_sector = offset / sector_size;
  const uint64_t in_sector = offset % sector_size;
  const uint64_t count = (offset + sector_size + (hr::kNodeStartBytes - 1)) / sector_size - first_sector;
  void* buffer = nullptr;
  morv_err err = morv_device_read_disk_sectors(device, first_sector, static_cast<uint32_t>(count),
                                               &buffer);
  if (err) {
    MORV_ERROR("Error while reading first sector%s of B-tree.\n", count >= 2 ? "s" : "");
    return err;
  }
  const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
  *out_node_size = load_be16(bytes + in_sector + hr::kForkOffset + hr::kNodeSize);
  free(buffer);
  return MORV_OK;
}

}  // namespace

morv_err morv_btree_process(uint8_t* volume_header, uint32_t kind, morv_device* device,
                            morv_extents* extents, int extents_tree_flag, morv_fork** out_fork,
                            uint16_t* out_node_size, uint16_t* out_max_key_length) {
  const size_t fd_offset = fork_data_offset(kind);
  if (fd_offset == 0) return MORV_ERR_INVALID_ARGUMENT;
  uint8_t* fork_data = volume_header + fd_offset;
  uint16_t node_size = 0;
  morv_err err = read_node_size(device, volume_header, fork_data, &node_size);
  if (err) return err;
  morv_fork* fork = nullptr;
  err = morv_fork_create(device, extents, extents_tree_flag, volume_header, kind, fork_data,
                         node_size, &fork);
  if (err) {
    MORV_ERROR("Error while creating morv_fork.\n");
    return err;
  }
  uint16_t max_key_length = 0;
  err = check_header_node(fork, &node_size, &max_key_length);
  if (err) {
    morv_fork_destroy(&fork);
    return err;
  }
  *out_fork = fork;
  *out_node_size = node_size;
  *out_max_key_length = max_key_length;
  return MORV_OK;
}

morv_err morv_btree_create(morv_device* device, morv_extents* extents, int extents_tree_flag,
                           uint8_t* volume_header, uint32_t kind,
                           morv_btree_compare_keys_fn compare_keys, morv_btree** out_tree) {
  morv::buffer<morv_btree> tree(static_cast<morv_btree*>(morv_calloc(1, sizeof(morv_btree))));
  if (!tree) {
    MORV_ERROR("Error while allocating %llu bytes for morv_btree.\n", morv_ull(sizeof(morv_btree)));
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<morv_btree_private> priv(
      static_cast<morv_btree_private*>(morv_calloc(1, sizeof(morv_btree_private))));
  if (!priv) {
    MORV_ERROR("Error while allocating %llu bytes for morv_btree_private.\n",
               morv_ull(sizeof(morv_btree_private)));
    return MORV_ERR_NO_MEMORY;
  }
  morv_rwlock* lock = nullptr;
  morv_err err = morv_rwlock_create(&lock);
  if (err) {
    MORV_ERROR("Error while creating open locators list lock.\n");
    return err;
  }
  morv_fork* fork = nullptr;
  uint16_t node_size = 0;
  uint16_t max_key_length = 0;
  err = morv_btree_process(volume_header, kind, device, extents, extents_tree_flag, &fork,
                           &node_size, &max_key_length);
  if (err) {
    MORV_ERROR("Error while reading %s B-Tree into memory.\n", kind_name(kind));
    if (morv_rwlock_destroy(&lock)) {
      MORV_ERROR("Error while destroying B-tree open locators list lock on cleanup.\n");
    }
    return err;
  }
  priv[0] = morv_btree_private{kind, compare_keys, nullptr, lock, transaction{}, node_cache{}};
  tree[0] = morv_btree{fork, node_size, max_key_length, priv.release()};
  *out_tree = tree.release();
  return MORV_OK;
}

void morv_btree_destroy(morv_btree** tree_place) {
  if (!tree_place || !*tree_place) return;
  morv_btree* tree = *tree_place;
  morv_btree_private* priv = tree->priv;
  if (morv_rwlock_lock_write(priv->open_locators_lock)) {
    MORV_ERROR("Error while acquiring open locators list lock! Leaking open locators on morv_btree "
               "destruction...\n");
  } else {
    uint64_t closed = 0;
    while (priv->open_locators) {
      morv_btree_record_locator* head = priv->open_locators;
      morv_btree_record_locator* victim = head;
      morv_btree_record_locator_close_locked(&victim, 1);
      ++closed;
      if (priv->open_locators == head) {
        MORV_CRITICAL("Internal error: Closing head of B-tree open locators list did not change "
                      "the head!\n");
        break;
      }
    }
    if (closed) {
      MORV_WARNING("Cleaned up %llu leaked B-tree record locators on destroy.\n", morv_ull(closed));
    }
    if (morv_rwlock_unlock(priv->open_locators_lock)) {
      MORV_ERROR("Error while unlocking B-tree open locators list lock.\n");
    }
  }
  if (morv_rwlock_destroy(&priv->open_locators_lock)) {
    MORV_ERROR("Error while destroying B-tree open locators list lock. Leaking...\n");
  }
  discard_journal(&priv->txn);
  morv_free(priv->txn.saved);
  morv_free(priv->txn.pending);
  node_cache_destroy(&priv->cache);
  morv_fork_destroy(&tree->fork);
  memset(priv, 0, sizeof *priv);
  morv_free(priv);
  memset(tree, 0, sizeof *tree);
  morv_free(tree);
  *tree_place = nullptr;
}

void ReadAttrNode(const uint8_t* node, uint16_t node_size) {
  constexpr size_t kAttrNameLength = 12;
  constexpr size_t kAttrName = 14;
  constexpr uint32_t kAttrInlineData = 16;
  const auto offset_entry = [node, node_size](size_t i) {
    return load_be16(node + node_size - nd::kOffsetEntrySize * (i + 1));
  };
  const int8_t kind = static_cast<int8_t>(node[nd::kKind]);
  if (kind == nd::kKindHeader || kind == nd::kKindMap) return;
  if (kind == nd::kKindLeaf && node[nd::kHeight] != 1) {
    MORV_ERROR("HFSPlus:WARNING:%s: Leaf node height is not 1!\n", __func__);
  }
  const uint16_t first = offset_entry(0);
  if (first != nd::kFirstRecordOffset) {
    MORV_ERROR("HFSPlus:%s: Offset of record is %hd, and not 14!\n", __func__,
               static_cast<short>(first));
    return;
  }
  const uint16_t count = load_be16(node + nd::kNumRecords);
  for (uint16_t i = 0; i < count && nd::kOffsetEntrySize * (i + 1u) < node_size; ++i) {
    const uint16_t off = offset_entry(i);
    if (off + kAttrName > node_size) return;
    const size_t type_at = off + kAttrName + 2u * load_be16(node + off + kAttrNameLength);
    if (type_at + 4 > node_size) return;
    const uint32_t type = load_be32(node + type_at);
    if (type != kAttrInlineData) {
      MORV_ERROR("HFSPlus:ERROR:%s: Unknown Attr Type: %X\n", __func__, type);
    }
  }
}
