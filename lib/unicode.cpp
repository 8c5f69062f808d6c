// SPDX-License-Identifier: MIT
// Unicode handling of HFS+ names.
//
// Names on disk are UTF-16, big-endian, at most 255 units, in the HFS+
// canonical decomposition: precomposed letters are stored as base letter and
// combining marks (U+00C0 as U+0041 U+0300), Hangul syllables as their jamo.
// The decomposition and composition tables (942 rows each, generated) hold the
// same pairs in two orders so that both directions are a binary search; the
// 17 single-unit composition rows deliberately replace a lone unit (U+00C6
// composes to U+04D4), as the HFS+ tables do.
//
// Catalog names are ordered either by raw 16-bit units or case-insensitively
// through the HFS+ case-folding table, in which some units are ignorable
// (fold to 0) and U+0000 folds to 0xFFFF so that it sorts after everything.
// A wrong table entry misorders a catalog without any visible error, which is
// why the tables are generated and checked rather than written by hand.
//
// Big-endian names are read byte-wise, so they may sit at any address.
#include "unicode.hpp"

#include <sys/types.h>

#include <cstdint>

#include "support_unix.hpp"

namespace {
constexpr const char* kLogSource = "unicode";

// ---- UTF-16 and UTF-8 forms ----

constexpr uint16_t kHighSurrogateFirst = 0xD800;
constexpr uint16_t kHighSurrogateLast = 0xDBFF;
constexpr uint16_t kLowSurrogateFirst = 0xDC00;
constexpr uint16_t kLowSurrogateLast = 0xDFFF;
constexpr uint32_t kSupplementaryFirst = 0x10000;
constexpr uint32_t kCodePointLast = 0x10FFFF;
constexpr unsigned kSurrogateShift = 10;
constexpr uint32_t kSurrogateLowMask = 0x3FF;

constexpr uint32_t kOneByteLast = 0x7F;
constexpr uint32_t kTwoByteLast = 0x7FF;
constexpr uint32_t kThreeByteFirst = 0x800;
constexpr uint8_t kContinuationTag = 0x80;
constexpr uint8_t kContinuationMask = 0xC0;
constexpr uint8_t kContinuationBits = 0x3F;
constexpr uint8_t kTwoByteTag = 0xC0;
constexpr uint8_t kThreeByteTag = 0xE0;
constexpr uint8_t kFourByteTag = 0xF0;
constexpr uint8_t kTwoByteLeadBits = 0x1F;
constexpr uint8_t kThreeByteLeadBits = 0x0F;
constexpr uint8_t kFourByteLeadBits = 0x07;
// Lead bytes: 0x80..0xC1 never start a character (continuations, overlong
// two-byte forms); 0xF5..0xFF would encode beyond U+13FFFF.
constexpr uint8_t kTwoByteLeadFirst = 0xC2;
constexpr uint8_t kContinuationLast = 0xBF;
constexpr uint8_t kTwoByteLeadLast = 0xDF;
constexpr uint8_t kFourByteLeadLast = 0xF4;

constexpr size_t kMaxUtf8Bytes = 4;

bool is_high_surrogate(uint32_t u) { return u >= kHighSurrogateFirst && u <= kHighSurrogateLast; }
bool is_low_surrogate(uint32_t u) { return u >= kLowSurrogateFirst && u <= kLowSurrogateLast; }
bool is_continuation(uint8_t b) { return (b & kContinuationMask) == kContinuationTag; }
uint32_t payload(uint8_t continuation) { return continuation & kContinuationBits; }
bool known_endianness(int e) {
  return e == kUnicodeHostOrder || e == kUnicodeBigEndian || e == kUnicodeLittleEndian;
}

// UTF-8 size of host-order units up to `count` or the first 0 unit. The
// result may equal `limit` but not exceed it.
[[nodiscard]] morv_err utf8_size_of_unistr(const uint16_t* units, size_t count, size_t limit,
                                           size_t* out_size) {
  size_t size = 0;
  bool high_pending = false;
  for (size_t i = 0; i < count && units[i] != 0; ++i) {
    const uint16_t u = units[i];
    if (high_pending) {
      if (!is_low_surrogate(u)) return MORV_ERR_INVALID_ARGUMENT;
      high_pending = false;
      size += kMaxUtf8Bytes;
    } else if (is_high_surrogate(u)) {
      high_pending = true;
      continue;
    } else if (is_low_surrogate(u)) {
      return MORV_ERR_INVALID_ARGUMENT;
    } else {
      size += u <= kOneByteLast ? 1 : u <= kTwoByteLast ? 2 : 3;
    }
    if (size > limit) return MORV_ERR_OVERFLOW;
  }
  if (high_pending) return MORV_ERR_INVALID_ARGUMENT;
  *out_size = size;
  return MORV_OK;
}

// Standard UTF-8 bytes of one code point (no surrogates).
size_t encode_code_point(uint32_t cp, uint8_t bytes[kMaxUtf8Bytes]) {
  if (cp <= kOneByteLast) {
    bytes[0] = static_cast<uint8_t>(cp);
    return 1;
  }
  if (cp <= kTwoByteLast) {
    bytes[0] = static_cast<uint8_t>(kTwoByteTag | (cp >> 6));
    bytes[1] = static_cast<uint8_t>(kContinuationTag | (cp & kContinuationBits));
    return 2;
  }
  if (cp < kSupplementaryFirst) {
    bytes[0] = static_cast<uint8_t>(kThreeByteTag | (cp >> 12));
    bytes[1] = static_cast<uint8_t>(kContinuationTag | ((cp >> 6) & kContinuationBits));
    bytes[2] = static_cast<uint8_t>(kContinuationTag | (cp & kContinuationBits));
    return 3;
  }
  bytes[0] = static_cast<uint8_t>(kFourByteTag | (cp >> 18));
  bytes[1] = static_cast<uint8_t>(kContinuationTag | ((cp >> 12) & kContinuationBits));
  bytes[2] = static_cast<uint8_t>(kContinuationTag | ((cp >> 6) & kContinuationBits));
  bytes[3] = static_cast<uint8_t>(kContinuationTag | (cp & kContinuationBits));
  return 4;
}

// Encodes the units into `buffer`, at most `capacity` bytes plus the 0 byte
// at buffer[length]. The size was computed on unswapped units, so with
// big-endian input the bytes may not fit: that is reported as an overflow
// rather than written past the buffer. A high surrogate left at the end is
// dropped.
[[nodiscard]] morv_err encode_unistr(const uint16_t* units, size_t count, bool swap, char* buffer,
                                     size_t capacity, size_t* out_length) {
  size_t length = 0;
  uint16_t high = 0;
  for (size_t i = 0; i < count && units[i] != 0; ++i) {
    const uint16_t u = swap ? morv_swap16(units[i]) : units[i];
    uint32_t cp = u;
    if (high != 0) {
      if (!is_low_surrogate(u)) return MORV_ERR_INVALID_ARGUMENT;
      cp = kSupplementaryFirst + ((uint32_t{high} - kHighSurrogateFirst) << kSurrogateShift) +
           (u - kLowSurrogateFirst);
      high = 0;
    } else if (is_high_surrogate(u)) {
      high = u;
      continue;
    } else if (is_low_surrogate(u)) {
      return MORV_ERR_INVALID_ARGUMENT;
    }
    uint8_t bytes[kMaxUtf8Bytes];
    const size_t n = encode_code_point(cp, bytes);
    if (n > capacity - length) return MORV_ERR_OVERFLOW;
    for (size_t k = 0; k < n; ++k) buffer[length++] = static_cast<char>(bytes[k]);
  }
  buffer[length] = '\0';
  *out_length = length;
  return MORV_OK;
}

// UTF-16 unit count of UTF-8 bytes, from the lead bytes alone (continuation
// bytes are checked by the decoder). Ends early at a 0 byte.
[[nodiscard]] morv_err utf16_size_of_utf8(const uint8_t* s, size_t len, size_t* out_units) {
  size_t units = 0;
  size_t i = 0;
  while (i < len && s[i] != 0) {
    const uint8_t lead = s[i++];
    if (lead > kFourByteLeadLast) return MORV_ERR_INVALID_ARGUMENT;
    ++units;
    size_t skip = 0;
    if (lead > kContinuationLast) skip = 1;
    if (lead > kTwoByteLeadLast) skip = 2;
    if (lead >= kFourByteTag) {
      skip = 3;
      ++units;  // the low surrogate
    }
    for (; skip > 0 && i < len; --skip, ++i) {
      if (s[i] == 0) {
        *out_units = units;
        return MORV_OK;
      }
    }
  }
  *out_units = units;
  return MORV_OK;
}

// Decodes the character at `p` (`left` > 0 bytes). *used is 0 for a 0 byte,
// for a four-byte form outside U+10000..U+10FFFF (its value still returned)
// and for a lead byte above 0xF4 (*cp then keeps its previous value).
[[nodiscard]] morv_err decode_utf8_char(const uint8_t* p, size_t left, uint32_t* cp,
                                        size_t* used) {
  const uint8_t lead = p[0];
  if (lead <= kOneByteLast) {
    *cp = lead;
    *used = lead == 0 ? 0 : 1;
    return MORV_OK;
  }
  if (lead < kTwoByteLeadFirst) return MORV_ERR_INVALID_ARGUMENT;
  if (lead <= kTwoByteLeadLast) {
    if (left < 2 || !is_continuation(p[1])) return MORV_ERR_INVALID_ARGUMENT;
    *cp = (lead & kTwoByteLeadBits) << 6 | payload(p[1]);
    *used = 2;
    return MORV_OK;
  }
  if (lead < kFourByteTag) {
    if (left < 3 || !is_continuation(p[1]) || !is_continuation(p[2])) {
      return MORV_ERR_INVALID_ARGUMENT;
    }
    const uint32_t v = (lead & kThreeByteLeadBits) << 12 | payload(p[1]) << 6 | payload(p[2]);
    if (v < kThreeByteFirst || is_high_surrogate(v) || is_low_surrogate(v)) {
      return MORV_ERR_INVALID_ARGUMENT;
    }
    *cp = v;
    *used = 3;
    return MORV_OK;
  }
  if (lead <= kFourByteLeadLast) {
    if (left < 4 || !is_continuation(p[1]) || !is_continuation(p[2]) ||
        !is_continuation(p[3])) {
      return MORV_ERR_INVALID_ARGUMENT;
    }
    const uint32_t v = static_cast<uint32_t>(lead & kFourByteLeadBits) << 18 | payload(p[1]) << 12 |
                       payload(p[2]) << 6 | payload(p[3]);
    *cp = v;
    *used = (v >= kSupplementaryFirst && v <= kCodePointLast) ? 4 : 0;
    return MORV_OK;
  }
  *used = 0;
  return MORV_OK;
}

// Collects UTF-16 units, storing those that fit and counting all of them.
struct unit_sink {
  uint16_t* buffer;
  size_t capacity;
  size_t count;
  void put(uint32_t unit) {
    if (count < capacity) buffer[count] = static_cast<uint16_t>(unit);
    ++count;
  }
};

// Decodes `len` bytes into the sink until a character that used no bytes.
// *beyond_unicode is set when that character was a four-byte form above
// U+10FFFF: its units are lone surrogates, never a name.
[[nodiscard]] morv_err decode_utf8(const uint8_t* s, size_t len, unit_sink* sink,
                                   uint32_t* beyond_unicode) {
  uint32_t cp = 0;
  size_t i = 0;
  while (i < len) {
    size_t used = 0;
    const morv_err err = decode_utf8_char(s + i, len - i, &cp, &used);
    if (err != MORV_OK) return err;
    if (cp < kSupplementaryFirst) {
      sink->put(cp);
    } else {
      sink->put(((cp - kSupplementaryFirst) >> kSurrogateShift) + kHighSurrogateFirst);
      sink->put(((cp - kSupplementaryFirst) & kSurrogateLowMask) + kLowSurrogateFirst);
    }
    if (used == 0) {
      if (cp > kCodePointLast) *beyond_unicode = cp;
      break;
    }
    i += used;
  }
  return MORV_OK;
}

// ---- Decomposition and composition ----

// Hangul syllables are composed algorithmically from leading consonant (L),
// vowel (V) and optional trailing consonant (T) jamo.
constexpr uint32_t kHangulSyllableBase = 0xAC00;
constexpr uint32_t kHangulSyllableCount = 11172;
constexpr uint32_t kHangulLeadingBase = 0x1100;
constexpr uint32_t kHangulLeadingCount = 19;
constexpr uint32_t kHangulVowelBase = 0x1161;
constexpr uint32_t kHangulVowelCount = 21;
constexpr uint32_t kHangulTrailingBase = 0x11A7;
constexpr uint32_t kHangulTrailingCount = 28;
constexpr uint32_t kHangulSyllablesPerLeading = kHangulVowelCount * kHangulTrailingCount;

constexpr size_t kRowKey = 0;          // decomposition row: precomposed unit first
constexpr size_t kRowSequence = 1;     // ... then its sequence
constexpr size_t kRowComposed = 4;     // composition row: sequence first, then the unit
constexpr size_t kUnitBytes = 2;

const uint16_t* find_decomposition(uint16_t unit) {
  size_t lo = 0;
  size_t hi = kUnicodeTableRows;
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    const uint16_t key = morv_unicode_decomposition_table[mid][kRowKey];
    if (key == unit) return morv_unicode_decomposition_table[mid];
    if (key < unit) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return nullptr;
}

// Composition row whose sequence is exactly key[0..4) (0-padded), or null.
const uint16_t* find_composition(const uint16_t key[kUnicodeMaxDecomposition]) {
  size_t lo = 0;
  size_t hi = kUnicodeTableRows;
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    const uint16_t* row = morv_unicode_composition_table[mid];
    int order = 0;
    for (size_t k = 0; k < kUnicodeMaxDecomposition && order == 0; ++k) {
      if (row[k] != key[k]) order = row[k] < key[k] ? -1 : 1;
    }
    if (order == 0) return row;
    if (order < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return nullptr;
}

// Longest table sequence that starts the n units: the composed unit, and the
// units matched beyond the first in *extra. Without a match, the first unit.
uint16_t compose_from_table(const uint16_t* units, size_t n, size_t* extra) {
  for (size_t length = n; length > 0; --length) {
    uint16_t key[kUnicodeMaxDecomposition] = {};
    for (size_t k = 0; k < length; ++k) key[k] = units[k];
    if (const uint16_t* row = find_composition(key)) {
      *extra = length - 1;
      return row[kRowComposed];
    }
  }
  *extra = 0;
  return units[0];
}

bool is_leading_jamo(uint32_t u) {
  return u >= kHangulLeadingBase && u < kHangulLeadingBase + kHangulLeadingCount;
}
bool is_vowel_jamo(uint32_t u) {
  return u >= kHangulVowelBase && u < kHangulVowelBase + kHangulVowelCount;
}
bool is_trailing_jamo(uint32_t u) {
  return u >= kHangulTrailingBase && u < kHangulTrailingBase + kHangulTrailingCount;
}
bool is_open_syllable(uint32_t u) {
  return u - kHangulSyllableBase < kHangulSyllableCount &&
         (u - kHangulSyllableBase) % kHangulTrailingCount == 0;
}

// Joins L+V and then LV+T from the first unit on; *extra counts the units
// joined beyond the first.
uint16_t compose_hangul(const uint16_t* units, size_t n, size_t* extra) {
  uint32_t current = units[0];
  size_t i = 0;
  for (; i + 1 < n; ++i) {
    const uint32_t next = units[i + 1];
    if (is_leading_jamo(current) && is_vowel_jamo(next)) {
      current = kHangulSyllableBase +
                ((current - kHangulLeadingBase) * kHangulVowelCount + (next - kHangulVowelBase)) *
                    kHangulTrailingCount;
    } else if (is_open_syllable(current) && is_trailing_jamo(next)) {
      current += next - kHangulTrailingBase;
    } else {
      break;
    }
  }
  *extra = i;
  return static_cast<uint16_t>(current);
}

// Composition at big-endian bytes `p` with `remaining` > 0 units. A 0 unit
// ends the name, so it never takes part in a sequence: a single-unit row
// would otherwise match the unit before it together with the 0.
uint16_t compose_at_bytes(const uint8_t* p, size_t remaining, size_t* consumed) {
  uint16_t units[kUnicodeMaxDecomposition] = {};
  const size_t limit = remaining < kUnicodeMaxDecomposition ? remaining : kUnicodeMaxDecomposition;
  size_t n = 0;
  while (n < limit && (units[n] = load_be16(p + n * kUnitBytes)) != 0) ++n;
  size_t extra = 0;
  uint16_t composed = compose_hangul(units, n, &extra);
  if (extra == 0) composed = compose_from_table(units, n, &extra);
  *consumed = extra;
  return composed;
}

// ---- Name ordering ----

uint16_t fold_case(uint16_t unit) {
  const uint16_t page = morv_unicode_case_folding_table[unit >> 8];
  if (page == 0) return unit;
  return morv_unicode_case_folding_table[page + (unit & 0xFF)];
}

struct name_cursor {
  const uint8_t* next;
  size_t left;
};

// Next character to compare, 0 once the name is exhausted. Case-insensitive
// reading skips ignorable units (those that fold to 0).
uint16_t next_name_char(name_cursor* name, bool binary) {
  uint16_t c = 0;
  while (name->left > 0 && c == 0) {
    const uint16_t unit = load_be16(name->next);
    name->next += kUnitBytes;
    --name->left;
    if (binary) return unit;
    c = fold_case(unit);
  }
  return c;
}

}  // namespace

morv_err morv_unicode_unistr_to_utf8(const uint16_t* units, size_t count, int endianness,
                                     char** out, size_t* out_len) {
  const bool allocate = *out == nullptr;
  const size_t limit = allocate ? SIZE_MAX : *out_len;
  size_t size = 0;
  morv_err err = utf8_size_of_unistr(units, count, limit, &size);
  if (err != MORV_OK) return err;
  morv::buffer<char> owned;
  char* result = *out;
  if (allocate) {
    owned.reset(static_cast<char*>(morv_malloc(size + 1)));
    if (!owned) return MORV_ERR_NO_MEMORY;
    result = owned.get();
  }
  // The byte order is looked at per unit, so an empty string passes with any.
  if (count > 0 && units[0] != 0 && !known_endianness(endianness)) {
    MORV_ERROR("Unrecognized endianness: %d\n", endianness);
    return MORV_ERR_INVALID_ARGUMENT;
  }
  size_t length = 0;
  err = encode_unistr(units, count, endianness == kUnicodeBigEndian, result,
                      allocate ? size : limit, &length);
  if (err != MORV_OK) return err;
  owned.release();
  *out = result;
  *out_len = length;
  return MORV_OK;
}

morv_err morv_unicode_utf8_to_unistr(const char* s, size_t len, uint16_t** outs,
                                     size_t* outs_len) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(s);
  size_t units = 0;
  morv_err err = utf16_size_of_utf8(bytes, len, &units);
  if (err != MORV_OK) {
    MORV_ERROR("Error while getting UTF-16 size for UTF-8 string.\n");
    return err;
  }
  morv::buffer<uint16_t> owned;
  unit_sink sink{*outs, 0, 0};
  if (sink.buffer != nullptr) {
    if (outs_len == nullptr) {
      MORV_ERROR("Preallocated 'outs', but no 'outs_len' specified. *outs=%p outs_len=%p\n",
                 static_cast<void*>(*outs), static_cast<void*>(outs_len));
      return MORV_ERR_INVALID_ARGUMENT;
    }
    if (*outs_len < units) {
      MORV_ERROR("Preallocated buffer is too small to hold the UTF-16 result. "
                 "*outs_len (%zu) < shorts (%d)\n",
                 *outs_len, static_cast<int>(units));
      return MORV_ERR_INVALID_ARGUMENT;
    }
    sink.capacity = *outs_len;
  } else {
    const size_t byte_count = (units + 1) * sizeof(uint16_t);
    owned.reset(static_cast<uint16_t*>(morv_malloc(byte_count)));
    if (!owned) {
      // Reported as success with no result: callers test *outs.
      MORV_ERROR("Error while allocating %zu bytes for UTF-16 result.\n", byte_count);
      if (outs_len != nullptr) *outs_len = 0;
      return MORV_OK;
    }
    sink = unit_sink{owned.get(), units + 1, 0};
  }
  uint32_t beyond_unicode = 0;
  err = decode_utf8(bytes, len, &sink, &beyond_unicode);
  if (err != MORV_OK) return err;
  if (sink.count < sink.capacity) sink.buffer[sink.count] = 0;
  if (sink.count != units) {
    MORV_ERROR("Internal error - Filled length is not as expected. Expected: %d Actual: %zd\n",
               static_cast<int>(units), static_cast<ssize_t>(sink.count));
    return MORV_ERR_INTERNAL;
  }
  // As the last character the form leaves the count whole; it fails all the same.
  if (beyond_unicode != 0) {
    MORV_ERROR("Internal error - Code point 0x%lX is beyond U+10FFFF.\n", morv_ul(beyond_unicode));
    return MORV_ERR_INTERNAL;
  }
  owned.release();
  *outs = sink.buffer;
  if (outs_len != nullptr) *outs_len = sink.count;
  return MORV_OK;
}

