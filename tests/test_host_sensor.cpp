// The host sensor service and the engine on it: the looper and queue functions as the polling
// thread uses them, the C interface that feeds and syncs it, the attitude reaching the engine,
// stopping in every state of the event stream, and many start / stop cycles.
#include <android/looper.h>
#include <android/sensor.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>

#include "engine/orrery_engine.h"
#include "sensor/native_sensor_interface.h"
#include "sensor/sensor_handle.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "support/sensor_helpers.h"
#include "zolt_host_sensor.h"
#include "zolt_pano.h"

namespace {

using namespace zolt::test;
constexpr long long kMs = 1000000;  // ns

class HostSensor : public testing::Test {
 protected:
  void SetUp() override { zolt_host_sensor_set_gyroscope(1); }
  void TearDown() override { zolt_host_sensor_set_gyroscope(0); }
};

// The service as the polling thread uses it: a queue takes events only while enabled and hands
// them out in order; sync returns at once without queues, waits until the consumer comes back
// for more after its last event, and never waits for a disabled queue or for a queue whose
// thread ended without cleaning up.
TEST_F(HostSensor, QueueAndSync) {
  mustReturn("sync without queues", [] {
    zolt_host_sensor_push_gyro(1, 0, 0, 0);
    zolt_host_sensor_sync();
  });
  ASensorManager* manager = ASensorManager_getInstance();
  const ASensor* gyro = ASensorManager_getDefaultSensor(manager, ASENSOR_TYPE_GYROSCOPE);
  ASSERT_NE(gyro, nullptr);
  ASensorEventQueue* q =
      ASensorManager_createEventQueue(manager, ALooper_prepare(0), 7, nullptr, nullptr);
  ASSERT_NE(q, nullptr);
  ASensorEvent e;
  zolt_host_sensor_push_gyro(1, 0, 0, 0);  // not enabled yet: dropped
  EXPECT_EQ(ASensorEventQueue_enableSensor(q, gyro), 0);
  zolt_host_sensor_push_gyro(10, 0, 0, 0);
  zolt_host_sensor_push_gyro(20, 0, 0, 0);
  EXPECT_EQ(ALooper_pollAll(-1, nullptr, nullptr, nullptr), 7);
  for (int t : {10, 20}) {  // the values are checked where the polling thread logs them
    ASSERT_EQ(ASensorEventQueue_getEvents(q, &e, 1), 1);
    EXPECT_EQ(e.timestamp, t);
  }
  zolt_host_sensor_push_gyro(30, 0, 0, 0);
  EXPECT_EQ(ASensorEventQueue_disableSensor(q, gyro), 0);
  zolt_host_sensor_push_gyro(40, 0, 0, 0);
  mustReturn("sync with a disabled queue", [] { zolt_host_sensor_sync(); });
  EXPECT_EQ(ASensorEventQueue_getEvents(q, &e, 1), -EAGAIN);
  EXPECT_EQ(ASensorManager_destroyEventQueue(manager, q), 0);

  std::atomic<int> handled{0};
  std::atomic<bool> enabled{false};
  std::thread consumer([&] {
    q = ASensorManager_createEventQueue(manager, ALooper_prepare(0), 1, nullptr, nullptr);
    ASensorEventQueue_enableSensor(q, gyro);
    enabled = true;
    ASensorEvent got;
    while (ALooper_pollAll(-1, nullptr, nullptr, nullptr) >= 0)
      while (ASensorEventQueue_getEvents(q, &got, 1) > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // slow: sync must wait
        ++handled;
        if (got.timestamp == 3) return;  // ends with the queue still enabled
      }
  });
  while (!enabled.load()) std::this_thread::yield();
  zolt_host_sensor_push_gyro(2, 0, 0, 0);
  zolt_host_sensor_push_gyro(2, 0, 0, 0);
  mustReturn("sync", [] { zolt_host_sensor_sync(); });
  EXPECT_EQ(handled.load(), 2);
  zolt_host_sensor_push_gyro(3, 0, 0, 0);
  consumer.join();
  zolt_host_sensor_push_gyro(4, 0, 0, 0);  // the looper is gone: dropped
  mustReturn("sync after the consumer ended", [] { zolt_host_sensor_sync(); });
  EXPECT_EQ(ASensorManager_destroyEventQueue(manager, q), 0);
}

// Through the C interface: before the first event the engine gets zero angles and the identity;
// after events pushed and synced it gets the attitude, angles as (pitch, yaw, roll) of the
// landscape camera, and the log prints the matrix with its last two entries swapped.
TEST_F(HostSensor, AttitudeReachesTheEngine) {
  Nv21Buffer frame(1280, 720, 90);
  LogCapture log;
  Engine engine;
  ASSERT_EQ(engine.initial(), SUCCESS);
  ASSERT_NE(pSensorHandle, nullptr);
  EXPECT_TRUE(
      log.contains(ANDROID_LOG_INFO, "ZOLT_PANO_Initial :: SensorInterface : Init Success"));
  auto select = [&] {
    log.clear();
    engine.select(frame.buf.data());
  };
  select();
  EXPECT_TRUE(log.contains(
      "ZOLT_PANO_SelectFrames : GyroRet = -1 Angles : 0.000000   0.000000   0.000000 "));
  EXPECT_TRUE(
      log.contains("ZOLT_PANO_SelectFrames : RotMat : 1.000000   0.000000   0.000000  "
                   "0.000000  1.000000  0.000000  0.000000  1.000000  0.000000 "));
  EXPECT_TRUE(log.contains("SensorInterface : In Pano : provideIMU DONE"));
  EXPECT_FALSE(log.contains("Sensor is not initialised"));

  // Yaw to the right by 0.3 rad, then pitch up by 0.1 rad (camera y is -sensor x, camera x is
  // -sensor y), in 10 ms events.
  long long t = 5000 * kMs;
  zolt_host_sensor_push_gyro(t, 0, 0, 0);
  for (int k = 0; k < 10; ++k) zolt_host_sensor_push_gyro(t += 10 * kMs, -3.0f, 0, 0);
  for (int k = 0; k < 10; ++k) zolt_host_sensor_push_gyro(t += 10 * kMs, 0, -1.0f, 0);
  zolt_host_sensor_sync();
  select();
  const auto* orrery = static_cast<OrreryEngine*>(engine.handle());
  const double pitchYawRoll[3] = {0.1, 0.3, 0.0};
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(orrery->imuAngles[i], pitchYawRoll[i], 1e-5) << i;
  // Phone -> world: about sensor x by -0.3, then about the turned sensor y by -0.1.
  const double a = -0.3, b = -0.1;
  const double want[9] = {std::cos(b),
                          0,
                          std::sin(b),
                          std::sin(a) * std::sin(b),
                          std::cos(a),
                          -std::sin(a) * std::cos(b),
                          -std::cos(a) * std::sin(b),
                          std::sin(a),
                          std::cos(a) * std::cos(b)};
  const double* r = orrery->imuRotation;
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(r[i], want[i], 1e-5) << i;
  char line[256];
  std::snprintf(line, sizeof line,
                "ZOLT_PANO_SelectFrames : RotMat : %f   %f   %f  %f  %f  %f  %f  %f  %f ", r[0],
                r[1], r[2], r[3], r[4], r[5], r[6], r[8], r[7]);
  EXPECT_TRUE(log.contains(line)) << line;
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, "NDK IMU LOGOUT : 0.100000\t0.300000\t-0.000000\n") ||
              log.contains(ANDROID_LOG_INFO, "NDK IMU LOGOUT : 0.100000\t0.300000\t0.000000\n"));
  engine.release();
  EXPECT_EQ(pSensorHandle, nullptr);
}

