#include "image/nv21_img.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/check.h"
#include "platform/log.h"

void NV21Img::setViews() {
  // Fresh headers: assigning releases whatever each member held before.
  yMat = cv::Mat(height, width, CV_8UC1, yPlane, static_cast<size_t>(width));
  vuMat = cv::Mat(height / 2, width / 2, CV_8UC2, vuPlane, static_cast<size_t>(width / 2) * 2);
  nv21Mat = cv::Mat(height + height / 2, width, CV_8UC1, yPlane, static_cast<size_t>(width));
}

void NV21Img::allocate(int h, int w) {
  width = w;
  height = h;
  yStride = w;
  doubleWidth = 2 * w;
  size_t ySize = static_cast<size_t>(w) * h;
  auto* buf = static_cast<uint8_t*>(std::malloc(ySize + ySize / 2));
  // A null plane would be written through later; fail here instead.
  if (buf == nullptr && ySize > 0) throw std::bad_alloc();
  ownsBuffer = true;
  yPlane = buf;
  vuPlane = buf + ySize;
  setViews();
  created = true;
}

void NV21Img::nvCreate(int h, int w) {
  freeData();
  allocate(h, w);
}

void NV21Img::nvCreate_mem_alloc(int h, int w) { allocate(h, w); }

void NV21Img::nvCreate_shared_instance(__tag_ZOLT_OFFSCREEN* buf) {
  width = buf->width;
  height = buf->height;
  yStride = width;
  doubleWidth = 2 * width;
  yPlane = buf->planeY;
  vuPlane = buf->planeVU;
  setViews();
  created = true;
  ownsBuffer = false;
}

void NV21Img::nvCreate_shared_instance(const NV21Img& other) {
  width = other.width;
  height = other.height;
  yStride = other.yStride;
  doubleWidth = other.doubleWidth;
  yPlane = other.yPlane;
  vuPlane = other.vuPlane;
  setViews();
  created = true;
  ownsBuffer = false;
}

void NV21Img::nvLoadNV21_FWBuffer(__tag_ZOLT_OFFSCREEN* buf) {
  if (!created) {
    nvCreate_shared_instance(buf);
    return;
  }
  // The engine's frame image only ever wraps; re-pointing an owning image would lose its buffer.
  ZOLT_CHECK(!ownsBuffer, "nvLoadNV21_FWBuffer on an owning image would lose its buffer");
  yPlane = buf->planeY;
  vuPlane = buf->planeVU;
  yMat.release();
  vuMat.release();
  nv21Mat.release();
  setViews();
}

void NV21Img::freeData_FWBuffer() {
  yMat.release();
  vuMat.release();
  nv21Mat.release();
  if (yPlane != nullptr) {
    yPlane = nullptr;
    vuPlane = nullptr;
  }
  created = false;
}

void NV21Img::freeData() {
  if (yPlane != nullptr) {
    if (ownsBuffer) {
      std::free(yPlane);
      ownsBuffer = false;
    }
    yPlane = nullptr;
    vuPlane = nullptr;
  }
  created = false;
}

void NV21Img::copyTo(NV21Img& dst) {
  ZOLT_CHECK(&dst != this, "copyTo into itself");
  dst.nvCreate(height, width);
  size_t ySize = static_cast<size_t>(width) * height;
  if (ySize == 0) return;
  ZOLT_CHECK(yPlane != nullptr && vuPlane != nullptr, "image without planes");
  std::memcpy(dst.yPlane, yPlane, ySize);
  std::memcpy(dst.vuPlane, vuPlane, ySize / 2);
}

int NV21Img::nvLoadNV21(unsigned char* data, int h, int w) {
  if (!created) nvCreate(h, w);
  int size = width * height;
  ZLOGW(" MERGER UI First mem copy start Ycn = %0x  , buf == %0x , size = %d",
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(yPlane)),
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(data)), size);
  if (size > 0) {
    ZOLT_CHECK(data != nullptr, "nvLoadNV21 from a null buffer");
    std::memcpy(yPlane, data, static_cast<size_t>(size));
  }
  ZLOGW(" MERGER UI First mem copy start %0x",
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(vuPlane)));
  if (size / 2 > 0) std::memcpy(vuPlane, data + size, static_cast<size_t>(size / 2));
  ZLOGW(" MERGER UI First mem copy finished");
  return 1;
}

int NV21Img::nvLoadNV21(__tag_ZOLT_OFFSCREEN* buf) {
  if (!created) nvCreate(buf->height, buf->width);
  size_t size = static_cast<size_t>(buf->width) * buf->height;
  // The record's size is used as it stands; a larger record than the image would overrun it.
  ZOLT_CHECK(size <= static_cast<size_t>(width) * height, "frame larger than the image");
  if (size == 0) return 1;
  std::memcpy(yPlane, buf->planeY, size);
  std::memcpy(vuPlane, buf->planeVU, size / 2);
  return 1;
}

int minmax__(int value, int low, int high) {
  if (value < low) return low;
  if (value < high) return value;
  return high;
}
