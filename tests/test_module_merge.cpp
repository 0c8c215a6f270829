// ModuleMerge: construction, placement of the first frame, the skip and canvas-full rules,
// the valid rectangle and the panorama output, log lines, and whole sweeps over a real photo.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "module_merge_fixtures.h"
#include "support/log_capture.h"
#include "zolt_pano_ext.h"

using namespace zolt::test;

TEST(ModuleMerge, ResolutionLevelFromTheFrameWidth) {
  const struct {
    int w, level;
  } cases[] = {{640, 0}, {1612, 0}, {1613, 2}, {1920, 2}, {2419, 2}, {2420, 3}, {4000, 3}};
  for (const auto& c : cases) EXPECT_EQ(ModuleMerge(c.w, 1080).resolutionLevel, c.level) << c.w;
}

// First frame: placed at the canvas edge the sweep starts from, whole, Y and VU; nothing else
// of the canvas is touched; the seam cost matrix is sized across the sweep. An unknown
// direction (0) places nothing, merges nothing later and has no panorama or valid rectangle.
TEST(ModuleMerge, FirstFramePlacementAllDirections) {
  const int fw = 10, fh = 6;
  for (int d = 0; d <= 4; ++d) {
    SCOPED_TRACE(d);
    const bool horizontal = ZOLT_PANO_IsHorizontalSweep(d);
    const int pw = horizontal ? 24 : fw, ph = horizontal ? fh : 16;
    Canvas canvas(pw, ph, 7, 9);
    ModuleMerge m(fw, fh);
    Frame f;
    fillFrame(
        f, fw, fh, [](int x, int y) { return static_cast<uint8_t>(100 + x + 20 * y); },
        [](int x, int y, int i) { return static_cast<uint8_t>(30 + x + 10 * y + i); });
    const auto dir = static_cast<MoveDirection>(d);
    m.merging_AddImage(f, cv::Point_<double>(0, 0), dir, &canvas.rec);
    EXPECT_TRUE(m.panoInitialised && m.panoDirection == d);
    EXPECT_EQ(cv::Size(m.panoWidth, m.panoHeight), cv::Size(pw, ph));
    // Lines across the sweep; any direction but 1, 2 counts across the width.
    EXPECT_EQ(m.seamCost.size(), cv::Size(33, d == 1 || d == 2 ? ph : pw));
    EXPECT_EQ(cv::countNonZero(m.seamCost), 0);
    const int x0 = d == 2 ? pw - fw : 0, y0 = d == 4 ? ph - fh : 0;
    const int wantLast[] = {0, 5, pw - 5, 3, ph - 3};
    EXPECT_EQ(horizontal ? m.lastMergedX : m.lastMergedY, wantLast[d]);
    for (int y = 0; y < ph; ++y)
      for (int x = 0; x < pw; ++x) {
        const bool in = d > 0 && x >= x0 && x < x0 + fw && y >= y0 && y < y0 + fh;
        ASSERT_EQ(canvas.y(x, y), in ? 100 + (x - x0) + 20 * (y - y0) : 7) << x << "," << y;
        for (int i = 0; i < 2; ++i)
          ASSERT_EQ(canvas.vu(x, y)[i], in ? 30 + ((x - x0) & ~1) + 10 * ((y - y0) & ~1) + i : 9)
              << x << "," << y;
      }
    if (d == 0) {
      const std::vector<uint8_t> before = canvas.buf;
      m.merging_AddImage(f, cv::Point_<double>(-4, 0), dir, &canvas.rec);
      EXPECT_TRUE(canvas.buf == before && m.mergeState == 0 && m.getPano_BGR().empty());
      tsRECT rect{-1, -2, -3, -4};
      EXPECT_EQ(m.CropBlackRect_AddImage(&rect), 0);
      EXPECT_EQ(corners(rect), (std::array<int, 4>{-1, -2, -3, -4}));
    }
  }
}

