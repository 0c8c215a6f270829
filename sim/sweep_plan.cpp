#include "sim/sweep_plan.h"

#include <algorithm>
#include <cmath>

#include "sim/sim_random.h"

namespace zolt::sim {
namespace {
constexpr double kTwoPi = 6.283185307179586;
}

SweepPlan::SweepPlan(const SweepConfig& cfg, int frames, double alongSize, double acrossSize) {
  const int n = std::max(frames, 1);
  SimRandom rng(cfg.seed, 0x706c616eull);  // "plan"
  const double fps = cfg.fps;

  // Slow speed modulation: two sines with periods of a few seconds and of about one second.
  const double t1 = rng.uniform(60.0, 150.0), p1 = rng.uniform(0.0, kTwoPi);
  const double t2 = rng.uniform(15.0, 40.0), p2 = rng.uniform(0.0, kTwoPi);
  const double base = cfg.speed * alongSize;
  std::vector<double> v(n, 0.0), w(n, 0.0), jolt(n, 0.0);
  phase_.assign(n, "sweep");
  phase_[0] = "start";
  for (int k = 1; k < n; ++k) {
    const double m = 0.6 * std::sin(kTwoPi * k / t1 + p1) + 0.4 * std::sin(kTwoPi * k / t2 + p2);
    v[k] = base * (1.0 + cfg.speedVariation * m);
  }
  // The hand starts from rest.
  if (n > 1) v[1] *= 0.5, phase_[1] = "start";
  if (n > 2) v[2] *= 0.8;

  auto frameAt = [n](double f) { return std::clamp(static_cast<int>(std::lround(f * n)), 1, n - 1); };
  auto set = [&](int k, double value, const char* ph) {
    if (k >= 1 && k < n) v[k] = value, phase_[k] = ph;
    else ++missing_;
  };

  for (int i = 0; i < cfg.pauses; ++i) {
    const int k0 = frameAt((i + 1.0) / (cfg.pauses + 1));
    if (k0 - 1 >= 1) v[k0 - 1] *= 0.5;
    for (int j = 0; j < cfg.pauseFrames; ++j) set(k0 + j, 0.0, "pause");
    if (k0 + cfg.pauseFrames < n) v[k0 + cfg.pauseFrames] *= 0.5;
  }
  for (int i = 0; i < cfg.backSteps; ++i) {
    const int k0 = frameAt((i + 1.0) / (cfg.backSteps + 1) + 0.03);
    const double step = -cfg.backLength * alongSize / cfg.backFrames;
    for (int j = 0; j < cfg.backFrames; ++j) set(k0 + j, step, "back");
    for (int j = 0; j < 4; ++j) set(k0 + cfg.backFrames + j, 0.0, "pause");
  }
  if (cfg.burstSpeed > 0.0) {
    // Up through the band where a frame-to-frame tracker still follows (to 0.12 L per frame),
    // then the peak, then down again.
    const double peak = cfg.burstSpeed * alongSize;
    const double top = std::min(peak, 0.12 * alongSize);
    int k = frameAt(cfg.burstAt);
    for (int j = 0; j < 4; ++j) set(k++, base + (top - base) * (j + 1) / 4.0, "burst");
    for (int j = 0; j < cfg.burstFrames; ++j) set(k++, peak, "peak");
    set(k++, top, "burst");
    set(k++, 0.5 * (top + base), "burst");
  }
  for (int i = 0; i < cfg.jolts; ++i) {
    // The sweep stalls with a small hitch back while the hand jerks across, then comes back.
    const int k = frameAt((i + 1.0) / (cfg.jolts + 1) + 0.06);
    if (k + 3 >= n) {
      ++missing_;
      continue;
    }
    set(k + 1, -0.01 * alongSize, "jolt");
    set(k + 2, 0.0, "stall");
    set(k + 3, 0.5 * base, "sweep");
    jolt[k + 1] = (i % 2 == 0 ? 1.0 : -1.0) * cfg.joltSize * acrossSize;
  }
  if (cfg.turnAt > 0.0) {
    const int kt = frameAt(cfg.turnAt);
    if (kt + 4 >= n) ++missing_;  // a turn needs its 3 frames and at least one across
    for (int k = kt + 1; k < n; ++k) {
      const double f = std::min(1.0, (k - kt) / 3.0);
      const double speedHere = base;
      v[k] = speedHere * (1.0 - f);
      w[k] = speedHere * f;
      phase_[k] = f < 1.0 ? "turn" : "across";
    }
  }

  along_.assign(n, 0.0);
  across_.assign(n, 0.0);
  double a = 0.0, c = 0.0;
  for (int k = 0; k < n; ++k) {
    if (k > 0) a += v[k], c += w[k];
    const double progress = n > 1 ? static_cast<double>(k) / (n - 1) : 0.0;
    along_[k] = a;
    across_[k] = c + cfg.drift * acrossSize * progress + jolt[k];
  }

  // Tremor: physiological hand tremor lies around 4..11 Hz; three sines per axis, each a third
  // of the peak, so the sum never exceeds it.
  const double tremorPx = cfg.tremor * std::min(alongSize, acrossSize);
  const double rollRad = cfg.tremorRollDeg * kTwoPi / 360.0;
  for (Sine* set3 : {tremorAlong_, tremorAcross_, tremorRoll_}) {
    const double amp = set3 == tremorRoll_ ? rollRad : tremorPx;
    for (int i = 0; i < 3; ++i) {
      set3[i].amp = amp / 3.0;
      set3[i].freq = rng.uniform(4.0, 11.0) / fps;
      set3[i].phase = rng.uniform(0.0, kTwoPi);
    }
  }
  // Exposure: a slow swing of a few seconds and a quicker one of about a second.
  exposure_[0] = {0.7 * cfg.exposureDrift, 1.0 / (rng.uniform(3.0, 6.0) * fps), rng.uniform(0.0, kTwoPi)};
  exposure_[1] = {0.3 * cfg.exposureDrift, 1.0 / (rng.uniform(0.8, 2.0) * fps), rng.uniform(0.0, kTwoPi)};
}

double SweepPlan::sines(const Sine* s, double t) {
  double sum = 0.0;
  for (int i = 0; i < 3; ++i) sum += s[i].amp * std::sin(kTwoPi * s[i].freq * t + s[i].phase);
  return sum;
}

double SweepPlan::hermite(const std::vector<double>& p, double t) {
  const int n = static_cast<int>(p.size());
  if (n == 1) return p[0];
  auto tangent = [&](int k) {
    if (k <= 0) return p[1] - p[0];
    if (k >= n - 1) return p[n - 1] - p[n - 2];
    return 0.5 * (p[k + 1] - p[k - 1]);
  };
  if (t <= 0.0) return p[0] + t * tangent(0);
  if (t >= n - 1) return p[n - 1] + (t - (n - 1)) * tangent(n - 1);
  const int k = static_cast<int>(std::floor(t));
  const double s = t - k, s2 = s * s, s3 = s2 * s;
  return (2 * s3 - 3 * s2 + 1) * p[k] + (s3 - 2 * s2 + s) * tangent(k) + (-2 * s3 + 3 * s2) * p[k + 1] +
         (s3 - s2) * tangent(k + 1);
}

PlanSample SweepPlan::at(double t) const {
  PlanSample s;
  s.along = hermite(along_, t) + sines(tremorAlong_, t);
  s.across = hermite(across_, t) + sines(tremorAcross_, t);
  s.roll = sines(tremorRoll_, t);
  return s;
}

double SweepPlan::gain(double t) const {
  double g = 1.0;
  for (const Sine& s : exposure_) g += s.amp * std::sin(kTwoPi * s.freq * t + s.phase);
  return g;
}

}  // namespace zolt::sim
