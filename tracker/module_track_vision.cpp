// ModuleTrack: the frame's offset from image content. Reference points are tracked into the
// current image by pyramidal Lucas-Kanade flow checked forwards and backwards, outliers go by a
// fundamental-matrix RANSAC and a translation RANSAC, the surviving displacements are averaged
// without the points that lag behind their column (or row) band, and once the sweep direction is
// known the offset is refined by a strip search at full resolution.
#include <cmath>
#include <cstring>
#include <ctime>
#include <random>

#include <opencv2/calib3d.hpp>
#include <opencv2/video/tracking.hpp>

#include "platform/clock.h"
#include "platform/cv_tuned.h"
#include "platform/log.h"
#include "platform/system_property.h"
#include "tracker/module_track.h"
#include "zolt_pano_ext.h"

namespace {

bool gHasTestSeed = false;
uint32_t gTestSeed = 0;

// Removes the pairs whose keep[i] is 0, keeping the order of the others.
template <class Keep>
void keepPairs(std::vector<cv::Point2f>& pre, std::vector<cv::Point2f>& cur, const Keep& keep) {
  size_t out = 0;
  for (size_t i = 0; i < pre.size(); ++i) {
    if (!keep(i)) continue;
    pre[out] = pre[i];
    cur[out] = cur[i];
    ++out;
  }
  pre.resize(out);
  cur.resize(out);
}

}  // namespace

namespace zolt {
void setRansacSeed(bool has, uint32_t seed) {
  gHasTestSeed = has;
  gTestSeed = seed;
}
}  // namespace zolt

void RansacDxdy(std::vector<cv::Point2f>& prePts, std::vector<cv::Point2f>& curPts,
                std::vector<uint8_t>& mask) {
  srand48(static_cast<long>(std::time(nullptr)));
  std::mt19937 rng;
  if (gHasTestSeed) {
    rng.seed(gTestSeed);
  } else {
    std::random_device device("default");
    rng.seed(device());
  }
  const int n = static_cast<int>(prePts.size());
  if (n == 0) return;
  const int draws = std::min(n, 200);
  mask.resize(static_cast<size_t>(n));
  // Drawn indices and the best mask: per-thread scratch that only grows.
  thread_local std::vector<uint8_t> drawn, bestMask;
  drawn.assign(static_cast<size_t>(n), 0);
  bestMask.assign(static_cast<size_t>(n), 0);
  int bestCount = 0;
  std::uniform_int_distribution<int> pick(0, n - 1);
  for (int d = 0; d < draws; ++d) {
    const int s = pick(rng);
    if (drawn[s]) continue;
    drawn[s] = 1;
    const double hx = static_cast<double>(curPts[s].x) - prePts[s].x;
    const double hy = static_cast<double>(curPts[s].y) - prePts[s].y;
    int count = 0;
    for (int i = 0; i < n; ++i) {
      const double ex = (static_cast<double>(curPts[i].x) - prePts[i].x) - hx;
      const double ey = (static_cast<double>(curPts[i].y) - prePts[i].y) - hy;
      mask[i] = std::fabs(ex) <= 6.0 && std::fabs(ey) <= 6.0;
      count += mask[i];
    }
    if (count > bestCount) {
      bestCount = count;
      bestMask.assign(mask.begin(), mask.end());
      if (static_cast<double>(bestCount) / n >= 0.9) break;
    }
  }
  keepPairs(prePts, curPts, [&](size_t i) { return bestMask[i] != 0; });
}

