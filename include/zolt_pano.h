/*
 * zoltpano: panorama capture from a phone camera's live NV21 preview.
 *
 * The one public header of libzoltpano. A camera application (through a bridge layer of its
 * own) creates an engine with the preview size, hands it one NV21 preview frame after another
 * and merges the chosen key frames into an NV21 canvas that it owns; at the end the engine
 * writes the cropped panorama as a JPEG file.
 *
 * Calling order, all on one thread:
 *   ZOLT_PANO_Initial
 *   per preview frame: ZOLT_PANO_SelectFrames, then ZOLT_PANO_AddImage with the canvas
 *   ZOLT_PANO_SaveImage
 *   ZOLT_PANO_Release
 *
 * ABI: every record field and every function argument is one 32-bit word on 32-bit ARM
 * (armeabi-v7a), in the order below. `long*` arguments stay `long*`.
 */
#ifndef ZOLT_PANO_H
#define ZOLT_PANO_H

#include <stdint.h>

/* Symbol visibility. The library is built with -fvisibility=hidden and ZOLT_PANO_BUILDING
 * defined; only what carries ZOLT_PANO_EXPORT is visible to callers. */
#if defined(_WIN32) || defined(__CYGWIN__)
#  if defined(ZOLT_PANO_BUILDING)
#    define ZOLT_PANO_EXPORT __declspec(dllexport)
#  else
#    define ZOLT_PANO_EXPORT __declspec(dllimport)
#  endif
#elif defined(__GNUC__) || defined(__clang__)
#  define ZOLT_PANO_EXPORT __attribute__((visibility("default")))
#else
#  define ZOLT_PANO_EXPORT
#endif

