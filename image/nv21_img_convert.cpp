// NV21Img: colour conversion, flip and image files. The pixel rules live in colour_convert.h.

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "image/colour_convert.h"
#include "image/nv21_img.h"
#include "platform/check.h"

namespace {

// bgrMat is reused when it already has the image's size and type, so repeated conversions of
// one image allocate nothing.
void ensureBgr(NV21Img& img) {
  if (img.bgrMat.rows != img.height || img.bgrMat.cols != img.width ||
      img.bgrMat.type() != CV_8UC3 || img.bgrMat.data == nullptr) {
    img.bgrMat.create(img.height, img.width, CV_8UC3);
  }
}

}  // namespace

cv::Mat NV21Img::nvCvt2BGR() { return nvCvt2BGR(0, 0, width, height); }

cv::Mat NV21Img::nvCvt2BGR(int x, int y, int w, int h) {
  ensureBgr(*this);
  // A rectangle reaching outside the picture would read and write past the planes: clip it.
  const int x0 = std::max(x, 0), y0 = std::max(y, 0);
  const int x1 = std::min(x + w, width), y1 = std::min(y + h, height);
  if (x1 > x0 && y1 > y0) {
    ZOLT_CHECK(yPlane != nullptr && vuPlane != nullptr, "image without planes");
    zolt::nv21ToBgr(zolt::colourKernels(), yPlane, vuPlane, vuSize(), width, height,
                    bgrMat.data, bgrMat.step, x0, y0, x1 - x0, y1 - y0);
  }
  return bgrMat;
}

void NV21Img::nvCvt2NV21(cv::Mat bgr) {
  ZOLT_CHECK(bgr.empty() || bgr.type() == CV_8UC3, "nvCvt2NV21 needs 8-bit BGR");
  nvCreate(bgr.rows, bgr.cols);
  if (bgr.empty()) return;
  zolt::bgrToNv21(zolt::colourKernels(), bgr.data, bgr.step, bgr.rows, bgr.cols, yPlane, vuPlane,
                  vuSize());
}

void NV21Img::nvSaveGrey(std::string fileName) { cv::imwrite(fileName, yMat); }

void NV21Img::nvSaveColor(std::string fileName) { cv::imwrite(fileName, nvCvt2BGR()); }

void NV21Img::nvShowNV21(std::string) {}

void NV21Img::nvLoadImg(std::string fileName) { nvCvt2NV21(cv::imread(fileName, 1)); }

void NV21Img::nvLoadImgFromBufferBGR(unsigned char* data, int w, int h) {
  nvCvt2NV21(cv::Mat(h, w, CV_8UC3, data, static_cast<size_t>(w) * 3));
}

void NV21Img::Flip(int flipCode) {
  cv::Mat flipped;
  cv::flip(nvCvt2BGR(), flipped, flipCode);
  nvCvt2NV21(flipped);
}
