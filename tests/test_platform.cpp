// The platform layer: system properties and the tuned OpenCV entry points.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "platform/cv_tuned.h"
#include "platform/system_property.h"
#include "tracker/module_track.h"
#include "support/textures.h"

namespace {

// Grey noise blurred to a texture of a few pixels.
cv::Mat greyTexture(uint64_t seed) {
  cv::Mat m = zolt::test::noise({120, 90}, CV_8UC1, seed, 0, 255);
  cv::GaussianBlur(m, m, cv::Size(5, 5), 2);
  return m;
}

}  // namespace

TEST(Platform, SystemPropertiesComeFromTheTableThenTheEnvironment) {
  EXPECT_EQ(zolt::systemProperty("ro.zolt.test.unset"), "");
  ::setenv("ZOLTPANO_PROP_ro_zolt_test_env", "tvm8996", 1);
  EXPECT_EQ(zolt::systemProperty("ro.zolt.test.env"), "tvm8996");
  zolt::setSystemProperty("ro.zolt.test.env", "kelvar");
  char value[ZOLT_PROP_VALUE_MAX];
  EXPECT_EQ(__system_property_get("ro.zolt.test.env", value), 6);
  EXPECT_STREQ(value, "kelvar");
  zolt::setSystemProperty("ro.zolt.test.env", "");  // set empty hides the environment
  EXPECT_EQ(__system_property_get("ro.zolt.test.env", value), 0);
  EXPECT_STREQ(value, "");
  // Values longer than a property holds are cut to fit with the terminator.
  zolt::setSystemProperty("ro.zolt.test.long", std::string(200, 'x'));
  EXPECT_EQ(__system_property_get("ro.zolt.test.long", value), ZOLT_PROP_VALUE_MAX - 1);
}

// The entry points do what the tracker asks of them, whichever variant serves them. Resize: the
// tracker's nearest-neighbour downscale by a factor (dsize 0) takes source pixel floor(x / f) on
// each axis, the two factors apart. Flow: a texture shifted by (2, 1) is followed to within a
// twentieth of a pixel, each point found.
TEST(Platform, TunedVariantsResizeAndFollowAsTheTrackerAsks) {
  // Each pixel holds its own column (or row), so the output names the pixel it took.
  cv::Mat cols(120, 250, CV_8UC1), rows(250, 120, CV_8UC1), a, b;
  for (int r = 0; r < cols.rows; ++r)
    for (int c = 0; c < cols.cols; ++c) cols.at<uchar>(r, c) = static_cast<uchar>(c);
  cv::transpose(cols, rows);
  zolt::tunedResize(cols, a, cv::Size(), 0.5, 0.25, cv::INTER_NEAREST);
  zolt::tunedResize(rows, b, cv::Size(), 0.25, 0.5, cv::INTER_NEAREST);
  ASSERT_EQ(a.size(), cv::Size(125, 30));
  ASSERT_EQ(b.size(), cv::Size(30, 125));
  for (int r = 0; r < a.rows; ++r) {
    for (int c = 0; c < a.cols; ++c) {
      ASSERT_EQ(a.at<uchar>(r, c), 2 * c) << r << "," << c;
      ASSERT_EQ(b.at<uchar>(c, r), 2 * c) << c << "," << r;
    }
  }

  const cv::Mat src = greyTexture(1);
  cv::Mat shifted;
  cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, 2, 0, 1, 1);
  cv::warpAffine(src, shifted, m, src.size());
  const std::vector<cv::Point2f> pts{{40, 40}, {60, 50}, {80, 45}};
  std::vector<cv::Point2f> next;
  std::vector<uchar> status;
  std::vector<float> err;
  using Flow = ModuleTrack::OpticalFlow;
  zolt::tunedCalcOpticalFlowPyrLK(src, shifted, pts, next, status, err,
                                  cv::Size(Flow::kWindow, Flow::kWindow), Flow::kLevels,
                                  Flow::criteria(), 0, Flow::kMinEigen);
  ASSERT_EQ(next.size(), pts.size());
  for (size_t i = 0; i < pts.size(); ++i) {
    EXPECT_EQ(status[i], 1) << i;
    EXPECT_NEAR(next[i].x - pts[i].x, 2.0, 0.05) << i;
    EXPECT_NEAR(next[i].y - pts[i].y, 1.0, 0.05) << i;
  }
}

// The tracker drops points whose window is too flat to follow: the smallest eigenvalue of its
// gradient matrix below ModuleTrack::OpticalFlow::kMinEigen (0.001, ten times OpenCV's default).
// A faint copy of a texture lies between the two (its eigenvalues measured first): at the
// tracker's own flow settings its points are lost, at OpenCV's default threshold they are kept;
// the texture itself is kept at both.
TEST(Platform, OpticalFlowDropsPointsBelowTheTrackersMinimumEigenvalue) {
  const cv::Mat texture = greyTexture(2);
  cv::Mat faint;
  texture.convertTo(faint, CV_8U, 0.09, 128 * 0.91);  // contrast down to 9 %
  std::vector<cv::Point2f> pts;
  for (int y = 30; y <= 60; y += 15)
    for (int x = 30; x <= 90; x += 20) pts.emplace_back(x, y);
  using Flow = ModuleTrack::OpticalFlow;
  std::vector<float> eig;
  auto track = [&](const cv::Mat& img, int flags, double minEig) {
    std::vector<cv::Point2f> next;
    std::vector<uchar> status;
    zolt::tunedCalcOpticalFlowPyrLK(img, img, pts, next, status, eig,
                                    cv::Size(Flow::kWindow, Flow::kWindow), Flow::kLevels,
                                    Flow::criteria(), flags, minEig);
    return status;
  };
  track(faint, cv::OPTFLOW_LK_GET_MIN_EIGENVALS, 0);
  for (float e : eig) ASSERT_TRUE(e > 1.5e-4 && e < Flow::kMinEigen / 1.5) << e;  // 2.9e-4..3.6e-4
  track(texture, cv::OPTFLOW_LK_GET_MIN_EIGENVALS, 0);
  for (float e : eig) ASSERT_GT(e, 1e-2);

  const std::vector<uchar> lost(pts.size(), 0), kept(pts.size(), 1);
  EXPECT_EQ(track(faint, 0, Flow::kMinEigen), lost);
  EXPECT_EQ(track(faint, 0, 1e-4), kept);  // OpenCV's default
  EXPECT_EQ(track(texture, 0, Flow::kMinEigen), kept);
}
