#include "tracker/pixel_alignment.h"

#include <gtest/gtest.h>

#include <random>

#include "support/hwy_targets.h"
#include "support/textures.h"

namespace {

using In = PixelAlignment::Input;
using Res = PixelAlignment::Result;
using zolt::test::randomLevels;
constexpr int32_t kNo = PixelAlignment::kNoCost;

// second(y, x) = first(y + dy, x + dx): the strip at (x0, y0) of first sits at (x0 - dx, y0 - dy).
cv::Mat shifted(const cv::Mat& first, int dx, int dy, std::mt19937& rng) {
  cv::Mat out = randomLevels(first.rows, first.cols, rng);
  const cv::Size common(first.cols - std::abs(dx), first.rows - std::abs(dy));
  first(cv::Rect(cv::Point(std::max(dx, 0), std::max(dy, 0)), common))
      .copyTo(out(cv::Rect(cv::Point(std::max(-dx, 0), std::max(-dy, 0)), common)));
  return out;
}

In vInput(int cx, int cy, int px, int py, int h = 200, int rx = 16, int ry = 8) {
  return In{cx, cy, px, py, 8, h, rx, ry};
}
In hInput(int cx, int cy, int px, int py, int w = 400) { return In{cx, cy, px, py, w, 8, 8, 16}; }

::testing::AssertionResult same(const Res& a, const Res& b) {
  if (a.dx == b.dx && a.dy == b.dy && a.cost == b.cost) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << a.dx << "," << a.dy << "," << a.cost << " vs " << b.dx << "," << b.dy << "," << b.cost;
}

// The reference kernels' result; every vector strategy of every Highway target this CPU runs
// must give it byte for byte (shift and cost).
Res search(PixelAlignment& pa, const cv::Mat& a, const cv::Mat& b, const In& in,
           bool vertical = true) {
  auto run = [&](const zolt::SadKernels* k) {
    zolt::setSadKernelsForTesting(k);
    const Res r = vertical ? pa.searchUsingVstrip(a, b, in) : pa.searchUsingHstrip(a, b, in);
    zolt::setSadKernelsForTesting(nullptr);
    return r;
  };
  const Res ref = run(&zolt::referenceSadKernels());
  zolt::test::forEachTarget([&] {
    for (const zolt::SadKernels* k : {&zolt::vectorSadKernels(), &zolt::vectorSadKernelsRunsOf8(),
                                      &zolt::vectorSadKernelsColumns()})
      EXPECT_TRUE(same(run(k), ref)) << k->name;
  });
  return ref;
}

// Known shifts and ties, strips clipped along their length and rejected across it, and only
// whole groups of rows compared: each case against its expected shift and cost (and every
// vector strategy against the reference, in search()).
TEST(PixelAlignment, FindsShiftsClipsAndComparesWholeGroups) {
  std::mt19937 rng(1);
  const cv::Mat a = randomLevels(300, 500, rng), flat(300, 500, CV_8UC1, cv::Scalar(77));
  // Strip rows 100 .. 299 of column 28 .. 35: only the first 192 rows are compared, so damage in
  // the last 8 rows of the window costs nothing.
  cv::Mat tall = randomLevels(400, 64, rng), damaged = tall.clone();
  tall.rowRange(292, 300).setTo(cv::Scalar(255));
  damaged.rowRange(292, 300).setTo(cv::Scalar(0));
  const cv::Mat c = randomLevels(400, 64, rng), d = randomLevels(400, 64, rng);
  // The same sideways: a 400-wide strip at columns 100 .. 499 compares 6 x 64 = 384 of them.
  cv::Mat wide = randomLevels(64, 600, rng), wideDamaged = wide.clone();
  wide.colRange(484, 500).setTo(cv::Scalar(255));
  wideDamaged.colRange(484, 500).setTo(cv::Scalar(0));
  const std::pair<cv::Mat, cv::Mat> pairs[] = {
      {a, shifted(a, 5, -3, rng)}, {a, a}, {flat, flat}, {tall, damaged}, {c, d},
      {wide, wideDamaged}};
  // 137 rows left after clipping the bottom (window rows 263 .. 399): 128 are compared.
  const cv::Rect compared(28, 263, 8, 128);
  const int bottom = static_cast<int>(cv::norm(c(compared), d(compared), cv::NORM_L1));
  const struct {
    int pair;
    In in;
    Res want;
  } cases[] = {
      // vertical strips are 8 wide
      {0, vInput(250, 150, 2, 0), {5, -3, 0}},
      {0, hInput(250, 150, 0, 0), {5, -3, 0}},
      {1, vInput(250, 150, 0, 0), {0, 0, 0}},
      // Uniform images: every shift ties, the first one wins.
      {2, vInput(250, 150, 0, 0), {16, 8, 0}},
      {2, hInput(250, 150, 0, 0), {8, 16, 0}},
      // Window top at y0 - 8 = (cy - 100) - 8 = -5: the top 5 rows go, 195 -> 192 compared; the
      // same overhang sideways (window left at x0 - 16 = -5) rejects.
      {1, vInput(150, 103, 0, 0), {0, 0, 0}},
      {1, vInput(15, 120, 3, 1), {3, 1, kNo}},
      // Horizontal strips: clipped sideways, rejected when the window leaves the image vertically.
      {1, hInput(203, 50, 0, 0), {0, 0, 0}},
      {1, hInput(250, 15, 4, 2), {4, 2, kNo}},
      {3, vInput(32, 200, 0, 0, 200, 0, 0), {0, 0, 0}},
      {4, vInput(32, 263 + 100, 0, 0, 200, 0, 0), {0, 0, bottom}},
      // Fewer than 64 rows left: every shift costs 0 and the first shift wins; no vertical shift to
      // try.
      {4, vInput(32, 350 + 100, 1, 2, 200, 2, 3), {3, 5, 0}},
      {4, vInput(32, 200, 1, 2, 200, 2, -1), {3, 1, kNo}},
      {5, In{300, 32, 0, 0, 400, 8, 0, 0}, {0, 0, 0}}};
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    const auto& [first, second] = pairs[cases[i].pair];
    PixelAlignment pa(first.cols);
    EXPECT_TRUE(
        same(search(pa, first, second, cases[i].in, cases[i].in.stripW == 8), cases[i].want));
  }
}

