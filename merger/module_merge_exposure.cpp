// ModuleMerge: exposure compensation. Auto exposure changes the brightness from key frame to key
// frame; merged as they are, the frames leave a step at every seam, plain to see in a smooth sky.
// Each key frame gets one gain, the canvas's luma over its own where they overlap around the
// seam. The gain holds up to the frame's centre (the seam and its ramp) and eases linearly to 1
// over the next quarter of the frame, toward the leading edge: the seam matches the canvas, and
// what lies beyond comes back to the frame's own exposure. The next key frame's seam lies a step
// further on, where the canvas carries a little less of the old correction, so the panorama's
// brightness follows the camera's like a running mean over a quarter frame of travel: a slow
// change of light is kept, not frozen to the first frame's exposure, and nowhere does the gain
// jump. (Easing over half a frame lagged further behind the camera's changes and left steps no
// smaller on dusk footage; over an eighth, more.) Chroma is scaled about its offset of 128 by the
// same gain, as a change of exposure scales it.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "merger/merge_kernels.h"
#include "merger/module_merge.h"
#include "platform/log.h"

namespace {

constexpr int kWindow = 64;        // canvas positions measured each side of the frame's centre
constexpr int kBlockLines = 32;    // canvas lines across the sweep per block of the measurement
constexpr int kLow = 12;           // luma below: lost in noise and the black level
constexpr int kHigh = 242;         // luma above: clipped, not scaled by the exposure
constexpr double kMinMean = 16.0;  // a block darker than this on the frame gives no ratio
constexpr int kMinBlocks = 4;      // fewer usable blocks: no measurement
constexpr double kAgree = 0.03;    // blocks within 3 % of the median ratio are pooled
// Gains stay in the kernel's range (Q14 in 16 bits, below 2); beyond this a measurement is
// taken to have failed rather than the exposure to have changed.
constexpr double kMinGain = 0.5;
constexpr double kMaxGain = 1.99;
// The seam search and the ramp read the frame up to 144 positions either side of its centre
// along the sweep (the seam band's 16 and the widest ramp's 128; the analysis strip's half of
// 288): a few more are compensated.
constexpr int kMargin = 160;

struct Block {
  int64_t canvas = 0, frame = 0;  // luma sums of the usable samples
  int used = 0, total = 0;
};

// Adds the sample pairs c[i], f[i] of even i in [0, n) to b, leaving out pairs of which either
// is clipped or lost in noise. Sums in locals: the byte reads may alias the block.
inline void addSamples(Block& b, const uint8_t* c, const uint8_t* f, int n) {
  int sc = 0, sf = 0, used = 0, total = 0;
  for (int i = 0; i < n; i += 2, ++total) {
    const int cv = c[i], fv = f[i];
    const bool ok = static_cast<unsigned>(cv - kLow) <= kHigh - kLow &&
                    static_cast<unsigned>(fv - kLow) <= kHigh - kLow;
    sc += ok ? cv : 0;
    sf += ok ? fv : 0;
    used += ok;
  }
  b.canvas += sc;
  b.frame += sf;
  b.used += used;
  b.total += total;
}

}  // namespace

double ModuleMerge::measureGain(Axis axis, Side side, int pos, const NV21Img& frame) const {
  const bool horizontal = axis == Axis::Horizontal;
  const bool before = side == Side::Before;
  const int lines = horizontal ? panoHeight : panoWidth;
  const int panoAlong = horizontal ? panoWidth : panoHeight;
  const int frameLines = horizontal ? frameHeight : frameWidth;
  const int frameAlong = horizontal ? frameWidth : frameHeight;
  const int lineShift = horizontal ? offsetY : offsetX;
  const int alongShift = horizontal ? (before ? frameWidth - panoWidth : 0) + offsetX
                                    : (before ? frameHeight - panoHeight : 0) + offsetY;
  // Only canvas the earlier key frames wrote: up to the last one's leading edge.
  const int last = horizontal ? lastMergedX : lastMergedY;
  const int half = horizontal ? halfFrameWidth : halfFrameHeight;
  int a0 = std::max({pos - kWindow, 0, -alongShift});
  int a1 = std::min({pos + kWindow, panoAlong, frameAlong - alongShift});
  if (before) {
    a0 = std::max(a0, last - half);
  } else {
    a1 = std::min(a1, last + half);
  }
  const int l0 = std::max(0, -lineShift), l1 = std::min(lines, frameLines - lineShift);
  if (a1 <= a0 || l1 <= l0) return 0.0;

  // Every second line and position: the blocks' means need no more. Both images are read along
  // their rows: canvas lines are rows of a horizontal sweep's canvas, columns of a vertical one's.
  const size_t pw = static_cast<size_t>(panoWidth), fw = static_cast<size_t>(frameWidth);
  const uint8_t* cY = panoImg.yPlane;
  const uint8_t* fY = frame.yPlane;
  std::vector<Block> blocks(static_cast<size_t>(lines / kBlockLines + 1));
  if (horizontal) {
    for (int l = l0; l < l1; l += 2) {
      addSamples(blocks[l / kBlockLines], cY + l * pw + a0,
                 fY + (l + lineShift) * fw + a0 + alongShift, a1 - a0);
    }
  } else {
    for (int a = a0; a < a1; a += 2) {
      const uint8_t* c = cY + a * pw;
      const uint8_t* f = fY + (a + alongShift) * fw + lineShift;
      for (int l = l0; l < l1;) {
        const int end = std::min(l1, (l / kBlockLines + 1) * kBlockLines);
        addSamples(blocks[l / kBlockLines], c + l, f + l, end - l);
        l += (end - l + 1) & ~1;
      }
    }
  }
  // The median of the blocks' ratios, robust to what moved or was misplaced; then the blocks
  // that agree with it pooled, for a finer figure than any one block gives.
  auto usable = [](const Block& b) {
    return b.used > 0 && 2 * b.used >= b.total && b.frame >= kMinMean * b.used;
  };
  auto ratio = [](const Block& b) {
    return std::log(static_cast<double>(b.canvas) / static_cast<double>(b.frame));
  };
  std::vector<double> ratios;
  for (const Block& b : blocks)
    if (usable(b)) ratios.push_back(ratio(b));
  if (static_cast<int>(ratios.size()) < kMinBlocks) return 0.0;
  auto mid = ratios.begin() + static_cast<std::ptrdiff_t>(ratios.size() / 2);
  std::nth_element(ratios.begin(), mid, ratios.end());
  const double median = *mid;
  int64_t canvas = 0, own = 0;
  for (const Block& b : blocks) {
    if (!usable(b) || std::fabs(ratio(b) - median) > kAgree) continue;
    canvas += b.canvas;
    own += b.frame;
  }
  return own > 0 ? static_cast<double>(canvas) / static_cast<double>(own) : std::exp(median);
}

