// zoltpano stitch on footage as phones record it: a portrait clip whose sweep starts with a
// wobble the wrong way (the tool restarts the capture), rotation metadata, variable frame
// rates and a size change inside a video. Clips are made here: with cv::VideoWriter, and with
// the ffmpeg program for what only a real muxer writes (those cases skip without it).
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/photo_sweep.h"
#include "tools/frame_source.h"
#include "tools/stitch_session.h"

namespace fs = std::filesystem;
using zolt::tools::CaptureRecord;
using zolt::tools::FrameSource;
using zolt::tools::SourceOptions;
using zolt::tools::StitchOptions;
using zolt::tools::StitchResult;

namespace {

const char* kPhoto = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";

std::string freshDir(const std::string& name) {
  const fs::path d =
      fs::path(testing::TempDir()) / ("zolt_footage_" + name + std::to_string(::getpid()));
  fs::remove_all(d);
  fs::create_directories(d);
  return d.string();
}

bool haveFfmpeg() { return std::system("ffmpeg -version >/dev/null 2>&1") == 0; }

#define REQUIRE_FFMPEG()                                                               \
  if (!haveFfmpeg()) GTEST_SKIP() << "the ffmpeg program is missing (scripts/setup.sh " \
                                     "installs it); clips with container metadata need it"

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

// Mean luma of the four quarters of a delivered frame: top-left, top-right, bottom-left,
// bottom-right.
std::vector<double> quarters(const std::vector<uint8_t>& nv21, int w, int h) {
  cv::Mat y(h, w, CV_8UC1, const_cast<uint8_t*>(nv21.data()));
  std::vector<double> q;
  for (int r = 0; r < 2; ++r)
    for (int c = 0; c < 2; ++c)
      q.push_back(cv::mean(y(cv::Rect(c * w / 2, r * h / 2, w / 2, h / 2)))[0]);
  return q;
}

// Stitches `path` into `name`, quietly.
StitchResult stitchClip(const std::string& path, const std::string& name, bool restart) {
  auto src = FrameSource::open(path, {});
  StitchOptions opt;
  opt.name = name;
  opt.hints = false;
  opt.restart = restart;
  StitchResult r;
  zolt::tools::stitch(*src, opt, r);
  return r;
}

// A 720 x 1280 portrait clip over the photo: held still, a small wobble to the left (enough
// for the engine to take it as a sweep to the left), then the real sweep to the right across
// 3.7 frame widths; at `fps` frames per second (the same pictures whatever the rate).
constexpr int kPortraitW = 720, kPortraitH = 1280;
constexpr int kWobbleFrames = 8, kPanStart = 14, kPanStep = 30;
constexpr double kPanWidths = 3.7;

std::string writePortraitClip(const std::string& path, double fps) {
  zolt::test::PhotoSweep sweep(kPhoto, kPortraitW, kPortraitH, 1.15);
  if (!sweep.ok()) return std::string();
  cv::VideoWriter w(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps,
                    cv::Size(kPortraitW, kPortraitH));
  if (!w.isOpened()) return std::string();
  const double x0 = 300, y0 = 700, panEnd = x0 + kPanWidths * kPortraitW;
  std::vector<double> xs;
  for (int i = 0; i < 6; ++i) xs.push_back(x0);
  for (int i = 1; i <= kWobbleFrames; ++i) xs.push_back(x0 - 6.0 * i);
  while (static_cast<int>(xs.size()) < kPanStart) xs.push_back(xs.back());
  for (double x = xs.back(); x < panEnd;) xs.push_back(x = std::min(panEnd, x + kPanStep));
  for (int i = 0; i < 4; ++i) xs.push_back(panEnd);
  cv::Mat bgr;
  for (double x : xs) {
    NV21Img& f = sweep.at(x, y0);
    cv::cvtColor(cv::Mat(kPortraitH, kPortraitW, CV_8UC1, f.yPlane), bgr, cv::COLOR_GRAY2BGR);
    w.write(bgr);
  }
  return path;
}

// The clip at 30 frames/s, written once per process.
const std::string& portraitClip() {
  static const std::string path = [] {
    static std::string dir;
    dir = freshDir("portrait");
    std::atexit([] { fs::remove_all(dir); });
    return writePortraitClip(dir + "/portrait.avi", 30);
  }();
  return path;
}

}  // namespace

