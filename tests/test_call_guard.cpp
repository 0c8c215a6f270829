// Misuse of the C interface that an app can really commit: stale, foreign and null handles,
// null records and outputs, frames of another size, canvases that cannot take the sweep. Each
// call is refused with one error line and no effect; under AddressSanitizer these tests also
// prove that nothing outside the caller's buffers is read or written.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "engine/orrery_engine.h"
#include "merger/module_merge.h"
#include "sim/sweep_simulator.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "support/sim_sweep.h"
#include "zolt_pano.h"

namespace {

const char* kPhoto = "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";

void* newEngine(int w, int h) {
  tag_ZOLT_PANO_INIT_PARAM p{};
  p.previewWidth = w;
  p.previewHeight = h;
  void* handle = nullptr;
  EXPECT_EQ(ZOLT_PANO_Initial(&p, &handle), SUCCESS);
  return handle;
}

// The outputs of one call, preset to values no call writes.
struct Outputs {
  tsPOINT offset{-77, -77};
  long key = -77;
  int dir = -77, length = -77, progress = -77;
  tsRECT rect{-77, -77, -77, -77};
  bool untouched() const {
    return offset.x == -77 && offset.y == -77 && dir == -77 && length == -77 && progress == -77 &&
           zolt::test::corners(rect) == (std::array<int, 4>{-77, -77, -77, -77});
  }
};

int selectFrame(void* h, __tag_ZOLT_OFFSCREEN* frame, Outputs& o) {
  return ZOLT_PANO_SelectFrames(h, nullptr, nullptr, frame, nullptr, &o.offset, &o.key, nullptr,
                                &o.dir, &o.length);
}
int addImage(void* h, __tag_ZOLT_OFFSCREEN* canvas, Outputs& o) {
  return ZOLT_PANO_AddImage(h, nullptr, nullptr, nullptr, nullptr, canvas, &o.rect, nullptr,
                            &o.progress);
}

bool fileExists(const std::string& path) {
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    std::fclose(f);
    return true;
  }
  return false;
}

}  // namespace

// Every engine-bound call with a handle that is not a live engine: null, foreign memory, one
// already released (twice, and after new engines were made). No call touches its outputs or
// the engines that are live; the second release frees nothing twice.
TEST(CallGuard, HandlesThatAreNotLiveEnginesAreRefused) {
  zolt::test::Nv21Buffer frame(1280, 720, 90), canvas(2560, 720);
  int foreign[64] = {};
  void* released = newEngine(1280, 720);
  void* stale = released;
  ASSERT_EQ(ZOLT_PANO_Release(&released), 0);
  EXPECT_EQ(released, stale);  // the interface leaves the slot as it was
  void* live = newEngine(1280, 720);
  ASSERT_NE(live, stale);  // a new engine does not take the address of one just released

  zolt::test::LogCapture log;
  for (void* h : {static_cast<void*>(nullptr), static_cast<void*>(foreign), stale}) {
    SCOPED_TRACE(h);
    log.clear();
    Outputs o;
    EXPECT_EQ(selectFrame(h, &frame.rec, o), ERR_INVALID_DIMENSIONS);
    EXPECT_EQ(o.key, 0);
    EXPECT_EQ(addImage(h, &canvas.rec, o), 0);
    EXPECT_EQ(ZOLT_PANO_GetTrackInfo(h, &o.offset, &o.key), 0);
    const std::string out = testing::TempDir() + "zolt_guard_stale";
    std::remove((out + ".jpg").c_str());
    ZOLT_PANO_SaveImage(h, out);
    EXPECT_FALSE(fileExists(out + ".jpg"));
    void* slot = h;
    EXPECT_EQ(ZOLT_PANO_Release(&slot), 0);
    EXPECT_EQ(slot, h);
    EXPECT_TRUE(o.untouched());
    EXPECT_EQ(o.key, 0);
    char line[160];
    for (const char* call :
         {"ZOLT_PANO_SelectFrames", "ZOLT_PANO_AddImage", "ZOLT_PANO_GetTrackInfo",
          "ZOLT_PANO_SaveImage", "ZOLT_PANO_Release"}) {
      std::snprintf(line, sizeof line, "%s :: Invalid handle %p : not a live engine, call ignored",
                    call, h);
      EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, line)) << line;
    }
    EXPECT_FALSE(log.contains("FinishSensor ::SensorInterface : Deleted"));
  }
  // The live engine was not disturbed and still works.
  Outputs o;
  EXPECT_EQ(selectFrame(live, &frame.rec, o), INFO_TRACE_FIRST_FRAME);
  EXPECT_EQ(static_cast<OrreryEngine*>(live)->trackFrames, 1);
  EXPECT_EQ(ZOLT_PANO_Release(nullptr), 0);
  EXPECT_TRUE(
      log.contains(ANDROID_LOG_ERROR, "ZOLT_PANO_Release :: NULL handle pointer : call ignored"));
  EXPECT_EQ(ZOLT_PANO_Release(&live), 0);
}

