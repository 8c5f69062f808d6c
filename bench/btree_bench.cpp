// SPDX-License-Identifier: MIT
// Search and iteration cost of the B-tree engine against tree size: trees of
// extents overflow records filled by insertion into builder images, then
// timed searches of random present keys and a full iteration. For each size
// it reports the tree depth, fork reads per search (nodes taken into the
// engine's cache, counted by wrapping morv_fork_read), device reads per search from a cold cache and once warm,
// the time per search, per record iterated through the public API
// (morv_btree_get_next_record and a close per record) and per record of a
// plain walk over the same leaves (each node read whole, each record
// copied out with memcpy, fLink followed).
#include <ctime>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "btree.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"

// Every node the engine takes into its cache of checked nodes is read with
// morv_fork_read; the linker routes its mangled name here (--wrap), and this
// counts and passes it on.
static uint64_t g_maps = 0;
extern "C" morv_err __real__Z14morv_fork_readP9morv_forkmPvmPm(morv_fork*, uint64_t, void*, size_t,
                                                               size_t*);
extern "C" morv_err __wrap__Z14morv_fork_readP9morv_forkmPvmPm(morv_fork* f, uint64_t o, void* p,
                                                               size_t l, size_t* m) {
  ++g_maps;
  return __real__Z14morv_fork_readP9morv_forkmPvmPm(f, o, p, l, m);
}

