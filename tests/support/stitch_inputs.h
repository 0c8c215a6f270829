// Scratch folders, pictures, clips and error messages for the tests of zoltpano stitch's pieces.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "support/textures.h"
#include "tools/frame_source.h"
#include "tools/stitch_session.h"

namespace zolt::test {

inline const char* const kStitchPhoto =
    "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";

// An empty folder of this process (ctest runs a program's cases as parallel processes).
inline std::string freshDir(const std::string& name) {
  namespace fs = std::filesystem;
  const fs::path d =
      fs::path(testing::TempDir()) / ("zolt_stitch_" + name + "_" + std::to_string(::getpid()));
  fs::remove_all(d);
  fs::create_directories(d);
  return d.string();
}

// An MJPG clip through OpenCV's FFmpeg writer; false when it cannot be written.
template <class PictureOf>
bool writeClip(const std::string& path, cv::Size size, double fps, int frames, PictureOf picture) {
  cv::VideoWriter w(path, cv::CAP_FFMPEG, cv::VideoWriter::fourcc('M', 'J', 'P', 'G'), fps, size);
  if (!w.isOpened()) return false;
  for (int i = 0; i < frames; ++i) w.write(picture(i));
  return true;
}

// The message of the E that `f` throws; "" when it returns.
template <class E, class F>
std::string thrown(F f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "";
}

// The message of the InputError that reading all of `path` throws; "" when every frame reads.
inline std::string inputErrorOf(const std::string& path, const tools::SourceOptions& opt = {}) {
  return thrown<tools::InputError>([&] {
    auto s = tools::FrameSource::open(path, opt);
    for (std::vector<uint8_t> f; s->next(f);) {}
  });
}

// Stitches `path` into `name` without hints. A StitchError's message lands in `error`; without
// `error` it fails the test. Input errors propagate.
inline tools::StitchResult stitchPath(const std::string& path, const std::string& name,
                                      tools::StitchOptions opt = {},
                                      const tools::SourceOptions& src = {},
                                      std::string* error = nullptr) {
  opt.name = name;
  opt.hints = false;
  tools::StitchResult r;
  const std::string e = thrown<tools::StitchError>(
      [&] { tools::stitch(*tools::FrameSource::open(path, src), opt, r); });
  if (error != nullptr)
    *error = e;
  else
    EXPECT_EQ(e, "");
  return r;
}

}  // namespace zolt::test
