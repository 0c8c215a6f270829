#include "merger/merge_kernels.h"

#include <algorithm>
#include <cstddef>

#include "platform/simd_choice.h"

namespace zolt {
namespace {

void blendRampRowRef(uint8_t* cY, uint8_t* cVU, const uint8_t* fY, const uint8_t* fVU, int xa,
                     int xb, int k, int wfa, int dir, int level) {
  const int hw = 16 << level;
  const int total = 2 * hw;
  const int shift = level + 5;
  for (int x = xa; x <= xb; ++x) {
    const int wf = wfa + dir * (x - xa);
    const int wc = total - wf;
    const int fx = x + k;
    cY[x] = static_cast<uint8_t>((wf * fY[fx] + wc * cY[x] + hw) >> shift);
    uint8_t* c = cVU + (x / 2) * 2;
    const uint8_t* f = fVU + (fx / 2) * 2;
    c[0] = static_cast<uint8_t>((wf * f[0] + wc * c[0] + hw) >> shift);
    c[1] = static_cast<uint8_t>((wf * f[1] + wc * c[1] + hw) >> shift);
  }
}

void blendRampColumnsRef(const ColumnRamps& a) {
  const size_t pw = static_cast<size_t>(a.pw), fw = static_cast<size_t>(a.fw);
  for (int c = a.c0; c < a.c1; ++c) {
    const int level = a.level[c];
    const int hw = 16 << level;
    const int shift = level + 5;
    const int s = a.seam[c];
    const int fc = c + a.offX;
    const int wfa = a.before ? 2 * hw : 0;
    const int dir = a.before ? -1 : 1;
    for (int y = s - hw; y <= s + hw; ++y) {
      const int wf = wfa + dir * (y - (s - hw));
      const int wc = 2 * hw - wf;
      const int fy = y + a.yShift;
      uint8_t* cy = a.cY + y * pw + c;
      *cy = static_cast<uint8_t>((wf * a.fY[fy * fw + fc] + wc * *cy + hw) >> shift);
      uint8_t* cvu = a.cVU + (y / 2) * pw + (c & ~1);
      const uint8_t* fvu = a.fVU + (fy / 2) * fw + (fc / 2) * 2;
      cvu[0] = static_cast<uint8_t>((wf * fvu[0] + wc * cvu[0] + hw) >> shift);
      cvu[1] = static_cast<uint8_t>((wf * fvu[1] + wc * cvu[1] + hw) >> shift);
    }
  }
}

void gainRowRef(uint8_t* dst, const uint8_t* src, int n, const int16_t* gains, int gainStep,
                int centre) {
  for (int i = 0; i < n; ++i) {
    // >> of a negative int is arithmetic (floor) on every compiler the engine is built with,
    // as the vector lanes' shifts are.
    const int p = ((src[i] - centre) * 128 * gains[i * gainStep]) >> 16;
    dst[i] = static_cast<uint8_t>(std::clamp(centre + ((p + 16) >> 5), 0, 255));
  }
}

}  // namespace

const MergeKernels& referenceMergeKernels() {
  static const MergeKernels k{blendRampRowRef, blendRampColumnsRef, gainRowRef, "reference"};
  return k;
}

const MergeKernels& mergeKernels() {
  static const MergeKernels& k =
      forceReferenceKernels() ? referenceMergeKernels() : vectorMergeKernels();
  return k;
}

}  // namespace zolt
