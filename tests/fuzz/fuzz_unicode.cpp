// SPDX-License-Identifier: MIT
// Fuzz target: the Unicode converters, decomposition, composition and the
// name orderings.
//
// The input is read three ways: as UTF-8 bytes; from byte 2 on as 16-bit
// units (host order for conversion and decomposition, big-endian for
// composition and comparison); and as three names a, b, c cut from those
// units at the points that bytes 0 and 1 choose.
//
// Properties. UTF-8 to UTF-16: the input (without NUL) is accepted exactly
// when it is well-formed, and then converts back to itself; a caller buffer
// of exactly the result's units passes, one unit less is refused. UTF-16 to
// UTF-8: accepted exactly when the units up to the first 0 are well-formed
// UTF-16, the result is well-formed UTF-8 that converts back to those units;
// big-endian input, when accepted, gives the same bytes; a caller buffer of
// the result's size passes, one byte less overflows. Decomposition and composition: the counted
// size equals the length functions and the filled size; a buffer of exactly
// that size passes without a terminator, one unit less overflows after the
// units that fitted; decomposition is idempotent; composing a decomposed
// string decomposes back to it. Orderings, binary and case-insensitive: a
// name equals itself, results are -1, 0 or 1, antisymmetric and transitive.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "morv.hpp"
#include "unicode.hpp"

