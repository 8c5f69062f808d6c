// SPDX-License-Identifier: MIT
// The HFS+ B-tree engine shared by the catalog and the extents overflow file:
// opening a tree over its fork, record locators, search and iteration, node
// claims from the node bitmap, insertion with node splits, and deletion.
//
// Trees come from disks the engine does not trust: every node is checked
// where it is read and every walk is bounded, so damage ends an operation
// with MORV_ERR_CORRUPT. Changes are all or nothing (see Transactions).
//
// The engine knows nothing of key contents; the client supplies the key
// comparison when it opens the tree. Every public operation takes the tree's
// lock in write mode (a locator's data write takes it in read mode); the
// `_internal` twins and the `_locked` close assume the caller holds it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "morv.hpp"

struct morv_device;
struct morv_extents;
struct morv_fork;
struct morv_btree_private;
struct morv_btree_record_locator_private;

// Compares the key stored in a node with a search key (both begin with their
// big-endian keyLength) under the tree's keyCompareType: negative, zero or
// positive as the node key sorts before, equal to or after the search key.
using morv_btree_compare_keys_fn = int (*)(const uint8_t* node_key, const uint8_t* search_key,
                                           uint32_t compare_type);

// Tree kinds are the file IDs of the special files that hold trees.
inline constexpr uint32_t kBtreeKindExtents = 3;
inline constexpr uint32_t kBtreeKindCatalog = 4;
inline constexpr uint32_t kBtreeKindAttributes = 8;

struct morv_btree {
  morv_fork* fork;  // the tree's file; owned by the tree
  uint16_t node_size;
  uint16_t max_key_length;
  morv_btree_private* priv;
};

// A client's view of one open record: a private copy of the record as it
// stood in its node, and its current place in the tree. Node number and
// record index are read through pointers because the engine moves them when
// records move. One locator per record is shared by everyone who opens it.
struct morv_btree_record_locator {
  const uint32_t* node_number;
  const uint16_t* record_index;
  const uint8_t* key;  // keyLength field of the key in the copy
  size_t key_size;     // keyLength + 2, without padding
  const uint8_t* data;
  size_t data_size;
  morv_btree_record_locator_private* priv;
};

struct morv_btree_search_result {
  uint32_t exact_match;        // the located record's key equals the search key
  uint32_t after_last_record;  // the key sorts behind the last record of the located leaf
  morv_btree_record_locator* locator;
};

// ---- Open and close ----

// Opens the tree of `kind` (3, 4 or 8) whose fork data lies in the in-memory
// `volume_header`; `extents` resolves further extents of the fork (null, with
// `extents_tree_flag` 1, while the extents overflow tree itself is opened).
[[nodiscard]] morv_err morv_btree_create(morv_device* device, morv_extents* extents,
                                         int extents_tree_flag, uint8_t* volume_header,
                                         uint32_t kind, morv_btree_compare_keys_fn compare_keys,
                                         morv_btree** out_tree);
// Force-closes the locators that clients leaked, frees the tree and clears
// the handle. Does not flush the fork.
void morv_btree_destroy(morv_btree** tree);
[[nodiscard]] morv_err morv_btree_process(uint8_t* volume_header, uint32_t kind,
                                          morv_device* device, morv_extents* extents,
                                          int extents_tree_flag, morv_fork** out_fork,
                                          uint16_t* out_node_size, uint16_t* out_max_key_length);
// Diagnostic walk over one mapped attributes leaf node; logs what it finds.
void ReadAttrNode(const uint8_t* node, uint16_t node_size);

// ---- Record locators ----

[[nodiscard]] morv_err morv_btree_record_locator_open(morv_btree* tree, uint32_t node_number,
                                                      uint16_t record_index, const uint8_t* record,
                                                      size_t record_size, uint64_t record_offset,
                                                      morv_btree_record_locator** out_locator);
void morv_btree_record_locator_close(morv_btree_record_locator** locator);
void morv_btree_record_locator_close_locked(morv_btree_record_locator** locator, int force);
// Overwrites the record's data (same size only) in the tree and in the copy.
[[nodiscard]] morv_err morv_btree_record_locator_write_data(morv_btree_record_locator* locator,
                                                            const void* data, size_t data_size);
void morv_btree_relocate_open_locators(morv_btree* tree, uint32_t node_number,
                                       uint16_t first_index, uint32_t count,
                                       uint32_t new_node_number, int subtract,
                                       uint16_t index_delta, uint32_t offset_delta);

// ---- Search and iteration ----

void morv_btree_search_result_init(morv_btree_search_result* result);
void morv_btree_search_result_release(morv_btree_search_result* result);

