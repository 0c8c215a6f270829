// Textures and frames for the tests, each from a fixed seed or the caller's generator. A test
// whose expected numbers come from a texture relies on its pixels: a generator here draws them
// the same way for good (std::mt19937 and cv::RNG give the same numbers on every platform).
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <opencv2/core.hpp>

#include "image/nv21_img.h"

namespace zolt::test {

// Each byte the low byte of one draw of `rng`.
template <class Bytes>
void fillBytes(Bytes& bytes, std::mt19937& rng) {
  for (auto& b : bytes) b = static_cast<uint8_t>(rng());
}
std::vector<uint8_t> randomBytes(size_t n, uint32_t seed);

// An owning NV21 image of random bytes, both planes.
void randomFrame(NV21Img& f, int w, int h, uint32_t seed);

// Uniform noise in [lo, hi) of any type, from cv::RNG(seed).
cv::Mat noise(cv::Size size, int type, uint64_t seed, double lo = 0, double hi = 256);

// Grey pixels of `levels` levels spread over 0..255, each one draw of `rng`.
cv::Mat randomLevels(int rows, int cols, std::mt19937& rng, int levels = 256);

// Blurred colour noise: texture everywhere that survives JPEG.
cv::Mat texture(int w, int h, int seed);

// Smooth colour texture: every pixel differs from its neighbours, no flat areas. Made at half
// size and enlarged, which keeps it cheap for photo-sized scenes.
cv::Mat texturePhoto(int w, int h, uint64_t seed);

// Grey 128 +- d at random; in each row of `balanced` exactly half the pixels are above, so the
// tracker's texture measure there is exactly d.
cv::Mat twoLevels(cv::Size size, int d, cv::Rect balanced, uint32_t seed);

}  // namespace zolt::test
