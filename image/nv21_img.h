// NV21Img: the image container every part of the engine passes around. It holds an NV21
// picture (full-resolution Y plane, then an interleaved VU plane at half resolution in both
// directions, rows of `width` bytes) and three cv::Mat headers over the same bytes. Its memory
// is either one malloc'd buffer it owns, or the caller's buffer, which it only wraps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <opencv2/core.hpp>

#include "zolt_pano.h"

class ZOLT_PANO_EXPORT NV21Img {
 public:
  int32_t width = 0;        // pixels; also the row length in bytes of both planes
  int32_t height = 0;       // pixels
  int32_t yStride = -1;     // == width once created
  int32_t doubleWidth = -1; // == 2 * width once created
  uint8_t* yPlane = nullptr;   // width * height bytes
  uint8_t* vuPlane = nullptr;  // width * height / 2 bytes: V, U per 2x2 block
  cv::Mat yMat;     // height x width, CV_8UC1, view of yPlane
  cv::Mat vuMat;    // height/2 x width/2, CV_8UC2, view of vuPlane
  cv::Mat nv21Mat;  // (height + height/2) x width, CV_8UC1, view from yPlane: only right when
                    // vuPlane directly follows the Y plane
  cv::Mat bgrMat;   // height x width CV_8UC3, owned by the matrix; filled by nvCvt2BGR
  bool created = false;     // planes and the three views are set up
  bool ownsBuffer = false;  // yPlane is this image's own malloc'd buffer

  NV21Img() = default;
  // Does not free an owned buffer: an owner calls freeData() first, as the engine does.
  ~NV21Img() = default;
  // Pixels are copied only through copyTo(); a value copy would share or leak the buffer.
  NV21Img(const NV21Img&) = delete;
  NV21Img& operator=(const NV21Img&) = delete;

  // Allocate-and-own (height first). Frees an earlier owned buffer.
  void nvCreate(int height, int width);
  // As nvCreate, but an earlier owned buffer is not freed.
  void nvCreate_mem_alloc(int height, int width);
  // Wrap the caller's buffer (size from the record); nothing is allocated or copied.
  void nvCreate_shared_instance(__tag_ZOLT_OFFSCREEN* buf);
  // Wrap another image's planes; the wrapper must not outlive other's buffer.
  void nvCreate_shared_instance(const NV21Img& other);
  // Attach a new preview frame without copying. On a created image only the plane pointers are
  // taken from buf; its width and height are not read.
  void nvLoadNV21_FWBuffer(__tag_ZOLT_OFFSCREEN* buf);
  // Drop an attached frame: views released, planes null, nothing freed; size and bgrMat stay.
  void freeData_FWBuffer();
  // Free an owned buffer; planes become null. The views are left to the next creation.
  void freeData();
  // Deep copy into dst, which becomes an owning image of this size. bgrMat is not copied.
  void copyTo(NV21Img& dst);
  // Copy a packed NV21 buffer in (creating the image at height x width if it is empty; a
  // created image keeps its size). Returns 1.
  int nvLoadNV21(unsigned char* data, int height, int width);
  // Copy the caller's frame in, using the record's size. Returns 1.
  int nvLoadNV21(__tag_ZOLT_OFFSCREEN* buf);

  // Colour conversion, flip and files (nv21_img_convert.cpp).
  // Whole image into bgrMat; the returned header shares bgrMat's memory.
  cv::Mat nvCvt2BGR();
  // Only columns x..x+w-1, rows y..y+h-1, into the same place of bgrMat; the rest of bgrMat
  // keeps what it held.
  cv::Mat nvCvt2BGR(int x, int y, int w, int h);
  // Become an owning NV21 image of bgr's size and convert bgr into it.
  void nvCvt2NV21(cv::Mat bgr);
  void nvSaveGrey(std::string fileName);
  void nvSaveColor(std::string fileName);
  void nvShowNV21(std::string);
  // An unreadable file gives an empty 0 x 0 image.
  void nvLoadImg(std::string fileName);
  // data: height rows of 3 * width packed BGR bytes, wrapped without copying.
  void nvLoadImgFromBufferBGR(unsigned char* data, int width, int height);
  // cv::flip's flipCode, through BGR and back (lossy in colour).
  void Flip(int flipCode);

  // Bytes in the VU plane: (width * height) / 2.
  size_t vuSize() const { return static_cast<size_t>(width) * height / 2; }

 private:
  void setViews();
  void allocate(int height, int width);
};

// Clamp used by the pixel code: low when value < low, else value when value < high, else high.
ZOLT_PANO_EXPORT int minmax__(int value, int low, int high);
