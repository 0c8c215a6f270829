#include "tools/capture.h"
#include "zolt_pano_ext.h"

#include <chrono>

namespace zolt::tools {

FrameRecord Capture::feed(const InputFrame& in) {
  const tsRECT before = session.validRect();
  FrameRecord f = session.feed(in.nv21.data(), in.timeMs);
  f.frame = in.index;
  f.capture = rec.number;
  rec.direction = session.direction();
  if (f.keyFrame && session.haveRect()) placeKeyFrame(f, before);
  if (rec.frames == 0) rec.firstFrame = in.index;
  rec.lastFrame = in.index;
  ++rec.frames;
  return f;
}

// Where the merger put the frame: the leading edge of the valid rectangle along the sweep, the
// key frame's offset across it. A key frame that did not move the edge was not merged.
void Capture::placeKeyFrame(const FrameRecord& f, const tsRECT& before) {
  const tsRECT& rect = session.validRect();
  const int w = session.width(), h = session.height();
  const bool first = before.right < 0;
  int x = 0, y = 0;
  switch (rec.direction) {
    case MOVE_RIGHT:
      x = rect.right - w;
      y = -f.offset.y;
      break;
    case MOVE_LEFT:
      x = rect.left;
      y = -f.offset.y;
      break;
    case MOVE_DOWN:
      x = f.offset.x;
      y = rect.bottom - h;
      break;
    case MOVE_UP:
      x = f.offset.x;
      y = rect.top;
      break;
    default: break;
  }
  const bool moved = first || (ZOLT_PANO_IsHorizontalSweep(rec.direction)
                                   ? (rect.left != before.left || rect.right != before.right)
                                   : (rect.top != before.top || rect.bottom != before.bottom));
  if (!moved) return;
  keyFrames.push_back({f.frame, cv::Rect(x, y, w, h)});
  ++rec.keyFrames;
}

std::string describe(const Verdict& v) {
  return v.message + (v.passed ? ": passed" : ": refused");
}

void Capture::finish(int endCode, bool judge) {
  rec.endCode = endCode;
  if (session.haveRect()) {
    char message[512] = "";
    int code = 0;
    if (judge && ZOLT_PANO_GetVerdict(session.handle(), &code, message, sizeof message) == 0) {
      rec.gate.judged = true;
      rec.gate.passed = code == 0;
      rec.gate.code = code;
      rec.gate.message = message;
    }
    const auto t0 = std::chrono::steady_clock::now();
    jpeg = session.encodeJpeg();
    encodeMs = msSince(t0);
    const tsRECT& r = session.validRect();
    rec.panoramaSize = cv::Size(r.right - r.left, r.bottom - r.top);
    rec.length = ZOLT_PANO_IsHorizontalSweep(rec.direction) ? rec.panoramaSize.width : rec.panoramaSize.height;
  }
  session.release();
}

}  // namespace zolt::tools
