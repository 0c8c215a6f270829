// zoltpano track-eval [options]: runs the tracker over simulated sweeps, by vision alone or with
// the sweep's gyroscope (--gyro), and reports how far its accumulated camera position is from the
// truth at the key frames, whether it fixed the right direction, which codes it raised and, with
// the gyroscope, how far the gyroscope's prediction alone is from the true offset.
#include <android/log.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sim/sim_error.h"
#include "sim/sweep_config.h"
#include "sim/sweep_simulator.h"
#include "sensor/sensor_handle.h"
#include "sensor/sensor_interface.h"
#include "tools/command.h"
#include "zolt_host_sensor.h"
#include "zolt_pano_ext.h"
#include "tracker/module_track.h"

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
  const char* names[] = {"Bridge_by_Sander_Klootwijk.jpg", "Dragonfly_by_Bolly.jpg",
                         "Kleiber_by_Lukas_Baubkus.jpg", "Picture_0B_by_freespace.jpg",
                         "aitzgorri_by_Aitzol_Berasategi.jpg", "friends_by_Aitzol_Berasategi.jpg",
                         "life_by_Aitzol_Berasategi.jpg", "picosdeeuropa_by_Aitzol_Berasategi.jpg",
                         "seeding_by_Clements_Engelhardt.jpg", "sunset_by_Aitzol_Berasategi.jpg"};
  std::vector<std::string> out;
  for (const char* n : names) out.push_back(std::string("/usr/share/backgrounds/") + n);
  return out;
}

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const size_t i = std::min(v.size() - 1, static_cast<size_t>(std::ceil(p * v.size())) - (p > 0));
  return v[i];
}

