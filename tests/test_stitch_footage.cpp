// zoltpano stitch on footage as phones record it: a portrait clip whose sweep starts with a
// wobble the wrong way (the tool restarts the capture), rotation metadata, variable frame
// rates and a size change inside a video. Clips are made here: with cv::VideoWriter, and with
// the ffmpeg program for what only a real muxer writes (those cases skip without it).
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "support/photo_sweep.h"
#include "support/stitch_inputs.h"

namespace fs = std::filesystem;
using namespace zolt::test;
using namespace zolt::tools;

namespace {

#define REQUIRE_FFMPEG()                                                              \
  if (std::system("ffmpeg -version >/dev/null 2>&1") != 0)                            \
  GTEST_SKIP() << "the ffmpeg program is missing (scripts/setup.sh installs it); clips " \
                  "with container metadata need it"

// Runs ffmpeg quietly; true on success.
bool ffmpeg(const std::string& args) {
  return std::system(("ffmpeg -nostdin -v error -y " + args + " >/dev/null 2>&1").c_str()) == 0;
}

// A picture that shows which way up it is: dark left half, a bright top-right quarter and a
// mid-grey bottom-right one, with fine texture everywhere.
cv::Mat oriented(int w, int h) {
  cv::Mat m(h, w, CV_8UC3, cv::Scalar::all(40));
  m(cv::Rect(w / 2, 0, w - w / 2, h / 2)).setTo(cv::Scalar::all(220));
  m(cv::Rect(w / 2, h / 2, w - w / 2, h - h / 2)).setTo(cv::Scalar::all(130));
  cv::Mat noise(h, w, CV_8UC3);
  cv::RNG(7).fill(noise, cv::RNG::UNIFORM, 0, 20);
  return m + noise;
}

// Mean luma of the four quarters: top-left, top-right, bottom-left, bottom-right.
cv::Vec4d quarters(const cv::Mat& y) {
  const int w = y.cols / 2, h = y.rows / 2;
  return {cv::mean(y(cv::Rect(0, 0, w, h)))[0], cv::mean(y(cv::Rect(w, 0, w, h)))[0],
          cv::mean(y(cv::Rect(0, h, w, h)))[0], cv::mean(y(cv::Rect(w, h, w, h)))[0]};
}

StitchResult stitchClip(const std::string& path, const std::string& name, bool restart,
                        std::string* error = nullptr) {
  StitchOptions opt;
  opt.restart = restart;
  return stitchPath(path, name, opt, {}, error);
}

// A 720 x 1280 portrait clip over the photo: held still, a small wobble to the left (enough
// for the engine to take it as a sweep to the left), then the real sweep to the right across
// 3.7 frame widths; at `fps` frames per second (the same pictures whatever the rate).
constexpr int kPortraitW = 720, kPortraitH = 1280;
constexpr double kPanWidths = 3.7;

std::string writePortraitClip(const std::string& path, double fps) {
  PhotoSweep sweep(kStitchPhoto, kPortraitW, kPortraitH, 1.15);
  if (!sweep.ok()) return "";
  const double x0 = 300, panEnd = x0 + kPanWidths * kPortraitW;
  std::vector<double> xs(6, x0);
  for (int i = 1; i <= 8; ++i) xs.push_back(x0 - 6.0 * i);
  xs.resize(14, xs.back());
  for (double x = xs.back(); x < panEnd;) xs.push_back(x = std::min(panEnd, x + 30));
  xs.resize(xs.size() + 4, panEnd);
  cv::Mat bgr;
  const cv::Size size(kPortraitW, kPortraitH);
  const bool ok = writeClip(path, size, fps, static_cast<int>(xs.size()), [&](int i) {
    cv::cvtColor(cv::Mat(size, CV_8UC1, sweep.at(xs[static_cast<size_t>(i)], 700).yPlane), bgr, cv::COLOR_GRAY2BGR);
    return bgr;
  });
  return ok ? path : "";
}

}  // namespace

