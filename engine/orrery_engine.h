// OrreryEngine: the one object behind an engine handle. Owns the tracker, the merger and the
// frame image; passes each preview frame to the tracker and each chosen key frame to the
// merger, turns the tracker's report into what the caller sees, gates both per-frame calls with
// error_condition_check, writes the panorama file and keeps the statistics logged at release.
// It also runs the process's gyroscope (orrery_engine_sensor.cpp), holds the options until the
// first frame, and encodes the panorama as a JPEG (orrery_engine_output.cpp). The C interface
// speaks to the engine through this class alone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "engine/capture_verdict.h"
#include "engine/pano_options.h"
#include "engine/photo_metadata.h"
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
  // Filled by setOption before the first frame; handed to tracker and merger at that frame
  // (frameCount 0 to 1), frozen from then on.
  PanoOptions options;
  // Frame times (setFrameTime), ns: the last one accepted, as given, and the one the next
  // SelectFrames reads the gyroscope at (0: none; that frame takes the newest attitude).
  int64_t lastFrameTimeNs = 0;
  int64_t pendingFrameTimeNs = 0;
  // From the init record: the clockwise turn, degrees, that shows a preview frame upright.
  int32_t camOrientation = 0;
  // ZOLT_PANO_SetPhotoInfo's copy; once set, saves carry EXIF and XMP and are turned upright.
  bool hasPhotoInfo = false;
  PhotoInfo photoInfo;
  // Judges the capture at each merge (ZOLT_PANO_GetVerdict).
  CaptureVerdict verdict;

  // The fixed camera's field of view, degrees across the frame's long and short side.
  static constexpr double kFixedHfovDeg = TrackerOptions::kFixedHfovDeg;
  static constexpr double kFixedVfovDeg = TrackerOptions::kFixedVfovDeg;

  explicit OrreryEngine(int32_t mode = 0) : mode(mode) {}
  OrreryEngine(const OrreryEngine&) = delete;
  OrreryEngine& operator=(const OrreryEngine&) = delete;

  // Builds tracker, merger and frame image; throws when either side is 640 or less.
  void zolt_init_pano(int width, int height);
  bool isInitialized();
  // One option into `options`, as PanoOptions::set; any option once the first frame has been
  // taken is refused with kFrozen.
  PanoOptions::Status setOption(int option, int value, const char** accepted);

  // The process's gyroscope (one for all engines). start: stops one left running, then starts
  // the sensor thread; false without a gyroscope (the engine tracks by vision), with `failure`
  // set when the start threw (the line already logged). read: to provideIMU, the attitude at
  // frameTimeNs (the gyroscope's clock, the delay option added) or with 0 the latest one.
  bool startGyroscope(std::string& failure);
  void stopGyroscope();
  void readGyroscope(int64_t frameTimeNs = 0);
  // The next frame's capture time on the gyroscope events' clock, ns, before the delay option.
  // Refused, and the pending time dropped, when it is not positive, not after the last one
  // accepted, or (with a gyroscope that has reported) more than kFrameTimeReachNs from the
  // newest attitude once the delay is added; *newestNs then holds that attitude's stamp.
  enum class FrameTime { kSet, kNotPositive, kNotAfterLast, kFarFromEvents };
  static constexpr int64_t kFrameTimeReachNs = 1000000000;
  FrameTime setFrameTime(int64_t timeNs, int64_t* newestNs);
  // The pending frame time with the delay added, 0 for none, and clears it: every SelectFrames
  // takes it, whether its frame is tracked or refused.
  int64_t takeFrameTime();
  int provideIMU(float* angles, float* rotation);
  int provideNV21Image_SelectFrame(__tag_ZOLT_OFFSCREEN* frame, tsPOINT* offset, long* isKeyFrame,
                                   int* direction, int* sweepLength);
  int provideNV21Image_AddImage(__tag_ZOLT_OFFSCREEN* panorama, tsRECT* validRect, int* progress);
  bool error_condition_check(long& code);
  // Whether error_condition_check stops every frame because the sweep reached the canvas's end
  // (it does not look at the merger in the no-feature and wrong-direction states).
  bool stoppedAtCanvasEnd() const;
  // The merger has refused a key frame that no longer fits on the canvas.
  bool canvasFull() const;
  // A key frame has been merged: there is a panorama to save.
  bool hasPanorama() const;
  // The sweep's direction when the next AddImage places the first key frame (the only merge
  // that reads the canvas record's planes and sides), else MOVE_NONE.
  MoveDirection firstMergeDirection() const;
  // The verdict on the capture so far (CaptureVerdict::judge), or -1 before the first merge.
  int judgeCapture(std::string& message) const;
  void GrabInfo_Tracking(tsPOINT* offset, long* isKeyFrame);
  // Writes the cropped panorama to fileName as it stands (the interface appends ".jpg"): the
  // JPEG of encodeJpeg at the encoder's default quality, written out.
  void storeOutputTo(char* fileName);
  // The cropped panorama as a JPEG in memory at `quality` (0: the encoder's default, 1..100).
  enum class JpegResult { kOk, kNothingToSave, kEncoderFailed, kOutOfMemory, kFailed };
  JpegResult encodeJpeg(int quality, std::vector<uint8_t>& bytes, cv::Size& size,
                        std::string& failure);
  // Whether saves turn the panorama upright (the option, or photo information given).
  bool uprightOutput() const { return options.upright || hasPhotoInfo; }
  // The JPEG of the cropped panorama `pano` as every save writes it: turned upright and with
  // the photo's EXIF and XMP when asked for, else exactly the encoder's bytes. *size: the
  // stored image's. False when the encoder fails; throws what OpenCV and the metadata throw.
  bool encodePhoto(const cv::Mat& pano, int quality, std::vector<uint8_t>& bytes,
                   cv::Size* size) const;
  // Writes `bytes` to `path` whole, or removes what was written; false with errno's value in
  // *error.
  static bool writeFile(const char* path, const std::vector<uint8_t>& bytes, int* error);
  // The canvas inside the merger's valid rectangle (trimmed inwards to even rows and columns)
  // scaled to fit maxWidth x maxHeight, never up, as R, G, B, A bytes into rgba, rows rowStride
  // bytes apart (orrery_engine_preview.cpp). The caller has checked the arguments. false before
  // the first merge. Throws std::bad_alloc.
  bool renderPreview(int maxWidth, int maxHeight, uint8_t* rgba, int rowStride, int* width,
                     int* height);
  std::vector<uint8_t> previewScratch;  // the scaled NV21 picture, kept between calls
  // Logs the statistics and frees tracker, merger and frame image. Once only.
  int release();
  // Packed NV21 of the engine's size <-> 8-bit BGR, by the engine's conversion rules.
  void convert_NV21Img(unsigned char* nv21, cv::Mat& bgr);
  void convert_BGRImg(cv::Mat& bgr, unsigned char* nv21);
};
