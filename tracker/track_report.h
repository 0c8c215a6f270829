// What the tracker tells the rest of the engine after each frame. The facade, the C interface,
// the tools and the engine's tests read this report, never the tracker's working members.
#pragma once

#include <cstdint>

#include <opencv2/core/mat.hpp>
#include <opencv2/core/types.hpp>

#include "zolt_pano.h"

// What the user should be told, as the facade's error check reads it.
enum class UiState : int32_t {
  kNone = 0,
  kNoFeature = 1,
  kMoveSlow = 2,
  kMoveUp = 3,
  kMoveDown = 4,
  kWrongDirection = 5,
  kLoopStop = 6,
};

struct TrackReport {
  // This frame against the reference (key) frame, preview pixels: reference minus current
  // position, as the tracker measures it (its low-resolution offset over its scale).
  cv::Point2d offset{0.0, 0.0};
  // The last key frame's accumulated camera position, preview pixels.
  cv::Point2d keyPose{0.0, 0.0};
  // Where the merger lays the last key frame, preview pixels: keyPose, or with sub-pixel
  // placement the refined pose rounded to the nearest pixel.
  cv::Point2d placement{0.0, 0.0};
  bool keyFrame = false;  // the frame is to become a key frame (once a direction is fixed)
  MoveDirection direction = MOVE_NONE;
  int32_t code = 0;  // the frame's result code
  UiState ui = UiState::kNone;
  int32_t sweepLength = 0;  // preview pixels along the sweep so far
  // The images could not be followed and the gyroscope gave this frame's offset.
  bool byGyroscope = false;
  // The last key frame's luma at the tracker's size (8 bit, `scale` of the preview's width);
  // shares the tracker's buffer, valid until the next frame.
  cv::Mat keyLuma;
  double scale = 1.0;

  // Statistics logged at release: ticks copying full-resolution luma, milliseconds in the
  // full-resolution strip search, and the reserved counter.
  float copyTicks = 0.0f;
  float sadMillis = 0.0f;
  int32_t reservedCount = 0;
};
