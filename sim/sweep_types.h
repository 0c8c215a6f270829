// Records a simulated sweep is made of: one truth record per frame, gyroscope events, frames.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace zolt::sim {

// The truth of one frame.
//
// Position: (x, y) is where the view lies in the scene, in scene pixels (the pixels of the
// photo after photoScale, counted from the top-left of truth.png): the scene point seen at the
// frame's centre pixel ((W - 1) / 2, (H - 1) / 2), minus ((W - 1) / 2, (H - 1) / 2). In the
// translate model without roll, frame pixel (u, v) shows scene point (x + u, y + v) exactly
// (pixel centres at integer coordinates). x grows to the right, y downwards; (dx, dy) is the
// same relative to frame 0.
//
// Attitude (radians): the camera turned yaw to the right, pitch downwards, then roll clockwise
// as seen from behind the phone (the picture turns counter-clockwise). In camera axes
// (x right, y down, z forward) the camera-to-world rotation is Ry(yaw) * Rx(-pitch) * Rz(roll).
// yaw = pitch = 0 looks at the middle of the swept region. In the translate model the attitude
// is that of a turning camera whose view centre follows the same path.
struct TruthRecord {
  int frame = 0;
  int64_t tNs = 0;        // frame timestamp, ns from the start of the sweep
  double x = 0.0, y = 0.0;
  double dx = 0.0, dy = 0.0;
  double yaw = 0.0, pitch = 0.0, roll = 0.0;
  double gain = 1.0;      // auto-exposure gain applied to the frame
  std::string phase;      // what the simulated hand does: start, sweep, pause, back, burst,
                          // peak, jolt, stall, turn, across
};

// One gyroscope event: angular rates in rad/s in the phone's sensor axes (x right, y up, z out
// of the screen), positive counter-clockwise about each axis (right-hand rule).
struct GyroEvent {
  int64_t tNs = 0;
  std::array<double, 3> rate{{0.0, 0.0, 0.0}};
};

// One frame as the simulator hands it out.
struct SimFrame {
  int index = -1;
  int64_t tNs = 0;
  int width = 0, height = 0;
  std::vector<uint8_t> nv21;     // packed NV21: width * height Y bytes, then the VU plane
  TruthRecord truth;
  std::vector<GyroEvent> gyro;   // the events stamped after the previous frame, up to this one
};

// Camera intrinsics in frame pixels.
struct CameraIntrinsics {
  double fx = 0.0, fy = 0.0, cx = 0.0, cy = 0.0;
  double hfovDeg = 0.0, vfovDeg = 0.0;
};

}  // namespace zolt::sim
