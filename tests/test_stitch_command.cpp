// zoltpano stitch's pieces: frame sources (image folders and sweeps; small and changing
// frame sizes) and whole sweeps through the C interface with their outputs and fallbacks.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "sim/sweep_simulator.h"
#include "sim/sweep_writer.h"
#include "support/sim_sweep.h"
#include "support/stitch_inputs.h"

namespace fs = std::filesystem;
using namespace zolt::test;
using namespace zolt::tools;

namespace {

// A 20-frame 1280 x 720 steady sweep written once per test process.
const std::string& sweepDir() {
  static const std::string dir = [] {
    static std::string root;
    root = freshDir("sweep");
    std::atexit([] { fs::remove_all(root); });
    zolt::sim::SweepSimulator sim(simSweep("steady", kStitchPhoto, 20));
    zolt::sim::SweepWriter::write(sim, root + "/s");
    return root + "/s";
  }();
  return dir;
}

}  // namespace

// The smallest even size above 640 on both sides with the aspect kept; a side too long for an
// int stops just below INT_MAX.
TEST(StitchFrameSource, UpscaledSizeIsTheSmallestEvenSizeAbove640WithTheAspect) {
  const struct { int w, h, wantW, wantH; } cases[] = {
      {640, 480, 856, 642}, {480, 640, 642, 856}, {1280, 640, 1284, 642}, {641, 700, 642, 702},
      {2, 20000000, 642, INT_MAX - 1}};
  for (const auto& c : cases) {
    int w = 0, h = 0;
    upscaledSize(c.w, c.h, w, h);
    EXPECT_EQ(cv::Size(w, h), cv::Size(c.wantW, c.wantH)) << c.w << "x" << c.h;
  }
}

TEST(StitchFrameSource, ImageFolderInNameOrderWithRangeAndUpscale) {
  const std::string dir = freshDir("small");
  // Written out of name order; the pictures differ so that the order shows in the frames.
  for (int i : {2, 0, 1})
    cv::imwrite(dir + "/img" + std::to_string(i) + ".png", texture(320, 240, i));
  std::ofstream(dir + "/notes.txt") << "not an image";
  EXPECT_EQ(inputErrorOf(dir), "frames are 320x240: the engine needs both sides above 640 "
                          "(--upscale scales them up)");

  SourceOptions opt;
  opt.upscale = true;
  opt.first = 1;
  opt.count = 5;
  auto src = FrameSource::open(dir, opt);
  EXPECT_TRUE(src->kind() == "images" && src->expectedFrames() == 2);
  std::vector<uint8_t> f;
  std::vector<int> indices;
  std::vector<double> means;
  for (int k = src->nextIndex(); src->next(f); k = src->nextIndex()) {
    indices.push_back(k);
    ASSERT_EQ(f.size(), 856u * 642u * 3 / 2);
    means.push_back(cv::mean(cv::Mat(642, 856, CV_8UC1, f.data()))[0]);
  }
  EXPECT_EQ(indices, (std::vector<int>{1, 2}));
  // Frame 1 is img1.png: its luma matches a direct conversion of that picture.
  cv::Mat up, grey;
  cv::resize(texture(320, 240, 1), up, cv::Size(856, 642), 0, 0, cv::INTER_CUBIC);
  cv::cvtColor(up, grey, cv::COLOR_BGR2GRAY);
  EXPECT_NEAR(means[0], cv::mean(grey)[0], 1.5);
}

TEST(StitchFrameSource, RefusesMissingUnreadableAndChangingInput) {
  const std::string dir = freshDir("bad"), empty = freshDir("empty");
  std::ofstream(dir + "/clip.mp4") << "this is no video";
  cv::imwrite(dir + "/a.png", texture(1280, 720, 1));
  cv::imwrite(dir + "/b.png", texture(1282, 720, 2));
  std::ofstream(dir + "/c.png") << "broken";
  SourceOptions fromC;
  fromC.first = 2;
  const struct {
    std::string path;
    SourceOptions opt;
    std::string says;
  } cases[] = {
      {"/nonexistent/input.mp4", {}, "input '/nonexistent/input.mp4' does not exist"},
      {dir + "/clip.mp4", {},
       "cannot open '" + dir + "/clip.mp4' as a video (unsupported format or codec)"},
      {empty, {}, "'" + empty + "' holds no image files"},
      {dir, {}, "'" + dir + "/b.png' is 1282x720, the first image was 1280x720: the frame size "
                "changed mid-stream"},
      {dir, fromC, "cannot read image '" + dir + "/c.png'"},
  };
  for (const auto& c : cases) EXPECT_EQ(inputErrorOf(c.path, c.opt), c.says);
}

