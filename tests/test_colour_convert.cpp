// Colour conversion between NV21 and BGR: fixed values, the vectorised kernels of every target
// byte for byte against the reference (every value, whole-number chroma, every start and
// length, images and regions), and NV21Img's conversions and files.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "image/colour_convert.h"
#include "image/nv21_img.h"
#include "support/hwy_targets.h"
#include "support/textures.h"

using zolt::ColourKernels;
using zolt::test::randomBytes;

namespace {

const ColourKernels& ref() { return zolt::referenceColourKernels(); }
const ColourKernels& vec() { return zolt::vectorColourKernels(); }

// The vectorised kernels of every instruction set this CPU runs, not only the chosen one.
const std::vector<const ColourKernels*>& vectorTargets() {
  static const std::vector<const ColourKernels*> all = [] {
    std::vector<const ColourKernels*> v = zolt::vectorColourKernelsForEachTarget();
    for (const ColourKernels* k : v) zolt::test::noteTargetTested(k->name);
    return v;
  }();
  return all;
}

// Y of both rows, then the VU row, of `pairs` 2x2 blocks through a kernel set. Each output has
// `pad` bytes of 0xCD behind it, to show writes beyond.
std::vector<uint8_t> toNv21(const ColourKernels& k, const uint8_t* r0, const uint8_t* r1, int pairs,
                            int pad = 0) {
  std::vector<uint8_t> y0(2 * pairs + pad, 0xCD), y1 = y0, vu = y0;
  k.bgrRowPairToNv21(r0, r1, y0.data(), y1.data(), vu.data(), pairs);
  y0.insert(y0.end(), y1.begin(), y1.end());
  y0.insert(y0.end(), vu.begin(), vu.end());
  return y0;
}

}  // namespace

// Fixed values through the reference and every vector target. NV21 -> BGR rounds toward minus
// infinity: (10, 127, 129) gives B = (163840 - 29032) >> 14 = 8 (8.23), G = (163840 + 5638 -
// 11700) >> 14 = 9 (9.63), R = (163840 + 22970) >> 14 = 11 (11.4). BGR -> NV21 of a uniform
// 2x2 block: black has Y = trunc(0.5) = 0 and chroma exactly 512 / 4; white Y = trunc(255.5) =
// 255, and in double the V sum 0.615*1020 - 0.515*1020 - 0.1*1020 comes out a hair below zero,
// so V truncates to 127 while U is exactly 128. Saturated blocks clamp: blue gives Y =
// trunc(0.114 * 255 + 0.5) = 29, V = (512 - 0.1 * 1020) / 4 = 102.5 -> 102, U = (0.436 * 1020 +
// 512) / 4 = 239.18 -> 239; red V = (0.615 * 1020 + 512) / 4 = 284.8 -> 255.
TEST(ColourConvert, FixedValues) {
  const struct {
    uint8_t y, u, v;
    cv::Vec3b bgr;
  } toBgr[] = {{128, 128, 128, {128, 128, 128}},
               {255, 128, 128, {255, 255, 255}},
               {0, 255, 128, {225, 0, 0}},
               {10, 127, 129, {8, 9, 11}},
               {0, 0, 0, {0, 135, 0}}};
  const struct {
    cv::Vec3b bgr;
    uint8_t y, v, u;
  } toNv[] = {{{0, 0, 0}, 0, 128, 128},
              {{255, 255, 255}, 255, 127, 128},
              {{255, 0, 0}, 29, 102, 239},
              {{0, 0, 255}, 76, 255, 90}};
  std::vector<const ColourKernels*> all = vectorTargets();
  all.push_back(&ref());
  for (const ColourKernels* k : all) {
    SCOPED_TRACE(k->name);
    for (const auto& c : toBgr) {
      const uint8_t vu[2] = {c.v, c.u};
      cv::Vec3b out;
      k->nv21RowToBgr(&c.y, vu, out.val, 0, 1);
      EXPECT_EQ(out, c.bgr) << int(c.y) << " " << int(c.u) << " " << int(c.v);
    }
    for (const auto& c : toNv) {
      uint8_t row[6];
      for (int i = 0; i < 6; ++i) row[i] = c.bgr[i % 3];
      EXPECT_EQ(toNv21(*k, row, row, 1), (std::vector<uint8_t>{c.y, c.y, c.y, c.y, c.v, c.u}))
          << c.bgr;
    }
  }
}

