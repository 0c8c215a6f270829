// The exported C functions of zolt_pano.h that need no engine. The engine-bound ones (Initial,
// SelectFrames, AddImage, GetTrackInfo, SaveImage, Release) are in zolt_pano_engine.cpp.
#include "zolt_pano.h"

#include <cstddef>

#include "platform/log.h"

namespace {

const char kVersion[] = "ZOLT_PANO_v3.7";

// The layout callers rely on: every field one 32-bit word, in order.
static_assert(sizeof(tsPOINT) == 8 && offsetof(tsPOINT, y) == 4, "tsPOINT layout");
static_assert(sizeof(tsRECT) == 16 && offsetof(tsRECT, bottom) == 12, "tsRECT layout");
static_assert(offsetof(tag_ZOLT_PANO_INIT_PARAM, mode) == 32, "mode at byte 32");
static_assert(offsetof(tag_ZOLT_PANO_INIT_PARAM, previewWidth) == 52, "previewWidth at byte 52");
static_assert(offsetof(tag_ZOLT_PANO_INIT_PARAM, previewHeight) == 56, "previewHeight at 56");
static_assert(offsetof(tag_ZOLT_PANO_INIT_PARAM, camOrientation) == 60, "camOrientation at 60");
static_assert(offsetof(tag_ZOLT_PANO_INNER_PARAM, traceTooQuickOn) == 44, "too-quick on at 44");
static_assert(offsetof(tag_ZOLT_PANO_INNER_PARAM, traceTooQuickX) == 48, "too-quick x at 48");
static_assert(offsetof(tag_ZOLT_PANO_INNER_PARAM, traceTooQuickY) == 52, "too-quick y at 52");
static_assert(offsetof(__tag_ZOLT_OFFSCREEN, format) == 0 &&
                  offsetof(__tag_ZOLT_OFFSCREEN, width) == 4 &&
                  offsetof(__tag_ZOLT_OFFSCREEN, height) == 8,
              "offscreen header words");
static_assert(sizeof(MoveDirection) == 4, "MoveDirection is int-sized");
#if UINTPTR_MAX == 0xFFFFFFFFu
// 32-bit targets (armeabi-v7a, armhf): the plane pointers are words 3 and 4.
static_assert(offsetof(__tag_ZOLT_OFFSCREEN, planeY) == 12, "planeY at byte 12");
static_assert(offsetof(__tag_ZOLT_OFFSCREEN, planeVU) == 16, "planeVU at byte 16");
static_assert(sizeof(__tag_ZOLT_OFFSCREEN) == 20, "offscreen is five words");
static_assert(sizeof(long) == 4, "long is one word");
#endif

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT const char* ZOLT_PANO_GetVersion(void) {
  ZLOGI("ZOLT Pano Library Version: %s__%s__%s \n", kVersion, __DATE__, __TIME__);
  return kVersion;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_SetInternalParameter(void) {
  ZLOGI("ZOLT Panorama Lib Version: %s ", ZOLT_PANO_GetVersion());
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_UpdateUIImage(void) { return 0; }

ZOLT_PANO_EXPORT int ZOLT_PANO_Stitch(void) { return 0; }

}  // extern "C"
