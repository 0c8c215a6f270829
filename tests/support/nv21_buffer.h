// A caller-owned NV21 buffer with the record the engine reads it through (a preview frame or a
// canvas), VU plane directly behind the Y plane. Both planes are `width` bytes a row.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

#include "zolt_pano.h"

namespace zolt::test {

struct Nv21Buffer {
  std::vector<uint8_t> buf;
  __tag_ZOLT_OFFSCREEN rec{};
  Nv21Buffer(int w, int h, uint8_t y = 0, uint8_t vu = 128)
      : buf(static_cast<size_t>(w) * h * 3 / 2, vu) {
    std::memset(buf.data(), y, static_cast<size_t>(w) * h);
    rec = {0, w, h, buf.data(), buf.data() + static_cast<size_t>(w) * h};
  }
  // Moves keep the buffer the record points at; copies would not.
  Nv21Buffer(Nv21Buffer&&) = default;
  Nv21Buffer(const Nv21Buffer&) = delete;
  Nv21Buffer& operator=(const Nv21Buffer&) = delete;
  int w() const { return rec.width; }
  int h() const { return rec.height; }
  uint8_t& y(int x, int r) { return buf[static_cast<size_t>(r) * w() + x]; }
  // The VU pair of pixel (x, r).
  uint8_t* vu(int x, int r) { return rec.planeVU + static_cast<size_t>(r / 2) * w() + (x / 2) * 2; }
};

// left, top, right, bottom: one comparison for a whole rectangle.
inline std::array<int, 4> corners(const tsRECT& r) { return {r.left, r.top, r.right, r.bottom}; }

}  // namespace zolt::test
