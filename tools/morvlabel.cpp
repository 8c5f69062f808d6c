// morvlabel: prints or changes the volume label of an unmounted HFS+ or HFSX
// volume.
//
//   morvlabel [--output-mode=<raw|composed>] <device> [<new label>]
//
// The label is the name of the root folder (CNID 2). Printing opens the device
// read-only under a shared advisory lock and never writes; changing it opens
// the device read/write under an exclusive lock, renames the root folder in
// the catalog and writes back only the catalog's modified sectors.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <mntent.h>
#include <unistd.h>

#include "catalog.hpp"
#include "btree.hpp"
#include "device_unix.hpp"
#include "fork.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"
#include "volume.hpp"

namespace {

constexpr const char* kProgramName = "morvlabel";
constexpr const char* kVersion = "3014.8.10";
constexpr const char* kOutputModeOption = "--output-mode=";
constexpr size_t kOutputModeOptionLength = 14;
constexpr uint32_t kSectorSize = 512;

// 0 = raw (the stored, decomposed units), 1 = composed.
int g_output_mode = 0;

void print_usage() {
  fprintf(stderr, "%s %s\n", kProgramName, kVersion);
  fprintf(stderr, "usage: %s [--output-mode=<raw|composed>] <device> [<new label>]\n", kProgramName);
}

// Copies the cached big-endian label to host-order units, composed or raw.
morv_err label_to_host_units(const morv_volume* volume, uint16_t* out, size_t* out_count) {
  const size_t n = *volume->label_length;
  const uint8_t* label = volume->label;
  if (g_output_mode != 1) {
    for (size_t i = 0; i < n; ++i) out[i] = load_be16(label + 2 * i);
    *out_count = n;
    return MORV_OK;
  }
  if (morv_unicode_compose_string(reinterpret_cast<const uint16_t*>(label), n, out, n, out_count)) {
    morv_log("morvlabel", __LINE__, "morvlabel_print_label", "ERROR",
             "Overflow while composing volume label string.\n");
    return MORV_ERR_OVERFLOW;
  }
  return MORV_OK;
}

}  // namespace

morv_err morvlabel_print_label(morv_volume* volume) {
  const size_t n = *volume->label_length;
  morv::buffer<uint16_t> units(static_cast<uint16_t*>(morv_malloc(2 * n)));
  if (!units) {
    fprintf(stderr, "Error while allocating memory for native-endian label.\n");
    return MORV_ERR_NO_MEMORY;
  }
  size_t count = 0;
  if (morv_err err = label_to_host_units(volume, units.get(), &count)) return err;

  char* utf8 = nullptr;
  size_t utf8_length = 0;
  if (morv_err err = morv_unistr_to_utf8(units.get(), count, 0, &utf8, &utf8_length)) {
    fprintf(stderr, "Error while converting UTF-16 string to UTF-8.\n");
    return err;
  }
  morv::buffer<char> owned_utf8(utf8);
  printf("%.*s\n", static_cast<int>(utf8_length), utf8);
  return MORV_OK;
}

