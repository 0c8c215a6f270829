#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "image/colour_convert.h"
#include "image/nv21_img.h"

using zolt::ColourKernels;

namespace {

const ColourKernels& ref() { return zolt::referenceColourKernels(); }
const ColourKernels& vec() { return zolt::vectorColourKernels(); }

// The vectorised kernels of every instruction set this CPU runs, not only the chosen one.
const std::vector<const ColourKernels*>& vectorTargets() {
  static const std::vector<const ColourKernels*> all = zolt::vectorColourKernelsForEachTarget();
  return all;
}

// The reference and every vector target.
std::vector<const ColourKernels*> allKernels() {
  std::vector<const ColourKernels*> all = vectorTargets();
  all.push_back(&ref());
  return all;
}

std::vector<uint8_t> randomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> d(0, 255);
  std::vector<uint8_t> v(n);
  for (auto& b : v) b = static_cast<uint8_t>(d(rng));
  return v;
}

// One pixel of NV21 -> BGR through a kernel set.
cv::Vec3b convertPixel(const ColourKernels& k, uint8_t y, uint8_t u, uint8_t v) {
  const uint8_t vu[2] = {v, u};
  cv::Vec3b out;
  k.nv21RowToBgr(&y, vu, out.val, 0, 1);
  return out;
}

}  // namespace

TEST(ColourConvert, Nv21ToBgrFixedValues) {
  for (const ColourKernels* k : allKernels()) {
    SCOPED_TRACE(k->name);
    EXPECT_EQ(convertPixel(*k, 128, 128, 128), cv::Vec3b(128, 128, 128));
    EXPECT_EQ(convertPixel(*k, 255, 128, 128), cv::Vec3b(255, 255, 255));
    EXPECT_EQ(convertPixel(*k, 0, 255, 128), cv::Vec3b(225, 0, 0));
    // Rounding is toward minus infinity: B = (163840 - 29032) >> 14 = 8 (8.23),
    // G = (163840 + 5638 - 11700) >> 14 = 9 (9.63), R = (163840 + 22970) >> 14 = 11 (11.4).
    EXPECT_EQ(convertPixel(*k, 10, 127, 129), cv::Vec3b(8, 9, 11));
    EXPECT_EQ(convertPixel(*k, 0, 0, 0), cv::Vec3b(0, 135, 0));
  }
}

TEST(ColourConvert, BgrToNv21FixedValues) {
  for (const ColourKernels* k : allKernels()) {
    SCOPED_TRACE(k->name);
    // Black: Y = trunc(0.5) = 0, and the chroma is exactly 512 / 4.
    // White: Y = trunc(255.5) = 255; in double the V sum 0.615*1020 - 0.515*1020 - 0.1*1020
    // comes out a hair below zero, so V truncates to 127 while U is exactly 128.
    const struct { uint8_t level, y, v, u; } cases[] = {{0, 0, 128, 128}, {255, 255, 127, 128}};
    for (const auto& c : cases) {
      std::vector<uint8_t> row(12, c.level);  // one 2x2 block
      uint8_t y0[2], y1[2], vu[2];
      k->bgrRowPairToNv21(row.data(), row.data(), y0, y1, vu, 1);
      EXPECT_EQ(y0[0], c.y);
      EXPECT_EQ(y1[1], c.y);
      EXPECT_EQ(vu[0], c.v);
      EXPECT_EQ(vu[1], c.u);
    }
    // A saturated block clamps: pure blue gives U = (0.436 * 1020 + 512) / 4 = 239.18 -> 239,
    // pure red V = (0.615 * 1020 + 512) / 4 = 284.8 -> 255.
    const uint8_t blue[12] = {255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0};
    const uint8_t red[12] = {0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0, 255};
    uint8_t y0[2], y1[2], vu[2];
    k->bgrRowPairToNv21(blue, blue, y0, y1, vu, 1);
    EXPECT_EQ(vu[1], 239);
    EXPECT_EQ(y0[0], 29);  // trunc(0.114 * 255 + 0.5)
    k->bgrRowPairToNv21(red, red, y0, y1, vu, 1);
    EXPECT_EQ(vu[0], 255);
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

TEST(ColourConvert, BgrToNv21VectorMatchesReferenceOnEveryPixelValue) {
  // All 2^24 BGR values as luma; chroma sees them as blocks of neighbours.
  const int cols = 4096;
  std::vector<uint8_t> bgr(2 * 3 * cols);
  std::vector<uint8_t> yr0(cols), yr1(cols), vur(cols), yv0(cols), yv1(cols), vuv(cols);
  for (int block = 0; block < (1 << 24) / (2 * cols); ++block) {
    for (int i = 0; i < 2 * cols; ++i) {
      const uint32_t c = static_cast<uint32_t>(block) * 2 * cols + i;
      bgr[3 * i] = static_cast<uint8_t>(c);
      bgr[3 * i + 1] = static_cast<uint8_t>(c >> 8);
      bgr[3 * i + 2] = static_cast<uint8_t>(c >> 16);
    }
    const uint8_t* r0 = bgr.data();
    const uint8_t* r1 = bgr.data() + 3 * cols;
    ref().bgrRowPairToNv21(r0, r1, yr0.data(), yr1.data(), vur.data(), cols / 2);
    for (const ColourKernels* k : vectorTargets()) {
      k->bgrRowPairToNv21(r0, r1, yv0.data(), yv1.data(), vuv.data(), cols / 2);
      ASSERT_EQ(yr0, yv0) << k->name << " " << block;
      ASSERT_EQ(yr1, yv1) << k->name << " " << block;
      ASSERT_EQ(vur, vuv) << k->name << " " << block;
    }
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
  std::vector<uint8_t> y0(2 * pairs), y1(2 * pairs), vu(2 * pairs);
  std::vector<uint8_t> ry0(2 * pairs), ry1(2 * pairs), rvu(2 * pairs);
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
    ref().bgrRowPairToNv21(row0.data(), row1.data(), ry0.data(), ry1.data(), rvu.data(), pairs);
    for (const ColourKernels* k : vectorTargets()) {
      k->bgrRowPairToNv21(row0.data(), row1.data(), y0.data(), y1.data(), vu.data(), pairs);
      ASSERT_EQ(rvu, vu) << k->name << " near sum " << next;
      ASSERT_EQ(ry0, y0) << k->name;
      ASSERT_EQ(ry1, y1) << k->name;
    }
  }
}

// Row lengths around the vector widths, odd and even starts and ends: the same bytes as the
// reference, nothing written outside the columns asked for, nothing read beyond them (the
// buffers are cut to size for the address sanitizer).
TEST(ColourConvert, RowKernelsMatchReferenceAtEveryStartAndLength) {
  const int maxLen = 2 * 64 + 5;
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
      const std::vector<uint8_t> r0 = randomBytes(6 * pairs, pairs), r1 = randomBytes(6 * pairs, ~pairs);
      std::vector<uint8_t> wy0(2 * pairs + 4, 0xCD), wy1 = wy0, wvu = wy0;
      std::vector<uint8_t> gy0 = wy0, gy1 = wy0, gvu = wy0;
      ref().bgrRowPairToNv21(r0.data(), r1.data(), wy0.data(), wy1.data(), wvu.data(), pairs);
      k->bgrRowPairToNv21(r0.data(), r1.data(), gy0.data(), gy1.data(), gvu.data(), pairs);
      ASSERT_EQ(wy0, gy0) << pairs;
      ASSERT_EQ(wy1, gy1) << pairs;
      ASSERT_EQ(wvu, gvu) << pairs;
    }
  }
}

