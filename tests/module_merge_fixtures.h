// Small NV21 canvases and frames for the merger tests.
#pragma once

#include <cctype>
#include <cstdint>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "image/nv21_img.h"
#include "merger/module_merge.h"
#include "support/hwy_targets.h"
#include "support/nv21_buffer.h"
#include "support/textures.h"
#include "zolt_pano.h"

namespace zolt::test {

using Canvas = Nv21Buffer;

// An owning NV21 image that frees its buffer.
struct Frame : NV21Img {
  Frame() = default;
  ~Frame() { freeData(); }
};

// Fills an owning frame from functions of (x, y) and, for chroma, (even x, even y, byte).
inline void fillFrame(
    NV21Img& f, int w, int h, const std::function<uint8_t(int, int)>& luma,
    const std::function<uint8_t(int, int, int)>& chroma = [](int, int, int) {
      return uint8_t{128};
    }) {
  f.nvCreate(h, w);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) f.yPlane[static_cast<size_t>(y) * w + x] = luma(x, y);
  for (int y = 0; y < h / 2; ++y)
    for (int x = 0; x < w; ++x)
      f.vuPlane[static_cast<size_t>(y) * w + x] = chroma(x & ~1, 2 * y, x & 1);
}

// Places a uniform first frame, leaving the merger ready for direct calls of its stages with
// offsets set by hand.
inline void placeFirst(ModuleMerge& m, Canvas& canvas, MoveDirection dir, uint8_t level = 0) {
  Frame first;
  fillFrame(first, m.frameWidth, m.frameHeight, [&](int, int) { return level; });
  m.merging_AddImage(first, cv::Point_<double>(0, 0), dir, &canvas.rec);
}

// A canvas of uniform luma `level` (chroma 128) with a uniform first frame of the same level
// placed; sizes along and across the sweep.
struct Placed {
  bool horizontal;
  int fw, fh;
  Canvas canvas;
  ModuleMerge m;
  Placed(MoveDirection dir, int frameAlong, int panoAlong, int cross, uint8_t level)
      : horizontal(dir <= 2),
        fw(horizontal ? frameAlong : cross),
        fh(horizontal ? cross : frameAlong),
        canvas(horizontal ? panoAlong : cross, horizontal ? cross : panoAlong, level),
        m(fw, fh) {
    placeFirst(m, canvas, dir, level);
  }
  // Canvas luma at position `a` along the sweep on canvas line `line` across it.
  uint8_t& at(int line, int a) { return horizontal ? canvas.y(a, line) : canvas.y(line, a); }
};

// The log line with the number after `marker` replaced by "T" (timings vary).
inline std::string maskNumber(std::string line, const std::string& marker) {
  const size_t at = line.find(marker);
  if (at == std::string::npos) return line;
  const size_t from = at + marker.size();
  size_t to = from;
  while (to < line.size() &&
         (std::isdigit(static_cast<unsigned char>(line[to])) || line[to] == '.'))
    ++to;
  return line.replace(from, to - from, "T");
}

}  // namespace zolt::test
