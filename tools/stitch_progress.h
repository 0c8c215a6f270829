// What zoltpano stitch shows on stderr while it works: the engine's hints as a user would see
// them (when the result code changes), the restarts, and on a terminal a progress bar redrawn in
// place.
#pragma once

#include <string>

namespace zolt::tools {

// The hint for a result code, from the engine (ZOLT_PANO_CodeHint), or its name when the engine
// has no hint for it.
std::string hintText(int code);

class StitchProgress {
 public:
  // bar: redraw a bar (stderr is a terminal); hints: print hints and restarts; expectedFrames:
  // frames the input will deliver, -1 when unknown (the bar then follows the canvas).
  StitchProgress(bool bar, bool hints, int expectedFrames);
  ~StitchProgress();  // ends the bar's line

  // Input frame `frame` got result code `code`: a hint when the code changed to another than
  // success.
  void code(int frame, int code);
  // A new capture starts at input frame `from` after frame `frame` ended capture `capture` - 1.
  void restart(int frame, int capture, int from);
  // Frames read so far, key frames placed, the canvas's progress (percent).
  void update(int framesRead, int keyFrames, int canvasPercent);

 private:
  void clearBar() const;

  bool bar_, hints_;
  int expected_;
  int lastCode_;
};

}  // namespace zolt::tools
