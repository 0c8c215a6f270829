// ModuleTrack: construction and the per-frame driver (direction estimate, tracking step,
// key-frame selection, reference update and re-detection after a lost track).
#include "tracker/module_track.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <iterator>

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "platform/clock.h"
#include "platform/cv_tuned.h"
#include "platform/log.h"
#include "platform/system_property.h"
#include "sensor/sensor_handle.h"

namespace {

int roundUp64(int n) { return ((n + 63) / 64) * 64; }

double elapsedMs(int64_t sinceMs) { return static_cast<double>(zolt::wallClockMs() - sinceMs); }

}  // namespace

ModuleTrack::ModuleTrack(int width, int height)
    : pixelAlign(std::max(width, 0)), fine(width, height) {
  // Refused before anything is derived from the size: a side of 0 would make the scale
  // infinite and the sizes derived from it NaN, which no int can hold.
  if (static_cast<double>(width) <= 640.0 || static_cast<double>(height) <= 640.0) {
    throw std::exception();
  }
  scale = 400.0 / width;
  smallWidth = scale * width;
  smallHeight = scale * height;
  frameWidth = width;
  frameHeight = height;
  cx = smallWidth * 0.5;
  cy = smallHeight * 0.5;
  setFieldOfView(0.0);
  rowRange = cv::Range(0, static_cast<int>(smallHeight));
  colRange = cv::Range(0, static_cast<int>(smallWidth));
  traceTooQuickOn = 1;
  traceTooQuickX = width / 10;
  traceTooQuickY = height / 10;
  moveDir = MOVE_NONE;
  uiState = 0;
  errCode = SUCCESS;
  errAux = 0;
  prePtsCount = 0;
  stdOffX = stdOffY = 0.0;
  meanOffX = meanOffY = 0.0;
  auxOffX = auxOffY = 0.0;
  globalCamPoseX = globalCamPoseY = 0.0;
  progress = 0;
  frameIdx = 0;
  trackCnt = 0;
  copyTicks = 0.0f;
  sadMillis = 0.0f;
  reservedCount = 0;
  frameHeightD = height;
  frameWidthD = width;
  trackParam8A = 8;
  roundedHeight60 = roundUp64(static_cast<int>(height * 0.6));
  roundedWidth60 = roundUp64(static_cast<int>(width * 0.6));
  trackParam8B = 8;
  trackParam16 = 16;
  trackParam8C = 8;
  trackParam200 = 200;
  trackParam400 = 400;
  heightCopy = height;
  widthCopy = width;
  trackParam225 = 225.0;
  targetWidth = 400.0;
  minVisionPts = 10;
  minTrackPts = 20;
  directionThreshold = 8.92;
  imuZeroA = scale * 0.0;
  poseLimit = 14.88;
  imuParamB = 14.88;
  imuZeroB = scale * 0.0;
  imuZeroC = scale * 0.0;
  imuParam50A = 50;
  slopeAngleDeg = 60.0;
  imuParam50B = 50;
  imuParam6 = 6.0;
  imuParam12 = 12.0;
  dirCrossOffMaxX = smallWidth * 0.0625;
  dirCrossPoseMaxX = width * 0.5;
  dirCrossOffMaxY = smallHeight * 0.125;
  dirCrossPoseMaxY = height * 0.5;
  backOffX = smallWidth * 0.125;
  wrongOffX = smallWidth * 0.0625;
  backOffY = smallHeight * 0.125;
  wrongOffY = smallHeight * 0.0625;
  forwardMinX = smallWidth * 0.0025;
  forwardMinY = smallHeight * 0.0033333333333333335;
  tooQuickX = smallWidth * 0.45;
  tooQuickY = smallHeight * 0.45;
  failCount = 0;
  // The attitudes are only meaningful once a gyroscope hands them in; zero until then.
  std::fill(std::begin(preEulerGyro), std::end(preEulerGyro), 0.0);
  std::fill(std::begin(curEulerGyro), std::end(curEulerGyro), 0.0);
  std::fill(std::begin(preRMatGyro), std::end(preRMatGyro), 0.0);
  std::fill(std::begin(curRMatGyro), std::end(curRMatGyro), 0.0);

  bFirstFrame = true;
  bHaltTracking = false;
  bDirectionSet = false;
  bKeyFrame = false;
  ZLOGI("ModuleTracker : hfovDeg x vfovDeg = %lf x %lf  and hfovRad x vfovRad = %lf x %lf ", 62.2,
        39.8, 1.085594794740473, 0.6946410422937431);
  const int smallW = static_cast<int>(smallWidth), smallH = static_cast<int>(smallHeight);
  feat = std::make_shared<FeatFastShiTomasi>(smallH, smallW);
  preImg.create(smallH, smallW, CV_8UC1);
  curImg.create(smallH, smallW, CV_8UC1);
  preImgHighRes.create(height, width, CV_8UC1);

  // Scratch for the per-frame paths. A block gets a new point only while empty, so the point
  // lists stay near the block count; they grow past this only in odd cases.
  const size_t maxPts = static_cast<size_t>(feat->cellCount) * 4;
  for (auto* v : {&prePts, &curPts, &newPts, &backPts}) v->reserve(maxPts);
  for (auto* v : {&status1, &status2, &ransacMask}) v->reserve(maxPts);
  feat->blocks.reserve(static_cast<size_t>(feat->cellCount));
  preImg.setTo(0);
  const cv::Size win(OpticalFlow::kWindow, OpticalFlow::kWindow);
  cv::buildOpticalFlowPyramid(preImg, prePyr, win, OpticalFlow::kLevels, false);
  cv::buildOpticalFlowPyramid(preImg, curPyr, win, OpticalFlow::kLevels, false);
  // One search of each full-resolution strip on blank images sizes the strip search's buffers
  // for the per-frame refinement.
  preImgHighRes.setTo(0);
  pixelAlign.searchUsingVstrip(preImgHighRes, preImgHighRes,
                               {width / 2, height / 2, 0, 0, trackParam8A, roundedHeight60,
                                trackParam16, trackParam8C});
  pixelAlign.searchUsingHstrip(preImgHighRes, preImgHighRes,
                               {width / 2, height / 2, 0, 0, roundedWidth60, trackParam8B,
                                trackParam8C, trackParam16});
  fillReport();
}

