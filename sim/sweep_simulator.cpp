#include "sim/sweep_simulator.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "image/colour_convert.h"
#include "sim/sim_error.h"
#include "sim/sim_random.h"

namespace zolt::sim {
namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kMargin = 3.0;        // photo pixels kept free for the bicubic kernel
constexpr double kMaxPitch = 80.0 * kPi / 180.0;
constexpr int kGrid = 8;               // rotate model: exact projection every kGrid pixels

std::string sizeText(double w, double h) {
  return std::to_string(static_cast<long long>(std::ceil(w))) + "x" +
         std::to_string(static_cast<long long>(std::ceil(h)));
}

// Translate-model positions are kept on a 1/32 pixel grid: the resampler interpolates at that
// precision, so the truth is what was rendered.
double onGrid(double v) { return std::round(v * 32.0) / 32.0; }

double wrapPi(double a) {
  a = std::fmod(a + kPi, 2.0 * kPi);
  if (a < 0) a += 2.0 * kPi;
  return a - kPi;
}

// Adds zero-mean Gaussian noise of the given sigma to n bytes. The noise is drawn from 1024
// equally likely quantiles of the normal distribution, which is plenty for sensor noise and
// keeps this cheap (it runs over every byte of every frame).
void addNoise(uint8_t* p, size_t n, double sigma, SimRandom& rng) {
  if (sigma <= 0.0) return;
  constexpr int kLevels = 1024;
  int16_t table[kLevels];
  for (int i = 0; i < kLevels; ++i) {
    const double q = (i + 0.5) / kLevels;
    double lo = -6.0, hi = 6.0;  // normal quantile by bisection on erfc
    for (int it = 0; it < 40; ++it) {
      const double mid = 0.5 * (lo + hi);
      (0.5 * std::erfc(-mid / std::sqrt(2.0)) < q ? lo : hi) = mid;
    }
    table[i] = static_cast<int16_t>(std::lround(sigma * 0.5 * (lo + hi)));
  }
  uint8_t clampTab[256 + 2 * 512];  // v + 512 -> clamp(v, 0, 255)
  for (int v = -512; v < 256 + 512; ++v)
    clampTab[v + 512] = static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
  size_t i = 0;
  while (i < n) {
    uint64_t r = rng.next();
    for (int j = 0; j < 6 && i < n; ++j, ++i, r >>= 10) {
      const int d = std::clamp<int>(table[r & (kLevels - 1)], -512, 511);
      p[i] = clampTab[p[i] + d + 512];
    }
  }
}

// Catmull-Rom weights of the four taps around a sample at fraction f in [0, 1).
void cubicWeights(double f, float w[4]) {
  const double f2 = f * f, f3 = f2 * f;
  w[0] = static_cast<float>(-0.5 * f3 + f2 - 0.5 * f);
  w[1] = static_cast<float>(1.5 * f3 - 2.5 * f2 + 1.0);
  w[2] = static_cast<float>(-1.5 * f3 + 2.0 * f2 + 0.5 * f);
  w[3] = static_cast<float>(0.5 * f3 - 0.5 * f2);
}

// Box of length len (pixels, may be fractional) centred on 0, as an odd 1-D kernel.
cv::Mat boxKernel(double len) {
  const int half = static_cast<int>(std::ceil(len / 2.0 + 0.5));
  cv::Mat k(2 * half + 1, 1, CV_32F);
  double sum = 0.0;
  for (int i = -half; i <= half; ++i) {
    const double w = std::max(0.0, std::min(i + 0.5, len / 2.0) - std::max(i - 0.5, -len / 2.0));
    k.at<float>(i + half) = static_cast<float>(w);
    sum += w;
  }
  k /= sum;
  return k;
}

// Box blur of length len along one axis: a fractional-end kernel while short, the running-sum
// box filter (cost independent of the length) when long.
void axisBlur(cv::Mat& bgr, double len, bool alongX) {
  if (len > 16.0) {
    const int n = 2 * static_cast<int>(std::lround(len / 2.0)) + 1;  // odd: nothing moves
    cv::blur(bgr, bgr, alongX ? cv::Size(n, 1) : cv::Size(1, n), cv::Point(-1, -1),
             cv::BORDER_REFLECT);
    return;
  }
  const cv::Mat one = cv::Mat::ones(1, 1, CV_32F);
  cv::sepFilter2D(bgr, bgr, -1, alongX ? boxKernel(len) : one, alongX ? one : boxKernel(len),
                  cv::Point(-1, -1), 0, cv::BORDER_REFLECT);
}

// Blur along the motion b (frame pixels during the exposure), centred so nothing moves.
void motionBlur(cv::Mat& bgr, cv::Point2d b) {
  const double ax = std::fabs(b.x), ay = std::fabs(b.y);
  if (std::max(ax, ay) < 0.5) return;
  if (ay <= 0.3 * ax) return axisBlur(bgr, ax, true);
  if (ax <= 0.3 * ay) return axisBlur(bgr, ay, false);
  // Oblique: the mean of copies shifted along the segment (whole-pixel shifts, at most 32).
  const int n = std::min(32, static_cast<int>(std::ceil(std::max(ax, ay))) + 1);
  const int px = static_cast<int>(std::ceil(ax / 2)) + 1, py = static_cast<int>(std::ceil(ay / 2)) + 1;
  cv::Mat padded, acc(bgr.size(), CV_16UC3, cv::Scalar::all(0)), part;
  cv::copyMakeBorder(bgr, padded, py, py, px, px, cv::BORDER_REFLECT);
  for (int i = 0; i < n; ++i) {
    const double f = n > 1 ? static_cast<double>(i) / (n - 1) - 0.5 : 0.0;
    const int ox = static_cast<int>(std::lround(f * b.x)), oy = static_cast<int>(std::lround(f * b.y));
    padded(cv::Rect(px + ox, py + oy, bgr.cols, bgr.rows)).convertTo(part, CV_16UC3);
    acc += part;
  }
  acc.convertTo(bgr, CV_8UC3, 1.0 / n);
}

}  // namespace

