// SPDX-License-Identifier: MIT
// The extents overflow file: the thin client of the B-tree engine that
// validates the tree, orders its keys and looks records up by exact key.
//
// Invariants of the file: btreeType 0 (kHFSBTreeType), fixed-size index keys
// (no kBTVariableIndexKeysMask in attributes), maxKeyLength 10. A fork's
// records are keyed by the fork-relative block at which they start, so the
// record after one that ends at block B is found under startBlock B exactly.
#include "extents.hpp"

#include <cstring>

#include "btree.hpp"
#include "fork.hpp"
#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "extents";

constexpr uint64_t kHeaderRecordForkOffset = 14;  // behind node 0's descriptor
constexpr size_t kHeaderRecordSize = 106;
constexpr size_t kBtreeType = 36;
constexpr size_t kAttributes = 38;
constexpr uint8_t kHfsBtreeType = 0;
constexpr uint32_t kVariableIndexKeysMask = 0x4;

void build_key(uint8_t* key, uint8_t fork_type, uint32_t cnid, uint32_t start_block) {
  store_be16(key, extkey::kKeyLength);
  key[extkey::kForkType] = fork_type;
  key[extkey::kPad] = 0;
  store_be32(key + extkey::kFileId, cnid);
  store_be32(key + extkey::kStartBlock, start_block);
}

int compare_u32(uint32_t a, uint32_t b) { return a < b ? -1 : (a > b ? 1 : 0); }
}  // namespace

// Holds nothing yet; kept so that the object has room to grow.
struct morv_extents_private {
  uint32_t reserved;
};

int morv_extents_compare_keys(const uint8_t* a, const uint8_t* b, uint32_t /*compare_type*/) {
  if (load_be16(a) != extkey::kKeyLength) {
    MORV_ERROR("Invalid key length for extents overflow file in a. Expected: %zu Actual: %hu\n",
               extkey::kSize, load_be16(a));
    return -1;
  }
  if (load_be16(b) != extkey::kKeyLength) {
    MORV_ERROR("Invalid key length for extents overflow file in b. Expected: %zu Actual: %hu\n",
               extkey::kSize, load_be16(b));
    return -1;
  }
  int c = compare_u32(load_be32(a + extkey::kFileId), load_be32(b + extkey::kFileId));
  if (c == 0) c = compare_u32(a[extkey::kForkType], b[extkey::kForkType]);
  if (c == 0) c = compare_u32(load_be32(a + extkey::kStartBlock), load_be32(b + extkey::kStartBlock));
  return c;
}

