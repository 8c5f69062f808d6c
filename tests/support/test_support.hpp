// Helpers shared by the unit tests: scratch files, images from the project's
// image builder, the volume checker, and captured log output.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

}  // namespace morv_test
