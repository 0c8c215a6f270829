// The tracker's gyroscope offset: the prediction through the rotation homography, the strip
// refinements at low and full resolution, and the driver's fall-back when vision fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include <opencv2/calib3d.hpp>

#include "sim/sweep_simulator.h"
#include "support/gyro_attitude.h"
#include "support/log_capture.h"
#include "support/sim_sweep.h"
#include "support/textures.h"
#include "tracker/module_track.h"

namespace {

using zolt::test::GyroPresent;
using zolt::test::LogCapture;
using zolt::test::twoLevels;

const cv::Matx33d kT(0, -1, 0, -1, 0, 0, 0, 0, -1);  // camera <-> phone sensor axes

// A preview frame of one grey level, owning its planes.
struct FlatFrame {
  NV21Img img;
  FlatFrame() { img.nvCreate(720, 1280); }
  ~FlatFrame() { img.freeData(); }
  NV21Img& flat(uint8_t v) {
    std::fill(img.yPlane, img.yPlane + img.vuSize() * 2, v);
    return img;
  }
};

// The rotation by the vector (x, y, z): by its length, about its direction (right-handed).
cv::Matx33d rot(double x, double y, double z) {
  cv::Matx33d r;
  cv::Rodrigues(cv::Vec3d(x, y, z), r);
  return r;
}

// A camera-axis attitude as the gyroscope reports it, in the phone's sensor axes.
void asGyro(const cv::Matx33d& camera, double* out) {
  const cv::Matx33d g = kT * camera * kT;
  std::copy(g.val, g.val + 9, out);
}

// The rotation between two attitudes predicts where the current view's centre lies in the
// reference: turning right moves it right (a positive offset, as vision measures it), turning
// down moves it down, a roll about the optical axis leaves it in place, identical attitudes
// predict nothing (exactly so for the identities before the first orientation). Held in
// landscape, a right turn is a negative turn about the phone's x axis (a negative x rate).
TEST(ModuleTrackImu, RotationPredictsTheOffsetWithItsSignAndSize) {
  ModuleTrack t(1920, 1080);
  const double a = 0.05;
  const cv::Matx33d tilted = rot(0.1, 0.3, 0.02), eye = cv::Matx33d::eye();
  const struct {
    cv::Matx33d pre, cur;
    double offX, offY, tolerance;
  } cases[] = {// camera axes
               {eye, eye, 0.0, 0.0, 0.0},
               {tilted, tilted, 0.0, 0.0, 1e-9},
               {eye, rot(0, 0, 0.2), 0.0, 0.0, 1e-9},
               {eye, rot(0, a, 0), t.fx * std::tan(a), 0.0, 1e-9},
               {rot(0, 0.2, 0), rot(0, 0.2 - a, 0), -t.fx * std::tan(a), 0.0, 1e-9},
               {eye, rot(-a, 0, 0), 0.0, t.fy * std::tan(a), 1e-9},             // pitch down
               {eye, kT * rot(-a, 0, 0) * kT, t.fx * std::tan(a), 0.0, 1e-9}};  // phone x
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.offX << ", " << c.offY);
    double pre[9], cur[9], x = 99, y = 99;
    asGyro(c.pre, pre);
    asGyro(c.cur, cur);
    t.predictOffXY_IMU(ModuleTrack::gyroToCameraAxes(pre), ModuleTrack::gyroToCameraAxes(cur), x,
                       y);
    EXPECT_NEAR(x, c.offX, c.tolerance);
    EXPECT_NEAR(y, c.offY, c.tolerance);
  }
}

