// FinePlacement: sub-pixel shifts between two frames, and key frames that keep the fraction.
#include "tracker/fine_placement.h"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <random>
#include <vector>

#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "support/sim_sweep.h"
#include "zolt_pano_ext.h"

namespace {

// A grey view of a scene made of sinusoids (wavelengths 4 to 40 px, every direction), seen from
// camera position `at`: the scene is known between pixels, so a view at any fraction is exact.
cv::Mat view(cv::Size size, cv::Point2d at, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  struct Wave {
    double kx, ky, phase, amp;
  };
  std::vector<Wave> waves(16);
  for (Wave& w : waves) {
    const double k = 2 * CV_PI / (4.0 + 36.0 * u(rng)), dir = 2 * CV_PI * u(rng);
    w = {k * std::cos(dir), k * std::sin(dir), 2 * CV_PI * u(rng), 2.0 + 4.0 * u(rng)};
  }
  cv::Mat out(size, CV_8UC1);
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x) {
      double v = 128.0;
      for (const Wave& w : waves) v += w.amp * std::sin(w.kx * (x + at.x) + w.ky * (y + at.y) + w.phase);
      out.at<uint8_t>(y, x) = cv::saturate_cast<uint8_t>(v);
    }
  }
  return out;
}

}  // namespace

TEST(FinePlacement, RefinementFindsTheFractionWithoutLeaningToWholePixels) {
  const cv::Size frame(480, 320);
  const cv::Mat ref = view(frame, {0, 0}, 5);
  double sum = 0.0;
  int n = 0;
  for (double f = 0.1; f < 1.0; f += 0.2) {
    for (bool horizontal : {true, false}) {
      const cv::Point2d truth = horizontal ? cv::Point2d(-(5 + f), 0.3) : cv::Point2d(0.3, -(5 + f));
      const cv::Mat cur = view(frame, -truth, 5);
      cv::Point2d c(std::round(truth.x), std::round(truth.y));  // a whole-pixel estimate
      ASSERT_TRUE(FinePlacement::measureShift(ref, cur, horizontal, 32, 4.0, c)) << f;
      EXPECT_NEAR(c.x, truth.x, 0.02) << "fraction " << f << (horizontal ? " along x" : " along y");
      EXPECT_NEAR(c.y, truth.y, 0.02) << "fraction " << f << (horizontal ? " along x" : " along y");
      sum += (horizontal ? c.x - truth.x : c.y - truth.y);
      ++n;
    }
  }
  EXPECT_LT(std::abs(sum / n), 0.005);  // no lean: errors of either sign
}

// A slow, steady sweep (2.6 px a frame: a key frame every 5.2 px) through the C interface. In
// whole pixels each key frame is placed 5 px on and the panorama falls behind by 0.2 px a key
// frame; with the option every key frame lies within a pixel of where the camera was.
TEST(FinePlacement, SlowSweepKeepsEveryKeyFrameWithinAPixel) {
  for (bool fine : {false, true}) {
    zolt::sim::SweepConfig cfg = zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 240);
    cfg.speed = 2.6 / cfg.width;
    zolt::sim::SweepSimulator sim(cfg);
    const int w = sim.width();
    zolt::test::LogCapture quiet;
    zolt::test::Engine engine(w, sim.height());
    ASSERT_EQ(ZOLT_PANO_SetOption(engine.handle(), ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, fine), 0);
    const zolt::test::SweepRun run = zolt::test::runSweep(engine, sim);
    ASSERT_EQ(run.direction(), MOVE_RIGHT);
    ASSERT_GE(run.keys.size(), 100u);
    const zolt::sim::TruthRecord& first = run.keys.front().truth;
    double worst = 0.0;
    for (const zolt::test::KeyFrame& k : run.keys) {
      worst = std::max(worst, std::abs(k.report.valid.right - w - (k.truth.x - first.x)));
    }
    if (fine) {
      EXPECT_LE(worst, 1.0);
    } else {
      EXPECT_GT(worst, 10.0);  // the whole-pixel placement this option exists for
    }
    // Set after the first frame, an option is refused and the engine goes on as it was.
    EXPECT_EQ(ZOLT_PANO_SetOption(engine.handle(), ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, !fine),
              ZOLT_PANO_ERR_BAD_OPTION);
    EXPECT_EQ(zolt::test::takeError(engine.handle()), ZOLT_PANO_ERR_BAD_OPTION);
  }
}

// Eight flat grey frames in a sweep: the tracker finds nothing, and after four such frames it
// makes the blank frame its reference without moving the pose, so the whole-pixel track loses the
// camera's motion over the gap. The anchor, searched for wide, finds it again.
TEST(FinePlacement, MotionLostOverBlankFramesIsFoundAgain) {
  for (bool fine : {false, true}) {
    zolt::sim::SweepConfig cfg = zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 60);
    cfg.speed = 10.0 / cfg.width;
    zolt::sim::SweepSimulator sim(cfg);
    const int w = sim.width(), h = sim.height();
    zolt::test::LogCapture quiet;
    zolt::test::Engine engine(w, h);
    ASSERT_EQ(ZOLT_PANO_SetOption(engine.handle(), ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, fine), 0);
    int index = 0;
    const auto blankGap = [&index, w, h](const uint8_t* nv21, uint8_t* scratch) {
      const bool blank = index >= 20 && index < 28;
      ++index;
      if (!blank) return nv21;
      std::fill(scratch, scratch + static_cast<size_t>(w) * h * 3 / 2, uint8_t{128});
      return static_cast<const uint8_t*>(scratch);
    };
    const zolt::test::SweepRun run = zolt::test::runSweep(engine, sim, blankGap);
    ASSERT_EQ(run.direction(), MOVE_RIGHT);
    const zolt::test::KeyFrame& last = run.keys.back();
    ASSERT_GT(last.frame, 40);
    const double placed = last.report.valid.right - w;
    const double truth = last.truth.x - run.keys.front().truth.x;
    if (fine) {
      EXPECT_NEAR(placed, truth, 1.0);
    } else {
      EXPECT_LT(placed, truth - 20.0);  // the motion over the gap, lost
    }
  }
}
