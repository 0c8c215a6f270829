// ZOLT_PANO_SetPhotoInfo: the photo's time, maker, model and software, checked and copied into
// the engine for the EXIF and XMP of every later save.
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "api/engine_registry.h"
#include "api/refusal.h"
#include "engine/orrery_engine.h"
#include "zolt_pano_ext.h"

namespace {

#define ZP_STR2(x) #x
#define ZP_STR(x) ZP_STR2(x)
// ZOLT_PANO_GetVersion()'s string, without the log line that call writes.
const char kVersion[] =
    "ZOLT_PANO_v" ZP_STR(ZOLT_PANO_VERSION_MAJOR) "." ZP_STR(ZOLT_PANO_VERSION_MINOR);

// Local times EXIF can write: 1970-01-01 00:00:00.000 to 9999-12-31 23:59:59.999, ms.
constexpr int64_t kLastMs = 253402300799999;
constexpr int kMaxZoneMinutes = 14 * 60;

// The first byte that breaks UTF-8 (overlong forms, surrogates and code points above U+10FFFF
// included) or is a control character, or -1.
long badByte(const char* s, bool* control) {
  const auto* p = reinterpret_cast<const unsigned char*>(s);
  for (long i = 0; p[i] != 0;) {
    const unsigned c = p[i];
    if (c < 0x20 || c == 0x7F) {
      *control = true;
      return i;
    }
    int n = 0;
    unsigned cp = 0, min = 0;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      n = 1, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      n = 2, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      n = 3, cp = c & 0x07, min = 0x10000;
    } else {
      return i;
    }
    for (int k = 1; k <= n; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return i;  // a NUL ends the check here too
      cp = cp << 6 | (p[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return i;
    i += n + 1;
  }
  return -1;
}

// Refuses a string the EXIF and XMP cannot carry; true when it is fine.
bool textFits(OrreryEngine* engine, const char* what, const char* text, const char* where) {
  using zolt::api::refuse;
  if (text == nullptr) return true;
  const size_t n = std::strlen(text);
  if (n > ZOLT_PANO_PHOTO_TEXT_MAX) {
    refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT, "%s :: %s is %zu bytes : at most %d : call ignored",
           where, what, n, ZOLT_PANO_PHOTO_TEXT_MAX);
    return false;
  }
  bool control = false;
  const long at = badByte(text, &control);
  if (at < 0) return true;
  refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT, "%s :: %s %s at byte %ld : call ignored", where, what,
         control ? "has a control character" : "is not UTF-8", at);
  return false;
}

}  // namespace

extern "C" {

ZOLT_PANO_EXPORT int ZOLT_PANO_SetPhotoInfo(void* handle, const ZOLT_PANO_PhotoInfo* info) {
  using zolt::api::refuse;
  const char* where = "ZOLT_PANO_SetPhotoInfo";
  OrreryEngine* engine = zolt::api::liveEngine(handle, where);
  if (engine == nullptr) return ZOLT_PANO_ERR_NOT_ENGINE;
  if (info == nullptr) {
    refuse(engine, ZOLT_PANO_ERR_NULL_ARGUMENT, "%s :: NULL argument : call ignored", where);
    return ZOLT_PANO_ERR_NULL_ARGUMENT;
  }
  const long long utc = info->captureTimeUtcMs;
  const int zone = info->zoneOffsetMinutes;
  if (zone < -kMaxZoneMinutes || zone > kMaxZoneMinutes) {
    refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
           "%s :: zone offset %d minutes : -840 to 840 : call ignored", where, zone);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  // Both the UTC and the local time fall in the years 1970 to 9999 (EXIF's four digits).
  if (utc < 0 || utc > kLastMs) {
    refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
           "%s :: capture time %lld ms : not in the years 1970 to 9999 (0 to %lld) : call "
           "ignored",
           where, utc, static_cast<long long>(kLastMs));
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  const long long local = utc + zone * 60000LL;
  if (local < 0 || local > kLastMs) {
    refuse(engine, ZOLT_PANO_ERR_BAD_ARGUMENT,
           "%s :: capture time %lld ms with zone offset %d minutes : the local time is not in "
           "the years 1970 to 9999 : call ignored",
           where, utc, zone);
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  }
  if (!textFits(engine, "make", info->make, where) ||
      !textFits(engine, "model", info->model, where) ||
      !textFits(engine, "software", info->software, where))
    return ZOLT_PANO_ERR_BAD_ARGUMENT;
  try {
    PhotoInfo p;
    p.captureTimeUtcMs = utc;
    p.zoneOffsetMinutes = zone;
    p.make = info->make != nullptr ? info->make : "";
    p.model = info->model != nullptr ? info->model : "";
    p.software = info->software != nullptr && info->software[0] != 0 ? info->software : kVersion;
    engine->photoInfo = std::move(p);
    engine->hasPhotoInfo = true;
  } catch (const std::bad_alloc&) {
    refuse(engine, ZOLT_PANO_ERR_INTERNAL, "%s :: out of memory : call ignored", where);
    return ZOLT_PANO_ERR_INTERNAL;
  }
  return 0;
}

}  // extern "C"