bool ModuleTrack::ComputeOffXY_Vision(NV21Img& img) {
  const int64_t t0 = zolt::ticks();
  prePtsCount = static_cast<int32_t>(prePts.size());
  ZLOGI("ZOLT: ComputeOffXY_Vision entered with prevts -> %d", prePtsCount);
  if (prePtsCount < minVisionPts) {
    ZLOGE("ComputeOffXY_Vision: Frm [%d] : Failure due to less feature :  %d", frameIdx,
          prePtsCount);
    return false;
  }

  try {
    curPts.resize(prePts.size());
    using Flow = OpticalFlow;
    const cv::TermCriteria criteria = Flow::criteria();
    const cv::Size win(Flow::kWindow, Flow::kWindow);
    char soc[ZOLT_PROP_VALUE_MAX] = {0};
    __system_property_get("ro.board.platform", soc);
    if (soc[0] != '\0' && std::strncmp(soc, "tvm", 3) == 0) {
      ZLOGI("TAVO TVM H/W - openCV calcOpticalFlowPyrLK");
      zolt::tunedCalcOpticalFlowPyrLK(preImg, curImg, prePts, curPts, status1, cv::noArray(), win,
                                      Flow::kLevels, criteria, 0, Flow::kMinEigen);
      zolt::tunedCalcOpticalFlowPyrLK(curImg, preImg, curPts, backPts, status2, cv::noArray(),
                                      win, Flow::kLevels, criteria, 0, Flow::kMinEigen);
    } else {
      ZLOGI("ELSE H/W - openCV calcOpticalFlowPyrLK");
      // Each image's pyramid serves both directions; the same pyramids calcOpticalFlowPyrLK
      // would build from the images (no derivatives, default borders), so the same result.
      if (!prePyrValid) {
        cv::buildOpticalFlowPyramid(preImg, prePyr, win, Flow::kLevels, false);
        prePyrValid = true;
      }
      cv::buildOpticalFlowPyramid(curImg, curPyr, win, Flow::kLevels, false);
      curPyrValid = true;
      cv::calcOpticalFlowPyrLK(prePyr, curPyr, prePts, curPts, status1, cv::noArray(), win,
                               Flow::kLevels, criteria, 0, Flow::kMinEigen);
      cv::calcOpticalFlowPyrLK(curPyr, prePyr, curPts, backPts, status2, cv::noArray(), win,
                               Flow::kLevels, criteria, 0, Flow::kMinEigen);
    }

    const float c0 = static_cast<float>(colRange.start), c1 = static_cast<float>(colRange.end);
    const float r0 = static_cast<float>(rowRange.start), r1 = static_cast<float>(rowRange.end);
    keepPairs(prePts, curPts, [&](size_t i) {
      if (!status1[i] || !status2[i]) return false;
      const double ex = static_cast<double>(prePts[i].x) - backPts[i].x;
      const double ey = static_cast<double>(prePts[i].y) - backPts[i].y;
      const cv::Point2f& c = curPts[i];
      return std::sqrt(ex * ex + ey * ey) <= 2.0 && c0 <= c.x && c.x <= c1 && r0 <= c.y &&
             c.y <= r1;
    });
    prePtsCount = static_cast<int32_t>(curPts.size());
    ZLOGI("ZOLT: OpticalFlowPyrLK Flow & filter: with remaining curPts = %d, Winsize.w: %d, Time "
          "take: %.3f \n",
          prePtsCount, 31,
          static_cast<double>(zolt::ticks() - t0) * 1000.0 / zolt::tickFrequency());
    if (prePtsCount < minVisionPts) return false;

    const int64_t tr = zolt::wallClockMs();
    if (static_cast<int>(prePts.size()) < minVisionPts) {
      ZLOGE("Less features to track for Ransac");
    } else {
      PtsFilteringByRansac();
      ZLOGW("RefineOffXY_ransac - time cost %f", static_cast<double>(zolt::wallClockMs() - tr));
      ZLOGW("RefineOffXY_ransac END : Total #prePts:  %d  curpts: %d  after ransac filtering ",
            static_cast<int>(prePts.size()), static_cast<int>(curPts.size()));
    }
  } catch (const cv::Exception& e) {
    // A degenerate frame (flat image, points on a line) is a frame without usable features.
    ZLOGE("ComputeOffXY_Vision: Frm [%d] : OpenCV failure: %s", frameIdx, e.what());
    curPts.clear();
    prePtsCount = 0;
    return false;
  }
  prePtsCount = static_cast<int32_t>(curPts.size());
  ZLOGI("ZOLT: PtsFilteringByRansac: calcualted curPts %d", prePtsCount);
  if (prePtsCount < minVisionPts) return false;

  UpdateMeanXYByPts();
  ZLOGI("After UpdateMeanXYByPts:  HighResoln meanOffX =  %f,  meanOffY =  %f", meanOffX / scale,
        meanOffY / scale);

  if (moveDir != MOVE_NONE) {
    const int64_t ts = zolt::wallClockMs();
    const cv::Mat frame(frameHeight, frameWidth, CV_8UC1, img.yPlane);
    const int sx = static_cast<int>(meanOffX / scale);
    const int sy = static_cast<int>(meanOffY / scale);
    ZLOGI("[%d] Vision calculating mincost shift  strt [%d x %d]", frameIdx, sx, sy);
    // The strip is cut from the current frame and searched for in the reference: a point that
    // moved by the (negated) start shift is then found at dx = -start, so the negated result is
    // the offset, reference minus current, in full-resolution pixels.
    PixelAlignment::Result r;
    if (ZOLT_PANO_IsHorizontalSweep(moveDir)) {
      const PixelAlignment::Input in{frameWidth / 2, frameHeight / 2, -sx,          -sy,
                                     trackParam8A,   roundedHeight60, trackParam16, trackParam8C};
      r = pixelAlign.searchUsingVstrip(frame, preImgHighRes, in);
    } else {
      const PixelAlignment::Input in{frameWidth / 2,  frameHeight / 2, -sx,         -sy,
                                     roundedWidth60, trackParam8B,    trackParam8C, trackParam16};
      r = pixelAlign.searchUsingHstrip(frame, preImgHighRes, in);
    }
    const int fxs = -r.dx, fys = -r.dy;
    ZLOGI("[%d] Vision calculating mincost_shift high resol finished: %d %d minsad: %d", frameIdx,
          fxs, fys, r.cost);
    const double ms = static_cast<double>(zolt::wallClockMs() - ts);
    sadMillis += static_cast<float>(ms);
    ZLOGI("FEATURE SSD TIME = %f", ms);
    meanOffX = fxs * scale;
    meanOffY = fys * scale;
  }
  return true;
}

