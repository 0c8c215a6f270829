// Feat: where the tracker looks for new corners. The tracking image is cut into 32 x 32 blocks;
// updateGridCount counts the points still tracked per block and lists the empty blocks,
// leaving out the margins across which the sweep runs; detectFeatFromBlock then adds at most one
// corner per listed block. Always called as that pair.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "zolt_pano.h"

class ZOLT_PANO_EXPORT Feat {
 public:
  int32_t* gridCount;  // gridCols * gridRows counts, row-major; malloc'd here, freed by ~Feat
  int32_t gridRows;    // (H >> 5) + 1: the last, partial row is never searched
  int32_t gridCols;    // (W >> 5) + 1
  int32_t rowMargin;   // block rows left out at top and bottom in a vertical sweep
  int32_t colMargin;   // block columns left out at left and right in a horizontal sweep
  int32_t cellCount;
  std::vector<cv::Point> blocks;  // (block column, block row) to search next

  // For an image of W x H pixels, height first. gridCount is not cleared here.
  Feat(int height, int width);
  Feat(const Feat&) = delete;
  Feat& operator=(const Feat&) = delete;

  // Recount the grid from pts (all inside the image) and list the empty blocks for dir.
  void updateGridCount(std::vector<cv::Point2f>& pts, MoveDirection dir);
  // Appends at most one point per listed block to out (not cleared); image is W x H, 8-bit grey.
  virtual void detectFeatFromBlock(const cv::Mat& image, std::vector<cv::Point2f>& out) = 0;

 protected:
  // Not virtual: owners hold the concrete type (a shared pointer made for it).
  ~Feat();
};
