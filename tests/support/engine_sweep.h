// An engine driven through the C interface as a camera app drives it (Initial; per frame
// SelectFrames then AddImage into a canvas the app owns; Release), and simulated sweeps fed to it.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "sim/sweep_simulator.h"
#include "sim/sweep_types.h"
#include "support/sim_sweep.h"
#include "zolt_pano_ext.h"

namespace zolt::test {

// What SelectFrames and AddImage reported for one frame.
struct FrameReport {
  int code = -1;  // SelectFrames' result
  tsPOINT offset{};
  long key = 0;
  int direction = 0, sweepLength = 0;
  tsRECT valid{};     // AddImage's valid rectangle
  int progress = -1;  // percent
  int refusal = 0;    // ZOLT_PANO_GetLastError after the frame
};

// An engine for a landscape width x height preview (camOrientation 90 unless given), released
// with the object. Its canvas takes a sweep of up to maxSweep pixels (0: a whole turn), sized by
// ZOLT_PANO_CanvasSize: the preview-sized record without planes until the direction is known,
// then luma 0 and chroma 128.
class Engine {
 public:
  explicit Engine(int width = 1280, int height = 720, int maxSweep = 0, int camOrientation = 90);
  ~Engine() { release(); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  void* handle() const { return handle_; }
  int initial() const { return initial_; }  // what ZOLT_PANO_Initial returned
  int release();                            // ZOLT_PANO_Release's result; 0 when released

  // SelectFrames on one packed NV21 frame of the preview's size; AddImage into the canvas,
  // completing the frame's report.
  FrameReport select(const uint8_t* nv21);
  void add(FrameReport& r);
  FrameReport feed(const uint8_t* nv21) {
    FrameReport r = select(nv21);
    add(r);
    return r;
  }

  const std::vector<uint8_t>& canvasBytes() const { return canvas_; }
  // The canvas as AddImage gets it; its bytes may be rewritten between frames.
  const __tag_ZOLT_OFFSCREEN& canvas() const { return rec_; }

 private:
  int width_, height_, maxSweep_;
  void* handle_ = nullptr;
  int initial_ = -1;
  std::vector<uint8_t> canvas_;
  __tag_ZOLT_OFFSCREEN rec_{};
};

// ZOLT_PANO_GetLastError of `handle` (null: this thread's), which clears it; with its message.
int takeError(void* handle, std::string* message = nullptr);

// A key frame as merged, with what the simulator says of it.
struct KeyFrame {
  int frame;
  FrameReport report;
  sim::TruthRecord truth;
};

struct SweepRun {
  std::vector<FrameReport> frames;
  std::vector<KeyFrame> keys;
  tsRECT valid{};  // after the last frame
  int verdict = -1;  // ZOLT_PANO_GetVerdict's, where the run asked for it
  int direction() const { return frames.empty() ? 0 : frames.back().direction; }
  std::set<int> refusals() const;
};

// Feeds every frame of `sim`, from its first, to `engine`, with a fixed RANSAC seed. `repack`,
// when given, turns each frame's packed NV21 into the bytes that are fed (into a scratch buffer
// of the frame's size).
using Repack = std::function<const uint8_t*(const uint8_t* nv21, uint8_t* scratch)>;
SweepRun runSweep(Engine& engine, sim::SweepSimulator& sim, const Repack& repack = nullptr);

}  // namespace zolt::test
