#include "sim/sweep_config.h"

#include <cmath>
#include <sstream>

#include "sim/sim_error.h"

namespace zolt::sim {
namespace {

struct PresetInfo {
  const char* name;
  const char* description;
};

// What each preset is for, with the engine's limits it is built against (L, C: frame size along
// and across the sweep; offsets are between a frame and the last key frame).
const PresetInfo kPresets[] = {
    {"steady",
     "ideal tripod-like sweep at 0.012 L per frame: every frame a key frame, no warning"},
    {"handheld",
     "a careful hand: 0.014 L per frame +-30 %, tremor, noise, blur, exposure drift; no warning"},
    {"shaky",
     "strong tremor and four jerks of 0.1125 C across the sweep while it stalls: "
     "WARN_SHAKE_TOO_BIG on each jerk frame"},
    {"too-fast",
     "handheld, then a burst through 0.04..0.12 L per frame to one frame at 0.5 L: "
     "WARN_TRACE_LITTLE_QUICK on the ramp, ERR_TRACE_TOO_QUICK from the peak on (with the "
     "gyroscope; by vision alone the peak is ERR_TRACE_NO_FEATURE)"},
    {"goes-back",
     "handheld with one step back of 0.2 L: ERR_TRACE_DIRECTION, then ERR_TRACE_DIRECTION_BACK"},
    {"wrong-axis",
     "handheld, then the sweep turns onto the other axis at 35 %: WARN_SHAKE_TOO_BIG, then "
     "ERR_TRACE_DIRECTION"},
    {"drifting",
     "handheld with a slow drift of 0.8 C across the sweep: ERR_TRACE_DIRECTION once the "
     "key frames have drifted 0.5 C"},
    {"textureless",
     "handheld over the flattest region of the photo (60 frames unless told): "
     "ERR_TRACE_NO_FEATURE without the gyroscope; with it the sweep goes on, a key frame a frame"},
};

void setHandheld(SweepConfig& c) {
  c.speed = 0.014;
  c.speedVariation = 0.3;
  c.tremor = 0.0025;
  c.tremorRollDeg = 0.15;
  c.noiseSigma = 1.5;
  c.blurExposure = 0.25;
  c.exposureDrift = 0.05;
  c.gyroNoise = 0.003;
  c.gyroBias = {{0.002, -0.0015, 0.001}};
}

[[noreturn]] void bad(const std::string& what) { throw SimError(what); }

}  // namespace

const std::vector<std::string>& SweepConfig::presetNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> v;
    for (const PresetInfo& p : kPresets) v.emplace_back(p.name);
    return v;
  }();
  return names;
}

std::string SweepConfig::presetDescription(const std::string& name) {
  for (const PresetInfo& p : kPresets)
    if (name == p.name) return p.description;
  return {};
}

void SweepConfig::applyPreset(const std::string& name) {
  bool known = false;
  for (const PresetInfo& p : kPresets) known = known || name == p.name;
  if (!known) {
    std::string list;
    for (const std::string& n : presetNames()) list += (list.empty() ? "" : ", ") + n;
    bad("unknown preset '" + name + "' (known: " + list + ")");
  }
  // Start from a clean motion: only what the preset names is switched on.
  const SweepConfig clean;
  speed = clean.speed;
  speedVariation = tremor = tremorRollDeg = drift = 0.0;
  pauses = backSteps = jolts = 0;
  pauseFrames = clean.pauseFrames;
  backLength = clean.backLength;
  backFrames = clean.backFrames;
  burstSpeed = 0.0;
  burstFrames = clean.burstFrames;
  burstAt = clean.burstAt;
  joltSize = clean.joltSize;
  turnAt = 0.0;
  textureless = false;
  noiseSigma = blurExposure = exposureDrift = 0.0;
  gyroNoise = 0.0;
  gyroBias = {{0.0, 0.0, 0.0}};
  preset = name;

  if (name == "steady") return;
  setHandheld(*this);
  if (name == "shaky") {
    speed = 0.012;
    speedVariation = 0.25;
    tremor = 0.005;
    tremorRollDeg = 0.4;
    jolts = 4;
    noiseSigma = 2.0;
    blurExposure = 0.35;
    exposureDrift = 0.06;
    gyroNoise = 0.005;
  } else if (name == "too-fast") {
    burstSpeed = 0.5;
    burstFrames = 1;
    burstAt = 0.4;
  } else if (name == "goes-back") {
    backSteps = 1;
  } else if (name == "wrong-axis") {
    turnAt = 0.35;
  } else if (name == "drifting") {
    drift = 0.8;
  } else if (name == "textureless") {
    textureless = true;
  }
}

SweepConfig SweepConfig::fromPreset(const std::string& name) {
  SweepConfig c;
  c.applyPreset(name);
  return c;
}