NV21Img& ModuleMerge::exposureMatched(Axis axis, Side side, int pos, NV21Img& frame) {
  if (!options_.exposureCompensation) return frame;
  const bool horizontal = axis == Axis::Horizontal;
  const bool before = side == Side::Before;
  const int frameAlong = horizontal ? frameWidth : frameHeight;
  const int half = horizontal ? halfFrameWidth : halfFrameHeight;
  // Frame positions past the centre over which the gain eases to 1: half the way to the
  // leading edge.
  const int ease = std::max(1, (before ? half : frameAlong - half) / 2);

  double gain = 0.0;
  try {
    gain = measureGain(axis, side, pos, frame);
    if (!gainFrame.created || gainFrame.width != frameWidth || gainFrame.height != frameHeight)
      gainFrame.nvCreate(frameHeight, frameWidth);
    gainTable.resize(static_cast<size_t>(frameAlong));
  } catch (const std::bad_alloc&) {
    ZLOGE("exposure compensation: out of memory, the key frame is merged as it is");
    return frame;
  }
  const bool measured = gain > 0.0;
  if (!measured) {
    // Nothing to measure (a dark or clipped overlap): the frame is taken to have the last key
    // frame's exposure, and gets what that frame's gain was at this centre.
    const int last = horizontal ? lastMergedX : lastMergedY;
    const double t = std::min(1.0, std::abs(pos - last) / static_cast<double>(ease));
    gain = seamGain + (1.0 - seamGain) * t;
  }
  gain = std::clamp(gain, kMinGain, kMaxGain);

  // The compensated part, in frame positions along the sweep, [u0, u1): all that the seam search
  // and the ramp read (kMargin either side of the centre) and every position whose gain is not
  // 1. The direct fill takes the rest, at the frame's own exposure, straight from the frame
  // (fillNear, fillSplit), which spares a copy of a quarter of the frame. Even ends: a VU pair
  // (horizontal) or VU row (vertical) lies wholly on one side.
  const int reach = std::max(kMargin, ease + 1);
  const int u0 = std::max(0, half - (before ? reach : kMargin)) & ~1;
  const int u1 = std::min(frameAlong, (half + (before ? kMargin : reach) + 1) & ~1);
  for (int u = u0; u < u1; ++u) {
    const int d = before ? half - u : u - half;  // past the centre toward the leading edge
    const double g =
        d <= 0 ? gain : gain + (1.0 - gain) * std::min(1.0, d / static_cast<double>(ease));
    gainTable[u] = static_cast<int16_t>(std::clamp<long>(std::lround(g * 16384.0), 0, 32767));
  }

  const zolt::MergeKernels& kern = zolt::mergeKernels();
  const size_t fw = static_cast<size_t>(frameWidth);
  const int16_t* g = gainTable.data();
  if (horizontal) {
    // One gain per column; a VU pair takes its even column's, so V and U scale alike.
    for (int y = 0; y < frameHeight; ++y) {
      const size_t at = y * fw + u0;
      kern.gainRow(gainFrame.yPlane + at, frame.yPlane + at, u1 - u0, g + u0, 1, 0);
    }
    for (int u = u0 + 1; u < u1; u += 2) gainTable[u] = gainTable[u - 1];
    for (int q = 0; q < frameHeight / 2; ++q) {
      const size_t at = q * fw + u0;
      kern.gainRow(gainFrame.vuPlane + at, frame.vuPlane + at, u1 - u0, g + u0, 1, 128);
    }
  } else {
    // One gain per row; a VU row takes its even row's.
    for (int y = u0; y < u1; ++y) {
      const size_t at = y * fw;
      kern.gainRow(gainFrame.yPlane + at, frame.yPlane + at, frameWidth, g + y, 0, 0);
    }
    for (int q = u0 / 2; q < u1 / 2; ++q) {
      const size_t at = q * fw;
      kern.gainRow(gainFrame.vuPlane + at, frame.vuPlane + at, frameWidth, g + 2 * q, 0, 128);
    }
  }
  fillNear = &gainFrame;
  fillSplit = before ? u0 : u1;
  seamGain = gain;
  ZLOGI("exposure gain %.4f (%s)", gain, measured ? "measured" : "carried over");
  return gainFrame;
}
