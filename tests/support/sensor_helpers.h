// Helpers for the gyroscope tests: threads and memory of this process, the host service's
// failure switch, the engine's preview parameters, and a guard that ends a test which would
// otherwise wait for ever.
#pragma once

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "zolt_pano.h"

namespace zolt::test {

// Threads of this process.
inline int threadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

// Threads of this process once a thread just joined has left /proc (the kernel lists it a
// moment longer than pthread_join waits): waits up to two seconds for the count to reach `want`.
inline int threadCountSettled(int want) {
  int n = threadCount();
  for (int i = 0; i < 200 && n > want; ++i, n = threadCount()) usleep(10000);
  return n;
}

// Bytes the process has allocated and not freed (heap and mmap'd blocks): what a leak grows.
// Resident memory also moves with what the allocator and the kernel keep back, which depends
// on the threads' timing and the machine's page policy.
inline long long heapInUseBytes() {
  const struct mallinfo2 m = mallinfo2();
  return static_cast<long long>(m.uordblks + m.hblkhd);
}

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

// A landscape 1280x720 preview from a camera mounted at 90 degrees.
inline tag_ZOLT_PANO_INIT_PARAM previewParam() {
  tag_ZOLT_PANO_INIT_PARAM p{};
  p.previewWidth = 1280;
  p.previewHeight = 720;
  p.camOrientation = 90;
  return p;
}

// Threads of this process at rest after one Initial / Release, so that threads the libraries
// (and ThreadSanitizer) start lazily are in the count.
inline int threadsAtRest() {
  const int initial = threadCount();
  tag_ZOLT_PANO_INIT_PARAM p = previewParam();
  void* handle = nullptr;
  if (ZOLT_PANO_Initial(&p, &handle) != SUCCESS) return -1;
  mustReturn("ZOLT_PANO_Release", [&] { ZOLT_PANO_Release(&handle); });
  return threadCountSettled(initial);
}

// True when `want` appears in the log in this order (other lines may come between).
inline bool inOrder(const LogCapture& log, const std::vector<std::string>& want) {
  size_t i = 0;
  for (const auto& l : log.lines()) i += i < want.size() && l.message == want[i];
  return i == want.size();
}

}  // namespace zolt::test
