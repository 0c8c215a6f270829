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
#include <android/log.h>
#include <zolt_host_sensor.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tools/command.h"
#include "tools/engine_session.h"
#include "tools/process_stats.h"
#include "tools/soak_phases.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

using namespace soak;

const char* kLoopStop = "stop - warn: LoopStop******************************";

// The engine logs a few lines per frame; the soak counts the LoopStop lines and drops the rest
// unless --verbose.
bool gVerbose = false;

// The engine's log sink: counts the full-canvas lines, and passes every line on to the
// platform log with --verbose.
void countingSink(int priority, const char* tag, const char* line, void*) {
  if (std::strcmp(line, kLoopStop) == 0) ++loopStopLines;
  if (gVerbose) __android_log_write(priority, tag, line);
}

int runSoak(Args& o) {
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
  std::printf(
      "soak %dx%d%s: %zu rendered frames; RSS %.1f MB before the first engine, %d threads\n",
      o.width, o.height, kSanitized ? " (sanitizer build: growth not judged)" : "", frames.size(),
      mb(baselineKb), threadsStart);

  Checker check;
  // One engine first: libraries start their own worker threads on first use (OpenCV's pool);
  // the engine must not add to them.
  warmUp(o, frames);
  // The first engine's sensor thread has been joined; the pool's workers stay. Settling
  // towards the start count waits out the joined thread (and the two seconds, as the pool's
  // workers keep the count above it).
  const int threadsIdle = threadCountSettled(threadsStart);
  const auto start = std::chrono::steady_clock::now();
  Meter run(0), cyc(0);
  try {
    if (o.fill) fillPhase(o, frames, check);
    if (o.frames > 0) run = framesPhase(o, frames, check);
    if (o.cycles > 0) cyc = cyclesPhase(o, frames, threadsIdle, check);
  } catch (const SessionError& e) {
    check.expect(false, e.what());
  }
  const int threadsEnd = threadCountSettled(threadsIdle);
  check.expect(threadsEnd == threadsIdle, "threads back to the count before the first engine");

  std::printf(
      "figures size=%dx%d frames_per_s=%.1f frame_cpu_ms=%.2f cycles_per_s=%.1f "
      "cycle_cpu_ms=%.1f vmhwm_mb=%.1f baseline_mb=%.1f frames_growth_mb=%+.1f "
      "cycles_growth_mb=%+.1f frames_in_use_mb=%+.2f cycles_in_use_mb=%+.2f "
      "threads=%d/%d time_s=%.1f\n",
      o.width, o.height, run.perSecond, run.cpuMsEach, cyc.perSecond, cyc.cpuMsEach,
      mb(statusKb("VmHWM")), mb(baselineKb), run.growthMb(), cyc.growthMb(), run.heapGrowthMb(),
      cyc.heapGrowthMb(), threadsIdle, threadsEnd,
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  std::printf("%s: %d check%s failed\n", check.failures == 0 ? "soak passed" : "soak FAILED",
              check.failures, check.failures == 1 ? "" : "s");
  return check.failures == 0 ? kExitOk : kExitFailure;
}

Command setupSoak(CLI::App& program) {
  auto [o, app] =
      addCommand<Args>(program, "soak", "Long runs of the engine through its C interface, checked");
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
  return {app, [o = o] { return runSoak(*o); }};
}

const CommandRegistration kRegisterSoak(setupSoak);

}  // namespace
}  // namespace zolt::tools
