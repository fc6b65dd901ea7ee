// Search for start code prefixes: 00 00 01.
#pragma once

#include <algorithm>

#include "bytes16.h"

namespace qmxutil {

constexpr uint8_t kPrefixEnd = 1;  // of 00 00 01

// The first start code prefix that begins at p[0] to p[15], or null. Reads p[0] to p[17].
inline const uint8_t* prefix_among_16(const uint8_t* p) {
  const Bytes16 misses = load16<Bytes16>(p) | load16<Bytes16>(p + 1) | (load16<Bytes16>(p + 2) ^ kPrefixEnd);
  const Halves16 hits = reinterpret_cast<Halves16>(equal(misses, Bytes16{}));
  if (hits[0] != 0) return p + __builtin_ctzll(hits[0]) / 8;
  if (hits[1] != 0) return p + 8 + __builtin_ctzll(hits[1]) / 8;
  return nullptr;
}

// Whether a prefix may begin at p[-1] to p[126]. Wherever it begins, it puts 00 00 or 00 01 into one of the
// pairs of bytes. The least bytes of all sixteens show that there is no such pair in any of them.
inline bool may_have_prefix(const uint8_t* p) {
  Bytes16 least = load16<Bytes16>(p);
  for (int i = 16; i < 128; i += 16) {
    const Bytes16 bytes = load16<Bytes16>(p + i);
    least = bytes < least ? bytes : least;
  }
  const Pairs16 pairs = reinterpret_cast<Pairs16>(least) & 0xFEFF;
  return any(equal(pairs, Pairs16{}));
}

// The first prefix of which the last byte is among `size` bytes, a multiple of 64, or null. Where zeros are
// common, the 01 is what is rare.
inline const uint8_t* prefix_that_ends_in(const uint8_t* p, ptrdiff_t size) {
  for (const uint8_t* const end = p + size; p != end; p += 64) {
    Bytes16 ends[4];
    for (int i = 0; i < 4; ++i) {
      ends[i] = equal(load16<Bytes16>(p + 16 * i), Bytes16{} + kPrefixEnd);
    }
    if (!any(ends[0] | ends[1] | ends[2] | ends[3])) continue;
    for (uint64_t rest = lane_bits(ends); rest != 0; rest &= rest - 1) {
      const uint8_t* const prefix = p + __builtin_ctzll(rest) - 2;
      if (prefix[0] == 0 && prefix[1] == 0) return prefix;
    }
  }
  return nullptr;
}

// The first prefix in 160 bytes or more, or null.
inline const uint8_t* prefix_in_long(const uint8_t* p, const uint8_t* end) {
  if (const uint8_t* const prefix = prefix_among_16(p)) return prefix;
  p += 17 - reinterpret_cast<uintptr_t>(p + 1) % 16;  // aligned; prefixes that begin before p[-1] are found
  const uint8_t* const last = end - 128;
  for (ptrdiff_t zeros = 128; p <= last;) {
    if (!may_have_prefix(p)) {
      p += 128;
      zeros = 128;
      continue;
    }
    // Zeros are about; the more there were, the longer they are expected to go on.
    const ptrdiff_t size = std::min(zeros, (end - p) / 128 * 128);
    if (const uint8_t* const prefix = prefix_that_ends_in(p, size)) return prefix;
    p += size;
    if (p < end && p[-2] == 0 && p[-1] == 0 && p[0] == kPrefixEnd) return p - 2;
    zeros = 4096;
  }
  return may_have_prefix(last) ? prefix_that_ends_in(last, 128) : nullptr;  // some places for the second time
}

// Position of the first 00 00 01 that lies whole within [from, length), or `length` when there is none.
inline size_t find_start_code_prefix(const uint8_t* data, size_t from, size_t length) {
  if (from > length || length - from < 3) return length;
  const uint8_t* p = data + from;
  const uint8_t* const end = data + length;
  const uint8_t* prefix = nullptr;
  if (end - p < 18) {
    for (; end - p >= 3; ++p) {
      if (p[0] == 0 && p[1] == 0 && p[2] == kPrefixEnd) return static_cast<size_t>(p - data);
    }
    return length;
  }

  if (end - p >= 160) {
    prefix = prefix_in_long(p, end);
  } else {
    for (; end - p >= 18 && prefix == nullptr; p += 16) prefix = prefix_among_16(p);
    if (prefix == nullptr) prefix = prefix_among_16(end - 18);  // some places for the second time
  }
  return prefix != nullptr ? static_cast<size_t>(prefix - data) : length;
}

}  // namespace qmxutil