namespace {

struct Volume {
  int fd = -1;
  morv_device* device = nullptr;
  std::vector<uint8_t> header;
  morv_extents* extents = nullptr;
  bool open(const std::string& path) {
    fd = ::open(path.c_str(), O_RDWR);
    if (fd < 0 || morv_device_create(fd, 0, 512, 0, &device)) return false;
    void* sector = nullptr;
    if (morv_device_read_disk_sectors(device, 2, 1, &sector)) return false;
    header.assign(static_cast<uint8_t*>(sector), static_cast<uint8_t*>(sector) + 512);
    free(sector);
    return morv_extents_create(device, header.data(), &extents) == MORV_OK;
  }
  void close() {
    morv_extents_destroy(&extents);
    if (device) morv_device_destroy(&device);
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

// CPU time of this thread: on a shared machine wall time mostly measures the
// other processes.
double now() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

void key_of(uint32_t i, uint32_t* file, uint32_t* block) {
  *file = 1000 + i / 1000;
  *block = (i % 1000) * 8;
}

bool run(uint32_t records, uint16_t node_size, const std::string& shape) {
  const std::string path = "/tmp/morv-bench-" + std::to_string(getpid()) + ".img";
  const std::string command = std::string(MORV_PYTHON) + " " MORV_SOURCE_DIR
                              "/tests/support/mkimage.py " + path +
                              " --size 268435456 --label B --files 200 --extents-node-size " +
                              std::to_string(node_size) + " " + shape;
  if (system(command.c_str()) != 0) return false;
  Volume v;
  if (!v.open(path)) return false;
  uint8_t record[64] = {1, 2, 3};
  std::vector<uint32_t> present;
  for (uint32_t i = 0; present.size() < records && i < 4 * records; ++i) {
    uint32_t file, block;
    key_of(i, &file, &block);
    if (morv_extents_insert(v.extents, 0, file, block, record)) break;
    present.push_back(i);
  }
  if (morv_fork_flush(v.extents->tree->fork)) return false;
  v.close();
  v.open(path);
  uint8_t h[106];
  if (morv_fork_read(v.extents->tree->fork, 14, h, sizeof h, nullptr)) return false;
  const unsigned depth = load_be16(h);
  const unsigned long total = load_be32(h + 6);
  std::mt19937 rng(7);
  // cold: the first search after opening
  morv_seam_reset_stats();
  g_maps = 0;
  int found = 0;
  uint32_t file, block;
  key_of(present[rng() % present.size()], &file, &block);
  (void)morv_extents_get_next_extent_record(v.extents, 0, file, block, &found, record);
  const unsigned long long cold_reads = morv_seam_get_stats().reads;
  const unsigned long long cold_maps = g_maps;
  // warm: many searches
  for (uint32_t i = 0; i < present.size(); ++i) {
    key_of(present[i], &file, &block);
    (void)morv_extents_get_next_extent_record(v.extents, 0, file, block, &found, record);
  }
  const int searches = 20000;
  morv_seam_reset_stats();
  g_maps = 0;
  double t0 = now();
  int hits = 0;
  for (int i = 0; i < searches; ++i) {
    key_of(present[rng() % present.size()], &file, &block);
    (void)morv_extents_get_next_extent_record(v.extents, 0, file, block, &found, record);
    hits += found;
  }
  const double per_search = (now() - t0) / searches;
  const double maps = double(g_maps) / searches;
  const double warm_reads = double(morv_seam_get_stats().reads) / searches;
  // iteration
  morv_btree_search_result r;
  morv_btree_search_result_init(&r);
  uint8_t low[12] = {0, 10};
  t0 = now();
  unsigned long walked = 0;
  if (morv_btree_search_node(v.extents->tree, low, &r) == MORV_OK && r.locator) {
    morv_btree_record_locator* l = r.locator;
    r.locator = nullptr;
    while (l) {
      ++walked;
      morv_btree_record_locator* next = nullptr;
      if (morv_btree_get_next_record(v.extents->tree, l, &next)) next = nullptr;
      morv_btree_record_locator_close(&l);
      l = next;
    }
  }
  const double per_record = walked ? (now() - t0) / walked : 0;
  // The same records by a plain walk: each leaf read whole from the fork,
  // each record copied out, fLink followed.
  std::vector<uint8_t> node(node_size);
  uint8_t copy[1024];
  unsigned long copied = 0;
  uint64_t sink = 0;
  t0 = now();
  for (uint32_t leaf = load_be32(h + 10); leaf != 0; leaf = load_be32(node.data())) {
    if (morv_fork_read(v.extents->tree->fork, uint64_t{leaf} * node_size, node.data(), node_size,
                       nullptr))
      break;
    const unsigned count = load_be16(node.data() + 10);
    for (unsigned i = 0; i < count; ++i) {
      const unsigned at = load_be16(node.data() + node_size - 2 * (i + 1));
      const unsigned end = load_be16(node.data() + node_size - 2 * (i + 2));
      memcpy(copy, node.data() + at, end - at < sizeof copy ? end - at : sizeof copy);
      sink += copy[3];
      ++copied;
    }
  }
  const double per_copied = copied ? (now() - t0) / copied : 0;
  printf("%7lu %6u %5u %11.2f %11llu/%llu %10.2f %10.2f %12.3f %12.3f %s\n", total, node_size,
         depth, maps, cold_reads, cold_maps, warm_reads, per_search * 1e6, per_record * 1e6,
         per_copied * 1e6,
         hits == searches && walked == total && copied == total && sink != 1 ? "" : "MISMATCH");
  v.close();
  unlink(path.c_str());
  return true;
}

}  // namespace

int main() {
  printf("records  nodeB depth reads/search cold dev/fork reads warm reads us/search us/iterated "
         "us/memcpy-walk\n");
  run(10, 4096, "--free-extents-nodes 8");
  run(100, 32768, "--free-extents-nodes 8");
  run(1000, 32768, "--free-extents-nodes 64 --fragmented-files 100 --file-fragments 64");
  run(10000, 32768, "--free-extents-nodes 200 --fragmented-files 100 --file-fragments 64");
  run(100000, 32768, "--free-extents-nodes 1200 --fragmented-files 100 --file-fragments 64");
  run(100000, 8192, "--free-extents-nodes 4800 --fragmented-files 100 --file-fragments 64");
  run(10, 512, "--free-extents-nodes 8");
  run(100, 512, "--free-extents-nodes 64 --fragmented-files 40 --file-fragments 60");
  run(1000, 512, "--free-extents-nodes 900 --fragmented-files 40 --file-fragments 60");
  run(10000, 4096, "--free-extents-nodes 900 --fragmented-files 100 --file-fragments 64");
  return 0;
}