// Every (Y, U, V) triple, through whole rows so that the vector body is exercised: along a row
// V runs through all values (one per pixel pair), and across the passes each pair sees every Y.
TEST(ColourConvert, Nv21ToBgrVectorMatchesReferenceOnEveryValue) {
  const int w = 512;
  std::vector<uint8_t> yRow(w), vuRow(w), outRef(3 * w), outVec(3 * w);
  for (int u = 0; u < 256; ++u) {
    for (int p = 0; p < w / 2; ++p) {
      vuRow[2 * p] = static_cast<uint8_t>(p);
      vuRow[2 * p + 1] = static_cast<uint8_t>(u);
    }
    for (int yOff = 0; yOff < 128; ++yOff) {
      for (int i = 0; i < w; ++i) yRow[i] = static_cast<uint8_t>(i + 2 * yOff);
      ref().nv21RowToBgr(yRow.data(), vuRow.data(), outRef.data(), 0, w);
      for (const ColourKernels* k : vectorTargets()) {
        k->nv21RowToBgr(yRow.data(), vuRow.data(), outVec.data(), 0, w);
        ASSERT_EQ(outRef, outVec) << k->name << " u=" << u << " yOff=" << yOff;
      }
    }
  }
}

// All 2^24 BGR values as luma; chroma sees them as blocks of neighbours.
TEST(ColourConvert, BgrToNv21VectorMatchesReferenceOnEveryPixelValue) {
  const int cols = 4096;
  std::vector<uint8_t> bgr(2 * 3 * cols);
  for (int block = 0; block < (1 << 24) / (2 * cols); ++block) {
    for (int i = 0; i < 2 * cols; ++i) {
      const uint32_t c = static_cast<uint32_t>(block) * 2 * cols + i;
      bgr[3 * i] = static_cast<uint8_t>(c);
      bgr[3 * i + 1] = static_cast<uint8_t>(c >> 8);
      bgr[3 * i + 2] = static_cast<uint8_t>(c >> 16);
    }
    const uint8_t *r0 = bgr.data(), *r1 = bgr.data() + 3 * cols;
    const std::vector<uint8_t> want = toNv21(ref(), r0, r1, cols / 2);
    for (const ColourKernels* k : vectorTargets())
      ASSERT_EQ(want, toNv21(*k, r0, r1, cols / 2)) << k->name << " " << block;
  }
}

