// Emulation prevention (ISO/IEC 14496-10, 7.4.1; ISO/IEC 23008-2, 7.4.2): the 03 after two zeros.
#pragma once

#include "find_bytes.h"

namespace qmxutil {

constexpr uint8_t kEmulationPrevention[] = {0, 0, 3};

constexpr size_t kStride = 64;
constexpr size_t kLookAhead = 2;  // the last bytes of a pattern that begins at the end of a stride

// The places at which 00 00 03 begins, one bit for each byte of the stride.
inline uint64_t emulation_prevention_places(const uint8_t* stride) {
  Bytes16 found[4];
  for (size_t k = 0; k < 4; ++k) {
    const uint8_t* const at = stride + 16 * k;
    found[k] =
        equal(load16<Bytes16>(at) | load16<Bytes16>(at + 1) | (load16<Bytes16>(at + 2) ^ 3), Bytes16{});
  }
  return lane_bits(found);
}

// Moves the bytes from `read` on down to `written`, through the two zeros of the next 00 00 03, or to the end
// when there is none; the result is how many. Most strides need no close look: if the pattern began there,
// one of the pairs of bytes at odd places would be 00 00 or 00 03.
inline size_t move_to_emulation_prevention(uint8_t* data, size_t written, size_t read, size_t end) {
  const size_t begin = read;
  for (; end - read >= kStride + kLookAhead; read += kStride, written += kStride) {
    const uint8_t* const stride = data + read;
    Bytes16 bytes[4], possible = {};
    for (size_t k = 0; k < 4; ++k) {
      bytes[k] = load16<Bytes16>(stride + 16 * k);
      const Pairs16 pairs = load16<Pairs16>(stride + 16 * k + 1) & (Pairs16{} + uint16_t{0xFCFF});
      possible |= equal(pairs, Pairs16{});
    }
    const uint64_t places = any(possible) ? emulation_prevention_places(stride) : 0;
    if (places != 0) {
      const size_t kept = static_cast<size_t>(__builtin_ctzll(places)) + 2;
      if (read - written >= kStride + kLookAhead) {  // a move of fixed size is faster than one that fits
        std::memcpy(data + written, stride, kStride + kLookAhead);
      } else {
        std::memmove(data + written, stride, kept);
      }
      return read + kept - begin;
    }
    for (size_t k = 0; k < 4; ++k) store16(data + written + 16 * k, bytes[k]);
  }
  const size_t found = find_bytes(data, read, end, kEmulationPrevention, sizeof kEmulationPrevention);
  const size_t stop = found < end ? found + 2 : end;
  std::memmove(data + written, data + read, stop - read);
  return stop - begin;
}

}  // namespace qmxutil
