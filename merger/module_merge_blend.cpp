// ModuleMerge: linear blending across the seam, with a ramp that widens where both images are
// flat and bright around the seam. One algorithm for the four merges; they differ in the sweep
// axis and in the side of the seam the new frame lies on.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "merger/merge_kernels.h"
#include "merger/module_merge.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace {

constexpr int kStripWidth = 288;  // analysis strip across the seam, reduced 9 times to 32
constexpr int kMaskEntries = 16256;
constexpr int kMaskStrideH = 32;   // block columns per mask row, horizontal sweeps
constexpr int kMaskStrideV = 508;  // vertical sweeps

// Mean and mean absolute deviation of a 4x4 block.
void blockStats(const cv::Mat& m, int by, int bx, float& mean, float& dev) {
  int sum = 0;
  for (int y = 0; y < 4; ++y) {
    const uint8_t* p = m.ptr<uint8_t>(by + y) + bx;
    sum += p[0] + p[1] + p[2] + p[3];
  }
  mean = static_cast<float>(sum) / 16.0f;
  float d = 0.0f;
  for (int y = 0; y < 4; ++y) {
    const uint8_t* p = m.ptr<uint8_t>(by + y) + bx;
    for (int x = 0; x < 4; ++x) d += std::fabs(static_cast<float>(p[x]) - mean);
  }
  dev = d / 16.0f;
}

// Bilinear reduction by 9 of the 288-pixel side (and of the other side, to 32 when it is the
// shorter one).
void shrink(cv::Mat& m) {
  const cv::Size size =
      m.cols <= m.rows ? cv::Size(32, m.rows / 9) : cv::Size(m.cols / 9, 32);
  cv::resize(m, m, size, 0, 0, cv::INTER_LINEAR);
}

bool inside(const cv::Rect& r, const cv::Mat& m) {
  return r.width > 0 && r.height > 0 && (r & cv::Rect(0, 0, m.cols, m.rows)) == r;
}

}  // namespace

void ModuleMerge::merge_ToLeft_linear_YUV_withSeam(int pos, NV21Img& frame,
                                                   std::vector<int>& seam) {
  linearMerge(Axis::Horizontal, Side::Before, "merge_ToLeft_linear_YUV_withSeam", pos, frame,
              seam);
}

void ModuleMerge::merge_ToRight_linear_YUV_withSeam(int pos, NV21Img& frame,
                                                    std::vector<int>& seam) {
  linearMerge(Axis::Horizontal, Side::After, "merge_ToRight_linear_YUV_withSeam", pos, frame,
              seam);
}

void ModuleMerge::merge_ToTop_linear_YUV_withSeam(int pos, NV21Img& frame,
                                                  std::vector<int>& seam) {
  linearMerge(Axis::Vertical, Side::Before, "merge_ToTop_linear_YUV_withSeam", pos, frame, seam);
}

void ModuleMerge::merge_ToBottom_linear_YUV_withSeam(int pos, NV21Img& frame,
                                                     std::vector<int>& seam) {
  linearMerge(Axis::Vertical, Side::After, "merge_ToBottom_linear_YUV_withSeam", pos, frame,
              seam);
}

