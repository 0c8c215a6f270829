// The gyroscope against vision: the attitude between events, the prediction's conventions, and
// the clock offset and focal length found on simulated recordings whose truth is known.
#include <cmath>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include "zolt_pano_ext.h"
#include "sim/sweep_simulator.h"
#include "support/sim_sweep.h"
#include "tools/gyro_alignment.h"
#include "tracker/module_track.h"

namespace {

using namespace zolt::tools;

constexpr double kPi = 3.14159265358979323846;

double angleBetween(const cv::Matx33d& a, const cv::Matx33d& b) {
  cv::Vec3d v;
  cv::Rodrigues(a.t() * b, v);
  return cv::norm(v);
}

// Events at 100 Hz that sample a rate stepping from 0 to 1 rad/s about the phone's z axis at
// 0.5 s. Between events the attitude turns steadily; each event's rotation belongs to the
// interval centred on it, so the turn starts half an interval before the first moving event:
// 0.305 rad between 0.3 s and 0.8 s (0.31 if the track kept the library's stamps).
TEST(AttitudeTrack, TurnsSteadilyAndStampsEachRotationAtItsIntervalsCentre) {
  std::vector<zolt::sim::GyroEvent> events;
  for (int k = 0; k <= 100; ++k) {
    zolt::sim::GyroEvent e;
    e.tNs = k * 10000000LL;
    e.rate = {0.0, 0.0, k >= 50 ? 1.0 : 0.0};
    events.push_back(e);
  }
  const AttitudeTrack track(events);
  cv::Matx33d a, b;
  ASSERT_TRUE(track.at(300000000, a));
  ASSERT_TRUE(track.at(800000000, b));
  EXPECT_NEAR(angleBetween(a, b), 0.305, 1e-5);
  // Steady between events: a third of the way through an interval, a third of its rotation.
  ASSERT_TRUE(track.at(703333333, a));
  ASSERT_TRUE(track.at(706666667, b));
  EXPECT_NEAR(angleBetween(a, b), 0.0033333, 1e-6);
  EXPECT_FALSE(track.at(-1, a));
  EXPECT_FALSE(track.at(1100000000, a));
}

// With no points the prediction is the tracker's own (the principal point through its camera
// matrix), for any pair of attitudes.
TEST(GyroAlignment, PredictionOfThePrincipalPointIsTheTrackers) {
  const ModuleTrack t(1920, 1080);
  const cv::Matx33d k(t.camK.ptr<double>());
  const cv::Vec3d turns[][2] = {{{0.1, 0.3, 0.02}, {0.12, 0.25, -0.01}},
                                {{0, 0, 0}, {0.03, -0.04, 0.2}}};
  for (const auto& turn : turns) {
    cv::Matx33d pre, cur;
    cv::Rodrigues(turn[0], pre);
    cv::Rodrigues(turn[1], cur);
    double x = 0, y = 0;
    t.predictOffXY_IMU(pre, cur, x, y);
    const cv::Point2d p = predictedMotion(k, pre.t() * cur, {});
    EXPECT_NEAR(p.x, x, 1e-9);
    EXPECT_NEAR(p.y, y, 1e-9);
  }
}

struct Recording {
  const char* name;
  int width, height;
  double hfovDeg, offsetMs;
  zolt::sim::SweepDirection direction;
};

// A handheld sweep of a turning camera with a lens other than the engine's fixed one and a
// gyroscope clock running off the frames', noise and bias on its rates: the offset is found
// within 2 ms and the focal length within 2 %, and the aligned prediction follows vision far
// closer than the engine's fixed camera with the clocks as given.
TEST(GyroAlignment, FindsTheClockOffsetAndFocalLengthOfASimulatedRecording) {
  const Recording cases[] = {
      {"70 degrees, gyroscope 23 ms late", 1280, 720, 70.0, 23.0,
       zolt::sim::SweepDirection::Right},
      {"4:3, 55 degrees, gyroscope 41 ms early", 960, 720, 55.0, -41.0,
       zolt::sim::SweepDirection::Down},
  };
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
  for (const Recording& c : cases) {
    SCOPED_TRACE(c.name);
    zolt::sim::SweepConfig cfg =
        zolt::test::simSweep("handheld", zolt::test::kSweepPhoto, 60);
    cfg.width = c.width;
    cfg.height = c.height;
    cfg.direction = c.direction;
    cfg.model = zolt::sim::CameraModel::Rotate;
    cfg.hfovDeg = c.hfovDeg;  // square pixels
    cfg.vfovDeg = 2 * std::atan(std::tan(c.hfovDeg * kPi / 360) * c.height / c.width) * 180 / kPi;
    cfg.gyroTimeOffsetMs = c.offsetMs;
    cfg.gyroNoise = 0.003;
    cfg.gyroBias = {0.002, -0.001, 0.003};
    zolt::sim::SweepSimulator sim(cfg);
    VisionSteps vision(c.width, c.height);
    std::vector<zolt::sim::GyroEvent> events;
    for (zolt::sim::SimFrame f; sim.next(f);) {
      vision.add(f.nv21.data(), f.index, f.tNs);
      events.insert(events.end(), f.gyro.begin(), f.gyro.end());
    }
    const GyroAlignment a = alignGyroWithVision(vision.pairs(), AttitudeTrack(events),
                                                vision.tracker());
    ModuleTrack lens(c.width, c.height);  // the engine's camera for that lens
    lens.setFieldOfView(c.hfovDeg);
    const double trueScale = lens.fx / vision.tracker().fx;
    EXPECT_TRUE(a.found);
    EXPECT_GE(a.pairs, 40);
    EXPECT_NEAR(a.timeOffsetMs, c.offsetMs, 2.0);
    EXPECT_NEAR(a.focalScale / trueScale, 1.0, 0.02);
    EXPECT_NEAR(a.hfovDeg, c.hfovDeg, 1.0);
    const double along = c.direction == zolt::sim::SweepDirection::Right ? a.correlationX
                                                                         : a.correlationY;
    EXPECT_GT(along, 0.99);
    EXPECT_LT(a.medianErrorPx, 0.2);
    EXPECT_GT(a.medianErrorPxRaw, 3 * a.medianErrorPx);

    // A gyroscope log of another time: nothing to align.
    for (zolt::sim::GyroEvent& e : events) e.tNs += 60000000000LL;
    const GyroAlignment none =
        alignGyroWithVision(vision.pairs(), AttitudeTrack(events), vision.tracker());
    EXPECT_EQ(none.pairs, 0);
    EXPECT_FALSE(none.found);
  }
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
}

}  // namespace