SweepSimulator::SweepSimulator(const SweepConfig& cfg) : cfg_(cfg) {
  cfg_.validate();
  if (cfg_.photoPath.empty()) throw SimError("no photo given");
  cv::Mat photo;
  try {
    photo = cv::imread(cfg_.photoPath, cv::IMREAD_COLOR);
  } catch (const cv::Exception&) {
    photo.release();
  }
  if (photo.empty()) throw SimError("cannot read photo '" + cfg_.photoPath + "'");
  build(photo);
}

SweepSimulator::SweepSimulator(const SweepConfig& cfg, const cv::Mat& photoBgr) : cfg_(cfg) {
  cfg_.validate();
  if (photoBgr.empty() || photoBgr.type() != CV_8UC3)
    throw SimError("the photo must be a non-empty 8-bit BGR image");
  build(photoBgr);
}

cv::Matx33d SweepSimulator::cameraToSensor() const {
  if (cfg_.width >= cfg_.height) return {0, -1, 0, -1, 0, 0, 0, 0, -1};
  return {1, 0, 0, 0, -1, 0, 0, 0, -1};
}

cv::Point2d SweepSimulator::sceneToPhoto(cv::Point2d rel) const {
  switch (cfg_.direction) {
    case SweepDirection::Right: return origin_ + cv::Point2d(rel.x, rel.y);
    case SweepDirection::Left: return origin_ + cv::Point2d(-rel.x, rel.y);
    case SweepDirection::Down: return origin_ + cv::Point2d(rel.y, rel.x);
    case SweepDirection::Up: return origin_ + cv::Point2d(rel.y, -rel.x);
  }
  return origin_;
}

SweepSimulator::Pose SweepSimulator::poseAt(double t) const {
  const PlanSample s = plan_->at(t);
  Pose p;
  p.centre = sceneToPhoto({s.along, s.across});
  p.roll = s.roll;
  const double w = (p.centre.x - middle_.x) / cam_.fx;
  const double h = (p.centre.y - middle_.y) / cam_.fy;
  if (cfg_.horizontalSweep()) {  // photo on a cylinder about the vertical axis
    p.yaw = w;
    p.pitch = std::atan(h);
  } else {  // about the horizontal axis
    const double dx = w, dy = std::sin(h), dz = std::cos(h);
    const double n = std::sqrt(dx * dx + dy * dy + dz * dz);
    p.pitch = std::asin(dy / n);
    p.yaw = std::atan2(dx, dz);
  }
  return p;
}

