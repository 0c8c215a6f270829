#include "platform/cv_tuned.h"

#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

namespace zolt {

bool hasTunedResize() {
#if defined(ZOLT_HAVE_PARL_RESIZE)
  return true;
#else
  return false;
#endif
}

bool hasTunedOpticalFlow() {
#if defined(ZOLT_HAVE_ADSP_OPTFLOW)
  return true;
#else
  return false;
#endif
}

void tunedResize(cv::InputArray src, cv::OutputArray dst, cv::Size dsize, double fx, double fy,
                 int interpolation) {
#if defined(ZOLT_HAVE_PARL_RESIZE)
  cv::parl::resize(src, dst, dsize, fx, fy, interpolation);
#else
  cv::resize(src, dst, dsize, fx, fy, interpolation);
#endif
}

void tunedCalcOpticalFlowPyrLK(cv::InputArray prevImg, cv::InputArray nextImg,
                               cv::InputArray prevPts, cv::InputOutputArray nextPts,
                               cv::OutputArray status, cv::OutputArray err, cv::Size winSize,
                               int maxLevel, cv::TermCriteria criteria, int flags,
                               double minEigThreshold) {
#if defined(ZOLT_HAVE_ADSP_OPTFLOW)
  cv::adsp::calcOpticalFlowPyrLK(prevImg, nextImg, prevPts, nextPts, status, err, winSize,
                                 maxLevel, criteria, flags, minEigThreshold);
#else
  cv::calcOpticalFlowPyrLK(prevImg, nextImg, prevPts, nextPts, status, err, winSize, maxLevel,
                           criteria, flags, minEigThreshold);
#endif
}

}  // namespace zolt
