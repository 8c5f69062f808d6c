// Fuzz target: printing the label of a damaged volume.
//
// The input is a volume image. The tool's own main prints its label twice,
// composed and raw, on the image as a read-only device. Properties: exit
// status 0 or 1; on success one line of well-formed UTF-8 without NUL bytes,
// on failure nothing on standard output; both modes agree on success (the
// composition keeps surrogates and stops at the same 0 unit as the raw form);
// nothing is ever written to the device.
#include <cstring>

#include "fuzz_support.hpp"
#include "support_unix.hpp"

namespace {

void check_printed(const fuzz::ToolRun& run, const char* mode) {
  if (run.status != 0 && run.status != 1) fuzz::fail("%s print exited %d", mode, run.status);
  if (run.status != 0) {
    if (!run.out.empty()) fuzz::fail("%s print failed but wrote %zu bytes", mode, run.out.size());
    return;
  }
  const std::string& out = run.out;
  if (out.empty() || out.back() != '\n') fuzz::fail("%s print: the label line has no newline", mode);
  const std::string label = out.substr(0, out.size() - 1);
  if (label.find('\0') != std::string::npos) fuzz::fail("%s print: NUL byte in the label", mode);
  if (!fuzz::valid_utf8(label)) fuzz::fail("%s print: the label is not well-formed UTF-8", mode);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::init();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryImage image;
  image.load(data, size);
  const uint64_t writes_before = morv_seam_get_stats().writes;

  const fuzz::ToolRun composed = fuzz::run_tool({"morvlabel", image.path()});
  check_printed(composed, "composed");
  const fuzz::ToolRun raw = fuzz::run_tool({"morvlabel", "--output-mode=raw", image.path()});
  check_printed(raw, "raw");
  if (composed.status != raw.status)
    fuzz::fail("composed print exited %d, raw print %d", composed.status, raw.status);

  if (morv_seam_get_stats().writes != writes_before) fuzz::fail("printing wrote to the device");
  return 0;
}
