// Helpers for the gyroscope tests: threads and memory of this process, the host service's
// failure switch, and a guard that ends a test which would otherwise wait for ever.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "tools/process_stats.h"

namespace zolt::test {

using tools::heapInUseBytes;
using tools::threadCount;
using tools::threadCountSettled;

// Makes the host sensor service fail at `what` ("looper", "manager", "sensor", "queue") while
// alive; empty: nothing fails.
struct InjectedSensorFailure {
  explicit InjectedSensorFailure(const std::string& what) {
    if (!what.empty()) setenv("ZOLT_HOST_SENSOR_FAIL", what.c_str(), 1);
  }
  ~InjectedSensorFailure() { unsetenv("ZOLT_HOST_SENSOR_FAIL"); }
};

// Runs f on another thread; a call that has not returned after `limit` is a hang: the test
// program says so and ends, rather than waiting for ctest's time-out.
template <typename F>
void mustReturn(const char* what, F f, std::chrono::seconds limit = std::chrono::seconds(60)) {
  auto done = std::async(std::launch::async, f);
  if (done.wait_for(limit) == std::future_status::timeout) {
    std::fprintf(stderr, "%s did not return within %lld s\n", what,
                 static_cast<long long>(limit.count()));
    std::_Exit(1);
  }
  done.get();
}

// Threads of this process at rest after one Initial / Release, so that threads the libraries
// (and ThreadSanitizer) start lazily are in the count.
inline int threadsAtRest() {
  const int initial = threadCount();
  Engine engine;
  if (engine.initial() != SUCCESS) return -1;
  mustReturn("ZOLT_PANO_Release", [&] { engine.release(); });
  return threadCountSettled(initial);
}

// True when `want` appears in the log in this order (other lines may come between).
inline bool inOrder(const LogCapture& log, const std::vector<std::string>& want) {
  size_t i = 0;
  for (const auto& l : log.lines()) i += i < want.size() && l.message == want[i];
  return i == want.size();
}

}  // namespace zolt::test
