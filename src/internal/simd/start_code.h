// Search for start code prefixes: 00 00 01.
#pragma once

#include <algorithm>

#include "bytes16.h"

namespace qmxutil {

namespace plain {

// Position of the first 00 00 01 that lies whole within [from, length), or `length` when there is none.
inline size_t find_start_code_prefix(const uint8_t* data, size_t from, size_t length) {
  for (size_t i = from; i < length && length - i >= 3; ++i) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
  }
  return length;
}

}  // namespace plain

#ifdef QMX_VECTORS

// A prefix puts 00 00 or 00 01 into one of the pairs of bytes that begin at odd places, and into one of
// those that begin at even places. Of many vectors, no pair can be one of these if no pair of the least
// bytes is.
inline bool has_such_pair(Bytes16 least_bytes) {
  const Pairs16 pairs = reinterpret_cast<Pairs16>(least_bytes) & 0xFEFF;
  return any(reinterpret_cast<Bytes16>(pairs == 0));
}

// Whether one of the places p[0] to p[127] may begin a prefix.
inline bool may_begin_in_128(const uint8_t* p) {
  return has_such_pair(least(least(load64(p + 1)), least(load64(p + 65))));
}

// Whether one of the places of [p, end), 18 bytes at least, may begin a prefix.
inline bool may_begin(const uint8_t* p, const uint8_t* end) {
  Bytes16 least_bytes = load16(end - 16);
  for (++p; end - p >= 17; p += 16) least_bytes = least(least_bytes, load16(p));
  return has_such_pair(least_bytes);
}

// The first of the places p[0] to p[63] that begins a prefix, 64 when none does. Finds its 01: where zeros
// are common, that is what is rare.
inline size_t first_in_64(const uint8_t* p) {
  const Bytes64 ends = equal(load64(p + 2), 1);
  if (!any(ends)) return 64;
  for (uint64_t rest = lane_bits(ends); rest != 0; rest &= rest - 1) {
    const size_t i = static_cast<unsigned>(__builtin_ctzll(rest));
    if (p[i] == 0 && p[i + 1] == 0) return i;
  }
  return 64;
}

// The same of the places p[0] to p[15].
inline size_t first_in_16(const uint8_t* p) {
  const Bytes16 prefixes = equal(load16(p) | load16(p + 1) | (load16(p + 2) ^ 1), 0);
  return any(prefixes) ? first_lane(lane_mask(prefixes)) : 16;
}

constexpr ptrdiff_t kWithZeros = 1024;  // a multiple of 64

inline size_t find_start_code_prefix(const uint8_t* data, size_t from, size_t length) {
  if (length < from + 18) return plain::find_start_code_prefix(data, from, length);
  const uint8_t* p = data + from;
  const uint8_t* const end = data + length;
  while (end - p >= 130) {
    if (!may_begin_in_128(p)) {
      p += 128;
      continue;
    }
    // Zeros are about, and likely to go on: for a while only the 01 is looked for.
    const uint8_t* const stop = p + std::min<ptrdiff_t>(kWithZeros, (end - p - 2) / 64 * 64);
    for (; p != stop; p += 64) {
      const size_t place = first_in_64(p);
      if (place < 64) return static_cast<size_t>(p - data) + place;
    }
  }
  if (end - p < 18) p = end - 18;  // some places for the second time
  if (!may_begin(p, end)) return length;
  for (; end - p >= 18; p += 16) {
    const size_t place = first_in_16(p);
    if (place < 16) return static_cast<size_t>(p - data) + place;
  }
  const size_t place = first_in_16(end - 18);
  return place < 16 ? length - 18 + place : length;
}

#else
using plain::find_start_code_prefix;
#endif

}  // namespace qmxutil
