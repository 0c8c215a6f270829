// ModuleTrack: the frame's offset from the gyroscope, for frames whose image content could not be
// tracked. The rotation between the reference's and the current frame's attitude, carried into
// the camera's axes, predicts where the current view's centre lies in the reference image; two
// strip searches, at low and at full resolution, then correct the prediction where the images
// have texture enough to be trusted.
#include <cmath>

#include <opencv2/core.hpp>

#include "platform/clock.h"
#include "platform/log.h"
#include "sensor/sensor_handle.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace {

// The phone's sensor axes (x right, y up, z out of the screen, portrait) to the back camera's
// image axes (x right, y down, z forward) of a landscape preview: rows (0, -1, 0), (-1, 0, 0),
// (0, 0, -1). Its own inverse.
const cv::Matx33d kSensorToCamera(0, -1, 0, -1, 0, 0, 0, 0, -1);

// Texture of a region: its mean and the mean absolute difference from that mean (grey levels).
// The region is clipped to the image; an empty one has no texture.
void measureTexture(const cv::Mat& img, cv::Rect region, double& mean, double& spread) {
  region &= cv::Rect(0, 0, img.cols, img.rows);
  mean = 0.0;
  spread = 0.0;
  if (region.empty()) return;
  const cv::Mat roi = img(region);
  mean = cv::mean(roi)[0];
  cv::Mat diff;
  cv::absdiff(roi, cv::Scalar(mean), diff);
  spread = cv::mean(diff)[0];
}

// The strip of a search centred on the image, placed as PixelAlignment places it.
cv::Rect stripAround(const cv::Mat& img, int stripW, int stripH) {
  return {img.cols / 2 - (stripW >> 1), img.rows / 2 - (stripH >> 1), stripW, stripH};
}

void logMatrix(const char* fmt, const cv::Matx33d& m) {
  ZLOGI(fmt, m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2), m(2, 0), m(2, 1), m(2, 2));
}

}  // namespace

cv::Matx33d ModuleTrack::gyroToCameraAxes(const double* rotGyro) {
  return kSensorToCamera * cv::Matx33d(rotGyro) * kSensorToCamera;
}

void ModuleTrack::predictOffXY_IMU(const cv::Matx33d& preRMat, const cv::Matx33d& curRMat,
                                   double& offX, double& offY) const {
  cv::Matx33d preInv;
  cv::invert(preRMat, preInv, cv::DECOMP_LU);
  // Current camera ray -> reference camera ray, as a homography between the two low-resolution
  // images. The principal point of the current view lands where that view's centre lies in the
  // reference; the offset is reference minus current position, as from vision.
  // H = K * preRMat^-1 * curRMat * K^-1 applied to the principal point (cx, cy, 1), whose ray
  // K^-1 * (cx, cy, 1) is (0, 0, 1) by the camera matrix's make-up: taken as such, equal
  // attitudes before the first orientation (identities) give exactly (0, 0).
  const cv::Matx33d k(camK.ptr<double>());
  const cv::Vec3d p = k * (preInv * (curRMat * cv::Vec3d(0.0, 0.0, 1.0)));
  offX = p[0] / p[2] - cx;
  offY = p[1] / p[2] - cy;
}

PixelAlignment::Result ModuleTrack::searchStripIMU(const cv::Mat& cur, const cv::Mat& ref,
                                                   int predX, int predY, int stripAlong,
                                                   int rangeAlong, int rangeAcross) {
  // The strip is cut from the current image and searched for in the reference, as in the
  // vision path's refinement: a view that moved by the offset is found at the negated offset.
  if (ZOLT_PANO_IsHorizontalSweep(moveDir)) {
    return pixelAlign.searchUsingVstrip(
        cur, ref, {cur.cols / 2, cur.rows / 2, predX, predY, trackParam8A, stripAlong, rangeAlong,
                   rangeAcross});
  }
  return pixelAlign.searchUsingHstrip(
      cur, ref, {cur.cols / 2, cur.rows / 2, predX, predY, stripAlong, trackParam8B, rangeAcross,
                 rangeAlong});
}

