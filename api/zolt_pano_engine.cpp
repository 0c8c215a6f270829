// The exported C functions that drive an engine. Thin shells over OrreryEngine; no C++
// exception leaves them.
#include <exception>
#include <initializer_list>
#include <string>

#include "api/call_guard.h"
#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "zolt_pano.h"

namespace {

// What the exception being handled says.
const char* currentWhat() {
  try {
    throw;
  } catch (const std::exception& e) {
    return e.what();  // the object lives on while the caller's handler runs
  } catch (...) {
    return nullptr;
  }
}

// Logs what escaped the engine and keeps it as the call's internal failure; the caller only sees
// result codes.
void logException(OrreryEngine* engine, const char* where) {
  if (const char* what = currentWhat())
    zolt::api::refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s : exception : %s", where, what);
  else
    zolt::api::refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s : unknown exception", where);
}

// Null arguments of the calls that take them: refused with one error line.
bool allGiven(OrreryEngine* engine, std::initializer_list<const void*> args, const char* where) {
  for (const void* a : args) {
    if (a == nullptr) {
      zolt::api::refuse(engine, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored",
                        where);
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_Initial(tag_ZOLT_PANO_INIT_PARAM* param, void** handle) {
  if (!allGiven(nullptr, {param, handle}, "ZOLT_PANO_Initial")) return ERR_INVALID_DIMENSIONS;
  OrreryEngine* engine = nullptr;
  try {
    engine = new OrreryEngine(param->mode);
    engine->zolt_init_pano(param->previewWidth, param->previewHeight);
  } catch (...) {
    ZLOGE("%s :: Invalid Dimensions : returning ERROR", "ZOLT_PANO_Initial");
    delete engine;  // the half-built engine holds nothing else: the tracker freed itself
    const int w = param->previewWidth, h = param->previewHeight;
    const char* what = currentWhat();
    if (w <= 640 || h <= 640)
      zolt::api::note(nullptr, ERR_INVALID_DIMENSIONS,
                      "ZOLT_PANO_Initial :: preview %dx%d : both sides must be above 640", w, h);
    else
      zolt::api::note(nullptr, ERR_INVALID_DIMENSIONS,
                      "ZOLT_PANO_Initial :: no engine for a %dx%d preview : %s", w, h,
                      what != nullptr ? what : "unknown exception");
    return ERR_INVALID_DIMENSIONS;
  }
  *handle = engine;
  engine->camOrientation = param->camOrientation;
  zolt::api::enroll(engine);
  std::string failure;
  if (!engine->startGyroscope(failure) && !failure.empty())
    zolt::api::note(nullptr, ZOLT_PANO_ERR_INTERNAL, "%s", failure.c_str());
  ZLOGI("SensorInterface : Cam orientation = %d ", param->camOrientation);
  ZLOGI("ZOLT Panorama Lib Version: %s ", ZOLT_PANO_GetVersion());
  return SUCCESS;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_SelectFrames(void* handle, void*, void*, __tag_ZOLT_OFFSCREEN* frame,
                                            void*, tsPOINT* offset, long* isKeyFrame, void*,
                                            int* direction, int* sweepLength) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_SelectFrames");
  if (isKeyFrame != nullptr) *isKeyFrame = 0;
  if (engine == nullptr) return ERR_INVALID_DIMENSIONS;
  const int64_t frameTimeNs = engine->takeFrameTime();  // this frame's, tracked or not
  const bool usable =
      allGiven(engine, {offset, isKeyFrame, direction, sweepLength}, "ZOLT_PANO_SelectFrames") &&
      zolt::api::frameFits(*engine, frame, "ZOLT_PANO_SelectFrames");
  zolt::api::setFrameRefused(engine, !usable);
  if (!usable) return ERR_INVALID_DIMENSIONS;
  // The engine answers such a frame with its last code, as if it had been tracked.
  if (engine->stoppedAtCanvasEnd())
    zolt::api::note(engine, ZOLT_PANO_ERR_CANVAS_FULL,
                    "ZOLT_PANO_SelectFrames :: canvas full : the sweep has ended, frame ignored");
  const int64_t start = zolt::ticks();
  int result = engine->resultCode;
  try {
    engine->readGyroscope(frameTimeNs);
    result = engine->provideNV21Image_SelectFrame(frame, offset, isKeyFrame, direction,
                                                  sweepLength);
    ZLOGI("ZOLT_Pano Select frame : Final Offset : %d  x  %d  ", offset->x, offset->y);
  } catch (...) {
    logException(engine, "ZOLT_PANO_SelectFrames");
  }
  engine->selectFrameTicks += static_cast<double>(zolt::ticks() - start);
  return result;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_AddImage(void* handle, void*, void*, void*, void*,
                                        __tag_ZOLT_OFFSCREEN* panorama, tsRECT* validRect, void*,
                                        int* progress) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_AddImage");
  if (engine == nullptr || !allGiven(engine, {validRect, progress}, "ZOLT_PANO_AddImage") ||
      !zolt::api::canvasFits(*engine, panorama, "ZOLT_PANO_AddImage"))
    return 0;
  if (zolt::api::frameRefused(engine)) {
    zolt::api::refuse(engine, ZOLT_PANO_ERR_FRAME_REFUSED,
                      "%s :: last frame was refused : nothing to merge", "ZOLT_PANO_AddImage");
    return 0;
  }
  const bool stopped = engine->stoppedAtCanvasEnd();
  try {
    engine->provideNV21Image_AddImage(panorama, validRect, progress);
  } catch (...) {
    logException(engine, "ZOLT_PANO_AddImage");
  }
  if (stopped)
    zolt::api::note(engine, ZOLT_PANO_ERR_CANVAS_FULL,
                    "ZOLT_PANO_AddImage :: canvas full : the sweep has ended, nothing merged");
  else if (engine->canvasFull())
    zolt::api::note(engine, ZOLT_PANO_ERR_CANVAS_FULL,
                    "ZOLT_PANO_AddImage :: canvas full : the sweep reached the canvas's end, "
                    "the panorama ends with the last key frame merged");
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_GetTrackInfo(void* handle, tsPOINT* offset, long* isKeyFrame) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_GetTrackInfo");
  if (engine == nullptr || !allGiven(engine, {offset, isKeyFrame}, "ZOLT_PANO_GetTrackInfo"))
    return 0;
  engine->GrabInfo_Tracking(offset, isKeyFrame);
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_Release(void** handle) {
  // A handle that is not a live engine (released already, or never ours) leaves everything,
  // the gyroscope included, as it is.
  OrreryEngine* engine = zolt::api::withdraw(handle, "ZOLT_PANO_Release");
  if (engine == nullptr) return 0;
  // The engine is no longer live: what fails here is kept for this thread.
  try {
    engine->stopGyroscope();
  } catch (...) {
    logException(nullptr, "ZOLT_PANO_Release");
  }
  try {
    engine->release();
  } catch (...) {
    logException(nullptr, "ZOLT_PANO_Release");
  }
  zolt::api::retire(engine);
  return 0;
}

}  // extern "C"

ZOLT_PANO_EXPORT void ZOLT_PANO_SaveImage(void* handle, std::string fileName) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_SaveImage");
  if (engine == nullptr) return;
  const bool merged = engine->hasPanorama();
  std::string name;
  try {
    name = fileName + ".jpg";
    engine->storeOutputTo(&name[0]);
  } catch (...) {
    logException(engine, "ZOLT_PANO_SaveImage");
  }
  // The engine's own lines said what happened; the caller gets it as a code too (in place of
  // the exception, when the image writer threw).
  if (!merged)
    zolt::api::note(engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
                    "ZOLT_PANO_SaveImage :: nothing to save : no key frame merged yet");
  else if (!engine->outputWritten)
    zolt::api::note(engine, ZOLT_PANO_ERR_WRITE_FAILED, "ZOLT_PANO_SaveImage :: cannot write '%s'",
                    name.c_str());
}