// A lens given by its field of view across the width has square pixels whatever the frame's
// aspect: a yaw and a pitch of one angle predict offsets of one size, 200 / tan(hfov / 2)
// tan(angle), about the same principal point. 0 gives back the fixed camera bit for bit.
TEST(ModuleTrackImu, FieldOfViewGivesASquarePixelCamera) {
  const double a = 0.05, hfov = 69.8, f = 200.0 / std::tan(hfov * CV_PI / 360.0);
  const cv::Matx33d eye = cv::Matx33d::eye(), both = rot(-0.03, a, 0.01);
  for (const cv::Size frame : {cv::Size(1440, 1080), cv::Size(1920, 1080)}) {
    SCOPED_TRACE(frame);
    ModuleTrack t(frame.width, frame.height);
    const ModuleTrack fixed(frame.width, frame.height);
    auto predict = [](const ModuleTrack& m, const cv::Matx33d& cur) {
      cv::Point2d p;
      m.predictOffXY_IMU(cv::Matx33d::eye(), cur, p.x, p.y);
      return p;
    };
    t.setFieldOfView(hfov);
    EXPECT_EQ(t.fy, t.fx);
    EXPECT_NEAR(t.vfovDeg * CV_PI / 360.0,
                std::atan(std::tan(hfov * CV_PI / 360.0) * frame.height / frame.width), 1e-12);
    EXPECT_EQ(cv::Point2d(t.camK.at<double>(0, 2), t.camK.at<double>(1, 2)),
              cv::Point2d(fixed.cx, fixed.cy));
    const cv::Point2d yaw = predict(t, rot(0, a, 0)), pitch = predict(t, rot(-a, 0, 0));
    EXPECT_NEAR(yaw.x, f * std::tan(a), 1e-9);
    EXPECT_NEAR(pitch.y, f * std::tan(a), 1e-9);
    EXPECT_NEAR(yaw.y, 0.0, 1e-9);
    EXPECT_NEAR(pitch.x, 0.0, 1e-9);
    EXPECT_LT(cv::norm(cv::Mat(t.camK * t.camKInv), cv::Mat(eye), cv::NORM_INF), 1e-12);

    t.setFieldOfView(0.0);
    EXPECT_TRUE(t.hfovDeg == fixed.hfovDeg && t.vfovDeg == fixed.vfovDeg);
    EXPECT_TRUE(t.fx == fixed.fx && t.fy == fixed.fy);
    EXPECT_EQ(cv::norm(t.camK, fixed.camK, cv::NORM_INF), 0.0);
    EXPECT_EQ(cv::norm(t.camKInv, fixed.camKInv, cv::NORM_INF), 0.0);
    EXPECT_EQ(predict(t, both), predict(fixed, both));
  }
}

// What the reference saw: img with its content moved by (sx, sy), fresh texture where it came in.
cv::Mat moved(const cv::Mat& img, int sx, int sy, int d, uint32_t seed) {
  cv::Mat out = twoLevels(img.size(), d, {}, seed);
  const cv::Rect src(std::max(0, -sx), std::max(0, -sy), img.cols - std::abs(sx),
                     img.rows - std::abs(sy));
  img(src).copyTo(out(src + cv::Point(sx, sy)));
  return out;
}

// The gyroscope's prediction (here none: the attitudes agree) is refined by two strip searches.
// At low resolution the texture of the centre strip sets how far the search reaches: 16 pixels
// along the sweep above a measure of 20, 8 up to 20, 4 up to 12, none at 10 or below; the first
// tracked frame reaches further. At full resolution the search starts from the low-resolution
// offset and gives whole full-resolution pixels; a measure of 2 or less halves its reach, 1 or
// less skips it. Each case textures one resolution (shift in low-resolution pixels, sx, sy in
// full-resolution ones) and leaves the other flat, so that its search keeps the result.
TEST(ModuleTrackImu, StripSearchesReachAsFarAsTheTextureAllows) {
  GyroPresent gyro;
  const struct {
    int dLow, shift, trackCnt, dHigh, sx, sy;
    bool found;
  } cases[] = {
      {21, 16, 2, 0, 0, 0, true},  {20, 16, 2, 0, 0, 0, false}, {20, 8, 2, 0, 0, 0, true},
      {12, 8, 2, 0, 0, 0, false},  {12, 4, 2, 0, 0, 0, true},   {11, 4, 2, 0, 0, 0, true},
      {10, 4, 2, 0, 0, 0, false},  {21, 30, 1, 0, 0, 0, true},  {21, 30, 2, 0, 0, 0, false},
      {0, 0, 2, 40, 13, -5, true}, {0, 0, 2, 3, 13, -5, true},  {0, 0, 2, 2, 13, -5, false},
      {0, 0, 2, 2, 7, -3, true},   {0, 0, 2, 1, 3, 0, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << "low " << c.dLow << ", " << c.shift << " trackCnt " << c.trackCnt << " high "
                 << c.dHigh << ", " << c.sx << ", " << c.sy);
    ModuleTrack t(1280, 720);
    t.moveDir = MOVE_RIGHT, t.trackCnt = c.trackCnt;
    asGyro(cv::Matx33d::eye(), t.preRMatGyro);
    asGyro(cv::Matx33d::eye(), t.curRMatGyro);
    t.curImg = twoLevels(t.curImg.size(), c.dLow, {196, 12, 8, 200}, 7);
    t.preImg = moved(t.curImg, c.shift, 0, c.dLow, 8);
    const cv::Mat luma = twoLevels({1280, 720}, c.dHigh, {636, 136, 8, 448}, 11);
    moved(luma, c.sx, c.sy, c.dHigh, 12).copyTo(t.preImgHighRes);
    FlatFrame frame;
    std::copy(luma.data, luma.data + luma.total(), frame.img.yPlane);
    LogCapture log;
    double x = 0, y = 0;
    EXPECT_EQ(t.ComputeOffXY_IMU(x, y, frame.img), 1);
    EXPECT_EQ(x == c.shift + c.sx * t.scale && y == c.sy * t.scale, c.found) << x << ", " << y;
    EXPECT_TRUE(c.dLow > 10 || c.dHigh > 1 || x == 0.0) << x;  // neither searched: nothing moves
    EXPECT_EQ(log.contains(ANDROID_LOG_INFO, "Mean Variance [" + std::to_string(c.dLow) +
                                                 ".000000] is below threshold. SAD is not applied"),
              c.dLow <= 10);
    EXPECT_EQ(
        log.contains(ANDROID_LOG_INFO,
                     "Highres calculating mincost shift : Frame[0] and TrackCnt[2] strt[0 x 0]"),
        c.dHigh > 1);
  }
}

