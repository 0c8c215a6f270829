// The quality gate of zoltpano stitch --mode enhanced: key frames compared where the merger laid
// them, a capture judged against the camera's travel, and whole sweeps through the session: a
// blurred portrait sweep sideways (the engine fixes a vertical direction and lays pieces of the
// sweep over each other) refused with its picture kept aside, a handheld sweep passed.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_simulator.h"
#include "sim/sweep_writer.h"
#include "support/sim_sweep.h"
#include "support/stitch_inputs.h"
#include "tools/metrics.h"
#include "tools/quality_gate.h"

namespace fs = std::filesystem;
using namespace zolt::test;
using namespace zolt::tools;

namespace {

constexpr int kW = 640, kH = 480;

// A view of kW x kH at `at` of a grey scene with detail at the scales the gate compares.
cv::Mat view(cv::Point at) {
  static const cv::Mat scene = [] {
    cv::Mat grey;
    cv::cvtColor(texturePhoto(1200, 700, 5), grey, cv::COLOR_BGR2GRAY);
    return grey;
  }();
  return scene(cv::Rect(at, cv::Size(kW, kH)));
}

bool says(const GateVerdict& v, const std::string& text) {
  return v.reason.find(text) != std::string::npos;
}

}  // namespace

TEST(QualityGate, KeyFramesAgreeOnlyWhereLaidAsTheSceneLies) {
  // Laid where the views lie, on both axes; odd steps lose at most a pixel to the halving.
  KeyFrameEvidence right;
  const cv::Point at[] = {{0, 0}, {37, 5}, {80, 31}, {80, 64}};
  for (int i = 0; i < 4; ++i) right.add(10 + i, cv::Rect(at[i], cv::Size(kW, kH)), view(at[i]));
  ASSERT_EQ(right.correlations().size(), 3u);
  for (double c : right.correlations()) EXPECT_GT(c, 0.85);
  EXPECT_TRUE(right.keyFrames() == 4 && right.firstFrame() == 10 && right.lastFrame() == 13);
  EXPECT_EQ(right.lastAt() - right.firstAt(), cv::Point(80, 64));

  // A view laid 60 px from where it lies disagrees; one laid apart shares nothing (counts 0).
  KeyFrameEvidence wrong;
  wrong.add(0, cv::Rect(0, 0, kW, kH), view({0, 0}));
  wrong.add(1, cv::Rect(20, 0, kW, kH), view({80, 0}));
  wrong.add(2, cv::Rect(2000, 0, kW, kH), view({100, 0}));
  ASSERT_EQ(wrong.correlations().size(), 2u);
  EXPECT_LT(wrong.correlations()[0], 0.3);
  EXPECT_EQ(wrong.correlations()[1], 0.0);

  // Flat views have nothing to agree on: counted, not judged.
  KeyFrameEvidence flat;
  const cv::Mat grey(kH, kW, CV_8UC1, cv::Scalar(90));
  flat.add(0, cv::Rect(0, 0, kW, kH), grey);
  flat.add(1, cv::Rect(30, 0, kW, kH), grey);
  EXPECT_TRUE(flat.correlations().empty() && flat.flatPairs() == 1);
}

// The camera pans right 24 px a frame. Laid as it moved the capture passes; laid on the other
// axis, laid short, hardly laid at all or laid from views that are not where they lie, it is
// refused, each for its own reason.
TEST(QualityGate, JudgesTheCaptureAgainstTheCamerasTravel) {
  ChainedTravel travel;
  for (int i = 0; i < 16; ++i) travel.add(i, view({24 * i, 40}));
  auto judged = [&](cv::Point step, bool horizontal, int n, int jumpY = 0) {
    KeyFrameEvidence keys;
    for (int i = 0; i < n; ++i)
      keys.add(i, cv::Rect(step * i, cv::Size(kW, kH)), view({24 * i, 40 + jumpY * (i % 2)}));
    return judgeCapture(keys, travel, horizontal, horizontal ? kW : kH);
  };
  const GateVerdict good = judged({24, 0}, true, 16);
  EXPECT_TRUE(good.passed && good.judged) << good.reason;
  EXPECT_NEAR(good.travelAlong, 360, 4);
  EXPECT_LT(good.travelAcross, 4);
  EXPECT_EQ(good.placedAlong, 360);
  EXPECT_GT(good.medianCorrelation, 0.9);

  EXPECT_TRUE(says(judged({0, 24}, false, 16), "across the sweep more than along it"));
  EXPECT_TRUE(says(judged({12, 0}, true, 16), "span 180 px along the sweep but the camera moved 36"));
  EXPECT_TRUE(says(judged({24, 0}, true, 3), "single view, not a panorama"));
  EXPECT_TRUE(says(judged({24, 0}, true, 16, 90), "do not agree where they overlap"));
}

