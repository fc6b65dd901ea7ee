// The one scanner for MPEG start code prefixes, shared by searches, parameter set location, conversions and
// frame readers (ISO/IEC 13818-1, ISO/IEC 14496-10 annex B).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qmxutil {

// Position of the first 00 00 01 that lies whole within [from, length), or `length` when there is none.
size_t find_start_code_prefix(const uint8_t* data, size_t from, size_t length);

}  // namespace qmxutil
