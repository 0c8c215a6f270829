#include "tools/stitch_progress.h"

#include <algorithm>
#include <cstdio>

#include "zolt_pano_ext.h"

namespace zolt::tools {

std::string hintText(int code) {
  const std::string hint = ZOLT_PANO_CodeHint(code);
  return hint.empty() ? ZOLT_PANO_CodeName(code) : hint;
}

StitchProgress::StitchProgress(bool bar, bool hints, int expectedFrames)
    : bar_(bar), hints_(hints), expected_(expectedFrames), lastCode_(ZOLT_PANO_SUCCESS) {}

StitchProgress::~StitchProgress() {
  if (bar_) std::fprintf(stderr, "\n");
}

void StitchProgress::clearBar() const {
  if (bar_) std::fprintf(stderr, "\r\033[K");
}

void StitchProgress::code(int frame, int code) {
  const bool changed = code != lastCode_;
  lastCode_ = code;
  if (!hints_ || !changed || code == ZOLT_PANO_SUCCESS) return;
  clearBar();
  std::fprintf(stderr, "frame %d: %s\n", frame, hintText(code).c_str());
}

void StitchProgress::restart(int frame, int capture, int from) {
  lastCode_ = ZOLT_PANO_SUCCESS;
  if (!hints_) return;
  clearBar();
  std::fprintf(stderr,
               "frame %d: the sweep is still refused; capture %d starts again from frame %d\n",
               frame, capture, from);
}

void StitchProgress::update(int framesRead, int keyFrames, int canvasPercent) {
  if (!bar_) return;
  const int width = 30;
  const int fill = expected_ > 0 ? std::min(width, framesRead * width / expected_)
                                 : std::min(width, canvasPercent * width / 100);
  std::string bar(width, ' ');
  std::fill(bar.begin(), bar.begin() + fill, '#');
  if (expected_ > 0)
    std::fprintf(stderr, "\r[%s] %d/%d frames, %d key frames, canvas %d%%  ", bar.c_str(),
                 framesRead, expected_, keyFrames, canvasPercent);
  else
    std::fprintf(stderr, "\r[%s] %d frames, %d key frames, canvas %d%%  ", bar.c_str(), framesRead,
                 keyFrames, canvasPercent);
  std::fflush(stderr);
}

}  // namespace zolt::tools