// The wobble fixes the direction as left; the sweep to the right is then refused frame after
// frame. One capture (as the engine alone gives it) is a stub; with restarts the tool gives
// the long panorama to the right and keeps the stub beside it, refused by the engine's verdict
// as a single view. The same clip at 240 frames/s
// keeps its single capture (the refusals last under a second).
TEST(StitchFootage, PortraitSweepAfterAWobbleGivesTheLongPanorama) {
  const std::string dir = freshDir("portrait");
  const std::string clip = writePortraitClip(dir + "/portrait.avi", 30);
  if (clip.empty()) GTEST_SKIP() << "no photo at " << kStitchPhoto << " or no MJPG writer";

  const StitchResult once = stitchClip(clip, dir + "/once", false);
  EXPECT_TRUE(once.captures.size() == 1u && once.direction == MOVE_LEFT);
  EXPECT_LT(once.panorama.cols, 2 * kPortraitW);

  const StitchResult r = stitchClip(clip, dir + "/pano", true);
  ASSERT_GE(r.captures.size(), 2u);
  const CaptureRecord& first = r.captures.front();
  const CaptureRecord& best = r.captures[static_cast<size_t>(r.chosenCapture)];
  EXPECT_EQ(first.direction, MOVE_LEFT);
  EXPECT_TRUE(zolt::tools::refusesSweep(first.endCode)) << std::hex << first.endCode;
  EXPECT_TRUE(best.direction == MOVE_RIGHT && r.direction == MOVE_RIGHT);
  EXPECT_TRUE(r.panoramaPath == dir + "/pano.jpg" && best.panoramaPath == r.panoramaPath);
  EXPECT_FALSE(cv::imread(dir + "/pano_capture1_refused.jpg").empty());  // the stub is kept
  EXPECT_EQ(first.gate.code, ZOLT_PANO_VERDICT_SINGLE_VIEW) << first.gate.message;
  EXPECT_TRUE(best.gate.judged && best.gate.passed) << best.gate.message;
  // Nearly all of the sweep to the right (3.7 widths plus the frame itself): the new capture
  // starts where the wobble's panorama ends.
  EXPECT_EQ(r.panorama.rows, kPortraitH);
  EXPECT_GT(r.panorama.cols, static_cast<int>((kPanWidths + 0.9) * kPortraitW));
  EXPECT_EQ(best.length, r.panorama.cols);

  // Captures cover the clip in order; a new one starts on a frame the one before saw but did
  // not take (fed again), and every frame fed went to exactly one capture.
  size_t fed = 0;
  for (size_t i = 0; i < r.captures.size(); ++i) {
    const CaptureRecord& c = r.captures[i];
    SCOPED_TRACE(c.number);
    EXPECT_EQ(c.number, static_cast<int>(i) + 1);
    EXPECT_TRUE(&c == &best || c.length < best.length);
    const CaptureRecord& prev = r.captures[i > 0 ? i - 1 : 0];
    EXPECT_TRUE(i == 0 || (c.firstFrame > prev.firstFrame && c.firstFrame <= prev.lastFrame));
    fed += static_cast<size_t>(c.frames);
  }
  EXPECT_TRUE(first.firstFrame == 0 && r.captures.back().lastFrame == r.frames.back().frame);
  EXPECT_EQ(fed, r.frames.size());

  // Each frame's capture never goes back, and its time is the clip's.
  int lastCapture = 1;
  for (const auto& f : r.frames) {
    EXPECT_NEAR(f.timeMs, f.frame * 1000.0 / 30.0, 0.5) << "frame " << f.frame;
    EXPECT_GE(f.capture, lastCapture) << "frame " << f.frame;
    lastCapture = f.capture;
  }
  EXPECT_EQ(lastCapture, static_cast<int>(r.captures.size()));

  // The restart rule counts the clip's time: at 240 frames/s the refused stretch of the same
  // pictures lasts well under a second, and the engine's single capture stands.
  const std::string fast = writePortraitClip(dir + "/fast.avi", 240);
  ASSERT_FALSE(fast.empty());
  const StitchResult f = stitchClip(fast, dir + "/fast", true);
  EXPECT_TRUE(f.captures.size() == 1u && f.direction == MOVE_LEFT);
  EXPECT_NEAR(f.frames.back().timeMs, f.frames.back().frame * 1000.0 / 240, 0.5);
}

// A portrait clip as phones store it: landscape pictures plus a rotation in the container.
// The frames arrive upright, the rotation is reported; a clip without the tag stays as stored.
TEST(StitchFootage, RotationMetadataTurnsFramesUpright) {
  REQUIRE_FFMPEG();
  const std::string dir = freshDir("rotation");
  const cv::Mat pic = oriented(1280, 720);
  cv::imwrite(dir + "/pic.png", pic);
  ASSERT_TRUE(ffmpeg("-loop 1 -framerate 30 -i " + dir + "/pic.png -frames:v 3 -c:v libx264 "
                     "-pix_fmt yuv420p " + dir + "/plain.mp4"));
  const struct {
    int degrees, turn;  // turn: a cv::RotateFlags, -1 for none
  } cases[] = {{90, cv::ROTATE_90_CLOCKWISE}, {270, cv::ROTATE_90_COUNTERCLOCKWISE},
               {180, cv::ROTATE_180}, {0, -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.degrees);
    // Tagged the way a phone's muxer does it: the stream as stored, plus the rotation.
    std::string clip = dir + "/plain.mp4";
    if (c.degrees != 0) {
      clip = dir + "/r" + std::to_string(c.degrees) + ".mp4";
      ASSERT_TRUE(ffmpeg("-i " + dir + "/plain.mp4 -c copy -metadata:s:v:0 rotate=" +
                         std::to_string(c.degrees) + " " + clip));
    }
    auto src = FrameSource::open(clip, {});
    EXPECT_EQ(src->rotation(), c.degrees);
    cv::Mat upright = pic.clone(), grey;
    if (c.turn >= 0) cv::rotate(pic, upright, c.turn);
    cv::cvtColor(upright, grey, cv::COLOR_BGR2GRAY);
    ASSERT_EQ(cv::Size(src->width(), src->height()), grey.size());
    std::vector<uint8_t> f;
    ASSERT_TRUE(src->next(f));
    const cv::Vec4d got = quarters(cv::Mat(grey.size(), CV_8UC1, f.data()));
    const cv::Vec4d want = quarters(grey);
    for (int q = 0; q < 4; ++q) EXPECT_NEAR(got[q], want[q], 6.0) << "quarter " << q;
  }
}

