// SPDX-License-Identifier: MIT
// The catalog: key order, record locators, lookups, insertion, renaming,
// deletion, file sizes, and symbolic and hard links.
//
// A catalog record locator wraps one engine record locator and may hold a
// counted reference on a parent locator (the record it was reached from).
// Every open locator is on the catalog's doubly linked open list, guarded by
// the catalog's list lock; that lock is always taken before any B-tree lock.
#include "catalog.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "allocation.hpp"
#include "bitmap.hpp"
#include "btree.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"
#include "volume.hpp"

struct morv_catalog_private {
  morv_btree* tree;
  morv_catalog_record_locator* open_locators;  // head of the list, null when none
  morv_rwlock* open_locators_lock;
};

namespace {
constexpr const char* kLogSource = "catalog";
constexpr char kLocatorTag[8] = {'m', 'o', 'r', 'v', 'c', 'r', 'l', 'a'};

struct catalog_locator_private {
  void* allocation;
  morv_catalog* catalog;
  uint64_t refcount;
  morv_catalog_record_locator* prev;
  morv_catalog_record_locator* next;
};

// One allocation per locator: tag, public part, private part, parent field.
struct catalog_locator_allocation {
  char tag[8];
  morv_catalog_record_locator pub;
  catalog_locator_private priv;
  morv_catalog_record_locator* parent;
};

catalog_locator_private* priv_of(morv_catalog_record_locator* locator) {
  return static_cast<catalog_locator_private*>(locator->priv);
}

// The type of the record under `locator`; a record too short to hold one is
// damaged.
[[nodiscard]] morv_err read_record_type(const morv_catalog_record_locator* locator,
                                        uint16_t* type) {
  const size_t size = locator->btree_locator->data_size;
  if (size < catalog::kRecordTypeSize) {
    MORV_ERROR("Catalog record of %zu bytes is too short to hold a record type.\n", size);
    return MORV_ERR_CORRUPT;
  }
  *type = load_be16(locator->btree_locator->data + catalog::kRecordType);
  return MORV_OK;
}

// Builds a key (parent, name of `length` big-endian units) in `key`, which
// must hold kKeyBufferSize bytes.
void build_key(uint8_t* key, uint32_t parent_id, const uint8_t* name, size_t length) {
  memset(key, 0, catalog::kKeyBufferSize);
  store_be16(key + catalog::kKeyLength, static_cast<uint16_t>(catalog::kMinKeyLength + 2 * length));
  store_be32(key + catalog::kKeyParentId, parent_id);
  store_be16(key + catalog::kKeyNameLength, static_cast<uint16_t>(length));
  if (length) memcpy(key + catalog::kKeyName, name, 2 * length);
}

}  // namespace

// ---- Key order ----

int morv_catalog_compare_keys(const uint8_t* key_a, const uint8_t* key_b, uint32_t compare_type) {
  const uint16_t length_a = load_be16(key_a + catalog::kKeyLength);
  const uint16_t length_b = load_be16(key_b + catalog::kKeyLength);
  if (length_a < catalog::kMinKeyLength) {
    MORV_ERROR("Data in A is too small to be a HFSPlusCatalogKey (%hu bytes).\n", length_a);
    return -1;
  }
  if (length_b < catalog::kMinKeyLength) {
    MORV_ERROR("Data in B is too small to be a HFSPlusCatalogKey (%hu bytes).\n", length_b);
    return -1;
  }
  const uint8_t type = static_cast<uint8_t>(compare_type);
  if (type != catalog::kCompareBinary && type != catalog::kCompareCaseFolding) {
    MORV_ERROR("Illegal value for compare_type: 0x%X\n", type);
    return -1;
  }
  const bool binary = type == catalog::kCompareBinary;
  const uint32_t parent_a = load_be32(key_a + catalog::kKeyParentId);
  const uint32_t parent_b = load_be32(key_b + catalog::kKeyParentId);
  if (parent_a != parent_b) return parent_a < parent_b ? -1 : 1;

  // A damaged name length is never followed beyond its own key.
  const size_t name_length_a = std::min<size_t>(load_be16(key_a + catalog::kKeyNameLength),
                                                (length_a - catalog::kMinKeyLength) / 2);
  const size_t name_length_b = std::min<size_t>(load_be16(key_b + catalog::kKeyNameLength),
                                                (length_b - catalog::kMinKeyLength) / 2);
  const uint8_t* name_a = key_a + catalog::kKeyName;
  const uint8_t* name_b = key_b + catalog::kKeyName;
  // In the root folder, names beginning with U+0000 (the volume's private
  // metadata folders) have a fixed place; A is tested first, so two of them
  // never compare equal.
  if (parent_a == kRootFolderCnid) {
    if (name_length_a > 0 && load_be16(name_a) == 0) return binary ? -1 : 1;
    if (name_length_b > 0 && load_be16(name_b) == 0) return binary ? 1 : -1;
  }
  return morv_unicode_compare_names(reinterpret_cast<const uint16_t*>(name_a), name_length_a,
                                    reinterpret_cast<const uint16_t*>(name_b), name_length_b,
                                    binary ? 1 : 0);
}

morv_err morv_catalog_key_name_length(const uint8_t* key, size_t key_size, uint16_t* name_length) {
  if (key_size < catalog::kKeyName || size_t{load_be16(key + catalog::kKeyLength)} + 2 > key_size) {
    MORV_ERROR("Catalog key of %zu bytes is too short for a parent ID and a name length.\n", key_size);
    return MORV_ERR_CORRUPT;
  }
  const uint16_t key_length = load_be16(key + catalog::kKeyLength);
  const uint16_t length = load_be16(key + catalog::kKeyNameLength);
  if (catalog::kMinKeyLength + 2 * size_t{length} > key_length) {
    MORV_ERROR("Catalog key name of %hu units runs past its keyLength of %hu bytes.\n", length,
               key_length);
    return MORV_ERR_CORRUPT;
  }
  *name_length = length;
  return MORV_OK;
}

// ---- Open and destroy ----

morv_err morv_catalog_create(morv_device* device, morv_extents* extents, uint8_t* volume_header,
                             morv_catalog** out) {
  morv::buffer<morv_catalog> catalog(static_cast<morv_catalog*>(morv_malloc(sizeof(morv_catalog))));
  if (!catalog) {
    MORV_ERROR("Error while allocating %llu bytes for morv_catalog.\n", morv_ull(sizeof(morv_catalog)));
    return MORV_ERR_NO_MEMORY;
  }
  morv::buffer<morv_catalog_private> priv(
      static_cast<morv_catalog_private*>(morv_calloc(1, sizeof(morv_catalog_private))));
  if (!priv) {
    MORV_ERROR("Error while allocating %llu bytes for morv_catalog_private.\n",
               morv_ull(sizeof(morv_catalog_private)));
    return MORV_ERR_NO_MEMORY;
  }
  morv_rwlock* lock = nullptr;
  if (morv_err err = morv_rwlock_create(&lock)) {
    MORV_ERROR("Error while creating open locators list lock.\n");
    return err;
  }
  morv_btree* tree = nullptr;
  if (morv_err err = morv_btree_create(device, extents, 0, volume_header, kCatalogFileCnid,
                                       morv_catalog_compare_keys, &tree)) {
    MORV_ERROR("Error while reading Catalog B-Tree into memory.\n");
    if (morv_rwlock_destroy(&lock))
      MORV_ERROR("Error while destroying catalog open locators list lock on cleanup.\n");
    return err;
  }
  priv.get()->tree = tree;
  priv.get()->open_locators = nullptr;
  priv.get()->open_locators_lock = lock;
  catalog.get()->priv = priv.release();
  *out = catalog.release();
  return MORV_OK;
}

morv_btree* morv_catalog_btree(const morv_catalog* catalog) { return catalog->priv->tree; }

bool morv_catalog_has_open_locators(const morv_catalog* catalog) {
  return catalog->priv->open_locators != nullptr;
}

morv_err morv_catalog_flush(morv_catalog* catalog) {
  return morv_fork_flush(catalog->priv->tree->fork);
}

void morv_catalog_destroy(morv_catalog** catalog_pointer) {
  morv_catalog* catalog = *catalog_pointer;
  morv_catalog_private* priv = catalog->priv;
  if (morv_rwlock_lock_write(priv->open_locators_lock)) {
    MORV_ERROR("Error while acquiring open locators list lock! Leaking open locators on "
               "morv_catalog destruction...\n");
  } else {
    // Parent references are dropped first: every locator is going, and a
    // parent closed before its child would otherwise be freed under it.
    for (morv_catalog_record_locator* it = priv->open_locators; it; it = priv_of(it)->next) {
      morv_catalog_record_locator* parent = *it->parent;
      if (!parent) continue;
      *it->parent = nullptr;
      catalog_locator_private* parent_priv = priv_of(parent);
      if (parent_priv->refcount > 1) --parent_priv->refcount;  // keep it listed until its round
    }
    uint64_t closed = 0;
    while (priv->open_locators) {
      morv_catalog_record_locator* head = priv->open_locators;
      morv_catalog_record_locator* handle = head;
      // A locator with several references takes several rounds; one that
      // had its last reference must leave the head.
      const bool last_reference = priv_of(head)->refcount <= 1;
      morv_catalog_record_locator_close_internal(&handle);
      ++closed;
      if (last_reference && priv->open_locators == head) {
        MORV_CRITICAL("Internal error: Closing head of catalog open locators list did not change the head!\n");
        break;
      }
    }
    if (closed) MORV_WARNING("Cleaned up %llu leaked catalog record locators on destroy.\n", morv_ull(closed));
    if (morv_rwlock_unlock(priv->open_locators_lock))
      MORV_WARNING("Error while unlocking catalog open locators list lock. Ignoring...\n");
  }
  if (morv_rwlock_destroy(&priv->open_locators_lock))
    MORV_ERROR("Error while destroying catalog open locators list lock. Leaking...\n");
  morv_btree_destroy(&priv->tree);
  memset(priv, 0, sizeof(*priv));
  morv_free(priv);
  memset(catalog, 0, sizeof(*catalog));
  morv_free(catalog);
  *catalog_pointer = nullptr;
}

