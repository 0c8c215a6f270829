// The C interface's fixed parts: the version and its log lines, the stubs, the record layout.
#include <gtest/gtest.h>

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
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  const auto& line = lines[0];
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
  int32_t words[16] = {0};
  words[8] = 3;
  words[13] = 1920;
  words[14] = 1080;
  words[15] = 90;
  tag_ZOLT_PANO_INIT_PARAM p;
  std::memcpy(&p, words, sizeof p);
  EXPECT_EQ(p.mode, 3);
  EXPECT_EQ(p.previewWidth, 1920);
  EXPECT_EQ(p.previewHeight, 1080);
  EXPECT_EQ(p.camOrientation, 90);
  EXPECT_EQ(MOVE_UP, 4);
  EXPECT_EQ(WARN_TRACE_LITTLE_QUICK, 0x8080);
}
