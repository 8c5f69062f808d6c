// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "unicode_test_support.hpp"

using namespace unicode_test;

TEST(UnicodeTables, EveryRowDecomposesFullyAndComposesBack) {
  std::map<uint16_t, Units> decompositions;
  for (const auto& row : morv_unicode_decomposition_table) decompositions[row[0]] = row_sequence(row + 1);
  ASSERT_EQ(decompositions.size(), kUnicodeTableRows);
  for (const auto& [unit, seq] : decompositions) {
    SCOPED_TRACE(testing::Message() << std::hex << "U+" << unit);
    EXPECT_EQ(decompose_one(unit), seq);
    for (uint16_t u : seq) EXPECT_EQ(decompositions.count(u), 0u) << "not applied recursively";
    EXPECT_EQ(compose(seq), Units{unit});
  }
  // The composition table holds the same pairs, each reachable on its own.
  for (const auto& row : morv_unicode_composition_table) {
    const Units seq = row_sequence(row);
    EXPECT_EQ(decompositions.at(row[4]), seq);
    size_t consumed = 9;
    EXPECT_EQ(morv_unicode_compose_at(BeName(seq, 1).p(), seq.size(), &consumed), row[4]);
    EXPECT_EQ(consumed, seq.size() - 1);
  }
  for (uint16_t plain : {0x0041, 0x2126, 0xF900, 0x01F8, 0xFFFF}) {
    EXPECT_EQ(decompose_one(plain), Units{plain});
  }
}

TEST(UnicodeHangul, WholeSyllableBlockRoundTrips) {
  EXPECT_EQ(decompose_one(0xAC01), (Units{0x1100, 0x1161, 0x11A8}));
  EXPECT_EQ(decompose_one(0xD7A3), (Units{0x1112, 0x1175, 0x11C2}));
  for (uint32_t s = 0xAC00; s <= 0xD7A3; ++s) {
    const Units jamo = decompose_one(static_cast<uint16_t>(s));
    ASSERT_EQ(jamo.size(), (s - 0xAC00) % 28 == 0 ? 2u : 3u);
    size_t consumed = 0;
    ASSERT_EQ(morv_unicode_compose_at(BeName(jamo).p(), jamo.size(), &consumed), s);
    ASSERT_EQ(consumed, jamo.size() - 1);
  }
  // A jamo that does not continue the syllable is left for the next step.
  EXPECT_EQ(compose({0x1100, 0x1161, 0x0041, 0x1161}), (Units{0xAC00, 0x0041, 0x1161}));
}

TEST(UnicodeCompose, GreedySequencesSingleUnitRowsAndCapacity) {
  EXPECT_EQ(compose({0x0041, 0x0302, 0x0300}), Units{0x1EA6});
  EXPECT_EQ(compose({0x0041, 0x0302}), Units{0x00C2});
  EXPECT_EQ(compose({';'}), Units{0x037E});
  EXPECT_EQ(compose({0x00C6, 'x'}), (Units{0x04D4, 'x'}));
  // Marks are not reordered in either direction.
  EXPECT_EQ(compose({0x0041, 0x0300, 0x0302}), (Units{0x00C0, 0x0302}));
  EXPECT_EQ(compose({0x03B1, 0x0313, 0x0345}), (Units{0x1F00, 0x0345}));
  EXPECT_EQ(compose({'a', 0, 'b'}), Units{'a'});  // a 0 unit ends the input
  // even behind a unit that a single-unit row replaces
  EXPECT_EQ(compose({';', 0, 'b'}), Units{0x037E});
  EXPECT_EQ(compose({'x', 0x00C6, 0, 0x0300}), (Units{'x', 0x04D4}));

  const BeName name({0x0041, 0x0302, 0x0300, 'b'});
  uint16_t out[3] = {7, 7, 7};
  size_t n = 99;
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 4, out, 2, &n), 0);
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(out[2], 7) << "no terminator beyond the capacity";
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 4, out, 1, &n), 1);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 4, out, 0, &n), 1);
  EXPECT_EQ(morv_unicode_compose_string(name.p(), 0, out, 0, &n), 0);
  EXPECT_EQ(morv_unicode_hfsplus_to_windows_string_length(name.p(), 4), 2u);
}