std::string codeName(int c) {
  switch (c) {
    case ERR_TRACE_DIRECTION: return "ERR_TRACE_DIRECTION";
    case ERR_TRACE_NO_FEATURE: return "ERR_TRACE_NO_FEATURE";
    case ERR_TRACE_TOO_QUICK: return "ERR_TRACE_TOO_QUICK";
    case ERR_TRACE_DIRECTION_BACK: return "ERR_TRACE_DIRECTION_BACK";
    case WARN_MOVE_SLOPE: return "WARN_MOVE_SLOPE";
    case WARN_SHAKE_TOO_BIG: return "WARN_SHAKE_TOO_BIG";
    case WARN_TRACE_LITTLE_QUICK: return "WARN_TRACE_LITTLE_QUICK";
    default: {
      char b[16];
      std::snprintf(b, sizeof b, "0x%X", c);
      return b;
    }
  }
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

// The gyroscope as the engine runs it: the host sensor service feeds the sensor interface's
// polling thread and fusion library; the tracker reads the attitude it keeps.
class Gyroscope {
 public:
  Gyroscope() {
    zolt_host_sensor_set_gyroscope(1);
    sensor_ = new SensorInterface();
    pSensorHandle = sensor_;
    if (!sensor_->init()) {
      stop();
      throw sim::SimError("the host gyroscope did not start");
    }
  }
  ~Gyroscope() { stop(); }
  Gyroscope(const Gyroscope&) = delete;
  Gyroscope& operator=(const Gyroscope&) = delete;

  // The attitude after the frame's events, as the engine hands it to the tracker.
  void attitude(const std::vector<sim::GyroEvent>& events, double e[3], double rot[9]) {
    for (const sim::GyroEvent& ev : events)
      zolt_host_sensor_push_gyro(ev.tNs, static_cast<float>(ev.rate[0]),
                                 static_cast<float>(ev.rate[1]), static_cast<float>(ev.rate[2]));
    zolt_host_sensor_sync();
    float a[3], r[9];
    sensor_->get_Cur_GyroSensorVal(a, r);
    std::copy(a, a + 3, e);
    std::copy(r, r + 9, rot);
  }

 private:
  void stop() {
    if (sensor_ == nullptr) return;
    sensor_->deinit();
    delete sensor_;
    sensor_ = nullptr;
    pSensorHandle = nullptr;
    zolt_host_sensor_set_gyroscope(0);
  }
  SensorInterface* sensor_ = nullptr;
};

SweepResult runOne(const sim::SweepConfig& cfg, bool withGyro) {
  sim::SweepSimulator simulator(cfg);
  ModuleTrack tracker(cfg.width, cfg.height);
  std::unique_ptr<Gyroscope> gyro;
  if (withGyro) gyro = std::make_unique<Gyroscope>();
  SweepResult r;
  sim::SimFrame f;
  double e[3] = {}, rot[9] = {};
  bool fixed = false;
  cv::Point2d fix, prevTruth, prevPose, floorPos, refTruth;
  NV21Img img;
  while (simulator.next(f)) {
    __tag_ZOLT_OFFSCREEN buf{0, f.width, f.height, f.nv21.data(),
                             f.nv21.data() + static_cast<size_t>(f.width) * f.height};
    img.nvCreate_shared_instance(&buf);
    if (gyro) {
      gyro->attitude(f.gyro, e, rot);
      if (f.index > 0) {
        // The prediction against the tracker's reference, before this frame is tracked.
        double x = 0, y = 0;
        tracker.predictOffXY_IMU(ModuleTrack::gyroToCameraAxes(tracker.preRMatGyro),
                                 ModuleTrack::gyroToCameraAxes(rot), x, y);
        r.gyroErrors.push_back(std::hypot(x - (f.truth.dx - refTruth.x) * tracker.scale,
                                          y - (f.truth.dy - refTruth.y) * tracker.scale));
      }
    }
    tracker.tracking(img, e, rot);
    if (f.index == 0 || (tracker.moveDir != MOVE_NONE && tracker.bKeyFrame))
      refTruth = {f.truth.dx, f.truth.dy};
    ++r.frames;
    if (tracker.errCode != SUCCESS && tracker.errCode != INFO_TRACE_FIRST_FRAME)
      ++r.codes[tracker.errCode];
    if (!fixed && tracker.moveDir != MOVE_NONE) {
      fixed = true;
      fix = {f.truth.x, f.truth.y};
      prevTruth = {0, 0};
      prevPose = {0, 0};
      floorPos = {0, 0};
    }
    if (tracker.moveDir != MOVE_NONE && tracker.bKeyFrame) {
      ++r.keyFrames;
      // Positions as displacements since the direction was fixed (the pose runs against them).
      const cv::Point2d truth(f.truth.x - fix.x, f.truth.y - fix.y);
      const cv::Point2d pose(-tracker.globalCamPoseX, -tracker.globalCamPoseY);
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
    img.freeData_FWBuffer();
  }
  r.directionRight = tracker.moveDir == static_cast<int>(cfg.direction);
  return r;
}

int runEval(const EvalArgs& a) {
  const int logLevel = ZOLT_PANO_GetLogLevel();
  ZOLT_PANO_SetLogLevel(ANDROID_LOG_SILENT);
  const std::vector<std::string> photos = a.photos.empty() ? defaultPhotos() : a.photos;
  std::map<std::string, std::vector<double>> errorsBy;  // "preset size" -> errors
  std::map<std::string, std::vector<double>> floorBy, stepBy, gyroBy;
  std::map<std::string, std::map<std::string, int>> codesBy;
  std::map<std::string, int> sweepsBy, wrongDirBy, errSweepsBy;
  std::vector<double> rotateRel;
  for (const std::string& preset : a.presets)
    for (const std::string& size : a.sizes)
      for (const std::string& dir : a.directions)
        for (const std::string& photo : photos) {
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
          SweepResult r;
          try {
            r = runOne(cfg, a.gyro);
          } catch (const sim::SimError& ex) {
            std::fprintf(stderr, "skip %s %s %s %s: %s\n", preset.c_str(), size.c_str(),
                         dir.c_str(), photo.c_str(), ex.what());
            continue;
          }
          const std::string key = preset + " " + size;
          errorsBy[key].insert(errorsBy[key].end(), r.errors.begin(), r.errors.end());
          floorBy[key].insert(floorBy[key].end(), r.floorErrors.begin(), r.floorErrors.end());
          stepBy[key].insert(stepBy[key].end(), r.stepErrors.begin(), r.stepErrors.end());
          gyroBy[key].insert(gyroBy[key].end(), r.gyroErrors.begin(), r.gyroErrors.end());
          ++sweepsBy[key];
          wrongDirBy[key] += !r.directionRight;
          bool anyErr = false;
          for (const auto& [c, n] : r.codes) {
            codesBy[key][codeName(c)] += n;
            anyErr |= (c & 0xF000) == 0x7000;
          }
          errSweepsBy[key] += anyErr;
          if (r.sweptLength > 0) rotateRel.push_back(r.lastError / r.sweptLength);
          if (a.perSweep) {
            std::ostringstream codes;
            for (const auto& [c, n] : r.codes) codes << " " << codeName(c) << "x" << n;
            std::printf("%-9s %-9s %-5s %-40s frames %3d key %3d dir %s median %.2f p95 %.2f "
                        "floor %.2f step %.2f last %.2f / %.0f%s\n",
                        preset.c_str(), size.c_str(), dir.c_str(),
                        photo.substr(photo.find_last_of('/') + 1).c_str(), r.frames, r.keyFrames,
                        r.directionRight ? "ok" : "WRONG", percentile(r.errors, 0.5),
                        percentile(r.errors, 0.95), percentile(r.floorErrors, 0.5),
                        percentile(r.stepErrors, 0.5), r.lastError, r.sweptLength,
                        codes.str().c_str());
          }
        }
  // Position: accumulated error at the key frames; floor: the same for exact whole-pixel steps;
  // step: each key frame's measured step against the true one.
  std::printf("\n%-20s %6s %8s %8s %8s %8s %8s %8s %5s %5s  %s\n", "preset size", "sweeps",
              "pos med", "pos p95", "flr med", "flr p95", "step med", "step p95", "wrong",
              "ERR_", "codes (frames)");
  for (const auto& [key, errs] : errorsBy) {
    std::ostringstream codes;
    for (const auto& [name, n] : codesBy[key]) codes << name << " " << n << "  ";
    std::printf("%-20s %6d %8.2f %8.2f %8.2f %8.2f %8.2f %8.2f %5d %5d  %s\n", key.c_str(),
                sweepsBy[key], percentile(errs, 0.5), percentile(errs, 0.95),
                percentile(floorBy[key], 0.5), percentile(floorBy[key], 0.95),
                percentile(stepBy[key], 0.5), percentile(stepBy[key], 0.95), wrongDirBy[key],
                errSweepsBy[key], codes.str().c_str());
  }
  if (a.gyro) {
    std::printf("\ngyroscope prediction against the true offset from the reference, low-resolution "
                "pixels (gyroscope clock %+.1f ms):\n", a.gyroOffsetMs);
    for (const auto& [key, errs] : gyroBy)
      std::printf("%-20s frames %6zu  median %6.2f  p95 %6.2f  max %7.2f\n", key.c_str(), errs.size(),
                  percentile(errs, 0.5), percentile(errs, 0.95), percentile(errs, 1.0));
  }
  if (a.model == "rotate" && !rotateRel.empty()) {
    std::printf("last key frame error / swept length: median %.4f, max %.4f\n",
                percentile(rotateRel, 0.5), percentile(rotateRel, 1.0));
  }
  ZOLT_PANO_SetLogLevel(logLevel);
  return kExitOk;
}

Command setupTrackEval(CLI::App& program) {
  auto args = std::make_shared<EvalArgs>();
  CLI::App* app = program.add_subcommand(
      "track-eval", "Run the tracker over simulated sweeps and compare it with the truth");
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
  return {app, [args] {
            try {
              return runEval(*args);
            } catch (const sim::SimError& e) {
              printError("track-eval", e.what());
              return static_cast<int>(kExitUsage);
            }
          }};
}

const CommandRegistration kRegisterTrackEval(setupTrackEval);

}  // namespace
}  // namespace zolt::tools
