// The attitude history: a steady turn fed through the fusion library is looked up at any time
// between, after and before its events, against the rotation it must be.
#include "sensor/attitude_history.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "sensor/gyroscope_lib/gyroscope_lib.h"

namespace {

using android::Gyroscope_Lib;

constexpr int64_t kMs = 1000000;

// Rotation angle (rad) between two unit quaternions.
double angleBetween(const double a[4], const double b[4]) {
  const double conjA[4] = {a[0], -a[1], -a[2], -a[3]};
  double d[4];
  Gyroscope_Lib::multiply(conjA, b, d);
  return 2 * std::atan2(std::sqrt(d[1] * d[1] + d[2] * d[2] + d[3] * d[3]), std::fabs(d[0]));
}

// The turn by `rate` (rad/s, body axes) held for `seconds`.
void turnFor(const double rate[3], double seconds, double q[4]) { Gyroscope_Lib::turn(rate, seconds, q); }

// A fusion fed events every `stepMs` from t0 at one steady rate, each attitude into the history.
struct SteadyTurn {
  double rate[3];
  int64_t t0, step;
  Gyroscope_Lib lib;
  AttitudeHistory history;

  SteadyTurn(const double w[3], int64_t t0Ns, int64_t stepNs, int events, size_t capacity = 1024)
      : rate{w[0], w[1], w[2]}, t0(t0Ns), step(stepNs), history(capacity) {
    lib.initializeLib(5, nullptr);
    for (int i = 0; i < events; ++i) add(t0 + i * step);
  }
  void add(int64_t t) {
    float w[3] = {static_cast<float>(rate[0]), static_cast<float>(rate[1]),
                  static_cast<float>(rate[2])};
    lib.processEvent(Gyroscope_Lib::kTypeGyroscope, w, t);
    double q[4];
    lib.quaternion(q);
    history.add(t, q, w);
  }
  // The true attitude at tNs: every attitude after the first is stamped half an interval after
  // its event, so the turn's clock runs half an interval behind the stamps.
  void truth(int64_t tNs, double q[4]) const {
    const double w[3] = {static_cast<float>(rate[0]), static_cast<float>(rate[1]),
                         static_cast<float>(rate[2])};
    turnFor(w, static_cast<double>(tNs - t0 - step / 2) * 1e-9, q);
  }
};

// Between stamps the attitude follows the rotation itself: sparse events (50 ms) of a fast turn
// about a tilted axis (0.5 rad between events), where interpolating components or angles would
// be off by milliradians.
TEST(AttitudeHistory, InterpolatesAlongTheRotationBetweenStamps) {
  const double w[3] = {6.0, -4.0, 7.0};  // rad/s, |w| about 10
  SteadyTurn turn(w, 1000 * kMs, 50 * kMs, 12);
  ASSERT_EQ(turn.history.size(), 12u);
  int64_t newest = 0;
  ASSERT_TRUE(turn.history.newestStamp(&newest));
  EXPECT_EQ(newest, 1000 * kMs + 11 * 50 * kMs + 25 * kMs);
  // From the second stamp on (the first is the identity at the first event).
  for (int64_t t = 1075 * kMs; t <= newest; t += 7 * kMs + 333) {
    double q[4], expect[4];
    ASSERT_EQ(turn.history.at(t, q), AttitudeHistory::Where::kInside);
    turn.truth(t, expect);
    EXPECT_LT(angleBetween(q, expect), 1e-9) << "at " << t;
  }
}

// Past the newest stamp the newest rate carries on for 40 ms, then the attitude is held; before
// the oldest stamp kept the oldest attitude is given; a ring of 8 keeps the last 8 events.
TEST(AttitudeHistory, ExtendsTheNewestRateBrieflyAndForgetsTheOldest) {
  const double w[3] = {0.0, 0.0, 2.0};
  SteadyTurn turn(w, 1000 * kMs, 5 * kMs, 40, 8);
  EXPECT_EQ(turn.history.size(), 8u);
  int64_t newest = 0;
  ASSERT_TRUE(turn.history.newestStamp(&newest));
  double q[4], expect[4];
  EXPECT_EQ(turn.history.at(newest + 30 * kMs, q), AttitudeHistory::Where::kAfter);
  turn.truth(newest + 30 * kMs, expect);
  EXPECT_LT(angleBetween(q, expect), 1e-9);
  for (int64_t late : {40 * kMs, 41 * kMs, 500 * kMs}) {
    EXPECT_EQ(turn.history.at(newest + late, q), AttitudeHistory::Where::kAfter);
    turn.truth(newest + AttitudeHistory::kMaxExtrapolationNs, expect);
    EXPECT_LT(angleBetween(q, expect), 1e-9) << late;
  }
  // Events 32..39 are kept: the oldest is event 32's, stamped 2.5 ms after it.
  const int64_t oldest = 1000 * kMs + 32 * 5 * kMs + 5 * kMs / 2;
  double held[4];
  EXPECT_EQ(turn.history.at(oldest, held), AttitudeHistory::Where::kInside);
  EXPECT_EQ(turn.history.at(oldest - 1, q), AttitudeHistory::Where::kBefore);
  EXPECT_LT(angleBetween(q, held), 1e-12);
  turn.truth(oldest, expect);
  EXPECT_LT(angleBetween(held, expect), 1e-9);
}

// Events as a sensor delivers them: a repeated stamp replaces the newest attitude, an older one
// is dropped (the fusion adds nothing for either), and after a gap the fusion does not
// integrate the attitude is stamped at the event itself.
TEST(AttitudeHistory, TakesRepeatsLateEventsAndGapsAsTheFusionDoes) {
  AttitudeHistory h(16);
  double q[4];
  EXPECT_EQ(h.at(5, q), AttitudeHistory::Where::kEmpty);
  EXPECT_EQ(q[0], 1.0);
  const float still[3] = {0, 0, 0};
  const double a[4] = {1, 0, 0, 0};
  const double b[4] = {std::cos(0.1), std::sin(0.1), 0, 0};
  const double c[4] = {std::cos(0.2), std::sin(0.2), 0, 0};
  h.add(100 * kMs, a, still);
  h.add(110 * kMs, b, still);
  h.add(110 * kMs, c, still);  // repeat: replaces
  h.add(105 * kMs, a, still);  // late: dropped
  EXPECT_EQ(h.size(), 2u);
  int64_t newest = 0;
  ASSERT_TRUE(h.newestStamp(&newest));
  EXPECT_EQ(newest, 115 * kMs);
  EXPECT_EQ(h.at(115 * kMs, q), AttitudeHistory::Where::kInside);
  EXPECT_LT(angleBetween(q, c), 1e-12);
  const int64_t gap = Gyroscope_Lib::kMaxIntervalNs + kMs;
  h.add(110 * kMs + gap, c, still);
  ASSERT_TRUE(h.newestStamp(&newest));
  EXPECT_EQ(newest, 110 * kMs + gap);
  h.clear();
  EXPECT_EQ(h.at(5, q), AttitudeHistory::Where::kEmpty);
}

}  // namespace
