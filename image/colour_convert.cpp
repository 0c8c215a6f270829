#include "image/colour_convert.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/simd_choice.h"

namespace zolt {
namespace {

inline uint8_t clampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v < 255 ? v : 255)); }

void nv21RowToBgrRef(const uint8_t* yRow, const uint8_t* vuRow, uint8_t* bgrRow, int x0,
                     int x1) {
  for (int c = x0; c < x1; ++c) {
    const int Y = yRow[c] * 16384;
    const int V = vuRow[2 * (c / 2)];
    const int U = vuRow[2 * (c / 2) + 1];
    uint8_t* p = bgrRow + 3 * c;
    p[0] = clampByte((Y + 29032 * (U - 128)) >> 14);
    p[1] = clampByte((Y + 5638 * (128 - U) + 11700 * (128 - V)) >> 14);
    p[2] = clampByte((Y + 22970 * (V - 128)) >> 14);
  }
}

inline uint8_t lumaOf(const uint8_t* bgr) {
  return static_cast<uint8_t>(
      static_cast<int>(0.587 * bgr[1] + 0.299 * bgr[2] + 0.5 + 0.114 * bgr[0]));
}

inline uint8_t chromaByte(double v) {
  if (v < 0.0) return 0;
  if (v > 255.0) return 255;
  return static_cast<uint8_t>(static_cast<int>(v));
}

// One 2x2 block given its four pixels (top-left, top-right, bottom-left, bottom-right).
inline void blockToNv21(const uint8_t* p00, const uint8_t* p01, const uint8_t* p10,
                        const uint8_t* p11, uint8_t* vu) {
  const double sb = static_cast<double>(p00[0] + p01[0] + p10[0] + p11[0]);
  const double sg = static_cast<double>(p00[1] + p01[1] + p10[1] + p11[1]);
  const double sr = static_cast<double>(p00[2] + p01[2] + p10[2] + p11[2]);
  vu[0] = chromaByte((0.615 * sr - 0.515 * sg - 0.1 * sb + 512.0) * 0.25);
  vu[1] = chromaByte((0.436 * sb - 0.147 * sr - 0.289 * sg + 512.0) * 0.25);
}

void bgrRowPairToNv21Ref(const uint8_t* bgrRow0, const uint8_t* bgrRow1, uint8_t* yRow0,
                         uint8_t* yRow1, uint8_t* vuRow, int pairs) {
  for (int i = 0; i < pairs; ++i) {
    const uint8_t* p00 = bgrRow0 + 6 * i;
    const uint8_t* p10 = bgrRow1 + 6 * i;
    yRow0[2 * i] = lumaOf(p00);
    yRow0[2 * i + 1] = lumaOf(p00 + 3);
    yRow1[2 * i] = lumaOf(p10);
    yRow1[2 * i + 1] = lumaOf(p10 + 3);
    blockToNv21(p00, p00 + 3, p10, p10 + 3, vuRow + 2 * i);
  }
}

}  // namespace

uint8_t referenceLuma(const uint8_t* bgr) { return lumaOf(bgr); }

void referenceBlockChroma(const uint8_t* p00, const uint8_t* p01, const uint8_t* p10,
                          const uint8_t* p11, uint8_t* vu) {
  blockToNv21(p00, p01, p10, p11, vu);
}

const ColourKernels& referenceColourKernels() {
  static const ColourKernels k{nv21RowToBgrRef, bgrRowPairToNv21Ref, "reference"};
  return k;
}

const ColourKernels& colourKernels() {
  static const ColourKernels& k =
      forceReferenceKernels() ? referenceColourKernels() : vectorColourKernels();
  return k;
}

void nv21ToBgr(const ColourKernels& k, const uint8_t* yPlane, const uint8_t* vuPlane,
               size_t vuSize, int width, int height, uint8_t* bgr, size_t bgrStep, int x, int y,
               int w, int h) {
  (void)height;
  if (w <= 0 || h <= 0) return;
  const size_t chromaRowBytes = static_cast<size_t>(width / 2) * 2;
  std::vector<uint8_t> padded;  // only for a chroma row cut short by the plane's end
  for (int r = y; r < y + h; ++r) {
    const uint8_t* yRow = yPlane + static_cast<size_t>(r) * width;
    const size_t vuOff = static_cast<size_t>(r / 2) * chromaRowBytes;
    // Bytes the row's last pixel needs: its pair at 2 * ((x + w - 1) / 2), two bytes.
    const size_t need = vuOff + 2 * static_cast<size_t>((x + w - 1) / 2) + 2;
    const uint8_t* vuRow = vuPlane + vuOff;
    if (need > vuSize) {
      const size_t rowLen = need - vuOff;
      padded.assign(rowLen, 128);
      if (vuSize > vuOff) std::memcpy(padded.data(), vuRow, std::min(rowLen, vuSize - vuOff));
      // A pair cut in half by the plane's end reads as neutral too.
      if (vuSize > vuOff && ((vuSize - vuOff) & 1)) padded[vuSize - vuOff - 1] = 128;
      vuRow = padded.data();
    }
    k.nv21RowToBgr(yRow, vuRow, bgr + static_cast<size_t>(r) * bgrStep, x, x + w);
  }
}

void bgrToNv21(const ColourKernels& k, const uint8_t* bgr, size_t bgrStep, int rows, int cols,
               uint8_t* yPlane, uint8_t* vuPlane, size_t vuSize) {
  if (rows <= 0 || cols <= 0) return;
  const int pairs = cols / 2;
  std::vector<uint8_t> yScratch(static_cast<size_t>(cols) + 1);
  std::vector<uint8_t> vuScratch(static_cast<size_t>(cols) + 2);
  for (int r = 0; r < rows; r += 2) {
    const uint8_t* row0 = bgr + static_cast<size_t>(r) * bgrStep;
    const bool lastAlone = (r + 1 == rows);
    const uint8_t* row1 = lastAlone ? row0 : row0 + bgrStep;
    uint8_t* y0 = yPlane + static_cast<size_t>(r) * cols;
    uint8_t* y1 = lastAlone ? yScratch.data() : y0 + cols;
    const size_t vuOff = static_cast<size_t>(r / 2) * cols;
    if (vuOff >= vuSize) {
      // The VU plane is full: only the luma of this row pair is still to write.
      k.bgrRowPairToNv21(row0, row1, y0, y1, vuScratch.data(), pairs);
    } else if (vuOff + 2 * static_cast<size_t>(pairs) <= vuSize) {
      k.bgrRowPairToNv21(row0, row1, y0, y1, vuPlane + vuOff, pairs);
    } else {
      k.bgrRowPairToNv21(row0, row1, y0, y1, vuScratch.data(), pairs);
      std::memcpy(vuPlane + vuOff, vuScratch.data(), vuSize - vuOff);
    }
    if (cols & 1) {
      // Last block of an odd row: its right column repeats the left one.
      const int c = cols - 1;
      const uint8_t* p0 = row0 + 3 * c;
      const uint8_t* p1 = row1 + 3 * c;
      y0[c] = lumaOf(p0);
      y1[c] = lumaOf(p1);
      uint8_t pair[2];
      blockToNv21(p0, p0, p1, p1, pair);
      for (int i = 0; i < 2; ++i) {
        const size_t at = vuOff + c + i;
        if (at < vuSize) vuPlane[at] = pair[i];
      }
    }
  }
}

}  // namespace zolt
