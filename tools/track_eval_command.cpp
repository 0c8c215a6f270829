// zoltpano track-eval [options]: runs the tracker over simulated sweeps, by vision alone or with
// the sweep's gyroscope (--gyro), and reports how far its accumulated camera position is from the
// truth at the key frames, whether it fixed the right direction, which codes it raised and, with
// the gyroscope, how far the gyroscope's prediction alone is from the true offset.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "engine/orrery_engine.h"
#include "sim/sim_error.h"
#include "sim/sweep_config.h"
#include "sim/sweep_simulator.h"
#include "tools/command.h"
#include "tools/engine_session.h"
#include "tools/gyro_feed.h"
#include "tools/metrics.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

struct EvalArgs {
  std::vector<std::string> photos;
  std::vector<std::string> sizes{"1280x720", "1920x1080"};
  std::vector<std::string> presets{"steady", "handheld"};
  std::vector<std::string> directions{"right", "left", "down", "up"};
  std::string model = "translate";
  int frames = 0;
  uint64_t seed = 1;
  bool perSweep = false;
  bool gyro = false;
  double gyroOffsetMs = 0.0;
};

std::vector<std::string> defaultPhotos() {
  const char* names[] = {
      "Bridge_by_Sander_Klootwijk.jpg",     "Dragonfly_by_Bolly.jpg",
      "Kleiber_by_Lukas_Baubkus.jpg",       "Picture_0B_by_freespace.jpg",
      "aitzgorri_by_Aitzol_Berasategi.jpg", "friends_by_Aitzol_Berasategi.jpg",
      "life_by_Aitzol_Berasategi.jpg",      "picosdeeuropa_by_Aitzol_Berasategi.jpg",
      "seeding_by_Clements_Engelhardt.jpg", "sunset_by_Aitzol_Berasategi.jpg"};
  std::vector<std::string> out;
  for (const char* n : names) out.push_back(std::string("/usr/share/backgrounds/") + n);
  return out;
}

struct SweepResult {
  std::vector<double> errors;  // per key frame, full-resolution pixels
  // Key-frame steps are whole full-resolution pixels, so even a perfect match accumulates the
  // rounding of every step: floorErrors is that accumulation (each true step rounded), and
  // stepErrors the error of each measured step against the true one.
  std::vector<double> floorErrors, stepErrors;
  double lastError = 0.0, sweptLength = 0.0;
  bool directionRight = false;
  std::map<int, int> codes;  // code -> frames
  int frames = 0, keyFrames = 0;
  // With the gyroscope: per frame, the distance between what the rotation since the reference
  // predicts and the true offset from the reference, low-resolution pixels.
  std::vector<double> gyroErrors;
};

// One simulated sweep through the engine, as a camera app feeds it, with the sweep's gyroscope
// events reaching the engine's sensor thread through the host sensor service; the tracker's
// state is read from the engine after every frame.
SweepResult runOne(const sim::SweepConfig& cfg, bool withGyro) {
  sim::SweepSimulator simulator(cfg);
  // Before Initial: the host has a gyroscope from then on. Events arrive with the frames.
  std::unique_ptr<GyroFeed> gyro;
  if (withGyro)
    gyro = std::make_unique<GyroFeed>(std::vector<sim::GyroEvent>{}, cfg.gyroTimeOffsetMs);
  SessionOptions options;
  options.gyro = gyro.get();
  EngineSession session(cfg.width, cfg.height, options);
  const OrreryEngine& engine = *static_cast<const OrreryEngine*>(session.handle());
  const ModuleTrack& tracker = *engine.tracker;  // its gyroscope camera, for the prediction
  const TrackReport& report = tracker.report;
  SweepResult r;
  sim::SimFrame f;
  bool fixed = false;
  cv::Point2d fix, prevTruth, prevPose, floorPos, refTruth;
  while (simulator.next(f)) {
    if (gyro) gyro->append(f.gyro);
    // The reference's attitude before this frame is tracked.
    const cv::Matx33d reference = ModuleTrack::gyroToCameraAxes(tracker.preRMatGyro);
    const FrameRecord rec = session.feed(f.nv21.data(), static_cast<double>(f.tNs) * 1e-6);
    if (gyro && f.index > 0) {
      // The prediction from the attitude the engine handed the tracker for this frame.
      double x = 0, y = 0;
      tracker.predictOffXY_IMU(reference, ModuleTrack::gyroToCameraAxes(engine.imuRotation), x, y);
      r.gyroErrors.push_back(std::hypot(x - (f.truth.dx - refTruth.x) * tracker.scale,
                                        y - (f.truth.dy - refTruth.y) * tracker.scale));
    }
    if (f.index == 0 || (report.direction != MOVE_NONE && report.keyFrame))
      refTruth = {f.truth.dx, f.truth.dy};
    ++r.frames;
    if (rec.code != SUCCESS && rec.code != INFO_TRACE_FIRST_FRAME) ++r.codes[rec.code];
    if (!fixed && report.direction != MOVE_NONE) {
      fixed = true;
      fix = {f.truth.x, f.truth.y};
      prevTruth = prevPose = floorPos = {0, 0};
    }
    if (report.direction != MOVE_NONE && report.keyFrame) {
      ++r.keyFrames;
      // Positions as displacements since the direction was fixed (the pose runs against them).
      const cv::Point2d truth(f.truth.x - fix.x, f.truth.y - fix.y);
      const cv::Point2d pose = -report.keyPose;
      r.errors.push_back(cv::norm(pose - truth));
      const cv::Point2d truthStep = truth - prevTruth, poseStep = pose - prevPose;
      floorPos += cv::Point2d(std::round(truthStep.x), std::round(truthStep.y));
      r.floorErrors.push_back(cv::norm(floorPos - truth));
      r.stepErrors.push_back(cv::norm(poseStep - truthStep));
      prevTruth = truth;
      prevPose = pose;
      r.lastError = r.errors.back();
      r.sweptLength = std::fabs(cfg.horizontalSweep() ? truth.x : truth.y);
    }
  }
  r.directionRight = report.direction == static_cast<int>(cfg.direction);
  return r;
}

