// Logging for the whole engine: every line goes through zolt::log::print, which drops what is
// below the level set with ZOLT_PANO_SetLogLevel and hands the rest to the sink set with
// ZOLT_PANO_SetLogSink or, by default, to the platform log under the tag "PanoEngine".
// Priorities: info (4) for progress, timings and statistics; warn (5) for per-frame copies and
// most user warnings; error (6) for failures. On the host, Debian's liblog prints to stderr.
#pragma once

#include <android/log.h>

#include "zolt_pano_ext.h"

#define ZOLT_LOG_TAG "PanoEngine"

namespace zolt::log {

// One line at `priority` (an Android priority), printf-formatted. Returns what the platform log
// returns for a line it was given (the bytes written, as __android_log_print), else 0.
int print(int priority, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// Lines below `minPriority` are dropped before they are formatted; 2 (verbose) to 8 (silent).
void setLevel(int minPriority);
int level();
// Whether a line at `priority` would be written (for callers that prepare costly arguments).
bool enabled(int priority);
// NULL: the platform log.
void setSink(ZOLT_PANO_LogSink sink, void* user);

// The starting level from ZOLTPANO_LOG_LEVEL ("2".."8" or a priority's name), or 2 when it is
// unset or not understood. Exposed for tests.
int levelFromEnvironment(const char* value);

}  // namespace zolt::log

#define ZLOGI(...) ::zolt::log::print(ANDROID_LOG_INFO, __VA_ARGS__)
#define ZLOGW(...) ::zolt::log::print(ANDROID_LOG_WARN, __VA_ARGS__)
#define ZLOGE(...) ::zolt::log::print(ANDROID_LOG_ERROR, __VA_ARGS__)
