// The sweep the per-frame benchmarks share: 300 handheld frames of 1920 x 1080 over a photo
// that is textured everywhere, so that no frame is cheap for lack of features.
#pragma once

#include "sim/sweep_simulator.h"

namespace zolt::bench {

inline const char* kSweepPhoto = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";

inline zolt::sim::SweepConfig hdHandheldSweep() {
  auto cfg = zolt::sim::SweepConfig::fromPreset("handheld");
  cfg.photoPath = kSweepPhoto;
  cfg.width = 1920;
  cfg.height = 1080;
  cfg.frames = 300;
  cfg.speed = 0.006;  // 11.5 px a frame: 300 frames fit the photo scaled up twice
  cfg.photoScale = 2.0;
  return cfg;
}

}  // namespace zolt::bench
