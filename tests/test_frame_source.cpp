// Broken inputs of zoltpano stitch, as its frame sources meet them: sweep folders written by
// hand or cut short, images with lying headers or absurd shapes. Each fault ends in one
// SimError or InputError naming the file and the problem, never in another exception, a
// crash or gigabytes of frame. Rows come from what the fuzz targets found.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "sim/sim_error.h"
#include "sim/sweep_reader.h"
#include "tools/frame_source.h"

namespace {

namespace fs = std::filesystem;

const char kTruth2[] =
    "frame,t_ns,x,y,dx,dy,yaw,pitch,roll,gain,phase\n"
    "0,0,0,0,0,0,0,0,0,1,sweep\n"
    "1,33333333,10,0,10,0,0,0,0,1,sweep\n";
const char kGyro[] = "t_ns,wx,wy,wz\n0,0.1,0.2,0.3\n";

// A folder of its own under /tmp, gone with the object.
struct Folder {
  static inline int made = 0;
  std::string dir = (fs::temp_directory_path() /
                     ("zolt_inputs_" + std::to_string(getpid()) + "_" + std::to_string(made++)))
                        .string();
  Folder() { fs::remove_all(dir), fs::create_directories(dir); }
  ~Folder() { fs::remove_all(dir); }
  void write(const std::string& name, const std::string& text) {
    std::ofstream(dir + "/" + name, std::ios::binary) << text;
  }
  void frames(size_t bytes) { write("frames.nv21", std::string(bytes, '\x80')); }
};

std::string meta(int w, int h, int frames) {
  return "{\"width\": " + std::to_string(w) + ", \"height\": " + std::to_string(h) +
         ", \"frames\": " + std::to_string(frames) + ", \"fps\": 30}";
}

}  // namespace

TEST(FrameSource, BadSweepFoldersEndInOneMessage) {
  const size_t fb = 642 * 642 * 3 / 2;
  struct Case {
    const char* name;
    std::string meta, truth;
    size_t frameBytes;
    const char* says;  // empty: read
  };
  const Case cases[] = {
      {"whole", meta(642, 642, 2), kTruth2, 2 * fb, ""},
      {"odd sides", meta(643, 645, 2), kTruth2, 2 * (643 * 645 * 3 / 2),
       "643x645 frames: NV21 needs even sides"},
      {"truncated frames", meta(642, 642, 2), kTruth2, 2 * fb - 1000, "expected"},
      {"frames missing from truth", meta(642, 642, 3), kTruth2, 3 * fb, "truth.csv' has 2 frames"},
      {"meta not an object", "[1, 2]", kTruth2, 2 * fb, "is not a sweep description"},
      {"width a string", "{\"width\": \"wide\", \"height\": 642, \"frames\": 2, \"fps\": 30}",
       kTruth2, 2 * fb, "is not a sweep description"},
      {"no frames", meta(642, 642, 0), kTruth2, 0, "gives no frames"},
      {"truth not numbers", meta(642, 642, 2), "0,x,0,0,0,0,0,0,0,1\n", 2 * fb, "not a number"},
      {"truth short rows", meta(642, 642, 2), "0,0,0\n", 2 * fb, "expected 10 columns"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Folder f;
    f.write("meta.json", c.meta);
    f.write("truth.csv", c.truth);
    f.write("gyro.csv", kGyro);
    f.frames(c.frameBytes);
    std::string message;
    try {
      zolt::sim::SweepReader reader(f.dir);
      std::vector<uint8_t> bytes;
      for (int k = 0; k < reader.frameCount(); ++k) reader.readFrame(k, bytes);
    } catch (const zolt::sim::SimError& e) {
      message = e.what();
    }
    if (*c.says == '\0') {
      EXPECT_EQ(message, "");
    } else {
      EXPECT_NE(message.find(c.says), std::string::npos) << message;
    }
  }
}

// The same faults through the frame source that zoltpano stitch opens: one InputError.
TEST(FrameSource, SweepWithOddSidesIsAnInputError) {
  Folder f;
  f.write("meta.json", meta(643, 645, 1));
  f.write("truth.csv", "0,0,0,0,0,0,0,0,0,1\n");
  f.write("gyro.csv", kGyro);
  f.frames(643 * 645 * 3 / 2);
  zolt::tools::SourceOptions opt;
  opt.upscale = true;
  EXPECT_THROW(zolt::tools::FrameSource::open(f.dir, opt), zolt::tools::InputError);
}

// Image folders: a header that claims a side beyond what the decoder takes (it throws), and a
// picture so thin that scaling its short side above 640 would make frames of gigabytes.
TEST(FrameSource, ImagesWithLyingHeadersOrAbsurdShapesAreInputErrors) {
  Folder f;
  // A BMP header of 2,000,000 x 1 pixels, 24 bits, with no pixels behind it.
  uint8_t bmp[54] = {'B', 'M'};
  const int32_t fields[] = {54, 0, 54, 40, 2000000, 1};
  std::memcpy(bmp + 2, &fields[0], 4);
  std::memcpy(bmp + 10, &fields[2], 4);
  std::memcpy(bmp + 14, &fields[3], 4);
  std::memcpy(bmp + 18, &fields[4], 4);
  std::memcpy(bmp + 22, &fields[5], 4);
  bmp[26] = 1;
  bmp[28] = 24;
  f.write("a.bmp", std::string(reinterpret_cast<char*>(bmp), sizeof bmp));
  zolt::tools::SourceOptions opt;
  opt.upscale = true;
  try {
    zolt::tools::FrameSource::open(f.dir, opt);
    ADD_FAILURE() << "a lying header was read";
  } catch (const zolt::tools::InputError& e) {
    EXPECT_NE(std::string(e.what()).find("cannot read image"), std::string::npos) << e.what();
  }

  Folder thin;
  cv::imwrite(thin.dir + "/a.png", cv::Mat(4000, 2, CV_8UC3, cv::Scalar(90, 120, 200)));
  try {
    zolt::tools::FrameSource::open(thin.dir, opt);
    ADD_FAILURE() << "a 2x4000 picture was scaled up";
  } catch (const zolt::tools::InputError& e) {
    EXPECT_NE(std::string(e.what()).find("more than 8192 pixels long"), std::string::npos)
        << e.what();
  }
  int w = 0, h = 0;
  zolt::tools::upscaledSize(2, 20000000, w, h);  // the exact size would not fit an int
  EXPECT_EQ(w, 642);
  EXPECT_EQ(h, INT_MAX - 1);
}
