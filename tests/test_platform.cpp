// The platform layer: system properties and the tuned OpenCV entry points.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "platform/cv_tuned.h"
#include "platform/system_property.h"
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

// Without the vendor variants the entry points are exactly the standard functions.
TEST(Platform, TunedVariantsFallBackToTheStandardFunctions) {
  if (zolt::hasTunedResize() || zolt::hasTunedOpticalFlow()) GTEST_SKIP() << "vendor OpenCV";
  cv::Mat src = greyTexture(1), a, b;
  zolt::tunedResize(src, a, cv::Size(40, 30), 0, 0, cv::INTER_NEAREST);
  cv::resize(src, b, cv::Size(40, 30), 0, 0, cv::INTER_NEAREST);
  EXPECT_EQ(cv::norm(a, b, cv::NORM_INF), 0);

  cv::Mat shifted;
  cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, 2, 0, 1, 1);
  cv::warpAffine(src, shifted, m, src.size());
  std::vector<cv::Point2f> pts{{40, 40}, {60, 50}, {80, 45}}, p1, p2;
  std::vector<uchar> s1, s2;
  std::vector<float> e1, e2;
  const cv::TermCriteria tc(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01);
  zolt::tunedCalcOpticalFlowPyrLK(src, shifted, pts, p1, s1, e1, cv::Size(21, 21), 2, tc, 0, 1e-4);
  cv::calcOpticalFlowPyrLK(src, shifted, pts, p2, s2, e2, cv::Size(21, 21), 2, tc, 0, 1e-4);
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(s1, s2);
}

// The tracker drops points whose window is too flat to follow: the smallest eigenvalue of its
// gradient matrix below 0.001, ten times OpenCV's default. A faint copy of a texture lies between
// the two (its eigenvalues measured first): at the tracker's settings (31 x 31 window, three
// levels, 20 iterations or 0.03 px) its points are lost, at the default they are kept; the
// texture itself is kept at both.
TEST(Platform, OpticalFlowDropsPointsBelowTheTrackersMinimumEigenvalue) {
  const cv::Mat texture = greyTexture(2);
  cv::Mat faint;
  texture.convertTo(faint, CV_8U, 0.09, 128 * 0.91);  // contrast down to 9 %
  std::vector<cv::Point2f> pts;
  for (int y = 30; y <= 60; y += 15)
    for (int x = 30; x <= 90; x += 20) pts.emplace_back(x, y);
  const cv::TermCriteria criteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 20, 0.03);
  std::vector<float> eig;
  auto track = [&](const cv::Mat& img, int flags, double minEig) {
    std::vector<cv::Point2f> next;
    std::vector<uchar> status;
    zolt::tunedCalcOpticalFlowPyrLK(img, img, pts, next, status, eig, cv::Size(31, 31), 3, criteria,
                                    flags, minEig);
    return status;
  };
  track(faint, cv::OPTFLOW_LK_GET_MIN_EIGENVALS, 0);
  for (float e : eig) ASSERT_TRUE(e > 1.5e-4 && e < 1e-3 / 1.5) << e;  // 2.9e-4..3.6e-4 measured
  track(texture, cv::OPTFLOW_LK_GET_MIN_EIGENVALS, 0);
  for (float e : eig) ASSERT_GT(e, 1e-2);

  const std::vector<uchar> lost(pts.size(), 0), kept(pts.size(), 1);
  EXPECT_EQ(track(faint, 0, 0.001), lost);
  EXPECT_EQ(track(faint, 0, 1e-4), kept);
  EXPECT_EQ(track(texture, 0, 0.001), kept);
}
