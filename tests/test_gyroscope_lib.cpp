// The gyroscope fusion library: exact integration of body rates, its clock rules and the
// conventions of what it reports (matrix layout and direction, angle order and signs).
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "sensor/gyroscope_lib/gyroscope_lib.h"

namespace {

using Mat3 = std::array<double, 9>;  // row-major
using Vec3 = std::array<double, 3>;
constexpr long long kMs = 1000000;  // ns
const Mat3 kIdentity{1, 0, 0, 0, 1, 0, 0, 0, 1};

Mat3 multiply(const Mat3& a, const Mat3& b) {
  Mat3 c{};
  for (int i = 0; i < 9; ++i)
    for (int k = 0; k < 3; ++k) c[i] += a[i / 3 * 3 + k] * b[k * 3 + i % 3];
  return c;
}

// Rotation by |v| about v (Rodrigues).
Mat3 rotation(const Vec3& v) {
  const double a = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  if (a == 0) return kIdentity;
  const double x = v[0] / a, y = v[1] / a, z = v[2] / a, c = std::cos(a), s = std::sin(a),
               t = 1 - c;
  return {t * x * x + c,     t * x * y - s * z, t * x * z + s * y,
          t * x * y + s * z, t * y * y + c,     t * y * z - s * x,
          t * x * z - s * y, t * y * z + s * x, t * z * z + c};
}

// What the last onRMChange and onCorrectedSensorData calls carried.
struct Reported {
  int rmCalls = 0, correctedCalls = 0, type = 0;
  float matrix[16], angles[3], rates[3];
  long long timestampNs = 0;
} gReported;

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
  // The upper-left 3x3 of the last reported matrix against `want`.
  void expectReported(const Mat3& want, double tol) const {
    for (int i = 0; i < 9; ++i)
      EXPECT_NEAR(gReported.matrix[i / 3 * 4 + i % 3], want[i], tol) << "element " << i;
  }

  android::callbackFunc callbacks{
      [](int type, float* values, long long tNs) {
        Reported& r = gReported;
        ++r.correctedCalls, r.type = type, r.timestampNs = tNs;
        std::copy(values, values + 3, r.rates);
      },
      [](float* matrix, float*, float* angles) {
        ++gReported.rmCalls;
        std::copy(matrix, matrix + 16, gReported.matrix);
        std::copy(angles, angles + 3, gReported.angles);
      }};
  android::Gyroscope_Lib lib;
};

// Rates held over each interval integrate to the product of the exact per-interval rotations,
// applied in the phone's own frame (later rotations on the right), whatever the interval and
// however large the turn per step. An Euler or world-frame update misses these by far more
// than the tolerance.
TEST_F(GyroscopeLib, IntegratesEachIntervalExactlyInThePhoneFrame) {
  struct Case {
    const char* name;
    int events;
    double maxRate;  // rad/s
  };
  const Case cases[] = {{"slow, many events", 400, 0.5},
                        {"fast, 0.2 rad per step", 60, 8.0}};
  std::mt19937 rng(7);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    lib.initializeLib(5, &callbacks);
    std::uniform_real_distribution<double> rate(-c.maxRate, c.maxRate);
    std::uniform_int_distribution<int> stepMs(5, 25);
    long long t = 1000 * kMs;
    event(t, {0, 0, 0});
    Mat3 want = kIdentity;
    for (int k = 0; k < c.events; ++k) {
      Vec3 w{rate(rng), rate(rng), rate(rng)};
      for (double& a : w) a = static_cast<float>(a);  // what the library receives
      const long long dt = stepMs(rng) * kMs;
      event(t += dt, w);
      want = multiply(want, rotation({w[0] * dt * 1e-9, w[1] * dt * 1e-9, w[2] * dt * 1e-9}));
    }
    expectReported(want, 2e-6);
  }
}

