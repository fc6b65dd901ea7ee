// Sixty-four bytes at a time, as masks with one bit a byte: where a character stands in a text.
#pragma once

#include "simd/bytes16.h"

namespace qmxutil {

constexpr size_t kMaskBytes = 64;

// Which of 64 bytes passed a comparison: bytes of 0xFF and 0x00.
struct ByteMatches {
  Bytes16 quarter[4];

  ByteMatches operator&(const ByteMatches& other) const {
    return {{quarter[0] & other.quarter[0], quarter[1] & other.quarter[1], quarter[2] & other.quarter[2],
             quarter[3] & other.quarter[3]}};
  }

  // Bit i is set where byte i passed.
  uint64_t bits() const { return lane_bits(quarter); }
};

// Compares the 64 bytes at `at` with `c`.
inline ByteMatches match_bytes(const char* at, char c) {
  ByteMatches matches;
  for (int i = 0; i < 4; ++i) {
    matches.quarter[i] = equal(load16<Bytes16>(at + 16 * i), Bytes16{} + static_cast<uint8_t>(c));
  }
  return matches;
}

}  // namespace qmxutil
