#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <vector>

#include "image/nv21_img.h"
#include "support/log_capture.h"

namespace {

// A caller-owned NV21 frame with recognisable bytes.
struct CallerFrame {
  std::vector<uint8_t> bytes;
  __tag_ZOLT_OFFSCREEN rec{};
  CallerFrame(int w, int h, uint8_t seed) : bytes(static_cast<size_t>(w) * h * 3 / 2) {
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(seed + i * 7);
    rec = {0x11, w, h, bytes.data(), bytes.data() + static_cast<size_t>(w) * h};
  }
};

}  // namespace

TEST(NV21Img, CreateOwnsOneBufferWithPlanesAndViews) {
  NV21Img img;
  img.nvCreate(480, 640);  // height first
  EXPECT_TRUE(img.created);
  EXPECT_TRUE(img.ownsBuffer);
  EXPECT_EQ(img.width, 640);
  EXPECT_EQ(img.height, 480);
  EXPECT_EQ(img.yStride, 640);
  EXPECT_EQ(img.doubleWidth, 1280);
  EXPECT_EQ(img.vuPlane - img.yPlane, 307200);
  EXPECT_EQ(img.nv21Mat.rows, 720);
  EXPECT_EQ(img.nv21Mat.cols, 640);
  EXPECT_EQ(img.nv21Mat.data, img.yPlane);
  EXPECT_EQ(img.yMat.size(), cv::Size(640, 480));
  EXPECT_EQ(img.vuMat.size(), cv::Size(320, 240));
  EXPECT_EQ(img.vuMat.type(), CV_8UC2);
  EXPECT_EQ(img.vuMat.data, img.vuPlane);
  // The whole buffer is usable: last VU byte of a 640 x 480 image is at offset 460799.
  img.yPlane[460799] = 9;
  EXPECT_EQ(img.nv21Mat.at<uint8_t>(719, 639), 9);
  img.freeData();
  EXPECT_FALSE(img.created);
  EXPECT_FALSE(img.ownsBuffer);
  EXPECT_EQ(img.yPlane, nullptr);
  EXPECT_EQ(img.vuPlane, nullptr);
}

TEST(NV21Img, WrappingNeverFreesOrCopiesTheCallersBuffer) {
  CallerFrame f(64, 48, 3);
  const std::vector<uint8_t> before = f.bytes;
  NV21Img img;
  img.nvCreate_shared_instance(&f.rec);
  EXPECT_TRUE(img.created);
  EXPECT_FALSE(img.ownsBuffer);
  EXPECT_EQ(img.yPlane, f.bytes.data());
  EXPECT_EQ(img.yMat.data, f.bytes.data());
  EXPECT_EQ(img.vuMat.data, f.rec.planeVU);
  img.freeData();  // must not free the caller's memory (ASan would catch it)
  EXPECT_EQ(img.yPlane, nullptr);
  EXPECT_EQ(f.bytes, before);

  // Wrapping another image shares its planes.
  NV21Img owner, view;
  owner.nvCreate(4, 6);
  view.nvCreate_shared_instance(owner);
  EXPECT_EQ(view.yPlane, owner.yPlane);
  EXPECT_FALSE(view.ownsBuffer);
  view.freeData();
  owner.yPlane[0] = 1;  // still alive
  owner.freeData();
}

