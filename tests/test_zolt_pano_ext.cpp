// The integrator's extension (zolt_pano_ext.h): code names and hints, the last error and its
// rules, the JPEG in memory and on disk, the canvas size, Camera2 frames packed to NV21, the log
// level and sink, options. The refusals of the original calls are checked, code and message, in
// test_call_guard.cpp.
#include <gtest/gtest.h>

#include <android/log.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine/orrery_engine.h"
#include "platform/log.h"
#include "sim/sweep_simulator.h"
#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "support/textures.h"
#include "tracker/module_track.h"
#include "zolt_host_sensor.h"
#include "zolt_pano_ext.h"

namespace {

using Bytes = std::vector<uint8_t>;
using zolt::test::Engine;
using zolt::test::runSweep;
using zolt::test::SweepRun;
using zolt::test::takeError;

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// One frame as a Camera2 YUV_420_888 image: Y rows padded to yStride; U and V with a shared row
// stride and pixel stride, laid out as `layout` says.
enum class Layout { Planar, Nv21, Nv12, Apart };

struct Yuv420888 {
  Bytes y, u, v;  // u and v may point into one buffer (Nv21, Nv12): then `uv` holds it
  Bytes uv;
  const uint8_t *yp, *up, *vp;
  int yStride, uvStride, pixelStride;

  Yuv420888(const uint8_t* nv21, int w, int h, Layout layout, int pad) {
    yStride = w + pad;
    y.assign(static_cast<size_t>(yStride) * h, 0xEE);
    for (int r = 0; r < h; ++r) std::memcpy(&y[r * yStride], nv21 + r * w, w);
    const uint8_t* vu = nv21 + static_cast<size_t>(w) * h;
    const int cw = w / 2, ch = h / 2;
    pixelStride = layout == Layout::Planar ? 1 : 2;
    uvStride = cw * pixelStride + pad;
    auto put = [&](Bytes& plane, size_t at, int r, int c, uint8_t value) {
      plane[at + static_cast<size_t>(r) * uvStride + c * pixelStride] = value;
    };
    if (layout == Layout::Nv21 || layout == Layout::Nv12) {
      uv.assign(static_cast<size_t>(uvStride) * ch + 1, 0xEE);
      const size_t vAt = layout == Layout::Nv21 ? 0 : 1, uAt = 1 - vAt;
      for (int r = 0; r < ch; ++r)
        for (int c = 0; c < cw; ++c) {
          put(uv, vAt, r, c, vu[r * w + 2 * c]);
          put(uv, uAt, r, c, vu[r * w + 2 * c + 1]);
        }
      vp = uv.data() + vAt;
      up = uv.data() + uAt;
    } else {
      u.assign(static_cast<size_t>(uvStride) * ch, 0xEE);
      v.assign(static_cast<size_t>(uvStride) * ch, 0xEE);
      for (int r = 0; r < ch; ++r)
        for (int c = 0; c < cw; ++c) {
          put(v, 0, r, c, vu[r * w + 2 * c]);
          put(u, 0, r, c, vu[r * w + 2 * c + 1]);
        }
      vp = v.data();
      up = u.data();
    }
    yp = y.data();
  }
  int pack(int w, int h, uint8_t* out) const {
    return ZOLT_PANO_PackNV21(yp, yStride, up, vp, uvStride, pixelStride, w, h, out);
  }
};

}  // namespace

