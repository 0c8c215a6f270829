// Clocks for the engine's statistics.
#pragma once

#include <cstdint>

namespace zolt {

// Wall-clock milliseconds from the time of day: seconds * 1000 + microseconds / 1000.
// Kept as a signed 64-bit count so that it never wraps on 32-bit ARM; the engine's sums take
// differences of two readings as unsigned 32-bit numbers.
int64_t wallClockMs();

// OpenCV ticks (cv::getTickCount) and their frequency per second.
int64_t ticks();
double tickFrequency();

}  // namespace zolt
