// SPDX-License-Identifier: MIT
// Helpers of the Unicode tests: names in big-endian form at any alignment,
// composition and decomposition of whole names, and a reference ordering of
// names built from the project's case-folding data.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support_unix.hpp"
#include "test_support.hpp"
#include "unicode.hpp"

namespace unicode_test {

using morv_test::has;
using morv_test::logged;

using Units = std::vector<uint16_t>;

// Big-endian bytes of `units`, `offset` bytes into the buffer so that names at
// odd addresses are exercised too.
struct BeName {
  std::vector<uint8_t> bytes;
  size_t offset;
  BeName(const Units& units, size_t off = 0) : bytes(off + 2 * units.size() + 2), offset(off) {
    for (size_t i = 0; i < units.size(); ++i) store_be16(&bytes[off + 2 * i], units[i]);
  }
  const uint16_t* p() const { return reinterpret_cast<const uint16_t*>(bytes.data() + offset); }
};

inline Units decompose_one(uint16_t unit) {
  uint16_t out[kUnicodeMaxDecomposition] = {};
  return Units(out, out + morv_unicode_decompose_char(unit, out));
}

inline Units compose(const Units& in) {
  Units out(in.size() + 1);
  size_t n = 0;
  EXPECT_EQ(morv_unicode_compose_string(BeName(in).p(), in.size(), out.data(), out.size(), &n), 0);
  out.resize(n);
  return out;
}

inline Units row_sequence(const uint16_t* first) {
  Units seq;
  for (size_t k = 0; k < kUnicodeMaxDecomposition && first[k] != 0; ++k) seq.push_back(first[k]);
  return seq;
}

// Reference ordering, built from the project's case-folding data: fold every
// unit, drop the ignorable ones (binary: stop at a 0 unit), compare the rest.
using FoldMap = std::map<uint16_t, uint16_t>;

inline FoldMap read_folding_data() {
  FoldMap fold;
  std::ifstream data(MORV_SOURCE_DIR "/scripts/data/hfsplus-case-folding.txt");
  for (std::string line; std::getline(data, line);) {
    unsigned unit = 0, folded = 0;
    if (!line.empty() && line[0] != '#' && std::istringstream(line) >> std::hex >> unit >> folded) {
      fold[static_cast<uint16_t>(unit)] = static_cast<uint16_t>(folded);
    }
  }
  return fold;
}

inline uint16_t fold_of(const FoldMap& fold, uint16_t u) { return fold.count(u) ? fold.at(u) : u; }

inline int reference_compare(const FoldMap& fold, const Units& a, const Units& b, bool binary) {
  auto key = [&](const Units& name) {
    Units k;
    for (uint16_t u : name) {
      if (binary && u == 0) break;
      if (const uint16_t f = binary ? u : fold_of(fold, u)) k.push_back(f);
    }
    return k;
  };
  const Units ka = key(a), kb = key(b);
  return ka == kb ? 0 : (ka < kb ? -1 : 1);
}

// Names compared at different alignments (`offset` 0 or 1).
inline int compare(const Units& a, const Units& b, bool binary, size_t offset = 0) {
  return morv_unicode_compare_names(BeName(a, offset).p(), a.size(), BeName(b, 1 - offset).p(),
                                    b.size(), binary);
}

}  // namespace unicode_test
