#include "sensor/gyroscope_lib/gyroscope_lib.h"

#include <cmath>

namespace android {
namespace {

// a * b, both w, x, y, z.
inline void quatMultiply(const double a[4], const double b[4], double out[4]) {
  const double w = a[0] * b[0] - a[1] * b[1] - a[2] * b[2] - a[3] * b[3];
  const double x = a[0] * b[1] + a[1] * b[0] + a[2] * b[3] - a[3] * b[2];
  const double y = a[0] * b[2] - a[1] * b[3] + a[2] * b[0] + a[3] * b[1];
  const double z = a[0] * b[3] + a[1] * b[2] - a[2] * b[1] + a[3] * b[0];
  out[0] = w;
  out[1] = x;
  out[2] = y;
  out[3] = z;
}

// Row-major 3x3 rotation of a unit quaternion.
inline void quatToMatrix(const double q[4], double r[9]) {
  const double w = q[0], x = q[1], y = q[2], z = q[3];
  r[0] = 1 - 2 * (y * y + z * z);
  r[1] = 2 * (x * y - w * z);
  r[2] = 2 * (x * z + w * y);
  r[3] = 2 * (x * y + w * z);
  r[4] = 1 - 2 * (x * x + z * z);
  r[5] = 2 * (y * z - w * x);
  r[6] = 2 * (x * z - w * y);
  r[7] = 2 * (y * z + w * x);
  r[8] = 1 - 2 * (x * x + y * y);
}

// exp(w * seconds) for the body rate w, rad/s.
inline void quatTurn(const double w[3], double seconds, double step[4]) {
  const double rate = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);  // rad/s
  const double half = 0.5 * rate * seconds;                               // half the turn, rad
  // sin(half) / rate, with its limit seconds / 2 for a vanishing rate.
  const double k = half > 1e-12 ? std::sin(half) / rate : 0.5 * seconds;
  step[0] = std::cos(half);
  step[1] = w[0] * k;
  step[2] = w[1] * k;
  step[3] = w[2] * k;
}

// Landscape camera angles of the phone -> world rotation r: roll, yaw, pitch (see the header).
inline void anglesOfRotation(const double r[9], float angles[3]) {
  // C = T r T with T = T^T = rows (0,-1,0), (-1,0,0), (0,0,-1): C[i][j] = s_i s_j r[p_i][p_j]
  // with p = (1, 0, 2) and s = (-1, -1, -1), so the signs cancel.
  const int p[3] = {1, 0, 2};
  double c[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) c[i][j] = r[p[i] * 3 + p[j]];
  // C = Ry(yaw) Rx(pitch) Rz(roll): C[1][2] = -sin(pitch), C[0][2] / C[2][2] = tan(yaw),
  // C[1][0] / C[1][1] = tan(roll).
  const double s = std::fmax(-1.0, std::fmin(1.0, -c[1][2]));
  const double pitch = std::asin(s);
  double yaw, roll;
  if (std::fabs(s) < 1.0 - 1e-12) {
    yaw = std::atan2(c[0][2], c[2][2]);
    roll = std::atan2(c[1][0], c[1][1]);
  } else {  // straight up or down: yaw and roll share one axis; put it all in yaw
    yaw = std::atan2(-c[2][0], c[0][0]);
    roll = 0;
  }
  angles[0] = static_cast<float>(roll);
  angles[1] = static_cast<float>(yaw);
  angles[2] = static_cast<float>(pitch);
}

}  // namespace

// Exported for readers of the attitudes. The library's own event path calls the functions above
// directly; they are marked inline so that these second callers do not keep the compiler from
// inlining them there (3 ns of an event's 62 otherwise).
void Gyroscope_Lib::multiply(const double a[4], const double b[4], double out[4]) {
  quatMultiply(a, b, out);
}
void Gyroscope_Lib::toMatrix(const double q[4], double r[9]) { quatToMatrix(q, r); }
void Gyroscope_Lib::turn(const double w[3], double seconds, double step[4]) {
  quatTurn(w, seconds, step);
}
void Gyroscope_Lib::cameraAngles(const double r[9], float angles[3]) {
  anglesOfRotation(r, angles);
}

Gyroscope_Lib::Gyroscope_Lib() = default;
Gyroscope_Lib::~Gyroscope_Lib() = default;

int Gyroscope_Lib::initializeLib(int options, callbackFunc* callbacks) {
  options_ = options;
  callbacks_ = callbacks;
  q_[0] = 1;
  q_[1] = q_[2] = q_[3] = 0;
  clockStarted_ = false;
  clockNs_ = 0;
  return 0;
}

int Gyroscope_Lib::processEvent(int type, float* values, long long timestampNs) {
  if (type != kTypeGyroscope || values == nullptr) return -1;
  if (!clockStarted_) {
    clockStarted_ = true;
    clockNs_ = timestampNs;
  } else if (timestampNs > clockNs_) {
    const long long intervalNs = timestampNs - clockNs_;
    clockNs_ = timestampNs;
    if (intervalNs <= kMaxIntervalNs) {
      const double dt = static_cast<double>(intervalNs) * 1e-9;  // s
      const double w[3] = {values[0], values[1], values[2]};
      double step[4];
      quatTurn(w, dt, step);
      double next[4];
      quatMultiply(q_, step, next);
      const double n = std::sqrt(next[0] * next[0] + next[1] * next[1] + next[2] * next[2] +
                                 next[3] * next[3]);
      for (int i = 0; i < 4; ++i) q_[i] = next[i] / n;
    }
  }
  report(type, values, timestampNs);
  return 0;
}

void Gyroscope_Lib::quaternion(double out[4]) const {
  for (int i = 0; i < 4; ++i) out[i] = q_[i];
}

void Gyroscope_Lib::report(int type, float* values, long long timestampNs) {
  if (callbacks_ == nullptr) return;
  if (callbacks_->onCorrectedSensorData != nullptr)
    callbacks_->onCorrectedSensorData(type, values, timestampNs);
  if (callbacks_->onRMChange == nullptr) return;
  double r[9];
  quatToMatrix(q_, r);
  float matrix[16] = {};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) matrix[i * 4 + j] = static_cast<float>(r[i * 3 + j]);
  matrix[15] = 1.0f;
  float angles[3];
  anglesOfRotation(r, angles);
  float ignored[3] = {0, 0, 0};
  callbacks_->onRMChange(matrix, ignored, angles);
}

}  // namespace android
