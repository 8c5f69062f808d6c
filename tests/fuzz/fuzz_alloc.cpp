// SPDX-License-Identifier: MIT
// Fuzz target: the allocating half of the library (deletion, special-file
// growth and shrinking, tree growth, bitmap runs, symbolic links) on damaged
// and valid volumes.
//
// The input is a volume image whose boot blocks (its first 1024 bytes, never
// read by the library) hold an operation script. The volume is opened with
// its allocation file, read-write, and the script runs on it. Each operation
// is an op byte and its arguments:
//
//   1 delete       cnid (u8): the record found through its thread
//   2 expand       clump blocks (u8): the startup file grows by one clump
//   3 shrink       blocks (u8): the startup file loses that many
//   4 grow tree    which (u8 & 1): the catalog (0) or extents (1) tree
//   5 symlink      cnid (u8), target length (u8)
//   6 search       wanted (u16), hint (u32): a first-fit search, read only
//   7 allocate     start (u32), count (u8): a run marked, then released
//   8 free         start (u32), count (u8): a fork of that extent freed,
//                  then its blocks marked again
//   9 undo growth  clump blocks (u8): the startup file grows, and the growth
//                  is taken back
//   0 and others end the script
//
// Multi-byte numbers are big-endian; a script that runs out reads zeros.
//
// Properties besides the sanitizers': after every operation everything is
// flushed; an operation that fails leaves the image byte for byte as it was
// before it, and so does a pair of operations that takes itself back (7, 8,
// 9). When MORV_FUZZ_OUTPUT names a file, the final image is written there:
// tests/support/fuzz_alloc_check.py runs the volume checker over the seeds'
// (or any inputs') results, whose successful operations must leave a valid
// volume valid; checking every run in process would be too slow.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "allocation.hpp"
#include "bitmap.hpp"
#include "btree.hpp"
#include "catalog.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "fuzz_script.hpp"
#include "fuzz_support.hpp"
#include "support_unix.hpp"
#include "volume.hpp"

using fuzz_script::Script;

