// The main of every benchmark program: OpenCV pinned to one thread, so that figures are per
// core and comparable between runs.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
