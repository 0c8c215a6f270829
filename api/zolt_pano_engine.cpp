// The exported C functions that drive an engine. Thin shells over OrreryEngine; no C++
// exception leaves them.
#include <exception>
#include <string>

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

OrreryEngine* engineOf(void* handle) { return static_cast<OrreryEngine*>(handle); }

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
  startGyroscope();
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
  try {
    finishSensor();
  } catch (...) {
    logException("ZOLT_PANO_Release");
  }
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
