// android::NativeSensorInterface: the gyroscope polling thread on its own looper. Start is
// signalled through eSensorStat (polled every 10 ms), the end through exitSem.
#pragma once

#include <android/looper.h>
#include <android/sensor.h>
#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cstdint>

#include "zolt_pano.h"

namespace android {

// Start state of the polling thread.
enum : int32_t { kSensorStarting = 0, kSensorFailed = 1, kSensorRunning = 2 };
extern std::atomic<int32_t> eSensorStat;

class ZOLT_PANO_EXPORT NativeSensorInterface {
 public:
  sem_t exitSem;                            // posted by the polling thread when it ends
  pthread_t thread = static_cast<pthread_t>(-1);  // -1 until started
  ASensorManager* sensorManager = nullptr;  // written by the polling thread
  const ASensor* gyroSensor = nullptr;      // written by the polling thread
  ASensorEventQueue* eventQueue = nullptr;  // written by the polling thread
  ALooper* looper = nullptr;                // the polling thread's; written by it
  std::atomic<bool> running{false};         // the polling loop runs while true

  // Starts the polling thread and waits until it registered or failed: 1 when running (also
  // when already running), -1 when the gyroscope could not be registered.
  int startSensor();
  // Clears running, wakes the looper and waits for the thread's end, then joins it.
  void stopSensor();
};

ZOLT_PANO_EXPORT void* pollThread(void* self);

}  // namespace android

// The polling thread object while a SensorInterface is initialised.
extern android::NativeSensorInterface* pollSensor;
