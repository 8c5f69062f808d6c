// SPDX-License-Identifier: MIT
// Logging, reader-writer locks and the allocation / device-transfer seam.
#include "support_unix.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace {
constexpr const char* kLogSource = "support_unix";

// Whether the next log output starts a line. It follows the format string,
// not the expanded text: a format without a trailing newline leaves the line
// open and the next message continues it without a prefix.
int g_line_start = 1;

// Log lines go into bug reports, and an address says nothing there but tells
// a reader where the heap and the program lie. A message with a "%p" is
// written one conversion at a time, each taking its argument with the type
// its length modifier and conversion name; a "%p" takes its pointer and
// writes "(pointer)" instead.
bool has_pointer_conversion(const char* format) {
  for (const char* p = strchr(format, '%'); p; p = strchr(p + 2, '%')) {
    if (p[1] == 'p') return true;
    if (p[1] == '\0') break;
  }
  return false;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename T>
void write_conversion(const char* directive, const int* stars, int star_count, T value) {
  if (star_count == 0) fprintf(stderr, directive, value);
  if (star_count == 1) fprintf(stderr, directive, stars[0], value);
  if (star_count == 2) fprintf(stderr, directive, stars[0], stars[1], value);
}
#pragma GCC diagnostic pop

// Skips a '*' (taking its int) or digits.
const char* skip_count(const char* p, int* stars, int* star_count, va_list& args) {
  if (*p != '*') return p + strspn(p, "0123456789");
  stars[(*star_count)++] = va_arg(args, int);
  return p + 1;
}

void write_hiding_pointers(const char* format, va_list& args) {
  const char* p = format;
  while (*p) {
    if (*p != '%' || p[1] == '%') {
      const size_t n = *p == '%' ? 1 : strcspn(p, "%");
      fwrite(p, 1, n, stderr);
      p += *p == '%' ? 2 : n;
      continue;
    }
    // %[flags][width][.precision][length]conversion
    const char* start = p++;
    int stars[2];
    int star_count = 0;
    p = skip_count(p + strspn(p, "-+ #0'"), stars, &star_count, args);
    if (*p == '.') p = skip_count(p + 1, stars, &star_count, args);
    const char* length = p;
    p += strspn(p, "hljztL");
    const char conversion = *p;
    if (conversion == '\0') return;
    ++p;
    char directive[32];
    const size_t directive_length = static_cast<size_t>(p - start);
    if (directive_length >= sizeof directive) return;
    memcpy(directive, start, directive_length);
    directive[directive_length] = '\0';
    const bool ll = strncmp(length, "ll", 2) == 0;
    const bool l = !ll && *length == 'l';
    if (conversion == 'p' || conversion == 'n') {
      (void)va_arg(args, void*);
      if (conversion == 'p') fputs("(pointer)", stderr);
    } else if (conversion == 's') {
      write_conversion(directive, stars, star_count, va_arg(args, const char*));
    } else if (strchr("di", conversion)) {
      if (ll) write_conversion(directive, stars, star_count, va_arg(args, long long));
      else if (l) write_conversion(directive, stars, star_count, va_arg(args, long));
      else if (*length == 'z') write_conversion(directive, stars, star_count, va_arg(args, ssize_t));
      else if (*length == 't') write_conversion(directive, stars, star_count, va_arg(args, ptrdiff_t));
      else if (*length == 'j') write_conversion(directive, stars, star_count, va_arg(args, intmax_t));
      else write_conversion(directive, stars, star_count, va_arg(args, int));
    } else if (strchr("ouxX", conversion)) {
      if (ll) write_conversion(directive, stars, star_count, va_arg(args, unsigned long long));
      else if (l) write_conversion(directive, stars, star_count, va_arg(args, unsigned long));
      else if (*length == 'z') write_conversion(directive, stars, star_count, va_arg(args, size_t));
      else if (*length == 't') write_conversion(directive, stars, star_count, va_arg(args, ptrdiff_t));
      else if (*length == 'j') write_conversion(directive, stars, star_count, va_arg(args, uintmax_t));
      else write_conversion(directive, stars, star_count, va_arg(args, unsigned));
    } else if (strchr("eEfFgGaA", conversion)) {
      if (*length == 'L') write_conversion(directive, stars, star_count, va_arg(args, long double));
      else write_conversion(directive, stars, star_count, va_arg(args, double));
    } else if (conversion == 'c') {
      write_conversion(directive, stars, star_count, va_arg(args, int));
    } else {
      return;  // a conversion no message uses: stop rather than guess its argument
    }
  }
}
}  // namespace

