// Start codes (ISO/IEC 13818-1, ISO/IEC 14496-10 annex B) and the searches for them, shared by all
// families.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "simd/find_bytes.h"
#include "simd/start_code.h"

namespace qmxutil {

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr size_t kStartCodeSize = sizeof kStartCode;
constexpr size_t kStartCodePrefixSize = 3;  // 00 00 01

// Position of the first 00 00 00 01 that lies whole within [from, length), or `length`.
inline size_t find_start_code(const uint8_t* data, size_t from, size_t length) {
  return find_bytes(data, from, length, kStartCode, kStartCodeSize);
}

inline bool begins_with_start_code(const uint8_t* data, size_t length) {
  return length >= kStartCodeSize && std::memcmp(data, kStartCode, kStartCodeSize) == 0;
}

}  // namespace qmxutil
