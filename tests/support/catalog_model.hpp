// SPDX-License-Identifier: MIT
// Test tooling of the B-tree engine's model-based tests.
#pragma once

#include <map>
#include <random>
#include <string>
#include <vector>

#include "btree_test_support.hpp"
#include "catalog_fixtures.hpp"

namespace btree_test {

using morv_test::make_key;
using Bytes = std::vector<uint8_t>;

// An extents overflow tree from the image builder and an ordered model of its
// records, changed side by side by random insertions and deletions: every
// third stretch of 400 steps mostly deletes, down to an empty tree and up
// again. A refused insertion (the root is full or no node is free) leaves the
// tree's cached bytes as they were; after each step a lookup of the key
// changed agrees with the model.
class ExtentsModel {
 public:
  ExtentsModel(const std::string& args, uint32_t seed) : image_(args), rng_(seed) {
    EXPECT_EQ(image_.open_extents(), MORV_OK);
    records = tree_contents(tree());
    EXPECT_EQ(read_header(tree()).leaf_records, records.size());
  }
  morv_btree* tree() { return image_.tree(); }
  Image& image() { return image_; }

  void step(int step) {
    const bool full = full_since >= 0 && step - full_since <= 100;  // room again after deletions?
    const bool draining = step / 400 % 3 == 2;
    ExtKey k;
    if (records.empty() ||
        (!full && (draining ? rng_() % 100 < 20 : records.size() < 8 || rng_() % 100 < 65))) {
      do k = {16 + rng_() % 400, rng_() % 2 ? 0x00 : 0xFF, rng_() % 100000}; while (records.count(k));
      const Record r = ext_record(k, step);
      const auto before = read_fork(tree(), 0, *tree()->fork->logical_size);
      const morv_err err = insert(image_.extents(), k, r);
      if (err == MORV_ERR_INTERNAL || err == MORV_ERR_UNSUPPORTED) {
        full_since = step;
        EXPECT_TRUE(read_fork(tree(), 0, before.size()) == before) << "a refused insertion left traces";
      } else {
        EXPECT_EQ(err, MORV_OK);
        records[k] = r;
        ++inserted;
      }
    } else {
      auto it = std::next(records.begin(), rng_() % records.size());
      k = it->first;
      morv_btree_record_locator* l = find(tree(), k);
      if (!l) return;  // find said why
      EXPECT_EQ(morv_btree_delete_record(tree(), l), MORV_OK);
      records.erase(it);
      morv_btree_record_locator_close(&l);
    }
    Record got{};
    EXPECT_EQ(lookup(image_.extents(), k, &got), records.count(k) ? 1 : 0);
    EXPECT_TRUE(!records.count(k) || got == records[k]);
  }

  std::map<ExtKey, Record> records;
  uint32_t inserted = 0;
  int full_since = -1;  // the step of the last refused insertion

 private:
  Image image_;
  std::mt19937 rng_;
};

// A catalog from the image builder and an ordered model of all its leaf
// records, changed side by side: files created and deleted (record, thread
// and parent valence in one transaction), files renamed and moved, and the
// root folder renamed. A change either succeeds, and the tree then holds
// exactly the model, or is refused, and the tree's cached bytes are then as
// they were.
class CatalogModel {
 public:
  CatalogModel(const std::string& args, uint32_t seed)
      : cat_(args), records_(Less{compare_type()}), rng_(seed) {
    for (const auto& [key, data] : walk(tree(), make_key(0, u"").data())) {
      records_[key] = data;
      const uint16_t type = load_be16(data.data());
      if (type == catalog::kFolderRecord) folders_[cnid_of(data)] = key;
      if (type == catalog::kFileRecord) files_[cnid_of(data)] = key;
    }
  }
  morv_btree* tree() { return morv_catalog_btree(cat_.catalog); }

