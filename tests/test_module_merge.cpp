// ModuleMerge: construction, placement of the first frame, the skip and canvas-full rules,
// the valid rectangle and the panorama output, log lines, and whole sweeps over a real photo.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "module_merge_fixtures.h"
#include "support/log_capture.h"

using zolt::test::Canvas;
using zolt::test::Frame;

TEST(ModuleMerge, ConstructionAndResolutionLevel) {
  const struct { int w, level; } cases[] = {
      {1612, 0}, {1613, 2}, {2419, 2}, {2420, 3}, {640, 0}, {1920, 2}, {4000, 3}};
  for (const auto& c : cases) {
    ModuleMerge m(c.w, 1080);
    EXPECT_EQ(m.resolutionLevel, c.level) << c.w;
  }
  ModuleMerge m(1281, 721);
  EXPECT_EQ(m.halfFrameWidth, 640);
  EXPECT_EQ(m.halfFrameHeight, 360);
  EXPECT_EQ(m.mergeState, 0);
  EXPECT_FALSE(m.panoInitialised);
  EXPECT_TRUE(m.seamCost.empty());
  EXPECT_TRUE(m.spareFlag3);
  EXPECT_FLOAT_EQ(m.texturelessDevFrame, 3.0f);
  EXPECT_FLOAT_EQ(m.texturelessDevPano, 5.0f);
  EXPECT_FLOAT_EQ(m.texturelessMinMean, 50.0f);
}

// First frame: placed at the canvas edge the sweep starts from, whole, Y and VU; nothing else
// of the canvas is touched; the seam cost matrix is sized across the sweep.
TEST(ModuleMerge, FirstFramePlacementAllDirections) {
  const int fw = 10, fh = 6;
  for (int d = 1; d <= 4; ++d) {
    SCOPED_TRACE(d);
    const bool horizontal = d <= 2;
    const int pw = horizontal ? 24 : fw, ph = horizontal ? fh : 16;
    Canvas canvas(pw, ph, 7, 9);
    ModuleMerge m(fw, fh);
    Frame f;
    zolt::test::fillFrame(
        f, fw, fh, [](int x, int y) { return static_cast<uint8_t>(100 + x + 20 * y); },
        [](int x, int y, int i) { return static_cast<uint8_t>(30 + x + 10 * y + i); });
    m.merging_AddImage(f, cv::Point_<double>(0, 0), static_cast<MoveDirection>(d), &canvas.rec);
    EXPECT_TRUE(m.panoInitialised);
    EXPECT_EQ(m.panoDirection, d);
    EXPECT_EQ(m.panoWidth, pw);
    EXPECT_EQ(m.panoHeight, ph);
    EXPECT_EQ(m.seamCost.rows, horizontal ? ph : pw);
    EXPECT_EQ(m.seamCost.cols, 33);
    EXPECT_EQ(m.seamCost.type(), CV_32FC1);
    EXPECT_EQ(cv::countNonZero(m.seamCost), 0);
    const int x0 = d == 2 ? pw - fw : 0;
    const int y0 = d == 4 ? ph - fh : 0;
    const int wantLast[] = {0, 5, pw - 5, 3, ph - 3};
    EXPECT_EQ(horizontal ? m.lastMergedX : m.lastMergedY, wantLast[d]);
    for (int y = 0; y < ph; ++y) {
      for (int x = 0; x < pw; ++x) {
        const bool in = x >= x0 && x < x0 + fw && y >= y0 && y < y0 + fh;
        ASSERT_EQ(canvas.y(x, y), in ? 100 + (x - x0) + 20 * (y - y0) : 7) << x << "," << y;
        const uint8_t* vu = canvas.vu(x, y);
        for (int i = 0; i < 2; ++i) {
          ASSERT_EQ(vu[i], in ? 30 + ((x - x0) & ~1) + 10 * ((y - y0) & ~1) + i : 9)
              << x << "," << y;
        }
      }
    }
  }
}

