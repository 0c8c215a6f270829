/*
 * zoltpano: what a camera application needs around zolt_pano.h.
 *
 * Everything here is additive: zolt_pano.h keeps its functions, records, codes and behaviour,
 * and an engine on which no option is set behaves exactly as that header says. This header adds
 * errors a caller can act on (a code and a one-line message per engine), control of the log,
 * the panorama as a JPEG file or in memory with a quality, the panorama so far as an RGBA
 * preview, the canvas size a sweep needs, Camera2 / CameraX frames (YUV_420_888 with strides)
 * turned into packed NV21, and the one switch for behaviour beyond the original interface.
 * Plain C99; every name starts with ZOLT_PANO_, so it can be used after a header that defines
 * SUCCESS or MOVE_NONE as macros.
 *
 * Calls that return int return 0 on success and otherwise one of the codes below; the message
 * that goes with it is read with ZOLT_PANO_GetLastError. See docs/integrating.md.
 */
#ifndef ZOLT_PANO_EXT_H
#define ZOLT_PANO_EXT_H

#include <stddef.h>
#include <stdint.h>

/* zolt_pano.h declares bare names (SUCCESS, MOVE_NONE, ...). A caller whose own headers define
 * one of them as a macro can still include this header after them: the macros are set aside
 * while zolt_pano.h is read (GCC, Clang and MSVC know push_macro), and the ZOLT_PANO_ names
 * below stand for the values. */
#ifndef ZOLT_PANO_H
#pragma push_macro("SUCCESS")
#pragma push_macro("INFO_TRACE_FIRST_FRAME")
#pragma push_macro("ERR_INVALID_DIMENSIONS")
#pragma push_macro("ERR_TRACE_DIRECTION")
#pragma push_macro("ERR_TRACE_NO_FEATURE")
#pragma push_macro("ERR_TRACE_TOO_QUICK")
#pragma push_macro("ERR_TRACE_DIRECTION_BACK")
#pragma push_macro("WARN_MOVE_SLOPE")
#pragma push_macro("WARN_SHAKE_TOO_BIG")
#pragma push_macro("WARN_TRACE_LITTLE_QUICK")
#pragma push_macro("MOVE_NONE")
#pragma push_macro("MOVE_RIGHT")
#pragma push_macro("MOVE_LEFT")
#pragma push_macro("MOVE_DOWN")
#pragma push_macro("MOVE_UP")
#pragma push_macro("MoveDirection")
#undef SUCCESS
#undef INFO_TRACE_FIRST_FRAME
#undef ERR_INVALID_DIMENSIONS
#undef ERR_TRACE_DIRECTION
#undef ERR_TRACE_NO_FEATURE
#undef ERR_TRACE_TOO_QUICK
#undef ERR_TRACE_DIRECTION_BACK
#undef WARN_MOVE_SLOPE
#undef WARN_SHAKE_TOO_BIG
#undef WARN_TRACE_LITTLE_QUICK
#undef MOVE_NONE
#undef MOVE_RIGHT
#undef MOVE_LEFT
#undef MOVE_DOWN
#undef MOVE_UP
#undef MoveDirection
#include "zolt_pano.h"
#pragma pop_macro("SUCCESS")
#pragma pop_macro("INFO_TRACE_FIRST_FRAME")
#pragma pop_macro("ERR_INVALID_DIMENSIONS")
#pragma pop_macro("ERR_TRACE_DIRECTION")
#pragma pop_macro("ERR_TRACE_NO_FEATURE")
#pragma pop_macro("ERR_TRACE_TOO_QUICK")
#pragma pop_macro("ERR_TRACE_DIRECTION_BACK")
#pragma pop_macro("WARN_MOVE_SLOPE")
#pragma pop_macro("WARN_SHAKE_TOO_BIG")
#pragma pop_macro("WARN_TRACE_LITTLE_QUICK")
#pragma pop_macro("MOVE_NONE")
#pragma pop_macro("MOVE_RIGHT")
#pragma pop_macro("MOVE_LEFT")
#pragma pop_macro("MOVE_DOWN")
#pragma pop_macro("MOVE_UP")
#pragma pop_macro("MoveDirection")
#endif