// Preview sizes that are no size at all: refused like any side of 640 or less, before the
// tracker derives anything from them (a side of 0 once made its scale infinite and cast NaN to
// int, which clang's UndefinedBehaviorSanitizer reports).
TEST(CallGuard, PreviewSizesOfZeroOrBelowAreRefused) {
  zolt::test::LogCapture log;
  const int sizes[][2] = {{0, 0}, {0, 720}, {1280, 0}, {-2, 900}, {-1280, -720}, {INT32_MIN, 720}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1]);
    tag_ZOLT_PANO_INIT_PARAM p{};
    p.previewWidth = size[0];
    p.previewHeight = size[1];
    void* handle = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(ZOLT_PANO_Initial(&p, &handle), ERR_INVALID_DIMENSIONS);
    EXPECT_EQ(handle, reinterpret_cast<void*>(0x1234));
  }
  EXPECT_TRUE(
      log.contains(ANDROID_LOG_ERROR, "ZOLT_PANO_Initial :: Invalid Dimensions : returning ERROR"));
}

// Null records and outputs: the call is refused before anything is read or written.
TEST(CallGuard, NullRecordsAndOutputsAreRefused) {
  zolt::test::LogCapture log;
  tag_ZOLT_PANO_INIT_PARAM p{};
  p.previewWidth = 1280;
  p.previewHeight = 720;
  void* handle = reinterpret_cast<void*>(0x1234);
  EXPECT_EQ(ZOLT_PANO_Initial(nullptr, &handle), ERR_INVALID_DIMENSIONS);
  EXPECT_EQ(handle, reinterpret_cast<void*>(0x1234));
  EXPECT_EQ(ZOLT_PANO_Initial(&p, nullptr), ERR_INVALID_DIMENSIONS);  // no engine left behind
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "ZOLT_PANO_Initial :: NULL argument : call ignored"));

  handle = newEngine(1280, 720);
  zolt::test::Nv21Buffer frame(1280, 720, 90), canvas(2560, 720);
  enum Null { kOffset, kKey, kDir, kLength };
  for (Null n : {kOffset, kKey, kDir, kLength}) {
    SCOPED_TRACE(n);
    log.clear();
    Outputs o;
    EXPECT_EQ(ZOLT_PANO_SelectFrames(
                  handle, nullptr, nullptr, &frame.rec, nullptr, n == kOffset ? nullptr : &o.offset,
                  n == kKey ? nullptr : &o.key, nullptr, n == kDir ? nullptr : &o.dir,
                  n == kLength ? nullptr : &o.length),
              ERR_INVALID_DIMENSIONS);
    EXPECT_TRUE(o.untouched());
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, "ZOLT_PANO_SelectFrames :: NULL argument : call ignored"));
  }
  EXPECT_EQ(static_cast<OrreryEngine*>(handle)->trackFrames, 0);
  Outputs o;
  log.clear();
  EXPECT_EQ(ZOLT_PANO_AddImage(handle, nullptr, nullptr, nullptr, nullptr, &canvas.rec, nullptr,
                               nullptr, &o.progress),
            0);
  EXPECT_EQ(ZOLT_PANO_AddImage(handle, nullptr, nullptr, nullptr, nullptr, &canvas.rec, &o.rect,
                               nullptr, nullptr),
            0);
  EXPECT_EQ(addImage(handle, nullptr, o), 0);
  EXPECT_EQ(ZOLT_PANO_GetTrackInfo(handle, nullptr, &o.key), 0);
  EXPECT_EQ(ZOLT_PANO_GetTrackInfo(handle, &o.offset, nullptr), 0);
  EXPECT_TRUE(o.untouched());
  EXPECT_TRUE(
      log.contains(ANDROID_LOG_ERROR, "ZOLT_PANO_AddImage :: NULL argument : call ignored"));
  EXPECT_TRUE(
      log.contains(ANDROID_LOG_ERROR,
                   "ZOLT_PANO_AddImage :: Invalid canvas : NULL record or empty : call ignored"));
  EXPECT_TRUE(
      log.contains(ANDROID_LOG_ERROR, "ZOLT_PANO_GetTrackInfo :: NULL argument : call ignored"));
  EXPECT_EQ(ZOLT_PANO_Release(&handle), 0);
}

