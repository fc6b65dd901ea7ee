// Sixty-four bytes at a time, as masks with one bit a byte: where a character stands in a text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace qmxutil {

constexpr size_t kMaskBytes = 64;

// Which of 64 bytes passed a comparison: bytes of 0xFF and 0x00.
struct ByteMatches {
  typedef uint8_t Bytes16 __attribute__((vector_size(16)));
  Bytes16 quarter[4];

  ByteMatches operator&(const ByteMatches& other) const {
    return {{quarter[0] & other.quarter[0], quarter[1] & other.quarter[1], quarter[2] & other.quarter[2],
             quarter[3] & other.quarter[3]}};
  }

  // Bit i is set where byte i passed.
  uint64_t bits() const {
#if defined(__SSE2__)
    uint64_t bits = 0;
    for (int i = 3; i >= 0; --i) {
      bits = bits << 16 | static_cast<uint32_t>(_mm_movemask_epi8(reinterpret_cast<__m128i>(quarter[i])));
    }
    return bits;
#elif defined(__aarch64__)
    const Bytes16 weight = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
    const uint8x16_t low = vpaddq_u8(quarter[0] & weight, quarter[1] & weight);
    const uint8x16_t high = vpaddq_u8(quarter[2] & weight, quarter[3] & weight);
    const uint8x16_t sums = vpaddq_u8(low, high);
    return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(sums, sums)), 0);
#else
    uint64_t bits = 0;
    for (size_t i = 0; i < kMaskBytes; ++i) bits |= static_cast<uint64_t>(quarter[i / 16][i % 16] & 1) << i;
    return bits;
#endif
  }
};

// Compares the 64 bytes at `at` with `c`.
inline ByteMatches match_bytes(const char* at, char c) {
  ByteMatches matches;
  for (int i = 0; i < 4; ++i) {
    ByteMatches::Bytes16 bytes;
    std::memcpy(&bytes, at + 16 * i, 16);
    matches.quarter[i] = reinterpret_cast<ByteMatches::Bytes16>(bytes == static_cast<uint8_t>(c));
  }
  return matches;
}

}  // namespace qmxutil
