// One engine from ZOLT_PANO_Initial to ZOLT_PANO_Release, driven through the public C interface
// as a camera app drives it: options, the canvas (sized by ZOLT_PANO_CanvasSize once the sweep's
// direction is known), per frame SelectFrames then AddImage, the host gyroscope's events before
// each frame, the panorama as JPEG bytes, and every refusal read back with
// ZOLT_PANO_GetLastError. Every command that runs the engine (stitch, evaluate, soak, track-eval)
// goes through it.
#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "zolt_pano.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {

class GyroFeed;

// The engine refused something the session cannot do without (the preview size, an option, the
// canvas). The message is one line.
struct SessionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// ZOLT_PANO_SetPhotoInfo's values, strings owned.
struct SessionPhoto {
  int64_t captureTimeUtcMs = 0;
  int zoneOffsetMinutes = 0;
  std::string make, model, software;
};

struct SessionOptions {
  // ZOLT_PANO_SetOption pairs, set right after Initial; none: the engine's default behaviour.
  std::vector<std::pair<int, int>> options;
  // Along the sweep, the longest panorama the canvas must hold (pixels, ZOLT_PANO_CanvasSize's
  // maxSweepLength; 0: one whole turn). Ignored when `canvas` is given.
  int maxSweepLength = 0;
  // A canvas of this size instead (both sides > 0); refused unless it suits the sweep's axis.
  cv::Size canvas;
  GyroFeed* gyro = nullptr;  // not owned; null: the engine runs on vision alone
  // With a gyroscope: each frame's capture time goes to ZOLT_PANO_SetFrameTime.
  bool frameTimes = false;
  // The init record's camOrientation (clockwise degrees that show a frame upright); only logged
  // unless the panorama is turned upright (the option or photo information).
  int camOrientation = 90;
  // Given to ZOLT_PANO_SetPhotoInfo after the options: the panorama is saved upright with EXIF
  // and XMP.
  bool photoSet = false;
  SessionPhoto photo;
};

// What one frame did, as the C interface reported it.
struct FrameRecord {
  int frame = 0;  // index in the input
  tsPOINT offset{0, 0};
  bool keyFrame = false;
  int direction = MOVE_NONE;  // MOVE_NONE too when the frame was refused
  int code = SUCCESS;         // SelectFrames' result code
  int sweepLength = 0;
  int progress = 0;  // 0 when AddImage left it alone
  double selectMs = 0.0;
  double addMs = 0.0;
  int capture = 1;      // 1-based capture that the frame was fed to
  double timeMs = 0.0;  // the frame's time in the input
  // The refusal ZOLT_PANO_GetLastError kept for this frame (0: none), e.g. ERR_CANVAS_FULL; a
  // refused frame leaves the direction, progress and valid rectangle as they were.
  int refusal = 0;
  // Which outputs the calls wrote: the direction (SelectFrames), the progress and the valid
  // rectangle (AddImage; the rectangle only with a merged key frame).
  bool directionWritten = false, progressWritten = false, rectWritten = false;
};

class EngineSession {
 public:
  // Initial for w x h preview frames, then the options. Throws SessionError.
  EngineSession(int w, int h, const SessionOptions& opt);
  ~EngineSession();  // releases the engine
  EngineSession(const EngineSession&) = delete;
  EngineSession& operator=(const EngineSession&) = delete;

  // Feeds one packed NV21 frame (w * h Y bytes, then the VU pairs; only read) taken at `timeMs`
  // of the input's clock: the gyroscope's events up to then, SelectFrames, the canvas once the
  // direction is fixed, AddImage. Throws SessionError when the canvas does not suit the sweep.
  FrameRecord feed(const uint8_t* nv21, double timeMs);

  // The panorama as JPEG bytes at the engine's default quality (what ZOLT_PANO_SaveImage
  // writes); empty with the refusal in *refusal when there is nothing to save.
  std::vector<uint8_t> encodeJpeg(int* refusal = nullptr);
  // ZOLT_PANO_SaveImage to BASE.jpg; returns its refusal (ERR_NOTHING_TO_SAVE,
  // ERR_WRITE_FAILED) or 0.
  int saveImage(const std::string& base);
  // Releases the engine (the destructor does it otherwise); the canvas stays readable.
  void release();

  int width() const { return w_; }
  int height() const { return h_; }
  int frames() const { return frames_; }
  int direction() const { return direction_; }  // fixed with the canvas; MOVE_NONE before
  bool haveRect() const { return rect_.right >= 0; }
  const tsRECT& validRect() const { return rect_; }  // canvas pixels, right/bottom exclusive
  cv::Size canvasSize() const { return canvasSize_; }
  // The canvas's Y plane (CV_8UC1 over the session's bytes); empty before the direction.
  cv::Mat canvasLuma() const;
  // The engine's handle for evaluation tools that read its state; null once released.
  void* handle() const { return handle_; }
  double initMs() const { return initMs_; }
  double releaseMs() const { return releaseMs_; }

 private:
  void makeCanvas(int direction);

  int w_, h_;
  SessionOptions opt_;
  void* handle_ = nullptr;
  int frames_ = 0;
  int direction_ = MOVE_NONE;
  tsRECT rect_{-1, -1, -1, -1};
  cv::Size canvasSize_;
  std::vector<uint8_t> canvasBytes_;  // Y plane, then the VU plane directly behind it
  __tag_ZOLT_OFFSCREEN canvas_{};
  __tag_ZOLT_OFFSCREEN frame_{};
  double initMs_ = 0, releaseMs_ = 0;
};

// Silences the engine's log for the lifetime of a run unless it is to be shown.
class EngineLog {
 public:
  explicit EngineLog(bool show);
  ~EngineLog();
  EngineLog(const EngineLog&) = delete;
  EngineLog& operator=(const EngineLog&) = delete;

 private:
  int before_;
};

// "the engine refused ...": the engine's kept message for the handle (or the thread with a null
// handle), for a tool's one-line error.
std::string engineMessage(void* handle);

// Wall-clock milliseconds since t0: the unit of every stage time the tools report.
double msSince(std::chrono::steady_clock::time_point t0);

}  // namespace zolt::tools
