// SPDX-License-Identifier: MIT
// Fuzz target: changing the label of a damaged volume, on a memory copy.
//
// The input is a volume image whose first byte chooses the new label: below
// 0x80 one of the labels below, otherwise the next (byte & 0x7F) bytes as
// they are (up to a NUL), so that the tool's own conversions see arbitrary
// text. The tool's own main renames the root folder and flushes the catalog.
//
// Properties: exit status 0 or 1 and nothing on standard output. A change
// that fails leaves the image byte for byte as it was. A change that succeeds
// had a label of well-formed UTF-8 other than "", "." and ".."; it changed
// bytes only inside the catalog file (when the volume header's eight catalog
// extents hold the whole file) and left a volume whose label reads back, raw,
// as the stored (decomposed) form of the new label.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "morv.hpp"
#include "unicode.hpp"

namespace {

const char* const kLabels[] = {
    "Fuzz",                     // as long as the seeds' own label
    "Fizz Buzz",
    "",
    ".",
    "..",
    "Macintosh HD",
    "\xC3\x89t\xC3\xA9",        // precomposed: two units longer once decomposed
    "E\xCC\x81te\xCC\x81",      // already decomposed
    "\xED\x95\x9C\xEA\xB5\xAD",  // Hangul syllables: five jamo
    "\xF0\x9F\x98\x80 smile",   // a surrogate pair
    "\xF4\x90\x80\x80",         // a 4-byte form above U+10FFFF
    "bad \xC3",                 // truncated sequence
    "\xED\xA0\x80",             // an encoded surrogate
    "tab\there",
    nullptr,  // 255 units
    nullptr,  // 256 units
    nullptr,  // 127 precomposed letters: 254 units decomposed
    nullptr,  // 128 precomposed letters: 256 units decomposed
};
constexpr size_t kLabelCount = sizeof kLabels / sizeof kLabels[0];

std::string long_label(size_t index) {
  const std::string e_acute = "\xC3\xA9";
  switch (index) {
    case kLabelCount - 4: return std::string(255, 'L');
    case kLabelCount - 3: return std::string(256, 'L');
    case kLabelCount - 2: {
      std::string s;
      for (int i = 0; i < 127; ++i) s += e_acute;
      return s;
    }
    default: {
      std::string s;
      for (int i = 0; i < 128; ++i) s += e_acute;
      return s;
    }
  }
}

std::string choose_label(const uint8_t* data, size_t size) {
  if (size == 0) return kLabels[0];
  const uint8_t choice = data[0];
  if (choice < 0x80) {
    const size_t index = choice % kLabelCount;
    return kLabels[index] ? kLabels[index] : long_label(index);
  }
  size_t length = choice & 0x7F;
  if (length > size - 1) length = size - 1;
  const std::string text(reinterpret_cast<const char*>(data + 1), length);
  return text.substr(0, text.find('\0'));
}

// The raw print of a volume labelled `label`: its decomposed UTF-16 form as
// UTF-8. Otherwise the reason why no volume can hold that label.
const char* stored_form(const std::string& label, std::string* out) {
  uint16_t* units = nullptr;
  size_t count = 0;
  if (morv_utf8_to_unistr(label.c_str(), label.size(), &units, &count) || !units)
    return "the label is not valid UTF-8";
  std::vector<uint16_t> owned(units, units + count);
  free(units);
  size_t decomposed_count = 0;
  morv_unicode_decompose_string(owned.data(), owned.size(), nullptr, 0, &decomposed_count);
  if (decomposed_count > 255) return "the label is longer than 255 units";
  std::vector<uint16_t> decomposed(decomposed_count + 1);
  if (morv_unicode_decompose_string(owned.data(), owned.size(), decomposed.data(),
                                    decomposed.size(), &decomposed_count))
    fuzz::fail("decomposition overflowed the size it counted");
  char* utf8 = nullptr;
  size_t utf8_length = 0;
  if (morv_unistr_to_utf8(decomposed.data(), decomposed_count, 0, &utf8, &utf8_length))
    return "the label's stored form cannot be printed";
  out->assign(utf8, utf8_length);
  free(utf8);
  return nullptr;
}

// When the header's eight catalog extents cover the whole catalog file,
// every changed byte must lie in one of them.
void check_changes_in_catalog(const std::vector<uint8_t>& before, const std::vector<uint8_t>& after) {
  if (before.size() < fuzz::kBootBlocksSize + vh::kSize) return;
  const uint8_t* header = before.data() + vh::kOffsetOnDisk;
  const uint64_t block_size = load_be32(header + vh::kBlockSize);
  const uint8_t* fork = header + vh::kCatalogFile;
  uint64_t ranges[forkdata::kExtentsPerRecord][2];
  uint64_t blocks = 0;
  for (size_t i = 0; i < forkdata::kExtentsPerRecord; ++i) {
    const uint8_t* extent = fork + forkdata::kExtents + i * forkdata::kExtentSize;
    const uint64_t start = load_be32(extent + forkdata::kExtentStartBlock);
    const uint64_t count = load_be32(extent + forkdata::kExtentBlockCount);
    ranges[i][0] = start * block_size;
    ranges[i][1] = (start + count) * block_size;
    blocks += count;
  }
  if (blocks < load_be32(fork + forkdata::kTotalBlocks)) return;  // more extents in the tree
  for (size_t at = 0; at < after.size(); ++at) {
    if (at < before.size() && before[at] == after[at]) continue;
    bool inside = false;
    for (const auto& r : ranges) inside = inside || (at >= r[0] && at < r[1]);
    if (!inside) fuzz::fail("the change wrote byte %zu, outside the catalog file", at);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryImage image;
  image.load(data, size);
  const std::string label = choose_label(data, size);

  const fuzz::ToolRun run = fuzz::run_tool({"morvlabel", image.path(), label.c_str()});
  if (run.status != 0 && run.status != 1) fuzz::fail("the change exited %d", run.status);
  if (!run.out.empty()) fuzz::fail("the change wrote %zu bytes to standard output", run.out.size());
  const std::vector<uint8_t> before(data, data + size);
  const std::vector<uint8_t> after = image.contents();
  if (run.status != 0) {
    if (after != before) fuzz::fail("a failed change altered the image");
    return 0;
  }

  if (!fuzz::valid_utf8(label)) fuzz::fail("the change accepted a label that is not UTF-8");
  if (label.empty() || label == "." || label == "..")
    fuzz::fail("the change accepted the label \"%s\", which names no folder", label.c_str());
  check_changes_in_catalog(before, after);
  std::string expected;
  if (const char* reason = stored_form(label, &expected))
    fuzz::fail("the change succeeded, but %s", reason);
  const fuzz::ToolRun back = fuzz::run_tool({"morvlabel", "--output-mode=raw", image.path()});
  if (back.status != 0) fuzz::fail("the label of a changed volume cannot be printed");
  if (back.out != expected + "\n") fuzz::fail("the changed volume's label reads back differently");
  return 0;
}