namespace {

using units_t = std::vector<uint16_t>;

// The units before the first 0 unit.
units_t until_zero(const units_t& u) {
  units_t out;
  for (uint16_t x : u) {
    if (x == 0) break;
    out.push_back(x);
  }
  return out;
}

bool valid_utf16(const units_t& u) {
  for (size_t i = 0; i < u.size(); ++i) {
    if (u[i] >= 0xD800 && u[i] <= 0xDBFF) {
      if (i + 1 == u.size() || u[i + 1] < 0xDC00 || u[i + 1] > 0xDFFF) return false;
      ++i;
    } else if (u[i] >= 0xDC00 && u[i] <= 0xDFFF) {
      return false;
    }
  }
  return true;
}

// Allocating UTF-16 to UTF-8; the bytes in *out on success.
morv_err to_utf8(const units_t& u, int endianness, std::string* out) {
  char* bytes = nullptr;
  size_t length = 0;
  const morv_err err = morv_unicode_unistr_to_utf8(u.data(), u.size(), endianness, &bytes, &length);
  if (err) return err;
  if (bytes[length] != '\0') fuzz::fail("unistr_to_utf8: no terminator");
  out->assign(bytes, length);
  free(bytes);
  return MORV_OK;
}

// Allocating UTF-8 to UTF-16; the units in *out on success.
morv_err to_utf16(const std::string& s, units_t* out) {
  uint16_t* units = nullptr;
  size_t count = 0;
  const morv_err err = morv_unicode_utf8_to_unistr(s.data(), s.size(), &units, &count);
  if (err) return err;
  if (!units) fuzz::fail("utf8_to_unistr: success without a result");
  if (units[count] != 0) fuzz::fail("utf8_to_unistr: no terminator");
  out->assign(units, units + count);
  free(units);
  return MORV_OK;
}

void check_utf8_to_utf16(const std::string& s) {
  units_t units;
  const morv_err err = to_utf16(s, &units);
  if (s.find('\0') != std::string::npos) return;  // a NUL inside `len` is refused as a miscount
  if ((err == MORV_OK) != fuzz::valid_utf8(s))
    fuzz::fail("utf8_to_unistr returned %llu on %s UTF-8", morv_ull(err),
               fuzz::valid_utf8(s) ? "well-formed" : "ill-formed");
  if (err) return;
  std::string back;
  if (to_utf8(units, 0, &back) || back != s) fuzz::fail("UTF-8 -> UTF-16 -> UTF-8 is not the input");

  // Caller buffers: exactly the units (no room for a terminator), then one less.
  std::vector<uint16_t> exact(units.size() + 1, 0xAAAA);
  uint16_t* p = exact.data();
  size_t n = units.size();
  if (morv_unicode_utf8_to_unistr(s.data(), s.size(), &p, &n) || n != units.size() ||
      !std::equal(units.begin(), units.end(), exact.begin()) || exact[units.size()] != 0xAAAA)
    fuzz::fail("utf8_to_unistr into a buffer of exactly the result's units");
  if (!units.empty()) {
    n = units.size() - 1;
    if (morv_unicode_utf8_to_unistr(s.data(), s.size(), &p, &n) != MORV_ERR_INVALID_ARGUMENT)
      fuzz::fail("utf8_to_unistr into a buffer one unit short");
  }
}

void check_utf16_to_utf8(const units_t& units) {
  const units_t used = until_zero(units);
  std::string text;
  const morv_err err = to_utf8(units, 0, &text);
  if ((err == MORV_OK) != valid_utf16(used))
    fuzz::fail("unistr_to_utf8 returned %llu on %s UTF-16", morv_ull(err),
               valid_utf16(used) ? "well-formed" : "ill-formed");
  std::string little;
  if (to_utf8(units, kUnicodeLittleEndian, &little) != err || (!err && little != text))
    fuzz::fail("unistr_to_utf8: little-endian differs from host order");
  units_t swapped(units);
  for (uint16_t& u : swapped) u = morv_swap16(u);
  std::string big;
  // The sizing pass reads big-endian units unswapped (kept as it stands), so
  // only results that both orders accept are compared.
  if (to_utf8(swapped, kUnicodeBigEndian, &big) == MORV_OK && !err && big != text)
    fuzz::fail("unistr_to_utf8: big-endian input gives other bytes");
  if (err) return;
  if (!fuzz::valid_utf8(text)) fuzz::fail("unistr_to_utf8 produced ill-formed UTF-8");
  units_t back;
  if (to_utf16(text, &back) || back != used) fuzz::fail("UTF-16 -> UTF-8 -> UTF-16 is not the input");

  // Caller buffers: the result's size plus the terminator, then one byte less.
  std::vector<char> exact(text.size() + 1);
  char* p = exact.data();
  size_t n = text.size();
  if (morv_unicode_unistr_to_utf8(units.data(), units.size(), 0, &p, &n) || n != text.size() ||
      std::string(exact.data(), n) != text || exact[n] != '\0')
    fuzz::fail("unistr_to_utf8 into a buffer of exactly the result's size");
  if (!text.empty()) {
    n = text.size() - 1;
    if (morv_unicode_unistr_to_utf8(units.data(), units.size(), 0, &p, &n) != MORV_ERR_OVERFLOW)
      fuzz::fail("unistr_to_utf8 into a buffer one byte short");
  }
}

// Runs a string function (decompose or compose) counting, into an exact
// buffer, one with room for the terminator and one a unit short; returns
// the result.
template <typename F>
units_t check_sizes(F run, size_t expected_count, const char* what) {
  size_t count = 0;
  if (run(nullptr, 0, &count) != 0) fuzz::fail("%s: counting overflowed", what);
  if (count != expected_count) fuzz::fail("%s: the length function disagrees with the count", what);
  std::vector<uint16_t> exact(count + 1, 0xAAAA);
  size_t filled = 0;
  if (count > 0 && (run(exact.data(), count, &filled) != 0 || filled != count || exact[count] != 0xAAAA))
    fuzz::fail("%s: a buffer of exactly the counted size", what);
  if (run(exact.data(), count + 1, &filled) != 0 || filled != count || exact[count] != 0)
    fuzz::fail("%s: a buffer with room for the terminator", what);
  const units_t result(exact.begin(), exact.begin() + static_cast<long>(count));
  if (count > 1) {
    std::vector<uint16_t> shorter(count - 1, 0xAAAA);
    if (run(shorter.data(), count - 1, &filled) != 1 || filled != count - 1 ||
        !std::equal(shorter.begin(), shorter.end(), result.begin()))
      fuzz::fail("%s: a buffer one unit short", what);
  }
  return result;
}

units_t decompose(const units_t& in) {
  const auto run = [&](uint16_t* out, size_t capacity, size_t* count) {
    return morv_unicode_decompose_string(in.data(), in.size(), out, capacity, count);
  };
  return check_sizes(run, morv_unicode_windows_to_hfsplus_string_length(in.data(), in.size()),
                     "decompose");
}

units_t compose_big_endian(const units_t& be) {
  const auto run = [&](uint16_t* out, size_t capacity, size_t* count) {
    return morv_unicode_compose_string(be.data(), be.size(), out, capacity, count);
  };
  return check_sizes(run, morv_unicode_hfsplus_to_windows_string_length(be.data(), be.size()),
                     "compose");
}

units_t to_big_endian(const units_t& host) {
  units_t be(host.size());
  for (size_t i = 0; i < host.size(); ++i) store_be16(reinterpret_cast<uint8_t*>(&be[i]), host[i]);
  return be;
}

void check_normalization(const units_t& units) {
  const units_t d = decompose(units);
  if (decompose(d) != d) fuzz::fail("decomposition is not idempotent");
  const units_t composed = compose_big_endian(to_big_endian(units));
  if (composed.size() > until_zero(units).size()) fuzz::fail("composition grew the string");
  // A decomposed string without 0 units composes to something that
  // decomposes back to it: the two tables hold the same pairs.
  if (d == units && until_zero(units) == units && decompose(composed) != units)
    fuzz::fail("composing a decomposed string does not decompose back to it");
}

void check_ordering(const units_t& a, const units_t& b, const units_t& c) {
  for (int binary = 0; binary <= 1; ++binary) {
    const auto cmp = [binary](const units_t& x, const units_t& y) {
      const int r = morv_unicode_compare_names(x.data(), x.size(), y.data(), y.size(), binary);
      if (r < -1 || r > 1) fuzz::fail("compare_names returned %d", r);
      return r;
    };
    if (cmp(a, a) != 0) fuzz::fail("a name does not equal itself (binary %d)", binary);
    const int ab = cmp(a, b);
    const int bc = cmp(b, c);
    if (cmp(b, a) != -ab) fuzz::fail("compare_names is not antisymmetric (binary %d)", binary);
    const int ac = cmp(a, c);
    // a <= b <= c gives a <= c, strictly when one step is strict.
    if (ab <= 0 && bc <= 0 && ac != (ab == 0 && bc == 0 ? 0 : -1))
      fuzz::fail("compare_names is not transitive (binary %d)", binary);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  check_utf8_to_utf16(std::string(reinterpret_cast<const char*>(data), size));
  if (size < 2) return 0;
  units_t units((size - 2) / 2);
  if (!units.empty()) memcpy(units.data(), data + 2, units.size() * 2);
  check_utf16_to_utf8(units);
  check_normalization(units);

  size_t cut1 = data[0] % (units.size() + 1);
  size_t cut2 = data[1] % (units.size() + 1);
  if (cut1 > cut2) std::swap(cut1, cut2);
  const units_t a(units.begin(), units.begin() + static_cast<long>(cut1));
  const units_t b(units.begin() + static_cast<long>(cut1), units.begin() + static_cast<long>(cut2));
  const units_t c(units.begin() + static_cast<long>(cut2), units.end());
  check_ordering(a, b, c);
  return 0;
}
