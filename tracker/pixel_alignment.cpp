#include "tracker/pixel_alignment.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/simd_choice.h"

namespace zolt {
namespace {

SadSearchBest referenceSearch(const SadSearchArgs& a) {
  SadSearchBest best{PixelAlignment::kNoCost, 0, 0};
  for (int j = 0; j < a.shiftsY; ++j) {
    for (int i = 0; i < a.shiftsX; ++i) {
      int64_t cost = 0;
      bool abandoned = false;
      for (int c = 0; c < a.chunks && !abandoned; ++c) {
        int64_t chunk = 0;
        for (int k = 0; k < a.chunkRows; ++k) {
          const int r = c * a.chunkRows + k;
          const uint8_t* s = a.strip + static_cast<size_t>(r) * a.rowBytes;
          const uint8_t* w = a.window + static_cast<size_t>(j + r) * a.winStride + i;
          for (int p = 0; p < a.rowBytes; ++p) chunk += std::abs(s[p] - w[p]);
        }
        cost += chunk;
        abandoned = cost > best.cost;
      }
      if (!abandoned && cost < best.cost) best = {static_cast<int32_t>(cost), i, j};
    }
  }
  return best;
}

size_t referenceScratch(int, int, int, int, int) { return 0; }

const SadKernels* gTestKernels = nullptr;

}  // namespace

const SadKernels& referenceSadKernels() {
  static const SadKernels k{referenceSearch, referenceScratch, "reference"};
  return k;
}

const SadKernels& sadKernels() {
  static const SadKernels& k = forceReferenceKernels() ? referenceSadKernels() : vectorSadKernels();
  return gTestKernels != nullptr ? *gTestKernels : k;
}

void setSadKernelsForTesting(const SadKernels* k) { gTestKernels = k; }

}  // namespace zolt

PixelAlignment::PixelAlignment(int width)
    : stripBuf(static_cast<size_t>(width) * 8, 0),
      searchBuf(static_cast<size_t>(width + 65) * 41, 0) {}

PixelAlignment::Result PixelAlignment::searchUsingVstrip(const cv::Mat& first,
                                                         const cv::Mat& second,
                                                         const Input& in) {
  return search(first, second, in, Axis::kVertical);
}

PixelAlignment::Result PixelAlignment::searchUsingHstrip(const cv::Mat& first,
                                                         const cv::Mat& second,
                                                         const Input& in) {
  return search(first, second, in, Axis::kHorizontal);
}

namespace {

// One axis of the strip and of its search window. Wide integers: the bounds tests must not
// overflow whatever the caller passes.
struct Span {
  int64_t strip0;     // first strip pixel along the axis, in the first image
  int64_t stripLen;
  int64_t win0;       // first window pixel, in the second image
  int64_t winLen;
  int64_t firstLen;   // image sizes along the axis
  int64_t secondLen;
};

// The strip [strip0 + lead, + len) and the window [win0 + lead, + winLen) both inside their
// images.
bool fits(const Span& s, int64_t lead, int64_t len, int64_t winLen) {
  return s.strip0 + lead >= 0 && len >= 0 && s.strip0 + lead + len <= s.firstLen &&
         s.win0 + lead >= 0 && winLen >= 0 && s.win0 + lead + winLen <= s.secondLen;
}

void copyRect(const cv::Mat& img, int64_t x, int64_t y, int64_t w, int64_t h, uint8_t* dst) {
  // Continuous images: the row stride is the number of columns.
  const uint8_t* src = img.data + y * img.cols + x;
  for (int64_t r = 0; r < h; ++r) std::memcpy(dst + r * w, src + r * img.cols, w);
}

}  // namespace

