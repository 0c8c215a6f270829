// A simulated 1280 x 720 sweep of one preset over a photo, for tests that drive the engine or the
// tracker with the simulator's frames.
#pragma once

#include <string>

#include "sim/sweep_config.h"

namespace zolt::test {

// A photo with texture all over, wide enough for the presets' sweeps.
inline const char* const kSweepPhoto =
    "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";

inline sim::SweepConfig simSweep(const std::string& preset, const std::string& photoPath,
                                 int frames, double photoScale = 1.0) {
  sim::SweepConfig cfg = sim::SweepConfig::fromPreset(preset);
  cfg.width = 1280;
  cfg.height = 720;
  cfg.frames = frames;
  cfg.photoPath = photoPath;
  cfg.photoScale = photoScale;
  return cfg;
}

}  // namespace zolt::test