void ModuleTrack::setFieldOfView(double hfov) {
  if (hfov == 0.0) {
    // The fixed camera: 62.2 degrees across the width and 39.8 across the height, whatever the
    // frame's aspect, so its pixels are not square (fy is 6 % below fx on a 16:9 frame, 25 %
    // above it on a 4:3 one).
    hfovDeg = kHfovDeg;
    vfovDeg = kVfovDeg;
    fx = frameWidth * 0.8288594721265301 * scale;
    fy = frameHeight * 1.3812347516498487 * scale;
  } else {
    const double halfTan = std::tan(hfov * (CV_PI / 360.0));
    hfovDeg = hfov;
    vfovDeg = 2.0 * std::atan(halfTan * smallHeight / smallWidth) * (180.0 / CV_PI);
    fx = fy = smallWidth * 0.5 / halfTan;  // square pixels
  }
  // Written into the matrices the constructor's call allocated: later calls allocate nothing.
  const cv::Matx33d k(fx, 0.0, cx, 0.0, fy, cy, 0.0, 0.0, 1.0);
  cv::Mat(k, false).copyTo(camK);
  cv::invert(camK, camKInv, cv::DECOMP_LU);
}

void ModuleTrack::trace_too_quick_params(tag_ZOLT_PANO_INNER_PARAM* param) {
  traceTooQuickOn = param->traceTooQuickOn;
  if (traceTooQuickOn == 0) return;
  traceTooQuickX = param->traceTooQuickX;
  traceTooQuickY = param->traceTooQuickY;
}

