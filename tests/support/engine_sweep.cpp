#include "support/engine_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tracker/module_track.h"

namespace zolt::test {

Engine::Engine(int width, int height, int maxSweep, int camOrientation)
    : width_(width), height_(height), maxSweep_(maxSweep) {
  tag_ZOLT_PANO_INIT_PARAM p{};
  p.previewWidth = width;
  p.previewHeight = height;
  p.camOrientation = camOrientation;
  initial_ = ZOLT_PANO_Initial(&p, &handle_);
  ZOLT_PANO_CanvasSize(width, height, 0, 0, &rec_.width, &rec_.height);
}

int Engine::release() {
  if (handle_ == nullptr) return 0;
  const int code = ZOLT_PANO_Release(&handle_);
  handle_ = nullptr;
  return code;
}

FrameReport Engine::select(const uint8_t* nv21) {
  FrameReport r;
  __tag_ZOLT_OFFSCREEN frame{0, width_, height_, const_cast<uint8_t*>(nv21),
                             const_cast<uint8_t*>(nv21) + static_cast<size_t>(width_) * height_};
  r.code = ZOLT_PANO_SelectFrames(handle_, nullptr, nullptr, &frame, nullptr, &r.offset, &r.key,
                                  nullptr, &r.direction, &r.sweepLength);
  if (canvas_.empty() && r.direction != ZOLT_PANO_MOVE_NONE) {
    EXPECT_EQ(
        ZOLT_PANO_CanvasSize(width_, height_, r.direction, maxSweep_, &rec_.width, &rec_.height),
        0);
    const size_t ySize = static_cast<size_t>(rec_.width) * rec_.height;
    canvas_.assign(ySize * 3 / 2, 128);
    std::fill(canvas_.begin(), canvas_.begin() + static_cast<std::ptrdiff_t>(ySize), 0);
    rec_.planeY = canvas_.data();
    rec_.planeVU = canvas_.data() + ySize;
  }
  return r;
}

void Engine::add(FrameReport& r) {
  ZOLT_PANO_AddImage(handle_, nullptr, nullptr, nullptr, nullptr, &rec_, &r.valid, nullptr,
                     &r.progress);
  r.refusal = takeError(handle_);
}

int takeError(void* handle, std::string* message) {
  if (message == nullptr) return ZOLT_PANO_GetLastError(handle, nullptr, 0);
  char text[512] = "not written";
  const int code = ZOLT_PANO_GetLastError(handle, text, sizeof text);
  *message = text;
  return code;
}

std::set<int> SweepRun::refusals() const {
  std::set<int> s;
  for (const FrameReport& f : frames) s.insert(f.refusal);
  return s;
}

SweepRun runSweep(Engine& engine, sim::SweepSimulator& sim, const Repack& repack) {
  SweepRun run;
  std::vector<uint8_t> scratch(sim.frameBytes());
  zolt::setRansacSeed(true, 17);
  sim.rewind();
  for (sim::SimFrame f; sim.next(f);) {
    const uint8_t* data = repack ? repack(f.nv21.data(), scratch.data()) : f.nv21.data();
    const FrameReport r = engine.feed(data);
    run.frames.push_back(r);
    if (r.key == 1) run.keys.push_back({f.index, r, f.truth});
    run.valid = r.valid;
  }
  zolt::setRansacSeed(false, 0);
  return run;
}

}  // namespace zolt::test