TEST(ModuleMerge, UnknownDirectionPlacesNothing) {
  Canvas canvas(24, 6, 7, 9);
  const std::vector<uint8_t> before = canvas.buf;
  ModuleMerge m(10, 6);
  zolt::test::placeFirst(m, canvas, MOVE_NONE, 200);
  EXPECT_EQ(canvas.buf, before);
  EXPECT_EQ(m.seamCost.rows, 24);  // any direction but 1, 2 counts across the width
  Frame f;
  zolt::test::randomFrame(f, 10, 6, 3);
  m.merging_AddImage(f, cv::Point_<double>(-4, 0), MOVE_NONE, &canvas.rec);
  EXPECT_EQ(canvas.buf, before);
  EXPECT_EQ(m.mergeState, 0);
  EXPECT_TRUE(m.getPano_BGR().empty());
  tsRECT rect{-1, -2, -3, -4};
  EXPECT_EQ(m.CropBlackRect_AddImage(&rect), 0);
  EXPECT_EQ(rect.left, -1);
  EXPECT_EQ(rect.bottom, -4);
}

TEST(ModuleMerge, OffsetsTruncateAndExtremesTrackEachAxis) {
  Canvas canvas(1200, 300);
  ModuleMerge m(400, 300);
  zolt::test::placeFirst(m, canvas, MOVE_RIGHT, 80);
  Frame f;
  zolt::test::randomFrame(f, 400, 300, 5);
  m.merging_AddImage(f, cv::Point_<double>(-3.9, 2.7), MOVE_RIGHT, &canvas.rec);
  EXPECT_EQ(m.offsetX, -3);
  EXPECT_EQ(m.offsetY, 2);
  EXPECT_EQ(m.minOffsetX, -3);
  EXPECT_EQ(m.maxOffsetY, 2);
  m.merging_AddImage(f, cv::Point_<double>(-40, -5), MOVE_RIGHT, &canvas.rec);
  EXPECT_EQ(m.lastMergedX, 240);
  m.merging_AddImage(f, cv::Point_<double>(10, 0), MOVE_RIGHT, &canvas.rec);
  EXPECT_EQ(m.maxOffsetX, 10);
  EXPECT_EQ(m.minOffsetX, -40);
  EXPECT_EQ(m.minOffsetY, -5);
  EXPECT_EQ(m.maxOffsetY, 2);
  EXPECT_EQ(m.lastMergedX, 240);  // the third frame lies behind: skipped
}

// For each direction: a frame reaching past the canvas edge sets state 6 and changes nothing;
// later frames that fit are merged (state stays 6); a frame at the last merged centre is merged
// again; a frame behind it is skipped.
TEST(ModuleMerge, SkipAndCanvasFullRulesAllDirections) {
  for (int d = 1; d <= 4; ++d) {
    SCOPED_TRACE(d);
    const bool horizontal = d <= 2;
    const int fw = horizontal ? 400 : 300, fh = horizontal ? 300 : 400;
    Canvas canvas(horizontal ? 1000 : 300, horizontal ? 300 : 1000);
    ModuleMerge m(fw, fh);
    const auto dir = static_cast<MoveDirection>(d);
    zolt::test::placeFirst(m, canvas, dir, 90);
    const int start = horizontal ? m.lastMergedX : m.lastMergedY;
    const int sign = (d == 1 || d == 3) ? 1 : -1;  // direction of progress on the canvas
    // Progress t along the sweep as the tracker's offset.
    auto offsetFor = [&](int t) {
      const double o = (d == 1 || d == 3) ? -t : t;
      return horizontal ? cv::Point_<double>(o, 0) : cv::Point_<double>(0, o);
    };
    auto last = [&] { return horizontal ? m.lastMergedX : m.lastMergedY; };
    Frame a, b;
    zolt::test::randomFrame(a, fw, fh, 11);
    zolt::test::randomFrame(b, fw, fh, 12);

    std::vector<uint8_t> snap = canvas.buf;
    m.merging_AddImage(a, offsetFor(600), dir, &canvas.rec);
    EXPECT_EQ(m.mergeState, 6);
    EXPECT_EQ(canvas.buf, snap);
    EXPECT_EQ(last(), start);

    m.merging_AddImage(a, offsetFor(300), dir, &canvas.rec);
    EXPECT_NE(canvas.buf, snap);
    EXPECT_EQ(last(), start + sign * 300);
    EXPECT_EQ(m.mergeState, 6);

    snap = canvas.buf;
    m.merging_AddImage(b, offsetFor(300), dir, &canvas.rec);  // same centre: merged again
    EXPECT_NE(canvas.buf, snap);

    snap = canvas.buf;
    m.merging_AddImage(a, offsetFor(299), dir, &canvas.rec);  // behind: skipped
    EXPECT_EQ(canvas.buf, snap);
    EXPECT_EQ(last(), start + sign * 300);

    m.merging_AddImage(a, offsetFor(599), dir, &canvas.rec);  // the last one that fits
    EXPECT_EQ(last(), start + sign * 599);
  }
}

