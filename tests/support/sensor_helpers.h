// Helpers for the gyroscope tests: threads and memory of this process, the host service's
// failure switch, and a guard that ends a test which would otherwise wait for ever.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

namespace zolt::test {

// Threads of this process.
inline int threadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') ++n;
    closedir(d);
  }
  return n;
}

// Threads of this process once a thread just joined has left /proc (the kernel lists it a
// moment longer than pthread_join waits): waits up to two seconds for the count to reach `want`.
inline int threadCountSettled(int want) {
  int n = threadCount();
  for (int i = 0; i < 200 && n > want; ++i) {
    usleep(10000);
    n = threadCount();
  }
  return n;
}

// Threads of this process at rest, after one thread has come and gone: a runtime that starts a
// helper thread with the first thread of the process (ThreadSanitizer does) has done so.
inline int threadBaseline() {
  const int n = threadCount();
  std::thread([] {}).join();
  return threadCountSettled(n);
}

// Resident memory, kB.
inline long residentKb() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Makes the host sensor service fail at `what` ("looper", "manager", "sensor", "queue") while
// alive; empty: nothing fails.
class InjectedSensorFailure {
 public:
  explicit InjectedSensorFailure(const std::string& what) {
    if (!what.empty()) setenv("ZOLT_HOST_SENSOR_FAIL", what.c_str(), 1);
  }
  ~InjectedSensorFailure() { unsetenv("ZOLT_HOST_SENSOR_FAIL"); }
  InjectedSensorFailure(const InjectedSensorFailure&) = delete;
  InjectedSensorFailure& operator=(const InjectedSensorFailure&) = delete;
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

}  // namespace zolt::test
