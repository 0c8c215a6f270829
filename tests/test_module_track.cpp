#include "tracker/module_track.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <optional>
#include <random>

#include "platform/system_property.h"
#include "sim/sweep_simulator.h"
#include "support/gyro_attitude.h"
#include "support/log_capture.h"
#include "support/photo_sweep.h"
#include "support/sim_sweep.h"

namespace {

using zolt::test::LogCapture;
using zolt::test::PhotoSweep;

const char* const kPhoto = "/usr/share/backgrounds/life_by_Aitzol_Berasategi.jpg";  // 3088 x 2056

TEST(ModuleTrack, ConstructionDerivesSizesAndLimits) {
  LogCapture log;
  ModuleTrack t(1920, 1080);
  EXPECT_NEAR(t.smallHeight, 225.0, 1e-12);
  EXPECT_NEAR(t.fx, 331.54, 0.01);
  EXPECT_NEAR(t.fy, 310.78, 0.01);
  EXPECT_EQ(t.roundedWidth60, 1152);
  EXPECT_EQ(t.roundedHeight60, 704);
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "ModuleTracker : hfovDeg x vfovDeg = 62.200000 x 39.800000  and hfovRad x "
                           "vfovRad = 1.085595 x 0.694641 "));
  ModuleTrack portrait(1080, 1920);
  EXPECT_NEAR(portrait.smallHeight, 1920 * 400.0 / 1080, 1e-9);
  EXPECT_NO_THROW(ModuleTrack(641, 641));
  EXPECT_THROW(ModuleTrack(640, 1000), std::exception);
  EXPECT_THROW(ModuleTrack(1000, 640), std::exception);

  // The too-quick limits are the frame's tenths unless the parameters switch the check on.
  for (const int on : {0, 2}) {
    tag_ZOLT_PANO_INNER_PARAM p{};
    p.traceTooQuickOn = on, p.traceTooQuickX = 5, p.traceTooQuickY = 6;
    t.trace_too_quick_params(&p);
    EXPECT_EQ(t.traceTooQuickOn, on);
    EXPECT_EQ(t.traceTooQuickX, on ? 5 : 192);
    EXPECT_EQ(t.traceTooQuickY, on ? 6 : 108);
  }
}

// ---------------------------------------------------------------------------------------------
// Movement checks, at 1280 x 720 (400 x 225 at low resolution, scale 0.3125). Limits in low
// resolution pixels: direction fixed beyond 8.92; along the sweep forward beyond 1.0 (0.75
// vertically), a little quick beyond 20 (11.25), too quick beyond 180 (101.25), the wrong way
// beyond -25 (-14.06), going back beyond -50 (-28.13); across the sweep, shake or slope beyond
// 22.5 (40), off the axis beyond 28.125 (25) or with the pose beyond 360 (640) full-resolution
// pixels.

constexpr int kStanding = -1;  // the code a check starts with; kept when the check sets none

int check(ModuleTrack& t, double offX, double offY) {
  t.meanOffX = offX, t.meanOffY = offY, t.errCode = kStanding, t.bKeyFrame = false;
  return t.JustifyUI_Error_codes();
}

TEST(ModuleTrackChecks, DirectionIsFixedOnceBeyondTheThreshold) {
  const struct { double offX, offY; int dir; cv::Range cols, rows; } cases[] = {
      {8.92, -8.92, MOVE_NONE, {0, 400}, {0, 225}}, {-8.93, 1.0, MOVE_LEFT, {80, 320}, {0, 225}},
      {9.0, 0.0, MOVE_RIGHT, {80, 320}, {0, 225}},  {10.0, 10.0, MOVE_DOWN, {0, 400}, {45, 180}},
      {0.0, -9.0, MOVE_UP, {0, 400}, {45, 180}}};  // a tie goes to the vertical axis
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.offX << ", " << c.offY);
    ModuleTrack t(1280, 720);
    EXPECT_EQ(check(t, c.offX, c.offY), 1);
    EXPECT_EQ(t.bDirectionSet, c.dir != MOVE_NONE);
    EXPECT_EQ(t.moveDir, c.dir);
    EXPECT_EQ(t.colRange, c.cols);
    EXPECT_EQ(t.rowRange, c.rows);
    EXPECT_FALSE(t.bKeyFrame);
    EXPECT_EQ(t.errCode, kStanding);
  }
}

