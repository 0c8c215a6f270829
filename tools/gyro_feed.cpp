#include "tools/gyro_feed.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "sim/sim_error.h"
#include "sim/sweep_reader.h"
#include "tools/frame_source.h"
#include "zolt_host_sensor.h"

namespace zolt::tools {

std::vector<sim::GyroEvent> readGyroEvents(const std::string& path) {
  std::vector<sim::GyroEvent> events;
  try {
    events = sim::SweepReader::readGyroCsv(path);
  } catch (const sim::SimError& e) {
    throw InputError(e.what());
  }
  if (events.empty()) throw InputError("'" + path + "' holds no gyroscope events");
  return events;
}

GyroFeed::GyroFeed(const std::string& path, double offsetMs, int64_t originNs)
    : GyroFeed(readGyroEvents(path), offsetMs) {
  originNs_ = originNs;
}

GyroFeed::GyroFeed(std::vector<sim::GyroEvent> events, double offsetMs)
    : events_(std::move(events)), offsetMs_(offsetMs) {
  std::stable_sort(events_.begin(), events_.end(),
                   [](const sim::GyroEvent& a, const sim::GyroEvent& b) { return a.tNs < b.tNs; });
  zolt_host_sensor_set_gyroscope(1);
}

GyroFeed::~GyroFeed() { zolt_host_sensor_set_gyroscope(0); }

int64_t GyroFeed::stampFor(double frameMs) const {
  return originNs_ + std::llround((frameMs + offsetMs_) * 1e6);
}

int64_t GyroFeed::frameTimeNs(double frameMs) const {
  return kClockBaseNs + originNs_ + std::llround(frameMs * 1e6);
}

void GyroFeed::append(const std::vector<sim::GyroEvent>& events) {
  events_.insert(events_.end(), events.begin(), events.end());
}

void GyroFeed::feedUpTo(double frameMs) {
  const int64_t until = stampFor(frameMs + lagMs_);
  for (; next_ < events_.size() && events_[next_].tNs <= until; ++next_, ++pushed_) {
    const sim::GyroEvent& e = events_[next_];
    zolt_host_sensor_push_gyro(kClockBaseNs + e.tNs, static_cast<float>(e.rate[0]), static_cast<float>(e.rate[1]),
                               static_cast<float>(e.rate[2]));
  }
  zolt_host_sensor_sync();
}

void GyroFeed::restartAt(double frameMs) {
  const int64_t from = stampFor(frameMs);
  // The first event a fusion sees only starts its clock: begin with the last one before the frame.
  size_t i = std::lower_bound(events_.begin(), events_.end(), from,
                              [](const sim::GyroEvent& e, int64_t t) { return e.tNs < t; }) -
             events_.begin();
  next_ = i > 0 ? i - 1 : 0;
}

}  // namespace zolt::tools
