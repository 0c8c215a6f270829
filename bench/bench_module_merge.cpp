// Merging one 1920 x 1080 key frame (seam search, blending, direct fill), with exposure
// compensation off and on, and the blending ramp and the exposure gain alone, reference against
// the vectorised kernel, in one run.
// Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true for medians, and
// 2>/dev/null: the merger logs five lines per key frame. ZOLTPANO_FORCE_REFERENCE=1 runs the
// whole merge on the reference kernels.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "image/nv21_img.h"
#include "merger/merge_kernels.h"
#include "merger/module_merge.h"
#include "zolt_pano_ext.h"

namespace {

// The Debian photo (noise where it is missing), wide enough for a sweep of 1920 x 1080 frames.
const cv::Mat& scene() {
  static const cv::Mat s = [] {
    cv::Mat full = cv::imread("/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg", 1);
    cv::Mat out(2200, 3600, CV_8UC3);
    if (full.empty()) {
      cv::randu(out, 0, 255);
    } else {
      cv::resize(full, out, out.size(), 0, 0, cv::INTER_AREA);
    }
    return out;
  }();
  return s;
}

struct OwnedImg : NV21Img {
  ~OwnedImg() { freeData(); }
};

// `first` placed on `canvas`, then `second`, `offset` from it, merged per iteration (the
// merger's last centre is wound back each time, so every iteration does the full work).
void mergeSecondFrame(benchmark::State& state, ModuleMerge& m, NV21Img& first, NV21Img& second,
                      cv::Point offset, MoveDirection dir, __tag_ZOLT_OFFSCREEN& canvas) {
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(dir);
  m.merging_AddImage(first, cv::Point_<double>(0, 0), dir, &canvas);
  const int start = horizontal ? m.lastMergedX : m.lastMergedY;
  for (auto _ : state) {
    (horizontal ? m.lastMergedX : m.lastMergedY) = start;
    m.merging_AddImage(second, cv::Point_<double>(offset.x, offset.y), dir, &canvas);
    benchmark::DoNotOptimize(canvas.planeY);
  }
  state.SetLabel(zolt::mergeKernels().name);
}

// A sweep's first key frame placed; the second one, `step` pixels on, merged per iteration
// (the merger's last centre is wound back each time, so every iteration does the full work).
void BM_MergeKeyFrame(benchmark::State& state) {
  const bool horizontal = state.range(0) == 0;
  const int step = static_cast<int>(state.range(1));
  const int fw = 1920, fh = 1080;
  const int pw = horizontal ? 6000 : fw, ph = horizontal ? fh : 4000;
  std::vector<uint8_t> canvasBuf(static_cast<size_t>(pw) * ph * 3 / 2, 0);
  __tag_ZOLT_OFFSCREEN canvas{};
  canvas.width = pw;
  canvas.height = ph;
  canvas.planeY = canvasBuf.data();
  canvas.planeVU = canvasBuf.data() + static_cast<size_t>(pw) * ph;
  const MoveDirection dir = horizontal ? MOVE_RIGHT : MOVE_DOWN;
  // In a vertical sweep the frame is still 1920 x 1080; the scene is read rotated.
  cv::Mat view = horizontal ? scene() : scene().t();
  OwnedImg first, second;
  first.nvCvt2NV21(view(cv::Rect(100, 300, fw, fh)).clone());
  const cv::Point at = horizontal ? cv::Point(100 + step, 303) : cv::Point(103, 300 + step);
  second.nvCvt2NV21(view(cv::Rect(at.x, at.y, fw, fh)).clone());
  ModuleMerge m(fw, fh);
  mergeSecondFrame(state, m, first, second, cv::Point(100, 300) - at, dir, canvas);
}
BENCHMARK(BM_MergeKeyFrame)->ArgNames({"vertical", "step"})
    ->Args({0, 300})->Args({0, 600})->Args({1, 300})->Unit(benchmark::kMillisecond);

// One key frame merged with exposure compensation off (0) and on (1): a 1920 x 1080 sweep's
// second key frame 12 pixels on (about a frame's step in a sweep), 6 % brighter than the first.
// The difference is what the option costs a key frame.
void BM_MergeKeyFrameExposure(benchmark::State& state) {
  const bool horizontal = state.range(0) == 0;
  const bool on = state.range(1) == 1;
  const int fw = 1920, fh = 1080, step = 12;
  const int pw = horizontal ? 6000 : fw, ph = horizontal ? fh : 4000;
  std::vector<uint8_t> canvasBuf(static_cast<size_t>(pw) * ph * 3 / 2, 0);
  __tag_ZOLT_OFFSCREEN canvas{0, pw, ph, canvasBuf.data(),
                              canvasBuf.data() + static_cast<size_t>(pw) * ph};
  const MoveDirection dir = horizontal ? MOVE_RIGHT : MOVE_DOWN;
  cv::Mat view = horizontal ? scene() : scene().t();
  OwnedImg first, second;
  first.nvCvt2NV21(view(cv::Rect(100, 300, fw, fh)).clone());
  const cv::Point at = horizontal ? cv::Point(100 + step, 301) : cv::Point(101, 300 + step);
  cv::Mat brighter;
  view(cv::Rect(at.x, at.y, fw, fh)).convertTo(brighter, -1, 1.06);
  second.nvCvt2NV21(brighter);
  ModuleMerge m(fw, fh);
  m.configure({on});
  mergeSecondFrame(state, m, first, second, cv::Point(100, 300) - at, dir, canvas);
}
BENCHMARK(BM_MergeKeyFrameExposure)->ArgNames({"vertical", "exposure"})
    ->Args({0, 0})->Args({0, 1})->Args({1, 0})->Args({1, 1})->Unit(benchmark::kMillisecond);

// The exposure gain over what a 1920 x 1080 key frame compensates (160 columns before its
// centre to a quarter frame past it): 1080 rows of 642 luma bytes with a gain per column, and
// their 540 VU rows, reference against the vectorised kernel.
void BM_GainRows(benchmark::State& state) {
  const auto& k = state.range(0) == 0 ? zolt::referenceMergeKernels() : zolt::vectorMergeKernels();
  const int w = 1920, h = 1080, x0 = 800, x1 = 1442;
  std::mt19937 rng(7);
  std::vector<uint8_t> src(static_cast<size_t>(w) * h * 3 / 2), dst(src.size());
  for (auto& b : src) b = static_cast<uint8_t>(rng());
  std::vector<int16_t> gains(w);
  for (int x = 0; x < w; ++x) gains[x] = static_cast<int16_t>(15000 + x);
  const size_t vu = static_cast<size_t>(w) * h;
  for (auto _ : state) {
    for (int r = 0; r < h; ++r)
      k.gainRow(dst.data() + r * w + x0, src.data() + r * w + x0, x1 - x0, gains.data() + x0, 1, 0);
    for (int r = 0; r < h / 2; ++r)
      k.gainRow(dst.data() + vu + r * w + x0, src.data() + vu + r * w + x0, x1 - x0,
                gains.data() + x0, 1, 128);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetLabel(k.name);
}
BENCHMARK(BM_GainRows)->ArgNames({"vec"})->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// The blending ramp of one key frame: 1080 rows, at level 0 (33 pixels) and 2 (129 pixels).
void BM_BlendRampRows(benchmark::State& state) {
  const auto& k = state.range(0) == 0 ? zolt::referenceMergeKernels() : zolt::vectorMergeKernels();
  const int level = static_cast<int>(state.range(1));
  const int w = 1920, h = 1080, hw = 16 << level;
  std::mt19937 rng(5);
  std::vector<uint8_t> canvas(static_cast<size_t>(w) * h * 3 / 2), frame(canvas.size());
  for (auto& b : canvas) b = static_cast<uint8_t>(rng());
  for (auto& b : frame) b = static_cast<uint8_t>(rng());
  uint8_t* cvu = canvas.data() + static_cast<size_t>(w) * h;
  const uint8_t* fvu = frame.data() + static_cast<size_t>(w) * h;
  for (auto _ : state) {
    for (int r = 0; r < h; ++r) {
      const int s = 900 + (r % 33) - 16;  // a wandering seam
      k.blendRampRow(canvas.data() + r * w, cvu + (r / 2) * w, frame.data() + r * w,
                     fvu + (r / 2) * w, s - hw, s + hw, -301, 0, 1, level);
    }
    benchmark::DoNotOptimize(canvas.data());
  }
  state.SetLabel(k.name);
}
BENCHMARK(BM_BlendRampRows)->ArgNames({"vec", "level"})
    ->Args({0, 0})->Args({1, 0})->Args({0, 2})->Args({1, 2})->Unit(benchmark::kMicrosecond);

// The column ramps of a vertical sweep's key frame: 1920 columns, level 0 and 2.
void BM_BlendRampColumns(benchmark::State& state) {
  const auto& k = state.range(0) == 0 ? zolt::referenceMergeKernels() : zolt::vectorMergeKernels();
  const int level = static_cast<int>(state.range(1));
  const int w = 1920, ph = 2000, fh = 1080;
  std::mt19937 rng(6);
  std::vector<uint8_t> canvas(static_cast<size_t>(w) * ph * 3 / 2), frame(size_t(w) * fh * 3 / 2);
  for (auto& b : canvas) b = static_cast<uint8_t>(rng());
  for (auto& b : frame) b = static_cast<uint8_t>(rng());
  std::vector<int> seam(w);
  std::vector<int8_t> levels(w, static_cast<int8_t>(level));
  for (int c = 0; c < w; ++c) seam[c] = 900 + (c % 33) - 16;
  zolt::ColumnRamps r{};
  r.cY = canvas.data();
  r.cVU = canvas.data() + static_cast<size_t>(w) * ph;
  r.pw = w;
  r.fY = frame.data();
  r.fVU = frame.data() + static_cast<size_t>(w) * fh;
  r.fw = w;
  r.c0 = 3;
  r.c1 = w;
  r.offX = -3;
  r.yShift = -361;
  r.seam = seam.data();
  r.level = levels.data();
  r.before = false;
  for (auto _ : state) {
    k.blendRampColumns(r);
    benchmark::DoNotOptimize(canvas.data());
  }
  state.SetLabel(k.name);
}
BENCHMARK(BM_BlendRampColumns)->ArgNames({"vec", "level"})
    ->Args({0, 0})->Args({1, 0})->Args({0, 2})->Args({1, 2})->Unit(benchmark::kMicrosecond);

}  // namespace
