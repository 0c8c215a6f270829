#include "sensor/sensor_interface.h"

#include <system_error>

#include "platform/log.h"
#include "sensor/native_sensor_interface.h"
#include "sensor/sensor_handle.h"

namespace {

// The options word the engine hands to the fusion library.
constexpr int kFusionOptions = 5;

void lockOrThrow(pthread_mutex_t* m) {
  const int err = pthread_mutex_lock(m);
  if (err != 0) throw std::system_error(err, std::generic_category(), "SensorInterface lock");
}

}  // namespace

SensorInterface::SensorInterface() {
  ZLOGI("---------Constructor of SensorInterface  called -------------- \n");
}

SensorInterface::~SensorInterface() {
  ZLOGI("---------Destructor of SensorInterface  called -------------- \n");
  pthread_mutex_destroy(&dataMutex);
}

bool SensorInterface::init() {
  dataReady.store(0);
  lockOrThrow(&dataMutex);
  history.clear();
  pthread_mutex_unlock(&dataMutex);
  eventPending = false;
  gyroLib = new android::Gyroscope_Lib();
  ZLOGI("SensorInterface :gyroLib created");
  callbacks = new android::callbackFunc();
  ZLOGI("SensorInterface :gyroLib callbacks");
  callbacks->onCorrectedSensorData = handleReceivedCorrectedSensorData;
  ZLOGI("SensorInterface :callbacks->onCorrectedSensorData Created");
  callbacks->onRMChange = handleReceivedRMChange;
  ZLOGI("SensorInterface :callbacks->onRMChange Created");
  gyroLib->initializeLib(kFusionOptions, callbacks);
  ZLOGI("SensorInterface :gyroLib->initializeLib DONE");
  pollSensor = new android::NativeSensorInterface();
  if (pollSensor->startSensor() >= 0) return true;
  ZLOGE("SensorInterface::init : Sensor Acquisition Failed ");
  return false;
}

void SensorInterface::deinit() {
  postThrdtostop();
  delete gyroLib;
  gyroLib = nullptr;
  delete callbacks;
  callbacks = nullptr;
}

void SensorInterface::postThrdtostop() {
  if (pollSensor == nullptr) return;
  pollSensor->stopSensor();
  ZLOGI("SensorInterface : Informed sensor thread to start terminating by stopSensor()");
  ZLOGI("SensorInterface : Calling delete pollSensor");
  delete pollSensor;
  pollSensor = nullptr;
}

int SensorInterface::get_Cur_GyroSensorVal(float* anglesOut, float* rotationOut) {
  if (dataReady.load(std::memory_order_acquire) != 0) {
    lockOrThrow(&dataMutex);
    for (int i = 0; i < 3; ++i) anglesOut[i] = angles[i];
    for (int i = 0; i < 9; ++i) rotationOut[i] = rotation[i];
    pthread_mutex_unlock(&dataMutex);
    // Degrees the way the line has always printed them: a float product, then 1/pi in double.
    double deg[3];
    for (int i = 0; i < 3; ++i)
      deg[i] = static_cast<double>(static_cast<float>(anglesOut[i] * 180.0f)) * 0.3183098861837907;
    ZLOGI("SensorInterface : Exitting get_Cur_GyroSensorVal  %f  %f  %f  ", deg[0], deg[1], deg[2]);
    return 0;
  }
  for (int i = 0; i < 3; ++i) anglesOut[i] = 0.0f;
  for (int i = 0; i < 9; ++i) rotationOut[i] = (i % 4 == 0) ? 1.0f : 0.0f;
  ZLOGI("SensorInterface : Sensor Data Not yet ready..hence setting values to 0 ");
  return -1;
}

void SensorInterface::write_sensor_data(float* anglesIn, float* matrix) {
  lockOrThrow(&dataMutex);
  angles[0] = anglesIn[2];
  angles[1] = anglesIn[1];
  angles[2] = anglesIn[0];
  // The upper-left 3x3 of the row-major 4x4.
  static const int kFrom4x4[9] = {0, 1, 2, 4, 5, 6, 8, 9, 10};
  for (int i = 0; i < 9; ++i) rotation[i] = matrix[kFrom4x4[i]];
  if (eventPending && gyroLib != nullptr) {
    double q[4];
    gyroLib->quaternion(q);
    history.add(pendingEventNs, q, pendingRate);
    eventPending = false;
  }
  pthread_mutex_unlock(&dataMutex);
  dataReady.store(1, std::memory_order_release);
}

void SensorInterface::handleReceivedRMChange(float* matrix, float* ignored, float* anglesIn) {
  if (pSensorHandle == nullptr) {
    ZLOGE("SensorInterface : Init Failed");
    return;
  }
  pSensorHandle->write_sensor_data(anglesIn, matrix);
}

int SensorInterface::attitudeAt(int64_t tNs, float* anglesOut, float* rotationOut) {
  double q[4];
  lockOrThrow(&dataMutex);
  const AttitudeHistory::Where where = history.at(tNs, q);
  pthread_mutex_unlock(&dataMutex);
  double r[9];
  android::Gyroscope_Lib::toMatrix(q, r);
  float libAngles[3];
  android::Gyroscope_Lib::cameraAngles(r, libAngles);
  // Stored as write_sensor_data stores them: reversed, and the rotation in float.
  for (int i = 0; i < 3; ++i) anglesOut[i] = libAngles[2 - i];
  for (int i = 0; i < 9; ++i) rotationOut[i] = static_cast<float>(r[i]);
  ZLOGI("SensorInterface : attitude at %lld ns (%s) : %f  %f  %f ", static_cast<long long>(tNs),
        where == AttitudeHistory::Where::kInside   ? "between events"
        : where == AttitudeHistory::Where::kAfter  ? "after the newest event"
        : where == AttitudeHistory::Where::kBefore ? "before the oldest event kept"
                                                   : "no event yet",
        anglesOut[0], anglesOut[1], anglesOut[2]);
  return where == AttitudeHistory::Where::kEmpty ? -1 : 0;
}

bool SensorInterface::newestStamp(int64_t* stampNs) {
  lockOrThrow(&dataMutex);
  const bool any = history.newestStamp(stampNs);
  pthread_mutex_unlock(&dataMutex);
  return any;
}

void SensorInterface::handleReceivedCorrectedSensorData(int, float* values, long long timestampNs) {
  if (pSensorHandle == nullptr || values == nullptr) return;
  pSensorHandle->pendingEventNs = timestampNs;
  for (int i = 0; i < 3; ++i) pSensorHandle->pendingRate[i] = values[i];
  pSensorHandle->eventPending = true;
}