cv::Matx33d SweepSimulator::rotationOf(const Pose& p) const {
  const double cy = std::cos(p.yaw), sy = std::sin(p.yaw);
  const double cp = std::cos(-p.pitch), sp = std::sin(-p.pitch);
  const double cr = std::cos(p.roll), sr = std::sin(p.roll);
  const cv::Matx33d ry(cy, 0, sy, 0, 1, 0, -sy, 0, cy);
  const cv::Matx33d rx(1, 0, 0, 0, cp, -sp, 0, sp, cp);
  const cv::Matx33d rz(cr, -sr, 0, sr, cr, 0, 0, 0, 1);
  return ry * rx * rz;
}

cv::Matx33d SweepSimulator::attitudeAt(double tSeconds) const {
  return rotationOf(poseAt(tSeconds * cfg_.fps));
}

cv::Point2d SweepSimulator::project(const cv::Matx33d& r, double u, double v) const {
  const cv::Vec3d d = r * cv::Vec3d((u - cam_.cx) / cam_.fx, (v - cam_.cy) / cam_.fy, 1.0);
  if (cfg_.horizontalSweep()) {
    // Unwrap the angle around the view direction so that sweeps beyond half a turn work.
    const double yaw = std::atan2(r(0, 2), r(2, 2));
    const double theta = yaw + wrapPi(std::atan2(d[0], d[2]) - yaw);
    return {middle_.x + cam_.fx * theta, middle_.y + cam_.fy * d[1] / std::hypot(d[0], d[2])};
  }
  return {middle_.x + cam_.fx * d[0] / std::hypot(d[1], d[2]),
          middle_.y + cam_.fy * std::atan2(d[1], d[2])};
}

cv::Rect2d SweepSimulator::footprint(const Pose& p) const {
  const double w = cfg_.width - 1.0, h = cfg_.height - 1.0;
  double x0 = std::numeric_limits<double>::max(), y0 = x0, x1 = -x0, y1 = -x0;
  auto take = [&](cv::Point2d q) {
    x0 = std::min(x0, q.x), x1 = std::max(x1, q.x), y0 = std::min(y0, q.y), y1 = std::max(y1, q.y);
  };
  if (cfg_.model == CameraModel::Translate) {
    const double c = std::cos(p.roll), s = std::sin(p.roll);
    for (double u : {0.0, w})
      for (double v : {0.0, h}) {
        const double du = u - cam_.cx, dv = v - cam_.cy;
        take({p.centre.x + c * du - s * dv, p.centre.y + s * du + c * dv});
      }
  } else {
    const cv::Matx33d r = rotationOf(p);
    const int n = 8;
    for (int i = 0; i <= n; ++i) {
      const double f = static_cast<double>(i) / n;
      take(project(r, f * w, 0.0));
      take(project(r, f * w, h));
      take(project(r, 0.0, f * h));
      take(project(r, w, f * h));
    }
  }
  return {x0, y0, x1 - x0, y1 - y0};
}

// With origin_ at (0, 0): the bounds of every frame's footprint and of the view centres; false
// when they do not fit the photo.
bool SweepSimulator::fits(cv::Rect2d* bounds, cv::Rect2d* centres) const {
  double cx0 = std::numeric_limits<double>::max(), cy0 = cx0, cx1 = -cx0, cy1 = -cx0;
  double bx0 = cx0, by0 = cx0, bx1 = -cx0, by1 = -cx0;
  bool pitchOk = true;
  for (int k = 0; k < plan_->frames(); ++k) {
    const Pose p = poseAt(k);
    cx0 = std::min(cx0, p.centre.x), cx1 = std::max(cx1, p.centre.x);
    cy0 = std::min(cy0, p.centre.y), cy1 = std::max(cy1, p.centre.y);
    const cv::Rect2d f = footprint(p);
    bx0 = std::min(bx0, f.x), bx1 = std::max(bx1, f.x + f.width);
    by0 = std::min(by0, f.y), by1 = std::max(by1, f.y + f.height);
    if (std::fabs(p.pitch) > kMaxPitch) pitchOk = false;
  }
  *centres = {cx0, cy0, cx1 - cx0, cy1 - cy0};
  *bounds = {bx0, by0, bx1 - bx0, by1 - by0};
  return pitchOk && bounds->width <= photo_.cols - 1 - 2 * kMargin &&
         bounds->height <= photo_.rows - 1 - 2 * kMargin;
}