// Blocks whose exact chroma is a whole number, where the double result may fall a hair short
// and the vector kernels must defer to the reference: grey blocks of every sum, and every sum
// triple with a whole V (SR = SG mod 20, SB in steps of 40) or a whole U (SG solved mod 4000).
// They are mixed in a row with ordinary blocks so that the fix-up touches only its own lanes.
TEST(ColourConvert, BgrToNv21WholeNumberChromaMatchesReference) {
  std::vector<std::array<int, 3>> sums;  // SR, SG, SB
  for (int s = 0; s <= 1020; ++s) sums.push_back({s, s, s});
  for (int sr = 0; sr <= 1020; ++sr)
    for (int sg = sr % 20; sg <= 1020; sg += 20)
      for (int sb = 0; sb < 40; ++sb)
        if ((615 * sr - 515 * sg - 100 * sb) % 4000 == 0) {
          for (int b = sb; b <= 1020; b += 40) sums.push_back({sr, sg, b});
          break;
        }
  int inv289 = 1;
  while (289 * inv289 % 4000 != 1) ++inv289;
  for (int sr = 0; sr <= 1020; ++sr)
    for (int sb = 0; sb <= 1020; ++sb) {
      const long sg = ((436L * sb - 147L * sr) % 4000 + 4000) * inv289 % 4000;
      if (sg <= 1020) sums.push_back({sr, static_cast<int>(sg), sb});
    }
  ASSERT_GT(sums.size(), 1500000u);

  const int pairs = 1000;
  std::vector<uint8_t> row0(6 * pairs), row1(6 * pairs);
  std::mt19937 rng(77);
  size_t next = 0;
  while (next < sums.size()) {
    for (int i = 0; i < pairs; ++i) {
      // Every other block is random; the rest spread a listed sum over the four pixels,
      // the remainder going to a different pixel each time.
      const bool listed = (i & 1) && next < sums.size();
      for (int c = 0; c < 3; ++c) {
        const int s = listed ? sums[next][2 - c] : static_cast<int>(rng() % 1021);
        for (int p = 0; p < 4; ++p) {
          const int v = s / 4 + ((p + i) % 4 < s % 4 ? 1 : 0);
          (p < 2 ? row0 : row1)[6 * i + 3 * (p & 1) + c] = static_cast<uint8_t>(v);
        }
      }
      if (listed) ++next;
    }
    const std::vector<uint8_t> want = toNv21(ref(), row0.data(), row1.data(), pairs);
    for (const ColourKernels* k : vectorTargets())
      ASSERT_EQ(want, toNv21(*k, row0.data(), row1.data(), pairs)) << k->name << " near " << next;
  }
}

// Row lengths around the vector widths, odd and even starts and ends: the same bytes as the
// reference, nothing written outside the columns asked for, nothing read beyond them (the
// buffers are cut to size for the address sanitizer). Up to two vectors of 256 pixels, the
// widest SVE (2048 bits).
TEST(ColourConvert, RowKernelsMatchReferenceAtEveryStartAndLength) {
  const int maxLen = 2 * 256 + 5;
  const std::vector<uint8_t> yAll = randomBytes(maxLen, 5), vuAll = randomBytes(maxLen + 1, 6);
  for (const ColourKernels* k : vectorTargets()) {
    SCOPED_TRACE(k->name);
    for (int x0 = 0; x0 < 8; ++x0)
      for (int x1 = x0; x1 <= maxLen; ++x1) {
        const std::vector<uint8_t> y(yAll.begin(), yAll.begin() + x1);
        const std::vector<uint8_t> vu(vuAll.begin(), vuAll.begin() + 2 * ((x1 + 1) / 2));
        std::vector<uint8_t> want(3 * x1 + 8, 0xCD), got = want;
        ref().nv21RowToBgr(y.data(), vu.data(), want.data(), x0, x1);
        k->nv21RowToBgr(y.data(), vu.data(), got.data(), x0, x1);
        ASSERT_EQ(want, got) << x0 << ".." << x1;
      }
    for (int pairs = 0; pairs <= maxLen / 2; ++pairs) {
      const std::vector<uint8_t> r0 = randomBytes(6 * pairs, pairs),
                                 r1 = randomBytes(6 * pairs, ~pairs);
      ASSERT_EQ(toNv21(ref(), r0.data(), r1.data(), pairs, 4),
                toNv21(*k, r0.data(), r1.data(), pairs, 4))
          << pairs;
    }
  }
}

