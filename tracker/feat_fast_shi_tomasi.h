// FAST corners ranked by the Shi-Tomasi score: in each listed 32 x 32 block, the FAST corner
// (threshold 20, non-maximum suppression) with the largest smaller eigenvalue of the local
// gradient matrix, if that is positive.
#pragma once

#include "tracker/feat.h"

// final: Feat's destructor is not virtual, and the shared pointer that owns a detector destroys
// it as this type; Clang checks that nothing derives from it.
class ZOLT_PANO_EXPORT FeatFastShiTomasi final : public Feat {
 public:
  FeatFastShiTomasi(int height, int width) : Feat(height, width) {}
  ~FeatFastShiTomasi() = default;

  void detectFeatFromBlock(const cv::Mat& image, std::vector<cv::Point2f>& out) override;
};

// Smaller eigenvalue of the gradient matrix over the 8 x 8 window at columns x-4..x+3, rows
// y-4..y+3 of an 8-bit grey image (central differences, sums / 128); 0.0 unless the window and
// its differences lie strictly inside the image with a pixel to spare.
double shiTomasiScore(const cv::Mat& img, int x, int y);
