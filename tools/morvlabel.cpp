// SPDX-License-Identifier: MIT
// morvlabel: prints or changes the volume label of an unmounted HFS+ or HFSX
// volume.
//
//   morvlabel [--output-mode=<raw|composed>] <device> [<new label>]
//   morvlabel -h|--help      morvlabel -V|--version
//
// The label is the name of the root folder (CNID 2). Printing opens the device
// read-only under a shared advisory lock and never writes; changing it opens
// the device read/write under an exclusive lock, renames the root folder in
// the catalog and writes back only the catalog's modified sectors. A change
// is refused, before anything is written, when the volume's own state makes
// it unsafe (locked, journal not replayed, inconsistent, not unmounted).
// A device that is mounted, under any name, is not opened at all; one that
// holds no HFS+ volume is named for what it holds (identify.cpp).
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "catalog.hpp"
#include "btree.hpp"
#include "device_unix.hpp"
#include "fork.hpp"
#include "identify.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"
#include "volume.hpp"

namespace {

constexpr const char* kProgramName = "morvlabel";
constexpr const char* kVersion = "3014.8.10";
constexpr const char* kOutputModeOption = "--output-mode=";
constexpr size_t kOutputModeOptionLength = 14;
constexpr uint32_t kSectorSize = 512;
constexpr const char* kMountTable = "/proc/mounts";
// Loop device numbers noted for one file: a few devices and their partitions.
constexpr size_t kMaxLoopNumbers = 64;
// Allocations up to this size come from the heap rather than a mapping each.
constexpr int kHeapAllocationLimit = 4 << 20;

// 0 = raw (the stored, decomposed units), 1 = composed.
int g_output_mode = 0;

void print_version(FILE* stream) { fprintf(stream, "%s %s\n", kProgramName, kVersion); }

void print_usage(FILE* stream = stderr) {
  print_version(stream);
  fprintf(stream, "usage: %s [--output-mode=<raw|composed>] <device> [<new label>]\n", kProgramName);
}

// "morvlabel: PATH: reason", the line that follows a failed open.
void print_reason(const char* path, int error) {
  fprintf(stderr, "%s: %s: %s\n", kProgramName, path, strerror(error));
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

// The fork cache takes its items 1 MiB at a time. glibc gives every block of
// 128 KiB or more a mapping of its own, and mapping, faulting in and
// unmapping the four that printing needs costs about a quarter of the time
// printing spends after exec; from the heap they cost nothing extra.
void keep_cache_items_on_the_heap() {
#if defined(__GLIBC__)
  (void)mallopt(M_MMAP_THRESHOLD, kHeapAllocationLimit);
#endif
}

// Writes the first `length` bytes of `text` (fewer if a NUL comes first, as
// "%.*s" would) and a newline to standard output in one writev: setting up
// stdio's stream costs more than the write itself. A failed write is not
// reported, as an unflushed printf's is not.
void print_line(const char* text, size_t length) {
  const size_t shown = strnlen(text, length);
  const size_t total = shown + 1;
  size_t done = 0;
  while (done < total) {
    iovec parts[2];
    int count = 0;
    if (done < shown) parts[count++] = {const_cast<char*>(text + done), shown - done};
    parts[count++] = {const_cast<char*>("\n"), 1};
    const ssize_t n = writev(STDOUT_FILENO, parts, count);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// ---- Whether the device is in use ----
//
// A mounted file system is never touched. Besides the path as typed, a mount
// is found by what its source is: the same block device (st_rdev) under any
// name, the same file (st_dev and st_ino) under any name, or a loop device
// whose backing file is that file. The kernel's own claim is asked too: a
// block device is opened for a change with O_EXCL, which fails while it or a
// partition of it is mounted or otherwise held, and a loop device backed by
// the file is tried the same way, which finds mounts in other namespaces.

// The loop devices (and their partitions) backed by one file.
struct loop_devices {
  dev_t numbers[kMaxLoopNumbers];
  size_t count = 0;
  bool held = false;  // claimed by a holder or an exclusive opener
};

// Reads a one-line sysfs attribute without its newline; false when absent.
bool read_attribute(const char* path, char* out, size_t capacity) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n;
  do n = read(fd, out, capacity - 1);
  while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return false;
  out[n] = '\0';
  out[strcspn(out, "\n")] = '\0';
  return true;
}

bool directory_has_entries(const char* path) {
  DIR* dir = opendir(path);
  if (!dir) return false;
  bool found = false;
  while (const dirent* entry = readdir(dir))
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) found = true;
  closedir(dir);
  return found;
}

// Notes the device number of /sys/block/`name` (or a partition under it),
// and whether something holds it.
void note_block(const char* directory, loop_devices* loops) {
  char path[PATH_MAX];
  char number[32];
  unsigned major_number = 0;
  unsigned minor_number = 0;
  snprintf(path, sizeof path, "%s/dev", directory);
  if (read_attribute(path, number, sizeof number) &&
      sscanf(number, "%u:%u", &major_number, &minor_number) == 2 && loops->count < kMaxLoopNumbers)
    loops->numbers[loops->count++] = makedev(major_number, minor_number);
  snprintf(path, sizeof path, "%s/holders", directory);
  if (directory_has_entries(path)) loops->held = true;
}

// The loop device /sys/block/`name`, when its backing file is `file`.
void note_loop_device(const char* name, const struct stat64& file, loop_devices* loops) {
  char path[PATH_MAX];
  char backing[PATH_MAX];
  struct stat64 st;
  snprintf(path, sizeof path, "/sys/block/%s/loop/backing_file", name);
  if (!read_attribute(path, backing, sizeof backing) || stat64(backing, &st) != 0 ||
      st.st_dev != file.st_dev || st.st_ino != file.st_ino)
    return;
  snprintf(path, sizeof path, "/sys/block/%s", name);
  note_block(path, loops);
  if (DIR* dir = opendir(path)) {
    const size_t name_length = strlen(name);
    while (const dirent* entry = readdir(dir)) {
      if (strncmp(entry->d_name, name, name_length) != 0) continue;  // partitions: loop0p1
      char partition[PATH_MAX + NAME_MAX + 2];
      snprintf(partition, sizeof partition, "%s/%s", path, entry->d_name);
      note_block(partition, loops);
    }
    closedir(dir);
  }
  snprintf(path, sizeof path, "/dev/%s", name);
  const int fd = open(path, O_RDONLY | O_EXCL | O_CLOEXEC | O_NONBLOCK);
  if (fd >= 0)
    close(fd);
  else if (errno == EBUSY)
    loops->held = true;
}

void find_loop_devices(const struct stat64& file, loop_devices* loops) {
  DIR* dir = opendir("/sys/block");
  if (!dir) return;
  while (const dirent* entry = readdir(dir))
    if (strncmp(entry->d_name, "loop", 4) == 0) note_loop_device(entry->d_name, file, loops);
  closedir(dir);
}

// Whether the mount source `source` is the device or file `target`, or one
// of the loop devices backed by it.
bool is_same_device(const char* source, const struct stat64& target, const loop_devices& loops) {
  struct stat64 st;
  if (source[0] != '/' || stat64(source, &st) != 0) return false;
  if (S_ISBLK(st.st_mode)) {
    if (S_ISBLK(target.st_mode)) return st.st_rdev == target.st_rdev;
    for (size_t i = 0; i < loops.count; ++i)
      if (st.st_rdev == loops.numbers[i]) return true;
    return false;
  }
  return S_ISREG(st.st_mode) && S_ISREG(target.st_mode) && st.st_dev == target.st_dev &&
         st.st_ino == target.st_ino;
}

// Sets *mounted when a mount's source is `path` as typed or, when `target`
// is known, the same device or file by any name. False with errno set when
// the mount table cannot be opened or read.
bool scan_mount_table(const char* path, const struct stat64* target, const loop_devices& loops,
                      bool* mounted) {
  // A mount's source is at most 4095 bytes, and the table writes each byte
  // in at most four, so every source fits.
  static char buffer[4 * 4096 + 4096];
  FILE* table = setmntent(kMountTable, "r");
  if (!table) return false;
  mntent entry;
  *mounted = false;
  while (!*mounted && getmntent_r(table, &entry, buffer, sizeof buffer)) {
    *mounted = strcmp(entry.mnt_fsname, path) == 0 ||
               (target && is_same_device(entry.mnt_fsname, *target, loops));
  }
  const bool failed = ferror(table);
  const int saved = errno;
  endmntent(table);
  errno = saved;
  return !failed;
}

// Opens the device for printing (read-only) or changing (read/write, and
// exclusively when it is a block device).
int open_device(const char* path, bool changing, bool block_device) {
  int flags = changing ? O_RDWR : O_RDONLY;
  if (changing && block_device) flags |= O_EXCL;
  return open64(path, flags);
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
  print_line(utf8, utf8_length);
  return MORV_OK;
}

morv_err morvlabel_set_label(morv_volume* volume, const char* new_label) {
  // A folder cannot be named so; a Mac would not show such a volume's name.
  if (strcmp(new_label, "") == 0 || strcmp(new_label, ".") == 0 || strcmp(new_label, "..") == 0) {
    fprintf(stderr, "Invalid volume label \"%s\": a volume cannot be named \"\", \".\" or \"..\".\n",
            new_label);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  // A label is shown on one line: a control character would break it in two
  // or send a terminal an escape sequence. In UTF-8 these bytes stand only
  // for themselves, never inside another character's sequence.
  for (const char* p = new_label; *p; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (c < 0x20 || c == 0x7F) {
      fprintf(stderr, "Invalid volume label: it contains the control character U+%04X at byte %zu; "
              "a label cannot hold control characters (U+0000 to U+001F, U+007F).\n",
              c, static_cast<size_t>(p - new_label) + 1);
      return MORV_ERR_INVALID_ARGUMENT;
    }
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
  if ((err = morv_catalog_flush(volume->catalog)) ||
      (err = morv_device_sync(volume->device))) {
    fprintf(stderr, "Error while flushing changes to catalog file.\n");
    return err;
  }
  return MORV_OK;
}

// Why a change of a volume in `state` is refused, and what to do about it.
const char* refusal_text(morv_volume_state state) {
  switch (state) {
    case MORV_VOLUME_SOFTWARE_LOCKED:
      return "the volume is software-locked, which tells every writer to leave it alone. "
             "Unlock it on the system that locked it (a hybrid ISO image stays locked: "
             "rebuild it with the new name), then try again.";
    case MORV_VOLUME_JOURNAL_DIRTY:
      return "the volume's journal holds transactions that have not been replayed, and a Mac "
             "replaying them later would undo the change. Mount the volume on a Mac and eject "
             "it, then try again.";
    case MORV_VOLUME_JOURNAL_ELSEWHERE:
      return "the volume's journal is on another device, so it cannot be checked. Turn "
             "journaling off on a Mac (diskutil disableJournal), then try again.";
    case MORV_VOLUME_JOURNAL_DAMAGED:
      return "the volume's journal information is damaged, so the journal cannot be checked. "
             "Repair the volume on a Mac (First Aid in Disk Utility), then try again.";
    case MORV_VOLUME_INCONSISTENT:
      return "the volume is marked inconsistent. Repair it (fsck.hfsplus, or First Aid in "
             "Disk Utility on a Mac), then try again.";
    case MORV_VOLUME_NOT_UNMOUNTED:
      return "the volume was not cleanly unmounted: it may be mounted elsewhere, for example "
             "under another name of the same device, or damaged. Unmount it everywhere, or "
             "repair it (fsck.hfsplus, or First Aid in Disk Utility on a Mac), then try again.";
    case MORV_VOLUME_WRITABLE:
      break;
  }
  return nullptr;
}

// Refuses a change that the volume's own state makes unsafe, before anything
// is written; MORV_OK lets the change go ahead.
morv_err morvlabel_check_volume_state(const morv_volume* volume) {
  morv_volume_state state = MORV_VOLUME_WRITABLE;
  if (morv_err err = morv_volume_check_state(volume, &state)) {
    fprintf(stderr, "Error while checking whether the volume may be changed.\n");
    return err;
  }
  if (state == MORV_VOLUME_WRITABLE) return MORV_OK;
  const char* why = refusal_text(state);
  fprintf(stderr, "Refusing to change the label: %s\n", why ? why : "unknown volume state.");
  return MORV_ERR_UNSUPPORTED;
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
  keep_cache_items_on_the_heap();

  do {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
      print_usage(stdout);
      exit_status = 0;
      break;
    }
    if (argc == 2 && (strcmp(argv[1], "--version") == 0 || strcmp(argv[1], "-V") == 0)) {
      print_version(stdout);
      exit_status = 0;
      break;
    }
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

    const bool changing = new_label != nullptr;
    struct stat64 target;
    const bool known = stat64(device_path, &target) == 0;
    loop_devices loops;
    if (known && S_ISREG(target.st_mode)) find_loop_devices(target, &loops);
    bool mounted = false;
    if (!scan_mount_table(device_path, known ? &target : nullptr, loops, &mounted)) {
      fprintf(stderr, "Error while opening %s for reading: %s (%d)\n", kMountTable,
              strerror(errno), errno);
      break;
    }
    if (mounted || loops.held) {
      fprintf(stderr, "Refusing to open mounted file system.\n");
      break;
    }

    fd = open_device(device_path, changing, known && S_ISBLK(target.st_mode));
    const int open_error = fd == -1 ? errno : 0;
    struct stat64 opened;
    if (fd != -1 && fstat64(fd, &opened) == 0 && S_ISDIR(opened.st_mode)) {
      close(fd);  // a directory opens read-only, but holds no volume
      fd = -1;
    }
    if (fd == -1) {
      const int error = open_error ? open_error : EISDIR;
      // An exclusive open fails so while the device or a partition of it is mounted.
      if (error == EBUSY && changing)
        fprintf(stderr, "Refusing to open mounted file system.\n");
      else
        fprintf(stderr, "Error while opening HFS+ volume in read%s mode.\n", write_text);
      print_reason(device_path, error);
      break;
    }
    if (morv_device_create(fd, new_label ? 0 : 1, kSectorSize, 0, &device)) {
      fprintf(stderr, "Error while opening device in read%s mode.\n", write_text);
      break;
    }
    // The tool never allocates blocks, so the allocation file is not loaded.
    if (morv_volume_create(device, 1, &volume)) {
      fprintf(stderr, "Error while opening volume in read%s mode.\n", write_text);
      morvlabel_identify(fd, device_path);
      break;
    }
    morv_err err = MORV_OK;
    if (new_label) {
      err = morvlabel_check_volume_state(volume);
      if (err == MORV_OK) err = morvlabel_set_label(volume, new_label);
    } else {
      err = morvlabel_print_label(volume);
    }
    if (err == MORV_OK) exit_status = 0;
  } while (false);

  if (search_result.locator) morv_catalog_search_result_release(&search_result);
  if (volume) morv_volume_destroy(&volume);
  if (device) morv_device_destroy(&device);
  if (fd != -1) close(fd);
  return exit_status;
}
