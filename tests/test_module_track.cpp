#include "tracker/module_track.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <memory>
#include <set>

#include <opencv2/video/tracking.hpp>

#include "platform/system_property.h"
#include "support/log_capture.h"
#include "support/photo_sweep.h"

namespace {

using zolt::test::LogCapture;
using zolt::test::PhotoSweep;

const char* const kPhoto = "/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg";

// ---------------------------------------------------------------------------------------------
// Construction

TEST(ModuleTrack, ConstructionDerivesSizesAndLimits) {
  LogCapture log;
  ModuleTrack t(1920, 1080);
  EXPECT_DOUBLE_EQ(t.scale, 400.0 / 1920);
  EXPECT_DOUBLE_EQ(t.smallWidth, 400.0);
  EXPECT_NEAR(t.smallHeight, 225.0, 1e-12);
  EXPECT_NEAR(t.fx, 331.54, 0.01);
  EXPECT_NEAR(t.fy, 310.78, 0.01);
  EXPECT_DOUBLE_EQ(t.cx, 200.0);
  EXPECT_NEAR(t.cy, 112.5, 1e-12);
  EXPECT_EQ(t.roundedWidth60, 1152);
  EXPECT_EQ(t.roundedHeight60, 704);
  EXPECT_EQ(t.traceTooQuickX, 192);
  EXPECT_EQ(t.traceTooQuickY, 108);
  EXPECT_EQ(t.preImg.size(), cv::Size(400, 225));
  EXPECT_EQ(t.preImgHighRes.size(), cv::Size(1920, 1080));
  EXPECT_EQ(t.feat->gridCols, 13);
  EXPECT_EQ(t.feat->gridRows, 8);
  EXPECT_EQ(t.pixelAlign.groupSize, 64);
  EXPECT_EQ(t.pixelAlign.stripBuf.size(), 1920u * 8);
  EXPECT_EQ(t.colRange, cv::Range(0, 400));
  EXPECT_EQ(t.rowRange, cv::Range(0, 225));
  EXPECT_EQ(t.imuZeroA, 0.0);
  const cv::Mat id = t.camK * t.camKInv;
  EXPECT_LT(cv::norm(id - cv::Mat::eye(3, 3, CV_64F)), 1e-12);
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "ModuleTracker : hfovDeg x vfovDeg = 62.200000 x 39.800000  and hfovRad x "
                           "vfovRad = 1.085595 x 0.694641 "));

  ModuleTrack portrait(1080, 1920);
  EXPECT_NEAR(portrait.smallHeight, 1920 * 400.0 / 1080, 1e-9);
  EXPECT_NO_THROW(ModuleTrack(641, 641));
  EXPECT_THROW(ModuleTrack(640, 1000), std::exception);
  EXPECT_THROW(ModuleTrack(1000, 640), std::exception);
}

TEST(ModuleTrack, TooQuickParameters) {
  ModuleTrack t(1280, 720);
  tag_ZOLT_PANO_INNER_PARAM p{};
  p.traceTooQuickOn = 0;
  p.traceTooQuickX = 5;
  p.traceTooQuickY = 6;
  t.trace_too_quick_params(&p);
  EXPECT_EQ(t.traceTooQuickOn, 0);
  EXPECT_EQ(t.traceTooQuickX, 128);
  EXPECT_EQ(t.traceTooQuickY, 72);
  p.traceTooQuickOn = 2;
  t.trace_too_quick_params(&p);
  EXPECT_EQ(t.traceTooQuickOn, 2);
  EXPECT_EQ(t.traceTooQuickX, 5);
  EXPECT_EQ(t.traceTooQuickY, 6);
}

// ---------------------------------------------------------------------------------------------
// Movement checks

// A tracker whose direction is already fixed, at 1280 x 720 (sw 400, sh 225, scale 0.3125).
std::unique_ptr<ModuleTrack> swept(int dir) {
  auto t = std::make_unique<ModuleTrack>(1280, 720);
  t->bDirectionSet = true;
  t->moveDir = dir;
  return t;
}

int check(ModuleTrack& t, double offX, double offY) {
  t.meanOffX = offX;
  t.meanOffY = offY;
  t.errCode = SUCCESS;
  t.bKeyFrame = false;
  return t.JustifyUI_Error_codes();
}

TEST(ModuleTrackChecks, DirectionIsFixedOnceBeyondTheThreshold) {
  ModuleTrack t(1280, 720);
  EXPECT_EQ(check(t, 8.92, -8.92), 1);
  EXPECT_FALSE(t.bDirectionSet);
  EXPECT_EQ(t.moveDir, MOVE_NONE);
  EXPECT_EQ(check(t, -8.93, 1.0), 1);
  EXPECT_TRUE(t.bDirectionSet);
  EXPECT_EQ(t.moveDir, MOVE_LEFT);
  EXPECT_EQ(t.colRange, cv::Range(80, 320));
  EXPECT_EQ(t.rowRange, cv::Range(0, 225));
  EXPECT_FALSE(t.bKeyFrame);

  ModuleTrack v(1280, 720);
  EXPECT_EQ(check(v, 10.0, 10.0), 1);  // a tie goes to the vertical axis
  EXPECT_EQ(v.moveDir, MOVE_DOWN);
  EXPECT_EQ(v.rowRange, cv::Range(45, 180));
  ModuleTrack u(1280, 720);
  check(u, 0.0, -9.0);
  EXPECT_EQ(u.moveDir, MOVE_UP);
}