void ModuleMerge::linearMerge(Axis axis, Side side, const char* name, int pos, NV21Img& frame,
                              std::vector<int>& seam) {
  const bool horizontal = axis == Axis::Horizontal;
  const bool before = side == Side::Before;
  int32_t mask[kMaskEntries];  // 4x4-block flags: 255 flat and bright in both images
  std::memset(mask, 0, sizeof(mask));
  const int maskStride = horizontal ? kMaskStrideH : kMaskStrideV;

  // 1. Analysis strips over the Y planes, across the seam, where frame and canvas overlap.
  cv::Rect frameRect, panoRect;
  if (horizontal) {
    const int h = frameHeight - std::abs(offsetY);
    frameRect = cv::Rect(frameWidth / 2 - kStripWidth / 2, std::max(offsetY, 0), kStripWidth, h);
    panoRect = cv::Rect(pos - kStripWidth / 2, std::max(-offsetY, 0), kStripWidth, h);
  } else {
    const int w = frameWidth - std::abs(offsetX);
    frameRect = cv::Rect(std::max(offsetX, 0), frameHeight / 2 - kStripWidth / 2, w, kStripWidth);
    panoRect = cv::Rect(std::max(-offsetX, 0), pos - kStripWidth / 2, w, kStripWidth);
  }
  // A strip reaching outside an image (frames narrower than the strip) leaves the mask clear.
  const bool haveStrips = inside(frameRect, frame.yMat) && inside(panoRect, panoImg.yMat);

  // 2. Reduce both strips by 9.
  int64_t t0 = zolt::wallClockMs();
  cv::Mat frameStrip, panoStrip;
  if (haveStrips) {
    frameStrip = frame.yMat(frameRect);
    panoStrip = panoImg.yMat(panoRect);
    shrink(frameStrip);
    shrink(panoStrip);
  }
  int64_t t1 = zolt::wallClockMs();
  ZLOGI("resizing timing =  %f", static_cast<double>(t1 - t0));

  // 3. Textureless blocks.
  t0 = zolt::wallClockMs();
  if (haveStrips) {
    const int rows = frameStrip.rows & ~3;
    const int cols = frameStrip.cols & ~3;
    for (int by = 0; by < rows; by += 4) {
      for (int bx = 0; bx < cols; bx += 4) {
        float meanF, devF, meanC, devC;
        blockStats(frameStrip, by, bx, meanF, devF);
        blockStats(panoStrip, by, bx, meanC, devC);
        const bool flat = devF < texturelessDevFrame && meanF > texturelessMinMean &&
                          devC < texturelessDevPano && meanC > texturelessMinMean;
        const int idx = (by / 4) * maskStride + bx / 4;
        if (idx < kMaskEntries) mask[idx] = flat ? 255 : 0;
      }
    }
  }
  t1 = zolt::wallClockMs();
  ZLOGI("textureless region finding timing =  %f", static_cast<double>(t1 - t0));

  // 4. The seam, one entry per canvas line across the sweep.
  std::vector<int> found = horizontal ? getSeam_V_YUV(pos, frame) : getSeam_H_YUV(pos, frame);

  // 5. Ramp per line.
  t0 = zolt::wallClockMs();
  int n = 0;
  int blndstat[5] = {0, 0, 0, 0, 0};
  // `line` is the mask row (horizontal) or column (vertical) of the canvas line; the band
  // position indexes the other mask axis.
  auto flatAt = [&](int band, int line) {
    const int idx = horizontal ? line * maskStride + band : band * maskStride + line;
    return idx >= 0 && idx < kMaskEntries && mask[idx] == 255;
  };
  auto rampLevel = [&](int b, int line) {
    if (!flatAt(b / 4, line)) return 0;
    if (b < 1 || b > 27) return 0;
    if (!flatAt((b - 4) / 4, line) || !flatAt((b + 4) / 4, line)) return 0;
    int counter = 1;
    for (int k = 1;; ++k) {
      counter += 2;
      const int l = b - 4 * (k + 1), r = b + 4 * (k + 1);
      if (l < -3 || r > 31 || !flatAt(l / 4, line) || !flatAt(r / 4, line)) break;
    }
    return counter == 3 ? 1 : (counter == 5 ? 2 : 3);
  };

  const zolt::MergeKernels& kern = zolt::mergeKernels();
  const size_t pw = static_cast<size_t>(panoWidth);
  const size_t fw = static_cast<size_t>(frameWidth);
  const int lines = horizontal ? panoHeight : panoWidth;
  const int lineShift = horizontal ? offsetY : offsetX;
  const int frameLines = horizontal ? frameHeight : frameWidth;
  // Frame position along the sweep of canvas position a: a + alongShift.
  const int alongShift = horizontal ? (before ? frameWidth - panoWidth : 0) + offsetX
                                    : (before ? frameHeight - panoHeight : 0) + offsetY;
  std::vector<int8_t> columnLevel(horizontal ? 0 : lines, 0);
  for (int line = 0; line < lines; ++line) {
    const int fl = line + lineShift;
    if (fl < 0 || fl >= frameLines) continue;
    const int s = found.at(line);
    const int b = (s - pos + 143) / 9;
    int level = rampLevel(b, (fl / 9) / 4);
    if (resolutionLevel < level) level = resolutionLevel;
    const int hw = 16 << level;
    n += 1 << level;
    blndstat[level] += 1;
    // The frame weighs fully at the ramp's end on its side.
    const int wfa = before ? 2 * hw : 0;
    const int dir = before ? -1 : 1;
    if (horizontal) {
      kern.blendRampRow(panoImg.yPlane + line * pw, panoImg.vuPlane + (line / 2) * pw,
                        frame.yPlane + fl * fw, frame.vuPlane + (fl / 2) * fw, s - hw, s + hw,
                        alongShift, wfa, dir, level);
    } else {
      // The columns' ramps are blended together below, from the seam as found.
      columnLevel[line] = static_cast<int8_t>(level);
      continue;
    }
    // The fill continues from the first position not covered on the frame's side.
    found[line] = before ? s - hw : s + hw;
  }
  if (!horizontal) {
    zolt::ColumnRamps ramps{};
    ramps.cY = panoImg.yPlane;
    ramps.cVU = panoImg.vuPlane;
    ramps.pw = panoWidth;
    ramps.fY = frame.yPlane;
    ramps.fVU = frame.vuPlane;
    ramps.fw = frameWidth;
    ramps.c0 = std::max(0, -offsetX);
    ramps.c1 = std::min(panoWidth, frameWidth - offsetX);
    ramps.offX = offsetX;
    ramps.yShift = alongShift;
    ramps.seam = found.data();
    ramps.level = columnLevel.data();
    ramps.before = before;
    kern.blendRampColumns(ramps);
    for (int c = ramps.c0; c < ramps.c1; ++c) {
      const int hw = 16 << columnLevel[c];
      found[c] = before ? found[c] - hw : found[c] + hw;
    }
  }
  t1 = zolt::wallClockMs();
  ZLOGI("[%s] full dynamic blending time =  %f and N = %d  Blndstat: %d %d %d %d %d", name,
        static_cast<double>(t1 - t0), n, blndstat[0], blndstat[1], blndstat[2], blndstat[3],
        blndstat[4]);
  seam = std::move(found);
}
