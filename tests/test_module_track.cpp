#include "tracker/module_track.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <cmath>
#include <random>
#include <memory>
#include <set>

#include <opencv2/video/tracking.hpp>

#include "platform/system_property.h"
#include "sim/sweep_simulator.h"
#include "support/log_capture.h"
#include "support/photo_sweep.h"

namespace {

using zolt::test::LogCapture;
using zolt::test::PhotoSweep;

const char* const kPhoto = "/usr/share/backgrounds/life_by_Aitzol_Berasategi.jpg";  // 3088 x 2056

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

// ---------------------------------------------------------------------------------------------
// Vision offset

TEST(ModuleTrackVision, MeanLeavesOutPointsLaggingBehindTheirBand) {
  ModuleTrack t(1280, 720);
  t.bDirectionSet = true;
  t.moveDir = MOVE_RIGHT;
  // dx = pre.x - cur.x. Band [80, 140): five at 10 (below the overall mean: not used). Band
  // [200, 260): 20, 20, 20, 20, 16: mean 19.2, spread 1.6, limit 14.6 * 0.6 * 1.6 / 19.2 + 19.2
  // = 19.93, so the 16 lags and is left out. Overall mean (50 + 96) / 10 = 14.6.
  const float dxs[] = {10, 10, 10, 10, 10, 20, 20, 20, 20, 16};
  const float xs[] = {90, 100, 110, 120, 130, 210, 220, 230, 240, 250};
  t.prePts.clear();
  t.curPts.clear();
  double sumDy = 0;
  for (int i = 0; i < 10; ++i) {
    const float dy = static_cast<float>(i % 3) - 1.0f;
    sumDy += dy;
    t.curPts.emplace_back(xs[i], 50.0f + i);
    t.prePts.emplace_back(xs[i] + dxs[i], 50.0f + i + dy);
  }
  t.prePtsCount = 10;
  t.UpdateMeanXYByPts();
  EXPECT_NEAR(t.meanOffX, (146.0 - 16.0) / 9.0, 1e-9);
  EXPECT_NEAR(t.meanOffY, sumDy / 10.0, 1e-12);
  EXPECT_NEAR(t.stdOffX, std::sqrt((5 * 4.6 * 4.6 + 4 * 5.4 * 5.4 + 1.4 * 1.4) / 10.0), 1e-5);

  // The same points with the axes exchanged, in a vertical sweep; row bands [90, 135) and
  // [135, 180) stand in for the column bands.
  ModuleTrack v(1280, 720);
  v.bDirectionSet = true;
  v.moveDir = MOVE_UP;
  for (int i = 0; i < 10; ++i) {
    const float y = i < 5 ? 95.0f + i : 140.0f + i;
    v.curPts.emplace_back(50.0f + i, y);
    v.prePts.emplace_back(50.0f + i + (t.prePts[i].y - t.curPts[i].y), y + dxs[i]);
  }
  v.prePtsCount = 10;
  v.UpdateMeanXYByPts();
  EXPECT_NEAR(v.meanOffY, (146.0 - 16.0) / 9.0, 1e-9);
  EXPECT_NEAR(v.meanOffX, sumDy / 10.0, 1e-12);

  // Before the direction is known: the plain means.
  v.bDirectionSet = false;
  v.UpdateMeanXYByPts();
  EXPECT_NEAR(v.meanOffY, 14.6, 1e-9);
}

TEST(ModuleTrackVision, TranslationRansacKeepsTheMajorityMotion) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> pos(0, 400), noise(-2, 2);
  std::vector<cv::Point2f> pre, cur;
  for (int i = 0; i < 60; ++i) {
    pre.emplace_back(pos(rng), pos(rng));
    const bool outlier = i % 6 == 5;
    cur.emplace_back(pre.back() + cv::Point2f(outlier ? 30.f : 12.f + noise(rng),
                                              outlier ? -20.f : noise(rng)));
  }
  std::vector<uint8_t> mask;
  zolt::setRansacSeedForTesting(true, 5);
  RansacDxdy(pre, cur, mask);
  zolt::setRansacSeedForTesting(false, 0);
  ASSERT_EQ(pre.size(), 50u);
  ASSERT_EQ(cur.size(), 50u);
  for (size_t i = 0; i < pre.size(); ++i) EXPECT_LT(std::fabs(cur[i].x - pre[i].x - 12.f), 2.01f);
  // With the random device as well: one shared translation is kept whole.
  std::vector<cv::Point2f> a{{1, 1}, {50, 20}, {100, 3}}, b{{4, 1}, {53, 20}, {103, 3}};
  RansacDxdy(a, b, mask);
  EXPECT_EQ(a.size(), 3u);
}

