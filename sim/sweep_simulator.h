// SweepSimulator: turns a photo into the NV21 preview frames, gyroscope events and truth of a
// phone sweeping over it.
//
//   zolt::sim::SweepConfig cfg = zolt::sim::SweepConfig::fromPreset("handheld");
//   cfg.width = 1280; cfg.height = 720; cfg.frames = 20;
//   cfg.photoPath = "/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg";
//   zolt::sim::SweepSimulator sim(cfg);          // throws SimError on bad input
//   zolt::sim::SimFrame f;
//   while (sim.next(f)) { /* f.nv21, f.truth, f.gyro */ }
//
// Everything is decided in the constructor (the path, the frame count, where the sweep lies in
// the photo, all truth records and gyroscope events); frames are rendered on demand, each from
// its own random stream, so renderFrame(k) gives the same bytes in any order.
#pragma once

#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "sim/sweep_config.h"
#include "sim/sweep_plan.h"
#include "sim/sweep_types.h"

namespace zolt::sim {

class SweepSimulator {
 public:
  // Reads cfg.photoPath.
  explicit SweepSimulator(const SweepConfig& cfg);
  // Uses the given 8-bit BGR photo (not copied unless photoScale != 1; keep it unchanged).
  SweepSimulator(const SweepConfig& cfg, const cv::Mat& photoBgr);

  // The configuration with everything automatic resolved (frames, field of view).
  const SweepConfig& config() const { return cfg_; }
  const CameraIntrinsics& camera() const { return cam_; }
  int width() const { return cfg_.width; }
  int height() const { return cfg_.height; }
  int frameCount() const { return cfg_.frames; }
  size_t frameBytes() const { return static_cast<size_t>(cfg_.width) * cfg_.height * 3 / 2; }

  const std::vector<TruthRecord>& truth() const { return truth_; }
  const std::vector<GyroEvent>& gyroEvents() const { return gyro_; }

  // The next frame in order; false after the last one.
  bool next(SimFrame& out);
  void rewind() { next_ = 0; }
  // Frame k (0 <= k < frameCount()), independent of the order of calls.
  void renderFrame(int k, SimFrame& out) const;
  // Renders only the BGR picture of frame k before exposure gain, blur and noise (for tests).
  cv::Mat renderSharpBgr(int k) const;

  // Ground-truth panorama: the swept region of the scene, through the engine's BGR -> NV21 ->
  // BGR conversion. Truth positions are relative to its top-left corner.
  cv::Mat truthPanorama() const;
  // Where truth.png lies in the (scaled) photo, in scene pixels.
  cv::Rect truthRegion() const { return region_; }
  cv::Size photoSize() const { return photo_.size(); }

  // Camera-to-world rotation (camera axes x right, y down, z forward) at time t (seconds).
  cv::Matx33d attitudeAt(double tSeconds) const;
  // Rotation taking camera-axis vectors to the phone's sensor axes (x right, y up, z out of
  // the screen): landscape image x = -sensor y, image y = -sensor x; portrait image x =
  // sensor x, image y = -sensor y; the camera looks along -z in both.
  cv::Matx33d cameraToSensor() const;

 private:
  struct Pose {
    cv::Point2d centre;  // scene point at the frame's centre pixel (photo coordinates)
    double yaw = 0.0, pitch = 0.0, roll = 0.0;
  };

  void build(const cv::Mat& photo);
  Pose poseAt(double tFrames) const;
  cv::Point2d sceneToPhoto(cv::Point2d relative) const;
  cv::Matx33d rotationOf(const Pose& p) const;
  // Photo position of frame pixel (u, v) in the rotate model.
  cv::Point2d project(const cv::Matx33d& r, double u, double v) const;
  cv::Rect2d footprint(const Pose& p) const;
  bool fits(cv::Rect2d* bounds, cv::Rect2d* centres) const;
  cv::Point2d choosePlacement(const cv::Rect2d& bounds) const;
  void renderBgr(int k, cv::Mat& bgr) const;

  SweepConfig cfg_;
  CameraIntrinsics cam_;
  cv::Mat photo_;  // 8-bit BGR scene
  double alongSize_ = 0.0, acrossSize_ = 0.0;
  std::unique_ptr<SweepPlan> plan_;
  cv::Point2d origin_;   // photo position of the path's (0, 0)
  cv::Point2d middle_;   // photo position that yaw = pitch = 0 looks at
  cv::Rect region_;
  std::vector<TruthRecord> truth_;
  std::vector<GyroEvent> gyro_;
  std::vector<size_t> gyroEnd_;  // per frame: index past its last gyroscope event
  int next_ = 0;
};

}  // namespace zolt::sim
