// Fuzz target: the public C interface driven as a careless app might. The input is a program
// of calls: engines made and released (also twice, also through copies of stale handles),
// frames of any size or content (or crops of one textured scene, so that the tracker finds
// motion and key frames are merged), canvases of any shape, null records and outputs, saves
// before any merge, the tracker's too-quick limits set at random, and the extension's calls
// (JPEG to a file and to memory, last errors into buffers of any size, options, canvas sizes,
// Camera2 frames of any strides, log level and sink, frame times against the host gyroscope's
// events, the verdict, photo information, the preview into buffers of any size). Engines are
// just above 640 pixels a side so that one run stays fast.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "engine/orrery_engine.h"
#include "fuzz_input.h"
#include "quiet_log.h"
#include "tracker/module_track.h"
#include "zolt_pano.h"
#include "zolt_host_sensor.h"
#include "zolt_pano_ext.h"

namespace {

using zolt::fuzz::FuzzInput;

constexpr int kSlots = 3;
constexpr int kMaxCalls = 48;
constexpr int kSceneW = 2400, kSceneH = 1000;

// A blocky random scene (luma only) that FAST finds corners in; made once.
const std::vector<uint8_t>& scene() {
  static const std::vector<uint8_t> s = [] {
    std::vector<uint8_t> y(static_cast<size_t>(kSceneW) * kSceneH);
    uint32_t state = 12345;
    std::vector<uint8_t> block((kSceneW / 8 + 1) * (kSceneH / 8 + 1));
    for (auto& b : block) {
      state = state * 1664525u + 1013904223u;
      b = static_cast<uint8_t>(state >> 24);
    }
    for (int r = 0; r < kSceneH; ++r)
      for (int c = 0; c < kSceneW; ++c)
        y[static_cast<size_t>(r) * kSceneW + c] = block[(r / 8) * (kSceneW / 8 + 1) + c / 8];
    return y;
  }();
  return s;
}

struct Slot {
  void* handle = nullptr;
  int w = 0, h = 0;  // the preview size the engine was made for
  int x = 0, y = 0;  // where its camera looks in the scene
};

struct Program {
  Slot slots[kSlots];
  std::vector<void*> stale;                   // handles released before
  int64_t gyroNs = 1000000000;                // the host gyroscope's clock, ns
  std::vector<std::vector<uint8_t>> buffers;  // every frame, alive to the end
  std::map<std::array<int, 3>, std::vector<uint8_t>> canvases;  // slot, width, height
  std::string savePath = "/tmp/zolt_fuzz_" + std::to_string(getpid());

  uint8_t* buffer(size_t bytes) {
    buffers.emplace_back(bytes > 0 ? bytes : 1);
    return buffers.back().data();
  }

  // Which argument of a call is null, 0 to 23: 0 and 1 are the record's planes, nulled here;
  // the caller nulls the record or an output for its own values.
  static int pickNulls(FuzzInput& in, __tag_ZOLT_OFFSCREEN& rec) {
    const int nulls = in.pick(24);
    if (nulls == 0) rec.planeY = nullptr;
    if (nulls == 1) rec.planeVU = nullptr;
    return nulls;
  }

  void* pickHandle(FuzzInput& in, Slot*& slot) {
    slot = &slots[in.pick(kSlots)];
    switch (in.pick(8)) {
      case 0:
        return stale.empty() ? nullptr : stale[in.pick(static_cast<int>(stale.size()))];
      case 1:
        return static_cast<void*>(&stale);  // memory that is no engine
      default:
        return slot->handle;
    }
  }

  void initial(FuzzInput& in) {
    static const int kSizes[][2] = {{642, 642}, {660, 644}, {644, 700}, {640, 480},
                                    {0, 0},     {-2, 900},  {642, 642}, {642, 642}};
    Slot& s = slots[in.pick(kSlots)];
    const auto* size = kSizes[in.pick(8)];
    tag_ZOLT_PANO_INIT_PARAM p{};
    p.previewWidth = size[0];
    p.previewHeight = size[1];
    p.mode = in.byte();
    p.camOrientation = in.pick(360);
    void* h = nullptr;
    const int nulls = in.pick(16);
    const int rc = ZOLT_PANO_Initial(nulls == 0 ? nullptr : &p, nulls == 1 ? nullptr : &h);
    if (rc != SUCCESS) return;
    if (s.handle != nullptr) {  // the app forgot the old engine: released here, as at the end
      void* old = s.handle;
      ZOLT_PANO_Release(&old);
      stale.push_back(old);
    }
    s = Slot{h, size[0], size[1], in.pick(200), 100 + in.pick(100)};
  }

