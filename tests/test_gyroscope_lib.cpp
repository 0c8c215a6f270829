// The gyroscope fusion library: exact integration of body rates, its clock rules and the
// conventions of what it reports (matrix layout and direction, angle order and signs).
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

#include "sensor/gyroscope_lib/gyroscope_lib.h"

namespace {

using Mat3 = std::array<double, 9>;  // row-major
using Vec3 = std::array<double, 3>;

Mat3 multiply(const Mat3& a, const Mat3& b) {
  Mat3 c{};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k) c[i * 3 + j] += a[i * 3 + k] * b[k * 3 + j];
  return c;
}

Mat3 identity() { return {1, 0, 0, 0, 1, 0, 0, 0, 1}; }

// Rotation by |v| about v (Rodrigues).
Mat3 rotation(const Vec3& v) {
  const double a = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  if (a == 0) return identity();
  const double x = v[0] / a, y = v[1] / a, z = v[2] / a, c = std::cos(a), s = std::sin(a),
               t = 1 - c;
  return {t * x * x + c,     t * x * y - s * z, t * x * z + s * y,
          t * x * y + s * z, t * y * y + c,     t * y * z - s * x,
          t * x * z - s * y, t * y * z + s * x, t * z * z + c};
}

// What the last onRMChange and onCorrectedSensorData calls carried.
struct Reported {
  int rmCalls = 0;
  int correctedCalls = 0;
  float matrix[16];
  float angles[3];
  float rates[3];
  int type = 0;
  long long timestampNs = 0;
  std::thread::id thread;
};
Reported gReported;

void onRM(float* matrix, float*, float* angles) {
  ++gReported.rmCalls;
  for (int i = 0; i < 16; ++i) gReported.matrix[i] = matrix[i];
  for (int i = 0; i < 3; ++i) gReported.angles[i] = angles[i];
  gReported.thread = std::this_thread::get_id();
}

void onCorrected(int type, float* values, long long timestampNs) {
  ++gReported.correctedCalls;
  gReported.type = type;
  for (int i = 0; i < 3; ++i) gReported.rates[i] = values[i];
  gReported.timestampNs = timestampNs;
}

class GyroscopeLib : public testing::Test {
 protected:
  void SetUp() override {
    gReported = Reported{};
    lib.initializeLib(5, &callbacks);
  }
  void event(long long tNs, const Vec3& w) {
    float v[3] = {static_cast<float>(w[0]), static_cast<float>(w[1]), static_cast<float>(w[2])};
    ASSERT_EQ(lib.processEvent(4, v, tNs), 0);
  }
  // The upper-left 3x3 of the last reported matrix.
  Mat3 reported() const {
    Mat3 r;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) r[i * 3 + j] = gReported.matrix[i * 4 + j];
    return r;
  }
  void expectReported(const Mat3& want, double tol) const {
    const Mat3 got = reported();
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(got[i], want[i], tol) << "element " << i;
  }

  android::callbackFunc callbacks{onCorrected, onRM};
  android::Gyroscope_Lib lib;
};

constexpr long long kMs = 1000000;  // ns

// Rates held over each interval integrate to the product of the exact per-interval rotations,
// applied in the phone's own frame (later rotations on the right), whatever the interval and
// however large the turn per step. An Euler or world-frame update misses these by far more
// than the tolerance.
TEST_F(GyroscopeLib, IntegratesEachIntervalExactlyInThePhoneFrame) {
  struct Case {
    const char* name;
    int events;
    double maxRate;  // rad/s
    bool oneAxis;    // each event turns about one axis only, in turn
  };
  const Case cases[] = {{"slow, many events", 400, 0.5, false},
                        {"fast, 0.2 rad per step", 60, 8.0, false},
                        {"one axis at a time", 30, 3.0, true}};
  std::mt19937 rng(7);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    lib.initializeLib(5, &callbacks);
    std::uniform_real_distribution<double> rate(-c.maxRate, c.maxRate);
    std::uniform_int_distribution<int> stepMs(5, 25);
    long long t = 1000 * kMs;
    event(t, {0, 0, 0});
    Mat3 want = identity();
    for (int k = 0; k < c.events; ++k) {
      Vec3 w{rate(rng), rate(rng), rate(rng)};
      if (c.oneAxis) w = {k % 3 == 0 ? w[0] : 0, k % 3 == 1 ? w[1] : 0, k % 3 == 2 ? w[2] : 0};
      const long long dt = stepMs(rng) * kMs;
      t += dt;
      event(t, w);
      // The rate is sent as float: integrate what the library received.
      const Vec3 wf{static_cast<float>(w[0]), static_cast<float>(w[1]), static_cast<float>(w[2])};
      const double s = dt * 1e-9;
      want = multiply(want, rotation({wf[0] * s, wf[1] * s, wf[2] * s}));
    }
    expectReported(want, 2e-6);
  }
}