// Frames without texture: without a gyroscope nothing is measured (that the track then ends is
// ModuleTrackSweep's flat-frame test); with one the sweep goes on, with its direction, key
// frames and position from the rotation; a jump beyond the too-quick limit is reported as such.
TEST(ModuleTrackImu, DriverFallsBackToTheGyroscopeWhenVisionFails) {
  FlatFrame sweep;
  double e[3] = {0, 0, 0}, r[9];
  LogCapture log;
  ModuleTrack bare(1280, 720), t(1280, 720);
  double x = 3.5, y = -2.0;
  EXPECT_EQ(bare.ComputeOffXY_IMU(x, y, sweep.flat(90)), 0);
  EXPECT_TRUE(x == 3.5 && y == -2.0) << x << ", " << y;
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                           "=============== Sensor handle not initialized in ComputeOffXY_IMU "));
  GyroPresent gyro;
  const double step = 0.012;  // rad a frame: about 4 low-resolution pixels
  int keyFrames = 0;
  double yaw = 0.0;
  for (int k = 0; k < 24; ++k) {
    yaw = k * step;
    asGyro(rot(0, yaw, 0), r);
    EXPECT_TRUE(t.tracking(sweep.flat(static_cast<uint8_t>(90 + k % 3)), e, r)) << k;
    EXPECT_NE(t.errCode, ERR_TRACE_NO_FEATURE) << k;
    keyFrames += t.moveDir != MOVE_NONE && t.bKeyFrame;
  }
  EXPECT_EQ(t.moveDir, MOVE_RIGHT);
  EXPECT_GE(keyFrames, 18);
  // The camera's position follows the turn: each key frame after the one that fixed the
  // direction (the fourth frame, the first beyond the threshold) moved the view centre
  // fx tan(step) to the right (full-resolution pixels; the pose moves against the offset).
  EXPECT_NEAR(-t.globalCamPoseX, 20 * t.fx / t.scale * std::tan(step), 1.0);
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "Mean Variance [0.000000] is below threshold. SAD is not applied"));

  // A quick turn, then one beyond the too-quick limit (180 low-resolution pixels).
  asGyro(rot(0, yaw + 0.07, 0), r);
  t.tracking(sweep.flat(90), e, r);
  EXPECT_EQ(t.errCode, WARN_TRACE_LITTLE_QUICK);
  asGyro(rot(0, yaw + 0.67, 0), r);
  EXPECT_FALSE(t.tracking(sweep.flat(91), e, r));
  EXPECT_EQ(t.errCode, ERR_TRACE_TOO_QUICK);
}

