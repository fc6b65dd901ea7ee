// Sixteen bytes at a time, in the compiler's own vector types: SSE2 on x86-64, NEON on 64-bit ARM.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

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
void store16(void* to, Vector vector) {
  std::memcpy(to, &vector, sizeof vector);
}

// The lanes that compare equal, all bits set; the others clear.
inline Bytes16 equal(Bytes16 a, Bytes16 b) { return reinterpret_cast<Bytes16>(a == b); }
inline Bytes16 equal(Pairs16 a, Pairs16 b) { return reinterpret_cast<Bytes16>(a == b); }

inline bool any(Bytes16 lanes) {
  const Halves16 halves = reinterpret_cast<Halves16>(lanes);
  return (halves[0] | halves[1]) != 0;
}

}  // namespace qmxutil
