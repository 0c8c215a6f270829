// OrreryEngine: the panorama as a JPEG. One encoding serves every output: in memory for the
// app, and written out for the files (storeOutputTo, ZOLT_PANO_SaveJpeg), so all give the same
// bytes.
#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>

#include <opencv2/imgcodecs.hpp>

#include "engine/orrery_engine.h"
#include "merger/module_merge.h"
#include "platform/log.h"

namespace {

// The JPEG of `pano` (not empty) at `quality`, 0 the encoder's default. Throws what OpenCV
// throws.
bool encode(const cv::Mat& pano, int quality, std::vector<uint8_t>& bytes) {
  std::vector<int> params;
  if (quality > 0) params = {cv::IMWRITE_JPEG_QUALITY, quality};
  return cv::imencode(".jpg", pano, bytes, params) && !bytes.empty();
}

}  // namespace

bool OrreryEngine::writeFile(const char* path, const std::vector<uint8_t>& bytes, int* error) {
  std::FILE* f = std::fopen(path, "wb");
  if (f == nullptr) {
    *error = errno;
    return false;
  }
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  *error = errno;
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    if (*error == 0) *error = errno;
    std::remove(path);  // no truncated JPEG left behind
  }
  return ok;
}

void OrreryEngine::storeOutputTo(char* fileName) {
  ZLOGI("Inside storeOutputTo - 1");
  cv::Mat pano = merger->getPano_BGR();
  if (fileName != nullptr) {
    ZLOGI("Output file name: %s \n", fileName);
  } else {
    ZLOGE("Storeouputto: NULL output filename");
  }
  ZLOGI("storeOutputTo- Mat returned as: %dx%d , Now going to imwrite\n", pano.cols, pano.rows);
  outputWritten = false;  // stays so when the encoder throws
  std::vector<uint8_t> bytes;
  int error = 0;
  outputWritten = !pano.empty() && fileName != nullptr && encode(pano, 0, bytes) &&
                  writeFile(fileName, bytes, &error);
  ZLOGI("storeOutputTo- finished imwrite \n");
  pano.release();
}

OrreryEngine::JpegResult OrreryEngine::encodeJpeg(int quality, std::vector<uint8_t>& bytes,
                                                  cv::Size& size, std::string& failure) {
  try {
    cv::Mat pano;
    if (hasPanorama()) pano = merger->getPano_BGR();
    if (pano.empty()) return JpegResult::kNothingToSave;
    if (!encode(pano, quality, bytes)) return JpegResult::kEncoderFailed;
    size = pano.size();
  } catch (const std::bad_alloc&) {
    return JpegResult::kOutOfMemory;
  } catch (const std::exception& e) {
    failure = e.what();
    return JpegResult::kFailed;
  }
  return JpegResult::kOk;
}
