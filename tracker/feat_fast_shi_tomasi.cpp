#include "tracker/feat_fast_shi_tomasi.h"

#include <cmath>

#include <opencv2/features2d.hpp>

double shiTomasiScore(const cv::Mat& img, int x, int y) {
  if (!(x > 4 && x + 4 < img.cols - 1 && y - 4 > 0 && y + 4 < img.rows - 1)) return 0.0;
  const size_t step = img.step[0];
  double a = 0.0, b = 0.0, c = 0.0;
  for (int r = y - 4; r < y + 4; ++r) {
    const uint8_t* row = img.data + static_cast<size_t>(r) * step;
    const uint8_t* above = row - step;
    const uint8_t* below = row + step;
    for (int col = x - 4; col < x + 4; ++col) {
      const int dx = row[col + 1] - row[col - 1];
      const int dy = below[col] - above[col];
      a += dx * dx;
      b += dx * dy;
      c += dy * dy;
    }
  }
  a *= 0.0078125;
  b *= 0.0078125;
  c *= 0.0078125;
  return ((a + c) - std::sqrt((a + c) * (a + c) + 4.0 * (b * b - a * c))) * 0.5;
}

void FeatFastShiTomasi::detectFeatFromBlock(const cv::Mat& image, std::vector<cv::Point2f>& out) {
  thread_local std::vector<cv::KeyPoint> keypoints;  // reused across blocks and calls
  for (const cv::Point& blk : blocks) {
    const cv::Mat region = image(cv::Rect(blk.x * 32, blk.y * 32, 32, 32));
    cv::FAST(region, keypoints, 20, true);
    float best = -1000.0f;
    cv::Point2f kept;
    for (const cv::KeyPoint& kp : keypoints) {
      const double score =
          shiTomasiScore(region, static_cast<int>(kp.pt.x), static_cast<int>(kp.pt.y));
      if (score > best) {
        best = static_cast<float>(score);
        kept = kp.pt;
      }
    }
    if (best > 0.0f) out.emplace_back(kept.x + blk.x * 32, kept.y + blk.y * 32);
  }
}
