// Hot pixel loops of the merger: a plain reference and a vectorised version (Highway, chosen at
// run time for the CPU) that give the same bytes.
#pragma once

#include <cstdint>

namespace zolt {

// The ramps of a vertical sweep: one per canvas column c in [c0, c1), over canvas rows
// seam[c] - hw .. seam[c] + hw with hw = 16 << level[c]. Canvas pixel (c, y) meets frame pixel
// (c + offX, y + yShift); the frame weighs 2hw at the ramp's top end when `before` (the frame
// lies above the seam), at its bottom end otherwise. Chroma as for the rows: the canvas pair of
// VU row y / 2 at byte c & ~1 from the frame pair at VU row (y + yShift) / 2, byte
// ((c + offX) / 2) * 2, blended once per pixel in column order, each column from top to bottom.
struct ColumnRamps {
  uint8_t* cY;
  uint8_t* cVU;
  int pw;  // canvas row length, both planes
  const uint8_t* fY;
  const uint8_t* fVU;
  int fw;  // frame row length
  int c0, c1;
  int offX, yShift;
  const int* seam;     // per canvas column
  const int8_t* level;  // per canvas column, 0 to 3
  bool before;
};

struct MergeKernels {
  // Linear ramp along one canvas row. For every canvas column x in [xa, xb] the frame column is
  // fx = x + k (fx >= 0) and the frame weighs wf = wfa + dir * (x - xa) of 2^(level + 5):
  //   cY[x] = (wf * fY[fx] + (2^(level+5) - wf) * cY[x] + 2^(level+4)) >> (level + 5)
  // and the same for both bytes of the canvas VU pair at (x / 2) * 2 from the frame pair at
  // (fx / 2) * 2. A pair shared by two columns is blended twice, the even column first, the
  // second time from what the first left. cY/cVU and fY/fVU point at the starts of the row's
  // Y row and VU row.
  void (*blendRampRow)(uint8_t* cY, uint8_t* cVU, const uint8_t* fY, const uint8_t* fVU, int xa,
                       int xb, int k, int wfa, int dir, int level);
  void (*blendRampColumns)(const ColumnRamps& r);
  // Exposure gain on n bytes of one plane row, src to dst (not overlapping): with the gain
  // g = gains[i * gainStep] (gainStep 1: one per byte, 0: one for the row) in Q14, 0 to 32767,
  // and centre 0 for luma, 128 for VU bytes,
  //   p = ((src[i] - centre) * 128 * g) >> 16          (floor)
  //   dst[i] = clamp(centre + ((p + 16) >> 5), 0, 255)
  // i.e. centre + (src - centre) * g / 2^14 rounded, in the 16-bit products the vector lanes use.
  void (*gainRow)(uint8_t* dst, const uint8_t* src, int n, const int16_t* gains, int gainStep,
                  int centre);
  const char* name;  // "reference" or the Highway target's name
};

const MergeKernels& referenceMergeKernels();
// The best vectorised version this CPU runs.
const MergeKernels& vectorMergeKernels();
// What the merger uses: the vectorised kernels unless ZOLTPANO_FORCE_REFERENCE is set.
const MergeKernels& mergeKernels();

}  // namespace zolt
