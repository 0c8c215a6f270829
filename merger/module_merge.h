// ModuleMerge: the panorama canvas while a sweep is captured. The canvas is the caller's NV21
// output buffer, wrapped (never owned). The first key frame is copied whole to the canvas edge
// the sweep starts from; every later key frame is blended in across a least-cost seam and the
// part beyond the seam is copied straight from the frame, so each merge only writes the band
// the new frame uncovers.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "image/nv21_img.h"
#include "merger/merger_options.h"
#include "zolt_pano.h"

class ZOLT_PANO_EXPORT ModuleMerge {
 public:
  int32_t panoWidth = 0;   // canvas size, from the output buffer at the first frame
  int32_t panoHeight = 0;
  int32_t frameWidth;      // preview frame size
  int32_t frameHeight;
  int32_t halfFrameWidth;  // frameWidth / 2
  int32_t halfFrameHeight;
  int32_t resolutionLevel;  // 3, 2 or 0: caps the blending ramp's level
  cv::Mat panoBGR;   // BGR conversion of the canvas (a view on panoImg.bgrMat)
  cv::Mat seamCost;  // CV_32FC1, 33 columns, one row per canvas line across the sweep
  NV21Img panoImg;   // the canvas: wraps the caller's output buffer
  cv::Mat spareMat1, spareMat2, spareMat3, spareMat4;  // unused
  bool spareFlag1 = false;  // unused
  bool spareFlag2 = false;  // unused
  int32_t lastMergedX = 0;  // canvas column of the last merged frame's centre (horizontal)
  int32_t lastMergedY = 0;  // canvas row of the last merged frame's centre (vertical)
  int32_t offsetX = 0;      // current frame's offset, truncated toward zero
  int32_t offsetY = 0;
  int32_t maxOffsetX = 0;
  int32_t maxOffsetY = 0;
  int32_t minOffsetX = 0;
  int32_t minOffsetY = 0;
  bool spareFlag3 = true;  // unused
  bool panoInitialised = false;
  static constexpr int32_t kCanvasFull = 6;  // mergeState once a frame no longer fits
  int32_t mergeState = 0;     // kCanvasFull: a frame no longer fits on the canvas
  int32_t panoDirection = 0;  // MoveDirection of the sweep, set at the first frame
  float texturelessDevFrame = 3.0f;  // largest mean abs deviation of a flat frame block
  float texturelessDevPano = 5.0f;   // the same for a canvas block
  float texturelessMinMean = 50.0f;  // a flat block must be brighter than this
  ModuleMerge(int width, int height);
  ~ModuleMerge();
  ModuleMerge(const ModuleMerge&) = delete;
  ModuleMerge& operator=(const ModuleMerge&) = delete;

  // The options, once, before the first frame.
  void configure(const MergerOptions& options) { options_ = options; }

  // Placement and state (module_merge.cpp). offset: the frame's displacement from the first
  // key frame in preview pixels, truncated toward zero; out: the caller's canvas, read at the
  // first call only.
  int merging_AddImage(NV21Img& frame, cv::Point_<double> offset, MoveDirection dir,
                       __tag_ZOLT_OFFSCREEN* out);
  void initialize_pano_YUV_AddImage(NV21Img& frame, MoveDirection dir, __tag_ZOLT_OFFSCREEN* out);
  void merging_frames(NV21Img& frame, MoveDirection dir);

  // Seam search (module_merge_seam.cpp): 33 positions around pos, one per canvas row (V) or
  // column (H). Reads offsetX / offsetY of the frame being merged.
  std::vector<int> getSeam_V_YUV(int pos, NV21Img& frame);
  std::vector<int> getSeam_H_YUV(int pos, NV21Img& frame);
  // -1 when a is taken, 0 for b, 1 for c; ties go to b, then a.
  int which_min(float a, float b, float c);
  int which_min_byPointer(float* p);
  // Box filter of the 2r values row[i-r+1 .. i+r] for i in [r, n-r); prefix holds >= n floats.
  void oneDimensionBoxFilterX(float* row, int n, std::vector<float>& prefix, int r);
  void directionalBlurX(cv::Mat& m, int r);

  // Seam blending (module_merge_blend.cpp). pos: canvas column (row) of the new frame's centre;
  // seam receives the seam moved to the ramp's outer end on the frame's side.
  void merge_ToLeft_linear_YUV_withSeam(int pos, NV21Img& frame, std::vector<int>& seam);
  void merge_ToRight_linear_YUV_withSeam(int pos, NV21Img& frame, std::vector<int>& seam);
  void merge_ToTop_linear_YUV_withSeam(int pos, NV21Img& frame, std::vector<int>& seam);
  void merge_ToBottom_linear_YUV_withSeam(int pos, NV21Img& frame, std::vector<int>& seam);

  // Direct fill from the moved seam to the new frame's leading edge (module_merge_fill.cpp).
  void merge_ToLeft_direct_YUV_withSeam(int left, const std::vector<int>& seam, NV21Img& frame);
  void merge_ToRight_direct_YUV_withSeam(const std::vector<int>& seam, int right, NV21Img& frame);
  void merge_ToTop_direct_YUV_withSeam(int top, const std::vector<int>& seam, NV21Img& frame);
  void merge_ToBottom_direct_YUV_withSeam(const std::vector<int>& seam, int bottom,
                                          NV21Img& frame);

  // Output (module_merge_output.cpp). The BGR panorama cut to the valid rectangle (a view on
  // panoBGR), empty for an unknown direction.
  cv::Mat getPano_BGR();
  // The valid rectangle in canvas pixels (right, bottom exclusive). Returns 0; an unknown
  // direction leaves rect untouched.
  int CropBlackRect_AddImage(tsRECT* rect);
  // The same rectangle; false for an unknown direction.
  bool validRect(cv::Rect& rect) const;

 private:
  MergerOptions options_;
  enum class Axis { Horizontal, Vertical };  // sweep axis
  // Whether the new frame lies before the seam (left / top) or after it (right / bottom).
  enum class Side { Before, After };
  std::vector<int> seamSearch(Axis axis, int pos, NV21Img& frame);
  void linearMerge(Axis axis, Side side, const char* name, int pos, NV21Img& frame,
                   std::vector<int>& seam);
  void directFillHorizontal(int start, int end, const std::vector<int>& seam, Side side,
                            NV21Img& frame);
  void directFillVertical(int edge, const std::vector<int>& seam, Side side, NV21Img& frame);

  // Exposure compensation (module_merge_exposure.cpp). The key frame centred at canvas position
  // pos for the seam search and the ramp, its gain applied where they read and wherever the gain
  // is not 1 (in gainFrame, which it also names for the fill), or `frame` itself when the option
  // is off or the copy cannot be made.
  NV21Img& exposureMatched(Axis axis, Side side, int pos, NV21Img& frame);
  // Canvas over frame luma around the seam; 0 when too little of the overlap can be measured.
  double measureGain(Axis axis, Side side, int pos, const NV21Img& frame) const;
  NV21Img gainFrame;               // owned, frame-sized; only the band the merge reads is valid
  std::vector<int16_t> gainTable;  // Q14 gain per frame position along the sweep
  double seamGain = 1.0;           // the last merged key frame's gain at its centre
  // For one merge's direct fill, when set: frame positions along the sweep on the seam's side
  // of fillSplit (below it for a frame after the seam, from it on for one before) are read from
  // *fillNear instead of the frame.
  const NV21Img* fillNear = nullptr;
  int fillSplit = 0;
};
