#include "api/call_guard.h"

#include <cstdint>

#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "platform/log.h"
#include "zolt_pano_ext.h"

namespace zolt::api {

bool frameFits(OrreryEngine& engine, const __tag_ZOLT_OFFSCREEN* frame, const char* where) {
  if (frame == nullptr || frame->planeY == nullptr || frame->planeVU == nullptr) {
    refuse(&engine, ZOLT_PANO_ERR_NULL_ARGUMENT,
           "%s :: Invalid frame : NULL record or plane : frame ignored", where);
    return false;
  }
  if (frame->width != engine.width || frame->height != engine.height) {
    // The engine reads a whole preview of its own size from the planes.
    refuse(&engine, ZOLT_PANO_ERR_FRAME_SIZE,
           "%s :: Invalid frame : %dx%d, preview is %dx%d : frame ignored", where, frame->width,
           frame->height, engine.width, engine.height);
    return false;
  }
  return true;
}

bool canvasFits(OrreryEngine& engine, const __tag_ZOLT_OFFSCREEN* canvas, const char* where) {
  if (canvas == nullptr || canvas->width <= 0 || canvas->height <= 0) {
    refuse(&engine, canvas == nullptr ? ZOLT_PANO_ERR_NULL_ARGUMENT : ZOLT_PANO_ERR_CANVAS_INVALID,
           "%s :: Invalid canvas : NULL record or empty : call ignored", where);
    return false;
  }
  const MoveDirection d = engine.firstMergeDirection();
  if (d == MOVE_NONE) return true;  // only the first merge reads the record's planes and sides
  const int w = canvas->width, h = canvas->height;
  const int64_t bytes = static_cast<int64_t>(w) * h * 3 / 2;
  if (canvas->planeY == nullptr || canvas->planeVU == nullptr ||
      canvas->planeVU != canvas->planeY + static_cast<int64_t>(w) * h || ((w | h) & 1) != 0 ||
      bytes > INT32_MAX) {
    refuse(&engine, ZOLT_PANO_ERR_CANVAS_INVALID,
           "%s :: Invalid canvas : %dx%d needs even sides and one buffer, VU behind Y : "
           "call ignored",
           where, w, h);
    return false;
  }
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(d);
  const bool fits = horizontal ? (h == engine.height && w >= engine.width)
                               : (w == engine.width && h >= engine.height);
  if (!fits) {
    refuse(&engine, ZOLT_PANO_ERR_CANVAS_INVALID,
           "%s :: Invalid canvas : %dx%d cannot take a %s sweep of %dx%d frames : call ignored",
           where, w, h, horizontal ? "horizontal" : "vertical", engine.width, engine.height);
    return false;
  }
  return true;
}

}  // namespace zolt::api