// ---- Record locators ----

namespace {

// Replaces the parent reference; the caller holds the list lock.
void set_parent_locked(morv_catalog_record_locator* locator, morv_catalog_record_locator* parent) {
  morv_catalog_record_locator* old_parent = *locator->parent;
  if (parent) ++priv_of(parent)->refcount;
  *locator->parent = parent;
  if (old_parent) morv_catalog_record_locator_close_internal(&old_parent);
}

}  // namespace

morv_err morv_catalog_record_locator_open(morv_catalog* catalog,
                                          morv_btree_record_locator* btree_locator, uint32_t word1,
                                          morv_catalog_record_locator* parent, uint32_t word3,
                                          morv_catalog_record_locator** out) {
  auto* allocation = static_cast<catalog_locator_allocation*>(morv_malloc(sizeof(catalog_locator_allocation)));
  if (!allocation) {
    MORV_ERROR("Error while allocating %llu bytes for morv_catalog_record_locator allocation.\n",
               morv_ull(sizeof(catalog_locator_allocation)));
    return MORV_ERR_NO_MEMORY;
  }
  morv_catalog_private* cpriv = catalog->priv;
  if (morv_err err = morv_rwlock_lock_write(cpriv->open_locators_lock)) {
    MORV_ERROR("Error while acquiring catalog open locators list lock.\n");
    morv_free(allocation);
    return err;
  }
  memset(allocation, 0, sizeof(*allocation));
  memcpy(allocation->tag, kLocatorTag, sizeof kLocatorTag);
  morv_catalog_record_locator* locator = &allocation->pub;
  locator->btree_locator = btree_locator;
  locator->record_type = word1;
  locator->parent = &allocation->parent;
  locator->reserved = word3;
  locator->priv = &allocation->priv;
  allocation->priv.allocation = allocation;
  allocation->priv.catalog = catalog;
  allocation->priv.refcount = 1;
  allocation->priv.prev = nullptr;
  allocation->priv.next = cpriv->open_locators;
  set_parent_locked(locator, parent);
  if (cpriv->open_locators) priv_of(cpriv->open_locators)->prev = locator;
  cpriv->open_locators = locator;
  if (morv_err err = morv_rwlock_unlock(cpriv->open_locators_lock)) {
    MORV_ERROR("Error while unlocking catalog open locators list lock.\n");
    return err;
  }
  *out = locator;
  return MORV_OK;
}

void morv_catalog_record_locator_close_internal(morv_catalog_record_locator** locator_pointer) {
  morv_catalog_record_locator* locator = *locator_pointer;
  catalog_locator_private* priv = priv_of(locator);
  if (priv->refcount == 0) {
    MORV_WARNING("Closing locator %p with 0 refcount!\n", static_cast<void*>(locator));
  } else if (--priv->refcount != 0) {
    *locator_pointer = nullptr;
    return;
  }
  morv_catalog_private* cpriv = priv->catalog->priv;
  if (priv->next) priv_of(priv->next)->prev = priv->prev;
  if (!priv->prev)
    cpriv->open_locators = priv->next;
  else
    priv_of(priv->prev)->next = priv->next;
  if (*locator->parent) {
    morv_catalog_record_locator* parent = *locator->parent;
    morv_catalog_record_locator_close_internal(&parent);
  }
  morv_btree_record_locator_close(&locator->btree_locator);
  void* allocation = priv->allocation;
  memset(allocation, 0, sizeof(catalog_locator_allocation));
  morv_free(allocation);
  *locator_pointer = nullptr;
}

morv_err morv_catalog_record_locator_close(morv_catalog_record_locator** locator_pointer) {
  morv_catalog_private* cpriv = priv_of(*locator_pointer)->catalog->priv;
  if (morv_err err = morv_rwlock_lock_write(cpriv->open_locators_lock)) {
    MORV_ERROR("Error while locking catalog open locators list.\n");
    *locator_pointer = nullptr;
    return err;
  }
  morv_catalog_record_locator_close_internal(locator_pointer);
  morv_err err = morv_rwlock_unlock(cpriv->open_locators_lock);
  if (err) MORV_WARNING("Error while unlocking catalog open locators list lock. Ignoring...\n");
  return err;
}

morv_err morv_catalog_record_locator_set_parent_locator(morv_catalog_record_locator* locator,
                                                        morv_catalog_record_locator* parent) {
  morv_catalog_private* cpriv = priv_of(locator)->catalog->priv;
  if (morv_err err = morv_rwlock_lock_write(cpriv->open_locators_lock)) {
    MORV_ERROR("Error while acquiring write lock for catalog open locators list.\n");
    return err;
  }
  set_parent_locked(locator, parent);
  if (morv_err err = morv_rwlock_unlock(cpriv->open_locators_lock)) {
    MORV_ERROR("Error while releasing lock for open locators list.\n");
    return err;
  }
  return MORV_OK;
}

void morv_catalog_search_result_init(morv_catalog_search_result* result) {
  result->exact_match = 0;
  result->after_last_record = 0;
  result->locator = nullptr;
}

void morv_catalog_search_result_release(morv_catalog_search_result* result) {
  if (result->locator) morv_catalog_record_locator_close(&result->locator);
  morv_catalog_search_result_init(result);
}

// ---- Lookups ----

morv_err morv_catalog_search_node(morv_catalog* catalog, const uint8_t* key,
                                  morv_catalog_search_result* result) {
  morv_btree_search_result found;
  morv_btree_search_result_init(&found);
  if (morv_err err = morv_btree_search_node(catalog->priv->tree, key, &found)) {
    MORV_ERROR("Error in morv_btree_search_node.\n");
    return err;
  }
  morv_catalog_record_locator* locator = nullptr;
  if (found.locator) {
    if (morv_err err = morv_catalog_record_locator_open(catalog, found.locator, 0, nullptr, 0, &locator)) {
      MORV_ERROR("Error while creating morv_catalog_record_locator\n");
      morv_btree_search_result_release(&found);
      return err;
    }
  }
  result->exact_match = found.exact_match;
  result->after_last_record = found.after_last_record;
  result->locator = locator;
  return MORV_OK;
}

morv_err morv_catalog_get_next_record(morv_catalog* catalog, morv_catalog_record_locator* locator,
                                      morv_catalog_record_locator** next) {
  morv_btree_record_locator* following = nullptr;
  if (morv_err err = morv_btree_get_next_record(catalog->priv->tree, locator->btree_locator, &following)) {
    MORV_ERROR("Error in morv_btree_get_next_record.\n");
    return err;
  }
  if (!following) {
    *next = nullptr;
    return MORV_OK;
  }
  if (morv_err err = morv_catalog_record_locator_open(catalog, following, 0, nullptr, 0, next)) {
    MORV_ERROR("Error while creating morv_catalog_record_locator.\n");
    morv_btree_record_locator_close(&following);
    return err;
  }
  return MORV_OK;
}

morv_err morv_catalog_insert_record(morv_catalog* catalog, const uint8_t* key, const uint8_t* data,
                                    uint16_t data_length, const morv_catalog_search_result* hint,
                                    morv_catalog_record_locator** out) {
  morv_btree_search_result location;
  morv_btree_search_result* location_pointer = nullptr;
  if (hint) {
    location.exact_match = hint->exact_match;
    location.after_last_record = hint->after_last_record;
    location.locator = hint->locator ? hint->locator->btree_locator : nullptr;
    location_pointer = &location;
  }
  morv_btree_record_locator* inserted = nullptr;
  if (morv_err err = morv_btree_insert_record(catalog->priv->tree, key, data, data_length,
                                              location_pointer, &inserted)) {
    MORV_ERROR("Error in morv_btree_insert_record.\n");
    return err;
  }
  if (!inserted) {
    MORV_CRITICAL("Unexpected: morv_btree_insert_record returned NULL locator but no error.\n");
    return MORV_ERR_INTERNAL;
  }
  if (morv_err err = morv_catalog_record_locator_open(catalog, inserted, 0, nullptr, 0, out)) {
    MORV_ERROR("Error while creating morv_catalog_record_locator.\n");
    morv_btree_record_locator_close(&inserted);
    return err;
  }
  return MORV_OK;
}

morv_err morv_catalog_follow_thread(morv_catalog* catalog, morv_catalog_record_locator* thread,
                                    morv_catalog_search_result* result) {
  const uint8_t* data = thread->btree_locator->data;
  const size_t data_size = thread->btree_locator->data_size;
  if (data_size < catalog::kThreadFixedSize) {
    MORV_ERROR("Thread record of %zu bytes is too small.\n", data_size);
    return MORV_ERR_CORRUPT;
  }
  size_t name_length = load_be16(data + catalog::kThreadName);
  if (name_length > (data_size - catalog::kThreadFixedSize) / 2) {
    MORV_ERROR("Thread record of %zu bytes is too short for its name of %zu units.\n", data_size,
               name_length);
    return MORV_ERR_CORRUPT;
  }
  // Threads are followed even when their name is longer than a name may be,
  // so that the caller sees the over-long name itself; the copy never goes
  // beyond this buffer.
  constexpr size_t kMaxFollowedName = 1023;
  uint8_t key[catalog::kKeyName + 2 * kMaxFollowedName];
  if (name_length > kMaxFollowedName) name_length = kMaxFollowedName;
  store_be16(key + catalog::kKeyLength, static_cast<uint16_t>(catalog::kMinKeyLength + 2 * name_length));
  store_be32(key + catalog::kKeyParentId, load_be32(data + catalog::kThreadParentId));
  store_be16(key + catalog::kKeyNameLength, static_cast<uint16_t>(name_length));
  memcpy(key + catalog::kKeyName, data + catalog::kThreadName + 2, 2 * name_length);
  if (morv_err err = morv_catalog_search_node(catalog, key, result)) {
    MORV_ERROR("Error while searching for target of thread.\n");
    return err;
  }
  return MORV_OK;
}

