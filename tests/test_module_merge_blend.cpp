// ModuleMerge seam blending and direct fill: the ramp's ends and rounding, the repeated chroma
// blend, the ramp levels from the textureless blocks and their cap, the moved seam, lines
// outside the frame, the fills' exact extents; and the vectorised ramps against the reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "merger/merge_kernels.h"
#include "module_merge_fixtures.h"
#include "support/log_capture.h"

using namespace zolt::test;

namespace {

// The ramp's luma with the frame weighing wf of 2 hw (hw = 16 << level).
int rampValue(int wf, int level, int f, int c) {
  const int hw = 16 << level;
  return (wf * f + (2 * hw - wf) * c + hw) >> (level + 5);
}

}  // namespace

// The linear merge, every direction and level. The ramp is 33 pixels at level 0 (frames below
// 1612.8 wide, textured or dark overlaps), 2 * (16 << level) + 1 above: frame pixel unchanged at
// the frame's end, canvas pixel at the other, the rounded mean at the seam, nothing outside the
// ramp changed (the fill comes later); the seam moves to the ramp's end on the frame's side.
// Lines with no frame line (the hand drifted by 5) keep their pixels and their seam entry.
// Flat, bright overlaps widen the ramp up to the frame width's cap. The mask covers the block
// rows of the reduced strip (300 / 9 = 33 rows: 8 whole blocks), so the last 12 lines stay at
// level 0. Textured blocks 8 reduced pixels either side of the seam's block stop the widening at
// level 1; that strip is 268 wide (67 blocks), so frame columns 2412..2419 find no block.
TEST(ModuleMergeBlend, RampEndsRoundingAndLevelsAllDirections) {
  const struct {
    MoveDirection dir;
    int frameAlong, panoAlong, cross, drift;
    uint8_t c, f;
    int level;  // on all lines but the last ones
    bool texture;
    const char* stat;  // the blending log line's N and Blndstat
  } cases[] = {
      {MOVE_RIGHT, 400, 1000, 300, 5, 40, 201, 0, false, "295  Blndstat: 295 0 0 0 0"},
      {MOVE_LEFT, 400, 1000, 300, 5, 40, 201, 0, false, "295  Blndstat: 295 0 0 0 0"},
      {MOVE_DOWN, 400, 1000, 300, 5, 40, 201, 0, false, "295  Blndstat: 295 0 0 0 0"},
      {MOVE_UP, 400, 1000, 300, 5, 40, 201, 0, false, "295  Blndstat: 295 0 0 0 0"},
      {MOVE_RIGHT, 2420, 2900, 300, 0, 120, 131, 3, false, "2316  Blndstat: 12 0 0 288 0"},
      // Capped at level 2.
      {MOVE_LEFT, 1920, 2600, 300, 0, 120, 131, 2, false, "1164  Blndstat: 12 0 288 0 0"},
      // Dark: never textureless.
      {MOVE_RIGHT, 2420, 2900, 300, 0, 50, 45, 0, false, "300  Blndstat: 300 0 0 0 0"},
      {MOVE_DOWN, 400, 1000, 2420, 0, 120, 131, 1, true, "4832  Blndstat: 8 2412 0 0 0"},
  };
  const char* names[] = {"", "ToRight", "ToLeft", "ToBottom", "ToTop"};
  using Linear = void (ModuleMerge::*)(int, NV21Img&, std::vector<int>&);
  const Linear merges[] = {nullptr, &ModuleMerge::merge_ToRight_linear_YUV_withSeam,
                           &ModuleMerge::merge_ToLeft_linear_YUV_withSeam,
                           &ModuleMerge::merge_ToBottom_linear_YUV_withSeam,
                           &ModuleMerge::merge_ToTop_linear_YUV_withSeam};
  for (const auto& c : cases) {
    const std::string log =
        std::string("[merge_") + names[c.dir] +
        "_linear_YUV_withSeam] full dynamic blending time =  T and N = " + c.stat;
    SCOPED_TRACE(log);
    // A uniform second frame 200 pixels on along the sweep, merged by the linear merge alone.
    // Every position costs the same, so the seam is the band's start, pos - 16.
    Placed s(c.dir, c.frameAlong, c.panoAlong, c.cross, c.c);
    const bool forward = c.dir == MOVE_RIGHT || c.dir == MOVE_DOWN;
    (s.horizontal ? s.m.offsetX : s.m.offsetY) = forward ? -200 : 200;
    (s.horizontal ? s.m.offsetY : s.m.offsetX) = -c.drift;
    const int pos = forward ? c.frameAlong / 2 + 200 : c.panoAlong - c.frameAlong / 2 - 200;
    Frame f;
    fillFrame(f, s.fw, s.fh, [&](int, int) { return c.f; });
    // The canvas strip spans pos - 144 .. pos + 143 along the sweep; reduced rows 4..7 and
    // 20..23 are its rows 36..71 and 180..215. A pixel checkerboard stays textured reduced.
    for (int r = 0; c.texture && r < 288; ++r)
      if ((r >= 36 && r < 72) || (r >= 180 && r < 216))
        for (int l = 0; l < c.cross; ++l) s.at(l, pos - 144 + r) = ((r + l) & 1) ? 255 : 0;
    LogCapture logs;
    std::vector<int> seam;
    (s.m.*merges[c.dir])(pos, f, seam);
    ASSERT_EQ(logs.lines().size(), 3u);  // resizing, textureless blocks, blending
    EXPECT_EQ(maskNumber(logs.lines()[2].message, "time =  "), log);
    ASSERT_EQ(seam.size(), static_cast<size_t>(c.cross));
    const int sAt = pos - 16, sign = c.dir == MOVE_LEFT || c.dir == MOVE_UP ? -1 : 1;
    for (int line = 0; line < c.drift; ++line) {
      EXPECT_EQ(seam[line], sAt);
      for (int a = 0; a < c.panoAlong; ++a) ASSERT_EQ(s.at(line, a), c.c) << line << " " << a;
    }
    for (int line : {c.drift, 100, c.cross - 1}) {
      SCOPED_TRACE(line);
      const int level = line == c.cross - 1 ? 0 : c.level, hw = 16 << level;
      EXPECT_EQ(seam[line], sAt + sign * hw);
      for (int a = sAt - hw; a <= sAt + hw; ++a)
        ASSERT_EQ(s.at(line, a), rampValue(hw + sign * (a - sAt), level, c.f, c.c)) << a;
      EXPECT_EQ(s.at(line, sAt), (c.f + c.c + 1) / 2);
      EXPECT_EQ(s.at(line, sAt + sign * hw), c.f);
      EXPECT_TRUE(s.at(line, sAt - sign * (hw + 1)) == c.c &&
                  s.at(line, sAt + sign * (hw + 1)) == c.c);
    }
  }
}

