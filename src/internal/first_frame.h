// The mark of the first unit that the elementary-stream frame readers cut in a process.
#pragma once

#include <atomic>
#include <cstdint>

// 1 until a unit that began at a picture parameter set ends before a slice (H.265: of type 1 or 19), before
// an SEI (H.264) or before another picture parameter set (H.265); 0 from then on. Other NAL units, H.265
// slices of other types among them, end such a unit and leave this 1.
extern std::atomic<uint8_t> g_bFirstFrame;
