// morvlabel: prints or changes the volume label of an unmounted HFS+ or HFSX
// volume.
//
//   morvlabel [--output-mode=<raw|composed>] <device> [<new label>]
//
// The label is the name of the root folder (CNID 2). Printing opens the device
// read-only under a shared advisory lock and never writes; changing it opens
// the device read/write under an exclusive lock, renames the root folder in
// the catalog and writes back only the catalog's modified sectors. A change
// is refused, before anything is written, when the volume's own state makes
// it unsafe (locked, journal not replayed, inconsistent, not unmounted).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

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
constexpr const char* kMountTable = "/proc/mounts";
// A mount's source is at most 4095 bytes, and the mount table writes each in
// at most four, so a line's first field always fits.
constexpr size_t kMountTableBufferSize = 4 * 4096 + 64;
// Allocations up to this size come from the heap rather than a mapping each.
constexpr int kHeapAllocationLimit = 4 << 20;

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

// ---- The mount table ----
//
// /proc/mounts holds one mount per line, its source first; the fields are
// separated by blanks, and a blank, newline or backslash inside a field is
// written \040, \011, \012 or \134 (a backslash also as \\). The table is
// read with read(2) and only each line's first field is decoded, as getmntent
// decodes it: stdio and getmntent's parsing of the other fields cost more
// than everything else printing a label does.

// Decodes a field's escapes in place; returns the decoded length.
size_t decode_mount_field(char* field, size_t length) {
  static const struct {
    const char* code;
    char value;
  } kEscapes[] = {{"040", ' '}, {"011", '\t'}, {"012", '\n'}, {"134", '\\'}};
  size_t out = 0;
  for (size_t i = 0; i < length; ++i) {
    char c = field[i];
    if (c == '\\' && i + 1 < length && field[i + 1] == '\\') {
      ++i;
    } else if (c == '\\' && i + 3 < length) {
      for (const auto& escape : kEscapes) {
        if (memcmp(field + i + 1, escape.code, 3) == 0) {
          c = escape.value;
          i += 3;
          break;
        }
      }
    }
    field[out++] = c;
  }
  return out;
}

// True when the line's first field is `path`. Blank lines and lines that
// begin with '#' name no mount.
bool line_names_source(char* line, size_t length, const char* path, size_t path_length) {
  size_t start = 0;
  while (start < length && (line[start] == ' ' || line[start] == '\t')) ++start;
  if (start == length || line[start] == '#') return false;
  size_t end = start;
  while (end < length && line[end] != ' ' && line[end] != '\t') ++end;
  const size_t decoded = decode_mount_field(line + start, end - start);
  return decoded == path_length && memcmp(line + start, path, decoded) == 0;
}

// Sets *mounted when `path`, exactly as typed, is the source of a mount.
// False with errno set when the mount table cannot be opened or read.
bool scan_mount_table(const char* path, bool* mounted) {
  static char buffer[kMountTableBufferSize];
  const int fd = open64(kMountTable, O_RDONLY | O_CLOEXEC);
  if (fd == -1) return false;
  const size_t path_length = strlen(path);
  size_t held = 0;
  bool rest_of_long_line = false;  // skipping the tail of a line that filled the buffer
  *mounted = false;
  while (!*mounted) {
    const ssize_t n = read(fd, buffer + held, sizeof buffer - held);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int saved = errno;
      close(fd);
      errno = saved;
      return false;
    }
    held += static_cast<size_t>(n);
    size_t line = 0;
    while (!*mounted && line < held) {
      char* newline = static_cast<char*>(memchr(buffer + line, '\n', held - line));
      // A line without its newline waits for more, unless the table ended or
      // the line fills the whole buffer (its first field is complete then).
      if (!newline && n != 0 && !(line == 0 && held == sizeof buffer)) break;
      const size_t end = newline ? static_cast<size_t>(newline - buffer) : held;
      if (!rest_of_long_line)
        *mounted = line_names_source(buffer + line, end - line, path, path_length);
      rest_of_long_line = !newline && n != 0;
      line = newline ? end + 1 : held;
    }
    memmove(buffer, buffer + line, held - line);
    held -= line;
    if (n == 0) break;
  }
  close(fd);
  return true;
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
    bool mounted = false;
    if (!scan_mount_table(device_path, &mounted)) {
      fprintf(stderr, "Error while opening %s for reading: %s (%d)\n", kMountTable,
              strerror(errno), errno);
      break;
    }
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