morv_err morv_catalog_search_by_cnid(morv_catalog* catalog, uint32_t cnid, int follow,
                                     morv_catalog_search_result* result) {
  uint8_t key[catalog::kKeyBufferSize];
  build_key(key, cnid, nullptr, 0);
  morv_catalog_search_result thread;
  morv_catalog_search_result_init(&thread);
  if (morv_err err = morv_catalog_search_node(catalog, key, &thread)) {
    MORV_ERROR("Error while searching thread record when searching by CNID.\n");
    return err;
  }
  morv::scope_exit release_thread([&] { morv_catalog_search_result_release(&thread); });
  if (!thread.locator) {
    MORV_CRITICAL("Unexpected: morv_catalog_search_node returned NULL locator but no error.\n");
    return MORV_ERR_INTERNAL;
  }
  uint16_t type = 0;
  if (thread.exact_match && follow) {
    if (morv_err err = read_record_type(thread.locator, &type)) {
      MORV_ERROR("Error while reading the thread record of CNID %lu.\n", morv_ul(cnid));
      return err;
    }
  }
  if (type == catalog::kFolderThreadRecord || type == catalog::kFileThreadRecord) {
    morv_catalog_search_result target;
    morv_catalog_search_result_init(&target);
    if (morv_err err = morv_catalog_follow_thread(catalog, thread.locator, &target)) {
      MORV_ERROR("Error while following thread when searching for node by CNID.\n");
      return err;
    }
    if (!target.locator) {
      MORV_CRITICAL("Unexpected: morv_catalog_follow_thread returned NULL locator but no error.\n");
      return MORV_ERR_INTERNAL;
    }
    *result = target;
    return MORV_OK;
  }
  release_thread.release();
  *result = thread;
  return MORV_OK;
}

// ---- Path lookup ----

