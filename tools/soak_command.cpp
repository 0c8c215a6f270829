// zoltpano soak [--size 1280x720] [--frames 10000] [--cycles 1000] [--no-fill] [--gyroscope] ...:
// drives the engine through its C interface for a long time and checks that it neither grows
// nor leaves threads behind, and that a sweep which fills the canvas ends cleanly.
//
// Phases, each in the same process (run one size per process: VmHWM is per process):
//   fill    a sweep longer than the canvas: once the canvas is full every later frame is refused
//           (outputs untouched, "stop - warn: LoopStop..." logged by both calls) and the saved
//           JPEG is the whole canvas that was built;
//   frames  N frames through one engine, ping-ponging over a short rendered sweep, into a canvas
//           that never fills;
//   cycles  N Initial / a few frames / SaveImage / Release cycles.
// Memory is sampled after a warm-up tenth of each phase and at its end: the memory in use must
// stay flat, resident memory is reported; the thread count (/proc/self/task) must be back where
// it was after every Release. Exit status 0 when every check holds, 1 when one failed, 2 for a
// bad command line. Under a sanitizer build the exit status also carries LeakSanitizer's
// verdict.
#include <sys/resource.h>

#include <android/log.h>
#include <zolt_host_sensor.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_config.h"
#include "sim/sweep_simulator.h"
#include "tools/command.h"
#include "tools/process_stats.h"
#include "zolt_pano.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

// Sanitizer builds keep freed memory in quarantine: resident memory says nothing about leaks
// there (LeakSanitizer does), so growth is reported but not judged.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

const char* kLoopStop = "stop - warn: LoopStop******************************";

// The engine logs a few lines per frame; the soak counts the LoopStop lines and drops the rest
// unless --verbose.
std::atomic<long> gLoopStopLines{0};
bool gVerbose = false;

// The engine's log sink: counts the full-canvas lines, and passes every line on to the
// platform log with --verbose.
void countingSink(int priority, const char* tag, const char* line, void*) {
  if (std::strcmp(line, kLoopStop) == 0) ++gLoopStopLines;
  if (gVerbose) __android_log_write(priority, tag, line);
}

// A /proc/self/status field in kB.
long statusKb(const char* field) {
  std::ifstream in("/proc/self/status");
  const std::string key = std::string(field) + ":";
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, key.size(), key) == 0) return std::atol(line.c_str() + key.size());
  return -1;
}
double mb(long kb) { return kb / 1024.0; }

long heapInUseKb() { return static_cast<long>(heapInUseBytes() / 1024); }

// Processor time of the whole process (all threads), seconds: on a shared machine the wall
// clock says more about the neighbours than about the engine.
double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) * 1e-6;
}

// A caller-owned NV21 buffer and its record, VU plane directly behind the Y plane.
struct Nv21 {
  std::vector<uint8_t> buf;
  __tag_ZOLT_OFFSCREEN rec{};
  Nv21(int w, int h) : buf(static_cast<size_t>(w) * h * 3 / 2, 0) {
    rec = {0, w, h, buf.data(), buf.data() + static_cast<size_t>(w) * h};
  }
  Nv21(Nv21&&) = default;
  Nv21(const Nv21&) = delete;
};

struct SoakArgs {
  std::string size = "1280x720";
  int width = 1280, height = 720;
  std::string photo = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";
  double photoScale = 0;  // 0: width / 1280, the same scene in every preview size
  int sweepFrames = 32;   // rendered frames; everything else replays them
  double speed = 0.04;    // along the sweep, fraction of the frame width per frame
  bool fill = true;
  long frames = 10000;
  long cycles = 1000;
  int cycleFrames = 4;
  int saveEvery = 1;  // SaveImage on every n-th cycle (0: never)
  double maxGrowthMb = 1.0;  // memory in use, after the warm-up
  bool gyroscope = false;
  std::string outDir = "/tmp";
};

struct Checker {
  int failures = 0;
  void expect(bool ok, const std::string& what) {
    if (!ok) {
      ++failures;
      std::printf("FAIL: %s\n", what.c_str());
    }
  }
};

