// ModuleMerge: the new frame copied, unblended, between the moved seam and its leading edge.
// Horizontal sweeps copy one run per plane and canvas row. Vertical sweeps copy single pixels
// in the ragged band between the seam and its extreme row, then whole rows. With exposure
// compensation the part near the seam comes from the compensated copy (fillNear).
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "merger/module_merge.h"

void ModuleMerge::merge_ToLeft_direct_YUV_withSeam(int left, const std::vector<int>& seam,
                                                   NV21Img& frame) {
  directFillHorizontal(left, -1, seam, Side::Before, frame);
}

void ModuleMerge::merge_ToRight_direct_YUV_withSeam(const std::vector<int>& seam, int right,
                                                    NV21Img& frame) {
  directFillHorizontal(-1, right, seam, Side::After, frame);
}

void ModuleMerge::merge_ToTop_direct_YUV_withSeam(int top, const std::vector<int>& seam,
                                                  NV21Img& frame) {
  directFillVertical(top, seam, Side::Before, frame);
}

void ModuleMerge::merge_ToBottom_direct_YUV_withSeam(const std::vector<int>& seam, int bottom,
                                                     NV21Img& frame) {
  directFillVertical(bottom, seam, Side::After, frame);
}

// Left merge: columns [start, seam) of each row; right merge: [seam, end). The VU run starts
// at the pair of the first column and is as long as the Y run; the odd row of a VU row comes
// last and decides its chroma.
void ModuleMerge::directFillHorizontal(int start, int end, const std::vector<int>& seam,
                                       Side side, NV21Img& frame) {
  const bool before = side == Side::Before;
  const size_t pw = static_cast<size_t>(panoWidth);
  const size_t fw = static_cast<size_t>(frameWidth);
  const int shift = (before ? frameWidth - panoWidth : 0) + offsetX;
  const int rows = std::min<int>(panoHeight, static_cast<int>(seam.size()));
  // Frame columns [f, f + n) of one plane row to dst: from `own`, or on the seam's side of
  // fillSplit from `near` (the same row of *fillNear).
  auto copyRun = [&](uint8_t* dst, const uint8_t* own, const uint8_t* near, int f, int n) {
    if (near == nullptr) {
      std::memcpy(dst, own + f, n);
      return;
    }
    const int k = std::clamp(fillSplit - f, 0, n);  // columns below the split
    std::memcpy(dst, (before ? own : near) + f, k);
    std::memcpy(dst + k, (before ? near : own) + f + k, n - k);
  };
  for (int r = 0; r < rows; ++r) {
    const int fr = r + offsetY;
    if (fr < 0 || fr >= frameHeight) continue;
    const int s = seam[r];
    const int a = before ? start : s;     // first canvas column written
    const int n = before ? s - start : end - s;
    if (n <= 0) continue;  // a seam beyond the leading edge leaves the row alone
    const int sc = a + shift;
    const size_t yRow = fr * fw, vuRow = (fr / 2) * fw;
    copyRun(panoImg.yPlane + r * pw + a, frame.yPlane + yRow,
            fillNear ? fillNear->yPlane + yRow : nullptr, sc, n);
    copyRun(panoImg.vuPlane + (r / 2) * pw + (a / 2) * 2, frame.vuPlane + vuRow,
            fillNear ? fillNear->vuPlane + vuRow : nullptr, (sc / 2) * 2, n);
  }
}

// Upward merge (Before): rows [edge, m) whole, the band m..seam[c] per column, the seam row
// from the frame. Downward merge (After): the band seam[c]+1..M per column, the seam row left
// blended, then rows (M, edge) whole.
void ModuleMerge::directFillVertical(int edge, const std::vector<int>& seam, Side side,
                                     NV21Img& frame) {
  const bool before = side == Side::Before;
  const size_t pw = static_cast<size_t>(panoWidth);
  const size_t fw = static_cast<size_t>(frameWidth);
  const int yShift = (before ? frameHeight - panoHeight : 0) + offsetY;
  const int cols = std::min<int>(panoWidth, static_cast<int>(seam.size()));

  // Extreme of the seam: m = min(panoHeight, seam) - 1 above, M = max(0, seam) below.
  int extreme;
  if (before) {
    extreme = panoHeight;
    for (int c = 0; c < cols; ++c) extreme = std::min(extreme, seam[c]);
    extreme -= 1;
  } else {
    extreme = 0;
    for (int c = 0; c < cols; ++c) extreme = std::max(extreme, seam[c]);
  }

  // The frame, or *fillNear for frame rows on the seam's side of fillSplit.
  auto source = [&](int fy) -> const NV21Img& {
    return fillNear != nullptr && (before ? fy >= fillSplit : fy < fillSplit) ? *fillNear : frame;
  };
  auto copyPixel = [&](int y, int c, int fy, int fc) {
    if (y < 0 || y >= panoHeight) return;
    const NV21Img& from = source(fy);
    panoImg.yPlane[y * pw + c] = from.yPlane[fy * fw + fc];
    uint8_t* dst = panoImg.vuPlane + (y / 2) * pw + (c & ~1);
    const uint8_t* src = from.vuPlane + (fy / 2) * fw + (fc / 2) * 2;
    dst[0] = src[0];
    dst[1] = src[1];
  };
  for (int c = 0; c < cols; ++c) {
    const int fc = c + offsetX;
    if (fc < 0 || fc >= frameWidth) continue;
    const int y0 = before ? extreme : seam[c] + 1;
    const int y1 = before ? seam[c] : extreme;
    for (int y = y0; y <= y1; ++y) copyPixel(y, c, y + yShift, fc);
  }

  // Whole rows: the run of the columns both images share.
  const int run = panoWidth - std::abs(offsetX);
  if (run <= 0) return;
  const int fCol = offsetX >= 1 ? offsetX : 0;
  const int pCol = offsetX >= 1 ? 0 : -offsetX;
  const int fVuCol = offsetX >= 1 ? (offsetX & ~1) : 0;
  const int pVuCol = offsetX >= 1 ? 0 : (-offsetX & ~1);
  const int yFrom = before ? edge : extreme + 1;
  const int yTo = before ? extreme : edge;  // exclusive
  for (int y = std::max(yFrom, 0); y < std::min(yTo, panoHeight); ++y) {
    const int fy = y + yShift;
    const NV21Img& from = source(fy);
    std::memcpy(panoImg.yPlane + y * pw + pCol, from.yPlane + fy * fw + fCol, run);
    std::memcpy(panoImg.vuPlane + (y / 2) * pw + pVuCol, from.vuPlane + (fy / 2) * fw + fVuCol,
                run);
  }
}
