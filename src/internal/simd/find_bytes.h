// Search for a few bytes in many. It looks at the pattern's last two bytes, and at the rest of the pattern
// where these are found: two bytes are rare in payload, and in text, while a pattern's first bytes often are
// not (the zeros of a start code).
#pragma once

#include "bytes16.h"

namespace qmxutil {

namespace plain {

// Position of the first occurrence that lies whole within [from, length), or `length` when there is none.
// The pattern has at least two bytes.
inline size_t find_bytes(const uint8_t* data, size_t from, size_t length, const uint8_t* pattern,
                         size_t size) {
  for (size_t i = from; i < length && length - i >= size; ++i) {
    if (std::memcmp(data + i, pattern, size) == 0) return i;
  }
  return length;
}

}  // namespace plain

#ifdef QMX_VECTORS

// The first place of p with bits in `places`, each place has so many, before which the `size` bytes stand;
// -1 without one.
inline ptrdiff_t first_after(const uint8_t* p, uint64_t places, unsigned bits_per_place, const uint8_t* bytes,
                             size_t size) {
  for (; places != 0; places &= places - 1) {
    const size_t i = static_cast<unsigned>(__builtin_ctzll(places)) / bits_per_place;
    if (std::memcmp(p + i - size, bytes, size) == 0) return static_cast<ptrdiff_t>(i);
  }
  return -1;
}

inline size_t find_bytes(const uint8_t* data, size_t from, size_t length, const uint8_t* pattern,
                         size_t size) {
  if (from > length || length - from < size + 15) {
    return plain::find_bytes(data, from, length, pattern, size);
  }
  const size_t head = size - 2;
  const uint8_t first = pattern[head], second = pattern[head + 1];
  const auto in_16 = [=](const uint8_t* p) {
    return first_after(p, lane_mask(equal(load16(p), first) & equal(load16(p + 1), second)), kLaneBits,
                       pattern, head);
  };
  const uint8_t* p = data + from + head;  // where the last two bytes may begin
  const uint8_t* const end = data + length;
  ptrdiff_t at = -1;
  for (; end - p >= 65; p += 64) {
    const Bytes64 hits = equal(load64(p), first) & equal(load64(p + 1), second);
    if (!any(hits)) continue;
    at = first_after(p, lane_bits(hits), 1, pattern, head);
    if (at >= 0) return static_cast<size_t>(p + at - data) - head;
  }
  for (; end - p >= 17; p += 16) {
    at = in_16(p);
    if (at >= 0) return static_cast<size_t>(p + at - data) - head;
  }
  p = end - 17;  // some places for the second time
  at = in_16(p);
  return at >= 0 ? static_cast<size_t>(p + at - data) - head : length;
}

#else
using plain::find_bytes;
#endif

}  // namespace qmxutil