// One engine for the life of the object; with --gyroscope, Initial starts the sensor thread and
// Release joins it.
class Engine {
 public:
  Engine(int w, int h) {
    tag_ZOLT_PANO_INIT_PARAM p{};
    p.previewWidth = w;
    p.previewHeight = h;
    p.camOrientation = 90;
    code_ = ZOLT_PANO_Initial(&p, &handle_);
  }
  ~Engine() {
    if (code_ == SUCCESS) ZOLT_PANO_Release(&handle_);
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;
  bool ok() const { return code_ == SUCCESS; }

  // One frame as a camera app feeds it. The outputs start as sentinels: a refused frame
  // leaves direction, key-frame flag, valid rectangle and progress as they were.
  struct Step {
    int code = 0;
    int direction = -1;
    long isKey = -1;
    int progress = -1;
    tsRECT valid{-1, -1, -1, -1};
  };
  Step feed(__tag_ZOLT_OFFSCREEN& frame, __tag_ZOLT_OFFSCREEN& canvas) {
    Step s;
    tsPOINT offset{};
    int length = 0;
    s.code = ZOLT_PANO_SelectFrames(handle_, nullptr, nullptr, &frame, nullptr, &offset,
                                    &s.isKey, nullptr, &s.direction, &length);
    ZOLT_PANO_AddImage(handle_, nullptr, nullptr, nullptr, nullptr, &canvas, &s.valid, nullptr,
                       &s.progress);
    return s;
  }
  void save(const std::string& name) { ZOLT_PANO_SaveImage(handle_, name); }

 private:
  void* handle_ = nullptr;
  int code_ = -1;
};

std::vector<Nv21> renderSweep(const SoakArgs& o) {
  sim::SweepConfig cfg = sim::SweepConfig::fromPreset("steady");
  cfg.width = o.width;
  cfg.height = o.height;
  cfg.frames = o.sweepFrames;
  cfg.speed = o.speed;
  cfg.photoPath = o.photo;
  cfg.photoScale = o.photoScale > 0 ? o.photoScale : o.width / 1280.0;
  sim::SweepSimulator sim(cfg);
  std::vector<Nv21> frames;
  for (sim::SimFrame f; sim.next(f);) {
    frames.emplace_back(o.width, o.height);
    std::copy(f.nv21.begin(), f.nv21.end(), frames.back().buf.begin());
  }
  return frames;
}

// Mean absolute difference between the saved JPEG's luma and the canvas's Y plane over the valid
// rectangle (the engine converts with full-range luma, which BGR -> grey gives back).
double differenceToCanvas(const cv::Mat& jpeg, const Nv21& canvas, const tsRECT& valid) {
  const cv::Rect r(valid.left, valid.top, valid.right - valid.left, valid.bottom - valid.top);
  if (jpeg.empty() || jpeg.size() != r.size()) return 255.0;
  cv::Mat y(canvas.rec.height, canvas.rec.width, CV_8UC1, canvas.rec.planeY), grey, d;
  cv::cvtColor(jpeg, grey, cv::COLOR_BGR2GRAY);
  cv::absdiff(grey, y(r), d);
  return cv::mean(d)[0];
}

// A sweep that runs past the end of a canvas shorter than the sweep.
void fillPhase(const SoakArgs& o, std::vector<Nv21>& frames, Checker& check) {
  const int w = o.width, h = o.height;
  // The canvas holds about 60 % of the sweep's travel beyond the first frame.
  const int travel = static_cast<int>(o.speed * w * static_cast<double>(frames.size()));
  Nv21 canvas(w + (travel * 6 / 10) / 2 * 2, h);
  const long loopStopBefore = gLoopStopLines;
  int firstRefused = -1, refused = 0, acceptedAfter = 0;
  Engine::Step lastAccepted;
  const std::string name = o.outDir + "/zoltpano_soak_fill";
  {
    Engine engine(w, h);
    check.expect(engine.ok(), "fill: Initial");
    for (size_t k = 0; k < frames.size(); ++k) {
      const Engine::Step s = engine.feed(frames[k].rec, canvas.rec);
      if (s.direction == -1) {
        ++refused;
        if (firstRefused < 0) firstRefused = static_cast<int>(k);
        check.expect(s.isKey == 0 && s.progress == -1 && s.valid.left == -1,
                     "fill: a refused frame leaves the outputs alone");
      } else {
        acceptedAfter += firstRefused >= 0;
        lastAccepted = s;
      }
    }
    engine.save(name);
  }
  const long loopStops = gLoopStopLines - loopStopBefore;
  const cv::Mat jpeg = cv::imread(name + ".jpg");
  std::remove((name + ".jpg").c_str());
  const tsRECT& v = lastAccepted.valid;
  const int panoWidth = v.right - v.left;
  const double diff = differenceToCanvas(jpeg, canvas, v);
  std::printf("fill: canvas %dx%d, full after frame %d of %zu, %d frames refused, %ld LoopStop "
              "lines, panorama %dx%d (valid %d..%d), JPEG %dx%d, mean difference to the canvas "
              "%.2f\n",
              canvas.rec.width, h, firstRefused, frames.size(), refused, loopStops, panoWidth,
              v.bottom - v.top, v.left, v.right, jpeg.cols, jpeg.rows, diff);
  check.expect(firstRefused > 0 && refused >= 3, "fill: the canvas fills and later frames are refused");
  check.expect(acceptedAfter == 0, "fill: no frame is taken once the canvas is full");
  check.expect(loopStops == 2L * refused, "fill: SelectFrames and AddImage each log LoopStop");
  // The last key frame that fitted ends less than half a frame before the canvas's end.
  check.expect(v.left == 0 && panoWidth > canvas.rec.width - w / 2 && panoWidth <= canvas.rec.width,
               "fill: the panorama reaches the end of the canvas");
  check.expect(!jpeg.empty() && jpeg.cols == panoWidth && jpeg.rows == v.bottom - v.top,
               "fill: SaveImage writes the whole valid rectangle");
  check.expect(diff < 3.0, "fill: the saved JPEG shows the canvas");
}

// Ping-pong order over n frames: 0 1 .. n-1 n-2 .. 1 0 1 ..
size_t pingPong(long i, size_t n) {
  const long period = 2 * static_cast<long>(n) - 2;
  const long p = i % period;
  return static_cast<size_t>(p < static_cast<long>(n) ? p : period - p);
}

// Rate and memory of a phase of `count` steps: resident memory and the memory in use after the
// first tenth and at the end. Flat means the memory in use; resident memory is reported.
struct Meter {
  long count, warm;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  double cpu0 = cpuSeconds();
  double perSecond = 0;
  double cpuMsEach = 0;  // processor milliseconds per step
  long rssWarmKb = 0, rssEndKb = 0;
  long heapWarmKb = 0, heapEndKb = 0;

