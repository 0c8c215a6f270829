// The engine's options (ZOLT_PANO_SetOption): one value, filled option by option before the
// first frame, then frozen and handed to the tracker and the merger. With no option set it holds
// the defaults, and the engine behaves exactly as zolt_pano.h describes.
#pragma once

#include <cstdint>

#include "merger/merger_options.h"
#include "tracker/tracker_options.h"

struct PanoOptions {
  TrackerOptions tracker;
  MergerOptions merger;
  // Added to every frame time (ZOLT_PANO_SetFrameTime) to put it on the gyroscope's clock, ns.
  int64_t gyroDelayNs = 0;
  // Saves turn the panorama upright by the init record's camera orientation.
  bool upright = false;

  enum class Status {
    kSet,
    kUnknown,     // no such option
    kOutOfRange,  // the value is neither 0 nor in the option's range
    kFrozen,      // the engine has taken its first frame (OrreryEngine::setOption)
  };
  // Sets `option` to `value` (0 is always the default). On kOutOfRange, *accepted names the
  // values the option takes, as a refusal says them.
  Status set(int option, int value, const char** accepted);
};
