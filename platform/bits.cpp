// Bit reader and writer. The position is kept in 64 bits: it may run past the end of the buffer, as far as a
// parser of a hostile header cares to read, without coming round to the start.
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>

#include "qmx_bits.h"

struct QMXBit {
  uint8_t* data;
  uint64_t length;    // bytes
  uint64_t position;  // bits
};

namespace {

constexpr uint32_t kMostBits = 32;

static_assert(std::endian::native == std::endian::little);

// At least 57 bits from the position on, in the high bits.
uint64_t bits_ahead(const QMXBit& in) {
  const uint64_t at = in.position / 8;
  uint64_t word = UINT64_MAX;  // bits past the end are 1s
  if (at < in.length && in.length - at >= sizeof word) {
    std::memcpy(&word, in.data + at, sizeof word);
  } else if (at < in.length) {
    std::memcpy(&word, in.data + at, in.length - at);
  }
  return __builtin_bswap64(word) << in.position % 8;
}

uint32_t first_bits(uint64_t word, uint32_t n) {
  return static_cast<uint32_t>(word >> 1 >> (63 - n));  // two shifts: n may be 0
}

}  // namespace

QMXBit* QMXBitOpen(const uint8_t* buffer, uint32_t length) {
  if (buffer == nullptr && length > 0) return nullptr;
  QMXBit* const handle = static_cast<QMXBit*>(std::malloc(sizeof(QMXBit)));
  // Only the QMXBitPut functions write, and their callers have a writable buffer.
  if (handle != nullptr) *handle = {const_cast<uint8_t*>(buffer), length, 0};
  return handle;
}

void QMXBitByteAlign(QMXBit* handle) { handle->position = (handle->position + 7) / 8 * 8; }

uint32_t QMXBitGetBit(QMXBit* handle, uint32_t n) {
  n = std::min(n, kMostBits);
  const uint32_t value = first_bits(bits_ahead(*handle), n);
  handle->position += n;
  return value;
}

uint32_t QMXBitShow(QMXBit* handle, uint32_t n) {
  return first_bits(bits_ahead(*handle), std::min(n, kMostBits));
}

// Bits after the last one written, up to the byte's end, are cleared: the room need not be.
void QMXBitPutBit(QMXBit* handle, uint32_t n, uint32_t value) {
  n = std::min(n, kMostBits);
  while (n > 0 && handle->position < handle->length * 8) {
    uint8_t& byte = handle->data[handle->position / 8];
    const auto used = static_cast<uint32_t>(handle->position % 8);
    const uint32_t taken = std::min(n, 8 - used);
    n -= taken;
    const uint32_t kept = byte & ~(0xFFu >> used);
    const uint32_t added = (value >> n & ((1u << taken) - 1)) << (8 - used - taken);
    byte = static_cast<uint8_t>(kept | added);
    handle->position += taken;
  }
}

void QMXBitPutByte(QMXBit* handle, uint32_t count, const uint8_t* bytes) {
  if (handle->position % 8 != 0) {
    for (uint32_t i = 0; i < count; ++i) QMXBitPutBit(handle, 8, bytes[i]);
    return;
  }
  const uint64_t at = handle->position / 8;
  if (at >= handle->length) return;
  const uint64_t fitting = std::min<uint64_t>(count, handle->length - at);
  if (fitting > 0) std::memcpy(handle->data + at, bytes, fitting);
  handle->position += fitting * 8;
}

uint32_t QMXBitGetProcessed(QMXBit* handle) { return static_cast<uint32_t>(handle->position); }

void QMXBitClose(QMXBit* handle) { std::free(handle); }