// Whole images and regions, odd and even sizes, through both kernel sets: the same bytes, a
// region's pixels those of the whole image and nothing outside it written; back to NV21 the
// same bytes and nothing written past the planes.
TEST(ColourConvert, ImagesAndRegionsMatchAcrossKernelsOnOddAndEvenSizes) {
  std::mt19937 rng(1234);
  const int sizes[][2] = {{1, 1},  {2, 2},   {3, 5},    {17, 9},   {33, 64},
                          {64, 3}, {97, 31}, {130, 66}, {255, 17}, {640, 2}};
  const cv::Scalar old(9, 8, 7);
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const size_t ySize = static_cast<size_t>(w) * h, vuSize = ySize / 2;
    const std::vector<uint8_t> nv = randomBytes(ySize + vuSize, rng());
    auto toBgr = [&](const ColourKernels& k, const cv::Rect& r) {
      cv::Mat out(h, w, CV_8UC3, old);
      zolt::nv21ToBgr(k, nv.data(), nv.data() + ySize, vuSize, w, h, out.data, out.step, r.x, r.y,
                      r.width, r.height);
      return out;
    };
    const cv::Rect all(0, 0, w, h);
    const cv::Mat a = toBgr(ref(), all);
    ASSERT_EQ(cv::norm(a, toBgr(vec(), all), cv::NORM_INF), 0);
    for (int t = 0; t < 20; ++t) {
      const int x = static_cast<int>(rng() % w), y = static_cast<int>(rng() % h);
      const cv::Rect roi(x, y, 1 + static_cast<int>(rng() % (w - x)),
                         1 + static_cast<int>(rng() % (h - y)));
      const cv::Mat ra = toBgr(ref(), roi);
      ASSERT_EQ(cv::norm(ra, toBgr(vec(), roi), cv::NORM_INF), 0) << roi;
      cv::Mat want(h, w, CV_8UC3, old);
      a(roi).copyTo(want(roi));
      ASSERT_EQ(cv::norm(ra, want, cv::NORM_INF), 0) << roi;
    }
    std::vector<uint8_t> outRef(ySize + vuSize + 16, 0xAB), outVec = outRef;
    zolt::bgrToNv21(ref(), a.data, a.step, h, w, outRef.data(), outRef.data() + ySize, vuSize);
    zolt::bgrToNv21(vec(), a.data, a.step, h, w, outVec.data(), outVec.data() + ySize, vuSize);
    ASSERT_EQ(outRef, outVec);
    for (size_t i = ySize + vuSize; i < outRef.size(); ++i) ASSERT_EQ(outRef[i], 0xAB);
  }
}

// NV21Img's conversions. The two directions use different chroma scales (0.615 / 0.436 forward,
// 1.402 / 1.772 back), so only grey survives a round trip, within the one-level chroma
// truncation; the result is bgrMat itself. Flip goes through BGR and back, a file through OpenCV
// (white comes back a level or two darker); an unreadable file leaves an empty image. (Region
// conversions into a reused bgrMat are checked by ModuleMerge's panorama output; the save
// functions are single OpenCV calls on these views.)
TEST(ColourConvert, Nv21ImgRoundTripFlipAndFiles) {
  cv::Mat ramp(64, 96, CV_8UC3), bgr(6, 10, CV_8UC3, cv::Scalar(0, 0, 0));
  for (int i = 0; i < 64 * 96 * 3; ++i) ramp.data[i] = static_cast<uint8_t>(i / 3);  // grey ramp
  NV21Img img;
  img.nvCvt2NV21(ramp);
  EXPECT_TRUE(img.width == 96 && img.height == 64 && img.yPlane[95] == 95);
  const cv::Mat back = img.nvCvt2BGR();
  EXPECT_EQ(back.data, img.bgrMat.data);
  EXPECT_LE(cv::norm(back, ramp, cv::NORM_INF), 2);

  bgr.colRange(0, 4).setTo(cv::Scalar(255, 255, 255));
  img.nvLoadImgFromBufferBGR(bgr.data, 10, 6);
  img.Flip(1);
  EXPECT_LE(std::max(img.yPlane[0], img.yPlane[5]), 1);
  EXPECT_GE(std::min(img.yPlane[6], img.yPlane[10 * 5 + 9]), 253);
  const std::string in = testing::TempDir() + "zolt_nv21_colour.png";
  ASSERT_TRUE(cv::imwrite(in, bgr));
  img.nvLoadImg(in);
  ASSERT_EQ(cv::Size(img.width, img.height), cv::Size(10, 6));
  EXPECT_LE(cv::norm(img.nvCvt2BGR(), bgr, cv::NORM_INF), 2);
  img.nvLoadImg(testing::TempDir() + "no_such_file.png");
  EXPECT_EQ(cv::Size(img.width, img.height), cv::Size(0, 0));
  img.freeData();
}
