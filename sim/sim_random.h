// Small deterministic random numbers: the same seed gives the same numbers on every platform
// and standard library (std::normal_distribution does not promise that).
#pragma once

#include <cmath>
#include <cstdint>

namespace zolt::sim {

class SimRandom {
 public:
  explicit SimRandom(uint64_t seed) : state_(seed) {}
  // Independent streams for one seed: e.g. SimRandom(seed, frameIndex).
  SimRandom(uint64_t seed, uint64_t stream) : state_(seed ^ (0x9E3779B97F4A7C15ull * (stream + 1))) {
    next();
  }

  uint64_t next() {  // splitmix64
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  double normal() {  // Box-Muller; for the few values the motion needs
    const double u1 = 1.0 - uniform();
    const double u2 = uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
  }

 private:
  uint64_t state_;
};

}  // namespace zolt::sim
