#include "tracker/feat.h"
#include "zolt_pano_ext.h"

#include <cstdlib>
#include <new>

Feat::Feat(int height, int width)
    : gridCount(nullptr),
      gridRows((height >> 5) + 1),
      gridCols((width >> 5) + 1),
      rowMargin(static_cast<int32_t>(height * 0.2) >> 5),
      colMargin(static_cast<int32_t>(width * 0.2) >> 5),
      cellCount(gridCols * gridRows) {
  gridCount = static_cast<int32_t*>(std::malloc(sizeof(int32_t) * static_cast<size_t>(cellCount)));
  if (gridCount == nullptr) throw std::bad_alloc();
}

Feat::~Feat() { std::free(gridCount); }

void Feat::updateGridCount(std::vector<cv::Point2f>& pts, MoveDirection dir) {
  for (int32_t i = 0; i < cellCount; ++i) gridCount[i] = 0;
  for (const cv::Point2f& p : pts) {
    const int cx = static_cast<int>(p.x) >> 5;
    const int cy = static_cast<int>(p.y) >> 5;
    // Callers keep their points inside the image; anything else is not counted.
    if (cx < 0 || cy < 0 || cx >= gridCols || cy >= gridRows) continue;
    ++gridCount[cx + gridCols * cy];
  }
  blocks.clear();
  // Upper bounds exclusive; the last column and row may be partial and are never searched.
  int c0 = 0, c1 = gridCols - 1, r0 = 0, r1 = gridRows - 1;
  if (ZOLT_PANO_IsHorizontalSweep(dir)) {
    c0 = colMargin;
    c1 = gridCols - 1 - colMargin;
  } else if (dir != MOVE_NONE) {
    r0 = rowMargin;
    r1 = gridRows - 1 - rowMargin;
  }
  for (int r = r0; r < r1; ++r) {
    for (int c = c0; c < c1; ++c) {
      if (gridCount[c + gridCols * r] < 1) blocks.emplace_back(c, r);
    }
  }
}
