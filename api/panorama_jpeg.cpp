// The panorama as a JPEG file at a path taken as given, or in memory: ZOLT_PANO_SaveJpeg,
// ZOLT_PANO_EncodeJpeg and ZOLT_PANO_FreeBuffer. Both encode the cropped panorama that
// ZOLT_PANO_SaveImage writes, with the same encoder; the file is written from the memory copy,
// so the two give the same bytes.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "merger/module_merge.h"
#include "platform/log.h"
#include "zolt_pano_ext.h"

namespace {

// The JPEG of the engine behind `handle`: its cropped panorama at `quality` (0: the encoder's
// default, the quality of ZOLT_PANO_SaveImage). `given`: the call's pointers are all there.
// Returns 0 (with *engine set) or the refusal, which is logged and kept.
int encodePanorama(void* handle, bool given, int quality, const char* where,
                   OrreryEngine** engineOut, std::vector<uchar>& bytes, cv::Size& size) {
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
  try {
    cv::Mat pano;
    if (engine->merger->panoInitialised) pano = engine->merger->getPano_BGR();
    if (pano.empty()) {
      refuse(engine, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
             "%s :: nothing to save : no key frame merged yet", where);
      return ZOLT_PANO_ERR_NOTHING_TO_SAVE;
    }
    std::vector<int> params;
    if (quality > 0) params = {cv::IMWRITE_JPEG_QUALITY, quality};
    if (!cv::imencode(".jpg", pano, bytes, params) || bytes.empty()) {
      refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s :: the JPEG encoder failed", where);
      return ZOLT_PANO_ERR_WRITE_FAILED;
    }
    size = pano.size();
  } catch (const std::bad_alloc&) {
    refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s :: out of memory", where);
    return ZOLT_PANO_ERR_INTERNAL;
  } catch (const std::exception& e) {
    refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s : exception : %s", where, e.what());
    return ZOLT_PANO_ERR_WRITE_FAILED;
  }
  return 0;
}

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_SaveJpeg(void* handle, const char* path, int quality) {
  const char* where = "ZOLT_PANO_SaveJpeg";
  OrreryEngine* engine = nullptr;
  std::vector<uchar> bytes;
  cv::Size size;
  const int rc = encodePanorama(handle, path != nullptr, quality, where, &engine, bytes, size);
  if (rc != 0) return rc;
  std::FILE* f = std::fopen(path, "wb");
  if (f == nullptr) {
    zolt::api::refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s :: cannot write '%s' : %s", where,
                      path, std::strerror(errno));
    return ZOLT_PANO_ERR_WRITE_FAILED;
  }
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  const int writeErrno = errno;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    std::remove(path);  // no truncated JPEG left behind
    zolt::api::refuse(engine, ZOLT_PANO_ERR_WRITE_FAILED, "%s :: cannot write '%s' : %s", where,
                      path, std::strerror(writeErrno != 0 ? writeErrno : errno));
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
  std::vector<uchar> bytes;
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