// Each frame's result, code, key-frame choice (a frame is a key frame exactly when the check
// passes it) and log line (the texts differ per direction).
TEST(ModuleTrackChecks, EachFrameGetsItsCodeKeyFrameAndLogLine) {
  constexpr int R = MOVE_RIGHT, L = MOVE_LEFT, D = MOVE_DOWN, U = MOVE_UP, E = ANDROID_LOG_ERROR,
                W = ANDROID_LOG_WARN, kDir = ERR_TRACE_DIRECTION, kBack = ERR_TRACE_DIRECTION_BACK,
                kQuick = WARN_TRACE_LITTLE_QUICK, kTooQuick = ERR_TRACE_TOO_QUICK;
  struct Case {
    int dir;
    double offX, offY;
    int result, code, priority = 0;
    const char* line = nullptr;
    double acrossPose = 0;
  };
  const Case cases[] = {
      // Forward: fine up to the little-quick limit, a warning beyond, too quick beyond that.
      {R, 0.5, 0, 0, kStanding}, {R, 20, 0, 1, SUCCESS}, {R, 180, 0, 1, kQuick}, {R, 180.5, 0, 0, kTooQuick},
      {R, 5, 0, 1, SUCCESS, W, "Offset_expected_dir_err_check : Error code updated to SUCCESS :  0"},
      {R, 21, 0, 1, kQuick, E, "Error code updated to WARN_TRACE_LITTLE_QUICK :  8080"},
      {L, -5, 0, 1, SUCCESS, E, " Offset_expected_dir_err_check : Error code updated to SUCCESS :  0"},
      {L, -21, 0, 1, kQuick, E,
       "Offset_expected_dir_err_check : Error code updated to WARN_TRACE_LITTLE_QUICK :  8080"},
      {D, 0, 5, 1, SUCCESS, W, "Error code updated to SUCCESS :  0"},
      {D, 0, 11.25, 1, SUCCESS}, {D, 0, 11.5, 1, kQuick}, {D, 0, 101.3, 0, kTooQuick}, {U, 0, -11.5, 1, kQuick},
      {U, 0, -5, 1, SUCCESS, W, " Error code updated to SUCCESS :  0"},
      {U, 0, -200, 0, kTooQuick, E, "Error code updated to ERR_TRACE_TOO_QUICK :  7004"},
      // Backwards: a small wobble leaves the code standing.
      {R, -10, 0, 0, kStanding}, {R, -25, 0, 0, kStanding}, {R, -50, 0, 0, kDir}, {R, -60, 0, 0, kBack},
      {R, -30, 0, 0, kDir, E, "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {L, 30, 0, 0, kDir, E, "Offset_NOT_expected_dir_err_check :  Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {D, 0, -15, 0, kDir, E, "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {D, 0, -29, 0, kBack, E,
       "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION_BACK :  7011"},
      {U, 0, 15, 0, kDir, E, "Offset_NOT_expected_dir_err_check :  Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {U, 0, 20, 0, kDir}, {U, 0, 30, 0, kBack},
      // Across the sweep: the offset or the accumulated pose; at the limit the shake warning
      // gives way to the forward check.
      {R, 10, 28.125, 1, SUCCESS}, {R, 10, 28.2, 0, kDir}, {D, 25.1, 10, 0, kDir},
      {R, 5, 30, 0, kDir, E, "JustifyUI_Error_codes: Error code updated to ERR_TRACE_DIRECTION :  7001"},
      {R, 10, 0, 1, SUCCESS, 0, nullptr, -360}, {R, 10, 0, 0, kDir, 0, nullptr, -360.5},
      {U, 0, -5, 0, kDir, 0, nullptr, 640.5},
      {D, 42, 5, 0, kDir, E, "JustifyUI_Error_codes: Error code updated to WARN_SHAKE_TOO_BIG :  8020"},
      // Slope (within 60 degrees of the axis) or shake; the speed check may replace either.
      {R, 30, 23, 1, kQuick, E, "JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  8001"},
      {L, -30, 23, 1, kQuick, E, " JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  8001"},
      {R, -15, 23, 0, WARN_MOVE_SLOPE},  // -57 degrees, a small step back: it stands
      {R, 0.5, -23, 0, WARN_SHAKE_TOO_BIG}, {R, 10, 23, 1, SUCCESS},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "dir " << c.dir << " offset " << c.offX << ", " << c.offY
                                    << " pose " << c.acrossPose);
    ModuleTrack t(1280, 720);
    t.bDirectionSet = true;
    t.moveDir = c.dir;
    (c.dir <= MOVE_LEFT ? t.globalCamPoseY : t.globalCamPoseX) = c.acrossPose;
    LogCapture log;
    EXPECT_EQ(check(t, c.offX, c.offY), c.result);
    EXPECT_EQ(t.errCode, c.code);
    EXPECT_EQ(t.bKeyFrame, c.result == 1);
    EXPECT_TRUE(!c.line || log.contains(c.priority, c.line)) << c.line;
  }
  // With the little-quick check off, only too quick is reported.
  ModuleTrack t(1280, 720);
  t.bDirectionSet = true, t.moveDir = MOVE_RIGHT, t.traceTooQuickOn = 0;
  EXPECT_EQ(check(t, 21.0, 0.0), 1);
  EXPECT_EQ(t.errCode, SUCCESS);
  EXPECT_EQ(t.shake_or_slope(10, 20), WARN_SHAKE_TOO_BIG);  // 63 degrees
  EXPECT_EQ(t.shake_or_slope(0, 10), WARN_SHAKE_TOO_BIG);
  // The quadrant of an offset, at its fixed boundary values.
  const float quads[][3] = {{1, 0, 2}, {0, 1, 3}, {0, -1, 1}, {0, 0, 4}};
  for (const auto& q : quads) EXPECT_EQ(calculate_quad(q[0], q[1]), q[2]) << q[0] << ", " << q[1];
}

// ---------------------------------------------------------------------------------------------
// Vision offset

TEST(ModuleTrackVision, MeanLeavesOutPointsLaggingBehindTheirBand) {
  // dx = pre.x - cur.x. Band [80, 140): five at 10 (below the overall mean: not used). Band
  // [200, 260): 20, 20, 20, 20, 16: mean 19.2, spread 1.6, limit 14.6 * 0.6 * 1.6 / 19.2 + 19.2
  // = 19.93, so the 16 lags and is left out. Overall mean (50 + 96) / 10 = 14.6. The vertical
  // sweep gets the same points with the axes exchanged, in row bands [90, 135) and [135, 180).
  const float dxs[] = {10, 10, 10, 10, 10, 20, 20, 20, 20, 16};
  const float xs[] = {90, 100, 110, 120, 130, 210, 220, 230, 240, 250};
  ModuleTrack h(1280, 720), v(1280, 720);
  h.moveDir = MOVE_RIGHT, v.moveDir = MOVE_UP;
  for (int i = 0; i < 10; ++i) {
    const float dy = static_cast<float>(i % 3) - 1.0f, y = i < 5 ? 95.0f + i : 140.0f + i;
    h.curPts.emplace_back(xs[i], 50.0f + i);
    h.prePts.emplace_back(xs[i] + dxs[i], 50.0f + i + dy);
    v.curPts.emplace_back(50.0f + i, y);
    v.prePts.emplace_back(50.0f + i + dy, y + dxs[i]);
  }
  for (ModuleTrack* t : {&h, &v}) t->bDirectionSet = true, t->prePtsCount = 10, t->UpdateMeanXYByPts();
  EXPECT_NEAR(h.meanOffX, (146.0 - 16.0) / 9.0, 1e-9);
  EXPECT_NEAR(h.meanOffY, -0.1, 1e-12);  // dy: -1, 0, 1, -1, ...
  EXPECT_NEAR(h.stdOffX, std::sqrt((5 * 4.6 * 4.6 + 4 * 5.4 * 5.4 + 1.4 * 1.4) / 10.0), 1e-5);
  EXPECT_NEAR(v.meanOffY, (146.0 - 16.0) / 9.0, 1e-9);
  EXPECT_NEAR(v.meanOffX, -0.1, 1e-12);
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
    cur.push_back(pre.back() + (i % 6 == 5 ? cv::Point2f(30, -20) : cv::Point2f(12 + noise(rng), noise(rng))));
  }
  std::vector<uint8_t> mask;
  zolt::setRansacSeed(true, 5);
  RansacDxdy(pre, cur, mask);
  zolt::setRansacSeed(false, 0);
  ASSERT_EQ(pre.size(), 50u);
  ASSERT_EQ(cur.size(), 50u);
  for (size_t i = 0; i < pre.size(); ++i) EXPECT_LT(std::fabs(cur[i].x - pre[i].x - 12.f), 2.01f);
}

