// ZOLT_PANO_RenderPreview: the panorama so far as RGBA for the app's strip view. Colours against
// the engine's own NV21 conversion (odd valid edges included), the fit for horizontal and
// vertical sweeps, the caller's stride padding, every refusal and the call before any merge.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "engine/orrery_engine.h"
#include "image/colour_convert.h"
#include "merger/module_merge.h"
#include "sim/sweep_simulator.h"
#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "zolt_pano_ext.h"

namespace {

using zolt::test::Engine;
using zolt::test::takeError;

constexpr uint8_t kFill = 0xA5;  // the caller's bytes the call must not touch

// An engine that has merged a steady 1280 x 720 sweep in `direction`.
std::unique_ptr<Engine> sweptEngine(zolt::sim::SweepDirection direction) {
  auto engine = std::make_unique<Engine>();
  auto cfg = zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 40);
  cfg.direction = direction;
  zolt::sim::SweepSimulator sim(cfg);
  zolt::test::runSweep(*engine, sim);
  return engine;
}

ModuleMerge& mergerOf(const Engine& e) { return *static_cast<OrreryEngine*>(e.handle())->merger; }

// The valid rectangle trimmed inwards to even rows and columns, as the preview crops it.
cv::Rect evenCrop(const Engine& e) {
  cv::Rect v;
  EXPECT_TRUE(mergerOf(e).validRect(v));
  const int x0 = (v.x + 1) & ~1, y0 = (v.y + 1) & ~1;
  return {x0, y0, ((v.x + v.width) & ~1) - x0, ((v.y + v.height) & ~1) - y0};
}

// The crop by the engine's reference NV21 to BGR conversion (what the JPEG holds).
cv::Mat engineBgr(const Engine& e, const cv::Rect& crop) {
  const __tag_ZOLT_OFFSCREEN& c = e.canvas();
  cv::Mat full(c.height, c.width, CV_8UC3, cv::Scalar::all(0));
  zolt::nv21ToBgr(zolt::referenceColourKernels(), c.planeY, c.planeVU,
                  static_cast<size_t>(c.width) * c.height / 2, c.width, c.height, full.data,
                  full.step, crop.x, crop.y, crop.width, crop.height);
  return full(crop).clone();
}

struct Preview {
  int rc = -1, width = -7, height = -7, stride = 0, maxW = 0, maxH = 0;
  std::vector<uint8_t> buf;
  std::string message;
  // The picture as BGR (checking alpha 255 on the way).
  cv::Mat bgr() const {
    cv::Mat out(height, width, CV_8UC3);
    for (int r = 0; r < height; ++r)
      for (int c = 0; c < width; ++c) {
        const uint8_t* p = &buf[static_cast<size_t>(r) * stride + 4 * c];
        EXPECT_EQ(p[3], 255) << r << "," << c;
        out.at<cv::Vec3b>(r, c) = {p[2], p[1], p[0]};
      }
    return out;
  }
};

Preview render(void* handle, int maxW, int maxH, int pad = 0) {
  Preview p;
  p.maxW = maxW, p.maxH = maxH, p.stride = maxW * 4 + pad;
  p.buf.assign(static_cast<size_t>(p.stride) * maxH, kFill);
  p.rc = ZOLT_PANO_RenderPreview(handle, maxW, maxH, p.buf.data(), p.stride, &p.width, &p.height);
  EXPECT_EQ(takeError(handle, &p.message), p.rc) << p.message;
  return p;
}

// Within the box, one side at its limit, the other the crop's aspect to the nearest pixel.
void expectFit(const Preview& p, const cv::Rect& crop) {
  ASSERT_EQ(p.rc, 0) << p.message;
  EXPECT_LE(p.width, p.maxW);
  EXPECT_LE(p.height, p.maxH);
  const int64_t cross = int64_t{p.width} * crop.height - int64_t{p.height} * crop.width;
  if (p.width == p.maxW)
    EXPECT_LE(std::abs(cross), (crop.width + 1) / 2) << p.width << "x" << p.height;
  else if (p.height == p.maxH)
    EXPECT_LE(std::abs(cross), (crop.height + 1) / 2) << p.width << "x" << p.height;
  else
    ADD_FAILURE() << "neither side at its limit: " << p.width << "x" << p.height;
}

// The scaled picture against the engine's conversion of the crop, both averaged down to blocks
// of 8 x 8 preview pixels: what a wrong region, a mirrored or swapped picture or a wrong colour
// matrix changes, without the sampling differences of the scalers (libyuv takes chroma
// bilinearly and may leave out the crop's last few canvas rows and columns).
void expectLooksLikeCanvas(const Engine& e, const Preview& p) {
  const cv::Size coarse(std::max(p.width / 8, 1), std::max(p.height / 8, 1));
  cv::Mat want, got, diff;
  cv::resize(engineBgr(e, evenCrop(e)), want, coarse, 0, 0, cv::INTER_AREA);
  cv::resize(p.bgr(), got, coarse, 0, 0, cv::INTER_AREA);
  cv::absdiff(got, want, diff);
  const cv::Scalar mean = cv::mean(diff);
  for (int ch = 0; ch < 3; ++ch) EXPECT_LT(mean[ch], 3.0) << "channel " << ch;
}

