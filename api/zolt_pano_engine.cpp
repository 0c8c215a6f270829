// The exported C functions that drive an engine. Thin shells over OrreryEngine; no C++
// exception leaves them.
#include <exception>
#include <string>

#include "engine/orrery_engine.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "sensor/sensor_handle.h"
#include "zolt_pano.h"

namespace {

// Logs what escaped the engine; the caller only sees result codes.
void logException(const char* where) {
  try {
    throw;
  } catch (const std::exception& e) {
    ZLOGE("%s : exception : %s", where, e.what());
  } catch (...) {
    ZLOGE("%s : unknown exception", where);
  }
}

OrreryEngine* engineOf(void* handle) { return static_cast<OrreryEngine*>(handle); }

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_Initial(tag_ZOLT_PANO_INIT_PARAM* param, void** handle) {
  OrreryEngine* engine = nullptr;
  try {
    engine = new OrreryEngine(param->mode);
    engine->zolt_init_pano(param->previewWidth, param->previewHeight);
  } catch (...) {
    ZLOGE("%s :: Invalid Dimensions : returning ERROR", "ZOLT_PANO_Initial");
    delete engine;  // the half-built engine holds nothing else: the tracker freed itself
    return ERR_INVALID_DIMENSIONS;
  }
  *handle = engine;
  // This build has no gyroscope service: the engine tracks from the images alone, as on a
  // phone without a gyroscope.
  ZLOGE("%s :: SensorInterface : Init FAILED : GyroSensor Not Available", "ZOLT_PANO_Initial");
  pSensorHandle = nullptr;
  ZLOGI("SensorInterface : Cam orientation = %d ", param->camOrientation);
  ZLOGI("ZOLT Panorama Lib Version: %s ", ZOLT_PANO_GetVersion());
  return SUCCESS;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_SelectFrames(void* handle, void*, void*, __tag_ZOLT_OFFSCREEN* frame,
                                            void*, tsPOINT* offset, long* isKeyFrame, void*,
                                            int* direction, int* sweepLength) {
  OrreryEngine* engine = engineOf(handle);
  const int64_t start = zolt::ticks();
  *isKeyFrame = 0;
  int result = engine->resultCode;
  try {
    if (pSensorHandle == nullptr) ZLOGE("Sensor is not initialised");
    result = engine->provideNV21Image_SelectFrame(frame, offset, isKeyFrame, direction,
                                                  sweepLength);
    ZLOGI("ZOLT_Pano Select frame : Final Offset : %d  x  %d  ", offset->x, offset->y);
  } catch (...) {
    logException("ZOLT_PANO_SelectFrames");
  }
  engine->selectFrameTicks += static_cast<double>(zolt::ticks() - start);
  return result;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_AddImage(void* handle, void*, void*, void*, void*,
                                        __tag_ZOLT_OFFSCREEN* panorama, tsRECT* validRect, void*,
                                        int* progress) {
  try {
    engineOf(handle)->provideNV21Image_AddImage(panorama, validRect, progress);
  } catch (...) {
    logException("ZOLT_PANO_AddImage");
  }
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_GetTrackInfo(void* handle, tsPOINT* offset, long* isKeyFrame) {
  engineOf(handle)->GrabInfo_Tracking(offset, isKeyFrame);
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_Release(void** handle) {
  // No gyroscope runs in this build; the handle is cleared as the sensor teardown would.
  pSensorHandle = nullptr;
  ZLOGI("%s ::SensorInterface : Deleted", "FinishSensor");
  OrreryEngine* engine = engineOf(*handle);
  if (engine == nullptr) return 0;  // nothing was created
  try {
    engine->release();
  } catch (...) {
    logException("ZOLT_PANO_Release");
  }
  delete engine;
  return 0;
}

}  // extern "C"

ZOLT_PANO_EXPORT void ZOLT_PANO_SaveImage(void* handle, std::string fileName) {
  std::string name = fileName + ".jpg";
  try {
    engineOf(handle)->storeOutputTo(&name[0]);
  } catch (...) {
    logException("ZOLT_PANO_SaveImage");
  }
}
