// Vectorised SAD strip search, written once with Highway: dynamic dispatch on x86, static NEON
// on 32-bit ARM. Gives exactly the reference's best shift and cost: early abandon never
// changes the winner (costs only grow), so the kernels are free in how they sum a chunk.
//
// Two ways to sum a chunk of 8-pixel rows (the vertical strip):
//  - "runs of 8": each row's 8 absolute differences are widened into the eight 16-bit lanes of
//    an accumulator, summed once per chunk. This is the NEON shape (vabal on 8 bytes), used on
//    ARM; a chunk of up to 256 rows cannot overflow a 16-bit lane.
//  - "columns": the window is first repacked so that, for every horizontal shift i, its 8
//    columns i..i+7 lie contiguously row after row; a chunk is then one contiguous run that
//    full-width vectors sum with SumsOf8 (psadbw on x86).
// Rows longer than 8 pixels (the horizontal strip) are contiguous runs in both.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "tracker/pixel_alignment_hwy.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>

#include <cstdlib>
#include <cstring>

#include "tracker/pixel_alignment.h"

HWY_BEFORE_NAMESPACE();
namespace zolt {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

template <class V>
HWY_INLINE V AbsDiffU8(V a, V b) {
  return hn::Or(hn::SaturatedSub(a, b), hn::SaturatedSub(b, a));
}

// SAD of len contiguous bytes.
HWY_INLINE uint32_t SadRun(const uint8_t* HWY_RESTRICT a, const uint8_t* HWY_RESTRICT b,
                           size_t len) {
  const hn::ScalableTag<uint8_t> d;
  const hn::Repartition<uint64_t, decltype(d)> d64;
  const size_t N = hn::Lanes(d);
  size_t p = 0;
  uint64_t sum = 0;
  if (len >= N) {
    auto acc0 = hn::Zero(d64);
    auto acc1 = hn::Zero(d64);
    for (; p + 2 * N <= len; p += 2 * N) {
      acc0 = hn::Add(acc0, hn::SumsOf8(AbsDiffU8(hn::LoadU(d, a + p), hn::LoadU(d, b + p))));
      acc1 = hn::Add(acc1, hn::SumsOf8(AbsDiffU8(hn::LoadU(d, a + p + N),
                                                 hn::LoadU(d, b + p + N))));
    }
    for (; p + N <= len; p += N) {
      acc0 = hn::Add(acc0, hn::SumsOf8(AbsDiffU8(hn::LoadU(d, a + p), hn::LoadU(d, b + p))));
    }
    sum = hn::GetLane(hn::SumOfLanes(d64, hn::Add(acc0, acc1)));
  }
  for (; p < len; ++p) sum += static_cast<uint32_t>(std::abs(a[p] - b[p]));
  return static_cast<uint32_t>(sum);
}

// Sum of a chunk of `rows` 8-pixel rows, strip rows packed, window rows `stride` apart: 8-byte
// absolute differences accumulated in 16-bit lanes, summed per 256 rows at most.
HWY_INLINE uint32_t SadRowsOf8(const uint8_t* HWY_RESTRICT s, const uint8_t* HWY_RESTRICT w,
                               size_t stride, int rows) {
#if HWY_TARGET == HWY_SCALAR
  uint32_t total = 0;  // one lane only: plain sums
  for (int r = 0; r < rows; ++r) total += SadRun(s + static_cast<size_t>(r) * 8, w + r * stride, 8);
  return total;
#else
  const hn::CappedTag<uint8_t, 8> d8;
  const hn::Rebind<uint16_t, decltype(d8)> d16;
  uint32_t sum = 0;
  HWY_ALIGN uint16_t lanes[8];
  for (int r0 = 0; r0 < rows; r0 += 256) {
    const int r1 = rows - r0 < 256 ? rows : r0 + 256;
    auto acc = hn::Zero(d16);
    for (int r = r0; r < r1; ++r) {
      const auto a = hn::LoadU(d8, s + static_cast<size_t>(r) * 8);
      const auto b = hn::LoadU(d8, w + static_cast<size_t>(r) * stride);
      acc = hn::Add(acc, hn::PromoteTo(d16, AbsDiffU8(a, b)));
    }
    hn::Store(acc, d16, lanes);
    for (int l = 0; l < 8; ++l) sum += lanes[l];
  }
  return sum;
#endif
}

// The scan of the shifts, shared by both ways; chunkCost(i, j, c) sums chunk c of shift (i, j).
template <class ChunkCost>
HWY_INLINE SadSearchBest Scan(const SadSearchArgs& a, const ChunkCost& chunkCost) {
  SadSearchBest best{PixelAlignment::kNoCost, 0, 0};
  for (int j = 0; j < a.shiftsY; ++j) {
    for (int i = 0; i < a.shiftsX; ++i) {
      int64_t cost = 0;
      bool abandoned = false;
      for (int c = 0; c < a.chunks; ++c) {
        cost += chunkCost(i, j, c);
        if (cost > best.cost) {
          abandoned = true;
          break;
        }
      }
      if (!abandoned && cost < best.cost) best = {static_cast<int32_t>(cost), i, j};
    }
  }
  return best;
}

SadSearchBest SearchGeneric(const SadSearchArgs& a) {
  const size_t chunkStrip = static_cast<size_t>(a.chunkRows) * a.rowBytes;
  return Scan(a, [&](int i, int j, int c) -> uint32_t {
    const int r0 = c * a.chunkRows;
    const uint8_t* s = a.strip + static_cast<size_t>(c) * chunkStrip;
    const uint8_t* w = a.window + static_cast<size_t>(j + r0) * a.winStride + i;
    uint32_t sum = 0;
    for (int k = 0; k < a.chunkRows; ++k) {
      sum += SadRun(s + static_cast<size_t>(k) * a.rowBytes,
                    w + static_cast<size_t>(k) * a.winStride, a.rowBytes);
    }
    return sum;
  });
}

SadSearchBest SearchRunsOf8(const SadSearchArgs& a) {
  if (a.rowBytes != 8) return SearchGeneric(a);
  return Scan(a, [&](int i, int j, int c) -> uint32_t {
    const int r0 = c * a.chunkRows;
    return SadRowsOf8(a.strip + static_cast<size_t>(r0) * 8,
                      a.window + static_cast<size_t>(j + r0) * a.winStride + i, a.winStride,
                      a.chunkRows);
  });
}

SadSearchBest SearchColumns(const SadSearchArgs& a) {
  if (a.rowBytes != 8) return SearchGeneric(a);
  // Column block i: winRows rows of the 8 window bytes i..i+7, packed.
  const size_t block = static_cast<size_t>(a.winRows) * 8;
  for (int i = 0; i < a.shiftsX; ++i) {
    uint8_t* dst = a.scratch + static_cast<size_t>(i) * block;
    for (int r = 0; r < a.winRows; ++r) {
      std::memcpy(dst + static_cast<size_t>(r) * 8,
                  a.window + static_cast<size_t>(r) * a.winStride + i, 8);
    }
  }
  const size_t chunkBytes = static_cast<size_t>(a.chunkRows) * 8;
  return Scan(a, [&](int i, int j, int c) -> uint32_t {
    const size_t r0 = static_cast<size_t>(c) * a.chunkRows;
    return SadRun(a.strip + r0 * 8,
                  a.scratch + static_cast<size_t>(i) * block + (j + r0) * 8, chunkBytes);
  });
}

SadSearchBest SearchBest(const SadSearchArgs& a) {
#if HWY_ARCH_X86
  return SearchColumns(a);
#else
  return SearchRunsOf8(a);
#endif
}

}  // namespace HWY_NAMESPACE
}  // namespace zolt
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace zolt {
namespace {

HWY_EXPORT(SearchBest);
HWY_EXPORT(SearchRunsOf8);
HWY_EXPORT(SearchColumns);

SadSearchBest searchBest(const SadSearchArgs& a) { return HWY_DYNAMIC_DISPATCH(SearchBest)(a); }
SadSearchBest searchRunsOf8(const SadSearchArgs& a) {
  return HWY_DYNAMIC_DISPATCH(SearchRunsOf8)(a);
}
SadSearchBest searchColumns(const SadSearchArgs& a) {
  return HWY_DYNAMIC_DISPATCH(SearchColumns)(a);
}

size_t noScratch(int, int, int, int, int) { return 0; }
size_t columnScratch(int rowBytes, int, int, int winRows, int shiftsX) {
  return rowBytes == 8 ? static_cast<size_t>(winRows) * 8 * shiftsX : 0;
}

}  // namespace

const SadKernels& vectorSadKernels() {
#if HWY_ARCH_X86
  static const SadKernels k{searchBest, columnScratch, "vector (columns)"};
#else
  static const SadKernels k{searchBest, noScratch, "vector (runs of 8)"};
#endif
  return k;
}

const SadKernels& vectorSadKernelsRunsOf8() {
  static const SadKernels k{searchRunsOf8, noScratch, "vector (runs of 8)"};
  return k;
}

const SadKernels& vectorSadKernelsColumns() {
  static const SadKernels k{searchColumns, columnScratch, "vector (columns)"};
  return k;
}

}  // namespace zolt
#endif  // HWY_ONCE
