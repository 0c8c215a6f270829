#include "tools/restart_policy.h"

#include <algorithm>

namespace zolt::tools {

bool refusesSweep(int code) {
  return code == ERR_TRACE_DIRECTION || code == ERR_TRACE_DIRECTION_BACK ||
         code == ERR_TRACE_TOO_QUICK || code == ERR_TRACE_NO_FEATURE;
}

void RefusedRun::clear() {
  count_ = refused_ = 0;
  spanMs_ = 0.0;
}

void RefusedRun::add(const FrameRecord& f, bool directionFixed, double fps) {
  if (!directionFixed || (!refusesSweep(f.code) && (count_ == 0 || f.keyFrame))) {
    clear();
    return;
  }
  // The span grows by the time since the previous frame (one nominal frame when the
  // container's times step back or jump, as at a joined clip).
  if (count_ > 0) {
    const double d = f.timeMs - lastMs_;
    spanMs_ += (d > 0 && d < 5000) ? d : 1000.0 / fps;
  }
  lastMs_ = f.timeMs;
  if (refusesSweep(f.code)) {
    lastCode_ = f.code;
    ++refused_;
  }
  ++count_;
}

bool RefusedRun::sustained() const {
  return count_ >= kRestartRunFrames && spanMs_ >= kRestartRunMs && 4 * refused_ >= 3 * count_;
}

ReplayBuffer::ReplayBuffer(size_t frameBytes)
    : keepMax_(std::max<size_t>(kRestartRunFrames, kReplayBytesMax / frameBytes)) {}

void ReplayBuffer::keep(const InputFrame& in, bool keyFrame) {
  if (keyFrame) {
    frames_.clear();
    return;
  }
  frames_.push_back(in);
  if (frames_.size() > keepMax_) frames_.pop_front();
}

int ReplayBuffer::handOver(int firstFed, int next, std::deque<InputFrame>& replay) {
  // The new capture starts after the old one's first frame, so every restart moves on through
  // the input (the run itself lies after the frame that fixed the direction).
  while (!frames_.empty() && frames_.front().index <= firstFed) frames_.pop_front();
  const int from = frames_.empty() ? next : frames_.front().index;
  for (auto it = frames_.rbegin(); it != frames_.rend(); ++it) replay.push_front(std::move(*it));
  frames_.clear();
  return from;
}

}  // namespace zolt::tools
