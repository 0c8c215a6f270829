// What this process holds: its threads and the memory it has allocated. Shared by the soak
// command and the tests that check Initial / Release cycles leave nothing behind.
#pragma once

#include <dirent.h>
#include <malloc.h>
#include <unistd.h>

namespace zolt::tools {

// Threads of this process (/proc/self/task).
inline int threadCount() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
  }
  return n;
}

// Threads once every thread joined before the call has left /proc/self/task: pthread_join
// returns when the kernel clears the thread's id, a moment before it stops listing the thread.
// Waits up to two seconds for the count to come down to `want`.
inline int threadCountSettled(int want) {
  int n = threadCount();
  for (int i = 0; i < 200 && n > want; ++i, n = threadCount()) usleep(10000);
  return n;
}

// Bytes allocated and not freed (glibc's heap and mmap'd blocks, all arenas): what a leak grows.
// Resident memory also moves with what the allocator and the kernel keep back of freed memory,
// which depends on the threads' timing and the machine's page policy.
inline long long heapInUseBytes() {
  const struct mallinfo2 m = mallinfo2();
  return static_cast<long long>(m.uordblks + m.hblkhd);
}

}  // namespace zolt::tools
