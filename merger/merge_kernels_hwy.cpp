// Vectorised merger kernels, compiled once per Highway target and dispatched at run time.
// The ramp is computed in 16-bit lanes with the weights scaled to a sum of 256: multiplying
// numerator and divisor by 2^(3 - level) leaves the floor of the quotient unchanged, so one
// shift by 8 serves every ramp level and the bytes equal the reference's. The largest sum,
// 256 * 255 + 128, fits in 16 bits.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "merger/merge_kernels_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <algorithm>
#include <cstdint>
#include <vector>

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
  // Lane j of a vector starting at an even byte b is column b + (j & ~1); one-lane vectors
  // would start at odd bytes too, and take the plain loop.
  for (; lanes >= 2 && b + lanes <= bEnd; b += lanes) {
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

// Vertical sweeps: the ramps run down the columns, so the work is turned around and done a
// canvas row at a time across all columns, each lane with its column's ramp. Luma pixels are
// independent. A chroma pair is blended by its even column's two rows, then by its odd
// column's two rows, which the four masked steps below repeat in that order.
void BlendRampColumns(const ColumnRamps& a) {
  if (a.c1 <= a.c0) return;
  const int c0 = a.c0, c1 = a.c1;
  int yMin = INT32_MAX, yMax = INT32_MIN;
  for (int c = c0; c < c1; ++c) {
    const int hw = 16 << a.level[c];
    yMin = std::min(yMin, a.seam[c] - hw);
    yMax = std::max(yMax, a.seam[c] + hw);
  }
  // 16-bit row numbers; frame columns from 0 (so that pairs are found by clearing a bit).
  if (yMin < 0 || yMax > INT16_MAX - 1 || c0 + a.offX < 0) {
    zolt::referenceMergeKernels().blendRampColumns(a);
    return;
  }
  const hn::ScalableTag<uint16_t> d16;
  const hn::RebindToSigned<decltype(d16)> di16;
  const hn::Rebind<uint8_t, decltype(d16)> d8;
  const int lanes = static_cast<int>(hn::Lanes(d16));

  // Per canvas byte b: the ramp of column b & ~1 (E) and of column b | 1 (O). For luma only E
  // is read, at index c. Columns outside [c0, c1) get an empty ramp (lo > hi).
  const int n = a.pw + 2 * lanes;
  std::vector<int16_t> loE(n, INT16_MAX), hiE(n, INT16_MIN), loO(n, INT16_MAX), hiO(n, INT16_MIN);
  std::vector<uint16_t> baseE(n, 0), stepE(n, 0), baseO(n, 0), stepO(n, 0);
  std::vector<int16_t> lo(n, INT16_MAX), hi(n, INT16_MIN);
  std::vector<uint16_t> base(n, 0), step(n, 0);
  for (int c = c0; c < c1; ++c) {
    const int level = a.level[c], hw = 16 << level, scale = 1 << (3 - level);
    const int first = a.seam[c] - hw;
    const int dir = a.before ? -1 : 1;
    const int wfa = a.before ? 2 * hw : 0;
    // Frame weight at row y, scaled to a sum of 256: (wfa + dir * (y - first)) * scale.
    lo[c] = static_cast<int16_t>(first);
    hi[c] = static_cast<int16_t>(a.seam[c] + hw);
    base[c] = static_cast<uint16_t>((wfa - dir * first) * scale);
    step[c] = static_cast<uint16_t>(dir * scale);
  }
  for (int b = 0; b < a.pw; ++b) {
    const int e = b & ~1, o = b | 1;
    loE[b] = lo[e], hiE[b] = hi[e], baseE[b] = base[e], stepE[b] = step[e];
    if (o < a.pw) loO[b] = lo[o], hiO[b] = hi[o], baseO[b] = base[o], stepO[b] = step[o];
  }

  const auto full = hn::Set(d16, 256);
  const auto round = hn::Set(d16, 128);
  auto blend = [&](auto wf, auto f, auto c) {
    const auto sum = hn::Add(hn::Add(hn::Mul(wf, f), hn::Mul(hn::Sub(full, wf), c)), round);
    return hn::ShiftRight<8>(sum);
  };
  auto inRange = [&](const int16_t* l, const int16_t* h, int y) {
    const auto yv = hn::Set(di16, static_cast<int16_t>(y));
    return hn::RebindMask(d16, hn::Not(hn::Or(hn::Gt(hn::LoadU(di16, l), yv),
                                               hn::Gt(yv, hn::LoadU(di16, h)))));
  };
  auto weight = [&](const uint16_t* bs, const uint16_t* st, int y) {
    return hn::Add(hn::LoadU(d16, bs), hn::Mul(hn::Set(d16, static_cast<uint16_t>(y)),
                                               hn::LoadU(d16, st)));
  };
  auto scalarY = [&](int c, int y) {
    if (y < lo[c] || y > hi[c]) return;
    const int wf = static_cast<uint16_t>(base[c] + static_cast<uint32_t>(y) * step[c]);
    uint8_t* cy = a.cY + static_cast<size_t>(y) * a.pw + c;
    const int f = a.fY[static_cast<size_t>(y + a.yShift) * a.fw + c + a.offX];
    *cy = static_cast<uint8_t>((wf * f + (256 - wf) * *cy + 128) >> 8);
  };
  auto scalarVU = [&](int c, int y) {
    if (y < lo[c] || y > hi[c]) return;
    const int wf = static_cast<uint16_t>(base[c] + static_cast<uint32_t>(y) * step[c]);
    uint8_t* cvu = a.cVU + static_cast<size_t>(y / 2) * a.pw + (c & ~1);
    const uint8_t* fvu =
        a.fVU + static_cast<size_t>((y + a.yShift) / 2) * a.fw + ((c + a.offX) & ~1);
    for (int i = 0; i < 2; ++i) {
      cvu[i] = static_cast<uint8_t>((wf * fvu[i] + (256 - wf) * cvu[i] + 128) >> 8);
    }
  };

  // Luma, row by row.
  for (int y = yMin; y <= yMax; ++y) {
    uint8_t* cRow = a.cY + static_cast<size_t>(y) * a.pw;
    const uint8_t* fRow = a.fY + static_cast<size_t>(y + a.yShift) * a.fw + a.offX;
    int c = c0;
    for (; c + lanes <= c1; c += lanes) {
      const auto m = inRange(&lo[c], &hi[c], y);
      const auto cv = hn::PromoteTo(d16, hn::LoadU(d8, cRow + c));
      const auto fv = hn::PromoteTo(d16, hn::LoadU(d8, fRow + c));
      const auto r = hn::IfThenElse(m, blend(weight(&base[c], &step[c], y), fv, cv), cv);
      hn::StoreU(hn::DemoteTo(d8, hn::BitCast(di16, r)), d8, cRow + c);
    }
    for (; c < c1; ++c) scalarY(c, y);
  }

  // Chroma, a VU row at a time. Pairs with one column outside [c0, c1) are done alone.
  const int pc0 = (c0 + 1) / 2, pc1 = c1 / 2;  // pairs with both columns inside
  const int kA = a.offX & ~1, kB = (a.offX + 1) & ~1;
  for (int q = yMin / 2; q <= yMax / 2; ++q) {
    const int y0 = 2 * q, y1 = 2 * q + 1;
    const bool has0 = y0 >= yMin, has1 = y1 <= yMax;
    uint8_t* cRow = a.cVU + static_cast<size_t>(q) * a.pw;
    const uint8_t* f0 = a.fVU + static_cast<size_t>((y0 + a.yShift) / 2) * a.fw;
    const uint8_t* f1 = a.fVU + static_cast<size_t>((y1 + a.yShift) / 2) * a.fw;
    if (c0 & 1) {
      if (has0) scalarVU(c0, y0);
      if (has1) scalarVU(c0, y1);
    }
    int b = 2 * pc0;
    for (; b + lanes <= 2 * pc1; b += lanes) {
      auto cv = hn::PromoteTo(d16, hn::LoadU(d8, cRow + b));
      if (has0) {
        const auto f = hn::PromoteTo(d16, hn::LoadU(d8, f0 + b + kA));
        cv = hn::IfThenElse(inRange(&loE[b], &hiE[b], y0),
                            blend(weight(&baseE[b], &stepE[b], y0), f, cv), cv);
      }
      if (has1) {
        const auto f = hn::PromoteTo(d16, hn::LoadU(d8, f1 + b + kA));
        cv = hn::IfThenElse(inRange(&loE[b], &hiE[b], y1),
                            blend(weight(&baseE[b], &stepE[b], y1), f, cv), cv);
      }
      if (has0) {
        const auto f = hn::PromoteTo(d16, hn::LoadU(d8, f0 + b + kB));
        cv = hn::IfThenElse(inRange(&loO[b], &hiO[b], y0),
                            blend(weight(&baseO[b], &stepO[b], y0), f, cv), cv);
      }
      if (has1) {
        const auto f = hn::PromoteTo(d16, hn::LoadU(d8, f1 + b + kB));
        cv = hn::IfThenElse(inRange(&loO[b], &hiO[b], y1),
                            blend(weight(&baseO[b], &stepO[b], y1), f, cv), cv);
      }
      hn::StoreU(hn::DemoteTo(d8, hn::BitCast(di16, cv)), d8, cRow + b);
    }
    for (; b < 2 * pc1; b += 2) {
      for (int c : {b, b + 1}) {
        if (has0) scalarVU(c, y0);
        if (has1) scalarVU(c, y1);
      }
    }
    if (c1 & 1) {
      if (has0) scalarVU(c1 - 1, y0);
      if (has1) scalarVU(c1 - 1, y1);
    }
  }
}

// Exposure gain: (src - centre) << 7 fits a signed 16-bit lane (-16384 to 32640), MulHigh
// keeps the top half of its product with the Q14 gain (the reference's >> 16), and the
// saturating demotion to bytes is the reference's clamp.
void GainRow(uint8_t* HWY_RESTRICT dst, const uint8_t* HWY_RESTRICT src, int n,
             const int16_t* HWY_RESTRICT gains, int gainStep, int centre) {
  const hn::ScalableTag<int16_t> d16;
  const hn::Rebind<uint8_t, decltype(d16)> d8;
  const int lanes = static_cast<int>(hn::Lanes(d16));
  const auto c = hn::Set(d16, static_cast<int16_t>(centre));
  const auto half = hn::Set(d16, 16);
  auto apply = [&](int i, auto g) {
    const auto v = hn::PromoteTo(d16, hn::LoadU(d8, src + i));
    const auto p = hn::MulHigh(hn::ShiftLeft<7>(hn::Sub(v, c)), g);
    hn::StoreU(hn::DemoteTo(d8, hn::Add(hn::ShiftRight<5>(hn::Add(p, half)), c)), d8, dst + i);
  };
  int i = 0;
  if (gainStep == 0 && n > 0) {
    const auto g = hn::Set(d16, gains[0]);
    for (; i + lanes <= n; i += lanes) apply(i, g);
  } else {
    for (; i + lanes <= n; i += lanes) apply(i, hn::LoadU(d16, gains + i));
  }
  for (; i < n; ++i) {
    const int p = ((src[i] - centre) * 128 * gains[i * gainStep]) >> 16;
    dst[i] = static_cast<uint8_t>(std::clamp(centre + ((p + 16) >> 5), 0, 255));
  }
}

const char* TargetName() { return hwy::TargetName(HWY_TARGET); }

}  // namespace HWY_NAMESPACE
}  // namespace zolt
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace zolt {

HWY_EXPORT(BlendRampRow);
HWY_EXPORT(BlendRampColumns);
HWY_EXPORT(GainRow);
HWY_EXPORT(TargetName);

namespace {
void blendRampRowDispatch(uint8_t* cY, uint8_t* cVU, const uint8_t* fY, const uint8_t* fVU,
                          int xa, int xb, int k, int wfa, int dir, int level) {
  HWY_DYNAMIC_DISPATCH(BlendRampRow)(cY, cVU, fY, fVU, xa, xb, k, wfa, dir, level);
}
void blendRampColumnsDispatch(const ColumnRamps& r) {
  HWY_DYNAMIC_DISPATCH(BlendRampColumns)(r);
}
void gainRowDispatch(uint8_t* dst, const uint8_t* src, int n, const int16_t* gains, int gainStep,
                     int centre) {
  HWY_DYNAMIC_DISPATCH(GainRow)(dst, src, n, gains, gainStep, centre);
}
}  // namespace

const MergeKernels& vectorMergeKernels() {
  static const MergeKernels k{blendRampRowDispatch, blendRampColumnsDispatch, gainRowDispatch,
                              HWY_DYNAMIC_DISPATCH(TargetName)()};
  return k;
}

}  // namespace zolt
#endif  // HWY_ONCE
