// The host sensor service: the platform's looper and sensor functions the engine calls, on
// Linux, so that the engine's polling thread is the same code as on a phone. One gyroscope
// (present only after zolt_host_sensor_set_gyroscope(1)); events come from
// zolt_host_sensor_push_gyro, not from hardware, and are delivered as pushed (the event rate is
// recorded, not enforced).
//
// Failure injection for tests: the environment variable ZOLT_HOST_SENSOR_FAIL, read at each
// call, holds a comma-separated list of what fails: "looper" (ALooper_prepare returns null),
// "manager" (ASensorManager_getInstance), "sensor" (ASensorManager_getDefaultSensor), "queue"
// (ASensorManager_createEventQueue).
//
// One mutex guards the whole service; each looper waits on a condition variable of its own,
// zolt_host_sensor_sync on a shared one.
#include <android/looper.h>
#include <android/sensor.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "zolt_host_sensor.h"

struct ALooper {
  std::condition_variable wakeup;
  bool wakePending = false;  // set by ALooper_wake, consumed by one poll
  std::vector<ASensorEventQueue*> queues;
};

struct ASensorEventQueue {
  ALooper* looper = nullptr;  // null once the looper's thread ended
  int ident = 0;
  bool enabled = false;
  int32_t rateUs = 0;
  std::deque<ASensorEvent> pending;
  // Events handed out by the last getEvents: in the consumer's hands until it asks again.
  size_t inHand = 0;
};

struct ASensorManager {
  int unused = 0;
};

struct ASensor {
  int type;
  int handle;
};

