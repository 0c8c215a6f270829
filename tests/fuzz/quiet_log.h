// The fuzz targets run the engine millions of times: its log lines are formatted as always
// (a bad format argument still shows) but not printed, unless ZOLTPANO_FUZZ_LOG is set (to
// look at what one input does).
#pragma once

#include <android/log.h>

#include <cstdlib>

namespace zolt::fuzz {

inline void dropLine(const struct __android_logger_data*, const char*) {}
inline void quietLog() {
  if (std::getenv("ZOLTPANO_FUZZ_LOG") == nullptr) __android_log_set_logger(dropLine);
}

}  // namespace zolt::fuzz