// The prediction's errors against the simulator's truth between frames three apart over a
// handheld rotating sweep, sorted (low-resolution pixels): the simulator's gyroscope events,
// with noise and bias, fused by the gyroscope library and carried into the camera's axes. The
// tracker's camera is set to hfov degrees (0: the fixed camera).
std::vector<double> fusedPredictionErrors(zolt::sim::SweepDirection dir, cv::Size frame,
                                          double simHfov, double simVfov, double hfov) {
  zolt::sim::SweepConfig cfg =
      zolt::test::simSweep("handheld", "/usr/share/backgrounds/life_by_Aitzol_Berasategi.jpg", 40);
  cfg.model = zolt::sim::CameraModel::Rotate;
  cfg.direction = dir;
  cfg.width = frame.width, cfg.height = frame.height;
  cfg.hfovDeg = simHfov, cfg.vfovDeg = simVfov;
  const zolt::sim::SweepSimulator sim(cfg);
  ModuleTrack t(cfg.width, cfg.height);
  t.setFieldOfView(hfov);
  zolt::test::GyroAttitude fusion;
  const auto& truth = sim.truth();
  const auto& events = sim.gyroEvents();
  std::vector<std::array<double, 9>> rot(truth.size());
  std::vector<double> errors;
  for (size_t k = 0, next = 0; k < truth.size(); ++k) {
    std::vector<zolt::sim::GyroEvent> upTo;
    while (next < events.size() && events[next].tNs <= truth[k].tNs) upTo.push_back(events[next++]);
    fusion.advance(upTo, rot[k].data());
    if (k < 3) continue;
    double x = 0, y = 0;
    t.predictOffXY_IMU(ModuleTrack::gyroToCameraAxes(rot[k - 3].data()),
                       ModuleTrack::gyroToCameraAxes(rot[k].data()), x, y);
    const double tx = (truth[k].dx - truth[k - 3].dx) * t.scale,
                 ty = (truth[k].dy - truth[k - 3].dy) * t.scale;
    EXPECT_GT(std::hypot(tx, ty), 5.0);  // three frames of the sweep: a clear motion
    errors.push_back(std::hypot(x - tx, y - ty));
  }
  std::sort(errors.begin(), errors.end());
  return errors;
}

// The fixed camera's own sweep (simulated at 62.2 x 39.8 degrees) is predicted with its sign
// and size in every direction. The up and down sweeps are also what a phone held upright and
// swept sideways shows: its camera still delivers landscape frames.
TEST(ModuleTrackImu, FusedGyroscopePredictsTheSimulatedImageMotion) {
  for (const auto dir : {zolt::sim::SweepDirection::Right, zolt::sim::SweepDirection::Left,
                         zolt::sim::SweepDirection::Down, zolt::sim::SweepDirection::Up}) {
    SCOPED_TRACE(static_cast<int>(dir));
    const std::vector<double> errors = fusedPredictionErrors(dir, {1280, 720}, 0.0, 0.0, 0.0);
    EXPECT_LT(errors[errors.size() / 2], 0.3);
    EXPECT_LT(errors.back(), 1.0);
  }
}

// A phone's 4:3 camera of 69.8 degrees across, square pixels: told its field of view, the
// tracker predicts it as closely as the fixed camera its own; the fixed camera misses by the
// focal ratio (15 % along a horizontal sweep, 44 % along a vertical one: 3 and 6 pixels here).
TEST(ModuleTrackImu, FieldOfViewFitsTheLensOfTheFrames) {
  const double hfov = 69.8,
               vfov = 2.0 * std::atan(std::tan(hfov * CV_PI / 360.0) * 0.75) * 180.0 / CV_PI;
  for (const auto dir : {zolt::sim::SweepDirection::Right, zolt::sim::SweepDirection::Down}) {
    SCOPED_TRACE(static_cast<int>(dir));
    const std::vector<double> lens = fusedPredictionErrors(dir, {1280, 960}, hfov, vfov, hfov);
    EXPECT_LT(lens[lens.size() / 2], 0.3);
    EXPECT_LT(lens.back(), 1.0);
    const std::vector<double> fixed = fusedPredictionErrors(dir, {1280, 960}, hfov, vfov, 0.0);
    EXPECT_GT(fixed[fixed.size() / 2], 1.0);
  }
}

}  // namespace
