// OrreryEngine: the gyroscope's life cycle. One sensor object serves the process (the global
// of sensor/sensor_handle.h); the engine starts it at its creation, reads its attitude before
// each frame (the newest one, or the one at the frame's capture time) and stops it at its
// release.
#include <exception>

#include "engine/orrery_engine.h"
#include "platform/log.h"
#include "sensor/sensor_handle.h"
#include "sensor/sensor_interface.h"

namespace {

// Stops the polling thread and frees the sensor object; pSensorHandle is null afterwards.
void finishSensor() {
  if (pSensorHandle != nullptr) {
    pSensorHandle->deinit();
    ZLOGI("%s ::SensorInterface : DeInit Done", "FinishSensor");
  }
  if (pSensorHandle != nullptr) delete pSensorHandle;  // logs its destructor line
  pSensorHandle = nullptr;
  ZLOGI("%s ::SensorInterface : Deleted", "FinishSensor");
}

}  // namespace

bool OrreryEngine::startGyroscope(std::string& failure) {
  // A sensor still running from an Initial without Release is stopped first: left alone, its
  // thread could never be stopped and would feed the same fusion library as the new one.
  if (pSensorHandle != nullptr) finishSensor();
  bool started = false;
  try {
    pSensorHandle = new SensorInterface();
    ZLOGI("%s ::SensorInterface : Created", "ZOLT_PANO_Initial");
    started = pSensorHandle->init();
  } catch (const std::exception& e) {
    failure = std::string("ZOLT_PANO_Initial : exception : ") + e.what();
  } catch (...) {
    failure = "ZOLT_PANO_Initial : unknown exception";
  }
  if (!failure.empty()) ZLOGE("%s", failure.c_str());
  if (started) {
    ZLOGI("%s :: SensorInterface : Init Success", "ZOLT_PANO_Initial");
    return true;
  }
  ZLOGE("%s :: SensorInterface : Init FAILED : GyroSensor Not Available", "ZOLT_PANO_Initial");
  finishSensor();
  return false;
}

void OrreryEngine::stopGyroscope() { finishSensor(); }

OrreryEngine::FrameTime OrreryEngine::setFrameTime(int64_t timeNs, int64_t* newestNs) {
  pendingFrameTimeNs = 0;
  if (timeNs <= 0) return FrameTime::kNotPositive;
  if (timeNs <= lastFrameTimeNs) return FrameTime::kNotAfterLast;
  // Far from every event is a time on another clock (or a gyroscope stalled for a second): the
  // history cannot place it.
  const int64_t onGyroClock = timeNs + options.gyroDelayNs;
  if (pSensorHandle != nullptr && pSensorHandle->newestStamp(newestNs) &&
      (onGyroClock > *newestNs + kFrameTimeReachNs || onGyroClock < *newestNs - kFrameTimeReachNs))
    return FrameTime::kFarFromEvents;
  lastFrameTimeNs = timeNs;
  pendingFrameTimeNs = timeNs;
  return FrameTime::kSet;
}

int64_t OrreryEngine::takeFrameTime() {
  const int64_t t = pendingFrameTimeNs;
  pendingFrameTimeNs = 0;
  return t > 0 ? t + options.gyroDelayNs : 0;
}

void OrreryEngine::readGyroscope(int64_t frameTimeNs) {
  if (pSensorHandle == nullptr) {
    ZLOGE("Sensor is not initialised");
    return;
  }
  float angles[3];
  float rotation[9];
  const int gyroRet = frameTimeNs != 0
                          ? pSensorHandle->attitudeAt(frameTimeNs, angles, rotation)
                          : pSensorHandle->get_Cur_GyroSensorVal(angles, rotation);
  ZLOGI("%s : GyroRet = %d Angles : %f   %f   %f ", "ZOLT_PANO_SelectFrames", gyroRet, angles[0],
        angles[1], angles[2]);
  // Elements 7 and 8 print swapped; readers of the log expect it so.
  ZLOGI("%s : RotMat : %f   %f   %f  %f  %f  %f  %f  %f  %f ", "ZOLT_PANO_SelectFrames",
        rotation[0], rotation[1], rotation[2], rotation[3], rotation[4], rotation[5], rotation[6],
        rotation[8], rotation[7]);
  provideIMU(angles, rotation);
  ZLOGI("SensorInterface : In Pano : provideIMU DONE");
}
