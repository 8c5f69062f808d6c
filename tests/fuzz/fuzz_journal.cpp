// SPDX-License-Identifier: MIT
// Fuzz target: reading, showing and replaying a hostile journal.
//
// The input holds the pieces of a journaled volume that the journal code
// reads, placed on a 512 KiB device whose other bytes are a fixed pattern:
//   [0, 512)        the volume header (device bytes 1024..1535)
//   [512, 1024)     the journal info block, at journalInfoBlock x blockSize
//   [1024, 33792)   the start of the journal (its header, then the buffer)
//   [33792, end)    the end of the journal, so that transactions can wrap
// Pieces that would fall outside the device are left out.
//
// Properties: opening fails with an error and writes nothing, or succeeds;
// then the overlay of the whole device and a replay agree byte for byte
// outside the journal's header sector (the overlay shows what replay
// writes), a replay writes only when the journal is dirty, and the journal
// is clean afterwards: a second replay writes nothing.
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "device_unix.hpp"
#include "fuzz_support.hpp"
#include "journal.hpp"
#include "morv.hpp"
#include "support_unix.hpp"

namespace {

constexpr size_t kDevice = 512 * 1024;
constexpr size_t kHeaderPiece = 512;
constexpr size_t kInfoPiece = 512;
constexpr size_t kHeadPiece = 32768;

void place(std::vector<uint8_t>& image, uint64_t at, const uint8_t* data, size_t size) {
  if (at >= image.size() || size == 0) return;
  const size_t room = static_cast<size_t>(image.size() - at);
  memcpy(&image[at], data, size < room ? size : room);
}

std::vector<uint8_t> device_image(const uint8_t* data, size_t size) {
  static const std::vector<uint8_t> pattern = [] {
    std::vector<uint8_t> p(kDevice);
    for (size_t i = 0; i < p.size(); ++i) p[i] = static_cast<uint8_t>(i * 31 + (i >> 9));
    return p;
  }();
  std::vector<uint8_t> image = pattern;
  uint8_t header[kHeaderPiece] = {};
  memcpy(header, data, size < kHeaderPiece ? size : kHeaderPiece);
  place(image, 1024, header, sizeof header);
  if (size <= kHeaderPiece) return image;
  const uint64_t info = uint64_t{load_be32(header + 12)} * load_be32(header + 40);
  const size_t info_size = size - kHeaderPiece < kInfoPiece ? size - kHeaderPiece : kInfoPiece;
  place(image, info, data + kHeaderPiece, info_size);
  if (size <= kHeaderPiece + kInfoPiece || info + 52 > image.size()) return image;
  const uint64_t journal = load_be64(&image[info + 36]);
  const uint64_t journal_size = load_be64(&image[info + 44]);
  const uint8_t* rest = data + kHeaderPiece + kInfoPiece;
  const size_t rest_size = size - kHeaderPiece - kInfoPiece;
  const size_t head = rest_size < kHeadPiece ? rest_size : kHeadPiece;
  place(image, journal, rest, head);
  const size_t tail = rest_size - head;
  if (tail && journal_size >= tail && journal <= kDevice)
    place(image, journal + journal_size - tail, rest + head, tail);
  return image;
}

struct Opened {
  explicit Opened(const char* path) {
    fd = open(path, O_RDWR);
    if (fd < 0) fuzz::fail("cannot open the memory image");
    if (morv_device_create(fd, 0, 512, 0, &device)) fuzz::fail("no device on the memory image");
    void* target = header;
    if (morv_device_read_disk_sectors(device, 2, 1, &target)) fuzz::fail("the volume header is unreadable");
    err = morv_journal_open(device, header, &journal);
  }
  ~Opened() {
    morv_journal_destroy(&journal);
    morv_device_destroy(&device);
    close(fd);
  }
  int fd = -1;
  morv_device* device = nullptr;
  morv_journal* journal = nullptr;
  uint8_t header[512];
  morv_err err = MORV_OK;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryImage image;
  const std::vector<uint8_t> before = device_image(data, size);
  image.load(before.data(), before.size());
  const uint64_t writes = morv_seam_get_stats().writes;

  std::vector<uint8_t> shown(kDevice);
  morv_journal_state state;
  {
    Opened o(image.path());
    if (o.err != MORV_OK) {
      if (o.journal) fuzz::fail("a failed open handed out a journal");
      if (morv_seam_get_stats().writes != writes || image.contents() != before)
        fuzz::fail("a refused journal was written");
      return 0;
    }
    if (!o.journal) return 0;  // not journaled
    state = morv_journal_get_state(o.journal);
    if (state != MORV_JOURNAL_DIRTY && morv_journal_pending_blocks(o.journal) != 0)
      fuzz::fail("a journal in state %u holds pending blocks", state);
    if (morv_journal_read_sectors(o.journal, 0, kDevice / 512, shown.data()))
      fuzz::fail("the overlay of an opened journal failed");
    if (morv_seam_get_stats().writes != writes) fuzz::fail("the overlay wrote");
    if (morv_journal_replay(o.journal)) fuzz::fail("replaying an opened journal failed");
  }
  const std::vector<uint8_t> after = image.contents();
  if (state != MORV_JOURNAL_DIRTY) {
    if (after != before || morv_seam_get_stats().writes != writes)
      fuzz::fail("a journal in state %u was replayed", state);
    return 0;
  }
  // Only the journal header sector may differ between overlay and replay.
  const uint64_t info = uint64_t{load_be32(&before[1024 + 12])} * load_be32(&before[1024 + 40]);
  const uint64_t journal = load_be64(&before[info + 36]);
  size_t differ = 0;
  for (size_t i = 0; i < kDevice; ++i)
    if (after[i] != shown[i] && (i < journal || i >= journal + 512)) ++differ;
  if (differ) fuzz::fail("replay and overlay differ in %zu bytes", differ);
  // A replay may rewrite the volume header or the info block themselves;
  // then the journal found again is another one.
  const bool same_place = memcmp(&after[1024], &before[1024], 512) == 0 &&
                          memcmp(&after[info], &before[info], 52) == 0;
  if (same_place) {
    Opened again(image.path());
    if (again.err || !again.journal || morv_journal_get_state(again.journal) != MORV_JOURNAL_CLEAN)
      fuzz::fail("the journal is not clean after replay");
  }
  return 0;
}
