// SPDX-License-Identifier: MIT
// Fuzz target: B-tree operations on damaged catalog and extents overflow
// trees.
//
// The input is a volume image whose boot blocks (its first 1024 bytes, never
// read by the library) hold an operation script. The volume's extents
// overflow tree and catalog are opened as volume set-up does, read-write, and
// the script runs on them. Each operation is an op byte and its arguments:
//
//   op & 0x0F   1 search        key
//               2 iterate       key: search, then every following record
//               3 insert        key, data size (u16), fill byte
//               4 delete        key: search, delete the record if it is there
//               5 rename        cnid (u8), new parent (u8), name (catalog only)
//               6 claim a node
//               7 flush the tree's fork
//               8 search by CNID  cnid (u8), follow (u8 & 1) (catalog only)
//               0 and others end the script
//   op & 0x80   the extents overflow tree instead of the catalog
//
// A catalog key is a parent CNID (u8) and a name: a kind byte, then for kind
// 0 nothing (empty), 1 "folder N" (N u8, padded with "x" to u8 units), 2 the
// image builder's file name of N (N u8, pad u8), 3 u8 times "x", 4 u8 units
// taken from the script (big-endian). An extents key is a fork type (u8), a
// file ID (u32) and a start block (u32). Multi-byte numbers are big-endian;
// a script that runs out reads zeros.
//
// Properties besides the sanitizers': an insertion, deletion, rename or node
// claim that fails leaves every byte of the tree's fork cache as it was; an
// insertion that succeeds hands back a locator on the key it was given; a
// claimed node lies inside the tree. MORV_FUZZ_SKIP_ROLLBACK=1 in the
// environment drops the first check, for campaigns over an engine that is
// known not to roll back yet, so that they can explore past it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "btree.hpp"
#include "catalog.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "fuzz_script.hpp"
#include "fuzz_support.hpp"
#include "support_unix.hpp"
#include "volume.hpp"

using namespace fuzz_script;

