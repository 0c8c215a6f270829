// The Highway targets the kernel tests run on, and the record of them in the test's output.
#pragma once

#include <hwy/detect_targets.h>
#include <hwy/targets.h>

#include <gtest/gtest.h>

namespace zolt::test {

// Records that kernels compiled for `target` (a Highway target name) were tested; the program
// prints the names once at its end ("Highway targets tested: NEON SVE SVE2"), so that every
// log says which instruction sets a run covered.
void noteTargetTested(const char* target);

// Runs `check` once for every Highway target this CPU runs (SSSE3, SSE4, AVX2 on x86; NEON and
// the SVE targets the CPU's vector length allows on 64-bit ARM), the dispatcher pointed at each
// in turn; stops at a fatal failure. Where the dispatcher knows no target but the one compiled
// in (NEON on 32-bit ARM), once with that.
template <class Check>
void forEachTarget(Check check) {
  bool ran = false;
  for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
    SCOPED_TRACE(hwy::TargetName(target));
    noteTargetTested(hwy::TargetName(target));
    hwy::SetSupportedTargetsForTest(target);
    check();
    hwy::SetSupportedTargetsForTest(0);
    ran = true;
    if (::testing::Test::HasFatalFailure()) return;
  }
  if (!ran) {
    noteTargetTested(hwy::TargetName(HWY_STATIC_TARGET));
    check();
  }
}

}  // namespace zolt::test