void ModuleTrack::copyLumaToHighRes(NV21Img& img) {
  const int64_t t0 = zolt::ticks();
  std::memcpy(preImgHighRes.data, img.yPlane,
              static_cast<size_t>(frameHeight) * static_cast<size_t>(frameWidth));
  copyTicks += static_cast<float>(zolt::ticks() - t0);
}

void ModuleTrack::makeCurrentTheReference() {
  cv::swap(preImg, curImg);
  if (curPyrValid) {
    prePyr.swap(curPyr);
    prePyrValid = true;
    curPyrValid = false;
  } else {
    prePyrValid = false;
  }
}

void ModuleTrack::visionFailedWithoutGyro() {
  meanOffX = 0.0;
  meanOffY = 0.0;
  uiState = 1;
  bKeyFrame = false;
  errCode = ERR_TRACE_NO_FEATURE;
  ZLOGE("ComputeOffXY_Vision: Error code updated to ERR_TRACE_NO_FEATURE :  %X", errCode);
}

bool ModuleTrack::offsetFromGyroscope(NV21Img& img) {
  if (pSensorHandle == nullptr) {
    visionFailedWithoutGyro();
    return false;
  }
  prePts.clear();
  curPts.clear();
  meanOffX = 0.0;
  meanOffY = 0.0;
  ComputeOffXY_IMU(meanOffX, meanOffY, img);
  report.byGyroscope = true;
  return true;
}

void ModuleTrack::configure(const TrackerOptions& options) {
  options_ = options;
  setFieldOfView(options.hfovDeg);
}

void ModuleTrack::fillReport() {
  report.offset = cv::Point2d(meanOffX / scale, meanOffY / scale);
  report.keyPose = cv::Point2d(globalCamPoseX, globalCamPoseY);
  report.placement = placementPose();
  report.keyFrame = bKeyFrame;
  report.direction = static_cast<MoveDirection>(moveDir);
  report.code = errCode;
  report.ui = static_cast<UiState>(uiState);
  report.sweepLength = progress;
  report.copyTicks = copyTicks;
  report.sadMillis = sadMillis;
  report.reservedCount = reservedCount;
  report.keyLuma = preImg;
  report.scale = scale;
}

