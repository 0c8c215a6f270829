#include "engine/orrery_engine.h"

#include <cstring>
#include <vector>

#include "image/colour_convert.h"
#include "image/nv21_img.h"
#include "merger/module_merge.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace {

// The sums take the difference of two wall-clock readings as an unsigned 32-bit number.
double elapsedMs(int64_t t0, int64_t t1) {
  return static_cast<double>(static_cast<uint32_t>(t1 - t0));
}

}  // namespace

void OrreryEngine::zolt_init_pano(int w, int h) {
  ZLOGI("=================== initialize ===================");
  frameCount = 0;
  initialized = true;
  tracker = new ModuleTrack(w, h);  // throws for a side of 640 or less
  merger = new ModuleMerge(w, h);
  frameImg = new NV21Img;
  frameImg->width = w;
  frameImg->height = h;
  width = w;
  height = h;
  reserved = 0;
}

bool OrreryEngine::isInitialized() { return initialized; }

PanoOptions::Status OrreryEngine::setOption(int option, int value, const char** accepted) {
  PanoOptions next = options;  // a refused value leaves the options as they were
  const PanoOptions::Status status = next.set(option, value, accepted);
  if (status != PanoOptions::Status::kSet) return status;
  if (frameCount > 0) return PanoOptions::Status::kFrozen;
  options = next;
  return status;
}

int OrreryEngine::provideIMU(float* angles, float* rotation) {
  int r = ZLOGI("NDK IMU LOGOUT : %f\t%f\t%f\n", angles[0], angles[1], angles[2]);
  for (int i = 0; i < 3; ++i) imuAngles[i] = angles[i];
  for (int i = 0; i < 9; ++i) imuRotation[i] = rotation[i];
  return r;
}

bool OrreryEngine::canvasFull() const { return merger->mergeState == ModuleMerge::kCanvasFull; }

bool OrreryEngine::hasPanorama() const { return merger->panoInitialised; }

MoveDirection OrreryEngine::firstMergeDirection() const {
  const TrackReport& r = tracker->report;
  return r.direction != MOVE_NONE && r.keyFrame && !merger->panoInitialised ? r.direction
                                                                            : MOVE_NONE;
}

bool OrreryEngine::stoppedAtCanvasEnd() const {
  const UiState s = tracker->report.ui;
  return s != UiState::kNoFeature && s != UiState::kWrongDirection && canvasFull();
}

bool OrreryEngine::error_condition_check(long& code) {
  const int s = static_cast<int>(tracker->report.ui);
  code = tracker->report.code;
  if (stoppedAtCanvasEnd()) {
    ZLOGI("stop - warn: LoopStop******************************");
    return false;
  }
  if (s != 1 && s != 5) {
    if (s != 3 && s != 4) {
      if (s == 2) ZLOGI("warn: please move slow******************************");
      return true;
    }
  }
  switch (s) {
    case 1: ZLOGI("stop - error: NoFeature******************************"); break;
    case 2: ZLOGI("warn: please move slow******************************"); break;
    case 3: ZLOGI("warn: please move up******************************"); break;
    case 4: ZLOGI("warn: please move down******************************"); break;
    case 5: ZLOGI("stop - error: WrongDirection******************************"); break;
    default: break;
  }
  return true;
}

int OrreryEngine::provideNV21Image_SelectFrame(__tag_ZOLT_OFFSCREEN* frame, tsPOINT* offset,
                                               long* isKeyFrame, int* direction,
                                               int* sweepLength) {
  long code = resultCode;
  const bool go = error_condition_check(code);
  resultCode = static_cast<int32_t>(code);
  if (!go) {
    ZLOGE("%s: error_condition_check returned false \n", "provideNV21Image_SelectFrame");
    return resultCode;
  }
  if (frameCount == 0) {  // the first frame: the options are final from here on
    tracker->configure(options.tracker);
    merger->configure(options.merger);
  }
  frameCount += 1;
  resultCode = 0;
  frameImg->nvLoadNV21_FWBuffer(frame);

  const int64_t t0 = zolt::wallClockMs();
  const bool ok = tracker->tracking(*frameImg, imuAngles, imuRotation);
  const int64_t t1 = zolt::wallClockMs();
  trackFrames += 1;
  trackerTimeMs += elapsedMs(t0, t1);

  const TrackReport& r = tracker->report;
  *sweepLength = r.sweepLength;
  resultCode = r.code;

  const int d = r.direction;
  if (!ok) {
    *isKeyFrame = 0;
    frameImg->freeData_FWBuffer();
  } else {
    // A chosen key frame keeps wrapping the caller's buffer until AddImage has merged it.
    if (!r.keyFrame) frameImg->freeData_FWBuffer();
    *isKeyFrame = (d != MOVE_NONE) ? static_cast<long>(r.keyFrame) : 0;
  }
  *direction = d;

  offset->x = static_cast<int32_t>(r.offset.x);
  offset->y = static_cast<int32_t>(-r.offset.y);
  // The cross-axis component is relative to the panorama's key-frame track.
  if (ZOLT_PANO_IsHorizontalSweep(d)) {
    offset->y = (*isKeyFrame == 1) ? static_cast<int32_t>(r.keyPose.y)
                                   : static_cast<int32_t>(-r.offset.y + r.keyPose.y);
  } else if (d != MOVE_NONE) {
    offset->x = (*isKeyFrame == 1) ? static_cast<int32_t>(-r.keyPose.x)
                                   : static_cast<int32_t>(r.offset.x - r.keyPose.x);
  }
  return resultCode;
}

