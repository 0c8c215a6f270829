#include "platform/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace zolt::log {
namespace {

constexpr int kVerbose = ANDROID_LOG_VERBOSE;  // 2
constexpr int kSilent = ANDROID_LOG_SILENT;    // 8
// The platform log cuts a line at this many bytes, terminator included; the sink gets the same.
constexpr size_t kLineBytes = 1024;

int startingLevel() {
#ifdef __ANDROID__
  return kVerbose;
#else
  return levelFromEnvironment(std::getenv("ZOLTPANO_LOG_LEVEL"));
#endif
}

std::atomic<int> gLevel{startingLevel()};

// The sink and its user pointer change together, and a sink is never called after the call that
// replaced it has returned: both are read, and the sink is called, under one mutex. Without a
// sink (the default) no lock is taken.
struct Sink {
  std::mutex mutex;
  ZOLT_PANO_LogSink fn = nullptr;
  void* user = nullptr;
  std::atomic<bool> set{false};
};

Sink& sink() {
  static Sink* s = new Sink;  // never destroyed: the sensor thread may log during exit
  return *s;
}

}  // namespace

int levelFromEnvironment(const char* value) {
  if (value == nullptr) return kVerbose;
  static const char* const kNames[] = {"verbose", "debug", "info", "warn", "error", "fatal",
                                       "silent"};
  for (int i = 0; i < 7; ++i)
    if (std::strcmp(value, kNames[i]) == 0) return kVerbose + i;
  char* end = nullptr;
  const long n = std::strtol(value, &end, 10);
  if (end != value && *end == '\0' && n >= kVerbose && n <= kSilent) return static_cast<int>(n);
  return kVerbose;
}

void setLevel(int minPriority) { gLevel.store(minPriority, std::memory_order_relaxed); }

int level() { return gLevel.load(std::memory_order_relaxed); }

bool enabled(int priority) { return priority >= level(); }  // silent (8) is above every line

void setSink(ZOLT_PANO_LogSink fn, void* user) {
  Sink& s = sink();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.fn = fn;
  s.user = user;
  s.set.store(fn != nullptr, std::memory_order_release);
}

int print(int priority, const char* fmt, ...) {
  if (!enabled(priority)) return 0;
  va_list ap;
  va_start(ap, fmt);
  Sink& s = sink();
  if (s.set.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.fn != nullptr) {
      char line[kLineBytes];
      std::vsnprintf(line, sizeof line, fmt, ap);
      s.fn(priority, ZOLT_LOG_TAG, line, s.user);
      va_end(ap);
      return 0;
    }
  }
  const int written = __android_log_vprint(priority, ZOLT_LOG_TAG, fmt, ap);
  va_end(ap);
  return written;
}

}  // namespace zolt::log