morv_err morvlabel_set_label(morv_volume* volume, const char* new_label) {
  // A folder cannot be named so; a Mac would not show such a volume's name.
  if (strcmp(new_label, "") == 0 || strcmp(new_label, ".") == 0 || strcmp(new_label, "..") == 0) {
    fprintf(stderr, "Invalid volume label \"%s\": a volume cannot be named \"\", \".\" or \"..\".\n",
            new_label);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  const size_t label_bytes = strlen(new_label);
  uint16_t* converted = nullptr;
  size_t m = 0;
  morv_err err = morv_utf8_to_unistr(new_label, label_bytes, &converted, &m);
  // The converter reports its own allocation failure as success with no
  // result; renaming the volume to an empty name then would lose the label.
  if (err == MORV_OK && converted == nullptr && label_bytes != 0) err = MORV_ERR_NO_MEMORY;
  if (err) {
    fprintf(stderr, "Error when converting volume label from UTF-8 to UTF-16.\n");
    return err;
  }
  morv::buffer<uint16_t> units(converted);

  // A decomposed character is at most four units.
  morv::buffer<uint16_t> decomposed(static_cast<uint16_t*>(morv_malloc(8 * m)));
  if (!decomposed) {
    fprintf(stderr, "Error when allocating %zu bytes for decomposed volume label.\n", 8 * m);
    return MORV_ERR_NO_MEMORY;
  }
  size_t count = 0;
  if (morv_unicode_decompose_string(units.get(), m, decomposed.get(), 4 * m, &count)) {
    fprintf(stderr, "Unexpected: Overflow when decomposing volume label.\n");
    return MORV_ERR_OVERFLOW;
  }
  // The catalog stores names big-endian.
  for (size_t i = 0; i < count; ++i)
    store_be16(reinterpret_cast<uint8_t*>(&decomposed[i]), decomposed[i]);

  if ((err = morv_volume_set_label(volume, decomposed.get(), count))) {
    fprintf(stderr, "Error while changing volume label.\n");
    return err;
  }
  // Success is reported only once the change is on stable storage.
  if ((err = morv_fork_flush(volume->catalog->priv->tree->fork)) ||
      (err = morv_device_sync(volume->device))) {
    fprintf(stderr, "Error while flushing changes to catalog file.\n");
    return err;
  }
  return MORV_OK;
}

int main(int argc, char** argv) {
  int exit_status = 1;
  int index = 1;
  const char* device_path = nullptr;
  const char* new_label = nullptr;
  int fd = -1;
  morv_device* device = nullptr;
  morv_volume* volume = nullptr;
  morv_catalog_search_result search_result;
  morv_catalog_search_result_init(&search_result);

  do {
    if (argc < 2 || argc > 4) {
      print_usage();
      break;
    }
    g_output_mode = 1;
    if (index < argc && strncmp(argv[index], kOutputModeOption, kOutputModeOptionLength) == 0) {
      const char* value = argv[index] + kOutputModeOptionLength;
      if (strcmp(value, "raw") == 0) {
        g_output_mode = 0;
      } else if (strcmp(value, "composed") == 0) {
        g_output_mode = 1;
      } else {
        print_usage();
        break;
      }
      ++index;
    }
    if (index < argc) device_path = argv[index++];
    if (index < argc) new_label = argv[index++];
    if (device_path == nullptr || index != argc) {
      print_usage();
      break;
    }
    const char* write_text = new_label ? "/write" : "";

    // A mounted file system is never touched. Only the path exactly as typed
    // is compared with the mount table's sources.
    FILE* mounts = fopen64("/proc/mounts", "r");
    if (!mounts) {
      fprintf(stderr, "Error while opening /proc/mounts for reading: %s (%d)\n", strerror(errno),
              errno);
      break;
    }
    bool mounted = false;
    while (struct mntent* entry = getmntent(mounts)) {
      if (strcmp(entry->mnt_fsname, device_path) == 0) {
        mounted = true;
        break;
      }
    }
    fclose(mounts);
    if (mounted) {
      fprintf(stderr, "Refusing to open mounted file system.\n");
      break;
    }

    fd = open64(device_path, new_label ? O_RDWR : O_RDONLY);
    if (fd == -1) {
      fprintf(stderr, "Error while opening HFS+ volume in read%s mode.\n", write_text);
      break;
    }
    if (morv_device_create(fd, new_label ? 0 : 1, kSectorSize, 0, &device)) {
      fprintf(stderr, "Error while opening device in read%s mode.\n", write_text);
      break;
    }
    // The tool never allocates blocks, so the allocation file is not loaded.
    if (morv_volume_create(device, 1, &volume)) {
      fprintf(stderr, "Error while opening volume in read%s mode.\n", write_text);
      break;
    }
    const morv_err err =
        new_label ? morvlabel_set_label(volume, new_label) : morvlabel_print_label(volume);
    if (err == MORV_OK) exit_status = 0;
  } while (false);

  if (search_result.locator) morv_catalog_search_result_release(&search_result);
  if (volume) morv_volume_destroy(&volume);
  if (device) morv_device_destroy(&device);
  if (fd != -1) close(fd);
  return exit_status;
}