TEST(NV21Img, FrameBufferCycleRepointsWithoutReadingTheNewSize) {
  CallerFrame a(64, 48, 1), b(32, 16, 2);
  NV21Img img;
  img.nvLoadNV21_FWBuffer(&a.rec);  // empty image: wraps with a's size
  EXPECT_EQ(img.width, 64);
  EXPECT_EQ(img.yPlane, a.bytes.data());
  img.nvLoadNV21_FWBuffer(&b.rec);  // created: only the pointers change
  EXPECT_EQ(img.width, 64);
  EXPECT_EQ(img.height, 48);
  EXPECT_EQ(img.yPlane, b.bytes.data());
  EXPECT_EQ(img.vuPlane, b.rec.planeVU);
  EXPECT_EQ(img.yMat.data, b.bytes.data());
  EXPECT_EQ(img.yMat.size(), cv::Size(64, 48));

  img.bgrMat.create(2, 2, CV_8UC3);
  img.freeData_FWBuffer();
  EXPECT_FALSE(img.created);
  EXPECT_EQ(img.yPlane, nullptr);
  EXPECT_TRUE(img.yMat.empty());
  EXPECT_EQ(img.width, 64);  // size and bgrMat survive the drop
  EXPECT_FALSE(img.bgrMat.empty());

  img.nvLoadNV21_FWBuffer(&b.rec);  // empty again: now b's own size
  EXPECT_EQ(img.width, 32);
  EXPECT_EQ(img.height, 16);
}

TEST(NV21Img, CopiesAreDeepAndIndependent) {
  CallerFrame f(10, 6, 5);
  NV21Img wrap, copy;
  wrap.nvCreate_shared_instance(&f.rec);
  wrap.copyTo(copy);
  EXPECT_TRUE(copy.ownsBuffer);
  EXPECT_NE(copy.yPlane, f.bytes.data());
  EXPECT_EQ(0, std::memcmp(copy.yPlane, f.bytes.data(), f.bytes.size()));
  copy.freeData();
  EXPECT_EQ(f.bytes[0], 5);  // the source is untouched

  // nvLoadNV21 from a record uses the record's size; from raw bytes the image's own.
  NV21Img loaded;
  EXPECT_EQ(loaded.nvLoadNV21(&f.rec), 1);
  EXPECT_TRUE(loaded.ownsBuffer);
  EXPECT_EQ(0, std::memcmp(loaded.yPlane, f.bytes.data(), f.bytes.size()));
  std::vector<uint8_t> raw(90, 77);
  zolt::test::LogCapture log;
  EXPECT_EQ(loaded.nvLoadNV21(raw.data(), 100, 100), 1);
  EXPECT_EQ(loaded.width, 10);  // created earlier: keeps 10 x 6
  EXPECT_EQ(loaded.yPlane[59], 77);
  EXPECT_EQ(loaded.vuPlane[29], 77);
  EXPECT_TRUE(log.contains(ANDROID_LOG_WARN, " MERGER UI First mem copy finished"));
  loaded.freeData();
}

TEST(NV21Img, RecreateFreesButMemAllocVariantKeepsTheOldBuffer) {
  NV21Img img;
  img.nvCreate(4, 4);
  uint8_t* first = img.yPlane;
  img.nvCreate_mem_alloc(6, 8);  // the earlier buffer is not freed: release it ourselves
  EXPECT_NE(img.yPlane, first);
  EXPECT_EQ(img.width, 8);
  free(first);
  img.nvCreate(2, 2);
  img.freeData();
}

TEST(NV21Img, MinmaxClampsWithHighInclusive) {
  EXPECT_EQ(minmax__(5, 0, 3), 3);
  EXPECT_EQ(minmax__(-1, 0, 3), 0);
  EXPECT_EQ(minmax__(3, 0, 3), 3);
  EXPECT_EQ(minmax__(2, 0, 3), 2);
  EXPECT_EQ(minmax__(0, 0, 3), 0);
}

#if defined(ZOLTPANO_CHECKS) || !defined(NDEBUG)
// Debug and sanitizer builds turn broken caller promises into an abort with a log line.
TEST(NV21ImgDeathTest, BrokenPromisesAbortInCheckedBuilds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  CallerFrame big(64, 48, 1);
  EXPECT_DEATH(
      {
        NV21Img small;
        small.nvCreate(8, 8);
        small.nvLoadNV21(&big.rec);  // record larger than the image
      },
      "");
  EXPECT_DEATH(
      {
        NV21Img owner;
        owner.nvCreate(8, 8);
        owner.nvLoadNV21_FWBuffer(&big.rec);  // would lose the owned buffer
      },
      "");
}
#endif
