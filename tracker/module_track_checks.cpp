// ModuleTrack: what the frame's movement means for the user. Fixes the sweep direction once the
// camera has clearly moved; afterwards classifies each frame as fine, a little too quick, too
// quick, sloped, shaking, off the sweep axis or going back, and keeps the progress. The four
// sweep directions share one rule: o is the offset along the sweep, signed so that forward is
// positive, and "across" the offset and the pose on the other axis.
#include <cmath>

#include "platform/log.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace {

// Each direction's own log texts (the lines differ in blanks and prefixes) and priorities.
struct DirectionTexts {
  const char* slope;
  const char* littleQuick;
  const char* success;
  int successPriority;
  const char* wrongDirection;
};

const DirectionTexts& textsFor(int dir) {
  static const DirectionTexts kTexts[4] = {
      {"JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  %X",
       "Error code updated to WARN_TRACE_LITTLE_QUICK :  %X",
       "Offset_expected_dir_err_check : Error code updated to SUCCESS :  %X", ANDROID_LOG_WARN,
       "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION :  %X"},
      {" JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  %X",
       "Offset_expected_dir_err_check : Error code updated to WARN_TRACE_LITTLE_QUICK :  %X",
       " Offset_expected_dir_err_check : Error code updated to SUCCESS :  %X", ANDROID_LOG_ERROR,
       "Offset_NOT_expected_dir_err_check :  Error code updated to ERR_TRACE_DIRECTION :  %X"},
      {"JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  %X",
       "Error code updated to WARN_TRACE_LITTLE_QUICK :  %X",
       "Error code updated to SUCCESS :  %X", ANDROID_LOG_WARN,
       "Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION :  %X"},
      {"JustifyUI_Error_codes: Error code updated to WARN_MOVE_SLOPE :  %X",
       "Error code updated to WARN_TRACE_LITTLE_QUICK :  %X",
       " Error code updated to SUCCESS :  %X", ANDROID_LOG_WARN,
       "Offset_NOT_expected_dir_err_check :  Error code updated to ERR_TRACE_DIRECTION :  %X"}};
  return kTexts[dir - 1];
}

bool knownDirection(int dir) { return dir >= MOVE_RIGHT && dir <= MOVE_UP; }
// +1 for the sweeps with positive offsets (right, down), -1 for the others.
double forwardSign(int dir) { return (dir == MOVE_RIGHT || dir == MOVE_DOWN) ? 1.0 : -1.0; }

}  // namespace

int ModuleTrack::JustifyUI_Error_codes() {
  if (!bDirectionSet) {
    if (!(std::fabs(meanOffX) > directionThreshold) && !(std::fabs(meanOffY) > directionThreshold)) {
      return 1;
    }
    bDirectionSet = true;
    if (std::fabs(meanOffX) > std::fabs(meanOffY)) {
      const int margin = static_cast<int>(smallWidth * 0.2);
      colRange = cv::Range(margin, static_cast<int>(smallWidth) - margin);
      moveDir = meanOffX > 0 ? MOVE_RIGHT : MOVE_LEFT;
    } else {
      const int margin = static_cast<int>(smallHeight * 0.2);
      rowRange = cv::Range(margin, static_cast<int>(smallHeight) - margin);
      moveDir = meanOffY > 0 ? MOVE_DOWN : MOVE_UP;
    }
    errAux = 0;
    bKeyFrame = false;
    return 1;
  }
  if (!knownDirection(moveDir)) return 1;
  return checkSweep(ZOLT_PANO_IsHorizontalSweep(moveDir));
}

int ModuleTrack::checkSweep(bool horizontal) {
  const DirectionTexts& texts = textsFor(moveDir);
  const double along = horizontal ? meanOffX : meanOffY;
  const double across = horizontal ? meanOffY : meanOffX;
  const double acrossPose = horizontal ? globalCamPoseY : globalCamPoseX;
  const double shakeLimit = (horizontal ? traceTooQuickY : traceTooQuickX) * scale;
  const double crossPoseMax = horizontal ? dirCrossPoseMaxY : dirCrossPoseMaxX;
  const double crossOffMax = horizontal ? dirCrossOffMaxY : dirCrossOffMaxX;
  const double forwardMin = horizontal ? forwardMinX : forwardMinY;

  if (std::fabs(across) > shakeLimit) {
    const int r = shake_or_slope(along, across);
    if (r == WARN_MOVE_SLOPE) {
      errCode = WARN_MOVE_SLOPE;
      ZLOGE(texts.slope, errCode);
    } else if (r == WARN_SHAKE_TOO_BIG) {
      errCode = WARN_SHAKE_TOO_BIG;
      ZLOGE("JustifyUI_Error_codes: Error code updated to WARN_SHAKE_TOO_BIG :  %X", errCode);
    }
  }
  if (std::fabs(acrossPose) > crossPoseMax || std::fabs(across) > crossOffMax) {
    errCode = ERR_TRACE_DIRECTION;
    bKeyFrame = false;
    ZLOGE("JustifyUI_Error_codes: Error code updated to ERR_TRACE_DIRECTION :  %X", errCode);
    return 0;
  }
  if (forwardSign(moveDir) * along > forwardMin) return Offset_expected_dir_err_check();
  return Offset_NOT_expected_dir_err_check();
}

