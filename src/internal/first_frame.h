// The mark of the first unit that the elementary-stream frame readers cut in a process.
#pragma once

#include <atomic>
#include <cstdint>

// 1 until a unit that began at a picture parameter set has ended; never 1 again after that.
extern std::atomic<uint8_t> g_bFirstFrame;
