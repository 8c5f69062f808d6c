// SPDX-License-Identifier: MIT
// The operation scripts of fuzz_btree: a reader of the script bytes in a
// volume's boot blocks, and the catalog and extents overflow keys they
// describe (the format is at the top of tests/fuzz/fuzz_btree.cpp).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "catalog.hpp"
#include "extents.hpp"
#include "fuzz_support.hpp"
#include "morv.hpp"

namespace fuzz_script {

class Script {
 public:
  Script(const uint8_t* data, size_t size)
      : data_(data), size_(size < fuzz::kBootBlocksSize ? size : fuzz::kBootBlocksSize) {}
  uint8_t u8() { return at_ < size_ ? data_[at_++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
  uint32_t u32() { return uint32_t{u16()} << 16 | u16(); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

using units_t = std::vector<uint16_t>;

inline units_t ascii(const std::string& text, size_t pad_to) {
  units_t units(text.begin(), text.end());
  while (units.size() < pad_to && units.size() < catalog::kMaxNameLength) units.push_back('x');
  return units;
}

inline units_t read_name(Script& s) {
  switch (s.u8() % 5) {
    case 1: {
      const std::string text = "folder " + std::to_string(s.u8());
      return ascii(text, s.u8());
    }
    case 2: {
      const unsigned n = s.u8();
      char text[16];
      snprintf(text, sizeof text, n % 2 ? "File %06u" : "file %06u", n);
      return ascii(text, s.u8());
    }
    case 3:
      return units_t(s.u8(), 'x');
    case 4: {
      units_t units(s.u8());
      for (uint16_t& u : units) u = s.u16();
      return units;
    }
    default:
      return {};
  }
}

// Catalog key bytes: keyLength, parentID, then the name, big-endian.
inline std::vector<uint8_t> catalog_key(uint32_t parent, const units_t& name) {
  std::vector<uint8_t> key(catalog::kKeyName + 2 * name.size());
  store_be16(&key[catalog::kKeyLength], static_cast<uint16_t>(key.size() - 2));
  store_be32(&key[catalog::kKeyParentId], parent);
  store_be16(&key[catalog::kKeyNameLength], static_cast<uint16_t>(name.size()));
  for (size_t i = 0; i < name.size(); ++i) store_be16(&key[catalog::kKeyName + 2 * i], name[i]);
  return key;
}

inline std::vector<uint8_t> read_key(Script& s, bool extents_tree) {
  if (!extents_tree) {
    const uint32_t parent = s.u8();
    return catalog_key(parent, read_name(s));
  }
  std::vector<uint8_t> key(extkey::kSize);
  store_be16(&key[0], extkey::kKeyLength);
  key[extkey::kForkType] = s.u8();
  store_be32(&key[extkey::kFileId], s.u32());
  store_be32(&key[extkey::kStartBlock], s.u32());
  return key;
}

}  // namespace fuzz_script