// The valid rectangle of a rightward sweep, and the panorama cut to it.
TEST(ModuleMerge, ValidRectangleAndPanoramaRightward) {
  Canvas canvas(4000, 720);
  ModuleMerge m(1280, 720);
  zolt::test::placeFirst(m, canvas, MOVE_RIGHT);
  std::mt19937 rng(21);
  for (auto& byte : canvas.buf) byte = static_cast<uint8_t>(rng());
  m.lastMergedX = 2500;
  m.minOffsetY = -12;
  m.maxOffsetY = 7;
  tsRECT rect{};
  EXPECT_EQ(m.CropBlackRect_AddImage(&rect), 0);
  EXPECT_EQ(rect.left, 0);
  EXPECT_EQ(rect.top, 12);
  EXPECT_EQ(rect.right, 3140);
  EXPECT_EQ(rect.bottom, 713);
  const cv::Mat pano = m.getPano_BGR();
  ASSERT_EQ(pano.cols, 3140);
  ASSERT_EQ(pano.rows, 701);
  ASSERT_EQ(pano.type(), CV_8UC3);
  EXPECT_EQ(pano.data, m.panoBGR.ptr(12));  // a view, not a copy
  NV21Img whole;
  whole.nvCreate_shared_instance(&canvas.rec);
  const cv::Mat all = whole.nvCvt2BGR();
  EXPECT_EQ(cv::norm(pano, all(cv::Rect(0, 12, 3140, 701)), cv::NORM_INF), 0.0);
}

TEST(ModuleMerge, ValidRectangleOtherDirections) {
  struct Case {
    MoveDirection dir;
    int pw, ph, last, minX, maxX, minY, maxY;
    tsRECT want;
  };
  const Case cases[] = {
      // Leftward, the last centre closer than half a frame to the left edge: clamped to 0.
      {MOVE_LEFT, 900, 200, 150, 0, 0, -3, 4, {0, 3, 900, 196}},
      {MOVE_LEFT, 900, 200, 500, 0, 0, 0, 0, {340, 0, 900, 200}},
      {MOVE_DOWN, 200, 900, 500, -6, 2, 0, 0, {6, 0, 198, 740}},
      {MOVE_DOWN, 200, 900, 800, 0, 0, 0, 0, {0, 0, 200, 900}},
      {MOVE_UP, 200, 900, 300, -1, 5, 0, 0, {1, 60, 195, 900}},
      {MOVE_UP, 200, 900, 100, 0, 0, 0, 0, {0, 0, 200, 900}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dir);
    const bool horizontal = c.dir <= 2;
    Canvas canvas(c.pw, c.ph, 60, 140);
    ModuleMerge m(horizontal ? 320 : 200, horizontal ? 200 : 480);
    zolt::test::placeFirst(m, canvas, c.dir, 60);
    (horizontal ? m.lastMergedX : m.lastMergedY) = c.last;
    m.minOffsetX = c.minX;
    m.maxOffsetX = c.maxX;
    m.minOffsetY = c.minY;
    m.maxOffsetY = c.maxY;
    tsRECT r{};
    m.CropBlackRect_AddImage(&r);
    EXPECT_EQ(r.left, c.want.left);
    EXPECT_EQ(r.top, c.want.top);
    EXPECT_EQ(r.right, c.want.right);
    EXPECT_EQ(r.bottom, c.want.bottom);
    const cv::Mat pano = m.getPano_BGR();
    EXPECT_EQ(pano.cols, c.want.right - c.want.left);
    EXPECT_EQ(pano.rows, c.want.bottom - c.want.top);
  }
}

