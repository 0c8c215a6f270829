// ModuleMerge: least-cost seam through a band of 33 positions around the new frame's centre.
#include <algorithm>
#include <cstdlib>

#include "merger/module_merge.h"

namespace {

constexpr int kBand = 33;     // positions searched across the seam
constexpr int kHalfBand = 16;
constexpr float kMinCost = 5.0f;  // smaller differences count as none

// Exported members cannot be inlined into the search (they may be interposed); both use this.
inline int whichMin(float a, float b, float c) {
  if (a < b) return c < a ? 1 : -1;
  return c < b ? 1 : 0;
}

}  // namespace

int ModuleMerge::which_min(float a, float b, float c) { return whichMin(a, b, c); }

int ModuleMerge::which_min_byPointer(float* p) { return whichMin(p[-1], p[0], p[1]); }

std::vector<int> ModuleMerge::getSeam_V_YUV(int pos, NV21Img& frame) {
  return seamSearch(Axis::Horizontal, pos, frame);
}

std::vector<int> ModuleMerge::getSeam_H_YUV(int pos, NV21Img& frame) {
  return seamSearch(Axis::Vertical, pos, frame);
}

// A horizontal sweep has a vertical seam: one line per canvas row, the band running along x.
// A vertical sweep is the same with rows and columns exchanged. `line` is the canvas row (or
// column) a seam entry belongs to, `across` the canvas column (or row) within the band.
std::vector<int> ModuleMerge::seamSearch(Axis axis, int pos, NV21Img& frame) {
  const bool horizontal = axis == Axis::Horizontal;
  const int n = horizontal ? panoHeight : panoWidth;
  std::vector<int> seam(n, 0);
  if (n <= 0) return seam;
  // seamCost is sized at the first frame to n rows; never write past it.
  const int rows = std::min(n, seamCost.rows);
  seamCost.setTo(0);

  // Frame position of canvas (line, across): line + lineShift, across + acrossShift.
  int lineShift, acrossShift, frameLines;
  if (horizontal) {
    lineShift = offsetY;
    acrossShift = panoDirection == MOVE_LEFT ? offsetX + frameWidth - panoWidth : offsetX;
    frameLines = frameHeight;
  } else {
    lineShift = offsetX;
    acrossShift = panoDirection == MOVE_UP ? offsetY + frameHeight - panoHeight : offsetY;
    frameLines = frameWidth;
  }
  const uint8_t* cY = panoImg.yPlane;
  const uint8_t* cVU = panoImg.vuPlane;
  const uint8_t* fY = frame.yPlane;
  const uint8_t* fVU = frame.vuPlane;
  const size_t pw = static_cast<size_t>(panoWidth);
  const size_t fw = static_cast<size_t>(frameWidth);
  auto costAt = [&](int x, int y, int fx, int fy) {
    const int dY = std::abs(cY[y * pw + x] - fY[fy * fw + fx]);
    const uint8_t* c = cVU + (y / 2) * pw + (x / 2) * 2;
    const uint8_t* f = fVU + (fy / 2) * fw + (fx / 2) * 2;
    const float cost = static_cast<float>(std::abs(c[0] - f[0])) +
                       static_cast<float>(std::abs(c[1] - f[1])) + static_cast<float>(dY);
    return cost >= kMinCost ? cost : 0.0f;
  };

  const int a0 = pos - kHalfBand;
  if (horizontal) {
    for (int r = 0; r < rows; ++r) {
      const int fr = r + lineShift;
      if (fr < 0 || fr >= frameLines) continue;
      float* cost = seamCost.ptr<float>(r);
      for (int j = 0; j < kBand; ++j) cost[j] = costAt(a0 + j, r, a0 + j + acrossShift, fr);
    }
  } else {
    // Canvas rows outer, so that both images are read along their rows.
    for (int j = 0; j < kBand; ++j) {
      const int y = a0 + j;
      const int fy = y + acrossShift;
      for (int c = 0; c < rows; ++c) {
        const int fc = c + lineShift;
        if (fc < 0 || fc >= frameLines) continue;
        seamCost.ptr<float>(c)[j] = costAt(c, y, fc, fy);
      }
    }
  }

  // Accumulate the cheapest path from the first line down.
  for (int i = 1; i < rows; ++i) {
    const float* prev = seamCost.ptr<float>(i - 1);
    float* cur = seamCost.ptr<float>(i);
    cur[0] += std::min(prev[0], prev[1]);
    for (int j = 1; j < kBand - 1; ++j) {
      cur[j] += prev[j + whichMin(prev[j - 1], prev[j], prev[j + 1])];
    }
    cur[kBand - 1] += std::min(prev[kBand - 2], prev[kBand - 1]);
  }

  // Trace back from the cheapest end; ties keep the lowest column.
  const float* last = seamCost.ptr<float>(rows - 1);
  int j = 0;
  for (int c = 1; c < kBand; ++c) {
    if (last[c] < last[j]) j = c;
  }
  seam[rows - 1] = j;
  for (int i = rows - 2; i >= 0; --i) {
    const float* cost = seamCost.ptr<float>(i);
    const int left = std::max(j - 1, 0);
    const int right = std::min(j + 1, kBand - 1);
    const int k = whichMin(cost[left], cost[j], cost[right]);
    j = k < 0 ? left : (k > 0 ? right : j);
    seam[i] = j;
  }
  for (int& e : seam) e = e - kHalfBand + pos;
  return seam;
}

void ModuleMerge::oneDimensionBoxFilterX(float* row, int n, std::vector<float>& prefix, int r) {
  if (n <= 0) return;
  if (prefix.size() < static_cast<size_t>(n)) prefix.resize(n);
  prefix[0] = row[0];
  for (int i = 1; i < n; ++i) prefix[i] = prefix[i - 1] + row[i];
  const float inv = 1.0f / static_cast<float>(2 * r);
  for (int i = r; i < n - r; ++i) row[i] = (prefix[i + r] - prefix[i - r]) * inv;
}

void ModuleMerge::directionalBlurX(cv::Mat& m, int r) {
  std::vector<float> prefix(m.cols, 0.0f);
  for (int y = 0; y < m.rows; ++y) oneDimensionBoxFilterX(m.ptr<float>(y), m.cols, prefix, r);
}