bool ModuleTrack::measureVisionStep(NV21Img& img, double& offX, double& offY,
                                    std::vector<cv::Point2f>& points) {
  curPyrValid = false;
  downscaleToCurrent(cv::Mat(frameHeight, frameWidth, CV_8UC1, img.yPlane));
  const bool measured = !bFirstFrame && ComputeOffXY_Vision(img);
  points.clear();
  if (measured) {
    offX = meanOffX;
    offY = meanOffY;
    points.assign(curPts.begin(), curPts.end());
  }
  // The next frame is measured against this one, with corners of its own.
  prePts.clear();
  feat->updateGridCount(prePts, static_cast<MoveDirection>(moveDir));
  feat->detectFeatFromBlock(curImg, prePts);
  makeCurrentTheReference();
  bFirstFrame = false;
  return measured;
}

bool ModuleTrack::PtsFilteringByRansac() {
  prePtsCount = static_cast<int32_t>(curPts.size());
  if (prePtsCount < minVisionPts) {
    ZLOGE("RefineOffXY_ransac: Less feature :  %d", prePtsCount);
    return false;
  }
  ransacMask.clear();
  cv::findFundamentalMat(prePts, curPts, cv::FM_RANSAC, 2.4, 0.99, ransacMask);
  if (ransacMask.empty()) {
    ZLOGE("[Tracker]: RefineOffXY_ransac : No inliers found ");
    return false;
  }
  keepPairs(prePts, curPts, [&](size_t i) { return i < ransacMask.size() && ransacMask[i] != 0; });
  prePtsCount = static_cast<int32_t>(curPts.size());
  if (prePtsCount < minVisionPts) {
    ZLOGE("[Tracker]: RefineOffXY_ransac : Not suffficeint pts after fundmat : %d ", prePtsCount);
    return false;
  }
  RansacDxdy(prePts, curPts, ransacMask);
  prePtsCount = static_cast<int32_t>(curPts.size());
  if (prePtsCount >= minVisionPts) return true;
  ZLOGE("RefineOffXY_ransac: Not sufficient after RansacDxdy :  %d", prePtsCount);
  return false;
}

