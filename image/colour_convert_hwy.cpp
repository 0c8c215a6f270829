// Vectorised NV21 <-> BGR kernels (Highway; one source compiled for each x86 and 64-bit ARM
// target and chosen at run time, static NEON on 32-bit ARM). Byte-exact to the reference
// kernels in colour_convert.cpp, in integer arithmetic only, so that the same code serves NEON,
// which has no double vectors.
//
// NV21 -> BGR. Y * 16384 is a multiple of 2^14, so (Y * 16384 + t) >> 14 == Y + (t >> 14): each
// channel is Y plus a chroma delta shared by the two pixels of a V, U pair. Deltas are exact in
// int16: for a single product c * d (|d| <= 128), MulHigh(4 * d, c) == floor(c * d / 2^14);
// G has two products, and floor((P + Q) / 2^14) == floor(P / 2^14) + floor(Q / 2^14) + carry,
// with carry = ((P mod 2^14) + (Q mod 2^14)) >> 14 from the low 16 bits of the products.
//
// BGR -> NV21. The reference evaluates in double precision; the exact rational values are
//   Y = (587 G + 299 R + 114 B + 500) / 1000
//   V = (615 SR - 515 SG - 100 SB + 512000) / 4000,  U = (436 SB - 147 SR - 289 SG + 512000) / 4000.
// Wherever the exact value is not a whole number it lies at least 1/4000 from one, far beyond
// the double rounding errors (below 1e-12 here), so the reference's truncation equals the
// integer floor (clamped to 0..255 for chroma). Where the exact value is a whole number the
// double result may land a hair below it (a white block gives V = 127) depending on how each
// product rounds; those lanes (about 1 in 1000 lumas, 1 in 800 blocks for V and 1 in 4000 for U
// on noise, every block of a grey area) are flagged and recomputed by the reference's own scalar
// code. A one-off program compared this kernel with the reference over every sum triple
// SR, SG, SB in 0..1020 (1.06e9 blocks; SSSE3, SSE4, AVX2, and NEON under qemu) without a
// difference; the tests cover all 2^24 pixels and every whole-number sum triple.
//
// The integer floors stay in 16-bit lanes: num / 1000 == (num / 8) / 125 and
// num / 4000 == (num / 32) / 125 (floor divisions), the division by 8 or 32 done on split
// coefficients (c == 8 * hi + lo, so floor(num / 8) == sum(hi * x) + floor(sum(lo * x) / 8)), and
// for 0 <= x < 59074, floor(x / 125) == (x * 33555) >> 22 (33555 * 125 == 2^22 + 71).
#include <algorithm>
#include <cstring>
#include <vector>

#include "image/colour_convert.h"

// x86: SSSE3, SSE4 and AVX2 versions; AVX-512 is left out to keep the build and the tested set
// small.
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_AVX3 | HWY_AVX3_DL)
#endif

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/colour_convert_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#ifndef ZOLT_IMAGE_COLOUR_CONVERT_HWY_SHARED_
#define ZOLT_IMAGE_COLOUR_CONVERT_HWY_SHARED_
namespace zolt {
namespace {
// V, U of grey blocks (SR = SG = SB = sum, 0..1020) as the reference gives them: every grey
// block is a whole-number case, and flat grey, white and black areas are common.
HWY_MAYBE_UNUSED const uint8_t* GreyBlockChroma(int sum) {
  static const std::vector<uint8_t> table = [] {
    std::vector<uint8_t> t(2 * 1021);
    for (int s = 0; s <= 1020; ++s) {
      uint8_t px[4][3];
      for (int p = 0; p < 4; ++p) {
        const auto v = static_cast<uint8_t>(s / 4 + (p < s % 4 ? 1 : 0));
        px[p][0] = px[p][1] = px[p][2] = v;
      }
      referenceBlockChroma(px[0], px[1], px[2], px[3], &t[2 * s]);
    }
    return t;
  }();
  return &table[2 * sum];
}
}  // namespace
}  // namespace zolt
#endif

