#include "engine/pano_options.h"

#include "zolt_pano_ext.h"

namespace {

// Each option takes 0 (the default behaviour) or a value from low to high.
struct OptionRule {
  int option;
  int low, high;
  const char* values;  // the accepted values, as the refusal names them
  void (*apply)(PanoOptions& options, int value);
};

constexpr OptionRule kRules[] = {
    {ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 1, 1, "0 or 1",
     [](PanoOptions& o, int v) { o.tracker.subPixelPlacement = v != 0; }},
    {ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION, 1, 1, "0 or 1",
     [](PanoOptions& o, int v) { o.merger.exposureCompensation = v != 0; }},
    {ZOLT_PANO_OPTION_CAMERA_HFOV, 1000, 17000, "0 or 1000 to 17000 (hundredths of a degree)",
     [](PanoOptions& o, int v) { o.tracker.hfovDeg = v / 100.0; }},
    {ZOLT_PANO_OPTION_GYRO_DELAY_US, -1000000, 1000000, "-1000000 to 1000000 (microseconds)",
     [](PanoOptions& o, int v) { o.gyroDelayNs = static_cast<int64_t>(v) * 1000; }},
    {ZOLT_PANO_OPTION_UPRIGHT, 1, 1, "0 or 1",
     [](PanoOptions& o, int v) { o.upright = v != 0; }},
};

}  // namespace

PanoOptions::Status PanoOptions::set(int option, int value, const char** accepted) {
  for (const OptionRule& r : kRules) {
    if (r.option != option) continue;
    if (value != 0 && (value < r.low || value > r.high)) {
      *accepted = r.values;
      return Status::kOutOfRange;
    }
    r.apply(*this, value);
    return Status::kSet;
  }
  return Status::kUnknown;
}