// 40 frames of a portrait camera panning right at 28 px a frame with a full frame time of blur,
// noise, tremor and a slow drift up: the engine fixes an upward sweep and lays a strip of
// pieces. Refused: the picture is NAME_refused.jpg, there is no NAME.jpg, the CSV and the report
// are written as always.
TEST(StitchGate, BlurredPortraitSweepSidewaysIsRefused) {
  zolt::sim::SweepConfig cfg = zolt::sim::SweepConfig::fromPreset("handheld");
  cfg.width = 720;
  cfg.height = 1280;
  cfg.frames = 40;
  cfg.photoPath = kSweepPhoto;
  cfg.speed = 28.0 / 720;
  cfg.speedVariation = 0.9;
  cfg.blurExposure = 1.0;
  cfg.noiseSigma = 4;
  cfg.drift = -0.3;
  cfg.tremor = 0.03;
  cfg.seed = 3;
  const std::string dir = freshDir("gate_sideways") + "/s", out = freshDir("gate_refused") + "/p";
  zolt::sim::SweepSimulator sim(cfg);
  zolt::sim::SweepWriter::write(sim, dir);
  StitchOptions opt;
  opt.qualityGate = true;
  const StitchResult r = stitchPath(dir, out, opt);
  fs::remove_all(dir);
  ASSERT_FALSE(r.captures.empty());
  const CaptureRecord& c = r.captures[static_cast<size_t>(r.chosenCapture)];
  EXPECT_TRUE(c.direction == MOVE_UP || c.direction == MOVE_DOWN) << c.direction;
  EXPECT_TRUE(c.gate.judged && !c.gate.passed);
  EXPECT_TRUE(says(c.gate, "across the sweep more than along it")) << c.gate.reason;
  EXPECT_GT(c.gate.travelAcross, 2 * c.gate.travelAlong);
  EXPECT_EQ(r.panoramaPath, out + "_refused.jpg");
  EXPECT_TRUE(fs::exists(out + "_refused.jpg") && !fs::exists(out + ".jpg"));
  EXPECT_TRUE(fs::exists(out + ".csv") && fs::exists(out + "_report.png"));
}

TEST(StitchGate, HandheldSweepPasses) {
  const std::string dir = freshDir("gate_handheld") + "/s", out = freshDir("gate_passed") + "/p";
  zolt::sim::SweepSimulator sim(simSweep("handheld", kSweepPhoto, 24));
  zolt::sim::SweepWriter::write(sim, dir);
  StitchOptions opt;
  opt.qualityGate = true;
  const StitchResult r = stitchPath(dir, out, opt);
  fs::remove_all(dir);
  ASSERT_EQ(r.captures.size(), 1u);
  const GateVerdict& g = r.captures[0].gate;
  EXPECT_TRUE(g.judged && g.passed) << g.reason;
  EXPECT_EQ(g.pairs + 1, static_cast<int>(r.keyFrames.size()));
  EXPECT_GT(g.medianCorrelation, 0.9);
  EXPECT_NEAR(g.placedAlong, g.travelAlong, 0.02 * g.travelAlong);
  EXPECT_EQ(r.panoramaPath, out + ".jpg");
  EXPECT_FALSE(fs::exists(out + "_refused.jpg"));
}
