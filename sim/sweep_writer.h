// Writes a simulated sweep as a directory:
//   meta.json    sizes, frame count, fps, direction, camera model and intrinsics, where the
//                sweep lies in the photo, every option used and the seed
//   frames.nv21  the frames, packed NV21 (width * height * 3 / 2 bytes each), one after another
//   truth.csv    one line per frame: timestamp, position, attitude, exposure gain, phase
//   gyro.csv     gyroscope events: timestamp, rates about the sensor axes
//   truth.png    the swept region of the scene through the engine's NV21 round trip
// Everything goes to "<dir>.partial-<pid>" first and is renamed to <dir> at the end, so a sweep
// that was cut short never looks complete.
#pragma once

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "sim/sweep_simulator.h"

namespace zolt::sim {

struct WriteOptions {
  bool overwrite = false;                        // replace an existing <dir>
  std::function<void(int done, int total)> progress;  // after each frame, if set
};

class SweepWriter {
 public:
  // Throws SimError (the partial directory removed) on any failure.
  static void write(SweepSimulator& sim, const std::string& dir, const WriteOptions& opt = {});

  static nlohmann::json metaJson(const SweepSimulator& sim);
  static nlohmann::json configJson(const SweepConfig& cfg);
  static void writeTruthCsv(const std::vector<TruthRecord>& truth, const std::string& path);
  static void writeGyroCsv(const std::vector<GyroEvent>& events, const std::string& path);
};

}  // namespace zolt::sim
