// Small NV21 canvases and frames for the merger tests.
#pragma once

#include <cstdint>
#include <cctype>
#include <cstring>
#include <string>
#include <functional>
#include <random>
#include <vector>

#include <opencv2/core.hpp>

#include "image/nv21_img.h"
#include "merger/module_merge.h"
#include "zolt_pano.h"

namespace zolt::test {

// An owning NV21 image that frees its buffer.
struct Frame : NV21Img {
  Frame() = default;
  ~Frame() { freeData(); }
};

// A caller-owned NV21 canvas, VU plane right behind the Y plane.
struct Canvas {
  std::vector<uint8_t> buf;
  __tag_ZOLT_OFFSCREEN rec{};
  Canvas(int w, int h, uint8_t y = 0, uint8_t vu = 128)
      : buf(static_cast<size_t>(w) * h * 3 / 2) {
    std::memset(buf.data(), y, static_cast<size_t>(w) * h);
    std::memset(buf.data() + static_cast<size_t>(w) * h, vu, buf.size() - size_t(w) * h);
    rec.width = w;
    rec.height = h;
    rec.planeY = buf.data();
    rec.planeVU = buf.data() + static_cast<size_t>(w) * h;
  }
  int w() const { return rec.width; }
  int h() const { return rec.height; }
  uint8_t& y(int x, int r) { return buf[static_cast<size_t>(r) * w() + x]; }
  uint8_t* vu(int x, int r) { return rec.planeVU + static_cast<size_t>(r / 2) * w() + (x / 2) * 2; }
};

// An owning frame whose pixels come from functions of (x, y).
inline void fillFrame(NV21Img& f, int w, int h, const std::function<uint8_t(int, int)>& luma,
                      const std::function<uint8_t(int, int, int)>& chroma =
                          [](int, int, int) { return uint8_t{128}; }) {
  f.nvCreate(h, w);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) f.yPlane[static_cast<size_t>(y) * w + x] = luma(x, y);
  for (int y = 0; y < h / 2; ++y)
    for (int x = 0; x < w; ++x)
      f.vuPlane[static_cast<size_t>(y) * w + x] = chroma(x & ~1, 2 * y, x & 1);
}

inline void randomFrame(NV21Img& f, int w, int h, uint32_t seed) {
  f.nvCreate(h, w);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < static_cast<size_t>(w) * h * 3 / 2; ++i)
    f.yPlane[i] = static_cast<uint8_t>(rng());
}

// A merger whose first frame (a uniform frame) has been placed, ready for direct calls of its
// stages with offsets set by hand.
inline void placeFirst(ModuleMerge& m, Canvas& canvas, MoveDirection dir, uint8_t level = 0) {
  Frame first;
  fillFrame(first, m.frameWidth, m.frameHeight, [&](int, int) { return level; });
  m.merging_AddImage(first, cv::Point_<double>(0, 0), dir, &canvas.rec);
}

// The log line with the number after `marker` replaced by "T" (timings vary).
inline std::string maskNumber(std::string line, const std::string& marker) {
  const size_t at = line.find(marker);
  if (at == std::string::npos) return line;
  const size_t from = at + marker.size();
  size_t to = from;
  auto numeric = [&](char ch) {
    return std::isdigit(static_cast<unsigned char>(ch)) || ch == '.';
  };
  while (to < line.size() && numeric(line[to])) ++to;
  return line.replace(from, to - from, "T");
}

}  // namespace zolt::test
