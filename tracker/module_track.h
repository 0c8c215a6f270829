// ModuleTrack: the camera-motion tracker. Works on the preview's luma downscaled to 400 pixels
// wide: tracks corners from the reference (last key) frame into the current one, turns their
// motion into the frame's offset, fixes the sweep direction, warns the user and picks the key
// frames. Offsets are reference minus current position, in pixels of the 400-wide image;
// the accumulated camera pose is in full-resolution pixels.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "image/nv21_img.h"
#include "tracker/feat_fast_shi_tomasi.h"
#include "tracker/fine_placement.h"
#include "tracker/pixel_alignment.h"
#include "tracker/track_report.h"
#include "tracker/tracker_options.h"
#include "zolt_pano.h"

class ZOLT_PANO_EXPORT ModuleTrack {
 public:
  cv::Mat preImg;  // reference: downscaled luma of the last key frame
  cv::Mat curImg;  // downscaled luma of the current frame
  PixelAlignment pixelAlign;
  int32_t frameWidth;
  int32_t frameHeight;
  double smallWidth;   // always 400
  double smallHeight;
  double cx;  // principal point, low resolution
  double cy;
  // The fixed camera's field of view, degrees across the frame's long and short side; the
  // tracker's unless setFieldOfView says otherwise.
  static constexpr double kHfovDeg = TrackerOptions::kFixedHfovDeg;
  static constexpr double kVfovDeg = TrackerOptions::kFixedVfovDeg;
  double hfovDeg;  // across the width, degrees
  double vfovDeg;  // across the height
  double fx;  // focal lengths, low-resolution pixels
  double fy;
  cv::Range rowRange;  // tracked points are kept with start <= y <= end
  cv::Range colRange;  // and start <= x <= end
  bool bFirstFrame;
  bool bHaltTracking;  // set from outside only: every later tracking step fails at once
  bool bDirectionSet;
  bool bKeyFrame;
  int32_t traceTooQuickOn;
  int32_t traceTooQuickX;  // full-resolution pixels
  int32_t traceTooQuickY;
  int32_t moveDir;  // a MoveDirection, fixed once per sweep
  int32_t uiState;  // 1: no feature
  int32_t errCode;  // result code of the current frame
  int32_t errAux;
  int32_t prePtsCount;
  cv::Mat auxMat;
  std::shared_ptr<Feat> feat;
  double preEulerGyro[3];
  double curEulerGyro[3];
  double preRMatGyro[9];  // row-major 3 x 3
  double curRMatGyro[9];
  cv::Mat camK;  // 3 x 3 CV_64F
  cv::Mat camKInv;
  std::vector<cv::Point2f> prePts;  // points in the reference image
  std::vector<cv::Point2f> curPts;  // the same points tracked into the current image
  cv::Mat spareMat;
  cv::Mat preImgHighRes;  // full-resolution luma of the reference frame
  double stdOffX, stdOffY;
  double meanOffX;  // this frame's offset against the reference, low resolution
  double meanOffY;
  double auxOffX, auxOffY;
  double globalCamPoseX;  // accumulated camera position, full resolution
  double globalCamPoseY;
  int32_t progress;
  int32_t frameIdx;
  int32_t trackCnt;
  float copyTicks;  // ticks spent copying full-resolution luma
  float sadMillis;  // milliseconds in the full-resolution strip search
  int32_t reservedCount;
  double frameHeightD;
  double frameWidthD;
  // Tuning values fixed at construction.
  int32_t trackParam8A;
  int32_t roundedHeight60;
  int32_t roundedWidth60;
  int32_t trackParam8B;
  int32_t trackParam16;
  int32_t trackParam8C;
  int32_t trackParam200;
  int32_t trackParam400;
  int32_t heightCopy;
  int32_t widthCopy;
  double trackParam225;
  double targetWidth;
  double scale;  // 400 / width: full resolution to low resolution
  int32_t minVisionPts;
  int32_t minTrackPts;
  double directionThreshold;
  double imuZeroA;
  double poseLimit;
  double imuParamB;
  double imuZeroB;
  double imuZeroC;
  int32_t imuParam50A;
  double slopeAngleDeg;
  int32_t imuParam50B;
  double imuParam6;
  double imuParam12;
  double dirCrossOffMaxX;
  double dirCrossPoseMaxX;
  double dirCrossOffMaxY;
  double dirCrossPoseMaxY;
  double backOffX;
  double wrongOffX;
  double backOffY;
  double wrongOffY;
  double forwardMinX;
  double forwardMinY;
  double tooQuickX;
  double tooQuickY;
  int32_t failCount;

