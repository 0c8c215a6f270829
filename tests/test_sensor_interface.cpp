// The sensor object and its polling thread: what the caller's thread reads before and after the
// first orientation, how the thread starts, stops and fails, and what each step logs.
#include <gtest/gtest.h>

#include <string>

#include "sensor/native_sensor_interface.h"
#include "sensor/sensor_handle.h"
#include "sensor/sensor_interface.h"
#include "support/log_capture.h"
#include "support/nv21_buffer.h"
#include "support/sensor_helpers.h"
#include "zolt_host_sensor.h"
#include "zolt_pano.h"

namespace {

using namespace zolt::test;

class SensorInterfaceTest : public testing::Test {
 protected:
  void SetUp() override { zolt_host_sensor_set_gyroscope(0); }
  void TearDown() override {
    zolt_host_sensor_set_gyroscope(0);
    pSensorHandle = nullptr;
  }
};

// Before the first orientation: -1 (the zero angles and identity it gives then are checked
// through the engine's log in test_host_sensor). The orientation callback finds the object
// through pSensorHandle (without one it only logs); after it: 0, the angles reversed, the
// upper-left 3x3 of the 4x4, and the angles logged in degrees.
TEST_F(SensorInterfaceTest, ReadsBackWhatTheCallbackWrote) {
  LogCapture log;
  SensorInterface s;
  float angles[3], rotation[9], matrix[16];
  EXPECT_EQ(s.get_Cur_GyroSensorVal(angles, rotation), -1);
  EXPECT_TRUE(log.contains(
      ANDROID_LOG_INFO, "SensorInterface : Sensor Data Not yet ready..hence setting values to 0 "));

  for (int i = 0; i < 16; ++i) matrix[i] = static_cast<float>(i);
  float libAngles[3] = {0.5f, -1.0f, 2.0f};
  SensorInterface::handleReceivedRMChange(matrix, nullptr, libAngles);
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "SensorInterface : Init Failed"));
  EXPECT_EQ(s.dataReady.load(), 0);
  pSensorHandle = &s;
  SensorInterface::handleReceivedRMChange(matrix, nullptr, libAngles);
  EXPECT_EQ(s.dataReady.load(), 1);
  EXPECT_EQ(s.get_Cur_GyroSensorVal(angles, rotation), 0);
  const float reversed[3] = {2.0f, -1.0f, 0.5f}, upperLeft[9] = {0, 1, 2, 4, 5, 6, 8, 9, 10};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(angles[i], reversed[i]) << i;
  for (int i = 0; i < 9; ++i) EXPECT_EQ(rotation[i], upperLeft[i]) << i;
  EXPECT_TRUE(log.contains(
      ANDROID_LOG_INFO,
      "SensorInterface : Exitting get_Cur_GyroSensorVal  114.591559  -57.295780  28.647890  "));
}

// init with a gyroscope: the steps log in order and the thread runs; a second start returns 1
// without a second thread; events are logged and reach the object only through pSensorHandle;
// deinit joins the thread.
TEST_F(SensorInterfaceTest, StartsOnceFeedsAndJoins) {
  zolt_host_sensor_set_gyroscope(1);
  const int before = threadsAtRest();
  LogCapture log;
  SensorInterface s;
  ASSERT_TRUE(s.init());
  ASSERT_NE(pollSensor, nullptr);
  EXPECT_TRUE(inOrder(
      log,
      {"SensorInterface :gyroLib created", "SensorInterface :gyroLib callbacks",
       "SensorInterface :callbacks->onCorrectedSensorData Created",
       "SensorInterface :callbacks->onRMChange Created",
       "SensorInterface :gyroLib->initializeLib DONE",
       "NativeSensorInterface :  Entered startSensor",
       "NativeSensorInterface : Sensor Registration Start",
       "NativeSensorInterface :looper is Success", "NativeSensorInterface :sensor man is Success",
       "NativeSensorInterface :gyro is Success", "NativeSensorInterface :queue is Success",
       "NativeSensorInterface :  Exitting startSensor"}));
  EXPECT_EQ(pollSensor->startSensor(), 1);
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "NativeSensorInterface :  Sensors Already Registered : return -1"));
  EXPECT_EQ(threadCount(), before + 1);

  zolt_host_sensor_push_gyro(1000000, 0.25f, -0.5f, 1.0f);
  zolt_host_sensor_sync();
  EXPECT_TRUE(log.contains(ANDROID_LOG_INFO,
                           "NativeSensorInterface 0.250000, -0.500000, 1.000000: "
                           "timeStamp = 1000000 , Gyro Event Came"));
  EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Sensor Handle : Not Initilised"));
  EXPECT_EQ(s.dataReady.load(), 0);
  pSensorHandle = &s;
  zolt_host_sensor_push_gyro(2000000, 0, 0, 0);
  zolt_host_sensor_sync();
  EXPECT_EQ(s.dataReady.load(), 1);

  log.clear();
  mustReturn("deinit", [&] { s.deinit(); });
  EXPECT_EQ(pollSensor, nullptr);
  EXPECT_EQ(threadCountSettled(before), before);
  EXPECT_TRUE(
      inOrder(log, {"NativeSensorInterface :  Entered stopSensor",
                    "NativeSensorInterface :  Exitting Polling thread",
                    "NativeSensorInterface :  Exitting stopSensor",
                    "SensorInterface : Informed sensor thread to start terminating by stopSensor()",
                    "SensorInterface : Calling delete pollSensor"}));
}