// ---------------------------------------------------------------------------------------------
// Sweeps over a real photo and simulated ones

struct FrameLog {
  bool result;
  int code, dir;
  bool selected;          // a key frame once the direction is fixed
  double poseX, poseY;    // the tracker's accumulated position
  double truthX, truthY;  // -(view position - view position when the direction was fixed)
};

// Feeds `frames` frames; next(k, pos) gives frame k and its view position in full-resolution
// pixels of the scene. The gyroscope attitude handed in is `r` as next() leaves it.
std::vector<FrameLog> run(ModuleTrack& t, int frames, const std::function<NV21Img&(int, cv::Point2d&)>& next,
                          double* r) {
  std::vector<FrameLog> out;
  double e[3] = {0, 0, 0};
  cv::Point2d p, fix;
  bool fixed = false;
  for (int k = 0; k < frames; ++k) {
    NV21Img& img = next(k, p);
    const bool result = t.tracking(img, e, r);
    if (!fixed && t.moveDir != MOVE_NONE) fixed = true, fix = p;
    out.push_back({result, t.errCode, t.moveDir, t.moveDir != MOVE_NONE && t.bKeyFrame, t.globalCamPoseX,
                   t.globalCamPoseY, fixed ? fix.x - p.x : 0.0, fixed ? fix.y - p.y : 0.0});
  }
  return out;
}

