// Fixtures of the catalog and volume tests: catalog keys in host-side
// form, and a catalog opened over an image from the image builder.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>
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

// A catalog opened over a builder image (read/write), with its own device.
struct OpenCatalog {
  explicit OpenCatalog(const std::string& args) {
    morv_test::build_image(args, file);
    fd = open(file.path().c_str(), O_RDWR);
    EXPECT_EQ(morv_device_create(fd, 0, 512, 0, &device), MORV_OK);
    size_t length = 0;
    EXPECT_EQ(morv_volume_read_header(device, &buffer, &length, &header), MORV_OK);
    EXPECT_EQ(morv_extents_create(device, header, &extents), MORV_OK);
    EXPECT_EQ(morv_catalog_create(device, extents, header, &catalog), MORV_OK);
  }
  ~OpenCatalog() {
    if (catalog) morv_catalog_destroy(&catalog);
    if (extents) morv_extents_destroy(&extents);
    morv_free(buffer);
    morv_device_destroy(&device);
    close(fd);
  }
  void flush() { ASSERT_EQ(morv_fork_flush(catalog->priv->tree->fork), MORV_OK); }
  morv_catalog_search_result by_cnid(uint32_t cnid, int follow) {
    morv_catalog_search_result result;
    morv_catalog_search_result_init(&result);
    EXPECT_EQ(morv_catalog_search_by_cnid(catalog, cnid, follow, &result), MORV_OK);
    return result;
  }
  morv_test::TempFile file;
  int fd = -1;
  morv_device* device = nullptr;
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

// A volume opened over a builder image on its own read/write device.
struct OpenVolume {
  explicit OpenVolume(const std::string& args, uint32_t skip_allocation_file = 1) {
    morv_test::build_image(args, file);
    fd = open(file.path().c_str(), O_RDWR);
    EXPECT_EQ(morv_device_create(fd, 0, 512, 0, &device), MORV_OK);
    err = morv_volume_create(device, skip_allocation_file, &volume);
  }
  ~OpenVolume() {
    if (volume) morv_volume_destroy(&volume);
    morv_device_destroy(&device);
    close(fd);
  }
  std::u16string label() const {
    std::u16string units;
    for (uint16_t i = 0; i < *volume->label_length; ++i) units.push_back(load_be16(volume->label + 2 * i));
    return units;
  }
  morv_test::TempFile file;
  int fd = -1;
  morv_device* device = nullptr;
  morv_volume* volume = nullptr;
  morv_err err = MORV_OK;
};

inline std::vector<uint16_t> big_endian(const std::u16string& text) {
  std::vector<uint16_t> units(text.size());
  for (size_t i = 0; i < text.size(); ++i) store_be16(reinterpret_cast<uint8_t*>(&units[i]), text[i]);
  return units;
}

}  // namespace morv_test
