// OrreryEngine: the panorama as a JPEG. One encoding serves every output: in memory for the
// app, and written out for the files (storeOutputTo, ZOLT_PANO_SaveJpeg), so all give the same
// bytes, turned upright and with the photo's metadata when asked for (engine/photo_metadata.h).
#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>

#include <opencv2/imgcodecs.hpp>

#include "engine/orrery_engine.h"
#include "engine/photo_metadata.h"
#include "merger/module_merge.h"
#include "platform/log.h"
#include "zolt_pano_ext.h"

namespace {

// The JPEG of `pano` (not empty) at `quality`, 0 the encoder's default. Throws what OpenCV
// throws.
bool encode(const cv::Mat& pano, int quality, std::vector<uint8_t>& bytes) {
  std::vector<int> params;
  if (quality > 0) params = {cv::IMWRITE_JPEG_QUALITY, quality};
  return cv::imencode(".jpg", pano, bytes, params) && !bytes.empty();
}

}  // namespace

bool OrreryEngine::encodePhoto(const cv::Mat& pano, int quality, std::vector<uint8_t>& bytes,
                               cv::Size* size) const {
  if (!uprightOutput()) {
    *size = pano.size();
    return encode(pano, quality, bytes);
  }
  namespace photo = zolt::photo;
  const int turn = photo::quarterTurn(camOrientation);
  const cv::Mat upright = photo::turned(pano, turn);
  *size = upright.size();
  if (!encode(upright, quality, bytes)) return false;
  if (!hasPhotoInfo) return true;
  // A quarter turn puts the sweep on the stored image's other axis.
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(merger->panoDirection) != 0;
  const bool alongWidth = horizontal != (turn % 180 != 0);
  const double focal = photo::sweepFocalPx(width, height, horizontal, options.tracker.hfovDeg);
  const photo::PanoGeometry g =
      photo::panoGeometry(upright.cols, upright.rows, alongWidth, focal);
  bytes = photo::withApp1(bytes, {photo::exifPayload(photoInfo, upright.cols, upright.rows),
                                  photo::xmpPayload(g, photoInfo.software, mergeFrames)});
  return true;
}

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
  cv::Size stored;
  outputWritten = !pano.empty() && fileName != nullptr && encodePhoto(pano, 0, bytes, &stored) &&
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
    if (!encodePhoto(pano, quality, bytes, &size)) return JpegResult::kEncoderFailed;
  } catch (const std::bad_alloc&) {
    return JpegResult::kOutOfMemory;
  } catch (const std::exception& e) {
    failure = e.what();
    return JpegResult::kFailed;
  }
  return JpegResult::kOk;
}