int morv_log(const char* /*source_file*/, int line, const char* function_name, const char* level,
             const char* format, ...) {
  if (g_line_start) fprintf(stderr, "[%s: %s, line %d] ", level, function_name, line);
  va_list args;
  va_start(args, format);
  if (has_pointer_conversion(format)) {
    write_hiding_pointers(format, args);
  } else {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vfprintf(stderr, format, args);
#pragma GCC diagnostic pop
  }
  va_end(args);
  const size_t length = strlen(format);
  g_line_start = (length > 0 && format[length - 1] == '\n') ? 1 : 0;
  return static_cast<int>(length);
}

// ---- Reader-writer locks ----

struct morv_rwlock {
  pthread_rwlock_t lock;
};

morv_err morv_rwlock_create(morv_rwlock** out_lock) {
  auto* lock = static_cast<morv_rwlock*>(morv_malloc(sizeof(morv_rwlock)));
  if (!lock) {
    MORV_ERROR("Error while allocating memory for morv_rwlock: %s (%d)\n", strerror(errno), errno);
    return MORV_ERR_NO_MEMORY;
  }
  morv::scope_exit free_lock([&] { morv_free(lock); });

  pthread_rwlockattr_t attr;
  int rc = pthread_rwlockattr_init(&attr);
  if (rc != 0) {
    MORV_ERROR("Error while initializing pthread_rwlockattr: %s (%d)\n", strerror(rc), rc);
    return MORV_ERR_NO_MEMORY;
  }
  morv::scope_exit destroy_attr([&] { pthread_rwlockattr_destroy(&attr); });

  rc = pthread_rwlockattr_setpshared(&attr, PTHREAD_PROCESS_PRIVATE);
  if (rc != 0) {
    MORV_ERROR("Error while setting pshared property: %s (%d)\n", strerror(rc), rc);
    return MORV_ERR_GENERIC;
  }
  rc = pthread_rwlock_init(&lock->lock, &attr);
  if (rc != 0) {
    MORV_ERROR("Error while initializing pthread_rwlock: %s (%d)\n", strerror(rc), rc);
    return MORV_ERR_NO_MEMORY;
  }
  free_lock.release();
  *out_lock = lock;
  return MORV_OK;
}

morv_err morv_rwlock_destroy(morv_rwlock** lock) {
  if (pthread_rwlock_destroy(&(*lock)->lock) != 0) {
    MORV_ERROR("Error while destroying pthread_rwlock_t associated with morv_rwlock %p.\n",
               static_cast<void*>(*lock));
    return MORV_ERR_GENERIC;
  }
  morv_free(*lock);
  *lock = nullptr;
  return MORV_OK;
}

morv_err morv_rwlock_lock_read(morv_rwlock* lock) {
  if (pthread_rwlock_rdlock(&lock->lock) != 0) {
    MORV_ERROR("Unable to acquire read lock!\n");
    return MORV_ERR_GENERIC;
  }
  return MORV_OK;
}

morv_err morv_rwlock_lock_write(morv_rwlock* lock) {
  if (pthread_rwlock_wrlock(&lock->lock) != 0) {
    MORV_ERROR("Unable to acquire write lock!\n");
    return MORV_ERR_GENERIC;
  }
  return MORV_OK;
}

morv_err morv_rwlock_unlock(morv_rwlock* lock) {
  if (pthread_rwlock_unlock(&lock->lock) != 0) {
    MORV_ERROR("Unable to unlock rwlock!\n");
    return MORV_ERR_GENERIC;
  }
  return MORV_OK;
}

