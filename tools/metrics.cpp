#include "tools/metrics.h"

#include "tracker/fine_placement.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include <opencv2/imgproc.hpp>

namespace zolt::tools {
namespace {

constexpr int kSearch = 12;     // global alignment search, pixels each way
constexpr int kTile = 64;       // tile side of the tile-wise PSNR
constexpr int kTileSearch = 8;  // each tile's own search, pixels each way

double sse(const cv::Mat& a, const cv::Mat& b) {
  const double n = cv::norm(a, b, cv::NORM_L2);
  return n * n;
}

// Sum of squared errors of the tiles inside the overlap, each aligned by itself (on luma) within
// kTileSearch of the global alignment; *samples receives the samples summed over.
double tileErrors(const cv::Mat& pano, const cv::Mat& truth, const cv::Mat& pg, const cv::Mat& tg,
                  TruthScores& s, double* samples) {
  const cv::Rect truthBox(0, 0, truth.cols, truth.rows);
  double total = 0;
  *samples = 0;
  for (int y = s.overlap.y + kTileSearch; y + kTile + kTileSearch <= s.overlap.br().y; y += kTile)
    for (int x = s.overlap.x + kTileSearch; x + kTile + kTileSearch <= s.overlap.br().x;
         x += kTile) {
      const cv::Rect tile(x, y, kTile, kTile);
      const cv::Rect win = cv::Rect(x - kTileSearch, y - kTileSearch, kTile + 2 * kTileSearch,
                                    kTile + 2 * kTileSearch) +
                           s.offset;
      if ((win & truthBox) != win) continue;
      cv::Mat cost;
      cv::matchTemplate(tg(win), pg(tile), cost, cv::TM_SQDIFF);
      cv::Point shift;
      cv::minMaxLoc(cost, nullptr, nullptr, &shift, nullptr);
      total += sse(pano(tile), truth(cv::Rect(win.x + shift.x, win.y + shift.y, kTile, kTile)));
      *samples += kTile * kTile * 3;
      ++s.tiles;
    }
  return total;
}

}  // namespace

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const double pos = std::clamp(p, 0.0, 1.0) * static_cast<double>(v.size() - 1);
  const size_t i = static_cast<size_t>(pos);
  const double f = pos - static_cast<double>(i);
  return i + 1 < v.size() ? v[i] * (1 - f) + v[i + 1] * f : v[i];
}

Spread spread(const std::vector<double>& v) {
  Spread s;
  s.median = percentile(v, 0.5);
  s.p95 = percentile(v, 0.95);
  s.max = v.empty() ? 0.0 : *std::max_element(v.begin(), v.end());
  s.count = v.size();
  return s;
}

