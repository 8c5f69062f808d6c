#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support_unix.hpp"
#include "unicode.hpp"

namespace {

using Units = std::vector<uint16_t>;

// Big-endian bytes of `units`, starting `offset` bytes into the buffer so
// that names at odd addresses are exercised too.
struct BeName {
  std::vector<uint8_t> bytes;
  size_t offset;
  BeName(const Units& units, size_t off = 0) : bytes(off + 2 * units.size() + 2), offset(off) {
    for (size_t i = 0; i < units.size(); ++i) store_be16(&bytes[off + 2 * i], units[i]);
  }
  const uint16_t* p() const { return reinterpret_cast<const uint16_t*>(bytes.data() + offset); }
};

Units decompose(const Units& in) {
  Units out(4 * in.size() + 1);
  size_t n = 0;
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), out.size(), &n), 0);
  out.resize(n);
  return out;
}

Units compose(const Units& in) {
  Units out(in.size() + 1);
  size_t n = 0;
  EXPECT_EQ(morv_unicode_compose_string(BeName(in).p(), in.size(), out.data(), out.size(), &n), 0);
  out.resize(n);
  return out;
}

Units sequence_of(const uint16_t* row, size_t first) {
  Units seq;
  for (size_t k = first; k < first + kUnicodeMaxDecomposition && row[k] != 0; ++k) seq.push_back(row[k]);
  return seq;
}

}  // namespace

TEST(UnicodeTables, EveryRowDecomposesFullyAndComposesBack) {
  std::map<uint16_t, Units> decompositions;
  for (const auto& row : morv_unicode_decomposition_table) decompositions[row[0]] = sequence_of(row, 1);
  ASSERT_EQ(decompositions.size(), kUnicodeTableRows);
  for (const auto& [unit, seq] : decompositions) {
    SCOPED_TRACE(testing::Message() << std::hex << "U+" << unit);
    uint16_t out[kUnicodeMaxDecomposition] = {};
    ASSERT_EQ(morv_unicode_decompose_char(unit, out), seq.size());
    EXPECT_EQ(Units(out, out + seq.size()), seq);
    for (uint16_t u : seq) EXPECT_EQ(decompositions.count(u), 0u) << "not applied recursively";
    EXPECT_EQ(compose(seq), Units{unit});
  }
  // The composition table holds the same pairs, each reachable on its own.
  for (const auto& row : morv_unicode_composition_table) {
    const Units seq = sequence_of(row, 0);
    EXPECT_EQ(decompositions.at(row[4]), seq);
    size_t consumed = 9;
    EXPECT_EQ(morv_unicode_compose_at(BeName(seq, 1).p(), seq.size(), &consumed), row[4]);
    EXPECT_EQ(consumed, seq.size() - 1);
  }
  uint16_t out[kUnicodeMaxDecomposition] = {};
  for (uint16_t plain : {0x0041, 0x2126, 0xF900, 0x01F8, 0xFFFF}) {
    EXPECT_EQ(morv_unicode_decompose_char(plain, out), 1u);
    EXPECT_EQ(out[0], plain);
  }
}

TEST(UnicodeHangul, WholeSyllableBlockRoundTrips) {
  uint16_t out[kUnicodeMaxDecomposition] = {};
  ASSERT_EQ(morv_unicode_decompose_char(0xAC00, out), 2u);
  EXPECT_EQ(Units(out, out + 2), (Units{0x1100, 0x1161}));
  ASSERT_EQ(morv_unicode_decompose_char(0xAC01, out), 3u);
  EXPECT_EQ(Units(out, out + 3), (Units{0x1100, 0x1161, 0x11A8}));
  ASSERT_EQ(morv_unicode_decompose_char(0xD7A3, out), 3u);
  EXPECT_EQ(Units(out, out + 3), (Units{0x1112, 0x1175, 0x11C2}));
  for (uint32_t s = 0xAC00; s <= 0xD7A3; ++s) {
    const size_t n = morv_unicode_decompose_char(static_cast<uint16_t>(s), out);
    ASSERT_EQ(n, (s - 0xAC00) % 28 == 0 ? 2u : 3u);
    size_t consumed = 0;
    ASSERT_EQ(morv_unicode_compose_at(BeName(Units(out, out + n)).p(), n, &consumed), s);
    ASSERT_EQ(consumed, n - 1);
  }
  // A jamo that does not continue the syllable is left for the next step.
  EXPECT_EQ(compose({0x1100, 0x1161, 0x0041, 0x1161}), (Units{0xAC00, 0x0041, 0x1161}));
}