// The wobble fixes the direction as left; the sweep to the right is then refused frame after
// frame. One capture (as the engine alone gives it) is a stub; with restarts the tool gives
// the long panorama to the right and keeps the stub beside it.
TEST(StitchFootage, PortraitSweepAfterAWobbleGivesTheLongPanorama) {
  const std::string& clip = portraitClip();
  if (clip.empty()) GTEST_SKIP() << "no photo at " << kPhoto << " or no MJPG writer";
  const std::string dir = freshDir("portrait_out");

  const StitchResult once = stitchClip(clip, dir + "/once", false);
  ASSERT_EQ(once.captures.size(), 1u);
  EXPECT_EQ(once.direction, MOVE_LEFT);
  EXPECT_LT(once.panorama.cols, 2 * kPortraitW);

  const StitchResult r = stitchClip(clip, dir + "/pano", true);
  ASSERT_GE(r.captures.size(), 2u);
  const CaptureRecord& first = r.captures.front();
  const CaptureRecord& best = r.captures[static_cast<size_t>(r.chosenCapture)];
  EXPECT_EQ(first.direction, MOVE_LEFT);
  EXPECT_TRUE(zolt::tools::refusesSweep(first.endCode)) << std::hex << first.endCode;
  EXPECT_EQ(best.direction, MOVE_RIGHT);
  EXPECT_EQ(r.direction, MOVE_RIGHT);
  EXPECT_EQ(best.panoramaPath, dir + "/pano.jpg");
  EXPECT_EQ(r.panoramaPath, best.panoramaPath);
  EXPECT_EQ(first.panoramaPath, dir + "/pano_capture1.jpg");
  EXPECT_FALSE(cv::imread(first.panoramaPath).empty());
  // Nearly all of the sweep to the right (3.7 widths plus the frame itself): the new capture
  // starts where the wobble's panorama ends.
  EXPECT_EQ(r.panorama.rows, kPortraitH);
  EXPECT_GT(r.panorama.cols, static_cast<int>((kPanWidths + 0.9) * kPortraitW));
  EXPECT_EQ(best.panoramaSize, r.panorama.size());
  EXPECT_EQ(best.length, r.panorama.cols);
  for (const CaptureRecord& c : r.captures)
    if (&c != &best) {
      EXPECT_LT(c.length, best.length) << "capture " << c.number;
    }

  // Captures cover the clip in order; a new one starts on a frame the one before saw but did
  // not take (fed again), and every frame of the clip went to some capture.
  for (size_t i = 1; i < r.captures.size(); ++i) {
    EXPECT_EQ(r.captures[i].number, static_cast<int>(i) + 1);
    EXPECT_GT(r.captures[i].firstFrame, r.captures[i - 1].firstFrame);
    EXPECT_LE(r.captures[i].firstFrame, r.captures[i - 1].lastFrame);
  }
  EXPECT_EQ(first.firstFrame, 0);
  EXPECT_EQ(r.captures.back().lastFrame, r.frames.back().frame);
  EXPECT_GT(r.frames.size(), once.frames.size());  // the refused runs, fed again
  int perCapture = 0;
  for (const CaptureRecord& c : r.captures) perCapture += c.frames;
  EXPECT_EQ(static_cast<size_t>(perCapture), r.frames.size());

  // The CSV says which capture each frame went to, and the frame times.
  std::ifstream csv(dir + "/pano.csv");
  std::string line;
  std::getline(csv, line);
  EXPECT_EQ(line.substr(line.rfind(",add_ms,") + 1), "add_ms,capture,time_ms");
  size_t rows = 0;
  int lastCapture = 1;
  while (std::getline(csv, line)) {
    const size_t c2 = line.rfind(','), c1 = line.rfind(',', c2 - 1);
    const int capture = std::stoi(line.substr(c1 + 1, c2 - c1 - 1));
    const double t = std::stod(line.substr(c2 + 1));
    const int frame = std::stoi(line.substr(0, line.find(',')));
    EXPECT_NEAR(t, frame * 1000.0 / 30.0, 0.5) << line;
    EXPECT_GE(capture, lastCapture) << line;
    lastCapture = capture;
    ++rows;
  }
  EXPECT_EQ(rows, r.frames.size());
  EXPECT_EQ(lastCapture, static_cast<int>(r.captures.size()));
}

// The restart rule counts the clip's time: at 240 frames/s the refused stretch of the same
// pictures lasts well under a second, the engine's single capture stands.
TEST(StitchFootage, RefusalsShorterThanASecondKeepTheCapture) {
  const std::string dir = freshDir("fast");
  const std::string clip = writePortraitClip(dir + "/fast.avi", 240);
  if (clip.empty()) GTEST_SKIP() << "no photo at " << kPhoto << " or no MJPG writer";
  const StitchResult r = stitchClip(clip, dir + "/pano", true);
  EXPECT_EQ(r.captures.size(), 1u);
  EXPECT_EQ(r.direction, MOVE_LEFT);
  EXPECT_NEAR(r.frames.back().timeMs, r.frames.back().frame * 1000.0 / 240, 0.5);
}

