// The phases of zoltpano soak (soak_command.cpp): each drives engines through the engine
// session and checks what must hold; failures are counted by a Checker and printed as "FAIL: ...".
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zolt::tools::soak {

struct Args {
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
  int saveEvery = 1;         // SaveImage on every n-th cycle (0: never)
  double maxGrowthMb = 1.0;  // memory in use, after the warm-up
  bool gyroscope = false;
  std::string outDir = "/tmp";
};

using Nv21 = std::vector<uint8_t>;  // a packed NV21 frame

struct Checker {
  int failures = 0;
  void expect(bool ok, const std::string& what) {
    if (!ok) {
      ++failures;
      std::printf("FAIL: %s\n", what.c_str());
    }
  }
};

// Rate and memory of a phase of `count` steps: resident memory and the memory in use after the
// first tenth and at the end. Flat means the memory in use; resident memory is reported.
struct Meter {
  long count, warm;
  std::chrono::steady_clock::time_point start;
  double cpu0;  // processor seconds at the start
  double perSecond = 0;
  double cpuMsEach = 0;  // processor milliseconds per step
  long rssWarmKb = 0, rssEndKb = 0;
  long heapWarmKb = 0, heapEndKb = 0;

  explicit Meter(long n);
  void stepDone(long i);
  void endMemory();
  void stop();
  double growthMb() const;
  double heapGrowthMb() const;
  void expectFlat(const Args& o, const char* phase, Checker& check) const;
};

// Lines "stop - warn: LoopStop..." the engine has logged (the soak's log sink counts them).
extern std::atomic<long> loopStopLines;
extern const bool kSanitized;

// A /proc/self/status field in kB; megabytes of kB.
long statusKb(const char* field);
double mb(long kb);

// The short sweep every phase replays, rendered from the photo.
std::vector<Nv21> renderSweep(const Args& o);
// A sweep that runs past the end of a canvas shorter than the sweep.
void fillPhase(const Args& o, std::vector<Nv21>& frames, Checker& check);
// o.frames frames through one engine.
Meter framesPhase(const Args& o, std::vector<Nv21>& frames, Checker& check);
// o.cycles Initial / frames / SaveImage / Release cycles; no thread may be left after one.
Meter cyclesPhase(const Args& o, std::vector<Nv21>& frames, int threadsIdle, Checker& check);
// Warms the libraries up with one engine (their worker threads start on first use).
void warmUp(const Args& o, std::vector<Nv21>& frames);

}  // namespace zolt::tools::soak
