// Search for a few bytes in many. It looks at the pattern's last two bytes in all places of a stretch at
// once, and at the rest of the pattern where these two agree. Two bytes are rare enough in payload, and in
// text, that most stretches are passed over whole; a pattern's first bytes are often not (zeros before a
// start code).
#pragma once

#include "bytes16.h"

namespace qmxutil {

// Position of the pattern among the 16 places where its last two bytes may begin, at data[i] to data[i + 15];
// -1 when it is not there.
inline ptrdiff_t match_among_16(const uint8_t* data, size_t i, const uint8_t* pattern, size_t size) {
  const size_t head = size - 2;
  const Bytes16 hits = equal(load16<Bytes16>(data + i), Bytes16{} + pattern[head]) &
                       equal(load16<Bytes16>(data + i + 1), Bytes16{} + pattern[head + 1]);
  const Halves16 halves = reinterpret_cast<Halves16>(hits);
  for (size_t half = 0; half < 2; ++half) {
    for (uint64_t rest = halves[half]; rest != 0;) {
      const unsigned bit = static_cast<unsigned>(__builtin_ctzll(rest));
      const size_t at = i + 8 * half + bit / 8 - head;
      if (std::memcmp(data + at, pattern, head) == 0) return static_cast<ptrdiff_t>(at);
      rest &= ~(uint64_t{0xFF} << bit);
    }
  }
  return -1;
}

// Position of the first occurrence that lies whole within [from, length), or `length` when there is none.
// The pattern has at least two bytes.
inline size_t find_bytes(const uint8_t* data, size_t from, size_t length, const uint8_t* pattern,
                         size_t size) {
  if (from > length || length - from < size) return length;
  const size_t first = from + size - 2;  // where the last two bytes may begin at the earliest
  size_t i = first;
  if (length - first < 17) {
    for (; length - i >= 2; ++i) {
      if (std::memcmp(data + i + 2 - size, pattern, size) == 0) return i + 2 - size;
    }
    return length;
  }

  uint16_t last_two;
  std::memcpy(&last_two, pattern + size - 2, 2);
  const Pairs16 wanted = Pairs16{} + last_two;
  for (; length - i >= 65; i += 64) {
    Bytes16 hits = {};
    for (size_t k = i; k < i + 64; k += 16) {
      hits |= equal(load16<Pairs16>(data + k), wanted) | equal(load16<Pairs16>(data + k + 1), wanted);
    }
    if (!any(hits)) continue;
    for (size_t k = i; k < i + 64; k += 16) {
      const ptrdiff_t at = match_among_16(data, k, pattern, size);
      if (at >= 0) return static_cast<size_t>(at);
    }
  }
  for (; length - i >= 17; i += 16) {
    const ptrdiff_t at = match_among_16(data, i, pattern, size);
    if (at >= 0) return static_cast<size_t>(at);
  }
  const ptrdiff_t at = match_among_16(data, length - 17, pattern, size);  // some places for the second time
  return at >= 0 ? static_cast<size_t>(at) : length;
}

}  // namespace qmxutil