HWY_BEFORE_NAMESPACE();
namespace zolt {
namespace HWY_NAMESPACE {

#if HWY_TARGET == HWY_SCALAR
// One-lane vectors cannot split bytes into 16-bit lanes; CPUs this old run the reference.
const ColourKernels* KernelsForTarget() { return &referenceColourKernels(); }
#else
namespace hn = hwy::HWY_NAMESPACE;

using D8 = hn::ScalableTag<uint8_t>;
using DU16 = hn::Repartition<uint16_t, D8>;
using DI16 = hn::Repartition<int16_t, D8>;
using VU16 = hn::Vec<DU16>;
using VI16 = hn::Vec<DI16>;
using MU16 = hn::Mask<DU16>;

// Byte lanes viewed as 16-bit lanes: even bytes (pixels 0, 2, ...; V) in the low half.
HWY_INLINE VU16 EvenBytes(VU16 v) { return hn::And(v, hn::Set(DU16(), 0xFF)); }
HWY_INLINE VU16 OddBytes(VU16 v) { return hn::ShiftRight<8>(v); }

// Interleaves the low bytes of two 16-bit vectors back into pixel order.
HWY_INLINE hn::Vec<D8> JoinBytes(VU16 even, VU16 odd) {
  return hn::BitCast(D8(), hn::Or(even, hn::ShiftLeft<8>(odd)));
}

HWY_INLINE VU16 Clamp255(VI16 v) {
  const DI16 di;
  return hn::BitCast(DU16(), hn::Min(hn::Max(v, hn::Zero(di)), hn::Set(di, 255)));
}

inline uint8_t clampByte(int v) { return static_cast<uint8_t>(v < 0 ? 0 : (v < 255 ? v : 255)); }

// ------------------------------------------------------------------------------------------
// NV21 -> BGR

// Lanes(D8) pixels starting at an even column; vu holds their Lanes(D8) / 2 pairs.
HWY_INLINE void Nv21Chunk(const uint8_t* y, const uint8_t* vu, uint8_t* bgr) {
  const D8 d8;
  const DU16 du;
  const DI16 di;
  const VU16 yy = hn::BitCast(du, hn::LoadU(d8, y));
  const VU16 vv = hn::BitCast(du, hn::LoadU(d8, vu));
  const VI16 yEven = hn::BitCast(di, EvenBytes(yy));
  const VI16 yOdd = hn::BitCast(di, OddBytes(yy));
  const VI16 v = hn::Sub(hn::BitCast(di, EvenBytes(vv)), hn::Set(di, 128));
  const VI16 u = hn::Sub(hn::BitCast(di, OddBytes(vv)), hn::Set(di, 128));
  const VI16 v4 = hn::ShiftLeft<2>(v);
  const VI16 u4 = hn::ShiftLeft<2>(u);

  const VI16 dB = hn::MulHigh(u4, hn::Set(di, 29032));
  const VI16 dR = hn::MulHigh(v4, hn::Set(di, 22970));
  // 5638 * (128 - U) + 11700 * (128 - V), floored as one sum.
  const VI16 cU = hn::Set(di, -5638), cV = hn::Set(di, -11700);
  const VI16 low14 = hn::Set(di, 0x3FFF);
  const VI16 carry = hn::ShiftRight<14>(hn::Add(hn::And(hn::Mul(u, cU), low14),
                                                hn::And(hn::Mul(v, cV), low14)));
  const VI16 dG = hn::Add(hn::Add(hn::MulHigh(u4, cU), hn::MulHigh(v4, cV)), carry);

  const auto b = JoinBytes(Clamp255(hn::Add(yEven, dB)), Clamp255(hn::Add(yOdd, dB)));
  const auto g = JoinBytes(Clamp255(hn::Add(yEven, dG)), Clamp255(hn::Add(yOdd, dG)));
  const auto r = JoinBytes(Clamp255(hn::Add(yEven, dR)), Clamp255(hn::Add(yOdd, dR)));
  hn::StoreInterleaved3(b, g, r, d8, bgr);
}

void Nv21RowToBgr(const uint8_t* yRow, const uint8_t* vuRow, uint8_t* bgrRow, int x0, int x1) {
  if (x0 >= x1) return;
  int x = x0;
  if (x & 1) {
    // Right pixel of its pair: the vector body starts on pair boundaries.
    const int Y = yRow[x] * 16384, V = vuRow[x - 1], U = vuRow[x];
    uint8_t* p = bgrRow + 3 * x;
    p[0] = clampByte((Y + 29032 * (U - 128)) >> 14);
    p[1] = clampByte((Y + 5638 * (128 - U) + 11700 * (128 - V)) >> 14);
    p[2] = clampByte((Y + 22970 * (V - 128)) >> 14);
    ++x;
  }
  const int n = static_cast<int>(hn::Lanes(D8()));
  for (; x + n <= x1; x += n) Nv21Chunk(yRow + x, vuRow + x, bgrRow + 3 * x);
  if (x < x1) {
    // The tail goes through a full vector on copies; only its pairs' bytes are read.
    const int rest = x1 - x;
    uint8_t y[HWY_MAX_BYTES] = {}, vu[HWY_MAX_BYTES] = {}, bgr[3 * HWY_MAX_BYTES];
    std::memcpy(y, yRow + x, static_cast<size_t>(rest));
    std::memcpy(vu, vuRow + x, static_cast<size_t>((rest + 1) & ~1));
    Nv21Chunk(y, vu, bgr);
    std::memcpy(bgrRow + 3 * x, bgr, 3 * static_cast<size_t>(rest));
  }
}

// ------------------------------------------------------------------------------------------
// BGR -> NV21

// floor((587 G + 299 R + 114 B + 500) / 1000) for 8-bit channels; `whole` marks lanes whose
// exact value is a whole number. 587 = 8 * 73 + 3, 299 = 8 * 37 + 3, 114 = 8 * 14 + 2,
// 500 = 8 * 62 + 4.
HWY_INLINE VU16 Luma(VU16 b, VU16 g, VU16 r, MU16& whole) {
  const DU16 du;
  const VU16 lo = hn::Add(hn::Add(hn::Mul(hn::Add(g, r), hn::Set(du, 3)), hn::Add(b, b)),
                          hn::Set(du, 4));  // <= 2044
  const VU16 hi = hn::Add(hn::Add(hn::Mul(g, hn::Set(du, 73)), hn::Mul(r, hn::Set(du, 37))),
                          hn::Add(hn::Mul(b, hn::Set(du, 14)), hn::Set(du, 62)));
  const VU16 x = hn::Add(hi, hn::ShiftRight<3>(lo));  // floor(num / 8) <= 31937
  const VU16 q = hn::ShiftRight<6>(hn::MulHigh(x, hn::Set(du, 33555)));
  whole = hn::And(hn::Eq(hn::And(lo, hn::Set(du, 7)), hn::Zero(du)),
                  hn::Eq(x, hn::Mul(q, hn::Set(du, 125))));
  return q;
}

// Chroma of a block from its sums (each <= 1020): clamp(floor(num / 4000), 0, 255) with
// num = 32 * (kR * SR + kG * SG + kB * SB + 16000) + (lR * SR + lG * SG + lB * SB). `whole`
// marks lanes whose exact value is a whole number in 1..255 (0 and 256 clamp the same either
// way). Arithmetic wraps modulo 2^16; each coefficient set keeps the low sum within int16 and
// the biased high sum within 0..65535.
template <int kR, int kG, int kB, int lR, int lG, int lB>
HWY_INLINE VU16 Chroma(VU16 sr, VU16 sg, VU16 sb, MU16& whole) {
  const DU16 du;
  const DI16 di;
  auto c = [&](int k) { return hn::Set(du, static_cast<uint16_t>(k)); };
  const VU16 lo = hn::Add(hn::Add(hn::Mul(sr, c(lR)), hn::Mul(sg, c(lG))), hn::Mul(sb, c(lB)));
  const VU16 loDiv32 = hn::BitCast(du, hn::ShiftRight<5>(hn::BitCast(di, lo)));
  // floor(num / 32) + 4000, so that negative values stay above zero.
  const VU16 xb = hn::Add(hn::Add(hn::Add(hn::Mul(sr, c(kR)), hn::Mul(sg, c(kG))),
                                  hn::Add(hn::Mul(sb, c(kB)), c(16000 + 4000))),
                          loDiv32);
  const VU16 x = hn::Sub(hn::Min(hn::Max(xb, c(4000)), c(4000 + 32000)), c(4000));
  const VU16 q = hn::ShiftRight<6>(hn::MulHigh(x, c(33555)));  // 0..256
  const auto inside = hn::And(hn::Not(hn::Eq(q, hn::Zero(du))), hn::Not(hn::Eq(q, c(256))));
  whole = hn::And(hn::And(hn::Eq(hn::And(lo, c(31)), hn::Zero(du)),
                          hn::Eq(x, hn::Mul(q, c(125)))),
                  inside);
  return hn::Min(q, c(255));
}

// Calls f(i) for each lane i that m sets, in increasing order. SVE has up to 128 lanes of
// 16 bits, so the bits are scanned 64 at a time.
template <class F>
HWY_INLINE void ForEachSetLane(MU16 m, const F& f) {
  constexpr size_t kWords = (HWY_MAX_BYTES / 2 + 63) / 64;
  uint8_t bytes[8 * kWords] = {};  // StoreMaskBits writes (Lanes + 7) / 8 bytes
  hn::StoreMaskBits(DU16(), m, bytes);
  for (size_t w = 0; w < kWords; ++w) {
    uint64_t bits;
    std::memcpy(&bits, bytes + 8 * w, sizeof(bits));  // little-endian: lane 64 * w + j is bit j
    for (; bits != 0; bits &= bits - 1) f(64 * w + hwy::Num0BitsBelowLS1Bit_Nonzero64(bits));
  }
}

// Lanes(D8) / 2 blocks: Lanes(D8) pixels of each row.
HWY_INLINE void BgrChunk(const uint8_t* row0, const uint8_t* row1, uint8_t* y0, uint8_t* y1,
                         uint8_t* vu) {
  const D8 d8;
  const DU16 du;
  hn::Vec<D8> b0, g0, r0, b1, g1, r1;
  hn::LoadInterleaved3(d8, row0, b0, g0, r0);
  hn::LoadInterleaved3(d8, row1, b1, g1, r1);
  const VU16 b0e = EvenBytes(hn::BitCast(du, b0)), b0o = OddBytes(hn::BitCast(du, b0));
  const VU16 g0e = EvenBytes(hn::BitCast(du, g0)), g0o = OddBytes(hn::BitCast(du, g0));
  const VU16 r0e = EvenBytes(hn::BitCast(du, r0)), r0o = OddBytes(hn::BitCast(du, r0));
  const VU16 b1e = EvenBytes(hn::BitCast(du, b1)), b1o = OddBytes(hn::BitCast(du, b1));
  const VU16 g1e = EvenBytes(hn::BitCast(du, g1)), g1o = OddBytes(hn::BitCast(du, g1));
  const VU16 r1e = EvenBytes(hn::BitCast(du, r1)), r1o = OddBytes(hn::BitCast(du, r1));

  MU16 w0e, w0o, w1e, w1o, wV, wU;
  hn::StoreU(JoinBytes(Luma(b0e, g0e, r0e, w0e), Luma(b0o, g0o, r0o, w0o)), d8, y0);
  hn::StoreU(JoinBytes(Luma(b1e, g1e, r1e, w1e), Luma(b1o, g1o, r1o, w1o)), d8, y1);

  const VU16 sb = hn::Add(hn::Add(b0e, b0o), hn::Add(b1e, b1o));
  const VU16 sg = hn::Add(hn::Add(g0e, g0o), hn::Add(g1e, g1o));
  const VU16 sr = hn::Add(hn::Add(r0e, r0o), hn::Add(r1e, r1o));
  // 615 = 32 * 19 + 7, -515 = 32 * -16 - 3, -100 = 32 * -3 - 4.
  const VU16 v = Chroma<19, -16, -3, 7, -3, -4>(sr, sg, sb, wV);
  // -147 = 32 * -5 + 13, -289 = 32 * -9 - 1, 436 = 32 * 14 - 12.
  const VU16 u = Chroma<-5, -9, 14, 13, -1, -12>(sr, sg, sb, wU);
  hn::StoreU(JoinBytes(v, u), d8, vu);

  const auto any = hn::Or(hn::Or(hn::Or(w0e, w0o), hn::Or(w1e, w1o)), hn::Or(wV, wU));
  if (HWY_LIKELY(hn::AllFalse(du, any))) return;
  // Whole-number lanes: the double result depends on rounding, so the reference decides.
  // Lane i of the luma masks is pixel 2 * i (even) or 2 * i + 1 (odd), of the chroma mask block i.
  const auto fixLuma = [](const uint8_t* row, uint8_t* luma, size_t px) {
    luma[px] = referenceLuma(row + 3 * px);
  };
  ForEachSetLane(w0e, [&](size_t i) { fixLuma(row0, y0, 2 * i); });
  ForEachSetLane(w0o, [&](size_t i) { fixLuma(row0, y0, 2 * i + 1); });
  ForEachSetLane(w1e, [&](size_t i) { fixLuma(row1, y1, 2 * i); });
  ForEachSetLane(w1o, [&](size_t i) { fixLuma(row1, y1, 2 * i + 1); });
  const MU16 chroma = hn::Or(wV, wU);
  if (hn::AllFalse(du, chroma)) return;
  uint16_t s[3][HWY_MAX_BYTES / 2];
  hn::StoreU(sr, du, s[0]);
  hn::StoreU(sg, du, s[1]);
  hn::StoreU(sb, du, s[2]);
  ForEachSetLane(chroma, [&](size_t i) {
    if (s[0][i] == s[1][i] && s[1][i] == s[2][i]) {
      std::memcpy(vu + 2 * i, GreyBlockChroma(s[0][i]), 2);
    } else {
      const uint8_t* p00 = row0 + 6 * i;
      const uint8_t* p10 = row1 + 6 * i;
      referenceBlockChroma(p00, p00 + 3, p10, p10 + 3, vu + 2 * i);
    }
  });
}

void BgrRowPairToNv21(const uint8_t* bgrRow0, const uint8_t* bgrRow1, uint8_t* yRow0,
                      uint8_t* yRow1, uint8_t* vuRow, int pairs) {
  const int n = static_cast<int>(hn::Lanes(D8()));  // pixels per chunk
  const int cols = 2 * pairs;
  int x = 0;
  for (; x + n <= cols; x += n) {
    BgrChunk(bgrRow0 + 3 * x, bgrRow1 + 3 * x, yRow0 + x, yRow1 + x, vuRow + x);
  }
  if (x < cols) {
    const size_t rest = static_cast<size_t>(cols - x);
    uint8_t in0[3 * HWY_MAX_BYTES] = {}, in1[3 * HWY_MAX_BYTES] = {};
    uint8_t out0[HWY_MAX_BYTES], out1[HWY_MAX_BYTES], vu[HWY_MAX_BYTES];
    std::memcpy(in0, bgrRow0 + 3 * x, 3 * rest);
    std::memcpy(in1, bgrRow1 + 3 * x, 3 * rest);
    BgrChunk(in0, in1, out0, out1, vu);
    std::memcpy(yRow0 + x, out0, rest);
    std::memcpy(yRow1 + x, out1, rest);
    std::memcpy(vuRow + x, vu, rest);
  }
}

const ColourKernels* KernelsForTarget() {
  static const ColourKernels k{&Nv21RowToBgr, &BgrRowPairToNv21, hwy::TargetName(HWY_TARGET)};
  return &k;
}
#endif  // HWY_TARGET == HWY_SCALAR

}  // namespace HWY_NAMESPACE
}  // namespace zolt
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace zolt {

HWY_EXPORT(KernelsForTarget);

const ColourKernels& vectorColourKernels() {
  static const ColourKernels& k = *HWY_DYNAMIC_DISPATCH(KernelsForTarget)();
  return k;
}

std::vector<const ColourKernels*> vectorColourKernelsForEachTarget() {
  std::vector<const ColourKernels*> all;
  for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
    hwy::SetSupportedTargetsForTest(target);
    all.push_back(HWY_DYNAMIC_DISPATCH(KernelsForTarget)());
  }
  hwy::SetSupportedTargetsForTest(0);
  // A single compiled target (NEON on 32-bit ARM) is dispatched statically, whatever the CPU
  // reports; the chosen kernels belong in the list in any case.
  if (std::find(all.begin(), all.end(), &vectorColourKernels()) == all.end()) {
    all.push_back(&vectorColourKernels());
  }
  return all;
}

}  // namespace zolt
#endif  // HWY_ONCE
