// SPDX-License-Identifier: MIT
// Platform support: reader-writer locks, and the one seam through which every
// allocation and every device transfer of the library passes.
//
// The seam exists so that tests can count allocations and device requests and
// make the N-th of them fail, driving every failure path for real.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sys/types.h>
#include <utility>

#include "morv.hpp"

// ---- Reader-writer locks (process-private pthread rwlocks) ----

struct morv_rwlock;

[[nodiscard]] morv_err morv_rwlock_create(morv_rwlock** out_lock);
// Leaves the handle set and returns MORV_ERR_GENERIC when the lock cannot be
// destroyed (it is still held).
[[nodiscard]] morv_err morv_rwlock_destroy(morv_rwlock** lock);
[[nodiscard]] morv_err morv_rwlock_lock_read(morv_rwlock* lock);
[[nodiscard]] morv_err morv_rwlock_lock_write(morv_rwlock* lock);
[[nodiscard]] morv_err morv_rwlock_unlock(morv_rwlock* lock);

// ---- The seam ----

// Allocations: nullptr when the allocation fails (really or by injection).
// Memory from these is released with morv_free (or free: they are malloc'd).
void* morv_malloc(size_t size);
void* morv_calloc(size_t count, size_t size);
void morv_free(void* p);

// Device transfers: pread64/pwrite64 unless the seam fails the call, in which
// case -1 is returned with errno set to EIO.
ssize_t morv_seam_pread(int fd, void* buffer, size_t length, uint64_t offset);
ssize_t morv_seam_pwrite(int fd, const void* buffer, size_t length, uint64_t offset);
// fsync, counted as a device write: the write that makes the others durable.
// Returns -1 with errno EIO when the seam fails it.
int morv_seam_fsync(int fd);

// Test interface.
enum morv_seam_op : unsigned {
  MORV_SEAM_ALLOC = 1u,
  MORV_SEAM_READ = 2u,
  MORV_SEAM_WRITE = 4u,
  MORV_SEAM_ALL = 7u,
};

struct morv_seam_stats {
  uint64_t allocs;
  uint64_t alloc_bytes;
  uint64_t reads;
  uint64_t read_bytes;
  uint64_t writes;
  uint64_t write_bytes;
};

// Arms the seam: the n-th call (1-based) of any operation in `ops` made after
// this call fails. n = 0 disarms it.
void morv_seam_fail_at(unsigned ops, uint64_t n);
// True when the armed failure has been delivered since morv_seam_fail_at.
bool morv_seam_failure_delivered();
morv_seam_stats morv_seam_get_stats();
void morv_seam_reset_stats();

// Optional observer of device transfers (tests record each request).
using morv_seam_observer = void (*)(void* context, morv_seam_op op, uint64_t offset, size_t length);
void morv_seam_set_observer(morv_seam_observer observer, void* context);

// ---- Small RAII helpers for the one cleanup path of a function ----

namespace morv {

// Runs a callable on scope exit unless released.
template <typename F>
class scope_exit {
 public:
  explicit scope_exit(F f) : f_(std::move(f)) {}
  scope_exit(const scope_exit&) = delete;
  scope_exit& operator=(const scope_exit&) = delete;
  ~scope_exit() {
    if (armed_) f_();
  }
  void release() { armed_ = false; }

 private:
  F f_;
  bool armed_ = true;
};

// Owns a buffer from morv_malloc/morv_calloc.
template <typename T>
class buffer {
 public:
  buffer() = default;
  explicit buffer(T* p) : p_(p) {}
  buffer(const buffer&) = delete;
  buffer& operator=(const buffer&) = delete;
  ~buffer() { morv_free(p_); }
  // Allocates `count` zeroed elements; false when the allocation failed.
  [[nodiscard]] bool allocate(size_t count) {
    morv_free(p_);
    p_ = static_cast<T*>(morv_calloc(count, sizeof(T)));
    return p_ != nullptr;
  }
  void reset(T* p) {
    morv_free(p_);
    p_ = p;
  }
  T* get() const { return p_; }
  T* release() {
    T* p = p_;
    p_ = nullptr;
    return p;
  }
  T& operator[](size_t i) const { return p_[i]; }
  explicit operator bool() const { return p_ != nullptr; }

 private:
  T* p_ = nullptr;
};

// Holds a morv_rwlock from a successful lock_read()/lock_write() until
// finish() or the end of the scope. A failed unlock is logged at CRITICAL
// under the holder's function name with `unlock_message`; finish() also makes
// it the result when `result` was success, while the unlock at scope exit
// (the failure paths) only logs it. Made through MORV_RWLOCK_GUARD.
class rwlock_guard {
 public:
  rwlock_guard(morv_rwlock* lock, const char* source, const char* function, int line,
               const char* unlock_message, const void* message_argument = nullptr)
      : lock_(lock),
        source_(source),
        function_(function),
        line_(line),
        message_(unlock_message),
        argument_(message_argument) {}
  rwlock_guard(const rwlock_guard&) = delete;
  rwlock_guard& operator=(const rwlock_guard&) = delete;
  ~rwlock_guard() { (void)unlock(); }
  [[nodiscard]] morv_err lock_read() { return take(morv_rwlock_lock_read(lock_)); }
  [[nodiscard]] morv_err lock_write() { return take(morv_rwlock_lock_write(lock_)); }
  // The message logged should the unlock fail (a path may need its own).
  void set_unlock_message(const char* message) { message_ = message; }
  // Unlocks now; `result`, or the unlock's error when `result` was success.
  [[nodiscard]] morv_err finish(morv_err result) {
    const morv_err err = unlock();
    return result != MORV_OK ? result : err;
  }

 private:
  morv_err take(morv_err err) {
    held_ = err == MORV_OK;
    return err;
  }
  morv_err unlock();

  morv_rwlock* lock_;
  const char* source_;
  const char* function_;
  int line_;
  const char* message_;
  const void* argument_;  // for a message's one %p
  bool held_ = false;
};

}  // namespace morv

// A guard over `lock` named `name`, reporting a failed unlock as the
// calling function: MORV_RWLOCK_GUARD(name, lock, message [, pointer for %p]).
#define MORV_RWLOCK_GUARD(name, lock, ...) \
  morv::rwlock_guard name((lock), kLogSource, __func__, __LINE__, __VA_ARGS__)
