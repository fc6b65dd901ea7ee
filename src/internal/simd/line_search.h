// Search for what a search on a line of text stops at.
#pragma once

#include "bytes16.h"

namespace qmxutil {

namespace plain {

// The first i of [from, count) at which text[i] is LF or CR, or is `first` while text[i + gap] is `second`;
// `count` when there is none. The gap is 0 or 1; text[count] is read.
inline size_t find_pair_or_line_end(const uint8_t* text, size_t from, size_t count, uint8_t first,
                                    uint8_t second, size_t gap) {
  for (size_t i = from; i < count; ++i) {
    if (text[i] == '\n' || text[i] == '\r' || (text[i] == first && text[i + gap] == second)) return i;
  }
  return count;
}

}  // namespace plain

#ifdef QMX_VECTORS

inline size_t find_pair_or_line_end(const uint8_t* text, size_t from, size_t count, uint8_t first,
                                    uint8_t second, size_t gap) {
  const auto stops_in_16 = [=](const uint8_t* p) {
    const Bytes16 c = load16(p);
    return lane_mask((equal(c, first) & equal(load16(p + gap), second)) | equal(c, '\n') | equal(c, '\r'));
  };
  size_t i = from;
  for (; count - i >= 64; i += 64) {
    const Bytes64 c = load64(text + i);
    const Bytes64 pairs = equal(c, first) & equal(load64(text + i + gap), second);
    const Bytes16 may_be_line_ends = reinterpret_cast<Bytes16>(least(c) <= '\r');
    if (!any(pairs.a | pairs.b | pairs.c | pairs.d | may_be_line_ends)) [[likely]]
      continue;
    const uint64_t stops = lane_bits(pairs | equal(c, '\n') | equal(c, '\r'));
    if (stops != 0) return i + static_cast<unsigned>(__builtin_ctzll(stops));
  }
  for (; count - i >= 16; i += 16) {
    if (const uint64_t mask = stops_in_16(text + i)) return i + first_lane(mask);
  }
  return plain::find_pair_or_line_end(text, i, count, first, second, gap);
}

#else
using plain::find_pair_or_line_end;
#endif

}  // namespace qmxutil