  void selectFrames(FuzzInput& in) {
    Slot* s;
    void* h = pickHandle(in, s);
    int w = s->w, hh = s->h;
    const int shape = in.pick(10);  // 0: 320 x 240, 1: narrower, 2: higher, 3: 2 x 2, else: fits
    if (shape == 0) {
      w = 320;
      hh = 240;
    }
    if (shape == 1) w -= 2;
    if (shape == 2) hh += 2;
    if (shape == 3 || w <= 0 || hh <= 0) w = hh = 2;
    const size_t ySize = static_cast<size_t>(w) * hh;
    uint8_t* buf = buffer(ySize + ySize / 2);
    const int content = in.pick(4);
    if (content != 0) std::fill(buf + ySize, buf + ySize + ySize / 2, 128);  // grey chroma
    switch (content) {
      case 0:  // raw bytes, repeated
        in.repeat(buf, ySize + ySize / 2, 64);
        break;
      case 1:
        std::fill(buf, buf + ySize, static_cast<uint8_t>(in.byte()));
        break;
      default: {  // the scene, the camera moved a little (mostly to the right)
        s->x += in.pick(81) - 20;
        s->y += in.pick(9) - 4;
        s->x = std::max(0, std::min(s->x, kSceneW - w));
        s->y = std::max(0, std::min(s->y, kSceneH - hh));
        for (int r = 0; r < hh; ++r) {
          const uint8_t* row = scene().data() + static_cast<size_t>(s->y + r) * kSceneW + s->x;
          std::copy(row, row + std::min(w, kSceneW), buf + static_cast<size_t>(r) * w);
        }
        break;
      }
    }
    __tag_ZOLT_OFFSCREEN frame{0, w, hh, buf, buf + ySize};
    const int nulls = pickNulls(in, frame);
    tsPOINT offset;
    long key;
    int dir, length;
    ZOLT_PANO_SelectFrames(h, nullptr, nullptr, nulls == 2 ? nullptr : &frame, nullptr,
                           nulls == 3 ? nullptr : &offset, nulls == 4 ? nullptr : &key, nullptr,
                           nulls == 5 ? nullptr : &dir, nulls == 6 ? nullptr : &length);
  }

  void addImage(FuzzInput& in) {
    Slot* s;
    void* h = pickHandle(in, s);
    int w = s->w, hh = s->h;
    // 0: long, 1: high, 2: empty, 3: odd, 4: narrower, 5: lower than three frames, 6: the
    // preview's size, else long or high by a flag.
    const int shape = in.pick(10);
    const bool longer = shape == 0 || (shape > 6 && in.flag());
    if (longer) w *= 3;
    if (shape == 1 || (shape > 6 && !longer)) hh *= 3;
    if (shape == 2) w = hh = 0;
    if (shape == 3) w = 3 * w + 1;
    if (shape == 4) w -= 2;
    if (shape == 5) hh = 3 * hh - 2;
    const size_t ySize = static_cast<size_t>(std::max(w, 0)) * std::max(hh, 0);
    // An app passes the same canvas on every call: one buffer per slot and shape.
    std::vector<uint8_t>& bytes = canvases[{static_cast<int>(s - slots), w, hh}];
    if (bytes.empty()) bytes.resize(std::max<size_t>(ySize + ySize / 2, 1));
    uint8_t* buf = bytes.data();
    __tag_ZOLT_OFFSCREEN canvas{0, w, hh, buf, buf + ySize};
    const int nulls = pickNulls(in, canvas);
    tsRECT rect;
    int progress;
    ZOLT_PANO_AddImage(h, nullptr, nullptr, nullptr, nullptr, nulls == 2 ? nullptr : &canvas,
                       nulls == 3 ? nullptr : &rect, nullptr, nulls == 4 ? nullptr : &progress);
  }