int ModuleTrack::ComputeOffXY_IMU(double& offX, double& offY, NV21Img& img) {
  if (pSensorHandle == nullptr) {
    ZLOGE("=============== Sensor handle not initialized in %s ", "ComputeOffXY_IMU");
    return 0;
  }
  ZLOGI("ComputeOffXY_IMU : Pre-Euler Angles =  %lf  %lf  %lf ", preEulerGyro[0], preEulerGyro[1],
        preEulerGyro[2]);
  ZLOGI("ComputeOffXY_IMU : Cur-Euler Angles =  %lf  %lf  %lf ", curEulerGyro[0], curEulerGyro[1],
        curEulerGyro[2]);
  logMatrix("ComputeOffXY_IMU : preRMatGyro =  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  ",
            cv::Matx33d(preRMatGyro));
  logMatrix("ComputeOffXY_IMU : curRMatGyro =  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  ",
            cv::Matx33d(curRMatGyro));
  const cv::Matx33d preRMat = gyroToCameraAxes(preRMatGyro);
  const cv::Matx33d curRMat = gyroToCameraAxes(curRMatGyro);
  logMatrix("ComputeOffXY_IMU : preRMat =  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  ", preRMat);
  logMatrix("ComputeOffXY_IMU : curRMat =  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  %lf  ", curRMat);

  predictOffXY_IMU(preRMat, curRMat, offX, offY);
  ZLOGI("ComputeOffXY_IMU : MeanOff from IMU Rot in low res:  %.3f x %.3f for Frame[%d] ",
        static_cast<float>(offX), static_cast<float>(offY), frameIdx);

  const bool horizontalSweep = ZOLT_PANO_IsHorizontalSweep(moveDir);
  const bool verticalSweep = moveDir != MOVE_NONE && !horizontalSweep;

  // Low resolution: the strip search around the prediction, as far as the texture allows.
  const int64_t t0 = zolt::wallClockMs();
  const int predX = static_cast<int>(-offX), predY = static_cast<int>(-offY);
  ZLOGI("Low res calculating mincost shift : Frame[%d] and TrackCnt[%d] strt[%d x %d]", frameIdx,
        trackCnt, predX, predY);
  double curMean = 0.0, varMean = 0.0;
  measureTexture(curImg,
                 horizontalSweep ? stripAround(curImg, trackParam8A, trackParam200)
                                 : stripAround(curImg, trackParam400, trackParam8B),
                 curMean, varMean);
  ZLOGI("curMean = %f  varMean = %f ", curMean, varMean);
  if (varMean > 10.0) {
    int along = trackParam16, across = trackParam8C;
    if (trackCnt == 1) {
      // The first tracked frame is measured against the frame that fixed the direction, which
      // the checks may have taken several frames after the sweep began: the speed is not known
      // yet, and the gap may span a few frames' motion. Twice the usual reach.
      along *= 2;
      across *= 2;
    } else if (varMean <= 12.0) {
      along /= 4;
      across /= 4;
    } else if (varMean <= 20.0) {
      along /= 2;
      across /= 2;
    }
    // Before the direction is fixed there is no sweep axis to lay the strip across: the
    // prediction stands.
    PixelAlignment::Result r{predX, predY, PixelAlignment::kNoCost};
    if (horizontalSweep) {
      r = searchStripIMU(curImg, preImg, predX, predY, trackParam200, along, across);
    } else if (verticalSweep) {
      r = searchStripIMU(curImg, preImg, predX, predY, trackParam400, along, across);
    }
    ZLOGI("[%d] low res calculating mincost_shift finished in IMU : dxdy-> %d %d and  minsad: %d",
          frameIdx, -r.dx, -r.dy, r.cost);
    if (r.cost != PixelAlignment::kNoCost) {
      offX = -r.dx;
      offY = -r.dy;
    }
    ZLOGI("FEATURE SSD in IMU TIME = %f", static_cast<double>(zolt::wallClockMs() - t0));
  } else {
    ZLOGI("Mean Variance [%f] is below threshold. SAD is not applied", varMean);
  }

  // Full resolution: the same search on the preview's luma and the reference's, started from
  // the low-resolution offset. A flat region keeps the low-resolution offset.
  const cv::Mat frame(frameHeight, frameWidth, CV_8UC1, img.yPlane);
  const int stripAlong = horizontalSweep ? roundedHeight60 : roundedWidth60;
  double hiMean = 0.0, hiVar = 0.0;
  measureTexture(frame,
                 horizontalSweep ? stripAround(frame, trackParam8A, stripAlong)
                                 : stripAround(frame, stripAlong, trackParam8B),
                 hiMean, hiVar);
  if (hiVar > 1.0) {
    int along = trackParam16, across = trackParam8C;
    if (hiVar <= 2.0) {
      // Barely any texture: a wide search would mostly find noise. Half the reach.
      along /= 2;
      across /= 2;
    }
    const int sx = static_cast<int>(offX / scale), sy = static_cast<int>(offY / scale);
    ZLOGI("Highres calculating mincost shift : Frame[%d] and TrackCnt[%d] strt[%d x %d]", frameIdx,
          trackCnt, sx, sy);
    const PixelAlignment::Result r =
        searchStripIMU(frame, preImgHighRes, -sx, -sy, stripAlong, along, across);
    const int dx = -r.dx, dy = -r.dy;
    if (r.cost != PixelAlignment::kNoCost) {
      offX = scale * dx;
      offY = scale * dy;
    }
    ZLOGI("[%d] high res calculating mincost_shift finished in IMU : dxdy-> %d %d Lowres mapping "
          ": %.3f %.3f minsad: %d",
          frameIdx, dx, dy, offX, offY, r.cost);
  }
  return 1;
}