namespace {

constexpr size_t kMaxOperations = 24;

struct Run {
  fuzz::MemoryImage* image;
  morv_volume* volume;
};

// Flushes everything; false when the flush fails (the script then stops:
// what reached the image is no longer known).
bool flush(const Run& r) { return morv_volume_flush_all(r.volume) == MORV_OK; }

const char* const kNames[] = {"", "deletion", "expansion", "shrink", "tree growth", "symbolic link",
                              "search", "allocation", "free", "undone growth"};

// Runs one operation between two flushes. `restores`: the operation takes
// itself back, so the image must be as before even when it succeeds.
template <typename F>
bool step(const Run& r, uint8_t op, bool restores, F operation) {
  const std::vector<uint8_t> before = r.image->contents();
  const morv_err err = operation();
  if (!flush(r)) return false;
  if ((err != MORV_OK || restores) && r.image->contents() != before)
    fuzz::fail("a%s %s (error %llu) changed the flushed image", err ? " failed" : "n undone",
               kNames[op], morv_ull(err));
  return true;
}

morv_err delete_cnid(morv_volume* volume, uint32_t cnid) {
  morv_catalog_search_result found;
  morv_catalog_search_result_init(&found);
  morv_err err = morv_catalog_search_by_cnid(volume->catalog, cnid, 1, &found);
  if (!err && found.locator && found.exact_match)
    err = morv_catalog_delete(volume->catalog, volume, found.locator);
  morv_catalog_search_result_release(&found);
  return err;
}

uint8_t* startup_data(morv_volume* volume) { return volume->header + vh::kStartupFile; }

template <typename F>
morv_err with_startup(morv_volume* volume, F f) {
  morv_fork* fork = nullptr;
  if (morv_err err = morv_fork_create(volume->device, volume->extents, 0, volume->header,
                                      kStartupFileCnid, startup_data(volume), 0, &fork))
    return err;
  const morv_err err = f(fork);
  morv_fork_destroy(&fork);
  return err;
}

// The clump is part of the set-up, flushed before the operation's snapshot.
bool set_clump(const Run& r, uint8_t blocks) {
  const uint64_t bytes = uint64_t{blocks} * load_be32(r.volume->header + vh::kBlockSize);
  store_be32(startup_data(r.volume) + forkdata::kClumpSize,
             bytes > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(bytes));
  return morv_volume_flush(r.volume) == MORV_OK;
}

morv_err symlink(morv_volume* volume, uint32_t cnid, uint8_t length) {
  morv_catalog_search_result found;
  morv_catalog_search_result_init(&found);
  morv_err err = morv_catalog_search_by_cnid(volume->catalog, cnid, 1, &found);
  if (!err && found.locator && found.exact_match) {
    const std::vector<uint16_t> target(length + size_t{1}, u'x');
    err = morv_catalog_mksymlink(found.locator, target.data(), length, volume);
  }
  morv_catalog_search_result_release(&found);
  return err;
}

morv_err allocate_and_release(morv_volume* volume, uint32_t start, uint32_t count) {
  const uint32_t next = load_be32(volume->header + vh::kNextAllocation);
  if (morv_err err = AllocateExtentAllocationBlocks(start, count, volume)) return err;
  if (count && morv_bitmap_release_run(volume, start, count, next))
    fuzz::fail("a run just allocated could not be released");
  return MORV_OK;
}

morv_err free_and_restore(morv_volume* volume, uint32_t start, uint32_t count) {
  uint8_t fork_data[forkdata::kSize] = {};
  store_be32(fork_data + forkdata::kTotalBlocks, count);
  store_be32(fork_data + forkdata::kExtents + forkdata::kExtentStartBlock, start);
  store_be32(fork_data + forkdata::kExtents + forkdata::kExtentBlockCount, count);
  uint32_t freed = 0;
  if (morv_err err = FreeExtentAllocationBlocks(fork_data, 0, count, volume->bitmap, &freed))
    return err;
  if (morv_bitmap_restore_extent_blocks(fork_data, 0, count, volume->bitmap))
    fuzz::fail("blocks just freed could not be marked again");
  return MORV_OK;
}

morv_err undone_growth(morv_volume* volume) {
  return with_startup(volume, [&](morv_fork* fork) {
    morv_fork_growth growth{};
    uint32_t added = 0;
    if (morv_err err = morv_fork_expand_recorded(fork, volume, &added, &growth)) return err;
    if (morv_fork_undo_growth(fork, volume, &growth)) fuzz::fail("a growth could not be undone");
    return MORV_OK;
  });
}

void run_script(Script& s, const Run& r) {
  morv_volume* v = r.volume;
  for (size_t n = 0; n < kMaxOperations; ++n) {
    const uint8_t op = s.u8();
    bool ok = true;
    switch (op) {
      case 1: {
        const uint32_t cnid = s.u8();
        ok = step(r, op, false, [&] { return delete_cnid(v, cnid); });
        break;
      }
      case 2:
        ok = set_clump(r, s.u8()) && step(r, op, false, [&] {
               return with_startup(v, [&](morv_fork* f) {
                 uint32_t added = 0;
                 return morv_fork_expand(f, v, &added);
               });
             });
        break;
      case 3: {
        const uint32_t blocks = s.u8();
        ok = step(r, op, false, [&] {
          return with_startup(v, [&](morv_fork* f) { return morv_fork_shrink(f, v, blocks); });
        });
        break;
      }
      case 4: {
        morv_btree* tree = s.u8() & 1 ? v->extents->tree : morv_catalog_btree(v->catalog);
        ok = step(r, op, false, [&] { return morv_btree_expand(tree, v); });
        break;
      }
      case 5: {
        const uint32_t cnid = s.u8();
        const uint8_t length = s.u8();
        ok = step(r, op, false, [&] { return symlink(v, cnid, length); });
        break;
      }
      case 6: {
        const uint32_t wanted = s.u16();
        const uint32_t hint = s.u32();
        morv_write_location location{};
        ok = step(r, op, true, [&] { return FindContiguousUnallocated(v, wanted, hint, &location); });
        break;
      }
      case 7:
      case 8: {
        const uint32_t start = s.u32();
        const uint32_t count = s.u8();
        ok = step(r, op, true, [&] {
          return op == 7 ? allocate_and_release(v, start, count) : free_and_restore(v, start, count);
        });
        break;
      }
      case 9:
        ok = set_clump(r, s.u8()) && step(r, op, true, [&] { return undone_growth(v); });
        break;
      default:
        return;
    }
    if (!ok) return;
  }
}

void save_output(const fuzz::MemoryImage& image) {
  const char* path = getenv("MORV_FUZZ_OUTPUT");
  if (!path || !*path) return;
  const std::vector<uint8_t> bytes = image.contents();
  FILE* f = fopen(path, "wb");
  if (!f || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) fuzz::fail("cannot write %s", path);
  fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryImage image;
  image.load(data, size);
  morv_device* device = nullptr;
  if (morv_device_create(image.fd(), 0, 512, 0, &device)) fuzz::fail("morv_device_create");
  morv_volume* volume = nullptr;
  if (morv_volume_create(device, 0, &volume) == MORV_OK) {
    const Run r{&image, volume};
    Script script(data, size);
    if (flush(r)) run_script(script, r);
    morv_volume_destroy(&volume);
  }
  morv_device_destroy(&device);
  save_output(image);
  return 0;
}
