// The catalog: key order, record locators, lookups, insertion and renaming.
//
// A catalog record locator wraps one engine record locator and may hold a
// counted reference on a parent locator (the record it was reached from).
// Every open locator is on the catalog's doubly linked open list, guarded by
// the catalog's list lock; that lock is always taken before any B-tree lock.
#include "catalog.hpp"

#include <algorithm>
#include <cstring>

#include "btree.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"

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

// The folder ID of the folder record under `locator`, checked as the start of
// a path walk.
morv_err start_folder_id(morv_catalog_record_locator* locator, uint32_t* folder_id) {
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
    if (morv_err err = start_folder_id(start_folder, &folder_id)) return err;
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
  morv_btree* tree = catalog->priv->tree;
  if (morv_err err = morv_btree_transaction_begin(tree)) return err;
  return morv_btree_transaction_end(
      tree, rename_record(catalog, locator_pointer, new_parent, new_name, new_name_length));
}