cv::Point2d SweepSimulator::choosePlacement(const cv::Rect2d& b) const {
  const double loX = kMargin - b.x, hiX = photo_.cols - 1 - kMargin - (b.x + b.width);
  const double loY = kMargin - b.y, hiY = photo_.rows - 1 - kMargin - (b.y + b.height);
  if (!cfg_.textureless) return {0.5 * (loX + hiX), 0.5 * (loY + hiY)};
  // The flattest place: least summed gradient over the swept rectangle, on a 4x smaller copy.
  const int f = 4;
  cv::Mat grey, small, gx, gy, mag, integ;
  cv::cvtColor(photo_, grey, cv::COLOR_BGR2GRAY);
  cv::resize(grey, small, cv::Size(), 1.0 / f, 1.0 / f, cv::INTER_AREA);
  cv::Sobel(small, gx, CV_32F, 1, 0);
  cv::Sobel(small, gy, CV_32F, 0, 1);
  mag = cv::abs(gx) + cv::abs(gy);
  cv::integral(mag, integ, CV_64F);
  const int w = std::max(1, static_cast<int>(std::ceil(b.width / f)));
  const int h = std::max(1, static_cast<int>(std::ceil(b.height / f)));
  cv::Point2d best(0.5 * (loX + hiX), 0.5 * (loY + hiY));
  double bestCost = std::numeric_limits<double>::max();
  for (double oy = loY; oy <= hiY; oy += f) {
    for (double ox = loX; ox <= hiX; ox += f) {
      const int x = std::clamp(static_cast<int>((ox + b.x) / f), 0, small.cols - 1);
      const int y = std::clamp(static_cast<int>((oy + b.y) / f), 0, small.rows - 1);
      const int x2 = std::min(small.cols, x + w), y2 = std::min(small.rows, y + h);
      const double cost = integ.at<double>(y2, x2) - integ.at<double>(y, x2) -
                          integ.at<double>(y2, x) + integ.at<double>(y, x);
      if (cost < bestCost) bestCost = cost, best = {ox, oy};
    }
  }
  return best;
}

