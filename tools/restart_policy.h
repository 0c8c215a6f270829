// When zoltpano stitch gives up on a capture and starts a new one, and which frames the new one
// is fed again. A phone's user who keeps being told "wrong direction" or "going back" would stop
// and start a new panorama; a recorded clip cannot, so the tool does it for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "tools/engine_session.h"

namespace zolt::tools {

// The restart rule. Once a capture has fixed its direction, a run of frames without a key
// frame that starts with a refusal of the sweep (wrong direction, going back, too quick, no
// texture), is at least three quarters refusals, and lasts at least kRestartRunMs of the
// input's own time and kRestartRunFrames frames ends the capture: its panorama is saved, the
// engine released, and a new capture starts with the frames since the old one's last key
// frame, fed again (at most kReplayBytesMax of them, the latest kept), then the rest.
constexpr double kRestartRunMs = 1000.0;
constexpr int kRestartRunFrames = 10;
constexpr size_t kReplayBytesMax = size_t{256} << 20;

// True for the result codes that count towards a restart.
bool refusesSweep(int code);

// The run of frames that may end a capture: from a refused frame on, every frame until the
// next key frame. The engine interleaves its refusals with frames it neither refuses nor takes
// (after four frames without texture it makes the current frame its reference, and the next
// one then looks like a small step back), so the run allows a quarter of those.
class RefusedRun {
 public:
  // Counts a frame of a capture whose direction is fixed (or not: `directionFixed`); the input's
  // frame rate stands in for the time between frames whose times step back or jump.
  void add(const FrameRecord& f, bool directionFixed, double fps);
  bool sustained() const;
  int lastRefusal() const { return lastCode_; }
  void clear();

 private:
  int count_ = 0;
  int refused_ = 0;
  double spanMs_ = 0.0;
  double lastMs_ = 0.0;
  int lastCode_ = SUCCESS;
};

// A frame as read from the input, kept for feeding again after a restart.
struct InputFrame {
  int index = 0;
  double timeMs = 0.0;
  std::vector<uint8_t> nv21;
};

// The frames since the capture's last key frame, which a restart feeds again so that the new
// capture starts where the old one's panorama ends; at most about kReplayBytesMax of them.
class ReplayBuffer {
 public:
  explicit ReplayBuffer(size_t frameBytes);
  // Keeps a fed frame (a key frame empties the buffer instead).
  void keep(const InputFrame& in, bool keyFrame);
  // Moves the frames after input frame `firstFed` (the ending capture's first) to the front of
  // `replay`, in input order; returns the input index the new capture starts from (`next` when
  // no frame is kept).
  int handOver(int firstFed, int next, std::deque<InputFrame>& replay);

 private:
  std::deque<InputFrame> frames_;
  size_t keepMax_;
};

}  // namespace zolt::tools