TEST(ModuleTrackVision, TooFewReferencePointsFail) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.7);
  ASSERT_TRUE(sweep.ok());
  ModuleTrack t(1280, 720);
  t.prePts.assign(9, cv::Point2f(100, 100));
  LogCapture log;
  EXPECT_FALSE(t.ComputeOffXY_Vision(sweep.at(100, 100)));
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                           "ComputeOffXY_Vision: Frm [0] : Failure due to less feature :  9"));
}

// The flow on pyramids built once per image gives what the flow on the images gives.
TEST(ModuleTrackVision, SharedPyramidsChangeNothing) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.25);
  ASSERT_TRUE(sweep.ok());
  cv::Mat a, b;
  cv::resize(sweep.at(100, 60).yMat, a, cv::Size(), 0.3125, 0.3125);
  cv::resize(sweep.at(107.5, 62.25).yMat, b, cv::Size(), 0.3125, 0.3125);
  std::vector<cv::Point2f> pts;
  FeatFastShiTomasi f(a.rows, a.cols);
  f.updateGridCount(pts, MOVE_NONE);
  f.detectFeatFromBlock(a, pts);
  ASSERT_GT(pts.size(), 20u);
  const cv::TermCriteria crit(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 0.03);
  std::vector<cv::Point2f> n1, n2, back1, back2;
  std::vector<uint8_t> s1, s2, s3, s4;
  cv::calcOpticalFlowPyrLK(a, b, pts, n1, s1, cv::noArray(), cv::Size(31, 31), 3, crit, 0, 0.001);
  cv::calcOpticalFlowPyrLK(b, a, n1, back1, s3, cv::noArray(), cv::Size(31, 31), 3, crit, 0, 0.001);
  std::vector<cv::Mat> pa, pb;
  cv::buildOpticalFlowPyramid(a, pa, cv::Size(31, 31), 3, false);
  cv::buildOpticalFlowPyramid(b, pb, cv::Size(31, 31), 3, false);
  cv::calcOpticalFlowPyrLK(pa, pb, pts, n2, s2, cv::noArray(), cv::Size(31, 31), 3, crit, 0, 0.001);
  cv::calcOpticalFlowPyrLK(pb, pa, n2, back2, s4, cv::noArray(), cv::Size(31, 31), 3, crit, 0, 0.001);
  EXPECT_EQ(s1, s2);
  EXPECT_EQ(s3, s4);
  ASSERT_EQ(n1.size(), n2.size());
  for (size_t i = 0; i < n1.size(); ++i) {
    EXPECT_EQ(n1[i], n2[i]);
    EXPECT_EQ(back1[i], back2[i]);
  }
}

// ---------------------------------------------------------------------------------------------
// Sweeps over a real photo

struct FrameLog {
  bool result;
  int code;
  int dir;
  bool selected;
  double poseX, poseY;    // the tracker's accumulated position
  double truthX, truthY;  // -(view position - view position when the direction was fixed)
};

