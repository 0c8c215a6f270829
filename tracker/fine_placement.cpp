#include "tracker/fine_placement.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace {

constexpr int kHalfAlong = 32;         // the band is 64 px along the sweep
constexpr double kAcrossShare = 0.6;   // and 60 % of the frame across it
constexpr double kMaxMove = 4.0;       // px a refinement may move from its estimate
constexpr int kMaxIterations = 20;
constexpr double kSettled = 1e-3;      // px: an update this small ends the refinement
constexpr double kMinGradient2 = 0.25; // least mean squared gradient on the weaker axis
constexpr double kMinCorrelation = 0.7;

}  // namespace

FinePlacement::FinePlacement(int width, int height) : width_(width), height_(height) {}

cv::Point2d FinePlacement::place(const cv::Mat& luma, cv::Point2d coarsePose, bool horizontal) {
  if (!haveAnchor_) {
    luma.copyTo(anchor_);
    anchorPose_ = pose_ = lastCoarse_ = coarsePose;
    haveAnchor_ = true;
    return pose_;
  }
  // The whole-pixel step since the last key frame predicts the pose; the anchor corrects it.
  const cv::Point2d predicted = pose_ + (coarsePose - lastCoarse_);
  lastCoarse_ = coarsePose;
  cv::Point2d c = predicted - anchorPose_;
  const bool ok = measureShift(anchor_, luma, horizontal, kHalfAlong, kMaxMove, c);
  pose_ = ok ? anchorPose_ + c : predicted;
  ok ? ++measured_ : ++fellBack_;
  // Move the anchor once it lies a baseline back, or when it could not be matched: the next key
  // frame then starts from this one.
  const int alongSize = horizontal ? width_ : height_;
  const double baseline = std::max(48, alongSize / 16);
  const double along = horizontal ? pose_.x - anchorPose_.x : pose_.y - anchorPose_.y;
  if (!ok || std::abs(along) >= baseline) {
    luma.copyTo(anchor_);
    anchorPose_ = pose_;
  }
  return pose_;
}

bool FinePlacement::measureShift(const cv::Mat& ref, const cv::Mat& cur, bool horizontal,
                                 int halfAlong, double maxMove, cv::Point2d& c) {
  if (ref.empty() || ref.size() != cur.size() || ref.type() != CV_8UC1 ||
      cur.type() != CV_8UC1) {
    return false;
  }
  // The band in the reference, centred half way between the two frames' centres along the sweep.
  const double cAlong = horizontal ? c.x : c.y;
  const int alongSize = horizontal ? ref.cols : ref.rows;
  const int acrossSize = horizontal ? ref.rows : ref.cols;
  const int lenAlong = 2 * halfAlong;
  const int lenAcross = static_cast<int>(acrossSize * kAcrossShare);
  const int a0 = static_cast<int>(std::lround(alongSize / 2.0 - cAlong / 2.0)) - halfAlong;
  const int b0 = (acrossSize - lenAcross) / 2;
  const cv::Rect band = horizontal ? cv::Rect(a0, b0, lenAlong, lenAcross)
                                   : cv::Rect(b0, a0, lenAcross, lenAlong);
  // One pixel around the band for the gradient; the moved band, with its reach, inside cur.
  const cv::Rect grown(band.x - 1, band.y - 1, band.width + 2, band.height + 2);
  const cv::Rect whole(0, 0, ref.cols, ref.rows);
  if ((grown & whole) != grown) return false;
  const double reach = maxMove + 1.0;
  if (band.x + c.x - reach < 0 || band.y + c.y - reach < 0 ||
      band.x + band.width - 1 + c.x + reach > cur.cols - 1 ||
      band.y + band.height - 1 + c.y + reach > cur.rows - 1) {
    return false;
  }

  // Template, its gradient and the 2 x 2 normal matrix (inverse compositional Gauss-Newton: the
  // gradient is the template's, so the matrix is formed once).
  cv::Mat g;
  ref(grown).convertTo(g, CV_32F);
  const int w = band.width, h = band.height, n = w * h;
  std::vector<float> t(n), tx(n), ty(n);
  double sumT = 0.0, hxx = 0.0, hxy = 0.0, hyy = 0.0;
  for (int y = 0; y < h; ++y) {
    const float* up = g.ptr<float>(y);
    const float* mid = g.ptr<float>(y + 1);
    const float* down = g.ptr<float>(y + 2);
    for (int x = 0; x < w; ++x) {
      const int i = y * w + x;
      t[i] = mid[x + 1];
      tx[i] = 0.5f * (mid[x + 2] - mid[x]);
      ty[i] = 0.5f * (down[x + 1] - up[x + 1]);
      sumT += t[i];
      hxx += static_cast<double>(tx[i]) * tx[i];
      hxy += static_cast<double>(tx[i]) * ty[i];
      hyy += static_cast<double>(ty[i]) * ty[i];
    }
  }
  const double meanT = sumT / n;
  double varT = 0.0;
  for (int i = 0; i < n; ++i) varT += (t[i] - meanT) * (t[i] - meanT);
  // The weaker eigenvalue of the normal matrix, per pixel: texture on both axes.
  const double tr = hxx + hyy, det = hxx * hyy - hxy * hxy;
  const double lmin = 0.5 * (tr - std::sqrt(std::max(0.0, tr * tr - 4.0 * det)));
  if (lmin / n < kMinGradient2 || varT <= 0.0 || det <= 0.0) return false;

  const cv::Point2d start = c;
  const cv::Point2f centre(band.x + (w - 1) * 0.5f, band.y + (h - 1) * 0.5f);
  cv::Mat warped;
  double correlation = 0.0;
  bool settled = false;
  for (int it = 0; it < kMaxIterations && !settled; ++it) {
    cv::getRectSubPix(cur, cv::Size(w, h),
                      cv::Point2f(centre.x + static_cast<float>(c.x),
                                  centre.y + static_cast<float>(c.y)),
                      warped, CV_32F);
    const float* iw = warped.ptr<float>(0);  // continuous, w floats a row
    double sumI = 0.0;
    for (int i = 0; i < n; ++i) sumI += iw[i];
    const double meanI = sumI / n;
    double varI = 0.0, cov = 0.0;
    for (int i = 0; i < n; ++i) {
      varI += (iw[i] - meanI) * (iw[i] - meanI);
      cov += (iw[i] - meanI) * (t[i] - meanT);
    }
    if (varI <= 0.0) return false;
    correlation = cov / std::sqrt(varI * varT);
    // Brightness and contrast of the two frames matched before they are compared: auto
    // exposure changes both between key frames.
    const double gain = std::sqrt(varT / varI);
    double bx = 0.0, by = 0.0;
    for (int i = 0; i < n; ++i) {
      const double e = (iw[i] - meanI) * gain - (t[i] - meanT);
      bx += tx[i] * e;
      by += ty[i] * e;
    }
    const double dx = (hyy * bx - hxy * by) / det;
    const double dy = (hxx * by - hxy * bx) / det;
    c.x -= dx;
    c.y -= dy;
    if (std::abs(c.x - start.x) > maxMove || std::abs(c.y - start.y) > maxMove) {
      c = start;
      return false;
    }
    settled = std::abs(dx) < kSettled && std::abs(dy) < kSettled;
  }
  if (correlation < kMinCorrelation) {
    c = start;
    return false;
  }
  return true;
}