// Every code of both headers has its name and a hint (only SUCCESS has none); refusals are apart
// from the sweep codes; anything else is UNKNOWN.
TEST(ZoltPanoExt, CodeNamesAndHintsCoverEveryCode) {
  const struct {
    int code;
    const char* name;
  } codes[] = {{SUCCESS, "SUCCESS"},
               {INFO_TRACE_FIRST_FRAME, "INFO_TRACE_FIRST_FRAME"},
               {ERR_INVALID_DIMENSIONS, "ERR_INVALID_DIMENSIONS"},
               {ERR_TRACE_DIRECTION, "ERR_TRACE_DIRECTION"},
               {ERR_TRACE_NO_FEATURE, "ERR_TRACE_NO_FEATURE"},
               {ERR_TRACE_TOO_QUICK, "ERR_TRACE_TOO_QUICK"},
               {ERR_TRACE_DIRECTION_BACK, "ERR_TRACE_DIRECTION_BACK"},
               {WARN_MOVE_SLOPE, "WARN_MOVE_SLOPE"},
               {WARN_SHAKE_TOO_BIG, "WARN_SHAKE_TOO_BIG"},
               {WARN_TRACE_LITTLE_QUICK, "WARN_TRACE_LITTLE_QUICK"},
               {ZOLT_PANO_ERR_NULL_ARGUMENT, "ERR_NULL_ARGUMENT"},
               {ZOLT_PANO_ERR_NOT_ENGINE, "ERR_NOT_ENGINE"},
               {ZOLT_PANO_ERR_FRAME_SIZE, "ERR_FRAME_SIZE"},
               {ZOLT_PANO_ERR_CANVAS_INVALID, "ERR_CANVAS_INVALID"},
               {ZOLT_PANO_ERR_CANVAS_FULL, "ERR_CANVAS_FULL"},
               {ZOLT_PANO_ERR_NOTHING_TO_SAVE, "ERR_NOTHING_TO_SAVE"},
               {ZOLT_PANO_ERR_WRITE_FAILED, "ERR_WRITE_FAILED"},
               {ZOLT_PANO_ERR_BAD_OPTION, "ERR_BAD_OPTION"},
               {ZOLT_PANO_ERR_BAD_ARGUMENT, "ERR_BAD_ARGUMENT"},
               {ZOLT_PANO_ERR_FRAME_REFUSED, "ERR_FRAME_REFUSED"},
               {ZOLT_PANO_ERR_INTERNAL, "ERR_INTERNAL"},
               {ZOLT_PANO_ERR_BUSY, "ERR_BUSY"}};
  std::set<std::string> hints;
  for (const auto& c : codes) {
    EXPECT_STREQ(ZOLT_PANO_CodeName(c.code), c.name);
    const std::string hint = ZOLT_PANO_CodeHint(c.code);
    EXPECT_EQ(hint.empty(), c.code == SUCCESS) << c.name;
    EXPECT_TRUE(hints.insert(hint).second) << c.name << " shares its hint";
    const bool refusal = &c - codes >= 10;  // after the ten codes of zolt_pano.h
    EXPECT_EQ((c.code & 0xF000) == 0x9000, refusal) << c.name;
  }
  EXPECT_STREQ(ZOLT_PANO_CodeHint(ERR_TRACE_TOO_QUICK), "Move slower");
  for (int other : {-1, 0x7003, 0x9000, 0x900D, 0x10000}) {
    EXPECT_STREQ(ZOLT_PANO_CodeName(other), "UNKNOWN");
    EXPECT_STREQ(ZOLT_PANO_CodeHint(other), "");
  }
}

