#include "tools/soak_phases.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_config.h"
#include "sim/sweep_simulator.h"
#include "tools/engine_session.h"
#include "tools/process_stats.h"
#include "zolt_pano_ext.h"

namespace zolt::tools::soak {

// Sanitizer builds keep freed memory in quarantine: resident memory says nothing about leaks
// there (LeakSanitizer does), so growth is reported but not judged.
#if defined(__SANITIZE_ADDRESS__)
const bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif
#else
const bool kSanitized = false;
#endif

std::atomic<long> loopStopLines{0};

// A /proc/self/status field in kB.
long statusKb(const char* field) {
  std::ifstream in("/proc/self/status");
  const std::string key = std::string(field) + ":";
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, key.size(), key) == 0) return std::atol(line.c_str() + key.size());
  return -1;
}
double mb(long kb) { return kb / 1024.0; }

static long heapInUseKb() { return static_cast<long>(heapInUseBytes() / 1024); }

// Processor time of the whole process (all threads), seconds: on a shared machine the wall
// clock says more about the neighbours than about the engine.
static double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

// An engine whose canvas holds a panorama of `maxSweepLength` pixels; with --gyroscope, Initial
// starts the sensor thread and Release joins it.
static SessionOptions canvasFor(int maxSweepLength) {
  SessionOptions o;
  o.maxSweepLength = maxSweepLength;
  return o;
}

// Frame k of a phase, at a nominal 30 frames a second.
static FrameRecord feed(EngineSession& engine, const Nv21& frame, long k) {
  return engine.feed(frame.data(), k * 1000.0 / 30.0);
}

std::vector<Nv21> renderSweep(const Args& o) {
  sim::SweepConfig cfg = sim::SweepConfig::fromPreset("steady");
  cfg.width = o.width;
  cfg.height = o.height;
  cfg.frames = o.sweepFrames;
  cfg.speed = o.speed;
  cfg.photoPath = o.photo;
  cfg.photoScale = o.photoScale > 0 ? o.photoScale : o.width / 1280.0;
  sim::SweepSimulator sim(cfg);
  std::vector<Nv21> frames;
  for (sim::SimFrame f; sim.next(f);) frames.push_back(std::move(f.nv21));
  return frames;
}

// Mean absolute difference between the saved JPEG's luma and the canvas's Y plane over the valid
// rectangle (the engine converts with full-range luma, which BGR -> grey gives back).
static double differenceToCanvas(const cv::Mat& jpeg, const EngineSession& engine) {
  const tsRECT& valid = engine.validRect();
  const cv::Rect r(valid.left, valid.top, valid.right - valid.left, valid.bottom - valid.top);
  if (jpeg.empty() || jpeg.size() != r.size()) return 255.0;
  cv::Mat y = engine.canvasLuma(), grey, d;
  cv::cvtColor(jpeg, grey, cv::COLOR_BGR2GRAY);
  cv::absdiff(grey, y(r), d);
  return cv::mean(d)[0];
}

// A sweep that runs past the end of a canvas shorter than the sweep.
void fillPhase(const Args& o, std::vector<Nv21>& frames, Checker& check) {
  const int w = o.width, h = o.height;
  // The canvas holds about 60 % of the sweep's travel beyond the first frame.
  const int travel = static_cast<int>(o.speed * w * static_cast<double>(frames.size()));
  EngineSession engine(w, h, canvasFor(w + (travel * 6 / 10) / 2 * 2 - 1));
  const long loopStopBefore = loopStopLines;
  int firstRefused = -1, refused = 0, acceptedAfter = 0;
  const std::string name = o.outDir + "/zoltpano_soak_fill";
  for (size_t k = 0; k < frames.size(); ++k) {
    const FrameRecord f = feed(engine, frames[k], static_cast<long>(k));
    if (!f.directionWritten) {
      ++refused;
      if (firstRefused < 0) firstRefused = static_cast<int>(k);
      check.expect(!f.keyFrame && !f.progressWritten && !f.rectWritten,
                   "fill: a refused frame leaves the outputs alone");
      check.expect(f.refusal == ZOLT_PANO_ERR_CANVAS_FULL, "fill: the refusal is ERR_CANVAS_FULL");
    } else {
      acceptedAfter += firstRefused >= 0;
    }
  }
  check.expect(engine.saveImage(name) == 0, "fill: SaveImage reports no refusal");
  engine.release();
  const long loopStops = loopStopLines - loopStopBefore;
  const cv::Mat jpeg = cv::imread(name + ".jpg");
  std::remove((name + ".jpg").c_str());
  const tsRECT& v = engine.validRect();
  const int panoWidth = v.right - v.left;
  const int canvasWidth = engine.canvasSize().width;
  const double diff = differenceToCanvas(jpeg, engine);
  std::printf(
      "fill: canvas %dx%d, full after frame %d of %zu, %d frames refused, %ld LoopStop "
      "lines, panorama %dx%d (valid %d..%d), JPEG %dx%d, mean difference to the canvas "
      "%.2f\n",
      canvasWidth, h, firstRefused, frames.size(), refused, loopStops, panoWidth, v.bottom - v.top,
      v.left, v.right, jpeg.cols, jpeg.rows, diff);
  check.expect(firstRefused > 0 && refused >= 3,
               "fill: the canvas fills and later frames are refused");
  check.expect(acceptedAfter == 0, "fill: no frame is taken once the canvas is full");
  check.expect(loopStops == 2L * refused, "fill: SelectFrames and AddImage each log LoopStop");
  // The last key frame that fitted ends less than half a frame before the canvas's end.
  check.expect(v.left == 0 && panoWidth > canvasWidth - w / 2 && panoWidth <= canvasWidth,
               "fill: the panorama reaches the end of the canvas");
  check.expect(!jpeg.empty() && jpeg.cols == panoWidth && jpeg.rows == v.bottom - v.top,
               "fill: SaveImage writes the whole valid rectangle");
  check.expect(diff < 3.0, "fill: the saved JPEG shows the canvas");
}