TEST(ModuleTrackChecks, SpeedAlongTheSweep) {
  auto t = swept(MOVE_RIGHT);
  EXPECT_EQ(check(*t, 19.0, 0.0), 1);
  EXPECT_EQ(t->errCode, SUCCESS);
  EXPECT_TRUE(t->bKeyFrame);
  EXPECT_EQ(check(*t, 21.0, 0.0), 1);
  EXPECT_EQ(t->errCode, WARN_TRACE_LITTLE_QUICK);
  EXPECT_TRUE(t->bKeyFrame);
  EXPECT_EQ(check(*t, 180.5, 0.0), 0);
  EXPECT_EQ(t->errCode, ERR_TRACE_TOO_QUICK);
  EXPECT_FALSE(t->bKeyFrame);
  t->traceTooQuickOn = 0;
  EXPECT_EQ(check(*t, 21.0, 0.0), 1);
  EXPECT_EQ(t->errCode, SUCCESS);

  // The mirrored sweeps use the same rule with their own sign and axis.
  auto l = swept(MOVE_LEFT);
  EXPECT_EQ(check(*l, -21.0, 0.0), 1);
  EXPECT_EQ(l->errCode, WARN_TRACE_LITTLE_QUICK);
  auto d = swept(MOVE_DOWN);
  EXPECT_EQ(check(*d, 0.0, 11.0), 1);  // limit 0.3125 * 0.5 * 72 = 11.25
  EXPECT_EQ(d->errCode, SUCCESS);
  EXPECT_EQ(check(*d, 0.0, 11.5), 1);
  EXPECT_EQ(d->errCode, WARN_TRACE_LITTLE_QUICK);
  EXPECT_EQ(check(*d, 0.0, 101.3), 0);  // 225 * 0.45 = 101.25
  EXPECT_EQ(d->errCode, ERR_TRACE_TOO_QUICK);
  auto u = swept(MOVE_UP);
  EXPECT_EQ(check(*u, 0.0, -11.5), 1);
  EXPECT_EQ(u->errCode, WARN_TRACE_LITTLE_QUICK);
}

TEST(ModuleTrackChecks, BackwardsAndOffAxis) {
  auto t = swept(MOVE_RIGHT);
  EXPECT_EQ(check(*t, -60.0, 0.0), 0);
  EXPECT_EQ(t->errCode, ERR_TRACE_DIRECTION_BACK);
  EXPECT_EQ(check(*t, -30.0, 0.0), 0);
  EXPECT_EQ(t->errCode, ERR_TRACE_DIRECTION);
  t->errCode = WARN_MOVE_SLOPE;
  t->meanOffX = -10.0;
  EXPECT_EQ(t->Offset_NOT_expected_dir_err_check(), 0);
  EXPECT_EQ(t->errCode, WARN_MOVE_SLOPE);  // a small wobble leaves the code standing
  EXPECT_EQ(check(*t, 0.5, 0.0), 0);        // not above forwardMinX = 1.0
  EXPECT_EQ(t->errCode, SUCCESS);
  EXPECT_FALSE(t->bKeyFrame);

  auto up = swept(MOVE_UP);
  EXPECT_EQ(check(*up, 0.0, 30.0), 0);  // backOffY 28.125
  EXPECT_EQ(up->errCode, ERR_TRACE_DIRECTION_BACK);
  EXPECT_EQ(check(*up, 0.0, 20.0), 0);  // wrongOffY 14.0625
  EXPECT_EQ(up->errCode, ERR_TRACE_DIRECTION);

  // Across the sweep: the offset (225 * 0.125 = 28.125) or the accumulated pose (720 / 2).
  auto h = swept(MOVE_RIGHT);
  EXPECT_EQ(check(*h, 10.0, 28.2), 0);
  EXPECT_EQ(h->errCode, ERR_TRACE_DIRECTION);
  EXPECT_FALSE(h->bKeyFrame);
  h->globalCamPoseY = -360.5;
  EXPECT_EQ(check(*h, 10.0, 0.0), 0);
  EXPECT_EQ(h->errCode, ERR_TRACE_DIRECTION);
  auto v = swept(MOVE_DOWN);
  EXPECT_EQ(check(*v, 25.1, 10.0), 0);  // 400 * 0.0625
  EXPECT_EQ(v->errCode, ERR_TRACE_DIRECTION);
}