// Only the covered part of the canvas is converted: the rest of panoBGR keeps what it held.
TEST(ModuleMerge, PanoramaConvertsOnlyTheCoveredRegion) {
  Canvas canvas(900, 200, 255, 128);
  ModuleMerge m(320, 200);
  zolt::test::placeFirst(m, canvas, MOVE_LEFT, 255);
  m.panoImg.bgrMat.create(200, 900, CV_8UC3);
  m.panoImg.bgrMat.setTo(cv::Scalar(1, 2, 3));
  m.lastMergedX = 500;  // covered from column 340
  const cv::Mat pano = m.getPano_BGR();
  EXPECT_EQ(m.panoBGR.at<cv::Vec3b>(10, 339), cv::Vec3b(1, 2, 3));
  EXPECT_EQ(m.panoBGR.at<cv::Vec3b>(10, 340), cv::Vec3b(255, 255, 255));
  EXPECT_EQ(pano.cols, 560);
}

TEST(ModuleMerge, LogLines) {
  Canvas canvas(1000, 300);
  ModuleMerge m(400, 300);
  zolt::test::LogCapture logs;
  zolt::test::placeFirst(m, canvas, MOVE_RIGHT, 90);
  EXPECT_TRUE(logs.contains(ANDROID_LOG_WARN, "MERGER BEGIN"));
  Frame f;
  zolt::test::randomFrame(f, 400, 300, 2);
  logs.clear();
  m.merging_AddImage(f, cv::Point_<double>(-100, -4), MOVE_RIGHT, &canvas.rec);
  const auto lines = logs.lines();
  std::vector<std::string> seen;
  for (const auto& l : lines) {
    EXPECT_EQ(l.tag, "PanoEngine");
    seen.push_back(std::to_string(l.priority) + " " + l.message);
  }
  ASSERT_EQ(seen.size(), 5u);
  using zolt::test::maskNumber;
  EXPECT_EQ(seen[0], "5 MERGER BEGIN");
  EXPECT_EQ(maskNumber(seen[1], "timing =  "), "4 resizing timing =  T");
  EXPECT_EQ(maskNumber(seen[2], "timing =  "), "4 textureless region finding timing =  T");
  // 296 rows meet the frame (offset -4); level 0 only, as a 400-pixel frame is capped there.
  EXPECT_EQ(maskNumber(seen[3], "time =  "),
            "4 [merge_ToRight_linear_YUV_withSeam] full dynamic blending time =  T and N = 296  "
            "Blndstat: 296 0 0 0 0");
  EXPECT_EQ(maskNumber(seen[4], "time cost "), "5 MERGER END - time cost T");
  // Timings are whole milliseconds printed as doubles.
  EXPECT_NE(seen[4].find(".000000"), std::string::npos);
}