// A gyroscope that cannot be started, for each reason: Initial still succeeds, the sensor is
// gone again (pSensorHandle and pollSensor null, no thread left), every step logs its line at
// its priority, and the engine tracks frames by vision.
TEST_F(SensorInterfaceTest, InitialRunsOnVisionWhenTheGyroscopeFails) {
  struct Case {
    const char* inject;  // what the host service refuses
    bool gyroscope;      // whether the host has one
    const char* line;    // the polling thread's error line
  };
  const Case cases[] = {
      {"", false, "NativeSensorInterface :gyroSensor is NULL"},
      {"looper", true, "NativeSensorInterface :looper is NULL"},
      {"manager", true, "NativeSensorInterface :sensorManager is NULL"},
      {"sensor", true, "NativeSensorInterface :gyroSensor is NULL"},
      {"queue", true, "NativeSensorInterface :sensorEventQueue is NULL"},
  };
  Nv21Buffer frame(1280, 720);
  const int before = threadsAtRest();
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.inject) + (c.gyroscope ? " with" : " without") + " a gyroscope");
    zolt_host_sensor_set_gyroscope(c.gyroscope);
    InjectedSensorFailure fail(c.inject);
    LogCapture log;
    Engine engine;
    ASSERT_EQ(engine.initial(), SUCCESS);
    EXPECT_EQ(pSensorHandle, nullptr);
    EXPECT_EQ(pollSensor, nullptr);
    EXPECT_EQ(threadCountSettled(before), before);
    for (const char* line :
         {c.line, "NativeSensorInterface::startSensor : Sensor Acquisition Failed, returning -1 ",
          "SensorInterface::init : Sensor Acquisition Failed ",
          "ZOLT_PANO_Initial :: SensorInterface : Init FAILED : GyroSensor Not Available"})
      EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, line)) << line;
    EXPECT_TRUE(inOrder(
        log,
        {"---------Constructor of SensorInterface  called -------------- \n",
         "ZOLT_PANO_Initial ::SensorInterface : Created", c.line,
         "ZOLT_PANO_Initial :: SensorInterface : Init FAILED : GyroSensor Not Available",
         "NativeSensorInterface :  Entered stopSensor",
         "NativeSensorInterface :  Exitting stopSensor",
         "FinishSensor ::SensorInterface : DeInit Done",
         "---------Destructor of SensorInterface  called -------------- \n",
         "FinishSensor ::SensorInterface : Deleted", "SensorInterface : Cam orientation = 90 "}));
    EXPECT_FALSE(log.contains("ZOLT_PANO_Initial :: SensorInterface : Init Success"));

    log.clear();
    EXPECT_EQ(engine.select(frame.buf.data()).code, INFO_TRACE_FIRST_FRAME);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, "Sensor is not initialised"));
    EXPECT_FALSE(log.contains("SensorInterface : In Pano : provideIMU DONE"));
  }
}

}  // namespace