namespace {

// The mean displacement along the sweep without the pairs that lag behind their band: each band
// of the current point's coordinate across [lo, lo + width), ... whose own mean is at least the
// overall mean gets the limit L = |overall| * 0.6 * spread / mean + mean, and its pairs with
// |d| < |L| are left out. Also returns the spreads of both displacements.
struct BandMean {
  double mean;
  double stdAlong;
  double stdAcross;
};

template <size_t kBands>
BandMean bandMean(const std::vector<cv::Point2f>& pre, const std::vector<cv::Point2f>& cur, int n,
                  bool alongX, const double (&edges)[kBands + 1]) {
  auto along = [&](size_t i) { return alongX ? pre[i].x - cur[i].x : pre[i].y - cur[i].y; };
  auto across = [&](size_t i) { return alongX ? pre[i].y - cur[i].y : pre[i].x - cur[i].x; };
  auto band = [&](size_t i) -> int {
    const double v = alongX ? cur[i].x : cur[i].y;
    for (size_t b = 0; b < kBands; ++b)
      if (v >= edges[b] && v < edges[b + 1]) return static_cast<int>(b);
    return -1;
  };
  const size_t m = cur.size();
  double sum = 0.0, sumAcross = 0.0;
  double count[kBands] = {}, bsum[kBands] = {}, bsq[kBands] = {};
  for (size_t i = 0; i < m; ++i) {
    const double d = along(i);
    sum += d;
    sumAcross += across(i);
    const int b = band(i);
    if (b >= 0) {
      count[b] += 1.0;
      bsum[b] += d;
      bsq[b] += d * d;
    }
  }
  const double mean = sum / n, meanAcross = sumAcross / n;
  bool usable[kBands] = {};
  double limit[kBands] = {};
  for (size_t b = 0; b < kBands; ++b) {
    if (count[b] < 1.0) continue;
    const double bm = bsum[b] / count[b];
    const double spread = std::sqrt(bsq[b] / count[b] - bm * bm);
    usable[b] = std::fabs(bm) >= std::fabs(mean);
    if (usable[b]) limit[b] = (std::fabs(mean) * 0.6 * spread) / bm + bm;
  }
  double varAlong = 0.0, varAcross = 0.0, slowSum = 0.0;
  int slow = 0;
  for (size_t i = 0; i < m; ++i) {
    const double d = along(i);
    varAlong += (d - mean) * (d - mean);
    varAcross += (across(i) - meanAcross) * (across(i) - meanAcross);
    const int b = band(i);
    if (b >= 0 && usable[b] && std::fabs(d) < std::fabs(limit[b])) {
      slowSum += d;
      ++slow;
    }
  }
  // Every pair slow (nothing left to average): keep the plain mean.
  const double kept = n - slow > 0 ? (sum - slowSum) / (n - slow) : mean;
  return {kept, std::sqrt(varAlong / n), std::sqrt(varAcross / n)};
}

}  // namespace

void ModuleTrack::UpdateMeanXYByPts() {
  const int n = prePtsCount;
  const size_t m = curPts.size();
  if (!bDirectionSet) {
    double sx = 0.0, sy = 0.0;
    for (size_t i = 0; i < m; ++i) {
      sx += prePts[i].x - curPts[i].x;
      sy += prePts[i].y - curPts[i].y;
    }
    meanOffX = sx / n;
    meanOffY = sy / n;
    const double mx = sx / static_cast<double>(m), my = sy / static_cast<double>(m);
    double vx = 0.0, vy = 0.0;
    for (size_t i = 0; i < m; ++i) {
      const double dx = prePts[i].x - curPts[i].x, dy = prePts[i].y - curPts[i].y;
      vx += (dx - mx) * (dx - mx);
      vy += (dy - my) * (dy - my);
    }
    stdOffX = std::sqrt(vx / n);
    stdOffY = std::sqrt(vy / n);
    return;
  }
  if (ZOLT_PANO_IsHorizontalSweep(moveDir)) {
    static const double kColumnBands[5] = {80, 140, 200, 260, 320};
    const BandMean r = bandMean<4>(prePts, curPts, n, true, kColumnBands);
    double sy = 0.0;
    for (size_t i = 0; i < m; ++i) sy += prePts[i].y - curPts[i].y;
    meanOffX = r.mean;
    meanOffY = sy / n;
    stdOffX = r.stdAlong;
    stdOffY = r.stdAcross;
  } else if (moveDir != MOVE_NONE) {
    static const double kRowBands[4] = {45, 90, 135, 180};
    const BandMean r = bandMean<3>(prePts, curPts, n, false, kRowBands);
    double sx = 0.0;
    for (size_t i = 0; i < m; ++i) sx += prePts[i].x - curPts[i].x;
    meanOffX = sx / n;
    meanOffY = r.mean;
    stdOffY = r.stdAlong;
    stdOffX = r.stdAcross;
  } else {
    meanOffX = 0.0;
    meanOffY = 0.0;
  }
}
