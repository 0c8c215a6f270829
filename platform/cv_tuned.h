// The platform's tuned OpenCV variants. Some vendor OpenCV builds offer cv::parl::resize and
// cv::adsp::calcOpticalFlowPyrLK with the standard signatures; the build system looks for them
// (ZOLT_HAVE_PARL_RESIZE, ZOLT_HAVE_ADSP_OPTFLOW) and, where they are missing, these entry
// points call the standard functions instead.
#pragma once

#include <opencv2/core.hpp>

namespace zolt {

bool hasTunedResize();
bool hasTunedOpticalFlow();

// cv::parl::resize where present, else cv::resize.
void tunedResize(cv::InputArray src, cv::OutputArray dst, cv::Size dsize, double fx, double fy,
                 int interpolation);

// cv::adsp::calcOpticalFlowPyrLK where present, else cv::calcOpticalFlowPyrLK.
void tunedCalcOpticalFlowPyrLK(cv::InputArray prevImg, cv::InputArray nextImg,
                               cv::InputArray prevPts, cv::InputOutputArray nextPts,
                               cv::OutputArray status, cv::OutputArray err, cv::Size winSize,
                               int maxLevel, cv::TermCriteria criteria, int flags,
                               double minEigThreshold);

}  // namespace zolt