TEST(UnicodeCompose, GreedySequencesSingleUnitRowsAndCapacity) {
  EXPECT_EQ(compose({0x0041, 0x0302, 0x0300}), Units{0x1EA6});
  EXPECT_EQ(compose({0x0041, 0x0302}), Units{0x00C2});
  EXPECT_EQ(compose({';'}), Units{0x037E});
  EXPECT_EQ(compose({0x00C6, 'x'}), (Units{0x04D4, 'x'}));
  // Marks are not reordered: A, grave, circumflex keeps the circumflex apart.
  EXPECT_EQ(compose({0x0041, 0x0300, 0x0302}), (Units{0x00C0, 0x0302}));
  EXPECT_EQ(compose({0x03B1, 0x0345, 0x0313}), Units{0x1F80});
  EXPECT_EQ(compose({0x03B1, 0x0313, 0x0345}), (Units{0x1F00, 0x0345}));
  // A 0 unit ends the input.
  EXPECT_EQ(compose({'a', 0, 'b'}), Units{'a'});

  const BeName name({0x0041, 0x0302, 0x0300, 'b'});
  uint16_t out[3] = {7, 7, 7};
  size_t n = 99;
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 4, out, 2, &n), 0);
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(out[2], 7) << "no terminator beyond the capacity";
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 4, out, 1, &n), 1);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(out[0], 0x1EA6);
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 4, out, 0, &n), 1);
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 0, out, 0, &n), 0);
  EXPECT_EQ(morv_unicode_hfsplus_to_windows_string_length(name.p(), 4), 2u);
}

TEST(UnicodeDecompose, ExactAndShortBuffers) {
  const Units in = {0x00C0, 0xAC01, 'z'};
  EXPECT_EQ(decompose(in), (Units{0x0041, 0x0300, 0x1100, 0x1161, 0x11A8, 'z'}));
  EXPECT_EQ(morv_unicode_windows_to_hfsplus_string_length(in.data(), in.size()), 6u);
  size_t n = 99;
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), nullptr, 0, &n), 0);
  EXPECT_EQ(n, 6u);

  Units out(7, 0xEEEE);
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), 6, &n), 0);
  EXPECT_EQ(n, 6u);
  EXPECT_EQ(out[6], 0xEEEE) << "exact size: no terminator";
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), 7, &n), 0);
  EXPECT_EQ(out[6], 0);
  out.assign(7, 0xEEEE);
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), 4, &n), 1);
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(out, (Units{0x0041, 0x0300, 0x1100, 0x1161, 0xEEEE, 0xEEEE, 0xEEEE}));
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), 1, out.data(), 0, &n), 1);
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), 0, out.data(), 0, &n), 0);
  // A 0 unit is decomposed like any other.
  const Units with_zero = {'a', 0, 0x00C0};
  EXPECT_EQ(decompose(with_zero), (Units{'a', 0, 0x0041, 0x0300}));
}

TEST(UnicodeDecompose, FullLengthNameNeedsNoAllocation) {
  const Units composed(85, 0x1EA6);  // three units each once decomposed
  Units decomposed(255);
  Units recomposed(86);
  size_t n = 0;
  size_t m = 0;
  morv_seam_reset_stats();
  ASSERT_EQ(morv_unicode_decompose_string(composed.data(), 85, decomposed.data(), 255, &n), 0);
  const BeName be(decomposed);
  ASSERT_EQ(morv_unicode_compose_string(be.p(), 255, recomposed.data(), 86, &m), 0);
  EXPECT_EQ(morv_seam_get_stats().allocs, 0u);
  EXPECT_EQ(n, 255u);
  EXPECT_EQ(Units(recomposed.begin(), recomposed.begin() + m), composed);
}