  FinePlacement fine;  // the sub-pixel pose of the key frames, with that option
  // Filled at the end of every frame (and at construction): what the rest of the engine reads.
  TrackReport report;

  // The pyramidal Lucas-Kanade flow of the vision path, both ways: a 31 x 31 window over three
  // pyramid levels, 20 iterations or 0.03 px, and points whose window's smallest gradient
  // eigenvalue is below 0.001 (ten times OpenCV's default) dropped as too flat to follow.
  struct OpticalFlow {
    static constexpr int kWindow = 31;
    static constexpr int kLevels = 3;
    static constexpr int kIterations = 20;
    static constexpr double kEpsilon = 0.03;
    static constexpr double kMinEigen = 0.001;
    static cv::TermCriteria criteria() {
      return cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, kIterations,
                              kEpsilon);
    }
  };

  // Throws std::exception when either side is 640 or less.
  ModuleTrack(int width, int height);
  ~ModuleTrack() = default;
  ModuleTrack(const ModuleTrack&) = delete;
  ModuleTrack& operator=(const ModuleTrack&) = delete;

  void trace_too_quick_params(tag_ZOLT_PANO_INNER_PARAM* param);
  // The options, once, before the first frame; allocates nothing and cannot throw.
  void configure(const TrackerOptions& options);
  // ZOLT_PANO_OPTION_CAMERA_HFOV: the camera matrix of the gyroscope's prediction for a lens of
  // hfov degrees across the frame's width (above 0, below 180), square pixels, principal point
  // kept. 0: the fixed camera, as constructed. After construction it allocates nothing and
  // cannot throw.
  void setFieldOfView(double hfov);

  // One preview frame. eulerAngles (3) and rotMat (9, row-major) are this frame's gyroscope
  // attitude, only read.
  bool tracking(NV21Img& img, double* eulerAngles, double* rotMat);
  bool estimate_direction(NV21Img& img, cv::Mat cur, double* eulerAngles, double* rotMat);
  bool tracking_frames(cv::Mat cur, NV21Img& img, double* eulerAngles, double* rotMat);
  void UpdateState(cv::Mat cur, NV21Img& img);
  void UpdateRefPoints_OnFailure(cv::Mat ref);
  // Where the merger lays the last key frame: globalCamPoseX / Y, or with sub-pixel placement
  // the fine pose (once it has started), rounded to the nearest pixel.
  cv::Point2d placementPose() const;
  // The last key frame's pose: the fine pose with sub-pixel placement (once started), else
  // globalCamPoseX / Y.
  cv::Point2d keyFramePose() const;

  // Vision offset (module_track_vision.cpp).
  bool ComputeOffXY_Vision(NV21Img& img);
  bool PtsFilteringByRansac();
  void UpdateMeanXYByPts();
  // For tools that compare vision with another measure of the motion (the gyroscope): the offset
  // of `img` against the frame measured before it, by the vision path as it runs before the
  // sweep's direction is fixed (the mean motion of the tracked corners, no strip search), low-
  // resolution pixels; `points` gets the frame's positions of the corners vision kept (the mean
  // of whose motion the offset is). The frame then becomes the reference, its corners detected
  // afresh. False for the first frame and where vision failed (offsets untouched, no points).
  // Not for a tracker that tracks a sweep: it leaves the driver's state alone.
  bool measureVisionStep(NV21Img& img, double& offX, double& offY,
                         std::vector<cv::Point2f>& points);

  // Gyroscope offset (module_track_imu.cpp). 0 without a gyroscope (offsets untouched), else 1
  // with the offset, low-resolution pixels, reference minus current position.
  int ComputeOffXY_IMU(double& offX, double& offY, NV21Img& img);
  // The offset that the rotation from the reference's to the current frame's camera attitude
  // (both in camera axes, see gyroToCameraAxes) predicts, low-resolution pixels.
  void predictOffXY_IMU(const cv::Matx33d& preRMat, const cv::Matx33d& curRMat, double& offX,
                        double& offY) const;
  // A gyroscope attitude (row-major 3 x 3, phone sensor axes) in the camera's axes.
  static cv::Matx33d gyroToCameraAxes(const double* rotGyro);
  // The gyroscope path's strip search: cur's centre strip found in ref around the shift
  // (predX, predY); the strip is `stripAlong` long along the sweep (a vertical strip for a
  // horizontal sweep, a horizontal one otherwise), the reach in pixels along and across it.
  PixelAlignment::Result searchStripIMU(const cv::Mat& cur, const cv::Mat& ref, int predX,
                                        int predY, int stripAlong, int rangeAlong,
                                        int rangeAcross);
  // Pitch, yaw, roll (radians) to a row-major 3 x 3 rotation in R. Kept for callers; unused here.
  void covertEularAngle(double* angles, cv::Mat& R);
  // Clamps the accumulated pose across the sweep to poseLimit and sets the up/down UI state.
  void regularizeCamPose();

  // Movement checks (module_track_checks.cpp).
  int JustifyUI_Error_codes();
  int Offset_expected_dir_err_check();
  int Offset_NOT_expected_dir_err_check();
  int shake_or_slope(double along, double across);
  void EstimateProgress();

 private:
  // Scratch, sized once at construction; the per-frame paths reuse it.
  std::vector<cv::Point2f> newPts;
  std::vector<cv::Point2f> backPts;
  std::vector<uint8_t> status1;
  std::vector<uint8_t> status2;
  std::vector<uint8_t> ransacMask;
  std::vector<double> bandScratch;
  // Optical-flow pyramids of preImg and curImg, each built once and used by both flow
  // directions; the reference's pyramid lives as long as the reference.
  std::vector<cv::Mat> prePyr;
  std::vector<cv::Mat> curPyr;
  bool prePyrValid = false;
  bool curPyrValid = false;

  void copyLumaToHighRes(NV21Img& img);
  // The preview's luma scaled to the tracking size into curImg (the board's resize variant).
  void downscaleToCurrent(const cv::Mat& frame);
  void makeCurrentTheReference();  // exchange preImg and curImg (and their pyramids)
  TrackerOptions options_;
  void visionFailedWithoutGyro();
  // Where vision could not follow the frame: the gyroscope's offset, or without a gyroscope a
  // lost frame (false).
  bool offsetFromGyroscope(NV21Img& img);
  void fillReport();
  int checkSweep(bool horizontal);
};

// Translation RANSAC over point pairs: keeps the pairs within 6 pixels (each axis) of the
// displacement shared by most of them. mask is work space, resized to the pair count.
void RansacDxdy(std::vector<cv::Point2f>& prePts, std::vector<cv::Point2f>& curPts,
                std::vector<uint8_t>& mask);

// Quadrant of the vector (x, y), 1 to 4 (4 only for a NaN angle, as for (0, 0)).
int calculate_quad(float x, float y);

namespace zolt {
// Tests and measuring tools, never the engine's own capture: seed the translation RANSAC with
// `seed` instead of the random device (and back to the random device with has = false), so that
// a measurement repeats exactly.
void setRansacSeed(bool has, uint32_t seed);
}  // namespace zolt
