// ZOLT_PANO_RenderPreview on the canvas of a whole 1920 x 1080 handheld sweep, to the strip an
// app shows (1080 pixels wide). Run with --benchmark_repetitions=5
// --benchmark_report_aggregates_only=true for medians.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "sim/sweep_simulator.h"
#include "zolt_pano_ext.h"

namespace {

// Textured everywhere, as the engine benchmark's sweep.
const char* kPhoto = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";

// An engine that has merged a 300-frame handheld sweep (11.5 px a frame) into a canvas for a
// whole turn; made once, released at exit.
struct SweptEngine {
  static constexpr int kW = 1920, kH = 1080;
  void* handle = nullptr;
  std::vector<uint8_t> canvas;
  tsRECT valid{};

  SweptEngine() {
    auto cfg = zolt::sim::SweepConfig::fromPreset("handheld");
    cfg.photoPath = kPhoto;
    cfg.width = kW;
    cfg.height = kH;
    cfg.frames = 300;
    cfg.speed = 0.006;
    cfg.photoScale = 2.0;
    zolt::sim::SweepSimulator sim(cfg);
    ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
    tag_ZOLT_PANO_INIT_PARAM p{};
    p.previewWidth = kW;
    p.previewHeight = kH;
    ZOLT_PANO_Initial(&p, &handle);
    __tag_ZOLT_OFFSCREEN rec{};
    ZOLT_PANO_CanvasSize(kW, kH, ZOLT_PANO_MOVE_NONE, 0, &rec.width, &rec.height);
    for (zolt::sim::SimFrame f; sim.next(f);) {
      __tag_ZOLT_OFFSCREEN frame{0, kW, kH, f.nv21.data(), f.nv21.data() + kW * kH};
      tsPOINT off;
      long key = 0;
      int dir = 0, len = 0, progress = 0;
      ZOLT_PANO_SelectFrames(handle, nullptr, nullptr, &frame, nullptr, &off, &key, nullptr, &dir,
                             &len);
      if (canvas.empty() && dir != ZOLT_PANO_MOVE_NONE) {
        ZOLT_PANO_CanvasSize(kW, kH, dir, 0, &rec.width, &rec.height);
        const size_t ySize = static_cast<size_t>(rec.width) * rec.height;
        canvas.assign(ySize * 3 / 2, 128);
        std::fill(canvas.begin(), canvas.begin() + static_cast<std::ptrdiff_t>(ySize), 0);
        rec.planeY = canvas.data();
        rec.planeVU = canvas.data() + ySize;
      }
      ZOLT_PANO_AddImage(handle, nullptr, nullptr, nullptr, nullptr, &rec, &valid, nullptr,
                         &progress);
    }
    ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
  }
  ~SweptEngine() { ZOLT_PANO_Release(&handle); }
};

SweptEngine& swept() {
  static SweptEngine e;
  return e;
}

// Arguments: the box, maxWidth x maxHeight.
void BM_RenderPreview(benchmark::State& state) {
  SweptEngine& e = swept();
  const int maxW = static_cast<int>(state.range(0)), maxH = static_cast<int>(state.range(1));
  std::vector<uint8_t> rgba(static_cast<size_t>(maxW) * 4 * maxH);
  int w = 0, h = 0, rc = 0;
  for (auto _ : state) {
    rc = ZOLT_PANO_RenderPreview(e.handle, maxW, maxH, rgba.data(), maxW * 4, &w, &h);
    benchmark::DoNotOptimize(rgba.data());
  }
  if (rc != 0) state.SkipWithError("RenderPreview refused");
  state.SetLabel(std::to_string(e.valid.right - e.valid.left) + "x" +
                 std::to_string(e.valid.bottom - e.valid.top) + " to " + std::to_string(w) + "x" +
                 std::to_string(h));
}
BENCHMARK(BM_RenderPreview)
    ->Args({1080, 1080})
    ->Args({1080, 400})
    ->Args({400, 400})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
