// Sweep simulator: time to render one frame (NV21, with the preset's blur, exposure and noise),
// by preset, model and preview size. Uses the default Debian photo when it is installed, else a
// synthetic texture of the same size.
// Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true for medians.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_simulator.h"

namespace {

const cv::Mat& photo() {
  static const cv::Mat p = [] {
    cv::Mat m = cv::imread("/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg", cv::IMREAD_COLOR);
    if (m.empty()) {
      m.create(3391, 6028, CV_8UC3);
      cv::randu(m, 0, 255);
      cv::GaussianBlur(m, m, cv::Size(0, 0), 2.0);
    }
    return m;
  }();
  return p;
}

// range(0): 0 steady/translate, 1 handheld/translate, 2 handheld/rotate; range(1), range(2): size
void BM_RenderFrame(benchmark::State& state) {
  const int which = static_cast<int>(state.range(0));
  zolt::sim::SweepConfig cfg = zolt::sim::SweepConfig::fromPreset(which == 0 ? "steady" : "handheld");
  cfg.width = static_cast<int>(state.range(1));
  cfg.height = static_cast<int>(state.range(2));
  cfg.model = which == 2 ? zolt::sim::CameraModel::Rotate : zolt::sim::CameraModel::Translate;
  cfg.frames = 300;
  cfg.speed = cfg.width > 1280 ? 0.007 : 0.012;
  zolt::sim::SweepSimulator sim(cfg, photo());
  zolt::sim::SimFrame f;
  int k = 0;
  for (auto _ : state) {
    sim.renderFrame(k, f);
    benchmark::DoNotOptimize(f.nv21.data());
    k = (k + 37) % sim.frameCount();
  }
  state.SetLabel(std::string(which == 0 ? "steady" : "handheld") + (which == 2 ? "/rotate" : "/translate"));
}
BENCHMARK(BM_RenderFrame)
    ->Args({0, 1920, 1080})
    ->Args({1, 1920, 1080})
    ->Args({2, 1920, 1080})
    ->Args({1, 1280, 720})
    ->Args({2, 1280, 720})
    ->Unit(benchmark::kMillisecond);

// Everything decided up front: the path, the fit to the photo, truth and gyroscope events.
void BM_Construct(benchmark::State& state) {
  zolt::sim::SweepConfig cfg = zolt::sim::SweepConfig::fromPreset("handheld");
  cfg.width = 1920;
  cfg.height = 1080;
  cfg.frames = 300;
  cfg.speed = 0.007;
  for (auto _ : state) {
    zolt::sim::SweepSimulator sim(cfg, photo());
    benchmark::DoNotOptimize(sim.truth().data());
  }
}
BENCHMARK(BM_Construct)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