namespace {

std::mutex gMutex;
std::condition_variable gSettled;           // a queue drained, was disabled or went away
std::set<ALooper*> gLoopers;                // loopers whose thread is alive
std::set<ASensorEventQueue*> gQueues;       // every queue not yet destroyed
bool gGyroscopePresent = false;
ASensorManager gManager;
const ASensor gGyroscope{ASENSOR_TYPE_GYROSCOPE, 1};

bool failureInjected(const char* what) {
  const char* env = std::getenv("ZOLT_HOST_SENSOR_FAIL");
  if (env == nullptr) return false;
  const std::string list = std::string(",") + env + ",";
  return list.find(std::string(",") + what + ",") != std::string::npos;
}

// Queues of a looper whose thread ended keep nothing; their owner may still destroy them.
void endLooper(ALooper* looper) {
  std::lock_guard<std::mutex> lock(gMutex);
  gLoopers.erase(looper);
  for (ASensorEventQueue* q : looper->queues) {
    q->looper = nullptr;
    q->pending.clear();
    q->inHand = 0;
  }
  gSettled.notify_all();
  delete looper;
}

// The calling thread's looper, ended with the thread.
struct ThreadLooper {
  ALooper* looper = nullptr;
  ~ThreadLooper() {
    if (looper != nullptr) endLooper(looper);
  }
};
thread_local ThreadLooper tLooper;

bool settled(const ASensorEventQueue* q) {
  return !q->enabled || q->looper == nullptr || (q->pending.empty() && q->inHand == 0);
}

void detach(ASensorEventQueue* q) {
  if (q->looper == nullptr) return;
  auto& list = q->looper->queues;
  for (size_t i = 0; i < list.size(); ++i)
    if (list[i] == q) {
      list.erase(list.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  q->looper = nullptr;
}

}  // namespace

extern "C" {

ALooper* ALooper_prepare(int opts) {
  (void)opts;  // queues without callbacks only: the engine asks for exactly that
  if (failureInjected("looper")) return nullptr;
  if (tLooper.looper == nullptr) {
    auto* looper = new ALooper();
    std::lock_guard<std::mutex> lock(gMutex);
    gLoopers.insert(looper);
    tLooper.looper = looper;
  }
  return tLooper.looper;
}

int ALooper_pollAll(int timeoutMillis, int* outFd, int* outEvents, void** outData) {
  ALooper* looper = tLooper.looper;
  if (looper == nullptr) return ALOOPER_POLL_ERROR;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillis);
  std::unique_lock<std::mutex> lock(gMutex);
  for (;;) {
    for (ASensorEventQueue* q : looper->queues) {
      q->inHand = 0;  // the consumer polls again: what it held is done
      if (!q->pending.empty()) {
        if (outFd != nullptr) *outFd = -1;
        if (outEvents != nullptr) *outEvents = ALOOPER_EVENT_INPUT;
        if (outData != nullptr) *outData = nullptr;
        return q->ident;
      }
    }
    gSettled.notify_all();
    if (looper->wakePending) {
      looper->wakePending = false;
      return ALOOPER_POLL_WAKE;
    }
    if (timeoutMillis == 0) return ALOOPER_POLL_TIMEOUT;
    if (timeoutMillis < 0) {
      looper->wakeup.wait(lock);
    } else if (looper->wakeup.wait_until(lock, deadline) == std::cv_status::timeout) {
      // One more look for what arrived with the deadline, then give up.
      for (ASensorEventQueue* q : looper->queues)
        if (!q->pending.empty()) return q->ident;
      if (looper->wakePending) {
        looper->wakePending = false;
        return ALOOPER_POLL_WAKE;
      }
      return ALOOPER_POLL_TIMEOUT;
    }
  }
}

void ALooper_wake(ALooper* looper) {
  std::lock_guard<std::mutex> lock(gMutex);
  if (gLoopers.count(looper) == 0) return;  // its thread has ended
  looper->wakePending = true;
  looper->wakeup.notify_all();
}

ASensorManager* ASensorManager_getInstance() {
  if (failureInjected("manager")) return nullptr;
  return &gManager;
}

ASensor const* ASensorManager_getDefaultSensor(ASensorManager* manager, int type) {
  if (manager == nullptr || failureInjected("sensor")) return nullptr;
  std::lock_guard<std::mutex> lock(gMutex);
  if (type != ASENSOR_TYPE_GYROSCOPE || !gGyroscopePresent) return nullptr;
  return &gGyroscope;
}

ASensorEventQueue* ASensorManager_createEventQueue(ASensorManager* manager, ALooper* looper,
                                                   int ident, ALooper_callbackFunc callback,
                                                   void* data) {
  (void)data;
  // Callback queues are not offered: the engine polls its queue itself.
  if (manager == nullptr || looper == nullptr || callback != nullptr || failureInjected("queue"))
    return nullptr;
  std::lock_guard<std::mutex> lock(gMutex);
  if (gLoopers.count(looper) == 0) return nullptr;
  auto* q = new ASensorEventQueue();
  q->looper = looper;
  q->ident = ident;
  looper->queues.push_back(q);
  gQueues.insert(q);
  return q;
}

int ASensorManager_destroyEventQueue(ASensorManager* manager, ASensorEventQueue* queue) {
  (void)manager;
  std::lock_guard<std::mutex> lock(gMutex);
  if (gQueues.erase(queue) == 0) return -EINVAL;
  detach(queue);
  delete queue;
  gSettled.notify_all();
  return 0;
}

int ASensorEventQueue_enableSensor(ASensorEventQueue* queue, ASensor const* sensor) {
  if (queue == nullptr || sensor != &gGyroscope) return -EINVAL;
  std::lock_guard<std::mutex> lock(gMutex);
  queue->enabled = true;
  return 0;
}

int ASensorEventQueue_disableSensor(ASensorEventQueue* queue, ASensor const* sensor) {
  if (queue == nullptr || sensor != &gGyroscope) return -EINVAL;
  std::lock_guard<std::mutex> lock(gMutex);
  queue->enabled = false;
  queue->pending.clear();
  queue->inHand = 0;
  gSettled.notify_all();
  return 0;
}

int ASensorEventQueue_setEventRate(ASensorEventQueue* queue, ASensor const* sensor, int32_t usec) {
  if (queue == nullptr || sensor != &gGyroscope || usec <= 0) return -EINVAL;
  std::lock_guard<std::mutex> lock(gMutex);
  queue->rateUs = usec;
  return 0;
}

ssize_t ASensorEventQueue_getEvents(ASensorEventQueue* queue, ASensorEvent* events, size_t count) {
  if (queue == nullptr || events == nullptr) return -EINVAL;
  std::lock_guard<std::mutex> lock(gMutex);
  queue->inHand = 0;  // the consumer asks again: what it held is done
  size_t n = 0;
  while (n < count && !queue->pending.empty()) {
    events[n++] = queue->pending.front();
    queue->pending.pop_front();
  }
  queue->inHand = n;
  if (settled(queue)) gSettled.notify_all();
  return n > 0 ? static_cast<ssize_t>(n) : -EAGAIN;
}

void zolt_host_sensor_set_gyroscope(int present) {
  std::lock_guard<std::mutex> lock(gMutex);
  gGyroscopePresent = present != 0;
}

void zolt_host_sensor_push_gyro(int64_t timestamp_ns, float wx, float wy, float wz) {
  ASensorEvent e;
  std::memset(&e, 0, sizeof e);
  e.version = sizeof e;
  e.sensor = gGyroscope.handle;
  e.type = ASENSOR_TYPE_GYROSCOPE;
  e.timestamp = timestamp_ns;
  e.vector.x = wx;
  e.vector.y = wy;
  e.vector.z = wz;
  std::lock_guard<std::mutex> lock(gMutex);
  for (ASensorEventQueue* q : gQueues) {
    if (!q->enabled || q->looper == nullptr) continue;
    q->pending.push_back(e);
    q->looper->wakeup.notify_all();
  }
}

void zolt_host_sensor_sync(void) {
  std::unique_lock<std::mutex> lock(gMutex);
  gSettled.wait(lock, [] {
    for (const ASensorEventQueue* q : gQueues)
      if (!settled(q)) return false;
    return true;
  });
}

}  // extern "C"