// Runs frames at view positions (x, y) of the photo; the tracker's pose is compared with the
// negated view motion since the frame that fixed the direction.
std::vector<FrameLog> runSweep(ModuleTrack& t, PhotoSweep& sweep,
                               const std::vector<cv::Point2d>& path) {
  std::vector<FrameLog> out;
  double e[3] = {0, 0, 0}, r[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  cv::Point2d fix;
  bool fixed = false;
  for (const cv::Point2d& p : path) {
    const bool result = t.tracking(sweep.at(p.x, p.y), e, r);
    if (!fixed && t.moveDir != MOVE_NONE) {
      fixed = true;
      fix = p;
    }
    out.push_back({result, t.errCode, t.moveDir, t.moveDir != MOVE_NONE && t.bKeyFrame,
                   t.globalCamPoseX, t.globalCamPoseY, fixed ? fix.x - p.x : 0.0,
                   fixed ? fix.y - p.y : 0.0});
  }
  return out;
}

std::vector<cv::Point2d> line(cv::Point2d start, cv::Point2d step, int frames) {
  std::vector<cv::Point2d> p;
  for (int i = 0; i < frames; ++i) p.push_back(start + step * i);
  return p;
}

TEST(ModuleTrackSweep, WholePixelSweepsAreTrackedExactly) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.7);
  ASSERT_TRUE(sweep.ok());
  const struct {
    cv::Point2d start, step;
    int dir;
  } cases[] = {{{100, 200}, {13, 0}, MOVE_RIGHT},
               {{300, 100}, {-11, 1}, MOVE_LEFT},
               {{100, 50}, {0, 9}, MOVE_DOWN},
               {{150, 280}, {-1, -10}, MOVE_UP}};
  for (const auto& c : cases) {
    ModuleTrack t(1280, 720);
    LogCapture quiet;
    const std::vector<FrameLog> log = runSweep(t, sweep, line(c.start, c.step, 16));
    EXPECT_EQ(log[0].code, INFO_TRACE_FIRST_FRAME);
    EXPECT_TRUE(log[0].result);
    EXPECT_FALSE(log[0].selected);
    int selected = 0;
    double poseBeforeLast = 0.0, lastPose = 0.0;  // progress is taken before the pose moves
    for (const FrameLog& f : log) {
      EXPECT_LT(f.code, ERR_INVALID_DIMENSIONS) << c.dir;
      EXPECT_EQ(f.dir == MOVE_NONE || f.dir == c.dir, true);
      if (!f.selected) continue;
      ++selected;
      poseBeforeLast = lastPose;
      lastPose = c.dir <= MOVE_LEFT ? f.poseX : f.poseY;
      EXPECT_EQ(f.poseX, f.truthX) << c.dir;
      EXPECT_EQ(f.poseY, f.truthY) << c.dir;
    }
    EXPECT_EQ(t.moveDir, c.dir);
    EXPECT_GE(selected, 12) << c.dir;
    const int along = (c.dir <= MOVE_LEFT) ? 1280 : 720;
    EXPECT_EQ(t.progress, along + static_cast<int>(std::fabs(poseBeforeLast)));
  }
}

