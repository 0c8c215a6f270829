#include "tools/gyro_alignment.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>

#include <opencv2/calib3d.hpp>

#include "image/nv21_img.h"
#include "sensor/gyroscope_lib/gyroscope_lib.h"
#include "tools/frame_source.h"
#include "tools/metrics.h"
#include "tracker/module_track.h"

namespace zolt::tools {
namespace {

constexpr double kPi = 3.14159265358979323846;

cv::Matx33d fromQuaternion(const double q[4]) {
  const double w = q[0], x = q[1], y = q[2], z = q[3];
  return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
          2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
          2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

// Pearson's correlation of two series of one length; 0 where either does not vary.
double pearson(const std::vector<double>& a, const std::vector<double>& b) {
  if (a.size() < 2) return 0;
  const cv::Mat ma(a), mb(b);
  cv::Scalar meanA, sdA, meanB, sdB;
  cv::meanStdDev(ma, meanA, sdA);
  cv::meanStdDev(mb, meanB, sdB);
  if (sdA[0] <= 0 || sdB[0] <= 0) return 0;
  return (ma - meanA[0]).dot(mb - meanB[0]) / static_cast<double>(a.size()) / (sdA[0] * sdB[0]);
}

// Least of f over [lo, hi] by golden-section search (f unimodal there).
double goldenMin(const std::function<double(double)>& f, double lo, double hi, int iterations) {
  const double g = (std::sqrt(5.0) - 1) / 2;
  double a = lo, b = hi, c = b - g * (b - a), d = a + g * (b - a);
  double fc = f(c), fd = f(d);
  for (int i = 0; i < iterations; ++i) {
    if (fc < fd) {
      b = d;
      d = c;
      fd = fc;
      c = b - g * (b - a);
      fc = f(c);
    } else {
      a = c;
      c = d;
      fc = fd;
      d = a + g * (b - a);
      fd = f(d);
    }
  }
  return (a + b) / 2;
}

// The pairs' camera rotations (reference inverted times current, camera axes) with the gyroscope
// read `offsetNs` after each frame's time. The pairs were chosen for a track that covers them at
// every offset searched.
void relativeRotations(const std::vector<const MotionPair*>& pairs, const AttitudeTrack& track,
                       int64_t offsetNs, std::vector<cv::Matx33d>& out) {
  out.resize(pairs.size());
  for (size_t i = 0; i < pairs.size(); ++i) {
    cv::Matx33d r0 = cv::Matx33d::eye(), r1 = cv::Matx33d::eye();
    track.at(pairs[i]->t0Ns + offsetNs, r0);
    track.at(pairs[i]->t1Ns + offsetNs, r1);
    const cv::Matx33d c0 = ModuleTrack::gyroToCameraAxes(r0.val);
    const cv::Matx33d c1 = ModuleTrack::gyroToCameraAxes(r1.val);
    out[i] = c0.t() * c1;
  }
}

cv::Matx33d squareCamera(double f, double cx, double cy) { return {f, 0, cx, 0, f, cy, 0, 0, 1}; }

// Errors larger than this (low-resolution pixels) count as this much in the search: a pair where
// vision followed something else than the camera's turn (a passing vehicle, the camera's own
// travel) must not pull the clock or the lens.
constexpr double kRobustPx = 2.0;

}  // namespace

AttitudeTrack::AttitudeTrack(std::vector<sim::GyroEvent> events) : history_(events.size()) {
  std::stable_sort(events.begin(), events.end(),
                   [](const sim::GyroEvent& a, const sim::GyroEvent& b) { return a.tNs < b.tNs; });
  android::Gyroscope_Lib lib;
  lib.initializeLib(5, nullptr);
  for (const sim::GyroEvent& e : events) {
    float w[3] = {static_cast<float>(e.rate[0]), static_cast<float>(e.rate[1]),
                  static_cast<float>(e.rate[2])};
    lib.processEvent(android::Gyroscope_Lib::kTypeGyroscope, w, e.tNs);
    double q[4];
    lib.quaternion(q);
    history_.add(e.tNs, q, w);
  }
}

bool AttitudeTrack::at(int64_t tNs, cv::Matx33d& rotation) const {
  double q[4];
  if (history_.at(tNs, q) != AttitudeHistory::Where::kInside) return false;
  rotation = fromQuaternion(q);
  return true;
}

VisionSteps::VisionSteps(int width, int height)
    : tracker_(std::make_unique<ModuleTrack>(width, height)) {}

VisionSteps::~VisionSteps() = default;

void VisionSteps::add(const uint8_t* nv21, int frame, int64_t tNs) {
  const int w = tracker_->frameWidth, h = tracker_->frameHeight;
  uint8_t* y = const_cast<uint8_t*>(nv21);  // only read
  __tag_ZOLT_OFFSCREEN rec{0, w, h, y, y + static_cast<size_t>(w) * h};
  NV21Img img;
  img.nvCreate_shared_instance(&rec);
  // Both RANSACs seeded by the frame: the same recording gives the same figures every run.
  cv::theRNG().state = 0x9e3779b97f4a7c15ull + static_cast<uint64_t>(frame);
  zolt::setRansacSeed(true, static_cast<uint32_t>(frame));
  MotionPair p;
  p.visionOk = tracker_->measureVisionStep(img, p.vision.x, p.vision.y, p.points);
  if (!started_) {
    started_ = true;
    firstNs_ = tNs;
  } else {
    p.frame = frame;
    p.t0Ns = lastNs_;
    p.t1Ns = tNs;
    p.timeS = static_cast<double>(tNs - firstNs_) * 1e-9;
    pairs_.push_back(std::move(p));
  }
  zolt::setRansacSeed(false, 0);
  lastNs_ = tNs;
}

cv::Point2d predictedMotion(const cv::Matx33d& k, const cv::Matx33d& relative,
                            const std::vector<cv::Point2f>& points) {
  // The current view's ray of each point turned into the reference's view (as the tracker's
  // homography K * R_ref^-1 * R_cur * K^-1 does), minus the point: where it lies in the
  // reference against where it lies now.
  const cv::Matx33d h = k * relative * k.inv();
  auto move = [&h](double x, double y) {
    const cv::Vec3d q = h * cv::Vec3d(x, y, 1.0);
    return cv::Point2d(q[0] / q[2] - x, q[1] / q[2] - y);
  };
  if (points.empty()) return move(k(0, 2), k(1, 2));
  cv::Point2d sum(0, 0);
  for (const cv::Point2f& p : points) sum += move(p.x, p.y);
  return sum / static_cast<double>(points.size());
}

double hfovForFocal(double f) { return 2 * std::atan(200.0 / f) * 180 / kPi; }

GyroAlignment alignGyroWithVision(const std::vector<MotionPair>& pairs, const AttitudeTrack& track,
                                  const ModuleTrack& camera, const AlignmentSearch& search) {
  GyroAlignment out;
  const int64_t rangeNs = std::llround(search.rangeMs * 1e6);
  // The pairs measured, which the gyroscope covers at every offset searched.
  std::vector<const MotionPair*> used;
  cv::Matx33d probe;
  for (const MotionPair& p : pairs)
    if (p.visionOk && track.at(p.t0Ns - rangeNs, probe) && track.at(p.t1Ns + rangeNs, probe))
      used.push_back(&p);
  out.pairs = static_cast<int>(used.size());
  const cv::Matx33d fixed(camera.camK.ptr<double>());
  const double fx = camera.fx, cx = camera.cx, cy = camera.cy;
  std::vector<cv::Matx33d> rel;

  // Per pair, the prediction's distance from vision.
  auto errors = [&](const cv::Matx33d& k, std::vector<cv::Point2d>& predicted) {
    std::vector<double> e(used.size());
    predicted.resize(used.size());
    for (size_t i = 0; i < used.size(); ++i) {
      predicted[i] = predictedMotion(k, rel[i], used[i]->points);
      e[i] = cv::norm(predicted[i] - used[i]->vision);
    }
    return e;
  };
  auto cost = [&](double scale) {
    const cv::Matx33d k = squareCamera(scale * fx, cx, cy);
    double c = 0;
    for (size_t i = 0; i < used.size(); ++i) {
      const cv::Point2d d = predictedMotion(k, rel[i], used[i]->points) - used[i]->vision;
      c += std::min(d.dot(d), kRobustPx * kRobustPx);
    }
    return c;
  };
  // For one clock offset: the best focal scale within [lo, hi] and its cost.
  auto fitAt = [&](double offsetMs, double lo, double hi, int iterations, double& scale) {
    relativeRotations(used, track, std::llround(offsetMs * 1e6), rel);
    scale = goldenMin(cost, lo, hi, iterations);
    return cost(scale);
  };

  auto report = [&](const cv::Matx33d& k, double& median, double& p95, double& corrX,
                    double& corrY, std::vector<cv::Point2d>& predicted) {
    const std::vector<double> e = errors(k, predicted);
    median = percentile(e, 0.5);
    p95 = percentile(e, 0.95);
    std::vector<double> px, py, vx, vy;
    for (size_t i = 0; i < used.size(); ++i) {
      px.push_back(predicted[i].x);
      py.push_back(predicted[i].y);
      vx.push_back(used[i]->vision.x);
      vy.push_back(used[i]->vision.y);
    }
    corrX = pearson(px, vx);
    corrY = pearson(py, vy);
  };

  if (out.pairs < search.minPairs) return out;
  // Before: the engine's fixed camera, the clocks as given.
  std::vector<cv::Point2d> raw, aligned;
  relativeRotations(used, track, 0, rel);
  report(fixed, out.medianErrorPxRaw, out.p95ErrorPxRaw, out.correlationXRaw,
         out.correlationYRaw, raw);

  // The clock: every 2 ms over the range (the scale to 0.3 %), then every 0.1 ms about the best
  // with the scale searched near the coarse one (to 0.01 %).
  double best = 0, bestCost = HUGE_VAL, scale = 1;
  for (double ms = -search.rangeMs; ms <= search.rangeMs + 1e-9; ms += 2.0) {
    double s = 1;
    const double c = fitAt(ms, search.minScale, search.maxScale, 12, s);
    if (c < bestCost) bestCost = c, best = ms, scale = s;
  }
  const double coarse = best, lo = std::max(search.minScale, scale * 0.97),
               hi = std::min(search.maxScale, scale * 1.03);
  for (double ms = coarse - 2.0; ms <= coarse + 2.0 + 1e-9; ms += 0.1) {
    if (std::fabs(ms) > search.rangeMs + 1e-9) continue;
    double s = 1;
    const double c = fitAt(ms, lo, hi, 12, s);
    if (c < bestCost) bestCost = c, best = ms;
  }
  fitAt(best, lo, hi, 16, scale);
  out.timeOffsetMs = best;
  out.focalScale = scale;
  out.hfovDeg = hfovForFocal(scale * fx);
  out.found = std::fabs(best) < search.rangeMs - 1.0 && scale > search.minScale * 1.01 &&
              scale < search.maxScale * 0.99;
  report(squareCamera(scale * fx, cx, cy), out.medianErrorPx, out.p95ErrorPx, out.correlationX,
         out.correlationY, aligned);
  for (size_t i = 0; i < used.size(); ++i)
    out.series.push_back({used[i]->timeS, used[i]->vision, raw[i], aligned[i]});
  return out;
}

GyroAlignment alignGyroOnFrames(FrameSource& frames, const std::vector<sim::GyroEvent>& events,
                                double seconds, const AlignmentSearch& search) {
  using Clock = std::chrono::steady_clock;
  auto msSince = [](Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
  };
  double readMs = 0, visionMs = 0;
  const AttitudeTrack track(events);
  VisionSteps vision(frames.width(), frames.height());
  std::vector<uint8_t> nv21;
  for (;;) {
    auto t = Clock::now();
    const int index = frames.nextIndex();
    if (!frames.next(nv21)) break;
    readMs += msSince(t);
    if (seconds > 0 && !vision.pairs().empty() && vision.pairs().back().timeS > seconds) break;
    t = Clock::now();
    vision.add(nv21.data(), index, frames.clockOriginNs() + std::llround(frames.timeMs() * 1e6));
    visionMs += msSince(t);
  }
  const auto t = Clock::now();
  GyroAlignment a = alignGyroWithVision(vision.pairs(), track, vision.tracker(), search);
  a.alignMs = msSince(t);
  a.readMs = readMs;
  a.visionMs = visionMs;
  return a;
}

}  // namespace zolt::tools
