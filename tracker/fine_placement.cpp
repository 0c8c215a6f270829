#include "tracker/fine_placement.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace {

constexpr int kHalfAlong = 32;         // the band is 64 px along the sweep
constexpr double kAcrossShare = 0.6;   // and 60 % of the frame across it
constexpr double kMaxMove = 4.0;       // px a refinement may move from its estimate
constexpr double kMinResponse = 0.05;  // least phase-correlation peak a wide search trusts
constexpr int kMaxIterations = 10;
constexpr double kSettled = 2e-3;      // px: an update this small ends the refinement
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
  bool ok = measureShift(anchor_, luma, horizontal, kHalfAlong, kMaxMove, c);
  if (!ok) ok = searchWide(luma, horizontal, c);
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

bool FinePlacement::searchWide(const cv::Mat& luma, bool horizontal, cv::Point2d& c) const {
  // The tracker can lose the camera's motion: after four frames it could not track it makes the
  // current frame its reference without moving the pose, so the prediction can be tens of pixels
  // out. Phase correlation of the two frames at a quarter of the resolution finds any shift up
  // to half a frame; the full resolution then refines it.
  cv::Mat a, b;
  cv::resize(anchor_, a, cv::Size(), 0.25, 0.25, cv::INTER_AREA);
  cv::resize(luma, b, cv::Size(), 0.25, 0.25, cv::INTER_AREA);
  a.convertTo(a, CV_32F);
  b.convertTo(b, CV_32F);
  cv::Mat window;
  cv::createHanningWindow(window, a.size(), CV_32F);
  double response = 0.0;
  const cv::Point2d q = cv::phaseCorrelate(a, b, window, &response);
  if (response < kMinResponse) return false;
  cv::Point2d fine = q * 4.0;
  if (!measureShift(anchor_, luma, horizontal, kHalfAlong, kMaxMove, fine)) return false;
  c = fine;
  return true;
}

bool FinePlacement::measureShift(const cv::Mat& ref, const cv::Mat& cur, bool horizontal,
                                 int halfAlong, double maxMove, cv::Point2d& c) {
  // The band in the reference, centred half way between the two frames' centres along the
  // sweep: the scene there is seen alike by both frames through a turning lens.
  const double cAlong = horizontal ? c.x : c.y;
  const int alongSize = horizontal ? ref.cols : ref.rows;
  const int acrossSize = horizontal ? ref.rows : ref.cols;
  const int lenAlong = 2 * halfAlong;
  const int lenAcross = static_cast<int>(acrossSize * kAcrossShare);
  const int a0 = static_cast<int>(std::lround(alongSize / 2.0 - cAlong / 2.0)) - halfAlong;
  const int b0 = (acrossSize - lenAcross) / 2;
  const cv::Rect band = horizontal ? cv::Rect(a0, b0, lenAlong, lenAcross)
                                   : cv::Rect(b0, a0, lenAcross, lenAlong);
  return refineShift(ref, cur, band, maxMove, c);
}

namespace {

// Keys' cubic convolution weights (a = -0.5) of the four pixels around a point `f` (0 <= f < 1)
// past the second of them.
void cubicWeights(double f, double* w) {
  const auto near = [](double x) { return (1.5 * x - 2.5) * x * x + 1.0; };         // |x| <= 1
  const auto far = [](double x) { return ((-0.5 * x + 2.5) * x - 4.0) * x + 2.0; };  // 1..2
  w[0] = far(1.0 + f);
  w[1] = near(f);
  w[2] = near(1.0 - f);
  w[3] = far(2.0 - f);
}

// Every second line of the band: the refinement's precision hardly needs them all, its cost does.
constexpr int kLineStep = 2;

// Lines 0, kLineStep, 2 kLineStep, ... of the band of img moved by `by` (img(x + by) for x in
// the band) as CV_32F, interpolated by cubic convolution: one translation has one fraction, so
// the resampling is a 4-tap filter down and one across, exact at that fraction. Linear
// interpolation would smooth the moved image more than the template and bend its phase, which
// pulls a shift toward whole or half pixels by up to 0.06 px. The caller keeps the band and its
// 2-pixel reach inside img.
void sampleMoved(const cv::Mat& img, const cv::Rect& band, cv::Point2d by, cv::Mat& out,
                 std::vector<float>& column) {
  const int kx = static_cast<int>(std::floor(by.x)), ky = static_cast<int>(std::floor(by.y));
  float wx[4], wy[4];
  double d[4];
  cubicWeights(by.x - kx, d);
  for (int i = 0; i < 4; ++i) wx[i] = static_cast<float>(d[i]);
  cubicWeights(by.y - ky, d);
  for (int i = 0; i < 4; ++i) wy[i] = static_cast<float>(d[i]);
  const int w = band.width, lines = (band.height + kLineStep - 1) / kLineStep;
  const int x0 = band.x + kx - 1, y0 = band.y + ky - 1;
  column.resize(w + 3);
  out.create(lines, w, CV_32F);
  for (int r = 0; r < lines; ++r) {
    const uint8_t* s0 = img.ptr<uint8_t>(y0 + r * kLineStep) + x0;
    const size_t stride = img.step;
    for (int x = 0; x < w + 3; ++x) {
      column[x] = wy[0] * s0[x] + wy[1] * s0[x + stride] + wy[2] * s0[x + 2 * stride] +
                  wy[3] * s0[x + 3 * stride];
    }
    float* dst = out.ptr<float>(r);
    const float* c = column.data();
    for (int x = 0; x < w; ++x) {
      dst[x] = wx[0] * c[x] + wx[1] * c[x + 1] + wx[2] * c[x + 2] + wx[3] * c[x + 3];
    }
  }
}

}  // namespace

