#include "tools/quality_gate.h"

#include <cmath>
#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "tools/metrics.h"

namespace zolt::tools {
namespace {

// Band-pass of the half-resolution luma (half-resolution pixels).
constexpr double kFineSigma = 1.0;
constexpr double kCoarseSigma = 5.0;
// An overlap whose band-passed luma varies less than this (standard deviation, luma levels) in
// either frame has nothing to agree on: flat sky, a blank wall, a blurred background.
constexpr double kFlatStdDev = 1.0;

// Zero-mean normalised correlation of two pictures of one size; *flat when either is flat.
double correlation(const cv::Mat& a, const cv::Mat& b, bool* flat) {
  cv::Scalar ma, sa, mb, sb;
  cv::meanStdDev(a, ma, sa);
  cv::meanStdDev(b, mb, sb);
  *flat = sa[0] < kFlatStdDev || sb[0] < kFlatStdDev;
  if (*flat) return 0.0;
  const double cov = (a - ma[0]).dot(b - mb[0]) / static_cast<double>(a.total());
  return cov / (sa[0] * sb[0]);
}

cv::Rect halved(const cv::Rect& r) { return {r.x / 2, r.y / 2, r.width / 2, r.height / 2}; }

std::string format(const char* fmt, double a, double b = 0) {
  char s[200];
  std::snprintf(s, sizeof s, fmt, a, b);
  return s;
}

}  // namespace

void KeyFrameEvidence::add(int frame, const cv::Rect& canvas, const cv::Mat& luma) {
  cv::Mat small, f, fine, coarse;
  cv::resize(luma, small, cv::Size(luma.cols / 2, luma.rows / 2), 0, 0, cv::INTER_AREA);
  small.convertTo(f, CV_32F);
  cv::GaussianBlur(f, fine, cv::Size(0, 0), kFineSigma);
  cv::GaussianBlur(f, coarse, cv::Size(0, 0), kCoarseSigma);
  cv::Mat band = fine - coarse;
  if (count_ == 0) {
    firstFrame_ = frame;
    firstAt_ = canvas.tl();
  } else {
    // The shared rectangle in each frame's own pixels, halved, one size in both.
    const cv::Rect shared = canvas & previousCanvas_;
    const cv::Rect inPrevious = halved(shared - previousCanvas_.tl());
    const cv::Rect inCurrent(halved(shared - canvas.tl()).tl(), inPrevious.size());
    const cv::Rect box(0, 0, band.cols, band.rows);
    if (inPrevious.area() == 0 || (inCurrent & box) != inCurrent) {
      correlations_.push_back(0.0);
    } else {
      bool flat = false;
      const double c = correlation(previous_(inPrevious), band(inCurrent), &flat);
      if (flat)
        ++flat_;
      else
        correlations_.push_back(c);
    }
  }
  previous_ = band;
  previousCanvas_ = canvas;
  lastFrame_ = frame;
  ++count_;
}

GateVerdict judgeCapture(const KeyFrameEvidence& keys, const ChainedTravel& travel, bool horizontal,
                         int along) {
  GateVerdict v;
  v.judged = true;
  v.keyFrames = keys.keyFrames();
  const std::vector<double>& c = keys.correlations();
  v.pairs = static_cast<int>(c.size());
  v.flatPairs = keys.flatPairs();
  v.medianCorrelation = percentile(c, 0.5);
  v.lowestCorrelation = percentile(c, 0.0);
  int low = 0;
  for (double x : c) low += x < kDisagreeCorrelation;
  v.disagreeing = c.empty() ? 0.0 : static_cast<double>(low) / static_cast<double>(c.size());
  const cv::Point2d moved = travel.at(keys.lastFrame()) - travel.at(keys.firstFrame());
  v.travelAlong = std::fabs(horizontal ? moved.x : moved.y);
  v.travelAcross = std::fabs(horizontal ? moved.y : moved.x);
  const cv::Point placed = keys.lastAt() - keys.firstAt();
  v.placedAlong = std::abs(horizontal ? placed.x : placed.y);
  const double minTravel = kMinSpan * along;
  const double ratio = lengthRatio(v.placedAlong, v.travelAlong);

  if (std::hypot(moved.x, moved.y) >= minTravel &&
      v.travelAcross > kMaxAcrossOverAlong * v.travelAlong) {
    v.reason = format(
        "the camera moved across the sweep more than along it (%.0f px across, %.0f px along)",
        v.travelAcross, v.travelAlong);
  } else if (v.placedAlong < minTravel) {
    v.reason = format(
        "the key frames span %.0f px along the sweep, less than a tenth of the frame: the "
        "picture is a single view, not a panorama",
        v.placedAlong);
  } else if (v.travelAlong >= minTravel && (ratio < kMinLengthRatio || ratio > kMaxLengthRatio)) {
    v.reason = format(
        "the key frames span %.0f px along the sweep but the camera moved %.0f px between them",
        v.placedAlong, v.travelAlong);
    v.reason += ratio < kMinLengthRatio ? ": some of the sweep is missing from the picture"
                                        : ": pieces of the sweep are laid more than once";
  } else if (!c.empty() && v.medianCorrelation < kMinMedianCorrelation) {
    v.reason = format("the key frames do not agree where they overlap (median correlation %.2f)",
                      v.medianCorrelation);
  } else if (!c.empty() && v.disagreeing > kMaxDisagreeing) {
    v.reason =
        format("%.0f %% of the key frames do not agree with the one before where they overlap",
               100.0 * v.disagreeing);
  }
  v.passed = v.reason.empty();
  return v;
}

std::string describe(const GateVerdict& v) {
  char line[300];
  std::snprintf(line, sizeof line,
                "%d key frames; overlaps: median correlation %.2f over %d (%.0f %% below %.1f, "
                "%d too flat to judge); between the first and last key frame the camera moved "
                "%.0f px along, %.0f px across, the key frames span %.0f px: %s",
                v.keyFrames, v.medianCorrelation, v.pairs, 100.0 * v.disagreeing,
                kDisagreeCorrelation, v.flatPairs, v.travelAlong, v.travelAcross, v.placedAlong,
                v.passed ? "passed" : "refused");
  return line;
}

}  // namespace zolt::tools
