// The exported C functions of zolt_pano_ext.h that need no panorama: code names and hints, log
// control, the last error, the canvas size, YUV_420_888 packing and options. The JPEG output is
// in panorama_jpeg.cpp.
#include "zolt_pano_ext.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>

#include <libyuv/planar_functions.h>

#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "platform/log.h"

namespace {

struct CodeText {
  int code;
  const char* name;
  const char* hint;
};

// Hints for the sweep codes are for the user; those for refusals are for the app's developer.
constexpr CodeText kCodes[] = {
    {ZOLT_PANO_SUCCESS, "SUCCESS", ""},
    {ZOLT_PANO_INFO_TRACE_FIRST_FRAME, "INFO_TRACE_FIRST_FRAME", "Start sweeping"},
    {ZOLT_PANO_ERR_INVALID_DIMENSIONS, "ERR_INVALID_DIMENSIONS", "Preview size not supported"},
    {ZOLT_PANO_ERR_TRACE_DIRECTION, "ERR_TRACE_DIRECTION", "Keep to the sweep's direction"},
    {ZOLT_PANO_ERR_TRACE_NO_FEATURE, "ERR_TRACE_NO_FEATURE", "Aim at something with detail"},
    {ZOLT_PANO_ERR_TRACE_TOO_QUICK, "ERR_TRACE_TOO_QUICK", "Move slower"},
    {ZOLT_PANO_ERR_TRACE_DIRECTION_BACK, "ERR_TRACE_DIRECTION_BACK", "Don't go back"},
    {ZOLT_PANO_WARN_MOVE_SLOPE, "WARN_MOVE_SLOPE", "Keep the phone level"},
    {ZOLT_PANO_WARN_SHAKE_TOO_BIG, "WARN_SHAKE_TOO_BIG", "Hold the phone steady"},
    {ZOLT_PANO_WARN_TRACE_LITTLE_QUICK, "WARN_TRACE_LITTLE_QUICK", "Slow down a little"},
    {ZOLT_PANO_ERR_NULL_ARGUMENT, "ERR_NULL_ARGUMENT", "A required pointer is NULL"},
    {ZOLT_PANO_ERR_NOT_ENGINE, "ERR_NOT_ENGINE", "The handle is not a live engine"},
    {ZOLT_PANO_ERR_FRAME_SIZE, "ERR_FRAME_SIZE", "The frame is not the preview's size"},
    {ZOLT_PANO_ERR_CANVAS_INVALID, "ERR_CANVAS_INVALID", "Make the canvas by ZOLT_PANO_CanvasSize"},
    {ZOLT_PANO_ERR_CANVAS_FULL, "ERR_CANVAS_FULL", "Panorama full: stop and save"},
    {ZOLT_PANO_ERR_NOTHING_TO_SAVE, "ERR_NOTHING_TO_SAVE", "Sweep further before saving"},
    {ZOLT_PANO_ERR_WRITE_FAILED, "ERR_WRITE_FAILED", "The panorama could not be written"},
    {ZOLT_PANO_ERR_BAD_OPTION, "ERR_BAD_OPTION", "Unknown option or value"},
    {ZOLT_PANO_ERR_BAD_ARGUMENT, "ERR_BAD_ARGUMENT", "An argument is out of range"},
    {ZOLT_PANO_ERR_FRAME_REFUSED, "ERR_FRAME_REFUSED", "The last frame was refused"},
    {ZOLT_PANO_ERR_INTERNAL, "ERR_INTERNAL", "The engine failed: see the log"},
    {ZOLT_PANO_ERR_BUSY, "ERR_BUSY", "Call the engine from one thread at a time"},
    {ZOLT_PANO_VERDICT_ACROSS, "VERDICT_ACROSS", "Sweep along one line, not sideways"},
    {ZOLT_PANO_VERDICT_SINGLE_VIEW, "VERDICT_SINGLE_VIEW", "Sweep further"},
    {ZOLT_PANO_VERDICT_BROKEN_SEAM, "VERDICT_BROKEN_SEAM",
     "Sweep once, steadily, without going back"},
    {ZOLT_PANO_VERDICT_DISAGREE, "VERDICT_DISAGREE", "Sweep again, more slowly"},
    {ZOLT_PANO_VERDICT_GYRO_DISAGREES, "VERDICT_GYRO_DISAGREES",
     "Sweep again, more slowly, over something with detail"},
};

const CodeText* find(int code) {
  for (const CodeText& c : kCodes)
    if (c.code == code) return &c;
  return nullptr;
}

int evenUp(int64_t v) { return static_cast<int>(v + (v & 1)); }

// Byte rows of the VU plane from separate U and V planes with a pixel stride of 2 that do not
// interleave into one another (rare: two buffers of their own).
void gatherVU(const uint8_t* u, const uint8_t* v, int rowStride, uint8_t* vu, int cw, int ch,
              int dstStride) {
  for (int r = 0; r < ch; ++r) {
    const uint8_t* ur = u + static_cast<ptrdiff_t>(r) * rowStride;
    const uint8_t* vr = v + static_cast<ptrdiff_t>(r) * rowStride;
    uint8_t* out = vu + static_cast<ptrdiff_t>(r) * dstStride;
    for (int c = 0; c < cw; ++c) {
      out[2 * c] = vr[2 * c];
      out[2 * c + 1] = ur[2 * c];
    }
  }
}

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT const char* ZOLT_PANO_CodeName(int code) {
  const CodeText* c = find(code);
  return c != nullptr ? c->name : "UNKNOWN";
}

ZOLT_PANO_EXPORT const char* ZOLT_PANO_CodeHint(int code) {
  const CodeText* c = find(code);
  return c != nullptr ? c->hint : "";
}

ZOLT_PANO_EXPORT void ZOLT_PANO_SetLogLevel(int minPriority) {
  if (minPriority < ANDROID_LOG_VERBOSE || minPriority > ANDROID_LOG_SILENT) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT,
                    "ZOLT_PANO_SetLogLevel :: level %d : 2 (verbose) to 8 (silent), level kept",
                    minPriority);
    return;
  }
  zolt::log::setLevel(minPriority);
}

