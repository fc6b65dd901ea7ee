// Emulation prevention (ISO/IEC 14496-10, 7.4.1; ISO/IEC 23008-2, 7.4.2): the 03 after two zeros.
#pragma once

#include "find_bytes.h"

namespace qmxutil {

constexpr uint8_t kEmulationPrevention[] = {0, 0, 3};

// Moves the bytes from `read` on down to `written`, through the two zeros of the next 00 00 03, or to the
// end when there is none; the result is how many.
inline size_t move_to_emulation_prevention(uint8_t* data, size_t written, size_t read, size_t end) {
  const size_t found = find_bytes(data, read, end, kEmulationPrevention, sizeof kEmulationPrevention);
  const size_t count = (found < end ? found + 2 : end) - read;
  std::memmove(data + written, data + read, count);
  return count;
}

}  // namespace qmxutil
