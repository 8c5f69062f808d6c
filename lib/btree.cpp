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
// lastLeafNode; leafRecords counts the leaf records; freeNodes counts the
// clear bits of the bitmap. Nodes are never freed and the root never splits,
// so a tree never shrinks or deepens. A node emptied by deletions stays in
// the tree; its bytes at 14 still hold its last record, whose key is also
// the one its parent's index record carries.
//
// Every node the engine walks is checked where it is mapped (kind, record
// count, offsets inside the node and ascending, keys inside their records),
// and every descent is bounded by totalNodes, so that damaged trees end an
// operation with MORV_ERR_CORRUPT rather than a loop or a stray access.
#include "btree.hpp"

#include <cstring>
#include <new>

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
constexpr size_t kReserved = 12;
constexpr int8_t kKindLeaf = -1;
constexpr int8_t kKindIndex = 0;
constexpr int8_t kKindHeader = 1;
constexpr int8_t kKindMap = 2;
constexpr uint16_t kFirstRecordOffset = 14;
constexpr uint16_t kHeaderNodeRecords = 3;
constexpr uint16_t kMapNodeRecords = 1;
constexpr uint16_t kMapRecordIndex = 2;      // the header node's bitmap record
constexpr size_t kHeaderNodeNonMapBytes = 256;  // descriptor, header and user records, offsets
constexpr size_t kIndexDataSize = 4;         // child node number
constexpr size_t kOffsetEntrySize = 2;
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
constexpr uint8_t kMaxHeight = 255;
constexpr uint16_t kMinNodeSize = 512;
constexpr uint16_t kMaxNodeSize = 32768;

}  // namespace

struct morv_btree_private {
  uint32_t kind;
  morv_btree_compare_keys_fn compare_keys;
  morv_btree_record_locator* open_locators;
  morv_rwlock* open_locators_lock;
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
uint16_t num_records(const uint8_t* node) { return load_be16(node + nd::kNumRecords); }
size_t padded(size_t size) { return size + (size & 1); }
uint64_t node_offset(const morv_btree* tree, uint32_t node) {
  return uint64_t{node} * tree->node_size;
}

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

[[nodiscard]] morv_err read_header(morv_btree* tree, uint8_t* header) {
  return morv_fork_read(tree->fork, hr::kForkOffset, header, hr::kSize, nullptr);
}
[[nodiscard]] morv_err write_header(morv_btree* tree, const uint8_t* header) {
  return morv_fork_write(tree->fork, hr::kForkOffset, header, hr::kSize, nullptr);
}

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
  priv[0] = morv_btree_private{kind, compare_keys, nullptr, lock};
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
                                         tp->open_locators, 0, padded_key, record_size, copy};
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
  err = morv_fork_write(p->tree->fork, p->data_offset, data, data_size, nullptr);
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

namespace {

// Moves the locators of records `first_index` and above of `node` to
// `new_node`: their index drops by `first_index`, and their data moves from
// fork byte `old_base` onwards to `new_base` onwards (a split moves a run of
// records to the start of another node, which may lie before or after).
void move_locators_to_node(morv_btree* tree, uint32_t node, uint16_t first_index,
                           uint32_t new_node, uint64_t old_base, uint64_t new_base) {
  for (morv_btree_record_locator* l = tree->priv->open_locators; l; l = l->priv->next) {
    morv_btree_record_locator_private* p = l->priv;
    if (p->deleted || p->node_number != node || p->record_index < first_index) continue;
    p->node_number = new_node;
    p->record_index = static_cast<uint16_t>(p->record_index - first_index);
    p->data_offset = p->data_offset - old_base + new_base;
  }
}

void mark_deleted(morv_btree_record_locator* locator) { locator->priv->deleted = 1; }

}  // namespace

// ============================================================ search and iteration

