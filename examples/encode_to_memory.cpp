// encode_to_memory: stitches a sweep folder without a gyroscope, with the engine's log routed to
// a sink that counts its lines by priority, then takes the panorama as JPEG bytes in memory
// (ZOLT_PANO_EncodeJpeg) and checks them against the file ZOLT_PANO_SaveJpeg writes at the same
// quality.
//   encode_to_memory SWEEP_DIR OUT.jpg
// Exit status 0 when the two are the same bytes, 1 otherwise or on a failure.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <zolt_pano_ext.h>

#include "sweep_folder.h"

namespace {

std::atomic<int> g_lines[9];  // by priority, 2 (verbose) to 7 (fatal)

// Called from the caller's thread or the engine's gyroscope thread, one line at a time.
void countLine(int priority, const char*, const char*, void*) {
  if (priority >= 0 && priority <= 8) ++g_lines[priority];
}

// Throws the code's name and the engine's message for a call that returned `code`.
void check(void* handle, int code) {
  if (code == 0) return;
  char message[256] = "";
  ZOLT_PANO_GetLastError(handle, message, int(sizeof message));
  throw std::runtime_error(std::string(ZOLT_PANO_CodeName(code)) + ": " + message);
}

// The refusal recorded on `handle` since the last look, thrown; true for a full canvas, where
// the sweep ends and the panorama so far is kept.
bool canvasFull(void* handle) {
  char message[256] = "";
  const int code = ZOLT_PANO_GetLastError(handle, message, int(sizeof message));
  if (code == ZOLT_PANO_ERR_CANVAS_FULL) return true;
  if (code != 0) throw std::runtime_error(std::string(ZOLT_PANO_CodeName(code)) + ": " + message);
  return false;
}

struct FreeBuffer {
  void operator()(unsigned char* p) const { ZOLT_PANO_FreeBuffer(p); }
};

int run(const char* dir, const char* out) {
  SweepFolder sweep;
  const bool opened = sweep_open(&sweep, dir) == 0;
  std::unique_ptr<SweepFolder, void (*)(SweepFolder*)> closer(&sweep, sweep_close);
  if (!opened) throw std::runtime_error(sweep.error);

  std::vector<unsigned char> frameBytes(sweep.frameBytes), canvasBytes;  // outlive the engine
  tag_ZOLT_PANO_INIT_PARAM param{};
  param.previewWidth = sweep.width;
  param.previewHeight = sweep.height;
  void* handle = nullptr;
  check(nullptr, ZOLT_PANO_Initial(&param, &handle));
  std::unique_ptr<void, void (*)(void*)> release(handle, [](void* h) { ZOLT_PANO_Release(&h); });

  __tag_ZOLT_OFFSCREEN frame{0, sweep.width, sweep.height, frameBytes.data(),
                             frameBytes.data() + size_t(sweep.width) * size_t(sweep.height)};
  __tag_ZOLT_OFFSCREEN canvas{};
  check(nullptr, ZOLT_PANO_CanvasSize(sweep.width, sweep.height, 0, 0, &canvas.width,
                                      &canvas.height));
  for (int k = 0; k < sweep.frames; ++k) {
    if (sweep_read_frame(&sweep, frameBytes.data()) != 0) throw std::runtime_error(sweep.error);
    tsPOINT offset;
    tsRECT rect;
    long isKey = 0;
    int direction = 0, length = 0, progress = 0;
    ZOLT_PANO_SelectFrames(handle, nullptr, nullptr, &frame, nullptr, &offset, &isKey, nullptr,
                           &direction, &length);
    if (canvasFull(handle)) break;
    if (canvasBytes.empty() && direction >= ZOLT_PANO_MOVE_RIGHT) {
      check(nullptr, ZOLT_PANO_CanvasSize(sweep.width, sweep.height, direction, 0, &canvas.width,
                                          &canvas.height));
      const size_t y = size_t(canvas.width) * size_t(canvas.height);
      canvasBytes.assign(y * 3 / 2, 128);
      std::fill(canvasBytes.begin(), canvasBytes.begin() + long(y), 0);
      canvas.planeY = canvasBytes.data();
      canvas.planeVU = canvasBytes.data() + y;
    }
    check(handle, ZOLT_PANO_AddImage(handle, nullptr, nullptr, nullptr, nullptr, &canvas, &rect,
                                     nullptr, &progress));
    if (canvasFull(handle)) break;
  }

  const int quality = 90;
  unsigned char* data = nullptr;
  size_t size = 0;
  check(handle, ZOLT_PANO_EncodeJpeg(handle, quality, &data, &size));
  std::unique_ptr<unsigned char, FreeBuffer> jpeg(data);
  check(handle, ZOLT_PANO_SaveJpeg(handle, out, quality));
  std::ifstream file(out, std::ios::binary);
  const std::vector<unsigned char> saved{std::istreambuf_iterator<char>(file), {}};
  const bool same = saved.size() == size && std::equal(saved.begin(), saved.end(), data);
  std::printf("encode_to_memory: %zu bytes in memory, %zu bytes in %s: %s\n", size, saved.size(),
              out, same ? "equal" : "DIFFERENT");
  return same ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: encode_to_memory SWEEP_DIR OUT.jpg\n");
    return 1;
  }
  ZOLT_PANO_SetLogSink(countLine, nullptr);
  int status = 1;
  try {
    status = run(argv[1], argv[2]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "encode_to_memory: %s\n", e.what());
  }
  ZOLT_PANO_SetLogSink(nullptr, nullptr);  // no engine is left to write
  std::printf("encode_to_memory: log lines: verbose %d, debug %d, info %d, warn %d, error %d\n",
              g_lines[2].load(), g_lines[3].load(), g_lines[4].load(), g_lines[5].load(),
              g_lines[6].load());
  return status;
}
