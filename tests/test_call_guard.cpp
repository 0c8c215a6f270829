// Misuse of the C interface that an app can really commit: stale, foreign and null handles,
// null records and outputs, frames of another size, canvases that cannot take the sweep. Each
// call is refused with one error line and no effect, and ZOLT_PANO_GetLastError gives its code
// and the same line; under AddressSanitizer these tests also prove that nothing outside the
// caller's buffers is read or written.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "engine/orrery_engine.h"
#include "sensor/sensor_handle.h"
#include "sim/sweep_simulator.h"
#include "support/engine_sweep.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "zolt_host_sensor.h"
#include "zolt_pano.h"
#include "zolt_pano_ext.h"

// The test sees what the engine gives back to the heap, whatever the allocator would do with
// it: whether `watched` went through the global operator delete.
namespace {
std::atomic<void*> watched{nullptr};
std::atomic<bool> watchedFreed{false};
void giveBack(void* p) {
  if (p != nullptr && p == watched.load()) watchedFreed = true;
  std::free(p);
}
}  // namespace
void* operator new(size_t n) {
  if (void* p = std::malloc(n > 0 ? n : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { giveBack(p); }
void operator delete(void* p, size_t) noexcept { giveBack(p); }

namespace {

using zolt::test::Engine;
using zolt::test::Nv21Buffer;
using zolt::test::takeError;
constexpr int kErr = ERR_INVALID_DIMENSIONS;

template <typename... Args>
std::string format(const char* fmt, Args... args) {
  char line[200];
  std::snprintf(line, sizeof line, fmt, args...);
  return line;
}

// The outputs of one call, preset to values no call writes (SelectFrames clears the key flag).
struct Outputs {
  tsPOINT offset{-77, -77};
  long key = -77;
  int dir = -77, length = -77, progress = -77;
  tsRECT rect{-77, -77, -77, -77};
  bool untouched() const {
    return offset.x == -77 && offset.y == -77 && dir == -77 && length == -77 && progress == -77 &&
           rect.left == -77 && rect.top == -77 && rect.right == -77 && rect.bottom == -77;
  }
};

class CallGuard : public testing::Test {
 protected:
  zolt::test::LogCapture log;
  Outputs o;               // what `call` writes through
  void* engine = nullptr;  // the live engine whose refusals GetLastError reads, if any

  void TearDown() override { zolt_host_sensor_set_gyroscope(0); }

  // `call` returns `want`, leaves the outputs alone and logs one error line: `line`, with the
  // engine's tag. ZOLT_PANO_GetLastError then gives `code` once, with `message` (by default the
  // line), for the engine or, for a call without a live engine, for this thread.
  template <typename Call>
  void refused(int want, int code, const std::string& line, Call call,
               const std::string& message = "") {
    o = Outputs{};
    log.clear();
    takeError(nullptr), takeError(engine);
    EXPECT_EQ(call(), want) << line;
    EXPECT_TRUE(o.untouched()) << line;
    std::vector<zolt::test::LogLine> errors;
    for (const auto& l : log.lines())
      if (l.priority == ANDROID_LOG_ERROR) errors.push_back(l);
    ASSERT_EQ(errors.size(), 1u) << line;
    EXPECT_EQ(errors[0].tag, "PanoEngine");
    EXPECT_EQ(errors[0].message, line);
    std::string kept;
    int got = takeError(nullptr, &kept);
    if (got == 0) got = takeError(engine, &kept);
    EXPECT_EQ(got, code) << line << ": " << ZOLT_PANO_CodeName(got);
    EXPECT_EQ(kept, message.empty() ? line : message);
    EXPECT_EQ(takeError(nullptr) + takeError(engine), 0) << "kept once, in one place: " << line;
  }
  int selectFrame(void* h, __tag_ZOLT_OFFSCREEN* frame) {
    return ZOLT_PANO_SelectFrames(h, nullptr, nullptr, frame, nullptr, &o.offset, &o.key, nullptr,
                                  &o.dir, &o.length);
  }
  int addImage(void* h, __tag_ZOLT_OFFSCREEN* canvas) {
    return ZOLT_PANO_AddImage(h, nullptr, nullptr, nullptr, nullptr, canvas, &o.rect, nullptr,
                              &o.progress);
  }
};

}  // namespace

// Every engine-bound call with a handle that is not a live engine: null, foreign memory, one
// already released. None touches its outputs, the live engine or the running gyroscope; the
// stale release frees nothing a second time (AddressSanitizer would see it).
TEST_F(CallGuard, HandlesThatAreNotLiveEnginesAreRefused) {
  zolt_host_sensor_set_gyroscope(1);  // every engine made starts one in pSensorHandle
  Nv21Buffer frame(1280, 720, 90), canvas(2560, 720);
  int foreign[64] = {};
  tag_ZOLT_PANO_INIT_PARAM p{};
  p.previewWidth = 1280, p.previewHeight = 720;
  void* released = nullptr;
  ASSERT_EQ(ZOLT_PANO_Initial(&p, &released), SUCCESS);
  ASSERT_NE(pSensorHandle, nullptr);
  void* const stale = released;
  watched = stale;
  watchedFreed = false;
  ASSERT_EQ(ZOLT_PANO_Release(&released), 0);
  EXPECT_EQ(released, stale);         // the interface leaves the slot as it was
  EXPECT_EQ(pSensorHandle, nullptr);  // a live engine's release stops the gyroscope
  // Its memory is held back while the next engines come and go, so no new engine gets its
  // address and it stays stale.
  for (int i = 0; i < 16; ++i) EXPECT_NE(Engine(642, 642).handle(), stale);
  EXPECT_FALSE(watchedFreed);
  Engine live;
  SensorInterface* const running = pSensorHandle;
  ASSERT_NE(running, nullptr);

  const std::string out = testing::TempDir() + "zolt_guard_stale";
  for (void* h : {static_cast<void*>(nullptr), static_cast<void*>(foreign), stale}) {
    SCOPED_TRACE(h);
    auto line = [h](const char* call) {
      return format("%s :: Invalid handle %p : not a live engine, call ignored", call, h);
    };
    refused(kErr, ZOLT_PANO_ERR_NOT_ENGINE, line("ZOLT_PANO_SelectFrames"),
            [&] { return selectFrame(h, &frame.rec); });
    EXPECT_EQ(o.key, 0);
    refused(0, ZOLT_PANO_ERR_NOT_ENGINE, line("ZOLT_PANO_AddImage"),
            [&] { return addImage(h, &canvas.rec); });
    refused(0, ZOLT_PANO_ERR_NOT_ENGINE, line("ZOLT_PANO_GetTrackInfo"),
            [&] { return ZOLT_PANO_GetTrackInfo(h, &o.offset, &o.key); });
    EXPECT_EQ(o.key, -77);
    refused(0, ZOLT_PANO_ERR_NOT_ENGINE, line("ZOLT_PANO_SaveImage"),
            [&] { return ZOLT_PANO_SaveImage(h, out), 0; });
    EXPECT_FALSE(std::filesystem::exists(out + ".jpg"));
    void* slot = h;
    refused(0, ZOLT_PANO_ERR_NOT_ENGINE, line("ZOLT_PANO_Release"),
            [&] { return ZOLT_PANO_Release(&slot); });
    EXPECT_EQ(slot, h);
    EXPECT_EQ(pSensorHandle, running);  // the gyroscope runs on
  }
  EXPECT_FALSE(watchedFreed);  // the stale releases freed nothing
  refused(0, ZOLT_PANO_ERR_NULL_ARGUMENT, "ZOLT_PANO_Release :: NULL handle pointer : call ignored",
          [] { return ZOLT_PANO_Release(nullptr); });
  // The live engine was not disturbed and still works.
  EXPECT_EQ(selectFrame(live.handle(), &frame.rec), INFO_TRACE_FIRST_FRAME);
  EXPECT_EQ(static_cast<OrreryEngine*>(live.handle())->trackFrames, 1);
  EXPECT_EQ(live.release(), 0);
  EXPECT_EQ(pSensorHandle, nullptr);
}

// Null slots, preview sizes that are no size at all (a side of 0 once made the tracker's scale
// infinite and cast NaN to int) and sides of 640 or less: no engine made, the slot left alone.
TEST_F(CallGuard, InitialRefusesNullSlotsAndEmptyPreviews) {
  tag_ZOLT_PANO_INIT_PARAM p{};
  void* handle = &p;
  const char* nullArgument = "ZOLT_PANO_Initial :: NULL argument : call ignored";
  refused(kErr, ZOLT_PANO_ERR_NULL_ARGUMENT, nullArgument,
          [&] { return ZOLT_PANO_Initial(nullptr, &handle); });
  p.previewWidth = 1280, p.previewHeight = 720;
  refused(kErr, ZOLT_PANO_ERR_NULL_ARGUMENT, nullArgument,
          [&] { return ZOLT_PANO_Initial(&p, nullptr); });
  const int sizes[][2] = {{0, 0},        {0, 720},       {1280, 0},  {-2, 900},
                          {-1280, -720}, {INT_MIN, 720}, {640, 480}, {1280, 640}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(testing::Message() << size[0] << "x" << size[1]);
    p.previewWidth = size[0], p.previewHeight = size[1];
    refused(
        kErr, kErr, "ZOLT_PANO_Initial :: Invalid Dimensions : returning ERROR",
        [&] { return ZOLT_PANO_Initial(&p, &handle); },
        format("ZOLT_PANO_Initial :: preview %dx%d : both sides must be above 640", size[0],
               size[1]));
  }
  EXPECT_EQ(handle, &p);
}

// On a live engine that has merged nothing: null outputs and records, an empty canvas, frames
// the engine cannot read as a whole preview of its size (each buffer exactly as large as its
// record says, so that AddressSanitizer sees a read past it), each followed by an AddImage that
// has nothing to merge; saves that cannot write. Then a good frame still goes through.
TEST_F(CallGuard, NullOutputsAndUnreadableFramesAreRefused) {
  Engine e;
  void* h = engine = e.handle();
  Nv21Buffer frame(1280, 720, 90), canvas(2560, 720), empty(2, 2);
  empty.rec.width = empty.rec.height = 0;
  for (int n = 0; n < 4; ++n)  // offset, key-frame flag, direction, sweep length
    refused(kErr, ZOLT_PANO_ERR_NULL_ARGUMENT,
            "ZOLT_PANO_SelectFrames :: NULL argument : call ignored", [&] {
              return ZOLT_PANO_SelectFrames(h, nullptr, nullptr, &frame.rec, nullptr,
                                            n == 0 ? nullptr : &o.offset, n == 1 ? nullptr : &o.key,
                                            nullptr, n == 2 ? nullptr : &o.dir,
                                            n == 3 ? nullptr : &o.length);
            });
  for (int n = 0; n < 2; ++n)  // valid rectangle, progress
    refused(0, ZOLT_PANO_ERR_NULL_ARGUMENT, "ZOLT_PANO_AddImage :: NULL argument : call ignored",
            [&] {
              return ZOLT_PANO_AddImage(h, nullptr, nullptr, nullptr, nullptr, &canvas.rec,
                                        n == 0 ? nullptr : &o.rect, nullptr,
                                        n == 1 ? nullptr : &o.progress);
            });
  for (__tag_ZOLT_OFFSCREEN* c : {static_cast<__tag_ZOLT_OFFSCREEN*>(nullptr), &empty.rec})
    refused(0, c == nullptr ? ZOLT_PANO_ERR_NULL_ARGUMENT : ZOLT_PANO_ERR_CANVAS_INVALID,
            "ZOLT_PANO_AddImage :: Invalid canvas : NULL record or empty : call ignored",
            [&] { return addImage(h, c); });
  for (int n = 0; n < 2; ++n) {  // offset, key-frame flag
    refused(0, ZOLT_PANO_ERR_NULL_ARGUMENT,
            "ZOLT_PANO_GetTrackInfo :: NULL argument : call ignored", [&] {
              return ZOLT_PANO_GetTrackInfo(h, n == 0 ? nullptr : &o.offset,
                                            n == 1 ? nullptr : &o.key);
            });
    EXPECT_EQ(o.key, -77);
  }

  const std::string noPlane =
      "ZOLT_PANO_SelectFrames :: Invalid frame : NULL record or plane : frame ignored";
  refused(kErr, ZOLT_PANO_ERR_NULL_ARGUMENT, noPlane, [&] { return selectFrame(h, nullptr); });
  const int sizes[][3] = {{960, 540, 0}, {1280, 718, 0}, {720, 1280, 0},
                          {0, 0, 0},     {1280, 720, 1}, {1280, 720, 2}};  // 1, 2: Y, VU null
  for (const auto& s : sizes) {
    Nv21Buffer bad(std::max(s[0], 2), std::max(s[1], 2), 90);
    bad.rec.width = s[0], bad.rec.height = s[1];
    if (s[2] == 1) bad.rec.planeY = nullptr;
    if (s[2] == 2) bad.rec.planeVU = nullptr;
    refused(kErr, s[2] ? ZOLT_PANO_ERR_NULL_ARGUMENT : ZOLT_PANO_ERR_FRAME_SIZE,
            s[2] ? noPlane
                 : format("ZOLT_PANO_SelectFrames :: Invalid frame : %dx%d, preview is 1280x720 "
                          ": frame ignored",
                          s[0], s[1]),
            [&] { return selectFrame(h, &bad.rec); });
    EXPECT_EQ(o.key, 0);
    refused(0, ZOLT_PANO_ERR_FRAME_REFUSED,
            "ZOLT_PANO_AddImage :: last frame was refused : nothing to merge",
            [&] { return addImage(h, &canvas.rec); });
  }
  EXPECT_EQ(static_cast<OrreryEngine*>(h)->trackFrames, 0);
  EXPECT_EQ(static_cast<OrreryEngine*>(h)->frameCount, 0);

  // Nothing merged yet, or a folder that does not exist: no file, no exception, and nothing to
  // save is what the caller learns (the original save by its code only: its log is the
  // engine's own).
  const std::string early = testing::TempDir() + "zolt_guard_early";
  std::remove((early + ".jpg").c_str());
  const std::string nothing = " :: nothing to save : no key frame merged yet";
  for (const std::string& name : {early, std::string("/nonexistent-folder/zolt/pano")}) {
    EXPECT_NO_THROW(ZOLT_PANO_SaveImage(h, name));
    std::string kept;
    EXPECT_EQ(takeError(h, &kept), ZOLT_PANO_ERR_NOTHING_TO_SAVE);
    EXPECT_EQ(kept, "ZOLT_PANO_SaveImage" + nothing);
    refused(ZOLT_PANO_ERR_NOTHING_TO_SAVE, ZOLT_PANO_ERR_NOTHING_TO_SAVE,
            "ZOLT_PANO_SaveJpeg" + nothing,
            [&] { return ZOLT_PANO_SaveJpeg(h, (name + ".jpg").c_str(), 0); });
  }
  EXPECT_FALSE(std::filesystem::exists(early + ".jpg"));

  EXPECT_EQ(selectFrame(h, &frame.rec), INFO_TRACE_FIRST_FRAME);
  EXPECT_EQ(addImage(h, &canvas.rec), 0);
  EXPECT_EQ(o.progress, 0);  // the AddImage after a good frame goes through again
  EXPECT_EQ(e.release(), 0);
}

// A sweep run up to its first merge, where each canvas that cannot take it is offered first:
// refused with the canvas left unwritten and the merger not started; then the right canvas
// takes the frame.
TEST_F(CallGuard, CanvasesThatCannotTakeTheSweepAreRefused) {
  zolt::sim::SweepSimulator sim(zolt::test::simSweep("steady", zolt::test::kSweepPhoto, 40));
  const int w = sim.width(), h = sim.height();
  Engine e(w, h, 3 * w);
  void* handle = engine = e.handle();
  const OrreryEngine& facade = *static_cast<OrreryEngine*>(handle);
  const std::string sweep = format("cannot take a horizontal sweep of %dx%d frames", w, h);
  const std::string layout = "needs even sides and one buffer, VU behind Y";
  const struct {
    int cw, ch, gap;  // gap: bytes between the planes
    bool nullY;
    const std::string& why;
  } cases[] = {{w - 2, h, 0, false, sweep},     {3 * w, h - 2, 0, false, sweep},
               {3 * w, h + 2, 0, false, sweep}, {3 * w + 1, h, 0, false, layout},
               {3 * w, h, 64, false, layout},   {3 * w, h, 0, true, layout}};
  for (zolt::sim::SimFrame f; !facade.hasPanorama() && sim.next(f);) {
    zolt::test::FrameReport r = e.select(f.nv21.data());
    if (r.key == 1) {
      ASSERT_EQ(r.direction, MOVE_RIGHT);
      for (const auto& c : cases) {
        std::vector<uint8_t> bytes(static_cast<size_t>(c.cw) * c.ch * 3 / 2 + c.gap + 1, 7);
        __tag_ZOLT_OFFSCREEN bad{0, c.cw, c.ch, c.nullY ? nullptr : bytes.data(),
                                 bytes.data() + static_cast<size_t>(c.cw) * c.ch + c.gap};
        refused(0, ZOLT_PANO_ERR_CANVAS_INVALID,
                format("ZOLT_PANO_AddImage :: Invalid canvas : %dx%d %s : call ignored", c.cw, c.ch,
                       c.why.c_str()),
                [&] { return addImage(handle, &bad); });
        EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 7), static_cast<long>(bytes.size()));
        EXPECT_FALSE(facade.hasPanorama());
      }
    }
    e.add(r);
    EXPECT_EQ(facade.hasPanorama(), r.key == 1);  // the right canvas takes the first key frame
  }
  EXPECT_TRUE(facade.hasPanorama());
  // Now there is a panorama, but no folder to write it to.
  const std::string nowhere = "/nonexistent-folder/zolt/pano.jpg";
  ZOLT_PANO_SaveImage(handle, "/nonexistent-folder/zolt/pano");
  std::string kept;
  EXPECT_EQ(takeError(handle, &kept), ZOLT_PANO_ERR_WRITE_FAILED);
  EXPECT_EQ(kept, "ZOLT_PANO_SaveImage :: cannot write '" + nowhere + "'");
  refused(ZOLT_PANO_ERR_WRITE_FAILED, ZOLT_PANO_ERR_WRITE_FAILED,
          "ZOLT_PANO_SaveJpeg :: cannot write '" + nowhere + "' : No such file or directory",
          [&] { return ZOLT_PANO_SaveJpeg(handle, nowhere.c_str(), 90); });
  EXPECT_EQ(e.release(), 0);
}
