// SPDX-License-Identifier: MIT
// Fixtures of the device, catalog and volume tests: catalog keys in
// host-side form, lookups released with their object, and devices, catalogs
// and volumes opened over images from the image builder.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <chrono>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "btree.hpp"
#include "catalog.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"
#include "volume.hpp"

namespace morv_test {

inline std::vector<uint8_t> make_key(uint32_t parent, const std::u16string& name) {
  std::vector<uint8_t> key(8 + 2 * name.size());
  store_be16(&key[0], static_cast<uint16_t>(6 + 2 * name.size()));
  store_be32(&key[2], parent);
  store_be16(&key[6], static_cast<uint16_t>(name.size()));
  for (size_t i = 0; i < name.size(); ++i) store_be16(&key[8 + 2 * i], name[i]);
  return key;
}

inline std::u16string key_name(const uint8_t* key) {
  std::u16string name;
  for (uint16_t i = 0; i < load_be16(key + 6); ++i) name.push_back(load_be16(key + 8 + 2 * i));
  return name;
}

// Path components for morv_catalog_search_by_path, big-endian.
struct Path {
  std::vector<std::u16string> parts;
  size_t next = 0;
  static morv_err source(void* context, uint16_t* destination, size_t capacity, size_t* length) {
    auto* path = static_cast<Path*>(context);
    if (path->next == path->parts.size()) {
      *length = 0;
      return MORV_OK;
    }
    const std::u16string& part = path->parts[path->next++];
    if (part.size() > capacity) return MORV_ERR_INVALID_ARGUMENT;
    for (size_t i = 0; i < part.size(); ++i)
      store_be16(reinterpret_cast<uint8_t*>(destination + i), part[i]);
    *length = part.size();
    return MORV_OK;
  }
};

// A device over `path`, read-only or read/write.
struct OpenDevice {
  explicit OpenDevice(const std::string& path, bool read_only = false, uint32_t sector_size = 512) {
    fd = open(path.c_str(), read_only ? O_RDONLY : O_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(morv_device_create(fd, read_only, sector_size, 0, &device), MORV_OK);
  }
  ~OpenDevice() {
    if (device) morv_device_destroy(&device);
    if (fd >= 0) close(fd);
  }
  int fd = -1;
  morv_device* device = nullptr;
};

// Bytes that differ from sector to sector.
inline std::vector<uint8_t> sector_pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + i / 512);
  return v;
}

