// zoltpano simulate PHOTO --out DIR [options]: writes a simulated sweep (see docs/simulator.md).
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <opencv2/core.hpp>

#include "sim/sim_error.h"
#include "sim/sweep_config.h"
#include "sim/sweep_simulator.h"
#include "sim/sweep_writer.h"
#include "tools/command.h"

namespace zolt::tools {
namespace {

using sim::SweepConfig;

// Default photos (Debian packages lomiri-wallpapers-16.04 and -20.04): a mountain landscape with
// texture everywhere, so that tracking never starves; for the textureless preset (and bursts,
// which need room) the widest photo, a close-up on textured bark whose blurred background is
// flat over thousands of pixels.
constexpr const char* kDefaultPhoto =
    "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";
constexpr const char* kDefaultWidePhoto = "/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg";

struct SimulateArgs {
  std::string photo;  // empty: the default for the preset
  std::string out;
  std::string preset = "handheld";
  std::string size = "1280x720";
  std::string direction = "right";
  std::string model = "translate";
  bool force = false;
  bool quiet = false;
  bool listPresets = false;
  double speedPx = 0.0;  // when given: the mean speed in frame pixels per frame
  // Options that override the preset, applied only when given.
  std::vector<std::function<void(SweepConfig&)>> overrides;
};

template <typename T>
void addOverride(CLI::App* app, SimulateArgs& args, const std::string& name, T SweepConfig::*field,
                 const std::string& help) {
  auto value = std::make_shared<T>();
  CLI::Option* opt = app->add_option(name, *value, help);
  args.overrides.push_back([opt, value, field](SweepConfig& c) {
    if (opt->count() > 0) c.*field = *value;
  });
}

void parseSize(const std::string& s, int& w, int& h) {
  const size_t x = s.find('x');
  try {
    size_t used = 0;
    if (x == std::string::npos) throw std::invalid_argument(s);
    w = std::stoi(s.substr(0, x), &used);
    if (used != x) throw std::invalid_argument(s);
    h = std::stoi(s.substr(x + 1), &used);
    if (used != s.size() - x - 1) throw std::invalid_argument(s);
  } catch (const std::logic_error&) {
    throw sim::SimError("bad frame size '" + s + "' (expected WIDTHxHEIGHT, e.g. 1920x1080)");
  }
}

int runSimulate(SimulateArgs& a) {
  if (a.listPresets) {
    for (const std::string& p : SweepConfig::presetNames())
      std::printf("%-12s %s\n", p.c_str(), SweepConfig::presetDescription(p).c_str());
    return kExitOk;
  }
  SweepConfig cfg;
  try {
    if (a.out.empty()) throw sim::SimError("--out is required");
    parseSize(a.size, cfg.width, cfg.height);
    cfg.direction = sim::parseDirection(a.direction);
    cfg.model = sim::parseModel(a.model);
    cfg.applyPreset(a.preset);
    for (auto& apply : a.overrides) apply(cfg);
    if (a.speedPx > 0.0) cfg.speed = a.speedPx / (cfg.horizontalSweep() ? cfg.width : cfg.height);
    // The burst eats a frame's width of travel: too-fast takes the widest photo.
    cfg.photoPath = !a.photo.empty()                          ? a.photo
                    : cfg.textureless || cfg.burstSpeed > 0.0 ? kDefaultWidePhoto
                                                              : kDefaultPhoto;
    cfg.validate();
  } catch (const sim::SimError& e) {
    printError("simulate", e.what());
    return kExitUsage;
  }
  try {
    const auto t0 = std::chrono::steady_clock::now();
    sim::SweepSimulator simulator(cfg);
    sim::WriteOptions opt;
    opt.overwrite = a.force;
    sim::SweepWriter::write(simulator, a.out, opt);
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!a.quiet)
      std::printf("zoltpano simulate: %d frames %dx%d (%s, %s, %s) written to %s in %.1f s\n",
                  simulator.frameCount(), cfg.width, cfg.height, cfg.preset.c_str(),
                  sim::toString(cfg.direction), sim::toString(cfg.model), a.out.c_str(), secs);
  } catch (const sim::SimError& e) {
    printError("simulate", e.what());
    return kExitFailure;
  } catch (const cv::Exception& e) {
    printError("simulate", std::string("image processing failed: ") + e.what());
    return kExitFailure;
  } catch (const std::bad_alloc&) {
    printError("simulate", "out of memory");
    return kExitFailure;
  }
  return kExitOk;
}

// Options that override one field of the preset's sweep, one a line.
void addSweepOverrides(CLI::App* app, SimulateArgs& a) {
  // clang-format off
  addOverride(app, a, "-n,--frames", &SweepConfig::frames, "Frames (default: as many as fit)");
  addOverride(app, a, "--fps", &SweepConfig::fps, "Frames per second (30)");
  addOverride(app, a, "--seed", &SweepConfig::seed, "Random seed (1)");
  addOverride(app, a, "--hfov", &SweepConfig::hfovDeg, "Field of view across the width, degrees");
  addOverride(app, a, "--vfov", &SweepConfig::vfovDeg, "Field of view across the height, degrees");
  addOverride(app, a, "--photo-scale", &SweepConfig::photoScale, "Resize the photo first (1)");
  addOverride(app, a, "--speed", &SweepConfig::speed, "Mean speed, fraction of the frame per frame");
  addOverride(app, a, "--speed-variation", &SweepConfig::speedVariation, "Speed change, +- fraction");
  addOverride(app, a, "--tremor", &SweepConfig::tremor, "Tremor, fraction of the short side");
  addOverride(app, a, "--tremor-roll", &SweepConfig::tremorRollDeg, "Tremor roll, degrees");
  addOverride(app, a, "--drift", &SweepConfig::drift, "Drift across at the end, fraction of the frame");
  addOverride(app, a, "--pauses", &SweepConfig::pauses, "Number of stops");
  addOverride(app, a, "--pause-frames", &SweepConfig::pauseFrames, "Frames per stop (8)");
  addOverride(app, a, "--back-steps", &SweepConfig::backSteps, "Number of steps back");
  addOverride(app, a, "--back-length", &SweepConfig::backLength, "Step back, fraction of the frame (0.2)");
  addOverride(app, a, "--back-frames", &SweepConfig::backFrames, "Frames per step back (8)");
  addOverride(app, a, "--burst-speed", &SweepConfig::burstSpeed, "Burst peak speed, fraction per frame (0: none)");
  addOverride(app, a, "--burst-frames", &SweepConfig::burstFrames, "Frames at the peak (1)");
  addOverride(app, a, "--burst-at", &SweepConfig::burstAt, "Burst start, fraction of the sweep (0.5)");
  addOverride(app, a, "--jolts", &SweepConfig::jolts, "Number of jerks across the sweep");
  addOverride(app, a, "--jolt-size", &SweepConfig::joltSize, "Jerk size, fraction of the frame (0.1125)");
  addOverride(app, a, "--turn-at", &SweepConfig::turnAt, "Turn onto the other axis there (0: never)");
  addOverride(app, a, "--textureless", &SweepConfig::textureless, "Sweep the flattest region (true/false)");
  addOverride(app, a, "--noise", &SweepConfig::noiseSigma, "Sensor noise, luma levels");
  addOverride(app, a, "--blur", &SweepConfig::blurExposure, "Exposure time, fraction of the frame time");
  addOverride(app, a, "--exposure-drift", &SweepConfig::exposureDrift, "Brightness drift, +- fraction");
  addOverride(app, a, "--gyro-rate", &SweepConfig::gyroRateHz, "Gyroscope events per second (200)");
  addOverride(app, a, "--gyro-noise", &SweepConfig::gyroNoise, "Gyroscope noise, rad/s");
  addOverride(app, a, "--gyro-offset-ms", &SweepConfig::gyroTimeOffsetMs, "Gyroscope time offset, ms");
  // clang-format on
  {
    auto bias = std::make_shared<std::vector<double>>();
    CLI::Option* opt = app->add_option("--gyro-bias", *bias, "Gyroscope bias X,Y,Z in rad/s")
                           ->delimiter(',')
                           ->expected(3);
    a.overrides.push_back([opt, bias](SweepConfig& c) {
      if (opt->count() > 0)
        for (int i = 0; i < 3; ++i) c.gyroBias[i] = (*bias)[i];
    });
  }
}

Command setupSimulate(CLI::App& program) {
  auto [args, app] = addCommand<SimulateArgs>(
      program, "simulate", "Make a simulated sweep (NV21 frames, gyroscope, truth) from a photo");
  app->add_option("photo", args->photo,
                  std::string("Photo to sweep over (default ") + kDefaultPhoto +
                      ", for textureless and bursts " + kDefaultWidePhoto + ")");
  app->add_option("-o,--out", args->out, "Output directory (must not exist unless --force)");
  app->add_option("-p,--preset", args->preset,
                  "steady, handheld, shaky, too-fast, goes-back, wrong-axis, drifting, "
                  "textureless")
      ->capture_default_str();
  app->add_option("-s,--size", args->size,
                  "Frame size WIDTHxHEIGHT, both above 640; "
                  "height > width is portrait")
      ->capture_default_str();
  app->add_option("-d,--direction", args->direction, "right, left, down or up")
      ->capture_default_str();
  app->add_option("-m,--model", args->model, "translate or rotate")->capture_default_str();
  app->add_flag("-f,--force", args->force, "Replace an existing output directory");
  app->add_flag("-q,--quiet", args->quiet, "No summary line");
  app->add_flag("--list-presets", args->listPresets, "List the presets and exit");

  app->add_option("--speed-px", args->speedPx,
                  "Mean speed in frame pixels per frame (instead of --speed)")
      ->check(CLI::PositiveNumber);
  addSweepOverrides(app, *args);
  return {app, [args = args] { return runSimulate(*args); }};
}

const CommandRegistration kRegisterSimulate(setupSimulate);

}  // namespace
}  // namespace zolt::tools
