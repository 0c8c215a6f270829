// Frame times (ZOLT_PANO_SetFrameTime): a frame with a time takes the gyroscope's attitude at that
// time, a refused time leaves the frame as one without, and a sweep whose gyroscope runs 100 ms
// ahead of its frames, as on a phone, is tracked as if it did not.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/orrery_engine.h"
#include "sim/sweep_simulator.h"
#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "support/sim_sweep.h"
#include "tracker/module_track.h"
#include "zolt_host_sensor.h"
#include "zolt_pano_ext.h"

namespace {

using zolt::test::Engine;
using zolt::test::takeError;

constexpr int64_t kMs = 1000000;
constexpr int64_t kStart = 1000 * kMs;  // the first event
constexpr double kRate = 1.0;           // rad/s about the phone's z axis

// With the host gyroscope present: a steady turn about the phone's z axis, an event every 5 ms
// from kStart to kStart + 500 ms. The fusion's attitude after event k has turned (t_k - kStart)
// and is stamped 2.5 ms after the event.
class FrameTime : public ::testing::Test {
 protected:
  void SetUp() override { zolt_host_sensor_set_gyroscope(1); }
  void TearDown() override { zolt_host_sensor_set_gyroscope(0); }

  static void pushTurn() {
    for (int64_t t = kStart; t <= kStart + 500 * kMs; t += 5 * kMs)
      zolt_host_sensor_push_gyro(t, 0, 0, static_cast<float>(kRate));
    zolt_host_sensor_sync();
  }
  // The turn (rad) in the rotation the engine handed its tracker for the last frame.
  static double turnSeen(void* h) {
    const double* r = static_cast<OrreryEngine*>(h)->imuRotation;
    return std::atan2(r[3], r[0]);
  }
  static double turnAt(int64_t gyroNs) { return kRate * static_cast<double>(gyroNs - kStart - 5 * kMs / 2) * 1e-9; }

  zolt::test::LogCapture quiet_;
  zolt::test::Nv21Buffer frame_{1280, 720, 90};
};

// The attitude at the frame's time, moved by the delay option; for that frame only.
TEST_F(FrameTime, AFrameTakesTheAttitudeAtItsOwnTime) {
  Engine engine;
  void* h = engine.handle();
  ASSERT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_GYRO_DELAY_US, -100000), 0);
  pushTurn();
  const double newest = kRate * 0.5;
  ASSERT_EQ(ZOLT_PANO_SetFrameTime(h, kStart + 301 * kMs + 500000), 0);
  engine.feed(frame_.buf.data());
  EXPECT_NEAR(turnSeen(h), turnAt(kStart + 201 * kMs + 500000), 1e-6);
  EXPECT_GT(std::fabs(turnSeen(h) - newest), 0.25);
  engine.feed(frame_.buf.data());  // no time: the newest attitude, as without the call
  EXPECT_NEAR(turnSeen(h), newest, 1e-6);
  ASSERT_EQ(ZOLT_PANO_SetFrameTime(h, kStart + 620 * kMs), 0);  // 520 ms: 20 ms past the newest
  engine.feed(frame_.buf.data());
  EXPECT_NEAR(turnSeen(h), turnAt(kStart + 520 * kMs), 1e-6);
  EXPECT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_GYRO_DELAY_US, 0), ZOLT_PANO_ERR_BAD_OPTION);
}

// Each bad time is refused with its reason, and the frame then takes the newest attitude, even
// when a good time was set for it before.
TEST_F(FrameTime, BadTimesAreRefusedAndTheFrameIsTrackedWithoutOne) {
  const int64_t newest = kStart + 500 * kMs + 5 * kMs / 2;  // the newest attitude's stamp
  const int64_t good = kStart + 200 * kMs;
  const std::string far = " with the delay) : more than a second from the gyroscope's newest "
                          "attitude at " + std::to_string(newest) + " ns (another clock?)";
  const std::string notAfter = " ns : not after the previous frame's " + std::to_string(good) + " ns";
  const int64_t behind = newest - 1000 * kMs - 1, ahead = newest + 1000 * kMs + 1;
  const struct {
    const char* what;
    int64_t previous;  // a good time set first (0: none)
    int64_t t;
    std::string message;
  } cases[] = {
      {"zero", 0, 0, "0 ns : not positive"},
      {"negative", 0, -5, "-5 ns : not positive"},
      {"repeat", good, good, std::to_string(good) + notAfter},
      {"back", good, good - 1, std::to_string(good - 1) + notAfter},
      {"far behind", 0, behind, std::to_string(behind) + " ns (" + std::to_string(behind) + far},
      {"far ahead", 0, ahead, std::to_string(ahead) + " ns (" + std::to_string(ahead) + far},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Engine engine;
    void* h = engine.handle();
    pushTurn();
    if (c.previous != 0) {
      ASSERT_EQ(ZOLT_PANO_SetFrameTime(h, c.previous), 0);
    }
    EXPECT_EQ(ZOLT_PANO_SetFrameTime(h, c.t), ZOLT_PANO_ERR_BAD_ARGUMENT);
    std::string message;
    EXPECT_EQ(takeError(h, &message), ZOLT_PANO_ERR_BAD_ARGUMENT);
    EXPECT_EQ(message, "ZOLT_PANO_SetFrameTime :: time " + c.message +
                           " : the frame is tracked without a time");
    engine.feed(frame_.buf.data());
    EXPECT_NEAR(turnSeen(h), kRate * 0.5, 1e-6);
  }
  // The delay moves the reach with the clock; its own range is a second either way.
  Engine engine;
  void* h = engine.handle();
  EXPECT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_GYRO_DELAY_US, 1000001),
            ZOLT_PANO_ERR_BAD_OPTION);
  ASSERT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_GYRO_DELAY_US, -1000000), 0);
  pushTurn();
  EXPECT_EQ(ZOLT_PANO_SetFrameTime(h, ahead), 0);
  engine.feed(frame_.buf.data());
  EXPECT_NEAR(turnSeen(h), turnAt(ahead - 1000 * kMs), 1e-6);
}

