// What the engine's options ask of the tracker; fixed before the first frame.
#pragma once

struct TrackerOptions {
  // The fixed camera's field of view, degrees across the frame's long and short side: the
  // tracker's unless hfovDeg says otherwise.
  static constexpr double kFixedHfovDeg = 62.2;
  static constexpr double kFixedVfovDeg = 39.8;

  // Key frames are also placed below a pixel (FinePlacement), and the progress and the merger's
  // placement follow that pose. Off: the whole-pixel pose alone.
  bool subPixelPlacement = false;
  // The camera for the gyroscope's prediction: degrees across the frame's width; 0 the fixed
  // camera.
  double hfovDeg = 0.0;
};
