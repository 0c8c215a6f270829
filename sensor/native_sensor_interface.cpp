#include "sensor/native_sensor_interface.h"

#include <unistd.h>

#if defined(__ANDROID__) && __has_include(<android/ndk-version.h>)
#include <android/ndk-version.h>
#endif

#include "platform/log.h"
#include "sensor/sensor_handle.h"
#include "sensor/sensor_interface.h"

// NDK r27 and later no longer declare ALooper_pollAll (on a looper with callbacks it can miss
// a wake); on this looper, which has none, ALooper_pollOnce returns the same values.
#if defined(__NDK_MAJOR__) && __NDK_MAJOR__ >= 27
#define ZOLT_LOOPER_POLL ALooper_pollOnce
#else
#define ZOLT_LOOPER_POLL ALooper_pollAll
#endif

namespace android {

std::atomic<int32_t> eSensorStat{kSensorStarting};

namespace {

constexpr int kQueueIdent = 1;
constexpr int32_t kEventRateUs = 16000;  // one event each 16 ms
constexpr useconds_t kStartPollUs = 10000;

// Registration failed: report it to startSensor and end.
void* failRegistration(NativeSensorInterface* self) {
  eSensorStat.store(kSensorFailed);
  sem_post(&self->exitSem);
  return nullptr;
}

}  // namespace

int NativeSensorInterface::startSensor() {
  ZLOGI("NativeSensorInterface :  Entered startSensor");
  if (running.load()) {
    // The line says -1, but a second start counts as success.
    ZLOGI("NativeSensorInterface :  Sensors Already Registered : return -1");
    return 1;
  }
  running.store(true);
  sem_init(&exitSem, 0, 0);
  eSensorStat.store(kSensorStarting);
  if (pthread_create(&thread, nullptr, pollThread, this) != 0) {
    // No thread: stopSensor must find the semaphore posted and nothing to join.
    thread = static_cast<pthread_t>(-1);
    eSensorStat.store(kSensorFailed);
    sem_post(&exitSem);
  }
  while (eSensorStat.load() == kSensorStarting) usleep(kStartPollUs);
  if (eSensorStat.load() == kSensorFailed) {
    ZLOGE("NativeSensorInterface::startSensor : Sensor Acquisition Failed, returning -1 ");
    return -1;
  }
  ZLOGI("NativeSensorInterface :  Exitting startSensor");
  return 1;
}

void NativeSensorInterface::stopSensor() {
  ZLOGI("NativeSensorInterface :  Entered stopSensor");
  running.store(false);
  // The thread waits for events without a time limit: wake it so that a silent sensor cannot
  // hold the stop. The looper stays valid until the thread ends; a host looper that already
  // ended ignores the call.
  if (looper != nullptr) ALooper_wake(looper);
  sem_wait(&exitSem);
  if (!running.load() && thread != static_cast<pthread_t>(-1)) pthread_join(thread, nullptr);
  sem_destroy(&exitSem);
  ZLOGI("NativeSensorInterface :  Exitting stopSensor");
}

void* pollThread(void* arg) {
  auto* self = static_cast<NativeSensorInterface*>(arg);
  ZLOGI("NativeSensorInterface : Sensor Registration Start");
  self->looper = ALooper_prepare(ALOOPER_PREPARE_ALLOW_NON_CALLBACKS);
  if (self->looper == nullptr) {
    ZLOGE("NativeSensorInterface :looper is NULL");
    return failRegistration(self);
  }
  ZLOGI("NativeSensorInterface :looper is Success");
#if __ANDROID_API__ >= 26
  // API 26 deprecates ASensorManager_getInstance, which the platform implements as this call
  // with a null package name. (The host stand-in has no API level and keeps the old call.)
  self->sensorManager = ASensorManager_getInstanceForPackage(nullptr);
#else
  self->sensorManager = ASensorManager_getInstance();
#endif
  if (self->sensorManager == nullptr) {
    ZLOGE("NativeSensorInterface :sensorManager is NULL");
    return failRegistration(self);
  }
  ZLOGI("NativeSensorInterface :sensor man is Success");
  self->gyroSensor = ASensorManager_getDefaultSensor(self->sensorManager, ASENSOR_TYPE_GYROSCOPE);
  if (self->gyroSensor == nullptr) {
    ZLOGE("NativeSensorInterface :gyroSensor is NULL");
    return failRegistration(self);
  }
  ZLOGI("NativeSensorInterface :gyro is Success");
  self->eventQueue =
      ASensorManager_createEventQueue(self->sensorManager, self->looper, kQueueIdent, nullptr,
                                      nullptr);
  if (self->eventQueue == nullptr) {
    ZLOGE("NativeSensorInterface :sensorEventQueue is NULL");
    return failRegistration(self);
  }
  ZLOGI("NativeSensorInterface :queue is Success");
  ASensorEventQueue_enableSensor(self->eventQueue, self->gyroSensor);
  ASensorEventQueue_setEventRate(self->eventQueue, self->gyroSensor, kEventRateUs);
  eSensorStat.store(kSensorRunning);

  while (self->running.load()) {
    int fd, events;
    void* data;
    if (ZOLT_LOOPER_POLL(-1, &fd, &events, &data) < 0) break;
    ASensorEvent event;
    while (ASensorEventQueue_getEvents(self->eventQueue, &event, 1) > 0) {
      if (event.type != ASENSOR_TYPE_GYROSCOPE) continue;
      ZLOGI("NativeSensorInterface %f, %f, %f: timeStamp = %lld , Gyro Event Came",
            event.vector.x, event.vector.y, event.vector.z,
            static_cast<long long>(event.timestamp));
      if (pSensorHandle != nullptr) {
        float rates[3] = {event.vector.x, event.vector.y, event.vector.z};  // rad/s
        pSensorHandle->gyroLib->processEvent(ASENSOR_TYPE_GYROSCOPE, rates, event.timestamp);
      } else {
        ZLOGE("Sensor Handle : Not Initilised");
      }
    }
  }
  if (self->gyroSensor != nullptr)
    ASensorEventQueue_disableSensor(self->eventQueue, self->gyroSensor);
  if (self->eventQueue != nullptr)
    ASensorManager_destroyEventQueue(self->sensorManager, self->eventQueue);
  ZLOGI("NativeSensorInterface :  Exitting Polling thread");
  sem_post(&self->exitSem);
  return nullptr;
}

}  // namespace android

android::NativeSensorInterface* pollSensor = nullptr;
