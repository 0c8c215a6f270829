// ModuleMerge: the finished panorama and its valid rectangle.
#include <algorithm>
#include <cstdlib>

#include "merger/module_merge.h"

// Along the sweep the picture ends at the far edge of the last merged frame; across it, each
// side loses the largest drift of the hand toward it.
bool ModuleMerge::validRect(cv::Rect& rect) const {
  int left, top, right, bottom;
  switch (panoDirection) {
    case MOVE_RIGHT:
    case MOVE_LEFT:
      left = panoDirection == MOVE_RIGHT ? 0 : std::max(lastMergedX - halfFrameWidth, 0);
      right = panoDirection == MOVE_RIGHT ? std::min(lastMergedX + halfFrameWidth, panoWidth)
                                          : panoWidth;
      top = std::abs(minOffsetY);
      bottom = panoHeight - std::abs(maxOffsetY);
      break;
    case MOVE_DOWN:
    case MOVE_UP:
      left = std::abs(minOffsetX);
      right = panoWidth - std::abs(maxOffsetX);
      top = panoDirection == MOVE_DOWN ? 0 : std::max(lastMergedY - halfFrameHeight, 0);
      bottom = panoDirection == MOVE_DOWN ? std::min(lastMergedY + halfFrameHeight, panoHeight)
                                          : panoHeight;
      break;
    default:
      return false;
  }
  rect = cv::Rect(left, top, right - left, bottom - top);
  return true;
}

cv::Mat ModuleMerge::getPano_BGR() {
  cv::Rect valid;
  if (!validRect(valid)) return cv::Mat();
  // Only the part of the canvas that frames were written to is converted.
  switch (panoDirection) {
    case MOVE_RIGHT:
      panoBGR = panoImg.nvCvt2BGR(0, 0, std::min(lastMergedX + halfFrameWidth, panoWidth),
                                  panoHeight);
      break;
    case MOVE_LEFT: {
      const int x0 = std::max(lastMergedX - halfFrameWidth, 0);
      panoBGR = panoImg.nvCvt2BGR(x0, 0, panoWidth - x0, panoHeight);
      break;
    }
    case MOVE_DOWN:
      panoBGR = panoImg.nvCvt2BGR(0, 0, panoWidth,
                                  std::min(lastMergedY + halfFrameHeight, panoHeight));
      break;
    default: {
      const int y0 = std::max(lastMergedY - halfFrameHeight, 0);
      panoBGR = panoImg.nvCvt2BGR(0, y0, panoWidth, panoHeight - y0);
      break;
    }
  }
  return panoBGR(valid);
}

int ModuleMerge::CropBlackRect_AddImage(tsRECT* rect) {
  cv::Rect valid;
  if (!validRect(valid)) return 0;
  rect->left = valid.x;
  rect->top = valid.y;
  rect->right = valid.x + valid.width;
  rect->bottom = valid.y + valid.height;
  return 0;
}