// A refusal is kept until read, once; the message is truncated and terminated to fit; a handle
// that is not a live engine is answered as such; options are refused one by one, and a refused
// option leaves the engine as it was.
TEST(ZoltPanoExt, LastErrorIsKeptUntilReadAndOptionsAreRefused) {
  zolt::test::LogCapture quiet;
  tag_ZOLT_PANO_INIT_PARAM p{};
  p.previewWidth = 1280, p.previewHeight = 720;
  void* h = nullptr;
  ASSERT_EQ(ZOLT_PANO_Initial(&p, &h), SUCCESS);
  EXPECT_EQ(takeError(h), 0);
  for (int option : {0, 6, -5, 1 << 20}) {
    EXPECT_EQ(ZOLT_PANO_SetOption(h, option, 1), ZOLT_PANO_ERR_BAD_OPTION);
    std::string message;
    EXPECT_EQ(takeError(h, &message), ZOLT_PANO_ERR_BAD_OPTION);
    EXPECT_EQ(message, "ZOLT_PANO_SetOption :: unknown option " + std::to_string(option) +
                           " (value 1) : call ignored");
  }
  EXPECT_EQ(ZOLT_PANO_SetOption(h, 0, 1), ZOLT_PANO_ERR_BAD_OPTION);
  char small[10];
  EXPECT_EQ(ZOLT_PANO_GetLastError(h, small, sizeof small), ZOLT_PANO_ERR_BAD_OPTION);
  EXPECT_STREQ(small, "ZOLT_PANO");
  std::string message;
  EXPECT_EQ(takeError(h, &message), 0);  // read once
  EXPECT_EQ(message, "");
  EXPECT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 2),
            ZOLT_PANO_ERR_BAD_OPTION);
  EXPECT_EQ(ZOLT_PANO_GetLastError(h, nullptr, 0), ZOLT_PANO_ERR_BAD_OPTION);  // no message wanted

  int foreign = 0;
  EXPECT_EQ(takeError(&foreign, &message), ZOLT_PANO_ERR_NOT_ENGINE);
  EXPECT_NE(message.find("not a live engine"), std::string::npos) << message;
  void* stale = h;
  ASSERT_EQ(ZOLT_PANO_Release(&h), 0);
  EXPECT_EQ(ZOLT_PANO_SetOption(stale, 1, 1), ZOLT_PANO_ERR_NOT_ENGINE);
  EXPECT_EQ(takeError(stale), ZOLT_PANO_ERR_NOT_ENGINE);    // not live: answered as such
  EXPECT_EQ(takeError(nullptr), ZOLT_PANO_ERR_NOT_ENGINE);  // the refused call, for this thread

  // The thread's slot is the calling thread's own.
  EXPECT_EQ(ZOLT_PANO_SetOption(stale, 1, 1), ZOLT_PANO_ERR_NOT_ENGINE);
  int other = -1;
  std::thread([&] { other = takeError(nullptr); }).join();
  EXPECT_EQ(other, 0);
  EXPECT_EQ(takeError(nullptr), ZOLT_PANO_ERR_NOT_ENGINE);
}

// The camera's field of view in hundredths of a degree: 0 or 10 to 170 degrees, before the
// first frame. A refused value leaves the tracker's camera as it was, and the switches keep
// their own range; 0 is the fixed camera, 69.8 degrees a square-pixel one.
TEST(ZoltPanoExt, CameraFieldOfViewTakesItsRangeBeforeTheFirstFrame) {
  zolt::test::LogCapture quiet;
  Engine engine;
  void* h = engine.handle();
  const ModuleTrack& t = *static_cast<OrreryEngine*>(h)->tracker;
  const double fx = t.fx, fy = t.fy;
  const std::string fov =
      "ZOLT_PANO_SetOption :: option 3 takes 0 or 1000 to 17000 (hundredths of a degree), not ";
  const struct {
    int option, value;
    std::string message;
  } refused[] = {{ZOLT_PANO_OPTION_CAMERA_HFOV, 999, fov + "999 : call ignored"},
                 {ZOLT_PANO_OPTION_CAMERA_HFOV, 17001, fov + "17001 : call ignored"},
                 {ZOLT_PANO_OPTION_CAMERA_HFOV, -1, fov + "-1 : call ignored"},
                 {ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 6980,
                  "ZOLT_PANO_SetOption :: option 1 takes 0 or 1, not 6980 : call ignored"},
                 {ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION, 1000,
                  "ZOLT_PANO_SetOption :: option 2 takes 0 or 1, not 1000 : call ignored"}};
  for (const auto& r : refused) {
    EXPECT_EQ(ZOLT_PANO_SetOption(h, r.option, r.value), ZOLT_PANO_ERR_BAD_OPTION);
    std::string message;
    EXPECT_EQ(takeError(h, &message), ZOLT_PANO_ERR_BAD_OPTION);
    EXPECT_EQ(message, r.message);
    EXPECT_TRUE(t.fx == fx && t.fy == fy && t.hfovDeg == ModuleTrack::kHfovDeg) << r.value;
  }
  // The last value set before the first frame is the one the tracker gets with that frame; 0
  // puts the fixed camera back.
  const double f = 200.0 / std::tan(69.8 * CV_PI / 360.0);
  for (int value : {6980, 0, 6980}) {
    ASSERT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_CAMERA_HFOV, value), 0);
    EXPECT_EQ(takeError(h), 0);
  }
  EXPECT_TRUE(t.fx == fx && t.fy == fy);  // held until the first frame
  engine.select(Bytes(1280 * 720 * 3 / 2, 100).data());
  EXPECT_NEAR(t.fx, f, 1e-9);
  EXPECT_NEAR(t.fy, f, 1e-9);
  {
    Engine back;
    const ModuleTrack& b = *static_cast<OrreryEngine*>(back.handle())->tracker;
    ASSERT_EQ(ZOLT_PANO_SetOption(back.handle(), ZOLT_PANO_OPTION_CAMERA_HFOV, 6980), 0);
    ASSERT_EQ(ZOLT_PANO_SetOption(back.handle(), ZOLT_PANO_OPTION_CAMERA_HFOV, 0), 0);
    back.select(Bytes(1280 * 720 * 3 / 2, 100).data());
    EXPECT_TRUE(b.fx == fx && b.fy == fy && b.hfovDeg == ModuleTrack::kHfovDeg);
  }
  EXPECT_EQ(ZOLT_PANO_SetOption(h, ZOLT_PANO_OPTION_CAMERA_HFOV, 0), ZOLT_PANO_ERR_BAD_OPTION);
  std::string message;
  EXPECT_EQ(takeError(h, &message), ZOLT_PANO_ERR_BAD_OPTION);
  EXPECT_EQ(message, "ZOLT_PANO_SetOption :: option 3 set after the first frame : call ignored");
  EXPECT_NEAR(t.fx, f, 1e-9);
}