class ModuleTrackSweep : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(sweep.ok()); }
  bool track(ModuleTrack& t, double x, double y) { return t.tracking(sweep.at(x, y), e, r); }
  PhotoSweep sweep{kPhoto, 1280, 720, 0.7};
  double e[3] = {}, r[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // Euler angles and rotation matrix for tracking()
};

// Whole-pixel steps in every direction are tracked exactly: each key frame's pose is the true
// view position (sign, axis, or accumulation faults show), and the progress counts the frame
// plus the pose before the last key frame. Turning back and leaving the axis on the real
// tracker are covered by the goes-back and wrong-axis presets below.
TEST_F(ModuleTrackSweep, WholePixelSweepsAreTrackedExactly) {
  const struct { cv::Point2d start, step; int dir; } cases[] = {{{100, 200}, {13, 0}, MOVE_RIGHT},
                                                                 {{300, 100}, {-11, 1}, MOVE_LEFT},
                                                                 {{100, 50}, {0, 9}, MOVE_DOWN},
                                                                 {{150, 280}, {-1, -10}, MOVE_UP}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "dir " << c.dir);
    ModuleTrack t(1280, 720);
    LogCapture quiet;
    const std::vector<FrameLog> log = run(t, 16, [&](int k, cv::Point2d& p) -> NV21Img& {
      p = c.start + k * c.step;
      return sweep.at(p.x, p.y);
    }, r);
    int selected = 0;
    double poseBeforeLast = 0.0, lastPose = 0.0;  // progress is taken before the pose moves
    for (size_t k = 0; k < log.size(); ++k) {
      const FrameLog& f = log[k];
      EXPECT_LT(f.code, ERR_INVALID_DIMENSIONS) << "frame " << k;
      EXPECT_TRUE(f.dir == MOVE_NONE || f.dir == c.dir);
      if (!f.selected) continue;
      ++selected;
      poseBeforeLast = lastPose;
      lastPose = c.dir <= MOVE_LEFT ? f.poseX : f.poseY;
      EXPECT_EQ(cv::Point2d(f.poseX, f.poseY), cv::Point2d(f.truthX, f.truthY)) << "frame " << k;
    }
    EXPECT_EQ(t.moveDir, c.dir);
    EXPECT_GE(selected, 12);
    EXPECT_EQ(t.progress, (c.dir <= MOVE_LEFT ? 1280 : 720) + static_cast<int>(std::fabs(poseBeforeLast)));
    EXPECT_TRUE(log.back().result && log.back().code == SUCCESS && log.back().selected);
  }
}