namespace {

// The folder ID of the folder record under `locator`, checked.
[[nodiscard]] morv_err folder_id_of(morv_catalog_record_locator* locator, uint32_t* folder_id) {
  uint16_t type = 0;
  if (morv_err err = read_record_type(locator, &type)) return err;
  if (type != catalog::kFolderRecord) {
    MORV_ERROR("Invalid argument: 'CatalogRecord' has non-folder type %hd.\n", static_cast<int16_t>(type));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const size_t size = locator->btree_locator->data_size;
  if (size < catalog::kFolderRecordSize) {
    MORV_ERROR("Unexpected data size for HFSPlusCatalogFolder. Expected minimum: %zu Actual: %zu\n",
               catalog::kFolderRecordSize, size);
    return MORV_ERR_CORRUPT;
  }
  *folder_id = load_be32(locator->btree_locator->data + catalog::kRecordCnid);
  return MORV_OK;
}

}  // namespace

morv_err morv_catalog_search_by_path(morv_catalog* catalog, morv_catalog_component_source next_component,
                                     void* context, morv_catalog_record_locator* start_folder,
                                     morv_catalog_search_result* out) {
  uint32_t folder_id = kRootFolderCnid;
  morv_catalog_record_locator* parent = nullptr;  // not owned: the current folder or the start
  if (start_folder) {
    if (morv_err err = folder_id_of(start_folder, &folder_id)) return err;
    if (folder_id == kRootParentCnid) folder_id = kRootFolderCnid;
    else parent = start_folder;
  }
  uint8_t key[catalog::kKeyBufferSize];
  memset(key, 0, sizeof key);
  size_t name_length = 0;  // the first round looks up the start folder's own thread
  morv_catalog_search_result found;
  morv_catalog_search_result_init(&found);
  morv_catalog_record_locator* current = nullptr;  // owned: the folder being walked
  morv::scope_exit cleanup([&] {
    if (current) morv_catalog_record_locator_close(&current);
    morv_catalog_search_result_release(&found);
  });

  for (bool first = true;; first = false) {
    if (!first) {
      if (found.locator) {
        // Its size was checked when it was found.
        const int16_t type = static_cast<int16_t>(load_be16(found.locator->btree_locator->data));
        if (type != catalog::kFolderRecord) {
          MORV_ERROR("Unexpected record type for parent directory in lookup: %hd.\n", type);
          return MORV_ERR_INTERNAL;
        }
        if (current) morv_catalog_record_locator_close(&current);
        current = found.locator;
        parent = current;
        folder_id = load_be32(current->btree_locator->data + catalog::kRecordCnid);
        morv_catalog_search_result_init(&found);
      } else if (name_length != 0) {
        MORV_CRITICAL("Unexpected: NULL current_entry but non-0 nodeNameLength (%zu).\n", name_length);
        return MORV_ERR_INTERNAL;
      }
    }
    store_be16(key + catalog::kKeyLength, static_cast<uint16_t>(catalog::kMinKeyLength + 2 * name_length));
    store_be32(key + catalog::kKeyParentId, folder_id);
    store_be16(key + catalog::kKeyNameLength, static_cast<uint16_t>(name_length));
    if (morv_err err = morv_catalog_search_node(catalog, key, &found)) {
      MORV_ERROR("Error while searching for intermediate path component.\n");
      return err;
    }
    if (!found.locator || !found.exact_match) break;
    uint16_t found_type = 0;
    if (morv_err err = read_record_type(found.locator, &found_type)) return err;
    const int16_t type = static_cast<int16_t>(found_type);
    if (type < catalog::kFolderRecord || type > catalog::kFileThreadRecord) {
      MORV_ERROR("Unexpected record type %hd for looked up record data.\n", type);
      return MORV_ERR_CORRUPT;
    }
    if (type == catalog::kFolderThreadRecord || type == catalog::kFileThreadRecord) {
      morv_catalog_search_result target;
      morv_catalog_search_result_init(&target);
      if (morv_err err = morv_catalog_follow_thread(catalog, found.locator, &target)) {
        MORV_ERROR("Error while following thread.\n");
        return err;
      }
      morv_catalog_search_result_release(&found);
      found = target;
      if (!found.locator || !found.exact_match) {
        MORV_ERROR("%s: Thread target not found.\n", __func__);
        return MORV_ERR_CORRUPT;
      }
    }
    const size_t size = found.locator->btree_locator->data_size;
    if (size < catalog::kFolderRecordSize) {
      MORV_ERROR("Unexpected data size for HFSPlusCatalogFolder. Expected minimum: %zu Actual: %zu\n",
                 catalog::kFolderRecordSize, size);
      return MORV_ERR_CORRUPT;
    }
    if (morv_err err = next_component(context, reinterpret_cast<uint16_t*>(key + catalog::kKeyName),
                                      catalog::kMaxNameLength, &name_length)) {
      MORV_ERROR("Error while converting native path component to HFS+ string.\n");
      return err;
    }
    if (name_length == 0) break;
  }

  if (found.locator && (found.exact_match || parent)) {
    if (morv_err err = morv_catalog_record_locator_set_parent_locator(found.locator, parent)) {
      MORV_ERROR(found.exact_match ? "Error while setting parent locator (search found a match).\n"
                                   : "Error while setting parent locator (search did not find a match).\n");
      return err;
    }
  }
  if (found.locator) {
    uint16_t type = 0;
    if (morv_err err = read_record_type(found.locator, &type)) return err;
    found.locator->record_type = type;
  }
  *out = found;
  morv_catalog_search_result_init(&found);
  return MORV_OK;
}

// ---- Valence ----

morv_err morv_catalog_update_valence(morv_catalog* /*catalog*/, const uint8_t* child_record,
                                     morv_catalog_record_locator* parent_locator, int increment) {
  const uint16_t child_type = load_be16(child_record + catalog::kRecordType);
  bool subfolder = false;
  if (child_type == catalog::kFolderRecord) {
    subfolder = true;
  } else if (child_type == catalog::kFileRecord) {
    // A directory hard link counts as a subfolder.
    subfolder = memcmp(child_record + catalog::kFileUserInfoType, "fdrp", 4) == 0 &&
                memcmp(child_record + catalog::kFileUserInfoCreator, "MACS", 4) == 0 &&
                (load_be16(child_record + catalog::kRecordFlags) & catalog::kDirectoryHardLinkFlag);
  } else if (child_type == catalog::kFolderThreadRecord || child_type == catalog::kFileThreadRecord) {
    MORV_ERROR("Invalid parameter: Child record data is a thread record.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  } else {
    MORV_CRITICAL("Unexpected - Bad data in child_record_data (not a catalog record, record type: 0x%hX).\n",
                  child_type);
    return MORV_ERR_CORRUPT;
  }
  morv_btree_record_locator* parent = parent_locator->btree_locator;
  if (parent->data_size < catalog::kFolderRecordSize) {
    MORV_ERROR("Unexpected data size for HFSPlusCatalogFolder. Expected minimum: %zu Actual: %zu\n",
               catalog::kFolderRecordSize, parent->data_size);
    return MORV_ERR_CORRUPT;
  }
  uint8_t folder[catalog::kFolderRecordSize];
  memcpy(folder, parent->data, sizeof folder);
  const uint32_t delta = increment ? 1u : 0xFFFFFFFFu;  // wraps both ways
  if (subfolder && (load_be16(folder + catalog::kRecordFlags) & catalog::kHasFolderCountFlag))
    store_be32(folder + catalog::kFolderFolderCount, load_be32(folder + catalog::kFolderFolderCount) + delta);
  store_be32(folder + catalog::kFolderValence, load_be32(folder + catalog::kFolderValence) + delta);
  if (morv_err err = morv_btree_record_locator_write_data(parent, folder, sizeof folder)) {
    MORV_ERROR("Error while writing out updated parent valence.\n");
    return err;
  }
  return MORV_OK;
}

morv_err morv_catalog_increment_valence(morv_catalog* catalog, const uint8_t* child_record,
                                        morv_catalog_record_locator* parent_locator) {
  return morv_catalog_update_valence(catalog, child_record, parent_locator, 1);
}

morv_err morv_catalog_decrement_valence(morv_catalog* catalog, const uint8_t* child_record,
                                        morv_catalog_record_locator* parent_locator) {
  return morv_catalog_update_valence(catalog, child_record, parent_locator, 0);
}

// ---- Rename ----

namespace {

// Inserts the thread record of `cnid` (type 3 for a folder, 4 for a file)
// naming its new parent and name, after deleting the old one if it exists.
morv_err rebuild_thread(morv_catalog* catalog, uint32_t cnid, bool folder, uint32_t new_parent_be,
                        const uint16_t* new_name, size_t new_name_length) {
  morv_catalog_search_result thread;
  morv_catalog_search_result_init(&thread);
  if (morv_err err = morv_catalog_search_by_cnid(catalog, cnid, 0, &thread)) {
    MORV_ERROR("Error while searching for thread record by CNID.\n");
    return err;
  }
  morv::scope_exit release_thread([&] { morv_catalog_search_result_release(&thread); });
  if (!thread.locator) {
    MORV_CRITICAL("Unexpected: morv_catalog_search_by_cnid returned NULL locator but no error when "
                  "seaching for thread of inserted record.\n");
    return MORV_ERR_INTERNAL;
  }
  if (thread.exact_match) {
    if (morv_err err = morv_btree_delete_record(catalog->priv->tree, thread.locator->btree_locator)) {
      MORV_ERROR("Error while deleting catalog thread record from B-tree.\n");
      return err;
    }
  } else {
    MORV_WARNING("Missing thread record for original file in rename. Creating new thread record...\n");
  }

  uint8_t key[catalog::kKeyBufferSize];
  build_key(key, cnid, nullptr, 0);
  uint8_t data[catalog::kThreadFixedSize + 2 * catalog::kMaxNameLength];
  store_be16(data + catalog::kRecordType, folder ? catalog::kFolderThreadRecord : catalog::kFileThreadRecord);
  store_be16(data + 2, 0);
  memcpy(data + catalog::kThreadParentId, &new_parent_be, 4);
  store_be16(data + catalog::kThreadName, static_cast<uint16_t>(new_name_length));
  memcpy(data + catalog::kThreadName + 2, new_name, 2 * new_name_length);
  morv_catalog_record_locator* inserted = nullptr;
  if (morv_err err = morv_catalog_insert_record(catalog, key, data,
                                                static_cast<uint16_t>((new_name_length + 5) * 2),
                                                &thread, &inserted)) {
    MORV_ERROR("Error while inserting thread record for renamed entry.\n");
    return err;
  }
  if (!inserted) {
    MORV_CRITICAL("Unexpected: morv_catalog_insert_record returned NULL locator but no error after "
                  "inserting new thread record.\n");
    return MORV_ERR_INTERNAL;
  }
  morv_catalog_record_locator_close(&inserted);
  return MORV_OK;
}

// Adds the renamed item to the valence of its new parent folder.
morv_err increment_new_parent(morv_catalog* catalog, uint32_t new_parent, const uint8_t* record) {
  morv_catalog_search_result parent;
  morv_catalog_search_result_init(&parent);
  if (morv_err err = morv_catalog_search_by_cnid(catalog, new_parent, 1, &parent)) {
    MORV_ERROR("Error while searching for containing folder of newly inserted record by CNID.\n");
    return err;
  }
  morv::scope_exit release_parent([&] { morv_catalog_search_result_release(&parent); });
  if (!parent.locator) {
    MORV_CRITICAL("Unexpected: morv_catalog_search_by_cnid returned NULL locator but no error after "
                  "searching for new containing folder of renamed item by CNID.\n");
    return MORV_ERR_INTERNAL;
  }
  if (!parent.exact_match) {
    MORV_CRITICAL("Unable to find containing parent with CNID %lu when attempting to increment valence.\n",
                  morv_ul(new_parent));
    return MORV_ERR_CORRUPT;
  }
  if (morv_err err = morv_catalog_increment_valence(catalog, record, parent.locator)) {
    MORV_ERROR("Error when incrementing valence of new parent folder.\n");
    return err;
  }
  return MORV_OK;
}

}  // namespace

namespace {

morv_err rename_record(morv_catalog* catalog, morv_catalog_record_locator** locator_pointer,
                       uint32_t new_parent, const uint16_t* new_name, size_t new_name_length) {
  if (!locator_pointer) {
    MORV_ERROR("No catalog record pointer specified.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv_catalog_record_locator* locator = *locator_pointer;
  morv_catalog_record_locator* parent = *locator->parent;
  morv_btree_record_locator* record = locator->btree_locator;
  uint16_t name_length = 0;
  if (morv_err err = morv_catalog_key_name_length(record->key, record->key_size, &name_length))
    return err;
  if (!parent && load_be32(record->key + catalog::kKeyParentId) != kRootParentCnid) {
    MORV_ERROR("Supplied catalog record locator has no parent locator.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint16_t type = 0;
  if (morv_err err = read_record_type(locator, &type)) return err;
  size_t record_size = 0;
  if (type == catalog::kFileRecord) record_size = catalog::kFileRecordSize;
  else if (type == catalog::kFolderRecord) record_size = catalog::kFolderRecordSize;
  if (record_size == 0) {
    MORV_ERROR("Invalid record type (0x%hX) in record data!\n", type);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (record->data_size < record_size) {
    MORV_ERROR("Catalog record of type %hu is %zu bytes, shorter than its %zu-byte layout.\n", type,
               record->data_size, record_size);
    return MORV_ERR_CORRUPT;
  }
  uint8_t data[catalog::kFileRecordSize];
  memcpy(data, record->data, record_size);
  const uint32_t cnid = load_be32(data + catalog::kRecordCnid);
  uint8_t parent_be[4];
  memcpy(parent_be, &new_parent, 4);
  const uint32_t new_parent_id = load_be32(parent_be);
  const bool root = cnid == kRootFolderCnid;
  if (root && new_parent_id != kRootParentCnid) {
    MORV_ERROR("Attempting to move root directory to other (non-root parent) folder. This is not allowed.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }

  if (morv_err err = morv_btree_delete_record(catalog->priv->tree, record)) {
    MORV_ERROR("Error while deleting record from B-tree.\n");
    return err;
  }
  if (!root) {
    if (!parent) {
      MORV_ERROR("%s: Unable to decrement valence!\n", __func__);
      return MORV_ERR_INTERNAL;
    }
    if (morv_err err = morv_catalog_decrement_valence(catalog, data, parent)) {
      MORV_ERROR("Error when decrementing valence of old parent folder.\n");
      return err;
    }
  }
  morv_catalog_record_locator_close(locator_pointer);

  if (new_name_length > catalog::kMaxNameLength) return MORV_ERR_INVALID_ARGUMENT;
  uint8_t key[catalog::kKeyBufferSize];
  build_key(key, new_parent_id, reinterpret_cast<const uint8_t*>(new_name), new_name_length);
  morv_catalog_record_locator* inserted = nullptr;
  if (morv_err err = morv_catalog_insert_record(catalog, key, data, static_cast<uint16_t>(record_size),
                                                nullptr, &inserted)) {
    MORV_ERROR("Error while inserting record into catalog.\n");
    return err;
  }
  if (!inserted) {
    MORV_CRITICAL("Unexpected: morv_catalog_insert_record returned NULL locator but no error after "
                  "inserting new record for renamed item into catalog.\n");
    return MORV_ERR_INTERNAL;
  }
  morv_catalog_record_locator_close(&inserted);

  if (!root) {
    if (morv_err err = increment_new_parent(catalog, new_parent_id, data)) return err;
  }
  return rebuild_thread(catalog, cnid, type == catalog::kFolderRecord, new_parent, new_name,
                        new_name_length);
}

}  // namespace

// The record's deletion, its insertion under the new key, the valences and
// the thread record are one change of the catalog tree: a failure anywhere
// leaves the tree as it was.
morv_err morv_catalog_rename_record(morv_catalog* catalog, morv_catalog_record_locator** locator_pointer,
                                    uint32_t new_parent, const uint16_t* new_name,
                                    size_t new_name_length) {
  // Only a thread record's key has an empty name: a record renamed to one
  // would take the key of its new parent's thread.
  if (new_name_length == 0 || !new_name) {
    MORV_ERROR("Invalid parameter: A catalog record cannot be renamed to an empty name.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  morv_btree* tree = catalog->priv->tree;
  if (morv_err err = morv_btree_transaction_begin(tree)) return err;
  return morv_btree_transaction_end(
      tree, rename_record(catalog, locator_pointer, new_parent, new_name, new_name_length));
}

// ---- Folder contents ----

namespace {

// The parentID of a record's key; false when the key is too short to hold one.
bool key_parent(const morv_btree_record_locator* record, uint32_t* parent) {
  if (record->key_size < catalog::kKeyParentId + 4) return false;
  *parent = load_be32(record->key + catalog::kKeyParentId);
  return true;
}

bool is_folder_record(const morv_catalog_record_locator* locator) {
  const morv_btree_record_locator* r = locator->btree_locator;
  return r->data_size >= catalog::kFolderRecordSize &&
         load_be16(r->data + catalog::kRecordType) == catalog::kFolderRecord;
}

bool is_folder(const morv_catalog_record_locator* locator, uint32_t folder_id) {
  return is_folder_record(locator) &&
         load_be32(locator->btree_locator->data + catalog::kRecordCnid) == folder_id;
}

bool is_child_of(const morv_catalog_record_locator* locator, uint32_t folder_id) {
  uint32_t parent = 0;
  return key_parent(locator->btree_locator, &parent) && parent == folder_id;
}

}  // namespace

// A folder's children follow its thread record, whose key (the folder's
// CNID, empty name) sorts before all of theirs.
morv_err morv_catalog_is_directory_empty(morv_catalog* catalog, morv_catalog_record_locator* locator,
                                         int* empty_out) {
  if (!catalog || !locator || !empty_out) {
    MORV_ERROR("Invalid parameter: %s needs a catalog, a locator and a result.\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint32_t folder_id = 0;
  if (morv_err err = folder_id_of(locator, &folder_id)) return err;
  morv_catalog_search_result thread;
  morv_catalog_search_result_init(&thread);
  if (morv_err err = morv_catalog_search_by_cnid(catalog, folder_id, 0, &thread)) {
    MORV_ERROR("Error while searching for directory thread by CNID.\n");
    return err;
  }
  morv::scope_exit release_thread([&] { morv_catalog_search_result_release(&thread); });
  if (!thread.locator) {
    MORV_CRITICAL("Unexpected: morv_catalog_search_by_cnid returned NULL locator with no error.\n");
    return MORV_ERR_INTERNAL;
  }
  // Without its thread record the search stops where the thread would be,
  // which may be the folder's first child.
  if (!thread.exact_match && is_child_of(thread.locator, folder_id)) {
    *empty_out = 0;
    return MORV_OK;
  }
  morv_catalog_record_locator* next = nullptr;
  if (morv_err err = morv_catalog_get_next_record(catalog, thread.locator, &next)) {
    MORV_ERROR("Error while looking up the next record after directory thread record.\n");
    return err;
  }
  const bool empty = !next || !is_child_of(next, folder_id);
  if (next) morv_catalog_record_locator_close(&next);
  *empty_out = empty ? 1 : 0;
  return MORV_OK;
}

morv_err morv_catalog_can_delete_file(morv_catalog* catalog, morv_catalog_record_locator* locator,
                                      int* can_out) {
  if (!locator || !can_out) {
    MORV_ERROR("Invalid parameter: %s needs a locator and a result.\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint16_t type = 0;
  if (morv_err err = read_record_type(locator, &type)) return err;
  if (type != catalog::kFolderRecord) {
    *can_out = 1;
    return MORV_OK;
  }
  int empty = 0;
  if (morv_err err = morv_catalog_is_directory_empty(catalog, locator, &empty)) {
    MORV_ERROR("Error while checking if directory is empty.\n");
    return err;
  }
  *can_out = empty;
  return MORV_OK;
}

// ---- Hard links ----
//
// A hard link is a file record ("hlnk" "hfs+") with empty forks whose
// permissions.special names an indirect node file "iNode<number>" in the
// root's private folder "\0\0\0\0HFS+ Private Data"; that file holds the data
// and, in its own permissions.special, the number of links naming it. Links
// made by Mac OS carry the indirect node file's CNID, which its thread record
// leads to; links made by Linux carry a number of their own, which only the
// file's name gives.

namespace {

constexpr uint16_t kPrivateFolderName[] = {0,   0,   0,   0,   'H', 'F', 'S', '+', ' ', 'P', 'r',
                                           'i', 'v', 'a', 't', 'e', ' ', 'D', 'a', 't', 'a'};
constexpr size_t kPrivateFolderNameLength = sizeof kPrivateFolderName / sizeof kPrivateFolderName[0];
constexpr char kIndirectNodePrefix[] = "iNode";

bool has_codes(const uint8_t* file, const char* type, const char* creator) {
  return memcmp(file + catalog::kFileUserInfoType, type, 4) == 0 &&
         memcmp(file + catalog::kFileUserInfoCreator, creator, 4) == 0;
}

bool is_file(const uint8_t* data, size_t size) {
  return size >= catalog::kFileRecordSize && load_be16(data + catalog::kRecordType) == catalog::kFileRecord;
}

bool is_hard_link(const uint8_t* data, size_t size) {
  return is_file(data, size) && has_codes(data, catalog::kHardLinkType, catalog::kHardLinkCreator);
}

bool key_named(const morv_btree_record_locator* r, const uint8_t* name, uint16_t length) {
  return r->key_size >= catalog::kKeyName + 2 * size_t{length} &&
         load_be16(r->key + catalog::kKeyNameLength) == length &&
         memcmp(r->key + catalog::kKeyName, name, 2 * size_t{length}) == 0;
}

// Finds the record of the root folder named `name` (`length` big-endian
// units) by walking the root's records from its thread record on; the walk
// only moves forward. The way to records whose names begin with U+0000 (the
// private folders): the key order gives them no place a search could find.
// `out` holds the record, or stays empty.
[[nodiscard]] morv_err walk_root(morv_catalog* catalog, const uint8_t* name, uint16_t length,
                                 morv_catalog_search_result* out) {
  morv_catalog_search_result root;
  morv_catalog_search_result_init(&root);
  if (morv_err err = morv_catalog_search_by_cnid(catalog, kRootFolderCnid, 0, &root)) {
    MORV_ERROR("Error while searching for the root folder's thread record.\n");
    return err;
  }
  morv_catalog_record_locator* cur = root.locator;
  morv::scope_exit close_cur([&] {
    if (cur) morv_catalog_record_locator_close(&cur);
  });
  // Without the thread the search stopped near where it would be.
  for (bool look_here = !root.exact_match; cur; look_here = true) {
    uint32_t parent = 0;
    if (look_here) {
      if (!key_parent(cur->btree_locator, &parent) || parent > kRootFolderCnid) break;
      if (parent == kRootFolderCnid && key_named(cur->btree_locator, name, length)) {
        out->exact_match = 1;
        out->after_last_record = 0;
        out->locator = cur;
        cur = nullptr;
        break;
      }
    }
    morv_catalog_record_locator* next = nullptr;
    if (morv_err err = morv_catalog_get_next_record(catalog, cur, &next)) {
      MORV_ERROR("Error while walking the root folder's records.\n");
      return err;
    }
    morv_catalog_record_locator_close(&cur);
    cur = next;
  }
  return MORV_OK;
}

// The private folder's CNID, 0 when the root has none.
[[nodiscard]] morv_err find_private_folder(morv_catalog* catalog, uint32_t* cnid) {
  uint8_t name[2 * kPrivateFolderNameLength];
  for (size_t i = 0; i < kPrivateFolderNameLength; ++i) store_be16(name + 2 * i, kPrivateFolderName[i]);
  morv_catalog_search_result found;
  morv_catalog_search_result_init(&found);
  if (morv_err err = walk_root(catalog, name, kPrivateFolderNameLength, &found)) return err;
  *cnid = found.locator && is_folder_record(found.locator)
              ? load_be32(found.locator->btree_locator->data + catalog::kRecordCnid)
              : 0;
  morv_catalog_search_result_release(&found);
  return MORV_OK;
}

// The name of indirect node file `number`, "iNode<number>", as text and as
// big-endian units.
struct indirect_node_name {
  explicit indirect_node_name(uint32_t number) {
    const int n = snprintf(text, sizeof text, "%s%lu", kIndirectNodePrefix, morv_ul(number));
    length = static_cast<uint16_t>(n > 0 ? n : 0);
    for (size_t i = 0; i < length; ++i) store_be16(units + 2 * i, static_cast<uint8_t>(text[i]));
  }
  char text[sizeof kIndirectNodePrefix + 10];
  uint8_t units[2 * sizeof text];
  uint16_t length;
};

// Whether a thread record names indirect node file `name` (in any folder).
bool thread_named(const morv_catalog_record_locator* thread, const indirect_node_name& name) {
  const morv_btree_record_locator* t = thread->btree_locator;
  return t->data_size >= catalog::kThreadFixedSize + 2 * size_t{name.length} &&
         load_be16(t->data + catalog::kThreadName) == name.length &&
         memcmp(t->data + catalog::kThreadFixedSize, name.units, 2 * size_t{name.length}) == 0;
}

// Looks up "iNode<number>" in the private folder.
[[nodiscard]] morv_err find_indirect_node(morv_catalog* catalog, const indirect_node_name& name,
                                          morv_catalog_search_result* result) {
  uint32_t folder = 0;
  if (morv_err err = find_private_folder(catalog, &folder)) return err;
  if (folder == 0) {
    MORV_ERROR("Hard link target %s not found: the volume has no private metadata folder.\n", name.text);
    return MORV_ERR_CORRUPT;
  }
  uint8_t key[catalog::kKeyBufferSize];
  build_key(key, folder, name.units, name.length);
  morv_catalog_search_result found;
  morv_catalog_search_result_init(&found);
  if (morv_err err = morv_catalog_search_node(catalog, key, &found)) {
    MORV_ERROR("Error while searching for hard link target.\n");
    return err;
  }
  if (!found.locator || !found.exact_match) {
    morv_catalog_search_result_release(&found);
    MORV_ERROR("Hard link target %s not found in the private metadata folder.\n", name.text);
    return MORV_ERR_CORRUPT;
  }
  *result = found;
  return MORV_OK;
}

}  // namespace

morv_err morv_catalog_follow_hard_link(morv_catalog* catalog, const morv_catalog_record* record,
                                       morv_catalog_search_result* result) {
  if (!catalog || !record || !record->data || !result || !is_file(record->data, record->size)) {
    MORV_ERROR("Invalid parameter: %s needs a catalog, a file record and a result.\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const uint32_t number = load_be32(record->data + catalog::kFileSpecial);
  uint8_t key[catalog::kKeyBufferSize];
  build_key(key, number, nullptr, 0);
  morv_catalog_search_result thread;
  morv_catalog_search_result_init(&thread);
  if (morv_err err = morv_catalog_search_node(catalog, key, &thread)) {
    MORV_ERROR("Error while searching for catalog record of hard linked file.\n");
    return err;
  }
  morv::scope_exit release_thread([&] { morv_catalog_search_result_release(&thread); });
  if (!thread.locator) {
    MORV_CRITICAL("Unexpected: morv_catalog_search_node returned NULL locator but no error.\n");
    return MORV_ERR_INTERNAL;
  }
  // A thread is taken only when it names the indirect node file: the
  // number of a link made by Linux may be some other item's CNID.
  const indirect_node_name name(number);
  uint16_t type = 0;
  if (thread.exact_match && read_record_type(thread.locator, &type) == MORV_OK &&
      type != catalog::kFolderThreadRecord && type != catalog::kFileThreadRecord) {
    MORV_ERROR("The record of CNID %lu's thread key is not a thread record (type %hu).\n",
               morv_ul(number), type);
    return MORV_ERR_CORRUPT;
  }
  if (!thread.exact_match || !thread_named(thread.locator, name))
    return find_indirect_node(catalog, name, result);
  morv_catalog_search_result target;
  morv_catalog_search_result_init(&target);
  if (morv_err err = morv_catalog_follow_thread(catalog, thread.locator, &target)) {
    MORV_ERROR("Error while searching for hard link target.\n");
    return err;
  }
  *result = target;
  return MORV_OK;
}

// ---- File sizes ----

uint64_t morv_catalog_record_get_file_size(const morv_catalog_record* record, morv_catalog* catalog) {
  if (!record || !record->data || !is_file(record->data, record->size)) {
    MORV_ERROR("Invalid parameter: %s needs a file record.\n", __func__);
    return 0;
  }
  const uint8_t* file = record->data;
  morv_catalog_search_result target;
  morv_catalog_search_result_init(&target);
  morv::scope_exit release_target([&] { morv_catalog_search_result_release(&target); });
  if (has_codes(file, catalog::kHardLinkType, catalog::kHardLinkCreator)) {
    if (morv_catalog_follow_hard_link(catalog, record, &target)) {
      MORV_ERROR("Error while following hard link.\n");
      return 0;
    }
    const morv_btree_record_locator* found = target.locator ? target.locator->btree_locator : nullptr;
    if (!target.exact_match || !found || !is_file(found->data, found->data_size)) {
      MORV_ERROR("Hard link target is not a file record.\n");
      return 0;
    }
    file = found->data;
  }
  const uint64_t data_size = load_be64(file + catalog::kFileDataFork + forkdata::kLogicalSize);
  if (data_size) return data_size;
  return load_be64(file + catalog::kFileResourceFork + forkdata::kLogicalSize);
}

void morv_catalog_record_set_file_size(morv_catalog_record* record, uint64_t size) {
  if (!record || !record->data) {
    MORV_ERROR("Error in %s - no record\n", __func__);
    return;
  }
  const int type = record->size >= catalog::kRecordTypeSize ? load_be16(record->data) : 0;
  if (type != catalog::kFileRecord)
    MORV_ERROR("%s: Can only set size for a file record - This is a record of type: %d\n", __func__, type);
  // A record too short for a data fork (a folder record ends at its offset)
  // keeps its bytes: the size has nowhere to go.
  const size_t end = catalog::kFileDataFork + forkdata::kLogicalSize + sizeof(uint64_t);
  if (record->size < end) {
    MORV_ERROR("Record of %zu bytes has no data fork; its size is left as it is.\n", record->size);
    return;
  }
  store_be64(record->data + catalog::kFileDataFork + forkdata::kLogicalSize, size);
}

// ---- Names for the host ----

size_t morv_catalog_widechar_to_utf8(const uint16_t* units, size_t count, char* buffer,
                                     size_t buffer_size) {
  if (!units || !buffer || buffer_size == 0) {
    MORV_ERROR("Invalid parameter: %s needs units and a buffer.\n", __func__);
    return 0;
  }
  // The converter puts its terminator behind the capacity it is given: one
  // byte is kept back for it.
  char* out = buffer;
  size_t length = buffer_size - 1;
  if (morv_unistr_to_utf8(units, count, kUnicodeHostOrder, &out, &length)) {
    MORV_ERROR("Error while decoding UTF-16.\n");
    return 0;
  }
  if (out != buffer) {
    MORV_ERROR("utf8_string was unexpectedly reallocated!\n");
    morv_free(out);
    return 0;
  }
  buffer[length] = '\0';
  for (size_t i = 0; i < length; ++i)
    if (buffer[i] == '\\') buffer[i] = '/';
  return length;
}

// ---- Deletion ----
//
// A deletion changes the catalog, the extents overflow tree, the allocation
// bitmap and the volume header, all or none of them. Everything is looked up
// first. Then, inside one transaction on each tree, the records go and the
// blocks are freed, each free noted; both transactions are prepared (their
// last step that can fail is done) before either ends. A failure ends both
// with the failure, which puts the trees back, and marks the freed blocks
// again; none of that can fail. The header's counts change last.

namespace {

constexpr const char* kDeleteName = "morv_catalog_delete";

// The bitmap frees of one deletion, kept so that a failure can take them back.
class freed_blocks {
 public:
  explicit freed_blocks(morv_bitmap* bitmap) : bitmap_(bitmap) {}
  ~freed_blocks() { morv_free(runs_); }
  freed_blocks(const freed_blocks&) = delete;
  freed_blocks& operator=(const freed_blocks&) = delete;
  // Frees fork blocks [0, count) of an extent record; *freed is how many
  // its extents held.
  [[nodiscard]] morv_err free(const uint8_t* extents, uint32_t count, uint32_t* freed);
  // Marks every freed block allocated again, the last free first.
  void take_back();
  uint64_t blocks() const { return blocks_; }

 private:
  struct run {
    uint8_t fork_data[forkdata::kSize];
    uint32_t count;
  };
  morv_bitmap* bitmap_;
  run* runs_ = nullptr;
  size_t count_ = 0;
  size_t capacity_ = 0;
  uint64_t blocks_ = 0;
};

morv_err freed_blocks::free(const uint8_t* extents, uint32_t count, uint32_t* freed) {
  if (count_ == capacity_) {
    const size_t want = capacity_ ? 2 * capacity_ : 4;
    auto* grown = static_cast<run*>(morv_malloc(want * sizeof(run)));
    if (!grown) {
      MORV_ERROR("Error while allocating memory to note the blocks a deletion frees.\n");
      return MORV_ERR_NO_MEMORY;
    }
    if (count_) memcpy(grown, runs_, count_ * sizeof(run));
    morv_free(runs_);
    runs_ = grown;
    capacity_ = want;
  }
  run& r = runs_[count_];
  memset(r.fork_data, 0, sizeof r.fork_data);
  memcpy(r.fork_data + forkdata::kExtents, extents, forkdata::kExtentRecordSize);
  r.count = count;
  if (morv_err err = FreeExtentAllocationBlocks(r.fork_data, 0, count, bitmap_, freed)) return err;
  ++count_;
  blocks_ += *freed;
  return MORV_OK;
}

void freed_blocks::take_back() {
  while (count_) {
    const run& r = runs_[--count_];
    if (morv_bitmap_restore_extent_blocks(r.fork_data, 0, r.count, bitmap_))
      MORV_CRITICAL("Internal error: Unable to mark the blocks of a failed deletion allocated again.\n");
  }
  blocks_ = 0;
}

// Copies the extents of the overflow record (fork_type, cnid, start) into
// `extents` and deletes the record.
[[nodiscard]] morv_err take_overflow_record(morv_extents* extents, uint8_t fork_type, uint32_t cnid,
                                            uint32_t start, uint8_t* record) {
  morv_btree_search_result found;
  morv_btree_search_result_init(&found);
  if (morv_err err = morv_extents_search(extents, fork_type, cnid, start, &found)) {
    MORV_ERROR("Error while looking up next extent record.\n");
    return err;
  }
  morv::scope_exit release([&] { morv_btree_search_result_release(&found); });
  if (!found.locator || !found.exact_match || found.locator->data_size < forkdata::kExtentRecordSize) {
    MORV_ERROR("Could not find next extent record.\n");
    return MORV_ERR_CORRUPT;
  }
  memcpy(record, found.locator->data, forkdata::kExtentRecordSize);
  if (morv_err err = morv_btree_delete_record(extents->tree, found.locator)) {
    MORV_ERROR("Error while deleting extents overflow record of file %lu.\n", morv_ul(cnid));
    return err;
  }
  return MORV_OK;
}

// Frees every block of one fork of file `cnid`: those of the fork data's
// extents, then those of its extents overflow records, which are deleted.
[[nodiscard]] morv_err free_fork(morv_volume* volume, uint32_t cnid, uint8_t fork_type,
                                 const uint8_t* fork_data, freed_blocks* freed) {
  const uint32_t total = load_be32(fork_data + forkdata::kTotalBlocks);
  uint8_t record[forkdata::kExtentRecordSize];
  memcpy(record, fork_data + forkdata::kExtents, sizeof record);
  uint32_t seen = 0;
  while (seen < total) {  // every round frees at least one block
    uint32_t n = 0;
    if (morv_err err = freed->free(record, total - seen, &n)) {
      MORV_ERROR("Error while freeing allocation blocks of deleted file on cleanup.\n");
      return err;
    }
    seen += n;
    if (seen == total) break;
    const size_t last = forkdata::kExtentSize * (forkdata::kExtentsPerRecord - 1);
    if (n == 0 || load_be32(record + last + forkdata::kExtentBlockCount) == 0) {
      MORV_ERROR("Encountered zero block count in extent.\n");
      return MORV_ERR_CORRUPT;
    }
    if (morv_err err = take_overflow_record(volume->extents, fork_type, cnid, seen, record))
      return err;
  }
  return MORV_OK;
}

// The record of `cnid` through its thread record. A record of the root
// whose name begins with U+0000 is found by walking the root. `out` stays
// empty when there is no such record.
[[nodiscard]] morv_err find_by_cnid(morv_catalog* catalog, uint32_t cnid, morv_catalog_search_result* out) {
  morv_catalog_search_result thread;
  morv_catalog_search_result_init(&thread);
  if (morv_err err = morv_catalog_search_by_cnid(catalog, cnid, 0, &thread)) return err;
  morv::scope_exit release_thread([&] { morv_catalog_search_result_release(&thread); });
  uint16_t type = 0;
  if (!thread.locator || !thread.exact_match || read_record_type(thread.locator, &type) ||
      (type != catalog::kFolderThreadRecord && type != catalog::kFileThreadRecord))
    return MORV_OK;
  const morv_btree_record_locator* t = thread.locator->btree_locator;
  const size_t fixed = catalog::kThreadFixedSize;
  if (t->data_size > fixed && load_be32(t->data + catalog::kThreadParentId) == kRootFolderCnid) {
    const uint16_t length = load_be16(t->data + catalog::kThreadName);
    if (length > 0 && t->data_size >= fixed + 2 * size_t{length} && load_be16(t->data + fixed) == 0)
      return walk_root(catalog, t->data + fixed, length, out);
  }
  return morv_catalog_follow_thread(catalog, thread.locator, out);
}

// One record that a deletion removes, and what it changes besides.
struct doomed {
  morv_catalog_record_locator* locator = nullptr;  // the record (not owned)
  uint8_t record[catalog::kFileRecordSize] = {};
  uint16_t type = 0;
  uint32_t cnid = 0;
  morv_catalog_record_locator* parent = nullptr;  // the parent's folder record
  morv_catalog_search_result found_parent{};      // owned, when the parent was looked up
  morv_catalog_search_result thread{};            // owned; a locator only on the record's thread
};

// Whether the thread record found for `d` names it (its parent and name).
bool thread_names(const morv_catalog_search_result& found, const doomed& d) {
  if (!found.locator || !found.exact_match) return false;
  const morv_btree_record_locator* thread = found.locator->btree_locator;
  const morv_btree_record_locator* record = d.locator->btree_locator;
  uint32_t parent = 0;
  if (thread->data_size < catalog::kThreadFixedSize || !key_parent(record, &parent) ||
      record->key_size < catalog::kKeyName)
    return false;
  const uint16_t length = load_be16(record->key + catalog::kKeyNameLength);
  const size_t bytes = 2 * size_t{length};
  return load_be32(thread->data + catalog::kThreadParentId) == parent &&
         load_be16(thread->data + catalog::kThreadName) == length &&
         thread->data_size >= catalog::kThreadFixedSize + bytes &&
         record->key_size >= catalog::kKeyName + bytes &&
         memcmp(thread->data + catalog::kThreadFixedSize, record->key + catalog::kKeyName, bytes) == 0;
}

class deletion {
 public:
  deletion(morv_catalog* catalog, morv_volume* volume)
      : catalog_(catalog), volume_(volume), freed_(volume->bitmap) {}
  ~deletion() {
    for (doomed& d : items_) {
      morv_catalog_search_result_release(&d.found_parent);
      morv_catalog_search_result_release(&d.thread);
    }
    morv_catalog_search_result_release(&target_);
  }
  deletion(const deletion&) = delete;
  deletion& operator=(const deletion&) = delete;

  [[nodiscard]] morv_err plan(morv_catalog_record_locator* locator);
  [[nodiscard]] morv_err run();

 private:
  [[nodiscard]] morv_err plan_item(morv_catalog_record_locator* locator, bool warn, doomed* d);
  [[nodiscard]] morv_err plan_parent(doomed* d, bool warn);
  [[nodiscard]] morv_err plan_link(const doomed& link);
  [[nodiscard]] morv_err refuse_linked_indirect_node(const doomed& d);
  [[nodiscard]] morv_err apply();
  [[nodiscard]] morv_err remove(const doomed& d);
  [[nodiscard]] morv_err lower_link_count();

  morv_catalog* catalog_;
  morv_volume* volume_;
  doomed items_[2];  // the record and, behind the last link to a file, its indirect node file
  size_t item_count_ = 0;
  morv_catalog_search_result target_{};  // the indirect node file of a hard link
  bool lower_link_count_ = false;
  freed_blocks freed_;
};

morv_err deletion::plan(morv_catalog_record_locator* locator) {
  doomed& d = items_[0];
  uint16_t type = 0;
  if (morv_err err = read_record_type(locator, &type)) return err;
  if (type != catalog::kFolderRecord && type != catalog::kFileRecord) {
    MORV_ERROR("Invalid parameter: Record to delete is not a file or folder record (record type: %hd).\n",
               static_cast<int16_t>(type));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (type == catalog::kFolderRecord) {
    uint32_t id = 0;
    int empty = 0;
    if (morv_err err = folder_id_of(locator, &id)) return err;
    if (id == kRootFolderCnid) {
      MORV_ERROR("Invalid parameter: The root folder cannot be deleted.\n");
      return MORV_ERR_INVALID_ARGUMENT;
    }
    if (morv_err err = morv_catalog_is_directory_empty(catalog_, locator, &empty)) {
      MORV_ERROR("Error while checking if directory is empty.\n");
      return err;
    }
    if (!empty) {
      MORV_ERROR("Invalid parameter: Folder %lu is not empty.\n", morv_ul(id));
      return MORV_ERR_INVALID_ARGUMENT;
    }
  }
  if (morv_err err = plan_item(locator, true, &d)) return err;
  if (d.type == catalog::kFileRecord)
    if (morv_err err = refuse_linked_indirect_node(d)) return err;
  item_count_ = 1;
  return is_hard_link(d.record, sizeof d.record) ? plan_link(d) : MORV_OK;
}

morv_err deletion::plan_item(morv_catalog_record_locator* locator, bool warn, doomed* d) {
  const morv_btree_record_locator* r = locator->btree_locator;
  d->locator = locator;
  d->type = load_be16(r->data + catalog::kRecordType);
  const size_t size = d->type == catalog::kFileRecord ? catalog::kFileRecordSize : catalog::kFolderRecordSize;
  if (r->data_size < size) {
    MORV_ERROR("Catalog record of type %hu is %zu bytes, shorter than its %zu-byte layout.\n", d->type,
               r->data_size, size);
    return MORV_ERR_CORRUPT;
  }
  memcpy(d->record, r->data, size);
  d->cnid = load_be32(d->record + catalog::kRecordCnid);
  if (morv_err err = plan_parent(d, warn)) return err;
  uint8_t key[catalog::kKeyBufferSize];
  build_key(key, d->cnid, nullptr, 0);
  if (morv_err err = morv_catalog_search_node(catalog_, key, &d->thread)) {
    MORV_ERROR("Error while searching for catalog thread record to destroy.\n");
    return err;
  }
  // Only the record's own thread goes, never whatever the search stopped at.
  if (!thread_names(d->thread, *d)) morv_catalog_search_result_release(&d->thread);
  return MORV_OK;
}

morv_err deletion::plan_parent(doomed* d, bool warn) {
  uint32_t parent_id = 0;
  if (!key_parent(d->locator->btree_locator, &parent_id)) {
    MORV_ERROR("Catalog key of %zu bytes holds no parent ID.\n", d->locator->btree_locator->key_size);
    return MORV_ERR_CORRUPT;
  }
  if (morv_catalog_record_locator* given = *d->locator->parent) {
    if (!is_folder(given, parent_id)) {
      MORV_ERROR("Invalid parameter: The parent locator does not hold folder %lu, the record's parent.\n",
                 morv_ul(parent_id));
      return MORV_ERR_INVALID_ARGUMENT;
    }
    d->parent = given;
    return MORV_OK;
  }
  // The parent is found by the key's parentID, so that its valence follows.
  if (warn) MORV_WARNING("INFO: No parent rec in delete..This is a todo\n");
  if (morv_err err = find_by_cnid(catalog_, parent_id, &d->found_parent)) {
    MORV_ERROR("Error while searching for the parent folder of the record to delete.\n");
    return err;
  }
  if (!d->found_parent.locator || !d->found_parent.exact_match || !is_folder(d->found_parent.locator, parent_id)) {
    MORV_ERROR("Unable to find containing parent with CNID %lu when attempting to decrement valence.\n",
               morv_ul(parent_id));
    return MORV_ERR_CORRUPT;
  }
  d->parent = d->found_parent.locator;
  return MORV_OK;
}

// An indirect node file ("iNode<n>" in the private folder) holds the data of
// its hard links: while its link count (permissions.special) is above zero
// the links still name it, and deleting it alone would leave them dangling.
// It goes with its last link instead.
morv_err deletion::refuse_linked_indirect_node(const doomed& d) {
  const morv_btree_record_locator* r = d.locator->btree_locator;
  const size_t prefix = sizeof kIndirectNodePrefix - 1;
  if (r->key_size < catalog::kKeyName + 2 * prefix ||
      load_be16(r->key + catalog::kKeyNameLength) <= prefix)
    return MORV_OK;
  for (size_t i = 0; i < prefix; ++i)
    if (load_be16(r->key + catalog::kKeyName + 2 * i) != static_cast<uint8_t>(kIndirectNodePrefix[i]))
      return MORV_OK;
  const uint32_t links = load_be32(d.record + catalog::kFileSpecial);
  if (links == 0) return MORV_OK;
  uint32_t folder = 0;
  if (morv_err err = find_private_folder(catalog_, &folder)) return err;
  if (folder == 0 || load_be32(r->key + catalog::kKeyParentId) != folder) return MORV_OK;
  MORV_ERROR("Invalid parameter: Indirect node file %lu is still named by %lu hard links; it goes "
             "with the last of them.\n",
             morv_ul(d.cnid), morv_ul(links));
  return MORV_ERR_INVALID_ARGUMENT;
}

// A hard link lowers its indirect node file's link count, and the last
// link takes the file with it. A link whose file cannot be found goes alone.
morv_err deletion::plan_link(const doomed& link) {
  morv_catalog_record record{const_cast<uint8_t*>(link.record), sizeof link.record};
  morv_err err = morv_catalog_follow_hard_link(catalog_, &record, &target_);
  if (err && err != MORV_ERR_CORRUPT) return err;
  const morv_btree_record_locator* node = target_.locator ? target_.locator->btree_locator : nullptr;
  if (err || !target_.exact_match || !node || !is_file(node->data, node->data_size) ||
      load_be32(node->data + catalog::kRecordCnid) == link.cnid) {
    MORV_WARNING("Hard link %lu names no indirect node file; the link goes alone.\n", morv_ul(link.cnid));
    morv_catalog_search_result_release(&target_);
    return MORV_OK;
  }
  if (load_be32(node->data + catalog::kFileSpecial) > 1) {
    lower_link_count_ = true;
    return MORV_OK;
  }
  if ((err = plan_item(target_.locator, false, &items_[1]))) return err;
  item_count_ = 2;
  return MORV_OK;
}

morv_err deletion::remove(const doomed& d) {
  morv_btree* tree = catalog_->priv->tree;
  if (morv_err err = morv_btree_delete_record(tree, d.locator->btree_locator)) {
    MORV_ERROR("Error while deleting file/folder record from B-tree.\n");
    return err;
  }
  if (morv_err err = morv_catalog_decrement_valence(catalog_, d.record, d.parent)) {
    MORV_ERROR("%s: Failed to set parent valence.\n", kDeleteName);
    return err;
  }
  if (d.thread.locator) {
    if (morv_err err = morv_btree_delete_record(tree, d.thread.locator->btree_locator)) {
      MORV_ERROR("Error while deleting thread record from B-tree.\n");
      return err;
    }
  } else {
    MORV_WARNING("No thread record found for deleted %s.\n", d.type == catalog::kFolderRecord ? "folder" : "file");
  }
  if (d.type != catalog::kFileRecord) return MORV_OK;
  if (morv_err err = free_fork(volume_, d.cnid, extkey::kDataFork, d.record + catalog::kFileDataFork, &freed_))
    return err;
  return free_fork(volume_, d.cnid, extkey::kResourceFork, d.record + catalog::kFileResourceFork, &freed_);
}

morv_err deletion::lower_link_count() {
  morv_btree_record_locator* node = target_.locator->btree_locator;
  uint8_t file[catalog::kFileRecordSize];
  memcpy(file, node->data, sizeof file);
  store_be32(file + catalog::kFileSpecial, load_be32(file + catalog::kFileSpecial) - 1);
  if (morv_err err = morv_btree_record_locator_write_data(node, file, sizeof file)) {
    MORV_ERROR("Error while lowering the link count of indirect node file %lu.\n",
               morv_ul(load_be32(file + catalog::kRecordCnid)));
    return err;
  }
  return MORV_OK;
}

morv_err deletion::apply() {
  for (size_t i = 0; i < item_count_; ++i)
    if (morv_err err = remove(items_[i])) return err;
  return lower_link_count_ ? lower_link_count() : MORV_OK;
}

morv_err deletion::run() {
  morv_btree* catalog_tree = catalog_->priv->tree;
  morv_btree* extents_tree = volume_->extents->tree;
  if (morv_err err = morv_btree_transaction_begin(catalog_tree)) return err;
  if (morv_err err = morv_btree_transaction_begin(extents_tree))
    return morv_btree_transaction_end(catalog_tree, err);
  morv_err result = apply();
  if (!result) result = morv_btree_transaction_prepare(catalog_tree);
  if (!result) result = morv_btree_transaction_prepare(extents_tree);
  result = morv_btree_transaction_end(extents_tree, result);
  result = morv_btree_transaction_end(catalog_tree, result);
  if (result) {
    freed_.take_back();
    return result;
  }
  for (size_t i = 0; i < item_count_; ++i) {
    if (items_[i].type == catalog::kFileRecord)
      morv_volume_decrement_file_count(volume_, 1);
    else
      morv_volume_decrement_folder_count(volume_, 1);
  }
  morv_volume_increment_free_blocks(volume_, static_cast<uint32_t>(freed_.blocks()));
  return MORV_OK;
}

}  // namespace

morv_err morv_catalog_delete(morv_catalog* catalog, morv_volume* volume,
                             morv_catalog_record_locator* locator) {
  if (!catalog || !volume || !locator) {
    MORV_ERROR("Invalid parameter: %s needs a catalog, a volume and a locator.\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  deletion d(catalog, volume);
  if (morv_err err = d.plan(locator)) return err;
  return d.run();
}

// ---- Symbolic links ----
//
// A symbolic link is a file record ("slnk" "rhap", fileMode S_IFLNK) whose
// data fork holds the target path in UTF-8, here in exactly one block.

namespace {

bool fork_empty(const uint8_t* fork_data) {
  if (load_be64(fork_data + forkdata::kLogicalSize) || load_be32(fork_data + forkdata::kTotalBlocks))
    return false;
  for (size_t i = 0; i < forkdata::kExtentRecordSize; ++i)
    if (fork_data[forkdata::kExtents + i]) return false;
  return true;
}

// The file record under `locator` with a symbolic link's codes and mode; its
// forks must be empty, or their blocks would be lost.
[[nodiscard]] morv_err symlink_record(const morv_catalog_record_locator* locator, uint8_t* file) {
  const morv_btree_record_locator* r = locator->btree_locator;
  if (!is_file(r->data, r->data_size)) {
    MORV_ERROR("Invalid parameter: Only a file record can become a symbolic link.\n");
    return MORV_ERR_INVALID_ARGUMENT;
  }
  memcpy(file, r->data, catalog::kFileRecordSize);
  if (!fork_empty(file + catalog::kFileDataFork) || !fork_empty(file + catalog::kFileResourceFork)) {
    MORV_ERROR("Invalid parameter: File %lu holds data; only a file with empty forks can become a "
               "symbolic link.\n",
               morv_ul(load_be32(file + catalog::kRecordCnid)));
    return MORV_ERR_INVALID_ARGUMENT;
  }
  memcpy(file + catalog::kFileUserInfoType, catalog::kSymlinkType, 4);
  memcpy(file + catalog::kFileUserInfoCreator, catalog::kSymlinkCreator, 4);
  store_be16(file + catalog::kFileFinderFlags, catalog::kSymlinkFinderFlags);
  store_be16(file + catalog::kFileMode, catalog::kSymlinkMode);
  return MORV_OK;
}

// Writes allocation block `block` of the volume from `bytes` (one block).
[[nodiscard]] morv_err write_block(morv_volume* volume, uint32_t block, const uint8_t* bytes) {
  morv_device* device = volume->device;
  const uint32_t block_size = load_be32(volume->header + vh::kBlockSize);
  const uint32_t sector = device->sector_size;
  if (sector == 0 || block_size % sector) {
    MORV_ERROR("Allocation block of %lu bytes is not a whole number of %lu-byte device sectors.\n",
               morv_ul(block_size), morv_ul(sector));
    return MORV_ERR_UNSUPPORTED;
  }
  const uint32_t per_block = block_size / sector;
  if (morv_err err = morv_device_write_disk_sectors(device, uint64_t{block} * per_block, per_block, bytes)) {
    MORV_ERROR("Error while writing symbolic link target to block %lu.\n", morv_ul(block));
    return err;
  }
  return MORV_OK;
}

// The link's record and its target block: both or neither. The block is
// free until the record names it, so its contents may go first.
[[nodiscard]] morv_err write_symlink(morv_catalog_record_locator* locator, const uint8_t* file,
                                     morv_volume* volume, uint32_t block, const uint8_t* target) {
  morv_btree* tree = priv_of(locator)->catalog->priv->tree;
  if (morv_err err = morv_btree_transaction_begin(tree)) return err;
  morv_err result = morv_btree_record_locator_write_data(locator->btree_locator, file, catalog::kFileRecordSize);
  if (result) MORV_ERROR("Error while writing back modified HFSPlusCatalogFile to catalog.\n");
  if (!result) result = write_block(volume, block, target);
  return morv_btree_transaction_end(tree, result);
}

}  // namespace

morv_err morv_catalog_mksymlink(morv_catalog_record_locator* locator, const uint16_t* target,
                                size_t target_length, morv_volume* volume) {
  if (!locator) {
    MORV_ERROR("Invalid parameter: %s needs a catalog record locator.\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  if (!volume || !volume->bitmap) {
    MORV_ERROR("Invalid parameter: %s needs a volume with its allocation file.\n", __func__);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  uint8_t file[catalog::kFileRecordSize];
  if (morv_err err = symlink_record(locator, file)) return err;
  const uint32_t block_size = load_be32(volume->header + vh::kBlockSize);
  uint8_t* data_fork = file + catalog::kFileDataFork;
  morv_write_location location{};
  if (morv_err err = FindWriteLocation(load_be32(file + catalog::kRecordCnid), extkey::kDataFork, data_fork,
                                       volume, 0, block_size, &location)) {
    MORV_ERROR("Error while searching for symlink data write location.\n");
    return err;
  }
  morv::buffer<uint8_t> block;
  if (!block.allocate(block_size)) {
    MORV_ERROR("Error while allocating %lu bytes for the symbolic link's block.\n", morv_ul(block_size));
    return MORV_ERR_NO_MEMORY;
  }
  // At most kMaxSymlinkTarget bytes: always inside the one block.
  const size_t length = location.block_count == 0 ? 0
      : morv_catalog_widechar_to_utf8(target, target_length, reinterpret_cast<char*>(block.get()),
                                      catalog::kMaxSymlinkTarget + 1);
  if (length == 0) {  // no free block, or a target that does not convert
    MORV_WARNING("At error with no error value set!\n");
    return MORV_ERR_GENERIC;
  }
  const uint32_t next_allocation = load_be32(volume->header + vh::kNextAllocation);
  if (morv_err err = AllocateExtentAllocationBlocks(location.start_block, 1, volume)) {
    MORV_ERROR("Error while marking block %lu as allocated.\n", morv_ul(location.start_block));
    return err;
  }
  store_be32(data_fork + forkdata::kExtents + forkdata::kExtentStartBlock, location.start_block);
  store_be32(data_fork + forkdata::kExtents + forkdata::kExtentBlockCount, 1);
  store_be32(data_fork + forkdata::kTotalBlocks, 1);
  store_be64(data_fork + forkdata::kLogicalSize, length);
  if (morv_err err = write_symlink(locator, file, volume, location.start_block, block.get())) {
    if (morv_bitmap_release_run(volume, location.start_block, 1, next_allocation))
      MORV_CRITICAL("Internal error: Unable to free block %lu again.\n", morv_ul(location.start_block));
    return err;
  }
  return MORV_OK;
}
