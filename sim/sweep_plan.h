// The path of the simulated hand: where the view centre is along and across the sweep, and the
// roll, as smooth functions of time. Frame k is at time t = k (frame units). Between frames the
// path is a cubic (Catmull-Rom) through the per-frame positions, plus a tremor made of sines, so
// that it has a velocity everywhere and the gyroscope sees what the frames see.
#pragma once

#include <string>
#include <vector>

#include "sim/sweep_config.h"

namespace zolt::sim {

struct PlanSample {
  double along = 0.0;   // frame pixels from the start, positive in the sweep direction
  double across = 0.0;  // frame pixels, positive to the right of / below the start
  double roll = 0.0;    // radians
};

class SweepPlan {
 public:
  // along / across: the frame's size along and across the sweep (L and C).
  SweepPlan(const SweepConfig& cfg, int frames, double alongSize, double acrossSize);

  int frames() const { return static_cast<int>(along_.size()); }
  PlanSample at(double t) const;           // t in frame units, any value
  const std::string& phase(int k) const { return phase_[k]; }
  double gain(double t) const;             // auto-exposure gain at time t
  // False when an event the options ask for (burst, step back, jolt, turn, pause) did not fit
  // into the frames.
  bool complete() const { return missing_ == 0; }

 private:
  struct Sine {
    double amp = 0.0, freq = 0.0, phase = 0.0;  // freq in cycles per frame
  };
  static double hermite(const std::vector<double>& p, double t);
  static double sines(const Sine* s, double t);

  std::vector<double> along_, across_;
  std::vector<std::string> phase_;
  int missing_ = 0;
  Sine tremorAlong_[3], tremorAcross_[3], tremorRoll_[3], exposure_[2];
};

}  // namespace zolt::sim
