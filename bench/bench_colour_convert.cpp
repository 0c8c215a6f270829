// NV21 <-> BGR conversion, reference against the vectorised kernels, in one run.
// Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true for medians.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <opencv2/core.hpp>

#include "image/colour_convert.h"

namespace {

const zolt::ColourKernels& kernelsFor(int which) {
  return which == 0 ? zolt::referenceColourKernels() : zolt::vectorColourKernels();
}

std::vector<uint8_t> noise(size_t n) {
  std::mt19937 rng(7);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = static_cast<uint8_t>(rng());
  return v;
}

// A panorama canvas as the save converts it: 8000 x 1080.
void BM_Nv21ToBgr(benchmark::State& state) {
  const int w = static_cast<int>(state.range(1)), h = static_cast<int>(state.range(2));
  const auto& k = kernelsFor(static_cast<int>(state.range(0)));
  const size_t ySize = static_cast<size_t>(w) * h;
  std::vector<uint8_t> nv = noise(ySize * 3 / 2);
  cv::Mat bgr(h, w, CV_8UC3);
  for (auto _ : state) {
    zolt::nv21ToBgr(k, nv.data(), nv.data() + ySize, ySize / 2, w, h, bgr.data, bgr.step, 0, 0, w, h);
    benchmark::DoNotOptimize(bgr.data);
  }
  state.SetLabel(k.name);
  state.counters["Mpx/s"] = benchmark::Counter(static_cast<double>(ySize) * state.iterations() / 1e6,
                                               benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Nv21ToBgr)->ArgNames({"vec", "w", "h"})->Args({0, 8000, 1080})->Args({1, 8000, 1080})
    ->Unit(benchmark::kMillisecond);

// A preview frame as the tools convert it: 1920 x 1080. grey = 1: a flat grey picture, whose
// chroma the vector kernels hand back to the reference block by block (its worst case).
void BM_BgrToNv21(benchmark::State& state) {
  const int w = static_cast<int>(state.range(1)), h = static_cast<int>(state.range(2));
  const auto& k = kernelsFor(static_cast<int>(state.range(0)));
  const size_t ySize = static_cast<size_t>(w) * h;
  std::vector<uint8_t> bgr = noise(ySize * 3), nv(ySize * 3 / 2);
  if (state.range(3)) bgr.assign(bgr.size(), 200);
  for (auto _ : state) {
    zolt::bgrToNv21(k, bgr.data(), static_cast<size_t>(w) * 3, h, w, nv.data(), nv.data() + ySize,
                    ySize / 2);
    benchmark::DoNotOptimize(nv.data());
  }
  state.SetLabel(k.name);
  state.counters["Mpx/s"] = benchmark::Counter(static_cast<double>(ySize) * state.iterations() / 1e6,
                                               benchmark::Counter::kIsRate);
}
BENCHMARK(BM_BgrToNv21)->ArgNames({"vec", "w", "h", "grey"})
    ->Args({0, 1920, 1080, 0})->Args({1, 1920, 1080, 0})
    ->Args({0, 1920, 1080, 1})->Args({1, 1920, 1080, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
