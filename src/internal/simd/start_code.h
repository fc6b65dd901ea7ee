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

// The first of the places [p, stop), a multiple of kAtOnce, that begins a prefix, or `stop`. Looks for its
// 01: where zeros are common, that is what is rare.
#if defined(QMX_NEON)
constexpr ptrdiff_t kAtOnce = 64;
constexpr ptrdiff_t kWithZeros = 1024;  // until the next look whether there are zeros at all

inline const uint8_t* first_with_zeros(const uint8_t* p, const uint8_t* stop) {
  for (; p != stop; p += kAtOnce) {
    const Bytes64 ends = equal(load64(p + 2), 1);
    if (!any(ends)) continue;
    for (uint64_t rest = lane_bits(ends); rest != 0; rest &= rest - 1) {
      const uint8_t* const place = p + static_cast<unsigned>(__builtin_ctzll(rest));
      if (place[0] == 0 && place[1] == 0) return place;
    }
  }
  return stop;
}
#else
// The C library's search has the widest vectors of the processor at hand.
constexpr ptrdiff_t kAtOnce = 1;
constexpr ptrdiff_t kWithZeros = 4096;

inline const uint8_t* first_with_zeros(const uint8_t* p, const uint8_t* stop) {
  for (;; ++p) {
    const void* const one = std::memchr(p + 2, 1, static_cast<size_t>(stop - p));
    if (one == nullptr) return stop;
    p = static_cast<const uint8_t*>(one) - 2;
    if (p[0] == 0 && p[1] == 0) return p;
  }
}
#endif

// The first of the places p[0] to p[15] that begins a prefix, 16 when none does.
inline size_t first_in_16(const uint8_t* p) {
  const Bytes16 prefixes = equal(load16(p) | load16(p + 1) | (load16(p + 2) ^ 1), 0);
  return any(prefixes) ? first_lane(lane_mask(prefixes)) : 16;
}

inline size_t find_start_code_prefix(const uint8_t* data, size_t from, size_t length) {
  if (length < from + 18) return plain::find_start_code_prefix(data, from, length);
  const uint8_t* p = data + from;
  const uint8_t* const end = data + length;
  for (;;) {
    while (end - p >= 130 && !may_begin_in_128(p)) p += 128;
    if (end - p < 130) break;
    // Zeros are about, and likely to go on: for a while only the 01 is looked for.
    const uint8_t* const stop = p + std::min(kWithZeros, (end - p - 2) / kAtOnce * kAtOnce);
    p = first_with_zeros(p, stop);
    if (p != stop) return static_cast<size_t>(p - data);
    if (end - p == 2) return length;
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
