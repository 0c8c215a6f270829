// What the engine's options ask of the merger; fixed before the first frame.
#pragma once

struct MergerOptions {
  // Each key frame's brightness is matched to the canvas before it is merged.
  bool exposureCompensation = false;
};
