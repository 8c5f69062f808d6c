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
// Trust. Every node enters through one check where it is read (kind against
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
#include "btree.hpp"

#include <cstring>
#include <new>

#include "allocation.hpp"
#include "device_unix.hpp"
#include "fork.hpp"
#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "btree";

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

constexpr char kLocatorTag[8] = {'m', 'o', 'r', 'v', 'b', 'r', 'l', 'a'};
// What the client-facing changes say when their lock cannot be released.
constexpr const char* kReleaseFailed =
    "Error while releasing write lock for open locators list. Will probably crash now...\n";
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

}  // namespace

struct morv_btree_private {
  uint32_t kind;
  morv_btree_compare_keys_fn compare_keys;
  morv_btree_record_locator* open_locators;
  morv_rwlock* open_locators_lock;
  transaction txn;
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

namespace {

// One allocation per locator: tag, size, public and private parts, then the
// record copy.
struct locator_block {
  char tag[8];
  size_t allocation_size;
  morv_btree_record_locator pub;
  morv_btree_record_locator_private priv;
};

// ---- node field access ----

uint16_t offset_entry(const uint8_t* node, uint16_t node_size, size_t index) {
  return load_be16(node + node_size - nd::kOffsetEntrySize * (index + 1));
}
void set_offset_entry(uint8_t* node, uint16_t node_size, size_t index, uint16_t value) {
  store_be16(node + node_size - nd::kOffsetEntrySize * (index + 1), value);
}
int8_t node_kind(const uint8_t* node) { return static_cast<int8_t>(node[nd::kKind]); }
uint8_t node_height(const uint8_t* node) { return node[nd::kHeight]; }
uint16_t num_records(const uint8_t* node) { return load_be16(node + nd::kNumRecords); }
size_t padded(size_t size) { return size + (size & 1); }
uint64_t node_offset(const morv_btree* tree, uint32_t node) {
  return uint64_t{node} * tree->node_size;
}
// Nodes the tree's file holds.
uint64_t fork_nodes(const morv_btree* tree) { return *tree->fork->logical_size / tree->node_size; }

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

}  // namespace

// ============================================================ the undo journal

namespace {

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

void discard_journal(transaction* t) {
  for (size_t i = 0; i < t->saved_count; ++i) morv_free(t->saved[i].bytes);
  t->saved_count = 0;
  t->pending_count = 0;
}

// Keeps node `number`'s bytes as they are now, unless the transaction kept
// them already. Outside a transaction nothing is kept.
[[nodiscard]] morv_err journal_node(morv_btree* tree, uint32_t number) {
  transaction& t = tree->priv->txn;
  if (t.depth == 0) return MORV_OK;
  for (size_t i = 0; i < t.saved_count; ++i)
    if (t.saved[i].number == number) return MORV_OK;
  morv::buffer<uint8_t> bytes(static_cast<uint8_t*>(morv_malloc(tree->node_size)));
  if (!bytes || !reserve_one(&t.saved, &t.saved_capacity, t.saved_count)) {
    MORV_ERROR("Error while allocating memory to keep the original of node %lu.\n",
               morv_ul(number));
    return MORV_ERR_NO_MEMORY;
  }
  morv_err err = morv_fork_read(tree->fork, node_offset(tree, number), bytes.get(),
                                tree->node_size, nullptr);
  if (err) {
    MORV_ERROR("Error while reading the original of node %lu.\n", morv_ul(number));
    return err;
  }
  t.saved[t.saved_count++] = saved_node{number, bytes.release()};
  return MORV_OK;
}

// Every change of the tree's file goes through here.
[[nodiscard]] morv_err tree_write(morv_btree* tree, uint64_t offset, const void* data,
                                  size_t length) {
  const uint64_t first = offset / tree->node_size;
  const uint64_t last = (offset + length - 1) / tree->node_size;
  for (uint64_t n = first; n <= last; ++n) {
    morv_err err = journal_node(tree, static_cast<uint32_t>(n));
    if (err) return err;
  }
  return morv_fork_write(tree->fork, offset, data, length, nullptr);
}

}  // namespace

// ============================================================ open and close

namespace {

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

// Checks the header node's descriptor and header record through the fork.
[[nodiscard]] morv_err check_header_node(morv_fork* fork, uint16_t* out_node_size,
                                         uint16_t* out_max_key_length) {
  mapping descriptor(fork);
  morv_err err = descriptor.map(0, nd::kDescriptorSize);
  if (err) {
    MORV_ERROR("Error while mapping node descriptor of B-tree from its fork.\n");
    return err;
  }
  const uint8_t* d = descriptor.get();
  if (node_kind(d) != nd::kKindHeader || num_records(d) != nd::kHeaderNodeRecords) {
    // The count is printed low byte first, as the message always has.
    MORV_ERROR("HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
               "morv_btree_process", static_cast<int>(node_kind(d)),
               static_cast<int>(d[nd::kNumRecords] | (d[nd::kNumRecords + 1] << 8)));
    return MORV_ERR_CORRUPT;
  }
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
  priv[0] = morv_btree_private{kind, compare_keys, nullptr, lock, transaction{}};
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
  const int8_t kind = node_kind(node);
  if (kind == nd::kKindHeader || kind == nd::kKindMap) return;
  if (kind == nd::kKindLeaf && node[nd::kHeight] != 1) {
    MORV_ERROR("HFSPlus:WARNING:%s: Leaf node height is not 1!\n", __func__);
  }
  const uint16_t first = offset_entry(node, node_size, 0);
  if (first != nd::kFirstRecordOffset) {
    MORV_ERROR("HFSPlus:%s: Offset of record is %hd, and not 14!\n", __func__,
               static_cast<short>(first));
    return;
  }
  const uint16_t count = num_records(node);
  for (uint16_t i = 0; i < count && nd::kOffsetEntrySize * (i + 1u) < node_size; ++i) {
    const uint16_t off = offset_entry(node, node_size, i);
    if (off + kAttrName > node_size) return;
    const size_t type_at = off + kAttrName + 2u * load_be16(node + off + kAttrNameLength);
    if (type_at + 4 > node_size) return;
    const uint32_t type = load_be32(node + type_at);
    if (type != kAttrInlineData) {
      MORV_ERROR("HFSPlus:ERROR:%s: Unknown Attr Type: %X\n", __func__, type);
    }
  }
}

// ============================================================ record locators
// ============================================================ record locators

morv_err morv_btree_record_locator_open(morv_btree* tree, uint32_t node_number,
                                        uint16_t record_index, const uint8_t* record,
                                        size_t record_size, uint64_t record_offset,
                                        morv_btree_record_locator** out_locator) {
  if (!record) {
    MORV_ERROR("Invalid parameter: record == NULL\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (record_size == 0) {
    MORV_ERROR("Invalid parameter: record_size == 0\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (record_size & 1) {
    MORV_ERROR("Invalid parameter: record_size (%zu) is not aligned on a 2-byte boundary.\n",
               record_size);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const size_t key_size = size_t{load_be16(record)} + 2;
  const size_t padded_key = padded(key_size);
  if (record_size < padded_key) {
    MORV_ERROR("Invalid parameter: Record size too small to contain key! Expected minimum: %zu "
               "Actual: %zu\n",
               padded_key, record_size);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint64_t data_offset = record_offset + padded_key;
  morv_btree_private* tp = tree->priv;
  for (morv_btree_record_locator* l = tp->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (p->deleted || p->node_number != node_number || p->record_index != record_index) continue;
    // A locator on another record at this place (a damaged tree led a change
    // over it) must not take these bytes into a copy of another size: it
    // names nothing any more, and the record gets a locator of its own.
    if (p->raw_record_size != record_size || padded(l->key_size) != padded_key ||
        memcmp(p->record, record, l->key_size) != 0) {
      MORV_WARNING("Mismatching record data for node %lu, record %hu. Using specified.\n",
                   morv_ul(node_number), record_index);
      p->deleted = 1;
      break;
    }
    if (p->data_offset != data_offset) {
      MORV_WARNING("Mismatching data pointer offset for node %lu, record %hu (stored: %llu "
                   "specified: %llu). Using specified.\n",
                   morv_ul(node_number), record_index, morv_ull(p->data_offset),
                   morv_ull(data_offset));
      p->data_offset = data_offset;
    }
    if (p->tree != tree) {
      MORV_CRITICAL("Mismatching btree pointers (%p != %p)! Internal error...\n",
                    static_cast<void*>(p->tree), static_cast<void*>(tree));
      return MORV_ERR_INTERNAL;
    }
    if (p->raw_record_size != record_size) {
      MORV_WARNING("Mismatching raw record sizes for node %lu, record %hu (stored: %zu specified: "
                   "%zu). Using specified.\n",
                   morv_ul(node_number), record_index, p->raw_record_size, record_size);
      p->raw_record_size = record_size;
    }
    if (p->raw_data_offset != padded_key) {
      MORV_WARNING("Mismatching raw record data offsets for node %lu, record %hu (stored: %zu "
                   "specified: %zu). Using specified.\n",
                   morv_ul(node_number), record_index, p->raw_data_offset, padded_key);
      p->raw_data_offset = padded_key;
    }
    if (p->raw_key_offset != 0) {
      MORV_WARNING("Mismatching raw record key offsets for node %lu, record %hu (stored: %zu "
                   "specified: %zu). Using specified.\n",
                   morv_ul(node_number), record_index, p->raw_key_offset, size_t{0});
      p->raw_key_offset = 0;
    }
    // The engine never reopens a record with another size, so the copy
    // (sized at creation) holds the specified bytes.
    if (memcmp(p->record, record, record_size) != 0) {
      MORV_WARNING("Mismatching record data for node %lu, record %hu. Using specified.\n",
                   morv_ul(node_number), record_index);
      memcpy(p->record, record, record_size);
    }
    ++p->refcount;
    *out_locator = l;
    return MORV_OK;
  }
  const size_t allocation_size = sizeof(locator_block) + record_size;
  void* raw = morv_calloc(1, allocation_size);
  if (!raw) {
    MORV_ERROR("Error while allocating %zu bytes for morv_btree_record_locator allocation.\n",
               allocation_size);
    return MORV_ERR_NO_MEMORY;
  }
  locator_block* block = new (raw) locator_block{};
  memcpy(block->tag, kLocatorTag, sizeof kLocatorTag);
  block->allocation_size = allocation_size;
  uint8_t* copy = static_cast<uint8_t*>(raw) + sizeof(locator_block);
  memcpy(copy, record, record_size);
  morv_btree_record_locator_private* p = &block->priv;
  *p = morv_btree_record_locator_private{raw,       1,    0,       node_number,
                                         record_index, data_offset, tree, nullptr,
                                         tp->open_locators, 0, padded_key, record_size, copy,
                                         node_number, record_index, data_offset, 0,
                                         tp->txn.depth != 0};
  block->pub = morv_btree_record_locator{&p->node_number, &p->record_index, copy, key_size,
                                         copy + padded_key, record_size - padded_key, p};
  if (tp->open_locators) tp->open_locators->priv->prev = &block->pub;
  tp->open_locators = &block->pub;
  *out_locator = &block->pub;
  return MORV_OK;
}

void morv_btree_record_locator_close_locked(morv_btree_record_locator** locator_place, int force) {
  if (!locator_place || !*locator_place) return;
  morv_btree_record_locator* l = *locator_place;
  morv_btree_record_locator_private* p = l->priv;
  *locator_place = nullptr;
  if (--p->refcount != 0 && !force) return;
  if (p->next) p->next->priv->prev = p->prev;
  if (p->prev) {
    p->prev->priv->next = p->next;
  } else {
    p->tree->priv->open_locators = p->next;
  }
  void* allocation = p->allocation;
  const size_t size = static_cast<locator_block*>(allocation)->allocation_size;
  memset(allocation, 0, size);
  morv_free(allocation);
}

void morv_btree_record_locator_close(morv_btree_record_locator** locator_place) {
  if (!locator_place || !*locator_place) return;
  morv_rwlock* lock = (*locator_place)->priv->tree->priv->open_locators_lock;
  if (morv_rwlock_lock_write(lock)) {
    MORV_ERROR("Error while locking B-tree open locators list.\n");
    *locator_place = nullptr;
    return;
  }
  morv_btree_record_locator_close_locked(locator_place, 0);
  if (morv_rwlock_unlock(lock)) {
    MORV_WARNING("Error while unlocking B-tree open locators list lock. Ignoring...\n");
  }
}

morv_err morv_btree_record_locator_write_data(morv_btree_record_locator* locator, const void* data,
                                              size_t data_size) {
  morv_btree_record_locator_private* p = locator->priv;
  if (p->deleted) {
    MORV_CRITICAL("Attempted to write data to deleted locator.\n");
    return MORV_ERR_INTERNAL;
  }
  if (data_size != locator->data_size) {
    MORV_ERROR("Invalid parameter: data_size (%zu) not equal to data size in locator (%zu). Inline "
               "record expansion is not supported.\n",
               data_size, locator->data_size);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv_rwlock* lock = p->tree->priv->open_locators_lock;
  morv_err err = morv_rwlock_lock_read(lock);
  if (err) {
    MORV_ERROR("Error while locking open locators list.\n");
    return err;
  }
  err = tree_write(p->tree, p->data_offset, data, data_size);
  if (err) {
    MORV_ERROR("Error while writing out record data.\n");
  } else {
    memcpy(p->record + p->raw_data_offset, data, data_size);
  }
  morv_err unlock_err = morv_rwlock_unlock(lock);
  if (unlock_err) {
    MORV_ERROR("Error while unlocking rwlock.\n");
    if (!err) err = unlock_err;
  }
  return err;
}

void morv_btree_relocate_open_locators(morv_btree* tree, uint32_t node_number,
                                       uint16_t first_index, uint32_t count,
                                       uint32_t new_node_number, int subtract,
                                       uint16_t index_delta, uint32_t offset_delta) {
  const int64_t end = int64_t{first_index} + count;
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (p->deleted || p->node_number != node_number) continue;
    if (p->record_index < first_index || int64_t{p->record_index} >= end) continue;
    p->node_number = new_node_number;
    if (subtract) {
      p->record_index = static_cast<uint16_t>(p->record_index - index_delta);
      p->data_offset -= offset_delta;
    } else {
      p->record_index = static_cast<uint16_t>(p->record_index + index_delta);
      p->data_offset += offset_delta;
    }
  }
}

// ============================================================ transactions

namespace {

[[nodiscard]] morv_err settle_pending(morv_btree* tree);

void snapshot_locators(morv_btree* tree) {
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    p->saved_node_number = p->node_number;
    p->saved_record_index = p->record_index;
    p->saved_data_offset = p->data_offset;
    p->saved_deleted = p->deleted;
    p->born = 0;
  }
}

// Puts every locator back where its record stands again, with the record's
// bytes; those opened during the failed change name nothing any more.
void restore_locators(morv_btree* tree) {
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (p->born) {
      p->deleted = 1;
      p->born = 0;
      continue;
    }
    p->node_number = p->saved_node_number;
    p->record_index = p->saved_record_index;
    p->data_offset = p->saved_data_offset;
    p->deleted = p->saved_deleted;
    if (p->deleted) continue;
    // The node was read when the locator was opened: the cache holds it.
    if (morv_fork_read(tree->fork, p->data_offset - p->raw_data_offset, p->record,
                       p->raw_record_size, nullptr)) {
      MORV_CRITICAL("Internal error: Unable to read back the record of a locator on node %lu.\n",
                    morv_ul(p->node_number));
    }
  }
}

// Writes the kept originals back. Every node was read before it was kept,
// so these writes need neither memory nor the device.
void rollback(morv_btree* tree) {
  transaction& t = tree->priv->txn;
  for (size_t i = t.saved_count; i-- > 0;) {
    if (morv_fork_write(tree->fork, node_offset(tree, t.saved[i].number), t.saved[i].bytes,
                        tree->node_size, nullptr)) {
      MORV_CRITICAL("Internal error: Unable to put node %lu of the B-tree back as it was.\n",
                    morv_ul(t.saved[i].number));
    }
  }
  restore_locators(tree);
}

void txn_begin(morv_btree* tree) {
  transaction& t = tree->priv->txn;
  if (t.depth++ == 0) {
    t.failure = MORV_OK;
    snapshot_locators(tree);
  }
}

// Ends one level; the outermost settles the waiting adjustments and then
// keeps the change or puts the tree back.
[[nodiscard]] morv_err txn_end(morv_btree* tree, morv_err result) {
  transaction& t = tree->priv->txn;
  if (result && !t.failure) t.failure = result;
  if (t.depth > 1) {
    --t.depth;
    return result;
  }
  if (!t.failure) t.failure = settle_pending(tree);
  if (t.failure) rollback(tree);
  discard_journal(&t);
  t.depth = 0;
  const morv_err failure = t.failure;
  t.failure = MORV_OK;
  return failure;
}

// Notes that `number`'s index record (carrying `key`) waits for the end of
// the transaction.
[[nodiscard]] morv_err pend(morv_btree* tree, uint32_t number, uint8_t height, const uint8_t* key) {
  transaction& t = tree->priv->txn;
  for (size_t i = 0; i < t.pending_count; ++i)
    if (t.pending[i].number == number) return MORV_OK;  // its index record has not changed since
  if (!reserve_one(&t.pending, &t.pending_capacity, t.pending_count)) {
    MORV_ERROR("Error while allocating memory for a pending index record change.\n");
    return MORV_ERR_NO_MEMORY;
  }
  pending_node& p = t.pending[t.pending_count++];
  p.number = number;
  p.height = height;
  p.key_size = key ? static_cast<uint16_t>(load_be16(key) + 2) : 0;
  if (key) memcpy(p.key, key, p.key_size);
  return MORV_OK;
}

// The node's index record was rewritten: nothing waits for it any more.
void unpend(morv_btree* tree, uint32_t number) {
  transaction& t = tree->priv->txn;
  for (size_t i = 0; i < t.pending_count; ++i) {
    if (t.pending[i].number != number) continue;
    t.pending[i] = t.pending[--t.pending_count];
    return;
  }
}

}  // namespace

// ============================================================ header record and node checks

namespace {

// The header record as read from node 0, checked.
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

[[nodiscard]] morv_err read_tree_header(morv_btree* tree, tree_header* h) {
  morv_err err = morv_fork_read(tree->fork, hr::kForkOffset, h->raw, hr::kSize, nullptr);
  if (err) {
    MORV_ERROR("Error while reading B-tree header record.\n");
    return err;
  }
  if (h->depth() > kMaxTreeDepth) {
    MORV_ERROR("B-tree depth too large.\n");
    return MORV_ERR_CORRUPT;
  }
  const uint32_t total = h->total_nodes();
  const auto inside = [total](uint32_t node) { return node == 0 || node < total; };
  // A tree has a root exactly when it has a depth.
  const bool root_ok = (h->root() == 0) == (h->depth() == 0) && inside(h->root());
  if (total > fork_nodes(tree) || !root_ok || !inside(h->first_leaf()) ||
      !inside(h->last_leaf())) {
    MORV_ERROR("Invalid B-tree header record: root node %lu, depth %hu, leaves %lu to %lu, %lu "
               "nodes in a file of %llu.\n",
               morv_ul(h->root()), h->depth(), morv_ul(h->first_leaf()), morv_ul(h->last_leaf()),
               morv_ul(total), morv_ull(fork_nodes(tree)));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

[[nodiscard]] morv_err write_tree_header(morv_btree* tree, const tree_header& h) {
  morv_err err = tree_write(tree, hr::kForkOffset, h.raw, hr::kSize);
  if (err) MORV_ERROR("Error while writing out modified B-tree header record.\n");
  return err;
}

// Offsets of a node's records: each even, inside 14..(start of the offset
// array), ascending; record 0 at 14.
[[nodiscard]] morv_err check_offsets(const uint8_t* node, uint16_t ns, uint32_t number) {
  const uint16_t count = num_records(node);
  if (nd::kOffsetEntrySize * (count + 1u) > ns - nd::kDescriptorSize) {
    MORV_ERROR("Invalid node data: Node cannot fit %hu records given the node size (%hu).\n",
               count, ns);
    return MORV_ERR_CORRUPT;
  }
  const uint16_t first = offset_entry(node, ns, 0);
  if (first != nd::kFirstRecordOffset) {
    MORV_ERROR("HFSPlus:%s: Offset of record 0 in %lu is %hu, and not %zu!\n",
               "morv_btree_search_node_internal", morv_ul(number), first,
               size_t{nd::kFirstRecordOffset});
    return MORV_ERR_CORRUPT;
  }
  const size_t array_start = ns - nd::kOffsetEntrySize * (count + 1u);
  for (uint16_t i = 1; i <= count; ++i) {
    const uint16_t off = offset_entry(node, ns, i);
    const uint16_t prev = offset_entry(node, ns, i - 1u);
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
  const bool index = node_kind(node) == nd::kKindIndex;
  const size_t child_size = index ? nd::kIndexDataSize : 0;
  for (uint16_t i = 0; i < num_records(node); ++i) {
    const uint16_t off = offset_entry(node, ns, i);
    const size_t size = size_t{offset_entry(node, ns, i + 1u)} - off;
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

// The one check through which every leaf and index node enters. `height` 0
// accepts the node at the height it has.
[[nodiscard]] morv_err check_node(const morv_btree* tree, const tree_header& h,
                                  const uint8_t* node, uint32_t number, uint8_t height) {
  const uint16_t ns = tree->node_size;
  const int8_t kind = node_kind(node);
  if (kind != nd::kKindLeaf && kind != nd::kKindIndex) {
    MORV_ERROR("Invalid node kind: %hhd\n", kind);
    return MORV_ERR_CORRUPT;
  }
  const uint8_t actual = node_height(node);
  if ((kind == nd::kKindLeaf) != (actual == nd::kLeafHeight) || (height && actual != height) ||
      actual == 0) {
    MORV_ERROR("Invalid node data: Node %lu of kind %hhd has height %u where height %u was "
               "expected.\n",
               morv_ul(number), kind, actual, height);
    return MORV_ERR_CORRUPT;
  }
  const uint32_t flink = load_be32(node + nd::kFLink);
  const uint32_t blink = load_be32(node + nd::kBLink);
  if (flink >= h.total_nodes() || blink >= h.total_nodes() || flink == number ||
      blink == number) {
    MORV_ERROR("Invalid node data: Node %lu links to nodes %lu and %lu, outside the tree of %lu "
               "nodes or to itself.\n",
               morv_ul(number), morv_ul(flink), morv_ul(blink), morv_ul(h.total_nodes()));
    return MORV_ERR_CORRUPT;
  }
  morv_err err = check_offsets(node, ns, number);
  if (!err) err = check_records(node, ns, number, h.total_nodes());
  return err;
}

// Maps node `number` and checks it.
[[nodiscard]] morv_err map_node(morv_btree* tree, const tree_header& h, uint32_t number,
                                uint8_t height, mapping* m) {
  morv_err err = m->map(node_offset(tree, number), tree->node_size);
  if (err) {
    MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(number));
    return err;
  }
  return check_node(tree, h, m->get(), number, height);
}

// A checked copy of one node, to be changed and written back.
struct node_copy {
  uint32_t number = 0;
  morv::buffer<uint8_t> bytes;
  uint8_t* get() const { return bytes.get(); }
};

[[nodiscard]] morv_err read_node(morv_btree* tree, const tree_header& h, uint32_t number,
                                 uint8_t height, node_copy* out) {
  if (!out->bytes.allocate(tree->node_size)) {
    MORV_ERROR("Error while allocating node-sized buffer for modified contents (%zu bytes).\n",
               size_t{tree->node_size});
    return MORV_ERR_NO_MEMORY;
  }
  out->number = number;
  morv_err err = morv_fork_read(tree->fork, node_offset(tree, number), out->get(),
                                tree->node_size, nullptr);
  if (err) {
    MORV_ERROR("Error while reading complete node data of node %lu.\n", morv_ul(number));
    return err;
  }
  return check_node(tree, h, out->get(), number, height);
}

[[nodiscard]] morv_err write_node(morv_btree* tree, const node_copy& node) {
  morv_err err = tree_write(tree, node_offset(tree, node.number), node.get(), tree->node_size);
  if (err) MORV_ERROR("Error while writing out modified node %lu.\n", morv_ul(node.number));
  return err;
}

// ---- record access on checked nodes ----

const uint8_t* record_at(const uint8_t* node, uint16_t ns, size_t i) {
  return node + offset_entry(node, ns, i);
}
size_t record_size(const uint8_t* node, uint16_t ns, size_t i) {
  return size_t{offset_entry(node, ns, i + 1)} - offset_entry(node, ns, i);
}
size_t key_size_at(const uint8_t* node, uint16_t ns, size_t i) {
  return size_t{load_be16(record_at(node, ns, i))} + 2;
}
uint32_t child_at(const uint8_t* node, uint16_t ns, size_t i) {
  return load_be32(record_at(node, ns, i) + padded(key_size_at(node, ns, i)));
}
// Bytes free for records and their offset entries.
size_t free_room(const uint8_t* node, uint16_t ns) {
  const uint16_t n = num_records(node);
  return ns - offset_entry(node, ns, n) - nd::kOffsetEntrySize * (n + 1u);
}
bool same_key(const uint8_t* a, const uint8_t* b) {
  return load_be16(a) == load_be16(b) && memcmp(a, b, size_t{load_be16(a)} + 2) == 0;
}

}  // namespace

// ============================================================ search and iteration

namespace {

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

// Scans a checked node with records for the first key not before `key`
// (or the last record); *out_compare is that key's comparison.
uint16_t scan_node(const morv_btree* tree, const uint8_t* node, const uint8_t* key,
                   uint8_t compare_type, int* out_compare) {
  const uint16_t count = num_records(node);
  uint16_t i = 0;
  for (;; ++i) {
    *out_compare = tree->priv->compare_keys(record_at(node, tree->node_size, i), key, compare_type);
    if (*out_compare >= 0 || i + 1u == count) return i;
  }
}

// Descends from node `start` at `start_height` to the node at `stop_height`
// that holds `key`, or where it would go. Each step goes one level down, so
// the walk ends within treeDepth steps; a child at or above its parent's
// height is a cycle. On success the last node stays mapped in `m`.
[[nodiscard]] morv_err descend(morv_btree* tree, const tree_header& h, const uint8_t* key,
                               uint32_t start, uint8_t start_height, uint8_t stop_height,
                               tree_path* path, stop* out, mapping* m) {
  const uint16_t ns = tree->node_size;
  uint32_t node = start;
  uint8_t height = start_height;
  path->levels = 0;
  for (;;) {
    morv_err err = m->map(node_offset(tree, node), ns);
    if (err) {
      MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(node));
      return err;
    }
    if (path->levels > 0 && node_height(m->get()) > height) {
      MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    if ((err = check_node(tree, h, m->get(), node, height))) return err;
    const uint8_t* buf = m->get();
    const size_t level = path->levels++;
    path->node[level] = node;
    path->index[level] = 0;
    if (num_records(buf) == 0) {
      if (height != stop_height) {
        MORV_ERROR("Invalid node data: Index node %lu holds no records.\n", morv_ul(node));
        return MORV_ERR_CORRUPT;
      }
      *out = stop{false, false, false};
      return MORV_OK;
    }
    int c = 0;
    const uint16_t i = scan_node(tree, buf, key, h.compare_type(), &c);
    if (height == stop_height) {
      path->index[level] = i;
      *out = stop{true, c == 0, c < 0};
      return MORV_OK;
    }
    // The last index record whose key is not after the search key leads on;
    // a key before the node's first key goes to the first child.
    const uint16_t followed = (i > 0 && c > 0) ? static_cast<uint16_t>(i - 1) : i;
    path->index[level] = followed;
    node = child_at(buf, ns, followed);
    --height;
    const uint64_t old_offset = m->offset();
    if ((err = m->unmap())) {
      MORV_ERROR("Error while unmapping raw node data of node at offset %llu.\n",
                 morv_ull(old_offset));
      return err;
    }
  }
}

// Opens a locator on record `index` of the mapped, checked `node`.
[[nodiscard]] morv_err open_on(morv_btree* tree, uint32_t node_number, const uint8_t* node,
                               uint16_t index, morv_btree_record_locator** out_locator) {
  const uint16_t off = offset_entry(node, tree->node_size, index);
  return morv_btree_record_locator_open(tree, node_number, index, node + off,
                                        record_size(node, tree->node_size, index),
                                        node_offset(tree, node_number) + off, out_locator);
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

// The height of node `number`, read without trusting the rest of it.
[[nodiscard]] morv_err peek_height(morv_btree* tree, uint32_t number, uint8_t* out) {
  mapping m(tree->fork);
  morv_err err = m.map(node_offset(tree, number), nd::kDescriptorSize);
  if (err) {
    MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(number));
    return err;
  }
  *out = node_height(m.get());
  return m.unmap();
}

}  // namespace

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
  if (err) return err;
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
  if (start_node && (err = peek_height(tree, start, &start_height))) return err;
  const uint8_t stop_height = mode == -1 ? nd::kLeafHeight : height;
  if (stop_height < nd::kLeafHeight || stop_height > start_height) {
    MORV_ERROR("Invalid parameter: Height %u is outside the tree below node %lu (height %u).\n",
               stop_height, morv_ul(start), start_height);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  tree_path path;
  stop s{};
  mapping m(tree->fork);
  if ((err = descend(tree, h, search_key, start, start_height, stop_height, &path, &s, &m)))
    return err;
  morv_btree_record_locator* locator = nullptr;
  if (s.has_record &&
      (err = open_on(tree, path.node[path.last()], m.get(), path.index[path.last()], &locator))) {
    MORV_ERROR("Error while creating morv_btree_record_locator.\n");
    return err;
  }
  if ((err = m.unmap())) {
    MORV_ERROR("Error while unmapping raw node data.\n");
    morv_btree_record_locator_close_locked(&locator, 0);
    return err;
  }
  *out_result = morv_btree_search_result{s.exact, s.after_last, locator};
  return MORV_OK;
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

namespace {

// Follows fLink from the node mapped in `m` to the next node of its level
// that holds records; *node becomes 0 at the end of the level. The next node
// must link back, be of the same kind and height, and begin with a key after
// `key` (the last one passed), so that iteration only moves forward; the
// chain is bounded by totalNodes and checked for cycles.
[[nodiscard]] morv_err next_node_with_records(morv_btree* tree, const tree_header& h, mapping* m,
                                              uint32_t* node, const uint8_t* key) {
  const uint8_t height = node_height(m->get());
  cycle_check cycle(*node);
  for (uint64_t hops = 0;; ++hops) {
    const uint32_t next = load_be32(m->get() + nd::kFLink);
    if (next == 0) {
      *node = 0;
      return MORV_OK;
    }
    if (hops >= h.total_nodes() || !cycle.step(next)) {
      MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    morv_err err = m->unmap();
    if (err) {
      MORV_ERROR("Error while unmapping original raw node data.\n");
      return err;
    }
    if ((err = map_node(tree, h, next, height, m))) {
      MORV_ERROR("Error while mapping raw node data of next node.\n");
      return err;
    }
    const uint32_t back = load_be32(m->get() + nd::kBLink);
    if (back != *node) {
      MORV_ERROR("Invalid node data: Node %lu follows node %lu but links back to node %lu.\n",
                 morv_ul(next), morv_ul(*node), morv_ul(back));
      return MORV_ERR_CORRUPT;
    }
    *node = next;
    if (num_records(m->get()) == 0) continue;
    if (tree->priv->compare_keys(record_at(m->get(), tree->node_size, 0), key,
                                 h.compare_type()) <= 0) {
      MORV_ERROR("Invalid node data: The keys of node %lu do not follow those before it.\n",
                 morv_ul(next));
      return MORV_ERR_CORRUPT;
    }
    return MORV_OK;
  }
}

}  // namespace

morv_err morv_btree_get_next_record_internal(morv_btree* tree, morv_btree_record_locator* locator,
                                             morv_btree_record_locator** out_next) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  uint32_t node = *locator->node_number;
  uint32_t wanted = uint32_t{*locator->record_index} + 1;
  mapping m(tree->fork);
  if ((err = map_node(tree, h, node, 0, &m))) {
    MORV_ERROR("Error while mapping raw node data.\n");
    return err;
  }
  const uint16_t count = num_records(m.get());
  if (count < wanted) {
    MORV_ERROR("Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
               static_cast<uint16_t>(wanted), count);
    return MORV_ERR_CORRUPT;
  }
  if (wanted == count) {
    if ((err = next_node_with_records(tree, h, &m, &node, locator->key))) return err;
    wanted = 0;
  }
  morv_btree_record_locator* next = nullptr;
  if (node != 0 && (err = open_on(tree, node, m.get(), static_cast<uint16_t>(wanted), &next))) {
    MORV_ERROR("Error while creating target record locator.\n");
    return err;
  }
  if ((err = m.unmap())) {
    MORV_ERROR("Error while unmapping raw node data.\n");
    morv_btree_record_locator_close_locked(&next, 0);
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

// ============================================================ node allocation

namespace {

// A walk over the parts of the node bitmap: the header node's map record,
// then the map nodes chained through fLink, each checked before any of its
// bits is trusted. The chain is checked for cycles.
class bitmap_walk {
 public:
  bitmap_walk(morv_btree* tree, const tree_header& h)
      : tree_(tree), total_(h.total_nodes()), m_(tree->fork), cycle_(0) {}

  // The header node's map record.
  [[nodiscard]] morv_err start() {
    const uint16_t ns = tree_->node_size;
    morv_err err = m_.map(0, ns);
    if (err) {
      MORV_ERROR("Error while mapping complete header node of B-tree.\n");
      return err;
    }
    const uint8_t* hn = m_.get();
    link_ = load_be32(hn + nd::kFLink);
    if (link_ >= total_ && link_ != 0) {
      MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node 0 exceeds the total number of "
                 "nodes (%lu).\n",
                 morv_ul(link_), morv_ul(total_));
      return MORV_ERR_CORRUPT;
    }
    first_ = offset_entry(hn, ns, nd::kMapRecordIndex);
    length_ = ns - nd::kHeaderNodeNonMapBytes;
    const size_t limit = ns - nd::kOffsetEntrySize * (nd::kHeaderNodeRecords + 1u);
    if (first_ < nd::kFirstRecordOffset || first_ + length_ > limit) {
      MORV_ERROR("Invalid node data: First record offset is out of range (%hu).", first_);
      return MORV_ERR_CORRUPT;
    }
    node_ = 0;
    earlier_ = 0;
    return MORV_OK;
  }

  // Moves on to the next map node.
  [[nodiscard]] morv_err next() {
    const uint64_t covered = earlier_ + length_;
    if (link_ == 0) {
      MORV_ERROR("Missing map node after node %lu (%lu bytes of node bitmap data missing).\n",
                 morv_ul(node_), morv_ul(static_cast<uint32_t>((total_ + 7ull) / 8 - covered)));
      return MORV_ERR_CORRUPT;
    }
    if (!cycle_.step(link_)) {
      MORV_ERROR("Invalid node data: The map nodes loop back to node %lu.\n", morv_ul(link_));
      return MORV_ERR_CORRUPT;
    }
    morv_err err = m_.unmap();
    if (err) {
      MORV_ERROR("Error %llu while unmapping previously mapped map node data.\n", morv_ull(err));
      return err;
    }
    if ((err = m_.map(node_offset(tree_, link_), tree_->node_size))) {
      MORV_ERROR("Error %llu while mapping next map node into memory.\n", morv_ull(err));
      return err;
    }
    if ((err = check_map_node())) return err;
    node_ = link_;
    link_ = load_be32(m_.get() + nd::kFLink);
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

  uint8_t byte_at(uint64_t byte) const { return m_.get()[first_ + (byte - earlier_)]; }
  // The fork offset of bitmap byte `byte` of the current part.
  uint64_t fork_offset(uint64_t byte) const {
    return node_offset(tree_, node_) + first_ + (byte - earlier_);
  }

 private:
  [[nodiscard]] morv_err check_map_node() {
    const uint8_t* buf = m_.get();
    const uint16_t ns = tree_->node_size;
    if (node_kind(buf) != nd::kKindMap) {
      MORV_ERROR("Invalid node data: Expected map node, got node kind %hhd.\n", node_kind(buf));
      return MORV_ERR_CORRUPT;
    }
    if (num_records(buf) != nd::kMapNodeRecords) {
      MORV_ERROR("Invalid node data: Unexpected number of records in map node (%hu).\n",
                 num_records(buf));
      return MORV_ERR_CORRUPT;
    }
    const uint32_t flink = load_be32(buf + nd::kFLink);
    if (flink >= total_ && flink != 0) {
      MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node %lu exceeds the total number of "
                 "nodes (%lu).\n",
                 morv_ul(flink), morv_ul(link_), morv_ul(total_));
      return MORV_ERR_CORRUPT;
    }
    const uint16_t first = offset_entry(buf, ns, 0);
    const uint16_t free_space = offset_entry(buf, ns, 1);
    const uint16_t limit = static_cast<uint16_t>(ns - 2 * nd::kOffsetEntrySize);
    if (first < nd::kFirstRecordOffset || first > limit) {
      MORV_ERROR("Invalid node data: First record offset is out of range (%hu).", first);
      return MORV_ERR_CORRUPT;
    }
    if (free_space < nd::kFirstRecordOffset || free_space > limit) {
      MORV_ERROR("Invalid node data: Free space offset is out of range (%hu).", free_space);
      return MORV_ERR_CORRUPT;
    }
    // An empty map record covers no node: the walk would not advance.
    if (first >= free_space) {
      MORV_ERROR("Invalid node data: Records offsets out of order in map node %lu (first offset: "
                 "%hu, free space: %hu)",
                 morv_ul(link_), first, free_space);
      return MORV_ERR_CORRUPT;
    }
    first_ = first;
    length_ = size_t{free_space} - first;
    return MORV_OK;
  }

  morv_btree* tree_;
  uint32_t total_;
  mapping m_;
  cycle_check cycle_;
  uint32_t node_ = 0;      // the node holding the current part (0: the header node)
  uint32_t link_ = 0;      // its fLink
  uint16_t first_ = 0;     // the part's offset in its node
  size_t length_ = 0;      // the part's bytes
  uint64_t earlier_ = 0;   // bitmap bytes in the parts before it
};

// Sets or clears node `number`'s bit (which must be the other way) and
// moves freeNodes with it.
[[nodiscard]] morv_err write_node_bit(morv_btree* tree, tree_header* h, bitmap_walk* walk,
                                      uint32_t number, bool in_use) {
  const uint64_t byte = number / 8;
  const uint8_t mask = static_cast<uint8_t>(0x80u >> (number % 8));
  const uint8_t old = walk->byte_at(byte);
  if (static_cast<bool>(old & mask) == in_use) {
    MORV_CRITICAL("Internal error: Node %lu is already %s.\n", morv_ul(number),
                  in_use ? "allocated" : "free");
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
// fLink from its leftmost node, bounded and checked for cycles. A damaged
// bitmap must not make a change overwrite a live node.
[[nodiscard]] morv_err check_unused(morv_btree* tree, const tree_header& h, uint32_t n) {
  const uint16_t ns = tree->node_size;
  bool used = n == h.root();
  uint32_t leftmost = h.root();
  for (uint16_t height = h.depth(); !used && height > nd::kLeafHeight; --height) {
    cycle_check cycle(leftmost);
    uint32_t node = leftmost;
    for (uint64_t hops = 0; node != 0 && !used; ++hops) {
      mapping m(tree->fork);
      morv_err err = map_node(tree, h, node, static_cast<uint8_t>(height), &m);
      if (err) return err;
      const uint16_t count = num_records(m.get());
      if (count == 0) {
        MORV_ERROR("Invalid node data: Index node %lu holds no records.\n", morv_ul(node));
        return MORV_ERR_CORRUPT;
      }
      if (hops == 0) leftmost = child_at(m.get(), ns, 0);
      for (uint16_t i = 0; i < count; ++i) used = used || child_at(m.get(), ns, i) == n;
      node = load_be32(m.get() + nd::kFLink);
      if (node != 0 && (hops >= h.total_nodes() || !cycle.step(node))) {
        MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
        return MORV_ERR_CORRUPT;
      }
    }
  }
  mapping m(tree->fork);
  morv_err err = m.map(0, nd::kDescriptorSize);
  if (err) return err;
  cycle_check cycle(0);
  for (uint32_t map = load_be32(m.get() + nd::kFLink); map != 0 && !used;) {
    used = map == n;
    if (map >= h.total_nodes() || !cycle.step(map)) {
      MORV_ERROR("Invalid node data: The map nodes loop back to node %lu.\n", morv_ul(map));
      return MORV_ERR_CORRUPT;
    }
    if ((err = m.unmap()) || (err = m.map(node_offset(tree, map), nd::kDescriptorSize))) return err;
    map = load_be32(m.get() + nd::kFLink);
  }
  if (!used) return MORV_OK;
  MORV_ERROR("Invalid node data: The node bitmap marks node %lu free, but it is in use.\n",
             morv_ul(n));
  return MORV_ERR_CORRUPT;
}

// The lowest free node from node 1 on, marked in use.
[[nodiscard]] morv_err claim(morv_btree* tree, uint32_t* out_node) {
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
[[nodiscard]] morv_err free_node(morv_btree* tree, uint32_t number) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  bitmap_walk walk(tree, h);
  if ((err = walk.start()) || (err = walk.reach(number / 8))) return err;
  return write_node_bit(tree, &h, &walk, number, false);
}

}  // namespace

morv_err morv_btree_claim_node(morv_btree* tree, uint32_t* out_node_number) {
  txn_begin(tree);
  uint32_t node = 0;
  const morv_err err = txn_end(tree, claim(tree, &node));
  if (err) return err;
  *out_node_number = node;
  return MORV_OK;
}

// ============================================================ editing nodes

namespace {

// ---- the two primitives ----

// Puts a record of `size` bytes at index `i` of `node` (number `number`),
// which has room for it and its offset entry; the records behind move up,
// and so do their open locators.
void insert_record(morv_btree* tree, uint8_t* node, uint32_t number, uint16_t i,
                   const uint8_t* record, size_t size) {
  const uint16_t ns = tree->node_size;
  const uint16_t n = num_records(node);
  const uint16_t at = offset_entry(node, ns, i);
  const uint16_t free_start = offset_entry(node, ns, n);
  memmove(node + at + size, node + at, size_t{free_start} - at);
  memcpy(node + at, record, size);
  for (uint32_t k = n + 1u; k > i; --k)
    set_offset_entry(node, ns, k, static_cast<uint16_t>(offset_entry(node, ns, k - 1) + size));
  store_be16(node + nd::kNumRecords, static_cast<uint16_t>(n + 1));
  morv_btree_relocate_open_locators(tree, number, i, n - i, number, 0, 1,
                                    static_cast<uint32_t>(size));
}

// Takes `count` records out of `node` from index `i`; the records behind
// move down, and so do their open locators. The bytes left behind are zeroed.
void remove_records(morv_btree* tree, uint8_t* node, uint32_t number, uint16_t i,
                    uint16_t count) {
  if (count == 0) return;
  const uint16_t ns = tree->node_size;
  const uint16_t n = num_records(node);
  const uint16_t at = offset_entry(node, ns, i);
  const uint16_t end = offset_entry(node, ns, i + count);
  const uint16_t free_start = offset_entry(node, ns, n);
  const uint16_t bytes = static_cast<uint16_t>(end - at);
  memmove(node + at, node + end, size_t{free_start} - end);
  memset(node + free_start - bytes, 0, bytes);
  for (uint32_t k = i + 1u; k + count <= n; ++k)
    set_offset_entry(node, ns, k, static_cast<uint16_t>(offset_entry(node, ns, k + count) - bytes));
  for (uint32_t k = n - count + 1u; k <= n; ++k) set_offset_entry(node, ns, k, 0);
  store_be16(node + nd::kNumRecords, static_cast<uint16_t>(n - count));
  morv_btree_relocate_open_locators(tree, number, static_cast<uint16_t>(i + count),
                                    n - (i + count), number, 1, count, bytes);
}

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
void move_tail(morv_btree* tree, const node_copy& from, uint16_t first, const node_copy& to) {
  const uint16_t ns = tree->node_size;
  const uint16_t n = num_records(from.get());
  for (uint16_t j = first; j < n; ++j) {
    insert_record(tree, to.get(), to.number, static_cast<uint16_t>(j - first),
                  record_at(from.get(), ns, j), record_size(from.get(), ns, j));
  }
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (p->deleted || p->node_number != from.number || p->record_index < first) continue;
    p->node_number = to.number;
    p->record_index = static_cast<uint16_t>(p->record_index - first);
    p->data_offset = node_offset(tree, to.number) + offset_entry(to.get(), ns, p->record_index) +
                     p->raw_data_offset;
  }
  remove_records(tree, from.get(), from.number, first, static_cast<uint16_t>(n - first));
}

// ---- edits ----

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

// What one level leaves for the level above: its edit, whose index records
// live in `storage`.
struct upward {
  edit change;
  bool has_change = false;
  morv::buffer<uint8_t> storage;
};

size_t index_record_size(const uint8_t* key) { return padded(size_t{load_be16(key)} + 2) + 4; }

// An index record: `key`, padded to even length, and the child's number.
void make_index_record(const uint8_t* key, uint32_t child, uint8_t* out) {
  const size_t key_size = size_t{load_be16(key)} + 2;
  memcpy(out, key, key_size);
  if (key_size & 1) out[key_size] = 0;
  store_be32(out + padded(key_size), child);
}

// The edited sequence of a node's records (the node after the edit's
// removal, with the edit's records at `at`), by size.
struct sequence {
  const uint8_t* node;
  uint16_t ns;
  const edit* e;
  size_t length() const { return num_records(node) + e->count; }
  size_t size(size_t j) const {
    if (j < e->at) return record_size(node, ns, j);
    if (j < e->at + e->count) return e->sizes[j - e->at];
    return record_size(node, ns, j - e->count);
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

// Reads the descriptor of `number`, a sibling of `of` at its level, and
// checks that it links to `of` at `link_field`.
[[nodiscard]] morv_err read_sibling(morv_btree* tree, uint32_t number, const uint8_t* of,
                                    uint32_t of_number, size_t link_field,
                                    uint8_t* descriptor) {
  morv_err err = morv_fork_read(tree->fork, node_offset(tree, number), descriptor,
                                nd::kDescriptorSize, nullptr);
  if (err) {
    MORV_ERROR("Error while reading node descriptor of claimed node's forward linked node.\n");
    return err;
  }
  if (load_be32(descriptor + link_field) != of_number || node_kind(descriptor) != node_kind(of) ||
      node_height(descriptor) != node_height(of)) {
    MORV_ERROR("Invalid node data: Node %lu does not link back to its neighbour %lu.\n",
               morv_ul(number), morv_ul(of_number));
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// Chains the parts of a split behind each other in place of `x` alone, and
// points the node that followed `x` (or lastLeafNode) at the last part.
[[nodiscard]] morv_err link_parts(morv_btree* tree, node_copy* parts, size_t count) {
  uint8_t* x = parts[0].get();
  const uint32_t old_flink = load_be32(x + nd::kFLink);
  for (size_t p = 1; p < count; ++p) {
    store_be32(parts[p - 1].get() + nd::kFLink, parts[p].number);
    store_be32(parts[p].get() + nd::kBLink, parts[p - 1].number);
  }
  const uint32_t last = parts[count - 1].number;
  store_be32(parts[count - 1].get() + nd::kFLink, old_flink);
  if (old_flink) {
    uint8_t descriptor[nd::kDescriptorSize];
    morv_err err = read_sibling(tree, old_flink, x, parts[0].number, nd::kBLink, descriptor);
    if (err) return err;
    uint8_t link[4];
    store_be32(link, last);
    if ((err = tree_write(tree, node_offset(tree, old_flink) + nd::kBLink, link, sizeof link))) {
      MORV_ERROR("Error while writing back modified node descriptor.\n");
    }
    return err;
  }
  if (node_kind(x) != nd::kKindLeaf) return MORV_OK;
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  h.set(hr::kLastLeafNode, last);
  return write_tree_header(tree, h);
}

// Splits `parts[0]` (the node after the edit's removal) so that the edit's
// records fit: claims the nodes the cut asks for, moves the records there
// and places the edit's records.
[[nodiscard]] morv_err split(morv_btree* tree, const edit& e, node_copy* parts, size_t* count,
                             placement* placed) {
  const uint16_t ns = tree->node_size;
  node_copy& x = parts[0];
  size_t starts[kMaxParts];
  morv_err err = choose_parts(sequence{x.get(), ns, &e}, starts, count);
  if (err) return err;
  for (size_t p = 1; p < *count; ++p) {
    if ((err = claim(tree, &parts[p].number))) {
      MORV_ERROR("Error while claiming node.\n");
      return err;
    }
    if (!parts[p].bytes.allocate(ns)) {
      MORV_ERROR("Error while allocating node-sized (%zu bytes) buffer to hold the claimed node "
                 "data.\n",
                 size_t{ns});
      return MORV_ERR_NO_MEMORY;
    }
    uint8_t* k = parts[p].get();
    k[nd::kKind] = x.get()[nd::kKind];
    k[nd::kHeight] = x.get()[nd::kHeight];
    set_offset_entry(k, ns, 0, nd::kFirstRecordOffset);
  }
  // The old records of each part leave x, the last part first.
  for (size_t p = *count; p-- > 1;) {
    const size_t s = starts[p];
    const size_t first = s <= e.at ? s : (s >= e.at + e.count ? s - e.count : e.at);
    move_tail(tree, x, static_cast<uint16_t>(first), parts[p]);
  }
  for (size_t q = 0; q < e.count; ++q) {
    const size_t j = e.at + q;
    size_t p = *count - 1;
    while (starts[p] > j) --p;
    const uint16_t local = static_cast<uint16_t>(j - starts[p]);
    insert_record(tree, parts[p].get(), parts[p].number, local, e.records[q], e.sizes[q]);
    if (q == 0 && placed) *placed = placement{parts[p].number, local};
  }
  if ((err = link_parts(tree, parts, *count))) return err;
  for (size_t p = 0; p < *count; ++p)
    if ((err = write_node(tree, parts[p]))) return err;
  return MORV_OK;
}

// What the parent of a node edited at `level` must do: take index records
// for the parts of a split, or a smaller first key now; a grown first key
// and an emptied node wait for the end of the transaction.
[[nodiscard]] morv_err prepare_up(morv_btree* tree, const tree_header& h, const tree_path& path,
                                  size_t level, const node_copy* parts, size_t count,
                                  upward* up) {
  const uint16_t ns = tree->node_size;
  const node_copy& x = parts[0];
  const uint8_t height = node_height(x.get());
  const uint32_t parent = path.node[level - 1];
  const uint16_t i = path.index[level - 1];
  mapping m(tree->fork);
  morv_err err = map_node(tree, h, parent, static_cast<uint8_t>(height + 1), &m);
  if (err) return err;
  if (child_at(m.get(), ns, i) != x.number) {
    MORV_ERROR("Invalid node data: Index record %hu of node %lu does not point to node %lu.\n", i,
               morv_ul(parent), morv_ul(x.number));
    return MORV_ERR_CORRUPT;
  }
  const uint8_t* parent_key = record_at(m.get(), ns, i);
  if (count == 1) {
    if (num_records(x.get()) == 0) return pend(tree, x.number, height, parent_key);
    const uint8_t* first = record_at(x.get(), ns, 0);
    if (same_key(first, parent_key)) return MORV_OK;
    if (tree->priv->compare_keys(first, parent_key, h.compare_type()) >= 0)
      return pend(tree, x.number, height, parent_key);
  }
  size_t bytes = 0;
  for (size_t p = 0; p < count; ++p) bytes += index_record_size(record_at(parts[p].get(), ns, 0));
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
    const uint8_t* key = record_at(parts[p].get(), ns, 0);
    make_index_record(key, parts[p].number, out);
    up->change.records[p] = out;
    up->change.sizes[p] = index_record_size(key);
    out += up->change.sizes[p];
  }
  up->has_change = true;
  unpend(tree, x.number);
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
  if ((err = read_node(tree, h, path.node[level], height, &x))) return err;
  if (e.at + e.remove > num_records(x.get())) {
    MORV_CRITICAL("Internal error: Edit of records %hu to %hu beyond the %hu records of node %lu.\n",
                  e.at, static_cast<uint16_t>(e.at + e.remove), num_records(x.get()),
                  morv_ul(x.number));
    return MORV_ERR_INTERNAL;
  }
  mark_removed(tree, x.number, e.at, e.remove);
  remove_records(tree, x.get(), x.number, e.at, e.remove);
  size_t need = 0;
  for (size_t q = 0; q < e.count; ++q) need += e.sizes[q] + nd::kOffsetEntrySize;
  size_t count = 1;
  if (need <= free_room(x.get(), ns)) {
    for (size_t q = 0; q < e.count; ++q)
      insert_record(tree, x.get(), x.number, static_cast<uint16_t>(e.at + q), e.records[q],
                    e.sizes[q]);
    if (placed && e.count) *placed = placement{x.number, e.at};
    if ((err = write_node(tree, x))) return err;
  } else {
    if (level == 0) {
      MORV_ERROR("Unable to split root node.\n");
      return MORV_ERR_INTERNAL;
    }
    if ((err = split(tree, e, parts, &count, placed))) return err;
  }
  if (level > 0) return prepare_up(tree, h, path, level, parts, count, up);
  // The root has no index record; an emptied root leaves the tree empty.
  if (num_records(x.get()) == 0) return pend(tree, x.number, height, nullptr);
  return MORV_OK;
}

// Applies `e` at `level` and whatever it asks of the levels above.
[[nodiscard]] morv_err edit_levels(morv_btree* tree, const tree_path& path, size_t level,
                                   const edit& first, placement* placed) {
  upward a;
  upward b;
  upward* next = &a;
  upward* spare = &b;
  edit e = first;
  for (size_t l = level;; --l) {
    next->has_change = false;
    morv_err err = edit_node(tree, path, l, e, l == level ? placed : nullptr, next);
    if (err || !next->has_change) return err;
    e = next->change;  // its records live in next->storage until the level after
    upward* used = next;
    next = spare;
    spare = used;
  }
}

}  // namespace

// ============================================================ insertion

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

namespace {

// A tree without a root (rootNode 0, treeDepth 0, as a fresh extents
// overflow file is) gets a claimed node as its root leaf, which is also the
// first and last leaf.
[[nodiscard]] morv_err make_root_leaf(morv_btree* tree) {
  node_copy root;
  morv_err err = claim(tree, &root.number);
  if (err) {
    MORV_ERROR("Error while claiming node.\n");
    return err;
  }
  if (!root.bytes.allocate(tree->node_size)) return MORV_ERR_NO_MEMORY;
  root.get()[nd::kKind] = static_cast<uint8_t>(nd::kKindLeaf);
  root.get()[nd::kHeight] = nd::kLeafHeight;
  set_offset_entry(root.get(), tree->node_size, 0, nd::kFirstRecordOffset);
  if ((err = write_node(tree, root))) return err;
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
  const uint16_t ns = tree->node_size;
  const size_t leaf = path->last();
  *moved = false;
  for (size_t k = leaf; k-- > 0;) {
    mapping m(tree->fork);
    morv_err err = map_node(tree, h, path->node[k], static_cast<uint8_t>(h.depth() - k), &m);
    if (err) return err;
    if (path->index[k] + 1u >= num_records(m.get())) continue;
    ++path->index[k];
    uint32_t child = child_at(m.get(), ns, path->index[k]);
    for (size_t j = k + 1; j <= leaf; ++j) {
      path->node[j] = child;
      path->index[j] = 0;
      if (j == leaf) break;
      mapping c(tree->fork);
      if ((err = map_node(tree, h, child, static_cast<uint8_t>(h.depth() - j), &c))) return err;
      child = child_at(c.get(), ns, 0);
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
  mapping m(tree->fork);
  if ((err = map_node(tree, h, wanted, nd::kLeafHeight, &m))) return err;
  if (num_records(m.get()) != 0 &&
      tree->priv->compare_keys(record_at(m.get(), tree->node_size, 0), key, h.compare_type()) <= 0)
    return MORV_OK;
  *path = next;
  *position = 0;
  return MORV_OK;
}

[[nodiscard]] morv_err bump_leaf_records(morv_btree* tree, bool up) {
  tree_header h;
  morv_err err = read_tree_header(tree, &h);
  if (err) return err;
  h.set(hr::kLeafRecords, h.leaf_records() + (up ? 1u : uint32_t{0xFFFFFFFF}));
  if ((err = tree_write(tree, hr::kForkOffset, h.raw, hr::kSize))) {
    if (up)
      MORV_ERROR("Error while writing out incremented leaf record count in header record.\n");
    else
      MORV_ERROR("Error while writing out decremented 'leafRecords' in B-tree header record.\n");
  }
  return err;
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
  tree_path path;
  stop s{};
  mapping m(tree->fork);
  if ((err = descend(tree, h, key, h.root(), static_cast<uint8_t>(h.depth()), nd::kLeafHeight,
                     &path, &s, &m))) {
    MORV_ERROR("Error while searching for insert location.\n");
    return err;
  }
  if (s.exact) {
    MORV_ERROR("ERROR:Unable to insert because already exists?!\n");
    return MORV_ERR_EXISTS;
  }
  uint16_t p = s.after_last ? num_records(m.get()) : path.index[path.last()];
  if ((err = m.unmap())) return err;
  if (location && location->locator && s.after_last &&
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
  mapping leaf(tree->fork);
  if ((err = read_tree_header(tree, &h)) ||
      (err = map_node(tree, h, placed.node, nd::kLeafHeight, &leaf)))
    return err;
  if ((err = open_on(tree, placed.node, leaf.get(), placed.index, out_locator))) {
    MORV_ERROR("Error while creating morv_btree_record_locator.\n");
    return err;
  }
  return leaf.unmap();
}

}  // namespace

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

// ============================================================ deletion

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
  if (h.root() != 0 && (err = peek_height(tree, node, &height))) return err;
  if (height == 0 || height > h.depth() || locator->key_size > kMaxKeySize) {
    MORV_ERROR("Invalid node data: Record %hu of node %lu is not where its key leads.\n", index,
               morv_ul(node));
    return MORV_ERR_CORRUPT;
  }
  uint8_t key[kMaxKeySize];
  memcpy(key, locator->key, locator->key_size);
  tree_path path;
  stop s{};
  mapping m(tree->fork);
  if ((err = descend(tree, h, key, h.root(), static_cast<uint8_t>(h.depth()), height, &path, &s,
                     &m)))
    return err;
  if (!s.exact || path.node[path.last()] != node || path.index[path.last()] != index) {
    MORV_ERROR("Invalid node data: Record %hu of node %lu is not where its key leads.\n", index,
               morv_ul(node));
    return MORV_ERR_CORRUPT;
  }
  if ((err = m.unmap())) return err;
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
  const uint32_t flink = load_be32(x.get() + nd::kFLink);
  const uint32_t blink = load_be32(x.get() + nd::kBLink);
  uint8_t descriptor[nd::kDescriptorSize];
  uint8_t link[4];
  morv_err err = MORV_OK;
  if (blink) {
    store_be32(link, flink);
    if ((err = read_sibling(tree, blink, x.get(), x.number, nd::kFLink, descriptor)) ||
        (err = tree_write(tree, node_offset(tree, blink) + nd::kFLink, link, sizeof link)))
      return err;
  }
  if (flink) {
    store_be32(link, blink);
    if ((err = read_sibling(tree, flink, x.get(), x.number, nd::kBLink, descriptor)) ||
        (err = tree_write(tree, node_offset(tree, flink) + nd::kBLink, link, sizeof link)))
      return err;
  }
  if (node_kind(x.get()) == nd::kKindLeaf) {
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
  return edit_levels(tree, path, level - 1, e, nullptr);
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
    return num_records(root.get()) ? MORV_OK : empty_tree(tree, entry.number);
  }
  if (entry.key_size == 0 || entry.height >= h.depth()) {
    MORV_CRITICAL("Internal error: Node %lu waits for an index record it does not have.\n",
                  morv_ul(entry.number));
    return MORV_ERR_INTERNAL;
  }
  tree_path path;
  stop s{};
  mapping m(tree->fork);
  if ((err = descend(tree, h, entry.key, h.root(), static_cast<uint8_t>(h.depth()),
                     static_cast<uint8_t>(entry.height + 1), &path, &s, &m))) {
    MORV_ERROR("Error while searching for index record of deleted record's node.\n");
    return err;
  }
  const size_t parent_level = path.last();
  const uint16_t i = path.index[parent_level];
  if (!s.exact || child_at(m.get(), ns, i) != entry.number) {
    MORV_ERROR("Index record of deleted record's node not found.\n");
    return MORV_ERR_CORRUPT;
  }
  if ((err = m.unmap())) return err;
  path.node[parent_level + 1] = entry.number;
  path.index[parent_level + 1] = 0;
  path.levels = parent_level + 2;
  node_copy x;
  if ((err = read_node(tree, h, entry.number, entry.height, &x))) return err;
  if (num_records(x.get()) == 0) return remove_node(tree, path, parent_level + 1, x);
  const uint8_t* first = record_at(x.get(), ns, 0);
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
[[nodiscard]] morv_err settle_pending(morv_btree* tree) {
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

}  // namespace

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

// ============================================================ transactions (clients)

morv_err morv_btree_transaction_begin(morv_btree* tree) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  morv_err err = lock.lock_write();
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  txn_begin(tree);
  return lock.finish(MORV_OK);
}

morv_err morv_btree_transaction_end(morv_btree* tree, morv_err result) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  morv_err err = lock.lock_write();
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return result ? result : err;
  }
  return lock.finish(txn_end(tree, result));
}

morv_err morv_btree_transaction_prepare(morv_btree* tree) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  morv_err err = lock.lock_write();
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  transaction& t = tree->priv->txn;
  morv_err result = t.failure;
  if (!result && t.depth) result = settle_pending(tree);
  if (result && t.depth && !t.failure) t.failure = result;
  return lock.finish(result);
}

// ============================================================ tree growth
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

namespace {
namespace growth {

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

// Checks one part: it lies inside its node and marks no node past totalNodes.
[[nodiscard]] morv_err check_part(const uint8_t* node, uint16_t node_size, const part& p,
                                  uint64_t node_offset, chain* c) {
  if (p.first < nd::kFirstRecordOffset || p.first + p.length > node_size) {
    MORV_ERROR("Invalid node data: First record offset is out of range (%hu).", p.first);
    return MORV_ERR_CORRUPT;
  }
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

// Reads a map node of the chain into `node` and checks its shape.
[[nodiscard]] morv_err read_map_node(morv_btree* tree, uint32_t number, uint8_t* node,
                                     uint16_t* first, uint16_t* free_space) {
  const uint16_t ns = tree->node_size;
  if (morv_err err = morv_fork_read(tree->fork, uint64_t{number} * ns, node, ns, nullptr)) {
    MORV_ERROR("Error while mapping last map node's descriptor.\n");
    return err;
  }
  if (static_cast<int8_t>(node[nd::kKind]) != nd::kKindMap || load_be16(node + nd::kNumRecords) != 1) {
    MORV_ERROR("Invalid node data: Expected map node, got node kind %hhd.\n",
               static_cast<int8_t>(node[nd::kKind]));
    return MORV_ERR_CORRUPT;
  }
  *first = offset_entry(node, ns, 0);
  *free_space = offset_entry(node, ns, 1);
  if (*free_space < *first || *free_space > ns - 2 * nd::kOffsetEntrySize) {
    MORV_ERROR("Invalid node data: Free space offset is out of range (%hu).", *free_space);
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

// Walks the header node and the map nodes behind it, bounded by totalNodes.
[[nodiscard]] morv_err walk_chain(morv_btree* tree, uint8_t* node, chain* c) {
  const uint16_t ns = tree->node_size;
  if (morv_err err = morv_fork_read(tree->fork, 0, node, ns, nullptr)) {
    MORV_ERROR("Error while mapping B-tree header record.\n");
    return err;
  }
  memcpy(c->header_record, node + hr::kForkOffset, hr::kSize);
  c->total_nodes = load_be32(c->header_record + hr::kTotalNodes);
  if (static_cast<int8_t>(node[nd::kKind]) != nd::kKindHeader || load_be16(node + nd::kNumRecords) != nd::kHeaderNodeRecords) {
    MORV_ERROR("HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
               __func__, static_cast<int8_t>(node[nd::kKind]), load_be16(node + nd::kNumRecords));
    return MORV_ERR_CORRUPT;
  }
  part p{0, offset_entry(node, ns, nd::kMapRecordIndex), uint64_t{ns} - nd::kHeaderNodeNonMapBytes, 0};
  if (morv_err err = check_part(node, ns, p, 0, c)) return err;
  c->last_node = 0;
  for (uint32_t link = load_be32(node + nd::kFLink), steps = 0; link != 0; ++steps) {
    if (link >= c->total_nodes || steps >= c->total_nodes) {
      MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node %lu exceeds the total number "
                 "of nodes (%lu).\n",
                 morv_ul(link), morv_ul(c->last_node), morv_ul(c->total_nodes));
      return MORV_ERR_CORRUPT;
    }
    uint16_t first = 0, free_space = 0;
    if (morv_err err = read_map_node(tree, link, node, &first, &free_space)) return err;
    p = part{link, first, uint64_t{free_space} - first, p.earlier + p.length};
    if (morv_err err = check_part(node, ns, p, uint64_t{link} * ns, c)) return err;
    c->last_node = link;
    link = load_be32(node + nd::kFLink);
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
    if (morv_fork_write(tree->fork, e.offset, e.old, e.length, nullptr) != MORV_OK)
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
  return morv_fork_write(tree->fork, offset, bytes, length, nullptr);
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
  if (morv_err err = morv_fork_write(tree->fork, at, node, ns, nullptr)) {
    MORV_ERROR("Error while writing out node descriptor of claimed node.\n");
    return err;
  }
  uint8_t entry[nd::kOffsetEntrySize];
  store_be16(entry, static_cast<uint16_t>(nd::kFirstRecordOffset + ns - kMapNodeNonMapBytes));
  if (morv_err err = morv_fork_write(tree->fork, at + ns - 2 * nd::kOffsetEntrySize, entry, 2, nullptr)) {
    MORV_ERROR("Error while writing out modified free space pointer.\n");
    return err;
  }
  store_be16(entry, nd::kFirstRecordOffset);
  if (morv_err err = morv_fork_write(tree->fork, at + ns - nd::kOffsetEntrySize, entry, 2, nullptr)) {
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
  if (morv_err err = walk_chain(tree, node.get(), &c)) return err;
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

}  // namespace growth
}  // namespace

morv_err morv_btree_expand(morv_btree* tree, morv_volume* volume) {
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock, kReleaseFailed);
  if (morv_err err = lock.lock_write()) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  return lock.finish(growth::expand_locked(tree, volume));
}
