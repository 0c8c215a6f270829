// zoltpano gyro-check's two costs on a simulated recording (1280 x 720, a turning camera with a
// 70 degree lens, its gyroscope 20 ms late): the engine's vision path on one frame against the
// one before, and the search for the clock offset and focal length over 60 frames' pairs.
// Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true for medians.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "sim/sweep_simulator.h"
#include "tools/gyro_alignment.h"
#include "zolt_pano_ext.h"

namespace {

struct Recording {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<int64_t> timesNs;
  std::vector<zolt::sim::GyroEvent> gyro;
};

const Recording& recording() {
  static const std::unique_ptr<Recording> r = [] {
    auto out = std::make_unique<Recording>();
    auto cfg = zolt::sim::SweepConfig::fromPreset("handheld");
    cfg.photoPath = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";
    cfg.model = zolt::sim::CameraModel::Rotate;
    cfg.frames = 61;
    cfg.hfovDeg = 70.0;
    cfg.vfovDeg = 42.996;
    cfg.gyroTimeOffsetMs = 20.0;
    cfg.gyroNoise = 0.003;
    zolt::sim::SweepSimulator sim(cfg);
    for (zolt::sim::SimFrame f; sim.next(f);) {
      out->frames.push_back(f.nv21);
      out->timesNs.push_back(f.tNs);
      out->gyro.insert(out->gyro.end(), f.gyro.begin(), f.gyro.end());
    }
    return out;
  }();
  return *r;
}

// Frames measured one after the other, as gyro-check reads a recording; per frame.
void BM_VisionStep(benchmark::State& state) {
  const Recording& r = recording();
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
  auto steps = std::make_unique<zolt::tools::VisionSteps>(1280, 720);
  size_t i = 0;
  for (auto _ : state) {
    if (i == r.frames.size()) {
      state.PauseTiming();
      steps = std::make_unique<zolt::tools::VisionSteps>(1280, 720);
      i = 0;
      state.ResumeTiming();
    }
    steps->add(r.frames[i].data(), static_cast<int>(i), r.timesNs[i]);
    ++i;
  }
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
}
BENCHMARK(BM_VisionStep)->Unit(benchmark::kMillisecond);

// The whole search (clock every 2 ms over +-100 ms, then every 0.1 ms; the focal length at each)
// over the recording's 60 pairs, attitude track included.
void BM_AlignGyroWithVision(benchmark::State& state) {
  const Recording& r = recording();
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
  zolt::tools::VisionSteps steps(1280, 720);
  for (size_t i = 0; i < r.frames.size(); ++i)
    steps.add(r.frames[i].data(), static_cast<int>(i), r.timesNs[i]);
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
  zolt::tools::GyroAlignment a;
  for (auto _ : state) {
    a = zolt::tools::alignGyroWithVision(steps.pairs(), zolt::tools::AttitudeTrack(r.gyro),
                                         steps.tracker());
    benchmark::DoNotOptimize(a.timeOffsetMs);
  }
  state.counters["pairs"] = a.pairs;
  state.counters["offset_ms"] = a.timeOffsetMs;
}
BENCHMARK(BM_AlignGyroWithVision)->Unit(benchmark::kMillisecond);

}  // namespace