// Frames the engine cannot read as a whole preview of its size. Each buffer is exactly as large
// as its record says, so a read past it is caught under AddressSanitizer. The frame is not
// tracked, and the AddImage after it merges nothing; a good frame then goes through.
TEST(CallGuard, FramesOfAnotherSizeOrWithoutPlanesAreNotRead) {
  void* handle = newEngine(1280, 720);
  auto* engine = static_cast<OrreryEngine*>(handle);
  zolt::test::LogCapture log;
  zolt::test::Nv21Buffer canvas(2560, 720);
  struct Case {
    int w, h;
    bool nullY, nullVU;
    const char* line;
  };
  const Case cases[] = {
      {960, 540, false, false, "Invalid frame : 960x540, preview is 1280x720 : frame ignored"},
      {1920, 1080, false, false, "Invalid frame : 1920x1080, preview is 1280x720 : frame ignored"},
      {1280, 718, false, false, "Invalid frame : 1280x718, preview is 1280x720 : frame ignored"},
      {720, 1280, false, false, "Invalid frame : 720x1280, preview is 1280x720 : frame ignored"},
      {0, 0, false, false, "Invalid frame : 0x0, preview is 1280x720 : frame ignored"},
      {1280, 720, true, false, "Invalid frame : NULL record or plane : frame ignored"},
      {1280, 720, false, true, "Invalid frame : NULL record or plane : frame ignored"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    log.clear();
    zolt::test::Nv21Buffer frame(std::max(c.w, 2), std::max(c.h, 2), 90);
    frame.rec.width = c.w;
    frame.rec.height = c.h;
    if (c.nullY) frame.rec.planeY = nullptr;
    if (c.nullVU) frame.rec.planeVU = nullptr;
    Outputs o;
    EXPECT_EQ(selectFrame(handle, &frame.rec, o), ERR_INVALID_DIMENSIONS);
    EXPECT_EQ(o.key, 0);
    EXPECT_EQ(addImage(handle, &canvas.rec, o), 0);
    EXPECT_TRUE(o.untouched());
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, std::string("ZOLT_PANO_SelectFrames :: ") + c.line));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR,
                             "ZOLT_PANO_AddImage :: last frame was refused : nothing to merge"));
  }
  Outputs none;
  EXPECT_EQ(selectFrame(handle, nullptr, none), ERR_INVALID_DIMENSIONS);
  EXPECT_EQ(engine->trackFrames, 0);
  EXPECT_EQ(engine->frameCount, 0);
  zolt::test::Nv21Buffer good(1280, 720, 90);
  Outputs o;
  EXPECT_EQ(selectFrame(handle, &good.rec, o), INFO_TRACE_FIRST_FRAME);
  EXPECT_EQ(addImage(handle, &canvas.rec, o), 0);
  EXPECT_EQ(o.progress, 0);  // the AddImage after a good frame goes through again
  EXPECT_EQ(ZOLT_PANO_Release(&handle), 0);
}

