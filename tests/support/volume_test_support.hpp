// SPDX-License-Identifier: MIT
// Helpers of the volume tests: a bare volume header image, volumes opened
// over builder images patched first, and patches of the journal's structures.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "catalog_fixtures.hpp"

namespace volume_test {

using namespace morv_test;

// An 8 KiB image: distinct bytes everywhere, a volume header at 1024.
inline std::vector<uint8_t> header_image(uint16_t signature) {
  std::vector<uint8_t> image(8192);
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>(i % 251);
  store_be16(&image[1024 + vh::kSignature], signature);
  store_be32(&image[1024 + vh::kBlockSize], 4096);
  store_be32(&image[1024 + vh::kFileCount], 0);
  return image;
}

// Opens a volume that must be refused with `expected`; returns the log.
inline std::string open_failure(const std::string& args, morv_err expected) {
  std::unique_ptr<OpenVolume> v;
  const std::string log = logged([&] { v = std::make_unique<OpenVolume>(args); });
  EXPECT_EQ(v->err, expected) << log;
  EXPECT_EQ(v->volume, nullptr);
  return log;
}

constexpr auto kUnset = static_cast<morv_volume_state>(99);

// A volume over a builder image whose bytes `patch` may change first, on a
// read-only device of `sector_size`.
struct PatchedVolume {
  template <typename Patch>
  PatchedVolume(const std::string& args, Patch patch, uint32_t sector_size = 512) {
    build_image(args, file);
    auto bytes = file.read_all();
    patch(bytes);
    file.write_all(bytes);
    dev = std::make_unique<OpenDevice>(file.path(), true, sector_size);
    EXPECT_EQ(morv_volume_create(dev->device, 1, &volume), MORV_OK);
  }
  explicit PatchedVolume(const std::string& args) : PatchedVolume(args, [](auto&) {}) {}
  ~PatchedVolume() {
    if (volume) morv_volume_destroy(&volume);
  }
  morv_volume_state state() const {
    morv_volume_state s = kUnset;
    if (!volume) return s;  // set-up failed, reported above
    EXPECT_EQ(morv_volume_check_state(volume, &s), MORV_OK);
    return s;
  }
  TempFile file;
  std::unique_ptr<OpenDevice> dev;
  morv_volume* volume = nullptr;
};

// Byte offsets of a builder image's journal info block and journal header.
inline uint64_t info_block_offset(const std::vector<uint8_t>& image) {
  return uint64_t{load_be32(&image[1024 + vh::kJournalInfoBlock])} * load_be32(&image[1024 + vh::kBlockSize]);
}
inline uint64_t journal_offset(const std::vector<uint8_t>& image) {
  return load_be64(&image[info_block_offset(image) + 36]);
}

// A big-endian field of the volume header, the journal info block or the
// journal header, set to `value`.
enum Structure { kVolumeHeader, kInfoBlock, kJournalHeader };
struct Patch {
  Structure structure;
  size_t field;
  uint64_t value;
  int width;
  void operator()(std::vector<uint8_t>& image) const {
    const uint64_t base = structure == kVolumeHeader ? 1024
                          : structure == kInfoBlock  ? info_block_offset(image)
                                                     : journal_offset(image);
    uint8_t* p = &image[base + field];
    width == 8 ? store_be64(p, value) : store_be32(p, static_cast<uint32_t>(value));
  }
};

}  // namespace volume_test