TEST(UnicodeDecompose, ExactAndShortBuffersAndFullLengthWithoutAllocation) {
  const Units in = {0x00C0, 0xAC01, 0, 'z'};  // a 0 unit is decomposed like any other
  const Units full = {0x0041, 0x0300, 0x1100, 0x1161, 0x11A8, 0, 'z'};
  EXPECT_EQ(morv_unicode_windows_to_hfsplus_string_length(in.data(), in.size()), 7u);
  Units out(8, 0xEEEE);
  size_t n = 99;
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), 7, &n), 0);
  EXPECT_EQ(n, 7u);
  EXPECT_EQ(Units(out.begin(), out.begin() + 7), full);
  EXPECT_EQ(out[7], 0xEEEE) << "exact size: no terminator";
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), 8, &n), 0);
  EXPECT_EQ(out[7], 0);
  out.assign(8, 0xEEEE);
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), in.size(), out.data(), 4, &n), 1);
  EXPECT_EQ(n, 4u);
  EXPECT_EQ(out, (Units{0x0041, 0x0300, 0x1100, 0x1161, 0xEEEE, 0xEEEE, 0xEEEE, 0xEEEE}));
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), 1, out.data(), 0, &n), 1);
  EXPECT_EQ(morv_unicode_decompose_string(in.data(), 0, out.data(), 0, &n), 0);
  // A full-length name both ways without allocating.
  const Units composed(85, 0x1EA6);  // three units each once decomposed
  Units decomposed(255), recomposed(86);
  size_t m = 0;
  morv_seam_reset_stats();
  ASSERT_EQ(morv_unicode_decompose_string(composed.data(), 85, decomposed.data(), 255, &n), 0);
  const BeName be(decomposed);
  ASSERT_EQ(morv_unicode_compose_string(be.p(), 255, recomposed.data(), 86, &m), 0);
  EXPECT_EQ(morv_seam_get_stats().allocs, 0u);
  EXPECT_EQ(n, 255u);
  EXPECT_EQ(Units(recomposed.begin(), recomposed.begin() + m), composed);
}