morv_err morv::rwlock_guard::unlock() {
  if (!held_) return MORV_OK;
  held_ = false;
  const morv_err err = morv_rwlock_unlock(lock_);
  // The messages are fixed texts with at most one %p; passing them as the
  // format keeps the log's line-start rule (a trailing newline ends the line).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  if (err != MORV_OK) morv_log(source_, line_, function_, "CRITICAL", message_, argument_);
#pragma GCC diagnostic pop
  return err;
}

// ---- The seam ----

namespace {
struct seam_state {
  unsigned fail_ops = 0;
  uint64_t fail_countdown = 0;  // calls left until the failing one; 0 = disarmed
  bool delivered = false;
  morv_seam_stats stats{};
  morv_seam_observer observer = nullptr;
  void* observer_context = nullptr;
};
seam_state g_seam;

// Counts one call of `op`; true when this call is the one to fail.
bool seam_should_fail(morv_seam_op op) {
  if (g_seam.fail_countdown == 0 || (g_seam.fail_ops & op) == 0) return false;
  if (--g_seam.fail_countdown != 0) return false;
  g_seam.delivered = true;
  return true;
}
}  // namespace

void* morv_malloc(size_t size) {
  if (seam_should_fail(MORV_SEAM_ALLOC)) {
    errno = ENOMEM;
    return nullptr;
  }
  void* p = malloc(size == 0 ? 1 : size);
  if (p) {
    ++g_seam.stats.allocs;
    g_seam.stats.alloc_bytes += size;
  }
  return p;
}

void* morv_calloc(size_t count, size_t size) {
  if (seam_should_fail(MORV_SEAM_ALLOC)) {
    errno = ENOMEM;
    return nullptr;
  }
  void* p = (count == 0 || size == 0) ? calloc(1, 1) : calloc(count, size);
  if (p) {
    ++g_seam.stats.allocs;
    g_seam.stats.alloc_bytes += static_cast<uint64_t>(count) * size;
  }
  return p;
}

void morv_free(void* p) { free(p); }

ssize_t morv_seam_pread(int fd, void* buffer, size_t length, uint64_t offset) {
  if (seam_should_fail(MORV_SEAM_READ)) {
    errno = EIO;
    return -1;
  }
  ssize_t n = pread64(fd, buffer, length, static_cast<off64_t>(offset));
  ++g_seam.stats.reads;
  if (n > 0) g_seam.stats.read_bytes += static_cast<uint64_t>(n);
  if (g_seam.observer) g_seam.observer(g_seam.observer_context, MORV_SEAM_READ, offset, length);
  return n;
}

ssize_t morv_seam_pwrite(int fd, const void* buffer, size_t length, uint64_t offset) {
  if (seam_should_fail(MORV_SEAM_WRITE)) {
    errno = EIO;
    return -1;
  }
  ssize_t n = pwrite64(fd, buffer, length, static_cast<off64_t>(offset));
  ++g_seam.stats.writes;
  if (n > 0) g_seam.stats.write_bytes += static_cast<uint64_t>(n);
  if (g_seam.observer) g_seam.observer(g_seam.observer_context, MORV_SEAM_WRITE, offset, length);
  return n;
}

int morv_seam_fsync(int fd) {
  if (seam_should_fail(MORV_SEAM_WRITE)) {
    errno = EIO;
    return -1;
  }
  ++g_seam.stats.writes;
  return fsync(fd);
}

void morv_seam_fail_at(unsigned ops, uint64_t n) {
  g_seam.fail_ops = ops;
  g_seam.fail_countdown = n;
  g_seam.delivered = false;
}

bool morv_seam_failure_delivered() { return g_seam.delivered; }

morv_seam_stats morv_seam_get_stats() { return g_seam.stats; }

void morv_seam_reset_stats() { g_seam.stats = {}; }

void morv_seam_set_observer(morv_seam_observer observer, void* context) {
  g_seam.observer = observer;
  g_seam.observer_context = context;
}
