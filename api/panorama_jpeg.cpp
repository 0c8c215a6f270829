// The panorama as a JPEG file at a path taken as given, or in memory: ZOLT_PANO_SaveJpeg,
// ZOLT_PANO_EncodeJpeg and ZOLT_PANO_FreeBuffer. Both take the engine's one encoding, the one
// ZOLT_PANO_SaveImage writes, so all give the same bytes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "platform/log.h"
#include "zolt_pano_ext.h"

namespace {

// The JPEG of the engine behind `handle`: its cropped panorama at `quality` (0: the encoder's
// default, the quality of ZOLT_PANO_SaveImage). `given`: the call's pointers are all there.
// Returns 0 (with *engine set) or the refusal, which is logged and kept.
int encodePanorama(void* handle, bool given, int quality, const char* where,
                   OrreryEngine** engineOut, std::vector<uint8_t>& bytes, cv::Size& size) {
  using zolt::api::refuse;
  OrreryEngine* engine = *engineOut = zolt::api::liveEngine(handle, where);
  if (engine == nullptr) return ZOLT_PANO_ERR_NOT_ENGINE;
  if (!given) {
    refuse(engine, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored", where);
    return ZOLT_PANO_ERR_NULL_ARGUMENT;
  }
  if (quality < 0 || quality > 100) {
    refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
           "%s :: quality %d : 1 to 100, or 0 for the default : call ignored", where, quality);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  std::string failure;
  switch (engine->encodeJpeg(quality, bytes, size, failure)) {
    case OrreryEngine::JpegResult::kOk:
      return 0;
    case OrreryEngine::JpegResult::kNothingToSave:
      refuse(engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
             "%s :: nothing to save : no key frame merged yet", where);
      return ZOLT_PANO_ERR_NOTHING_TO_SAVE;
    case OrreryEngine::JpegResult::kEncoderFailed:
      refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s :: the JPEG encoder failed", where);
      return ZOLT_PANO_ERR_WRITE_FAILED;
    case OrreryEngine::JpegResult::kOutOfMemory:
      refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s :: out of memory", where);
      return ZOLT_PANO_ERR_INTERNAL;
    case OrreryEngine::JpegResult::kFailed:
      break;
  }
  refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s : exception : %s", where, failure.c_str());
  return ZOLT_PANO_ERR_WRITE_FAILED;
}

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_SaveJpeg(void* handle, const char* path, int quality) {
  const char* where = "ZOLT_PANO_SaveJpeg";
  OrreryEngine* engine = nullptr;
  std::vector<uint8_t> bytes;
  cv::Size size;
  const int rc = encodePanorama(handle, path != nullptr, quality, where, &engine, bytes, size);
  if (rc != 0) return rc;
  int error = 0;
  if (!OrreryEngine::writeFile(path, bytes, &error)) {
    zolt::api::refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s :: cannot write '%s' : %s", where,
                      path, std::strerror(error));
    return ZOLT_PANO_ERR_WRITE_FAILED;
  }
  ZLOGI("%s :: '%s' written : %dx%d, %zu bytes", where, path, size.width, size.height,
        bytes.size());
  return 0;
}

ZOLT_PANO_EXPORT int ZOLT_PANO_EncodeJpeg(void* handle, int quality, unsigned char** data,
                                          size_t* size) {
  const char* where = "ZOLT_PANO_EncodeJpeg";
  if (data != nullptr) *data = nullptr;
  if (size != nullptr) *size = 0;
  OrreryEngine* engine = nullptr;
  std::vector<uint8_t> bytes;
  cv::Size panoSize;
  const int rc = encodePanorama(handle, data != nullptr && size != nullptr, quality, where,
                                &engine, bytes, panoSize);
  if (rc != 0) return rc;
  auto* out = static_cast<unsigned char*>(std::malloc(bytes.size()));
  if (out == nullptr) {
    zolt::api::refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s :: out of memory", where);
    return ZOLT_PANO_ERR_INTERNAL;
  }
  std::memcpy(out, bytes.data(), bytes.size());
  *data = out;
  *size = bytes.size();
  return 0;
}

ZOLT_PANO_EXPORT void ZOLT_PANO_FreeBuffer(void* data) { std::free(data); }

}  // extern "C"