// The first event only starts the clock; a repeated or older timestamp adds nothing and does not
// move the clock back; a gap longer than the limit holds the attitude and restarts the clock;
// every event is reported, also those that add nothing.
TEST_F(GyroscopeLib, ClockRules) {
  const Vec3 w{0.3, -0.2, 0.5};
  auto turn = [&](double seconds) {
    return rotation({w[0] * seconds, w[1] * seconds, w[2] * seconds});
  };
  event(5000 * kMs, {9, 9, 9});  // a huge rate on the first event: no rotation
  expectReported(identity(), 0);
  event(5010 * kMs, w);
  const Mat3 after10 = turn(0.010);
  expectReported(after10, 1e-7);
  event(5010 * kMs, {9, 9, 9});  // repeated
  expectReported(after10, 1e-7);
  event(4000 * kMs, {9, 9, 9});  // older
  expectReported(after10, 1e-7);
  event(5020 * kMs, w);          // integrates from 5010, not from 4000
  const Mat3 after20 = turn(0.020);
  expectReported(after20, 1e-7);
  const long long gap = android::Gyroscope_Lib::kMaxIntervalNs + kMs;
  event(5020 * kMs + gap, {9, 9, 9});  // a paused sensor: held
  expectReported(after20, 1e-7);
  event(5030 * kMs + gap, w);  // the clock restarted at the gap's end
  expectReported(turn(0.030), 1e-6);
  event(5030 * kMs + gap + android::Gyroscope_Lib::kMaxIntervalNs, {0, 0, 0});  // at the limit
  expectReported(turn(0.030), 1e-6);
  EXPECT_EQ(gReported.rmCalls, 8);
  EXPECT_EQ(gReported.correctedCalls, 8);

  // initializeLib starts over.
  lib.initializeLib(5, &callbacks);
  event(9000 * kMs, w);
  expectReported(identity(), 0);
}

// The matrix maps the phone's axes into the world's (the attitude at the first event), laid out
// row-major in a 4x4 with the last row and column 0, 0, 0, 1: after a quarter turn about z the
// phone's x axis points along the world's y.
TEST_F(GyroscopeLib, MatrixLayoutAndDirection) {
  event(0, {0, 0, 0});
  event(100 * kMs, {0, 0, static_cast<float>(M_PI / 2 / 0.1)});
  const float* m = gReported.matrix;
  const float want[16] = {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(m[i], want[i], 1e-6) << "element " << i;
}

// Angles are { roll, yaw, pitch } of the landscape camera (x right, y down, z ahead; camera =
// T * sensor): yaw turns the view right, pitch tilts it up, roll turns the image clockwise, and
// a turn made of yaw, then pitch, then roll in the camera's own frame reads back as its parts.
TEST_F(GyroscopeLib, AnglesAreRollYawPitchOfTheLandscapeCamera) {
  // Camera axes in sensor axes: x = -sensor y, y = -sensor x, z = -sensor z.
  const Vec3 camX{0, -1, 0}, camY{-1, 0, 0}, camZ{0, 0, -1};
  auto about = [](const Vec3& axis, double rate) {
    return Vec3{axis[0] * rate, axis[1] * rate, axis[2] * rate};
  };
  struct Step {
    Vec3 axis;
    double angle;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
    float roll, yaw, pitch;
  };
  const Case cases[] = {
      {"yaw right", {{camY, 0.3}}, 0, 0.3f, 0},
      {"yaw left", {{camY, -0.4}}, 0, -0.4f, 0},
      {"pitch up", {{camX, 0.2}}, 0, 0, 0.2f},
      {"roll clockwise", {{camZ, 0.1}}, 0.1f, 0, 0},
      {"yaw, pitch, roll", {{camY, 0.5}, {camX, -0.25}, {camZ, 0.15}}, 0.15f, 0.5f, -0.25f},
      {"past a half turn", {{camY, 2.5}, {camY, 1.0}}, 0, static_cast<float>(3.5 - 2 * M_PI), 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    lib.initializeLib(5, &callbacks);
    long long t = 0;
    event(t, {0, 0, 0});
    for (const Step& s : c.steps) {
      t += 100 * kMs;
      event(t, about(s.axis, s.angle / 0.1));
    }
    EXPECT_NEAR(gReported.angles[0], c.roll, 1e-5);
    EXPECT_NEAR(gReported.angles[1], c.yaw, 1e-5);
    EXPECT_NEAR(gReported.angles[2], c.pitch, 1e-5);
  }
}

// Callbacks come on the thread that calls processEvent, with the event's values; other sensor
// types are refused without a callback, and missing callbacks are allowed.
TEST_F(GyroscopeLib, CallbacksOnTheCallingThread) {
  std::thread other([&] {
    float v[3] = {0.1f, 0.2f, 0.3f};
    EXPECT_EQ(lib.processEvent(4, v, 123), 0);
  });
  other.join();
  EXPECT_EQ(gReported.rmCalls, 1);
  EXPECT_NE(gReported.thread, std::this_thread::get_id());
  EXPECT_EQ(gReported.type, 4);
  EXPECT_EQ(gReported.timestampNs, 123);
  EXPECT_EQ(gReported.rates[0], 0.1f);
  EXPECT_EQ(gReported.rates[2], 0.3f);

  float v[3] = {1, 1, 1};
  EXPECT_EQ(lib.processEvent(1, v, 200), -1);  // an accelerometer event
  EXPECT_EQ(gReported.rmCalls, 1);

  android::callbackFunc none{nullptr, nullptr};
  lib.initializeLib(5, &none);
  EXPECT_EQ(lib.processEvent(4, v, 300), 0);
  lib.initializeLib(5, nullptr);
  EXPECT_EQ(lib.processEvent(4, v, 400), 0);
  EXPECT_EQ(gReported.rmCalls, 1);
}

}  // namespace
