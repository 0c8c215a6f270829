// ModuleMerge: construction, placement of the first frame and the per-frame placement rules.
#include "merger/module_merge.h"

#include <cmath>
#include <cstring>

#include "platform/clock.h"
#include "platform/log.h"
#include "zolt_pano_ext.h"

ModuleMerge::ModuleMerge(int width, int height)
    : frameWidth(width),
      frameHeight(height),
      halfFrameWidth(width / 2),
      halfFrameHeight(height / 2) {
  // Size classes of the preview width (1.2 and 1.8 times 1344); level 1 is never used.
  const double w = static_cast<double>(frameWidth);
  if (w >= 2419.2) {
    resolutionLevel = 3;
  } else if (w >= 1612.8000000000002) {
    resolutionLevel = 2;
  } else {
    resolutionLevel = 0;
  }
}

ModuleMerge::~ModuleMerge() { gainFrame.freeData(); }

int ModuleMerge::merging_AddImage(NV21Img& frame, cv::Point_<double> offset, MoveDirection dir,
                                  __tag_ZOLT_OFFSCREEN* out) {
  const int64_t t0 = zolt::wallClockMs();
  ZLOGW("MERGER BEGIN");
  offsetX = static_cast<int32_t>(offset.x);
  offsetY = static_cast<int32_t>(offset.y);
  if (offsetX > maxOffsetX) {
    maxOffsetX = offsetX;
  } else if (offsetX < minOffsetX) {
    minOffsetX = offsetX;
  }
  if (offsetY > maxOffsetY) {
    maxOffsetY = offsetY;
  } else if (offsetY < minOffsetY) {
    minOffsetY = offsetY;
  }
  if (!panoInitialised) {
    panoDirection = dir;
    initialize_pano_YUV_AddImage(frame, dir, out);
    const int rows = ZOLT_PANO_IsHorizontalSweep(dir) ? panoHeight : panoWidth;
    seamCost = cv::Mat::zeros(rows, 33, CV_32FC1);
    panoInitialised = true;
  } else {
    merging_frames(frame, dir);
  }
  const int64_t t1 = zolt::wallClockMs();
  ZLOGW("MERGER END - time cost %f", static_cast<double>(t1 - t0));
  return 0;
}

namespace {

// Row r of an NV21 picture seen as one run of Y rows followed by VU rows, `stride` bytes each,
// the way the first frame is copied. Where the VU plane lies directly behind the Y plane this
// is plain pointer arithmetic from the Y plane; otherwise the VU rows are taken from the VU
// plane. Null past the picture's end.
uint8_t* stackedRow(const NV21Img& img, int r, int stride, int height) {
  if (r < height) return img.yPlane + static_cast<size_t>(r) * stride;
  const size_t off = static_cast<size_t>(r - height) * stride;
  if (off + stride > static_cast<size_t>(stride) * height / 2) return nullptr;
  return img.vuPlane + off;
}

}  // namespace

