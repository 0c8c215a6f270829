// The C interface's fixed parts: the version and its log lines, the stubs, the record layout.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>

#include "support/log_capture.h"
#include "zolt_pano.h"

TEST(ZoltPanoApi, VersionIsOneStaticStringAndLogsTheBuild) {
  zolt::test::LogCapture log;
  const char* a = ZOLT_PANO_GetVersion();
  EXPECT_EQ(a, ZOLT_PANO_GetVersion());
  EXPECT_STREQ(a, "ZOLT_PANO_v3.7");
  const std::string expected =
      std::string("ZOLT Pano Library Version: ZOLT_PANO_v3.7__") + __DATE__ + "__";
  ASSERT_EQ(log.lines().size(), 2u);
  const auto line = log.lines()[0];
  EXPECT_EQ(line.tag, "PanoEngine");
  EXPECT_EQ(line.priority, ANDROID_LOG_INFO);
  EXPECT_EQ(line.message.rfind(expected, 0), 0u) << line.message;
  EXPECT_EQ(line.message.substr(line.message.size() - 2), " \n");

  log.clear();  // SetInternalParameter logs the version after GetVersion's own line
  EXPECT_EQ(ZOLT_PANO_SetInternalParameter(), 0);
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[0].message.rfind("ZOLT Pano Library Version: ", 0), 0u);
  EXPECT_EQ(log.lines()[1].message, "ZOLT Panorama Lib Version: ZOLT_PANO_v3.7 ");
  EXPECT_EQ(ZOLT_PANO_UpdateUIImage(), 0);
  EXPECT_EQ(ZOLT_PANO_Stitch(), 0);
}

// Every field is one word on 32-bit ARM (armeabi-v7a, and the armhf build under qemu): there
// the frame record is five words and `long*` results are one word.
TEST(ZoltPanoApi, RecordsKeepTheirWordLayout) {
  EXPECT_EQ(offsetof(tag_ZOLT_PANO_INIT_PARAM, mode), 32u);
  EXPECT_EQ(offsetof(tag_ZOLT_PANO_INIT_PARAM, previewWidth), 52u);
  EXPECT_EQ(offsetof(tag_ZOLT_PANO_INNER_PARAM, traceTooQuickOn), 44u);
  EXPECT_EQ(offsetof(tag_ZOLT_PANO_INNER_PARAM, traceTooQuickY), 52u);
  EXPECT_EQ(offsetof(__tag_ZOLT_OFFSCREEN, width), 4u);
  EXPECT_EQ(offsetof(__tag_ZOLT_OFFSCREEN, height), 8u);
  EXPECT_EQ(offsetof(__tag_ZOLT_OFFSCREEN, planeY), 12u + (sizeof(void*) - 4));
  EXPECT_EQ(offsetof(__tag_ZOLT_OFFSCREEN, planeVU), offsetof(__tag_ZOLT_OFFSCREEN, planeY) + sizeof(void*));
  if (sizeof(void*) == 4) {
    EXPECT_EQ(sizeof(long), 4u);
    EXPECT_EQ(sizeof(__tag_ZOLT_OFFSCREEN), 20u);
  }
  // A caller that fills the record as raw words gets the fields it meant.
  const int32_t words[16] = {0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 1920, 1080, 90};
  tag_ZOLT_PANO_INIT_PARAM p;
  std::memcpy(&p, words, sizeof p);
  EXPECT_EQ((std::array<int32_t, 4>{p.mode, p.previewWidth, p.previewHeight, p.camOrientation}),
            (std::array<int32_t, 4>{3, 1920, 1080, 90}));
  EXPECT_EQ(MOVE_UP, 4);
  EXPECT_EQ(WARN_TRACE_LITTLE_QUICK, 0x8080);
}
