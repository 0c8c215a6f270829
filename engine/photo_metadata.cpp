#include "engine/photo_metadata.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include <libexif/exif-data.h>
#include <libexif/exif-entry.h>
#include <libexif/exif-mem.h>
#include <libexif/exif-utils.h>
#include <opencv2/core.hpp>

namespace zolt::photo {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr ExifByteOrder kOrder = EXIF_BYTE_ORDER_INTEL;
constexpr int64_t kMsPerDay = 86400000;

// Year, month, day of a day count from 1970-01-01 (proleptic Gregorian; the inverse of the
// usual days-from-civil). Not gmtime: 32-bit Android's time_t ends in 2038.
void civilFromDays(int64_t z, int64_t* y, int* m, int* d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  *d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  *m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  *y = yoe + era * 400 + (*m <= 2 ? 1 : 0);
}

struct ExifDataFree {
  void operator()(ExifData* d) const { exif_data_unref(d); }
};
struct ExifMemFree {
  void operator()(ExifMem* m) const { exif_mem_unref(m); }
};

// A new entry for `tag` in `ifd`, owned by the IFD; libexif's default format and value.
ExifEntry* addEntry(ExifData* data, ExifMem* mem, ExifIfd ifd, ExifTag tag) {
  ExifEntry* e = exif_entry_new_mem(mem);
  if (e == nullptr) throw std::bad_alloc();
  exif_content_add_entry(data->ifd[ifd], e);
  exif_entry_unref(e);
  exif_entry_initialize(e, tag);
  if (e->data == nullptr && e->size != 0) throw std::bad_alloc();
  return e;
}

// A tag of `format` with `size` bytes of value, zeroed.
ExifEntry* addRaw(ExifData* data, ExifMem* mem, ExifIfd ifd, ExifTag tag, ExifFormat format,
                  unsigned long components, unsigned int size) {
  ExifEntry* e = exif_entry_new_mem(mem);
  if (e == nullptr) throw std::bad_alloc();
  e->data = static_cast<unsigned char*>(exif_mem_alloc(mem, size));
  if (e->data == nullptr) {
    exif_entry_unref(e);
    throw std::bad_alloc();
  }
  e->tag = tag;
  e->format = format;
  e->components = components;
  e->size = size;
  exif_content_add_entry(data->ifd[ifd], e);
  exif_entry_unref(e);
  return e;
}

void addAscii(ExifData* data, ExifMem* mem, ExifIfd ifd, ExifTag tag, const std::string& text) {
  if (text.empty()) return;
  const auto n = static_cast<unsigned int>(text.size() + 1);  // with its NUL
  ExifEntry* e = addRaw(data, mem, ifd, tag, EXIF_FORMAT_ASCII, n, n);
  std::memcpy(e->data, text.c_str(), n);
}

void addShort(ExifData* data, ExifMem* mem, ExifIfd ifd, ExifTag tag, ExifShort v) {
  ExifEntry* e = addRaw(data, mem, ifd, tag, EXIF_FORMAT_SHORT, 1, 2);
  exif_set_short(e->data, kOrder, v);
}

void addLong(ExifData* data, ExifMem* mem, ExifIfd ifd, ExifTag tag, ExifLong v) {
  ExifEntry* e = addRaw(data, mem, ifd, tag, EXIF_FORMAT_LONG, 1, 4);
  exif_set_long(e->data, kOrder, v);
}

void addUndefined(ExifData* data, ExifMem* mem, ExifIfd ifd, ExifTag tag, const char (&v)[5]) {
  ExifEntry* e = addRaw(data, mem, ifd, tag, EXIF_FORMAT_UNDEFINED, 4, 4);
  std::memcpy(e->data, v, 4);
}

// XML text for an attribute value: the five characters XML reserves, escaped.
std::string xmlEscaped(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

int quarterTurn(int camOrientationDeg) {
  const int64_t deg = ((static_cast<int64_t>(camOrientationDeg) % 360) + 360) % 360;
  return static_cast<int>(((deg + 45) / 90) % 4 * 90);
}

cv::Mat turned(const cv::Mat& pano, int turnDeg) {
  if (turnDeg == 0) return pano;
  cv::Mat out;
  cv::rotate(pano, out,
             turnDeg == 90    ? cv::ROTATE_90_CLOCKWISE
             : turnDeg == 180 ? cv::ROTATE_180
                              : cv::ROTATE_90_COUNTERCLOCKWISE);
  return out;
}

double sweepFocalPx(int frameW, int frameH, bool horizontalSweep, double hfovDeg) {
  const double deg = kPi / 180;
  if (hfovDeg > 0) return (frameW / 2.0) / std::tan(hfovDeg * deg / 2);  // fx = fy
  const int side = horizontalSweep ? frameW : frameH;
  const int other = horizontalSweep ? frameH : frameW;
  const double fov = side >= other ? kLongFovDeg : kShortFovDeg;
  return (side / 2.0) / std::tan(fov * deg / 2);
}

PanoGeometry panoGeometry(int width, int height, bool sweepAlongWidth, double focalPx) {
  PanoGeometry g;
  g.width = width;
  g.height = height;
  // The swept angle is along / focalPx radians; the whole turn at that scale, W * 2 pi / angle
  // along the width (2 * H * pi / angle along the height), is 2 pi focalPx either way.
  const int along = sweepAlongWidth ? width : height;
  const double angle = along / focalPx;
  const double full = sweepAlongWidth ? width * 2 * kPi / angle : 2 * height * kPi / angle;
  int64_t w = std::llround(full);
  w = std::max<int64_t>({w, width, 2 * static_cast<int64_t>(height)});
  w += w & 1;
  g.fullWidth = static_cast<int>(std::min<int64_t>(w, 0x7ffffffe));
  g.fullHeight = g.fullWidth / 2;
  g.left = (g.fullWidth - width) / 2;
  g.top = (g.fullHeight - height) / 2;
  return g;
}

std::string exifDateTime(int64_t localMs) {
  const int64_t days = (localMs >= 0 ? localMs : localMs - kMsPerDay + 1) / kMsPerDay;
  const int64_t msOfDay = localMs - days * kMsPerDay;
  int64_t y = 0;
  int m = 0, d = 0;
  civilFromDays(days, &y, &m, &d);
  const int64_t s = msOfDay / 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%04lld:%02d:%02d %02d:%02d:%02d", static_cast<long long>(y), m,
                d, static_cast<int>(s / 3600), static_cast<int>(s / 60 % 60),
                static_cast<int>(s % 60));
  return text;
}

std::string exifOffset(int zoneOffsetMinutes) {
  const int a = std::abs(zoneOffsetMinutes);
  char text[16];
  std::snprintf(text, sizeof text, "%c%02d:%02d", zoneOffsetMinutes < 0 ? '-' : '+', a / 60,
                a % 60);
  return text;
}

std::vector<uint8_t> exifPayload(const PhotoInfo& info, int width, int height) {
  std::unique_ptr<ExifMem, ExifMemFree> mem(exif_mem_new_default());
  if (!mem) throw std::bad_alloc();
  std::unique_ptr<ExifData, ExifDataFree> data(exif_data_new_mem(mem.get()));
  if (!data) throw std::bad_alloc();
  ExifData* d = data.get();
  ExifMem* m = mem.get();
  // Only what is set here: no mandatory tags filled in with the current time.
  exif_data_unset_option(d, EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
  exif_data_set_data_type(d, EXIF_DATA_TYPE_COMPRESSED);
  exif_data_set_byte_order(d, kOrder);

  const int64_t localMs = info.captureTimeUtcMs + int64_t{info.zoneOffsetMinutes} * 60000;
  const std::string when = exifDateTime(localMs);
  const std::string offset = exifOffset(info.zoneOffsetMinutes);
  char subSec[8];
  std::snprintf(subSec, sizeof subSec, "%03d", static_cast<int>(((localMs % 1000) + 1000) % 1000));

  addAscii(d, m, EXIF_IFD_0, EXIF_TAG_MAKE, info.make);
  addAscii(d, m, EXIF_IFD_0, EXIF_TAG_MODEL, info.model);
  addShort(d, m, EXIF_IFD_0, EXIF_TAG_ORIENTATION, 1);  // the pixels are turned upright
  addEntry(d, m, EXIF_IFD_0, EXIF_TAG_X_RESOLUTION);    // 72 / 1
  addEntry(d, m, EXIF_IFD_0, EXIF_TAG_Y_RESOLUTION);
  addEntry(d, m, EXIF_IFD_0, EXIF_TAG_RESOLUTION_UNIT);  // inches
  addAscii(d, m, EXIF_IFD_0, EXIF_TAG_SOFTWARE, info.software);
  addAscii(d, m, EXIF_IFD_0, EXIF_TAG_DATE_TIME, when);
  addShort(d, m, EXIF_IFD_0, EXIF_TAG_YCBCR_POSITIONING, 1);  // centred, as JPEG samples

  addUndefined(d, m, EXIF_IFD_EXIF, EXIF_TAG_EXIF_VERSION, "0231");  // has OffsetTime*
  addAscii(d, m, EXIF_IFD_EXIF, EXIF_TAG_DATE_TIME_ORIGINAL, when);
  addAscii(d, m, EXIF_IFD_EXIF, EXIF_TAG_DATE_TIME_DIGITIZED, when);
  addAscii(d, m, EXIF_IFD_EXIF, EXIF_TAG_OFFSET_TIME, offset);
  addAscii(d, m, EXIF_IFD_EXIF, EXIF_TAG_OFFSET_TIME_ORIGINAL, offset);
  addAscii(d, m, EXIF_IFD_EXIF, EXIF_TAG_OFFSET_TIME_DIGITIZED, offset);
  addEntry(d, m, EXIF_IFD_EXIF, EXIF_TAG_COMPONENTS_CONFIGURATION);  // Y Cb Cr
  addAscii(d, m, EXIF_IFD_EXIF, EXIF_TAG_SUB_SEC_TIME_ORIGINAL, subSec);
  addUndefined(d, m, EXIF_IFD_EXIF, EXIF_TAG_FLASH_PIX_VERSION, "0100");
  addShort(d, m, EXIF_IFD_EXIF, EXIF_TAG_COLOR_SPACE, 1);  // sRGB
  addLong(d, m, EXIF_IFD_EXIF, EXIF_TAG_PIXEL_X_DIMENSION, static_cast<ExifLong>(width));
  addLong(d, m, EXIF_IFD_EXIF, EXIF_TAG_PIXEL_Y_DIMENSION, static_cast<ExifLong>(height));

  unsigned char* bytes = nullptr;
  unsigned int size = 0;
  exif_data_save_data(d, &bytes, &size);  // "Exif\0\0", then TIFF; allocated by `mem`
  if (bytes == nullptr || size == 0) throw std::bad_alloc();
  std::vector<uint8_t> out(bytes, bytes + size);
  exif_mem_free(m, bytes);
  return out;
}

std::vector<uint8_t> xmpPayload(const PanoGeometry& g, const std::string& software,
                                int sourcePhotos) {
  static const char kNamespace[] = "http://ns.adobe.com/xap/1.0/";
  std::string packet =
      "<?xpacket begin=\"\xEF\xBB\xBF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
      "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\">\n"
      " <rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">\n"
      "  <rdf:Description rdf:about=\"\"\n"
      "    xmlns:GPano=\"http://ns.google.com/photos/1.0/panorama/\"\n"
      "   GPano:ProjectionType=\"equirectangular\"\n"
      "   GPano:UsePanoramaViewer=\"True\"\n";
  auto attr = [&packet](const char* name, const std::string& value) {
    packet += "   GPano:";
    packet += name;
    packet += "=\"" + xmlEscaped(value) + "\"\n";
  };
  attr("CroppedAreaImageWidthPixels", std::to_string(g.width));
  attr("CroppedAreaImageHeightPixels", std::to_string(g.height));
  attr("FullPanoWidthPixels", std::to_string(g.fullWidth));
  attr("FullPanoHeightPixels", std::to_string(g.fullHeight));
  attr("CroppedAreaLeftPixels", std::to_string(g.left));
  attr("CroppedAreaTopPixels", std::to_string(g.top));
  if (!software.empty()) attr("CaptureSoftware", software);
  if (sourcePhotos > 0) attr("SourcePhotosCount", std::to_string(sourcePhotos));
  packet.back() = '/';
  packet +=
      ">\n"
      " </rdf:RDF>\n"
      "</x:xmpmeta>\n"
      "<?xpacket end=\"w\"?>";
  const std::string payload = std::string(kNamespace, sizeof kNamespace) + packet;  // its NUL
  return std::vector<uint8_t>(payload.begin(), payload.end());
}

std::vector<uint8_t> withApp1(const std::vector<uint8_t>& jpeg,
                              const std::vector<std::vector<uint8_t>>& payloads) {
  if (jpeg.size() < 4 || jpeg[0] != 0xFF || jpeg[1] != 0xD8)
    throw std::runtime_error("not a JPEG stream");
  size_t at = 2;
  // JFIF asks for its APP0 right after SOI; the APP1 segments follow it.
  if (jpeg[2] == 0xFF && jpeg[3] == 0xE0 && jpeg.size() >= 6) {
    const size_t len = static_cast<size_t>(jpeg[4]) << 8 | jpeg[5];
    if (at + 2 + len <= jpeg.size()) at += 2 + len;
  }
  std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + static_cast<std::ptrdiff_t>(at));
  for (const std::vector<uint8_t>& p : payloads) {
    if (p.size() > 65533) throw std::runtime_error("APP1 payload over 65533 bytes");
    const size_t len = p.size() + 2;  // the length counts itself
    out.insert(out.end(),
               {0xFF, 0xE1, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len & 0xFF)});
    out.insert(out.end(), p.begin(), p.end());
  }
  out.insert(out.end(), jpeg.begin() + static_cast<std::ptrdiff_t>(at), jpeg.end());
  return out;
}

}  // namespace zolt::photo
