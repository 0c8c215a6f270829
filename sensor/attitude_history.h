// AttitudeHistory: the fusion's attitudes of the last second or more, stamped on the gyroscope
// events' clock, so that a frame can be given the attitude at its own capture time rather than
// the newest one. A ring allocated once: adding an event allocates nothing.
//
// Stamps: a gyroscope samples its rate at the event's time and the fusion holds that rate over
// the interval before the event, so the rotation an event adds belongs to the interval centred
// on it. The attitude after an event is stamped half an interval after the event (the first
// event, and one after a gap the fusion does not integrate, at the event itself).
//
// Between two stamps the phone turns steadily: the attitude is interpolated along the rotation
// between them (a quaternion slerp), never component-wise or through Euler angles. After the
// newest stamp it is extended by the newest event's rate for at most kMaxExtrapolationNs.
// Not thread-safe: SensorInterface guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class AttitudeHistory {
 public:
  // 1024 events: 16 s at the engine's 16 ms event rate, 2.5 s at a phone's fastest (about
  // 400 Hz), still a second at 1 kHz.
  static constexpr size_t kDefaultCapacity = 1024;
  // How far past the newest stamp the newest rate is carried. The engine asks for an event every
  // 16 ms and the newest stamp lies half an interval past its event, so a frame caught between
  // two events is at most about 8 ms past it; 40 ms also covers one late or lost event. Further
  // on, a held rate is a guess (a hand changes speed within a tenth of a second), so the
  // attitude is held there.
  static constexpr int64_t kMaxExtrapolationNs = 40000000;

  explicit AttitudeHistory(size_t capacity = kDefaultCapacity);

  // Forgets every attitude (a new fusion starts).
  void clear();
  // The fusion's attitude q (w, x, y, z, phone -> world) after the event at eventNs with body
  // rate `rate` (rad/s). An event older than the newest is dropped, as the fusion adds no
  // rotation for it; one at the newest's time replaces it.
  void add(int64_t eventNs, const double q[4], const float rate[3]);

  enum class Where {
    kEmpty,     // no attitude yet: q is the identity
    kInside,    // between the oldest and the newest stamp (either included)
    kBefore,    // before the oldest stamp held: the oldest attitude
    kAfter,     // after the newest stamp: extended by the newest rate, capped
  };
  // The attitude at tNs (w, x, y, z).
  Where at(int64_t tNs, double q[4]) const;

  size_t size() const { return count_; }
  size_t capacity() const { return ring_.size(); }
  // The newest stamp; false when empty.
  bool newestStamp(int64_t* stampNs) const;

 private:
  struct Entry {
    int64_t stampNs;
    int64_t eventNs;
    double q[4];
    double rate[3];  // rad/s, body axes
  };
  const Entry& entry(size_t i) const;  // i-th oldest
  Entry& newest();

  std::vector<Entry> ring_;
  size_t first_ = 0;  // index of the oldest entry
  size_t count_ = 0;
};
