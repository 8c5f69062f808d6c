// SPDX-License-Identifier: MIT
// The undo journal: every change of a tree is all or nothing.
//
// An operation (insertion, deletion, a claim, a locator's data write) or a
// client's group of them runs inside a transaction. The first time the
// transaction writes into a node, the node's original bytes are kept (read
// through the fork, before the write). When the transaction fails, the kept
// originals go back through the one write path, newest first, so that the
// cache of checked nodes and the decoded header follow them, and every open
// locator goes back to the place and bytes it had at the outermost begin
// (those opened in between are marked deleted: their records are gone).
// The restores need neither memory nor the device: every node kept was read,
// so its sectors are in the fork's cache.
//
// Two adjustments wait for the end of the outermost transaction (pend):
// an index record whose child's first key grew, and the removal of an
// emptied node. Until then the old key still leads every search to the right
// child, and a change made of several operations never passes through a
// tree larger than the one it ends with. Settling them (btree_delete.cpp)
// is itself part of the transaction.
#include <cstring>

#include "btree_internal.hpp"
#include "fork.hpp"

using namespace morv_bt;

namespace morv_bt {

void discard_journal(transaction* t) {
  for (size_t i = 0; i < t->saved_count; ++i) morv_free(t->saved[i].bytes);
  t->saved_count = 0;
  t->pending_count = 0;
}

// Keeps node `number`'s bytes as they are now, unless the transaction kept
// them already. Outside a transaction nothing is kept.
namespace {

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

}  // namespace

morv_err tree_write(morv_btree* tree, uint64_t offset, const void* data,
                                  size_t length) {
  const uint64_t first = offset / tree->node_size;
  const uint64_t last = (offset + length - 1) / tree->node_size;
  for (uint64_t n = first; n <= last; ++n) {
    morv_err err = journal_node(tree, static_cast<uint32_t>(n));
    if (err) return err;
  }
  return write_bytes(tree, offset, data, length);
}

}  // namespace

namespace morv_bt {
namespace {

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
    // The node is as it was when the locator was opened on it.
    tree_header h;
    node_ref node;
    if (read_tree_header(tree, &h) || get_node(tree, h, p->node_number, 0, &node) ||
        p->record_index >= node->count() || node->record_size(p->record_index) != p->raw_record_size) {
      MORV_CRITICAL("Internal error: Unable to read back the record of a locator on node %lu.\n",
                    morv_ul(p->node_number));
      p->deleted = 1;
      continue;
    }
    memcpy(p->record, node->record(p->record_index), p->raw_record_size);
  }
}

// Writes the kept originals back. Every node was read before it was kept,
// so these writes need neither memory nor the device.
void rollback(morv_btree* tree) {
  transaction& t = tree->priv->txn;
  for (size_t i = t.saved_count; i-- > 0;) {
    if (write_bytes(tree, node_offset(tree, t.saved[i].number), t.saved[i].bytes,
                    tree->node_size)) {
      MORV_CRITICAL("Internal error: Unable to put node %lu of the B-tree back as it was.\n",
                    morv_ul(t.saved[i].number));
    }
  }
  restore_locators(tree);
}

}  // namespace

void txn_begin(morv_btree* tree) {
  transaction& t = tree->priv->txn;
  if (t.depth++ == 0) {
    t.failure = MORV_OK;
    snapshot_locators(tree);
  }
}

// Ends one level; the outermost settles the waiting adjustments and then
// keeps the change or puts the tree back.
morv_err txn_end(morv_btree* tree, morv_err result) {
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
morv_err pend(morv_btree* tree, uint32_t number, uint8_t height, const uint8_t* key) {
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