class RenderPreview : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    right = sweptEngine(zolt::sim::SweepDirection::Right).release();
    down = sweptEngine(zolt::sim::SweepDirection::Down).release();
  }
  static void TearDownTestSuite() {
    delete right;
    delete down;
  }
  static Engine* right;
  static Engine* down;
};
Engine* RenderPreview::right = nullptr;
Engine* RenderPreview::down = nullptr;

TEST_F(RenderPreview, ColoursAreTheEnginesOwnWithOddValidEdges) {
  Engine& e = *right;
  ModuleMerge& m = mergerOf(e);
  const __tag_ZOLT_OFFSCREEN& c = e.canvas();
  const size_t bytes = static_cast<size_t>(c.width) * c.height * 3 / 2;
  // The other tests see the sweep's canvas and rectangle again afterwards.
  const std::vector<uint8_t> kept(c.planeY, c.planeY + bytes);
  const int keptMin = m.minOffsetY, keptMax = m.maxOffsetY;
  // Odd drifts across the sweep make the valid rectangle start and end on odd rows.
  m.minOffsetY = -3;
  m.maxOffsetY = 5;
  const cv::Rect crop = evenCrop(e);
  ASSERT_EQ(crop.y, 4);
  ASSERT_EQ(crop.y + crop.height, e.canvas().height - 6);
  // Every luma and chroma value, random over the canvas (fixed seed).
  std::mt19937 rng(25);
  for (size_t i = 0; i < bytes; ++i) c.planeY[i] = static_cast<uint8_t>(rng());

  const Preview p = render(e.handle(), c.width, c.height);
  ASSERT_EQ(p.rc, 0) << p.message;
  ASSERT_EQ(p.width, crop.width);
  ASSERT_EQ(p.height, crop.height);
  // libyuv keeps 6 fractional bits on the chroma coefficients and rounds where the engine
  // floors: over all 2^24 Y, U, V triples its full-range result lies within 2 levels of the
  // engine's 14-bit formulas (checked once on x86 and armhf). A video-range matrix, swapped
  // channels or a chroma row or pair off by one are off by tens of levels here.
  cv::Mat diff;
  cv::absdiff(p.bgr(), engineBgr(e, crop), diff);
  double worst = 0;
  cv::minMaxLoc(diff.reshape(1), nullptr, &worst);
  EXPECT_LE(worst, 2.0);
  std::copy(kept.begin(), kept.end(), c.planeY);
  m.minOffsetY = keptMin;
  m.maxOffsetY = keptMax;
}

TEST_F(RenderPreview, HorizontalSweepFitsTheStrip) {
  Engine& e = *right;
  const cv::Rect crop = evenCrop(e);
  ASSERT_GT(crop.width, crop.height);
  for (const auto& box : {std::array<int, 2>{400, 400}, {1080, 1080}, {1080, 120}, {333, 77}}) {
    SCOPED_TRACE(std::to_string(box[0]) + "x" + std::to_string(box[1]));
    const Preview p = render(e.handle(), box[0], box[1]);
    expectFit(p, crop);
    expectLooksLikeCanvas(e, p);
  }
  // Never upscaled: a box larger than the panorama gets the panorama at its own size.
  const Preview whole = render(e.handle(), crop.width + 101, crop.height + 3);
  EXPECT_EQ(whole.width, crop.width);
  EXPECT_EQ(whole.height, crop.height);
  // A box one pixel high: one row, as wide as the aspect says.
  expectFit(render(e.handle(), 5000, 1), crop);
}

TEST_F(RenderPreview, VerticalSweepFitsTheStrip) {
  Engine& e = *down;
  const cv::Rect crop = evenCrop(e);
  ASSERT_GT(crop.height, e.canvas().width / 2);
  ASSERT_EQ(mergerOf(e).panoDirection, MOVE_DOWN);
  for (const auto& box : {std::array<int, 2>{1080, 400}, {200, 1080}, {641, 641}}) {
    SCOPED_TRACE(std::to_string(box[0]) + "x" + std::to_string(box[1]));
    const Preview p = render(e.handle(), box[0], box[1]);
    expectFit(p, crop);
    expectLooksLikeCanvas(e, p);
  }
}