  explicit Meter(long n) : count(n), warm(std::max(1L, n / 10)) {}
  void stepDone(long i) {
    if (i + 1 != warm) return;
    rssWarmKb = statusKb("VmRSS");
    heapWarmKb = heapInUseKb();
  }
  void endMemory() {
    rssEndKb = statusKb("VmRSS");
    heapEndKb = heapInUseKb();
  }
  void stop() {
    perSecond = count / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    cpuMsEach = 1000.0 * (cpuSeconds() - cpu0) / count;
  }
  double growthMb() const { return mb(rssEndKb - rssWarmKb); }
  double heapGrowthMb() const { return mb(heapEndKb - heapWarmKb); }
  void expectFlat(const SoakArgs& o, const char* phase, Checker& check) const {
    if (!kSanitized)
      check.expect(heapGrowthMb() <= o.maxGrowthMb, std::string(phase) + ": memory in use flat");
  }
};

Meter framesPhase(const SoakArgs& o, std::vector<Nv21>& frames, Checker& check) {
  Nv21 canvas(4 * o.width, o.height);
  std::map<int, long> codes;
  long refused = 0;
  Meter m(o.frames);
  {
    Engine engine(o.width, o.height);
    check.expect(engine.ok(), "frames: Initial");
    for (long i = 0; i < o.frames; ++i) {
      const Engine::Step s = engine.feed(frames[pingPong(i, frames.size())].rec, canvas.rec);
      ++codes[s.code];
      refused += s.direction == -1;
      m.stepDone(i);
    }
    m.endMemory();
  }
  m.stop();
  std::printf("frames: %ld frames through one engine at %.1f frames/s (%.2f ms of processor time "
              "each), %ld refused; codes:",
              o.frames, m.perSecond, m.cpuMsEach, refused);
  for (const auto& c : codes) std::printf(" 0x%X x%ld", c.first, c.second);
  std::printf("\nframes: RSS %.1f MB after %ld frames, %.1f MB at the end (%+.1f MB); in use %+.2f MB\n",
              mb(m.rssWarmKb), m.warm, mb(m.rssEndKb), m.growthMb(), m.heapGrowthMb());
  check.expect(refused == 0, "frames: the engine keeps taking frames (canvas never full)");
  m.expectFlat(o, "frames", check);
  return m;
}

Meter cyclesPhase(const SoakArgs& o, std::vector<Nv21>& frames, int threadsIdle, Checker& check) {
  Nv21 canvas(2 * o.width, o.height);
  const std::string name = o.outDir + "/zoltpano_soak_cycle";
  int threadsLeft = 0;
  long failedInit = 0;
  Meter m(o.cycles);
  for (long c = 0; c < o.cycles; ++c) {
    {
      Engine engine(o.width, o.height);
      failedInit += !engine.ok();
      for (int k = 0; k < o.cycleFrames; ++k)
        engine.feed(frames[static_cast<size_t>(k) % frames.size()].rec, canvas.rec);
      if (o.saveEvery > 0 && c % o.saveEvery == 0) engine.save(name);
    }
    threadsLeft = std::max(threadsLeft, threadCountSettled(threadsIdle) - threadsIdle);
    m.stepDone(c);
  }
  m.endMemory();
  m.stop();
  std::remove((name + ".jpg").c_str());
  std::printf("cycles: %ld Initial/%d frames/Release cycles at %.1f cycles/s (%.1f ms of processor "
              "time each); RSS %.1f MB after %ld cycles, %.1f MB at the end (%+.1f MB); in use "
              "%+.2f MB; at most %d threads left after a Release\n",
              o.cycles, o.cycleFrames, m.perSecond, m.cpuMsEach, mb(m.rssWarmKb), m.warm,
              mb(m.rssEndKb), m.growthMb(), m.heapGrowthMb(), threadsLeft);
  check.expect(failedInit == 0, "cycles: every Initial succeeds");
  check.expect(threadsLeft == 0, "cycles: no thread left after Release");
  m.expectFlat(o, "cycles", check);
  return m;
}

int runSoak(SoakArgs& o) {
  if (std::sscanf(o.size.c_str(), "%dx%d", &o.width, &o.height) != 2 || o.width <= 640 ||
      o.height <= 640 || o.width % 2 != 0 || o.height % 2 != 0) {
    printError("soak", "bad size '" + o.size + "' (even WxH, both above 640)");
    return kExitUsage;
  }
  // With the host's gyroscope every Initial starts the sensor thread and every Release must
  // join it, which the thread count after each cycle checks.
  zolt_host_sensor_set_gyroscope(o.gyroscope ? 1 : 0);
  ZOLT_PANO_SetLogSink(countingSink, nullptr);

  const int threadsStart = threadCount();
  std::vector<Nv21> frames;
  try {
    frames = renderSweep(o);
  } catch (const std::exception& e) {
    printError("soak", std::string("cannot render the sweep: ") + e.what());
    return kExitFailure;
  }
  const long baselineKb = statusKb("VmRSS");
  std::printf("soak %dx%d%s: %zu rendered frames; RSS %.1f MB before the first engine, %d threads\n",
              o.width, o.height, kSanitized ? " (sanitizer build: growth not judged)" : "",
              frames.size(), mb(baselineKb), threadsStart);

  Checker check;
  // One engine first: libraries start their own worker threads on first use (OpenCV's pool);
  // the engine must not add to them.
  {
    Nv21 canvas(2 * o.width, o.height);
    Engine engine(o.width, o.height);
    for (size_t k = 0; k < 2; ++k) engine.feed(frames[k].rec, canvas.rec);
  }
  // The first engine's sensor thread has been joined; the pool's workers stay. Settling
  // towards the start count waits out the joined thread (and the two seconds, as the pool's
  // workers keep the count above it).
  const int threadsIdle = threadCountSettled(threadsStart);
  const auto start = std::chrono::steady_clock::now();
  if (o.fill) fillPhase(o, frames, check);
  Meter run(0), cyc(0);
  if (o.frames > 0) run = framesPhase(o, frames, check);
  if (o.cycles > 0) cyc = cyclesPhase(o, frames, threadsIdle, check);
  const int threadsEnd = threadCountSettled(threadsIdle);
  check.expect(threadsEnd == threadsIdle, "threads back to the count before the first engine");

  std::printf("figures size=%dx%d frames_per_s=%.1f frame_cpu_ms=%.2f cycles_per_s=%.1f "
              "cycle_cpu_ms=%.1f vmhwm_mb=%.1f baseline_mb=%.1f frames_growth_mb=%+.1f "
              "cycles_growth_mb=%+.1f frames_in_use_mb=%+.2f cycles_in_use_mb=%+.2f "
              "threads=%d/%d time_s=%.1f\n",
              o.width, o.height, run.perSecond, run.cpuMsEach, cyc.perSecond, cyc.cpuMsEach,
              mb(statusKb("VmHWM")), mb(baselineKb), run.growthMb(), cyc.growthMb(),
              run.heapGrowthMb(), cyc.heapGrowthMb(), threadsIdle, threadsEnd,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  std::printf("%s: %d check%s failed\n", check.failures == 0 ? "soak passed" : "soak FAILED",
              check.failures, check.failures == 1 ? "" : "s");
  return check.failures == 0 ? kExitOk : kExitFailure;
}

Command setupSoak(CLI::App& program) {
  auto o = std::make_shared<SoakArgs>();
  CLI::App* app =
      program.add_subcommand("soak", "Long runs of the engine through its C interface, checked");
  app->option_defaults()->always_capture_default();
  app->add_option("--size", o->size, "preview size WxH");
  app->add_option("--photo", o->photo, "photo the sweep is rendered from");
  app->add_option("--photo-scale", o->photoScale, "photo scale factor (0: preview width / 1280)")
      ->check(CLI::Range(0.0, 8.0));
  app->add_option("--sweep-frames", o->sweepFrames, "rendered frames, replayed by every phase")
      ->check(CLI::Range(8, 1000));
  app->add_option("--frames", o->frames, "frames through one engine (0: skip)")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--cycles", o->cycles, "Initial/Release cycles (0: skip)")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--cycle-frames", o->cycleFrames, "frames fed in each cycle")
      ->check(CLI::Range(0, 1000));
  app->add_option("--save-every", o->saveEvery, "SaveImage on every n-th cycle (0: never)")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--max-growth-mb", o->maxGrowthMb,
                  "largest growth of the memory in use after warm-up that passes (not judged "
                  "under sanitizers)");
  app->add_option("--out-dir", o->outDir, "where the JPEGs are written (and removed)");
  app->add_flag("!--no-fill", o->fill, "skip the sweep that fills the canvas");
  app->add_flag("--gyroscope", o->gyroscope, "run with the host's gyroscope stand-in present");
  app->add_flag("-v,--verbose", gVerbose, "print the engine's log");
  return {app, [o] { return runSoak(*o); }};
}

const CommandRegistration kRegisterSoak(setupSoak);

}  // namespace
}  // namespace zolt::tools