void SweepSimulator::build(const cv::Mat& photo) {
  if (cfg_.photoScale != 1.0) {
    const cv::Size s(static_cast<int>(std::lround(photo.cols * cfg_.photoScale)),
                     static_cast<int>(std::lround(photo.rows * cfg_.photoScale)));
    if (s.width > 32000 || s.height > 32000)
      throw SimError("photo " + sizeText(s.width, s.height) + " after scaling is too large");
    if (s.width < 1 || s.height < 1) throw SimError("photo scale leaves no pixels");
    cv::resize(photo, photo_, s, 0, 0, cfg_.photoScale < 1.0 ? cv::INTER_AREA : cv::INTER_CUBIC);
  } else {
    if (photo.cols > 32000 || photo.rows > 32000)
      throw SimError("photo " + sizeText(photo.cols, photo.rows) + " is too large");
    photo_ = photo;
  }
  if (photo_.cols < cfg_.width + 2 * kMargin + 1 || photo_.rows < cfg_.height + 2 * kMargin + 1)
    throw SimError("photo " + sizeText(photo_.cols, photo_.rows) + " is smaller than the frame " +
                   sizeText(cfg_.width, cfg_.height) + " (with a " +
                   std::to_string(static_cast<int>(kMargin)) + " pixel border)");

  cam_.hfovDeg = cfg_.horizontalFovDeg();
  cam_.vfovDeg = cfg_.verticalFovDeg();
  cfg_.hfovDeg = cam_.hfovDeg;
  cfg_.vfovDeg = cam_.vfovDeg;
  cam_.fx = cfg_.width / (2.0 * std::tan(cam_.hfovDeg * kPi / 360.0));
  cam_.fy = cfg_.height / (2.0 * std::tan(cam_.vfovDeg * kPi / 360.0));
  cam_.cx = (cfg_.width - 1) * 0.5;
  cam_.cy = (cfg_.height - 1) * 0.5;
  const bool horizontal = cfg_.horizontalSweep();
  alongSize_ = horizontal ? cfg_.width : cfg_.height;
  acrossSize_ = horizontal ? cfg_.height : cfg_.width;

  // Frame count: the one asked for, or the longest sweep the photo holds.
  cv::Rect2d bounds, centres;
  auto tryFrames = [&](int n) {
    plan_ = std::make_unique<SweepPlan>(cfg_, n, alongSize_, acrossSize_);
    origin_ = {0.0, 0.0};
    middle_ = {0.0, 0.0};
    // The middle depends on the centres, the footprints on the middle: two passes.
    fits(&bounds, &centres);
    middle_ = {centres.x + 0.5 * centres.width, centres.y + 0.5 * centres.height};
    return fits(&bounds, &centres) && plan_->complete();
  };
  const char* const kEvents =
      " (with its burst, steps back, jolts or turn; try a larger --photo-scale or a wider photo)";
  if (cfg_.frames > 0) {
    if (!tryFrames(cfg_.frames) && !plan_->complete())
      throw SimError("a sweep of " + std::to_string(cfg_.frames) +
                     " frames is too short for the events it asks for (burst, steps back, "
                     "jolts, turn, pauses)");
    if (!fits(&bounds, &centres))
      throw SimError("a sweep of " + std::to_string(cfg_.frames) + " frames needs " +
                     sizeText(bounds.width + 2 * kMargin + 1, bounds.height + 2 * kMargin + 1) +
                     " scene pixels" +
                     (cfg_.model == CameraModel::Rotate && !horizontal
                          ? std::string(" and at most 80 degrees of pitch")
                          : std::string()) +
                     " but the photo has " + sizeText(photo_.cols, photo_.rows) +
                     ": use fewer frames, a lower speed or a larger photo scale");
  } else {
    const double photoAlong = horizontal ? photo_.cols : photo_.rows;
    double room = photoAlong - 2 * kMargin - 1 - alongSize_;
    if (cfg_.burstSpeed > 0.0)  // the burst's own travel (peak, and ramps of about 0.5 L)
      room -= (cfg_.burstFrames * cfg_.burstSpeed + 0.5) * alongSize_;
    int n = static_cast<int>(room / (cfg_.speed * alongSize_)) + 1;
    n = std::clamp(n, 2, 100000);
    if (cfg_.textureless) n = std::min(n, 60);
    while (!tryFrames(n)) {
      if (n <= 2 || !plan_->complete())
        throw SimError("photo " + sizeText(photo_.cols, photo_.rows) +
                       " is too small for this sweep" + (plan_->complete() ? "" : kEvents));
      n = std::max(2, std::min(n - 1, static_cast<int>(n * 0.97)));
    }
    cfg_.frames = n;
  }

  // Place the sweep in the photo.
  const cv::Point2d o = choosePlacement(bounds);
  origin_ = o;
  middle_ += o;

  const int n = cfg_.frames;
  std::vector<Pose> poses(n);
  double x0 = std::numeric_limits<double>::max(), y0 = x0, x1 = -x0, y1 = -x0;
  for (int k = 0; k < n; ++k) {
    poses[k] = poseAt(k);
    if (cfg_.model == CameraModel::Translate) {
      poses[k].centre.x = onGrid(poses[k].centre.x - cam_.cx) + cam_.cx;
      poses[k].centre.y = onGrid(poses[k].centre.y - cam_.cy) + cam_.cy;
    }
    const cv::Rect2d f = footprint(poses[k]);
    x0 = std::min(x0, f.x), x1 = std::max(x1, f.x + f.width);
    y0 = std::min(y0, f.y), y1 = std::max(y1, f.y + f.height);
  }
  // The swept region, whole pixels, even sizes for NV21.
  const int rx0 = std::max(0, static_cast<int>(std::floor(x0)));
  const int ry0 = std::max(0, static_cast<int>(std::floor(y0)));
  int rw = std::min(photo_.cols, static_cast<int>(std::ceil(x1)) + 1) - rx0;
  int rh = std::min(photo_.rows, static_cast<int>(std::ceil(y1)) + 1) - ry0;
  if (rw % 2) rw += rx0 + rw < photo_.cols ? 1 : -1;
  if (rh % 2) rh += ry0 + rh < photo_.rows ? 1 : -1;
  region_ = {rx0, ry0, rw, rh};

  truth_.resize(n);
  for (int k = 0; k < n; ++k) {
    TruthRecord& t = truth_[k];
    t.frame = k;
    t.tNs = std::llround(k * 1e9 / cfg_.fps);
    t.x = poses[k].centre.x - cam_.cx - region_.x;
    t.y = poses[k].centre.y - cam_.cy - region_.y;
    t.dx = t.x - truth_[0].x;
    t.dy = t.y - truth_[0].y;
    t.yaw = poses[k].yaw;
    t.pitch = poses[k].pitch;
    t.roll = poses[k].roll;
    t.gain = cfg_.exposureDrift > 0.0 ? plan_->gain(k) : 1.0;
    t.phase = plan_->phase(k);
  }

  // Gyroscope: body rates from the attitude by a central difference, in sensor axes.
  const cv::Matx33d toSensor = cameraToSensor();
  SimRandom rng(cfg_.seed, 0x6779726full);  // "gyro"
  const double tLast = (n - 1) / cfg_.fps;
  const double h = 1e-4;
  const int64_t offsetNs = std::llround(cfg_.gyroTimeOffsetMs * 1e6);
  for (int64_t j = 0;; ++j) {
    const double t = j / cfg_.gyroRateHz;
    if (t > tLast + 1e-9) break;
    const cv::Matx33d m = attitudeAt(t - h).t() * attitudeAt(t + h);
    const cv::Vec3d wCam((m(2, 1) - m(1, 2)) / (4 * h), (m(0, 2) - m(2, 0)) / (4 * h),
                         (m(1, 0) - m(0, 1)) / (4 * h));
    const cv::Vec3d wSensor = toSensor * wCam;
    GyroEvent e;
    e.tNs = std::llround(t * 1e9) + offsetNs;
    for (int a = 0; a < 3; ++a)
      e.rate[a] = wSensor[a] + cfg_.gyroBias[a] + (cfg_.gyroNoise > 0 ? cfg_.gyroNoise * rng.normal() : 0.0);
    gyro_.push_back(e);
  }
  gyroEnd_.resize(n);
  size_t idx = 0;
  for (int k = 0; k < n; ++k) {
    while (idx < gyro_.size() && gyro_[idx].tNs <= truth_[k].tNs) ++idx;
    gyroEnd_[k] = idx;
  }
}

