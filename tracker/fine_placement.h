// FinePlacement: key-frame positions that keep the fraction of the camera's motion.
//
// The tracker measures each key frame against the previous one in whole pixels, so every key
// frame can lose up to half a pixel, always the same way at a steady pace: at 2.6 px a frame a
// key frame comes every 5.2 px and is placed 5 px on, 4 % short. FinePlacement re-measures each
// key frame below a pixel against an anchor, an earlier key frame at least `baseline` pixels
// back, and keeps the position as a fraction. A pose then carries the error of one measurement
// per anchor hop rather than per key frame. The measurement is made on a band centred half way
// between the two frames' centres, where a turning camera's perspective shifts both alike.
//
// Poses are in full-resolution pixels with the tracker's sign: the camera position, which moves
// against the image content (a frame whose content moved 20 px left has a pose 20 px lower).
#pragma once

#include <opencv2/core.hpp>

#include "zolt_pano.h"

class ZOLT_PANO_EXPORT FinePlacement {
 public:
  FinePlacement() = default;
  FinePlacement(int width, int height);

  // A new key frame: `luma` its full-resolution luma (continuous, width x height, only read
  // during the call), `coarsePose` where the whole-pixel tracking put it. The first call makes
  // the frame the anchor at coarsePose. Returns the frame's fine pose.
  cv::Point2d place(const cv::Mat& luma, cv::Point2d coarsePose, bool horizontal);
  cv::Point2d pose() const { return pose_; }
  bool started() const { return haveAnchor_; }
  int measured() const { return measured_; }  // key frames placed by a fine measurement
  int fellBack() const { return fellBack_; }   // key frames that kept the coarse step

  // Shift c with cur(p + c) == ref(p) near p, refined from the estimate in `c`, over a band
  // `halfAlong` pixels either side of the point half way between the frames' centres along the
  // sweep and 60 % of the frame across it. False (c unchanged) where the band lacks texture,
  // leaves either image, or the refinement does not settle within `maxMove` pixels of c.
  static bool measureShift(const cv::Mat& ref, const cv::Mat& cur, bool horizontal, int halfAlong,
                           double maxMove, cv::Point2d& c);
  // The same over any rectangle `area` of ref (8-bit, one channel): Gauss-Newton on the
  // translation, brightness and contrast of the two images matched, without the whole-pixel
  // lean of a correlation peak.
  static bool refineShift(const cv::Mat& ref, const cv::Mat& cur, const cv::Rect& area,
                          double maxMove, cv::Point2d& c);

 private:
  // The shift from the anchor searched further than measureShift reaches, at a quarter of the
  // resolution, then refined; false (c unchanged) where that fails too.
  bool searchWide(const cv::Mat& luma, bool horizontal, cv::Point2d& c) const;

  int width_ = 0, height_ = 0;
  bool haveAnchor_ = false;
  cv::Mat anchor_;             // full-resolution luma of the anchor key frame
  cv::Point2d anchorPose_;     // its fine pose
  cv::Point2d pose_;           // the last key frame's fine pose
  cv::Point2d lastCoarse_;     // the last key frame's whole-pixel pose
  int measured_ = 0, fellBack_ = 0;
};
