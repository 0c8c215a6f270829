// Vectorised merger kernels, compiled once per Highway target and dispatched at run time.
// The ramp is computed in 16-bit lanes with the weights scaled to a sum of 256: multiplying
// numerator and divisor by 2^(3 - level) leaves the floor of the quotient unchanged, so one
// shift by 8 serves every ramp level and the bytes equal the reference's. The largest sum,
// 256 * 255 + 128, fits in 16 bits.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "merger/merge_kernels_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include "merger/merge_kernels.h"

HWY_BEFORE_NAMESPACE();
namespace zolt {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One column's blend, as the reference does it.
HWY_INLINE void BlendY(uint8_t* cY, const uint8_t* fY, int x, int k, int wf, int level) {
  const int hw = 16 << level;
  cY[x] = static_cast<uint8_t>((wf * fY[x + k] + (2 * hw - wf) * cY[x] + hw) >> (level + 5));
}
HWY_INLINE void BlendVU(uint8_t* cVU, const uint8_t* fVU, int x, int k, int wf, int level) {
  const int hw = 16 << level;
  const int wc = 2 * hw - wf;
  uint8_t* c = cVU + (x / 2) * 2;
  const uint8_t* f = fVU + ((x + k) / 2) * 2;
  c[0] = static_cast<uint8_t>((wf * f[0] + wc * c[0] + hw) >> (level + 5));
  c[1] = static_cast<uint8_t>((wf * f[1] + wc * c[1] + hw) >> (level + 5));
}

void BlendRampRow(uint8_t* HWY_RESTRICT cY, uint8_t* HWY_RESTRICT cVU,
                  const uint8_t* HWY_RESTRICT fY, const uint8_t* HWY_RESTRICT fVU, int xa,
                  int xb, int k, int wfa, int dir, int level) {
  if (xb < xa) return;
  auto wfAt = [&](int x) { return wfa + dir * (x - xa); };
  if (xa < 0 || xa + k < 0) {
    // Negative columns pair up differently; keep to the plain loop.
    for (int x = xa; x <= xb; ++x) {
      BlendY(cY, fY, x, k, wfAt(x), level);
      BlendVU(cVU, fVU, x, k, wfAt(x), level);
    }
    return;
  }
  const hn::ScalableTag<uint16_t> d16;
  const hn::Rebind<uint8_t, decltype(d16)> d8;
  const hn::RebindToSigned<decltype(d16)> di16;
  const int lanes = static_cast<int>(hn::Lanes(d16));
  const int scale = 1 << (3 - level);
  const auto full = hn::Set(d16, 256);
  const auto round = hn::Set(d16, 128);
  // dir * scale as a 16-bit lane value; wrap-around keeps the sums right.
  const auto step = hn::Set(d16, static_cast<uint16_t>(dir * scale));
  const auto iota = hn::Iota(d16, 0);
  const auto laneStep = hn::Mul(iota, step);
  const auto pairStep = hn::Mul(hn::And(iota, hn::Set(d16, 0xFFFE)), step);

  auto blend = [&](auto wf, auto f, auto c) {
    const auto sum = hn::Add(hn::Add(hn::Mul(wf, f), hn::Mul(hn::Sub(full, wf), c)), round);
    return hn::ShiftRight<8>(sum);
  };

  // Luma: each column once.
  int x = xa;
  for (; x + lanes - 1 <= xb; x += lanes) {
    const auto wf = hn::Add(hn::Set(d16, static_cast<uint16_t>(wfAt(x) * scale)), laneStep);
    const auto f = hn::PromoteTo(d16, hn::LoadU(d8, fY + x + k));
    const auto c = hn::PromoteTo(d16, hn::LoadU(d8, cY + x));
    hn::StoreU(hn::DemoteTo(d8, hn::BitCast(di16, blend(wf, f, c))), d8, cY + x);
  }
  for (; x <= xb; ++x) BlendY(cY, fY, x, k, wfAt(x), level);

  // Chroma. A column range starting odd or ending even touches its end pair once; the pairs
  // in between are blended twice, first from the frame pair of the even column (frame byte
  // 2p + kA), then from the odd one's (2p + kB).
  if (xa & 1) BlendVU(cVU, fVU, xa, k, wfAt(xa), level);
  if (!(xb & 1)) BlendVU(cVU, fVU, xb, k, wfAt(xb), level);
  const int p0 = (xa + 1) / 2;
  const int p1 = (xb + 1) / 2 - 1;  // last pair with both columns inside
  const int kA = k & ~1;            // floor to even: (fx / 2) * 2 for fx >= 0
  const int kB = (k + 1) & ~1;
  int b = 2 * p0;
  const int bEnd = 2 * (p1 + 1);
  for (; b + lanes <= bEnd; b += lanes) {
    const auto wA = hn::Add(hn::Set(d16, static_cast<uint16_t>(wfAt(b) * scale)), pairStep);
    const auto wB = hn::Add(wA, step);
    const auto fa = hn::PromoteTo(d16, hn::LoadU(d8, fVU + b + kA));
    const auto fb = hn::PromoteTo(d16, hn::LoadU(d8, fVU + b + kB));
    const auto c = hn::PromoteTo(d16, hn::LoadU(d8, cVU + b));
    const auto c2 = blend(wB, fb, blend(wA, fa, c));
    hn::StoreU(hn::DemoteTo(d8, hn::BitCast(di16, c2)), d8, cVU + b);
  }
  for (; b < bEnd; b += 2) {
    BlendVU(cVU, fVU, b, k, wfAt(b), level);
    BlendVU(cVU, fVU, b + 1, k, wfAt(b + 1), level);
  }
}

const char* TargetName() { return hwy::TargetName(HWY_TARGET); }

}  // namespace HWY_NAMESPACE
}  // namespace zolt
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace zolt {

HWY_EXPORT(BlendRampRow);
HWY_EXPORT(TargetName);

namespace {
void blendRampRowDispatch(uint8_t* cY, uint8_t* cVU, const uint8_t* fY, const uint8_t* fVU,
                          int xa, int xb, int k, int wfa, int dir, int level) {
  HWY_DYNAMIC_DISPATCH(BlendRampRow)(cY, cVU, fY, fVU, xa, xb, k, wfa, dir, level);
}
}  // namespace

const MergeKernels& vectorMergeKernels() {
  static const MergeKernels k{blendRampRowDispatch, HWY_DYNAMIC_DISPATCH(TargetName)()};
  return k;
}

}  // namespace zolt
#endif  // HWY_ONCE
