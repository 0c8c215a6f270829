// CaptureVerdict: whether the picture a capture gives is a panorama. Fed by the facade at each
// merge with what the engine already holds: the key frame's luma at the tracker's size (400
// wide), where the merger laid it, the step the tracker measured from the key frame before, and
// whether the images or the gyroscope gave that step. It copies a halved luma per key frame and
// touches nothing else: no pixel and no per-frame output depends on it.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

class CaptureVerdict {
 public:
  // One merged key frame. `luma`: 8-bit, the tracker's size; `scale`: its width over the
  // preview's. `placement`: where the merger lays it (the tracker's pose, preview pixels; the
  // canvas holds it at minus that). `step`: the tracker's offset from the previous key frame,
  // reference minus current, preview pixels, not clamped across the sweep. `byGyroscope`: the
  // images could not be followed and the gyroscope gave the step.
  struct KeyFrame {
    cv::Mat luma;
    double scale = 1.0;
    cv::Point2d placement;
    cv::Point2d step;
    bool byGyroscope = false;
    bool horizontal = true;
  };
  void add(const KeyFrame& k);

  // The evidence so far. Pairs are consecutive key frames: the zero-mean normalised
  // correlation of their band-passed luma where the merger laid them over each other.
  struct Evidence {
    int keyFrames = 0;
    int pairs = 0;           // pairs judged (both sides with detail in the overlap)
    int flatPairs = 0;       // pairs whose overlap is too flat to judge
    // Judged pairs below kBrokenSeam, whose views do not match at all: placed by the images,
    // and placed by the gyroscope (of gyroPairs judged).
    int brokenSeams = 0;
    int gyroPairs = 0, gyroBroken = 0;
    double medianCorrelation = 0, lowestCorrelation = 0;
    double disagreeing = 0;  // fraction of judged pairs below kDisagree
    // Between the first and the last key frame, preview pixels, unsigned: the camera's travel as
    // the tracker measured it along and across the sweep, and the span the key frames were laid
    // over along it.
    double travelAlong = 0, travelAcross = 0, placedAlong = 0;
  };
  const Evidence& evidence() const { return evidence_; }

  // 0 for a panorama (`message`: the evidence in figures), else the reason (a ZOLT_PANO_VERDICT_
  // code; `message`: what is wrong, with its figures).
  // `frameAlong`: the preview's side along the sweep, pixels.
  int judge(int frameAlong, std::string& message) const;

  // Thresholds (docs/stitching.md, "Verdict", gives the values measured).
  static constexpr double kMinMedian = 0.5;        // median correlation of the pairs
  static constexpr double kDisagree = 0.3;         // a pair below it disagrees
  static constexpr double kMaxDisagreeing = 0.25;  // fraction of pairs that may disagree
  static constexpr double kBrokenSeam = 0.2;       // a pair below it shows unrelated views
  static constexpr double kMinSpan = 0.1;          // of the frame's side along the sweep

 private:
  cv::Mat previous_;  // band-passed halved luma of the last key frame, float
  cv::Point2d previousPlacement_, firstPlacement_;
  cv::Point2d travel_;  // summed steps, preview pixels, camera's motion (minus the offsets)
  bool horizontal_ = true;
  std::vector<double> correlations_;
  Evidence evidence_;
};
