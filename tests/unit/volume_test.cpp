#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "device_unix.hpp"
#include "support_unix.hpp"
#include "test_support.hpp"
#include "volume.hpp"

namespace {

// An 8 KiB image: distinct bytes everywhere, a volume header at 1024.
std::vector<uint8_t> header_image(uint16_t signature) {
  std::vector<uint8_t> image(8192);
  for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<uint8_t>(i % 251);
  store_be16(&image[1024 + vh::kSignature], signature);
  store_be32(&image[1024 + vh::kBlockSize], 4096);
  store_be32(&image[1024 + vh::kFileCount], 0);
  return image;
}

struct Device {
  Device(const std::string& path, uint32_t sector_size) {
    fd = open(path.c_str(), O_RDWR);
    EXPECT_EQ(morv_device_create(fd, 0, sector_size, 0, &device), MORV_OK);
  }
  ~Device() {
    morv_device_destroy(&device);
    close(fd);
  }
  int fd;
  morv_device* device = nullptr;
};

}  // namespace

TEST(VolumeHeader, LocatedAtByte1024ForEverySectorSizeAndFlushedAsWholeSectors) {
  for (uint32_t sector_size : {512u, 2048u, 4096u}) {
    SCOPED_TRACE(sector_size);
    morv_test::TempFile file;
    const auto image = header_image(vh::kSignatureHfsx);
    file.write_all(image);
    Device dev(file.path(), sector_size);
    morv_seam_reset_stats();
    uint8_t* buffer = nullptr;
    size_t length = 0;
    uint8_t* header = nullptr;
    ASSERT_EQ(morv_volume_read_header(dev.device, &buffer, &length, &header), MORV_OK);
    EXPECT_EQ(length, sector_size);
    EXPECT_EQ(morv_seam_get_stats().read_bytes, sector_size);
    EXPECT_EQ(header - buffer, sector_size == 512 ? 0 : 1024);
    EXPECT_EQ(memcmp(header, &image[1024], vh::kSize), 0);
    const char* kind = nullptr;
    EXPECT_EQ(morv_volume_check_signature(header, &kind), MORV_OK);
    EXPECT_STREQ(kind, "X");

    morv_volume volume{};
    volume.header = header;
    morv_volume_decrement_file_count(&volume, 1);    // 0 - 1 wraps
    morv_volume_increment_free_blocks(&volume, 5);
    morv_volume_decrement_free_blocks(&volume, 2);
    morv_volume_set_next_allocation(&volume, 0x01020304);
    morv_volume_increment_next_catalog_id(&volume);
    morv_volume_decrement_folder_count(&volume, 0);
    EXPECT_EQ(load_be32(header + vh::kFileCount), 4294967295u);
    ASSERT_EQ(morv_volume_write_header(dev.device, buffer, length), MORV_OK);
    morv_free(buffer);

    // Only the header's sectors change, and within them only the updated fields.
    auto expected = image;
    store_be32(&expected[1024 + vh::kFileCount], 4294967295u);
    store_be32(&expected[1024 + vh::kFreeBlocks], load_be32(&image[1024 + vh::kFreeBlocks]) + 3);
    store_be32(&expected[1024 + vh::kNextAllocation], 0x01020304);
    store_be32(&expected[1024 + vh::kNextCatalogId], load_be32(&image[1024 + vh::kNextCatalogId]) + 1);
    EXPECT_EQ(file.read_all(), expected);
  }
}

TEST(VolumeHeader, RefusesOtherSignaturesAndReportsReadAndWriteFailures) {
  uint8_t header[vh::kSize] = {};
  const char* kind = "unchanged";
  store_be16(header, 0x4244);  // plain HFS or an HFS wrapper
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_volume_check_signature(header, &kind), MORV_ERR_GENERIC);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Invalid signature word for HFS+ volume: 0x16964\n"),
            std::string::npos);
  EXPECT_STREQ(kind, "unchanged");
  store_be16(header, vh::kSignatureHfsPlus);
  EXPECT_EQ(morv_volume_check_signature(header, &kind), MORV_OK);
  EXPECT_STREQ(kind, "+");

  morv_test::TempFile file;
  file.write_all(header_image(vh::kSignatureHfsPlus));
  Device dev(file.path(), 512);
  uint8_t* buffer = nullptr;
  size_t length = 0;
  uint8_t* at = nullptr;
  morv_seam_fail_at(MORV_SEAM_READ, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_volume_read_header(dev.device, &buffer, &length, &at), MORV_ERR_IO);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Error while reading volume header disk sector.\n"),
            std::string::npos);
  EXPECT_EQ(buffer, nullptr);

  uint8_t sector[512] = {};
  morv_seam_fail_at(MORV_SEAM_WRITE, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_volume_write_header(dev.device, sector, sizeof sector), MORV_ERR_IO);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Error while flushing volume header.\n"),
            std::string::npos);
  EXPECT_EQ(file.read_all(), header_image(vh::kSignatureHfsPlus));
}