TEST(StitchSession, SteadySweepWritesPanoramaCsvAndReport) {
  const std::string out = freshDir("out") + "/pano";
  const StitchResult r = stitchPath(sweepDir(), out);
  EXPECT_TRUE(r.panoramaPath == out + ".jpg" && r.outputProblem.empty()) << r.outputProblem;
  EXPECT_EQ(r.direction, MOVE_RIGHT);
  EXPECT_EQ(cv::Size(r.canvasWidth, r.canvasHeight), cv::Size(6 * 1280, 720));
  ASSERT_GE(r.keyFrames.size(), 5u);
  // The file is the valid rectangle, from the first key frame to the end of the last one.
  const cv::Mat pano = cv::imread(out + ".jpg");
  EXPECT_EQ(pano.cols, r.validRect.right - r.validRect.left);
  EXPECT_EQ(r.keyFrames.front().canvas.x, 0);
  EXPECT_EQ(r.keyFrames.back().canvas.br().x - r.validRect.left, pano.cols);
  ASSERT_EQ(r.captures.size(), 1u);
  EXPECT_EQ(r.captures[0].lastFrame, 19);
  EXPECT_FALSE(fs::exists(out + "_capture1.jpg"));

  std::ifstream csv(out + ".csv");
  std::string line;
  std::getline(csv, line);
  EXPECT_EQ(line, "frame,offset_x,offset_y,key_frame,direction,code,sweep_length,progress,"
                  "select_ms,add_ms,capture,time_ms");
  int rows = 0, keys = 0, frame, ox, oy, key;
  for (; std::getline(csv, line); ++rows, keys += key)
    ASSERT_EQ(std::sscanf(line.c_str(), "%d,%d,%d,%d", &frame, &ox, &oy, &key), 4) << line;
  EXPECT_EQ(rows, 20);
  EXPECT_GE(keys, static_cast<int>(r.keyFrames.size()));
  const cv::Mat report = cv::imread(out + "_report.png");
  EXPECT_TRUE(report.cols == 1600 && report.rows > 420) << report.size();
}

// Bad input or a bad name never loses the panorama: an unwritable name falls back to the
// current directory, and a frame size changing mid-stream ends the input with one line and
// keeps what was stitched so far. Both stitch 16 frames: fewer span less than a tenth of the
// frame, a single view that the engine's verdict refuses.
TEST(StitchSession, UnwritableNameFallsBackToTheCurrentDirectory) {
  const std::string cwd = freshDir("cwd");
  const fs::path before = fs::current_path();
  fs::current_path(cwd);
  const StitchResult r = stitchPath(sweepDir(), "/nonexistent-dir/sub/pano", {}, {0, 16});
  fs::current_path(before);
  EXPECT_EQ(r.outputProblem,
            "cannot write '/nonexistent-dir/sub/pano.jpg': directory '/nonexistent-dir/sub' does "
            "not exist");
  EXPECT_EQ(r.panoramaPath, cwd + "/pano.jpg");
  EXPECT_FALSE(cv::imread(cwd + "/pano.jpg").empty());
  EXPECT_TRUE(fs::exists(cwd + "/pano.csv") && r.frames.size() == 16u);
}

