// The one scanner for MPEG start code prefixes, shared by searches, parameter set location, conversions and
// frame readers (ISO/IEC 13818-1, ISO/IEC 14496-10 annex B).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qmxutil {

// Position of the first 00 00 01 that lies whole within [from, length), or `length` when there is none.
inline size_t find_start_code_prefix(const uint8_t* data, size_t from, size_t length) {
  typedef uint8_t Bytes16 __attribute__((vector_size(16)));
  size_t i = from;
  for (; length - i >= 18 && i < length; i += 16) {
    Bytes16 first, second, third;
    std::memcpy(&first, data + i, 16);
    std::memcpy(&second, data + i + 1, 16);
    std::memcpy(&third, data + i + 2, 16);
    const Bytes16 hit = static_cast<Bytes16>((first | second | (third ^ 1)) == 0);
    uint64_t halves[2];
    std::memcpy(halves, &hit, 16);
    if (halves[0] != 0) return i + static_cast<size_t>(__builtin_ctzll(halves[0])) / 8;
    if (halves[1] != 0) return i + 8 + static_cast<size_t>(__builtin_ctzll(halves[1])) / 8;
  }
  for (; i < length && length - i >= 3; ++i) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
  }
  return length;
}

}  // namespace qmxutil
