// The engine facade's own rules, with the tracker's report and the merger's state set by hand.
#include <gtest/gtest.h>

#include <vector>

#include "engine/orrery_engine.h"
#include "image/nv21_img.h"
#include "merger/module_merge.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "tracker/module_track.h"

using zolt::test::corners;

namespace {

struct Engine : testing::Test {
  OrreryEngine e;
  zolt::test::Nv21Buffer frame{1280, 720, 128};
  void SetUp() override { e.zolt_init_pano(1280, 720); }
  void TearDown() override { e.release(); }
};

}  // namespace

// The gate reports the tracker's code on every path; it stops only on a full canvas (unless the
// tracker already stopped) and logs each state's one line.
TEST_F(Engine, ErrorGateStopsOnlyOnAFullCanvas) {
  zolt::test::LogCapture log;
  e.tracker->report.code = WARN_MOVE_SLOPE;
  const struct { int ui, merge; bool pass; const char* line; } cases[] = {
      {0, 0, true, ""},
      {2, 0, true, "warn: please move slow"},
      {3, 0, true, "warn: please move up"},
      {4, 0, true, "warn: please move down"},
      {1, 0, true, "stop - error: NoFeature"},
      {5, 6, true, "stop - error: WrongDirection"},  // the canvas is not consulted
      {6, 0, true, ""},
      {0, 6, false, "stop - warn: LoopStop"},
      {3, 6, false, "stop - warn: LoopStop"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.ui << "/" << c.merge);
    log.clear();
    e.tracker->report.ui = static_cast<UiState>(c.ui);
    e.merger->mergeState = c.merge;
    long code = 0;
    EXPECT_EQ(e.error_condition_check(code), c.pass);
    EXPECT_EQ(code, WARN_MOVE_SLOPE);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), *c.line ? 1u : 0u);
    if (*c.line) {
      EXPECT_EQ(lines[0].priority, ANDROID_LOG_INFO);
      EXPECT_EQ(lines[0].message, c.line + std::string(30, '*'));
    }
  }
}

// A full canvas: neither call reads the frame nor writes an output, both return the last code.
TEST_F(Engine, FullCanvasRefusesFramesAndKeepsTheLastCode) {
  e.merger->mergeState = 6;
  e.tracker->report.code = ERR_TRACE_TOO_QUICK;
  zolt::test::LogCapture log;
  tsPOINT off{11, 22};
  long key = 5;
  int dir = 9, len = 9;
  EXPECT_EQ(e.provideNV21Image_SelectFrame(&frame.rec, &off, &key, &dir, &len),
            ERR_TRACE_TOO_QUICK);
  EXPECT_EQ(std::vector<long>({off.x, off.y, key, dir, len, e.frameCount}),
            std::vector<long>({11, 22, 5, 9, 9, 0}));
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                           "provideNV21Image_SelectFrame: error_condition_check returned false \n"));
  tsRECT rect{1, 2, 3, 4};
  int progress = -5;
  EXPECT_EQ(e.provideNV21Image_AddImage(&frame.rec, &rect, &progress), ERR_TRACE_TOO_QUICK);
  EXPECT_EQ(progress, -5);
  EXPECT_EQ(corners(rect), (std::array<int, 4>{1, 2, 3, 4}));
}

// Offsets in preview pixels, truncated toward zero; a key frame only once a direction is decided.
TEST_F(Engine, OffsetsAreTruncatedAndTheCrossAxisFollowsTheKeyFrameTrack) {
  TrackReport& t = e.tracker->report;
  t.offset = {10.9, -4.6};
  t.keyPose = {250.0, 3.7};
  tsPOINT off{};
  long key = 0;
  t.keyFrame = true, t.direction = MOVE_RIGHT;
  e.GrabInfo_Tracking(&off, &key);
  EXPECT_EQ(cv::Point(off.x, off.y), cv::Point(-10, 4));  // x: the opposite sign of SelectFrame's
  EXPECT_EQ(key, 1);
  t.direction = MOVE_NONE;
  e.GrabInfo_Tracking(&off, &key);
  EXPECT_EQ(key, 0);  // no key frame before a direction is decided
}

// Progress in percent of the canvas side along the sweep, also for frames that merge nothing.
TEST_F(Engine, ProgressIsSweepLengthOverTheCanvasExtentOnEveryCall) {
  TrackReport& t = e.tracker->report;
  t.sweepLength = 1500, t.keyFrame = false, t.direction = MOVE_RIGHT;
  zolt::test::Nv21Buffer pano(3000, 720);
  tsRECT rect{};
  int progress = 0;
  e.provideNV21Image_AddImage(&pano.rec, &rect, &progress);
  EXPECT_EQ(progress, 50);
  t.direction = MOVE_NONE;  // undecided: against the canvas height
  e.provideNV21Image_AddImage(&pano.rec, &rect, &progress);
  EXPECT_EQ(progress, 208);
  EXPECT_EQ(e.mergeFrames, 0);
}

// NV21 to BGR and back through the engine's buffers and row stride.
TEST_F(Engine, ConversionsFollowTheImageRules) {
  cv::Mat bgr;
  e.convert_NV21Img(frame.buf.data(), bgr);
  EXPECT_EQ(cv::norm(bgr, cv::Mat(720, 1280, CV_8UC3, cv::Scalar(128, 128, 128)), cv::NORM_INF), 0);
  cv::Mat grey(720, 1280, CV_8UC3, cv::Scalar(60, 60, 60));
  std::vector<uint8_t> out(frame.buf.size(), 0);
  e.convert_BGRImg(grey, out.data());
  EXPECT_EQ(out[0], 60);
  EXPECT_EQ(out[1280 * 720 - 1], 60);
  EXPECT_EQ(out[1280 * 720 + 1], 128);  // U of a grey block
  // A smaller picture lands in the corner with the engine's row stride; a larger one is refused.
  std::fill(out.begin(), out.end(), 0);
  cv::Mat corner(4, 6, CV_8UC3, cv::Scalar(200, 200, 200));
  e.convert_BGRImg(corner, out.data());
  EXPECT_EQ(out[1280 * 3 + 5], 200);
  EXPECT_EQ(out[1280 * 3 + 6], 0);
  EXPECT_NE(out[1280 * 720 + 1280 + 1], 0);
  zolt::test::LogCapture log;
  cv::Mat big(721, 1280, CV_8UC3, cv::Scalar(1, 1, 1));
  e.convert_BGRImg(big, out.data());
  EXPECT_EQ(log.lines().size(), 1u);
}