// The sweeps' figures gathered per "preset size".
struct Tally {
  std::map<std::string, std::vector<double>> errors, floor, step, gyro;
  std::map<std::string, std::map<std::string, int>> codes;
  std::map<std::string, int> sweeps, wrongDirection, errorSweeps;
  std::vector<double> rotateRelative;  // last key frame's error / swept length

  void add(const std::string& key, const SweepResult& r) {
    auto append = [](std::vector<double>& to, const std::vector<double>& v) {
      to.insert(to.end(), v.begin(), v.end());
    };
    append(errors[key], r.errors);
    append(floor[key], r.floorErrors);
    append(step[key], r.stepErrors);
    append(gyro[key], r.gyroErrors);
    ++sweeps[key];
    wrongDirection[key] += !r.directionRight;
    bool anyError = false;
    for (const auto& [c, n] : r.codes) {
      codes[key][ZOLT_PANO_CodeName(c)] += n;
      anyError |= (c & 0xF000) == 0x7000;
    }
    errorSweeps[key] += anyError;
    if (r.sweptLength > 0) rotateRelative.push_back(r.lastError / r.sweptLength);
  }

  // Position: accumulated error at the key frames; floor: the same for exact whole-pixel
  // steps; step: each key frame's measured step against the true one.
  void print(const EvalArgs& a) {
    std::printf("\n%-20s %6s %8s %8s %8s %8s %8s %8s %5s %5s  %s\n", "preset size", "sweeps",
                "pos med", "pos p95", "flr med", "flr p95", "step med", "step p95", "wrong", "ERR_",
                "codes (frames)");
    for (const auto& [key, errs] : errors) {
      std::ostringstream names;
      for (const auto& [name, n] : codes[key]) names << name << " " << n << "  ";
      const Spread pos = spread(errs), flr = spread(floor[key]), stp = spread(step[key]);
      std::printf("%-20s %6d %8.2f %8.2f %8.2f %8.2f %8.2f %8.2f %5d %5d  %s\n", key.c_str(),
                  sweeps[key], pos.median, pos.p95, flr.median, flr.p95, stp.median, stp.p95,
                  wrongDirection[key], errorSweeps[key], names.str().c_str());
    }
    if (a.gyro) {
      std::printf(
          "\ngyroscope prediction against the true offset from the reference, "
          "low-resolution pixels (gyroscope clock %+.1f ms):\n",
          a.gyroOffsetMs);
      for (const auto& [key, errs] : gyro) {
        const Spread g = spread(errs);
        std::printf("%-20s frames %6zu  median %6.2f  p95 %6.2f  max %7.2f\n", key.c_str(), g.count,
                    g.median, g.p95, g.max);
      }
    }
    if (a.model == "rotate" && !rotateRelative.empty()) {
      const Spread rel = spread(rotateRelative);
      std::printf("last key frame error / swept length: median %.4f, max %.4f\n", rel.median,
                  rel.max);
    }
  }
};

