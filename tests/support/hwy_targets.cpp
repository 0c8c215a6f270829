#include "support/hwy_targets.h"

#include <cstdio>
#include <string>
#include <vector>

namespace zolt::test {
namespace {

// In the order first tested.
std::vector<std::string>& tested() {
  static std::vector<std::string> names;
  return names;
}

class PrintTargets : public ::testing::Environment {
 public:
  void TearDown() override {
    if (tested().empty()) return;
    std::string line = "Highway targets tested:";
    for (const std::string& n : tested()) line += " " + n;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
};

// Registered before main runs the tests; GoogleTest owns it.
::testing::Environment* const gPrintTargets = ::testing::AddGlobalTestEnvironment(new PrintTargets);

}  // namespace

void noteTargetTested(const char* target) {
  for (const std::string& n : tested())
    if (n == target) return;
  tested().emplace_back(target);
}

}  // namespace zolt::test
