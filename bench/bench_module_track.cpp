// The tracker per frame over a handheld sweep of a real photo (24 or 16 pixels a frame along,
// jitter of 1.5 pixels), 1920 x 1080 and 1280 x 720, OpenCV on one thread; then its stages one
// by one on the same frames. Log lines are formatted but not written.
#include <benchmark/benchmark.h>

#include <android/log.h>

#include <memory>
#include <random>
#include <vector>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "tests/support/photo_sweep.h"
#include "sensor/sensor_handle.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace {

const char* const kPhoto = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";
constexpr int kFrames = 40;

// Drops the engine's lines after they are formatted, so the formatting stays in the timing.
void dropLine(int, const char*, const char*, void*) {}

struct Sweep {
  int width, height;
  std::vector<std::vector<uint8_t>> frames;  // packed NV21
  Sweep(int w, int h) : width(w), height(h) {
    zolt::test::PhotoSweep sweep(kPhoto, w, h, w == 1920 ? 1.0 : 2.0 / 3.0);
    std::mt19937 rng(17);
    std::normal_distribution<double> jitter(0.0, 1.5);
    const double step = w == 1920 ? 24.0 : 16.0;
    const size_t bytes = static_cast<size_t>(w) * h * 3 / 2;
    for (int i = 0; i < kFrames; ++i) {
      NV21Img& f = sweep.at(200 + step * i + jitter(rng), 300 + 0.2 * i + jitter(rng));
      frames.emplace_back(f.yPlane, f.yPlane + bytes);
    }
  }
  void wrap(int i, NV21Img& img, __tag_ZOLT_OFFSCREEN& buf) {
    buf = {0, width, height, frames[i].data(),
           frames[i].data() + static_cast<size_t>(width) * height};
    img.nvCreate_shared_instance(&buf);
  }
};

Sweep& sweepFor(int w) {
  static Sweep big(1920, 1080), small(1280, 720);
  return w == 1920 ? big : small;
}

void BM_TrackFrame(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = w * 9 / 16;
  Sweep& sweep = sweepFor(w);
  ZOLT_PANO_SetLogSink(dropLine, nullptr);
  auto tracker = std::make_unique<ModuleTrack>(w, h);
  double e[3] = {}, r[9] = {};
  NV21Img img;
  __tag_ZOLT_OFFSCREEN buf;
  int i = 0, keyFrames = 0, frames = 0;
  for (auto _ : state) {
    if (i == kFrames) {
      state.PauseTiming();
      tracker = std::make_unique<ModuleTrack>(w, h);
      i = 0;
      state.ResumeTiming();
    }
    sweep.wrap(i++, img, buf);
    benchmark::DoNotOptimize(tracker->tracking(img, e, r));
    keyFrames += tracker->report.direction != MOVE_NONE && tracker->report.keyFrame;
    ++frames;
  }
  state.counters["keyframes"] = static_cast<double>(keyFrames) / frames;
  ZOLT_PANO_SetLogSink(nullptr, nullptr);
}
BENCHMARK(BM_TrackFrame)->Arg(1920)->Arg(1280)->Unit(benchmark::kMillisecond);

// --- stages, on two consecutive frames of the sweep --------------------------------------------

struct Pair {
  cv::Mat full0, full1, small0, small1;
  std::vector<cv::Point2f> pts;
  explicit Pair(int w) {
    Sweep& s = sweepFor(w);
    const int h = w * 9 / 16;
    full0 = cv::Mat(h, w, CV_8UC1, s.frames[10].data()).clone();
    full1 = cv::Mat(h, w, CV_8UC1, s.frames[11].data()).clone();
    const double scale = 400.0 / w;
    cv::resize(full0, small0, cv::Size(), scale, scale, cv::INTER_LINEAR);
    cv::resize(full1, small1, cv::Size(), scale, scale, cv::INTER_LINEAR);
    FeatFastShiTomasi f(small0.rows, small0.cols);
    f.updateGridCount(pts, MOVE_NONE);
    f.detectFeatFromBlock(small0, pts);
  }
};

Pair& pairFor(int w) {
  static Pair big(1920), small(1280);
  return w == 1920 ? big : small;
}

void BM_StageResize(benchmark::State& state) {
  Pair& p = pairFor(static_cast<int>(state.range(0)));
  cv::Mat out;
  const double scale = 400.0 / p.full0.cols;
  for (auto _ : state) cv::resize(p.full1, out, cv::Size(), scale, scale, cv::INTER_LINEAR);
}
BENCHMARK(BM_StageResize)->Arg(1920)->Arg(1280)->Unit(benchmark::kMicrosecond);

void BM_StageFlowBothWays(benchmark::State& state) {
  Pair& p = pairFor(static_cast<int>(state.range(0)));
  const cv::TermCriteria crit(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 0.03);
  std::vector<cv::Mat> pyr0, pyr1;
  std::vector<cv::Point2f> cur, back;
  std::vector<uint8_t> s1, s2;
  cv::buildOpticalFlowPyramid(p.small0, pyr0, cv::Size(31, 31), 3, false);
  for (auto _ : state) {
    cv::buildOpticalFlowPyramid(p.small1, pyr1, cv::Size(31, 31), 3, false);
    cv::calcOpticalFlowPyrLK(pyr0, pyr1, p.pts, cur, s1, cv::noArray(), cv::Size(31, 31), 3, crit, 0,
                             0.001);
    cv::calcOpticalFlowPyrLK(pyr1, pyr0, cur, back, s2, cv::noArray(), cv::Size(31, 31), 3, crit,
                             0, 0.001);
  }
  state.counters["points"] = static_cast<double>(p.pts.size());
}
BENCHMARK(BM_StageFlowBothWays)->Arg(1920)->Unit(benchmark::kMicrosecond);