double psnrFromMse(double mse) {
  return mse <= 1e-12 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

double meanSquaredError(const cv::Mat& a, const cv::Mat& b) {
  return sse(a, b) / static_cast<double>(a.total() * a.channels());
}

double ssim(const cv::Mat& a8, const cv::Mat& b8) {
  const double c1 = 6.5025, c2 = 58.5225;  // (0.01 * 255)^2, (0.03 * 255)^2
  cv::Mat a, b;
  a8.convertTo(a, CV_32F);
  b8.convertTo(b, CV_32F);
  cv::Mat ma, mb, aa, bb, ab;
  const cv::Size k(11, 11);
  cv::GaussianBlur(a, ma, k, 1.5);
  cv::GaussianBlur(b, mb, k, 1.5);
  cv::GaussianBlur(a.mul(a), aa, k, 1.5);
  cv::GaussianBlur(b.mul(b), bb, k, 1.5);
  cv::GaussianBlur(a.mul(b), ab, k, 1.5);
  cv::Mat mab = ma.mul(mb), ma2 = ma.mul(ma), mb2 = mb.mul(mb);
  cv::Mat num = (2 * mab + c1).mul(2 * (ab - mab) + c2);
  cv::Mat den = (ma2 + mb2 + c1).mul((aa - ma2) + (bb - mb2) + c2);
  cv::Mat map;
  cv::divide(num, den, map);
  return cv::mean(map)[0];
}

TruthScores scoreAgainstTruth(const cv::Mat& pano, const cv::Mat& truth, cv::Point guess) {
  TruthScores s;
  s.expectedOffset = guess;
  if (pano.empty() || truth.empty()) return s;
  cv::Mat pg, tg;
  cv::cvtColor(pano, pg, cv::COLOR_BGR2GRAY);
  cv::cvtColor(truth, tg, cv::COLOR_BGR2GRAY);
  // Global alignment: the part of the panorama that lands in the truth at `guess`, less the
  // search margin, slid over the truth around that position. (A rotating camera's panorama can
  // reach past the truth.)
  const cv::Rect truthBox(0, 0, truth.cols, truth.rows);
  const cv::Rect inTruth = cv::Rect(0, 0, pano.cols, pano.rows) & (truthBox - guess);
  const cv::Rect inner(inTruth.x + kSearch, inTruth.y + kSearch, inTruth.width - 2 * kSearch,
                       inTruth.height - 2 * kSearch);
  if (inner.width < 32 || inner.height < 32) return s;
  const cv::Rect window = (cv::Rect(inner.x - kSearch, inner.y - kSearch, inner.width + 2 * kSearch,
                                    inner.height + 2 * kSearch) +
                           guess) &
                          truthBox;
  cv::Mat cost;
  cv::matchTemplate(tg(window), pg(inner), cost, cv::TM_SQDIFF);
  cv::Point at;
  cv::minMaxLoc(cost, nullptr, nullptr, &at, nullptr);
  s.offset = window.tl() + at - inner.tl();
  s.overlap = cv::Rect(0, 0, pano.cols, pano.rows) & (truthBox - s.offset);
  if (s.overlap.area() == 0) return s;
  s.aligned = true;
  s.psnr = psnrFromMse(meanSquaredError(pano(s.overlap), truth(s.overlap + s.offset)));
  s.ssim = ssim(pg(s.overlap), tg(s.overlap + s.offset));
  double samples = 0;
  const double total = tileErrors(pano, truth, pg, tg, s, &samples);
  s.tilePsnr = samples > 0 ? psnrFromMse(total / samples) : 0;
  return s;
}

PlacementErrors placementErrors(const std::vector<cv::Point2d>& placed,
                                const std::vector<cv::Point2d>& truth, bool horizontal) {
  PlacementErrors e;
  const size_t n = std::min(placed.size(), truth.size());
  for (size_t i = 0; i < n; ++i) {
    const cv::Point2d d = (placed[i] - placed[0]) - (truth[i] - truth[0]);
    if (i > 0) e.errors.push_back(std::hypot(d.x, d.y));
    e.alongDrift = horizontal ? d.x : d.y;
  }
  return e;
}

double lengthRatio(double placed, double travel) { return travel > 0 ? placed / travel : 0.0; }

double skyStep(const cv::Mat& panorama, bool horizontal) {
  constexpr int kBand = 8;
  if (panorama.empty()) return 0.0;
  cv::Mat luma = panorama;
  if (panorama.channels() == 3) cv::cvtColor(panorama, luma, cv::COLOR_BGR2GRAY);
  if (!horizontal) luma = luma.t();
  // Rows [3 %, 18 %) of the height, at least one.
  const int r0 = luma.rows * 3 / 100;
  const int r1 = std::max(r0 + 1, luma.rows * 18 / 100);
  cv::Mat columns;
  cv::reduce(luma.rowRange(r0, r1), columns, 0, cv::REDUCE_AVG, CV_64F);
  std::vector<double> bands;
  for (int x = 0; x + kBand <= columns.cols; x += kBand)
    bands.push_back(cv::mean(columns.colRange(x, x + kBand))[0]);
  std::vector<double> steps;
  for (size_t i = 1; i < bands.size(); ++i) steps.push_back(std::fabs(bands[i] - bands[i - 1]));
  return percentile(steps, 0.95);
}

void ChainedTravel::add(int index, const cv::Mat& luma) {
  // Each step: the phase correlation's peak; at the centre lines refined by Gauss-Newton over
  // the same area. The peak's sub-pixel part leans toward whole pixels, and summed over a slow
  // sweep's many small steps that lean grows to several percent (+4.7 % at 2.6 px a frame on
  // the whole frame, which keeps the plain peak as a quick, coarser second opinion).
  const auto step = [this, &luma](int k, const cv::Rect& area) {
    cv::Mat frame;
    luma(area).convertTo(frame, CV_32F);
    if (window_[k].size() != frame.size()) cv::createHanningWindow(window_[k], frame.size(), CV_32F);
    cv::Point2d shift;
    if (!previous_[k].empty()) {
      shift = cv::phaseCorrelate(previous_[k], frame, window_[k]);
      constexpr double kReach = 2.0;
      const int margin = static_cast<int>(std::ceil(std::max(std::abs(shift.x), std::abs(shift.y)) + kReach)) + 4;
      const cv::Rect inner = cv::Rect(area.x + margin, area.y + margin, area.width - 2 * margin,
                                      area.height - 2 * margin) &
                             cv::Rect(margin, margin, luma.cols - 2 * margin, luma.rows - 2 * margin);
      cv::Point2d refined = shift;
      if (region_ == Region::kCentreLines && inner.width > 8 && inner.height > 8 &&
          FinePlacement::refineShift(previousLuma_, luma, inner, kReach, refined)) {
        shift = refined;
      }
    }
    previous_[k] = frame;
    return shift;
  };
  // The scene moves against the camera: the image's shift is minus the camera's step.
  if (region_ == Region::kWholeFrame) {
    position_ -= step(0, cv::Rect(0, 0, luma.cols, luma.rows));
  } else {
    const int bandW = std::max(16, luma.cols / 5), bandH = std::max(16, luma.rows / 5);
    const int longW = luma.cols * 4 / 5, longH = luma.rows * 4 / 5;
    position_.x -= step(0, cv::Rect((luma.cols - bandW) / 2, (luma.rows - longH) / 2, bandW, longH)).x;
    position_.y -= step(1, cv::Rect((luma.cols - longW) / 2, (luma.rows - bandH) / 2, longW, bandH)).y;
  }
  if (region_ == Region::kCentreLines) previousLuma_ = luma.clone();  // for the refinement only
  positions_[index] = position_;
}

cv::Point2d ChainedTravel::at(int index) const {
  auto it = positions_.upper_bound(index);
  if (it == positions_.begin()) return {0, 0};
  return std::prev(it)->second;
}

}  // namespace zolt::tools