namespace {
std::string to_utf8(const Units& units, int endianness, morv_err* err) {
  char* out = nullptr;
  size_t len = 0;
  *err = morv_unistr_to_utf8(units.data(), units.size(), endianness, &out, &len);
  if (*err != MORV_OK) {
    EXPECT_EQ(out, nullptr);
    return "";
  }
  std::string result(out, len);
  EXPECT_EQ(out[len], '\0');
  free(out);
  return result;
}

Units to_units(const std::string& s, morv_err* err) {
  uint16_t* out = nullptr;
  size_t len = 99;
  *err = morv_utf8_to_unistr(s.data(), s.size(), &out, &len);
  if (*err != MORV_OK) {
    EXPECT_EQ(out, nullptr);
    return {};
  }
  Units result(out, out + len);
  EXPECT_EQ(out[len], 0);
  free(out);
  return result;
}
}  // namespace

TEST(UnicodeToUtf8, EncodingsSurrogatesAndEndianness) {
  morv_err err = 0;
  EXPECT_EQ(to_utf8({'A', 0x00E9, 0x20AC, 0xD83D, 0xDE00}, 0, &err),
            "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(err, MORV_OK);
  EXPECT_EQ(to_utf8({'a', 0, 'b'}, 0, &err), "a");
  EXPECT_EQ(to_utf8({0x4100, 0xE900}, kUnicodeBigEndian, &err), "A\xC3\xA9");
  EXPECT_EQ(to_utf8({'A'}, kUnicodeLittleEndian, &err), "A");
  for (const Units& bad : {Units{0xDC00}, Units{0xD800, 'a'}, Units{'a', 0xD800},
                           Units{0xD800, 0, 0xDC00}, Units{0xD800, 0xD800}}) {
    EXPECT_EQ(to_utf8(bad, 0, &err), "");
    EXPECT_EQ(err, MORV_ERR_INVALID_ARGUMENT);
  }
  // The byte order is examined per unit: an empty string passes with any.
  EXPECT_EQ(to_utf8({}, 5, &err), "");
  EXPECT_EQ(err, MORV_OK);
  testing::internal::CaptureStderr();
  EXPECT_EQ(to_utf8({'a'}, 5, &err), "");
  EXPECT_EQ(err, MORV_ERR_INVALID_ARGUMENT);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "morv_unicode_unistr_to_utf8, line "),
            std::string::npos);
}

TEST(UnicodeToUtf8, CallerBuffersAndAllocationFailure) {
  const Units units = {'A', 0x00E9};
  char buffer[5] = {'x', 'x', 'x', 'x', 'x'};
  char* out = buffer;
  size_t len = 2;
  EXPECT_EQ(morv_unicode_unistr_to_utf8(units.data(), 2, 0, &out, &len), MORV_ERR_OVERFLOW);
  EXPECT_EQ(std::string(buffer, 5), "xxxxx");
  EXPECT_EQ(len, 2u);
  len = 3;  // exactly the size: accepted, the 0 byte goes one beyond
  EXPECT_EQ(morv_unicode_unistr_to_utf8(units.data(), 2, 0, &out, &len), MORV_OK);
  EXPECT_EQ(out, buffer);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(std::string(buffer, 5), std::string("A\xC3\xA9\0x", 5));

  for (uint64_t n = 1;; ++n) {
    morv_seam_fail_at(MORV_SEAM_ALLOC, n);
    char* result = nullptr;
    size_t result_len = 77;
    const morv_err err = morv_unicode_unistr_to_utf8(units.data(), 2, 0, &result, &result_len);
    const bool failed = morv_seam_failure_delivered();
    morv_seam_fail_at(0, 0);
    if (!failed) {
      ASSERT_EQ(err, MORV_OK);
      EXPECT_STREQ(result, "A\xC3\xA9");
      free(result);
      break;
    }
    EXPECT_EQ(err, MORV_ERR_NO_MEMORY);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(result_len, 77u);
  }
}

