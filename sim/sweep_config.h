// Options of a simulated sweep, and the named presets that bundle them.
//
// Lengths are in frame pixels. The scene is the photo (after photoScale); in the translate model
// one scene pixel is one frame pixel, in the rotate model one scene pixel is one frame pixel at
// the centre of the view. "Along" is the sweep axis (x for right/left, y for down/up), "across"
// the other one; L and C below are the frame's size along and across the sweep (for a right
// sweep on a 1280 x 720 preview, L = 1280 and C = 720).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace zolt::sim {

// Same numbers as the engine's MoveDirection.
enum class SweepDirection : int { Right = 1, Left = 2, Down = 3, Up = 4 };

enum class CameraModel : int {
  Translate,  // a window sliding over the flat photo; the engine's own motion model
  Rotate,     // a pinhole camera turning about its centre, photo on a cylinder around it
};

struct SweepConfig {
  // --- preview ---
  int width = 1280;    // frame width in pixels (> 640; even)
  int height = 720;    // frame height in pixels (> 640; even); height > width is portrait
  double fps = 30.0;
  int frames = 0;      // 0: as many as the photo allows (the sweep is shortened until it fits)
  SweepDirection direction = SweepDirection::Right;
  CameraModel model = CameraModel::Translate;
  // Field of view across the frame's width and height, degrees. 0 picks the engine's camera:
  // 62.2 across the long side and 39.8 across the short side.
  double hfovDeg = 0.0;
  double vfovDeg = 0.0;

  // --- scene ---
  std::string photoPath;   // any image OpenCV reads; not needed when a photo is passed in
  double photoScale = 1.0; // the photo is resized by this factor first (area/cubic)

  // --- motion ---
  double speed = 0.012;         // mean speed along the sweep, fraction of L per frame
  double speedVariation = 0.0;  // slow random change of the speed, +- fraction of the mean
  double tremor = 0.0;          // hand tremor: peak translation on each axis, fraction of the
                                // frame's short side
  double tremorRollDeg = 0.0;   // hand tremor: peak roll, degrees
  double drift = 0.0;           // slow drift across the sweep: total at the end, fraction of C
  int pauses = 0;               // stops during the sweep, evenly spread
  int pauseFrames = 8;
  int backSteps = 0;            // steps back against the sweep, evenly spread
  double backLength = 0.2;      // length of one step back, fraction of L
  int backFrames = 8;           // frames the step back takes
  double burstSpeed = 0.0;      // 0: no burst; else peak speed, fraction of L per frame
  int burstFrames = 1;          // frames at the peak speed (ramps of 4 frames up, 2 down)
  double burstAt = 0.5;         // where the burst starts, fraction of the sweep
  int jolts = 0;                // sudden jerks across the sweep while the sweep stalls
  double joltSize = 0.1125;     // size of a jerk, fraction of C
  double turnAt = 0.0;          // 0: none; else the sweep turns onto the other axis there
  bool textureless = false;     // place the sweep on the flattest region of the photo

  // --- imaging ---
  double noiseSigma = 0.0;      // sensor noise, standard deviation in luma levels (chroma half)
  double blurExposure = 0.0;    // motion blur: exposure time as a fraction of the frame time
  double exposureDrift = 0.0;   // auto-exposure drift: peak relative change of brightness

  // --- gyroscope ---
  double gyroRateHz = 200.0;
  std::array<double, 3> gyroBias{{0.0, 0.0, 0.0}};  // rad/s, sensor axes x, y, z
  double gyroNoise = 0.0;       // rad/s, standard deviation per axis and event
  double gyroTimeOffsetMs = 0.0;  // added to every gyroscope timestamp

  uint64_t seed = 1;
  std::string preset = "custom";  // name of the preset the options started from

  // The built-in presets ("steady", "handheld", ...). Throws SimError for an unknown name.
  static SweepConfig fromPreset(const std::string& name);
  static const std::vector<std::string>& presetNames();
  // One line per preset: what it is meant to show the engine.
  static std::string presetDescription(const std::string& name);
  // Overwrites the motion, imaging and gyroscope options with the preset's; keeps the preview
  // size, direction, model, photo, frame count, seed.
  void applyPreset(const std::string& name);

  // Throws SimError naming the first option that is out of range.
  void validate() const;

  // Field of view actually used (the defaults resolved).
  double horizontalFovDeg() const;
  double verticalFovDeg() const;
  bool horizontalSweep() const {
    return direction == SweepDirection::Right || direction == SweepDirection::Left;
  }
};

const char* toString(SweepDirection d);
const char* toString(CameraModel m);
// Throw SimError on an unknown name.
SweepDirection parseDirection(const std::string& s);
CameraModel parseModel(const std::string& s);

}  // namespace zolt::sim
