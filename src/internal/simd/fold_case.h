// The case of ASCII letters: conversion, and comparison that ignores it.
#pragma once

#include <array>

#include "bytes16.h"

namespace qmxutil {

constexpr uint8_t kCaseBit = 'a' - 'A';

// Switches the case of the letters from kFirst, 'a' or 'A', on.
template <uint8_t kFirst>
constexpr uint8_t switch_case(uint8_t c) {
  return static_cast<uint8_t>(c - kFirst) < 26 ? c ^ kCaseBit : c;
}

constexpr std::array<uint8_t, 256> kLower = [] {
  std::array<uint8_t, 256> lower = {};
  for (size_t c = 0; c < lower.size(); ++c) lower[c] = switch_case<'A'>(static_cast<uint8_t>(c));
  return lower;
}();

inline uint8_t to_lower(uint8_t c) { return kLower[c]; }

namespace plain {

template <uint8_t kFirst>
void switch_case(uint8_t* bytes, size_t count) {
  for (size_t i = 0; i < count; ++i) bytes[i] = qmxutil::switch_case<kFirst>(bytes[i]);
}

// How many bytes at the beginning of `a` and `b` differ in case at most.
inline size_t same_but_for_case(const uint8_t* a, const uint8_t* b, size_t count) {
  size_t i = 0;
  while (i < count && to_lower(a[i]) == to_lower(b[i])) ++i;
  return i;
}

}  // namespace plain

#ifdef QMX_VECTORS

template <uint8_t kFirst>
void switch_case(uint8_t* bytes, size_t count) {
  size_t i = 0;
  for (; count - i >= 16; i += 16) {
    const Bytes16 c = load16(bytes + i);
    store16(bytes + i, c ^ (reinterpret_cast<Bytes16>(c - kFirst < 26) & kCaseBit));
  }
  plain::switch_case<kFirst>(bytes + i, count - i);
}

// Not zero where `a` and `b` differ by more than the case bit, or by the case bit where it is no letter's.
inline Bytes16 differences(Bytes16 a, Bytes16 b) {
  const Bytes16 letters = reinterpret_cast<Bytes16>((a | kCaseBit) - 'a' < 26);
  return (a ^ b) & ~(letters & kCaseBit);
}

inline size_t same_but_for_case(const uint8_t* a, const uint8_t* b, size_t count) {
  size_t i = 0;
  for (; count - i >= 64; i += 64) {
    const Bytes64 x = load64(a + i), y = load64(b + i);
    const Bytes16 all =
        differences(x.a, y.a) | differences(x.b, y.b) | differences(x.c, y.c) | differences(x.d, y.d);
    if (any(reinterpret_cast<Bytes16>(all != 0))) break;
  }
  for (; count - i >= 16; i += 16) {
    const uint64_t mask =
        lane_mask(reinterpret_cast<Bytes16>(differences(load16(a + i), load16(b + i)) != 0));
    if (mask != 0) return i + first_lane(mask);
  }
  return i + plain::same_but_for_case(a + i, b + i, count - i);
}

#else
using plain::same_but_for_case;
using plain::switch_case;
#endif

}  // namespace qmxutil
