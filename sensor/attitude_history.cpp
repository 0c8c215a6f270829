#include "sensor/attitude_history.h"

#include <algorithm>
#include <cmath>

#include "sensor/gyroscope_lib/gyroscope_lib.h"

namespace {

using android::Gyroscope_Lib;

void normalise(double q[4]) {
  const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  for (int i = 0; i < 4; ++i) q[i] /= n;
}

// The fraction a (0..1) of the way from q0 to q1 along the rotation between them.
void slerp(const double q0[4], const double q1[4], double a, double q[4]) {
  const double conj0[4] = {q0[0], -q0[1], -q0[2], -q0[3]};
  double d[4];
  Gyroscope_Lib::multiply(conj0, q1, d);  // q0 -> q1 in q0's body axes
  if (d[0] < 0)
    for (double& c : d) c = -c;  // the shorter way round
  const double s = std::sqrt(d[1] * d[1] + d[2] * d[2] + d[3] * d[3]);
  const double angle = 2 * std::atan2(s, d[0]);  // rad
  double part[4] = {1, 0, 0, 0};
  if (s > 1e-15) {
    const double k = std::sin(0.5 * a * angle) / s;
    part[0] = std::cos(0.5 * a * angle);
    part[1] = d[1] * k;
    part[2] = d[2] * k;
    part[3] = d[3] * k;
  }
  Gyroscope_Lib::multiply(q0, part, q);
  normalise(q);
}

}  // namespace

AttitudeHistory::AttitudeHistory(size_t capacity) : ring_(std::max<size_t>(capacity, 2)) {}

void AttitudeHistory::clear() {
  first_ = 0;
  count_ = 0;
}

const AttitudeHistory::Entry& AttitudeHistory::entry(size_t i) const {
  return ring_[(first_ + i) % ring_.size()];
}

AttitudeHistory::Entry& AttitudeHistory::newest() {
  return ring_[(first_ + count_ - 1) % ring_.size()];
}

void AttitudeHistory::add(int64_t eventNs, const double q[4], const float rate[3]) {
  int64_t stampNs = eventNs;
  if (count_ > 0) {
    Entry& last = newest();
    if (eventNs < last.eventNs) return;
    if (eventNs == last.eventNs) {
      std::copy(q, q + 4, last.q);
      for (int i = 0; i < 3; ++i) last.rate[i] = rate[i];
      return;
    }
    const int64_t gap = eventNs - last.eventNs;
    if (gap <= Gyroscope_Lib::kMaxIntervalNs) stampNs += gap / 2;
    stampNs = std::max(stampNs, last.stampNs + 1);
  }
  if (count_ == ring_.size()) {
    first_ = (first_ + 1) % ring_.size();  // the oldest goes
    --count_;
  }
  ++count_;
  Entry& e = newest();
  e.stampNs = stampNs;
  e.eventNs = eventNs;
  std::copy(q, q + 4, e.q);
  for (int i = 0; i < 3; ++i) e.rate[i] = rate[i];
}

bool AttitudeHistory::newestStamp(int64_t* stampNs) const {
  if (count_ == 0) return false;
  *stampNs = entry(count_ - 1).stampNs;
  return true;
}

AttitudeHistory::Where AttitudeHistory::at(int64_t tNs, double q[4]) const {
  if (count_ == 0) {
    q[0] = 1;
    q[1] = q[2] = q[3] = 0;
    return Where::kEmpty;
  }
  const Entry& oldest = entry(0);
  if (tNs < oldest.stampNs) {
    std::copy(oldest.q, oldest.q + 4, q);
    return Where::kBefore;
  }
  const Entry& last = entry(count_ - 1);
  if (tNs > last.stampNs) {
    const double seconds =
        static_cast<double>(std::min(tNs - last.stampNs, kMaxExtrapolationNs)) * 1e-9;
    double step[4];
    Gyroscope_Lib::turn(last.rate, seconds, step);
    Gyroscope_Lib::multiply(last.q, step, q);
    normalise(q);
    return Where::kAfter;
  }
  // The first entry stamped after tNs; the one before it is at or before tNs.
  size_t lo = 0, hi = count_ - 1;
  while (lo < hi) {
    const size_t mid = (lo + hi) / 2;
    if (entry(mid).stampNs > tNs) hi = mid;
    else lo = mid + 1;
  }
  if (entry(lo).stampNs <= tNs) {  // tNs is the newest stamp itself
    std::copy(last.q, last.q + 4, q);
    return Where::kInside;
  }
  const Entry& a = entry(lo - 1);
  const Entry& b = entry(lo);
  const double f =
      static_cast<double>(tNs - a.stampNs) / static_cast<double>(b.stampNs - a.stampNs);
  slerp(a.q, b.q, f, q);
  return Where::kInside;
}
