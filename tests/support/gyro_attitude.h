// The attitude the engine holds for each frame of a simulated sweep when a gyroscope is present:
// the sweep's gyroscope events fused by the gyroscope library, kept as the sensor interface keeps
// it (the upper-left 3 x 3 of the library's matrix), widened to double as the engine hands it to
// the tracker. No sensor thread: the events go straight into the library, in order.
#pragma once

#include <algorithm>
#include <vector>

#include "sensor/gyroscope_lib/gyroscope_lib.h"
#include "sensor/sensor_handle.h"
#include "sim/sweep_types.h"

namespace zolt::test {

class GyroAttitude {
 public:
  GyroAttitude() {
    current() = this;
    lib_.initializeLib(5, &callbacks_);
  }
  ~GyroAttitude() { current() = nullptr; }
  GyroAttitude(const GyroAttitude&) = delete;
  GyroAttitude& operator=(const GyroAttitude&) = delete;

  // Feeds the events up to a frame and gives the attitude then (identity before any event).
  void advance(const std::vector<sim::GyroEvent>& events, double rot[9]) {
    for (const sim::GyroEvent& e : events) {
      float w[3] = {static_cast<float>(e.rate[0]), static_cast<float>(e.rate[1]),
                    static_cast<float>(e.rate[2])};
      lib_.processEvent(4, w, e.tNs);
    }
    std::copy(rot_, rot_ + 9, rot);
  }

 private:
  static GyroAttitude*& current() {
    static GyroAttitude* c = nullptr;
    return c;
  }
  static void onRM(float* m, float*, float*) {
    const int idx[9] = {0, 1, 2, 4, 5, 6, 8, 9, 10};
    for (int i = 0; i < 9; ++i) current()->rot_[i] = m[idx[i]];
  }

  android::Gyroscope_Lib lib_;
  android::callbackFunc callbacks_{nullptr, &GyroAttitude::onRM};
  double rot_[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
};

// The tracker only asks whether a gyroscope exists; while one of these lives, a stand-in handle
// says yes.
class GyroPresent {
 public:
  GyroPresent() : saved_(pSensorHandle) { pSensorHandle = reinterpret_cast<SensorInterface*>(&tag_); }
  ~GyroPresent() { pSensorHandle = saved_; }
  GyroPresent(const GyroPresent&) = delete;
  GyroPresent& operator=(const GyroPresent&) = delete;

 private:
  SensorInterface* saved_;
  char tag_ = 0;
};

}  // namespace zolt::test
