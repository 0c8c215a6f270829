// The gyroscope path: one event through the host sensor service, the polling thread and the
// fusion library into the sensor object, and the time the sensor takes to stop. The per-event
// log line is switched off (minimum priority warn), as on a phone with the info log disabled.
// Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true for medians.
#include <android/log.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "sensor/gyroscope_lib/gyroscope_lib.h"
#include "sensor/sensor_handle.h"
#include "sensor/sensor_interface.h"
#include "zolt_host_sensor.h"
#include "zolt_pano_ext.h"

namespace {

constexpr long long kEventNs = 16000000;  // the engine's event rate

// A started sensor object behind pSensorHandle, the log quiet, for one benchmark run.
class RunningSensor {
 public:
  RunningSensor() {
    ZOLT_PANO_SetLogLevel(ANDROID_LOG_WARN);
    zolt_host_sensor_set_gyroscope(1);
    pSensorHandle = &sensor_;
    ok_ = sensor_.init();
  }
  ~RunningSensor() {
    if (pSensorHandle != nullptr) stop();
    zolt_host_sensor_set_gyroscope(0);
    ZOLT_PANO_SetLogLevel(ANDROID_LOG_VERBOSE);
  }
  bool ok() const { return ok_; }
  void stop() {
    sensor_.deinit();
    pSensorHandle = nullptr;
  }

 private:
  SensorInterface sensor_;
  bool ok_ = false;
};

// A burst of events pushed, then one sync: with 1, the latency of one event through both
// thread hand-overs; with 64, the cost of an event while the thread keeps draining.
void BM_GyroEventBurst(benchmark::State& state) {
  RunningSensor s;
  if (!s.ok()) return state.SkipWithError("the gyroscope did not start");
  const int burst = static_cast<int>(state.range(0));
  long long t = 0;
  for (auto _ : state) {
    for (int i = 0; i < burst; ++i) zolt_host_sensor_push_gyro(t += kEventNs, 0.1f, -0.2f, 0.3f);
    zolt_host_sensor_sync();
  }
  state.SetItemsProcessed(state.iterations() * burst);
  // Seconds per event (printed with its SI prefix: "2.2u" is 2.2 microseconds).
  state.counters["per_event"] = benchmark::Counter(
      static_cast<double>(state.iterations() * burst),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_GyroEventBurst)->Arg(1)->Arg(64)->Unit(benchmark::kMicrosecond)->UseRealTime();

// What a frame costs on the caller's thread to read its attitude: the newest one
// (get_Cur_GyroSensorVal), and the one at the frame's time (attitudeAt) from a full history
// (1024 events), the times spread over the history and past its end.
void BM_FrameAttitude(benchmark::State& state) {
  RunningSensor s;
  if (!s.ok()) return state.SkipWithError("the gyroscope did not start");
  long long t = 0;
  for (size_t i = 0; i < AttitudeHistory::kDefaultCapacity + 8; ++i)
    zolt_host_sensor_push_gyro(t += kEventNs, 0.1f, -0.2f, 0.3f);
  zolt_host_sensor_sync();
  const bool atTime = state.range(0) != 0;
  const long long span = static_cast<long long>(AttitudeHistory::kDefaultCapacity) * kEventNs;
  float angles[3], rotation[9];
  long long i = 0;
  for (auto _ : state) {
    const long long frameNs = t - span + (i++ * 7919 * 1000003LL) % (span + 30000000LL);
    if (atTime) pSensorHandle->attitudeAt(frameNs, angles, rotation);
    else pSensorHandle->get_Cur_GyroSensorVal(angles, rotation);
    benchmark::DoNotOptimize(rotation[0]);
  }
  state.SetLabel(atTime ? "at the frame's time" : "newest");
}
BENCHMARK(BM_FrameAttitude)->Arg(0)->Arg(1);

// The fusion library alone: one event integrated and reported.
void BM_FusionProcessEvent(benchmark::State& state) {
  android::callbackFunc callbacks{[](int, float*, long long) {},
                                  [](float*, float*, float* a) { benchmark::DoNotOptimize(a[0]); }};
  android::Gyroscope_Lib lib;
  lib.initializeLib(5, &callbacks);
  float w[3] = {0.1f, -0.2f, 0.3f};
  long long t = 0;
  for (auto _ : state) lib.processEvent(4, w, t += kEventNs);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FusionProcessEvent);

// Time to stop (stopSensor and the thread's end) while events come every millisecond, and
// when the sensor delivers nothing. Set-up is not timed but costs tens of milliseconds, hence
// the fixed iteration count.
void BM_StopSensor(benchmark::State& state) {
  const bool flowing = state.range(0) != 0;
  for (auto _ : state) {
    RunningSensor s;
    if (!s.ok()) return state.SkipWithError("the gyroscope did not start");
    std::atomic<bool> done{false};
    std::thread pusher;
    if (flowing) {
      pusher = std::thread([&] {
        for (long long t = 1; !done.load(); t += 1000000) {
          zolt_host_sensor_push_gyro(t, 0.1f, 0.2f, 0.3f);
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const auto t0 = std::chrono::steady_clock::now();
    s.stop();
    const auto t1 = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    done.store(true);
    if (pusher.joinable()) pusher.join();
  }
}
BENCHMARK(BM_StopSensor)
    ->ArgName("flowing")
    ->Arg(1)
    ->Arg(0)
    ->UseManualTime()
    ->Iterations(30)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
