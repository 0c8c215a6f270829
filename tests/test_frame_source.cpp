// Broken inputs of zoltpano stitch, as its frame sources meet them: sweep folders written by
// hand or cut short, images with lying headers or absurd shapes. Each fault ends in one
// InputError naming the file and the problem (the sweep reader's SimError, passed on), never
// in another exception, a crash or gigabytes of frame. Rows come from what the fuzz targets
// found.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "support/stitch_inputs.h"

namespace {

using namespace zolt::tools;
using zolt::test::freshDir;

const char kTruth2[] =
    "frame,t_ns,x,y,dx,dy,yaw,pitch,roll,gain,phase\n"
    "0,0,0,0,0,0,0,0,0,1,sweep\n"
    "1,33333333,10,0,10,0,0,0,0,1,sweep\n";

std::string meta(int w, int h, int frames) {
  return "{\"width\": " + std::to_string(w) + ", \"height\": " + std::to_string(h) +
         ", \"frames\": " + std::to_string(frames) + ", \"fps\": 30}";
}

// Opens `dir` as zoltpano stitch does (small frames scaled up) and reads every frame; the
// InputError's message, "" when all went well.
std::string readAll(const std::string& dir) {
  SourceOptions opt;
  opt.upscale = true;
  return zolt::test::inputErrorOf(dir, opt);
}

void write(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

TEST(FrameSource, BadSweepFoldersEndInOneMessage) {
  const size_t fb = 642 * 642 * 3 / 2;
  const struct {
    const char* name;
    std::string meta, truth;
    size_t frameBytes;
    const char* says;  // empty: read
  } cases[] = {
      {"whole", meta(642, 642, 2), kTruth2, 2 * fb, ""},
      {"odd sides", meta(643, 645, 2), kTruth2, 2 * (643 * 645 * 3 / 2),
       "643x645 frames: NV21 needs even sides"},
      {"truncated frames", meta(642, 642, 2), kTruth2, 2 * fb - 1000, "expected"},
      {"frames missing from truth", meta(642, 642, 3), kTruth2, 3 * fb, "truth.csv' has 2 frames"},
      {"meta not an object", "[1, 2]", kTruth2, 2 * fb, "is not a sweep description"},
      {"width a string", "{\"width\": \"wide\", \"height\": 642, \"frames\": 2, \"fps\": 30}",
       kTruth2, 2 * fb, "gives no whole number for \"width\": \"wide\""},
      {"no frames", meta(642, 642, 0), kTruth2, 0, "gives no frames"},
      // Sides as floats or beyond int: refused before any conversion (clang's UBSan caught the
      // float one as undefined); a rate that would make the frame times infinite.
      {"width a huge float", "{\"width\": 6.4e109, \"height\": 642, \"frames\": 2, \"fps\": 30}",
       kTruth2, 2 * fb, "gives no whole number for \"width\": 6.4e+109"},
      {"height beyond int", "{\"width\": 642, \"height\": 4294967938, \"frames\": 2, \"fps\": 30}",
       kTruth2, 2 * fb, "gives no whole number for \"height\""},
      {"no frame rate", "{\"width\": 642, \"height\": 642, \"frames\": 2, \"fps\": 0}", kTruth2,
       2 * fb, "0.000000 frames per second"},
      {"truth not numbers", meta(642, 642, 2), "0,x,0,0,0,0,0,0,0,1\n", 2 * fb, "not a number"},
      {"truth short rows", meta(642, 642, 2), "0,0,0\n", 2 * fb, "expected 10 columns"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string dir = freshDir("sweep_input");
    write(dir + "/meta.json", c.meta);
    write(dir + "/truth.csv", c.truth);
    write(dir + "/gyro.csv", "t_ns,wx,wy,wz\n0,0.1,0.2,0.3\n");
    write(dir + "/frames.nv21", std::string(c.frameBytes, '\x80'));
    const std::string message = readAll(dir);
    EXPECT_TRUE(*c.says ? message.find(c.says) != std::string::npos : message.empty()) << message;
  }
}

// Image folders: a header that claims a side beyond what the decoder takes (it throws), and a
// picture so thin that scaling its short side above 640 would make frames of gigabytes.
TEST(FrameSource, ImagesWithLyingHeadersOrAbsurdShapesAreInputErrors) {
  // A BMP header of 2,000,000 x 1 pixels, 24 bits, with no pixels behind it.
  uint8_t bmp[54] = {'B', 'M'};
  const int32_t fields[][2] = {{2, 54}, {10, 54}, {14, 40}, {18, 2000000}, {22, 1}};
  for (const auto& f : fields) std::memcpy(bmp + f[0], &f[1], 4);
  bmp[26] = 1;
  bmp[28] = 24;
  const std::string lying = freshDir("lying_header"), thin = freshDir("thin_image");
  write(lying + "/a.bmp", std::string(reinterpret_cast<char*>(bmp), sizeof bmp));
  EXPECT_EQ(readAll(lying), "cannot read image '" + lying + "/a.bmp'");

  cv::imwrite(thin + "/a.png", cv::Mat(4000, 2, CV_8UC3, cv::Scalar(90, 120, 200)));
  const std::string message = readAll(thin);
  EXPECT_NE(message.find("more than 8192 pixels long"), std::string::npos) << message;
}

// A recording: its frames (here frames/, small, scaled up) timed by frames.csv on the
// gyroscope's clock, told from the first frame; the luma-only reading of measuring tools; and
// every fault of frames.csv in one line that names it.
TEST(FrameSource, RecordingTakesItsFrameTimesFromFramesCsv) {
  auto recording = [](const std::string& name, const std::string& csv) {
    const std::string dir = freshDir(name);
    std::filesystem::create_directories(dir + "/frames");
    for (int i = 0; i < 3; ++i)
      cv::imwrite(dir + "/frames/f" + std::to_string(i) + ".png",
                  cv::Mat(480, 640, CV_8UC3, cv::Scalar(40 + 50 * i, 40 + 50 * i, 40 + 50 * i)));
    write(dir + "/frames.csv", csv);
    return dir;
  };
  const std::string dir =
      recording("recording", "frame,t_ns\n0,5000000000\n1,5033000000\n2,5070500000\n");
  SourceOptions opt;
  opt.upscale = true;
  opt.lumaOnly = true;
  auto s = FrameSource::open(dir, opt);
  EXPECT_EQ(s->kind(), "recording");
  EXPECT_EQ(s->clockOriginNs(), 5000000000);
  std::vector<double> times;
  for (std::vector<uint8_t> f; s->next(f);) {
    times.push_back(s->timeMs());
    const size_t y = static_cast<size_t>(s->width()) * s->height();
    ASSERT_EQ(f.size(), y * 3 / 2);
    EXPECT_EQ(f[y / 2], 40 + 50 * (times.size() - 1));  // grey decoded straight into Y
    EXPECT_EQ(f[y + 7], 128);                            // neutral colour
  }
  EXPECT_EQ(times, (std::vector<double>{0.0, 33.0, 70.5}));

  const struct {
    const char* csv;
    const char* says;
  } bad[] = {
      {"t_ns,frame\n0,1\n", "must start with the header frame,t_ns"},
      {"frame,t_ns\n0,1\n2,3\n", "line 3: frame 2 where 1 comes next"},
      {"frame,t_ns\n0,10\n1,10\n", "line 3: the time does not increase"},
      {"frame,t_ns\n0,x\n", "line 2: expected FRAME,T_NS"},
      {"frame,t_ns\n0,10\n1,20\n", "frame 2 has no time in frames.csv (2 lines)"},
  };
  for (const auto& b : bad) {
    SCOPED_TRACE(b.csv);
    const std::string message = readAll(recording("bad_recording", b.csv));
    EXPECT_NE(message.find(b.says), std::string::npos) << message;
  }
}