// One steady sweep, stitched twice: from packed NV21, and from Camera2 frames with padded
// strides in each of the four plane layouts, packed by ZOLT_PANO_PackNV21. Same canvas, byte for
// byte. The JPEG in memory is the file's bytes, and at the default quality the original save's.
TEST(ZoltPanoExt, PaddedCamera2FramesAndEveryJpegPathGiveTheSamePanorama) {
  zolt::test::LogCapture quiet;
  zolt::sim::SweepSimulator sim(zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 40));
  const int w = sim.width(), h = sim.height();
  Engine packed(w, h, 3 * w), camera2(w, h, 3 * w);
  const SweepRun a = runSweep(packed, sim);
  int n = 0;
  const SweepRun b = runSweep(camera2, sim, [&](const uint8_t* nv21, uint8_t* out) {
    const Layout layout = static_cast<Layout>(n % 4);
    const Yuv420888 image(nv21, w, h, layout, 1 + 16 * (n++ % 3));
    EXPECT_EQ(image.pack(w, h, out), 0);
    return out;
  });
  ASSERT_EQ(a.direction(), ZOLT_PANO_MOVE_RIGHT);
  ASSERT_GE(a.keys.size(), 2u);
  EXPECT_EQ(a.refusals(), std::set<int>{0});
  EXPECT_EQ(b.keys.size(), a.keys.size());
  EXPECT_TRUE(camera2.canvasBytes() == packed.canvasBytes());
  EXPECT_EQ(zolt::test::corners(b.valid), zolt::test::corners(a.valid));

  const std::string dir = testing::TempDir();
  ZOLT_PANO_SaveImage(packed.handle(), dir + "zolt_ext_original");
  const Bytes original = readFile(dir + "zolt_ext_original.jpg");
  ASSERT_FALSE(original.empty());
  for (int quality : {0, 95, 60}) {
    SCOPED_TRACE(quality);
    const std::string path = dir + "zolt_ext_q" + std::to_string(quality);  // no ".jpg" added
    ASSERT_EQ(ZOLT_PANO_SaveJpeg(packed.handle(), path.c_str(), quality), 0);
    unsigned char* data = nullptr;
    size_t size = 0;
    ASSERT_EQ(ZOLT_PANO_EncodeJpeg(camera2.handle(), quality, &data, &size), 0);
    const Bytes memory(data, data + size);
    ZOLT_PANO_FreeBuffer(data);
    EXPECT_TRUE(readFile(path) == memory);
    EXPECT_EQ(memory == original, quality != 60);  // 95 is the default
  }
}

