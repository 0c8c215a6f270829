// Strip search on the tracking image (400 x 225, from a real photo): the 8 x 200 vertical strip
// searched over 33 x 17 shifts and the 400 x 8 horizontal strip over 17 x 33, reference against
// the vector kernels this CPU runs.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "tracker/pixel_alignment.h"

namespace {

struct Images {
  cv::Mat first, second;
  Images() {
    cv::Mat photo = cv::imread("/usr/share/backgrounds/Kleiber_by_Lukas_Baubkus.jpg",
                               cv::IMREAD_GRAYSCALE);
    if (photo.empty()) photo = cv::Mat(1080, 1920, CV_8UC1, cv::Scalar(128));
    cv::Mat big;
    cv::resize(photo, big, cv::Size(440, 265), 0, 0, cv::INTER_AREA);
    first = big(cv::Rect(20, 20, 400, 225)).clone();
    second = big(cv::Rect(25, 17, 400, 225)).clone();  // moved by (5, -3)
  }
};

const Images& images() {
  static const Images im;
  return im;
}

void run(benchmark::State& state, const zolt::SadKernels& k, bool vertical) {
  const Images& im = images();
  PixelAlignment pa(400);
  const PixelAlignment::Input in = vertical ? PixelAlignment::Input{200, 112, 0, 0, 8, 200, 16, 8}
                                            : PixelAlignment::Input{200, 112, 0, 0, 400, 8, 8, 16};
  zolt::setSadKernelsForTesting(&k);
  for (auto _ : state) {
    PixelAlignment::Result r =
        vertical ? pa.searchUsingVstrip(im.first, im.second, in) : pa.searchUsingHstrip(im.first, im.second, in);
    benchmark::DoNotOptimize(r);
  }
  zolt::setSadKernelsForTesting(nullptr);
  state.SetLabel(k.name);
}

void BM_VstripReference(benchmark::State& s) { run(s, zolt::referenceSadKernels(), true); }
void BM_VstripVector(benchmark::State& s) { run(s, zolt::vectorSadKernels(), true); }
void BM_VstripVectorRunsOf8(benchmark::State& s) { run(s, zolt::vectorSadKernelsRunsOf8(), true); }
void BM_HstripReference(benchmark::State& s) { run(s, zolt::referenceSadKernels(), false); }
void BM_HstripVector(benchmark::State& s) { run(s, zolt::vectorSadKernels(), false); }

BENCHMARK(BM_VstripReference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_VstripVector)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_VstripVectorRunsOf8)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HstripReference)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HstripVector)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  cv::setNumThreads(1);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