morv_err morv_unistr_to_utf8(const uint16_t* units, size_t count, int endianness, char** out,
                             size_t* out_len) {
  return morv_unicode_unistr_to_utf8(units, count, endianness, out, out_len);
}

morv_err morv_utf8_to_unistr(const char* s, size_t len, uint16_t** outs, size_t* outs_len) {
  return morv_unicode_utf8_to_unistr(s, len, outs, outs_len);
}

size_t morv_unicode_decompose_char(uint16_t unit, uint16_t out[kUnicodeMaxDecomposition]) {
  const uint32_t s = uint32_t{unit} - kHangulSyllableBase;
  if (s < kHangulSyllableCount) {
    out[0] = static_cast<uint16_t>(kHangulLeadingBase + s / kHangulSyllablesPerLeading);
    out[1] = static_cast<uint16_t>(kHangulVowelBase +
                                   (s % kHangulSyllablesPerLeading) / kHangulTrailingCount);
    if (s % kHangulTrailingCount == 0) return 2;
    out[2] = static_cast<uint16_t>(kHangulTrailingBase + s % kHangulTrailingCount);
    return 3;
  }
  const uint16_t* row = find_decomposition(unit);
  if (row == nullptr) {
    out[0] = unit;
    return 1;
  }
  size_t n = 0;
  while (n < kUnicodeMaxDecomposition && row[kRowSequence + n] != 0) {
    out[n] = row[kRowSequence + n];
    ++n;
  }
  return n;
}

