#include "tracker/feat_fast_shi_tomasi.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

#include <opencv2/imgproc.hpp>

namespace {

// A dark image with one bright, slightly blurred 8 x 8 square in every block (FAST's
// non-maximum suppression drops corners of equal score, so sharp squares give none).
cv::Mat squares(int rows, int cols) {
  cv::Mat m(rows, cols, CV_8UC1, cv::Scalar(30));
  for (int y = 0; y + 32 <= rows; y += 32)
    for (int x = 0; x + 32 <= cols; x += 32) m(cv::Rect(x + 12, y + 11, 8 + (x / 32) % 3, 8)).setTo(200);
  cv::GaussianBlur(m, m, cv::Size(3, 3), 0.8);
  return m;
}

TEST(Feat, GridAndSearchedBlocksFollowTheDirection) {
  FeatFastShiTomasi f(240, 320);
  EXPECT_EQ(f.gridCols, 11);
  EXPECT_EQ(f.gridRows, 8);
  EXPECT_EQ(f.colMargin, 2);
  EXPECT_EQ(f.rowMargin, 1);
  std::vector<cv::Point2f> none;
  f.updateGridCount(none, MOVE_NONE);
  EXPECT_EQ(f.blocks.size(), 70u);
  f.updateGridCount(none, MOVE_LEFT);
  EXPECT_EQ(f.blocks.size(), 6u * 7u);
  EXPECT_EQ(f.blocks.front(), cv::Point(2, 0));
  EXPECT_EQ(f.blocks.back(), cv::Point(7, 6));
  f.updateGridCount(none, MOVE_DOWN);
  EXPECT_EQ(f.blocks.front(), cv::Point(0, 1));
  EXPECT_EQ(f.blocks.back(), cv::Point(9, 5));

  FeatFastShiTomasi t(225, 400);  // the tracker's usual image
  EXPECT_EQ(t.gridCols, 13);
  EXPECT_EQ(t.gridRows, 8);
  const std::pair<MoveDirection, size_t> expected[] = {
      {MOVE_NONE, 84}, {MOVE_RIGHT, 56}, {MOVE_LEFT, 56}, {MOVE_DOWN, 60}, {MOVE_UP, 60}};
  for (const auto& [dir, count] : expected) {
    t.updateGridCount(none, dir);
    EXPECT_EQ(t.blocks.size(), count) << dir;
  }
  // Occupied blocks are skipped; the counts are kept per block.
  std::vector<cv::Point2f> pts{{33.9f, 0.5f}, {40.f, 20.f}, {399.f, 224.f}, {100.f, 70.f}};
  t.updateGridCount(pts, MOVE_NONE);
  EXPECT_EQ(t.gridCount[1], 2);
  EXPECT_EQ(t.gridCount[12 + 13 * 7], 1);
  EXPECT_EQ(t.blocks.size(), 82u);
  EXPECT_EQ(t.blocks[0], cv::Point(0, 0));
  EXPECT_EQ(t.blocks[1], cv::Point(2, 0));
}

TEST(Feat, OneCornerPerEmptyBlockAppended) {
  const cv::Mat img = squares(225, 400);
  std::shared_ptr<Feat> f = std::make_shared<FeatFastShiTomasi>(225, 400);
  std::vector<cv::Point2f> tracked{{45.f, 40.f}, {300.f, 150.f}};
  f->updateGridCount(tracked, MOVE_NONE);
  std::vector<cv::Point2f> out{{-1.f, -1.f}};
  f->detectFeatFromBlock(img, out);
  ASSERT_EQ(out.size(), 1u + 82u);
  EXPECT_EQ(out[0], cv::Point2f(-1.f, -1.f));
  std::vector<int> perBlock(13 * 8, 0);
  for (size_t i = 1; i < out.size(); ++i) {
    const int bx = static_cast<int>(out[i].x) / 32, by = static_cast<int>(out[i].y) / 32;
    ++perBlock[bx + 13 * by];
    // A corner of the block's square, well inside the block.
    EXPECT_GE(static_cast<int>(out[i].x) % 32, 5);
    EXPECT_LE(static_cast<int>(out[i].x) % 32, 26);
  }
  EXPECT_EQ(perBlock[1 + 13 * 1], 0);
  EXPECT_EQ(perBlock[9 + 13 * 4], 0);
  for (int v : perBlock) EXPECT_LE(v, 1);
  // A flat image gives nothing.
  std::vector<cv::Point2f> none, flatOut;
  f->updateGridCount(none, MOVE_NONE);
  f->detectFeatFromBlock(cv::Mat(225, 400, CV_8UC1, cv::Scalar(90)), flatOut);
  EXPECT_TRUE(flatOut.empty());
}

TEST(Feat, CornersNearTheBlockBorderScoreNothing) {
  // A square whose corners fall 3 pixels from the block border: FAST finds them, the score
  // window does not fit, so the block adds nothing.
  cv::Mat img(63, 63, CV_8UC1, cv::Scalar(30));
  img(cv::Rect(3, 3, 26, 26)).setTo(200);
  cv::GaussianBlur(img, img, cv::Size(3, 3), 0.8);
  FeatFastShiTomasi f(63, 63);
  std::vector<cv::Point2f> none, out;
  f.updateGridCount(none, MOVE_NONE);
  ASSERT_EQ(f.blocks.size(), 1u);
  f.detectFeatFromBlock(img, out);
  EXPECT_TRUE(out.empty());
}

TEST(ShiTomasiScore, GuardEdgesAndCorners) {
  cv::Mat noise(32, 32, CV_8UC1);
  cv::randu(noise, 0, 256);
  EXPECT_EQ(shiTomasiScore(noise, 4, 16), 0.0);
  EXPECT_EQ(shiTomasiScore(noise, 16, 4), 0.0);
  EXPECT_EQ(shiTomasiScore(noise, 27, 16), 0.0);
  EXPECT_EQ(shiTomasiScore(noise, 16, 27), 0.0);
  EXPECT_GT(shiTomasiScore(noise, 5, 5), 0.0);
  EXPECT_GT(shiTomasiScore(noise, 26, 26), 0.0);
  // The score is symmetric in x and y.
  const cv::Mat t = noise.t();
  EXPECT_DOUBLE_EQ(shiTomasiScore(noise, 9, 17), shiTomasiScore(t, 17, 9));
  // An edge has one zero eigenvalue; a corner two positive ones.
  cv::Mat edge(32, 32, CV_8UC1, cv::Scalar(10));
  edge.colRange(16, 32).setTo(180);
  EXPECT_EQ(shiTomasiScore(edge, 16, 16), 0.0);
  cv::Mat corner(32, 32, CV_8UC1, cv::Scalar(10));
  corner(cv::Rect(16, 16, 16, 16)).setTo(180);
  // dx = 170 at columns 15 and 16 of rows 16..19 (8 samples), dy likewise, both only at
  // (16, 16): a = c = 8 units, b = 1 unit of 170^2 / 128; smaller eigenvalue a - b.
  const double unit = 170.0 * 170.0 / 128.0;
  EXPECT_NEAR(shiTomasiScore(corner, 16, 16), 7 * unit, 1e-9);
}

}  // namespace