// The plain rearrangement, checked on small frames with every layout and odd strides; then what
// cannot be a YUV_420_888 frame.
TEST(ZoltPanoExt, PackNV21RearrangesEveryLayoutAndRefusesWhatIsNotAFrame) {
  std::mt19937 rng(3);
  for (int w : {2, 6, 34}) {
    const int h = 4;
    Bytes nv21(static_cast<size_t>(w) * h * 3 / 2);
    zolt::test::fillBytes(nv21, rng);
    for (Layout layout : {Layout::Planar, Layout::Nv21, Layout::Nv12, Layout::Apart})
      for (int pad : {0, 1, 7}) {
        const Yuv420888 image(nv21.data(), w, h, layout, pad);
        Bytes out(nv21.size() + 1, 0xAB);
        EXPECT_EQ(image.pack(w, h, out.data()), 0);
        EXPECT_TRUE(std::equal(nv21.begin(), nv21.end(), out.begin()))
            << w << " layout " << static_cast<int>(layout) << " pad " << pad;
        EXPECT_EQ(out.back(), 0xAB);  // nothing written past the frame
      }
  }
  Bytes plane(64 * 64, 1), out(64 * 64 * 2);
  const uint8_t* p = plane.data();
  const struct {
    const uint8_t *y, *u, *v;
    uint8_t* out;
    int yStride, uvStride, pixelStride, w, h, code;
  } bad[] = {{nullptr, p, p, out.data(), 16, 16, 1, 16, 16, ZOLT_PANO_ERR_NULL_ARGUMENT},
             {p, p, nullptr, out.data(), 16, 16, 1, 16, 16, ZOLT_PANO_ERR_NULL_ARGUMENT},
             {p, p, p, nullptr, 16, 16, 1, 16, 16, ZOLT_PANO_ERR_NULL_ARGUMENT},
             {p, p, p, out.data(), 16, 16, 1, 15, 16, ZOLT_PANO_ERR_BAD_ARGUMENT},
             {p, p, p, out.data(), 16, 16, 1, 16, 0, ZOLT_PANO_ERR_BAD_ARGUMENT},
             {p, p, p, out.data(), 14, 16, 1, 16, 16, ZOLT_PANO_ERR_BAD_ARGUMENT},
             {p, p, p, out.data(), 16, 7, 1, 16, 16, ZOLT_PANO_ERR_BAD_ARGUMENT},
             {p, p, p, out.data(), 16, 14, 2, 16, 16, ZOLT_PANO_ERR_BAD_ARGUMENT},
             {p, p, p, out.data(), 16, 32, 3, 16, 16, ZOLT_PANO_ERR_BAD_ARGUMENT}};
  for (const auto& b : bad) {
    EXPECT_EQ(
        ZOLT_PANO_PackNV21(b.y, b.yStride, b.u, b.v, b.uvStride, b.pixelStride, b.w, b.h, b.out),
        b.code);
    std::string message;
    EXPECT_EQ(takeError(nullptr, &message), b.code);
    EXPECT_EQ(message.rfind("ZOLT_PANO_PackNV21 :: ", 0), 0u) << message;
  }
}