namespace {

constexpr size_t kMaxOperations = 32;
constexpr uint64_t kMaxSnapshotBytes = uint64_t{4} << 20;
constexpr uint64_t kTotalNodesOffset = 14 + 22;  // BTHeaderRec.totalNodes in node 0

// The bytes of a tree's fork as its cache holds them; false when they cannot
// all be read (the check that uses them is then skipped).
bool snapshot(morv_btree* tree, std::vector<uint8_t>* out) {
  const uint64_t size = *tree->fork->logical_size;
  if (size > kMaxSnapshotBytes) return false;
  out->resize(static_cast<size_t>(size));
  return morv_fork_read(tree->fork, 0, out->data(), out->size(), nullptr) == MORV_OK;
}

// Runs a changing operation; when it fails, the fork must hold what it held.
template <typename F>
morv_err all_or_nothing(morv_btree* tree, const char* what, F change) {
  static const char* const skip_setting = getenv("MORV_FUZZ_SKIP_ROLLBACK");
  static const bool skip = skip_setting && strcmp(skip_setting, "1") == 0;
  std::vector<uint8_t> before;
  const bool have_before = !skip && snapshot(tree, &before);
  const morv_err err = change();
  if (err == MORV_OK || !have_before) return err;
  std::vector<uint8_t> after;
  if (!snapshot(tree, &after) || after != before)
    fuzz::fail("a failed %s (error %llu) changed the tree's cached bytes", what, morv_ull(err));
  return err;
}

struct Trees {
  morv_extents* extents = nullptr;
  morv_catalog* catalog = nullptr;
  morv_btree* tree(bool extents_tree) const {
    return extents_tree ? extents->tree : (catalog ? morv_catalog_btree(catalog) : nullptr);
  }
};

void search(morv_btree* tree, const std::vector<uint8_t>& key) {
  morv_btree_search_result result;
  morv_btree_search_result_init(&result);
  if (morv_btree_search_node(tree, key.data(), &result) == MORV_OK)
    morv_btree_search_result_release(&result);
}

void iterate(morv_btree* tree, const std::vector<uint8_t>& key) {
  morv_btree_search_result result;
  morv_btree_search_result_init(&result);
  if (morv_btree_search_node(tree, key.data(), &result) != MORV_OK) return;
  morv_btree_record_locator* at = result.locator;
  result.locator = nullptr;
  while (at) {
    morv_btree_record_locator* next = nullptr;
    const morv_err err = morv_btree_get_next_record(tree, at, &next);
    morv_btree_record_locator_close(&at);
    if (err) break;
    at = next;
  }
}

std::string hex(const uint8_t* bytes, size_t size) {
  std::string out;
  char digits[3];
  for (size_t i = 0; i < size && i < 64; ++i) {
    snprintf(digits, sizeof digits, "%02x", bytes[i]);
    out += digits;
  }
  return out;
}

void insert(morv_btree* tree, const std::vector<uint8_t>& key, uint16_t data_size, uint8_t fill) {
  std::vector<uint8_t> data(data_size + size_t{1});  // never a null pointer
  for (size_t i = 0; i < data_size; ++i) data[i] = static_cast<uint8_t>(fill + i);
  morv_btree_record_locator* inserted = nullptr;
  const morv_err err = all_or_nothing(tree, "insertion", [&] {
    return morv_btree_insert_record(tree, key.data(), data.data(), data_size, nullptr, &inserted);
  });
  if (err) return;
  if (!inserted) fuzz::fail("an insertion succeeded without a locator");
  if (inserted->key_size != key.size() || memcmp(inserted->key, key.data(), key.size()))
    fuzz::fail("an insertion handed back a locator on another key (node %u, record %u): %s for %s",
               *inserted->node_number, *inserted->record_index,
               hex(inserted->key, inserted->key_size).c_str(), hex(key.data(), key.size()).c_str());
  morv_btree_record_locator_close(&inserted);
}

void remove(morv_btree* tree, const std::vector<uint8_t>& key) {
  morv_btree_search_result result;
  morv_btree_search_result_init(&result);
  if (morv_btree_search_node(tree, key.data(), &result) != MORV_OK) return;
  if (result.exact_match && result.locator) {
    (void)all_or_nothing(tree, "deletion",
                         [&] { return morv_btree_delete_record(tree, result.locator); });
  }
  morv_btree_search_result_release(&result);
}

// Renames the item of `cnid` as a catalog client does: the record found
// through its thread, the parent folder's locator attached.
void rename(morv_catalog* catalog, uint32_t cnid, uint32_t new_parent, const units_t& name) {
  morv_catalog_search_result item;
  morv_catalog_search_result parent;
  morv_catalog_search_result_init(&item);
  morv_catalog_search_result_init(&parent);
  do {
    if (morv_catalog_search_by_cnid(catalog, cnid, 1, &item) || !item.exact_match || !item.locator)
      break;
    const uint32_t parent_id = load_be32(item.locator->btree_locator->key + catalog::kKeyParentId);
    if (parent_id != kRootParentCnid) {
      if (morv_catalog_search_by_cnid(catalog, parent_id, 1, &parent) || !parent.exact_match ||
          !parent.locator ||
          morv_catalog_record_locator_set_parent_locator(item.locator, parent.locator))
        break;
    }
    if (cnid == kRootFolderCnid) new_parent = kRootParentCnid;
    uint8_t parent_be[4];
    store_be32(parent_be, new_parent);
    uint32_t parent_word;
    memcpy(&parent_word, parent_be, 4);
    units_t name_be(name.size() + 1);  // never a null pointer, even for an empty name
    for (size_t i = 0; i < name.size(); ++i)
      store_be16(reinterpret_cast<uint8_t*>(&name_be[i]), name[i]);
    (void)all_or_nothing(morv_catalog_btree(catalog), "rename", [&] {
      return morv_catalog_rename_record(catalog, &item.locator, parent_word, name_be.data(),
                                        name.size());
    });
  } while (false);
  morv_catalog_search_result_release(&item);
  morv_catalog_search_result_release(&parent);
}

void claim(morv_btree* tree) {
  uint32_t node = 0;
  if (all_or_nothing(tree, "node claim", [&] { return morv_btree_claim_node(tree, &node); })) return;
  uint8_t total[4];
  if (morv_fork_read(tree->fork, kTotalNodesOffset, total, sizeof total, nullptr) == MORV_OK &&
      node >= load_be32(total))
    fuzz::fail("claimed node %u of a tree of %u nodes", node, load_be32(total));
}

void search_by_cnid(morv_catalog* catalog, uint32_t cnid, int follow) {
  morv_catalog_search_result result;
  morv_catalog_search_result_init(&result);
  if (morv_catalog_search_by_cnid(catalog, cnid, follow, &result) == MORV_OK)
    morv_catalog_search_result_release(&result);
}

void run_script(Script& s, const Trees& trees) {
  for (size_t n = 0; n < kMaxOperations; ++n) {
    const uint8_t op = s.u8();
    const bool extents_tree = (op & 0x80) != 0;
    morv_btree* tree = trees.tree(extents_tree);
    if (!tree) return;
    switch (op & 0x0F) {
      case 1: search(tree, read_key(s, extents_tree)); break;
      case 2: iterate(tree, read_key(s, extents_tree)); break;
      case 3: {
        const std::vector<uint8_t> key = read_key(s, extents_tree);
        const uint16_t size = s.u16();
        insert(tree, key, size, s.u8());
        break;
      }
      case 4: remove(tree, read_key(s, extents_tree)); break;
      case 5: {
        const uint32_t cnid = s.u8();
        const uint32_t new_parent = s.u8();
        const units_t name = read_name(s);
        if (!extents_tree) rename(trees.catalog, cnid, new_parent, name);
        break;
      }
      case 6: claim(tree); break;
      case 7: (void)morv_fork_flush(tree->fork); break;
      case 8: {
        const uint32_t cnid = s.u8();
        const int follow = s.u8() & 1;
        if (!extents_tree) search_by_cnid(trees.catalog, cnid, follow);
        break;
      }
      default: return;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryImage image;
  image.load(data, size);
  morv_device* device = nullptr;
  if (morv_device_create(image.fd(), 0, 512, 0, &device)) fuzz::fail("morv_device_create");
  uint8_t* buffer = nullptr;
  size_t buffer_length = 0;
  uint8_t* header = nullptr;
  Trees trees;
  if (morv_volume_read_header(device, &buffer, &buffer_length, &header) == MORV_OK &&
      morv_extents_create(device, header, &trees.extents) == MORV_OK) {
    if (morv_catalog_create(device, trees.extents, header, &trees.catalog) != MORV_OK)
      trees.catalog = nullptr;
    Script script(data, size);
    run_script(script, trees);
  }
  if (trees.catalog) morv_catalog_destroy(&trees.catalog);
  if (trees.extents) morv_extents_destroy(&trees.extents);
  morv_free(buffer);
  morv_device_destroy(&device);
  return 0;
}