// Whole images and regions, odd and even sizes, through both kernel sets.
TEST(ColourConvert, ImagesAndRegionsMatchAcrossKernelsOnOddAndEvenSizes) {
  std::mt19937 rng(1234);
  const int sizes[][2] = {{1, 1},  {2, 2},  {3, 5},   {17, 9},  {33, 64},
                          {64, 3}, {97, 31}, {130, 66}, {255, 17}, {640, 2}};
  for (const auto& s : sizes) {
    const int w = s[0], h = s[1];
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const size_t ySize = static_cast<size_t>(w) * h, vuSize = ySize / 2;
    std::vector<uint8_t> nv = randomBytes(ySize + vuSize, rng());
    cv::Mat a(h, w, CV_8UC3, cv::Scalar(1, 2, 3)), b = a.clone();
    zolt::nv21ToBgr(ref(), nv.data(), nv.data() + ySize, vuSize, w, h, a.data, a.step, 0, 0, w, h);
    zolt::nv21ToBgr(vec(), nv.data(), nv.data() + ySize, vuSize, w, h, b.data, b.step, 0, 0, w, h);
    ASSERT_EQ(cv::norm(a, b, cv::NORM_INF), 0);
    for (int t = 0; t < 20; ++t) {
      const int x = static_cast<int>(rng() % w), y = static_cast<int>(rng() % h);
      const int rw = 1 + static_cast<int>(rng() % (w - x)), rh = 1 + static_cast<int>(rng() % (h - y));
      cv::Mat ra(h, w, CV_8UC3, cv::Scalar(9, 8, 7)), rb = ra.clone();
      zolt::nv21ToBgr(ref(), nv.data(), nv.data() + ySize, vuSize, w, h, ra.data, ra.step, x, y, rw, rh);
      zolt::nv21ToBgr(vec(), nv.data(), nv.data() + ySize, vuSize, w, h, rb.data, rb.step, x, y, rw, rh);
      ASSERT_EQ(cv::norm(ra, rb, cv::NORM_INF), 0) << x << "," << y << " " << rw << "x" << rh;
      // Region pixels equal the whole-image conversion; the rest is untouched.
      cv::Rect roi(x, y, rw, rh);
      ASSERT_EQ(cv::norm(ra(roi), a(roi), cv::NORM_INF), 0);
      cv::Mat outside = ra.clone();
      outside(roi).setTo(cv::Scalar(9, 8, 7));
      ASSERT_EQ(cv::countNonZero(outside.reshape(1) != cv::Mat(h, w, CV_8UC3, cv::Scalar(9, 8, 7)).reshape(1)), 0);
    }
    // Back to NV21: both kernel sets write the same bytes and nothing past the planes.
    std::vector<uint8_t> outRef(ySize + vuSize + 16, 0xAB), outVec = outRef;
    zolt::bgrToNv21(ref(), a.data, a.step, h, w, outRef.data(), outRef.data() + ySize, vuSize);
    zolt::bgrToNv21(vec(), a.data, a.step, h, w, outVec.data(), outVec.data() + ySize, vuSize);
    ASSERT_EQ(outRef, outVec);
    for (size_t i = ySize + vuSize; i < outRef.size(); ++i) ASSERT_EQ(outRef[i], 0xAB);
  }
}