// The canvas for each direction takes the frame across the sweep and the whole sweep along it
// (by default a whole turn at the engine's field of view), with even sides; before the direction
// the record is the preview's. What no canvas can serve is refused.
TEST(ZoltPanoExt, CanvasSizeFitsEachDirectionAndRefusesWhatCannotBe) {
  int cw = 0, ch = 0;
  for (const auto& preview : {std::array<int, 2>{1280, 720}, {720, 1280}, {1920, 1080}}) {
    const int w = preview[0], h = preview[1];
    ASSERT_EQ(ZOLT_PANO_CanvasSize(w, h, 0, 0, &cw, &ch), 0);
    EXPECT_EQ(cw * 10000 + ch, w * 10000 + h);
    for (int dir = 1; dir <= 4; ++dir) {
      SCOPED_TRACE(testing::Message() << w << "x" << h << " direction " << dir);
      const bool horizontal = ZOLT_PANO_IsHorizontalSweep(dir);
      const int along = horizontal ? w : h;
      const double fovDeg = along == std::max(w, h) ? 62.2 : 39.8;
      ASSERT_EQ(ZOLT_PANO_CanvasSize(w, h, dir, 0, &cw, &ch), 0);
      EXPECT_EQ(horizontal ? ch : cw, horizontal ? h : w);
      const int length = horizontal ? cw : ch;
      EXPECT_GE((length - 1 - along) * fovDeg / along, 360.0);
      EXPECT_LT((length - 3 - along) * fovDeg / along, 360.0);
      EXPECT_EQ(length % 2, 0);
      ASSERT_EQ(ZOLT_PANO_CanvasSize(w, h, dir, along + 1001, &cw, &ch), 0);
      EXPECT_EQ(horizontal ? cw : ch, along + 1002);
      ASSERT_EQ(ZOLT_PANO_CanvasSize(w, h, dir, along + 1002, &cw, &ch), 0);
      EXPECT_EQ(horizontal ? cw : ch, along + 1004);  // the far edge stays inside by a pixel
    }
  }
  const struct {
    int w, h, dir, sweep;
  } bad[] = {{640, 720, 1, 0},   {1280, 640, 0, 0},    {1280, 720, 5, 0}, {1280, 720, -1, 0},
             {1280, 720, 1, -2}, {1280, 720, 1, 1279}, {1281, 721, 1, 0}, {1280, 720, 3, 1 << 30}};
  for (const auto& b : bad) {
    EXPECT_EQ(ZOLT_PANO_CanvasSize(b.w, b.h, b.dir, b.sweep, &cw, &ch), ZOLT_PANO_ERR_BAD_ARGUMENT)
        << b.w << "x" << b.h << " " << b.dir << " " << b.sweep;
    EXPECT_EQ(takeError(nullptr), ZOLT_PANO_ERR_BAD_ARGUMENT);
  }
  EXPECT_EQ(ZOLT_PANO_CanvasSize(1280, 720, 1, 0, nullptr, &ch), ZOLT_PANO_ERR_NULL_ARGUMENT);
  EXPECT_EQ(takeError(nullptr), ZOLT_PANO_ERR_NULL_ARGUMENT);
}

// A sweep's panorama fits a canvas sized by its length, and is the same panorama; one two pixels
// shorter is full: the key frame that does not fit is reported, and every later frame, and the
// panorama built so far is still saved.
TEST(ZoltPanoExt, CanvasOfTheSweepsLengthHoldsItAndAShorterOneIsReportedFull) {
  zolt::test::LogCapture quiet;
  zolt::sim::SweepSimulator sim(zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 40));
  const int w = sim.width(), h = sim.height();
  auto jpeg = [](const Engine& e) {
    unsigned char* data = nullptr;
    size_t size = 0;
    EXPECT_EQ(ZOLT_PANO_EncodeJpeg(e.handle(), 0, &data, &size), 0);
    const Bytes bytes(data, data + size);
    ZOLT_PANO_FreeBuffer(data);
    return bytes;
  };
  Engine ample(w, h, 3 * w);
  const SweepRun a = runSweep(ample, sim);
  ASSERT_EQ(a.direction(), ZOLT_PANO_MOVE_RIGHT);
  const int length = a.valid.right;  // a right sweep's panorama starts at the canvas's left
  ASSERT_GT(length, w + 100);
  Engine exact(w, h, length);
  const SweepRun e = runSweep(exact, sim);
  EXPECT_EQ(e.refusals(), std::set<int>{0});
  EXPECT_EQ(zolt::test::corners(e.valid), zolt::test::corners(a.valid));
  EXPECT_TRUE(jpeg(exact) == jpeg(ample));

  Engine shorter(w, h, length - 2);
  const SweepRun s = runSweep(shorter, sim);
  EXPECT_EQ(s.refusals(), (std::set<int>{0, ZOLT_PANO_ERR_CANVAS_FULL}));
  EXPECT_LT(s.valid.right, length);
  shorter.select(Bytes(sim.frameBytes(), 100).data());
  std::string message;
  EXPECT_EQ(takeError(shorter.handle(), &message), ZOLT_PANO_ERR_CANVAS_FULL);
  EXPECT_EQ(message, "ZOLT_PANO_SelectFrames :: canvas full : the sweep has ended, frame ignored");
  EXPECT_GT(jpeg(shorter).size(), 1000u);
}

