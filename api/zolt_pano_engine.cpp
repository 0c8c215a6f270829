// The exported C functions that drive an engine. Thin shells over OrreryEngine; no C++
// exception leaves them.
#include <exception>
#include <initializer_list>
#include <string>

#include "api/call_guard.h"
#include "api/engine_registry.h"
#include "engine/orrery_engine.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "sensor/sensor_handle.h"
#include "sensor/sensor_interface.h"
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

// Null arguments of the calls that take them: refused with one error line.
bool allGiven(std::initializer_list<const void*> args, const char* where) {
  for (const void* a : args) {
    if (a == nullptr) {
      ZLOGE("%s :: NULL argument : call ignored", where);
      return false;
    }
  }
  return true;
}

// Stops the polling thread and frees the sensor object; pSensorHandle is null afterwards.
void finishSensor() {
  if (pSensorHandle != nullptr) {
    pSensorHandle->deinit();
    ZLOGI("%s ::SensorInterface : DeInit Done", "FinishSensor");
  }
  if (pSensorHandle != nullptr) delete pSensorHandle;  // logs its destructor line
  pSensorHandle = nullptr;
  ZLOGI("%s ::SensorInterface : Deleted", "FinishSensor");
}

// Creates pSensorHandle and starts the gyroscope; without one the engine runs on vision and
// pSensorHandle is null again.
void startGyroscope() {
  // One gyroscope for the process. A sensor still running from an Initial without Release is
  // stopped first: left alone, its thread could never be stopped and would feed the same
  // fusion library as the new one.
  if (pSensorHandle != nullptr) finishSensor();
  bool started = false;
  try {
    pSensorHandle = new SensorInterface();
    ZLOGI("%s ::SensorInterface : Created", "ZOLT_PANO_Initial");
    started = pSensorHandle->init();
  } catch (...) {
    logException("ZOLT_PANO_Initial");
  }
  if (started) {
    ZLOGI("%s :: SensorInterface : Init Success", "ZOLT_PANO_Initial");
    return;
  }
  ZLOGE("%s :: SensorInterface : Init FAILED : GyroSensor Not Available", "ZOLT_PANO_Initial");
  finishSensor();
}

// The latest attitude to the engine, whatever the sensor has (identity before the first one).
void provideSensorValues(OrreryEngine* engine) {
  if (pSensorHandle == nullptr) {
    ZLOGE("Sensor is not initialised");
    return;
  }
  float angles[3];
  float rotation[9];
  const int gyroRet = pSensorHandle->get_Cur_GyroSensorVal(angles, rotation);
  ZLOGI("%s : GyroRet = %d Angles : %f   %f   %f ", "ZOLT_PANO_SelectFrames", gyroRet, angles[0],
        angles[1], angles[2]);
  // Elements 7 and 8 print swapped; readers of the log expect it so.
  ZLOGI("%s : RotMat : %f   %f   %f  %f  %f  %f  %f  %f  %f ", "ZOLT_PANO_SelectFrames",
        rotation[0], rotation[1], rotation[2], rotation[3], rotation[4], rotation[5], rotation[6],
        rotation[8], rotation[7]);
  engine->provideIMU(angles, rotation);
  ZLOGI("SensorInterface : In Pano : provideIMU DONE");
}

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_Initial(tag_ZOLT_PANO_INIT_PARAM* param, void** handle) {
  if (!allGiven({param, handle}, "ZOLT_PANO_Initial")) return ERR_INVALID_DIMENSIONS;
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
  zolt::api::enroll(engine);
  startGyroscope();
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
  const bool usable =
      allGiven({offset, isKeyFrame, direction, sweepLength}, "ZOLT_PANO_SelectFrames") &&
      zolt::api::frameFits(*engine, frame, "ZOLT_PANO_SelectFrames");
  zolt::api::setFrameRefused(engine, !usable);
  if (!usable) return ERR_INVALID_DIMENSIONS;
  const int64_t start = zolt::ticks();
  int result = engine->resultCode;
  try {
    provideSensorValues(engine);
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
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_AddImage");
  if (engine == nullptr || !allGiven({validRect, progress}, "ZOLT_PANO_AddImage") ||
      !zolt::api::canvasFits(*engine, panorama, "ZOLT_PANO_AddImage"))
    return 0;
  if (zolt::api::frameRefused(engine)) {
    ZLOGE("%s :: last frame was refused : nothing to merge", "ZOLT_PANO_AddImage");
    return 0;
  }
  try {
    engine->provideNV21Image_AddImage(panorama, validRect, progress);
  } catch (...) {
    logException("ZOLT_PANO_AddImage");
  }
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_GetTrackInfo(void* handle, tsPOINT* offset, long* isKeyFrame) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_GetTrackInfo");
  if (engine == nullptr || !allGiven({offset, isKeyFrame}, "ZOLT_PANO_GetTrackInfo")) return 0;
  engine->GrabInfo_Tracking(offset, isKeyFrame);
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_Release(void** handle) {
  // A handle that is not a live engine (released already, or never ours) leaves everything,
  // the gyroscope included, as it is.
  OrreryEngine* engine = zolt::api::withdraw(handle, "ZOLT_PANO_Release");
  if (engine == nullptr) return 0;
  try {
    finishSensor();
  } catch (...) {
    logException("ZOLT_PANO_Release");
  }
  try {
    engine->release();
  } catch (...) {
    logException("ZOLT_PANO_Release");
  }
  zolt::api::retire(engine);
  return 0;
}

}  // extern "C"

ZOLT_PANO_EXPORT void ZOLT_PANO_SaveImage(void* handle, std::string fileName) {
  OrreryEngine* engine = zolt::api::liveEngine(handle, "ZOLT_PANO_SaveImage");
  if (engine == nullptr) return;
  try {
    std::string name = fileName + ".jpg";
    engine->storeOutputTo(&name[0]);
  } catch (...) {
    logException("ZOLT_PANO_SaveImage");
  }
}