TEST(ModuleTrackSweep, FirstFrameAndDirectionFrame) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.7);
  ASSERT_TRUE(sweep.ok());
  ModuleTrack t(1280, 720);
  LogCapture log;
  double e[3] = {0.1, 0.2, 0.3}, r[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  EXPECT_TRUE(t.tracking(sweep.at(500, 300), e, r));
  EXPECT_EQ(t.errCode, INFO_TRACE_FIRST_FRAME);
  EXPECT_TRUE(t.bKeyFrame);
  EXPECT_FALSE(t.bFirstFrame);
  EXPECT_EQ(t.preEulerGyro[1], 0.2);
  EXPECT_GE(t.prePts.size(), 20u);
  EXPECT_FALSE(log.contains("is selected so updating state"));
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, "Default H/W "));
  EXPECT_TRUE(log.contains(ANDROID_LOG_WARN, "[Tracking] : Input Height = 720 & Width = 1280 "));
  // 2 pixels: not enough to fix the direction.
  EXPECT_TRUE(t.tracking(sweep.at(506, 300), e, r));
  EXPECT_EQ(t.moveDir, MOVE_NONE);
  EXPECT_FALSE(t.bKeyFrame);
  EXPECT_NEAR(t.meanOffX, 6 * t.scale, 0.2);
  // 32 pixels (10 at low resolution): fixed, taken as a key frame at zero offset.
  log.clear();
  EXPECT_TRUE(t.tracking(sweep.at(532, 300), e, r));
  EXPECT_EQ(t.moveDir, MOVE_RIGHT);
  EXPECT_TRUE(t.bDirectionSet);
  EXPECT_EQ(t.meanOffX, 0.0);
  EXPECT_EQ(t.globalCamPoseX, 0.0);
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "[estimate_direction-> Tracking : 3] : Direction [1] Set for first time "));
  EXPECT_TRUE(log.contains(" ------------------------ \n \t\t\t\t [Tracking] : Frm 3 is selected so "
                           "updating state\n \t\t \t\t ----------------- "));
  // The next frame is tracked and refined at full resolution.
  log.clear();
  EXPECT_TRUE(t.tracking(sweep.at(552, 300), e, r));
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, "[4] Vision calculating mincost shift  strt [20 x 0]") ||
              log.contains(ANDROID_LOG_INFO, "[4] Vision calculating mincost shift  strt [19 x 0]"));
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "[4] Vision calculating mincost_shift high resol finished: 20 0 minsad: 0"));
  EXPECT_EQ(t.globalCamPoseX, -20.0);
  EXPECT_EQ(t.trackCnt, 1);
}

TEST(ModuleTrackSweep, PlatformPropertyChoosesTheResize) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.7);
  ASSERT_TRUE(sweep.ok());
  const std::pair<const char*, const char*> cases[] = {{"kelvar9", "KLV H/W  - openCV resize "},
                                                       {"tvm2", "TAVO TVM H/W - openCV resize"},
                                                       {"tavo", "TAVO H/W "},
                                                       {"other", "Default H/W "}};
  for (const auto& [soc, line] : cases) {
    zolt::setSystemProperty("ro.board.platform", soc);
    ModuleTrack t(1280, 720);
    LogCapture log;
    double e[3] = {}, r[9] = {};
    t.tracking(sweep.at(500, 300), e, r);
    t.tracking(sweep.at(510, 300), e, r);
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, line)) << soc;
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, std::string("DeviceSoc = ") + soc + " "));
    const bool tvm = std::string(soc) == "tvm2";
    EXPECT_EQ(log.contains(ANDROID_LOG_INFO, "TAVO TVM H/W - openCV calcOpticalFlowPyrLK"), tvm);
    EXPECT_NEAR(t.meanOffX, 10 * t.scale, 0.5);
  }
  zolt::setSystemProperty("ro.board.platform", "");
}

// ---------------------------------------------------------------------------------------------
// What the user is told on badly swept short sweeps

std::set<int> codesOf(const std::vector<FrameLog>& log) {
  std::set<int> codes;
  for (const FrameLog& f : log) codes.insert(f.code);
  return codes;
}

std::vector<cv::Point2d> then(std::vector<cv::Point2d> a, cv::Point2d step, int frames) {
  for (int i = 0; i < frames; ++i) a.push_back(a.back() + step);
  return a;
}

TEST(ModuleTrackWarnings, GoingBackAndLeavingTheAxis) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.7);
  ASSERT_TRUE(sweep.ok());
  // A downward sweep, then back up by 60 pixels (18.75 at low resolution: beyond the wrong-way
  // limit 14.06) or by 100 (31.25: beyond the going-back limit 28.13) against the last key frame.
  for (const double back : {-60.0, -100.0}) {
    ModuleTrack t(1280, 720);
    LogCapture quiet;
    const auto log = runSweep(t, sweep, then(line({300, 100}, {0, 12}, 8), {0, back}, 1));
    EXPECT_EQ(log.back().code, back > -90 ? ERR_TRACE_DIRECTION : ERR_TRACE_DIRECTION_BACK);
    EXPECT_FALSE(log.back().result);
    EXPECT_FALSE(log.back().selected);
    EXPECT_EQ(t.moveDir, MOVE_DOWN);
  }
  {
    ModuleTrack t(1280, 720);
    LogCapture quiet;
    const auto log = runSweep(t, sweep, then(line({300, 200}, {15, 0}, 8), {0, 15}, 8));
    EXPECT_TRUE(codesOf(log).count(ERR_TRACE_DIRECTION));
    EXPECT_EQ(log.back().code, ERR_TRACE_DIRECTION);
    EXPECT_FALSE(log.back().result);
  }
}