// Finds the leaf record with `search_key`, or the record where it would go.
// A tree without a root (rootNode 0) yields success and no locator.
[[nodiscard]] morv_err morv_btree_search_node(morv_btree* tree, const uint8_t* search_key,
                                              morv_btree_search_result* out_result);
// `mode` -1 descends to a leaf; any other mode stops at index level `height`.
[[nodiscard]] morv_err morv_btree_search_node_internal(morv_btree* tree,
                                                       const uint8_t* search_key,
                                                       uint32_t start_node, int mode,
                                                       uint8_t height,
                                                       morv_btree_search_result* out_result);
// The record after `locator` in key order, following fLink; *out_next is
// null when `locator` names the last record of its level.
[[nodiscard]] morv_err morv_btree_get_next_record(morv_btree* tree,
                                                  morv_btree_record_locator* locator,
                                                  morv_btree_record_locator** out_next);
[[nodiscard]] morv_err morv_btree_get_next_record_internal(morv_btree* tree,
                                                           morv_btree_record_locator* locator,
                                                           morv_btree_record_locator** out_next);

// ---- Node allocation ----

// Marks the lowest free node of the node bitmap in use and lowers freeNodes.
[[nodiscard]] morv_err morv_btree_claim_node(morv_btree* tree, uint32_t* out_node_number);

// ---- Insertion ----

// Inserts key + data in key order. `location` may be a search result for the
// same key made by the caller (it stays the caller's); null searches anew.
[[nodiscard]] morv_err morv_btree_insert_record(morv_btree* tree, const uint8_t* key,
                                                const void* data, uint16_t data_size,
                                                morv_btree_search_result* location,
                                                morv_btree_record_locator** out_locator);
[[nodiscard]] morv_err morv_btree_insert_record_internal(morv_btree* tree, const uint8_t* key,
                                                         const void* data, uint16_t data_size,
                                                         morv_btree_search_result* location,
                                                         morv_btree_record_locator** out_locator);
[[nodiscard]] morv_err morv_btree_node_make_record(const uint8_t* key, uint16_t key_length,
                                                   const void* data, uint16_t data_size,
                                                   uint8_t* destination, uint16_t record_size);

// Splits node `node_number` (not the root) in two: a claimed node takes its
// records from `split_index` on, follows it on its level, and gets an index
// record one level up. All or nothing; the lock must be held.
[[nodiscard]] morv_err morv_btree_split_node(morv_btree* tree, uint32_t node_number,
                                             uint16_t split_index, uint32_t* out_claimed);
// Adds the index record (`key`, child number `child`) at index level
// `height`, splitting as needed. MORV_ERR_EXISTS when the key is there.
// All or nothing; the lock must be held.
[[nodiscard]] morv_err morv_btree_add_index_record(morv_btree* tree, const uint8_t* key,
                                                   uint8_t height, uint32_t child);

// ---- Deletion ----

// Removes the record of `locator`; the locator stays open, marked deleted.
[[nodiscard]] morv_err morv_btree_delete_record(morv_btree* tree,
                                                morv_btree_record_locator* locator);
[[nodiscard]] morv_err morv_btree_delete_record_internal(morv_btree* tree,
                                                         morv_btree_record_locator* locator);

// ---- Transactions ----

// Every insertion, deletion, node claim and locator data write is all or
// nothing: it either completes or leaves every byte of the tree's fork cache
// and every open locator as they were. A client groups several of them into
// one change the same way: begin, the operations, then end with the result.
// Operations nest; the outermost end completes the change when `result` and
// every operation inside succeeded, and otherwise puts the tree back as it
// stood at the outermost begin (locators opened in between are then marked
// deleted). An operation that fails inside a transaction dooms it: the
// client stops and ends it with the failure. End returns the change's result.
[[nodiscard]] morv_err morv_btree_transaction_begin(morv_btree* tree);
[[nodiscard]] morv_err morv_btree_transaction_end(morv_btree* tree, morv_err result);
// Settles now what the outermost end would settle (index records of nodes
// whose first key changed, emptied nodes), so that ending the transaction
// with success can no longer fail. A client that changes several trees
// prepares each before it ends any, and so keeps all of them or none. A
// failure dooms the transaction; a doomed one returns its failure.
[[nodiscard]] morv_err morv_btree_transaction_prepare(morv_btree* tree);

// ---- Growth ----

struct morv_volume;

// Grows the tree's file by one clump (morv_fork_expand: blocks from the
// volume's allocation bitmap) and makes the new nodes free nodes of the
// tree, chaining a map node when the node bitmap needs room. For a client
// whose claim failed with MORV_ERR_UNSUPPORTED; the tree must hold no
// unflushed writes. All or nothing.
[[nodiscard]] morv_err morv_btree_expand(morv_btree* tree, morv_volume* volume);
