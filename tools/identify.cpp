// SPDX-License-Identifier: MIT
// Says what a file or device holds when set-up found no HFS+ volume in it, so
// that whoever named the wrong thing (most often a whole disk for one of its
// partitions) learns what to name instead.
//
// Everything read here comes from a disk of unknown origin, read as root.
// Only the first kHeadSize bytes, one partition table's entries and at most
// kMaxLogical extended boot records are read; every offset taken from the
// disk is checked against the device's size before it is used, and every
// walk over a table has a fixed bound.
//
// What marks each format (offsets in bytes; LE and BE for byte order):
//   HFS+ / HFSX volume header   "H+" / "HX" at 1024
//   HFS master directory block  "BD" at 1024: drAlBlkSiz u32 BE at +20,
//       drAlBlSt u16 BE at +28 (in 512-byte sectors), volume name at +36
//       (a length byte and up to 27 bytes); drEmbedSigWord "H+" at +124 and
//       drEmbedExtent (start u16, count u16, in allocation blocks) at +126
//       mark a wrapper around an HFS+ volume
//   ext2/3/4 superblock         at 1024: magic 0xEF53 u16 LE at +56, feature
//       words u32 LE at +92 (compat), +96 (incompat), +100 (read-only compat),
//       volume name at +120 (16 bytes)
//   GUID partition table        "EFI PART" at the start of logical block 1
//       (512 or 4096 bytes); entries from block u64 LE at +72, count u32 LE
//       at +80, entry size u32 LE at +84; an entry: type GUID (16 bytes, all
//       zero when unused), first and last block u64 LE at +32 and +40
//   Apple partition map         "ER" at 0 with the block size u16 BE at 2;
//       entries "PM" in blocks 1..n: map entry count u32 BE at +4, first
//       block and block count u32 BE at +8 and +12
//   NTFS, exFAT boot sector     "NTFS    " / "EXFAT   " at 3
//   FAT boot sector             "FAT12   ", "FAT16   " or "FAT     " at 54
//       with the volume label at 43; "FAT32   " at 82 with the label at 71
//   MBR                         0x55 0xAA at 510, four 16-byte entries from
//       446: status at +0 (0 or 0x80), type at +4, first sector and sector
//       count u32 LE at +8 and +12; types 0x05, 0x0F and 0x85 hold a chain
//       of extended boot records, each with one logical partition (relative
//       to itself) and a link to the next (relative to the extended one)
//   ISO 9660                    "CD001" at 32769, volume identifier at 32808
//       (32 bytes)
#include "identify.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "device_unix.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"
#include "volume.hpp"

