// OrreryEngine: the live preview of the panorama, the valid part of the caller's NV21 canvas
// scaled down and turned into RGBA by libyuv. The planes are scaled first and converted after,
// so the conversion only touches the small picture.
#include <algorithm>
#include <cstdint>

#include <libyuv/convert_argb.h>
#include <libyuv/scale.h>

#include "engine/orrery_engine.h"
#include "merger/module_merge.h"

namespace {

// The largest size within maxW x maxH with the aspect of w x h, never larger than w x h. The
// limited side is exact, the other rounded to nearest; both at least 1.
void fitSize(int w, int h, int maxW, int maxH, int* outW, int* outH) {
  if (w <= maxW && h <= maxH) {
    *outW = w;
    *outH = h;
    return;
  }
  const int64_t W = w, H = h;
  if (static_cast<int64_t>(maxW) * H <= static_cast<int64_t>(maxH) * W) {  // width limits
    *outW = maxW;
    *outH = static_cast<int>(std::clamp<int64_t>((2 * H * maxW + W) / (2 * W), 1, maxH));
  } else {
    *outH = maxH;
    *outW = static_cast<int>(std::clamp<int64_t>((2 * W * maxH + H) / (2 * H), 1, maxW));
  }
}

}  // namespace

bool OrreryEngine::renderPreview(int maxWidth, int maxHeight, uint8_t* rgba, int rowStride,
                                 int* width, int* height) {
  cv::Rect valid;
  if (merger == nullptr || !hasPanorama() || !merger->validRect(valid)) return false;
  // A VU pair covers two columns and two rows from even ones: the crop starts and ends on even
  // canvas rows and columns, inside the valid rectangle (the canvas's sides are even).
  const int x0 = (valid.x + 1) & ~1, y0 = (valid.y + 1) & ~1;
  const int cropW = ((valid.x + valid.width) & ~1) - x0;
  const int cropH = ((valid.y + valid.height) & ~1) - y0;
  if (cropW <= 0 || cropH <= 0) return false;

  const NV21Img& canvas = merger->panoImg;
  const int stride = canvas.width;  // both planes
  const uint8_t* y = canvas.yPlane + static_cast<ptrdiff_t>(y0) * stride + x0;
  const uint8_t* vu = canvas.vuPlane + static_cast<ptrdiff_t>(y0 / 2) * stride + x0;
  int w = 0, h = 0;
  fitSize(cropW, cropH, maxWidth, maxHeight, &w, &h);
  int srcW = cropW, srcH = cropH, yStride = stride, vuStride = stride;
  // The exact step down from srcW x srcH while the picture is at least twice the preview: 4, 2,
  // or 0 when it is not.
  const auto exactStep = [&w, &h](int sw, int sh) {
    return sw >= 4 * w && sh >= 4 * h ? 4 : sw >= 2 * w && sh >= 2 * h ? 2 : 0;
  };
  if (w != cropW || h != cropH) {
    // Exact quarters and halves first (libyuv's vector box rows), while the picture is at least
    // twice the preview; then one bilinear step of less than 2, which loses no detail. Any
    // odd leftover of the exact steps (under 8 pixels) is left out on the right and bottom.
    // Scratch: the first level and a quarter of it for the next (levels alternate), then the
    // preview's own NV21.
    const int cw = (w + 1) / 2 * 2, ch = (h + 1) / 2 * 2;  // the VU plane covers even sides
    size_t level = 0;
    if (const int f = exactStep(srcW, srcH))
      level = static_cast<size_t>((srcW / f) & ~1) * ((srcH / f) & ~1) * 3 / 2;
    const size_t out = static_cast<size_t>(w) * h + static_cast<size_t>(cw) * ch / 2;
    previewScratch.resize(level + level / 4 + out);
    uint8_t* buffers[2] = {previewScratch.data(), previewScratch.data() + level};
    int next = 0;
    for (int f = exactStep(srcW, srcH); f != 0; f = exactStep(srcW, srcH)) {
      const int lw = (srcW / f) & ~1, lh = (srcH / f) & ~1;  // even: whole VU pairs
      uint8_t* ly = buffers[next];
      uint8_t* lvu = ly + static_cast<size_t>(lw) * lh;
      libyuv::NV12Scale(y, yStride, vu, vuStride, lw * f, lh * f, ly, lw, lvu, lw, lw, lh,
                        libyuv::kFilterBox);
      y = ly, vu = lvu, yStride = vuStride = lw, srcW = lw, srcH = lh;
      next ^= 1;  // each level is at most a quarter of the one before
    }
    uint8_t* sy = previewScratch.data() + level + level / 4;
    uint8_t* svu = sy + static_cast<size_t>(w) * h;
    libyuv::NV12Scale(y, yStride, vu, vuStride, srcW, srcH, sy, w, svu, cw, w, h,
                      libyuv::kFilterBilinear);
    y = sy, vu = svu, yStride = w, vuStride = cw;
  }
  // NV12's conversion over VU with the mirrored matrix is NV21 to R, G, B, A bytes (libyuv's
  // NV21ToABGR), here with the JPEG's full-range BT.601 rather than video range.
  libyuv::NV12ToARGBMatrix(y, yStride, vu, vuStride, rgba, rowStride, &libyuv::kYvuJPEGConstants, w,
                           h);
  *width = w;
  *height = h;
  return true;
}
