// OrreryEngine: the one object behind an engine handle. Owns the tracker, the merger and the
// frame image; passes each preview frame to the tracker and each chosen key frame to the
// merger, turns the tracker's state into what the caller sees, gates both per-frame calls with
// error_condition_check, writes the panorama file and keeps the statistics logged at release.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

#include "zolt_pano.h"

class ModuleTrack;
class ModuleMerge;
class NV21Img;

class ZOLT_PANO_EXPORT OrreryEngine {
 public:
  int32_t width = -1;       // preview width, pixels
  int32_t height = -1;      // preview height, pixels
  int32_t mode = 0;         // from the init record; never read
  int32_t frameCount = -1;  // frames accepted by provideNV21Image_SelectFrame
  bool initialized = false;
  double imuAngles[3] = {0, 0, 0};    // last gyroscope angles from provideIMU
  double imuRotation[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};  // row-major 3x3
  ModuleTrack* tracker = nullptr;  // owned
  ModuleMerge* merger = nullptr;   // owned
  NV21Img* frameImg = nullptr;     // owned; wraps the caller's current preview frame
  int32_t resultCode = 0;
  int32_t reserved = 0;
  double trackerTimeMs = 0;     // wall-clock ms in ModuleTrack::tracking
  double mergerTimeMs = 0;      // wall-clock ms merging
  int32_t trackFrames = 0;
  int32_t mergeFrames = 0;
  double selectFrameTicks = 0;  // OpenCV ticks in ZOLT_PANO_SelectFrames
  bool outputWritten = false;   // whether the last storeOutputTo wrote its file

  explicit OrreryEngine(int32_t mode = 0) : mode(mode) {}
  OrreryEngine(const OrreryEngine&) = delete;
  OrreryEngine& operator=(const OrreryEngine&) = delete;

  // Builds tracker, merger and frame image; throws when either side is 640 or less.
  void zolt_init_pano(int width, int height);
  bool isInitialized();
  // ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT: the tracker keeps the fraction of each key frame's pose
  // and the merger lays it on the nearest pixel.
  void setSubPixelPlacement(bool on);
  // ZOLT_PANO_OPTION_CAMERA_HFOV: the tracker's camera for the gyroscope's prediction, degrees
  // across the frame's width; 0: the fixed camera.
  void setCameraFieldOfView(double hfovDeg);
  int provideIMU(float* angles, float* rotation);
  int provideNV21Image_SelectFrame(__tag_ZOLT_OFFSCREEN* frame, tsPOINT* offset, long* isKeyFrame,
                                   int* direction, int* sweepLength);
  int provideNV21Image_AddImage(__tag_ZOLT_OFFSCREEN* panorama, tsRECT* validRect, int* progress);
  bool error_condition_check(long& code);
  // Whether error_condition_check stops every frame because the sweep reached the canvas's end
  // (it does not look at the merger in the no-feature and wrong-direction states).
  bool stoppedAtCanvasEnd() const;
  void GrabInfo_Tracking(tsPOINT* offset, long* isKeyFrame);
  // Writes the cropped panorama to fileName as it stands (the interface appends ".jpg").
  void storeOutputTo(char* fileName);
  // Logs the statistics and frees tracker, merger and frame image. Once only.
  int release();
  // Packed NV21 of the engine's size <-> 8-bit BGR, by the engine's conversion rules.
  void convert_NV21Img(unsigned char* nv21, cv::Mat& bgr);
  void convert_BGRImg(cv::Mat& bgr, unsigned char* nv21);
};