namespace {

constexpr size_t kHeadSize = 68 * 1024;  // through the ISO 9660 volume descriptors
constexpr uint64_t kVolumeHeaderOffset = 1024;
constexpr uint64_t kVolumeHeaderEnd = 1536;
constexpr size_t kSectorSize = 512;
constexpr size_t kLabelTextSize = 4 * 255 * 4 + 3;  // 255 units, each escaped at worst
constexpr size_t kMaxListed = 8;                    // HFS+ partitions named in the line
constexpr uint32_t kMaxGptEntries = 1024;
constexpr uint32_t kMaxGptEntrySize = 4096;
constexpr uint32_t kGptEntryFields = 48;
constexpr uint32_t kMaxApmEntries = 256;
constexpr int kMaxLogical = 128;

// The device view through which a partition's label is read.
constexpr int kMaxViewAttempts = 40;
constexpr size_t kMaxViewRanges = 256;
constexpr uint64_t kMaxViewBytes = 64ull << 20;

uint16_t load_le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t load_le32(const uint8_t* p) { return load_le16(p) | uint32_t{load_le16(p + 2)} << 16; }
uint64_t load_le64(const uint8_t* p) { return load_le32(p) | uint64_t{load_le32(p + 4)} << 32; }

// Reads up to `length` bytes at `offset`; the count read, or -1.
ssize_t read_at(int fd, uint64_t offset, void* buffer, size_t length) {
  size_t done = 0;
  while (done < length) {
    const ssize_t n = pread64(fd, static_cast<uint8_t*>(buffer) + done, length - done,
                              static_cast<off64_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

// The one line being put together; text past its end is dropped.
class line {
 public:
  __attribute__((format(printf, 2, 3))) void add(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(text_ + used_, sizeof text_ - used_, format, args);
    va_end(args);
    if (n > 0) used_ = used_ + static_cast<size_t>(n) < sizeof text_ ? used_ + n : sizeof text_ - 1;
  }
  const char* text() const { return text_; }

 private:
  char text_[8192] = "";
  size_t used_ = 0;
};

// Length of the printable character at `p` (at most `left` bytes): a
// printable ASCII byte or a well-formed UTF-8 sequence other than a C1
// control; 0 when the byte must be shown escaped.
size_t printable_sequence(const uint8_t* p, size_t left) {
  if (p[0] >= 0x20 && p[0] < 0x7F) return 1;
  const size_t length = p[0] < 0xC2 ? 0 : p[0] < 0xE0 ? 2 : p[0] < 0xF0 ? 3 : p[0] <= 0xF4 ? 4 : 0;
  if (length == 0 || length > left) return 0;
  for (size_t i = 1; i < length; ++i)
    if ((p[i] & 0xC0) != 0x80) return 0;
  if (p[0] == 0xC2 && p[1] < 0xA0) return 0;                       // C1 controls
  if ((p[0] == 0xE0 && p[1] < 0xA0) || (p[0] == 0xF0 && p[1] < 0x90)) return 0;  // overlong
  if ((p[0] == 0xED && p[1] >= 0xA0) || (p[0] == 0xF4 && p[1] >= 0x90)) return 0;  // surrogates, > U+10FFFF
  return length;
}

// `text` in double quotes, each byte that could upset a terminal or a
// reader (controls, quotes, backslashes, bytes that are not UTF-8) as \xNN.
void quote(const uint8_t* text, size_t length, char* out, size_t capacity) {
  size_t used = 0;
  auto put = [&](const char* s, size_t n) {
    if (capacity - used > n + 1) {
      memcpy(out + used, s, n);
      used += n;
    }
  };
  put("\"", 1);
  for (size_t i = 0; i < length;) {
    const size_t n = text[i] == '"' || text[i] == '\\' ? 0 : printable_sequence(text + i, length - i);
    if (n) {
      put(reinterpret_cast<const char*>(text + i), n);
      i += n;
    } else {
      char escaped[5];
      snprintf(escaped, sizeof escaped, "\\x%02X", text[i++]);
      put(escaped, 4);
    }
  }
  put("\"", 1);
  out[used] = '\0';
}

// A fixed-width label field with its trailing blanks (and NULs) removed.
void quote_field(const uint8_t* field, size_t width, char* out, size_t capacity) {
  while (width && (field[width - 1] == ' ' || field[width - 1] == '\0')) --width;
  quote(field, width, out, capacity);
}

// ---- Reading an HFS+ label through a device view ----
//
// The library opens a volume at byte 0 of its device. To read the label of
// a volume that starts further in (a partition, or inside an HFS wrapper), it
// is given a sparse in-memory file of the volume's length that holds only the
// ranges the library has asked for, copied from the real device. Each set-up
// is watched through the seam's observer; when it asked for bytes not yet
// copied, they are copied and set-up runs again. A set-up that asked only for
// copied bytes has seen exactly what it would have seen on the partition
// itself, so its result is the volume's own.

struct byte_range {
  uint64_t begin;
  uint64_t end;
};

struct device_view {
  int source;
  uint64_t base;
  uint64_t length;
  int fd;
  byte_range copied[kMaxViewRanges];
  size_t copied_count;
  byte_range wanted[kMaxViewRanges];
  size_t wanted_count;
  bool too_many;
  uint64_t copied_bytes;
};

bool is_copied(const device_view& view, uint64_t begin, uint64_t end) {
  bool advanced = true;
  while (begin < end && advanced) {
    advanced = false;
    for (size_t i = 0; i < view.copied_count; ++i) {
      if (view.copied[i].begin <= begin && begin < view.copied[i].end) {
        begin = view.copied[i].end;
        advanced = true;
      }
    }
  }
  return begin >= end;
}

void observe_view_read(void* context, morv_seam_op op, uint64_t offset, size_t length) {
  auto& view = *static_cast<device_view*>(context);
  if (op != MORV_SEAM_READ || offset >= view.length) return;
  const uint64_t end = length > view.length - offset ? view.length : offset + length;
  if (is_copied(view, offset, end)) return;
  if (view.wanted_count == kMaxViewRanges) {
    view.too_many = true;
    return;
  }
  view.wanted[view.wanted_count++] = {offset, end};
}

// Copies the ranges the last set-up wanted; false when the view would grow
// past its bounds or the device cannot be read.
bool copy_wanted(device_view& view) {
  static uint8_t chunk[64 * 1024];
  for (size_t i = 0; i < view.wanted_count; ++i) {
    const byte_range range = view.wanted[i];
    if (view.copied_count == kMaxViewRanges ||
        range.end - range.begin > kMaxViewBytes - view.copied_bytes)
      return false;
    for (uint64_t at = range.begin; at < range.end;) {
      const size_t n = range.end - at < sizeof chunk ? static_cast<size_t>(range.end - at) : sizeof chunk;
      const ssize_t got = read_at(view.source, view.base + at, chunk, n);
      if (got <= 0 || pwrite64(view.fd, chunk, static_cast<size_t>(got), static_cast<off64_t>(at)) != got)
        return false;
      at += static_cast<uint64_t>(got);
    }
    view.copied[view.copied_count++] = range;
    view.copied_bytes += range.end - range.begin;
  }
  return true;
}

// The label of `volume`, composed as printing shows it, quoted into `out`.
bool quote_label(const morv_volume* volume, char* out, size_t capacity) {
  const size_t n = *volume->label_length;
  morv::buffer<uint16_t> units(static_cast<uint16_t*>(morv_malloc(2 * n)));
  if (!units) return false;
  size_t count = 0;
  if (morv_unicode_compose_string(reinterpret_cast<const uint16_t*>(volume->label), n, units.get(), n,
                                  &count)) {
    for (size_t i = 0; i < n; ++i) units[i] = load_be16(volume->label + 2 * i);
    count = n;
  }
  char* utf8 = nullptr;
  size_t utf8_length = 0;
  if (morv_unistr_to_utf8(units.get(), count, 0, &utf8, &utf8_length) != MORV_OK || !utf8) return false;
  morv::buffer<char> owned(utf8);
  quote(reinterpret_cast<const uint8_t*>(utf8), utf8_length, out, capacity);
  return true;
}

// One set-up over the view; true when it asked only for copied bytes, with
// the label quoted into `out` when set-up succeeded (else `out` is empty).
bool open_view_once(device_view& view, char* out, size_t capacity) {
  view.wanted_count = 0;
  view.too_many = false;
  out[0] = '\0';
  morv_device* device = nullptr;
  morv_volume* volume = nullptr;
  morv_seam_set_observer(observe_view_read, &view);
  if (morv_device_create(view.fd, 1, kSectorSize, 0, &device) == MORV_OK)
    (void)morv_volume_create(device, 1, &volume);
  morv_seam_set_observer(nullptr, nullptr);
  const bool complete = view.wanted_count == 0 && !view.too_many;
  if (complete && volume && !quote_label(volume, out, capacity)) out[0] = '\0';
  if (volume) morv_volume_destroy(&volume);
  if (device) morv_device_destroy(&device);
  return complete;
}

// The label of the HFS+ volume at `offset` (of `length` bytes) quoted into
// `out`; false when it cannot be read. The library's messages about the
// volume are not shown: this is advice about another file.
bool read_label_at(int fd, uint64_t offset, uint64_t length, char* out, size_t capacity) {
  device_view view{};
  view.source = fd;
  view.base = offset;
  view.length = length;
  view.fd = memfd_create("morvlabel-view", MFD_CLOEXEC);
  if (view.fd < 0) return false;
  bool read = false;
  fflush(stderr);
  const int saved_stderr = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved_stderr >= 0 && null >= 0 && dup2(null, STDERR_FILENO) >= 0) {
    if (ftruncate64(view.fd, static_cast<off64_t>(length)) == 0) {
      for (int attempt = 0; attempt < kMaxViewAttempts; ++attempt) {
        if (open_view_once(view, out, capacity)) {
          read = out[0] != '\0';
          break;
        }
        if (view.too_many || !copy_wanted(view)) break;
      }
    }
    fflush(stderr);
    dup2(saved_stderr, STDERR_FILENO);
  }
  if (null >= 0) close(null);
  if (saved_stderr >= 0) close(saved_stderr);
  close(view.fd);
  return read;
}

// ---- What the file holds ----

struct source {
  int fd;
  const char* path;
  bool block_device;
  uint64_t size;
  uint32_t sector_size;  // of MBR and Apple partition map addresses
  uint8_t* head;
  size_t head_length;
};

bool head_has(const source& s, size_t offset, const void* magic, size_t length) {
  return offset + length <= s.head_length && memcmp(s.head + offset, magic, length) == 0;
}

// An HFS+ volume found at some offset of the device.
struct hfs_volume {
  bool found = false;
  bool hfsx = false;
  uint64_t offset = 0;  // of the HFS+ volume itself (inside a wrapper: further in)
  bool wrapped = false;
};

// Whether `offset` (a region of `length` bytes) starts with an HFS+ or HFSX
// volume, or with an HFS wrapper around one.
hfs_volume probe_hfs(const source& s, uint64_t offset, uint64_t length) {
  hfs_volume volume;
  uint8_t header[kSectorSize];
  if (length < kVolumeHeaderEnd || read_at(s.fd, offset + kVolumeHeaderOffset, header, sizeof header) !=
                                       static_cast<ssize_t>(sizeof header))
    return volume;
  if (memcmp(header, "H+", 2) == 0 || memcmp(header, "HX", 2) == 0) {
    volume.found = true;
    volume.hfsx = header[1] == 'X';
    volume.offset = offset;
    return volume;
  }
  if (memcmp(header, "BD", 2) != 0 || memcmp(header + 124, "H+", 2) != 0) return volume;
  const uint64_t embedded = uint64_t{load_be16(header + 28)} * kSectorSize +
                            uint64_t{load_be16(header + 126)} * load_be32(header + 20);
  if (embedded >= length) return volume;
  hfs_volume inner = probe_hfs(s, offset + embedded, length - embedded);
  if (!inner.found || inner.wrapped) return volume;
  inner.wrapped = true;
  return inner;
}

// The partitions of a table that hold HFS+, as they are found.
struct partition_list {
  struct entry {
    uint32_t number;
    uint64_t offset;  // of the partition
    hfs_volume volume;
    uint64_t volume_length;
  } entries[kMaxListed];
  size_t listed = 0;
  size_t more = 0;
};

// Notes partition `number` at `offset` when it lies on the device and holds HFS+.
void consider(const source& s, partition_list& list, uint32_t number, uint64_t offset, uint64_t length) {
  if (offset >= s.size || length > s.size - offset) return;
  const hfs_volume volume = probe_hfs(s, offset, length);
  if (!volume.found) return;
  if (list.listed == kMaxListed) {
    ++list.more;
    return;
  }
  list.entries[list.listed++] = {number, offset, volume, length - (volume.offset - offset)};
}

void scan_gpt(const source& s, uint32_t block, partition_list& list) {
  const uint8_t* header = s.head + block;
  const uint64_t entries_block = load_le64(header + 72);
  const uint32_t count = load_le32(header + 80);
  const uint32_t entry_size = load_le32(header + 84);
  if (entry_size < 128 || entry_size > kMaxGptEntrySize || entry_size % 8 || count > kMaxGptEntries ||
      entries_block >= s.size / block)
    return;
  const uint64_t blocks = s.size / block;
  for (uint32_t i = 0; i < count; ++i) {
    uint8_t entry[kGptEntryFields];
    const uint64_t at = entries_block * block + uint64_t{i} * entry_size;
    if (at > s.size || read_at(s.fd, at, entry, sizeof entry) != static_cast<ssize_t>(sizeof entry)) break;
    static const uint8_t kUnused[16] = {};
    const uint64_t first = load_le64(entry + 32);
    const uint64_t last = load_le64(entry + 40);
    if (memcmp(entry, kUnused, 16) == 0 || first > last || last >= blocks) continue;
    consider(s, list, i + 1, first * block, (last - first + 1) * block);
  }
}

// False when block 1 holds no map entry: then "ER" was chance.
bool scan_apm(const source& s, partition_list& list) {
  uint32_t block = load_be16(s.head + 2);
  if (block < kSectorSize || block > 4096 || (block & (block - 1))) block = kSectorSize;
  uint32_t count = 1;
  for (uint32_t i = 1; i <= count && i <= kMaxApmEntries; ++i) {
    uint8_t entry[16];
    if (read_at(s.fd, uint64_t{i} * block, entry, sizeof entry) != static_cast<ssize_t>(sizeof entry) ||
        memcmp(entry, "PM", 2) != 0)
      return i > 1;
    if (i == 1) count = load_be32(entry + 4);
    consider(s, list, i, uint64_t{load_be32(entry + 8)} * block, uint64_t{load_be32(entry + 12)} * block);
  }
  return true;
}

bool is_extended(uint8_t type) { return type == 0x05 || type == 0x0F || type == 0x85; }

// The four entries of an MBR or extended boot record are plausible: each
// used one has a valid status byte.
bool plausible_mbr(const uint8_t* sector) {
  if (sector[510] != 0x55 || sector[511] != 0xAA) return false;
  bool used = false;
  for (int i = 0; i < 4; ++i) {
    const uint8_t* e = sector + 446 + 16 * i;
    if (e[4] == 0) continue;
    if (e[0] != 0 && e[0] != 0x80) return false;
    used = true;
  }
  return used;
}

void scan_logical(const source& s, uint64_t extended, partition_list& list) {
  const uint64_t ss = s.sector_size;
  uint64_t at = extended;
  uint32_t number = 5;  // logical partitions are numbered from 5 in chain order
  for (int k = 0; k < kMaxLogical; ++k) {
    uint8_t ebr[kSectorSize];
    if (at >= s.size || read_at(s.fd, at, ebr, sizeof ebr) != static_cast<ssize_t>(sizeof ebr) ||
        ebr[510] != 0x55 || ebr[511] != 0xAA)
      return;
    const uint8_t* logical = ebr + 446;
    const uint8_t* next = ebr + 462;
    if (logical[4] != 0 && load_le32(logical + 12) != 0)
      consider(s, list, number++, at + load_le32(logical + 8) * ss, load_le32(logical + 12) * ss);
    if (!is_extended(next[4]) || load_le32(next + 8) == 0) return;
    at = extended + load_le32(next + 8) * ss;
  }
}

bool scan_mbr(const source& s, partition_list& list) {
  const uint64_t ss = s.sector_size;
  for (uint32_t i = 0; i < 4; ++i) {
    const uint8_t* e = s.head + 446 + 16 * i;
    if (e[4] == 0) continue;
    const uint64_t start = load_le32(e + 8) * ss;
    if (is_extended(e[4]))
      scan_logical(s, start, list);
    else
      consider(s, list, i + 1, start, load_le32(e + 12) * ss);
  }
  return true;
}

// The device a person names for partition `number` of the disk at `path`.
void add_partition_advice(line& out, const source& s, uint32_t number) {
  if (!s.block_device) {
    out.add(". Attach the image with \"losetup --find --show --partscan %s\" and name partition %u of "
            "the loop device it prints (/dev/loopNp%u)",
            s.path, number, number);
    return;
  }
  char* real = realpath(s.path, nullptr);
  const char* disk = real ? real : s.path;
  const size_t n = strlen(disk);
  const bool digit = n > 0 && disk[n - 1] >= '0' && disk[n - 1] <= '9';
  out.add(". Name the partition instead: %s%s%u", disk, digit ? "p" : "", number);
  free(real);
}

void describe_volume(line& out, const source& s, const hfs_volume& volume, uint64_t length) {
  static char label[kLabelTextSize];
  if (read_label_at(s.fd, volume.offset, length, label, sizeof label))
    out.add("%s volume %s", volume.hfsx ? "HFSX" : "HFS+", label);
  else
    out.add("an %s volume whose label cannot be read", volume.hfsx ? "HFSX" : "HFS+");
}

void describe_table(line& out, const source& s, const char* table, const partition_list& list) {
  if (list.listed == 0) {
    out.add("not an HFS+ volume but a disk with %s and no HFS+ partition", table);
    return;
  }
  out.add("not an HFS+ volume but a disk with %s:", table);
  for (size_t i = 0; i < list.listed; ++i) {
    const auto& p = list.entries[i];
    out.add("%s partition %u at byte %llu holds ", i ? "," : "", p.number, morv_ull(p.offset));
    describe_volume(out, s, p.volume, p.volume_length);
    if (p.volume.wrapped)
      out.add(" inside an HFS wrapper (from byte %llu)", morv_ull(p.volume.offset));
  }
  if (list.more) out.add(", and %zu more", list.more);
  add_partition_advice(out, s, list.entries[0].number);
}

void describe_hfs(line& out, const source& s) {
  const hfs_volume volume = probe_hfs(s, 0, s.size);
  if (volume.found) {
    out.add("not an HFS+ volume but an HFS wrapper around one: ");
    describe_volume(out, s, volume, s.size - volume.offset);
    out.add(" starts at byte %llu. Attach it with \"losetup --find --show --offset %llu %s\" and name "
            "the loop device it prints",
            morv_ull(volume.offset), morv_ull(volume.offset), s.path);
    return;
  }
  char label[28 * 4 + 3];
  const uint8_t* mdb = s.head + kVolumeHeaderOffset;
  quote(mdb + 37, mdb[36] < 28 ? mdb[36] : 27, label, sizeof label);
  out.add("not an HFS+ volume but a plain HFS (Mac OS Standard) volume labelled %s, which morvlabel "
          "does not handle",
          label);
}

const char* ext_kind(const uint8_t* sb) {
  const uint32_t compat = load_le32(sb + 92);
  const uint32_t incompat = load_le32(sb + 96);
  const uint32_t ro_compat = load_le32(sb + 100);
  // extents, 64bit, flex_bg, inline data; huge files, group descriptor
  // checksums, directory link counts, large inodes, metadata checksums
  if ((incompat & (0x40 | 0x80 | 0x200 | 0x8000)) || (ro_compat & (0x8 | 0x10 | 0x20 | 0x40 | 0x400)))
    return "ext4";
  return (compat & 0x4) ? "ext3" : "ext2";  // a journal
}

// A file system named with its label, when it has one.
void describe_labelled(line& out, const char* article_and_kind, const uint8_t* field, size_t width) {
  char label[64 * 4 + 3];
  quote_field(field, width, label, sizeof label);
  if (strcmp(label, "\"\"") == 0 || strcmp(label, "\"NO NAME\"") == 0)
    out.add("not an HFS+ volume but %s", article_and_kind);
  else
    out.add("not an HFS+ volume but %s labelled %s", article_and_kind, label);
}

bool all_zero(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i]) return false;
  return true;
}

void describe(line& out, const source& s) {
  const uint8_t* vh = s.head + kVolumeHeaderOffset;
  const bool iso = head_has(s, 32768, "\x01" "CD001", 6);
  partition_list list;
  if (memcmp(vh, "BD", 2) == 0) {
    describe_hfs(out, s);
  } else if (load_le16(vh + 56) == 0xEF53) {
    char kind[32];
    snprintf(kind, sizeof kind, "an %s file system", ext_kind(vh));
    describe_labelled(out, kind, vh + 120, 16);
  } else if (head_has(s, 512, "EFI PART", 8) || head_has(s, 4096, "EFI PART", 8)) {
    scan_gpt(s, head_has(s, 512, "EFI PART", 8) ? 512 : 4096, list);
    describe_table(out, s, "a GUID partition table", list);
  } else if (head_has(s, 0, "ER", 2) && scan_apm(s, list) && (list.listed || !iso)) {
    describe_table(out, s, "an Apple partition map", list);
  } else if (head_has(s, 3, "NTFS    ", 8)) {
    out.add("not an HFS+ volume but an NTFS file system");
  } else if (head_has(s, 3, "EXFAT   ", 8)) {
    out.add("not an HFS+ volume but an exFAT file system");
  } else if (head_has(s, 82, "FAT32   ", 8)) {
    describe_labelled(out, "a FAT32 file system", s.head + 71, 11);
  } else if (head_has(s, 54, "FAT12   ", 8) || head_has(s, 54, "FAT16   ", 8) || head_has(s, 54, "FAT     ", 8)) {
    char kind[32];
    snprintf(kind, sizeof kind, "a %.*s file system", s.head[57] == ' ' ? 3 : 5, s.head + 54);
    describe_labelled(out, kind, s.head + 43, 11);
  } else if (plausible_mbr(s.head) && scan_mbr(s, list) && (list.listed || !iso)) {
    describe_table(out, s, "an MBR partition table", list);
  } else if (iso) {
    describe_labelled(out, "an ISO 9660 image", s.head + 32808, 32);
    out.add(" with no HFS+ volume");
  } else if (all_zero(s.head, s.head_length)) {
    out.add("not an HFS+ volume: its first %zu KiB are all zeros", s.head_length / 1024);
  } else {
    out.add("not an HFS+ volume, nor a file system or partition table that morvlabel knows");
  }
}

uint64_t device_size(int fd, const struct stat64& st) {
  if (!S_ISBLK(st.st_mode)) return static_cast<uint64_t>(st.st_size);
  uint64_t size = 0;
  return ioctl(fd, BLKGETSIZE64, &size) == 0 ? size : 0;
}

}  // namespace