namespace {

// The Debian photo, reduced, as BGR: the scene every simulated sweep looks at.
const cv::Mat& scene() {
  static const cv::Mat s = [] {
    cv::Mat full = cv::imread("/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg", 1);
    cv::Mat small;
    if (!full.empty()) cv::resize(full, small, cv::Size(1400, 788), 0, 0, cv::INTER_AREA);
    return small;
  }();
  return s;
}

// The scene through the NV21 round trip, as a frame at (0, 0) would show it.
const cv::Mat& sceneThroughNv21() {
  static const cv::Mat s = [] {
    Frame f;
    f.nvCvt2NV21(scene());
    return f.nvCvt2BGR().clone();
  }();
  return s;
}

struct Sweep {
  MoveDirection dir;
  int fw, fh, pw, ph;
  std::vector<cv::Point> at;  // frame positions in the scene, the first one first
};

// Feeds crops of the scene as NV21 key frames with their true offsets; returns the panorama
// and, in `truth`, the same part of the scene through the NV21 conversion.
cv::Mat runSweep(const Sweep& s, cv::Mat& truth, ModuleMerge*& out) {
  Canvas canvas(s.pw, s.ph);
  auto* m = new ModuleMerge(s.fw, s.fh);
  for (const cv::Point& p : s.at) {
    Frame f;
    f.nvCvt2NV21(scene()(cv::Rect(p.x, p.y, s.fw, s.fh)).clone());
    m->merging_AddImage(f, cv::Point_<double>(s.at[0].x - p.x, s.at[0].y - p.y), s.dir,
                        &canvas.rec);
  }
  tsRECT r{};
  m->CropBlackRect_AddImage(&r);
  // Canvas (0, 0) shows the scene at the first frame's position, less the first frame's place.
  const int ox = s.at[0].x - (s.dir == MOVE_LEFT ? s.pw - s.fw : 0);
  const int oy = s.at[0].y - (s.dir == MOVE_UP ? s.ph - s.fh : 0);
  const cv::Rect valid(r.left, r.top, r.right - r.left, r.bottom - r.top);
  truth = sceneThroughNv21()(valid + cv::Point(ox, oy)).clone();
  cv::Mat pano = m->getPano_BGR().clone();
  out = m;
  return pano;
}

}  // namespace

// Shifted crops of a real photo, with a hand's drift across the sweep and odd steps: the
// panorama shows the photo. Seams fall where frames agree and identical pixels blend to
// themselves, so only the chroma of odd-offset frames (2x2 blocks aligned differently) differs.
TEST(ModuleMerge, RealPhotoSweepsAllDirections) {
  if (scene().empty()) GTEST_SKIP() << "photo not installed (scripts/setup.sh)";
  const std::vector<Sweep> sweeps = {
      {MOVE_RIGHT, 480, 320, 1300, 320,
       {{20, 200}, {157, 203}, {310, 198}, {471, 201}, {600, 196}, {695, 199}, {800, 204}}},
      {MOVE_LEFT, 480, 320, 1300, 320,
       {{880, 200}, {741, 197}, {602, 203}, {455, 199}, {310, 205}, {171, 201}, {101, 198}}},
      {MOVE_DOWN, 480, 320, 480, 760, {{300, 10}, {303, 121}, {298, 243}, {301, 336}, {305, 420}}},
      {MOVE_UP, 480, 320, 480, 760, {{300, 460}, {296, 349}, {302, 231}, {299, 117}, {303, 50}}},
  };
  for (const Sweep& s : sweeps) {
    SCOPED_TRACE(s.dir);
    cv::Mat truth;
    ModuleMerge* m = nullptr;
    const cv::Mat pano = runSweep(s, truth, m);
    const bool horizontal = s.dir <= 2;
    // The whole sweep is kept, from the first frame's far edge to the last one's leading edge.
    const cv::Point span = s.at.back() - s.at.front();
    EXPECT_EQ(horizontal ? pano.cols : pano.rows,
              horizontal ? std::abs(span.x) + s.fw : std::abs(span.y) + s.fh);
    EXPECT_EQ(m->mergeState, 0);
    const double p = cv::PSNR(pano, truth);
    // 44 to 48 dB here; every frame placed one column off gives 29 to 31.
    EXPECT_GT(p, 42.0);
    delete m;
  }
}

// With even steps and no drift every 2x2 chroma block lines up: the canvas is the photo, bit
// for bit.
TEST(ModuleMerge, RealPhotoEvenStepsAreExact) {
  if (scene().empty()) GTEST_SKIP() << "photo not installed (scripts/setup.sh)";
  const Sweep s{MOVE_RIGHT, 480, 320, 1300, 320, {{20, 200}, {162, 200}, {330, 200}, {560, 200}}};
  cv::Mat truth;
  ModuleMerge* m = nullptr;
  const cv::Mat pano = runSweep(s, truth, m);
  EXPECT_EQ(cv::norm(pano, truth, cv::NORM_INF), 0.0);
  delete m;
}