// Creates a device on `path` in a child process; returns the child's pid.
// The child exits 0 once the device (and so the lock) was obtained.
inline pid_t lock_in_child(const std::string& path, bool read_only) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(path.c_str(), read_only ? O_RDONLY : O_RDWR);
    morv_device* device = nullptr;
    _exit(fd >= 0 && morv_device_create(fd, read_only, 512, 0, &device) == MORV_OK ? 0 : 1);
  }
  return pid;
}
// Waits up to `ms` for the child; returns its exit status or -1 if it is still running.
inline int wait_child(pid_t pid, int ms) {
  for (int waited = 0; waited <= ms; waited += 10) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

// An image from the builder in a scratch file.
struct BuiltImage {
  explicit BuiltImage(const std::string& args) { build_image(args, file); }
  TempFile file;
};

// A catalog lookup's result, released with the object.
struct Found {
  Found() { morv_catalog_search_result_init(&result); }
  Found(Found&& other) : result(other.result) { morv_catalog_search_result_init(&other.result); }
  Found& operator=(Found&& other) {
    std::swap(result, other.result);
    return *this;
  }
  ~Found() { morv_catalog_search_result_release(&result); }
  morv_catalog_record_locator* get() const { return result.locator; }
  const uint8_t* data() const { return result.locator->btree_locator->data; }
  morv_catalog_search_result result;
};

inline Found by_cnid(morv_catalog* catalog, uint32_t cnid, int follow) {
  Found found;
  EXPECT_EQ(morv_catalog_search_by_cnid(catalog, cnid, follow, &found.result), MORV_OK);
  return found;
}
inline morv_err by_path(morv_catalog* catalog, std::vector<std::u16string> parts, Found* out) {
  morv_catalog_search_result_release(&out->result);
  Path path{std::move(parts)};
  return morv_catalog_search_by_path(catalog, Path::source, &path, nullptr, &out->result);
}
// Lookups that must end on their record (CORRUPT when they end elsewhere):
// by CNID through its thread record (the record gets no parent locator; with
// `follow` 0, the thread itself), or by path from the root.
inline morv_err find(morv_catalog* catalog, uint32_t cnid, int follow, Found* out) {
  morv_catalog_search_result_release(&out->result);
  morv_err err = morv_catalog_search_by_cnid(catalog, cnid, follow, &out->result);
  return err ? err : out->result.exact_match ? MORV_OK : MORV_ERR_CORRUPT;
}
inline morv_err find(morv_catalog* catalog, std::vector<std::u16string> parts, Found* out) {
  morv_err err = by_path(catalog, std::move(parts), out);
  return err ? err : out->result.exact_match ? MORV_OK : MORV_ERR_CORRUPT;
}

// A CNID in on-disk byte order, as rename takes its new parent.
inline uint32_t on_disk(uint32_t cnid) {
  uint8_t bytes[4];
  store_be32(bytes, cnid);
  uint32_t value;
  memcpy(&value, bytes, 4);
  return value;
}
// Renames through a name given in host order.
inline morv_err rename_to(morv_catalog* catalog, morv_catalog_record_locator** locator, uint32_t parent,
                          const std::u16string& name) {
  const std::vector<uint8_t> key = make_key(0, name);
  return morv_catalog_rename_record(catalog, locator, on_disk(parent),
                                    reinterpret_cast<const uint16_t*>(&key[8]), name.size());
}

// A catalog opened over a builder image (read/write), with its own device.
struct OpenCatalog : BuiltImage, OpenDevice {
  explicit OpenCatalog(const std::string& args) : BuiltImage(args), OpenDevice(file.path()) {
    size_t length = 0;
    EXPECT_EQ(morv_volume_read_header(device, &buffer, &length, &header), MORV_OK);
    EXPECT_EQ(morv_extents_create(device, header, &extents), MORV_OK);
    EXPECT_EQ(morv_catalog_create(device, extents, header, &catalog), MORV_OK);
  }
  ~OpenCatalog() {
    if (catalog) morv_catalog_destroy(&catalog);
    if (extents) morv_extents_destroy(&extents);
    morv_free(buffer);
  }
  void flush() { ASSERT_EQ(morv_catalog_flush(catalog), MORV_OK); }
  Found by_cnid(uint32_t cnid, int follow) { return morv_test::by_cnid(catalog, cnid, follow); }
  uint8_t* buffer = nullptr;
  uint8_t* header = nullptr;
  morv_extents* extents = nullptr;
  morv_catalog* catalog = nullptr;
};

inline uint16_t type_of(const morv_catalog_record_locator* locator) {
  return load_be16(locator->btree_locator->data);
}
inline uint32_t valence_of(const morv_catalog_record_locator* locator) {
  return load_be32(locator->btree_locator->data + catalog::kFolderValence);
}
inline uint32_t valence_of(morv_catalog* catalog, uint32_t folder) {
  const Found found = by_cnid(catalog, folder, 1);
  return found.get() ? valence_of(found.get()) : 0;
}

// A volume opened over a builder image on its own read/write device.
struct OpenVolume : BuiltImage, OpenDevice {
  explicit OpenVolume(const std::string& args, uint32_t skip_allocation_file = 1)
      : BuiltImage(args), OpenDevice(file.path()) {
    err = morv_volume_create(device, skip_allocation_file, &volume);
  }
  ~OpenVolume() {
    if (volume) morv_volume_destroy(&volume);
  }
  std::u16string label() const {
    std::u16string units;
    for (uint16_t i = 0; i < *volume->label_length; ++i) units.push_back(load_be16(volume->label + 2 * i));
    return units;
  }
  morv_volume* volume = nullptr;
  morv_err err = MORV_OK;
};

// Walks the records behind `from` (by get_next) to the first of `type`
// under `parent`; returns its name and CNID.
inline std::pair<std::u16string, uint32_t> first_child(morv_catalog* catalog, morv_catalog_record_locator* from,
                                                       uint32_t parent, uint16_t type) {
  std::pair<std::u16string, uint32_t> found;
  morv_catalog_record_locator* cur = nullptr;
  EXPECT_EQ(morv_catalog_get_next_record(catalog, from, &cur), MORV_OK);
  while (cur && load_be32(cur->btree_locator->key + 2) == parent && found.first.empty()) {
    if (type_of(cur) == type)
      found = {key_name(cur->btree_locator->key), load_be32(cur->btree_locator->data + catalog::kRecordCnid)};
    morv_catalog_record_locator* following = nullptr;
    EXPECT_EQ(morv_catalog_get_next_record(catalog, cur, &following), MORV_OK);
    morv_catalog_record_locator_close(&cur);
    cur = following;
  }
  if (cur) morv_catalog_record_locator_close(&cur);
  return found;
}

inline std::vector<uint16_t> big_endian(const std::u16string& text) {
  std::vector<uint16_t> units(text.size());
  for (size_t i = 0; i < text.size(); ++i) store_be16(reinterpret_cast<uint8_t*>(&units[i]), text[i]);
  return units;
}

}  // namespace morv_test