void ModuleTrack::downscaleToCurrent(const cv::Mat& frame) {
  char soc[ZOLT_PROP_VALUE_MAX] = {0};
  __system_property_get("ro.board.platform", soc);
  ZLOGI("DeviceSoc = %s ", soc);
  if (soc[0] == '\0') {
    ZLOGI("Default H/W ");
    cv::resize(frame, curImg, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
  } else if (std::strncmp(soc, "kelvar", 6) == 0) {
    ZLOGI("KLV H/W  - openCV resize ");
    zolt::tunedResize(frame, curImg, cv::Size(0, 0), scale, scale, cv::INTER_NEAREST);
  } else if (std::strncmp(soc, "tvm", 3) == 0) {
    ZLOGI("TAVO TVM H/W - openCV resize");
    zolt::tunedResize(frame, curImg, cv::Size(0, 0), scale, scale, cv::INTER_NEAREST);
  } else if (std::strncmp(soc, "tavo", 4) == 0) {
    ZLOGI("TAVO H/W ");
    cv::resize(frame, curImg, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
  } else {
    ZLOGI("Default H/W ");
    cv::resize(frame, curImg, cv::Size(0, 0), scale, scale, cv::INTER_LINEAR);
  }
}

bool ModuleTrack::tracking(NV21Img& img, double* eulerAngles, double* rotMat) {
  frameIdx += 1;
  errCode = SUCCESS;
  curPyrValid = false;
  report.byGyroscope = false;
  ZLOGI(" --------------------------------------- \n \t\t\t\t [Tracking] : %d \n \t\t \t\t "
        "------------------------------------ ",
        frameIdx);
  // The preview's luma plane, rows frameWidth bytes apart; not copied.
  const cv::Mat frame(frameHeight, frameWidth, CV_8UC1, img.yPlane);
  ZLOGW("[Tracking] : Input Height = %d & Width = %d ", frameHeight, frameWidth);

  downscaleToCurrent(frame);
  ZLOGI("[Tracking] : Resized Input  Height = %d & Width = %d ", curImg.rows, curImg.cols);

  bool result = false;
  const int64_t t0 = zolt::wallClockMs();
  try {
    if (!bDirectionSet) {
      ZLOGI("ESTIMATE DIRECTION BEGIN");
      result = estimate_direction(img, curImg, eulerAngles, rotMat);
      ZLOGI("ESTIMATE DIRECTION END - time cost %f", elapsedMs(t0));
    } else {
      ZLOGI("TRACKER BEGIN");
      result = tracking_frames(curImg, img, eulerAngles, rotMat);
      ZLOGI("TRACKER END - time cost %f", elapsedMs(t0));
    }
  } catch (const cv::Exception& e) {
    // The vision path turns a degenerate frame into a lost track itself; this is the last
    // guard, with the same outcome.
    ZLOGE("[Tracking] : Frm %d : OpenCV failure: %s", frameIdx, e.what());
    curPts.clear();
    visionFailedWithoutGyro();
    result = false;
  }

  if (moveDir != MOVE_NONE && bKeyFrame) {
    ZLOGI(" ------------------------ \n \t\t\t\t [Tracking] : Frm %d is selected so updating "
          "state\n \t\t \t\t ----------------- ",
          frameIdx);
    UpdateState(curImg, img);
    failCount = 0;
  } else if (pSensorHandle != nullptr || static_cast<int>(prePts.size()) >= minTrackPts) {
    ZLOGI(" ------------------------ \n \t\t\t\t [Tracking] : Frm %d : bKeyFrame = %d moveDir = "
          "%d Not Selected \n \t\t \t\t ----------------- ",
          frameIdx, static_cast<int>(bKeyFrame), moveDir);
  } else {
    // Lost track without a gyroscope: look for new points in the old reference three times,
    // then make this frame the reference.
    failCount += 1;
    if (failCount <= 3) {
      UpdateRefPoints_OnFailure(preImg);
    } else {
      UpdateRefPoints_OnFailure(curImg);
      std::memcpy(preImgHighRes.data, img.yPlane,
                  static_cast<size_t>(frameHeight) * static_cast<size_t>(frameWidth));
      makeCurrentTheReference();
      failCount = 0;
    }
  }
  fillReport();
  return result;
}

bool ModuleTrack::estimate_direction(NV21Img& img, cv::Mat cur, double* eulerAngles,
                                     double* rotMat) {
  if (bFirstFrame) {
    newPts.clear();
    feat->updateGridCount(newPts, static_cast<MoveDirection>(moveDir));
    feat->detectFeatFromBlock(cur, prePts);
    copyLumaToHighRes(img);
    if (eulerAngles != nullptr) std::copy(eulerAngles, eulerAngles + 3, preEulerGyro);
    if (rotMat != nullptr) std::copy(rotMat, rotMat + 9, preRMatGyro);
    cur.copyTo(preImg);
    prePyrValid = false;
    errCode = INFO_TRACE_FIRST_FRAME;
    bKeyFrame = true;
    bFirstFrame = false;
    return true;
  }

  bKeyFrame = false;
  if (eulerAngles != nullptr) std::copy(eulerAngles, eulerAngles + 3, curEulerGyro);
  if (rotMat != nullptr) std::copy(rotMat, rotMat + 9, curRMatGyro);
  if (!ComputeOffXY_Vision(img) && !offsetFromGyroscope(img)) return false;
  ZLOGI("Error codes JustifyUI used");
  const int ok = JustifyUI_Error_codes();
  if (moveDir != MOVE_NONE) {
    ZLOGI("[estimate_direction-> Tracking : %d] : Direction [%d] Set for first time ", frameIdx,
          moveDir);
    // The frame that fixes the direction is always taken, at zero offset.
    meanOffX = 0.0;
    meanOffY = 0.0;
    bKeyFrame = true;
  }
  if (!ok) {
    ZLOGW("[estimate_direction-> Tracking : %d] JustifyUI_Error_codes return is false", frameIdx);
    return false;
  }
  return true;
}

bool ModuleTrack::tracking_frames(cv::Mat cur, NV21Img& img, double* eulerAngles,
                                  double* rotMat) {
  if (bHaltTracking) return false;
  bKeyFrame = false;
  meanOffX = 0.0;
  meanOffY = 0.0;
  trackCnt += 1;
  if (eulerAngles != nullptr) std::copy(eulerAngles, eulerAngles + 3, curEulerGyro);
  if (rotMat != nullptr) std::copy(rotMat, rotMat + 9, curRMatGyro);
  ZLOGW("[Tracking] :tracking width = %d and height =%d ", curImg.cols, curImg.rows);
  const int64_t t0 = zolt::wallClockMs();
  if (!ComputeOffXY_Vision(img) && !offsetFromGyroscope(img)) return false;
  ZLOGW("Error codes JustifyUI used");
  if (!JustifyUI_Error_codes()) {
    ZLOGE("JustifyUI_Error_codes returned false");
    return false;
  }
  if (bKeyFrame) {
    ZLOGI("ComputeOffXY features tracked END: Total number of features  %d, - time cost %f",
          static_cast<int>(curPts.size()), elapsedMs(t0));
  } else {
    // Android's printf reads "%D" as "%ld"; written out here so every C library agrees.
    ZLOGI("Frame:%ld is not selected as key frame", static_cast<long>(frameIdx));
  }
  (void)cur;
  return true;
}

cv::Point2d ModuleTrack::keyFramePose() const {
  return options_.subPixelPlacement && fine.started() ? fine.pose()
                                                      : cv::Point2d(globalCamPoseX, globalCamPoseY);
}

cv::Point2d ModuleTrack::placementPose() const {
  const cv::Point2d p = keyFramePose();
  if (!options_.subPixelPlacement) return p;  // the merger truncates it
  return cv::Point2d(static_cast<double>(std::lround(p.x)), static_cast<double>(std::lround(p.y)));
}

void ModuleTrack::UpdateState(cv::Mat cur, NV21Img& img) {
  const int64_t t0 = zolt::wallClockMs();
  newPts.clear();
  feat->updateGridCount(curPts, static_cast<MoveDirection>(moveDir));
  feat->detectFeatFromBlock(cur, newPts);
  copyLumaToHighRes(img);
  prePts.assign(curPts.begin(), curPts.end());
  prePts.insert(prePts.end(), newPts.begin(), newPts.end());
  makeCurrentTheReference();
  EstimateProgress();
  globalCamPoseX -= meanOffX / scale;
  globalCamPoseY -= meanOffY / scale;
  if (options_.subPixelPlacement) {
    fine.place(preImgHighRes, cv::Point2d(globalCamPoseX, globalCamPoseY),
               ZOLT_PANO_IsHorizontalSweep(moveDir));
  }
  ZLOGI("GlobalCampose = %lf x %lf in UpdateState for Frame = %d detected PrevPtsSize: %d",
        globalCamPoseX, globalCamPoseY, frameIdx, static_cast<int>(prePts.size()));
  if (frameIdx > 1) {
    std::copy(curEulerGyro, curEulerGyro + 3, preEulerGyro);
    std::copy(curRMatGyro, curRMatGyro + 9, preRMatGyro);
    ZLOGI("UpdateState : Frame[%d] : Previous Euler Angles and Rotation Matrices Updated to "
          "Current Values",
          frameIdx);
  }
  ZLOGI("new features extracted END [%s]: Total number of features  %d, - time cost %f",
        "UpdateState", static_cast<int>(prePts.size()), elapsedMs(t0));
}

void ModuleTrack::UpdateRefPoints_OnFailure(cv::Mat ref) {
  curPts.clear();
  feat->updateGridCount(curPts, static_cast<MoveDirection>(moveDir));
  newPts.clear();
  feat->detectFeatFromBlock(ref, newPts);
  prePts.assign(newPts.begin(), newPts.end());
}
