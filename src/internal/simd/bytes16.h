// What the kernels of this folder share. Each kernel is a header: first the plain version, in namespace
// plain, which serves any count, is what the tests hold the others against, and often the tail of a fast
// one; then, with the same signature, a version for aarch64 (NEON) and one for x86-64 (SSE2), or one for
// both in the compiler's own vector types. Which one a family gets is settled when it is compiled: the one
// for the vectors that its architecture has by definition, or with QMX_PLAIN_KERNELS the plain one. None
// reads a byte outside what it is given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(QMX_PLAIN_KERNELS)
#elif defined(__aarch64__)
#define QMX_NEON
#include <arm_neon.h>
#elif defined(__SSE2__)
#define QMX_SSE2
#include <emmintrin.h>
#endif

#if defined(QMX_NEON) || defined(QMX_SSE2)
#define QMX_VECTORS

namespace qmxutil {

typedef uint8_t Bytes16 __attribute__((vector_size(16)));
typedef uint16_t Pairs16 __attribute__((vector_size(16)));

inline Bytes16 load16(const uint8_t* from) {
  Bytes16 bytes;
  std::memcpy(&bytes, from, sizeof bytes);
  return bytes;
}

inline void store16(uint8_t* to, Bytes16 bytes) { std::memcpy(to, &bytes, sizeof bytes); }

// The lanes that compare equal, all bits set; the others clear.
inline Bytes16 equal(Bytes16 a, Bytes16 b) { return reinterpret_cast<Bytes16>(a == b); }
inline Bytes16 equal(Bytes16 a, uint8_t b) { return equal(a, Bytes16{} + b); }

// Lanes that passed a comparison, as bits of which each lane has kLaneBits, one of them set.
#if defined(QMX_NEON)
constexpr unsigned kLaneBits = 4;
inline uint64_t lane_mask(Bytes16 lanes) {
  const uint8x8_t nibbles = vshrn_n_u16(vreinterpretq_u16_u8(lanes), 4);
  return vget_lane_u64(vreinterpret_u64_u8(nibbles), 0) & 0x8888888888888888;
}
#else
constexpr unsigned kLaneBits = 1;
inline uint64_t lane_mask(Bytes16 lanes) {
  return static_cast<uint16_t>(_mm_movemask_epi8(reinterpret_cast<__m128i>(lanes)));
}
#endif

inline size_t first_lane(uint64_t mask) { return static_cast<unsigned>(__builtin_ctzll(mask)) / kLaneBits; }

// Four vectors, one after the other.
struct Bytes64 {
  Bytes16 a, b, c, d;
};

inline Bytes64 load64(const uint8_t* from) {
#if defined(QMX_NEON)
  const uint8x16x4_t bytes = vld1q_u8_x4(from);
  return {bytes.val[0], bytes.val[1], bytes.val[2], bytes.val[3]};
#else
  return {load16(from), load16(from + 16), load16(from + 32), load16(from + 48)};
#endif
}

inline Bytes64 equal(const Bytes64& bytes, uint8_t b) {
  return {equal(bytes.a, b), equal(bytes.b, b), equal(bytes.c, b), equal(bytes.d, b)};
}
inline Bytes64 operator&(const Bytes64& x, const Bytes64& y) {
  return {x.a & y.a, x.b & y.b, x.c & y.c, x.d & y.d};
}
inline Bytes64 operator|(const Bytes64& x, const Bytes64& y) {
  return {x.a | y.a, x.b | y.b, x.c | y.c, x.d | y.d};
}

inline Bytes16 least(Bytes16 a, Bytes16 b) { return a < b ? a : b; }
inline Bytes16 least(const Bytes64& bytes) { return least(least(bytes.a, bytes.b), least(bytes.c, bytes.d)); }

// Whether a lane passed a comparison.
inline bool any(Bytes16 lanes) {
#if defined(QMX_NEON)
  return vmaxvq_u32(vreinterpretq_u32_u8(lanes)) != 0;
#else
  return lane_mask(lanes) != 0;
#endif
}
inline bool any(const Bytes64& lanes) { return any(lanes.a | lanes.b | lanes.c | lanes.d); }

// Lanes that passed a comparison, as one bit each: the first lane is the lowest bit.
inline uint64_t lane_bits(const Bytes64& lanes) {
#if defined(QMX_NEON)
  const Bytes16 weight = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
  const Bytes16 low = vpaddq_u8(lanes.a & weight, lanes.b & weight);
  const Bytes16 high = vpaddq_u8(lanes.c & weight, lanes.d & weight);
  const Bytes16 sums = vpaddq_u8(low, high);
  return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(sums, sums)), 0);
#else
  return lane_mask(lanes.a) | lane_mask(lanes.b) << 16 | lane_mask(lanes.c) << 32 | lane_mask(lanes.d) << 48;
#endif
}

}  // namespace qmxutil

#endif