TEST_F(RenderPreview, LeavesTheStridePaddingAndSpareRowsAlone) {
  Engine& e = *right;
  for (const int pad : {0, 3, 64}) {
    const Preview p = render(e.handle(), 301, 97, pad);
    ASSERT_EQ(p.rc, 0) << p.message;
    size_t touched = 0;
    for (int r = 0; r < p.maxH; ++r)
      for (int b = 0; b < p.stride; ++b) {
        const bool inside = r < p.height && b < p.width * 4;
        if (!inside) touched += p.buf[static_cast<size_t>(r) * p.stride + b] != kFill;
      }
    EXPECT_EQ(touched, 0u) << "pad " << pad;
  }
}

TEST_F(RenderPreview, RefusalsKeepTheirCodeAndMessageAndWriteNothing) {
  Engine& e = *right;
  std::vector<uint8_t> buf(64 * 4 * 16, kFill);
  struct Case {
    const char* what;
    int maxW, maxH, stride;
    bool rgba, width, height;
    int code;
  } cases[] = {
      {"no buffer", 64, 16, 256, false, true, true, ZOLT_PANO_ERR_NULL_ARGUMENT},
      {"no width", 64, 16, 256, true, false, true, ZOLT_PANO_ERR_NULL_ARGUMENT},
      {"no height", 64, 16, 256, true, true, false, ZOLT_PANO_ERR_NULL_ARGUMENT},
      {"zero width", 0, 16, 256, true, true, true, ZOLT_PANO_ERR_BAD_ARGUMENT},
      {"negative height", 64, -1, 256, true, true, true, ZOLT_PANO_ERR_BAD_ARGUMENT},
      {"stride short by a byte", 64, 16, 255, true, true, true, ZOLT_PANO_ERR_BAD_ARGUMENT},
      {"negative stride", 64, 16, -256, true, true, true, ZOLT_PANO_ERR_BAD_ARGUMENT},
      {"stride overflowing", 0x40000000, 16, 0x7fffffff, true, true, true,
       ZOLT_PANO_ERR_BAD_ARGUMENT},
      {"buffer over 2^31 bytes", 64, 0x800000, 256, true, true, true, ZOLT_PANO_ERR_BAD_ARGUMENT},
  };
  for (const Case& c : cases) {
    int w = -7, h = -7;
    const int rc =
        ZOLT_PANO_RenderPreview(e.handle(), c.maxW, c.maxH, c.rgba ? buf.data() : nullptr, c.stride,
                                c.width ? &w : nullptr, c.height ? &h : nullptr);
    std::string message;
    EXPECT_EQ(rc, c.code) << c.what;
    EXPECT_EQ(takeError(e.handle(), &message), c.code) << c.what;
    EXPECT_EQ(message.rfind("ZOLT_PANO_RenderPreview :: ", 0), 0u) << message;
    EXPECT_EQ(w, -7);
    EXPECT_EQ(h, -7);
    EXPECT_EQ(std::count(buf.begin(), buf.end(), kFill), static_cast<long>(buf.size())) << c.what;
  }
  // Handles that are no live engine: the refusal is this thread's.
  void* released = nullptr;
  {
    Engine gone;
    released = gone.handle();
  }
  int w = -7, h = -7;
  for (void* handle : {released, static_cast<void*>(buf.data())}) {
    EXPECT_EQ(ZOLT_PANO_RenderPreview(handle, 64, 16, buf.data(), 256, &w, &h),
              ZOLT_PANO_ERR_NOT_ENGINE);
    std::string message;
    EXPECT_EQ(takeError(nullptr, &message), ZOLT_PANO_ERR_NOT_ENGINE);
    EXPECT_NE(message.find("ZOLT_PANO_RenderPreview"), std::string::npos) << message;
  }
  EXPECT_EQ(w, -7);
  EXPECT_EQ(std::count(buf.begin(), buf.end(), kFill), static_cast<long>(buf.size()));
}

TEST(RenderPreviewBeforeMerge, SaysThereIsNothingYetWithoutLogging) {
  Engine e;
  auto cfg = zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 2);
  zolt::sim::SweepSimulator sim(cfg);
  zolt::test::LogCapture log;
  const Preview fresh = render(e.handle(), 100, 100);
  zolt::sim::SimFrame f;
  ASSERT_TRUE(sim.next(f));
  e.feed(f.nv21.data());  // the first frame: no direction, nothing merged
  log.clear();
  const Preview firstFrame = render(e.handle(), 100, 100);
  // An app asks on every frame: the answer is not logged.
  EXPECT_FALSE(log.contains("ZOLT_PANO_RenderPreview"));
  for (const Preview* p : {&fresh, &firstFrame}) {
    EXPECT_EQ(p->rc, ZOLT_PANO_ERR_NOTHING_TO_SAVE);
    EXPECT_EQ(p->message.rfind("ZOLT_PANO_RenderPreview :: nothing to show", 0), 0u) << p->message;
    EXPECT_EQ(p->width, -7);
    EXPECT_EQ(std::count(p->buf.begin(), p->buf.end(), kFill), static_cast<long>(p->buf.size()));
  }
}

}  // namespace
