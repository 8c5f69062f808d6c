// SPDX-License-Identifier: MIT
// Shared definitions of the morv HFS+ library: error values, the log function,
// byte-order helpers and the on-disk layouts that several modules read.
//
// Every integer of an HFS+ volume is big-endian on disk. Structures are never
// overlaid on disk bytes: fields are read and written one byte at a time
// through load_be*/store_be*, so nothing here assumes alignment or host order.
#pragma once

#include <cstddef>
#include <cstdint>

// Result of every library operation. Callers test the whole value for zero.
using morv_err = uint64_t;

inline constexpr morv_err MORV_OK = 0;
inline constexpr morv_err MORV_ERR_GENERIC = 1;
inline constexpr morv_err MORV_ERR_NO_MEMORY = 2;
inline constexpr morv_err MORV_ERR_INVALID_ARGUMENT = 3;
inline constexpr morv_err MORV_ERR_IO = 4;
inline constexpr morv_err MORV_ERR_EXTENT_LIMIT = 5;
inline constexpr morv_err MORV_ERR_CORRUPT = 6;
inline constexpr morv_err MORV_ERR_INTERNAL = 7;
inline constexpr morv_err MORV_ERR_OVERFLOW = 8;
inline constexpr morv_err MORV_ERR_EXISTS = 9;
inline constexpr morv_err MORV_ERR_UNSUPPORTED = 10;

// Writes "[LEVEL: function, line N] " (when the previous output ended a line)
// and the formatted message to standard error. Returns the length of the
// format string.
int morv_log(const char* source_file, int line, const char* function_name, const char* level,
             const char* format, ...) __attribute__((format(printf, 5, 6)));

// Each source file defines `kLogSource` (its module name) before using these.
#define MORV_LOG_AT(level, ...) morv_log(kLogSource, __LINE__, __func__, level, __VA_ARGS__)
#define MORV_ERROR(...) MORV_LOG_AT("ERROR", __VA_ARGS__)
#define MORV_WARNING(...) MORV_LOG_AT("WARNING", __VA_ARGS__)
#define MORV_CRITICAL(...) MORV_LOG_AT("CRITICAL", __VA_ARGS__)

// printf arguments: the log formats use %llu/%lu/%zu whatever the host's
// widths, so values are widened explicitly.
inline unsigned long long morv_ull(uint64_t v) { return v; }
inline unsigned long morv_ul(uint32_t v) { return v; }

// Big-endian field access on byte pointers.
inline uint16_t load_be16(const uint8_t* p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline uint32_t load_be32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline uint64_t load_be64(const uint8_t* p) {
  return (uint64_t{load_be32(p)} << 32) | load_be32(p + 4);
}
inline void store_be16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}
inline void store_be32(uint8_t* p, uint32_t v) {
  store_be16(p, static_cast<uint16_t>(v >> 16));
  store_be16(p + 2, static_cast<uint16_t>(v));
}
inline void store_be64(uint8_t* p, uint64_t v) {
  store_be32(p, static_cast<uint32_t>(v >> 32));
  store_be32(p + 4, static_cast<uint32_t>(v));
}
inline uint16_t morv_swap16(uint16_t v) { return static_cast<uint16_t>((v >> 8) | (v << 8)); }

// Catalog node IDs of the special files and folders.
inline constexpr uint32_t kRootParentCnid = 1;
inline constexpr uint32_t kRootFolderCnid = 2;
inline constexpr uint32_t kExtentsFileCnid = 3;
inline constexpr uint32_t kCatalogFileCnid = 4;
inline constexpr uint32_t kBadBlocksFileCnid = 5;
inline constexpr uint32_t kAllocationFileCnid = 6;
inline constexpr uint32_t kStartupFileCnid = 7;
inline constexpr uint32_t kAttributesFileCnid = 8;

// HFSPlusVolumeHeader: 512 bytes at byte 1024 of the volume.
namespace vh {
inline constexpr uint64_t kOffsetOnDisk = 1024;
inline constexpr size_t kSize = 512;
inline constexpr size_t kSignature = 0;
inline constexpr size_t kAttributes = 4;
inline constexpr size_t kJournalInfoBlock = 12;
inline constexpr size_t kFileCount = 32;
inline constexpr size_t kFolderCount = 36;
inline constexpr size_t kBlockSize = 40;
inline constexpr size_t kTotalBlocks = 44;
inline constexpr size_t kFreeBlocks = 48;
inline constexpr size_t kNextAllocation = 52;
inline constexpr size_t kNextCatalogId = 64;
inline constexpr size_t kAllocationFile = 112;
inline constexpr size_t kExtentsFile = 192;
inline constexpr size_t kCatalogFile = 272;
inline constexpr size_t kAttributesFile = 352;
inline constexpr size_t kStartupFile = 432;
inline constexpr uint16_t kSignatureHfsPlus = 0x482B;  // "H+"
inline constexpr uint16_t kSignatureHfsx = 0x4858;     // "HX"
}  // namespace vh

// HFSPlusForkData (80 bytes) and HFSPlusExtentDescriptor (8 bytes); an extent
// record is eight descriptors, unused ones zero.
namespace forkdata {
inline constexpr size_t kSize = 80;
inline constexpr size_t kLogicalSize = 0;
inline constexpr size_t kClumpSize = 8;
inline constexpr size_t kTotalBlocks = 12;
inline constexpr size_t kExtents = 16;
inline constexpr size_t kExtentSize = 8;
inline constexpr size_t kExtentStartBlock = 0;
inline constexpr size_t kExtentBlockCount = 4;
inline constexpr size_t kExtentsPerRecord = 8;
inline constexpr size_t kExtentRecordSize = kExtentSize * kExtentsPerRecord;
}  // namespace forkdata
