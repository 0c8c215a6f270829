// The one exception type of the simulator: a one-line message naming what is wrong.
#pragma once

#include <stdexcept>
#include <string>

namespace zolt::sim {

class SimError : public std::runtime_error {
 public:
  explicit SimError(const std::string& what) : std::runtime_error(what) {}
};

}  // namespace zolt::sim
