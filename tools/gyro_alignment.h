// The gyroscope against vision on a recording. For every pair of consecutive frames the engine's
// vision path measures the offset (the mean motion of the corners it tracked and kept), and the
// gyroscope predicts it: the attitudes the engine's fusion library integrates at the two frames'
// times, carried into the camera's axes and through the camera matrix, as the tracker's gyroscope
// path does. Then the gyroscope clock's offset and the lens's focal length that bring the two
// together are searched for (zoltpano gyro-check, stitch --gyro-offset-ms auto).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "sensor/attitude_history.h"
#include "sim/sweep_types.h"

class ModuleTrack;

namespace zolt::tools {

class FrameSource;

// The phone's attitude (phone sensor axes to the world, as the engine hands it to the tracker)
// that the fusion library integrates from a gyroscope's events, at any time within their span,
// looked up as the engine looks up a frame's (AttitudeHistory: each attitude stamped at the
// centre of its event's interval, a steady turn between stamps).
class AttitudeTrack {
 public:
  explicit AttitudeTrack(std::vector<sim::GyroEvent> events);  // any order; repeats kept once
  // False outside the span of the attitudes' stamps.
  bool at(int64_t tNs, cv::Matx33d& rotation) const;
  size_t events() const { return history_.size(); }

 private:
  AttitudeHistory history_;  // the engine's own, holding every event
};

// One pair of consecutive frames as vision measured it.
struct MotionPair {
  int frame = 0;              // the later frame's index in the input
  int64_t t0Ns = 0, t1Ns = 0; // the two frames' times on the gyroscope's clock
  double timeS = 0;           // the later frame's time, seconds since the first frame
  bool visionOk = false;      // false: vision lost the frame (too few corners kept)
  cv::Point2d vision;         // low-resolution pixels, reference minus current position
  // The later frame's positions of the corners vision kept (low-resolution pixels): the
  // gyroscope's prediction is the mean motion of these same points.
  std::vector<cv::Point2f> points;
};

// The engine's vision path over frames handed in one after the other.
class VisionSteps {
 public:
  VisionSteps(int width, int height);  // preview size; throws as the tracker does (<= 640)
  ~VisionSteps();
  // Measures the frame (packed NV21) against the one before it; tNs on the gyroscope's clock.
  void add(const uint8_t* nv21, int frame, int64_t tNs);
  const std::vector<MotionPair>& pairs() const { return pairs_; }
  const ModuleTrack& tracker() const { return *tracker_; }

 private:
  std::unique_ptr<ModuleTrack> tracker_;
  std::vector<MotionPair> pairs_;
  bool started_ = false;
  int64_t firstNs_ = 0, lastNs_ = 0;  // the first and the last frame's time
};

// Per pair, for the plot: vision and the gyroscope's prediction before and after alignment.
struct AlignedPair {
  double timeS = 0;
  cv::Point2d vision, raw, aligned;
};

struct GyroAlignment {
  int pairs = 0;            // pairs vision measured and the gyroscope covers (before and after)
  double timeOffsetMs = 0;  // how late the gyroscope's clock runs: a frame at t is at t + this
  // The lens's focal length over the engine's fixed camera's along the frame's width (62.2
  // degrees across it), square pixels; and the horizontal field of view that makes.
  double focalScale = 1, hfovDeg = 0;
  bool found = false;  // false: too few pairs, or the search ran into its ends
  double correlationX = 0, correlationY = 0;       // after alignment, per axis
  double correlationXRaw = 0, correlationYRaw = 0;  // before
  double medianErrorPx = 0, p95ErrorPx = 0;        // after, low-resolution pixels
  double medianErrorPxRaw = 0, p95ErrorPxRaw = 0;  // the engine's fixed camera, clocks as given
  std::vector<AlignedPair> series;
  // Stage times (alignGyroOnFrames), ms of wall clock: reading and converting the frames, the
  // vision path, the search.
  double readMs = 0, visionMs = 0, alignMs = 0;
};

struct AlignmentSearch {
  double rangeMs = 100;      // the clock offset is searched within +- this
  double minScale = 0.4, maxScale = 2.5;  // and the focal scale within these
  int minPairs = 8;
};

// Aligns the gyroscope's prediction with vision over the pairs. `camera` gives the engine's
// fixed camera (the prediction before alignment) and the low-resolution geometry.
GyroAlignment alignGyroWithVision(const std::vector<MotionPair>& pairs, const AttitudeTrack& track,
                                  const ModuleTrack& camera, const AlignmentSearch& search = {});

// Reads the frames from the source (frames up to `seconds` after the first; 0: all), measures
// them with the engine's vision path and aligns the gyroscope's events with them. Throws
// InputError for unreadable frames.
GyroAlignment alignGyroOnFrames(FrameSource& frames, const std::vector<sim::GyroEvent>& events,
                                double seconds = 0, const AlignmentSearch& search = {});

// The mean motion (reference minus current position, low-resolution pixels) that a rotation
// `relative` (the reference's camera attitude inverted times the current one's, camera axes)
// gives the points (current positions) under camera matrix k; with no points, the principal
// point's, as the tracker predicts it.
cv::Point2d predictedMotion(const cv::Matx33d& k, const cv::Matx33d& relative,
                            const std::vector<cv::Point2f>& points);

// Horizontal field of view (degrees across the 400-pixel-wide tracking image) of focal length f
// in its pixels (the inverse of ModuleTrack::setFieldOfView's focal length).
double hfovForFocal(double f);

}  // namespace zolt::tools