// The two directions use different chroma scales (0.615 / 0.436 forward, 1.402 / 1.772 back),
// so only grey survives a round trip, within the one-level chroma truncation.
TEST(ColourConvert, GreyRoundTripIsNearlyExact) {
  cv::Mat bgr(64, 96, CV_8UC3);
  for (int r = 0; r < bgr.rows; ++r)
    for (int c = 0; c < bgr.cols; ++c) {
      const auto g = static_cast<uint8_t>((r * 96 + c) % 256);
      bgr.at<cv::Vec3b>(r, c) = cv::Vec3b(g, g, g);
    }
  NV21Img img;
  img.nvCvt2NV21(bgr);
  EXPECT_EQ(img.width, 96);
  EXPECT_EQ(img.height, 64);
  EXPECT_EQ(img.yPlane[95], 95);
  cv::Mat back = img.nvCvt2BGR();
  EXPECT_EQ(back.data, img.bgrMat.data);  // shares bgrMat
  EXPECT_LE(cv::norm(back, bgr, cv::NORM_INF), 2);
  img.freeData();
}

TEST(ColourConvert, RegionConversionLeavesTheRestOfBgrMat) {
  cv::Mat bgr(8, 8, CV_8UC3, cv::Scalar(10, 200, 30));
  NV21Img img;
  img.nvCvt2NV21(bgr);
  uint8_t* before = img.nvCvt2BGR().data;
  img.bgrMat.setTo(cv::Scalar(1, 1, 1));
  cv::Mat part = img.nvCvt2BGR(2, 3, 4, 2);
  EXPECT_EQ(part.data, before);  // bgrMat reused, not reallocated
  EXPECT_EQ(part.at<cv::Vec3b>(0, 0), cv::Vec3b(1, 1, 1));
  EXPECT_EQ(part.at<cv::Vec3b>(5, 6), cv::Vec3b(1, 1, 1));
  EXPECT_NE(part.at<cv::Vec3b>(3, 2), cv::Vec3b(1, 1, 1));
  EXPECT_NE(part.at<cv::Vec3b>(4, 5), cv::Vec3b(1, 1, 1));
  img.freeData();
}

TEST(ColourConvert, FlipMirrorsThroughBgr) {
  cv::Mat bgr(4, 8, CV_8UC3, cv::Scalar(0, 0, 0));
  bgr.colRange(0, 4).setTo(cv::Scalar(255, 255, 255));
  NV21Img img;
  img.nvLoadImgFromBufferBGR(bgr.data, 8, 4);
  img.Flip(1);
  // White comes back a level or two darker through the lossy BGR round trip.
  EXPECT_LE(img.yPlane[0], 1);
  EXPECT_LE(img.yPlane[3], 1);
  EXPECT_GE(img.yPlane[4], 253);
  EXPECT_GE(img.yPlane[8 * 3 + 7], 253);
  img.freeData();
}

TEST(ColourConvert, ImageFilesRoundTripAndUnreadableFileGivesEmptyImage) {
  cv::Mat bgr(6, 10, CV_8UC3, cv::Scalar(140, 140, 140));
  const std::string path = testing::TempDir() + "zolt_nv21_colour.png";
  ASSERT_TRUE(cv::imwrite(path, bgr));
  NV21Img img;
  img.nvLoadImg(path);
  EXPECT_EQ(img.width, 10);
  EXPECT_EQ(img.height, 6);
  const std::string grey = testing::TempDir() + "zolt_nv21_grey.png";
  img.nvSaveGrey(grey);
  cv::Mat g = cv::imread(grey, cv::IMREAD_UNCHANGED);
  ASSERT_EQ(g.type(), CV_8UC1);
  EXPECT_EQ(g.at<uint8_t>(0, 0), img.yPlane[0]);
  const std::string colour = testing::TempDir() + "zolt_nv21_colour_out.png";
  img.nvSaveColor(colour);
  EXPECT_LE(cv::norm(cv::imread(colour), bgr, cv::NORM_INF), 2);
  img.nvLoadImg(testing::TempDir() + "no_such_file.png");
  EXPECT_EQ(img.width, 0);
  EXPECT_EQ(img.height, 0);
  img.freeData();
}
