// The engine end to end through its C interface, as a camera app drives it.
// Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true for medians.
#include <benchmark/benchmark.h>

#include <memory>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "engine/capture_verdict.h"
#include "image/nv21_img.h"
#include "bench/support/hd_sweep.h"
#include "sim/sweep_simulator.h"
#include "zolt_pano.h"
#include "zolt_pano_ext.h"

namespace {

// A 300-frame handheld 1920 x 1080 sweep, rendered once and kept in memory.
struct Sweep {
  int w = 1920, h = 1080;
  std::vector<std::vector<uint8_t>> frames;
};

const Sweep& sweep() {
  static const std::unique_ptr<Sweep> s = [] {
    auto out = std::make_unique<Sweep>();
    zolt::sim::SweepSimulator sim(zolt::bench::hdHandheldSweep());
    zolt::sim::SimFrame f;
    while (sim.next(f)) out->frames.push_back(std::move(f.nv21));
    return out;
  }();
  return *s;
}

// One engine over the sweep, restarted (untimed) at its end, with the canvas it merges into.
class Engine {
 public:
  // options: ZOLT_PANO_SetOption pairs set on every start.
  explicit Engine(const Sweep& s, std::vector<std::pair<int, int>> options = {})
      : s_(s), options_(std::move(options)), canvas_(static_cast<size_t>(s.w) * 5 * s.h * 3 / 2),
        pano_{0, s.w * 5, s.h, canvas_.data(), canvas_.data() + static_cast<size_t>(s.w) * 5 * s.h} {
    start();
  }
  ~Engine() { ZOLT_PANO_Release(&handle_); }
  bool atEnd() const { return next_ == s_.frames.size(); }
  void restart() {
    ZOLT_PANO_Release(&handle_);
    start();
  }
  // The next frame through SelectFrames and AddImage; returns SelectFrames' code.
  int feedOne(long* isKeyFrame = nullptr) {
    auto* y = const_cast<uint8_t*>(s_.frames[next_++].data());
    __tag_ZOLT_OFFSCREEN frame{0, s_.w, s_.h, y, y + static_cast<size_t>(s_.w) * s_.h};
    tsPOINT off;
    long key = 0;
    int dir, len, progress;
    tsRECT valid;
    const int code = ZOLT_PANO_SelectFrames(handle_, nullptr, nullptr, &frame, nullptr, &off,
                                            &key, nullptr, &dir, &len);
    ZOLT_PANO_AddImage(handle_, nullptr, nullptr, nullptr, nullptr, &pano_, &valid, nullptr,
                       &progress);
    if (isKeyFrame != nullptr) *isKeyFrame = key;
    return code;
  }