TEST(UnicodeToUtf8, EncodingsSurrogatesAndEndianness) {
  struct Case { Units in; int endianness; morv_err err; std::string out; };
  const Case cases[] = {
      {{'A', 0x00E9, 0x20AC, 0xD83D, 0xDE00}, 0, MORV_OK, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {{'a', 0, 'b'}, 0, MORV_OK, "a"},
      {{0x4100, 0xE900}, kUnicodeBigEndian, MORV_OK, "A\xC3\xA9"},
      {{'A'}, kUnicodeLittleEndian, MORV_OK, "A"},
      {{}, 5, MORV_OK, ""},  // the byte order is examined per unit
      // Sized on the unswapped unit (1 byte), U+0100 needs 2: refused, not overrun.
      {{0x0001}, kUnicodeBigEndian, MORV_ERR_OVERFLOW, ""},
      {{0xDC00}, 0, MORV_ERR_INVALID_ARGUMENT, ""},
      {{0xD800, 'a'}, 0, MORV_ERR_INVALID_ARGUMENT, ""},
      {{'a', 0xD800}, 0, MORV_ERR_INVALID_ARGUMENT, ""},
      {{0xD800, 0, 0xDC00}, 0, MORV_ERR_INVALID_ARGUMENT, ""},
      {{0xD800, 0xD800}, 0, MORV_ERR_INVALID_ARGUMENT, ""},
  };
  for (const Case& c : cases) {
    char* out = nullptr;
    size_t len = 0;
    EXPECT_EQ(morv_unistr_to_utf8(c.in.data(), c.in.size(), c.endianness, &out, &len), c.err);
    if (c.err != MORV_OK) { EXPECT_EQ(out, nullptr); }
    if (out != nullptr) { EXPECT_EQ(std::string(out, len + 1), c.out + '\0'); }
    free(out);
  }
  char* out = nullptr;
  size_t len = 0;
  const std::string log = logged([&] {
    EXPECT_EQ(morv_unistr_to_utf8(cases[1].in.data(), 1, 5, &out, &len), MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_EQ(log.rfind("[ERROR: morv_unicode_unistr_to_utf8, line ", 0), 0u) << log;
  EXPECT_TRUE(has(log, "] Unrecognized endianness: 5\n")) << log;
}

TEST(UnicodeToUtf8, CallerBuffersAndAllocationFailure) {
  const Units units = {'A', 0x00E9};
  char buffer[5] = {'x', 'x', 'x', 'x', 'x'};
  char* out = buffer;
  size_t len = 2;
  EXPECT_EQ(morv_unicode_unistr_to_utf8(units.data(), 2, 0, &out, &len), MORV_ERR_OVERFLOW);
  EXPECT_EQ(std::string(buffer, 5), "xxxxx");
  len = 3;  // exactly the size: accepted, the 0 byte goes one beyond
  EXPECT_EQ(morv_unicode_unistr_to_utf8(units.data(), 2, 0, &out, &len), MORV_OK);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(std::string(buffer, 5), std::string("A\xC3\xA9\0x", 5));

  char* result = nullptr;
  size_t result_len = 77;
  EXPECT_GT(morv_test::fail_each(MORV_SEAM_ALLOC, [&] {
    return morv_unicode_unistr_to_utf8(units.data(), 2, 0, &result, &result_len);
  }, [&](morv_err err, bool failed, uint64_t) {
    if (!failed) {
      ASSERT_EQ(err, MORV_OK);
      EXPECT_STREQ(result, "A\xC3\xA9");
      free(result);
      return;
    }
    EXPECT_EQ(err, MORV_ERR_NO_MEMORY);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(result_len, 77u);
  }), 0u);
}

TEST(Utf8ToUnistr, DecodingAndInvalidForms) {
  auto convert = [](const std::string& s, morv_err expected) {
    uint16_t* out = nullptr;
    size_t len = 99;
    EXPECT_EQ(morv_utf8_to_unistr(s.data(), s.size(), &out, &len), expected) << s;
    Units result;
    if (out != nullptr) result.assign(out, out + len + 1);
    free(out);
    return result;
  };
  EXPECT_EQ(convert("A\xF0\x9F\x98\x80", MORV_OK), (Units{0x0041, 0xD83D, 0xDE00, 0}));
  EXPECT_EQ(convert("\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF", MORV_OK), (Units{0xE9, 0x20AC, 0xFFFF, 0}));
  EXPECT_EQ(convert("", MORV_OK), Units{0});
  EXPECT_EQ(logged([&] {
    for (const char* bad : {"\xE0\x80\x80", "\xED\xA0\x80", "\xC0\x80", "\x80", "a\xC3", "\xE2\x82",
                            "\xF0\x9F\x98", "\xC3\x41", "\xE2\x28\xA1", "\xF0\x9F\x28\x80"}) {
      EXPECT_EQ(convert(bad, MORV_ERR_INVALID_ARGUMENT), Units{});
    }
  }), "") << "decoding errors are not logged";
  const std::string log = logged([&] {
    EXPECT_EQ(convert("a\xF5", MORV_ERR_INVALID_ARGUMENT), Units{});
    // A four-byte form beyond U+10FFFF stops the conversion short of the count.
    EXPECT_EQ(convert("\xF4\x90\x80\x80z", MORV_ERR_INTERNAL), Units{});
    // wherever it stands: it is never stored as two lone surrogates
    EXPECT_EQ(convert("z\xF4\x90\x80\x80", MORV_ERR_INTERNAL), Units{});
    // So does a 0 byte inside `len`; its unit must not be stored past the buffer.
    EXPECT_EQ(convert(std::string("a\0b", 3), MORV_ERR_INTERNAL), Units{});
  });
  EXPECT_TRUE(has(log, "] Error while getting UTF-16 size for UTF-8 string.\n")) << log;
  EXPECT_TRUE(has(log, "] Internal error - Filled length is not as expected. Expected: 3 Actual: 2\n"));
  EXPECT_TRUE(has(log, "Expected: 1 Actual: 2\n")) << log;
  EXPECT_TRUE(has(log, "] Internal error - Code point 0x110000 is beyond U+10FFFF.\n")) << log;
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
  std::string log = logged([&] {
    EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &out, &len), MORV_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &out, nullptr), MORV_ERR_INVALID_ARGUMENT);
  });
  EXPECT_TRUE(has(log, "] Preallocated buffer is too small to hold the UTF-16 result. "
                       "*outs_len (2) < shorts (3)\n")) << log;
  EXPECT_TRUE(has(log, "] Preallocated 'outs', but no 'outs_len' specified. *outs=")) << log;

  uint16_t* result = nullptr;
  len = 55;
  morv_seam_fail_at(MORV_SEAM_ALLOC, 1);
  log = logged([&] { EXPECT_EQ(morv_unicode_utf8_to_unistr("abc", 3, &result, &len), MORV_OK); });
  EXPECT_TRUE(morv_seam_failure_delivered());
  morv_seam_fail_at(0, 0);
  EXPECT_TRUE(has(log, "] Error while allocating 8 bytes for UTF-16 result.\n")) << log;
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(len, 0u);
}

TEST(UnicodeCompareNames, AgreesWithTheFoldingData) {
  // Fixed points of the ordering, which the reference must agree with too.
  EXPECT_EQ(compare({'a'}, {'A'}, false), 0);
  EXPECT_EQ(compare({'A'}, {'a'}, true), -1);
  EXPECT_EQ(compare({}, {0x200C, 0xFEFF}, false), 0);
  EXPECT_EQ(compare({'N', 0x200D, 'a'}, {'N', 'a'}, false, 1), 0);
  EXPECT_EQ(compare({'x', 0, 'y'}, {'x', 0xFFFE, 'y'}, false), 1);  // U+0000 sorts last
  EXPECT_EQ(compare({'A', 0, 'x'}, {'A', 0, 'y'}, true), 0);
  EXPECT_EQ(compare({'a', 'b'}, {'a', 'b', 'c'}, true), -1);
  const FoldMap fold = read_folding_data();
  ASSERT_EQ(fold.size(), 329u);
  // Every unit against its reference folding and against a fixed letter.
  for (uint32_t u = 0; u <= 0xFFFF; ++u) {
    const Units one = {static_cast<uint16_t>(u)};
    const uint16_t f = fold_of(fold, one[0]);
    ASSERT_EQ(compare(one, {'m'}, false), reference_compare(fold, one, {'m'}, false)) << u;
    if (f != 0 && fold_of(fold, f) == f) { ASSERT_EQ(compare(one, {f}, false), 0) << u; }
  }
  // Random names over cases, ignorables, U+0000 and the edges of the pages.
  const Units alphabet = {'a', 'A', 'b', 'Z', 0x00C6, 0x00E6, 0x200D, 0xFEFF, 0x0000, 0x0130,
                          0x03A3, 0x03C3, 0x0410, 0x0430, 0x10A0, 0x2160, 0x2170, 0xFF21,
                          0xFF41, 0xFFFF, 0x0100, 0x0101, 0x00FF};
  uint32_t seed = 12345;
  auto random_name = [&]() {
    auto next = [&seed](uint32_t bound) { return ((seed = seed * 1103515245u + 12345u) >> 16) % bound; };
    Units n(next(6));
    for (auto& u : n) u = alphabet[next(static_cast<uint32_t>(alphabet.size()))];
    return n;
  };
  for (int i = 0; i < 20000; ++i) {
    const Units a = random_name(), b = random_name();
    for (bool binary : {false, true}) {
      const int expected = reference_compare(fold, a, b, binary);
      ASSERT_EQ(compare(a, b, binary), expected);
      ASSERT_EQ(compare(b, a, binary, 1), -expected);
    }
  }
}