TEST_F(ModuleTrackSweep, FirstFrameAndDirectionFrame) {
  ModuleTrack t(1280, 720);
  LogCapture log;
  e[1] = 0.2;
  EXPECT_TRUE(track(t, 500, 300));
  EXPECT_EQ(t.errCode, INFO_TRACE_FIRST_FRAME);
  EXPECT_TRUE(t.bKeyFrame);
  EXPECT_FALSE(t.bFirstFrame);
  EXPECT_EQ(t.preEulerGyro[1], 0.2);
  EXPECT_FALSE(log.contains("is selected so updating state"));
  EXPECT_TRUE(log.contains(ANDROID_LOG_WARN, "[Tracking] : Input Height = 720 & Width = 1280 "));
  // 2 pixels: not enough to fix the direction.
  EXPECT_TRUE(track(t, 506, 300));
  EXPECT_EQ(t.moveDir, MOVE_NONE);
  EXPECT_FALSE(t.bKeyFrame);
  EXPECT_NEAR(t.meanOffX, 6 * t.scale, 0.2);
  // 32 pixels (10 at low resolution): fixed, taken as a key frame at zero offset.
  log.clear();
  EXPECT_TRUE(track(t, 532, 300));
  EXPECT_EQ(t.moveDir, MOVE_RIGHT);
  EXPECT_EQ(t.meanOffX, 0.0);
  EXPECT_EQ(t.globalCamPoseX, 0.0);
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "[estimate_direction-> Tracking : 3] : Direction [1] Set for first time "));
  EXPECT_TRUE(log.contains(" ------------------------ \n \t\t\t\t [Tracking] : Frm 3 is selected so "
                           "updating state\n \t\t \t\t ----------------- "));
  // The next frame is tracked and refined at full resolution.
  log.clear();
  EXPECT_TRUE(track(t, 552, 300));
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, "[4] Vision calculating mincost shift  strt [20 x 0]") ||
              log.contains(ANDROID_LOG_INFO, "[4] Vision calculating mincost shift  strt [19 x 0]"));
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "[4] Vision calculating mincost_shift high resol finished: 20 0 minsad: 0"));
  EXPECT_EQ(t.globalCamPoseX, -20.0);
  EXPECT_EQ(t.trackCnt, 1);
}

TEST_F(ModuleTrackSweep, PlatformPropertyChoosesTheResize) {
  const std::pair<const char*, const char*> cases[] = {{"kelvar9", "KLV H/W  - openCV resize "},
                                                       {"tvm2", "TAVO TVM H/W - openCV resize"},
                                                       {"tavo", "TAVO H/W "},
                                                       {"other", "Default H/W "}};
  for (const auto& [soc, line] : cases) {
    SCOPED_TRACE(soc);
    zolt::setSystemProperty("ro.board.platform", soc);
    ModuleTrack t(1280, 720);
    LogCapture log;
    track(t, 500, 300);
    track(t, 510, 300);
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, line));
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, std::string("DeviceSoc = ") + soc + " "));
    EXPECT_EQ(log.contains(ANDROID_LOG_INFO, "TAVO TVM H/W - openCV calcOpticalFlowPyrLK"),
              std::string(soc) == "tvm2");
    EXPECT_NEAR(t.meanOffX, 10 * t.scale, 0.5);
  }
  zolt::setSystemProperty("ro.board.platform", "");
}