// Frame times come from the container, so a clip whose frames are unevenly spaced keeps its
// real times (the restart rule measures its runs in them); frames the decoder hands out
// without a time (the last ones of a clip with B-frames) follow at the nominal rate.
TEST(StitchFootage, VariableFrameRateKeepsTheContainersTimes) {
  REQUIRE_FFMPEG();
  const std::string dir = freshDir("vfr");
  cv::imwrite(dir + "/pic.png", oriented(1280, 720));
  // Frame n is shown at n * (n + 1) * 20 ms: gaps of 40, 80, 120 ... ms.
  ASSERT_TRUE(ffmpeg("-loop 1 -framerate 30 -i " + dir + "/pic.png -frames:v 8 -vf "
                     "'settb=1/1000,setpts=N*(N+1)*20' -fps_mode passthrough -c:v libx264 "
                     "-enc_time_base 1:1000 -bf 0 -pix_fmt yuv420p " + dir + "/vfr.mp4"));
  auto src = FrameSource::open(dir + "/vfr.mp4", {});
  std::vector<uint8_t> f;
  std::vector<double> times;
  while (src->next(f)) times.push_back(src->timeMs());
  ASSERT_EQ(times.size(), 8u);
  for (size_t n = 0; n < times.size(); ++n)
    EXPECT_NEAR(times[n], n * (n + 1) * 20.0, 1.0) << "frame " << n;

  ASSERT_TRUE(ffmpeg("-loop 1 -framerate 25 -i " + dir + "/pic.png -frames:v 12 -c:v libx264 "
                     "-bf 3 -pix_fmt yuv420p " + dir + "/bframes.mp4"));
  auto b = FrameSource::open(dir + "/bframes.mp4", {});
  for (int n = 0; b->next(f); ++n) EXPECT_NEAR(b->timeMs(), n * 40.0, 0.5) << "frame " << n;
}

// The FFmpeg backend scales every picture of a video to the size of its first one, so a clip
// whose size changes inside the stream reaches the tool at one size (an image folder, whose
// sizes the tool sees, is refused at the change).
TEST(StitchFootage, VideoSizeChangeArrivesAtTheFirstSize) {
  REQUIRE_FFMPEG();
  const std::string dir = freshDir("resize");
  for (const char* part : {"a:1280x720", "b:960x720"})
    ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=" + std::string(part + 2) +
                       ":rate=30 -frames:v 4 -c:v mjpeg " + dir + "/" + part[0] + ".avi"));
  std::ofstream(dir + "/list.txt") << "file 'a.avi'\nfile 'b.avi'\n";
  ASSERT_TRUE(ffmpeg("-f concat -safe 0 -i " + dir + "/list.txt -c copy " + dir + "/ab.avi"));
  auto src = FrameSource::open(dir + "/ab.avi", {});
  std::vector<uint8_t> f;
  int n = 0;
  for (; src->next(f); ++n) ASSERT_EQ(f.size(), 1280u * 720u * 3 / 2) << "frame " << n;
  EXPECT_EQ(n, 8);
}

// A camera held still over the photo: no panorama, said so, the per-frame record still written.
// The clip's odd sides arrive cropped to even ones, at the clip's rate.
TEST(StitchFootage, StillClipGivesNoPanorama) {
  const cv::Mat photo = cv::imread(kStitchPhoto);
  if (photo.empty()) GTEST_SKIP() << "no photo at " << kStitchPhoto;
  const std::string dir = freshDir("still");
  const cv::Mat pic = photo(cv::Rect(600, 900, 1281, 721)).clone();
  ASSERT_TRUE(writeClip(dir + "/still.avi", pic.size(), 25, 12, [&](int) { return pic; }));
  auto src = FrameSource::open(dir + "/still.avi", {});
  EXPECT_EQ(src->kind(), "video");
  EXPECT_EQ(cv::Size(src->width(), src->height()), cv::Size(1280, 720));
  EXPECT_NEAR(src->fps(), 25.0, 0.01);
  std::string error;
  const StitchResult r = stitchClip(dir + "/still.avi", dir + "/still", true, &error);
  EXPECT_EQ(error, "no panorama: the engine merged no key frame");
  EXPECT_TRUE(r.frames.size() == 12u && r.panoramaPath.empty());
  EXPECT_TRUE(fs::exists(dir + "/still.csv"));
}