PixelAlignment::Result PixelAlignment::search(const cv::Mat& first, const cv::Mat& second,
                                              const Input& in, Axis clipAxis) {
  const Result rejected{in.predX, in.predY, kNoCost};
  const int64_t n = groupSize;
  if (n <= 0) return rejected;
  const int64_t x0 = in.centerX - (in.stripW >> 1);
  const int64_t y0 = in.centerY - (in.stripH >> 1);
  const int64_t sx = x0 - (static_cast<int64_t>(in.rangeX) + in.predX);
  const int64_t sy = y0 - (static_cast<int64_t>(in.rangeY) + in.predY);
  const int64_t ws = in.stripW + 2 * static_cast<int64_t>(in.rangeX);
  const int64_t hs = in.stripH + 2 * static_cast<int64_t>(in.rangeY);
  const Span xs{x0, in.stripW, sx, ws, first.cols, second.cols};
  const Span ys{y0, in.stripH, sy, hs, first.rows, second.rows};
  const bool vertical = clipAxis == Axis::kVertical;
  const Span& along = vertical ? ys : xs;   // clipped and cut to a multiple of n
  const Span& across = vertical ? xs : ys;  // must fit whole

  const int64_t lead = along.win0 < 0 ? -along.win0 : 0;
  const int64_t over = along.win0 + along.winLen - along.secondLen;
  const int64_t clip = over >= 0 ? lead + over : lead;
  const int64_t rest = (along.stripLen - clip) % n;
  const int64_t len = along.stripLen - clip - rest;
  const int64_t winLen = along.winLen - clip - rest;
  if (!fits(across, 0, across.stripLen, across.winLen) || !fits(along, lead, len, winLen)) {
    return rejected;
  }

  // Strip and window as rectangles of the two images.
  const int64_t stripX = vertical ? x0 : x0 + lead, stripY = vertical ? y0 + lead : y0;
  const int64_t stripCols = vertical ? in.stripW : len, stripRows = vertical ? len : in.stripH;
  const int64_t winX = vertical ? sx : sx + lead, winY = vertical ? sy + lead : sy;
  const int64_t winCols = vertical ? ws : winLen, winRows = vertical ? winLen : hs;

  zolt::SadSearchArgs a{};
  if (vertical) {
    // Exactly 8 pixels of each strip row are compared, and the strip is read in runs of 8.
    a.rowBytes = 8;
    a.chunkRows = static_cast<int>(n);
    a.chunks = static_cast<int>(len / n);
  } else {
    a.rowBytes = static_cast<int>(len);
    a.chunkRows = 1;
    a.chunks = in.stripH;
  }
  a.winStride = static_cast<int>(winCols);
  a.winRows = static_cast<int>(winRows);
  a.shiftsX = in.rangeX < 0 ? 0 : 2 * in.rangeX + 1;
  a.shiftsY = in.rangeY < 0 ? 0 : 2 * in.rangeY + 1;

  const zolt::SadKernels& k = zolt::sadKernels();
  // A vertical strip narrower than 8 reads past its rows; the window gets a few bytes of slack
  // after its last row for the same reason. Grown only when a larger search comes along.
  constexpr size_t kSlack = 8;
  const size_t stripBytes =
      std::max<size_t>(stripCols * stripRows, static_cast<size_t>(a.rowBytes) * a.chunkRows * a.chunks);
  const size_t winBytes = static_cast<size_t>(winCols * winRows) + kSlack;
  const size_t scratch = k.scratchBytes(a.rowBytes, a.chunkRows, a.chunks, a.winRows, a.shiftsX);
  if (stripBuf.size() < stripBytes) stripBuf.resize(stripBytes, 0);
  if (searchBuf.size() < winBytes + scratch) searchBuf.resize(winBytes + scratch, 0);

  copyRect(first, stripX, stripY, stripCols, stripRows, stripBuf.data());
  copyRect(second, winX, winY, winCols, winRows, searchBuf.data());
  std::memset(searchBuf.data() + winBytes - kSlack, 0, kSlack);
  a.strip = stripBuf.data();
  a.window = searchBuf.data();
  a.scratch = searchBuf.data() + winBytes;

  const zolt::SadSearchBest best = k.search(a);
  return {static_cast<int32_t>(in.predX + in.rangeX - best.i),
          static_cast<int32_t>(in.predY + in.rangeY - best.j), best.cost};
}
