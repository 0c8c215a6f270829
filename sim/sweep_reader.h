// Reads a sweep directory written by SweepWriter (or by hand in the same format).
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "sim/sweep_types.h"

namespace zolt::sim {

class SweepReader {
 public:
  // Reads meta.json, truth.csv and gyro.csv; checks that frames.nv21 holds every frame.
  // Throws SimError naming the file and the problem.
  explicit SweepReader(const std::string& dir);

  const nlohmann::json& meta() const { return meta_; }
  int width() const { return width_; }
  int height() const { return height_; }
  int frameCount() const { return frames_; }
  double fps() const { return fps_; }
  // The engine's MoveDirection number of the sweep (1 right, 2 left, 3 down, 4 up).
  int direction() const { return direction_; }
  size_t frameBytes() const { return static_cast<size_t>(width_) * height_ * 3 / 2; }
  const std::vector<TruthRecord>& truth() const { return truth_; }
  const std::vector<GyroEvent>& gyro() const { return gyro_; }
  std::string truthPanoramaPath() const { return dir_ + "/truth.png"; }

  // Frame k (packed NV21) into out.
  void readFrame(int k, std::vector<uint8_t>& out);
  // The gyroscope events stamped after frame k - 1 and up to frame k (all up to frame 0 for 0).
  std::vector<GyroEvent> gyroForFrame(int k) const;

  static std::vector<TruthRecord> readTruthCsv(const std::string& path);
  static std::vector<GyroEvent> readGyroCsv(const std::string& path);

 private:
  std::string dir_;
  nlohmann::json meta_;
  int width_ = 0, height_ = 0, frames_ = 0, direction_ = 0;
  double fps_ = 0.0;
  std::vector<TruthRecord> truth_;
  std::vector<GyroEvent> gyro_;
  std::ifstream frameFile_;
};

}  // namespace zolt::sim