// Without a gyroscope a time has nothing to be read at; it is still checked.
TEST(FrameTimeWithoutGyroscope, IsCheckedAndOtherwiseUnused) {
  zolt::test::LogCapture quiet;
  Engine engine;
  void* h = engine.handle();
  EXPECT_EQ(ZOLT_PANO_SetFrameTime(h, 5), 0);
  EXPECT_EQ(ZOLT_PANO_SetFrameTime(h, 5), ZOLT_PANO_ERR_BAD_ARGUMENT);
  EXPECT_EQ(ZOLT_PANO_SetFrameTime(nullptr, 6), ZOLT_PANO_ERR_NOT_ENGINE);
}

// The too-fast sweep (rotate model; one frame at half a frame's width) with the gyroscope's
// events fed up to each frame's time plus `lagMs`, as a phone delivers its preview late.
zolt::test::SweepRun lagged(double lagMs, bool frameTimes) {
  zolt::sim::SweepConfig cfg = zolt::test::simSweep("too-fast", zolt::test::kSweepPhoto, 40);
  cfg.model = zolt::sim::CameraModel::Rotate;
  zolt::sim::SweepSimulator sim(cfg);
  const std::vector<zolt::sim::GyroEvent>& events = sim.gyroEvents();
  zolt_host_sensor_set_gyroscope(1);
  zolt::test::SweepRun run;
  {
    Engine engine(cfg.width, cfg.height);
    size_t next = 0;
    zolt::setRansacSeed(true, 17);
    for (zolt::sim::SimFrame f; sim.next(f);) {
      const int64_t until = f.tNs + static_cast<int64_t>(lagMs * 1e6);
      for (; next < events.size() && events[next].tNs <= until; ++next) {
        const zolt::sim::GyroEvent& e = events[next];
        zolt_host_sensor_push_gyro(kStart + e.tNs, static_cast<float>(e.rate[0]),
                                   static_cast<float>(e.rate[1]), static_cast<float>(e.rate[2]));
      }
      zolt_host_sensor_sync();
      if (frameTimes) {
        EXPECT_EQ(ZOLT_PANO_SetFrameTime(engine.handle(), kStart + f.tNs), 0);
      }
      const zolt::test::FrameReport r = engine.feed(f.nv21.data());
      run.frames.push_back(r);
      if (r.key == 1) run.keys.push_back({f.index, r, f.truth});
    }
    zolt::setRansacSeed(false, 0);
    EXPECT_EQ(ZOLT_PANO_GetVerdict(engine.handle(), &run.verdict, nullptr, 0), 0);
  }
  zolt_host_sensor_set_gyroscope(0);
  return run;
}

bool raised(const zolt::test::SweepRun& run, int code) {
  for (const zolt::test::FrameReport& r : run.frames)
    if (r.code == code) return true;
  return false;
}

// Lag 0 raises ERR_TRACE_TOO_QUICK at the burst. With the gyroscope 100 ms ahead the engine
// reads the attitude of 100 ms later: the burst goes unnoticed and key frames are laid hundreds
// of pixels from where they belong, which the engine's verdict sees: the gyroscope's key frames
// and the images disagree. With the frame times it is tracked as at lag 0.
TEST(FrameTimeSweep, GyroscopeAheadOfTheFramesIsReadAtTheirTimes) {
  zolt::test::LogCapture quiet;
  const zolt::test::SweepRun onTime = lagged(0, true), late = lagged(100, false),
                             lateWithTimes = lagged(100, true);
  EXPECT_TRUE(raised(onTime, ZOLT_PANO_ERR_TRACE_TOO_QUICK));
  EXPECT_TRUE(raised(lateWithTimes, ZOLT_PANO_ERR_TRACE_TOO_QUICK));
  ASSERT_EQ(lateWithTimes.keys.size(), onTime.keys.size());
  for (size_t i = 0; i < onTime.keys.size(); ++i) {
    const zolt::test::KeyFrame &a = onTime.keys[i], &b = lateWithTimes.keys[i];
    EXPECT_EQ(b.frame, a.frame);
    EXPECT_LE(std::abs(b.report.offset.x - a.report.offset.x), 1) << a.frame;
    EXPECT_LE(std::abs(b.report.offset.y - a.report.offset.y), 1) << a.frame;
  }
  // Without the times: no warning, and a key frame far off its true step from the one before.
  EXPECT_FALSE(raised(late, ZOLT_PANO_ERR_TRACE_TOO_QUICK));
  double worst = 0;
  for (size_t i = 1; i < late.keys.size(); ++i) {
    const double step = late.keys[i].truth.dx - late.keys[i - 1].truth.dx;
    worst = std::max(worst, std::fabs(step - late.keys[i].report.offset.x));
  }
  EXPECT_GT(worst, 300.0);
  EXPECT_EQ(onTime.verdict, 0);
  EXPECT_EQ(lateWithTimes.verdict, 0);
  EXPECT_EQ(late.verdict, ZOLT_PANO_VERDICT_GYRO_DISAGREES);
}

}  // namespace
