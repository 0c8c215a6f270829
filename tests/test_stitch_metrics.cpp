// The tools' metrics where a fault would mislead every report: the camera's travel measured by
// chained phase correlation, against the simulator's truth, the percentile's definition and the
// rows and bands the sky step reads.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_simulator.h"
#include "support/sim_sweep.h"
#include "support/textures.h"
#include "tools/metrics.h"

using zolt::tools::ChainedTravel;
using zolt::tools::percentile;

// A steady sweep to the right and a handheld one upwards: the travel measured from the frames
// alone, first frame to last, matches the camera's true travel on both axes, sign included,
// within 0.5 % of the travel plus a pixel.
TEST(StitchMetrics, ChainedTravelFollowsTheCamera) {
  const struct {
    const char* preset;
    zolt::sim::SweepDirection direction;
  } cases[] = {{"steady", zolt::sim::SweepDirection::Right},
               {"handheld", zolt::sim::SweepDirection::Up}};
  for (const auto& c : cases) {
    zolt::sim::SweepConfig cfg = zolt::test::simSweep(
        c.preset, "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg", 30);
    cfg.direction = c.direction;
    zolt::sim::SweepSimulator sim(cfg);
    ChainedTravel travel;
    zolt::sim::SimFrame f;
    cv::Point2d first, last;
    while (sim.next(f)) {
      travel.add(f.index, cv::Mat(f.height, f.width, CV_8UC1, f.nv21.data()));
      if (f.index == 0) first = {f.truth.x, f.truth.y};
      last = {f.truth.x, f.truth.y};
    }
    const cv::Point2d truth = last - first, measured = travel.at(f.index);
    const double tolerance = 0.005 * std::hypot(truth.x, truth.y) + 1.0;
    EXPECT_GT(std::hypot(truth.x, truth.y), 200.0) << c.preset;
    EXPECT_NEAR(measured.x, truth.x, tolerance) << c.preset;
    EXPECT_NEAR(measured.y, truth.y, tolerance) << c.preset;
    // Frames never added answer with the last position known before them.
    EXPECT_EQ(travel.at(f.index + 5), measured);
    EXPECT_EQ(travel.at(-1), cv::Point2d(0, 0));
  }
}

// Linear interpolation between the closest ranks, whatever the order of the values.
TEST(StitchMetrics, PercentileInterpolatesBetweenRanks) {
  const std::vector<double> v = {4, 1, 3, 2};
  EXPECT_DOUBLE_EQ(percentile(v, 0.5), 2.5);
  EXPECT_DOUBLE_EQ(percentile(v, 0.95), 3.85);
  EXPECT_DOUBLE_EQ(percentile(v, 0.0), 1.0);
  EXPECT_DOUBLE_EQ(percentile(v, 1.0), 4.0);
  EXPECT_DOUBLE_EQ(percentile({7}, 0.95), 7.0);
  EXPECT_DOUBLE_EQ(percentile({}, 0.5), 0.0);
}

// The sky step reads only rows 3 % to 18 % from the top, in 8-column bands: a staircase of
// 2-level steps every 40 columns there, noise everywhere else, gives 2 (nine steps among 49
// band differences). A vertical sweep's panorama, turned, gives the same; colour is read as luma.
TEST(StitchMetrics, SkyStepReadsTheSkyBandsAlongTheSweep) {
  cv::Mat pano = zolt::test::noise(cv::Size(400, 100), CV_8UC1, 8);
  for (int x = 0; x < pano.cols; ++x) pano(cv::Rect(x, 3, 1, 15)).setTo(100 + 2 * (x / 40));
  EXPECT_DOUBLE_EQ(zolt::tools::skyStep(pano, true), 2.0);
  EXPECT_DOUBLE_EQ(zolt::tools::skyStep(pano.t(), false), 2.0);
  cv::Mat bgr;
  cv::cvtColor(pano, bgr, cv::COLOR_GRAY2BGR);
  EXPECT_NEAR(zolt::tools::skyStep(bgr, true), 2.0, 1e-9);
  EXPECT_GT(zolt::tools::skyStep(pano.t(), true), 10.0);  // the noise, read the wrong way
}
