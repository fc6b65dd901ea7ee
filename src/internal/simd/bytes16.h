// Sixteen bytes at a time, in the compiler's own vector types: SSE2 on x86-64, NEON on 64-bit ARM.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace qmxutil {

typedef uint8_t Bytes16 __attribute__((vector_size(16)));
typedef uint16_t Pairs16 __attribute__((vector_size(16)));
typedef uint64_t Halves16 __attribute__((vector_size(16)));

template <class Vector>
Vector load16(const void* from) {
  Vector vector;
  std::memcpy(&vector, from, sizeof vector);
  return vector;
}

template <class Vector>
Vector load16_aligned(const void* from) {
  return load16<Vector>(__builtin_assume_aligned(from, 16));
}

template <class Vector>
void store16(void* to, Vector vector) {
  std::memcpy(to, &vector, sizeof vector);
}

// The lanes that compare equal, all bits set; the others clear.
inline Bytes16 equal(Bytes16 a, Bytes16 b) { return reinterpret_cast<Bytes16>(a == b); }
inline Bytes16 equal(Pairs16 a, Pairs16 b) { return reinterpret_cast<Bytes16>(a == b); }

// Of lanes that compared equal.
inline bool any(Bytes16 lanes) {
#if defined(__SSE2__)
  return _mm_movemask_epi8(reinterpret_cast<__m128i>(lanes)) != 0;
#else
  const Halves16 halves = reinterpret_cast<Halves16>(lanes);
  return (halves[0] | halves[1]) != 0;
#endif
}

// The lanes of four vectors, one behind the other, as bits: the first lane is the lowest bit.
inline uint64_t lane_bits(const Bytes16 (&lanes)[4]) {
#if defined(__SSE2__)
  uint64_t bits = 0;
  for (int i = 3; i >= 0; --i) {
    bits = bits << 16 | static_cast<uint16_t>(_mm_movemask_epi8(reinterpret_cast<__m128i>(lanes[i])));
  }
  return bits;
#elif defined(__aarch64__)
  const Bytes16 weight = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
  const Bytes16 low = vpaddq_u8(lanes[0] & weight, lanes[1] & weight);
  const Bytes16 high = vpaddq_u8(lanes[2] & weight, lanes[3] & weight);
  const Bytes16 sums = vpaddq_u8(low, high);
  return reinterpret_cast<Halves16>(vpaddq_u8(sums, sums))[0];
#else
  uint64_t bits = 0;
  for (size_t i = 0; i < 64; ++i) bits |= uint64_t{lanes[i / 16][i % 16] & 1u} << i;
  return bits;
#endif
}

}  // namespace qmxutil
