// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <string>

#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "support_unix_test";

std::string log_twice(const char* first, const char* second) {
  testing::internal::CaptureStderr();
  MORV_ERROR("\n");  // leave the line-start state known
  morv_log("t", 10, "first_fn", "ERROR", first, 7);
  morv_log("t", 20, "second_fn", "WARNING", second, 8);
  std::string out = testing::internal::GetCapturedStderr();
  return out.substr(out.find('\n') + 1);
}
}  // namespace

TEST(Log, PrefixFollowsTheFormatsLineEnds) {
  EXPECT_EQ(log_twice("a %d\n", "b %d\n"),
            "[ERROR: first_fn, line 10] a 7\n[WARNING: second_fn, line 20] b 8\n");
  // No trailing newline in the format: the next message continues the line.
  EXPECT_EQ(log_twice("Invalid volume label length: %d", " next %d\n"),
            "[ERROR: first_fn, line 10] Invalid volume label length: 7 next 8\n");
  // The flag follows the format, not the expanded text.
  testing::internal::CaptureStderr();
  morv_log("t", 1, "f", "ERROR", "%s", "line\n");
  morv_log("t", 2, "g", "ERROR", "\n");
  morv_log("t", 3, "h", "ERROR", "%s", "");
  morv_log("t", 4, "i", "ERROR", "x\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[ERROR: f, line 1] line\n\n[ERROR: h, line 3] x\n");
  EXPECT_EQ(morv_log("t", 5, "j", "ERROR", "abc\n"), 4);
}

TEST(Log, NoAddressIsShown) {
  int object = 0;
  testing::internal::CaptureStderr();
  MORV_ERROR("\n");
  morv_log("t", 1, "f", "ERROR", "item %p of %d, %%p and %s\n", static_cast<void*>(&object), 3, "text");
  morv_log("t", 2, "g", "ERROR", "%p != %p\n", static_cast<void*>(&object), static_cast<void*>(nullptr));
  // Every argument after a pointer is still taken with its own type.
  morv_log("t", 3, "h", "ERROR", "%llu %p %zu [%*d] [%-4s] %c %.2f %lx %hhu\n", 1ull << 40,
           static_cast<void*>(&object), size_t{7}, 5, -42, "ab", 'z', 2.5, 0xbeefUL, 300);
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(out.substr(out.find('\n') + 1),
            "[ERROR: f, line 1] item (pointer) of 3, %p and text\n"
            "[ERROR: g, line 2] (pointer) != (pointer)\n"
            "[ERROR: h, line 3] 1099511627776 (pointer) 7 [  -42] [ab  ] z 2.50 beef 44\n");
}

TEST(RwLock, CreateLockDestroyAndAllocationFailure) {
  morv_rwlock* lock = nullptr;
  ASSERT_EQ(morv_rwlock_create(&lock), MORV_OK);
  ASSERT_NE(lock, nullptr);
  for (auto step : {morv_rwlock_lock_read, morv_rwlock_lock_read, morv_rwlock_unlock, morv_rwlock_unlock,
                    morv_rwlock_lock_write, morv_rwlock_unlock})
    EXPECT_EQ(step(lock), MORV_OK);
  EXPECT_EQ(morv_rwlock_destroy(&lock), MORV_OK);
  EXPECT_EQ(lock, nullptr);

  morv_rwlock* untouched = reinterpret_cast<morv_rwlock*>(0x1);
  morv_seam_fail_at(MORV_SEAM_ALLOC, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_rwlock_create(&untouched), MORV_ERR_NO_MEMORY);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Error while allocating memory for morv_rwlock"),
            std::string::npos);
  EXPECT_TRUE(morv_seam_failure_delivered());
  EXPECT_EQ(untouched, reinterpret_cast<morv_rwlock*>(0x1));
}

TEST(Seam, FailsExactlyTheNthCallOfTheChosenKinds) {
  morv_seam_reset_stats();
  morv_seam_fail_at(MORV_SEAM_ALLOC, 3);
  void* a = morv_malloc(10);
  void* b = morv_calloc(2, 5);
  EXPECT_FALSE(morv_seam_failure_delivered());
  void* c = morv_malloc(10);
  void* d = morv_malloc(10);
  EXPECT_NE(a, nullptr);
  EXPECT_NE(b, nullptr);
  EXPECT_EQ(c, nullptr);
  EXPECT_NE(d, nullptr);  // only one failure per arming
  EXPECT_TRUE(morv_seam_failure_delivered());
  EXPECT_EQ(morv_seam_get_stats().allocs, 3u);
  EXPECT_EQ(morv_seam_get_stats().alloc_bytes, 30u);
  morv_free(a);
  morv_free(b);
  morv_free(d);

  // Device transfers are not counted against an allocation-only arming.
  morv_seam_fail_at(MORV_SEAM_WRITE, 1);
  EXPECT_EQ(morv_seam_pwrite(-1, "x", 1, 0), -1);
  EXPECT_EQ(errno, EIO);
  morv_seam_fail_at(0, 0);
}
