// ModuleMerge seam blending and direct fill: the ramp's ends and rounding, the repeated chroma
// blend, the ramp levels from the textureless blocks and their cap, the moved seam, lines
// outside the frame, the fills' exact extents; and the vectorised ramp against the reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <hwy/targets.h>

#include "merger/merge_kernels.h"
#include "module_merge_fixtures.h"
#include "support/log_capture.h"

using zolt::test::Canvas;
using zolt::test::Frame;

namespace {

int rampValue(int wf, int level, int f, int c) {
  const int hw = 16 << level;
  return (wf * f + (2 * hw - wf) * c + hw) >> (level + 5);
}

// A second frame merged by the linear merge alone; canvas uniform C, frame uniform F, so every
// position costs the same and the seam is the band's start, pos - 16.
struct RampSetup {
  bool horizontal;
  int fw, fh;
  Canvas canvas;
  ModuleMerge m;
  Frame f;
  int pos;
  RampSetup(MoveDirection dir, int frameAlong, int panoAlong, int cross, uint8_t c, uint8_t fv,
            int offCross = 0)
      : horizontal(dir <= 2),
        fw(horizontal ? frameAlong : cross),
        fh(horizontal ? cross : frameAlong),
        canvas(horizontal ? panoAlong : cross, horizontal ? cross : panoAlong, c, 128),
        m(fw, fh) {
    zolt::test::placeFirst(m, canvas, dir, c);
    const int t = 200;  // progress along the sweep
    const int o = (dir == MOVE_RIGHT || dir == MOVE_DOWN) ? -t : t;
    m.offsetX = horizontal ? o : offCross;
    m.offsetY = horizontal ? offCross : o;
    const int half = frameAlong / 2;
    pos = (dir == MOVE_RIGHT || dir == MOVE_DOWN) ? half + t : panoAlong - half - t;
    zolt::test::fillFrame(f, fw, fh, [&](int, int) { return fv; });
  }
  std::vector<int> merge(MoveDirection dir) {
    std::vector<int> seam;
    switch (dir) {
      case MOVE_RIGHT: m.merge_ToRight_linear_YUV_withSeam(pos, f, seam); break;
      case MOVE_LEFT: m.merge_ToLeft_linear_YUV_withSeam(pos, f, seam); break;
      case MOVE_DOWN: m.merge_ToBottom_linear_YUV_withSeam(pos, f, seam); break;
      default: m.merge_ToTop_linear_YUV_withSeam(pos, f, seam); break;
    }
    return seam;
  }
  // Canvas luma at position `a` along the sweep on canvas line `line`.
  int at(int line, int a) { return horizontal ? canvas.y(a, line) : canvas.y(line, a); }
};

// Runs `check` once for every vector target this CPU runs (SSSE3, SSE4, AVX2, ... on x86), the
// dispatcher pointed at each in turn.
template <class Check>
void forEachTarget(Check check) {
  for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
    SCOPED_TRACE(hwy::TargetName(target));
    hwy::SetSupportedTargetsForTest(target);
    check();
    hwy::SetSupportedTargetsForTest(0);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

}  // namespace

// Level 0 (frames narrower than 1612.8): a 33-pixel ramp, frame pixel unchanged at the frame's
// end, canvas pixel unchanged at the other, the rounded mean at the seam; the seam moves to the
// ramp's end on the frame's side; nothing outside the ramp changes. Lines whose frame line is
// outside the frame (the hand drifted by 5) keep their pixels and their seam entry.
TEST(ModuleMergeBlend, RampEndsAndRoundingAllDirections) {
  for (int d = 1; d <= 4; ++d) {
    SCOPED_TRACE(d);
    const auto dir = static_cast<MoveDirection>(d);
    RampSetup s(dir, 400, 1000, 300, 40, 201, -5);
    const int seamAt = s.pos - 16;
    const std::vector<int> seam = s.merge(dir);
    const bool before = d == 2 || d == 4;
    ASSERT_EQ(seam.size(), 300u);
    for (int line = 0; line < 300; ++line) {
      ASSERT_EQ(seam[line], line < 5 ? seamAt : (before ? seamAt - 16 : seamAt + 16));
    }
    for (int a = 0; a < 1000; ++a) ASSERT_EQ(s.at(4, a), 40);
    for (int line : {5, 6, 150, 299}) {
      for (int a = seamAt - 20; a <= seamAt + 20; ++a) {
        const int dd = a - seamAt;
        int want = 40;
        if (dd >= -16 && dd <= 16) want = rampValue(before ? 16 - dd : 16 + dd, 0, 201, 40);
        ASSERT_EQ(s.at(line, a), want) << line << " " << a;
      }
      EXPECT_EQ(s.at(line, seamAt), (201 + 40 + 1) / 2);
      EXPECT_EQ(s.at(line, before ? seamAt - 16 : seamAt + 16), 201);
    }
  }
}

namespace {

std::string blendLine(const zolt::test::LogCapture& logs) {
  for (const auto& l : logs.lines()) {
    if (l.message.find("full dynamic blending") != std::string::npos) {
      return zolt::test::maskNumber(l.message, "time =  ");
    }
  }
  return "";
}

}  // namespace

// Flat, bright overlap with a 2420-pixel frame: the ramp widens to 257 pixels. The mask covers
// the block rows of the reduced strip (300 / 9 = 33 rows: 8 whole blocks), so the last 12
// canvas rows find no flat block and stay at level 0.
TEST(ModuleMergeBlend, FlatBrightOverlapWidensToLevelThree) {
  RampSetup s(MOVE_RIGHT, 2420, 2900, 300, 120, 131);
  EXPECT_EQ(s.m.resolutionLevel, 3);
  zolt::test::LogCapture logs;
  const std::vector<int> seam = s.merge(MOVE_RIGHT);
  const int sAt = s.pos - 16;
  EXPECT_EQ(blendLine(logs),
            "[merge_ToRight_linear_YUV_withSeam] full dynamic blending time =  T and N = 2316  "
            "Blndstat: 12 0 0 288 0");
  EXPECT_EQ(seam[0], sAt + 128);
  EXPECT_EQ(seam[287], sAt + 128);
  EXPECT_EQ(seam[288], sAt + 16);
  for (int a = sAt - 128; a <= sAt + 128; a += 7) {
    ASSERT_EQ(s.at(100, a), rampValue(128 + a - sAt, 3, 131, 120)) << a;
  }
  EXPECT_EQ(s.at(100, sAt - 129), 120);
  EXPECT_EQ(s.at(100, sAt + 128), 131);
}

// The same overlap with a 1920-pixel frame is capped at level 2; a dark one (mean 50 or less)
// is never textureless.
TEST(ModuleMergeBlend, LevelCapAndDarkOverlap) {
  {
    RampSetup s(MOVE_LEFT, 1920, 2600, 300, 120, 131);
    zolt::test::LogCapture logs;
    const std::vector<int> seam = s.merge(MOVE_LEFT);
    EXPECT_EQ(blendLine(logs),
              "[merge_ToLeft_linear_YUV_withSeam] full dynamic blending time =  T and N = 1164  "
              "Blndstat: 12 0 288 0 0");
    EXPECT_EQ(seam[5], s.pos - 16 - 64);
  }
  {
    RampSetup s(MOVE_RIGHT, 2420, 2900, 300, 50, 45);
    zolt::test::LogCapture logs;
    s.merge(MOVE_RIGHT);
    EXPECT_EQ(blendLine(logs),
              "[merge_ToRight_linear_YUV_withSeam] full dynamic blending time =  T and N = 300  "
              "Blndstat: 300 0 0 0 0");
  }
}

// Textured blocks 8 reduced pixels either side of the seam's block stop the widening at
// level 1. A vertical sweep: the mask is read by band block row and frame column, and the cap
// comes from the frame width.
TEST(ModuleMergeBlend, TextureEightBlocksAwayGivesLevelOne) {
  RampSetup s(MOVE_DOWN, 400, 1000, 2420, 120, 131);
  // The canvas strip spans rows pos - 144 .. pos + 143; reduced rows 4..7 and 20..23 are its
  // rows 36..71 and 180..215. A pixel checkerboard there stays textured when reduced.
  for (int r = 0; r < 288; ++r) {
    if ((r >= 36 && r < 72) || (r >= 180 && r < 216)) {
      for (int c = 0; c < 2420; ++c) s.canvas.y(c, s.pos - 144 + r) = ((r + c) & 1) ? 255 : 0;
    }
  }
  zolt::test::LogCapture logs;
  const std::vector<int> seam = s.merge(MOVE_DOWN);
  // The reduced strip is 268 wide (67 blocks): frame columns 2412..2419 find no block.
  EXPECT_EQ(blendLine(logs),
            "[merge_ToBottom_linear_YUV_withSeam] full dynamic blending time =  T and N = 4832  "
            "Blndstat: 8 2412 0 0 0");
  EXPECT_EQ(seam[0], s.pos - 16 + 32);
  EXPECT_EQ(seam[2419], s.pos - 16 + 16);
  const int sAt = s.pos - 16;
  for (int a = sAt - 33; a <= sAt + 33; ++a) {
    // Outside the ramp the linear merge leaves the canvas (the fill comes later).
    const int want = std::abs(a - sAt) > 32 ? 120 : rampValue(32 + a - sAt, 1, 131, 120);
    ASSERT_EQ(s.at(1000, a), want) << a;
  }
}

// The vectorised ramp gives the reference's bytes: every level and direction, odd and even
// ends, odd and negative frame shifts, ranges shorter than a vector.
TEST(ModuleMergeBlend, VectorRampMatchesReference) {
  const auto& ref = zolt::referenceMergeKernels();
  const auto& vec = zolt::vectorMergeKernels();
  forEachTarget([&] {
    std::mt19937 rng(77);
    const int width = 700;
    std::vector<uint8_t> fy(width), fvu(width), cy0(width), cvu0(width);
    for (int iter = 0; iter < 1500; ++iter) {
      for (auto* v : {&fy, &fvu, &cy0, &cvu0})
        for (auto& b : *v) b = static_cast<uint8_t>(rng());
      const int level = static_cast<int>(rng() % 4);
      const int hw = 16 << level;
      const int len = iter % 5 == 0 ? static_cast<int>(rng() % 6) : 2 * hw + 1;
      const int xa = static_cast<int>(rng() % 40);
      const int xb = xa + len - 1;
      const int k = static_cast<int>(rng() % 80) - 20;
      if (xa + k < 0 || xb + k + 1 >= width) continue;
      const bool before = rng() & 1;
      const int wfa = before ? 2 * hw : 0;
      const int dir = before ? -1 : 1;
      std::vector<uint8_t> cyR = cy0, cvuR = cvu0, cyV = cy0, cvuV = cvu0;
      ref.blendRampRow(cyR.data(), cvuR.data(), fy.data(), fvu.data(), xa, xb, k, wfa, dir, level);
      vec.blendRampRow(cyV.data(), cvuV.data(), fy.data(), fvu.data(), xa, xb, k, wfa, dir, level);
      ASSERT_EQ(cyR, cyV) << "iter " << iter << " level " << level << " xa " << xa << " k " << k;
      ASSERT_EQ(cvuR, cvuV) << "iter " << iter << " level " << level << " xa " << xa << " k " << k;
    }
  });
}

// Direct fill, horizontal: exactly [left, seam) or [seam, right) of each row, Y and VU; rows
// outside the frame untouched; the odd row's copy decides a shared VU row.
TEST(ModuleMergeFill, HorizontalExtents) {
  for (int d : {1, 2}) {
    SCOPED_TRACE(d);
    Canvas canvas(1000, 300, 7, 9);
    ModuleMerge m(400, 300);
    zolt::test::placeFirst(m, canvas, static_cast<MoveDirection>(d), 7);
    std::memset(canvas.buf.data(), 7, canvas.buf.size());
    Frame f;
    zolt::test::fillFrame(
        f, 400, 300, [](int x, int y) { return static_cast<uint8_t>(x + y); },
        [](int x, int y, int i) { return static_cast<uint8_t>(100 + y / 2 + 3 * i); });
    m.offsetX = d == 1 ? -400 : 400;
    m.offsetY = 1;  // canvas row r shows frame row r + 1; the last canvas row none
    const int edge = d == 1 ? 800 : 200;
    std::vector<int> seam(300);
    for (int r = 0; r < 300; ++r) seam[r] = edge + (d == 1 ? -10 : 10) - (r & 1) * 4;
    if (d == 1) {
      m.merge_ToRight_direct_YUV_withSeam(seam, edge, f);
    } else {
      m.merge_ToLeft_direct_YUV_withSeam(edge, seam, f);
    }
    const int shift = (d == 2 ? 400 - 1000 : 0) + m.offsetX;
    for (int r = 0; r < 300; ++r) {
      const int lo = d == 1 ? seam[r] : edge, hi = d == 1 ? edge : seam[r];
      for (int x = edge - 30; x < edge + 30; ++x) {
        const bool in = r < 299 && x >= lo && x < hi;
        const int want = in ? static_cast<uint8_t>(x + shift + r + 1) : 7;
        ASSERT_EQ(canvas.y(x, r), want) << r << " " << x;
      }
    }
    // VU row 0: row 1 (frame row 2, VU row 1) wrote last, over row 0's copy (VU row 0).
    const int odd0 = d == 1 ? seam[1] : edge, odd1 = d == 1 ? edge : seam[1];
    const int even0 = d == 1 ? seam[0] : edge, even1 = d == 1 ? edge : seam[0];
    for (int x = edge - 30; x < edge + 30; x += 2) {
      const uint8_t* vu = canvas.vu(x, 0);
      int want = 7;
      if (x >= (odd0 & ~1) && x < odd1) {
        want = 101;
      } else if (x >= (even0 & ~1) && x < even1) {
        want = 100;
      }
      ASSERT_EQ(vu[0], want) << x;
    }
  }
}

// Direct fill, vertical: the ragged band per pixel and whole rows beyond, and which rows.
TEST(ModuleMergeFill, VerticalRowsAndOffsets) {
  for (int d : {3, 4}) {
    for (int offX : {-3, 3}) {
      SCOPED_TRACE(std::to_string(d) + " " + std::to_string(offX));
      Canvas canvas(300, 1000, 7, 9);
      ModuleMerge m(300, 400);
      zolt::test::placeFirst(m, canvas, static_cast<MoveDirection>(d), 7);
      std::memset(canvas.buf.data(), 7, canvas.buf.size());
      Frame f;
      zolt::test::fillFrame(f, 300, 400,
                            [](int x, int y) { return static_cast<uint8_t>(3 * x + y); });
      m.offsetX = offX;
      m.offsetY = d == 3 ? 0 : 600;  // canvas row y shows frame row y (down) / y - 600 + 600 (up)
      std::vector<int> seam(300, 40);
      seam[100] = 43;  // a ragged seam: the band reaches from 40 to 43
      if (d == 3) {
        m.merge_ToBottom_direct_YUV_withSeam(seam, 70, f);
      } else {
        m.merge_ToTop_direct_YUV_withSeam(10, seam, f);
      }
      for (int y = 0; y < 80; ++y) {
        for (int c = 0; c < 300; ++c) {
          const int fc = c + offX;
          bool in;
          if (d == 3) {
            in = y > seam[c] && y < 70;  // the seam row stays blended
          } else {
            in = y >= 10 && y <= seam[c];  // the seam row comes from the frame
          }
          if (fc < 0 || fc >= 300) in = false;
          ASSERT_EQ(canvas.y(c, y), in ? static_cast<uint8_t>(3 * fc + y) : 7) << y << " " << c;
        }
      }
    }
  }
}

// The same for the column ramps of vertical sweeps, which the vector code does a row at a time:
// ragged seams, mixed levels, odd first and last columns, odd shifts both ways.
TEST(ModuleMergeBlend, VectorColumnRampsMatchReference) {
  const auto& ref = zolt::referenceMergeKernels();
  const auto& vec = zolt::vectorMergeKernels();
  forEachTarget([&] {
    std::mt19937 rng(91);
    // An even canvas width: in an odd one the last column's pair runs into the next VU row.
    const int pw = 204, ph = 420, fw = 207, fh = 430;
    std::vector<uint8_t> canvas0(pw * ph * 3 / 2), frame(fw * fh * 3 / 2);
    for (int iter = 0; iter < 24; ++iter) {
      for (auto& b : canvas0) b = static_cast<uint8_t>(rng());
      for (auto& b : frame) b = static_cast<uint8_t>(rng());
      zolt::ColumnRamps r{};
      r.pw = pw;
      r.fw = fw;
      r.offX = static_cast<int>(rng() % 9) - 4;
      r.yShift = static_cast<int>(rng() % 7) - 3;
      r.c0 = std::max(0, -r.offX) + static_cast<int>(rng() % 3);
      r.c1 = std::min(pw, fw - 1 - r.offX) - static_cast<int>(rng() % 3);
      r.before = rng() & 1;
      std::vector<int> seam(pw);
      std::vector<int8_t> level(pw);
      int s = 200;
      for (int c = 0; c < pw; ++c) {
        s = std::clamp(s + static_cast<int>(rng() % 3) - 1, 200 - 16, 200 + 16);
        seam[c] = s;
        level[c] = static_cast<int8_t>(iter % 3 == 0 ? rng() % 4 : iter % 4);
      }
      r.seam = seam.data();
      r.level = level.data();
      r.fY = frame.data();
      r.fVU = frame.data() + fw * fh;
      std::vector<uint8_t> a = canvas0, b = canvas0;
      r.cY = a.data();
      r.cVU = a.data() + pw * ph;
      ref.blendRampColumns(r);
      r.cY = b.data();
      r.cVU = b.data() + pw * ph;
      vec.blendRampColumns(r);
      const auto diff = std::mismatch(a.begin(), a.end(), b.begin());
      ASSERT_TRUE(diff.first == a.end())
          << "iter " << iter << " offX " << r.offX << " yShift " << r.yShift << " c0 " << r.c0
          << " c1 " << r.c1 << " first difference at byte " << (diff.first - a.begin());
    }
  });
}
