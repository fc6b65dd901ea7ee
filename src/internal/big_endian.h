// Big-endian numbers in bytes, as media formats store them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qmxutil {

inline uint32_t load_be16(const uint8_t* bytes) { return uint32_t{bytes[0]} << 8 | bytes[1]; }
inline uint32_t load_be32(const uint8_t* bytes) { return load_be16(bytes) << 16 | load_be16(bytes + 2); }

inline void store_be16(uint8_t* bytes, size_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 8);
  bytes[1] = static_cast<uint8_t>(value);
}

inline void store_be32(uint8_t* bytes, size_t value) {
  store_be16(bytes, value >> 16);
  store_be16(bytes + 2, value);
}

}  // namespace qmxutil