bool FinePlacement::refineShift(const cv::Mat& ref, const cv::Mat& cur, const cv::Rect& band,
                                double maxMove, cv::Point2d& c) {
  if (ref.empty() || ref.size() != cur.size() || ref.type() != CV_8UC1 ||
      cur.type() != CV_8UC1 || band.width < 2 || band.height < 2) {
    return false;
  }
  // One pixel around the band for the gradient; the moved band, with its reach and the
  // interpolation's two pixels, inside cur.
  const cv::Rect grown(band.x - 1, band.y - 1, band.width + 2, band.height + 2);
  if ((grown & cv::Rect(0, 0, ref.cols, ref.rows)) != grown) return false;
  const double reach = maxMove + 3.0;
  if (band.x + c.x - reach < 0 || band.y + c.y - reach < 0 ||
      band.x + band.width - 1 + c.x + reach > cur.cols - 1 ||
      band.y + band.height - 1 + c.y + reach > cur.rows - 1) {
    return false;
  }

  // Template (less its mean), its gradient and the 2 x 2 normal matrix: inverse compositional
  // Gauss-Newton, the gradient is the template's, taken at whole pixels, so the matrix and the
  // template's sums are formed once.
  const int w = band.width, lines = (band.height + kLineStep - 1) / kLineStep, n = w * lines;
  std::vector<float> t(n), tx(n), ty(n);
  double sumT = 0.0;
  for (int r = 0; r < lines; ++r) {
    const int y = band.y + r * kLineStep;
    const uint8_t* up = ref.ptr<uint8_t>(y - 1) + band.x;
    const uint8_t* mid = ref.ptr<uint8_t>(y) + band.x;
    const uint8_t* down = ref.ptr<uint8_t>(y + 1) + band.x;
    for (int x = 0; x < w; ++x) {
      const int i = r * w + x;
      t[i] = mid[x];
      tx[i] = 0.5f * (static_cast<float>(mid[x + 1]) - mid[x - 1]);
      ty[i] = 0.5f * (static_cast<float>(down[x]) - up[x]);
      sumT += t[i];
    }
  }
  const float meanT = static_cast<float>(sumT / n);
  double varT = 0.0, hxx = 0.0, hxy = 0.0, hyy = 0.0, txt = 0.0, tyt = 0.0, sx = 0.0, sy = 0.0;
  for (int i = 0; i < n; ++i) {
    t[i] -= meanT;
    varT += static_cast<double>(t[i]) * t[i];
    hxx += static_cast<double>(tx[i]) * tx[i];
    hxy += static_cast<double>(tx[i]) * ty[i];
    hyy += static_cast<double>(ty[i]) * ty[i];
    txt += static_cast<double>(tx[i]) * t[i];
    tyt += static_cast<double>(ty[i]) * t[i];
    sx += tx[i];
    sy += ty[i];
  }
  // The weaker eigenvalue of the normal matrix, per pixel: texture on both axes.
  const double tr = hxx + hyy, det = hxx * hyy - hxy * hxy;
  const double lmin = 0.5 * (tr - std::sqrt(std::max(0.0, tr * tr - 4.0 * det)));
  if (lmin / n < kMinGradient2 || varT <= 0.0 || det <= 0.0) return false;

  const cv::Point2d start = c;
  cv::Mat warped;
  std::vector<float> column;
  double correlation = 0.0;
  bool settled = false;
  for (int it = 0; it < kMaxIterations && !settled; ++it) {
    sampleMoved(cur, band, c, warped, column);
    const float* iw = warped.ptr<float>(0);  // continuous, w floats a line
    // One pass for every sum the step needs; per line in float, across lines in double.
    double sumI = 0.0, sumII = 0.0, sumIT = 0.0, sumIX = 0.0, sumIY = 0.0;
    for (int r = 0; r < lines; ++r) {
      float a = 0.f, aa = 0.f, at = 0.f, ax = 0.f, ay = 0.f;
      for (int i = r * w; i < (r + 1) * w; ++i) {
        a += iw[i];
        aa += iw[i] * iw[i];
        at += iw[i] * t[i];
        ax += iw[i] * tx[i];
        ay += iw[i] * ty[i];
      }
      sumI += a, sumII += aa, sumIT += at, sumIX += ax, sumIY += ay;
    }
    const double meanI = sumI / n;
    const double varI = sumII - sumI * meanI;
    if (varI <= 0.0) return false;
    correlation = sumIT / std::sqrt(varI * varT);
    // Brightness and contrast of the two frames matched before they are compared: auto
    // exposure changes both between frames. The error is e = (I - meanI) gain - T.
    const double gain = std::sqrt(varT / varI);
    const double bx = gain * (sumIX - meanI * sx) - txt;
    const double by = gain * (sumIY - meanI * sy) - tyt;
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
