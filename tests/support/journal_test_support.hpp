// SPDX-License-Identifier: MIT
// Helpers of the journal tests: builder volumes with pending transactions
// and the image a correct replay leaves, journals opened over an image, and
// replay runs.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "catalog_fixtures.hpp"
#include "journal.hpp"

namespace journal_test {

using namespace morv_test;

constexpr const char* kBase = "--size 8388608 --label Vol --files 60 --folders 3 --journal dirty";

// A dirty builder volume (kBase and `options`) and the image a correct replay
// leaves (the image as it is when the journal is stale or damaged).
struct Dirty {
  explicit Dirty(const std::string& options) {
    const std::string command = std::string(MORV_PYTHON) + " " MORV_SOURCE_DIR
                                "/tests/support/mkimage.py " + image.path() + " --journal-applied " +
                                applied.path() + " " + kBase + " " + options;
    EXPECT_EQ(run(command), 0) << command;
    before = image.read_all();
    want = applied.read_all();
  }
  TempFile image, applied;
  std::vector<uint8_t> before, want;
};

// The journal of an image, opened on a device of `sector_size`.
struct Opened {
  Opened(const std::string& path, bool read_only, uint32_t sector_size = 512)
      : dev(path, read_only, sector_size) {
    header.resize(1024 + sector_size);
    void* target = header.data();
    err = morv_device_read_disk_sectors(dev.device, 0, (1024 + sector_size) / sector_size, &target);
    if (err == MORV_OK) err = morv_journal_open(dev.device, header.data() + 1024, &journal);
  }
  ~Opened() { morv_journal_destroy(&journal); }
  OpenDevice dev;
  std::vector<uint8_t> header;
  morv_journal* journal = nullptr;
  morv_err err = MORV_OK;
};

inline morv_err replay(const std::string& path, uint32_t sector_size = 512) {
  Opened o(path, false, sector_size);
  return o.err != MORV_OK ? o.err : morv_journal_replay(o.journal);
}

// The same, where even the device's creation may fail.
inline morv_err replay_under_failures(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR);
  morv_device* device = nullptr;
  morv_err err = morv_device_create(fd, 0, 512, 0, &device);
  uint8_t header[512];
  void* target = header;
  if (err == MORV_OK) err = morv_device_read_disk_sectors(device, 2, 1, &target);
  morv_journal* journal = nullptr;
  if (err == MORV_OK) err = morv_journal_open(device, header, &journal);
  if (err == MORV_OK) err = morv_journal_replay(journal);
  morv_journal_destroy(&journal);
  if (device) morv_device_destroy(&device);
  close(fd);
  return err;
}

}  // namespace journal_test