void ModuleTrack::covertEularAngle(double* angles, cv::Mat& R) {
  ZLOGI("covertEularAngle : pitch = %lf yaw = %lf roll = %lf ", angles[0], angles[1], angles[2]);
  const double cp = std::cos(angles[0] / 2), sp = std::sin(angles[0] / 2);
  const double cy = std::cos(angles[1] / 2), sy = std::sin(angles[1] / 2);
  const double cr = std::cos(angles[2] / 2), sr = std::sin(angles[2] / 2);
  const double qa = cp * sr * cy + sp * cr * sy;
  const double qb = sp * cr * cy - cp * sr * sy;
  const double qc = cp * cr * sy + sp * sr * cy;
  const double qw = cp * cr * cy - sp * sr * sy;
  if (R.rows != 3 || R.cols != 3 || R.type() != CV_64F) R.create(3, 3, CV_64F);
  double* r = R.ptr<double>();
  r[0] = 1 - 2 * (qc * qc + qa * qa);
  r[1] = -2 * (qb * qa - qc * qw);
  r[2] = 2 * (qa * qw + qb * qc);
  r[3] = -2 * (qc * qw + qb * qa);
  r[4] = 1 - 2 * (qc * qc + qb * qb);
  r[5] = -2 * (qa * qc - qb * qw);
  r[6] = 2 * (qb * qc - qa * qw);
  r[7] = -2 * (qb * qw + qa * qc);
  r[8] = 1 - 2 * (qa * qa + qb * qb);
  ZLOGI("dRotate Row1 =  %lf  %lf  %lf  ", r[0], r[1], r[2]);
  ZLOGI("dRotate Row2 =  %lf  %lf  %lf  ", r[3], r[4], r[5]);
  ZLOGI("dRotate Row3 =  %lf  %lf  %lf  ", r[6], r[7], r[8]);
}

void ModuleTrack::regularizeCamPose() {
  uiState = 0;
  // The sideways drift of a vertical sweep reuses the up/down states on purpose.
  double* across = nullptr;
  if (ZOLT_PANO_IsHorizontalSweep(moveDir)) {
    across = &globalCamPoseY;
  } else if (moveDir != MOVE_NONE) {
    across = &globalCamPoseX;
  }
  if (across == nullptr) return;
  if (*across < -poseLimit) {
    *across = -poseLimit;
    uiState = 3;
  } else if (*across > poseLimit) {
    *across = poseLimit;
    uiState = 4;
  }
}
