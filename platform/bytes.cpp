// Byte reader. The position stays within the buffer.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "qmx_bytes.h"

struct QMXByte {
  const uint8_t* data;
  uint32_t length;
  uint32_t position;
};

namespace {

constexpr int kDataMissing = -1;

// Moves on by what there is of `count` bytes; the result is how many those are.
uint32_t pass(QMXByte& in, uint32_t count, int* error) {
  const uint32_t present = std::min(count, in.length - in.position);
  if (present < count && error != nullptr) *error = kDataMissing;
  in.position += present;
  return present;
}

// Copies what there is and clears the rest.
void take(QMXByte& in, uint8_t* to, uint32_t count, int* error) {
  const uint8_t* const from = in.data + in.position;
  const uint32_t present = pass(in, count, error);
  if (present > 0) std::memcpy(to, from, present);
  if (present < count) std::memset(to + present, 0, count - present);
}

}  // namespace

QMXByte* QMXByte_Open(const uint8_t* buffer, uint32_t length) {
  if (buffer == nullptr && length > 0) return nullptr;
  QMXByte* const handle = static_cast<QMXByte*>(std::malloc(sizeof(QMXByte)));
  if (handle != nullptr) *handle = {buffer, length, 0};
  return handle;
}

uint8_t QMXByte_Get_char(QMXByte* handle, int* error) {
  uint8_t byte;
  take(*handle, &byte, sizeof byte, error);
  return byte;
}

uint16_t QMXByte_Get_be_int16(QMXByte* handle, int* error) {
  uint8_t bytes[2];
  take(*handle, bytes, sizeof bytes, error);
  return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

uint16_t QMXByte_Get_le_int16(QMXByte* handle, int* error) {
  uint8_t bytes[2];
  take(*handle, bytes, sizeof bytes, error);
  return static_cast<uint16_t>(bytes[1] << 8 | bytes[0]);
}

uint32_t QMXByte_Get_le_int32(QMXByte* handle, int* error) {
  uint8_t bytes[4];
  take(*handle, bytes, sizeof bytes, error);
  return uint32_t{bytes[3]} << 24 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[1]} << 8 | bytes[0];
}

void QMXByte_Get_string(QMXByte* handle, uint8_t* destination, uint32_t length, int* error) {
  take(*handle, destination, length, error);
}

void QMXByte_Skip(QMXByte* handle, uint32_t count, int* error) { pass(*handle, count, error); }

void QMXByte_Close(QMXByte* handle) { std::free(handle); }