  // One random change; returns its result.
  morv_err step() {
    const Bytes before = read_fork(tree(), 0, *tree()->fork->logical_size);
    // After a refusal, a while of deletions makes room again.
    const int dice = rng_() % 100 + (refused_for_ > 0 ? 30 : 0);
    refused_for_ -= refused_for_ > 0;
    morv_err err;
    std::string log = logged([&] {
      if (files_.empty() || dice < 35) err = create();
      else if (dice < 60 || dice >= 100) err = remove(random_file());
      else if (dice < 95) err = move(random_file());
      else err = relabel();
    });
    if (err != MORV_OK) {
      refused_for_ = 40;
      EXPECT_THAT(log, testing::AnyOf(testing::HasSubstr("Need to expand B-tree"),
                                      testing::HasSubstr("Unable to split root node.")));
      EXPECT_TRUE(err == MORV_ERR_UNSUPPORTED || err == MORV_ERR_INTERNAL) << err;
      EXPECT_TRUE(read_fork(tree(), 0, before.size()) == before) << "a refused change left traces";
    }
    EXPECT_TRUE(walk(tree(), make_key(0, u"").data()) == contents());
    EXPECT_EQ(read_header(tree()).leaf_records, records_.size());
    return err;
  }

  // Flushes the catalog and the header and runs the volume checker.
  std::string check() {
    cat_.flush();
    EXPECT_EQ(morv_volume_write_header(cat_.device, cat_.buffer, cat_.device->sector_size), MORV_OK);
    return morv_test::check_image(cat_.file.path());
  }

 private:
  struct Less {
    uint8_t type;
    bool operator()(const Bytes& a, const Bytes& b) const {
      return morv_catalog_compare_keys(a.data(), b.data(), type) < 0;
    }
  };
  static uint32_t cnid_of(const Bytes& record) { return load_be32(&record[catalog::kRecordCnid]); }
  uint8_t compare_type() { return read_fork(tree(), 14 + 37, 1)[0]; }
  std::vector<std::pair<Bytes, Bytes>> contents() const {
    return {records_.begin(), records_.end()};
  }
  uint32_t random_file() { return std::next(files_.begin(), rng_() % files_.size())->first; }
  uint32_t random_folder() { return std::next(folders_.begin(), rng_() % folders_.size())->first; }
  // A name not yet under `parent` (in the catalog's own name order).
  std::u16string fresh_name(uint32_t parent, size_t max_length) {
    for (;;) {
      std::u16string name(1 + rng_() % max_length, u'a');
      for (auto& c : name) c = u"abcdefghijXYZ0123456789"[rng_() % 23];
      if (!records_.count(make_key(parent, name))) return name;
    }
  }
  Bytes thread(uint16_t type, uint32_t parent, const std::u16string& name) const {
    Bytes data(catalog::kThreadFixedSize + 2 * name.size());
    store_be16(&data[0], type);
    store_be32(&data[catalog::kThreadParentId], parent);
    const Bytes key = make_key(0, name);
    std::copy(key.begin() + 6, key.end(), data.begin() + catalog::kThreadName);
    return data;
  }
  // The parent's valence (and folderCount) in the model, as the catalog keeps it.
  void count_child(uint32_t parent, int delta) {
    Bytes& folder = records_[folders_[parent]];
    store_be32(&folder[catalog::kFolderValence], load_be32(&folder[catalog::kFolderValence]) + delta);
  }
  uint32_t header_field(size_t at) const { return load_be32(cat_.header + at); }
  void set_header_field(size_t at, uint32_t v) { store_be32(cat_.header + at, v); }

  morv_err create() {
    const uint32_t parent = random_folder();
    const uint32_t cnid = header_field(vh::kNextCatalogId);
    const std::u16string name = fresh_name(parent, max_name());
    const Bytes key = make_key(parent, name);
    Bytes record(catalog::kFileRecordSize);
    store_be16(&record[0], catalog::kFileRecord);
    store_be32(&record[catalog::kRecordCnid], cnid);
    const Bytes thread_record = thread(catalog::kFileThreadRecord, parent, name);
    const morv_err err = in_transaction([&]() -> morv_err {
      if (morv_err e = insert(key, record)) return e;
      if (morv_err e = insert(make_key(cnid, u""), thread_record)) return e;
      return valence(parent, record, 1);
    });
    if (err) return err;
    records_[key] = record;
    records_[make_key(cnid, u"")] = thread_record;
    count_child(parent, 1);
    files_[cnid] = key;
    set_header_field(vh::kNextCatalogId, cnid + 1);
    set_header_field(vh::kFileCount, header_field(vh::kFileCount) + 1);
    return MORV_OK;
  }