int OrreryEngine::provideNV21Image_AddImage(__tag_ZOLT_OFFSCREEN* panorama, tsRECT* validRect,
                                            int* progress) {
  long code = resultCode;
  const bool go = error_condition_check(code);
  resultCode = static_cast<int32_t>(code);
  if (!go) {
    ZLOGE("%s: error_condition_check returned false \n", "provideNV21Image_AddImage");
    return resultCode;
  }
  resultCode = 0;
  const TrackReport& r = tracker->report;
  const MoveDirection d = r.direction;
  if (d != MOVE_NONE && r.keyFrame) {
    const int64_t t0 = zolt::wallClockMs();
    merger->merging_AddImage(*frameImg, r.placement, d, panorama);
    merger->CropBlackRect_AddImage(validRect);
    const int64_t t1 = zolt::wallClockMs();
    mergeFrames += 1;
    mergerTimeMs += elapsedMs(t0, t1);
    if (merger->panoInitialised && !canvasFull())  // a key frame the canvas refused is not laid
      verdict.add({r.keyLuma, r.scale, r.placement, r.offset, r.byGyroscope,
                   ZOLT_PANO_IsHorizontalSweep(d) != 0});
  }
  const int extent = ZOLT_PANO_IsHorizontalSweep(d) ? panorama->width : panorama->height;
  // A canvas record of zero size would divide by zero: report no progress instead.
  *progress = extent != 0 ? (100 * r.sweepLength) / extent : 0;
  return resultCode;
}

int OrreryEngine::judgeCapture(std::string& message) const {
  if (verdict.evidence().keyFrames == 0) return -1;
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(tracker->report.direction) != 0;
  return verdict.judge(horizontal ? width : height, message);
}

void OrreryEngine::GrabInfo_Tracking(tsPOINT* offset, long* isKeyFrame) {
  const TrackReport& r = tracker->report;
  offset->x = -static_cast<int32_t>(r.offset.x);
  offset->y = static_cast<int32_t>(-r.offset.y);
  *isKeyFrame = (r.direction != MOVE_NONE) ? static_cast<long>(r.keyFrame) : 0;
}

int OrreryEngine::release() {
  const double freq = zolt::tickFrequency();
  const TrackReport& r = tracker->report;
  ZLOGI("ZOLT:FULL CLONING TIME = %f\n", r.copyTicks / freq);
  ZLOGI("ZOLT:FULL SAD TIME = %f\n", static_cast<double>(r.sadMillis));
  // The tracker keeps no optical-flow tick sum of its own; its reserved counter stands in.
  ZLOGI("ZOLT: Full 2-OptFlow timing: %.3f \n", static_cast<float>(r.reservedCount) / freq);
  initialized = false;
  delete tracker;
  delete merger;
  if (frameImg != nullptr) {
    frameImg->freeData();
    frameImg->width = 0;
    frameImg->height = 0;
    frameImg->yMat.release();
    frameImg->vuMat.release();
    frameImg->nv21Mat.release();
    frameImg->bgrMat.release();
    delete frameImg;
  }
  // Cleared so that a second release cannot free twice.
  tracker = nullptr;
  merger = nullptr;
  frameImg = nullptr;
  ZLOGI("ZOLT:FULL TRACKER TIME = %f\n", trackerTimeMs);
  ZLOGI("ZOLT:FULL MERGER TIME = %f\n", mergerTimeMs);
  ZLOGI("ZOLT:FULL SelectFrame TIME = %f\n", selectFrameTicks / freq);
  ZLOGI("ZOLT:No. of Track frames = %d\n", trackFrames);
  return ZLOGI("ZOLT:No. of merge frames = %d\n", mergeFrames);
}

void OrreryEngine::convert_NV21Img(unsigned char* nv21, cv::Mat& bgr) {
  bgr.create(height, width, CV_8UC3);
  const size_t ySize = static_cast<size_t>(width) * height;
  zolt::nv21ToBgr(zolt::colourKernels(), nv21, nv21 + ySize, ySize / 2, width, height, bgr.data,
                  bgr.step, 0, 0, width, height);
}

void OrreryEngine::convert_BGRImg(cv::Mat& bgr, unsigned char* nv21) {
  const size_t ySize = static_cast<size_t>(width) * height;
  if (bgr.rows == height && bgr.cols == width) {
    zolt::bgrToNv21(zolt::colourKernels(), bgr.data, bgr.step, height, width, nv21, nv21 + ySize,
                    ySize / 2);
    return;
  }
  if (bgr.rows > height || bgr.cols > width || ((bgr.rows | bgr.cols) & 1) ||
      bgr.type() != CV_8UC3) {
    // Larger would write past the engine-sized buffer; odd sizes would read past the picture.
    ZLOGE("convert_BGRImg: a %dx%d picture does not fit a %dx%d frame", bgr.cols, bgr.rows, width,
          height);
    return;
  }
  // A smaller picture lands in the top-left corner, rows `width` bytes apart in both planes.
  NV21Img tmp;
  tmp.nvCvt2NV21(bgr);
  const size_t cols = static_cast<size_t>(bgr.cols);
  for (int r = 0; r < bgr.rows; ++r)
    std::memcpy(nv21 + r * static_cast<size_t>(width), tmp.yPlane + r * cols, cols);
  for (int r = 0; r < bgr.rows / 2; ++r)
    std::memcpy(nv21 + ySize + r * static_cast<size_t>(width), tmp.vuPlane + r * cols, cols);
  tmp.freeData();
}
