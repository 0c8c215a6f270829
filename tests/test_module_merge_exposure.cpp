// ModuleMerge exposure compensation: key frames of one scene taken at different exposures lose
// the step at their seams with the option on and keep it with the option off; equal exposures
// leave the bytes alone; a grey scene stays grey; a slow change of light is followed, not frozen;
// the option through the C interface; and the vectorised gain against the reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "merger/merge_kernels.h"
#include "module_merge_fixtures.h"
#include "sim/sweep_simulator.h"
#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "support/sim_sweep.h"
#include "zolt_pano_ext.h"

using namespace zolt::test;

namespace {

constexpr int kSide = 480;  // square frames: the gain eases over 120 positions either way

// A mid-grey colour texture (luma 60 to 190: no clipping at the exposures used here).
const cv::Mat& scene() {
  static const cv::Mat s = [] {
    cv::Mat t = texturePhoto(1100, 1100, 41);
    t.convertTo(t, -1, 0.5, 60);
    return t;
  }();
  return s;
}

// The scene at `at` as an NV21 frame, its exposure scaled by `gain` (chroma about 128); `grey`:
// its chroma set to 128 first.
void exposedFrame(Frame& f, cv::Point at, double gain, bool grey) {
  f.nvCvt2NV21(scene()(cv::Rect(at.x, at.y, kSide, kSide)).clone());
  if (grey) std::fill(f.vuPlane, f.vuPlane + f.vuSize(), 128);
  auto scale = [&](uint8_t* p, size_t n, int centre) {
    for (size_t i = 0; i < n; ++i)
      p[i] = cv::saturate_cast<uint8_t>(centre + (p[i] - centre) * gain);
  };
  scale(f.yPlane, static_cast<size_t>(kSide) * kSide, 0);
  scale(f.vuPlane, f.vuSize(), 128);
}

struct Sweep {
  MoveDirection dir;
  std::vector<cv::Point> at;  // frame positions in the scene, the first one first
};

// The frames of `s` at exposures `gains` merged into a canvas; returns the canvas and where
// canvas (0, 0) lies in the scene.
Canvas merged(const Sweep& s, const std::vector<double>& gains, bool compensate, cv::Point* origin,
              bool grey = false) {
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(s.dir);
  Canvas canvas(horizontal ? 1000 : kSide, horizontal ? kSide : 1000);
  ModuleMerge m(kSide, kSide);
  m.configure({compensate});
  for (size_t k = 0; k < s.at.size(); ++k) {
    Frame f;
    exposedFrame(f, s.at[k], gains[k], grey);
    m.merging_AddImage(f, cv::Point_<double>(s.at[0] - s.at[k]), s.dir, &canvas.rec);
  }
  *origin = s.at[0] - cv::Point(s.dir == MOVE_LEFT ? canvas.w() - kSide : 0,
                                s.dir == MOVE_UP ? canvas.h() - kSide : 0);
  return canvas;
}

// Canvas luma over the scene's, per canvas position along the sweep, over the lines every frame
// covers (the frames' drift across the sweep stays within 8 lines).
std::vector<double> brightness(Canvas& c, const Sweep& s, cv::Point origin) {
  static const cv::Mat truth = [] {
    Frame f;
    f.nvCvt2NV21(scene());
    return f.yMat.clone();
  }();
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(s.dir);
  const int along = horizontal ? c.w() : c.h();
  std::vector<double> p(along, 0.0);
  for (int a = 0; a < along; ++a) {
    double got = 0, want = 0;
    for (int l = 8; l < kSide - 8; ++l) {
      const cv::Point at = horizontal ? cv::Point(a, l) : cv::Point(l, a);
      const cv::Point in = at + origin;
      if (in.x < 0 || in.y < 0 || in.x >= truth.cols || in.y >= truth.rows) continue;
      got += c.y(at.x, at.y);
      want += truth.at<uint8_t>(in);
    }
    p[a] = want > 0 ? got / want : 0.0;
  }
  return p;
}

// Largest change of the brightness between positions 16 apart within [a0, a1).
double largestJump(const std::vector<double>& p, int a0, int a1) {
  double worst = 0;
  for (int a = std::max(a0, 0); a + 16 < std::min<int>(a1, static_cast<int>(p.size())); ++a)
    worst = std::max(worst, std::fabs(p[a + 16] - p[a]));
  return worst;
}

const Sweep kSweeps[] = {
    {MOVE_RIGHT, {{20, 300}, {150, 303}, {281, 298}}},
    {MOVE_LEFT, {{500, 300}, {371, 297}, {240, 302}}},
    {MOVE_DOWN, {{300, 20}, {302, 151}, {297, 280}}},
    {MOVE_UP, {{300, 500}, {303, 369}, {299, 240}}},
};

}  // namespace

