// The figures the tools report, each defined once (docs/stitching.md, "Metrics"): the same data
// gives the same number in every command.
#pragma once

#include <cstddef>
#include <map>
#include <vector>

#include <opencv2/core.hpp>

namespace zolt::tools {

// The p-quantile (p from 0 to 1) by linear interpolation between the closest ranks: with the
// values sorted, position p * (n - 1), interpolated between its neighbours. 0 for no values.
double percentile(std::vector<double> values, double p);

// Median, 95th percentile and largest of a set of errors.
struct Spread {
  double median = 0, p95 = 0, max = 0;
  size_t count = 0;
};
Spread spread(const std::vector<double>& values);

// PSNR in dB of a mean squared error on 8-bit samples; 99 for a (near) perfect match.
double psnrFromMse(double mse);
// Mean squared error over every sample of every channel of two pictures of one size and type.
double meanSquaredError(const cv::Mat& a, const cv::Mat& b);
// Mean SSIM of two 8-bit grey pictures (Gaussian window 11 x 11, sigma 1.5).
double ssim(const cv::Mat& a, const cv::Mat& b);

// A panorama scored against the ideal one (a simulated sweep's truth.png).
struct TruthScores {
  bool aligned = false;
  cv::Point offset;          // panorama (0, 0) in the truth
  cv::Point expectedOffset;  // the same from the key frames' truth
  cv::Rect overlap;          // compared region, panorama pixels
  double psnr = 0, ssim = 0, tilePsnr = 0;
  int tiles = 0;
};
// Aligns the panorama (BGR) in the truth (BGR) by a search of +-12 px around `guess`, then
// PSNR over the three channels and SSIM on luma over the shared region, and the tile PSNR:
// 64 x 64 tiles each aligned by itself within +-8 px.
TruthScores scoreAgainstTruth(const cv::Mat& panorama, const cv::Mat& truth, cv::Point guess);

// Key-frame placement against the truth: each key frame's position relative to the first key
// frame, against the truth's relative to the same frame; errors are the distances (the first
// key frame's own, zero, left out), alongDrift the last key frame's error along the sweep.
struct PlacementErrors {
  std::vector<double> errors;
  double alongDrift = 0;
};
PlacementErrors placementErrors(const std::vector<cv::Point2d>& placed,
                                const std::vector<cv::Point2d>& truth, bool horizontal);

// Placed travel over true (or measured) travel; 0 when the latter is not positive.
double lengthRatio(double placed, double travel);

// Brightness steps between key frames where the scene is smooth (the sky of a landscape sweep),
// grey levels: the mean luma of each column over rows 3 % to 18 % from the top, averaged over
// 8-column bands along the sweep, and the 95th percentile of the absolute differences of
// adjacent bands. A vertical sweep's panorama is measured with rows and columns exchanged
// (columns 3 % to 18 % from the left, bands of 8 rows). `panorama`: BGR or grey; 0 for fewer
// than two bands.
double skyStep(const cv::Mat& panorama, bool horizontal);

// The camera's travel measured from the images alone: phase correlation (Hann-windowed, full
// resolution) of each frame's luma against the previous frame's, the steps summed. Positions
// follow the camera: a sweep to the right grows x. Consecutive frames overlap almost entirely,
// which keeps real footage (blur, parallax, light) correlating; the sum's error stays within
// about 0.3 % of a simulated sweep's true travel.
class ChainedTravel {
 public:
  // kWholeFrame correlates whole frames. kCentreLines measures x on the frame's centre column
  // band (a fifth of the width, 80 % of the height) and y on its centre row band. A turning
  // camera's perspective moves the frame's sides further than its centre, so whole frames read
  // a longer travel than the frame centres make (3.5 to 4.5 % with a 62 degree lens); the centre
  // is what a panorama laid by translation must match, since its seams lie there.
  enum class Region { kWholeFrame, kCentreLines };
  explicit ChainedTravel(Region region = Region::kWholeFrame) : region_(region) {}
  // Adds input frame `index` (8-bit luma, full size); frames must come in input order.
  void add(int index, const cv::Mat& luma);
  // The camera's position at input frame `index` (0, 0 at the first frame added), full-size
  // pixels; the last position known before it for a frame not added.
  cv::Point2d at(int index) const;

 private:
  Region region_;
  cv::Mat previous_[2], window_[2];  // whole frame or column band; row band
  cv::Mat previousLuma_;
  cv::Point2d position_;
  std::map<int, cv::Point2d> positions_;
};

}  // namespace zolt::tools