uint16_t morv_unicode_compose_at(const uint16_t* be_units, size_t remaining, size_t* consumed) {
  if (remaining == 0) {
    *consumed = 0;
    return 0;
  }
  return compose_at_bytes(reinterpret_cast<const uint8_t*>(be_units), remaining, consumed);
}

int morv_unicode_decompose_string(const uint16_t* in, size_t in_count, uint16_t* out,
                                  size_t capacity, size_t* out_count) {
  if (out != nullptr && capacity == 0) {
    if (out_count != nullptr) *out_count = 0;
    return in_count > 0 ? 1 : 0;
  }
  size_t count = 0;
  int overflow = 0;
  for (size_t i = 0; i < in_count && overflow == 0; ++i) {
    uint16_t units[kUnicodeMaxDecomposition];
    const size_t n = morv_unicode_decompose_char(in[i], units);
    if (out == nullptr) {
      count += n;
      continue;
    }
    for (size_t k = 0; k < n; ++k) {
      if (count == capacity) {
        overflow = 1;
        break;
      }
      out[count++] = units[k];
    }
  }
  if (out != nullptr && count < capacity) out[count] = 0;
  if (out_count != nullptr) *out_count = count;
  return overflow;
}

int morv_unicode_compose_string(const uint16_t* be_in, size_t in_count, uint16_t* out,
                                size_t capacity, size_t* out_count) {
  if (out != nullptr && capacity == 0) {
    if (out_count != nullptr) *out_count = 0;
    return in_count > 0 ? 1 : 0;
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(be_in);
  size_t count = 0;
  int overflow = 0;
  size_t pos = 0;
  while (pos < in_count && load_be16(bytes + pos * kUnitBytes) != 0) {
    size_t consumed = 0;
    const uint16_t unit = compose_at_bytes(bytes + pos * kUnitBytes, in_count - pos, &consumed);
    if (out != nullptr) {
      if (count == capacity) {
        overflow = 1;
        break;
      }
      out[count] = unit;
    }
    ++count;
    pos += consumed + 1;
  }
  if (out != nullptr && count < capacity) out[count] = 0;
  if (out_count != nullptr) *out_count = count;
  return overflow;
}

size_t morv_unicode_windows_to_hfsplus_string_length(const uint16_t* in, size_t in_count) {
  size_t count = 0;
  if (morv_unicode_decompose_string(in, in_count, nullptr, 0, &count) != 0) {
    MORV_CRITICAL("Unexpected: Overflow when converting with no destination!\n");
  }
  return count;
}

size_t morv_unicode_hfsplus_to_windows_string_length(const uint16_t* be_in, size_t in_count) {
  size_t count = 0;
  if (morv_unicode_compose_string(be_in, in_count, nullptr, 0, &count) != 0) {
    MORV_CRITICAL("Unexpected: Overflow when converting with no destination!\n");
  }
  return count;
}

int morv_unicode_compare_names(const uint16_t* name1, size_t length1, const uint16_t* name2,
                               size_t length2, int binary) {
  name_cursor a{reinterpret_cast<const uint8_t*>(name1), length1};
  name_cursor b{reinterpret_cast<const uint8_t*>(name2), length2};
  for (;;) {
    const uint16_t c1 = next_name_char(&a, binary != 0);
    const uint16_t c2 = next_name_char(&b, binary != 0);
    if (c1 != c2) return c1 < c2 ? -1 : 1;
    if (c1 == 0) return 0;
  }
}
