// The saved panorama as a photo: the turn that shows it upright, its EXIF (libexif) and the XMP
// packet with Google's photo-sphere tags (GPano), spliced into the encoded JPEG as APP1
// segments.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tracker/tracker_options.h"

// What ZOLT_PANO_SetPhotoInfo accepted, copied.
struct PhotoInfo {
  int64_t captureTimeUtcMs = 0;  // ms since 1970-01-01 00:00 UTC
  int zoneOffsetMinutes = 0;     // local time minus UTC
  std::string make, model, software;
};

namespace zolt::photo {

// camOrientation to a clockwise quarter turn: 0, 90, 180 or 270 (the nearest; any sign).
int quarterTurn(int camOrientationDeg);
// `pano` turned clockwise by `turnDeg` (a quarter turn); the same matrix for 0.
cv::Mat turned(const cv::Mat& pano, int turnDeg);

// The focal length in pixels along the sweep of frames frameW x frameH as handed to the engine:
// hfovDeg > 0 gives fx = fy from the width; 0 the tracker's fixed camera, kLongFovDeg across the
// frame's long side and kShortFovDeg across its short side.
constexpr double kLongFovDeg = TrackerOptions::kFixedHfovDeg;
constexpr double kShortFovDeg = TrackerOptions::kFixedVfovDeg;
double sweepFocalPx(int frameW, int frameH, bool horizontalSweep, double hfovDeg);

// GPano's frame, in pixels of the stored (turned) image of width x height.
struct PanoGeometry {
  int width = 0, height = 0;          // CroppedAreaImageWidth/HeightPixels
  int fullWidth = 0, fullHeight = 0;  // FullPanoWidth/HeightPixels, fullWidth = 2 * fullHeight
  int left = 0, top = 0;              // CroppedAreaLeft/TopPixels: centred
};
// The stored image spans `along` pixels along the sweep, an angle of along / focalPx radians, so
// 360 degrees are 2 pi focalPx pixels at the sweep's scale. The full panorama is that wide,
// but at least as wide as the image and twice as wide as it is high, and even.
PanoGeometry panoGeometry(int width, int height, bool sweepAlongWidth, double focalPx);

// The APP1 payloads: "Exif\0\0" and the TIFF structure; the XMP namespace, a NUL and the packet.
std::vector<uint8_t> exifPayload(const PhotoInfo& info, int width, int height);
std::vector<uint8_t> xmpPayload(const PanoGeometry& g, const std::string& software,
                                int sourcePhotos);

// `jpeg` with one APP1 segment per payload after its SOI and JFIF APP0 (which stays first).
// Throws std::runtime_error on a stream that does not start with SOI or a payload over 65533
// bytes.
std::vector<uint8_t> withApp1(const std::vector<uint8_t>& jpeg,
                              const std::vector<std::vector<uint8_t>>& payloads);

// "YYYY:MM:DD HH:MM:SS" of the local time and "+HH:MM" of the offset, as EXIF writes them.
std::string exifDateTime(int64_t localMs);
std::string exifOffset(int zoneOffsetMinutes);

}  // namespace zolt::photo