// ---------------------------------------------------------------------------------------------
// Short simulated sweeps (the simulator's presets), vision only

struct SimRun {
  std::map<int, int> codes;  // code -> frames
  int dir = MOVE_NONE;
  std::vector<double> errors;  // per key frame, full-resolution pixels
};

SimRun simulate(const std::string& preset, const std::string& photo, int frames,
                double photoScale = 1.0) {
  zolt::sim::SweepConfig cfg = zolt::sim::SweepConfig::fromPreset(preset);
  cfg.width = 1280;
  cfg.height = 720;
  cfg.frames = frames;
  cfg.photoPath = "/usr/share/backgrounds/" + photo;
  cfg.photoScale = photoScale;
  zolt::sim::SweepSimulator sim(cfg);
  ModuleTrack t(cfg.width, cfg.height);
  LogCapture quiet;
  SimRun run;
  zolt::sim::SimFrame f;
  NV21Img img;
  double e[3] = {}, r[9] = {};
  bool fixed = false;
  double fixX = 0, fixY = 0;
  while (sim.next(f)) {
    __tag_ZOLT_OFFSCREEN buf{0, f.width, f.height, f.nv21.data(),
                             f.nv21.data() + static_cast<size_t>(f.width) * f.height};
    img.nvCreate_shared_instance(&buf);
    t.tracking(img, e, r);
    ++run.codes[t.errCode];
    if (!fixed && t.moveDir != MOVE_NONE) {
      fixed = true;
      fixX = f.truth.x;
      fixY = f.truth.y;
    }
    if (t.moveDir != MOVE_NONE && t.bKeyFrame) {
      run.errors.push_back(
          std::hypot(t.globalCamPoseX + (f.truth.x - fixX), t.globalCamPoseY + (f.truth.y - fixY)));
    }
    img.freeData_FWBuffer();
  }
  run.dir = t.moveDir;
  return run;
}

bool anyError(const SimRun& r) {
  for (const auto& [code, n] : r.codes)
    if ((code & 0xF000) == 0x7000) return true;
  return false;
}

TEST(ModuleTrackSimulated, SteadyAndHandheldSweepsRaiseNothing) {
  for (const char* preset : {"steady", "handheld"}) {
    const SimRun r = simulate(preset, "life_by_Aitzol_Berasategi.jpg", 30);
    EXPECT_EQ(r.dir, MOVE_RIGHT) << preset;
    EXPECT_FALSE(anyError(r)) << preset;
    ASSERT_GE(r.errors.size(), 25u) << preset;
    // Each key frame's offset is a whole full-resolution pixel: at most half a pixel per axis
    // is lost per key frame, plus the sub-pixel position of the frame that fixed the direction.
    for (size_t i = 0; i < r.errors.size(); ++i)
      EXPECT_LE(r.errors[i], 0.71 * (i + 1) + 1.5) << preset << " key frame " << i;
  }
}