// A sweep run up to its first merge, where each canvas that cannot take it is offered first:
// refused with the canvas left unwritten and the merger not started; then the right canvas
// takes the frame. A canvas of zero size is refused on any call (progress divides by it).
TEST(CallGuard, CanvasesThatCannotTakeTheSweepAreRefused) {
  zolt::sim::SweepSimulator sim(zolt::test::simSweep("steady", kPhoto, 40));
  const int w = sim.width(), h = sim.height();
  void* handle = newEngine(w, h);
  auto* engine = static_cast<OrreryEngine*>(handle);
  zolt::test::LogCapture log;
  {
    zolt::test::Nv21Buffer zero(2, 2);
    zero.rec.width = 0;
    zero.rec.height = 0;
    Outputs o;
    EXPECT_EQ(addImage(handle, &zero.rec, o), 0);
    EXPECT_TRUE(o.untouched());
  }
  zolt::test::Nv21Buffer good(3 * w, h, 0, 0);
  bool placed = false;
  for (zolt::sim::SimFrame f; !placed && sim.next(f);) {
    __tag_ZOLT_OFFSCREEN frame{0, w, h, f.nv21.data(), f.nv21.data() + static_cast<size_t>(w) * h};
    Outputs o;
    selectFrame(handle, &frame, o);
    if (o.key == 1) {
      ASSERT_EQ(o.dir, MOVE_RIGHT);
      struct Case {
        int cw, ch;
        int gap;
        bool nullY;
        const char* line;
      };
      const Case cases[] = {
          {w - 2, h, 0, false, "cannot take a horizontal sweep of 1280x720 frames"},
          {3 * w, h - 2, 0, false, "cannot take a horizontal sweep of 1280x720 frames"},
          {3 * w, h + 2, 0, false, "cannot take a horizontal sweep of 1280x720 frames"},
          {3 * w + 1, h, 0, false, "needs even sides and one buffer, VU behind Y"},
          {3 * w, h, 64, false, "needs even sides and one buffer, VU behind Y"},
          {3 * w, h, 0, true, "needs even sides and one buffer, VU behind Y"},
      };
      for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.cw << "x" << c.ch << " gap " << c.gap);
        log.clear();
        std::vector<uint8_t> bytes(static_cast<size_t>(c.cw) * c.ch * 3 / 2 + c.gap + 1, 7);
        __tag_ZOLT_OFFSCREEN bad{0, c.cw, c.ch, c.nullY ? nullptr : bytes.data(),
                                 bytes.data() + static_cast<size_t>(c.cw) * c.ch + c.gap};
        Outputs out;
        EXPECT_EQ(addImage(handle, &bad, out), 0);
        EXPECT_TRUE(out.untouched());
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 7), static_cast<long>(bytes.size()));
        EXPECT_FALSE(engine->merger->panoInitialised);
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_NE(log.lines()[0].message.find(c.line), std::string::npos) << log.lines()[0].message;
      }
      Outputs out;
      EXPECT_EQ(addImage(handle, &good.rec, out), 0);
      EXPECT_TRUE(engine->merger->panoInitialised);
      EXPECT_EQ(out.rect.left, 0);
      placed = true;
    } else {
      addImage(handle, &good.rec, o);
    }
  }
  EXPECT_TRUE(placed);
  // Once the canvas is placed the record only sizes the progress.
  EXPECT_EQ(ZOLT_PANO_Release(&handle), 0);
}

// Saving never lets an exception out: before any merge (nothing to write), or to a folder that
// does not exist.
TEST(CallGuard, SavingWhatCannotBeWrittenLeavesNoException) {
  void* handle = newEngine(1280, 720);
  zolt::test::LogCapture log;
  const std::string early = testing::TempDir() + "zolt_guard_early";
  std::remove((early + ".jpg").c_str());
  EXPECT_NO_THROW(ZOLT_PANO_SaveImage(handle, early));
  EXPECT_FALSE(fileExists(early + ".jpg"));
  EXPECT_NO_THROW(ZOLT_PANO_SaveImage(handle, "/nonexistent-folder/zolt/pano"));
  EXPECT_TRUE(log.contains("Inside storeOutputTo - 1"));
  EXPECT_EQ(ZOLT_PANO_Release(&handle), 0);
}
