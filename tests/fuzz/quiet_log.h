// The fuzz targets run the engine millions of times: its log lines are formatted as always
// (a bad format argument still shows) but not printed, unless ZOLTPANO_FUZZ_LOG is set (to
// look at what one input does).
#pragma once

#include <cstdlib>

#include "zolt_pano_ext.h"

namespace zolt::fuzz {

inline void dropLine(int, const char*, const char*, void*) {}
inline void quietLog() {
  if (std::getenv("ZOLTPANO_FUZZ_LOG") == nullptr) ZOLT_PANO_SetLogSink(dropLine, nullptr);
}

}  // namespace zolt::fuzz