void SweepSimulator::renderBgr(int k, cv::Mat& bgr) const {
  const TruthRecord& t = truth_[k];
  const double px = t.x + region_.x + cam_.cx, py = t.y + region_.y + cam_.cy;
  bgr.create(cfg_.height, cfg_.width, CV_8UC3);
  if (cfg_.model == CameraModel::Translate && t.roll == 0.0) {
    // Pure translation: the integer part picks the window, the fraction is a separable cubic.
    const double ox = px - cam_.cx, oy = py - cam_.cy;
    const int ix = static_cast<int>(std::floor(ox)), iy = static_cast<int>(std::floor(oy));
    float wx[4], wy[4];
    cubicWeights(ox - ix, wx);
    cubicWeights(oy - iy, wy);
    const cv::Rect src(ix - 1, iy - 1, cfg_.width + 3, cfg_.height + 3);  // inside: see fits()
    cv::Mat tmp;
    cv::sepFilter2D(photo_(src), tmp, -1, cv::Mat(1, 4, CV_32F, wx), cv::Mat(4, 1, CV_32F, wy),
                    cv::Point(0, 0), 0, cv::BORDER_REPLICATE);
    tmp(cv::Rect(0, 0, cfg_.width, cfg_.height)).copyTo(bgr);
    return;
  }
  if (cfg_.model == CameraModel::Translate) {
    const double c = std::cos(t.roll), s = std::sin(t.roll);
    const cv::Matx23d m(c, -s, px - c * cam_.cx + s * cam_.cy,  //
                        s, c, py - s * cam_.cx - c * cam_.cy);
    cv::warpAffine(photo_, bgr, m, bgr.size(), cv::INTER_LINEAR | cv::WARP_INVERSE_MAP,
                   cv::BORDER_REPLICATE);
    return;
  }
  Pose p;
  p.yaw = t.yaw, p.pitch = t.pitch, p.roll = t.roll;
  const cv::Matx33d r = rotationOf(p);
  // Exact projection on a coarse grid, bilinear in between (the mapping is smooth: the error
  // is far below 0.01 pixel).
  const int gw = (cfg_.width - 1 + kGrid - 1) / kGrid + 2, gh = (cfg_.height - 1 + kGrid - 1) / kGrid + 2;
  std::vector<cv::Point2d> grid(static_cast<size_t>(gw) * gh);
  for (int j = 0; j < gh; ++j)
    for (int i = 0; i < gw; ++i) grid[static_cast<size_t>(j) * gw + i] = project(r, i * kGrid, j * kGrid);
  cv::Mat mapX(cfg_.height, cfg_.width, CV_32F), mapY(cfg_.height, cfg_.width, CV_32F);
  for (int v = 0; v < cfg_.height; ++v) {
    const int j = v / kGrid;
    const double fy = static_cast<double>(v - j * kGrid) / kGrid;
    const cv::Point2d* g0 = &grid[static_cast<size_t>(j) * gw];
    const cv::Point2d* g1 = g0 + gw;
    float* mx = mapX.ptr<float>(v);
    float* my = mapY.ptr<float>(v);
    for (int u = 0; u < cfg_.width; ++u) {
      const int i = u / kGrid;
      const double fx = static_cast<double>(u - i * kGrid) / kGrid;
      const cv::Point2d top = g0[i] + (g0[i + 1] - g0[i]) * fx;
      const cv::Point2d bottom = g1[i] + (g1[i + 1] - g1[i]) * fx;
      const cv::Point2d q = top + (bottom - top) * fy;
      mx[u] = static_cast<float>(q.x);
      my[u] = static_cast<float>(q.y);
    }
  }
  cv::remap(photo_, bgr, mapX, mapY, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
}

cv::Mat SweepSimulator::renderSharpBgr(int k) const {
  if (k < 0 || k >= cfg_.frames) throw SimError("frame index out of range");
  cv::Mat bgr;
  renderBgr(k, bgr);
  return bgr;
}

void SweepSimulator::renderFrame(int k, SimFrame& out) const {
  if (k < 0 || k >= cfg_.frames) throw SimError("frame index out of range");
  cv::Mat bgr;
  renderBgr(k, bgr);
  const TruthRecord& t = truth_[k];
  if (cfg_.blurExposure > 0.0) {
    const double e = 0.5 * cfg_.blurExposure;
    const cv::Point2d b = poseAt(k + e).centre - poseAt(k - e).centre;
    const double c = std::cos(t.roll), s = std::sin(t.roll);
    motionBlur(bgr, {c * b.x + s * b.y, -s * b.x + c * b.y});  // into frame axes
  }
  if (t.gain != 1.0) bgr.convertTo(bgr, -1, t.gain, 0.0);

  out.index = k;
  out.tNs = t.tNs;
  out.width = cfg_.width;
  out.height = cfg_.height;
  out.truth = t;
  out.nv21.resize(frameBytes());
  uint8_t* y = out.nv21.data();
  uint8_t* vu = y + static_cast<size_t>(cfg_.width) * cfg_.height;
  const size_t vuSize = frameBytes() - static_cast<size_t>(cfg_.width) * cfg_.height;
  bgrToNv21(colourKernels(), bgr.data, bgr.step, bgr.rows, bgr.cols, y, vu, vuSize);
  if (cfg_.noiseSigma > 0.0) {
    SimRandom rng(cfg_.seed, 0x6e6f697365000000ull + static_cast<uint64_t>(k));  // "noise"
    addNoise(y, static_cast<size_t>(cfg_.width) * cfg_.height, cfg_.noiseSigma, rng);
    addNoise(vu, vuSize, 0.5 * cfg_.noiseSigma, rng);
  }
  const size_t begin = k == 0 ? 0 : gyroEnd_[k - 1];
  out.gyro.assign(gyro_.begin() + static_cast<std::ptrdiff_t>(begin),
                  gyro_.begin() + static_cast<std::ptrdiff_t>(gyroEnd_[k]));
}

bool SweepSimulator::next(SimFrame& out) {
  if (next_ >= cfg_.frames) return false;
  renderFrame(next_++, out);
  return true;
}

cv::Mat SweepSimulator::truthPanorama() const {
  const cv::Mat crop = photo_(region_);
  std::vector<uint8_t> nv21(static_cast<size_t>(region_.width) * region_.height * 3 / 2);
  uint8_t* y = nv21.data();
  uint8_t* vu = y + static_cast<size_t>(region_.width) * region_.height;
  const size_t vuSize = nv21.size() - static_cast<size_t>(region_.width) * region_.height;
  const ColourKernels& k = colourKernels();
  bgrToNv21(k, crop.data, crop.step, crop.rows, crop.cols, y, vu, vuSize);
  cv::Mat out(region_.height, region_.width, CV_8UC3);
  nv21ToBgr(k, y, vu, vuSize, region_.width, region_.height, out.data, out.step, 0, 0,
            region_.width, region_.height);
  return out;
}

}  // namespace zolt::sim
