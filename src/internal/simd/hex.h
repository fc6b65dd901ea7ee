// Hexadecimal digits, two a byte, the high one first.
#pragma once

#include "bytes16.h"

namespace qmxutil {

constexpr uint8_t kLetterGap = 'a' - '9' - 1;  // between the digits and the letters

namespace plain {

// What a lower-case character counts, whether it is a digit or not.
inline int digit_value(uint8_t c) { return c - '0' - (c >= 'a' && c <= 'f' ? kLetterGap : 0); }

inline uint8_t digit(int value) { return static_cast<uint8_t>(value + '0' + (value > 9 ? kLetterGap : 0)); }

// Makes `count` bytes of twice as many lower-case characters, in place too.
inline void digits_to_bytes(const uint8_t* digits, size_t count, uint8_t* bytes) {
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<uint8_t>(digit_value(digits[2 * i]) * 16 + digit_value(digits[2 * i + 1]));
  }
}

inline void bytes_to_digits(const uint8_t* bytes, size_t count, uint8_t* digits) {
  for (size_t i = 0; i < count; ++i) {
    digits[2 * i] = digit(bytes[i] >> 4);
    digits[2 * i + 1] = digit(bytes[i] & 15);
  }
}

}  // namespace plain

#ifdef QMX_VECTORS

inline Bytes16 digit_values(Bytes16 c) {
  return c - '0' - (reinterpret_cast<Bytes16>(c - 'a' < 6) & kLetterGap);
}

#endif

#if defined(QMX_NEON)

inline void digits_to_bytes(const uint8_t* digits, size_t count, uint8_t* bytes) {
  size_t i = 0;
  for (; count - i >= 16; i += 16) {
    const uint8x16x2_t pairs = vld2q_u8(digits + 2 * i);
    vst1q_u8(bytes + i, (digit_values(pairs.val[0]) << 4) + digit_values(pairs.val[1]));
  }
  plain::digits_to_bytes(digits + 2 * i, count - i, bytes + i);
}

inline void bytes_to_digits(const uint8_t* bytes, size_t count, uint8_t* digits) {
  const uint8x16_t all = vld1q_u8(reinterpret_cast<const uint8_t*>("0123456789abcdef"));
  size_t i = 0;
  for (; count - i >= 16; i += 16) {
    const uint8x16_t both = vld1q_u8(bytes + i);
    vst2q_u8(digits + 2 * i, {vqtbl1q_u8(all, vshrq_n_u8(both, 4)), vqtbl1q_u8(all, both & 15)});
  }
  plain::bytes_to_digits(bytes + i, count - i, digits + 2 * i);
}

#elif defined(QMX_SSE2)

// The byte that each two characters make, in the low half of a pair, whose high half is clear.
inline __m128i join_digits(const uint8_t* digits) {
  const Pairs16 pairs = reinterpret_cast<Pairs16>(digit_values(load16(digits)));
  return reinterpret_cast<__m128i>(((pairs << 4) + (pairs >> 8)) & 0xFF);
}

inline void digits_to_bytes(const uint8_t* digits, size_t count, uint8_t* bytes) {
  size_t i = 0;
  for (; count - i >= 16; i += 16) {
    const __m128i joined = _mm_packus_epi16(join_digits(digits + 2 * i), join_digits(digits + 2 * i + 16));
    store16(bytes + i, reinterpret_cast<Bytes16>(joined));
  }
  plain::digits_to_bytes(digits + 2 * i, count - i, bytes + i);
}

inline __m128i all_digits(Bytes16 values) {
  return reinterpret_cast<__m128i>(values + '0' + (reinterpret_cast<Bytes16>(values > 9) & kLetterGap));
}

inline void bytes_to_digits(const uint8_t* bytes, size_t count, uint8_t* digits) {
  size_t i = 0;
  for (; count - i >= 16; i += 16) {
    const Bytes16 both = load16(bytes + i);
    const __m128i high = all_digits(both >> 4), low = all_digits(both & 15);
    store16(digits + 2 * i, reinterpret_cast<Bytes16>(_mm_unpacklo_epi8(high, low)));
    store16(digits + 2 * i + 16, reinterpret_cast<Bytes16>(_mm_unpackhi_epi8(high, low)));
  }
  plain::bytes_to_digits(bytes + i, count - i, digits + 2 * i);
}

#else
using plain::bytes_to_digits;
using plain::digits_to_bytes;
#endif

}  // namespace qmxutil