// For each direction: offsets truncate toward zero and their extremes are kept on both axes; a
// frame reaching past the canvas edge sets state 6 and changes nothing; later frames that fit
// are merged (state stays 6); a frame at the last merged centre is merged again; a frame behind
// it is skipped.
TEST(ModuleMerge, OffsetsSkipAndCanvasFullRulesAllDirections) {
  for (int d = 1; d <= 4; ++d) {
    SCOPED_TRACE(d);
    const auto dir = static_cast<MoveDirection>(d);
    Placed s(dir, 400, 1000, 300, 90);
    const int start = s.horizontal ? s.m.lastMergedX : s.m.lastMergedY;
    const int sign = (d == 1 || d == 3) ? 1 : -1;  // direction of progress on the canvas
    // Progress t along the sweep (plus a fraction) and a drift across it as the tracker's offset.
    auto merge = [&](NV21Img& f, int t, double across) {
      const double o = -sign * (t + 0.9);
      s.m.merging_AddImage(
          f, s.horizontal ? cv::Point_<double>(o, across) : cv::Point_<double>(across, o), dir,
          &s.canvas.rec);
    };
    auto last = [&] { return s.horizontal ? s.m.lastMergedX : s.m.lastMergedY; };
    Frame a, b;
    randomFrame(a, s.fw, s.fh, 11);
    randomFrame(b, s.fw, s.fh, 12);
    std::vector<uint8_t> snap = s.canvas.buf;
    merge(a, 600, 2.7);
    EXPECT_EQ(s.horizontal ? s.m.offsetY : s.m.offsetX, 2);
    EXPECT_TRUE(s.m.mergeState == 6 && s.canvas.buf == snap && last() == start);

    merge(a, 300, -3.9);
    EXPECT_EQ(s.horizontal ? s.m.offsetX : s.m.offsetY, -sign * 300);
    EXPECT_TRUE(s.canvas.buf != snap && s.m.mergeState == 6);
    EXPECT_EQ(last(), start + sign * 300);

    snap = s.canvas.buf;
    merge(b, 300, -5);  // same centre: merged again
    EXPECT_NE(s.canvas.buf, snap);

    snap = s.canvas.buf;
    merge(a, 299, 1);  // behind: skipped
    EXPECT_TRUE(s.canvas.buf == snap && last() == start + sign * 300);

    merge(a, 599, 0);  // the last one that fits
    EXPECT_EQ(last(), start + sign * 599);
    const cv::Point along = sign > 0 ? cv::Point(-600, 0) : cv::Point(0, 600);  // min, max
    const cv::Point across(-5, 2);
    EXPECT_EQ(cv::Point(s.m.minOffsetX, s.m.maxOffsetX), s.horizontal ? along : across);
    EXPECT_EQ(cv::Point(s.m.minOffsetY, s.m.maxOffsetY), s.horizontal ? across : along);
  }
}

// The valid rectangle ends at the far edge of the last merged frame (clamped to the canvas) and
// loses the hand's largest drift on each side across the sweep. The panorama is a view on
// panoBGR cut to it, and only the part along the sweep that frames reached is converted: the
// rest of panoBGR keeps what it held.
TEST(ModuleMerge, ValidRectangleAndPanoramaAllDirections) {
  struct Case {
    MoveDirection dir;
    int last, minX, maxX, minY, maxY;
    std::array<int, 4> want;
  };
  const Case cases[] = {
      {MOVE_RIGHT, 500, 0, 0, -12, 7, {0, 12, 660, 193}},
      {MOVE_RIGHT, 800, 0, 0, 0, 0, {0, 0, 900, 200}},
      // Leftward, the last centre closer than half a frame to the left edge: clamped to 0.
      {MOVE_LEFT, 150, 0, 0, -3, 4, {0, 3, 900, 196}},
      {MOVE_LEFT, 500, 0, 0, 0, 0, {340, 0, 900, 200}},
      {MOVE_DOWN, 500, -6, 2, 0, 0, {6, 0, 198, 740}},
      {MOVE_DOWN, 800, 0, 0, 0, 0, {0, 0, 200, 900}},
      {MOVE_UP, 300, -1, 5, 0, 0, {1, 60, 195, 900}},
      {MOVE_UP, 100, 0, 0, 0, 0, {0, 0, 200, 900}},
  };
  std::mt19937 rng(21);
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.dir << " " << c.last);
    Placed s(c.dir, c.dir <= 2 ? 320 : 480, 900, 200, 60);
    fillBytes(s.canvas.buf, rng);
    (s.horizontal ? s.m.lastMergedX : s.m.lastMergedY) = c.last;
    std::tie(s.m.minOffsetX, s.m.maxOffsetX, s.m.minOffsetY, s.m.maxOffsetY) =
        std::tie(c.minX, c.maxX, c.minY, c.maxY);
    tsRECT r{};
    EXPECT_EQ(s.m.CropBlackRect_AddImage(&r), 0);
    EXPECT_EQ(corners(r), c.want);
    const cv::Scalar old(1, 2, 3);
    s.m.panoImg.bgrMat.create(s.canvas.h(), s.canvas.w(), CV_8UC3);
    s.m.panoImg.bgrMat.setTo(old);
    const cv::Mat pano = s.m.getPano_BGR();
    ASSERT_EQ(pano.size(), cv::Size(c.want[2] - c.want[0], c.want[3] - c.want[1]));
    EXPECT_EQ(pano.data, s.m.panoBGR.ptr(c.want[1], c.want[0]));  // a view, not a copy
    NV21Img whole;
    whole.nvCreate_shared_instance(&s.canvas.rec);
    cv::Mat want(s.canvas.h(), s.canvas.w(), CV_8UC3, old);
    const cv::Rect along = s.horizontal ? cv::Rect(c.want[0], 0, pano.cols, s.canvas.h())
                                        : cv::Rect(0, c.want[1], s.canvas.w(), pano.rows);
    whole.nvCvt2BGR()(along).copyTo(want(along));
    EXPECT_EQ(cv::norm(s.m.panoBGR, want, cv::NORM_INF), 0.0);
  }
}