// Release ends in every state of the event stream, with no thread left: while events flow,
// when the sensor never delivered and when it went silent.
TEST_F(HostSensor, ReleaseEndsWhateverTheEventsDo) {
  const int before = threadsAtRest();
  for (const std::string state : {"flowing", "never delivered", "went silent"}) {
    SCOPED_TRACE(state);
    LogCapture log;
    Engine engine;
    ASSERT_EQ(engine.initial(), SUCCESS);
    ASSERT_NE(pSensorHandle, nullptr);
    std::atomic<bool> stop{false};
    std::thread pusher;
    if (state == "flowing") {
      pusher = std::thread([&] {
        for (long long t = 1; !stop.load(); t += kMs) {
          zolt_host_sensor_push_gyro(t, 0.1f, 0.2f, 0.3f);
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
      while (!log.contains(ANDROID_LOG_INFO,
                           "NativeSensorInterface 0.100000, 0.200000, 0.300000: "
                           "timeStamp = 20000001 , Gyro Event Came"))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else if (state == "went silent") {
      for (int k = 1; k <= 5; ++k) zolt_host_sensor_push_gyro(k * 16 * kMs, 0, 0, 0.1f);
      zolt_host_sensor_sync();
    }
    mustReturn("ZOLT_PANO_Release", [&] { engine.release(); });
    stop.store(true);
    if (pusher.joinable()) pusher.join();
    EXPECT_EQ(pSensorHandle, nullptr);
    EXPECT_EQ(pollSensor, nullptr);
    EXPECT_TRUE(log.contains("NativeSensorInterface :  Exitting Polling thread"));
    EXPECT_EQ(threadCountSettled(before), before);
  }
}

// Engines share the one sensor: a second Initial without a Release stops the running sensor
// before it starts its own, so no polling thread is left that nobody can stop.
TEST_F(HostSensor, SecondInitialReplacesTheSensor) {
  const int before = threadsAtRest();
  Engine first, second;
  ASSERT_EQ(first.initial(), SUCCESS);
  ASSERT_EQ(second.initial(), SUCCESS);
  ASSERT_NE(pSensorHandle, nullptr);
  EXPECT_EQ(threadCountSettled(before + 1), before + 1);
  zolt_host_sensor_push_gyro(1, 0, 0, 0);
  zolt_host_sensor_push_gyro(2, 0, 0, 1);
  zolt_host_sensor_sync();
  mustReturn("ZOLT_PANO_Release", [&] { second.release(); });
  EXPECT_EQ(pSensorHandle, nullptr);
  mustReturn("ZOLT_PANO_Release", [&] { first.release(); });
  EXPECT_EQ(threadCountSettled(before), before);
}

// Many Initial / Release cycles with a gyroscope: every one starts the thread, none leaves a
// thread behind, and the memory in use stays flat (LeakSanitizer checks the same cycles in the
// sanitizer build).
TEST_F(HostSensor, ManyCyclesLeaveNothingBehind) {
#if defined(ZOLTPANO_TEST_EMULATED)
  const int cycles = 100;  // the cross build runs under an emulator
#elif defined(__SANITIZE_THREAD__)
  const int cycles = 200;  // races show in a few cycles; the full count runs in the other builds
#else
  const int cycles = 1000;
#endif
  // Memory is compared from here on: past the released engines the interface holds back.
  const int warmCycles = 50;
  const int before = threadsAtRest();
  [[maybe_unused]] long long warmBytes = 0;
  {
    LogCapture quiet;
    for (int i = 0; i < cycles; ++i) {
      Engine engine;
      ASSERT_EQ(engine.initial(), SUCCESS);
      ASSERT_NE(pSensorHandle, nullptr) << "cycle " << i;
      zolt_host_sensor_push_gyro(i + 1, 0, 0, 0);
      engine.release();
      if (i % 10 == 9) quiet.clear();  // both samples below come right after a clear
      if (i == warmCycles - 1) warmBytes = heapInUseBytes();
    }
  }
  EXPECT_EQ(threadCountSettled(before), before);
  // The sanitizers' allocators are not glibc's, whose counts these are.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const long long growth = heapInUseBytes() - warmBytes;
  RecordProperty("heap_growth_bytes", std::to_string(growth));
  // 64 kB over 950 cycles: a leak of 70 bytes a cycle fails.
  EXPECT_LT(growth, 64 * 1024) << "bytes";
#endif
}

}  // namespace
