#include "platform/clock.h"

#include <sys/time.h>

#include <opencv2/core.hpp>

namespace zolt {

int64_t wallClockMs() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

int64_t ticks() { return cv::getTickCount(); }

double tickFrequency() { return cv::getTickFrequency(); }

}  // namespace zolt