TEST(ModuleTrackChecks, SlopeOrShakeThenSpeed) {
  auto t = swept(MOVE_RIGHT);
  EXPECT_EQ(t->shake_or_slope(10, 20), WARN_SHAKE_TOO_BIG);
  EXPECT_EQ(t->shake_or_slope(10, 10), WARN_MOVE_SLOPE);
  EXPECT_EQ(t->shake_or_slope(-10, 10), WARN_MOVE_SLOPE);
  EXPECT_EQ(t->shake_or_slope(0, 10), WARN_SHAKE_TOO_BIG);
  // Across beyond 72 * 0.3125 = 22.5 but within 28.125: the slope warning stays when the
  // speed check is inconclusive, and success replaces it when the frame moves on.
  LogCapture log;
  EXPECT_EQ(check(*t, 30.0, 23.0), 1);
  EXPECT_EQ(t->errCode, WARN_TRACE_LITTLE_QUICK);
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                           "JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  8001"));
  EXPECT_EQ(check(*t, -15.0, 23.0), 0);  // -57 degrees, a small step back: the slope stands
  EXPECT_EQ(t->errCode, WARN_MOVE_SLOPE);
  EXPECT_EQ(check(*t, 0.5, -23.0), 0);  // steep: shake
  EXPECT_EQ(t->errCode, WARN_SHAKE_TOO_BIG);
  EXPECT_EQ(check(*t, 10.0, 23.0), 1);
  EXPECT_EQ(t->errCode, SUCCESS);
  auto v = swept(MOVE_DOWN);  // across limit 128 * 0.3125 = 40 > 25 off-axis: only the slope
  EXPECT_EQ(check(*v, 3.0, 2.0), 1);
  EXPECT_EQ(v->errCode, SUCCESS);
}

TEST(ModuleTrackChecks, EachDirectionLogsItsOwnLines) {
  struct Case {
    int dir;
    double offX, offY;
    int priority;
    const char* line;
  };
  const Case cases[] = {
      {1, 5, 0, ANDROID_LOG_WARN, "Offset_expected_dir_err_check : Error code updated to SUCCESS :  0"},
      {2, -5, 0, ANDROID_LOG_ERROR, " Offset_expected_dir_err_check : Error code updated to SUCCESS :  0"},
      {3, 0, 5, ANDROID_LOG_WARN, "Error code updated to SUCCESS :  0"},
      {4, 0, -5, ANDROID_LOG_WARN, " Error code updated to SUCCESS :  0"},
      {1, 21, 0, ANDROID_LOG_ERROR, "Error code updated to WARN_TRACE_LITTLE_QUICK :  8080"},
      {2, -21, 0, ANDROID_LOG_ERROR,
       "Offset_expected_dir_err_check : Error code updated to WARN_TRACE_LITTLE_QUICK :  8080"},
      {4, 0, -200, ANDROID_LOG_ERROR, "Error code updated to ERR_TRACE_TOO_QUICK :  7004"},
      {1, -30, 0, ANDROID_LOG_ERROR,
       "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {2, 30, 0, ANDROID_LOG_ERROR,
       "Offset_NOT_expected_dir_err_check :  Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {3, 0, -15, ANDROID_LOG_ERROR,
       "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {4, 0, 15, ANDROID_LOG_ERROR,
       "Offset_NOT_expected_dir_err_check :  Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {3, 0, -29, ANDROID_LOG_ERROR,
       "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION_BACK :  7011"},
      {1, 5, 30, ANDROID_LOG_ERROR,
       "JustifyUI_Error_codes: Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {3, 42, 5, ANDROID_LOG_ERROR,
       "JustifyUI_Error_codes: Error code updated to WARN_SHAKE_TOO_BIG :  8020"},
  };
  for (const Case& c : cases) {
    auto t = swept(c.dir);
    LogCapture log;
    check(*t, c.offX, c.offY);
    EXPECT_TRUE(log.contains(c.priority, c.line)) << c.dir << ": " << c.line;
  }
}

TEST(ModuleTrackChecks, QuadrantAndProgress) {
  EXPECT_EQ(calculate_quad(1, 0), 2);
  EXPECT_EQ(calculate_quad(0, 1), 3);
  EXPECT_EQ(calculate_quad(0, -1), 1);
  EXPECT_EQ(calculate_quad(0, 0), 4);
  EXPECT_EQ(calculate_quad(1, 0.5f), 2);
  EXPECT_EQ(calculate_quad(-1, -3), 3);
  EXPECT_EQ(calculate_quad(-1, 3), 1);
  auto t = swept(MOVE_LEFT);
  t->globalCamPoseX = 123.9;
  t->globalCamPoseY = -50.5;
  t->EstimateProgress();
  EXPECT_EQ(t->progress, 1280 + 123);
  t->moveDir = MOVE_UP;
  t->EstimateProgress();
  EXPECT_EQ(t->progress, 720 + 50);
  t->moveDir = 7;
  t->EstimateProgress();
  EXPECT_EQ(t->progress, 770);
}

}  // namespace