morv_err morv_extents_validate(morv_btree* tree, int* out_valid) {
  if (!out_valid) {
    MORV_ERROR("Invalid argument: out_result == NULL\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint8_t header[kHeaderRecordSize];
  morv_err err = morv_fork_read(tree->fork, kHeaderRecordForkOffset, header, sizeof header, nullptr);
  if (err) {
    MORV_ERROR("Error while reading node descriptor.\n");
    return err;
  }
  int valid = 0;
  if (header[kBtreeType] != kHfsBtreeType) {
    MORV_ERROR("Incorrect B-tree type for extents overflow file: 0x%hhX\n", header[kBtreeType]);
  } else if (load_be32(header + kAttributes) & kVariableIndexKeysMask) {
    MORV_ERROR("Extents overflow file has the variable index keys flag set. Expected fixed-size "
               "index keys.\n");
  } else if (tree->max_key_length != extkey::kKeyLength) {
    MORV_ERROR("Unexpected size for extents overflow file keys. Expected: %zu Actual: %hu\n",
               size_t{extkey::kKeyLength}, tree->max_key_length);
  } else {
    valid = 1;
  }
  *out_valid = valid;
  return MORV_OK;
}

morv_err morv_extents_create(morv_device* device, uint8_t* volume_header,
                             morv_extents** out_extents) {
  morv::buffer<morv_extents> extents(
      static_cast<morv_extents*>(morv_calloc(1, sizeof(morv_extents))));
  if (!extents) {
    MORV_ERROR("Error while allocating %llu bytes for morv_extents.\n",
               morv_ull(sizeof(morv_extents)));
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<morv_extents_private> priv(
      static_cast<morv_extents_private*>(morv_calloc(1, sizeof(morv_extents_private))));
  if (!priv) {
    MORV_ERROR("Error while allocating %llu bytes for morv_extents_private.\n",
               morv_ull(sizeof(morv_extents_private)));
    return MORV_ERR_NO_MEMORY;
  }
  morv_btree* tree = nullptr;
  morv_err err = morv_btree_create(device, nullptr, 1, volume_header, kBtreeKindExtents,
                                   morv_extents_compare_keys, &tree);
  if (err) {
    MORV_ERROR("Error while reading Extents B-Tree into memory.\n");
    return err;
  }
  int valid = 0;
  err = morv_extents_validate(tree, &valid);
  if (err) {
    MORV_ERROR("Error while validating extents B-tree.\n");
  } else if (!valid) {
    MORV_ERROR("Extents B-tree failed validation (see earlier log messages).\n");
    err = MORV_ERR_CORRUPT;
  }
  if (err) {
    morv_btree_destroy(&tree);
    return err;
  }
  extents[0] = morv_extents{tree, priv.release()};
  *out_extents = extents.release();
  return MORV_OK;
}

morv_err morv_extents_flush(morv_extents* extents) { return morv_fork_flush(extents->tree->fork); }

void morv_extents_destroy(morv_extents** extents) {
  if (!extents || !*extents) return;
  morv_btree_destroy(&(*extents)->tree);
  morv_free((*extents)->priv);
  memset(*extents, 0, sizeof **extents);
  morv_free(*extents);
  *extents = nullptr;
}

morv_err morv_extents_get_next_extent_record(morv_extents* extents, uint8_t fork_type,
                                             uint32_t cnid, uint32_t start_block, int* found,
                                             uint8_t* record) {
  uint8_t key[extkey::kSize];
  build_key(key, fork_type, cnid, start_block);
  morv_btree_search_result result;
  morv_btree_search_result_init(&result);
  morv_err err = morv_btree_search_node(extents->tree, key, &result);
  if (err) {
    MORV_ERROR("Error while looking up overflow extent.\n");
    return err;
  }
  // A tree without a root holds no record: nothing is found.
  if (!result.locator && result.exact_match) {
    MORV_CRITICAL("Unexpected: Got NULL result with no error from morv_btree_search_node.\n");
    return MORV_ERR_INTERNAL;
  }
  const int hit = result.locator && result.exact_match;
  if (hit && result.locator->data_size < forkdata::kExtentRecordSize) {
    MORV_ERROR("Overflow extents record for CNID %lu starting with block %lu has %zu bytes; an "
               "extent record has %zu.\n",
               morv_ul(cnid), morv_ul(start_block), result.locator->data_size,
               forkdata::kExtentRecordSize);
    morv_btree_search_result_release(&result);
    return MORV_ERR_CORRUPT;
  }
  if (hit) memcpy(record, result.locator->data, forkdata::kExtentRecordSize);
  morv_btree_search_result_release(&result);
  *found = hit;
  return MORV_OK;
}

morv_err morv_extents_search(morv_extents* extents, uint8_t fork_type, uint32_t cnid,
                             uint32_t start_block, morv_btree_search_result* out_result) {
  uint8_t key[extkey::kSize];
  build_key(key, fork_type, cnid, start_block);
  morv_err err = morv_btree_search_node(extents->tree, key, out_result);
  if (err) {
    MORV_ERROR("Error while searching extents overflow B-tree for key with fork type 0x%hhX, cnid "
               "%lu, start block %lu.\n",
               fork_type, morv_ul(cnid), morv_ul(start_block));
  }
  return err;
}

morv_err morv_extents_insert(morv_extents* extents, uint8_t fork_type, uint32_t cnid,
                             uint32_t start_block, const uint8_t* record) {
  uint8_t key[extkey::kSize];
  build_key(key, fork_type, cnid, start_block);
  morv_btree_record_locator* locator = nullptr;
  morv_err err = morv_btree_insert_record(extents->tree, key, record,
                                          static_cast<uint16_t>(forkdata::kExtentRecordSize),
                                          nullptr, &locator);
  if (err) {
    MORV_ERROR("Error while searching extents overflow B-tree for key with fork type 0x%hhX, cnid "
               "%lu, start block %lu.\n",
               fork_type, morv_ul(cnid), morv_ul(start_block));
    return err;
  }
  morv_btree_record_locator_close(&locator);
  return MORV_OK;
}
