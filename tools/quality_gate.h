// The quality gate of zoltpano stitch --mode enhanced: a capture's picture is refused as a
// panorama when the evidence of its own run says it is not one (docs/stitching.md, "Quality
// gate"). The evidence is what the run already has: the luma of the frames the tool fed, the
// merger's key-frame rectangles and the camera's travel measured from the frames.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace zolt::tools {

class ChainedTravel;

// What one capture's key frames show as they are placed. Consecutive key frames are compared
// where the merger laid them over each other: the zero-mean normalised correlation of their
// luma over the shared rectangle, at half resolution and band-passed (detail between about 2
// and 10 px: the noise and the shading go, so that sky over ground does not make two unrelated
// views alike). Holds the last key frame's band-passed luma.
class KeyFrameEvidence {
 public:
  // Key frame `frame` (input index) just placed at `canvas` (canvas pixels) with its luma (full
  // size, 8 bit).
  void add(int frame, const cv::Rect& canvas, const cv::Mat& luma);

  // One value per pair of consecutive key frames with detail in their overlap, in placing order;
  // a pair laid apart (no overlap) counts as 0.
  const std::vector<double>& correlations() const { return correlations_; }
  int flatPairs() const { return flat_; }  // pairs whose overlap has too little detail to judge
  int keyFrames() const { return count_; }
  int firstFrame() const { return firstFrame_; }
  int lastFrame() const { return lastFrame_; }
  cv::Point firstAt() const { return firstAt_; }  // canvas position of the first key frame
  cv::Point lastAt() const { return previousCanvas_.tl(); }

 private:
  cv::Mat previous_;  // band-passed luma of the last key frame, float, half resolution
  cv::Rect previousCanvas_;
  std::vector<double> correlations_;
  int flat_ = 0, count_ = 0, firstFrame_ = 0, lastFrame_ = 0;
  cv::Point firstAt_;
};

// What the gate saw of one capture, and what it decided.
struct GateVerdict {
  bool judged = false;  // false: the gate is off (or the capture gave no picture)
  bool passed = true;
  std::string reason;  // why it was refused, for "refused: <reason>"; empty when passed
  int keyFrames = 0;
  // Key-frame agreement: pairs judged, pairs too flat to judge, the median and lowest
  // correlation and the fraction of judged pairs below kDisagreeCorrelation.
  int pairs = 0, flatPairs = 0;
  double medianCorrelation = 0, lowestCorrelation = 0, disagreeing = 0;
  // Between the first and the last key frame: the camera's travel measured from the frames
  // (chained phase correlation), along and across the capture's sweep axis, and the span the
  // merger placed along it; pixels, unsigned.
  double travelAlong = 0, travelAcross = 0, placedAlong = 0;
};

// Thresholds; docs/stitching.md gives the values measured and the margins.
inline constexpr double kMinMedianCorrelation = 0.5;
inline constexpr double kDisagreeCorrelation = 0.3;
inline constexpr double kMaxDisagreeing = 0.25;
inline constexpr double kMaxAcrossOverAlong = 1.0;
inline constexpr double kMinLengthRatio = 0.75, kMaxLengthRatio = 2.0;  // placed over travelled
// A tenth of the frame's side along the sweep: key frames spanning less are no panorama, and a
// camera travelling less is not judged for direction and length (too little motion to tell).
inline constexpr double kMinSpan = 0.1;

// Judges a capture that gave a picture from its key frames and the camera's travel; `along` is
// the frame's size along the capture's sweep axis.
GateVerdict judgeCapture(const KeyFrameEvidence& keys, const ChainedTravel& travel, bool horizontal,
                         int along);

// The evidence and the verdict on one line: "... : passed".
std::string describe(const GateVerdict& v);

}  // namespace zolt::tools
