// ZOLT_PANO_RenderPreview: the panorama so far as a small RGBA picture for the app's strip view.
// Checks the call and leaves the work to OrreryEngine::renderPreview; no exception leaves it.
#include <cstdint>
#include <exception>
#include <new>

#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "zolt_pano_ext.h"

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_RenderPreview(void* handle, int maxWidth, int maxHeight,
                                             unsigned char* rgba, int rowStride, int* width,
                                             int* height) {
  using zolt::api::refuse;
  const char* where = "ZOLT_PANO_RenderPreview";
  OrreryEngine* engine = zolt::api::liveEngine(handle, where);
  if (engine == nullptr) return ZOLT_PANO_ERR_NOT_ENGINE;
  if (rgba == nullptr || width == nullptr || height == nullptr) {
    refuse(engine, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored", where);
    return ZOLT_PANO_ERR_NULL_ARGUMENT;
  }
  // The buffer is maxHeight rows of rowStride bytes, each row room for maxWidth pixels.
  if (maxWidth < 1 || maxHeight < 1 || rowStride < 0 ||
      static_cast<int64_t>(rowStride) < static_cast<int64_t>(maxWidth) * 4 ||
      static_cast<int64_t>(rowStride) * maxHeight > INT32_MAX) {
    refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
           "%s :: %dx%d, row stride %d : sides 1 or more, stride at least 4 * maxWidth, buffer "
           "at most 2^31 - 1 bytes : call ignored",
           where, maxWidth, maxHeight, rowStride);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  try {
    if (engine->renderPreview(maxWidth, maxHeight, rgba, rowStride, width, height)) return 0;
  } catch (const std::bad_alloc&) {
    refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s :: out of memory", where);
    return ZOLT_PANO_ERR_INTERNAL;
  } catch (const std::exception& e) {
    refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s : exception : %s", where, e.what());
    return ZOLT_PANO_ERR_INTERNAL;
  } catch (...) {
    refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s : unknown exception", where);
    return ZOLT_PANO_ERR_INTERNAL;
  }
  // Asked for on every frame until the first merge: kept, not logged.
  zolt::api::note(engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
                  "%s :: nothing to show : no key frame merged yet", where);
  return ZOLT_PANO_ERR_NOTHING_TO_SAVE;
}

}  // extern "C"
