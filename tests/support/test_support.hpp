// SPDX-License-Identifier: MIT
// Helpers shared by the unit tests: scratch files, images from the project's
// image builder, the volume checker, and captured log output.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support_unix.hpp"

namespace morv_test {

// A scratch file under $TMPDIR (or /tmp), removed when the object goes away.
class TempFile {
 public:
  TempFile();
  ~TempFile();
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }
  void write_all(const std::vector<uint8_t>& bytes) const;
  std::vector<uint8_t> read_all() const;

 private:
  std::string path_;
};

// Runs the image builder with `args` (e.g. "--size 4194304 --label Demo")
// into a fresh file. Images are cached per argument string within one test
// process and copied, so a test may change its copy freely.
void build_image(const std::string& args, const TempFile& out);

// Runs the volume checker; returns its output, empty when the image is clean.
std::string check_image(const std::string& path, const std::string& options = "");

// Runs a shell command and returns its exit status.
int run(const std::string& command);

// What `f` logs on stderr.
template <typename F>
std::string logged(F&& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}
// Expects `call` to give `expected` and to log `text` on stderr.
#define EXPECT_LOGGED(call, expected, text) \
  EXPECT_THAT(morv_test::logged([&] { EXPECT_EQ(call, expected); }), testing::HasSubstr(text))

// Runs `f`, keeping what it logs in `log`; returns its result.
template <typename F>
auto logged_into(std::string& log, F&& f) {
  decltype(f()) result{};
  log = logged([&] { result = f(); });
  return result;
}
inline bool has(const std::string& log, const char* text) { return log.find(text) != std::string::npos; }

// Runs `op()` with the n-th following operation of `kinds` failing, n = 1, 2,
// ..., until no failure is delivered, passing each result to
// `check(err, failed, n)`. Returns the number of failed runs.
template <typename Op, typename Check>
uint64_t fail_each(unsigned kinds, Op op, Check check) {
  for (uint64_t n = 1;; ++n) {
    morv_seam_fail_at(kinds, n);
    const morv_err err = op();
    const bool failed = morv_seam_failure_delivered();
    morv_seam_fail_at(MORV_SEAM_ALL, 0);
    check(err, failed, n);
    if (!failed) return n - 1;
  }
}

}  // namespace morv_test