// The first event only starts the clock; a repeated or older timestamp adds nothing and does not
// move the clock back; a gap longer than the limit holds the attitude and restarts the clock;
// every event is reported, also those that add nothing; initializeLib starts over.
TEST_F(GyroscopeLib, ClockRules) {
  const Vec3 w{0.3, -0.2, 0.5};
  auto turn = [&](double s) { return rotation({w[0] * s, w[1] * s, w[2] * s}); };
  const long long gap = android::Gyroscope_Lib::kMaxIntervalNs + kMs;
  struct Step {
    long long tNs;
    Vec3 w;
    double turnedS;  // seconds of `w` the attitude should hold
  };
  const Step steps[] = {
      {5000 * kMs, {9, 9, 9}, 0},                // first: a huge rate, no rotation
      {5010 * kMs, w, 0.010},                    //
      {5010 * kMs, {9, 9, 9}, 0.010},            // repeated
      {4000 * kMs, {9, 9, 9}, 0.010},            // older
      {5020 * kMs, w, 0.020},                    // from 5010, not from 4000
      {5020 * kMs + gap, {9, 9, 9}, 0.020},      // a paused sensor: held
      {5030 * kMs + gap, w, 0.030},              // the clock restarted at the gap's end
      {5030 * kMs + gap + gap - kMs, w, 0.280},  // exactly at the limit: integrated
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.tNs);
    event(s.tNs, s.w);
    expectReported(turn(s.turnedS), 1e-7);
  }
  EXPECT_EQ(gReported.rmCalls, 8);
  EXPECT_EQ(gReported.correctedCalls, 8);
  lib.initializeLib(5, &callbacks);
  event(9000 * kMs, w);
  expectReported(kIdentity, 0);
}

// The matrix maps the phone's axes into the world's (the attitude at the first event), laid out
// row-major in a 4x4 with the last row and column 0, 0, 0, 1: after a quarter turn about z the
// phone's x axis points along the world's y.
TEST_F(GyroscopeLib, MatrixLayoutAndDirection) {
  event(0, {0, 0, 0});
  event(100 * kMs, {0, 0, M_PI / 2 / 0.1});
  const float want[16] = {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  for (int i = 0; i < 16; ++i) EXPECT_NEAR(gReported.matrix[i], want[i], 1e-6) << "element " << i;
}

// Angles are { roll, yaw, pitch } of the landscape camera (x right, y down, z ahead; camera =
// T * sensor): yaw turns the view right, pitch tilts it up, roll turns the image clockwise, and
// a turn made of yaw, then pitch, then roll in the camera's own frame reads back as its parts.
TEST_F(GyroscopeLib, AnglesAreRollYawPitchOfTheLandscapeCamera) {
  // Camera axes in sensor axes: x = -sensor y, y = -sensor x, z = -sensor z.
  const Vec3 camX{0, -1, 0}, camY{-1, 0, 0}, camZ{0, 0, -1};
  struct Case {
    const char* name;
    std::vector<std::pair<Vec3, double>> turns;  // axis, angle
    float roll, yaw, pitch;
  };
  const Case cases[] = {
      {"yaw right", {{camY, 0.3}}, 0, 0.3f, 0},
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
    for (const auto& [axis, angle] : c.turns)  // each over 100 ms
      event(t += 100 * kMs, {axis[0] * angle * 10, axis[1] * angle * 10, axis[2] * angle * 10});
    const float want[3] = {c.roll, c.yaw, c.pitch};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(gReported.angles[i], want[i], 1e-5) << i;
  }
}

// Each event is reported with its values; other sensor types are refused without a callback,
// and missing callbacks are allowed.
TEST_F(GyroscopeLib, CallbacksAndOtherTypes) {
  event(123, {0.1f, 0.2f, 0.3f});
  EXPECT_EQ(gReported.type, 4);
  EXPECT_EQ(gReported.timestampNs, 123);
  EXPECT_EQ(gReported.rates[0], 0.1f);
  EXPECT_EQ(gReported.rates[2], 0.3f);
  float v[3] = {1, 1, 1};
  EXPECT_EQ(lib.processEvent(1, v, 200), -1);  // an accelerometer event
  android::callbackFunc none{nullptr, nullptr};
  for (android::callbackFunc* c : {&none, static_cast<android::callbackFunc*>(nullptr)}) {
    lib.initializeLib(5, c);
    EXPECT_EQ(lib.processEvent(4, v, 300), 0);
  }
  EXPECT_EQ(gReported.rmCalls, 1);
}

}  // namespace