#ifdef __cplusplus
#include <string>
extern "C" {
#endif

/* Result and warning codes, 32-bit, logged with %X. High nibble: 0x0 success, 0x5 first-frame
 * notice, 0x7 failures of the sweep (ERR_), 0x8 advice while the sweep goes on (WARN_). */
enum {
  SUCCESS = 0x0000,
  INFO_TRACE_FIRST_FRAME = 0x5000,
  ERR_INVALID_DIMENSIONS = 0x7000,
  ERR_TRACE_DIRECTION = 0x7001,
  ERR_TRACE_NO_FEATURE = 0x7002,
  ERR_TRACE_TOO_QUICK = 0x7004,
  ERR_TRACE_DIRECTION_BACK = 0x7011,
  WARN_MOVE_SLOPE = 0x8001,
  WARN_SHAKE_TOO_BIG = 0x8020,
  WARN_TRACE_LITTLE_QUICK = 0x8080
};

/* Sweep direction, fixed once per sweep. 1 and 2 are horizontal, 3 and 4 vertical. */
typedef enum MoveDirection {
  MOVE_NONE = 0,
  MOVE_RIGHT = 1,
  MOVE_LEFT = 2,
  MOVE_DOWN = 3,
  MOVE_UP = 4
} MoveDirection;

/* An offset in pixels. */
typedef struct __tag_POINT {
  int32_t x;
  int32_t y;
} tsPOINT;

/* A rectangle in canvas pixels; right and bottom are exclusive. */
typedef struct __tag_RECT {
  int32_t left;
  int32_t top;
  int32_t right;
  int32_t bottom;
} tsRECT;

/* An NV21 image owned by the caller: a preview frame or the panorama canvas. Both planes are
 * packed at `width` bytes a row; planeVU holds width * height / 2 bytes, V then U for each 2x2
 * block. The canvas must have its VU plane directly behind its Y plane. */
typedef struct __tag_ZOLT_OFFSCREEN {
  uint32_t format; /* not read: NV21 is assumed */
  int32_t width;
  int32_t height;
  uint8_t* planeY;
  uint8_t* planeVU;
} __tag_ZOLT_OFFSCREEN;

/* Handed to ZOLT_PANO_Initial. The bridge layer owns the meaning of the reserved words; the
 * engine reads mode, previewWidth, previewHeight and camOrientation. */
typedef struct tag_ZOLT_PANO_INIT_PARAM {
  int32_t reserved0[8];
  int32_t mode;           /* stored, never interpreted */
  int32_t reserved9[4];
  int32_t previewWidth;   /* pixels, must be > 640 */
  int32_t previewHeight;  /* pixels, must be > 640 */
  int32_t camOrientation; /* degrees; only logged */
} tag_ZOLT_PANO_INIT_PARAM;

/* Inner tuning parameters: the too-quick limits of the tracker, in preview pixels. */
typedef struct tag_ZOLT_PANO_INNER_PARAM {
  int32_t reserved0[11];
  int32_t traceTooQuickOn; /* non-zero: use the two limits below */
  int32_t traceTooQuickX;
  int32_t traceTooQuickY;
} tag_ZOLT_PANO_INNER_PARAM;

/* Creates an engine for previewWidth x previewHeight frames and starts the gyroscope where
 * there is one. Returns SUCCESS and writes *handle, or ERR_INVALID_DIMENSIONS (either side
 * 640 or less) and leaves *handle alone. */
ZOLT_PANO_EXPORT int ZOLT_PANO_Initial(tag_ZOLT_PANO_INIT_PARAM* param, void** handle);

/* Tracks one preview frame. Writes the offset of the view against the panorama (preview
 * pixels), whether the frame became a key frame, the sweep direction (MoveDirection) and the
 * swept length. Returns the current result code. Arguments marked reserved are not read. */
ZOLT_PANO_EXPORT int ZOLT_PANO_SelectFrames(void* handle, void* reserved1, void* reserved2,
                                            __tag_ZOLT_OFFSCREEN* frame, void* reserved4,
                                            tsPOINT* offset, long* isKeyFrame, void* reserved7,
                                            int* direction, int* sweepLength);

/* Merges the frame the last ZOLT_PANO_SelectFrames chose (if any) into the caller's canvas,
 * and reports the valid rectangle and the progress in percent. Returns 0. The same canvas
 * must be passed on every call and stay valid until ZOLT_PANO_SaveImage returns. */
ZOLT_PANO_EXPORT int ZOLT_PANO_AddImage(void* handle, void* reserved1, void* reserved2,
                                        void* reserved3, void* reserved4,
                                        __tag_ZOLT_OFFSCREEN* panorama, tsRECT* validRect,
                                        void* reserved7, int* progress);

/* Reports the current tracking state without a new frame. Returns 0. */
ZOLT_PANO_EXPORT int ZOLT_PANO_GetTrackInfo(void* handle, tsPOINT* offset, long* isKeyFrame);

/* Stops the gyroscope and frees the engine. *handle is not cleared. Returns 0. */
ZOLT_PANO_EXPORT int ZOLT_PANO_Release(void** handle);

/* "ZOLT_PANO_v3.7"; a static string, the same pointer on every call. Logs the build date. */
ZOLT_PANO_EXPORT const char* ZOLT_PANO_GetVersion(void);

/* Logs the version and returns 0; inner parameters are not applied through it. */
ZOLT_PANO_EXPORT int ZOLT_PANO_SetInternalParameter(void);

/* Kept for callers that link against them: they do nothing and return 0. The UI image is
 * updated inside ZOLT_PANO_AddImage, and stitching happens frame by frame. */
ZOLT_PANO_EXPORT int ZOLT_PANO_UpdateUIImage(void);
ZOLT_PANO_EXPORT int ZOLT_PANO_Stitch(void);

#ifdef __cplusplus
} /* extern "C" */

/* Writes the cropped panorama to fileName + ".jpg" (the name is used as it stands, so "pano"
 * becomes "pano.jpg"). Exported under its C++ name since it takes a std::string. */
ZOLT_PANO_EXPORT void ZOLT_PANO_SaveImage(void* handle, std::string fileName);
#endif

#endif /* ZOLT_PANO_H */