TEST(Utf8ToUnistr, DecodingAndInvalidForms) {
  morv_err err = 0;
  EXPECT_EQ(to_units("A\xF0\x9F\x98\x80", &err), (Units{0x0041, 0xD83D, 0xDE00}));
  EXPECT_EQ(to_units("\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF", &err), (Units{0x00E9, 0x20AC, 0xFFFF}));
  EXPECT_EQ(to_units("", &err), Units{});
  EXPECT_EQ(err, MORV_OK);
  for (const char* bad : {"\xE0\x80\x80", "\xED\xA0\x80", "\xC0\x80", "\x80", "a\xC3", "\xE2\x82",
                          "\xF0\x9F\x98", "\xC3\x41", "\xE2\x28\xA1", "\xF0\x9F\x28\x80"}) {
    EXPECT_EQ(to_units(bad, &err), Units{}) << bad;
    EXPECT_EQ(err, MORV_ERR_INVALID_ARGUMENT) << bad;
  }
  testing::internal::CaptureStderr();
  to_units("a\xF5", &err);
  EXPECT_EQ(err, MORV_ERR_INVALID_ARGUMENT);
  std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("] Error while getting UTF-16 size for UTF-8 string.\n"), std::string::npos);
  // A four-byte form beyond U+10FFFF stops the conversion short of the count.
  testing::internal::CaptureStderr();
  to_units("\xF4\x90\x80\x80z", &err);
  EXPECT_EQ(err, MORV_ERR_INTERNAL);
  log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("] Internal error - Filled length is not as expected. Expected: 3 Actual: 2\n"),
            std::string::npos);
}

TEST(Utf8ToUnistr, CallerBuffersAndAllocationReportedAsSuccess) {
  uint16_t buffer[4] = {9, 9, 9, 9};
  uint16_t* out = buffer;
  size_t len = 3;
  EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &out, &len), MORV_OK);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(Units(buffer, buffer + 4), (Units{'a', 'b', 'c', 9})) << "not terminated";
  len = 4;
  EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &out, &len), MORV_OK);
  EXPECT_EQ(buffer[3], 0);
  len = 2;
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &out, &len), MORV_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &out, nullptr), MORV_ERR_INVALID_ARGUMENT);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("*outs_len (2) < shorts (3)\n"), std::string::npos);
  EXPECT_NE(log.find("Preallocated 'outs', but no 'outs_len' specified."), std::string::npos);

  uint16_t* result = nullptr;
  len = 55;
  morv_seam_fail_at(MORV_SEAM_ALLOC, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &result, &len), MORV_OK);
  EXPECT_TRUE(morv_seam_failure_delivered());
  morv_seam_fail_at(0, 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(
                "] Error while allocating 8 bytes for UTF-16 result.\n"),
            std::string::npos);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(len, 0u);
}

namespace {
// Reference ordering built from the project's case-folding data.
class FoldingReference {
 public:
  FoldingReference() {
    std::ifstream data(MORV_SOURCE_DIR "/scripts/data/hfsplus-case-folding.txt");
    std::string line;
    while (std::getline(data, line)) {
      if (line.empty() || line[0] == '#') continue;
      std::istringstream fields(line);
      unsigned unit = 0, folded = 0;
      fields >> std::hex >> unit >> folded;
      fold_[static_cast<uint16_t>(unit)] = static_cast<uint16_t>(folded);
    }
  }
  size_t size() const { return fold_.size(); }
  uint16_t fold(uint16_t u) const {
    auto it = fold_.find(u);
    return it == fold_.end() ? u : it->second;
  }
  int compare(const Units& a, const Units& b, bool binary) const {
    const Units ka = key(a, binary), kb = key(b, binary);
    return ka == kb ? 0 : (ka < kb ? -1 : 1);
  }

