// PixelAlignment: shift between two grey images by exhaustive SAD block matching of a thin strip.
//
// A strip is cut from the first image around a centre and searched for in the second image over
// a rectangle of shifts around a predicted shift. The vertical strip (8 wide) is used while the
// sweep is horizontal and may be clipped at the top and bottom of the second image; the
// horizontal strip (8 high) is used while the sweep is vertical and may be clipped at the left
// and right. The clipped side is cut down to a multiple of `groupSize`, which is also the
// granule of the cost: 64 rows of 8 pixels keep every 16-bit lane of the vector accumulator
// below 64 * 255.
//
// Both images are 8-bit single channel and continuous (row stride == cols).
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "zolt_pano.h"

class ZOLT_PANO_EXPORT PixelAlignment {
 public:
  struct Input {
    int32_t centerX;  // strip centre in the first image
    int32_t centerY;
    int32_t predX;    // predicted shift; the search is centred on it
    int32_t predY;
    int32_t stripW;
    int32_t stripH;
    int32_t rangeX;   // shifts predX - rangeX ... predX + rangeX are tried
    int32_t rangeY;
  };
  // The strip with top-left (x0, y0) in the first image matches best the block with top-left
  // (x0 - dx, y0 - dy) in the second one. cost is the SAD, kNoCost when nothing was searched.
  struct Result {
    int32_t dx;
    int32_t dy;
    int32_t cost;
  };
  static constexpr int32_t kNoCost = 2147483647;

  int32_t groupSize = 64;
  std::vector<uint8_t> stripBuf;   // packed copy of the strip
  std::vector<uint8_t> searchBuf;  // packed copy of the search window, then vector scratch

  PixelAlignment() = default;
  // Sized for frames `width` pixels wide (strip of width x 8, window of (width + 65) x 41).
  explicit PixelAlignment(int width);

  // Vertical strip, clipped vertically at the border of the second image.
  Result searchUsingVstrip(const cv::Mat& first, const cv::Mat& second, const Input& in);
  // Horizontal strip, clipped horizontally at the border of the second image.
  Result searchUsingHstrip(const cv::Mat& first, const cv::Mat& second, const Input& in);

 private:
  enum class Axis { kVertical, kHorizontal };
  Result search(const cv::Mat& first, const cv::Mat& second, const Input& in, Axis clipAxis);
};

namespace zolt {

// The search proper, over packed buffers. The strip is `chunks` chunks of `chunkRows` rows of
// `rowBytes` bytes (packed, row stride rowBytes). The window has row stride `winStride`; shift
// (i, j), i in [0, shiftsX), j in [0, shiftsY), compares strip row r with window bytes
// [(j + r) * winStride + i, ... + rowBytes). Shifts are scanned j outer, i inner; a shift is
// abandoned as soon as its cost after a whole chunk exceeds the best so far, and only a strictly
// smaller complete cost replaces the best, so among equal costs the first shift wins.
// `scratch` (scratchBytes(...) bytes) is free for the kernel to use.
struct SadSearchArgs {
  const uint8_t* strip;
  const uint8_t* window;
  int rowBytes;
  int chunkRows;
  int chunks;
  int winStride;
  int winRows;
  int shiftsX;
  int shiftsY;
  uint8_t* scratch;
};
struct SadSearchBest {
  int32_t cost;  // PixelAlignment::kNoCost when no shift completed
  int32_t i;
  int32_t j;
};

struct SadKernels {
  SadSearchBest (*search)(const SadSearchArgs& a);
  // Scratch the kernel needs beyond the window for these dimensions.
  size_t (*scratchBytes)(int rowBytes, int chunkRows, int chunks, int winRows, int shiftsX);
  const char* name;
};

const SadKernels& referenceSadKernels();
const SadKernels& vectorSadKernels();
// The vector kernels unless zolt::forceReferenceKernels(); chosen once.
const SadKernels& sadKernels();

// Test hook: run PixelAlignment with the given kernels (nullptr: back to sadKernels()).
void setSadKernelsForTesting(const SadKernels* k);

}  // namespace zolt

namespace zolt {
// Both vector strategies, whatever this CPU's choice, so that tests can hold each to the
// reference.
const SadKernels& vectorSadKernelsRunsOf8();
const SadKernels& vectorSadKernelsColumns();
}  // namespace zolt