ZOLT_PANO_EXPORT int ZOLT_PANO_GetLogLevel(void) { return zolt::log::level(); }

ZOLT_PANO_EXPORT void ZOLT_PANO_SetLogSink(ZOLT_PANO_LogSink sink, void* user) {
  zolt::log::setSink(sink, user);
}

ZOLT_PANO_EXPORT int ZOLT_PANO_GetLastError(void* handle, char* message, int messageSize) {
  if (handle == nullptr) return zolt::api::takeThreadError(message, messageSize);
  const int code =
      zolt::api::takeError(static_cast<OrreryEngine*>(handle), message, messageSize);
  if (code >= 0) return code;
  char text[96];
  std::snprintf(text, sizeof text, "ZOLT_PANO_GetLastError :: Invalid handle %p : not a live engine",
                handle);
  zolt::api::copyMessage(text, message, messageSize);
  return ZOLT_PANO_ERR_NOT_ENGINE;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_CanvasSize(int previewWidth, int previewHeight, int direction,
                                          int maxSweepLength, int* canvasWidth,
                                          int* canvasHeight) {
  const char* where = "ZOLT_PANO_CanvasSize";
  if (canvasWidth == nullptr || canvasHeight == nullptr) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored",
                    where);
    return ZOLT_PANO_ERR_NULL_ARGUMENT;
  }
  const int w = previewWidth, h = previewHeight;
  if (w <= 640 || h <= 640 || direction < ZOLT_PANO_MOVE_NONE || direction > ZOLT_PANO_MOVE_UP ||
      maxSweepLength < 0) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT,
                    "%s :: preview %dx%d, direction %d, sweep %d : sides above 640, direction 0 "
                    "to 4, sweep 0 or more",
                    where, w, h, direction, maxSweepLength);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  if (direction == ZOLT_PANO_MOVE_NONE) {  // a record for AddImage; its planes are not read yet
    *canvasWidth = w;
    *canvasHeight = h;
    return 0;
  }
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(direction);
  const int along = horizontal ? w : h, across = horizontal ? h : w;
  if ((across & 1) != 0) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT,
                    "%s :: preview %dx%d : a canvas needs even sides, and its side across the "
                    "sweep is the frame's",
                    where, w, h);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  int64_t length = maxSweepLength;
  if (length == 0) {  // one whole turn beyond the first frame
    const double fov =
        (along >= across) ? OrreryEngine::kFixedHfovDeg : OrreryEngine::kFixedVfovDeg;
    length = along + static_cast<int64_t>(std::ceil(along * 360.0 / fov));
  }
  if (length < along) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT,
                    "%s :: sweep of %d pixels : it counts the frame, at least %d", where,
                    maxSweepLength, along);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  // The merger takes a frame only while the panorama's far edge stays inside the canvas by a
  // pixel: a panorama of `length` pixels needs one more.
  const int64_t side = evenUp(std::min<int64_t>(length + 1, INT32_MAX - 1));
  if (side * across * 3 / 2 > INT32_MAX) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT,
                    "%s :: sweep of %lld pixels : the canvas would exceed 2^31 - 1 bytes", where,
                    static_cast<long long>(length));
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  *canvasWidth = horizontal ? static_cast<int>(side) : across;
  *canvasHeight = horizontal ? across : static_cast<int>(side);
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_PackNV21(const unsigned char* y, int yRowStride,
                                        const unsigned char* u, const unsigned char* v,
                                        int uvRowStride, int uvPixelStride, int width, int height,
                                        unsigned char* nv21) {
  const char* where = "ZOLT_PANO_PackNV21";
  if (y == nullptr || u == nullptr || v == nullptr || nv21 == nullptr) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored",
                    where);
    return ZOLT_PANO_ERR_NULL_ARGUMENT;
  }
  const int cw = width / 2, ch = height / 2;
  if (width <= 0 || height <= 0 || ((width | height) & 1) != 0 || yRowStride < width ||
      (uvPixelStride != 1 && uvPixelStride != 2) ||
      uvRowStride < (cw - 1) * uvPixelStride + 1 ||
      static_cast<int64_t>(width) * height * 3 / 2 > INT32_MAX) {
    zolt::api::note(nullptr, ZOLT_PANO_ERR_BAD_ARGUMENT,
                    "%s :: %dx%d, Y row stride %d, UV row stride %d, pixel stride %d : even "
                    "positive sides, row strides covering a row, pixel stride 1 or 2",
                    where, width, height, yRowStride, uvRowStride, uvPixelStride);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  libyuv::CopyPlane(y, yRowStride, nv21, width, width, height);
  uint8_t* vu = nv21 + static_cast<ptrdiff_t>(width) * height;
  if (uvPixelStride == 1) {
    libyuv::MergeUVPlane(v, uvRowStride, u, uvRowStride, vu, width, cw, ch);  // V first
  } else if (v + 1 == u) {
    // NV21 already (what most phones deliver): V's buffer starts one byte before U's. A row's
    // last U byte is the pair's second, so whole rows of 2 * cw bytes are read from V.
    libyuv::CopyPlane(v, uvRowStride, vu, width, width, ch);
  } else if (u + 1 == v) {
    libyuv::SwapUVPlane(u, uvRowStride, vu, width, cw, ch);  // NV12 underneath
  } else {
    gatherVU(u, v, uvRowStride, vu, cw, ch, width);
  }
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_SetOption(void* handle, int option, int value) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_SetOption");
  if (engine == nullptr) return ZOLT_PANO_ERR_NOT_ENGINE;
  const char* accepted = "";
  switch (engine->setOption(option, value, &accepted)) {
    case PanoOptions::Status::kSet:
      return 0;
    case PanoOptions::Status::kUnknown:
      zolt::api::refuse(engine, ZOLT_PANO_ERR_BAD_OPTION,
                        "ZOLT_PANO_SetOption :: unknown option %d (value %d) : call ignored",
                        option, value);
      break;
    case PanoOptions::Status::kOutOfRange:
      zolt::api::refuse(engine, ZOLT_PANO_ERR_BAD_OPTION,
                        "ZOLT_PANO_SetOption :: option %d takes %s, not %d : call ignored",
                        option, accepted, value);
      break;
    case PanoOptions::Status::kFrozen:
      zolt::api::refuse(engine, ZOLT_PANO_ERR_BAD_OPTION,
                        "ZOLT_PANO_SetOption :: option %d set after the first frame : call "
                        "ignored",
                        option);
      break;
  }
  return ZOLT_PANO_ERR_BAD_OPTION;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_SetFrameTime(void* handle, int64_t timestampNs) {
  const char* where = "ZOLT_PANO_SetFrameTime";
  OrreryEngine* engine = zolt::api::liveEngine(handle, where);
  if (engine == nullptr) return ZOLT_PANO_ERR_NOT_ENGINE;
  const long long t = timestampNs;
  int64_t newest = 0;
  OrreryEngine::FrameTime status = OrreryEngine::FrameTime::kSet;
  try {
    status = engine->setFrameTime(timestampNs, &newest);
  } catch (const std::exception& e) {
    zolt::api::refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s :: %s : the frame is tracked without a "
                      "time", where, e.what());
    return ZOLT_PANO_ERR_INTERNAL;
  }
  switch (status) {
    case OrreryEngine::FrameTime::kSet:
      return 0;
    case OrreryEngine::FrameTime::kNotPositive:
      zolt::api::refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
                        "%s :: time %lld ns : not positive : the frame is tracked without a time",
                        where, t);
      break;
    case OrreryEngine::FrameTime::kNotAfterLast:
      zolt::api::refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
                        "%s :: time %lld ns : not after the previous frame's %lld ns : the frame "
                        "is tracked without a time",
                        where, t, static_cast<long long>(engine->lastFrameTimeNs));
      break;
    case OrreryEngine::FrameTime::kFarFromEvents:
      zolt::api::refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
                        "%s :: time %lld ns (%lld with the delay) : more than a second from the "
                        "gyroscope's newest attitude at %lld ns (another clock?) : the frame is "
                        "tracked without a time",
                        where, t, static_cast<long long>(t + engine->options.gyroDelayNs),
                        static_cast<long long>(newest));
      break;
  }
  return ZOLT_PANO_ERR_BAD_ARGUMENT;
}

}  // extern "C"
