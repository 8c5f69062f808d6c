// SPDX-License-Identifier: MIT
// Test tool: changes and queries a volume through the library's catalog
// operations, so that the kernel reader test can let the Linux kernel read
// what the library wrote, and the library follow what the kernel wrote.
//
//   catalog_probe IMAGE COMMAND [COMMAND...]
//     delete PATH          deletes the file or empty folder at PATH
//     symlink PATH TARGET  makes the empty file at PATH a symbolic link
//     follow PATH          prints the CNID of the file a hard link stands for
//     size PATH            prints the file's size (a hard link followed)
//
// PATH runs from the root, "/" between UTF-8 names. After the last command
// the allocation file, the extents overflow file, the catalog and the volume
// header are flushed. Exit status 0, or 1 after the first failure (the
// library's messages are on standard error).
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "bitmap.hpp"
#include "btree.hpp"
#include "catalog.hpp"
#include "device_unix.hpp"
#include "extents.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"
#include "volume.hpp"

namespace {

// Host-order UTF-16 of UTF-8 text; false when it is not UTF-8.
bool utf16(const std::string& text, std::vector<uint16_t>* out) {
  out->assign(text.size() + 1, 0);
  size_t count = out->size();
  uint16_t* units = out->data();
  if (morv_utf8_to_unistr(text.c_str(), text.size(), &units, &count) != MORV_OK) return false;
  out->resize(count);
  return true;
}

// Path components as HFS+ names: decomposed, big-endian.
struct Components {
  std::vector<std::string> names;
  size_t next = 0;
  static morv_err source(void* context, uint16_t* destination, size_t capacity, size_t* length) {
    auto* c = static_cast<Components*>(context);
    *length = 0;
    if (c->next == c->names.size()) return MORV_OK;
    std::vector<uint16_t> units;
    if (!utf16(c->names[c->next++], &units)) return MORV_ERR_INVALID_ARGUMENT;
    size_t count = 0;
    if (morv_unicode_decompose_string(units.data(), units.size(), destination, capacity, &count))
      return MORV_ERR_INVALID_ARGUMENT;
    for (size_t i = 0; i < count; ++i) destination[i] = morv_swap16(destination[i]);
    *length = count;
    return MORV_OK;
  }
};

bool find(morv_volume* volume, const std::string& path, morv_catalog_search_result* out) {
  Components c;
  for (size_t start = 0; start < path.size();) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) c.names.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  if (morv_catalog_search_by_path(volume->catalog, Components::source, &c, nullptr, out) != MORV_OK)
    return false;
  if (out->exact_match) return true;
  fprintf(stderr, "catalog_probe: %s: not found\n", path.c_str());
  return false;
}

bool run(morv_volume* volume, const std::string& command, const std::string& path,
         const std::string& argument) {
  morv_catalog_search_result found;
  morv_catalog_search_result_init(&found);
  bool ok = find(volume, path, &found);
  if (ok) {
    morv_catalog_record_locator* locator = found.locator;
    std::vector<uint8_t> copy(locator->btree_locator->data,
                              locator->btree_locator->data + locator->btree_locator->data_size);
    morv_catalog_record record{copy.data(), copy.size()};
    if (command == "delete") {
      ok = morv_catalog_delete(volume->catalog, volume, locator) == MORV_OK;
    } else if (command == "symlink") {
      std::vector<uint16_t> target;
      ok = utf16(argument, &target) &&
           morv_catalog_mksymlink(locator, target.data(), target.size(), volume) == MORV_OK;
    } else if (command == "follow") {
      morv_catalog_search_result target;
      morv_catalog_search_result_init(&target);
      ok = morv_catalog_follow_hard_link(volume->catalog, &record, &target) == MORV_OK &&
           target.exact_match;
      if (ok) printf("%lu\n", morv_ul(load_be32(target.locator->btree_locator->data + catalog::kRecordCnid)));
      morv_catalog_search_result_release(&target);
    } else {
      printf("%llu\n", morv_ull(morv_catalog_record_get_file_size(&record, volume->catalog)));
    }
  }
  morv_catalog_search_result_release(&found);
  if (!ok) fprintf(stderr, "catalog_probe: %s %s failed\n", command.c_str(), path.c_str());
  return ok;
}

bool flush(morv_volume* volume) {
  return morv_bitmap_flush(volume->bitmap) == MORV_OK &&
         morv_fork_flush(volume->extents->tree->fork) == MORV_OK &&
         morv_catalog_flush(volume->catalog) == MORV_OK &&
         morv_volume_flush(volume) == MORV_OK;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: catalog_probe IMAGE [delete PATH | symlink PATH TARGET | follow PATH | size PATH]...\n");
    return 2;
  }
  const int fd = open(argv[1], O_RDWR);
  morv_device* device = nullptr;
  morv_volume* volume = nullptr;
  if (fd < 0 || morv_device_create(fd, 0, 512, 0, &device) != MORV_OK ||
      morv_volume_create(device, 0, &volume) != MORV_OK) {
    fprintf(stderr, "catalog_probe: cannot open %s\n", argv[1]);
    return 1;
  }
  bool ok = true;
  for (int i = 2; ok && i < argc;) {
    const std::string command = argv[i];
    const int arity = command == "symlink" ? 2 : 1;
    const bool known = command == "delete" || command == "symlink" || command == "follow" || command == "size";
    if (!known || i + arity >= argc) {
      fprintf(stderr, "catalog_probe: unknown command or missing argument: %s\n", command.c_str());
      ok = false;
      break;
    }
    ok = run(volume, command, argv[i + 1], arity == 2 ? argv[i + 2] : "");
    i += 1 + arity;
  }
  if (ok) ok = flush(volume);
  morv_volume_destroy(&volume);
  morv_device_destroy(&device);
  close(fd);
  return ok ? 0 : 1;
}
