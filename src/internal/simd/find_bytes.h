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

inline Pairs16 every_pair(const uint8_t* bytes) {
  uint16_t pair;
  std::memcpy(&pair, bytes, sizeof pair);
  return Pairs16{} + pair;
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

  if (length - i >= 160) {
    const ptrdiff_t at = match_among_16(data, i, pattern, size);
    if (at >= 0) return static_cast<size_t>(at);
    i += 16 - reinterpret_cast<uintptr_t>(data + i) % 16;
    // Of the aligned pairs of bytes, one holds the last two bytes, or the two that begin one byte before
    // them. A pattern of two bytes has no byte before them: it is looked for in the pairs between as well.
    const size_t shift = size > 2 ? 0 : 1;
    const Pairs16 even = every_pair(pattern + size - 2);
    const Pairs16 odd = every_pair(pattern + size - 3 + shift);
    for (; length - i >= 129; i += 128) {
      Bytes16 hits = {};
      for (size_t k = i; k < i + 128; k += 16) {
        hits |=
            equal(load16_aligned<Pairs16>(data + k), even) | equal(load16<Pairs16>(data + k + shift), odd);
      }
      if (!any(hits)) continue;
      for (size_t k = i; k < i + 128; k += 16) {
        const ptrdiff_t found = match_among_16(data, k, pattern, size);
        if (found >= 0) return static_cast<size_t>(found);
      }
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