double SweepConfig::horizontalFovDeg() const {
  if (hfovDeg > 0.0) return hfovDeg;
  return width >= height ? 62.2 : 39.8;
}

double SweepConfig::verticalFovDeg() const {
  if (vfovDeg > 0.0) return vfovDeg;
  return width >= height ? 39.8 : 62.2;
}

void SweepConfig::validate() const {
  auto need = [](bool ok, const std::string& what) {
    if (!ok) bad(what);
  };
  need(width > 640 && height > 640,
       "frame size " + std::to_string(width) + "x" + std::to_string(height) +
           " too small: both sides must be above 640");
  need(width % 2 == 0 && height % 2 == 0, "frame width and height must be even for NV21");
  need(width <= 8192 && height <= 8192, "frame size above 8192 pixels");
  need(std::isfinite(fps) && fps >= 1.0 && fps <= 240.0, "fps must be between 1 and 240");
  need(frames >= 0 && frames <= 100000, "frames must be between 0 (automatic) and 100000");
  need(hfovDeg >= 0.0 && hfovDeg < 170.0, "hfov must be between 0 and 170 degrees");
  need(vfovDeg >= 0.0 && vfovDeg < 170.0, "vfov must be between 0 and 170 degrees");
  need(std::isfinite(photoScale) && photoScale > 0.01 && photoScale <= 8.0,
       "photo scale must be above 0.01 and at most 8");
  need(std::isfinite(speed) && speed > 0.0 && speed <= 1.0,
       "speed must be above 0 and at most 1 (fraction of the frame per frame)");
  need(speedVariation >= 0.0 && speedVariation < 1.0, "speed variation must be in [0, 1)");
  need(tremor >= 0.0 && tremor <= 0.1, "tremor must be in [0, 0.1]");
  need(tremorRollDeg >= 0.0 && tremorRollDeg <= 10.0, "tremor roll must be in [0, 10] degrees");
  need(std::isfinite(drift) && std::fabs(drift) <= 10.0, "drift must be in [-10, 10]");
  need(pauses >= 0 && pauses <= 20 && pauseFrames >= 1 && pauseFrames <= 300,
       "pauses must be in [0, 20] and pause frames in [1, 300]");
  need(backSteps >= 0 && backSteps <= 20 && backFrames >= 1 && backFrames <= 300,
       "back steps must be in [0, 20] and back frames in [1, 300]");
  need(backLength > 0.0 && backLength <= 2.0, "back length must be in (0, 2]");
  need(burstSpeed >= 0.0 && burstSpeed <= 2.0, "burst speed must be in [0, 2]");
  need(burstFrames >= 1 && burstFrames <= 100, "burst frames must be in [1, 100]");
  need(burstAt >= 0.0 && burstAt < 1.0, "burst position must be in [0, 1)");
  need(jolts >= 0 && jolts <= 20, "jolts must be in [0, 20]");
  need(joltSize >= 0.0 && joltSize <= 0.5, "jolt size must be in [0, 0.5]");
  need(turnAt >= 0.0 && turnAt < 1.0, "turn position must be in [0, 1)");
  need(noiseSigma >= 0.0 && noiseSigma <= 50.0, "noise must be in [0, 50]");
  need(blurExposure >= 0.0 && blurExposure <= 1.0, "blur exposure must be in [0, 1]");
  need(exposureDrift >= 0.0 && exposureDrift < 1.0, "exposure drift must be in [0, 1)");
  need(gyroRateHz >= 1.0 && gyroRateHz <= 10000.0, "gyro rate must be in [1, 10000] Hz");
  need(gyroNoise >= 0.0 && gyroNoise <= 10.0, "gyro noise must be in [0, 10] rad/s");
  for (double b : gyroBias) need(std::isfinite(b) && std::fabs(b) <= 10.0, "gyro bias out of range");
  need(std::isfinite(gyroTimeOffsetMs) && std::fabs(gyroTimeOffsetMs) <= 10000.0,
       "gyro time offset must be within 10 s");
}

const char* toString(SweepDirection d) {
  switch (d) {
    case SweepDirection::Right: return "right";
    case SweepDirection::Left: return "left";
    case SweepDirection::Down: return "down";
    case SweepDirection::Up: return "up";
  }
  return "?";
}

const char* toString(CameraModel m) { return m == CameraModel::Rotate ? "rotate" : "translate"; }

SweepDirection parseDirection(const std::string& s) {
  for (SweepDirection d : {SweepDirection::Right, SweepDirection::Left, SweepDirection::Down,
                           SweepDirection::Up})
    if (s == toString(d)) return d;
  bad("unknown direction '" + s + "' (right, left, down, up)");
}

CameraModel parseModel(const std::string& s) {
  if (s == "translate") return CameraModel::Translate;
  if (s == "rotate") return CameraModel::Rotate;
  bad("unknown camera model '" + s + "' (translate, rotate)");
}

}  // namespace zolt::sim
