#include "tools/engine_session.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "tools/gyro_feed.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

using Clock = std::chrono::steady_clock;

std::string sizeText(int w, int h) { return std::to_string(w) + "x" + std::to_string(h); }

}  // namespace

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

std::string engineMessage(void* handle) {
  char text[256];
  const int code = ZOLT_PANO_GetLastError(handle, text, sizeof text);
  if (code == 0) return "";
  return std::string(ZOLT_PANO_CodeName(code)) + ": " + text;
}

EngineSession::EngineSession(int w, int h, const SessionOptions& opt) : w_(w), h_(h), opt_(opt) {
  tag_ZOLT_PANO_INIT_PARAM init{};
  init.previewWidth = w;
  init.previewHeight = h;
  init.camOrientation = opt.camOrientation;
  const auto t0 = Clock::now();
  const int rc = ZOLT_PANO_Initial(&init, &handle_);
  initMs_ = msSince(t0);
  if (rc != SUCCESS || handle_ == nullptr) {
    handle_ = nullptr;
    char buf[96];
    std::snprintf(buf, sizeof buf, "the engine refused %dx%d frames (code 0x%04X)", w, h,
                  static_cast<unsigned>(rc));
    throw SessionError(buf);
  }
  for (const auto& [option, value] : opt_.options)
    if (ZOLT_PANO_SetOption(handle_, option, value) != 0) {
      const std::string why = engineMessage(handle_);
      release();
      throw SessionError("the engine refused option " + std::to_string(option) + " = " +
                         std::to_string(value) + " (" + why + ")");
    }
  if (opt_.photoSet) {
    const ZOLT_PANO_PhotoInfo info{opt_.photo.captureTimeUtcMs, opt_.photo.zoneOffsetMinutes,
                                   opt_.photo.make.c_str(), opt_.photo.model.c_str(),
                                   opt_.photo.software.c_str()};
    if (ZOLT_PANO_SetPhotoInfo(handle_, &info) != 0) {
      const std::string why = engineMessage(handle_);
      release();
      throw SessionError("the engine refused the photo information (" + why + ")");
    }
  }
  // Until the direction is known the canvas record is the preview's size: the engine divides
  // the progress by it, and reads no plane before the first merge.
  ZOLT_PANO_CanvasSize(w, h, MOVE_NONE, 0, &canvas_.width, &canvas_.height);
  frame_.width = w;
  frame_.height = h;
}

EngineSession::~EngineSession() { release(); }

void EngineSession::release() {
  if (handle_ == nullptr) return;
  const auto t0 = Clock::now();
  ZOLT_PANO_Release(&handle_);
  handle_ = nullptr;
  releaseMs_ += msSince(t0);
}

FrameRecord EngineSession::feed(const uint8_t* nv21, double timeMs) {
  FrameRecord f;
  f.timeMs = timeMs;
  frame_.planeY = const_cast<uint8_t*>(nv21);  // the engine only reads the frame
  frame_.planeVU = frame_.planeY + static_cast<size_t>(w_) * h_;
  if (opt_.gyro != nullptr) {
    // The gyroscope's events up to this frame have gone through the engine's fusion, as on a
    // phone; a new engine's fusion starts just before its first frame.
    if (frames_ == 0) opt_.gyro->restartAt(timeMs);
    opt_.gyro->feedUpTo(timeMs);
    // A refusal is kept by the engine and read back with the frame's.
    if (opt_.frameTimes) ZOLT_PANO_SetFrameTime(handle_, opt_.gyro->frameTimeNs(timeMs));
  }
  long isKey = 0;
  int direction = -1, progress = -1;  // left alone by a refused frame
  auto t0 = Clock::now();
  f.code = ZOLT_PANO_SelectFrames(handle_, nullptr, nullptr, &frame_, nullptr, &f.offset, &isKey,
                                  nullptr, &direction, &f.sweepLength);
  f.selectMs = msSince(t0);
  f.keyFrame = isKey != 0;
  f.direction = direction < 0 ? MOVE_NONE : direction;
  if (canvasBytes_.empty() && direction >= MOVE_RIGHT && direction <= MOVE_UP)
    makeCanvas(direction);

  tsRECT rect{-1, -1, -1, -1};
  t0 = Clock::now();
  ZOLT_PANO_AddImage(handle_, nullptr, nullptr, nullptr, nullptr, &canvas_, &rect, nullptr,
                     &progress);
  f.addMs = msSince(t0);
  f.progress = std::max(progress, 0);
  f.directionWritten = direction >= 0;
  f.progressWritten = progress >= 0;
  f.rectWritten = rect.right >= 0;
  if (f.rectWritten) rect_ = rect;
  f.refusal = ZOLT_PANO_GetLastError(handle_, nullptr, 0);
  ++frames_;
  return f;
}

void EngineSession::makeCanvas(int direction) {
  const bool horiz = ZOLT_PANO_IsHorizontalSweep(direction);
  cv::Size c = opt_.canvas;
  if (c.width > 0) {
    const bool fits = horiz ? (c.height == h_ && c.width > w_) : (c.width == w_ && c.height > h_);
    if (!fits)
      throw SessionError(
          "canvas " + sizeText(c.width, c.height) + " does not suit a " +
          (horiz ? "horizontal" : "vertical") + " sweep of " + sizeText(w_, h_) +
          " frames: it must be " +
          (horiz ? "as high as a frame and wider" : "as wide as a frame and taller"));
  } else if (ZOLT_PANO_CanvasSize(w_, h_, direction, opt_.maxSweepLength, &c.width, &c.height) !=
             0) {
    throw SessionError("no canvas for the sweep (" + engineMessage(nullptr) + ")");
  }
  const size_t y = static_cast<size_t>(c.width) * c.height;
  canvasBytes_.assign(y * 3 / 2, 0);
  std::fill(canvasBytes_.begin() + static_cast<long>(y), canvasBytes_.end(), 128);
  canvas_.width = c.width;
  canvas_.height = c.height;
  canvas_.planeY = canvasBytes_.data();
  canvas_.planeVU = canvasBytes_.data() + y;
  canvasSize_ = c;
  direction_ = direction;
}

cv::Mat EngineSession::canvasLuma() const {
  if (canvasBytes_.empty()) return cv::Mat();
  return cv::Mat(canvas_.height, canvas_.width, CV_8UC1, canvas_.planeY);
}

int EngineSession::saveImage(const std::string& base) {
  ZOLT_PANO_SaveImage(handle_, base);
  return ZOLT_PANO_GetLastError(handle_, nullptr, 0);
}

std::vector<uint8_t> EngineSession::encodeJpeg(int* refusal) {
  unsigned char* data = nullptr;
  size_t size = 0;
  const int rc = ZOLT_PANO_EncodeJpeg(handle_, 0, &data, &size);
  if (refusal != nullptr) *refusal = rc;
  std::vector<uint8_t> out;
  if (rc == 0) out.assign(data, data + size);
  ZOLT_PANO_FreeBuffer(data);
  return out;
}

EngineLog::EngineLog(bool show) : before_(ZOLT_PANO_GetLogLevel()) {
  if (!show) ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
}

EngineLog::~EngineLog() { ZOLT_PANO_SetLogLevel(before_); }

}  // namespace zolt::tools
