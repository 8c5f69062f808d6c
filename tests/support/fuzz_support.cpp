// SPDX-License-Identifier: MIT
#include "fuzz_support.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

int morvlabel_main(int argc, char** argv);  // the tool's main, renamed at build time

namespace fuzz {
namespace {

FILE* g_report = nullptr;  // the real standard error
int g_out = -1;             // a memory file behind descriptor 1: the tool's output
constexpr size_t kMaxArgs = 8;
constexpr off_t kMaxOutput = 1 << 16;

ssize_t discard(void*, const char*, size_t size) { return static_cast<ssize_t>(size); }

[[noreturn]] void die(const char* what) {
  perror(what);
  abort();
}

}  // namespace

void init() {
  g_report = stderr;
  // The tool writes the label to descriptor 1 itself; libFuzzer writes
  // nothing there.
  g_out = memfd_create("morv-fuzz-stdout", MFD_CLOEXEC);
  if (g_out < 0 || dup2(g_out, STDOUT_FILENO) < 0) die("standard output");
  // glibc lets a program replace its standard streams; the library and the
  // tool write their messages through stderr, libFuzzer and the sanitizers
  // do not.
  if (!getenv("MORV_FUZZ_LOG")) {
    cookie_io_functions_t sink = {nullptr, discard, nullptr, nullptr};
    FILE* quiet = fopencookie(nullptr, "w", sink);
    if (!quiet) die("fopencookie");
    setvbuf(quiet, nullptr, _IOFBF, 1 << 16);
    stderr = quiet;
  }
}

void fail(const char* format, ...) {
  FILE* report = g_report ? g_report : stderr;
  fprintf(report, "\n==== fuzz property broken: ");
  va_list args;
  va_start(args, format);
  vfprintf(report, format, args);
  va_end(args);
  fprintf(report, "\n");
  fflush(report);
  abort();
}

MemoryImage::MemoryImage() {
  fd_ = memfd_create("morv-fuzz-image", MFD_CLOEXEC);
  if (fd_ < 0) die("memfd_create");
  snprintf(path_, sizeof path_, "/proc/self/fd/%d", fd_);
}

MemoryImage::~MemoryImage() { close(fd_); }

void MemoryImage::load(const uint8_t* data, size_t size) {
  if (ftruncate(fd_, 0) != 0) die("ftruncate");
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
    if (n <= 0) die("pwrite");
    done += static_cast<size_t>(n);
  }
}

std::vector<uint8_t> MemoryImage::contents() const {
  const off_t size = lseek(fd_, 0, SEEK_END);
  if (size < 0) die("lseek");
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = pread(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n <= 0) die("pread");
    done += static_cast<size_t>(n);
  }
  return bytes;
}

ToolRun run_tool(std::initializer_list<const char*> args) {
  char* argv[kMaxArgs + 1] = {};
  int argc = 0;
  for (const char* a : args) {
    if (argc == static_cast<int>(kMaxArgs)) fail("run_tool: too many arguments");
    argv[argc++] = const_cast<char*>(a);
  }
  fflush(stdout);
  if (ftruncate(g_out, 0) != 0 || lseek(g_out, 0, SEEK_SET) != 0) die("standard output");
  const int status = morvlabel_main(argc, argv);
  fflush(stdout);
  fflush(stderr);
  const off_t length = lseek(g_out, 0, SEEK_END);
  if (length < 0 || length > kMaxOutput)
    fail("the tool wrote %lld bytes to standard output", static_cast<long long>(length));
  std::string out(static_cast<size_t>(length), '\0');
  if (length > 0 && pread(g_out, out.data(), out.size(), 0) != length) die("pread");
  return ToolRun{status, out};
}

bool valid_utf8(const std::string& text) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  // Per sequence length: lead byte mask and tag, payload bits of the lead,
  // the lowest code point that needs that length.
  struct form {
    uint8_t mask, tag, bits;
    uint32_t lowest;
  };
  constexpr form kForms[] = {{0xE0, 0xC0, 0x1F, 0x80}, {0xF0, 0xE0, 0x0F, 0x800},
                             {0xF8, 0xF0, 0x07, 0x10000}};
  while (i < n) {
    const uint8_t lead = s[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    size_t extra = 0;
    while (extra < 3 && (lead & kForms[extra].mask) != kForms[extra].tag) ++extra;
    if (extra == 3) return false;
    const form& f = kForms[extra++];
    uint32_t cp = lead & f.bits;
    const uint32_t lowest = f.lowest;
    if (n - i <= extra) return false;
    for (size_t k = 1; k <= extra; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (cp < lowest || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

}  // namespace fuzz

// Every target sets up the process the same way before its first input.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::init();
  return 0;
}