void ModuleMerge::initialize_pano_YUV_AddImage(NV21Img& frame, MoveDirection dir,
                                               __tag_ZOLT_OFFSCREEN* out) {
  panoWidth = out->width;
  panoHeight = out->height;
  panoImg.nvCreate_shared_instance(out);
  const size_t fw = static_cast<size_t>(frameWidth);
  const size_t pw = static_cast<size_t>(panoWidth);
  switch (dir) {
    case MOVE_RIGHT:
    case MOVE_LEFT: {
      lastMergedX = dir == MOVE_RIGHT ? halfFrameWidth : panoWidth - halfFrameWidth;
      const int col = dir == MOVE_RIGHT ? 0 : panoWidth - frameWidth;
      // Y and VU rows in one run of 3 * height / 2 rows.
      for (int r = 0; r < (3 * panoHeight) / 2; ++r) {
        const uint8_t* src = stackedRow(frame, r, frameWidth, frameHeight);
        uint8_t* dst = stackedRow(panoImg, r, panoWidth, panoHeight);
        if (src == nullptr || dst == nullptr) break;
        std::memcpy(dst + col, src, fw);
      }
      break;
    }
    case MOVE_DOWN:
      lastMergedY = halfFrameHeight;
      for (int r = 0; r < frameHeight; ++r) {
        std::memcpy(panoImg.yPlane + r * pw, frame.yPlane + r * fw, fw);
      }
      if (frameHeight > 1) {
        for (int r = 0; r < frameHeight / 2; ++r) {
          std::memcpy(panoImg.vuPlane + r * pw, frame.vuPlane + r * fw, fw);
        }
      }
      break;
    case MOVE_UP: {
      lastMergedY = panoHeight - halfFrameHeight;
      // Steps the destination by the frame width, which equals the canvas width in vertical
      // sweeps.
      uint8_t* y0 = panoImg.yPlane + fw * (panoHeight - frameHeight);
      for (int r = 0; r < frameHeight; ++r) {
        std::memcpy(y0 + r * fw, frame.yPlane + r * fw, fw);
      }
      if (frameHeight > 1) {
        uint8_t* vu0 = panoImg.vuPlane + fw * ((panoHeight - frameHeight) / 2);
        for (int r = 0; r < frameHeight / 2; ++r) {
          std::memcpy(vu0 + r * fw, frame.vuPlane + r * fw, fw);
        }
      }
      break;
    }
    default:
      break;
  }
}

void ModuleMerge::merging_frames(NV21Img& frame, MoveDirection dir) {
  const int cx = halfFrameWidth - offsetX;
  const int cy = halfFrameHeight - offsetY;
  std::vector<int> seam;
  switch (dir) {
    case MOVE_RIGHT:
      if (cx < lastMergedX) return;
      if (cx >= panoWidth - halfFrameWidth) {
        mergeState = kCanvasFull;
        return;
      }
      {
        NV21Img& f = exposureMatched(Axis::Horizontal, Side::After, cx, frame);
        merge_ToRight_linear_YUV_withSeam(cx, f, seam);
        merge_ToRight_direct_YUV_withSeam(seam, cx + halfFrameWidth, frame);
      }
      lastMergedX = cx;
      break;
    case MOVE_LEFT: {
      const int centre = cx + (panoWidth - frameWidth);
      if (centre > lastMergedX) return;
      if (centre <= halfFrameWidth) {
        mergeState = kCanvasFull;
        return;
      }
      NV21Img& f = exposureMatched(Axis::Horizontal, Side::Before, centre, frame);
      merge_ToLeft_linear_YUV_withSeam(centre, f, seam);
      merge_ToLeft_direct_YUV_withSeam(centre - halfFrameWidth, seam, frame);
      lastMergedX = centre;
      break;
    }
    case MOVE_DOWN:
      if (cy < lastMergedY) return;
      if (cy >= panoHeight - halfFrameHeight) {
        mergeState = kCanvasFull;
        return;
      }
      {
        NV21Img& f = exposureMatched(Axis::Vertical, Side::After, cy, frame);
        merge_ToBottom_linear_YUV_withSeam(cy, f, seam);
        merge_ToBottom_direct_YUV_withSeam(seam, cy + halfFrameHeight, frame);
      }
      lastMergedY = cy;
      break;
    case MOVE_UP: {
      const int centre = cy + (panoHeight - frameHeight);
      if (centre > lastMergedY) return;
      if (centre <= halfFrameHeight) {
        mergeState = kCanvasFull;
        return;
      }
      NV21Img& f = exposureMatched(Axis::Vertical, Side::Before, centre, frame);
      merge_ToTop_linear_YUV_withSeam(centre, f, seam);
      merge_ToTop_direct_YUV_withSeam(centre - halfFrameHeight, seam, frame);
      lastMergedY = centre;
      break;
    }
    default:
      break;
  }
  fillNear = nullptr;
}
