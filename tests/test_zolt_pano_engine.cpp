// The engine through its C interface, as a camera app drives it: Initial; per frame
// SelectFrames then AddImage into a canvas the app owns; SaveImage; Release.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <set>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_simulator.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "support/sim_sweep.h"
#include "support/sensor_helpers.h"
#include "zolt_pano.h"

namespace {

tag_ZOLT_PANO_INIT_PARAM initParam(int w, int h) {
  tag_ZOLT_PANO_INIT_PARAM p = zolt::test::previewParam();
  p.previewWidth = w;
  p.previewHeight = h;
  return p;
}

// Where `probe` fits best inside `area`.
cv::Point bestMatch(const cv::Mat& area, const cv::Mat& probe) {
  cv::Mat score;
  cv::matchTemplate(area, probe, score, cv::TM_SQDIFF);
  cv::Point best;
  cv::minMaxLoc(score, nullptr, nullptr, &best);
  return best;
}

// Mean PSNR of 128-pixel tiles of `pano`, each matched on its own near its place in `truth`.
// The panorama starts where the first key frame was, somewhere inside the truth; and the
// tracker accumulates whole-pixel offsets, so the panorama may drift from the truth by a few
// pixels over a sweep. Tiles measure the merge itself: seams and blending.
double tilePsnr(const cv::Mat& pano, const cv::Mat& truth) {
  const int tile = 128, margin = 16;
  const int h = std::min(pano.rows, truth.rows) - 2 * margin;
  const cv::Point origin = bestMatch(truth, pano(cv::Rect(margin, margin, 2 * tile, h)));
  double sum = 0;
  int n = 0;
  for (int x = margin; x + tile + margin <= pano.cols; x += tile) {
    cv::Mat probe = pano(cv::Rect(x, margin, tile, h));
    const cv::Rect window = cv::Rect(origin.x + x - 2 * margin, origin.y - margin,
                                     tile + 2 * margin, h + 2 * margin) &
                            cv::Rect(0, 0, truth.cols, truth.rows);
    if (window.width < probe.cols || window.height < probe.rows) break;
    const cv::Point at = bestMatch(truth(window), probe);
    sum += cv::PSNR(probe, truth(window)(cv::Rect(at.x, at.y, probe.cols, probe.rows)));
    ++n;
  }
  return n > 0 ? sum / n : 0.0;
}

}  // namespace

// Previews just above the tracker's 640-pixel limit, either way round, start without a
// gyroscope and log the camera's mounting and the version (test_call_guard: the refusals).
TEST(ZoltPanoEngine, InitialRefusesSmallPreviewsAndNeedsNoGyroscope) {
  zolt::test::LogCapture log;
  for (const auto& size : {std::array<int, 2>{641, 641}, {1280, 720}, {720, 1280}}) {
    tag_ZOLT_PANO_INIT_PARAM p = initParam(size[0], size[1]);
    void* handle = nullptr;
    ASSERT_EQ(ZOLT_PANO_Initial(&p, &handle), SUCCESS) << size[0] << "x" << size[1];
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(log.contains("SensorInterface : Cam orientation = 90 "));
    EXPECT_TRUE(log.contains("ZOLT Panorama Lib Version: ZOLT_PANO_v3.7 "));
    EXPECT_EQ(ZOLT_PANO_Release(&handle), 0);
    log.clear();
  }
}

// A short steady sweep through the C interface into a canvas three frames long: no ERR_ code,
// the direction decided, key frames merged, and the saved JPEG (the name as it stands plus
// ".jpg") shows the scene.
TEST(ZoltPanoEngine, SteadySweepBuildsThePanoramaOfTheScene) {
  zolt::sim::SweepSimulator sim(zolt::test::simSweep(
      "steady", "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg", 40));
  const int w = sim.width(), h = sim.height();
  zolt::test::Nv21Buffer canvas(3 * w, h, 0, 0);
  zolt::test::LogCapture log;
  tag_ZOLT_PANO_INIT_PARAM p = initParam(w, h);
  void* handle = nullptr;
  ASSERT_EQ(ZOLT_PANO_Initial(&p, &handle), SUCCESS);
  std::set<int> codes;
  std::vector<int> directions;
  int keyFrames = 0, progress = -1;
  tsRECT valid{};
  for (zolt::sim::SimFrame f; sim.next(f);) {
    __tag_ZOLT_OFFSCREEN frame{0, w, h, f.nv21.data(), f.nv21.data() + static_cast<size_t>(w) * h};
    tsPOINT offset{};
    long key = -1;
    int dir = -1, length = -1;
    codes.insert(ZOLT_PANO_SelectFrames(handle, nullptr, nullptr, &frame, nullptr, &offset, &key,
                                        nullptr, &dir, &length));
    directions.push_back(dir);
    keyFrames += key == 1;
    ZOLT_PANO_AddImage(handle, nullptr, nullptr, nullptr, nullptr, &canvas.rec, &valid, nullptr,
                       &progress);
  }
  const std::string out = testing::TempDir() + "zolt_engine_steady.jpg";
  std::remove((out + ".jpg").c_str());
  ZOLT_PANO_SaveImage(handle, out);
  EXPECT_EQ(ZOLT_PANO_Release(&handle), 0);

  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Sensor is not initialised"));
  for (int code : codes) EXPECT_LT(code, 0x7000) << std::hex << code;  // no ERR_ code
  EXPECT_EQ(directions.front(), MOVE_NONE);
  EXPECT_EQ(directions.back(), MOVE_RIGHT);
  EXPECT_GE(keyFrames, 2);
  EXPECT_GT(progress, 0);
  EXPECT_EQ(valid.left, 0);
  EXPECT_GT(valid.right, 1280);
  cv::Mat pano = cv::imread(out + ".jpg");  // pano.jpg becomes pano.jpg.jpg
  ASSERT_FALSE(pano.empty());
  EXPECT_EQ(cv::Size(pano.cols, pano.rows),
            cv::Size(valid.right - valid.left, valid.bottom - valid.top));
  const double psnr = tilePsnr(pano, sim.truthPanorama());
  RecordProperty("psnr", std::to_string(psnr));
  EXPECT_GE(psnr, 33.0);  // 36 dB measured; a frame one column off gives far less
}
