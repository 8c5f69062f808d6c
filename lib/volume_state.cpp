// Whether a volume's own state lets a writer change it: the attribute bits
// of the volume header and, for a journaled volume, whether its journal still
// holds transactions (the layouts are described in volume_state.hpp).
//
// Every byte range read here comes from the volume and is checked against the
// volume's extent (totalBlocks x blockSize, in 64-bit arithmetic) before it
// is read; a range that does not fit makes the journal "damaged", which a
// writer must treat like a journal it cannot check.
#include "volume_state.hpp"

#include "device_unix.hpp"
#include "support_unix.hpp"
#include "volume.hpp"

namespace {
constexpr const char* kLogSource = "volume_state";

constexpr uint32_t kAttributeUnmounted = 1u << 8;
constexpr uint32_t kAttributeInconsistent = 1u << 11;
constexpr uint32_t kAttributeJournaled = 1u << 13;
constexpr uint32_t kAttributeSoftwareLock = 1u << 15;

// JournalInfoBlock, big-endian.
namespace jib {
constexpr size_t kFlags = 0;
constexpr size_t kOffset = 36;
constexpr size_t kReadLength = 44;  // through the offset field
constexpr uint32_t kInFileSystem = 0x1;
constexpr uint32_t kNeedsInit = 0x4;
}  // namespace jib

// journal_header, in the byte order its endian field shows.
namespace jhdr {
constexpr size_t kMagic = 0;
constexpr size_t kEndian = 4;
constexpr size_t kStart = 8;
constexpr size_t kEnd = 16;
constexpr size_t kReadLength = 24;  // through the end field
constexpr uint32_t kMagicValue = 0x4A4E4C78;  // "JNLx"
constexpr uint32_t kEndianValue = 0x12345678;
}  // namespace jhdr

uint32_t load_le32(const uint8_t* p) {
  return (uint32_t{p[3]} << 24) | (uint32_t{p[2]} << 16) | (uint32_t{p[1]} << 8) | p[0];
}
uint64_t load_le64(const uint8_t* p) { return (uint64_t{load_le32(p + 4)} << 32) | load_le32(p); }

// Reads `length` bytes at byte `offset` of the volume, which must lie inside
// its first `volume_bytes`. *in_range is false (and nothing is read) when
// they do not; otherwise *data points at the bytes inside *sectors.
[[nodiscard]] morv_err read_volume_bytes(morv_device* device, uint64_t volume_bytes,
                                         uint64_t offset, uint32_t length,
                                         morv::buffer<uint8_t>* sectors, const uint8_t** data,
                                         bool* in_range) {
  *in_range = offset <= volume_bytes && length <= volume_bytes - offset;
  if (!*in_range) return MORV_OK;
  const uint32_t sector_size = device->sector_size;
  const uint32_t in_sector = static_cast<uint32_t>(offset % sector_size);
  const uint32_t count = (in_sector + length + sector_size - 1) / sector_size;
  void* buffer = nullptr;
  if (morv_err err = morv_device_read_disk_sectors(device, offset / sector_size, count, &buffer))
    return err;
  sectors->reset(static_cast<uint8_t*>(buffer));
  *data = sectors->get() + in_sector;
  return MORV_OK;
}

// Decides from a journal header whether the journal holds transactions.
morv_volume_state journal_header_state(const uint8_t* header) {
  const bool big = load_be32(header + jhdr::kEndian) == jhdr::kEndianValue;
  if (!big && load_le32(header + jhdr::kEndian) != jhdr::kEndianValue)
    return MORV_VOLUME_JOURNAL_DAMAGED;
  const auto u32 = [big](const uint8_t* p) { return big ? load_be32(p) : load_le32(p); };
  const auto u64 = [big](const uint8_t* p) { return big ? load_be64(p) : load_le64(p); };
  if (u32(header + jhdr::kMagic) != jhdr::kMagicValue) return MORV_VOLUME_JOURNAL_DAMAGED;
  return u64(header + jhdr::kStart) != u64(header + jhdr::kEnd) ? MORV_VOLUME_JOURNAL_DIRTY
                                                                : MORV_VOLUME_WRITABLE;
}

// The journal's state: follows journalInfoBlock to the info block and, when
// the journal is initialised and in this file system, to its header.
[[nodiscard]] morv_err journal_state(morv_device* device, const uint8_t* header,
                                     morv_volume_state* out_state) {
  const uint64_t block_size = load_be32(header + vh::kBlockSize);
  const uint64_t volume_bytes = block_size * load_be32(header + vh::kTotalBlocks);
  const uint64_t info_offset = block_size * load_be32(header + vh::kJournalInfoBlock);
  // The info block cannot share the boot blocks and the volume header.
  if (info_offset < vh::kOffsetOnDisk + vh::kSize) {
    *out_state = MORV_VOLUME_JOURNAL_DAMAGED;
    return MORV_OK;
  }
  morv::buffer<uint8_t> info_sectors;
  const uint8_t* info = nullptr;
  bool in_range = false;
  if (morv_err err = read_volume_bytes(device, volume_bytes, info_offset, jib::kReadLength,
                                       &info_sectors, &info, &in_range)) {
    MORV_ERROR("Error while reading the journal info block.\n");
    return err;
  }
  if (!in_range) {
    *out_state = MORV_VOLUME_JOURNAL_DAMAGED;
    return MORV_OK;
  }
  const uint32_t flags = load_be32(info + jib::kFlags);
  if (flags & jib::kNeedsInit) {
    *out_state = MORV_VOLUME_WRITABLE;  // the next mount initialises it: nothing to replay
    return MORV_OK;
  }
  if (!(flags & jib::kInFileSystem)) {
    *out_state = MORV_VOLUME_JOURNAL_ELSEWHERE;
    return MORV_OK;
  }
  morv::buffer<uint8_t> header_sectors;
  const uint8_t* journal_header = nullptr;
  if (morv_err err = read_volume_bytes(device, volume_bytes, load_be64(info + jib::kOffset),
                                       jhdr::kReadLength, &header_sectors, &journal_header,
                                       &in_range)) {
    MORV_ERROR("Error while reading the journal header.\n");
    return err;
  }
  *out_state = in_range ? journal_header_state(journal_header) : MORV_VOLUME_JOURNAL_DAMAGED;
  return MORV_OK;
}

}  // namespace

morv_err morv_volume_check_state(const morv_volume* volume, morv_volume_state* out_state) {
  const uint32_t attributes = load_be32(volume->header + vh::kAttributes);
  morv_volume_state state = MORV_VOLUME_WRITABLE;
  if (attributes & kAttributeSoftwareLock) {
    state = MORV_VOLUME_SOFTWARE_LOCKED;
  } else if (attributes & kAttributeJournaled) {
    if (morv_err err = journal_state(volume->device, volume->header, &state)) return err;
  }
  if (state == MORV_VOLUME_WRITABLE && (attributes & kAttributeInconsistent))
    state = MORV_VOLUME_INCONSISTENT;
  if (state == MORV_VOLUME_WRITABLE && !(attributes & kAttributeUnmounted))
    state = MORV_VOLUME_NOT_UNMOUNTED;
  *out_state = state;
  return MORV_OK;
}
