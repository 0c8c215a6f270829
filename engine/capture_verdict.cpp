#include "engine/capture_verdict.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <opencv2/imgproc.hpp>

#include "zolt_pano_ext.h"

namespace {

// Band-pass of the halved tracker luma (200 pixels wide): a 3 x 3 box less an 11 x 11 box keeps
// detail of about 2 to 10 of its pixels (10 to 50 preview pixels at 1920 wide). The noise and
// the shading go, so that sky over ground does not make two unrelated views alike.
constexpr int kFineBox = 3, kCoarseBox = 11;
// An overlap whose band-passed luma varies less than this (standard deviation, luma levels) in
// either frame has nothing to agree on: sky, a blank wall, blur.
constexpr double kFlatStdDev = 1.0;

cv::Mat bandPass(const cv::Mat& luma) {
  cv::Mat half, f, fine, coarse;
  cv::resize(luma, half, cv::Size(luma.cols / 2, luma.rows / 2), 0, 0, cv::INTER_AREA);
  half.convertTo(f, CV_32F);
  cv::blur(f, fine, cv::Size(kFineBox, kFineBox), cv::Point(-1, -1), cv::BORDER_REPLICATE);
  cv::blur(f, coarse, cv::Size(kCoarseBox, kCoarseBox), cv::Point(-1, -1), cv::BORDER_REPLICATE);
  return fine - coarse;
}

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

double median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  const size_t m = v.size() / 2;
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(m), v.end());
  return v[m];
}

std::string format(const char* fmt, double a, double b = 0, double c = 0) {
  char s[240];
  std::snprintf(s, sizeof s, fmt, a, b, c);
  return s;
}

}  // namespace

void CaptureVerdict::add(const KeyFrame& k) {
  cv::Mat band = bandPass(k.luma);
  Evidence& e = evidence_;
  if (e.keyFrames == 0) {
    firstPlacement_ = k.placement;
    horizontal_ = k.horizontal;
  } else {
    travel_ -= k.step;
    // The canvas holds each key frame at minus its placement: the current frame's corner lies
    // at d from the previous one's, in band pixels.
    const double toBand = k.scale / 2.0;
    const int dx = static_cast<int>(std::lround(-(k.placement.x - previousPlacement_.x) * toBand));
    const int dy = static_cast<int>(std::lround(-(k.placement.y - previousPlacement_.y) * toBand));
    const cv::Rect box(0, 0, std::min(band.cols, previous_.cols), std::min(band.rows, previous_.rows));
    const cv::Rect inPrevious = box & cv::Rect(dx, dy, box.width, box.height);
    bool flat = true;
    double c = 0.0;
    if (inPrevious.width >= kCoarseBox && inPrevious.height >= kCoarseBox) {
      c = correlation(previous_(inPrevious), band(inPrevious - cv::Point(dx, dy)), &flat);
    } else {
      flat = false;  // laid apart: nothing shared, nothing agrees
    }
    if (flat) {
      ++e.flatPairs;
    } else {
      correlations_.push_back(c);
      if (k.byGyroscope) {
        ++e.gyroPairs;
        e.gyroBroken += c < kBrokenSeam;
      } else {
        e.brokenSeams += c < kBrokenSeam;
      }
    }
  }
  previous_ = band;
  previousPlacement_ = k.placement;
  ++e.keyFrames;

  e.pairs = static_cast<int>(correlations_.size());
  e.medianCorrelation = median(correlations_);
  e.lowestCorrelation =
      correlations_.empty() ? 0.0 : *std::min_element(correlations_.begin(), correlations_.end());
  const auto low = std::count_if(correlations_.begin(), correlations_.end(),
                                 [](double x) { return x < kDisagree; });
  e.disagreeing = correlations_.empty() ? 0.0
                                        : static_cast<double>(low) / static_cast<double>(e.pairs);
  e.travelAlong = std::fabs(horizontal_ ? travel_.x : travel_.y);
  e.travelAcross = std::fabs(horizontal_ ? travel_.y : travel_.x);
  const cv::Point2d placed = k.placement - firstPlacement_;
  e.placedAlong = std::fabs(horizontal_ ? placed.x : placed.y);
}

int CaptureVerdict::judge(int frameAlong, std::string& message) const {
  const Evidence& e = evidence_;
  const double minSpan = kMinSpan * frameAlong;
  message.clear();
  if (std::hypot(e.travelAlong, e.travelAcross) >= minSpan && e.travelAcross > e.travelAlong) {
    message = format(
        "the camera moved across the sweep more than along it (%.0f px across, %.0f px along)",
        e.travelAcross, e.travelAlong);
    return ZOLT_PANO_VERDICT_ACROSS;
  }
  if (e.placedAlong < minSpan) {
    message = format(
        "the key frames span %.0f px along the sweep, less than a tenth of the frame: the "
        "picture is a single view, not a panorama",
        e.placedAlong);
    return ZOLT_PANO_VERDICT_SINGLE_VIEW;
  }
  if (e.gyroBroken > 0) {
    message = format(
        "%.0f of the %.0f key frames the gyroscope placed show a view unrelated to the key "
        "frame before where they overlap: the gyroscope and the images disagree",
        e.gyroBroken, e.gyroPairs);
    return ZOLT_PANO_VERDICT_GYRO_DISAGREES;
  }
  if (e.brokenSeams > 0) {
    message = format(
        "at %.0f of %.0f seams the key frames show unrelated views: part of the sweep is "
        "missing or laid twice",
        e.brokenSeams, e.pairs - e.gyroPairs);
    return ZOLT_PANO_VERDICT_BROKEN_SEAM;
  }
  if (e.pairs > 0 && (e.medianCorrelation < kMinMedian || e.disagreeing > kMaxDisagreeing)) {
    message = format(
        "the key frames do not agree where they overlap (median correlation %.2f, %.0f %% of "
        "the overlaps below 0.3)",
        e.medianCorrelation, 100.0 * e.disagreeing);
    return ZOLT_PANO_VERDICT_DISAGREE;
  }
  char text[400];
  std::snprintf(text, sizeof text,
                "%d key frames; overlaps: median correlation %.2f over %d (lowest %.2f, %.0f %% "
                "below %.1f, %d too flat to judge, %d placed by the gyroscope); between the first "
                "and last key frame the camera moved %.0f px along, %.0f px across, the key "
                "frames span %.0f px",
                e.keyFrames, e.medianCorrelation, e.pairs, e.lowestCorrelation,
                100.0 * e.disagreeing, kDisagree, e.flatPairs, e.gyroPairs, e.travelAlong,
                e.travelAcross, e.placedAlong);
  message = text;
  return 0;
}