 private:
  void start() {
    tag_ZOLT_PANO_INIT_PARAM p{};
    p.previewWidth = s_.w;
    p.previewHeight = s_.h;
    ZOLT_PANO_Initial(&p, &handle_);
    for (const auto& [option, value] : options_) ZOLT_PANO_SetOption(handle_, option, value);
    next_ = 0;
  }
  const Sweep& s_;
  std::vector<std::pair<int, int>> options_;
  std::vector<uint8_t> canvas_;
  __tag_ZOLT_OFFSCREEN pano_;
  void* handle_ = nullptr;
  size_t next_ = 0;
};

// Frames per second through SelectFrames and AddImage; the counter is per whole sweep.
void BM_WholeSweep(benchmark::State& state) {
  const Sweep& s = sweep();
  Engine engine(s);
  int keyFrames = 0, failed = 0;
  for (auto _ : state) {
    if (engine.atEnd()) engine.restart();
    keyFrames = failed = 0;
    while (!engine.atEnd()) {
      long key = 0;
      const int code = engine.feedOne(&key);
      failed += code >= 0x7000 && code < 0x8000;
      keyFrames += key == 1;
    }
  }
  state.counters["frames/s"] = benchmark::Counter(
      static_cast<double>(s.frames.size()) * state.iterations(), benchmark::Counter::kIsRate);
  state.counters["key frames"] = keyFrames;
  state.counters["ERR frames"] = failed;
}
BENCHMARK(BM_WholeSweep)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void dropLine(int, const char*, const char*, void*) {}

// One frame per iteration, the engine restarted untimed at the sweep's end.
void feedFrames(benchmark::State& state, Engine& engine) {
  for (auto _ : state) {
    if (engine.atEnd()) {
      state.PauseTiming();
      engine.restart();
      state.ResumeTiming();
    }
    engine.feedOne();
  }
}

// What the log costs a frame (SelectFrames + AddImage, about 34 lines): 0 the platform log as it
// is by default (on the host liblog writes to stderr: run with 2>/dev/null), 1 every line
// formatted and handed to a sink that drops it, 2 the log silent (lines dropped unformatted).
void BM_FrameLog(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  const char* labels[] = {"platform log", "sink, dropped", "silent"};
  state.SetLabel(labels[mode]);
  if (mode == 1) ZOLT_PANO_SetLogSink(dropLine, nullptr);
  if (mode == 2) ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
  {
    Engine engine(sweep());
    feedFrames(state, engine);
  }
  ZOLT_PANO_SetLogSink(nullptr, nullptr);
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
}
BENCHMARK(BM_FrameLog)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(600);

// A frame's cost (SelectFrames + AddImage, log silent) with the options off and on: 0 none,
// 1 sub-pixel placement, 2 exposure compensation, 3 both, 4 the camera's field of view alone
// (69.8 degrees; it changes only the gyroscope's camera matrix, built once). Every frame of this
// sweep is a key frame, so the options' per-key-frame work is all counted.
void BM_FrameOptions(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  const char* labels[] = {"no option", "sub-pixel placement", "exposure compensation", "both",
                          "camera field of view"};
  state.SetLabel(labels[mode]);
  std::vector<std::pair<int, int>> options;
  if (mode & 1) options.emplace_back(ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 1);
  if (mode & 2) options.emplace_back(ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION, 1);
  if (mode & 4) options.emplace_back(ZOLT_PANO_OPTION_CAMERA_HFOV, 6980);
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
  {
    Engine engine(sweep(), options);
    feedFrames(state, engine);
  }
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
}
BENCHMARK(BM_FrameOptions)->DenseRange(0, 4)->Unit(benchmark::kMillisecond)->Iterations(600);

// The verdict's work at one merge (CaptureVerdict::add): the key frame's tracker-size luma
// halved, band-passed and correlated with the last one's where they overlap. Two frames of the
// sweep, 8 frames (about 90 px) apart, laid alternately where they belong, so each add judges a
// real overlap. The
// sweep above makes every frame a key frame: this is the verdict's cost per frame, to set
// against BM_FrameOptions/0 of the same run.
void BM_VerdictKeyFrame(benchmark::State& state) {
  const Sweep& s = sweep();
  const double scale = 400.0 / s.w;
  cv::Mat luma[2];
  for (int i = 0; i < 2; ++i) {
    const cv::Mat y(s.h, s.w, CV_8UC1, const_cast<uint8_t*>(s.frames[100 + 8 * i].data()));
    cv::resize(y, luma[i], cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
  }
  CaptureVerdict verdict;
  int k = 0;
  for (auto _ : state) {
    const int i = k & 1;  // the tracker's pose is minus the camera's travel
    verdict.add({luma[i], scale, {i ? -92.0 : 0.0, 0.0}, {i ? 92.0 : -92.0, 0.0}, false, true});
    ++k;
  }
  state.counters["median correlation"] = verdict.evidence().medianCorrelation;
}
BENCHMARK(BM_VerdictKeyFrame)->Unit(benchmark::kMicrosecond);

// The two halves of saving an 8000 x 1080 panorama: the conversion of the canvas to BGR and
// the JPEG encoding.
cv::Mat& canvasBgrSource() {
  static cv::Mat bgr = [] {
    cv::Mat photo = cv::imread(zolt::bench::kSweepPhoto);
    cv::Mat c;
    cv::resize(photo(cv::Rect(0, 0, 3264, 441)), c, cv::Size(8000, 1080));
    return c;
  }();
  return bgr;
}

void BM_SaveConvert(benchmark::State& state) {
  NV21Img canvas;
  canvas.nvCvt2NV21(canvasBgrSource());
  for (auto _ : state) benchmark::DoNotOptimize(canvas.nvCvt2BGR(0, 0, 8000, 1080).data);
  canvas.freeData();
}
BENCHMARK(BM_SaveConvert)->Unit(benchmark::kMillisecond);

void BM_SaveJpegEncode(benchmark::State& state) {
  const cv::Mat& bgr = canvasBgrSource();
  std::vector<uchar> jpeg;
  for (auto _ : state) cv::imencode(".jpg", bgr, jpeg);
  state.counters["MB"] = static_cast<double>(jpeg.size()) / 1e6;
}
BENCHMARK(BM_SaveJpegEncode)->Unit(benchmark::kMillisecond);

}  // namespace
