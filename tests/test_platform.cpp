// The platform layer: system properties and the tuned OpenCV entry points.
#include <gtest/gtest.h>

#include <cstdlib>

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