TEST(ModuleTrackSimulated, PresetsRaiseTheirWarnings) {
  SimRun back = simulate("goes-back", "life_by_Aitzol_Berasategi.jpg", 40);
  EXPECT_GT(back.codes[ERR_TRACE_DIRECTION], 0);
  EXPECT_GT(back.codes[ERR_TRACE_DIRECTION_BACK], 0);
  SimRun turn = simulate("wrong-axis", "life_by_Aitzol_Berasategi.jpg", 40);
  EXPECT_GT(turn.codes[ERR_TRACE_DIRECTION], 0);
  EXPECT_EQ(turn.dir, MOVE_RIGHT);
  SimRun flat = simulate("textureless", "Kleiber_by_Lukas_Baubkus.jpg", 20);
  EXPECT_GT(flat.codes[ERR_TRACE_NO_FEATURE], 15);
  SimRun fast = simulate("too-fast", "life_by_Aitzol_Berasategi.jpg", 26, 1.6);
  EXPECT_GT(fast.codes[WARN_TRACE_LITTLE_QUICK], 0);
}

// ---------------------------------------------------------------------------------------------
// Lost tracks and degenerate frames

TEST(ModuleTrackFailures, FlatFramesReportNoFeatureAndSwapTheReference) {
  PhotoSweep sweep(kPhoto, 1280, 720, 0.7);
  ASSERT_TRUE(sweep.ok());
  ModuleTrack t(1280, 720);
  LogCapture log;
  double e[3] = {}, r[9] = {};
  EXPECT_TRUE(t.tracking(sweep.at(500, 300), e, r));
  const size_t firstPoints = t.prePts.size();
  ASSERT_GE(firstPoints, 20u);
  for (int i = 1; i <= 5; ++i) {
    EXPECT_NO_THROW(EXPECT_FALSE(t.tracking(sweep.flat(static_cast<uint8_t>(90 + i)), e, r)));
    EXPECT_EQ(t.errCode, ERR_TRACE_NO_FEATURE);
    EXPECT_EQ(t.uiState, 1);
    EXPECT_EQ(t.meanOffX, 0.0);
  }
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                           "ComputeOffXY_Vision: Error code updated to ERR_TRACE_NO_FEATURE :  7002"));
  // Frame 2 lost every point; frames 3 to 5 re-detected in the old reference (failCount 1..3);
  // frame 6 made the flat frame the reference, which has no corners.
  EXPECT_EQ(t.failCount, 1);  // the flat reference has no points: counting again
  EXPECT_EQ(t.preImg.at<uint8_t>(10, 10), 94);
  EXPECT_TRUE(t.prePts.empty());
  // Texture comes back: a few frames later the photo is the reference again and tracked.
  bool tracked = false;
  for (int i = 0; i < 8 && !tracked; ++i) {
    t.tracking(sweep.at(500 + i, 300), e, r);
    tracked = t.errCode != ERR_TRACE_NO_FEATURE && t.frameIdx > 8;
  }
  EXPECT_TRUE(tracked);
}

TEST(ModuleTrackFailures, DegenerateTextureNeverThrows) {
  // Texture only along one thin horizontal line: every corner lies on it.
  const int W = 1280, H = 720;
  NV21Img img;
  img.nvCreate(H, W);
  std::fill(img.yPlane, img.yPlane + img.vuSize() + static_cast<size_t>(W) * H, 128);
  auto paint = [&](int shift) {
    std::fill(img.yPlane, img.yPlane + static_cast<size_t>(W) * H, 128);
    for (int y = 350; y < 356; ++y)
      for (int x = 0; x < W; ++x) {
        const int sx = (x + shift) % W;
        img.yPlane[static_cast<size_t>(y) * W + x] = static_cast<uint8_t>(((sx * 37) ^ (sx / 7 * 91)) & 255);
      }
  };
  ModuleTrack t(W, H);
  LogCapture log;
  double e[3] = {}, r[9] = {};
  for (int i = 0; i < 8; ++i) {
    paint(i * 12);
    EXPECT_NO_THROW(t.tracking(img, e, r));
  }
  // The collinear points did reach the fundamental matrix, which found no model: a lost track.
  int ransacRuns = 0;
  for (const auto& l : log.lines()) ransacRuns += l.message.rfind("RefineOffXY_ransac END", 0) == 0;
  EXPECT_GE(ransacRuns, 1);
  EXPECT_EQ(t.errCode, ERR_TRACE_NO_FEATURE);
  img.freeData();
}

}  // namespace
