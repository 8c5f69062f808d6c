// SPDX-License-Identifier: MIT
// Shared by the fuzz targets: the input volume in a memory file, the tool's
// own main run on it with standard output captured, the library's log lines
// kept quiet, and the report of a broken property.
//
// Layout of an input image. A volume's first 1024 bytes are boot blocks that
// the library never reads (the volume header is at byte 1024), so the targets
// that need more than the image take it from there: the label of a change
// (fuzz_change), the operation script (fuzz_btree). The bytes stay part of the
// image, so a damaged extent that covers them reads them like any other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace fuzz {

inline constexpr size_t kBootBlocksSize = 1024;

// Once per process, from LLVMFuzzerInitialize (defined with it): standard output goes to a
// memory file (read by run_tool), standard error's stream is discarded
// unless MORV_FUZZ_LOG is set in the environment. Sanitizer and libFuzzer
// reports do not use that stream and are never lost.
void init();

// Prints the broken property on the real standard error and aborts, so that
// libFuzzer saves the input as a crash.
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A volume image held in a memory file, reachable by path as a device.
class MemoryImage {
 public:
  MemoryImage();
  ~MemoryImage();
  MemoryImage(const MemoryImage&) = delete;
  MemoryImage& operator=(const MemoryImage&) = delete;

  // Replaces the file's contents with exactly these bytes.
  void load(const uint8_t* data, size_t size);
  std::vector<uint8_t> contents() const;
  int fd() const { return fd_; }
  const char* path() const { return path_; }

 private:
  int fd_ = -1;
  char path_[32] = {};
};

struct ToolRun {
  int status;
  std::string out;  // what the tool wrote to standard output
};

// Runs the tool's main (tools/morvlabel.cpp, built with main renamed) with
// these arguments, the program name first.
ToolRun run_tool(std::initializer_list<const char*> args);

// True when `text` is well-formed UTF-8: shortest forms, no surrogates,
// nothing above U+10FFFF.
bool valid_utf8(const std::string& text);

}  // namespace fuzz