// The vectorised ramp gives the reference's bytes: every level and direction, odd and even
// ends, odd and negative frame shifts, ranges shorter than a vector.
TEST(ModuleMergeBlend, VectorRampMatchesReference) {
  const auto &ref = zolt::referenceMergeKernels(), &vec = zolt::vectorMergeKernels();
  forEachTarget([&] {
    std::mt19937 rng(77);
    const int width = 700;
    std::vector<uint8_t> fy(width), fvu(width), cy0(width), cvu0(width);
    for (int iter = 0; iter < 1500; ++iter) {
      for (auto* v : {&fy, &fvu, &cy0, &cvu0}) zolt::test::fillBytes(*v, rng);
      const int level = static_cast<int>(rng() % 4), hw = 16 << level;
      const int len = iter % 5 == 0 ? static_cast<int>(rng() % 6) : 2 * hw + 1;
      const int xa = static_cast<int>(rng() % 40), xb = xa + len - 1;
      const int k = static_cast<int>(rng() % 80) - 20;
      if (xa + k < 0 || xb + k + 1 >= width) continue;
      const int wf = (rng() & 1) ? 2 * hw : 0;  // the frame's weight at xa: falling or rising
      std::vector<uint8_t> cyR = cy0, cvuR = cvu0, cyV = cy0, cvuV = cvu0;
      for (auto [ks, cy, cvu] : {std::tuple{&ref, &cyR, &cvuR}, std::tuple{&vec, &cyV, &cvuV}})
        ks->blendRampRow(cy->data(), cvu->data(), fy.data(), fvu.data(), xa, xb, k, wf, wf ? -1 : 1,
                         level);
      ASSERT_TRUE(cyR == cyV && cvuR == cvuV)
          << "iter " << iter << " level " << level << " xa " << xa << " k " << k;
    }
  });
}

// The same for the column ramps of vertical sweeps, which the vector code does a row at a time:
// ragged seams, mixed levels, odd first and last columns, odd shifts both ways.
TEST(ModuleMergeBlend, VectorColumnRampsMatchReference) {
  const auto &ref = zolt::referenceMergeKernels(), &vec = zolt::vectorMergeKernels();
  forEachTarget([&] {
    std::mt19937 rng(91);
    // An even canvas width: in an odd one the last column's pair runs into the next VU row.
    const int pw = 204, ph = 420, fw = 207, fh = 430;
    std::vector<uint8_t> canvas0(pw * ph * 3 / 2), frame(fw * fh * 3 / 2);
    std::vector<int> seam(pw);
    std::vector<int8_t> level(pw);
    // Canvas planes, columns, offsets and side are set per iteration.
    zolt::ColumnRamps r{nullptr, nullptr, pw, frame.data(), frame.data() + fw * fh, fw,   0,
                        0,       0,       0,  seam.data(),  level.data(),           false};
    for (int iter = 0; iter < 24; ++iter) {
      for (auto* v : {&canvas0, &frame}) zolt::test::fillBytes(*v, rng);
      r.offX = static_cast<int>(rng() % 9) - 4;
      r.yShift = static_cast<int>(rng() % 7) - 3;
      r.c0 = std::max(0, -r.offX) + static_cast<int>(rng() % 3);
      r.c1 = std::min(pw, fw - 1 - r.offX) - static_cast<int>(rng() % 3);
      r.before = rng() & 1;
      int s = 200;
      for (int c = 0; c < pw; ++c) {
        s = std::clamp(s + static_cast<int>(rng() % 3) - 1, 200 - 16, 200 + 16);
        seam[c] = s;
        level[c] = static_cast<int8_t>(iter % 3 == 0 ? rng() % 4 : iter % 4);
      }
      std::vector<uint8_t> a = canvas0, b = canvas0;
      for (auto [out, k] : {std::pair{&a, &ref}, std::pair{&b, &vec}}) {
        r.cY = out->data();
        r.cVU = out->data() + pw * ph;
        k->blendRampColumns(r);
      }
      const auto diff = std::mismatch(a.begin(), a.end(), b.begin());
      ASSERT_TRUE(diff.first == a.end())
          << "iter " << iter << " offX " << r.offX << " yShift " << r.yShift << " c0 " << r.c0
          << " c1 " << r.c1 << " first difference at byte " << (diff.first - a.begin());
    }
  });
}