// The simulator's presets at 1280 x 720, by vision alone or with the sweep's gyroscope: frame
// codes counted, the key frames, and the pose error per key frame in full-resolution pixels.
struct SimRun {
  std::map<int, int> codes;
  int dir = MOVE_NONE;
  std::vector<int> keyFrames;
  std::vector<double> errors;
};

// The textureless preset runs over a nearly flat photo; too-fast over a larger one, so that the
// view stays inside it.
SimRun simulate(const std::string& preset, int frames, bool gyro) {
  const zolt::sim::SweepConfig cfg = zolt::test::simSweep(
      preset, preset == "textureless" ? "/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg" : kPhoto, frames,
      preset == "too-fast" ? 1.6 : 1.0);
  zolt::sim::SweepSimulator sim(cfg);
  ModuleTrack t(cfg.width, cfg.height);
  LogCapture quiet;
  zolt::sim::SimFrame f;
  NV21Img img;
  SimRun out;
  std::optional<zolt::test::GyroPresent> present;
  if (gyro) present.emplace();
  zolt::test::GyroAttitude attitude;
  double rot[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  int k = 0;
  for (const FrameLog& l : run(
           t, frames,
           [&](int, cv::Point2d& p) -> NV21Img& {
             sim.next(f);
             __tag_ZOLT_OFFSCREEN buf{0, f.width, f.height, f.nv21.data(),
                                      f.nv21.data() + static_cast<size_t>(f.width) * f.height};
             img.nvCreate_shared_instance(&buf);
             p = {f.truth.x, f.truth.y};
             if (gyro) attitude.advance(f.gyro, rot);
             return img;
           },
           rot)) {
    ++out.codes[l.code];
    if (l.selected)
      out.keyFrames.push_back(k), out.errors.push_back(std::hypot(l.poseX - l.truthX, l.poseY - l.truthY));
    ++k;
  }
  img.freeData_FWBuffer();
  out.dir = t.moveDir;
  return out;
}

// Each preset is built to raise its codes in the engine (here in at least so many frames, and
// some never); the clean ones raise nothing else, and their key frames' offsets are whole
// full-resolution pixels: at most half a pixel per axis is lost per key frame, plus the
// sub-pixel position of the frame that fixed the direction. With the gyroscope, vision still
// leads: a sweep that vision follows gives the same key frames and codes; where vision fails
// the gyroscope carries the sweep on (textureless) and measures what vision cannot (too-fast).
TEST(ModuleTrackSimulated, PresetsRaiseTheirCodes) {
  enum Gyro { kVision, kGyroSame, kGyro };  // kGyroSame: as the vision-only row before it
  const int R = MOVE_RIGHT, kDir = ERR_TRACE_DIRECTION, kBack = ERR_TRACE_DIRECTION_BACK,
            kNoFeat = ERR_TRACE_NO_FEATURE, kShake = WARN_SHAKE_TOO_BIG, kQuick = WARN_TRACE_LITTLE_QUICK,
            kTooQuick = ERR_TRACE_TOO_QUICK;
  const struct {
    const char* preset;
    int frames;
    Gyro gyro;
    int dir;
    std::map<int, int> raised;  // code -> at least this many frames (0: none); empty: a clean sweep
  } cases[] = {{"steady", 30, kVision, R, {}}, {"handheld", 30, kVision, R, {}}, {"handheld", 30, kGyroSame, R, {}},
               {"shaky", 30, kVision, R, {{kShake, 3}}}, {"shaky", 30, kGyroSame, R, {{kShake, 3}}},
               {"goes-back", 40, kVision, R, {{kDir, 1}, {kBack, 1}}},
               // Vision loses the track when the view leaves the reference (back past it, or off
               // the axis); the gyroscope keeps measuring against it, so the warning lasts.
               {"goes-back", 40, kGyro, R, {{kDir, 1}, {kBack, 10}, {kNoFeat, 0}}},
               {"wrong-axis", 40, kVision, R, {{kDir, 1}}}, {"wrong-axis", 40, kGyro, R, {{kDir, 10}, {kNoFeat, 0}}},
               {"drifting", 80, kVision, R, {{kDir, 1}}}, {"too-fast", 26, kVision, R, {{kQuick, 1}, {kTooQuick, 0}}},
               {"too-fast", 26, kGyro, R, {{kQuick, 1}, {kTooQuick, 1}}},
               {"textureless", 20, kVision, MOVE_NONE, {{kNoFeat, 16}}}, {"textureless", 20, kGyro, R, {{kNoFeat, 0}}}};
  for (const std::string& name : zolt::sim::SweepConfig::presetNames())
    EXPECT_TRUE(std::any_of(std::begin(cases), std::end(cases), [&](const auto& c) { return name == c.preset; })) << name;
  SimRun vision;
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.preset << (c.gyro == kVision ? "" : " with the gyroscope"));
    SimRun r = simulate(c.preset, c.frames, c.gyro != kVision);
    EXPECT_EQ(r.dir, c.dir);
    for (const auto& [code, n] : c.raised)
      EXPECT_TRUE(n > 0 ? r.codes[code] >= n : r.codes[code] == 0) << code << " in " << r.codes[code] << " frames";
    if (c.gyro == kGyroSame) {
      EXPECT_EQ(r.keyFrames, vision.keyFrames);
      EXPECT_EQ(r.codes, vision.codes);
    }
    if (c.gyro == kVision) vision = r;
    // Without texture the gyroscope keeps the key frames coming.
    EXPECT_TRUE(c.gyro != kGyro || !c.raised.count(kNoFeat) || r.keyFrames.size() >= 12u) << r.keyFrames.size();
    if (!c.raised.empty()) continue;
    EXPECT_EQ(r.codes[SUCCESS] + r.codes[INFO_TRACE_FIRST_FRAME], c.frames);
    ASSERT_GE(r.errors.size(), 25u);
    for (size_t i = 0; i < r.errors.size(); ++i) EXPECT_LE(r.errors[i], 0.71 * (i + 1) + 1.5) << "key frame " << i;
  }
}

