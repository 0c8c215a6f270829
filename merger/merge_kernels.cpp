#include "merger/merge_kernels.h"

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

}  // namespace

const MergeKernels& referenceMergeKernels() {
  static const MergeKernels k{blendRampRowRef, "reference"};
  return k;
}

const MergeKernels& mergeKernels() {
  static const MergeKernels& k =
      forceReferenceKernels() ? referenceMergeKernels() : vectorMergeKernels();
  return k;
}

}  // namespace zolt