// Direct fill, horizontal: exactly [left, seam) or [seam, right) of each row, Y and VU; rows
// outside the frame untouched; the odd row's copy decides a shared VU row.
TEST(ModuleMergeFill, HorizontalExtents) {
  for (int d : {1, 2}) {
    SCOPED_TRACE(d);
    Placed s(static_cast<MoveDirection>(d), 400, 1000, 300, 7);
    std::fill(s.canvas.buf.begin(), s.canvas.buf.end(), 7);
    Frame f;
    fillFrame(
        f, 400, 300, [](int x, int y) { return static_cast<uint8_t>(x + y); },
        [](int, int y, int i) { return static_cast<uint8_t>(100 + y / 2 + 3 * i); });
    s.m.offsetX = d == 1 ? -400 : 400;
    s.m.offsetY = 1;  // canvas row r shows frame row r + 1; the last canvas row none
    const int edge = d == 1 ? 800 : 200;
    std::vector<int> seam(300);
    for (int r = 0; r < 300; ++r) seam[r] = edge + (d == 1 ? -10 : 10) - (r & 1) * 4;
    if (d == 1)
      s.m.merge_ToRight_direct_YUV_withSeam(seam, edge, f);
    else
      s.m.merge_ToLeft_direct_YUV_withSeam(edge, seam, f);
    const int shift = (d == 2 ? 400 - 1000 : 0) + s.m.offsetX;
    auto lo = [&](int r) { return d == 1 ? seam[r] : edge; };
    auto hi = [&](int r) { return d == 1 ? edge : seam[r]; };
    for (int r = 0; r < 300; ++r)
      for (int x = edge - 30; x < edge + 30; ++x) {
        const bool in = r < 299 && x >= lo(r) && x < hi(r);
        ASSERT_EQ(s.canvas.y(x, r), in ? static_cast<uint8_t>(x + shift + r + 1) : 7)
            << r << " " << x;
      }
    // VU row 0: row 1 (frame row 2, VU row 1) wrote last, over row 0's copy (VU row 0).
    for (int x = edge - 30; x < edge + 30; x += 2) {
      int want = 7;
      if (x >= (lo(1) & ~1) && x < hi(1))
        want = 101;
      else if (x >= (lo(0) & ~1) && x < hi(0))
        want = 100;
      ASSERT_EQ(s.canvas.vu(x, 0)[0], want) << x;
    }
  }
}

// Direct fill, vertical: the ragged band per pixel and whole rows beyond, and which rows.
TEST(ModuleMergeFill, VerticalRowsAndOffsets) {
  for (int d : {3, 4}) {
    for (int offX : {-3, 3}) {
      SCOPED_TRACE(std::to_string(d) + " " + std::to_string(offX));
      Placed s(static_cast<MoveDirection>(d), 400, 1000, 300, 7);
      std::fill(s.canvas.buf.begin(), s.canvas.buf.end(), 7);
      Frame f;
      fillFrame(f, 300, 400, [](int x, int y) { return static_cast<uint8_t>(3 * x + y); });
      s.m.offsetX = offX;
      s.m.offsetY = d == 3 ? 0 : 600;  // canvas row y shows frame row y (down) / y - 600 + 600 (up)
      std::vector<int> seam(300, 40);
      seam[100] = 43;  // a ragged seam: the band reaches from 40 to 43
      if (d == 3)
        s.m.merge_ToBottom_direct_YUV_withSeam(seam, 70, f);
      else
        s.m.merge_ToTop_direct_YUV_withSeam(10, seam, f);
      for (int y = 0; y < 80; ++y)
        for (int c = 0; c < 300; ++c) {
          const int fc = c + offX;
          // Down: the seam row stays blended; up: it comes from the frame.
          const bool in =
              (d == 3 ? y > seam[c] && y < 70 : y >= 10 && y <= seam[c]) && fc >= 0 && fc < 300;
          ASSERT_EQ(s.canvas.y(c, y), in ? static_cast<uint8_t>(3 * fc + y) : 7) << y << " " << c;
        }
    }
  }
}