int ModuleTrack::Offset_expected_dir_err_check() {
  bKeyFrame = true;
  if (!knownDirection(moveDir)) return 1;
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(moveDir);
  const double o = forwardSign(moveDir) * (horizontal ? meanOffX : meanOffY);
  const double tooQuick = horizontal ? tooQuickX : tooQuickY;
  const int32_t t = horizontal ? traceTooQuickX : traceTooQuickY;
  const DirectionTexts& texts = textsFor(moveDir);
  if (o > tooQuick) {
    errCode = ERR_TRACE_TOO_QUICK;
    bKeyFrame = false;
    ZLOGE("Error code updated to ERR_TRACE_TOO_QUICK :  %X", errCode);
    return 0;
  }
  if (o > scale * 0.5 * t && traceTooQuickOn != 0) {
    errCode = WARN_TRACE_LITTLE_QUICK;
    ZLOGE(texts.littleQuick, errCode);
    return 1;
  }
  errCode = SUCCESS;
  ::zolt::log::print(texts.successPriority, texts.success, errCode);
  return 1;
}

int ModuleTrack::Offset_NOT_expected_dir_err_check() {
  bKeyFrame = false;
  if (!knownDirection(moveDir)) return 0;
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(moveDir);
  const double o = forwardSign(moveDir) * (horizontal ? meanOffX : meanOffY);
  const double back = horizontal ? backOffX : backOffY;
  const double wrong = horizontal ? wrongOffX : wrongOffY;
  if (!(o < 0)) return 0;
  if (o < -back) {
    errCode = ERR_TRACE_DIRECTION_BACK;
    ZLOGE("Offset_NOT_expected_dir_err_check : Error code updated to ERR_TRACE_DIRECTION_BACK :  %X",
          errCode);
  } else if (o < -wrong) {
    errCode = ERR_TRACE_DIRECTION;
    ZLOGE(textsFor(moveDir).wrongDirection, errCode);
  }
  return 0;
}

int ModuleTrack::shake_or_slope(double along, double across) {
  const double s = along * across >= 0 ? 1.0 : -1.0;
  const double angle = std::atan(s * std::fabs(across / along)) * 57.29577957855229;
  const double L = slopeAngleDeg;
  if (-L <= angle && angle <= L) return WARN_MOVE_SLOPE;
  if (-180.0 <= angle && angle <= L - 180.0) return WARN_MOVE_SLOPE;
  if (180.0 - L <= angle && angle <= 180.0) return WARN_MOVE_SLOPE;
  return WARN_SHAKE_TOO_BIG;
}

int calculate_quad(float x, float y) {
  const float q = y / x;
  // The sign of y / x: for x = 0 the product x * y is a signed zero, so the quotient decides.
  const float xy = x * y;
  const float s = (xy < 0.0f || (xy == 0.0f && q < 0.0f)) ? -1.0f : 1.0f;
  const double angle = static_cast<double>(std::atan(s * std::fabs(q)) * 180.0f) *
                       0.31830988654751274;
  if (-135.0 <= angle && angle <= -45.0) return 1;
  if (-45.0 <= angle && angle <= 45.0) return 2;
  if (45.0 <= angle && angle <= 135.0) return 3;
  return 4;
}

void ModuleTrack::EstimateProgress() {
  const cv::Point2d pose = keyFramePose();
  if (ZOLT_PANO_IsHorizontalSweep(moveDir)) {
    progress = frameWidth + std::abs(static_cast<int>(pose.x));
  } else if (moveDir != MOVE_NONE) {
    progress = frameHeight + std::abs(static_cast<int>(pose.y));
  }
}
