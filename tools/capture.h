// One capture of zoltpano stitch: an engine session over a stretch of the input, with the record
// of what it did and where its merger placed each key frame.
#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "tools/engine_session.h"
#include "tools/restart_policy.h"

namespace zolt::tools {

// The engine's verdict on a capture's picture (ZOLT_PANO_GetVerdict), asked with --mode enhanced.
struct Verdict {
  bool judged = false;  // false: not asked, or the capture gave no picture
  bool passed = true;
  int code = 0;          // 0, or the ZOLT_PANO_VERDICT_ code of the refusal
  std::string message;   // passed: the evidence in figures; refused: what is wrong
};
// The verdict on one line: "<message>: passed" or "<message>: refused".
std::string describe(const Verdict& v);

struct CaptureRecord {
  int number = 1;
  int firstFrame = 0, lastFrame = 0;  // input indices fed to it, both inclusive
  int frames = 0;                     // frames fed
  int keyFrames = 0;                  // key frames the merger placed
  int direction = MOVE_NONE;
  int endCode = SUCCESS;  // the refused code that ended it; SUCCESS: the input did
  int length = 0;         // panorama extent along the sweep, pixels; 0: none
  cv::Size panoramaSize;
  std::string panoramaPath;  // empty when it gave no panorama
  Verdict gate;              // with the quality gate on: whether its picture is a panorama
};

// A key frame the merger placed, in canvas pixels.
struct PlacedKeyFrame {
  int frame = 0;
  cv::Rect canvas;
};

class Capture {
 public:
  Capture(int number, int w, int h, const SessionOptions& opt) : session(w, h, opt) {
    rec.number = number;
  }

  // Feeds one input frame; a key frame that moved the panorama's leading edge is placed.
  FrameRecord feed(const InputFrame& in);
  // Ends the capture with `endCode`: the panorama encoded into `jpeg` (empty when there is
  // none), with `judge` the engine's verdict on it asked, and the engine released.
  void finish(int endCode, bool judge);

  EngineSession session;
  CaptureRecord rec;
  std::vector<PlacedKeyFrame> keyFrames;
  std::vector<uint8_t> jpeg;  // the panorama's JPEG bytes once finished
  double encodeMs = 0.0;      // wall clock of the panorama's encoding

 private:
  void placeKeyFrame(const FrameRecord& f, const tsRECT& before);
};

}  // namespace zolt::tools
