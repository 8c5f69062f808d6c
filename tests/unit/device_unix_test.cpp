#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "device_unix.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"

namespace {

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + i / 512);
  return v;
}

struct OpenDevice {
  explicit OpenDevice(const std::string& path, bool read_only, uint32_t sector_size = 512) {
    fd = open(path.c_str(), read_only ? O_RDONLY : O_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(morv_device_create(fd, read_only, sector_size, 0, &device), MORV_OK);
  }
  ~OpenDevice() {
    if (device) morv_device_destroy(&device);
    close(fd);
  }
  int fd = -1;
  morv_device* device = nullptr;
};

// Creates a device on `path` in a child process; returns the child's pid.
// The child exits 0 once the device (and so the lock) was obtained.
pid_t lock_in_child(const std::string& path, bool read_only) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(path.c_str(), read_only ? O_RDONLY : O_RDWR);
    morv_device* device = nullptr;
    _exit(fd >= 0 && morv_device_create(fd, read_only, 512, 0, &device) == MORV_OK ? 0 : 1);
  }
  return pid;
}

// Waits up to `ms` for the child; returns its exit status or -1 if it is still running.
int wait_child(pid_t pid, int ms) {
  for (int waited = 0; waited <= ms; waited += 10) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -2;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

}  // namespace

TEST(Device, ReadsAndWritesWholeSectors) {
  morv_test::TempFile file;
  const auto bytes = pattern(8 * 512);
  file.write_all(bytes);
  OpenDevice dev(file.path(), false);
  EXPECT_EQ(dev.device->sector_size, 512u);
  EXPECT_EQ(dev.device->read_only, 0);

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
  auto after = file.read_all();
  auto expected = bytes;
  std::fill(expected.begin() + 2048, expected.begin() + 3584, 0x5A);
  EXPECT_EQ(after, expected);
}

TEST(Device, RefusesUnaddressableRangesAndReportsShortOrFailedTransfers) {
  morv_test::TempFile file;
  file.write_all(pattern(4 * 512));
  OpenDevice dev(file.path(), true);
  morv_seam_reset_stats();

  void* buffer = nullptr;
  testing::internal::CaptureStderr();
  // 512 * 2^54 = 2^63: a negative file offset.
  EXPECT_EQ(morv_device_read_disk_sectors(dev.device, uint64_t{1} << 54, 1, &buffer),
            MORV_ERR_INVALID_ARGUMENT);
  // 2^23 sectors of 512 bytes = 2^32 bytes: does not fit a 32-bit length.
  EXPECT_EQ(morv_device_read_disk_sectors(dev.device, 0, 1u << 23, &buffer),
            MORV_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(morv_device_write_disk_sectors(dev.device, uint64_t{1} << 54, 1, "x"),
            MORV_ERR_INVALID_ARGUMENT);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Read offset is beyond the number of sectors addressable by system APIs "
                     "(sector 18014398509481984 => offset 9223372036854775808)"),
            std::string::npos);
  EXPECT_NE(log.find("Resulting buffer would be larger than addressable space (4294967296)"),
            std::string::npos);
  EXPECT_EQ(morv_seam_get_stats().reads, 0u);

  // Past the end of the image: a short read, the self-allocated buffer freed.
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_device_read_disk_sectors(dev.device, 3, 2, &buffer), MORV_ERR_IO);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Partial read into buffer: 512/1024 bytes read"),
            std::string::npos);
  EXPECT_EQ(buffer, nullptr);

  // A failed transfer, and a write on a read-only descriptor.
  morv_seam_fail_at(MORV_SEAM_READ, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_device_read_disk_sectors(dev.device, 0, 1, &buffer), MORV_ERR_IO);
  EXPECT_EQ(morv_device_write_disk_sectors(dev.device, 0, 1, std::vector<uint8_t>(512).data()),
            MORV_ERR_IO);
  log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("Error while reading 512 bytes from device offset 0 into self-allocated buffer"),
            std::string::npos);
  EXPECT_NE(log.find("Error while writing 512 bytes to device offset 0 from buffer"), std::string::npos);
  EXPECT_EQ(buffer, nullptr);

  // An allocation failure leaves the caller's place unwritten.
  morv_seam_fail_at(MORV_SEAM_ALLOC, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_device_read_disk_sectors(dev.device, 0, 1, &buffer), MORV_ERR_NO_MEMORY);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Error while allocating read buffer of 512 bytes."),
            std::string::npos);
  EXPECT_EQ(buffer, nullptr);
}

TEST(Device, CreationFailuresLeaveNothingBehind) {
  morv_test::TempFile file;
  file.write_all(pattern(512));
  int fd = open(file.path().c_str(), O_RDONLY);
  for (uint64_t n = 1; n <= 2; ++n) {
    morv_device* device = nullptr;
    morv_seam_fail_at(MORV_SEAM_ALLOC, n);
    EXPECT_EQ(morv_device_create(fd, 1, 512, 0, &device), MORV_ERR_NO_MEMORY);
    EXPECT_EQ(device, nullptr);
  }
  morv_seam_fail_at(0, 0);
  morv_device* device = nullptr;
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_device_create(-1, 1, 512, 0, &device), MORV_ERR_GENERIC);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "Error while locking device for shared access: Bad file descriptor (9)."),
            std::string::npos);
  EXPECT_EQ(device, nullptr);
  close(fd);
}

TEST(Device, ReadersShareTheVolumeAndAWriterWaitsForThem) {
  morv_test::TempFile file;
  file.write_all(pattern(512));
  auto reader = std::make_unique<OpenDevice>(file.path(), true);

  // A second reader gets in at once.
  EXPECT_EQ(wait_child(lock_in_child(file.path(), true), 5000), 0);

  // A writer blocks while the reader holds the volume, and gets it afterwards.
  pid_t writer = lock_in_child(file.path(), false);
  EXPECT_EQ(wait_child(writer, 300), -1);
  reader.reset();
  EXPECT_EQ(wait_child(writer, 10000), 0);
}