// Three key frames, the second 5 % brighter than the first and the third back at the first's
// exposure: merged as they are, each seam shows the step through its 32-position ramp (2.5 % over
// 16 positions); compensated, the brightness changes no faster than the gain's easing back to
// the frame's own exposure over 120 positions (0.7 % over 16).
TEST(ModuleMergeExposure, StepAtTheSeamVanishesAllDirections) {
  LogCapture quiet;
  const std::vector<double> gains = {1.0, 1.05, 1.0};
  for (const Sweep& s : kSweeps) {
    SCOPED_TRACE(s.dir);
    const bool horizontal = ZOLT_PANO_IsHorizontalSweep(s.dir);
    for (bool on : {false, true}) {
      cv::Point origin;
      Canvas c = merged(s, gains, on, &origin);
      const std::vector<double> p = brightness(c, s, origin);
      for (size_t k = 1; k < s.at.size(); ++k) {
        const cv::Point centre = s.at[k] - origin + cv::Point(kSide / 2, kSide / 2);
        const int pos = horizontal ? centre.x : centre.y;
        const double jump = largestJump(p, pos - 48, pos + 48);
        if (on)
          EXPECT_LT(jump, 0.015) << "key frame " << k;
        else
          EXPECT_GT(jump, 0.02) << "key frame " << k;
      }
    }
  }
}

// Frames of one exposure: the measured gain is 1 and the option changes no byte. A grey scene
// at changing exposures keeps its chroma at 128 (the gain scales chroma about its offset).
TEST(ModuleMergeExposure, EqualExposuresChangeNothingAndGreyStaysGrey) {
  LogCapture quiet;
  const std::vector<double> equal = {1.0, 1.0, 1.0};
  for (const Sweep& s : kSweeps) {
    SCOPED_TRACE(s.dir);
    cv::Point origin;
    const Canvas off = merged(s, equal, false, &origin);
    const Canvas on = merged(s, equal, true, &origin);
    EXPECT_TRUE(off.buf == on.buf);
    Canvas g = merged(s, {1.0, 1.2, 0.8}, true, &origin, true);
    const size_t ySize = static_cast<size_t>(g.w()) * g.h();
    EXPECT_TRUE(
        std::all_of(g.buf.begin() + ySize, g.buf.end(), [](uint8_t b) { return b == 128; }));
  }
}

// Ten key frames, each 2 % brighter than the one before: the panorama follows the light (at the
// last key frame over 10 % brighter than the first frame's exposure, the last one's being 19.5 %;
// frozen to the first, it would stay at 1), with no band on the way.
TEST(ModuleMergeExposure, SlowChangeOfLightIsFollowed) {
  LogCapture quiet;
  Sweep s{MOVE_RIGHT, {}};
  std::vector<double> gains;
  for (int k = 0; k < 10; ++k) {
    s.at.emplace_back(10 + 50 * k, 300 + (k % 3) - 1);
    gains.push_back(std::pow(1.02, k));
  }
  cv::Point origin;
  Canvas c = merged(s, gains, true, &origin);
  const std::vector<double> p = brightness(c, s, origin);
  const int last = s.at.back().x - origin.x + kSide / 2;
  EXPECT_GT(p[last], 1.1);
  EXPECT_LT(p[last], gains.back() + 0.01);
  EXPECT_LT(largestJump(p, 8, last + kSide / 2 - 8), 0.015);
}

