#include "tracker/feat_fast_shi_tomasi.h"

#include <gtest/gtest.h>

#include <memory>

#include <opencv2/imgproc.hpp>

#include "support/textures.h"

namespace {

// A dark image with one bright, slightly blurred 8 x 8 square in every block (FAST's
// non-maximum suppression drops corners of equal score, so sharp squares give none).
cv::Mat squares(int rows, int cols) {
  cv::Mat m(rows, cols, CV_8UC1, cv::Scalar(30));
  for (int y = 0; y + 32 <= rows; y += 32)
    for (int x = 0; x + 32 <= cols; x += 32)
      m(cv::Rect(x + 12, y + 11, 8 + (x / 32) % 3, 8)).setTo(200);
  cv::GaussianBlur(m, m, cv::Size(3, 3), 0.8);
  return m;
}

// The partial last block column and row are never searched; a sweep leaves out the margins
// (20 % of the size, in whole blocks) across which it runs.
TEST(Feat, SearchedBlocksFollowTheDirectionAndSkipOccupiedOnes) {
  const struct {
    int rows, cols;
    MoveDirection dir;
    size_t count;
    cv::Point front, back;
  } cases[] = {
      {240, 320, MOVE_NONE, 70, {0, 0}, {9, 6}},  {240, 320, MOVE_LEFT, 42, {2, 0}, {7, 6}},
      {240, 320, MOVE_DOWN, 50, {0, 1}, {9, 5}},  {225, 400, MOVE_NONE, 84, {0, 0}, {11, 6}},
      {225, 400, MOVE_RIGHT, 56, {2, 0}, {9, 6}}, {225, 400, MOVE_LEFT, 56, {2, 0}, {9, 6}},
      {225, 400, MOVE_DOWN, 60, {0, 1}, {11, 5}}, {225, 400, MOVE_UP, 60, {0, 1}, {11, 5}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.cols << " x " << c.rows << " dir " << c.dir);
    FeatFastShiTomasi f(c.rows, c.cols);
    std::vector<cv::Point2f> none;
    f.updateGridCount(none, c.dir);
    ASSERT_EQ(f.blocks.size(), c.count);
    EXPECT_EQ(f.blocks.front(), c.front);
    EXPECT_EQ(f.blocks.back(), c.back);
  }
  // Occupied blocks are skipped; the counts are kept per block, the partial ones included.
  FeatFastShiTomasi t(225, 400);
  std::vector<cv::Point2f> pts{{33.9f, 0.5f}, {40.f, 20.f}, {399.f, 224.f}, {100.f, 70.f}};
  t.updateGridCount(pts, MOVE_NONE);
  EXPECT_EQ(t.gridCount[1], 2);
  EXPECT_EQ(t.gridCount[12 + 13 * 7], 1);
  EXPECT_EQ(t.blocks.size(), 82u);
  EXPECT_EQ(t.blocks[1], cv::Point(2, 0));
}

TEST(Feat, OneCornerPerEmptyBlockAppended) {
  std::shared_ptr<Feat> f = std::make_shared<FeatFastShiTomasi>(225, 400);
  std::vector<cv::Point2f> tracked{{45.f, 40.f}, {300.f, 150.f}};
  f->updateGridCount(tracked, MOVE_NONE);
  std::vector<cv::Point2f> out{{-1.f, -1.f}};
  f->detectFeatFromBlock(squares(225, 400), out);
  ASSERT_EQ(out.size(), 1u + 82u);
  EXPECT_EQ(out[0], cv::Point2f(-1.f, -1.f));
  std::vector<int> perBlock(13 * 8, 0);
  for (size_t i = 1; i < out.size(); ++i) {
    ++perBlock[static_cast<int>(out[i].x) / 32 + 13 * (static_cast<int>(out[i].y) / 32)];
    // A corner of the block's square, well inside the block.
    EXPECT_TRUE(static_cast<int>(out[i].x) % 32 >= 5 && static_cast<int>(out[i].x) % 32 <= 26)
        << out[i];
  }
  for (int b = 0; b < 13 * 8; ++b)
    EXPECT_EQ(perBlock[b], b % 13 < 12 && b / 13 < 7 && b != 14 && b != 61) << b;
  // A square whose corners fall 3 pixels from the block border: FAST finds them, the score
  // window does not fit, so the block adds nothing.
  cv::Mat img(63, 63, CV_8UC1, cv::Scalar(30));
  img(cv::Rect(3, 3, 26, 26)).setTo(200);
  cv::GaussianBlur(img, img, cv::Size(3, 3), 0.8);
  FeatFastShiTomasi one(63, 63);
  std::vector<cv::Point2f> none;
  one.updateGridCount(none, MOVE_NONE);
  ASSERT_EQ(one.blocks.size(), 1u);
  one.detectFeatFromBlock(img, none);
  EXPECT_TRUE(none.empty());
}

TEST(ShiTomasiScore, GuardEdgesAndCorners) {
  const cv::Mat noise = zolt::test::noise({32, 32}, CV_8UC1, 1);
  // The 8 x 8 window and its gradients must fit: x and y from 5 to size - 6.
  for (const cv::Point p :
       {cv::Point(4, 16), cv::Point(16, 4), cv::Point(27, 16), cv::Point(16, 27)})
    EXPECT_EQ(shiTomasiScore(noise, p.x, p.y), 0.0) << p;
  EXPECT_TRUE(shiTomasiScore(noise, 5, 5) > 0.0 && shiTomasiScore(noise, 26, 26) > 0.0);
  EXPECT_DOUBLE_EQ(shiTomasiScore(noise, 9, 17), shiTomasiScore(noise.t(), 17, 9));  // symmetric
  // An edge has one zero eigenvalue; a corner two positive ones.
  cv::Mat edge(32, 32, CV_8UC1, cv::Scalar(10)), corner = edge.clone();
  edge.colRange(16, 32).setTo(180);
  corner(cv::Rect(16, 16, 16, 16)).setTo(180);
  EXPECT_EQ(shiTomasiScore(edge, 16, 16), 0.0);
  // dx = 170 at columns 15 and 16 of rows 16..19 (8 samples), dy likewise, both only at
  // (16, 16): a = c = 8 units, b = 1 unit of 170^2 / 128; smaller eigenvalue a - b.
  EXPECT_NEAR(shiTomasiScore(corner, 16, 16), 7 * 170.0 * 170.0 / 128.0, 1e-9);
}

}  // namespace