 private:
  Units key(const Units& name, bool binary) const {
    Units k;
    for (uint16_t u : name) {
      if (binary && u == 0) break;
      const uint16_t f = binary ? u : fold(u);
      if (f != 0) k.push_back(f);
    }
    return k;
  }
  std::map<uint16_t, uint16_t> fold_;
};

int compare(const Units& a, const Units& b, bool binary, size_t offset = 0) {
  return morv_unicode_compare_names(BeName(a, offset).p(), a.size(), BeName(b, 1 - offset).p(),
                                    b.size(), binary);
}
}  // namespace

TEST(UnicodeCompareNames, EdgeCases) {
  EXPECT_EQ(compare({'a'}, {'A'}, false), 0);
  EXPECT_EQ(compare({'A'}, {'a'}, true), -1);
  EXPECT_EQ(compare({'a'}, {'A'}, true), 1);
  const Units name = {'N', 'a', 'm', 'e'};
  for (size_t at = 0; at <= name.size(); ++at) {
    Units joined = name;
    joined.insert(joined.begin() + static_cast<long>(at), 0x200D);
    EXPECT_EQ(compare(joined, name, false), 0);
    EXPECT_EQ(compare(name, joined, false, 1), 0);
  }
  EXPECT_EQ(compare({}, {}, false), 0);
  EXPECT_EQ(compare({}, {'a'}, false), -1);
  EXPECT_EQ(compare({}, {0x200C, 0xFEFF}, false), 0);
  EXPECT_EQ(compare({'A', 0}, {'A'}, true), 0);
  EXPECT_EQ(compare({'A', 0, 'x'}, {'A', 0, 'y'}, true), 0);
  EXPECT_EQ(compare({'a', 'b'}, {'a', 'b', 'c'}, true), -1);
  for (uint16_t other : {0x0001, 0x0041, 0x00E9, 0x4E2D, 0xFFFE}) {
    EXPECT_EQ(compare({'x', 0, 'y'}, {'x', other, 'y'}, false), 1) << other;
  }
}

TEST(UnicodeCompareNames, AgreesWithTheFoldingData) {
  const FoldingReference ref;
  ASSERT_EQ(ref.size(), 329u);
  // Every unit against its reference folding and against a fixed letter.
  for (uint32_t u = 0; u <= 0xFFFF; ++u) {
    const uint16_t f = ref.fold(static_cast<uint16_t>(u));
    const Units one = {static_cast<uint16_t>(u)};
    ASSERT_EQ(compare(one, {'m'}, false), ref.compare(one, {'m'}, false)) << u;
    if (f != 0 && ref.fold(f) == f) {
      ASSERT_EQ(compare(one, {f}, false), 0) << u;
    }
  }
  // Random names over an alphabet of cases, ignorables, U+0000 and page edges.
  const Units alphabet = {'a', 'A', 'b', 'Z', 0x00C6, 0x00E6, 0x200D, 0xFEFF, 0x0000, 0x0130,
                          0x03A3, 0x03C3, 0x0410, 0x0430, 0x10A0, 0x2160, 0x2170, 0xFF21,
                          0xFF41, 0xFFFF, 0x0100, 0x0101, 0x00FF};
  uint32_t seed = 12345;
  auto next = [&seed](uint32_t bound) {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) % bound;
  };
  auto random_name = [&]() {
    Units n(next(6));
    for (auto& u : n) u = alphabet[next(static_cast<uint32_t>(alphabet.size()))];
    return n;
  };
  for (int i = 0; i < 20000; ++i) {
    const Units a = random_name(), b = random_name();
    for (bool binary : {false, true}) {
      const int expected = ref.compare(a, b, binary);
      ASSERT_EQ(compare(a, b, binary), expected);
      ASSERT_EQ(compare(b, a, binary, 1), -expected);
    }
  }
}
