// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "catalog_fixtures.hpp"

using namespace morv_test;

TEST(Device, ReadsAndWritesWholeSectors) {
  TempFile file;
  const auto bytes = sector_pattern(8 * 512);
  file.write_all(bytes);
  OpenDevice dev(file.path());
  void* mine = nullptr;
  ASSERT_EQ(morv_device_read_disk_sectors(dev.device, 2, 3, &mine), MORV_OK);
  ASSERT_NE(mine, nullptr);
  EXPECT_EQ(memcmp(mine, bytes.data() + 1024, 1536), 0);

  std::vector<uint8_t> caller(512, 0xEE);
  void* place = caller.data();
  ASSERT_EQ(morv_device_read_disk_sectors(dev.device, 7, 1, &place), MORV_OK);
  EXPECT_EQ(place, caller.data());
  EXPECT_EQ(memcmp(caller.data(), bytes.data() + 3584, 512), 0);

  memset(mine, 0x5A, 1536);
  ASSERT_EQ(morv_device_write_disk_sectors(dev.device, 4, 3, mine), MORV_OK);
  free(mine);
  auto expected = bytes;
  std::fill(expected.begin() + 2048, expected.begin() + 3584, 0x5A);
  EXPECT_EQ(file.read_all(), expected);
}

TEST(Device, RefusesUnaddressableRangesAndReportsShortOrFailedTransfers) {
  TempFile file;
  file.write_all(sector_pattern(4 * 512));
  OpenDevice dev(file.path(), true);
  morv_seam_reset_stats();

  void* buffer = nullptr;
  std::string log = logged([&] {
    // 512 * 2^54 = 2^63: a negative file offset.
    EXPECT_EQ(morv_device_read_disk_sectors(dev.device, uint64_t{1} << 54, 1, &buffer), MORV_ERR_INVALID_ARGUMENT);
    // 2^23 sectors of 512 bytes = 2^32 bytes: does not fit a 32-bit length.
    EXPECT_EQ(morv_device_read_disk_sectors(dev.device, 0, 1u << 23, &buffer), MORV_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(morv_device_write_disk_sectors(dev.device, uint64_t{1} << 54, 1, "x"), MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_TRUE(has(log, "Read offset is beyond the number of sectors addressable by system APIs "
                       "(sector 18014398509481984 => offset 9223372036854775808)"));
  EXPECT_TRUE(has(log, "Resulting buffer would be larger than addressable space (4294967296)"));
  EXPECT_EQ(morv_seam_get_stats().reads, 0u);

  // Past the end of the image: a short read, the self-allocated buffer freed.
  EXPECT_LOGGED(morv_device_read_disk_sectors(dev.device, 3, 2, &buffer), MORV_ERR_IO,
                "Partial read into buffer: 512/1024 bytes read");
  EXPECT_EQ(buffer, nullptr);

  // A failed transfer, and a write on a read-only descriptor.
  morv_seam_fail_at(MORV_SEAM_READ, 1);
  log = logged([&] {
    EXPECT_EQ(morv_device_read_disk_sectors(dev.device, 0, 1, &buffer), MORV_ERR_IO);
    EXPECT_EQ(morv_device_write_disk_sectors(dev.device, 0, 1, std::vector<uint8_t>(512).data()), MORV_ERR_IO);
  });
  EXPECT_TRUE(has(log, "Error while reading 512 bytes from device offset 0 into self-allocated buffer"));
  EXPECT_TRUE(has(log, "Error while writing 512 bytes to device offset 0 from buffer"));
  EXPECT_EQ(buffer, nullptr);

  // An allocation failure leaves the caller's place unwritten.
  morv_seam_fail_at(MORV_SEAM_ALLOC, 1);
  EXPECT_LOGGED(morv_device_read_disk_sectors(dev.device, 0, 1, &buffer), MORV_ERR_NO_MEMORY,
                "Error while allocating read buffer of 512 bytes.");
  EXPECT_EQ(buffer, nullptr);
}

TEST(Device, CreationFailuresLeaveNothingBehind) {
  TempFile file;
  file.write_all(sector_pattern(512));
  const int fd = open(file.path().c_str(), O_RDONLY);
  morv_device* device = nullptr;
  EXPECT_GE(fail_each(MORV_SEAM_ALLOC, [&] { return morv_device_create(fd, 1, 512, 0, &device); },
                      [&](morv_err err, bool failed, uint64_t) {
    EXPECT_EQ(err, failed ? MORV_ERR_NO_MEMORY : MORV_OK);
    EXPECT_EQ(device == nullptr, failed);
  }), 2u);
  morv_device_destroy(&device);
  EXPECT_LOGGED(morv_device_create(-1, 1, 512, 0, &device), MORV_ERR_GENERIC,
                "Error while locking device for shared access: Bad file descriptor (9).");
  EXPECT_EQ(device, nullptr);
  close(fd);
}

TEST(Device, ReadersShareTheVolumeAndAWriterWaitsForThem) {
  TempFile file;
  file.write_all(sector_pattern(512));
  auto reader = std::make_unique<OpenDevice>(file.path(), true);
  // A second reader gets in at once.
  EXPECT_EQ(wait_child(lock_in_child(file.path(), true), 5000), 0);
  // A writer blocks while the reader holds the volume, and gets it afterwards.
  pid_t writer = lock_in_child(file.path(), false);
  EXPECT_EQ(wait_child(writer, 300), -1);
  reader.reset();
  EXPECT_EQ(wait_child(writer, 10000), 0);
}