  morv_err remove(uint32_t cnid) {
    const Bytes key = files_[cnid];
    const uint32_t parent = load_be32(&key[2]);
    const morv_err err = in_transaction([&]() -> morv_err {
      if (morv_err e = erase(key)) return e;
      if (morv_err e = erase(make_key(cnid, u""))) return e;
      return valence(parent, records_[key], 0);
    });
    if (err) return err;
    records_.erase(key);
    records_.erase(make_key(cnid, u""));
    count_child(parent, -1);
    files_.erase(cnid);
    set_header_field(vh::kFileCount, header_field(vh::kFileCount) - 1);
    return MORV_OK;
  }

  morv_err move(uint32_t cnid) {
    const Bytes key = files_[cnid];
    const uint32_t parent = load_be32(&key[2]);
    const uint32_t new_parent = rng_() % 2 ? parent : random_folder();
    const std::u16string name = fresh_name(new_parent, max_name());
    morv_catalog_search_result found = search(key);
    EXPECT_EQ(morv_catalog_record_locator_set_parent_locator(found.locator, cat_.by_cnid(parent, 1).get()),
              MORV_OK);
    const morv_err err = morv_test::rename_to(cat_.catalog, &found.locator, new_parent, name);
    morv_catalog_search_result_release(&found);
    if (err) return err;
    const Bytes new_key = make_key(new_parent, name);
    records_[new_key] = records_[key];
    records_.erase(key);
    records_[make_key(cnid, u"")] = thread(catalog::kFileThreadRecord, new_parent, name);
    count_child(parent, -1);
    count_child(new_parent, 1);
    files_[cnid] = new_key;
    return MORV_OK;
  }

  morv_err relabel() {
    const Bytes key = folders_[kRootFolderCnid];
    const std::u16string name = fresh_name(kRootParentCnid, max_name());
    morv_test::Found root = cat_.by_cnid(kRootFolderCnid, 1);
    const morv_err err = morv_test::rename_to(cat_.catalog, &root.result.locator, kRootParentCnid, name);
    if (err) return err;
    const Bytes new_key = make_key(kRootParentCnid, name);
    records_[new_key] = records_[key];
    records_.erase(key);
    records_[make_key(kRootFolderCnid, u"")] =
        thread(catalog::kFolderThreadRecord, kRootParentCnid, name);
    folders_[kRootFolderCnid] = new_key;
    return MORV_OK;
  }

  // Names as long as two file records and their index records fit a node.
  size_t max_name() const { return std::min<size_t>(255, (tree_node_size() - 300) / 6); }
  size_t tree_node_size() const { return morv_catalog_btree(cat_.catalog)->node_size; }

  template <typename F>
  morv_err in_transaction(F body) {
    EXPECT_EQ(morv_btree_transaction_begin(tree()), MORV_OK);
    return morv_btree_transaction_end(tree(), body());
  }
  morv_err insert(const Bytes& key, const Bytes& data) {
    morv_catalog_record_locator* l = nullptr;
    const morv_err err = morv_catalog_insert_record(cat_.catalog, key.data(), data.data(),
                                                    static_cast<uint16_t>(data.size()), nullptr, &l);
    if (l) morv_catalog_record_locator_close(&l);
    return err;
  }
  morv_catalog_search_result search(const Bytes& key) {
    morv_catalog_search_result r;
    morv_catalog_search_result_init(&r);
    EXPECT_EQ(morv_catalog_search_node(cat_.catalog, key.data(), &r), MORV_OK);
    EXPECT_EQ(r.exact_match, 1u);
    return r;
  }
  morv_err erase(const Bytes& key) {
    morv_catalog_search_result r = search(key);
    const morv_err err = morv_btree_delete_record(tree(), r.locator->btree_locator);
    morv_catalog_search_result_release(&r);
    return err;
  }
  morv_err valence(uint32_t parent, const Bytes& child, int up) {
    return morv_catalog_update_valence(cat_.catalog, child.data(), cat_.by_cnid(parent, 1).get(), up);
  }

  morv_test::OpenCatalog cat_;
  std::map<Bytes, Bytes, Less> records_;
  std::map<uint32_t, Bytes> folders_;
  std::map<uint32_t, Bytes> files_;
  std::mt19937 rng_;
  int refused_for_ = 0;
};

}  // namespace btree_test
