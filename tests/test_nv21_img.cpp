// NV21Img: owning and wrapping buffers, the preview frame cycle, deep copies and loads, and
// checked builds' aborts on broken caller promises.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "image/nv21_img.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"

namespace {

// A caller-owned NV21 frame with recognisable bytes.
zolt::test::Nv21Buffer callerFrame(int w, int h, uint8_t seed) {
  zolt::test::Nv21Buffer f(w, h);
  for (size_t i = 0; i < f.buf.size(); ++i) f.buf[i] = static_cast<uint8_t>(seed + i * 7);
  return f;
}

}  // namespace

TEST(NV21Img, CreateOwnsOneBufferWithPlanesAndViews) {
  NV21Img img;
  img.nvCreate(480, 640);  // height first
  EXPECT_TRUE(img.created && img.ownsBuffer);
  EXPECT_EQ(cv::Size(img.width, img.height), cv::Size(640, 480));
  EXPECT_EQ(img.vuPlane - img.yPlane, 307200);
  EXPECT_EQ(std::make_tuple(img.nv21Mat.size(), img.yMat.size(), img.vuMat.size(), img.vuMat.type()),
            std::make_tuple(cv::Size(640, 720), cv::Size(640, 480), cv::Size(320, 240), CV_8UC2));
  EXPECT_TRUE(img.nv21Mat.data == img.yPlane && img.yMat.data == img.yPlane &&
              img.vuMat.data == img.vuPlane);
  // The whole buffer is usable: last VU byte of a 640 x 480 image is at offset 460799.
  img.yPlane[460799] = 9;
  EXPECT_EQ(img.nv21Mat.at<uint8_t>(719, 639), 9);
  img.freeData();
  EXPECT_FALSE(img.created || img.ownsBuffer);
  EXPECT_TRUE(img.yPlane == nullptr && img.vuPlane == nullptr);

  // nvCreate frees an earlier buffer (ASan would report a leak); nvCreate_mem_alloc does not.
  img.nvCreate(4, 4);
  uint8_t* first = img.yPlane;
  img.nvCreate_mem_alloc(6, 8);
  EXPECT_NE(img.yPlane, first);
  EXPECT_EQ(img.width, 8);
  free(first);
  img.freeData();
}

// Wrapping shares the caller's planes and never frees them (ASan would catch it); copies are
// deep and independent.
TEST(NV21Img, WrapsWithoutFreeingAndCopiesDeep) {
  auto f = callerFrame(64, 48, 3);
  const std::vector<uint8_t> before = f.buf;
  NV21Img img, copy;
  img.nvCreate_shared_instance(&f.rec);
  EXPECT_TRUE(img.created && !img.ownsBuffer && img.yPlane == f.buf.data() &&
              img.yMat.data == f.buf.data() && img.vuMat.data == f.rec.planeVU);
  img.copyTo(copy);
  EXPECT_TRUE(copy.ownsBuffer && copy.yPlane != f.buf.data());
  EXPECT_EQ(0, std::memcmp(copy.yPlane, f.buf.data(), f.buf.size()));
  copy.yPlane[0] ^= 1;
  copy.freeData();
  img.freeData();
  EXPECT_EQ(img.yPlane, nullptr);
  EXPECT_EQ(f.buf, before);

  NV21Img owner, view;  // wrapping another image shares its planes
  owner.nvCreate(4, 6);
  view.nvCreate_shared_instance(owner);
  EXPECT_TRUE(view.yPlane == owner.yPlane && !view.ownsBuffer);
  view.freeData();
  owner.yPlane[0] = 1;  // still alive
  owner.freeData();
}

TEST(NV21Img, FrameBufferCycleRepointsWithoutReadingTheNewSize) {
  auto a = callerFrame(64, 48, 1), b = callerFrame(32, 16, 2);
  NV21Img img;
  img.nvLoadNV21_FWBuffer(&a.rec);  // empty image: wraps with a's size
  EXPECT_TRUE(img.width == 64 && img.yPlane == a.buf.data());
  img.nvLoadNV21_FWBuffer(&b.rec);  // created: only the pointers change
  EXPECT_EQ(cv::Size(img.width, img.height), cv::Size(64, 48));
  EXPECT_EQ(img.yMat.size(), cv::Size(64, 48));
  EXPECT_TRUE(img.yPlane == b.buf.data() && img.vuPlane == b.rec.planeVU &&
              img.yMat.data == b.buf.data());

  img.bgrMat.create(2, 2, CV_8UC3);
  img.freeData_FWBuffer();
  EXPECT_TRUE(!img.created && img.yPlane == nullptr && img.yMat.empty());
  EXPECT_TRUE(img.width == 64 && !img.bgrMat.empty());  // size and bgrMat survive the drop

  img.nvLoadNV21_FWBuffer(&b.rec);  // empty again: now b's own size
  EXPECT_EQ(cv::Size(img.width, img.height), cv::Size(32, 16));
}

// nvLoadNV21 from a record uses the record's size; from raw bytes the image's own.
TEST(NV21Img, LoadsCopyInAtTheRightSize) {
  auto f = callerFrame(10, 6, 5);
  NV21Img loaded;
  EXPECT_EQ(loaded.nvLoadNV21(&f.rec), 1);
  EXPECT_EQ(0, std::memcmp(loaded.yPlane, f.buf.data(), f.buf.size()));
  std::vector<uint8_t> raw(90, 77);
  zolt::test::LogCapture log;
  EXPECT_EQ(loaded.nvLoadNV21(raw.data(), 100, 100), 1);
  // Created earlier: keeps 10 x 6, so the last Y and VU bytes are the raw ones.
  EXPECT_TRUE(loaded.width == 10 && loaded.yPlane[59] == 77 && loaded.vuPlane[29] == 77);
  EXPECT_TRUE(log.contains(ANDROID_LOG_WARN, " MERGER UI First mem copy finished"));
  loaded.freeData();
  EXPECT_EQ(f.buf[0], 5);  // the source is untouched
}

TEST(NV21Img, MinmaxClampsWithHighInclusive) {
  const int in[] = {-1, 0, 2, 3, 5}, want[] = {0, 0, 2, 3, 3};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(minmax__(in[i], 0, 3), want[i]) << in[i];
}

#if defined(ZOLTPANO_CHECKS) || !defined(NDEBUG)
// Debug and sanitizer builds turn broken caller promises into an abort with a log line.
TEST(NV21ImgDeathTest, BrokenPromisesAbortInCheckedBuilds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto big = callerFrame(64, 48, 1);
  NV21Img img;
  img.nvCreate(8, 8);
  EXPECT_DEATH(img.nvLoadNV21(&big.rec), "");           // record larger than the image
  EXPECT_DEATH(img.nvLoadNV21_FWBuffer(&big.rec), "");  // would lose the owned buffer
  img.freeData();
}
#endif