// Through the C interface: with the option a sweep whose exposure drifts comes out otherwise
// than without it, and a sweep at one exposure comes out nearly the same (gains of about 1).
TEST(ModuleMergeExposure, OptionThroughTheEngine) {
  LogCapture quiet;
  for (double drift : {0.0, 0.2}) {
    SCOPED_TRACE(drift);
    zolt::sim::SweepConfig cfg = simSweep("steady", kSweepPhoto, 30);
    cfg.exposureDrift = drift;
    std::vector<uint8_t> canvases[2];
    for (int option : {0, 1}) {
      zolt::sim::SweepSimulator sim(cfg);
      Engine engine(sim.width(), sim.height(), 3 * sim.width());
      ASSERT_EQ(
          ZOLT_PANO_SetOption(engine.handle(), ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION, option), 0);
      ASSERT_GE(runSweep(engine, sim).keys.size(), 10u);
      canvases[option] = engine.canvasBytes();
    }
    ASSERT_EQ(canvases[0].size(), canvases[1].size());
    const cv::Mat a(1, static_cast<int>(canvases[0].size()), CV_8UC1, canvases[0].data());
    const cv::Mat b(1, static_cast<int>(canvases[1].size()), CV_8UC1, canvases[1].data());
    const double meanDiff = cv::norm(a, b, cv::NORM_L1) / static_cast<double>(a.total());
    // Over the whole canvas, a third of it never written: 0.01 and 0.38 measured.
    if (drift == 0.0)
      EXPECT_LT(meanDiff, 0.05);
    else
      EXPECT_GT(meanDiff, 0.15);
  }
}

// The gain's arithmetic at its ends: saturation both ways, chroma about 128, rounding; then the
// vectorised rows against the reference, byte for byte: odd lengths and starts, a gain per byte
// and one for the row, the extreme gains and bytes.
TEST(ModuleMergeExposure, VectorGainMatchesReference) {
  const auto &ref = zolt::referenceMergeKernels(), &vec = zolt::vectorMergeKernels();
  const struct {
    uint8_t src;
    int16_t gain;
    int centre;
    uint8_t want;
  } cases[] = {{200, 32767, 0, 255}, {101, 8192, 0, 51},     {255, 0, 0, 0},
               {20, 32767, 128, 0},  {240, 32767, 128, 255}, {128, 32767, 128, 128},
               {0, 8192, 128, 64},   {77, 16384, 0, 77},     {255, 16384, 128, 255}};
  for (const auto& c : cases) {
    for (const zolt::MergeKernels* k : {&ref, &vec}) {
      uint8_t out = 1;
      k->gainRow(&out, &c.src, 1, &c.gain, 0, c.centre);
      EXPECT_EQ(out, c.want) << k->name << " " << int(c.src) << " " << c.gain << " " << c.centre;
    }
  }
  forEachTarget([&] {
    std::mt19937 rng(29);
    std::vector<uint8_t> src(300), a(300), b(300);
    std::vector<int16_t> gains(300);
    for (int iter = 0; iter < 400; ++iter) {
      fillBytes(src, rng);
      for (auto& g : gains) g = static_cast<int16_t>(rng() % 32768);
      if (iter % 7 == 0) src[rng() % 300] = 255, src[rng() % 300] = 0, gains[rng() % 300] = 32767;
      const int start = static_cast<int>(rng() % 9), n = static_cast<int>(rng() % 280);
      const int step = static_cast<int>(rng() & 1), centre = (iter & 2) ? 128 : 0;
      std::fill(a.begin(), a.end(), 7);
      b = a;
      ref.gainRow(a.data() + start, src.data() + start, n, gains.data() + start, step, centre);
      vec.gainRow(b.data() + start, src.data() + start, n, gains.data() + start, step, centre);
      ASSERT_TRUE(a == b) << "iter " << iter << " n " << n << " step " << step;
    }
  });
}
