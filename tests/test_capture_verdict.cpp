// ZOLT_PANO_GetVerdict on simulated sweeps through the C interface: a clean sweep is a panorama;
// a stretch of the sweep the engine never saw, a step back laid twice, a camera moving sideways
// and a capture of one view are not; asking changes nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "sim/sweep_simulator.h"
#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "support/sim_sweep.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace {

using zolt::test::Engine;

struct Verdict {
  int call = -1;  // what GetVerdict returned
  int code = -1;
  std::string message;
};

Verdict ask(void* handle) {
  Verdict v;
  char text[512] = "unset";
  v.call = ZOLT_PANO_GetVerdict(handle, &v.code, text, sizeof text);
  v.message = text;
  return v;
}

// Feeds the sweep's frames for which `keep(index)` holds, with the engine's options, and asks
// the verdict before the engine goes.
Verdict judged(const zolt::sim::SweepConfig& cfg, const std::function<bool(int)>& keep,
               const std::vector<std::pair<int, int>>& options = {}) {
  zolt::sim::SweepSimulator sim(cfg);
  Engine engine(cfg.width, cfg.height);
  for (const auto& [option, value] : options)
    EXPECT_EQ(ZOLT_PANO_SetOption(engine.handle(), option, value), 0);
  zolt::setRansacSeed(true, 17);
  for (zolt::sim::SimFrame f; sim.next(f);)
    if (keep(f.index)) engine.feed(f.nv21.data());
  zolt::setRansacSeed(false, 0);
  return ask(engine.handle());
}

bool all(int) { return true; }

TEST(CaptureVerdict, RefusesTheCallBeforeAKeyFrameIsMerged) {
  zolt::test::LogCapture quiet;
  Engine engine;
  int code = 7;
  char text[64] = "unset";
  EXPECT_EQ(ZOLT_PANO_GetVerdict(engine.handle(), &code, text, sizeof text),
            ZOLT_PANO_ERR_NOTHING_TO_SAVE);
  EXPECT_EQ(code, 7);
  std::string message;
  EXPECT_EQ(zolt::test::takeError(engine.handle(), &message), ZOLT_PANO_ERR_NOTHING_TO_SAVE);
  EXPECT_EQ(message, "ZOLT_PANO_GetVerdict :: nothing to judge : no key frame merged yet");
  EXPECT_EQ(ZOLT_PANO_GetVerdict(engine.handle(), nullptr, text, sizeof text),
            ZOLT_PANO_ERR_NULL_ARGUMENT);
  EXPECT_EQ(ZOLT_PANO_GetVerdict(nullptr, &code, text, sizeof text), ZOLT_PANO_ERR_NOT_ENGINE);
  EXPECT_STREQ(ZOLT_PANO_CodeName(ZOLT_PANO_VERDICT_BROKEN_SEAM), "VERDICT_BROKEN_SEAM");
  EXPECT_STRNE(ZOLT_PANO_CodeHint(ZOLT_PANO_VERDICT_ACROSS), "");
}

// The steady sweep, then the same with its middle fifth never shown to the engine. Without
// sub-pixel placement the tracker loses the sweep over the gap and lays what follows against the
// last key frame, 400 px short: unrelated views meet at that seam. With it, the key frame after
// the gap is found where it belongs and the panorama is whole again.
TEST(CaptureVerdict, AStretchTheEngineNeverSawBreaksASeam) {
  zolt::test::LogCapture quiet;
  const zolt::sim::SweepConfig cfg = zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 100);
  const Verdict clean = judged(cfg, all);
  EXPECT_EQ(clean.call, 0);
  EXPECT_EQ(clean.code, 0) << clean.message;
  EXPECT_NE(clean.message.find("key frames; overlaps: median correlation 0.9"), std::string::npos)
      << clean.message;

  const auto gap = [](int i) { return i < 40 || i >= 60; };
  const Verdict broken = judged(cfg, gap);
  EXPECT_EQ(broken.code, ZOLT_PANO_VERDICT_BROKEN_SEAM) << broken.message;
  EXPECT_NE(broken.message.find("at 1 of "), std::string::npos) << broken.message;
  const Verdict bridged = judged(cfg, gap, {{ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 1}});
  EXPECT_EQ(bridged.code, 0) << bridged.message;
}

// A step back of a fifth of the frame: without the gyroscope the tracker loses it, takes the
// frame after it as its reference and lays the stretch it went back over a second time.
TEST(CaptureVerdict, AStepBackLaidTwiceBreaksASeam) {
  zolt::test::LogCapture quiet;
  const Verdict v = judged(zolt::test::simSweep("goes-back", zolt::test::kSweepPhoto, 0), all);
  EXPECT_EQ(v.code, ZOLT_PANO_VERDICT_BROKEN_SEAM) << v.message;
}

// A blurred portrait camera panning sideways whose tremor fixes a vertical sweep: the key frames
// are pieces from all along the pan.
TEST(CaptureVerdict, ACameraMovingAcrossTheSweepIsNoPanorama) {
  zolt::test::LogCapture quiet;
  zolt::sim::SweepConfig cfg;
  cfg.width = 720;
  cfg.height = 1280;
  cfg.frames = 40;
  cfg.speed = 28.0 / 720;
  cfg.speedVariation = 0.9;
  cfg.blurExposure = 1;
  cfg.noiseSigma = 4;
  cfg.drift = -0.3;
  cfg.tremor = 0.03;
  cfg.seed = 3;
  cfg.photoPath = zolt::test::kSweepPhoto;
  const Verdict v = judged(cfg, all);
  EXPECT_EQ(v.code, ZOLT_PANO_VERDICT_ACROSS) << v.message;
  EXPECT_EQ(v.message.rfind("the camera moved across the sweep more than along it (", 0), 0u);
}

TEST(CaptureVerdict, AFewFramesAreOneView) {
  zolt::test::LogCapture quiet;
  const Verdict v = judged(zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 6), all);
  EXPECT_EQ(v.call, 0);
  EXPECT_EQ(v.code, ZOLT_PANO_VERDICT_SINGLE_VIEW) << v.message;
}

}  // namespace