TEST(ModuleMerge, LogLines) {
  Canvas canvas(1000, 300);
  ModuleMerge m(400, 300);
  placeFirst(m, canvas, MOVE_RIGHT, 90);
  Frame f;
  randomFrame(f, 400, 300, 2);
  LogCapture logs;
  m.merging_AddImage(f, cv::Point_<double>(-100, -4), MOVE_RIGHT, &canvas.rec);
  std::vector<std::string> seen;
  for (const auto& l : logs.lines())
    seen.push_back(l.tag + " " + std::to_string(l.priority) + " " + l.message);
  ASSERT_EQ(seen.size(), 5u);
  EXPECT_EQ(seen[0], "PanoEngine 5 MERGER BEGIN");
  EXPECT_EQ(maskNumber(seen[1], "timing =  "), "PanoEngine 4 resizing timing =  T");
  EXPECT_EQ(maskNumber(seen[2], "timing =  "),
            "PanoEngine 4 textureless region finding timing =  T");
  // 296 rows meet the frame (offset -4); level 0 only, as a 400-pixel frame is capped there.
  EXPECT_EQ(
      maskNumber(seen[3], "time =  "),
      "PanoEngine 4 [merge_ToRight_linear_YUV_withSeam] full dynamic blending time =  T and N = "
      "296  Blndstat: 296 0 0 0 0");
  EXPECT_EQ(maskNumber(seen[4], "time cost "), "PanoEngine 5 MERGER END - time cost T");
  EXPECT_NE(seen[4].find(".000000"), std::string::npos);  // whole milliseconds as a double
}

// Crops of a real photo (reduced to 1400 x 788) fed as 480 x 320 NV21 key frames with their true
// offsets, with a hand's drift across the sweep and odd steps: the panorama shows the photo (as
// it looks through the NV21 round trip). Seams fall where frames agree and identical pixels
// blend to themselves, so only the chroma of odd-offset frames (2x2 blocks aligned differently)
// differs; with even steps and no drift the panorama is the photo bit for bit.
TEST(ModuleMerge, RealPhotoSweepsAllDirections) {
  const cv::Mat photo = cv::imread("/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg", 1);
  if (photo.empty()) GTEST_SKIP() << "photo not installed (scripts/setup.sh)";
  cv::Mat scene;
  cv::resize(photo, scene, cv::Size(1400, 788), 0, 0, cv::INTER_AREA);
  Frame whole;
  whole.nvCvt2NV21(scene);
  const cv::Mat sceneNv21 = whole.nvCvt2BGR();
  const struct {
    MoveDirection dir;
    bool exact;                 // even steps, no drift: every 2x2 chroma block lines up
    std::vector<cv::Point> at;  // frame positions in the scene, the first one first
  } sweeps[] = {
      {MOVE_RIGHT,
       false,
       {{20, 200}, {157, 203}, {310, 198}, {471, 201}, {600, 196}, {695, 199}, {800, 204}}},
      {MOVE_LEFT,
       false,
       {{880, 200}, {741, 197}, {602, 203}, {455, 199}, {310, 205}, {171, 201}, {101, 198}}},
      {MOVE_DOWN, false, {{300, 10}, {303, 121}, {298, 243}, {301, 336}, {305, 420}}},
      {MOVE_UP, false, {{300, 460}, {296, 349}, {302, 231}, {299, 117}, {303, 50}}},
      {MOVE_RIGHT, true, {{20, 200}, {162, 200}, {330, 200}, {560, 200}}},
  };
  const int fw = 480, fh = 320;
  for (const auto& s : sweeps) {
    SCOPED_TRACE(testing::Message() << s.dir << (s.exact ? " even" : ""));
    const bool horizontal = ZOLT_PANO_IsHorizontalSweep(s.dir);
    Canvas canvas(horizontal ? 1300 : fw, horizontal ? fh : 760);
    ModuleMerge m(fw, fh);
    for (const cv::Point& p : s.at) {
      Frame f;
      f.nvCvt2NV21(scene(cv::Rect(p.x, p.y, fw, fh)).clone());
      m.merging_AddImage(f, cv::Point_<double>(s.at[0] - p), s.dir, &canvas.rec);
    }
    EXPECT_EQ(m.mergeState, 0);
    tsRECT r{};
    m.CropBlackRect_AddImage(&r);
    // Canvas (0, 0) shows the scene at the first frame's position, less the first frame's place.
    const cv::Point origin = s.at[0] - cv::Point(s.dir == MOVE_LEFT ? canvas.w() - fw : 0,
                                                 s.dir == MOVE_UP ? canvas.h() - fh : 0);
    const cv::Rect valid(r.left, r.top, r.right - r.left, r.bottom - r.top);
    const cv::Mat pano = m.getPano_BGR(), truth = sceneNv21(valid + origin);
    // The whole sweep is kept, from the first frame's far edge to the last one's leading edge.
    const cv::Point span = s.at.back() - s.at.front();
    if (horizontal)
      EXPECT_EQ(pano.cols, std::abs(span.x) + fw);
    else
      EXPECT_EQ(pano.rows, std::abs(span.y) + fh);
    if (s.exact)
      EXPECT_EQ(cv::norm(pano, truth, cv::NORM_INF), 0.0);
    else
      EXPECT_GT(cv::PSNR(pano, truth), 42.0);  // 44 to 48 dB; a column off gives 29 to 31
  }
}