// A portrait clip as phones store it: landscape pictures plus a rotation in the container.
// The frames arrive upright, the rotation is reported.
TEST(StitchFootage, RotationMetadataTurnsFramesUpright) {
  REQUIRE_FFMPEG();
  const std::string dir = freshDir("rotation");
  const cv::Mat pic = oriented(1280, 720);
  cv::imwrite(dir + "/pic.png", pic);
  ASSERT_TRUE(ffmpeg("-loop 1 -framerate 30 -i " + dir + "/pic.png -frames:v 3 -c:v libx264 "
                     "-pix_fmt yuv420p " + dir + "/plain.mp4"));
  const struct {
    int degrees;
    cv::RotateFlags turn;
  } cases[] = {{90, cv::ROTATE_90_CLOCKWISE}, {270, cv::ROTATE_90_COUNTERCLOCKWISE},
               {180, cv::ROTATE_180}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.degrees);
    // Tagged the way a phone's muxer does it: the stream as stored, plus the rotation.
    const std::string clip = dir + "/r" + std::to_string(c.degrees) + ".mp4";
    ASSERT_TRUE(ffmpeg("-i " + dir + "/plain.mp4 -c copy -metadata:s:v:0 rotate=" +
                       std::to_string(c.degrees) + " " + clip));
    auto src = FrameSource::open(clip, {});
    EXPECT_EQ(src->rotation(), c.degrees);
    cv::Mat upright;
    cv::rotate(pic, upright, c.turn);
    ASSERT_EQ(cv::Size(src->width(), src->height()), upright.size());
    std::vector<uint8_t> f;
    ASSERT_TRUE(src->next(f));
    cv::Mat grey;
    cv::cvtColor(upright, grey, cv::COLOR_BGR2GRAY);
    std::vector<uint8_t> want(grey.total() * 3 / 2, 128);
    std::copy(grey.datastart, grey.dataend, want.begin());
    const std::vector<double> got = quarters(f, src->width(), src->height());
    const std::vector<double> expect = quarters(want, grey.cols, grey.rows);
    for (int q = 0; q < 4; ++q) EXPECT_NEAR(got[q], expect[q], 6.0) << "quarter " << q;
  }
  // A clip without the tag stays as stored.
  auto plain = FrameSource::open(dir + "/plain.mp4", {});
  EXPECT_EQ(plain->rotation(), 0);
  EXPECT_EQ(cv::Size(plain->width(), plain->height()), cv::Size(1280, 720));
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
  ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=1280x720:rate=30 -frames:v 4 -c:v mjpeg " + dir +
                     "/a.avi"));
  ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=960x720:rate=30 -frames:v 4 -c:v mjpeg " + dir +
                     "/b.avi"));
  std::ofstream(dir + "/list.txt") << "file 'a.avi'\nfile 'b.avi'\n";
  ASSERT_TRUE(ffmpeg("-f concat -safe 0 -i " + dir + "/list.txt -c copy " + dir + "/ab.avi"));
  auto src = FrameSource::open(dir + "/ab.avi", {});
  std::vector<uint8_t> f;
  int n = 0;
  for (; src->next(f); ++n) ASSERT_EQ(f.size(), 1280u * 720u * 3 / 2) << "frame " << n;
  EXPECT_EQ(n, 8);
}

// Awkward clips made with the writer: frames too small for the engine (refused, or scaled up
// on request) and a camera held still over the photo (no panorama, said so).
TEST(StitchFootage, SmallAndStillClips) {
  const cv::Mat photo = cv::imread(kPhoto);
  if (photo.empty()) GTEST_SKIP() << "no photo at " << kPhoto;
  const std::string dir = freshDir("awkward");
  auto write = [&](const std::string& name, cv::Size size, int frames) {
    cv::VideoWriter w(dir + "/" + name, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'),
                      30, size);
    const cv::Mat pic = photo(cv::Rect(cv::Point(600, 900), size)).clone();
    for (int i = 0; i < frames; ++i) w.write(pic);
  };
  write("small.avi", cv::Size(640, 480), 3);
  write("still.avi", cv::Size(1280, 720), 12);

  auto errorOf = [](const std::string& path, const SourceOptions& opt) -> std::string {
    try {
      FrameSource::open(path, opt);
    } catch (const zolt::tools::InputError& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(errorOf(dir + "/small.avi", {}),
            "frames are 640x480: the engine needs both sides above 640 (--upscale scales them up)");
  SourceOptions up;
  up.upscale = true;
  auto small = FrameSource::open(dir + "/small.avi", up);
  EXPECT_EQ(cv::Size(small->width(), small->height()), cv::Size(856, 642));

  auto still = FrameSource::open(dir + "/still.avi", {});
  StitchOptions opt;
  opt.name = dir + "/still";
  opt.hints = false;
  StitchResult r;
  std::string error;
  try {
    zolt::tools::stitch(*still, opt, r);
  } catch (const zolt::tools::StitchError& e) {
    error = e.what();
  }
  EXPECT_EQ(error, "no panorama: the engine merged no key frame");
  EXPECT_EQ(r.frames.size(), 12u);
  EXPECT_TRUE(r.panoramaPath.empty());
  EXPECT_TRUE(fs::exists(dir + "/still.csv"));  // the per-frame record is still written
}
