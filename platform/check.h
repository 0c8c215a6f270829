// Checks of what callers must guarantee but the engine does not report (a null plane, a copy
// larger than the image). Active in debug and sanitizer builds (ZOLTPANO_CHECKS), where a
// broken promise aborts with a log line instead of corrupting memory silently; compiled out
// of release builds, whose behaviour they must never change.
#pragma once

#include <cstdlib>

#include "platform/log.h"

#if !defined(NDEBUG) || defined(ZOLTPANO_CHECKS)
#define ZOLT_CHECK(cond, what)                                                            \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      ZLOGE("check failed: %s (%s) at %s:%d", what, #cond, __FILE__, __LINE__);           \
      std::abort();                                                                       \
    }                                                                                     \
  } while (0)
#else
#define ZOLT_CHECK(cond, what) ((void)0)
#endif
