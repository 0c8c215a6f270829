// Fuzz target: a sweep folder as zoltpano stitch reads it. The input holds meta.json,
// truth.csv and gyro.csv as text, separated by "\n~~~\n", then frames.nv21 as a 4-byte
// little-endian length (at most 4 MiB) and a byte pattern repeated to that length, so that a
// whole, a truncated or an overlong frame file is a few bytes of input. The first byte says
// which files are left out. A bad folder must end in InputError (one line for the user);
// anything else that escapes, or any crash, is a finding.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "quiet_log.h"
#include "scratch_dir.h"
#include "tools/frame_source.h"

namespace {

const std::string& dir() {
  static const std::string d = zolt::fuzz::scratchDir("zolt_fuzz_sweep");
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zolt::fuzz::quietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zolt::fuzz::FuzzInput in(data, size);
  const uint8_t leaveOut = in.byte();
  const uint8_t options = in.byte();
  const char* names[] = {"meta.json", "truth.csv", "gyro.csv"};
  for (int i = 0; i < 3; ++i) {
    const std::string text = in.until("\n~~~\n");
    const std::string path = dir() + "/" + names[i];
    std::remove(path.c_str());
    if (!(leaveOut & (1 << i))) zolt::fuzz::writeFile(path, text.data(), text.size());
  }
  const uint32_t length = (in.byte() | (in.byte() << 8) | (in.byte() << 16) |
                           (static_cast<uint32_t>(in.byte()) << 24)) &
                          ((4u << 20) - 1);
  size_t got;
  const uint8_t* pattern = in.take(in.left(), got);
  std::vector<uint8_t> frames(length, 128);
  for (size_t i = 0; got > 0 && i < frames.size(); ++i) frames[i] = pattern[i % got];
  const std::string framesPath = dir() + "/frames.nv21";
  std::remove(framesPath.c_str());
  if (!(leaveOut & 8)) zolt::fuzz::writeFile(framesPath, frames.data(), frames.size());

  zolt::tools::SourceOptions opt;
  opt.upscale = options & 1;
  opt.first = (options >> 1) & 3;
  opt.count = (options >> 3) & 3;
  try {
    auto source = zolt::tools::FrameSource::open(dir(), opt);
    std::vector<uint8_t> nv21;
    for (int k = 0; k < 4 && source->next(nv21); ++k) {
      if (nv21.size() != static_cast<size_t>(source->width()) * source->height() * 3 / 2) abort();
    }
  } catch (const zolt::tools::InputError&) {
  }
  return 0;
}