  void other(FuzzInput& in) {
    Slot* s;
    void* h = pickHandle(in, s);
    switch (in.pick(6)) {
      case 0: {
        tsPOINT offset;
        long key;
        const int nulls = in.pick(8);
        ZOLT_PANO_GetTrackInfo(h, nulls == 0 ? nullptr : &offset, nulls == 1 ? nullptr : &key);
        break;
      }
      case 1:
        ZOLT_PANO_SaveImage(h, in.flag() ? savePath : "/nonexistent-dir/zolt/pano");
        std::remove((savePath + ".jpg").c_str());
        break;
      case 2: {  // release; the app keeps its (now stale) handle
        void* slot = h;
        ZOLT_PANO_Release(in.pick(16) == 0 ? nullptr : &slot);
        if (h == s->handle && h != nullptr) {
          stale.push_back(h);
          s->handle = nullptr;
        }
        break;
      }
      case 3: {  // the too-quick limits, straight into the tracker of a live engine
        if (s->handle == nullptr) break;
        tag_ZOLT_PANO_INNER_PARAM p{};
        p.traceTooQuickOn = in.byte();
        p.traceTooQuickX = in.pick(65536) - 32768;
        p.traceTooQuickY = in.pick(65536) - 32768;
        static_cast<OrreryEngine*>(s->handle)->tracker->trace_too_quick_params(&p);
        break;
      }
      case 4:
        ZOLT_PANO_SetInternalParameter();
        ZOLT_PANO_UpdateUIImage();
        ZOLT_PANO_Stitch();
        break;
      default:
        extension(in, h);
        break;
    }
  }

  void extension(FuzzInput& in, void* h) {
    switch (in.pick(14)) {
      case 0:
        ZOLT_PANO_GetVersion();
        break;
      case 1: {
        const std::string path = savePath + ".jpg";
        const bool named = in.flag();
        const int quality = in.pick(104) - 2;
        ZOLT_PANO_SaveJpeg(h, named ? path.c_str() : nullptr, quality);
        std::remove(path.c_str());
        break;
      }
      case 2: {
        unsigned char* data = nullptr;
        size_t size = 0;
        const int nulls = in.pick(8);
        const int quality = in.pick(104) - 2;
        ZOLT_PANO_EncodeJpeg(h, quality, nulls == 0 ? nullptr : &data,
                             nulls == 1 ? nullptr : &size);
        ZOLT_PANO_FreeBuffer(data);
        break;
      }
      case 3: {  // a message buffer exactly as large as said (or none)
        const int size = in.pick(300) - 10;
        std::vector<char> message(std::max(size, 0));
        const bool ofEngine = in.flag();
        ZOLT_PANO_GetLastError(ofEngine ? h : nullptr, message.empty() ? nullptr : message.data(),
                               size);
        break;
      }
      case 4: {
        const int option = in.pick(8) - 2;
        ZOLT_PANO_SetOption(h, option, in.pick(65536) - 32768);
        break;
      }
      case 5: {
        int cw = 0, ch = 0;
        const int nulls = in.pick(8);
        const int w = in.pick(4000) - 100, hh = in.pick(4000) - 100, dir = in.pick(8) - 1;
        const int sweep = in.flag() ? 0 : in.pick(65536) * 256 - 1000;
        ZOLT_PANO_CanvasSize(w, hh, dir, sweep, nulls == 0 ? nullptr : &cw,
                             nulls == 1 ? nullptr : &ch);
        break;
      }
      case 6:
        packNV21(in);
        break;
      case 8: {  // the host's gyroscope: present from the next Initial or not, and a few events
        zolt_host_sensor_set_gyroscope(in.flag());
        for (int n = in.pick(12); n > 0; --n) {
          gyroNs += in.pick(60) * 1000000LL - 5000000LL;  // a step back now and then
          zolt_host_sensor_push_gyro(gyroNs, (in.byte() - 128) / 16.0f, (in.byte() - 128) / 16.0f,
                                     (in.byte() - 128) / 16.0f);
        }
        zolt_host_sensor_sync();
        break;
      }
      case 9: {  // a frame time near the events' clock, or any 64-bit value
        int64_t t = gyroNs + in.pick(3000) * 1000000LL - 1500000000LL;
        if (in.pick(4) == 0) {
          uint64_t bits = 0;
          for (int i = 0; i < 8; ++i) bits = bits << 8 | in.byte();
          std::memcpy(&t, &bits, sizeof t);
        }
        ZOLT_PANO_SetFrameTime(h, t);
        break;
      }
      case 10: {  // the verdict, with or without its outputs, before or after any merge
        int verdict = 0;
        char message[96];
        const int size = in.pick(98) - 2;  // up to the buffer's size
        ZOLT_PANO_GetVerdict(h, in.flag() ? &verdict : nullptr, in.flag() ? message : nullptr,
                             size);
        break;
      }
      case 11: {  // photo information: strings of any bytes up to past the limit, or none
        char text[3][72];
        const char* str[3];
        for (int k = 0; k < 3; ++k) {
          const int n = in.pick(72);
          for (int i = 0; i < n; ++i) text[k][i] = static_cast<char>(in.byte());
          text[k][n > 0 ? n - 1 : 0] = 0;
          str[k] = in.pick(6) == 0 ? nullptr : text[k];
        }
        // 1969 to past 9999 in steps of 50 days and some ms, or any 64 bits.
        int64_t t = (in.pick(65536) * 86400LL * 50 - 86400LL) * 1000 + in.pick(1000);
        if (in.pick(4) == 0)
          for (int i = 0; i < 8; ++i)
            t = static_cast<int64_t>(static_cast<uint64_t>(t) << 8 | in.byte());
        const ZOLT_PANO_PhotoInfo info{t, in.pick(2000) - 1000, str[0], str[1], str[2]};
        ZOLT_PANO_SetPhotoInfo(h, in.pick(8) == 0 ? nullptr : &info);
        break;
      }
      case 12: {  // the preview into a buffer exactly as large as said; a size or stride off
        const int w = in.pick(700) - 4, hh = in.pick(300) - 4, stride = w * 4 + in.pick(16) - 4;
        const size_t bytes = static_cast<size_t>(std::max(stride, 0)) * std::max(hh, 0);
        int pw = 0, ph = 0;
        const int nulls = in.pick(16);
        ZOLT_PANO_RenderPreview(h, w, hh, nulls == 0 ? nullptr : buffer(bytes), stride,
                                nulls == 1 ? nullptr : &pw, nulls == 2 ? nullptr : &ph);
        break;
      }
      case 7: {  // the level, always back to verbose (lines still formatted for the sink)
        ZOLT_PANO_SetLogLevel(in.pick(12) - 1);
        selectFrames(in);
        ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
        break;
      }
      default: {  // the platform log for a moment, then the quiet sink again
        ZOLT_PANO_SetLogSink(nullptr, nullptr);
        ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_SILENT);
        ZOLT_PANO_GetLastError(nullptr, nullptr, 0);
        ZOLT_PANO_SetLogLevel(ZOLT_PANO_LOG_VERBOSE);
        zolt::fuzz::quietLog();
        break;
      }
    }
  }

