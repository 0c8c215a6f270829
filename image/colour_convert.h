// NV21 <-> 8-bit BGR conversion kernels, byte-exact to the engine's fixed formulas.
//
// NV21 to BGR, per pixel, integers with 14 fractional bits, >> arithmetic (rounds down),
// results clamped to 0..255:
//   B = (Y*16384 + 29032*(U-128)) >> 14
//   G = (Y*16384 + 5638*(128-U) + 11700*(128-V)) >> 14
//   R = (Y*16384 + 22970*(V-128)) >> 14
// BGR to NV21, per 2x2 block, in double precision:
//   Y = trunc(0.587*G + 0.299*R + 0.5 + 0.114*B) for each pixel
//   V = (0.615*SR - 0.515*SG - 0.1*SB + 512) / 4, U = (0.436*SB - 0.147*SR - 0.289*SG + 512) / 4
//   (S: sums over the block), limited to 0..255 and truncated.
//
// Each kernel has a plain reference and a vectorised version (Highway, chosen at run time for
// the CPU); both give the same bytes. The row kernels see only whole rows with valid memory;
// the image-level functions below deal with regions, odd sizes and plane ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zolt {

struct ColourKernels {
  // Converts columns [x0, x1) of one row. yRow and bgrRow are indexed by column (bgrRow by
  // 3 * column); column c reads its V, U pair at vuRow[2 * (c / 2)] and vuRow[2 * (c / 2) + 1].
  void (*nv21RowToBgr)(const uint8_t* yRow, const uint8_t* vuRow, uint8_t* bgrRow, int x0,
                       int x1);
  // Converts two BGR rows of `pairs` 2x2 blocks (2 * pairs pixels each): Y into yRow0/yRow1,
  // the V, U pair of each block into vuRow[2 * i], vuRow[2 * i + 1].
  void (*bgrRowPairToNv21)(const uint8_t* bgrRow0, const uint8_t* bgrRow1, uint8_t* yRow0,
                           uint8_t* yRow1, uint8_t* vuRow, int pairs);
  const char* name;  // "reference" or the Highway target's name
};

const ColourKernels& referenceColourKernels();
// The best vectorised version this CPU runs (the reference where none was built).
const ColourKernels& vectorColourKernels();
// The vectorised kernels once for each instruction set this CPU runs (tests compare them all).
// Switches Highway's target choice while it runs: call it from one thread, not during
// conversions.
std::vector<const ColourKernels*> vectorColourKernelsForEachTarget();
// What the engine uses: the vectorised kernels unless ZOLTPANO_FORCE_REFERENCE is set.
const ColourKernels& colourKernels();

// The reference's luma of one BGR pixel and chroma (V, U) of one 2x2 block, out of line. The
// vectorised kernels hand back to these the rare inputs whose exact value is a whole number,
// where the double result depends on how the products round.
uint8_t referenceLuma(const uint8_t* bgr);
void referenceBlockChroma(const uint8_t* p00, const uint8_t* p01, const uint8_t* p10,
                          const uint8_t* p11, uint8_t* vu);

// NV21 planes as the engine holds them: rows of `width` bytes in both planes, `vuSize` bytes in
// the VU plane ((width * height) / 2). Converts the rectangle x..x+w-1, y..y+h-1 (already
// inside the picture) into the same place of `bgr` (rows `bgrStep` bytes apart). Pixels whose
// V, U pair would lie beyond the end of the VU plane (odd sizes only) read V = U = 128.
void nv21ToBgr(const ColourKernels& k, const uint8_t* yPlane, const uint8_t* vuPlane,
               size_t vuSize, int width, int height, uint8_t* bgr, size_t bgrStep, int x, int y,
               int w, int h);

// Converts a rows x cols BGR picture (rows `bgrStep` bytes apart) into NV21 planes of width
// `cols` (Y rows `cols` bytes apart; V, U of the block at rows r, r+1 and columns c, c+1 at VU
// byte (r / 2) * cols + c). For odd sizes the missing row or column of the last blocks repeats
// the last one, Y is written only inside the picture, and no byte is written beyond vuSize.
void bgrToNv21(const ColourKernels& k, const uint8_t* bgr, size_t bgrStep, int rows, int cols,
               uint8_t* yPlane, uint8_t* vuPlane, size_t vuSize);

}  // namespace zolt