void BM_StageRansac(benchmark::State& state) {
  Pair& p = pairFor(1920);
  std::vector<cv::Point2f> cur;
  std::vector<uint8_t> st;
  const cv::TermCriteria crit(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 0.03);
  cv::calcOpticalFlowPyrLK(p.small0, p.small1, p.pts, cur, st, cv::noArray(), cv::Size(31, 31), 3,
                           crit, 0, 0.001);
  std::vector<uint8_t> mask;
  for (auto _ : state) {
    std::vector<cv::Point2f> a = p.pts, b = cur;
    cv::findFundamentalMat(a, b, cv::FM_RANSAC, 2.4, 0.99, mask);
    RansacDxdy(a, b, mask);
    benchmark::DoNotOptimize(a.data());
  }
}
BENCHMARK(BM_StageRansac)->Unit(benchmark::kMicrosecond);

void BM_StageStripRefine(benchmark::State& state) {
  const int w = static_cast<int>(state.range(0)), h = w * 9 / 16;
  Pair& p = pairFor(w);
  PixelAlignment pa(w);
  const int stripH = ((static_cast<int>(h * 0.6) + 63) / 64) * 64;
  const PixelAlignment::Input in{w / 2, h / 2, -w / 80, 0, 8, stripH, 16, 8};
  for (auto _ : state) benchmark::DoNotOptimize(pa.searchUsingVstrip(p.full1, p.full0, in));
}
BENCHMARK(BM_StageStripRefine)->Arg(1920)->Arg(1280)->Unit(benchmark::kMicrosecond);

void BM_StageDetect(benchmark::State& state) {
  Pair& p = pairFor(1920);
  FeatFastShiTomasi f(p.small1.rows, p.small1.cols);
  std::vector<cv::Point2f> none, out;
  out.reserve(256);
  for (auto _ : state) {
    out.clear();
    f.updateGridCount(none, MOVE_RIGHT);
    f.detectFeatFromBlock(p.small1, out);
  }
}
BENCHMARK(BM_StageDetect)->Unit(benchmark::kMicrosecond);

void BM_StageFullResCopy(benchmark::State& state) {
  Pair& p = pairFor(1920);
  cv::Mat dst(p.full0.size(), CV_8UC1);
  for (auto _ : state) std::memcpy(dst.data, p.full0.data, p.full0.total());
}
BENCHMARK(BM_StageFullResCopy)->Unit(benchmark::kMicrosecond);

// --- the gyroscope offset, on the same two frames at 1920 x 1080 ------------------------------
// The attitudes turn the camera by the frames' step (24 full-resolution pixels to the right);
// the tracker only asks whether a gyroscope exists, so a stand-in handle says yes.

struct ImuPair {
  Pair& p = pairFor(1920);
  std::unique_ptr<ModuleTrack> t = std::make_unique<ModuleTrack>(1920, 1080);
  NV21Img img;
  __tag_ZOLT_OFFSCREEN buf;
  char tag = 0;
  ImuPair() {
    const double yaw = std::atan(24.0 * t->scale / t->fx);
    // A turn about the phone's x axis by -yaw is a right turn of the landscape camera.
    const double pre[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double cur[9] = {1, 0, 0, 0, std::cos(yaw), std::sin(yaw), 0, -std::sin(yaw), std::cos(yaw)};
    std::copy(pre, pre + 9, t->preRMatGyro);
    std::copy(cur, cur + 9, t->curRMatGyro);
    t->moveDir = MOVE_RIGHT;
    t->trackCnt = 2;
    p.small0.copyTo(t->preImg);
    p.small1.copyTo(t->curImg);
    p.full0.copyTo(t->preImgHighRes);
    sweepFor(1920).wrap(11, img, buf);
  }
};

void BM_ImuOffset(benchmark::State& state) {
  ImuPair s;
  ZOLT_PANO_SetLogSink(dropLine, nullptr);
  SensorInterface* saved = pSensorHandle;
  pSensorHandle = reinterpret_cast<SensorInterface*>(&s.tag);
  double x = 0, y = 0;
  for (auto _ : state) benchmark::DoNotOptimize(s.t->ComputeOffXY_IMU(x, y, s.img));
  pSensorHandle = saved;
  ZOLT_PANO_SetLogSink(nullptr, nullptr);
  state.counters["offX_fullres"] = x / s.t->scale;
}
BENCHMARK(BM_ImuOffset)->Unit(benchmark::kMicrosecond);

void BM_ImuPrediction(benchmark::State& state) {
  ImuPair s;
  double x = 0, y = 0;
  for (auto _ : state) {
    s.t->predictOffXY_IMU(ModuleTrack::gyroToCameraAxes(s.t->preRMatGyro),
                          ModuleTrack::gyroToCameraAxes(s.t->curRMatGyro), x, y);
    benchmark::DoNotOptimize(x);
  }
}
BENCHMARK(BM_ImuPrediction)->Unit(benchmark::kMicrosecond);

void BM_ImuLowResSearch(benchmark::State& state) {
  ImuPair s;
  for (auto _ : state)
    benchmark::DoNotOptimize(s.t->searchStripIMU(s.t->curImg, s.t->preImg, -5, 0, 200, 16, 8));
}
BENCHMARK(BM_ImuLowResSearch)->Unit(benchmark::kMicrosecond);

void BM_ImuHighResSearch(benchmark::State& state) {
  ImuPair s;
  const cv::Mat frame(1080, 1920, CV_8UC1, s.img.yPlane);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        s.t->searchStripIMU(frame, s.t->preImgHighRes, -24, 0, s.t->roundedHeight60, 16, 8));
}
BENCHMARK(BM_ImuHighResSearch)->Unit(benchmark::kMicrosecond);

}  // namespace