  // A YUV_420_888 frame of any size and strides; each plane as large as its strides say (the
  // engine cannot see a buffer's size), U and V one buffer or two.
  void packNV21(FuzzInput& in) {
    const int w = in.pick(80) - 4;
    const int h = in.pick(80) - 4;
    const int yStride = w + in.pick(12) - 2;
    const int pixel = in.pick(4);
    const int uvStride = w + in.pick(12) - 6;
    const int cw = std::max(w / 2, 0), ch = std::max(h / 2, 0);
    const size_t ySize = static_cast<size_t>(std::max(yStride, 1)) * std::max(h, 1);
    const size_t uvSize =
        static_cast<size_t>(std::max(uvStride, 1)) * ch + static_cast<size_t>(cw) * pixel + 2;
    uint8_t* y = buffer(ySize);
    uint8_t* u = buffer(uvSize);
    uint8_t* v = in.flag() ? u + 1 : buffer(uvSize);  // NV21 underneath: V one byte before U
    if (v == u + 1) std::swap(u, v);
    in.repeat(y, ySize, 32);
    uint8_t* out = buffer(static_cast<size_t>(std::max(w, 0)) * std::max(h, 0) * 3 / 2);
    const bool noY = in.pick(16) == 0;
    ZOLT_PANO_PackNV21(noY ? nullptr : y, yStride, u, v, uvStride, pixel, w, h, out);
  }

  void run(FuzzInput& in) {
    zolt_host_sensor_set_gyroscope(0);  // every input starts on a host without one
    for (int call = 0; call < kMaxCalls && !in.empty(); ++call) {
      const int op = in.pick(16);
      if (op < 2) {
        initial(in);
      } else if (op < 9) {
        selectFrames(in);
      } else if (op < 13) {
        addImage(in);
      } else {
        other(in);
      }
    }
    for (Slot& s : slots)
      if (s.handle != nullptr) ZOLT_PANO_Release(&s.handle);
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zolt::fuzz::quietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  Program program;
  program.run(in);
  return 0;
}
