// A camera sweep over a real photo, for the tracker's tests, benchmarks and evaluation: each
// frame is the W x H view whose top-left corner sits at (x, y) of the (grey) photo, sampled
// bilinearly for sub-pixel positions, delivered as an NV21 frame with neutral chroma.
#pragma once

#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "image/nv21_img.h"

namespace zolt::test {

class PhotoSweep {
 public:
  // The photo is scaled by photoScale first (1.0: as it is). Empty when the file is missing.
  PhotoSweep(const std::string& path, int width, int height, double photoScale = 1.0) {
    cv::Mat grey = cv::imread(path, cv::IMREAD_GRAYSCALE);
    if (!grey.empty() && photoScale != 1.0)
      cv::resize(grey, grey, cv::Size(), photoScale, photoScale, cv::INTER_AREA);
    photo = grey;
    frame.nvCreate(height, width);
    std::fill(frame.vuPlane, frame.vuPlane + frame.vuSize(), 128);
  }
  ~PhotoSweep() { frame.freeData(); }
  PhotoSweep(const PhotoSweep&) = delete;
  PhotoSweep& operator=(const PhotoSweep&) = delete;

  bool ok() const { return !photo.empty(); }
  int width() const { return frame.width; }
  int height() const { return frame.height; }

  // The view with its top-left corner at photo position (x, y).
  NV21Img& at(double x, double y) {
    const cv::Matx23d m(1, 0, x, 0, 1, y);
    cv::Mat luma(frame.height, frame.width, CV_8UC1, frame.yPlane);
    cv::warpAffine(photo, luma, m, luma.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                   cv::BORDER_REFLECT);
    return frame;
  }

  // A flat grey view (no texture at all).
  NV21Img& flat(uint8_t value) {
    std::fill(frame.yPlane, frame.yPlane + static_cast<size_t>(frame.width) * frame.height, value);
    return frame;
  }

  cv::Mat photo;
  NV21Img frame;
};

}  // namespace zolt::test
