#include "support/textures.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

namespace zolt::test {

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> v(n);
  fillBytes(v, rng);
  return v;
}

void randomFrame(NV21Img& f, int w, int h, uint32_t seed) {
  f.nvCreate(h, w);
  std::mt19937 rng(seed);
  for (size_t i = 0; i < static_cast<size_t>(w) * h * 3 / 2; ++i)
    f.yPlane[i] = static_cast<uint8_t>(rng());
}

cv::Mat noise(cv::Size size, int type, uint64_t seed, double lo, double hi) {
  cv::Mat m(size, type);
  cv::RNG(seed).fill(m, cv::RNG::UNIFORM, lo, hi);
  return m;
}

cv::Mat randomLevels(int rows, int cols, std::mt19937& rng, int levels) {
  cv::Mat m(rows, cols, CV_8UC1);
  std::uniform_int_distribution<int> v(0, levels - 1);
  const int step = 255 / std::max(1, levels - 1);
  for (int i = 0; i < rows * cols; ++i) m.data[i] = static_cast<uint8_t>(v(rng) * step);
  return m;
}

cv::Mat texture(int w, int h, int seed) {
  cv::Mat m = noise({w, h}, CV_8UC3, static_cast<uint64_t>(seed), 0, 255);
  cv::GaussianBlur(m, m, cv::Size(5, 5), 1.5);
  return m;
}

cv::Mat texturePhoto(int w, int h, uint64_t seed) {
  cv::Mat half = noise({(w + 1) / 2, (h + 1) / 2}, CV_8UC3, seed);
  cv::GaussianBlur(half, half, cv::Size(0, 0), 1.0);
  cv::normalize(half, half, 0, 255, cv::NORM_MINMAX);
  cv::Mat out;
  cv::resize(half, out, cv::Size(w, h), 0, 0, cv::INTER_CUBIC);
  return out;
}

cv::Mat twoLevels(cv::Size size, int d, cv::Rect balanced, uint32_t seed) {
  std::mt19937 rng(seed);
  cv::Mat img(size, CV_8UC1);
  for (int y = 0; y < size.height; ++y)
    for (int x = 0; x < size.width; ++x) img.at<uint8_t>(y, x) = (rng() & 1) ? 128 + d : 128 - d;
  for (int y = balanced.y; y < balanced.br().y; ++y) {
    uint8_t* row = img.ptr<uint8_t>(y) + balanced.x;
    for (int x = 0; x < balanced.width; ++x) row[x] = x % 2 ? 128 + d : 128 - d;
    std::shuffle(row, row + balanced.width, rng);
  }
  return img;
}

}  // namespace zolt::test
