// SPDX-License-Identifier: MIT
#include "test_support.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

namespace morv_test {

namespace {
std::string scratch_dir() {
  const char* dir = getenv("TMPDIR");
  return dir && *dir ? dir : "/tmp";
}
}  // namespace

TempFile::TempFile() {
  std::string pattern = scratch_dir() + "/morv-test-XXXXXX";
  int fd = mkstemp(pattern.data());
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  close(fd);
  path_ = pattern;
}

TempFile::~TempFile() { unlink(path_.c_str()); }

void TempFile::write_all(const std::vector<uint8_t>& bytes) const {
  std::ofstream out(path_, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> TempFile::read_all() const {
  std::ifstream in(path_, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int run(const std::string& command) {
  int status = system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void build_image(const std::string& args, const TempFile& out) {
  static std::map<std::string, std::unique_ptr<TempFile>> cache;
  auto& cached = cache[args];
  if (!cached) {
    auto file = std::make_unique<TempFile>();
    const std::string command = std::string(MORV_PYTHON) + " " MORV_SOURCE_DIR
                                "/tests/support/mkimage.py " + file->path() + " " + args;
    if (run(command) != 0) throw std::runtime_error("image builder failed: " + command);
    cached = std::move(file);
  }
  if (run("cp --sparse=always " + cached->path() + " " + out.path()) != 0)
    throw std::runtime_error("copying image failed");
}

std::string check_image(const std::string& path, const std::string& options) {
  const std::string command = std::string(MORV_PYTHON) + " " MORV_SOURCE_DIR
                              "/tests/support/checkimage.py " + options + " " + path + " 2>&1";
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "cannot run the volume checker";
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, n);
  int status = pclose(pipe);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return output.empty() ? "volume checker failed without output" : output;
  return "";
}

}  // namespace morv_test
