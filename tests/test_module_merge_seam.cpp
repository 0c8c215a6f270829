// ModuleMerge seam search: tie rules, the box filter, the cost threshold, the shift between
// canvas and frame for every sweep direction, and paths that are known to be the cheapest.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "module_merge_fixtures.h"

using namespace zolt::test;

// The seam search's helpers: which_min's tie rules and the box filter over a row and a matrix.
TEST(ModuleMergeSeam, WhichMinTiesAndBoxFilter) {
  ModuleMerge m(1280, 720);
  // -1 takes a, 0 b, 1 c; ties go to b, then a.
  const struct { float a, b, c; int want; } cases[] = {
      {1, 1, 1, 0}, {1, 2, 1, -1}, {2, 1, 1, 0}, {3, 2, 1, 1},
      {1, 2, 0.5f, 1}, {1, 1, 2, 0}, {0.5f, 1, 2, -1}};
  for (const auto& c : cases)
    EXPECT_EQ(m.which_min(c.a, c.b, c.c), c.want) << c.a << " " << c.b << " " << c.c;
  float p[3] = {4, 3, 3};
  EXPECT_EQ(m.which_min_byPointer(p + 1), 0);

  std::vector<float> prefix, row = {1, 2, 3, 4, 5, 6};
  m.oneDimensionBoxFilterX(row.data(), 6, prefix, 1);
  EXPECT_EQ(row, (std::vector<float>{1, 2.5f, 3.5f, 4.5f, 5.5f, 6}));
  row = {1, 2, 3, 4, 5, 6};
  m.oneDimensionBoxFilterX(row.data(), 6, prefix, 3);  // no i with r <= i < n - r
  EXPECT_EQ(row, (std::vector<float>{1, 2, 3, 4, 5, 6}));
  // Every row of a matrix, the span one longer on the right.
  cv::Mat mat = (cv::Mat_<float>(2, 6) << 1, 2, 3, 4, 5, 6, 0, 0, 8, 0, 0, 0);
  m.directionalBlurX(mat, 1);
  EXPECT_FLOAT_EQ(mat.at<float>(0, 1), 2.5f);
  EXPECT_FLOAT_EQ(mat.at<float>(1, 1), 4.0f);
  EXPECT_FLOAT_EQ(mat.at<float>(1, 2), 4.0f);
  EXPECT_FLOAT_EQ(mat.at<float>(1, 3), 0.0f);
}

namespace {

// A merger with its first frame placed (canvas uniform Y = 10, chroma 128) for `dir`, frames
// 400 along the sweep and 300 across it, with the offsets of a second frame set by hand.
struct SeamSetup : Placed {
  SeamSetup(MoveDirection dir, int offX, int offY) : Placed(dir, 400, 1000, 300, 10) {
    m.offsetX = offX;
    m.offsetY = offY;
  }
  // Frame Y of canvas (line, along) as the search maps it.
  uint8_t& frameY(Frame& f, int line, int along) {
    if (horizontal) {
      const int fx = along + m.offsetX + (m.panoDirection == MOVE_LEFT ? fw - m.panoWidth : 0);
      return f.yPlane[(line + m.offsetY) * fw + fx];
    }
    const int fy = along + m.offsetY + (m.panoDirection == MOVE_UP ? fh - m.panoHeight : 0);
    return f.yPlane[fy * fw + line + m.offsetX];
  }
  std::vector<int> search(int pos, Frame& f) {
    return horizontal ? m.getSeam_V_YUV(pos, f) : m.getSeam_H_YUV(pos, f);
  }
};

}  // namespace

// For every direction, with a shift along the sweep (the frame lies 100 further) and none
// across it: content that agrees everywhere costs nothing, and the lowest band column wins all
// the way; a frame that differs everywhere but along a wandering path of single steps gets the
// path as its seam.
TEST(ModuleMergeSeam, AgreeingContentAndTheOnlyAgreeingPath) {
  for (int d = 1; d <= 4; ++d) {
    SCOPED_TRACE(d);
    const int along = (d == 1 || d == 3) ? -100 : 100;
    SeamSetup s(static_cast<MoveDirection>(d), d <= 2 ? along : 0, d <= 2 ? 0 : along);
    const int pos = (d == 1 || d == 3 ? 250 : 750) + 7 * d;
    Frame f;
    fillFrame(f, s.fw, s.fh, [](int, int) { return uint8_t{12}; });  // |2| < 5
    EXPECT_EQ(s.search(pos, f), std::vector<int>(300, pos - 16));
    EXPECT_EQ(cv::countNonZero(s.m.seamCost), 0);
    std::fill(f.yPlane, f.yPlane + s.fw * s.fh, 200);
    std::vector<int> path(300);
    for (int l = 0; l < 300; ++l) {
      path[l] = pos - 3 + static_cast<int>(std::lround(9.0 * std::sin(l / 17.0)));
      if (l > 0) {
        ASSERT_LE(std::abs(path[l] - path[l - 1]), 1);
      }
      s.frameY(f, l, path[l]) = 10;
    }
    EXPECT_EQ(s.search(pos, f), path);
  }
}

// Costs are integer sums: 4 counts as none, 5 counts; chroma differences add to luma ones;
// canvas lines whose frame line is outside the frame cost nothing.
TEST(ModuleMergeSeam, CostThresholdAndLinesOutsideTheFrame) {
  SeamSetup s(MOVE_RIGHT, -100, -3);  // canvas rows 0..2 have no frame row
  Frame f;
  fillFrame(f, 400, 300, [](int, int) { return uint8_t{10}; });
  // Canvas row 4 (frame row 1), band columns 0..3 (canvas 234..237, frame 134..137).
  uint8_t* fy = f.yPlane + 1 * 400 + 134;
  fy[0] = 14;  // dY 4: none
  fy[1] = 15;  // dY 5
  fy[2] = 12;  // dY 2, with the chroma below 2 + 1: 5
  fy[3] = 200;
  uint8_t* fvu = f.vuPlane + 0 * 400 + 136;  // pair of frame columns 136, 137
  fvu[0] = 130, fvu[1] = 129;
  // Frame row 0 is canvas row 3, and is as different as can be: costs there.
  for (int x = 0; x < 400; ++x) f.yPlane[x] = 255;
  s.m.getSeam_V_YUV(250, f);
  EXPECT_EQ(cv::countNonZero(s.m.seamCost.rowRange(0, 3)), 0);
  const float* row3 = s.m.seamCost.ptr<float>(3);
  const float* row4 = s.m.seamCost.ptr<float>(4);
  // The changed chroma pair is shared with frame row 0: 3 more at band columns 2 and 3.
  for (int j = 0; j < 33; ++j) ASSERT_FLOAT_EQ(row3[j], (j == 2 || j == 3) ? 248.0f : 245.0f);
  // Row 4 adds the cheapest of its neighbours in row 3.
  const float want4[] = {245, 5 + 245, 5 + 245, 193 + 245, 245};
  for (int j = 0; j < 5; ++j) EXPECT_FLOAT_EQ(row4[j], want4[j]) << j;
}