// Lost tracks and degenerate frames.
TEST_F(ModuleTrackSweep, FlatFramesReportNoFeatureAndSwapTheReference) {
  LogCapture log;
  ModuleTrack few(1280, 720);
  few.prePts.assign(9, cv::Point2f(100, 100));
  EXPECT_FALSE(few.ComputeOffXY_Vision(sweep.at(100, 100)));
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "ComputeOffXY_Vision: Frm [0] : Failure due to less feature :  9"));

  ModuleTrack t(1280, 720);
  EXPECT_TRUE(track(t, 500, 300));
  ASSERT_GE(t.prePts.size(), 20u);
  for (int i = 1; i <= 5; ++i) {
    EXPECT_NO_THROW(EXPECT_FALSE(t.tracking(sweep.flat(static_cast<uint8_t>(90 + i)), e, r)));
    EXPECT_EQ(t.errCode, ERR_TRACE_NO_FEATURE);
    EXPECT_EQ(t.uiState, 1);
    EXPECT_EQ(t.meanOffX, 0.0);
  }
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "ComputeOffXY_Vision: Error code updated to ERR_TRACE_NO_FEATURE :  7002"));
  // Frame 2 lost every point; frames 3 to 5 re-detected in the old reference (failCount 1..3);
  // frame 6 made the flat frame the reference, which has no corners, and counting starts again.
  EXPECT_EQ(t.failCount, 1);
  EXPECT_EQ(t.preImg.at<uint8_t>(10, 10), 94);
  EXPECT_TRUE(t.prePts.empty());
  // Texture comes back: a few frames later the photo is the reference again and tracked.
  bool tracked = false;
  for (int i = 0; i < 8 && !tracked; ++i) {
    track(t, 500 + i, 300);
    tracked = t.errCode != ERR_TRACE_NO_FEATURE && t.frameIdx > 8;
  }
  EXPECT_TRUE(tracked);
}

}  // namespace
