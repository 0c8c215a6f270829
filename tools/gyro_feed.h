// Recorded gyroscope events (a gyro.csv as the simulator writes it) fed to the host sensor
// service in step with the frames, so that an offline run gives the engine what a phone's
// gyroscope would: before each frame, every event up to the frame's time is pushed and has gone
// through the engine's fusion before the frame is handed in.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sim/sweep_types.h"

namespace zolt::tools {

// A gyro.csv's events (t_ns,wx,wy,wz); throws InputError when it cannot be read or holds none.
std::vector<sim::GyroEvent> readGyroEvents(const std::string& path);

class GyroFeed {
 public:
  // Reads the file (throws InputError when it cannot be read or holds no events) and gives the
  // host a gyroscope from the next ZOLT_PANO_Initial on. offsetMs: how late the gyroscope's clock
  // runs against the frames' (its event for frame time t is stamped t + offsetMs). originNs: the
  // gyroscope's time of frame time 0 (a recording's first frame; FrameSource::clockOriginNs).
  GyroFeed(const std::string& path, double offsetMs, int64_t originNs = 0);
  // The same from events in memory (a simulated sweep's); they need not be in time order.
  GyroFeed(std::vector<sim::GyroEvent> events, double offsetMs);
  // Back to a host without a gyroscope.
  ~GyroFeed();
  GyroFeed(const GyroFeed&) = delete;
  GyroFeed& operator=(const GyroFeed&) = delete;

  // Adds events that arrived since (a live source's, stamped after every event held so far).
  void append(const std::vector<sim::GyroEvent>& events);
  // Pushes the events stamped up to frame time `frameMs` (ms on the frames' clock) plus the lag
  // not pushed yet, and waits until the engine has taken them.
  void feedUpTo(double frameMs);
  // How far the events run ahead of the frames, ms: a phone hands the app a preview frame 50 to
  // 100 ms after its exposure, when the gyroscope has reported up to then. 0: up to the frame.
  void setLag(double lagMs) { lagMs_ = lagMs; }
  // The frame's capture time for ZOLT_PANO_SetFrameTime, ns on the frames' clock as the camera
  // stamps it (the clock offset is the engine's delay option, not in here).
  int64_t frameTimeNs(double frameMs) const;
  // Both clocks run kClockBaseNs later than the input's: a simulated sweep starts them at 0,
  // a time no camera reports and ZOLT_PANO_SetFrameTime refuses. The fusion sees only
  // intervals, so the shift changes no attitude.
  static constexpr int64_t kClockBaseNs = 1000000000;
  // A new engine starts at frame time `frameMs`: its fusion starts from the last event before
  // that frame, so the events from there are fed again.
  void restartAt(double frameMs);

  size_t events() const { return events_.size(); }
  size_t pushed() const { return pushed_; }

 private:
  int64_t stampFor(double frameMs) const;

  std::vector<sim::GyroEvent> events_;  // in time order
  double offsetMs_;
  double lagMs_ = 0;
  int64_t originNs_ = 0;
  size_t next_ = 0;    // first event not pushed yet
  size_t pushed_ = 0;  // events pushed in all, repeats included
};

}  // namespace zolt::tools
