// SPDX-License-Identifier: MIT
// Record locators: a client's handle on one record of a tree.
//
// A locator is one allocation: the tag "morvbrla", the allocation's size,
// the public part clients hold, the private part (reference count, deleted
// flag, the record's node number, index and fork offset of its data, the
// open-list links, where the record stood when the outermost transaction
// began), then a private copy of the record's bytes as they stood in the
// node. Every open locator is on its tree's open list, so that the engine
// moves it when its record moves (insertion, splitting, deletion shift
// records within and between nodes), marks it deleted when its record goes,
// shares it among everyone who opens the same record, and force-closes the
// leaked ones when the tree is destroyed. Locators are opened on records of
// checked nodes only (btree_cursor.cpp); a locator whose place now holds
// another record is marked deleted rather than handed out for it.
#include <cstring>
#include <new>

#include "btree_internal.hpp"

using namespace morv_bt;

namespace {

// One allocation per locator: tag, size, public and private parts, then the
// record copy.
struct locator_block {
  char tag[8];
  size_t allocation_size;
  morv_btree_record_locator pub;
  morv_btree_record_locator_private priv;
};

}  // namespace

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
