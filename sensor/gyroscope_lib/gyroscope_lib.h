// android::Gyroscope_Lib: gyroscope fusion, a shared library of its own (libzoltpano_gyro).
//
// It integrates body rates into an attitude and reports it on every event, on the thread that
// called processEvent:
//   onCorrectedSensorData(type, rates, timestampNs)  the rates as used (rad/s; no bias model)
//   onRMChange(matrix4x4, ignored, angles3)          the attitude
//
// matrix4x4: row-major 4x4 rotation R (upper-left 3x3; last row and column 0, 0, 0, 1) that maps
// the phone's sensor axes into the world's, v_world = R * v_phone, as the platform's
// rotation-vector-to-matrix helper gives it. The world is the phone's attitude at the first
// event: the first report is the identity.
//
// angles3: radians, the attitude of the back camera held in landscape (phone top to the left),
// whose axes are camera = T * sensor with T rows (0,-1,0), (-1,0,0), (0,0,-1): x right in the
// image, y down, z along the view. With C = T * R * T^T (camera axes now -> camera axes at the
// first event) decomposed as C = Ry(yaw) * Rx(pitch) * Rz(roll), the order is
//   angles3 = { roll, yaw, pitch }
// so that the engine, which stores them reversed, holds (pitch, yaw, roll). Signs, right-handed
// about the camera axes: yaw > 0 turns the view to the right, pitch > 0 tilts it up, roll > 0
// turns the image clockwise as seen from behind the phone. Yaw and roll lie in (-pi, pi], pitch
// in [-pi/2, pi/2].
//
// Integration: the rate of each event is held over the interval since the previous event, and
// the attitude advances by the exact rotation exp(w * dt): q <- q * (cos(|w|dt/2), sin(|w|dt/2)
// w/|w|). The first event only starts the clock. An event whose timestamp is not later than the
// clock adds no rotation and leaves the clock. An interval longer than kMaxIntervalNs (a paused
// or suspended sensor) is not integrated: the attitude is held and the clock restarts at that
// event, since one rate says nothing about what happened during the gap.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZOLT_GYRO_EXPORT __attribute__((visibility("default")))
#else
#define ZOLT_GYRO_EXPORT
#endif

namespace android {

// The two callbacks, in this order. Plain function pointers: no context pointer is passed.
struct callbackFunc {
  void (*onCorrectedSensorData)(int type, float* values, long long timestampNs);
  void (*onRMChange)(float* matrix4x4, float* ignored, float* angles3);
};

class ZOLT_GYRO_EXPORT Gyroscope_Lib {
 public:
  static constexpr int kTypeGyroscope = 4;  // the platform's sensor type
  // Longest interval integrated, ns: 250 ms is about 15 events at the engine's 16 ms rate.
  static constexpr long long kMaxIntervalNs = 250000000LL;

  Gyroscope_Lib();
  ~Gyroscope_Lib();
  Gyroscope_Lib(const Gyroscope_Lib&) = delete;
  Gyroscope_Lib& operator=(const Gyroscope_Lib&) = delete;

  // options: kept but not interpreted (the engine passes 5). callbacks: not owned, may be null;
  // must outlive the library's use. Resets the attitude and the clock. Returns 0.
  int initializeLib(int options, callbackFunc* callbacks);
  // One event: values are rad/s about the phone's x, y, z. Other types than 4 are ignored
  // (returns -1). Returns 0 when the event was taken.
  int processEvent(int type, float* values, long long timestampNs);

  // The current attitude as a unit quaternion w, x, y, z (phone -> world).
  void quaternion(double out[4]) const;
  // The options word given to initializeLib.
  int options() const { return options_; }

  // The library's quaternion arithmetic, for readers of its attitudes. Quaternions w, x, y, z.
  static void multiply(const double a[4], const double b[4], double out[4]);  // a * b
  static void toMatrix(const double q[4], double r[9]);  // unit q -> row-major 3x3
  // exp(w * seconds): the turn at body rate w (rad/s) held for `seconds`, as a unit quaternion.
  static void turn(const double w[3], double seconds, double step[4]);
  // The angles3 of onRMChange for the phone -> world rotation r (row-major 3x3).
  static void cameraAngles(const double r[9], float angles[3]);

 private:
  void report(int type, float* values, long long timestampNs);

  callbackFunc* callbacks_ = nullptr;
  int options_ = 0;
  double q_[4] = {1, 0, 0, 0};  // w, x, y, z
  bool clockStarted_ = false;
  long long clockNs_ = 0;
};

}  // namespace android
