// SensorInterface: owns the gyroscope fusion library, receives its orientation callback on the
// polling thread and keeps, under one mutex for the caller's thread, the latest orientation and
// the history of orientations by event time (for a frame with a capture time).
// The process-wide instance is pSensorHandle (sensor_handle.h); the fusion callback reaches it
// through that global, not through a context pointer.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "sensor/attitude_history.h"
#include "sensor/gyroscope_lib/gyroscope_lib.h"
#include "zolt_pano.h"

class ZOLT_PANO_EXPORT SensorInterface {
 public:
  android::Gyroscope_Lib* gyroLib = nullptr;  // owned
  android::callbackFunc* callbacks = nullptr;  // owned; handed to gyroLib
  float angles[3] = {0, 0, 0};     // latest angles, rad: (pitch, yaw, roll), the library's reversed
  float rotation[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};  // latest phone -> world rotation, row-major
  AttitudeHistory history;  // the attitudes by event time, filled with angles and rotation
  pthread_mutex_t dataMutex = PTHREAD_MUTEX_INITIALIZER;  // guards angles, rotation, history
  // The event whose attitude the next orientation callback brings (polling thread only).
  long long pendingEventNs = 0;
  float pendingRate[3] = {0, 0, 0};  // rad/s
  bool eventPending = false;
  std::atomic<int32_t> dataReady{0};  // 1 once the first orientation arrived; never reset

  SensorInterface();
  ~SensorInterface();
  SensorInterface(const SensorInterface&) = delete;
  SensorInterface& operator=(const SensorInterface&) = delete;

  // Creates the fusion library and the polling thread and starts the gyroscope. False when it
  // cannot be started; the objects then stay for deinit.
  bool init();
  // Stops and joins the polling thread, then frees the fusion library and the callbacks.
  void deinit();
  void postThrdtostop();
  // The latest orientation: 0 with data; -1 before the first one (zero angles, identity).
  int get_Cur_GyroSensorVal(float* anglesOut, float* rotationOut);
  // The orientation at tNs on the events' clock, from the history (AttitudeHistory::at), in the
  // form of get_Cur_GyroSensorVal: 0 with data, -1 before the first event. Holds the mutex for
  // a binary search and an interpolation (microseconds).
  int attitudeAt(int64_t tNs, float* anglesOut, float* rotationOut);
  // The newest attitude's stamp on the events' clock; false before the first event.
  bool newestStamp(int64_t* stampNs);
  // Stores angles reversed and the upper-left 3x3 of the row-major 4x4 matrix, and the fusion's
  // attitude into the history under the pending event's time. Polling thread.
  void write_sensor_data(float* anglesIn, float* matrix);

  static void handleReceivedRMChange(float* matrix, float* ignored, float* anglesIn);
  static void handleReceivedCorrectedSensorData(int type, float* values, long long timestampNs);
};
