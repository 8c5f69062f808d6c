// SPDX-License-Identifier: MIT
// Fuzz target: printing the label of a damaged volume.
//
// The input is a volume image. The tool's own main prints its label twice,
// composed and raw, on the image as a read-only device. Properties: exit
// status 0 or 1; on success one line of well-formed UTF-8 without NUL bytes,
// on failure nothing on standard output; both modes agree on success (the
// composition keeps surrogates and stops at the same 0 unit as the raw form);
// a raw label already in decomposed form is what the composed label
// decomposes to (the two tables hold the same pairs); nothing is ever
// written to the device.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "support_unix.hpp"
#include "unicode.hpp"

namespace {

using units_t = std::vector<uint16_t>;

// The printed line (without its newline) as UTF-16 units.
units_t printed_units(const std::string& out) {
  uint16_t* units = nullptr;
  size_t count = 0;
  if (morv_utf8_to_unistr(out.data(), out.size() - 1, &units, &count) || !units)
    fuzz::fail("a printed label does not convert back to UTF-16");
  units_t result(units, units + count);
  free(units);
  return result;
}

units_t decompose(const units_t& in) {
  units_t out(4 * in.size() + 1);
  size_t count = 0;
  if (morv_unicode_decompose_string(in.data(), in.size(), out.data(), out.size(), &count))
    fuzz::fail("decomposition overflowed four units per unit");
  out.resize(count);
  return out;
}

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
  if (raw.status == 0) {
    const units_t stored = printed_units(raw.out);
    if (decompose(stored) == stored && decompose(printed_units(composed.out)) != stored)
      fuzz::fail("the composed label does not decompose to the raw one");
  }

  if (morv_seam_get_stats().writes != writes_before) fuzz::fail("printing wrote to the device");
  return 0;
}