// Every vector strategy gives the reference's shift and cost, on any input: clipping,
// rejection, ties (few grey levels) and early abandon included.
TEST(PixelAlignment, VectorKernelsMatchTheReference) {
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> u(-1000, 1000);
  int searched = 0;
  for (int t = 0; t < 1500; ++t) {
    SCOPED_TRACE(t);
    const int rows = 30 + (u(rng) + 1000) % 260, cols = 30 + (u(rng) + 1000) % 460;
    const int levels = t % 3 == 0 ? 2 : (t % 3 == 1 ? 16 : 256);
    const cv::Mat a = randomLevels(rows, cols, rng, levels),
                  b = t % 5 ? randomLevels(rows, cols, rng, levels) : a;
    const bool vertical = t % 2 == 0;
    const int rangeX =
        u(rng) / 60 - (t % 17 == 0 ? 20 : 0);  // every 17th mostly negative: no shift
    const In in{cols / 2 + u(rng) * cols / 2500,
                rows / 2 + u(rng) * rows / 2500,
                u(rng) / 100,
                u(rng) / 100,
                vertical ? (t % 11 == 0 ? 3 + t % 9 : 8) : cols / 2 + u(rng) * cols / 2000,
                vertical ? rows / 2 + u(rng) * rows / 2000 : (t % 11 == 0 ? 1 + t % 12 : 8),
                std::abs(rangeX) > 16 ? rangeX / 2 : rangeX,
                u(rng) / 60 - (t % 19 == 0 ? 20 : 0)};
    PixelAlignment pa(cols);
    pa.groupSize = (t % 7 == 0) ? 1 + t % 40 : (t % 13 == 0 ? 300 : 64);
    searched += search(pa, a, b, in, vertical).cost != kNo;
    if (HasFailure()) return;
  }
  EXPECT_GT(searched, 300);  // the cases are not all rejections
  // The tracker's own shapes: the 8 x 192 vertical strip and the 384 x 8 horizontal one at full
  // resolution, near and far from the borders.
  const cv::Mat a = randomLevels(720, 1280, rng, 32), b = shifted(a, 7, -4, rng);
  PixelAlignment pa(1280);
  for (const In& in :
       {vInput(640, 360, 0, 0, 448), vInput(640, 230, 6, -3, 448), vInput(640, 700, -9, 2, 448),
        hInput(640, 360, 0, 0, 768), hInput(100, 360, 1, 1, 768), hInput(1270, 360, 3, -6, 768)}) {
    SCOPED_TRACE(testing::Message() << in.centerX << "," << in.centerY);
    search(pa, a, b, in, in.stripW == 8);
  }
}

}  // namespace