// The level drops lines before any sink sees them; the sink gets every line that passes, from
// the caller's thread and from the gyroscope's polling thread, and nothing once replaced. A level
// out of range is refused and the level kept. ZOLTPANO_LOG_LEVEL's values as the host reads them.
TEST(ZoltPanoExt, LogLevelAndSinkCoverTheGyroscopeThread) {
  struct Seen {
    std::mutex mutex;
    std::vector<int> priorities;
    std::set<std::thread::id> threads;
    std::set<std::string> lines;
  } seen;
  auto sink = [](int priority, const char* tag, const char* line, void* user) {
    auto* s = static_cast<Seen*>(user);
    std::lock_guard<std::mutex> lock(s->mutex);
    EXPECT_STREQ(tag, "PanoEngine");
    s->priorities.push_back(priority);
    s->threads.insert(std::this_thread::get_id());
    s->lines.insert(line);
  };
  auto cycle = [] {  // an engine with a gyroscope and one event through its thread
    zolt_host_sensor_set_gyroscope(1);
    Engine engine;
    ASSERT_EQ(engine.initial(), SUCCESS);
    zolt_host_sensor_push_gyro(1000, 0.1f, 0.0f, 0.0f);
    zolt_host_sensor_push_gyro(2000, 0.1f, 0.0f, 0.0f);
    zolt_host_sensor_sync();
    engine.release();
    zolt_host_sensor_set_gyroscope(0);
  };
  ZOLT_PANO_SetLogSink(sink, &seen);
  EXPECT_EQ(ZOLT_PANO_GetLogLevel(), ANDROID_LOG_VERBOSE);
  cycle();
  EXPECT_TRUE(seen.lines.count("NativeSensorInterface :  Exitting Polling thread"));
  EXPECT_TRUE(seen.lines.count("---------Destructor of SensorInterface  called -------------- \n"));
  EXPECT_EQ(seen.threads.size(), 2u);  // this one and the polling thread
  EXPECT_EQ(seen.threads.count(std::this_thread::get_id()), 1u);

  for (int level : {ANDROID_LOG_WARN, ANDROID_LOG_ERROR, ANDROID_LOG_SILENT}) {
    seen.priorities.clear();
    ZOLT_PANO_SetLogLevel(level);
    ZOLT_PANO_SetLogLevel(level == ANDROID_LOG_SILENT ? 9 : 1);  // refused, level kept
    EXPECT_EQ(takeError(nullptr), ZOLT_PANO_ERR_BAD_ARGUMENT);
    EXPECT_EQ(ZOLT_PANO_GetLogLevel(), level);
    zolt_host_sensor_set_gyroscope(0);  // gyroscope fails to start: an error line
    ASSERT_EQ(Engine().initial(), SUCCESS);
    EXPECT_EQ(seen.priorities.empty(), level == ANDROID_LOG_SILENT);
    for (int priority : seen.priorities) EXPECT_GE(priority, level);
  }
  ZOLT_PANO_SetLogLevel(ANDROID_LOG_VERBOSE);
  ZOLT_PANO_SetLogSink(nullptr, nullptr);
  seen.lines.clear();
  ZOLT_PANO_SetLogLevel(ANDROID_LOG_SILENT);  // the platform log stays quiet here
  cycle();
  ZOLT_PANO_SetLogLevel(ANDROID_LOG_VERBOSE);
  EXPECT_TRUE(seen.lines.empty());

  const struct {
    const char* value;
    int level;
  } env[] = {{nullptr, 2}, {"", 2},  {"6", 6},  {"8", 8},    {"silent", 8},  {"warn", 5},
             {"9", 2},     {"1", 2}, {"6x", 2}, {"WARN", 2}, {"verbose", 2}, {"fatal", 7}};
  for (const auto& e : env)
    EXPECT_EQ(zolt::log::levelFromEnvironment(e.value), e.level) << (e.value ? e.value : "unset");
}

// The starting level as the host reads it from ZOLTPANO_LOG_LEVEL at load time (ctest runs this
// one again with the variable set: log_level_from_environment).
TEST(ZoltPanoExt, StartingLevelComesFromTheEnvironment) {
  const char* value = std::getenv("ZOLTPANO_LOG_LEVEL");
  EXPECT_EQ(ZOLT_PANO_GetLogLevel(), zolt::log::levelFromEnvironment(value));
  if (value != nullptr && std::string(value) == "error") {
    EXPECT_EQ(ZOLT_PANO_GetLogLevel(), ZOLT_PANO_LOG_ERROR);
  }
}