namespace {

// Where a descent ended: the record (or, in a node without records, the
// place of record 0) and how its key compared with the search key.
struct position {
  uint32_t node;
  uint16_t index;
  uint32_t exact_match;
  uint32_t after_last_record;
  bool has_record;
};

// The nodes a descent passed, from the root down, and in each the index of
// the record it followed (or, in the last one, where it stopped).
constexpr size_t kMaxPath = 256;
struct search_path {
  uint32_t node[kMaxPath];
  uint16_t index[kMaxPath];
  size_t count;
  void add(uint32_t n, uint16_t i) {
    if (count < kMaxPath) {
      node[count] = n;
      index[count] = i;
    }
    ++count;
  }
};

// Checks what every walk relies on in a mapped node: the record count fits,
// offsets are even, inside 14..(start of the offset array) and ascending, and
// in leaf and index nodes each key (and an index record's child number) lies
// inside its record.
[[nodiscard]] morv_err validate_node(const uint8_t* node, uint16_t node_size) {
  const uint16_t count = num_records(node);
  if (nd::kOffsetEntrySize * (count + 1u) > node_size - nd::kDescriptorSize) {
    MORV_ERROR("Invalid node data: Node cannot fit %hu records given the node size (%hu).\n",
               count, node_size);
    return MORV_ERR_CORRUPT;
  }
  const size_t array_start = node_size - nd::kOffsetEntrySize * (count + 1u);
  for (uint16_t i = 0; i <= count; ++i) {
    const uint16_t off = offset_entry(node, node_size, i);
    if (off < nd::kFirstRecordOffset || off > array_start || (off & 1)) {
      MORV_ERROR("Invalid node data: Offset for record %hu is out of range (%hu).\n", i, off);
      return MORV_ERR_CORRUPT;
    }
    const uint16_t prev = i ? offset_entry(node, node_size, i - 1u) : off;
    if (off < prev) {
      MORV_ERROR("Invalid node data: Records offsets are not in order (offset for record %hu: %hu, "
                 "offset for record %hu: %hu).\n",
                 static_cast<uint16_t>(i - 1), prev, i, off);
      return MORV_ERR_CORRUPT;
    }
  }
  const int8_t kind = node_kind(node);
  if (kind != nd::kKindLeaf && kind != nd::kKindIndex) return MORV_OK;
  const size_t child_size = kind == nd::kKindIndex ? nd::kIndexDataSize : 0;
  for (uint16_t i = 0; i < count; ++i) {
    const uint16_t off = offset_entry(node, node_size, i);
    const size_t size = size_t{offset_entry(node, node_size, i + 1u)} - off;
    if (size < 2 || padded(size_t{load_be16(node + off)} + 2) + child_size > size) {
      MORV_ERROR("Invalid node data: Key of record %hu does not fit in its record (%zu bytes).\n",
                 i, size);
      return MORV_ERR_CORRUPT;
    }
  }
  return MORV_OK;
}

// An index record's child number follows its key padded to an even size,
// where the record was built; for the even keys of HFS+ that is directly
// behind the key.
uint32_t child_of(const uint8_t* node, uint16_t node_size, uint16_t index) {
  const uint8_t* record = node + offset_entry(node, node_size, index);
  return load_be32(record + padded(size_t{load_be16(record)} + 2));
}

// Opens a locator on record `index` of the mapped `node`.
[[nodiscard]] morv_err open_on(morv_btree* tree, uint32_t node_number, const uint8_t* node,
                               uint16_t index, morv_btree_record_locator** out_locator) {
  const uint16_t off = offset_entry(node, tree->node_size, index);
  const uint16_t next = offset_entry(node, tree->node_size, index + 1u);
  return morv_btree_record_locator_open(tree, node_number, index, node + off, size_t{next} - off,
                                        node_offset(tree, node_number) + off, out_locator);
}

// Scans a validated node with records for the first key not before `key`
// (or the last record); *out_compare is that key's comparison.
uint16_t scan_node(const morv_btree* tree, const uint8_t* node, const uint8_t* key,
                   uint8_t compare_type, int* out_compare) {
  const uint16_t count = num_records(node);
  uint16_t i = 0;
  for (;; ++i) {
    const uint8_t* record = node + offset_entry(node, tree->node_size, i);
    *out_compare = tree->priv->compare_keys(record, key, compare_type);
    if (*out_compare >= 0 || i + 1u == count) return i;
  }
}

// The descent itself, with the header record mapped. A tree whose rootNode is
// 0 has no node to search (the empty-tree case): the result is a position
// without a record. A leaf without records, left behind by deletions, gives
// such a position too, on its record 0.
[[nodiscard]] morv_err descend(morv_btree* tree, const uint8_t* header, const uint8_t* key,
                               uint32_t start_node, int mode, uint8_t target_height,
                               position* out_position, morv_btree_record_locator** out_locator,
                               search_path* path) {
  const uint32_t total_nodes = load_be32(header + hr::kTotalNodes);
  const uint8_t compare_type = header[hr::kKeyCompareType];
  uint32_t node = start_node ? start_node : load_be32(header + hr::kRootNode);
  if (node == 0) {
    *out_position = position{0, 0, 0, 0, false};
    return MORV_OK;
  }
  if (total_nodes < node) {
    MORV_ERROR("HFSPlus:%s: Starting Node %lu > Total Nodes %lu\n",
               "morv_btree_search_node_internal", morv_ul(node), morv_ul(total_nodes));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  mapping m(tree->fork);
  morv_err err = m.map(node_offset(tree, node), tree->node_size);
  if (err) {
    MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(node));
    return err;
  }
  const uint16_t first = offset_entry(m.get(), tree->node_size, 0);
  if (first != nd::kFirstRecordOffset) {
    MORV_ERROR("HFSPlus:%s: Offset of record 0 in %lu is %hu, and not %zu!\n",
               "morv_btree_search_node_internal", morv_ul(node), first,
               size_t{nd::kFirstRecordOffset});
    return MORV_ERR_CORRUPT;
  }
  position pos{node, 0, 0, 0, false};
  for (uint32_t descents = 0;;) {
    const uint8_t* buf = m.get();
    err = validate_node(buf, tree->node_size);
    if (err) return err;
    const int8_t kind = node_kind(buf);
    const bool at_target = mode != -1 && kind == nd::kKindIndex && buf[nd::kHeight] <= target_height;
    if ((kind != nd::kKindLeaf && kind != nd::kKindIndex) || (kind == nd::kKindLeaf && mode != -1)) {
      MORV_ERROR("Invalid node kind: %hhd\n", kind);
      return MORV_ERR_CORRUPT;
    }
    if (num_records(buf) == 0) {
      if (kind == nd::kKindIndex && !at_target) {
        MORV_ERROR("Invalid node data: Index node %lu holds no records.\n", morv_ul(node));
        return MORV_ERR_CORRUPT;
      }
      pos = position{node, 0, 0, 0, false};
      if (path) path->add(node, 0);
      break;
    }
    int c = 0;
    const uint16_t i = scan_node(tree, buf, key, compare_type, &c);
    if (kind == nd::kKindLeaf || at_target) {
      pos = position{node, i, c == 0, c < 0, true};
      if (path) path->add(node, i);
      break;
    }
    const uint16_t followed = (i > 0 && c > 0) ? static_cast<uint16_t>(i - 1) : i;
    if (path) path->add(node, followed);
    const uint32_t child = child_of(buf, tree->node_size, followed);
    if (child == node) {
      MORV_ERROR("Index node points back to itself. Inconsistent B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    if (child >= total_nodes) {
      MORV_ERROR("Index node points to node after the last node. Inconsistent B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    if (++descents >= total_nodes) {
      MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    const uint64_t old_offset = m.offset();
    err = m.unmap();
    if (err) {
      MORV_ERROR("Error while unmapping raw node data of node at offset %llu.\n",
                 morv_ull(old_offset));
      return err;
    }
    err = m.map(node_offset(tree, child), tree->node_size);
    if (err) {
      MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(child));
      return err;
    }
    node = child;
  }
  morv_btree_record_locator* locator = nullptr;
  if (out_locator && pos.has_record) {
    err = open_on(tree, node, m.get(), pos.index, &locator);
    if (err) {
      MORV_ERROR("Error while creating morv_btree_record_locator.\n");
      return err;
    }
  }
  err = m.unmap();
  if (err) {
    MORV_ERROR("Error while unmapping raw node data.\n");
    morv_btree_record_locator_close_locked(&locator, 0);
    return err;
  }
  *out_position = pos;
  if (out_locator) *out_locator = locator;
  return MORV_OK;
}

// Maps the header record around a descent.
[[nodiscard]] morv_err search_common(morv_btree* tree, const uint8_t* key, uint32_t start_node,
                                     int mode, uint8_t height, position* out_position,
                                     morv_btree_record_locator** out_locator,
                                     search_path* path = nullptr) {
  if (!key) {
    MORV_ERROR("HFSPlus:%s: Invalid Search key\n", "morv_btree_search_node_internal");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  mapping header(tree->fork);
  morv_err err = header.map(hr::kForkOffset, hr::kSize);
  if (err) {
    MORV_ERROR("Error while mapping B-tree header record.\n");
    return err;
  }
  position pos{};
  morv_btree_record_locator* locator = nullptr;
  err = descend(tree, header.get(), key, start_node, mode, height, &pos,
                out_locator ? &locator : nullptr, path);
  if (err) return err;
  err = header.unmap();
  if (err) {
    MORV_ERROR("Error while unmapping B-tree header record.\n");
    morv_btree_record_locator_close_locked(&locator, 0);
    return err;
  }
  *out_position = pos;
  if (out_locator) *out_locator = locator;
  return MORV_OK;
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
  position pos{};
  morv_btree_record_locator* locator = nullptr;
  morv_err err = search_common(tree, search_key, start_node, mode, height, &pos, &locator);
  if (err) return err;
  *out_result = morv_btree_search_result{pos.exact_match, pos.after_last_record, locator};
  return MORV_OK;
}

morv_err morv_btree_search_node(morv_btree* tree, const uint8_t* search_key,
                                morv_btree_search_result* out_result) {
  morv_rwlock* lock = tree->priv->open_locators_lock;
  morv_err err = morv_rwlock_lock_write(lock);
  if (err) {
    MORV_ERROR("Error while acquiring open locators list lock in write mode.\n");
    return err;
  }
  morv_btree_search_result result{};
  err = morv_btree_search_node_internal(tree, search_key, 0, -1, 0, &result);
  morv_err unlock_err = morv_rwlock_unlock(lock);
  if (unlock_err) {
    MORV_ERROR("Error while releasing open locators list read-mode lock.\n");
    if (!err) {
      morv_btree_search_result_release(&result);
      err = unlock_err;
    }
  }
  if (err) return err;
  *out_result = result;
  return MORV_OK;
}

namespace {

// Follows fLink from `m`'s node to the next node that holds records;
// *out_node is 0 at the end of the level. Emptied nodes are passed over, and
// a chain longer than the tree file is refused.
[[nodiscard]] morv_err next_node_with_records(morv_btree* tree, mapping* m, uint32_t* out_node) {
  const uint64_t max_hops = *tree->fork->logical_size / tree->node_size;
  for (uint64_t hops = 0;; ++hops) {
    const uint32_t next = load_be32(m->get() + nd::kFLink);
    if (next == 0) {
      *out_node = 0;
      return MORV_OK;
    }
    if (hops >= max_hops) {
      MORV_ERROR("Aborting search due to cyclic references in the B-tree.\n");
      return MORV_ERR_CORRUPT;
    }
    morv_err err = m->unmap();
    if (err) {
      MORV_ERROR("Error while unmapping original raw node data.\n");
      return err;
    }
    err = m->map(node_offset(tree, next), tree->node_size);
    if (err) {
      MORV_ERROR("Error while mapping raw node data of next node.\n");
      return err;
    }
    if (num_records(m->get()) != 0) {
      *out_node = next;
      return MORV_OK;
    }
  }
}

// Checks the offsets of record `index` and of the one behind it.
[[nodiscard]] morv_err check_record_bounds(const uint8_t* node, uint16_t node_size, uint16_t index) {
  const uint16_t count = num_records(node);
  if (nd::kOffsetEntrySize * (count + 1u) > node_size - nd::kDescriptorSize) {
    MORV_ERROR("Invalid node data: Node cannot fit %hu records given the node size (%hu).\n",
               count, node_size);
    return MORV_ERR_CORRUPT;
  }
  const size_t array_start = node_size - nd::kOffsetEntrySize * (count + 1u);
  const uint16_t off = offset_entry(node, node_size, index);
  const uint16_t next = offset_entry(node, node_size, index + 1u);
  if (off < nd::kFirstRecordOffset || off > array_start) {
    MORV_ERROR("Invalid node data: Offset for record %hu is out of range (%hu).\n", index, off);
    return MORV_ERR_CORRUPT;
  }
  if (next < nd::kFirstRecordOffset || next > array_start) {
    MORV_ERROR("Invalid node data: Offset for record %hu is out of range (%hu).\n",
               static_cast<uint16_t>(index + 1), next);
    return MORV_ERR_CORRUPT;
  }
  if (next < off) {
    MORV_ERROR("Invalid node data: Records offsets are not in order (offset for record %hu: %hu, "
               "offset for record %hu: %hu).\n",
               index, off, static_cast<uint16_t>(index + 1), next);
    return MORV_ERR_CORRUPT;
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_btree_get_next_record_internal(morv_btree* tree, morv_btree_record_locator* locator,
                                             morv_btree_record_locator** out_next) {
  uint32_t node = *locator->node_number;
  uint32_t wanted = uint32_t{*locator->record_index} + 1;
  mapping m(tree->fork);
  morv_err err = m.map(node_offset(tree, node), tree->node_size);
  if (err) {
    MORV_ERROR("Error while mapping raw node data.\n");
    return err;
  }
  const int8_t kind = node_kind(m.get());
  if (kind != nd::kKindIndex && kind != nd::kKindLeaf) {
    MORV_ERROR("Invalid node kind: %hhd\n", kind);
    return MORV_ERR_CORRUPT;
  }
  const uint16_t count = num_records(m.get());
  if (count < wanted) {
    MORV_ERROR("Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
               static_cast<uint16_t>(wanted), count);
    return MORV_ERR_CORRUPT;
  }
  morv_btree_record_locator* next = nullptr;
  if (wanted == count) {
    err = next_node_with_records(tree, &m, &node);
    if (err) return err;
    wanted = 0;
  }
  if (node != 0) {
    err = check_record_bounds(m.get(), tree->node_size, static_cast<uint16_t>(wanted));
    if (err) return err;
    err = open_on(tree, node, m.get(), static_cast<uint16_t>(wanted), &next);
    if (err) {
      MORV_ERROR("Error while creating target record locator.\n");
      return err;
    }
  }
  err = m.unmap();
  if (err) {
    MORV_ERROR("Error while unmapping raw node data.\n");
    morv_btree_record_locator_close_locked(&next, 0);
    return err;
  }
  *out_next = next;
  return MORV_OK;
}

morv_err morv_btree_get_next_record(morv_btree* tree, morv_btree_record_locator* locator,
                                    morv_btree_record_locator** out_next) {
  morv_rwlock* lock = tree->priv->open_locators_lock;
  morv_err err = morv_rwlock_lock_write(lock);
  if (err) {
    MORV_ERROR("Error while acquiring open locators list lock in write mode.\n");
    return err;
  }
  morv_btree_record_locator* next = nullptr;
  err = morv_btree_get_next_record_internal(tree, locator, &next);
  morv_err unlock_err = morv_rwlock_unlock(lock);
  if (unlock_err) {
    MORV_ERROR("Error while releasing open locators list read-mode lock.\n");
    if (!err) {
      morv_btree_record_locator_close(&next);
      err = unlock_err;
    }
  }
  if (err) return err;
  *out_next = next;
  return MORV_OK;
}

// ============================================================ node allocation

namespace {

// One part of the node bitmap: the header node's map record or a map node's
// record, `length` bytes at `first` inside node `node` (mapped as `map`).
struct bitmap_part {
  uint32_t node;
  uint16_t first;
  size_t length;
  size_t earlier;  // bitmap bytes in the parts before this one
};

// Steps from the part in `m` to the map node its fLink names, checking that
// node before any of its bits is trusted.
[[nodiscard]] morv_err next_map_part(morv_btree* tree, uint32_t total_nodes, uint32_t link,
                                     mapping* m, bitmap_part* part) {
  morv_err err = m->unmap();
  if (err) {
    MORV_ERROR("Error %llu while unmapping previously mapped map node data.\n", morv_ull(err));
    return err;
  }
  if (link == 0) {
    MORV_ERROR("Missing map node after node %lu (%lu bytes of node bitmap data missing).\n",
               morv_ul(part->node),
               morv_ul(static_cast<uint32_t>((total_nodes + 7) / 8 - part->earlier - part->length)));
    return MORV_ERR_CORRUPT;
  }
  err = m->map(node_offset(tree, link), tree->node_size);
  if (err) {
    MORV_ERROR("Error %llu while mapping next map node into memory.\n", morv_ull(err));
    return err;
  }
  const uint8_t* buf = m->get();
  const uint16_t ns = tree->node_size;
  if (node_kind(buf) != nd::kKindMap) {
    MORV_ERROR("Invalid node data: Expected map node, got node kind %hhd.\n", node_kind(buf));
    return MORV_ERR_CORRUPT;
  }
  if (num_records(buf) != nd::kMapNodeRecords) {
    MORV_ERROR("Invalid node data: Unexpected number of records in map node (%hu).\n",
               num_records(buf));
    return MORV_ERR_CORRUPT;
  }
  if (load_be32(buf + nd::kFLink) > total_nodes) {
    MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node %lu exceeds the total number of "
               "nodes (%lu).\n",
               morv_ul(load_be32(buf + nd::kFLink)), morv_ul(link), morv_ul(total_nodes));
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
  if (first > free_space) {
    MORV_ERROR("Invalid node data: Records offsets out of order in map node %lu (first offset: %hu, "
               "free space: %hu)",
               morv_ul(link), first, free_space);
    return MORV_ERR_CORRUPT;
  }
  *part = bitmap_part{link, first, size_t{free_space} - first, part->earlier + part->length};
  return MORV_OK;
}

// Finds the lowest clear bit from node 1 on; *out_node is total_nodes when
// every node is in use. `m` ends mapped on the map node that holds the bit
// (unmapped when the bit is in the header node).
[[nodiscard]] morv_err find_free_node(morv_btree* tree, const uint8_t* header_node, mapping* m,
                                      bitmap_part* part, uint32_t* out_node) {
  const uint32_t total_nodes = load_be32(header_node + hr::kForkOffset + hr::kTotalNodes);
  uint32_t link = load_be32(header_node + nd::kFLink);
  const uint8_t* bytes = header_node;
  uint32_t b = 1;
  for (; b < total_nodes; ++b) {
    // A node's bit is read from the part that holds its byte: a byte index
    // equal to the part's length already belongs to the next part.
    while (b / 8 - part->earlier >= part->length) {
      morv_err err = next_map_part(tree, total_nodes, link, m, part);
      if (err) return err;
      bytes = m->get();
      link = load_be32(bytes + nd::kFLink);
    }
    const uint8_t byte = bytes[part->first + (b / 8 - part->earlier)];
    if (!(byte & (0x80u >> (b % 8)))) break;
  }
  *out_node = b;
  return MORV_OK;
}

}  // namespace

morv_err morv_btree_claim_node(morv_btree* tree, uint32_t* out_node_number) {
  const uint16_t ns = tree->node_size;
  mapping header_map(tree->fork);
  morv_err err = header_map.map(0, ns);
  if (err) {
    MORV_ERROR("Error while mapping complete header node of B-tree.\n");
    return err;
  }
  const uint8_t* hn = header_map.get();
  const uint32_t total_nodes = load_be32(hn + hr::kForkOffset + hr::kTotalNodes);
  if (load_be32(hn + nd::kFLink) > total_nodes) {
    MORV_ERROR("Invalid node data: Value of 'fLink' (%lu) in node 0 exceeds the total number of "
               "nodes (%lu).\n",
               morv_ul(load_be32(hn + nd::kFLink)), morv_ul(total_nodes));
    return MORV_ERR_CORRUPT;
  }
  const uint16_t map_first = offset_entry(hn, ns, nd::kMapRecordIndex);
  const size_t map_length = ns - nd::kHeaderNodeNonMapBytes;
  if (map_first < nd::kFirstRecordOffset || map_first + map_length > ns) {
    MORV_ERROR("Invalid node data: First record offset is out of range (%hu).", map_first);
    return MORV_ERR_CORRUPT;
  }
  bitmap_part part{0, map_first, map_length, 0};
  mapping map_node(tree->fork);
  uint32_t b = 0;
  err = find_free_node(tree, hn, &map_node, &part, &b);
  if (err) return err;
  if (b >= total_nodes) {
    MORV_ERROR("Need to expand B-tree, but this is not yet implemented.\n");
    return MORV_ERR_UNSUPPORTED;
  }
  uint8_t header[hr::kSize];
  memcpy(header, hn + hr::kForkOffset, hr::kSize);
  store_be32(header + hr::kFreeNodes, load_be32(header + hr::kFreeNodes) - 1);
  err = write_header(tree, header);
  if (err) {
    MORV_ERROR("Error while writing out modified tree header record after claiming node.\n");
    return err;
  }
  const uint8_t* bytes = part.node ? map_node.get() : hn;
  const size_t at = part.first + (b / 8 - part.earlier);
  const uint8_t mask = static_cast<uint8_t>(0x80u >> (b % 8));
  if (bytes[at] & mask) {
    MORV_CRITICAL("Internal error: Node is already allocated!\n");
    return MORV_ERR_INTERNAL;
  }
  const uint8_t byte = static_cast<uint8_t>(bytes[at] | mask);
  err = morv_fork_write(tree->fork, node_offset(tree, part.node) + at, &byte, 1, nullptr);
  if (err) {
    MORV_ERROR("Error while writing out modified bitmap byte after claiming node.\n");
    return err;
  }
  while ((err = map_node.unmap()) != MORV_OK) {
    MORV_ERROR("Error %llu while unmapping previously mapped map node data.\n", morv_ull(err));
  }
  err = header_map.unmap();
  if (err) {
    MORV_ERROR("Error while unmapping complete header node of B-tree.\n");
    return err;
  }
  *out_node_number = b;
  return MORV_OK;
}

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

[[nodiscard]] morv_err read_node(morv_btree* tree, uint32_t node, uint8_t* buf) {
  return morv_fork_read(tree->fork, node_offset(tree, node), buf, tree->node_size, nullptr);
}
[[nodiscard]] morv_err write_node(morv_btree* tree, uint32_t node, const uint8_t* buf) {
  return morv_fork_write(tree->fork, node_offset(tree, node), buf, tree->node_size, nullptr);
}

// Chooses the split index: the binary search over split points that keeps
// the two nodes' occupied sizes (the new record of R bytes at position p
// included) closest. A split point equal to numRecords would move no record
// and is never taken.
[[nodiscard]] morv_err choose_split_index(const uint8_t* buf, uint16_t ns, uint16_t p, size_t r,
                                          uint16_t* out_index) {
  const int64_t n = num_records(buf);
  const int64_t f = offset_entry(buf, ns, static_cast<size_t>(n));
  const int64_t rr = static_cast<int64_t>(r);
  const int64_t t = f + rr;
  int64_t best_difference = n + t - 14;
  int64_t best = -1;
  int64_t lo = 0;
  int64_t hi = n;
  while (lo != hi) {
    const int64_t m = lo + (hi + 1 - lo) / 2;
    if (m >= n) break;
    const int64_t e = p < m ? offset_entry(buf, ns, static_cast<size_t>(m)) + rr
                            : int64_t{offset_entry(buf, ns, static_cast<size_t>(m + 1))};
    const int64_t l = e + 2 * (m + 1);
    const int64_t q = t - e + 2 * (n - m + 2) + 14;
    if (l > ns && q > ns) {
      MORV_CRITICAL("Internal error: Occupied size for both split (%lu) and claimed (%lu) nodes "
                    "exceed the node size (%hu)!\n",
                    morv_ul(static_cast<uint32_t>(l)), morv_ul(static_cast<uint32_t>(q)), ns);
      return MORV_ERR_INTERNAL;
    }
    const int64_t difference = l > q ? l - q : q - l;
    if (difference < best_difference) {
      best_difference = difference;
      best = m;
    }
    if (l < q) {
      if (hi == m) break;
      lo = m + 1;
    } else {
      if (l == q || lo == m) break;
      hi = m - 1;
    }
  }
  if (best < 0 || best > 65535) {
    MORV_CRITICAL("Internal error: Invalid value for 'min_occupied_size_record' (%ld).\n",
                  static_cast<long>(best));
    return MORV_ERR_INTERNAL;
  }
  *out_index = static_cast<uint16_t>(best);
  return MORV_OK;
}

// Checks of the target node before a record goes in at `p`.
[[nodiscard]] morv_err check_insert_node(const uint8_t* buf, uint16_t ns, uint16_t p) {
  const uint16_t n = num_records(buf);
  if (nd::kOffsetEntrySize * (n + 8u) > ns) {
    MORV_ERROR("Invalid node data: Value of 'numRecords' (%hu) is too large for %hu byte node.\n",
               n, ns);
    return MORV_ERR_CORRUPT;
  }
  if (p > n) {
    MORV_ERROR("Invalid node data: Next record (%hu) is larger than the number of records (%hu).\n",
               p, n);
    return MORV_ERR_CORRUPT;
  }
  const uint16_t f = offset_entry(buf, ns, n);
  if (p != n) {
    const uint16_t next = offset_entry(buf, ns, p + 1u);
    if (next < offset_entry(buf, ns, p) || f > ns || f < next) return MORV_ERR_CORRUPT;
  }
  return validate_node(buf, ns);
}

// Splits the full node `*node` so that a record of `r` bytes fits at `*p`;
// on return *node and *p name where the record goes, `buf` holds that node.
[[nodiscard]] morv_err split_for_insert(morv_btree* tree, uint32_t* node, uint16_t* p, size_t r,
                                        uint8_t* buf) {
  const uint16_t ns = tree->node_size;
  const uint16_t n = num_records(buf);
  const uint16_t f = offset_entry(buf, ns, n);
  const uint16_t array_start = static_cast<uint16_t>(ns - nd::kOffsetEntrySize * (n + 1u));
  const uint16_t off_p = offset_entry(buf, ns, *p);
  if (offset_entry(buf, ns, 0) > off_p || off_p > f || f > array_start) {
    MORV_ERROR("Invalid node data: Record offsets are not in order (record 0: %hu, record %hu: %hu, "
               "free space: %hu, record offset array: %hu).\n",
               offset_entry(buf, ns, 0), *p, off_p, f, array_start);
    return MORV_ERR_CORRUPT;
  }
  uint16_t m = 0;
  morv_err err = choose_split_index(buf, ns, *p, r, &m);
  if (err) return err;
  uint32_t claimed = 0;
  err = morv_btree_split_node(tree, *node, m, &claimed);
  if (err) {
    MORV_ERROR("Error while splitting node.\n");
    return err;
  }
  if (claimed == 0) {
    MORV_CRITICAL("Unexpected: morv_btree_split_node returned 0.\n");
    return MORV_ERR_INTERNAL;
  }
  if (m < *p) {
    *node = claimed;
    *p = static_cast<uint16_t>(*p - m);
  }
  err = read_node(tree, *node, buf);
  if (err) {
    MORV_ERROR("Error while reading complete node data of claimed node.\n");
    return err;
  }
  const uint16_t count = num_records(buf);
  if (nd::kOffsetEntrySize * (count + 8u) > ns) {
    MORV_CRITICAL("Invalid node data in newly claimed node: Value of 'numRecords' (%hu) is too large "
                  "for %hu byte node.\n",
                  count, ns);
    return MORV_ERR_CORRUPT;
  }
  err = validate_node(buf, ns);
  if (err) return err;
  const size_t room = ns - offset_entry(buf, ns, count) - nd::kOffsetEntrySize * (count + 1u);
  if (room < r + nd::kOffsetEntrySize) {
    MORV_CRITICAL("Internal error: No room for a %zu byte record in node %lu after the split.\n", r,
                  morv_ul(*node));
    return MORV_ERR_INTERNAL;
  }
  return MORV_OK;
}

// Puts the record into `buf` at `p`: the records behind move up by `r`
// bytes, and the offset array grows by one entry.
[[nodiscard]] morv_err place_record(uint8_t* buf, uint16_t ns, uint16_t p, const uint8_t* key,
                                    const void* data, uint16_t data_size, uint16_t r) {
  const uint16_t n = num_records(buf);
  const uint16_t off_p = offset_entry(buf, ns, p);
  const uint16_t f = offset_entry(buf, ns, n);
  if (off_p != f) memmove(buf + off_p + r, buf + off_p, size_t{f} - off_p);
  morv_err err = morv_btree_node_make_record(key, load_be16(key), data, data_size, buf + off_p, r);
  if (err) {
    MORV_CRITICAL("Unexpected: Error while assembling B-tree node record from source key and data.");
    return err;
  }
  for (uint32_t i = n + 1u; i > p; --i) {
    set_offset_entry(buf, ns, i, static_cast<uint16_t>(offset_entry(buf, ns, i - 1) + r));
  }
  store_be16(buf + nd::kNumRecords, static_cast<uint16_t>(n + 1));
  return MORV_OK;
}

[[nodiscard]] morv_err bump_leaf_records(morv_btree* tree, int delta) {
  uint8_t header[hr::kSize];
  morv_err err = read_header(tree, header);
  if (err) {
    MORV_ERROR("Error while reading B-tree header record.\n");
    return err;
  }
  store_be32(header + hr::kLeafRecords,
             static_cast<uint32_t>(load_be32(header + hr::kLeafRecords) + delta));
  err = write_header(tree, header);
  if (err) {
    MORV_ERROR("Error while writing out incremented leaf record count in header record.\n");
  }
  return err;
}

// A new first record of a non-root node: its parent's index record, which
// carries `old_key`, is replaced by one with `new_key`.
[[nodiscard]] morv_err replace_parent_key(morv_btree* tree, uint32_t node, uint8_t height,
                                          const uint8_t* old_key, const uint8_t* new_key) {
  if (height == kMaxHeight) {
    MORV_ERROR("B-tree depth too large.\n");
    return MORV_ERR_CORRUPT;
  }
  morv_btree_search_result found{};
  morv_err err = morv_btree_search_node_internal(tree, old_key, 0, 0,
                                                 static_cast<uint8_t>(height + 1), &found);
  if (err) {
    MORV_ERROR("Error while searching for index node to modify.\n");
    return err;
  }
  if (!found.locator) return MORV_ERR_CORRUPT;
  err = morv_btree_delete_record_internal(tree, found.locator);
  morv_btree_record_locator_close_locked(&found.locator, 0);
  if (err) {
    MORV_ERROR("Error while deleting file/folder record from B-tree.\n");
    return err;
  }
  err = morv_btree_add_index_record(tree, new_key, static_cast<uint8_t>(height + 1), node);
  if (err) MORV_ERROR("Error while adding index record.\n");
  return err;
}

// Copies the key at offset 14 of `buf`: the node's first key before an
// insertion at position 0. In a node emptied by deletions these bytes are
// the last deleted record, whose key its parent's index record still carries.
[[nodiscard]] morv_err copy_first_key(const uint8_t* buf, uint16_t ns, morv::buffer<uint8_t>* out) {
  const size_t key_size = size_t{load_be16(buf + nd::kFirstRecordOffset)} + 2;
  const size_t limit = ns - nd::kOffsetEntrySize * (num_records(buf) + 2u);
  if (nd::kFirstRecordOffset + key_size > limit) {
    MORV_ERROR("Invalid node data: Key of record %hu does not fit in its record (%zu bytes).\n",
               uint16_t{0}, key_size);
    return MORV_ERR_CORRUPT;
  }
  if (!out->allocate(key_size)) return MORV_ERR_NO_MEMORY;
  memcpy(out->get(), buf + nd::kFirstRecordOffset, key_size);
  return MORV_OK;
}

// After the node write: locators, leafRecords and the parent's index key.
[[nodiscard]] morv_err after_insert(morv_btree* tree, uint32_t node, uint16_t p, uint16_t r,
                                    bool moved, const uint8_t* buf, const uint8_t* old_first_key) {
  const uint16_t ns = tree->node_size;
  if (moved) {
    morv_btree_relocate_open_locators(tree, node, p, num_records(buf) - 1u - p, node, 0, 1, r);
  }
  morv_err err = MORV_OK;
  if (node_kind(buf) == nd::kKindLeaf) {
    err = bump_leaf_records(tree, 1);
    if (err) return err;
  }
  uint8_t header[hr::kSize];
  err = read_header(tree, header);
  if (err) {
    MORV_ERROR("Error while reading header record.\n");
    return err;
  }
  const uint8_t height = buf[nd::kHeight];
  if (p == 0 && height < load_be16(header + hr::kTreeDepth)) {
    err = replace_parent_key(tree, node, height, old_first_key,
                             buf + offset_entry(buf, ns, 0));
  }
  return err;
}

// The record goes in at (node, p) of a tree that has a root.
[[nodiscard]] morv_err insert_at(morv_btree* tree, const uint8_t* key, const void* data,
                                 uint16_t data_size, uint32_t node, uint16_t p, bool after_last,
                                 morv_btree_record_locator** out_locator) {
  const uint16_t ns = tree->node_size;
  morv::buffer<uint8_t> buf;
  if (!buf.allocate(ns)) {
    MORV_ERROR("Error while allocating node-sized buffer for modified contents (%zu bytes).\n",
               size_t{ns});
    return MORV_ERR_NO_MEMORY;
  }
  morv_err err = read_node(tree, node, buf.get());
  if (err) {
    MORV_ERROR("Error while reading complete node data of node where record should be inserted.\n");
    return err;
  }
  if (p != num_records(buf.get()) && after_last) ++p;
  err = check_insert_node(buf.get(), ns, p);
  if (err) return err;
  const size_t r = padded(size_t{load_be16(key)} + 2) + padded(data_size);
  if (r > size_t{ns} - 18) {
    MORV_ERROR("Record cannot fit in a node given the B-tree's node size of %hu bytes (need %zu "
               "bytes).\n",
               ns, r + 18);
    return MORV_ERR_UNSUPPORTED;
  }
  const uint16_t n = num_records(buf.get());
  const size_t room = ns - offset_entry(buf.get(), ns, n) - nd::kOffsetEntrySize * (n + 1u);
  if (room < r + nd::kOffsetEntrySize) {
    err = split_for_insert(tree, &node, &p, r, buf.get());
    if (err) return err;
  }
  morv::buffer<uint8_t> old_first_key;
  if (p == 0) {
    err = copy_first_key(buf.get(), ns, &old_first_key);
    if (err) return err;
  }
  const bool moved = offset_entry(buf.get(), ns, p) != offset_entry(buf.get(), ns, num_records(buf.get()));
  err = place_record(buf.get(), ns, p, key, data, data_size, static_cast<uint16_t>(r));
  if (err) return err;
  err = write_node(tree, node, buf.get());
  if (err) {
    MORV_ERROR("Error while writing out modified node after inserting record.\n");
    return err;
  }
  err = after_insert(tree, node, p, static_cast<uint16_t>(r), moved, buf.get(), old_first_key.get());
  if (err) return err;
  const uint16_t off_p = offset_entry(buf.get(), ns, p);
  err = morv_btree_record_locator_open(tree, node, p, buf.get() + off_p, r,
                                       node_offset(tree, node) + off_p, out_locator);
  if (err) MORV_ERROR("Error while creating morv_btree_record_locator.\n");
  return err;
}

// The empty-tree case: a tree without a root (rootNode 0, treeDepth 0, as a
// fresh extents overflow file is) first gets a claimed node as an empty root
// leaf, which also becomes the first and last leaf.
[[nodiscard]] morv_err make_root_leaf(morv_btree* tree) {
  uint32_t node = 0;
  morv_err err = morv_btree_claim_node(tree, &node);
  if (err) {
    MORV_ERROR("Error while claiming node.\n");
    return err;
  }
  morv::buffer<uint8_t> buf;
  if (!buf.allocate(tree->node_size)) return MORV_ERR_NO_MEMORY;
  // Read before it is rewritten: the cache takes a written sector as
  // unread, and a later read would bring the old bytes back over it.
  err = read_node(tree, node, buf.get());
  if (err) return err;
  memset(buf.get(), 0, tree->node_size);
  buf[nd::kKind] = static_cast<uint8_t>(nd::kKindLeaf);
  buf[nd::kHeight] = 1;
  set_offset_entry(buf.get(), tree->node_size, 0, nd::kFirstRecordOffset);
  err = write_node(tree, node, buf.get());
  if (err) return err;
  uint8_t header[hr::kSize];
  err = read_header(tree, header);
  if (err) return err;
  store_be16(header + hr::kTreeDepth, 1);
  store_be32(header + hr::kRootNode, node);
  store_be32(header + hr::kFirstLeafNode, node);
  store_be32(header + hr::kLastLeafNode, node);
  return write_header(tree, header);
}

[[nodiscard]] morv_err tree_is_empty(morv_btree* tree, bool* out_empty) {
  uint8_t header[hr::kSize];
  morv_err err = read_header(tree, header);
  if (err) return err;
  *out_empty = load_be32(header + hr::kRootNode) == 0;
  return MORV_OK;
}

}  // namespace

namespace {

// What one level of an insertion asks of the level above: the bytes of the
// index record that a split adds there (0 without a split), and whether the
// node's first key is replaced (an insertion at position 0).
struct level_change {
  size_t split_index_record;
  bool replaces_first_key;
};

// Follows an insertion of an `r`-byte record at position `p` of `node`:
// whether the node must split and, if so, the size of the index record the
// claimed node's first key makes one level up.
[[nodiscard]] morv_err plan_level(morv_btree* tree, uint32_t node, uint16_t p, size_t r,
                                  bool is_root, level_change* out) {
  const uint16_t ns = tree->node_size;
  mapping m(tree->fork);
  morv_err err = m.map(node_offset(tree, node), ns);
  if (err) {
    MORV_ERROR("Error while mapping raw node data of node %lu.\n", morv_ul(node));
    return err;
  }
  const uint8_t* buf = m.get();
  if ((err = validate_node(buf, ns))) return err;
  const uint16_t n = num_records(buf);
  const size_t room = ns - offset_entry(buf, ns, n) - nd::kOffsetEntrySize * (n + 1u);
  *out = level_change{0, p == 0};
  if (room >= r + nd::kOffsetEntrySize) return m.unmap();
  if (is_root) {
    MORV_ERROR("Unable to split root node.\n");
    return MORV_ERR_INTERNAL;
  }
  uint16_t split = 0;
  if ((err = choose_split_index(buf, ns, p > n ? n : p, r, &split))) return err;
  // The claimed node starts with record `split`; the new record stays in the
  // split node, at `p`, only when the split index is not below `p`.
  const uint8_t* first = buf + offset_entry(buf, ns, split);
  out->split_index_record = padded(size_t{load_be16(first)} + 2) + nd::kIndexDataSize;
  out->replaces_first_key = p == 0 && split >= p;
  return m.unmap();
}

// Size of the key of record `index` of `node` (keyLength + 2).
[[nodiscard]] morv_err record_key_size(morv_btree* tree, uint32_t node, uint16_t index,
                                       size_t* out_size) {
  mapping m(tree->fork);
  morv_err err = m.map(node_offset(tree, node), tree->node_size);
  if (err) return err;
  if ((err = validate_node(m.get(), tree->node_size))) return err;
  const uint16_t n = num_records(m.get());
  const uint16_t i = index < n ? index : static_cast<uint16_t>(n ? n - 1 : 0);
  *out_size = n ? size_t{load_be16(m.get() + offset_entry(m.get(), tree->node_size, i))} + 2 : 0;
  return m.unmap();
}

// Before anything is written: follows the splits and index key replacements
// that an insertion of an `r`-byte record at position `p` of the path's last
// node causes up the path, with the split points the insertion will choose,
// and refuses the insertion when they would reach the root (which never
// splits) or need more nodes than are free. Refusing here keeps the tree
// intact; a refusal half-way would leave a split node without its index
// record.
[[nodiscard]] morv_err check_insert_fits(morv_btree* tree, const search_path& path, uint16_t p,
                                         size_t r, size_t key_size) {
  if (path.count == 0 || path.count > kMaxPath || r > size_t{tree->node_size} - 18) return MORV_OK;
  const size_t new_index_record = padded(key_size) + nd::kIndexDataSize;
  size_t need = r;
  uint16_t position = p;
  uint32_t claims = 0;
  for (size_t k = path.count; k-- > 0;) {
    level_change change{};
    morv_err err = plan_level(tree, path.node[k], position, need, k == 0, &change);
    if (err) return err;
    claims += change.split_index_record != 0;
    if (k == 0) break;
    // One level up: the split's index record goes behind this node's own,
    // and a replaced first key swaps this node's index record for one with
    // the new key.
    const uint16_t parent_index = path.index[k - 1];
    size_t grows = change.split_index_record ? change.split_index_record + nd::kOffsetEntrySize : 0;
    if (change.replaces_first_key) {
      size_t old_key = 0;
      if ((err = record_key_size(tree, path.node[k - 1], parent_index, &old_key))) return err;
      const size_t old_record = padded(old_key) + nd::kIndexDataSize;
      if (new_index_record > old_record) grows += new_index_record - old_record;
    }
    if (grows == 0) break;
    need = grows - nd::kOffsetEntrySize * (change.split_index_record != 0);
    position = static_cast<uint16_t>(parent_index + (change.split_index_record != 0));
  }
  uint8_t header[hr::kSize];
  morv_err err = read_header(tree, header);
  if (err) return err;
  if (claims > load_be32(header + hr::kFreeNodes)) {
    MORV_ERROR("Need to expand B-tree, but this is not yet implemented.\n");
    return MORV_ERR_UNSUPPORTED;
  }
  return MORV_OK;
}

// Finds where the key goes (making the root of an empty tree first) and the
// path there.
[[nodiscard]] morv_err find_insert_location(morv_btree* tree, const uint8_t* key,
                                            position* out_position, search_path* path) {
  bool empty = false;
  morv_err err = tree_is_empty(tree, &empty);
  if (!err && empty) err = make_root_leaf(tree);
  if (!err) err = search_common(tree, key, 0, -1, 0, out_position, nullptr, path);
  if (err) {
    MORV_ERROR("Error while searching for insert location.\n");
    return err;
  }
  if (out_position->node == 0) {
    MORV_CRITICAL("ERROR:Unable to insert because morv_btree_search_node returned NULL when "
                  "looking up insert location!\n");
    return MORV_ERR_INTERNAL;
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_btree_insert_record_internal(morv_btree* tree, const uint8_t* key, const void* data,
                                           uint16_t data_size, morv_btree_search_result* location,
                                           morv_btree_record_locator** out_locator) {
  if (!key) {
    MORV_ERROR("HFSPlus:%s: Invalid Search key\n", "morv_btree_search_node_internal");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  search_path path{};
  position pos{};
  morv_err err = find_insert_location(tree, key, &pos, &path);
  if (err) return err;
  // A caller's location is used as given: it may name a record that the
  // caller has just deleted (a thread being rebuilt in place).
  if (location && location->locator) {
    pos = position{*location->locator->node_number, *location->locator->record_index,
                   location->exact_match, location->after_last_record, true};
  } else if (pos.exact_match) {
    MORV_ERROR("ERROR:Unable to insert because already exists?!\n");
    return MORV_ERR_EXISTS;
  }
  const size_t r = padded(size_t{load_be16(key)} + 2) + padded(data_size);
  const uint16_t p = pos.after_last_record ? static_cast<uint16_t>(pos.index + 1) : pos.index;
  err = check_insert_fits(tree, path, p, r, size_t{load_be16(key)} + 2);
  if (err) return err;
  return insert_at(tree, key, data, data_size, pos.node, pos.index, pos.after_last_record != 0,
                   out_locator);
}

morv_err morv_btree_insert_record(morv_btree* tree, const uint8_t* key, const void* data,
                                  uint16_t data_size, morv_btree_search_result* location,
                                  morv_btree_record_locator** out_locator) {
  morv_rwlock* lock = tree->priv->open_locators_lock;
  morv_err err = morv_rwlock_lock_write(lock);
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  morv_btree_record_locator* locator = nullptr;
  err = morv_btree_insert_record_internal(tree, key, data, data_size, location, &locator);
  morv_err unlock_err = morv_rwlock_unlock(lock);
  if (unlock_err) {
    MORV_CRITICAL("Error while releasing write lock for open locators list. Will probably crash "
                  "now...\n");
    if (!err) {
      morv_btree_record_locator_close(&locator);
      err = unlock_err;
    }
  }
  if (err) return err;
  *out_locator = locator;
  return MORV_OK;
}

namespace {

// The nodes a split rewrites, read before anything is claimed.
struct split_state {
  morv::buffer<uint8_t> header;
  morv::buffer<uint8_t> split;
  morv::buffer<uint8_t> claimed;
  uint8_t forward[nd::kDescriptorSize];
  bool header_changed = false;
  bool forward_changed = false;
};

[[nodiscard]] morv_err load_split_node(morv_btree* tree, uint32_t node, split_state* s) {
  if (!s->header.allocate(hr::kSize)) {
    MORV_ERROR("Error while allocating memory for a BTHeaderRec buffer.\n");
    return MORV_ERR_NO_MEMORY;
  }
  morv_err err = read_header(tree, s->header.get());
  if (err) {
    MORV_ERROR("Error while reading header record of B-tree.\n");
    return err;
  }
  if (!s->split.allocate(tree->node_size)) {
    MORV_ERROR("Error while allocating node-sized (%zu bytes) buffer to hold the split node data.\n",
               size_t{tree->node_size});
    return MORV_ERR_NO_MEMORY;
  }
  err = read_node(tree, node, s->split.get());
  if (err) {
    MORV_ERROR("Error while mapping node descriptor of split node.\n");
    return err;
  }
  // A root split would need a new root; the tree never deepens. Refused
  // before a node is claimed, so the refusal changes nothing on disk.
  if (s->split[nd::kHeight] >= load_be16(s->header.get() + hr::kTreeDepth)) {
    MORV_ERROR("Unable to split root node.\n");
    return MORV_ERR_INTERNAL;
  }
  return validate_node(s->split.get(), tree->node_size);
}

// Moves records m.. of the split node to the claimed node and links it in
// behind the split node.
[[nodiscard]] morv_err build_split(morv_btree* tree, uint32_t node, uint16_t m, uint32_t claimed,
                                   split_state* s) {
  const uint16_t ns = tree->node_size;
  uint8_t* sb = s->split.get();
  uint8_t* kb = s->claimed.get();
  const uint16_t n = num_records(sb);
  const uint32_t old_flink = load_be32(sb + nd::kFLink);
  memset(kb, 0, ns);
  store_be32(kb + nd::kFLink, old_flink);
  store_be32(kb + nd::kBLink, node);
  kb[nd::kKind] = sb[nd::kKind];
  kb[nd::kHeight] = sb[nd::kHeight];
  store_be16(kb + nd::kNumRecords, static_cast<uint16_t>(n - m));
  store_be32(sb + nd::kFLink, claimed);
  store_be16(sb + nd::kNumRecords, m);
  if (old_flink == 0 && node_kind(sb) == nd::kKindLeaf) {
    store_be32(s->header.get() + hr::kLastLeafNode, claimed);
    s->header_changed = true;
  } else if (old_flink != 0) {
    morv_err err = morv_fork_read(tree->fork, node_offset(tree, old_flink), s->forward,
                                  nd::kDescriptorSize, nullptr);
    if (err) {
      MORV_ERROR("Error while reading node descriptor of claimed node's forward linked node.\n");
      return err;
    }
    store_be32(s->forward + nd::kBLink, claimed);
    s->forward_changed = true;
  }
  const uint16_t off_m = offset_entry(sb, ns, m);
  const size_t moved = size_t{offset_entry(sb, ns, n)} - off_m;
  if (moved + nd::kOffsetEntrySize * (n + 1u) + nd::kDescriptorSize > ns) {
    MORV_CRITICAL("Unexpected: Oversized split node data (expected maximum: %hu actual: %zu).\n", ns,
                  moved + nd::kOffsetEntrySize * (n + 1u) + nd::kDescriptorSize);
    return MORV_ERR_INTERNAL;
  }
  memcpy(kb + nd::kDescriptorSize, sb + off_m, moved);
  memset(sb + off_m, 0, moved);
  for (uint32_t k = 0; k <= uint32_t{n} - m; ++k) {
    set_offset_entry(kb, ns, k,
                     static_cast<uint16_t>(offset_entry(sb, ns, m + k) - off_m + nd::kDescriptorSize));
  }
  return MORV_OK;
}

[[nodiscard]] morv_err write_split(morv_btree* tree, uint32_t node, uint16_t m, uint32_t claimed,
                                   split_state* s) {
  morv_err err = write_node(tree, claimed, s->claimed.get());
  if (err) {
    MORV_ERROR("Error while writing back modified claimed node.\n");
    return err;
  }
  move_locators_to_node(tree, node, m, claimed,
                        node_offset(tree, node) + offset_entry(s->split.get(), tree->node_size, m),
                        node_offset(tree, claimed) + nd::kDescriptorSize);
  err = write_node(tree, node, s->split.get());
  if (err) {
    MORV_ERROR("Error while writing back modified split node.\n");
    return err;
  }
  if (s->forward_changed) {
    const uint32_t forward = load_be32(s->claimed.get() + nd::kFLink);
    err = morv_fork_write(tree->fork, node_offset(tree, forward), s->forward, nd::kDescriptorSize,
                          nullptr);
    if (err) {
      MORV_ERROR("Error while writing back modified node descriptor.\n");
      return err;
    }
  }
  if (s->header_changed) {
    // Claiming the node changed freeNodes since the header was read.
    const uint32_t last_leaf = load_be32(s->header.get() + hr::kLastLeafNode);
    err = read_header(tree, s->header.get());
    if (err) {
      MORV_ERROR("Error while reading header record of B-tree.\n");
      return err;
    }
    store_be32(s->header.get() + hr::kLastLeafNode, last_leaf);
    err = write_header(tree, s->header.get());
    if (err) {
      MORV_ERROR("Error while writing out modified B-tree header record.\n");
      return err;
    }
  }
  return MORV_OK;
}

}  // namespace

morv_err morv_btree_split_node(morv_btree* tree, uint32_t node_number, uint16_t split_index,
                               uint32_t* out_claimed_node) {
  split_state s;
  morv_err err = load_split_node(tree, node_number, &s);
  if (err) return err;
  if (split_index == 0 || split_index >= num_records(s.split.get())) {
    MORV_CRITICAL("Internal error: Invalid value for 'min_occupied_size_record' (%ld).\n",
                  static_cast<long>(split_index));
    return MORV_ERR_INTERNAL;
  }
  uint32_t claimed = 0;
  err = morv_btree_claim_node(tree, &claimed);
  if (err) {
    MORV_ERROR("Error while claiming node.\n");
    return err;
  }
  if (!s.claimed.allocate(tree->node_size)) {
    MORV_ERROR("Error while allocating node-sized (%zu bytes) buffer to hold the claimed node data.\n",
               size_t{tree->node_size});
    return MORV_ERR_NO_MEMORY;
  }
  err = read_node(tree, claimed, s.claimed.get());
  if (err) {
    MORV_ERROR("Error while mapping raw node data of claimed node.\n");
    return err;
  }
  err = build_split(tree, node_number, split_index, claimed, &s);
  if (!err) err = write_split(tree, node_number, split_index, claimed, &s);
  if (err) return err;
  err = morv_btree_add_index_record(tree, s.claimed.get() + nd::kDescriptorSize,
                                    static_cast<uint8_t>(s.split[nd::kHeight] + 1), claimed);
  if (err) {
    MORV_ERROR("Error while inserting new index record for claimed node.\n");
    return err;
  }
  *out_claimed_node = claimed;
  return MORV_OK;
}

morv_err morv_btree_add_index_record(morv_btree* tree, const uint8_t* key, uint8_t height,
                                     uint32_t child_node) {
  position pos{};
  morv_err err = search_common(tree, key, 0, 0, height, &pos, nullptr);
  if (err) {
    MORV_ERROR("Error while searching for location to insert index record.\n");
    return err;
  }
  if (pos.exact_match) {
    MORV_ERROR("Index record that we wanted to add already exists.\n");
    return MORV_ERR_EXISTS;
  }
  if (pos.node == 0) {
    MORV_CRITICAL("Unexpected: morv_btree_search_node returned NULL locator with no error.\n");
    return MORV_ERR_INTERNAL;
  }
  uint8_t child[nd::kIndexDataSize];
  store_be32(child, child_node);
  morv_btree_record_locator* locator = nullptr;
  err = insert_at(tree, key, child, sizeof child, pos.node, pos.index, pos.after_last_record != 0,
                  &locator);
  if (err) {
    MORV_ERROR("Error while inserting index record.\n");
    return err;
  }
  if (!locator) {
    MORV_CRITICAL("Unexpected: morv_btree_insert_record returned NULL locator but no error.\n");
    return MORV_ERR_INTERNAL;
  }
  morv_btree_record_locator_close_locked(&locator, 0);
  return MORV_OK;
}

// ============================================================ deletion

namespace {

// The checks of the record at `i` before it is cut out of `buf`.
[[nodiscard]] morv_err check_delete(const uint8_t* buf, uint16_t ns, uint16_t i, uint32_t node) {
  const uint16_t n = num_records(buf);
  if (i >= n || nd::kOffsetEntrySize * (n + 1u) > ns - nd::kDescriptorSize) {
    MORV_ERROR("Invalid node data: Record %hu is not among the %hu records of node %lu.\n", i, n,
               morv_ul(node));
    return MORV_ERR_CORRUPT;
  }
  const uint16_t off = offset_entry(buf, ns, i);
  const uint16_t next = offset_entry(buf, ns, i + 1u);
  const uint16_t f = offset_entry(buf, ns, n);
  if (next < off) {
    MORV_ERROR("$$$: This record offset is greater than the next. Impossible\n");
    return MORV_ERR_CORRUPT;
  }
  if (f > ns || f < next) {
    MORV_ERROR("$$$: Free space of %d is greater than node size. Impossible\n", static_cast<int>(f));
    return MORV_ERR_CORRUPT;
  }
  if (static_cast<int>(ns) - static_cast<int>(off) < static_cast<int>(next - off)) {
    MORV_ERROR("$$$: This record size is greater than the node size. Impossible\n");
    return MORV_ERR_CORRUPT;
  }
  return validate_node(buf, ns);
}

// Cuts record i out of `buf`: the records behind move down, the offset
// array loses its last entry. Returns the record's size.
uint16_t cut_record(uint8_t* buf, uint16_t ns, uint16_t i) {
  const uint16_t n = num_records(buf);
  const uint16_t off = offset_entry(buf, ns, i);
  const uint16_t next = offset_entry(buf, ns, i + 1u);
  const uint16_t f = offset_entry(buf, ns, n);
  const uint16_t size = static_cast<uint16_t>(next - off);
  memmove(buf + off, buf + next, size_t{f} - next);
  for (uint32_t j = i + 1u; j < n; ++j) {
    set_offset_entry(buf, ns, j, static_cast<uint16_t>(offset_entry(buf, ns, j + 1) - size));
  }
  store_be16(buf + nd::kNumRecords, static_cast<uint16_t>(n - 1));
  return size;
}

// The node's first record is gone: the parent's index record, which carries
// `old_key`, is replaced by one carrying the key now at offset 14 (for a
// node left empty, still the deleted record's key).
[[nodiscard]] morv_err reindex_after_delete(morv_btree* tree, uint32_t node, const uint8_t* buf,
                                            const uint8_t* old_key) {
  const uint8_t height = buf[nd::kHeight];
  if (height == kMaxHeight) {
    MORV_ERROR("B-tree depth too large.\n");
    return MORV_ERR_CORRUPT;
  }
  morv_btree_search_result found{};
  morv_err err = morv_btree_search_node_internal(tree, old_key, 0, 0,
                                                 static_cast<uint8_t>(height + 1), &found);
  if (err) {
    MORV_ERROR("Error while searching for index record of deleted record's node.\n");
    return err;
  }
  if (!found.locator) {
    MORV_CRITICAL("Unexpected: morv_btree_search_node returned NULL locator with no error.\n");
    return MORV_ERR_INTERNAL;
  }
  if (!found.exact_match) {
    MORV_ERROR("Index record of deleted record's node not found.\n");
    morv_btree_record_locator_close_locked(&found.locator, 0);
    return MORV_ERR_CORRUPT;
  }
  err = morv_btree_delete_record_internal(tree, found.locator);
  morv_btree_record_locator_close_locked(&found.locator, 0);
  if (err) {
    MORV_ERROR("Error while deleting index record from B-tree.\n");
    return err;
  }
  err = morv_btree_add_index_record(tree, buf + nd::kFirstRecordOffset,
                                    static_cast<uint8_t>(height + 1), node);
  if (err) MORV_ERROR("Error while inserting index record.\n");
  return err;
}

// The deletion proper, with the header record mapped as `header`.
[[nodiscard]] morv_err delete_with_header(morv_btree* tree, morv_btree_record_locator* locator,
                                          const uint8_t* header) {
  const uint16_t ns = tree->node_size;
  const uint32_t node = *locator->node_number;
  const uint16_t i = *locator->record_index;
  morv::buffer<uint8_t> buf;
  if (!buf.allocate(ns)) {
    MORV_ERROR("Error while allocating temporary copy of node data.\n");
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<uint8_t> old_key;
  if (i == 0) {
    if (!old_key.allocate(locator->key_size)) return MORV_ERR_NO_MEMORY;
    memcpy(old_key.get(), locator->key, locator->key_size);
  }
  morv_err err = read_node(tree, node, buf.get());
  if (err) {
    MORV_ERROR("Error while mapping raw node data.\n");
    return err;
  }
  err = check_delete(buf.get(), ns, i, node);
  if (err) return err;
  const bool moved = offset_entry(buf.get(), ns, i + 1u) !=
                     offset_entry(buf.get(), ns, num_records(buf.get()));
  const uint16_t size = cut_record(buf.get(), ns, i);
  err = write_node(tree, node, buf.get());
  if (err) {
    MORV_ERROR("Error while writing out modified node %lu.\n", morv_ul(node));
    return err;
  }
  mark_deleted(locator);
  if (moved) {
    morv_btree_relocate_open_locators(tree, node, static_cast<uint16_t>(i + 1),
                                      num_records(buf.get()) - i, node, 1, 1, size);
  }
  if (node_kind(buf.get()) == nd::kKindLeaf) {
    uint8_t copy[hr::kSize];
    memcpy(copy, header, hr::kSize);
    store_be32(copy + hr::kLeafRecords, load_be32(copy + hr::kLeafRecords) - 1);
    err = write_header(tree, copy);
    if (err) {
      MORV_ERROR("Error while writing out decremented 'leafRecords' in B-tree header record.\n");
      return err;
    }
  }
  if (i == 0 && buf[nd::kHeight] < load_be16(header + hr::kTreeDepth)) {
    err = reindex_after_delete(tree, node, buf.get(), old_key.get());
  }
  return err;
}

}  // namespace

morv_err morv_btree_delete_record_internal(morv_btree* tree, morv_btree_record_locator* locator) {
  mapping header(tree->fork);
  morv_err err = header.map(hr::kForkOffset, hr::kSize);
  if (err) {
    MORV_ERROR("Error while mapping B-tree header record.\n");
    return err;
  }
  err = delete_with_header(tree, locator, header.get());
  morv_err unmap_err = header.unmap();
  if (unmap_err) {
    MORV_ERROR("Error while unmapping B-tree header record.\n");
    if (!err) err = unmap_err;
  }
  return err;
}

morv_err morv_btree_delete_record(morv_btree* tree, morv_btree_record_locator* locator) {
  morv_rwlock* lock = tree->priv->open_locators_lock;
  morv_err err = morv_rwlock_lock_write(lock);
  if (err) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  err = morv_btree_delete_record_internal(tree, locator);
  morv_err unlock_err = morv_rwlock_unlock(lock);
  if (unlock_err) {
    MORV_CRITICAL("Error while releasing write lock for open locators list. Will probably crash "
                  "now...\n");
    if (!err) err = unlock_err;
  }
  return err;
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

constexpr size_t kFLink = 0;
constexpr size_t kKind = 8;
constexpr size_t kNumRecords = 10;
constexpr int8_t kKindHeader = 1;
constexpr int8_t kKindMap = 2;
constexpr uint16_t kFirstRecord = 14;
constexpr size_t kOffsetEntry = 2;
constexpr size_t kHeaderRecords = 3;
constexpr size_t kHeaderMapIndex = 2;     // the header node's map record
constexpr size_t kHeaderNonMapBytes = 256;
constexpr size_t kMapNodeNonMapBytes = 20;  // descriptor, two offsets, two spare bytes
constexpr uint64_t kHeaderRecordOffset = 14;
constexpr size_t kHeaderRecordSize = 106;
constexpr size_t kTotalNodes = 22;  // within the header record
constexpr size_t kFreeNodes = 26;

uint16_t offset_entry(const uint8_t* node, uint16_t node_size, size_t index) {
  return load_be16(node + node_size - kOffsetEntry * (index + 1));
}

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
  uint8_t header_record[kHeaderRecordSize];
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
  if (p.first < kFirstRecord || p.first + p.length > node_size) {
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
  if (static_cast<int8_t>(node[kKind]) != kKindMap || load_be16(node + kNumRecords) != 1) {
    MORV_ERROR("Invalid node data: Expected map node, got node kind %hhd.\n",
               static_cast<int8_t>(node[kKind]));
    return MORV_ERR_CORRUPT;
  }
  *first = offset_entry(node, ns, 0);
  *free_space = offset_entry(node, ns, 1);
  if (*free_space < *first || *free_space > ns - 2 * kOffsetEntry) {
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
  memcpy(c->header_record, node + kHeaderRecordOffset, kHeaderRecordSize);
  c->total_nodes = load_be32(c->header_record + kTotalNodes);
  if (static_cast<int8_t>(node[kKind]) != kKindHeader || load_be16(node + kNumRecords) != kHeaderRecords) {
    MORV_ERROR("HFSPlus:%s: Node kind %d, %d records - should be kind 1, 3 records - but it isn't!\n",
               __func__, static_cast<int8_t>(node[kKind]), load_be16(node + kNumRecords));
    return MORV_ERR_CORRUPT;
  }
  part p{0, offset_entry(node, ns, kHeaderMapIndex), uint64_t{ns} - kHeaderNonMapBytes, 0};
  if (morv_err err = check_part(node, ns, p, 0, c)) return err;
  c->last_node = 0;
  for (uint32_t link = load_be32(node + kFLink), steps = 0; link != 0; ++steps) {
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
    link = load_be32(node + kFLink);
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
  const morv_fork_private* fp = tree->fork->priv;
  const uint32_t blocks = load_be32(fp->fork_data + forkdata::kClumpSize) / tree->fork->block_size;
  const uint64_t bytes = uint64_t{blocks} * tree->fork->block_size;
  if (bytes == 0 || bytes % ns != 0) {
    MORV_ERROR("Cannot expand B-tree: a clump of %llu bytes is not a whole number of %hu-byte "
               "nodes.\n",
               morv_ull(bytes), ns);
    return MORV_ERR_UNSUPPORTED;
  }
  if (fp->logical_size != uint64_t{c.total_nodes} * ns || c.capacity < c.total_nodes) {
    MORV_ERROR("Invalid node data: %lu nodes do not match the tree file (%llu bytes) or its node "
               "bitmap (%llu bits).\n",
               morv_ul(c.total_nodes), morv_ull(fp->logical_size), morv_ull(c.capacity));
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
    uint8_t old[kHeaderRecordSize];
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
  node[kKind] = static_cast<uint8_t>(kKindMap);
  store_be16(node + kNumRecords, 1);
  if (!c.own_bit_found) {  // its own bit is the first it holds, or later in it
    const uint64_t bit = c.total_nodes - c.capacity;
    node[kFirstRecord + bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8));
  }
  // A map node has no siblings and no height: bLink and height stay 0.
  if (morv_err err = morv_fork_write(tree->fork, at, node, ns, nullptr)) {
    MORV_ERROR("Error while writing out node descriptor of claimed node.\n");
    return err;
  }
  uint8_t entry[kOffsetEntry];
  store_be16(entry, static_cast<uint16_t>(kFirstRecord + ns - kMapNodeNonMapBytes));
  if (morv_err err = morv_fork_write(tree->fork, at + ns - 2 * kOffsetEntry, entry, 2, nullptr)) {
    MORV_ERROR("Error while writing out modified free space pointer.\n");
    return err;
  }
  store_be16(entry, kFirstRecord);
  if (morv_err err = morv_fork_write(tree->fork, at + ns - kOffsetEntry, entry, 2, nullptr)) {
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
  if (morv_err err = change(tree, j, uint64_t{c.last_node} * tree->node_size + kFLink, old_link,
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
  uint8_t header[kHeaderRecordSize];
  memcpy(header, c.header_record, sizeof header);
  store_be32(header + kTotalNodes, c.total_nodes + p.new_nodes);
  store_be32(header + kFreeNodes, load_be32(header + kFreeNodes) + p.new_nodes - (p.map_node ? 1 : 0));
  if (morv_err err = change(tree, j, kHeaderRecordOffset, c.header_record, header, sizeof header,
                            "Error while reverting B-tree header record modifications.\n")) {
    MORV_ERROR("Error while writing back modified tree header record.\n");
    return err;
  }
  return p.map_node ? add_map_node(tree, c, node, j) : MORV_OK;
}

[[nodiscard]] morv_err expand_locked(morv_btree* tree, morv_volume* volume) {
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
  MORV_RWLOCK_GUARD(lock, tree->priv->open_locators_lock,
                    "Error while releasing write lock for open locators list. Will probably crash "
                    "now...\n");
  if (morv_err err = lock.lock_write()) {
    MORV_ERROR("Error while acquiring write lock for open locators list.\n");
    return err;
  }
  return lock.finish(growth::expand_locked(tree, volume));
}