/* The library's version at compile time; ZOLT_PANO_GetVersion() gives "ZOLT_PANO_v3.7" at run
 * time. ZOLT_PANO_VERSION_NUMBER is MAJOR * 10000 + MINOR * 100 + PATCH, for #if tests. */
#define ZOLT_PANO_VERSION_MAJOR 3
#define ZOLT_PANO_VERSION_MINOR 7
#define ZOLT_PANO_VERSION_PATCH 0
#define ZOLT_PANO_VERSION_NUMBER \
  (ZOLT_PANO_VERSION_MAJOR * 10000 + ZOLT_PANO_VERSION_MINOR * 100 + ZOLT_PANO_VERSION_PATCH)

#ifdef __cplusplus
extern "C" {
#endif

/* The result codes of zolt_pano.h under prefixed names (same values). */
#define ZOLT_PANO_SUCCESS 0x0000
#define ZOLT_PANO_INFO_TRACE_FIRST_FRAME 0x5000
#define ZOLT_PANO_ERR_INVALID_DIMENSIONS 0x7000
#define ZOLT_PANO_ERR_TRACE_DIRECTION 0x7001
#define ZOLT_PANO_ERR_TRACE_NO_FEATURE 0x7002
#define ZOLT_PANO_ERR_TRACE_TOO_QUICK 0x7004
#define ZOLT_PANO_ERR_TRACE_DIRECTION_BACK 0x7011
#define ZOLT_PANO_WARN_MOVE_SLOPE 0x8001
#define ZOLT_PANO_WARN_SHAKE_TOO_BIG 0x8020
#define ZOLT_PANO_WARN_TRACE_LITTLE_QUICK 0x8080

/* The sweep directions of zolt_pano.h under prefixed names (same values). */
#define ZOLT_PANO_MOVE_NONE 0
#define ZOLT_PANO_MOVE_RIGHT 1
#define ZOLT_PANO_MOVE_LEFT 2
#define ZOLT_PANO_MOVE_DOWN 3
#define ZOLT_PANO_MOVE_UP 4

/* 1 for a sweep along the frame's width (right or left), else 0 (down, up, or none yet): which
 * side of the canvas grows, and which component of the offset runs along the sweep. */
static inline int ZOLT_PANO_IsHorizontalSweep(int direction) {
  return direction == ZOLT_PANO_MOVE_RIGHT || direction == ZOLT_PANO_MOVE_LEFT;
}

/* Refusals: a call that was given something it cannot use, or that could not do its work. They
 * are never returned by ZOLT_PANO_SelectFrames (which keeps the codes of zolt_pano.h), only by
 * the calls of this header and by ZOLT_PANO_GetLastError. High nibble 0x9. */
#define ZOLT_PANO_ERR_NULL_ARGUMENT 0x9001  /* a required pointer is NULL */
#define ZOLT_PANO_ERR_NOT_ENGINE 0x9002     /* a handle that is not a live engine */
#define ZOLT_PANO_ERR_FRAME_SIZE 0x9003     /* a frame of another size than the preview */
#define ZOLT_PANO_ERR_CANVAS_INVALID 0x9004 /* a canvas the sweep cannot use */
#define ZOLT_PANO_ERR_CANVAS_FULL 0x9005    /* the sweep reached the canvas's end */
#define ZOLT_PANO_ERR_NOTHING_TO_SAVE 0x9006 /* no key frame merged yet */
#define ZOLT_PANO_ERR_WRITE_FAILED 0x9007   /* the JPEG could not be made or written */
#define ZOLT_PANO_ERR_BAD_OPTION 0x9008     /* an unknown option, or a value out of its range */
#define ZOLT_PANO_ERR_BAD_ARGUMENT 0x9009   /* a size, stride or quality out of its range */
#define ZOLT_PANO_ERR_FRAME_REFUSED 0x900A  /* AddImage after a frame that was refused */
#define ZOLT_PANO_ERR_INTERNAL 0x900B       /* the engine failed (out of memory, ...) */
/* A call on an engine while another thread is inside one. The C calls expect one thread at a
 * time and do not check; bindings that check (the Java one) refuse with this code. */
#define ZOLT_PANO_ERR_BUSY 0x900C

/* The code's name as written here or in zolt_pano.h without the prefix ("ERR_TRACE_TOO_QUICK",
 * "ERR_CANVAS_FULL"); "UNKNOWN" for any other value. A static string. */
ZOLT_PANO_EXPORT const char* ZOLT_PANO_CodeName(int code);

/* One short hint for the user ("Move slower"), or for the developer where the code is a
 * refusal; "" for SUCCESS and for unknown values. English, a static string. */
ZOLT_PANO_EXPORT const char* ZOLT_PANO_CodeHint(int code);

/* Log control, process-wide, for every line the engine and its gyroscope thread write (tag
 * "PanoEngine"). Android priorities: 2 verbose, 3 debug, 4 info, 5 warn, 6 error, 7 fatal,
 * 8 silent. Lines below minPriority are dropped before they are formatted. Default 2: every line,
 * as the engine has always logged. On Linux hosts the environment variable ZOLTPANO_LOG_LEVEL
 * sets the starting level (a number 2 to 8, or verbose, debug, info, warn, error, fatal,
 * silent). A value outside 2 to 8 is refused (ZOLT_PANO_ERR_BAD_ARGUMENT, read with
 * ZOLT_PANO_GetLastError(NULL, ...)) and the level stays. */
#define ZOLT_PANO_LOG_VERBOSE 2
#define ZOLT_PANO_LOG_DEBUG 3
#define ZOLT_PANO_LOG_INFO 4
#define ZOLT_PANO_LOG_WARN 5
#define ZOLT_PANO_LOG_ERROR 6
#define ZOLT_PANO_LOG_FATAL 7
#define ZOLT_PANO_LOG_SILENT 8
ZOLT_PANO_EXPORT void ZOLT_PANO_SetLogLevel(int minPriority);
ZOLT_PANO_EXPORT int ZOLT_PANO_GetLogLevel(void);

/* Receives each line that passes the level instead of the platform log: its priority, the tag,
 * the formatted line (no trailing newline is added or removed) and `user`. Lines arrive one at
 * a time, from the caller's thread or the engine's gyroscope thread; the sink must not call
 * ZOLT_PANO_SetLogSink. Once ZOLT_PANO_SetLogSink returns, the previous sink is no longer
 * called. NULL: back to the platform log. */
typedef void (*ZOLT_PANO_LogSink)(int priority, const char* tag, const char* line, void* user);
ZOLT_PANO_EXPORT void ZOLT_PANO_SetLogSink(ZOLT_PANO_LogSink sink, void* user);

/* The code of the last refusal or failure of a call on `handle` since the previous
 * ZOLT_PANO_GetLastError on it (0 if none), and clears it. `message` (if not NULL and
 * messageSize > 0) receives its one-line message, starting with the function's name, truncated
 * to messageSize - 1 bytes and always terminated ("" for 0). A NULL handle answers, for the
 * calling thread, for calls made without a live engine: a stale or NULL handle, a refused
 * ZOLT_PANO_Initial, and the calls of this header that take no handle. A handle that is neither
 * NULL nor a live engine gives ZOLT_PANO_ERR_NOT_ENGINE. */
ZOLT_PANO_EXPORT int ZOLT_PANO_GetLastError(void* handle, char* message, int messageSize);

/* Writes the cropped panorama (what ZOLT_PANO_SaveImage writes) to `path` exactly as given, no
 * ".jpg" appended, at `quality` 1 to 100 (0: the engine's default, 95, the quality of
 * ZOLT_PANO_SaveImage). A file that cannot be written completely is removed. Returns 0, or
 * ZOLT_PANO_ERR_NOT_ENGINE, _NULL_ARGUMENT, _BAD_ARGUMENT (quality), _NOTHING_TO_SAVE,
 * _WRITE_FAILED. */
ZOLT_PANO_EXPORT int ZOLT_PANO_SaveJpeg(void* handle, const char* path, int quality);

/* The same JPEG bytes in memory: *data (allocated by the engine, freed with
 * ZOLT_PANO_FreeBuffer) and *size. On a refusal *data is NULL and *size 0. */
ZOLT_PANO_EXPORT int ZOLT_PANO_EncodeJpeg(void* handle, int quality, unsigned char** data,
                                          size_t* size);
ZOLT_PANO_EXPORT void ZOLT_PANO_FreeBuffer(void* data);

/* The canvas for ZOLT_PANO_AddImage that holds a panorama of up to maxSweepLength pixels along
 * the sweep, the first frame included. direction 1 or 2 (horizontal): previewHeight high;
 * 3 or 4 (vertical): previewWidth wide; along the sweep maxSweepLength + 1 rounded up to even
 * (the merger keeps a frame's far edge inside the canvas). maxSweepLength is at least the frame's
 * side; 0: one whole turn of the phone at the engine's field of view (62.2 x 39.8 degrees), which
 * no sweep exceeds (13034 x 1080 for a 1920 x 1080 preview). The sweepLength that
 * ZOLT_PANO_SelectFrames reports trails the panorama by up to a key frame's step. direction 0: the record
 * to pass while the direction is not yet known (the preview's size: its planes are not read
 * before the first merge, which comes with the frame that fixes the direction). Allocate
 * width * height * 3 / 2 bytes, the VU plane directly behind the Y plane. Returns 0, or
 * ZOLT_PANO_ERR_NULL_ARGUMENT or _BAD_ARGUMENT (preview sides 640 or less, a direction outside
 * 0 to 4, a sweep shorter than the frame, a canvas over 2^31 - 1 bytes). */
ZOLT_PANO_EXPORT int ZOLT_PANO_CanvasSize(int previewWidth, int previewHeight, int direction,
                                          int maxSweepLength, int* canvasWidth,
                                          int* canvasHeight);

/* Turns a YUV_420_888 frame (Android's Image planes: Y with its row stride; U and V sharing one
 * row stride and one pixel stride, 1 or 2) into packed NV21 at `nv21`, width * height * 3 / 2
 * bytes, which ZOLT_PANO_SelectFrames takes with planeVU = nv21 + width * height. Both sides
 * even and positive; yRowStride >= width; uvRowStride >= (width / 2 - 1) * uvPixelStride + 1.
 * The output must not overlap the input. Returns 0, or ZOLT_PANO_ERR_NULL_ARGUMENT or
 * _BAD_ARGUMENT. */
ZOLT_PANO_EXPORT int ZOLT_PANO_PackNV21(const unsigned char* y, int yRowStride,
                                        const unsigned char* u, const unsigned char* v,
                                        int uvRowStride, int uvPixelStride, int width, int height,
                                        unsigned char* nv21);

/* The one switch for behaviour beyond zolt_pano.h, set after ZOLT_PANO_Initial and before the
 * first frame. An engine with no option set behaves exactly as zolt_pano.h says, byte for byte.
 * Options and their values:
 *   ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT      0 off (default), 1: key frames keep the fraction
 *       of their motion. Each key frame's offset is refined below a pixel against an earlier key
 *       frame at least a few dozen pixels back, the panorama's position is kept in fractions and
 *       rounded only where the frame is laid on the canvas, so slow sweeps (a few pixels a frame)
 *       are placed as exactly as fast ones.
 *   ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION   0 off (default), 1: each key frame's brightness is
 *       matched to the canvas where they overlap, by a gain smoothed along the sweep, so that
 *       auto exposure leaves no steps between key frames.
 *   ZOLT_PANO_OPTION_CAMERA_HFOV             the camera's horizontal field of view, across the
 *       width of the frames as handed to the engine, in hundredths of a degree. 0 (default): the
 *       engine's fixed camera, 62.2 x 39.8 degrees whatever the frame's aspect. 1000 to 17000
 *       (10 to 170 degrees): the tracker's camera matrix for the gyroscope's prediction becomes
 *       fx = fy = (400 / 2) / tan(hfov / 2) pixels of its 400-wide image (square pixels, a real
 *       lens), the principal point unchanged.
 *   ZOLT_PANO_OPTION_GYRO_DELAY_US           microseconds added to every ZOLT_PANO_SetFrameTime
 *       time to put it on the gyroscope's clock: how late the gyroscope's clock runs against
 *       the frames' (what zoltpano gyro-check measures). 0 (default) or -1000000 to 1000000.
 * Returns 0, or ZOLT_PANO_ERR_NOT_ENGINE or _BAD_OPTION (an unknown option, a value out of the
 * option's range, or a call after the first frame); a refused call leaves the engine as it was. */
#define ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT 1
#define ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION 2
#define ZOLT_PANO_OPTION_CAMERA_HFOV 3
#define ZOLT_PANO_OPTION_GYRO_DELAY_US 4
ZOLT_PANO_EXPORT int ZOLT_PANO_SetOption(void* handle, int option, int value);

/* The capture time of the frame that the next ZOLT_PANO_SelectFrames takes, in nanoseconds on
 * the gyroscope events' clock (on Android SensorEvent.timestamp, CLOCK_BOOTTIME; the camera's
 * Image.getTimestamp() is on it where SENSOR_INFO_TIMESTAMP_SOURCE is REALTIME, see
 * docs/integrating.md). That frame's gyroscope prediction then uses the attitude at this time
 * plus ZOLT_PANO_OPTION_GYRO_DELAY_US, interpolated between the events around it (the engine
 * keeps the attitudes of at least the last second), instead of the newest attitude at the call:
 * a preview frame reaches the app 50 to 100 ms after its exposure, when the gyroscope is that
 * far ahead of the picture. A time past the newest event is extended by the newest rate for at
 * most 40 ms. The time is for the next SelectFrames only, tracked or refused; a frame without
 * one takes the newest attitude, as without this call. Without a gyroscope the time is checked
 * and otherwise unused.
 * Returns 0, or ZOLT_PANO_ERR_NOT_ENGINE, or ZOLT_PANO_ERR_BAD_ARGUMENT for a time that is zero
 * or negative, not after the last time accepted (a repeat or a step back), or, with the delay
 * added, more than a second from the gyroscope's newest attitude (another clock); the frame is
 * then tracked as one without a time. */
ZOLT_PANO_EXPORT int ZOLT_PANO_SetFrameTime(void* handle, int64_t timestampNs);

/* Whether the capture so far gives a panorama, judged from what the engine holds at each merge:
 * how each key frame agrees with the one before where the merger laid them over each other
 * (their detail correlated), the camera's travel along and across the sweep as the tracker
 * measured it, and whether the images or the gyroscope placed each key frame. The judgement
 * changes nothing the engine outputs. *verdict receives 0 for a panorama or one of the reasons
 * below (names and hints through ZOLT_PANO_CodeName / ZOLT_PANO_CodeHint); `message` (if not
 * NULL and messageSize > 0) the figures in one line, truncated to messageSize - 1 bytes and
 * terminated. Ask before saving: a refused picture can still be saved, but it is not a
 * panorama. Returns 0, or ZOLT_PANO_ERR_NOT_ENGINE, _NULL_ARGUMENT (verdict NULL), or
 * _NOTHING_TO_SAVE before the first key frame is merged (*verdict untouched). */
#define ZOLT_PANO_VERDICT_PANORAMA 0
#define ZOLT_PANO_VERDICT_ACROSS 0xA001         /* the camera moved across the sweep more than along it */
#define ZOLT_PANO_VERDICT_SINGLE_VIEW 0xA002    /* the key frames span less than a tenth of the frame */
#define ZOLT_PANO_VERDICT_BROKEN_SEAM 0xA003    /* unrelated views meet at a seam: a piece missing or laid twice */
#define ZOLT_PANO_VERDICT_DISAGREE 0xA004       /* the key frames do not agree where they overlap */
#define ZOLT_PANO_VERDICT_GYRO_DISAGREES 0xA005 /* key frames the gyroscope placed disagree with the images */
ZOLT_PANO_EXPORT int ZOLT_PANO_GetVerdict(void* handle, int* verdict, char* message,
                                          int messageSize);

/* The photo a user keeps: upright, with its metadata.
 *
 * camOrientation of the init record is read as the clockwise turn, in degrees, that shows a
 * preview frame upright (the value an Android app passes as CaptureRequest.JPEG_ORIENTATION:
 * the sensor's orientation and the device's rotation together); 0, 90, 180 or 270, other
 * values go to the nearest of them. Once ZOLT_PANO_OPTION_UPRIGHT is 1 or ZOLT_PANO_SetPhotoInfo
 * has been accepted, ZOLT_PANO_SaveJpeg, ZOLT_PANO_EncodeJpeg and ZOLT_PANO_SaveImage turn the
 * panorama's pixels by that angle before encoding (the EXIF orientation, when written, is 1:
 * panorama viewers ignore the tag, and the cropped area below counts the stored pixels). With
 * neither, the bytes are those of the engine without this block.
 *   ZOLT_PANO_OPTION_UPRIGHT                 0 off (default), 1: turn the panorama upright.
 */
#define ZOLT_PANO_OPTION_UPRIGHT 5

/* What ZOLT_PANO_SetPhotoInfo takes. Strings are UTF-8 without control characters, at most
 * ZOLT_PANO_PHOTO_TEXT_MAX bytes; NULL or "" leaves the tag out (software: the library's
 * version string instead). The engine copies them. */
#define ZOLT_PANO_PHOTO_TEXT_MAX 63
typedef struct ZOLT_PANO_PhotoInfo {
  int64_t captureTimeUtcMs; /* when the sweep began: ms since 1970-01-01 00:00 UTC; the local
                               time (this plus the zone offset) falls in the years 1970 to 9999 */
  int32_t zoneOffsetMinutes; /* local time minus UTC at that moment, -840 to 840 */
  const char* make;          /* the phone's maker (Build.MANUFACTURER) */
  const char* model;         /* the phone's model (Build.MODEL) */
  const char* software;      /* the app that made the panorama */
} ZOLT_PANO_PhotoInfo;

/* The photo's metadata, kept for every later save and turning the panorama upright as
 * ZOLT_PANO_OPTION_UPRIGHT does; a later call replaces it. Any time before saving. From then on
 * the JPEG carries EXIF (Make, Model, Software; DateTime, DateTimeOriginal and
 * DateTimeDigitized in local time with SubSecTimeOriginal and OffsetTime, OffsetTimeOriginal,
 * OffsetTimeDigitized; Orientation 1, PixelX/YDimension, ColorSpace sRGB) and an XMP packet with
 * Google's photo-sphere tags (GPano) that gallery apps and panorama viewers read: projection
 * equirectangular, UsePanoramaViewer True, the cropped area (the stored image, centred in the
 * full panorama) and the full panorama's size: 360 degrees at the sweep's pixels per degree,
 * from its field of view (ZOLT_PANO_OPTION_CAMERA_HFOV, else the engine's 62.2 x 39.8 degree
 * camera), at least the stored image's size, twice as wide as high. See docs/integrating.md.
 * Returns 0, or ZOLT_PANO_ERR_NOT_ENGINE, _NULL_ARGUMENT (info), or _BAD_ARGUMENT (a string too
 * long, not UTF-8 or with a control character, a time or zone offset out of range); a refused
 * call leaves the engine as it was. */
ZOLT_PANO_EXPORT int ZOLT_PANO_SetPhotoInfo(void* handle, const ZOLT_PANO_PhotoInfo* info);

/* The panorama so far, for the app's strip view: the canvas inside the valid rectangle (its
 * sides trimmed inwards to even canvas rows and columns, where the chroma pairs start), scaled
 * to fit maxWidth x maxHeight and written as RGBA. "Fit": the largest size within maxWidth x
 * maxHeight with the panorama's aspect (the limiting side the box's, the other rounded to the
 * nearest pixel, at least 1), never larger than the panorama itself (one that fits is written
 * at its own size). Colours are the JPEG's (full-range BT.601); bytes R, G, B, A in memory
 * (libyuv's "ABGR", Android's ARGB_8888 / RGBA_8888), alpha 255. `rgba` holds maxHeight rows
 * of rowStride bytes, rowStride at least maxWidth * 4 and maxHeight * rowStride at most
 * 2^31 - 1; only the first *width * 4 bytes of the first *height rows are written. The canvas
 * passed to ZOLT_PANO_AddImage is read, so call it between frames on the engine's thread,
 * while the canvas is alive. Returns 0 with *width and *height set, or
 * ZOLT_PANO_ERR_NOT_ENGINE, _NULL_ARGUMENT (rgba, width or height NULL), _BAD_ARGUMENT (a side
 * under 1, a stride too small or a buffer over 2^31 - 1 bytes), _NOTHING_TO_SAVE (no key frame
 * merged yet; this one is not logged), _INTERNAL; on a refusal nothing is written. */
ZOLT_PANO_EXPORT int ZOLT_PANO_RenderPreview(void* handle, int maxWidth, int maxHeight,
                                             unsigned char* rgba, int rowStride, int* width,
                                             int* height);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZOLT_PANO_EXT_H */