TEST(StitchSession, FrameSizeChangingMidStreamKeepsThePanoramaSoFar) {
  // The sweep's first frames as pictures, then one of another size.
  const std::string dir = freshDir("changing");
  auto sweep = FrameSource::open(sweepDir(), {});
  std::vector<uint8_t> f;
  cv::Mat bgr;
  for (int i = 0; i < 16 && sweep->next(f); ++i) {
    cv::cvtColor(cv::Mat(720 * 3 / 2, 1280, CV_8UC1, f.data()), bgr, cv::COLOR_YUV2BGR_NV21);
    cv::imwrite(dir + "/f" + std::to_string(10 + i) + ".png", bgr);
  }
  cv::imwrite(dir + "/f99.png", texture(1282, 720, 3));
  const std::string out = freshDir("changing_out") + "/pano";
  const StitchResult r = stitchPath(dir, out);
  EXPECT_EQ(r.inputProblem, "'" + dir + "/f99.png' is 1282x720, the first image was 1280x720: "
                            "the frame size changed mid-stream");
  EXPECT_TRUE(r.frames.size() == 16u && r.direction == MOVE_RIGHT);
  EXPECT_EQ(r.panoramaPath, out + ".jpg");
  EXPECT_GT(cv::imread(r.panoramaPath).cols, 1280);
}

TEST(StitchSession, CanvasThatDoesNotSuitTheSweepAxisIsRefused) {
  StitchOptions opt;
  std::tie(opt.canvasWidth, opt.canvasHeight) = std::make_tuple(1280, 4000);
  std::string error;
  stitchPath(sweepDir(), freshDir("canvas") + "/pano", opt, {}, &error);
  EXPECT_EQ(error, "canvas 1280x4000 does not suit a horizontal sweep of 1280x720 frames: it must be as "
            "high as a frame and wider");
}

// A sweep over a flat region: vision alone finds nothing to follow and gives no panorama; with
// the sweep's gyroscope fed in step with the frames the engine sweeps on and the panorama
// covers the sweep. A gyroscope file that cannot be read is an input error.
TEST(StitchSession, GyroscopeCarriesASweepWithoutTexture) {
  const std::string dir = freshDir("flat") + "/s", out = freshDir("flat_out") + "/pano";
  zolt::sim::SweepSimulator sim(
      simSweep("textureless", "/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg", 20));
  zolt::sim::SweepWriter::write(sim, dir);
  std::string error;
  stitchPath(dir, out, {}, {}, &error);
  EXPECT_NE(error.find("no panorama"), std::string::npos) << error;
  StitchOptions opt;
  opt.gyroPath = dir + "/gyro.csv";
  const StitchResult r = stitchPath(dir, out, opt);
  EXPECT_TRUE(r.direction == MOVE_RIGHT && r.keyFrames.size() >= 15u) << r.keyFrames.size();
  EXPECT_EQ(r.gyroEvents, sim.gyroEvents().size());
  for (const auto& f : r.frames) EXPECT_NE(f.code, ERR_TRACE_NO_FEATURE) << f.frame;
  // The panorama reaches from the first key frame to the last: their distance plus a frame.
  const double swept = sim.truth().at(r.keyFrames.back().frame).dx -
                       sim.truth().at(r.keyFrames.front().frame).dx;
  EXPECT_NEAR(r.panorama.cols, swept + 1280, 0.02 * swept + 8);

  // The events 100 ms ahead of the frames, as a phone delivers them: with the frames' times the
  // engine reads the gyroscope where each frame was taken, and lays the key frames where it
  // does with the events in step.
  StitchOptions timed = opt;
  timed.frameTimes = true;
  const StitchResult inStep = stitchPath(dir, out, timed);
  timed.gyroLagMs = 100;
  const StitchResult ahead = stitchPath(dir, out, timed);
  ASSERT_EQ(ahead.keyFrames.size(), inStep.keyFrames.size());
  for (size_t i = 0; i < ahead.keyFrames.size(); ++i) {
    EXPECT_EQ(ahead.keyFrames[i].frame, inStep.keyFrames[i].frame);
    EXPECT_LE(cv::norm(ahead.keyFrames[i].canvas.tl() - inStep.keyFrames[i].canvas.tl()), 1.0)
        << i;
  }
  for (const auto& f : ahead.frames) EXPECT_EQ(f.refusal, 0) << f.frame;

  opt.gyroPath = dir + "/missing.csv";
  EXPECT_NE(thrown<InputError>([&] { stitchPath(dir, out, opt); }).find("missing.csv"),
            std::string::npos);
}