// Ping-pong order over n frames: 0 1 .. n-1 n-2 .. 1 0 1 ..
static size_t pingPong(long i, size_t n) {
  const long period = 2 * static_cast<long>(n) - 2;
  const long p = i % period;
  return static_cast<size_t>(p < static_cast<long>(n) ? p : period - p);
}

Meter::Meter(long n)
    : count(n),
      warm(std::max(1L, n / 10)),
      start(std::chrono::steady_clock::now()),
      cpu0(cpuSeconds()) {}

void Meter::stepDone(long i) {
  if (i + 1 != warm) return;
  rssWarmKb = statusKb("VmRSS");
  heapWarmKb = heapInUseKb();
}

void Meter::endMemory() {
  rssEndKb = statusKb("VmRSS");
  heapEndKb = heapInUseKb();
}

void Meter::stop() {
  perSecond =
      count / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  cpuMsEach = 1000.0 * (cpuSeconds() - cpu0) / count;
}

double Meter::growthMb() const { return mb(rssEndKb - rssWarmKb); }
double Meter::heapGrowthMb() const { return mb(heapEndKb - heapWarmKb); }

void Meter::expectFlat(const Args& o, const char* phase, Checker& check) const {
  if (!kSanitized)
    check.expect(heapGrowthMb() <= o.maxGrowthMb, std::string(phase) + ": memory in use flat");
}

Meter framesPhase(const Args& o, std::vector<Nv21>& frames, Checker& check) {
  std::map<int, long> codes;
  long refused = 0;
  Meter m(o.frames);
  {
    EngineSession engine(o.width, o.height, canvasFor(4 * o.width - 1));
    for (long i = 0; i < o.frames; ++i) {
      const FrameRecord f = feed(engine, frames[pingPong(i, frames.size())], i);
      ++codes[f.code];
      refused += !f.directionWritten;
      m.stepDone(i);
    }
    m.endMemory();
  }
  m.stop();
  std::printf(
      "frames: %ld frames through one engine at %.1f frames/s (%.2f ms of processor time "
      "each), %ld refused; codes:",
      o.frames, m.perSecond, m.cpuMsEach, refused);
  for (const auto& c : codes) std::printf(" 0x%X x%ld", c.first, c.second);
  std::printf(
      "\nframes: RSS %.1f MB after %ld frames, %.1f MB at the end (%+.1f MB); in use %+.2f MB\n",
      mb(m.rssWarmKb), m.warm, mb(m.rssEndKb), m.growthMb(), m.heapGrowthMb());
  check.expect(refused == 0, "frames: the engine keeps taking frames (canvas never full)");
  m.expectFlat(o, "frames", check);
  return m;
}

Meter cyclesPhase(const Args& o, std::vector<Nv21>& frames, int threadsIdle, Checker& check) {
  const std::string name = o.outDir + "/zoltpano_soak_cycle";
  int threadsLeft = 0;
  long failedInit = 0;
  Meter m(o.cycles);
  for (long c = 0; c < o.cycles; ++c) {
    try {
      EngineSession engine(o.width, o.height, canvasFor(2 * o.width - 1));
      for (int k = 0; k < o.cycleFrames; ++k)
        feed(engine, frames[static_cast<size_t>(k) % frames.size()], k);
      if (o.saveEvery > 0 && c % o.saveEvery == 0) engine.saveImage(name);
    } catch (const SessionError&) {
      ++failedInit;
    }
    threadsLeft = std::max(threadsLeft, threadCountSettled(threadsIdle) - threadsIdle);
    m.stepDone(c);
  }
  m.endMemory();
  m.stop();
  std::remove((name + ".jpg").c_str());
  std::printf(
      "cycles: %ld Initial/%d frames/Release cycles at %.1f cycles/s (%.1f ms of processor "
      "time each); RSS %.1f MB after %ld cycles, %.1f MB at the end (%+.1f MB); in use "
      "%+.2f MB; at most %d threads left after a Release\n",
      o.cycles, o.cycleFrames, m.perSecond, m.cpuMsEach, mb(m.rssWarmKb), m.warm, mb(m.rssEndKb),
      m.growthMb(), m.heapGrowthMb(), threadsLeft);
  check.expect(failedInit == 0, "cycles: every Initial succeeds");
  check.expect(threadsLeft == 0, "cycles: no thread left after Release");
  m.expectFlat(o, "cycles", check);
  return m;
}

void warmUp(const Args& o, std::vector<Nv21>& frames) {
  EngineSession engine(o.width, o.height, canvasFor(2 * o.width - 1));
  for (long k = 0; k < 2; ++k) feed(engine, frames[static_cast<size_t>(k)], k);
}

}  // namespace zolt::tools::soak