void morvlabel_identify(int fd, const char* path) {
  static uint8_t head[kHeadSize];
  struct stat64 st;
  if (fstat64(fd, &st) != 0) return;
  source s{fd, path, S_ISBLK(st.st_mode), device_size(fd, st), kSectorSize, head, 0};
  int logical = 0;
  if (s.block_device && ioctl(fd, BLKSSZGET, &logical) == 0 && logical >= 512 && logical <= 4096 &&
      (logical & (logical - 1)) == 0)
    s.sector_size = static_cast<uint32_t>(logical);
  const char* thing = s.block_device ? "device" : "file";
  line out;
  out.add("morvlabel: %s: ", path);
  if (s.size == 0) {
    out.add("not an HFS+ volume but an empty %s", thing);
  } else if (s.size < kVolumeHeaderEnd) {
    out.add("not an HFS+ volume but a %s of %llu bytes, too short to hold one", thing, morv_ull(s.size));
  } else {
    const ssize_t n = read_at(fd, 0, head, sizeof head);
    if (n < static_cast<ssize_t>(kVolumeHeaderEnd)) return;
    s.head_length = static_cast<size_t>(n);
    memset(head + n, 0, sizeof head - static_cast<size_t>(n));
    const uint8_t* vh = head + kVolumeHeaderOffset;
    if (memcmp(vh, "H+", 2) == 0 || memcmp(vh, "HX", 2) == 0) return;
    describe(out, s);
  }
  fprintf(stderr, "%s\n", out.text());
}