// The sweep a combination of the command line names; an unknown preset, direction or model is
// a usage error.
sim::SweepConfig sweepConfig(const EvalArgs& a, const std::string& preset, const std::string& size,
                             const std::string& dir, const std::string& photo) {
  try {
    sim::SweepConfig cfg = sim::SweepConfig::fromPreset(preset);
    const size_t x = size.find('x');
    cfg.width = std::stoi(size.substr(0, x));
    cfg.height = std::stoi(size.substr(x + 1));
    cfg.direction = sim::parseDirection(dir);
    cfg.model = sim::parseModel(a.model);
    cfg.photoPath = photo;
    cfg.frames = a.frames;
    cfg.seed = a.seed;
    if (a.gyro) cfg.gyroTimeOffsetMs = a.gyroOffsetMs;
    return cfg;
  } catch (const sim::SimError& e) {
    throw CommandError(e.what(), kExitUsage);
  } catch (const std::logic_error&) {  // std::stoi
    throw CommandError("bad size '" + size + "' (expected WIDTHxHEIGHT)", kExitUsage);
  }
}

void printSweep(const sim::SweepConfig& cfg, const std::string& preset, const std::string& size,
                const std::string& dir, const SweepResult& r) {
  std::ostringstream codes;
  for (const auto& [c, n] : r.codes) codes << " " << ZOLT_PANO_CodeName(c) << "x" << n;
  const std::string& photo = cfg.photoPath;
  const Spread pos = spread(r.errors);
  std::printf(
      "%-9s %-9s %-5s %-40s frames %3d key %3d dir %s median %.2f p95 %.2f "
      "floor %.2f step %.2f last %.2f / %.0f%s\n",
      preset.c_str(), size.c_str(), dir.c_str(), photo.substr(photo.find_last_of('/') + 1).c_str(),
      r.frames, r.keyFrames, r.directionRight ? "ok" : "WRONG", pos.median, pos.p95,
      percentile(r.floorErrors, 0.5), percentile(r.stepErrors, 0.5), r.lastError, r.sweptLength,
      codes.str().c_str());
}

int runEval(const EvalArgs& a) {
  const int logLevel = ZOLT_PANO_GetLogLevel();
  ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
  const std::vector<std::string> photos = a.photos.empty() ? defaultPhotos() : a.photos;
  Tally tally;
  for (const std::string& preset : a.presets)
    for (const std::string& size : a.sizes)
      for (const std::string& dir : a.directions)
        for (const std::string& photo : photos) {
          const sim::SweepConfig cfg = sweepConfig(a, preset, size, dir, photo);
          SweepResult r;
          try {
            r = runOne(cfg, a.gyro);
          } catch (const std::exception& ex) {  // a sweep that does not fit, a refused size
            std::fprintf(stderr, "skip %s %s %s %s: %s\n", preset.c_str(), size.c_str(),
                         dir.c_str(), photo.c_str(), ex.what());
            continue;
          }
          tally.add(preset + " " + size, r);
          if (a.perSweep) printSweep(cfg, preset, size, dir, r);
        }
  tally.print(a);
  ZOLT_PANO_SetLogLevel(logLevel);
  return kExitOk;
}

Command setupTrackEval(CLI::App& program) {
  auto [args, app] = addCommand<EvalArgs>(
      program, "track-eval", "Run the tracker over simulated sweeps and compare it with the truth");
  app->add_option("--photos", args->photos, "Photos (default: ten of /usr/share/backgrounds)")
      ->delimiter(',');
  app->add_option("--sizes", args->sizes, "Frame sizes")->delimiter(',')->capture_default_str();
  app->add_option("--presets", args->presets, "Presets")->delimiter(',')->capture_default_str();
  app->add_option("--directions", args->directions, "Directions")
      ->delimiter(',')
      ->capture_default_str();
  app->add_option("-m,--model", args->model, "translate or rotate")->capture_default_str();
  app->add_option("-n,--frames", args->frames, "Frames per sweep (0: as many as fit)");
  app->add_option("--seed", args->seed, "Random seed")->capture_default_str();
  app->add_flag("--per-sweep", args->perSweep, "One line per sweep");
  app->add_flag("--gyro", args->gyro,
                "Give the tracker the sweep's gyroscope (through the host sensor service)");
  app->add_option("--gyro-offset-ms", args->gyroOffsetMs,
                  "With --gyro: the gyroscope clock runs this late (ms; noise and bias come from "
                  "the preset)")
      ->capture_default_str();
  return {app, [args = args] { return runEval(*args); }};
}

const CommandRegistration kRegisterTrackEval(setupTrackEval);

}  // namespace
}  // namespace zolt::tools
