// Text and bytes: numbers, string helpers, keyed values, hexadecimal text, start codes, Base64.
#include "qmxutil_string.h"

#include "internal/byte_search.h"
#include "internal/bytes16.h"
#include "internal/start_code.h"

using qmxutil::Bytes16;
using qmxutil::load16;
using qmxutil::store16;

// ---- String helpers

namespace {

constexpr uint8_t kCaseBit = 'a' - 'A';

// Switches the case of the letters from kFirst to kFirst + 25.
template <uint8_t kFirst>
uint8_t switch_case(uint8_t c) {
  return static_cast<uint8_t>(c - kFirst) < 26 ? c ^ kCaseBit : c;
}

template <uint8_t kFirst>
Bytes16 switch_case(Bytes16 c) {
  return c ^ (reinterpret_cast<Bytes16>(c - kFirst < 26) & kCaseBit);
}

template <uint8_t kFirst>
void switch_case(uint8_t* bytes, size_t count) {
  size_t i = 0;
  for (; count - i >= 16; i += 16) store16(bytes + i, switch_case<kFirst>(load16<Bytes16>(bytes + i)));
  for (; i < count; ++i) bytes[i] = switch_case<kFirst>(bytes[i]);
}

}  // namespace

char* QMXUtilStrntolower(char* s, int32_t n) {
  if (s != nullptr && n > 0) switch_case<'A'>(reinterpret_cast<uint8_t*>(s), static_cast<size_t>(n));
  return s;
}

char* QMXUtilStrntoupper(char* s, int32_t n) {
  if (s != nullptr && n > 0) switch_case<'a'>(reinterpret_cast<uint8_t*>(s), static_cast<size_t>(n));
  return s;
}

// ---- Hexadecimal text and start codes

namespace {

// A cursor search needs one byte more than a start code has, and leaves this many when it finds nothing.
constexpr uint32_t kStartCodeSize = 4;

void move_cursor(const uint8_t** buf, uint32_t* len, size_t by) {
  *buf += by;
  *len -= static_cast<uint32_t>(by);
}

}  // namespace

size_t qmxutil::find_start_code_prefix(const uint8_t* data, size_t from, size_t length) {
  constexpr uint8_t kPrefix[] = {0, 0, 1};
  return find_bytes(data, from, length, kPrefix, sizeof kPrefix);
}

int QMXUtil_FindStartCode(const uint8_t** buf, uint32_t* len, uint32_t* code) {
  if (*len <= kStartCodeSize) return 0;
  const size_t prefixes_end = *len - 2;  // a prefix that ends here has its code byte and one more after it
  const size_t at = qmxutil::find_start_code_prefix(*buf, 0, prefixes_end);
  const bool found = at != prefixes_end;
  move_cursor(buf, len, found ? at : *len - kStartCodeSize);
  if (found) *code = 0x100u + (*buf)[3];
  return found;
}

int QMXUtil_FindStartCode2(const uint8_t** buf, uint32_t* len, uint32_t code) {
  if (*len <= kStartCodeSize) return 0;
  const uint8_t wanted[kStartCodeSize] = {static_cast<uint8_t>(code >> 24), static_cast<uint8_t>(code >> 16),
                                          static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)};
  const size_t codes_end = *len - 1;
  const size_t at = qmxutil::find_bytes(*buf, 0, codes_end, wanted, sizeof wanted);
  const bool found = at != codes_end;
  move_cursor(buf, len, found ? at : *len - kStartCodeSize);
  return found;
}
