// Logging for the whole engine: every line goes to the platform log under the tag "PanoEngine".
// Priorities: info (4) for progress, timings and statistics; warn (5) for per-frame copies and
// most user warnings; error (6) for failures. On the host, Debian's liblog prints to stderr.
#pragma once

#include <android/log.h>

#define ZOLT_LOG_TAG "PanoEngine"

#define ZLOGI(...) __android_log_print(ANDROID_LOG_INFO, ZOLT_LOG_TAG, __VA_ARGS__)
#define ZLOGW(...) __android_log_print(ANDROID_LOG_WARN, ZOLT_LOG_TAG, __VA_ARGS__)
#define ZLOGE(...) __android_log_print(ANDROID_LOG_ERROR, ZOLT_LOG_TAG, __VA_ARGS__)
