// Fuzz target: a sweep folder as zoltpano stitch reads it. The input holds meta.json,
// truth.csv and gyro.csv as text, separated by "\n~~~\n", then frames.nv21 as a 4-byte
// little-endian length (at most 4 MiB) and a byte pattern repeated to that length, so that a
// whole, a truncated or an overlong frame file is a few bytes of input. The first byte says
// which files are left out, the second sets the options (upscale, frames skipped, wanted).
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "quiet_log.h"
#include "read_folder.h"
#include "scratch_dir.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zolt::fuzz::quietLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& dir = zolt::fuzz::scratchDir("zolt_fuzz_sweep");
  zolt::fuzz::FuzzInput in(data, size);
  const uint8_t leaveOut = in.byte();
  const uint8_t options = in.byte();
  const char* names[] = {"meta.json", "truth.csv", "gyro.csv"};
  for (int i = 0; i < 3; ++i) {
    const std::string text = in.until("\n~~~\n");
    const std::string path = dir + "/" + names[i];
    std::remove(path.c_str());
    if (!(leaveOut & (1 << i))) zolt::fuzz::writeFile(path, text.data(), text.size());
  }
  const uint32_t length = (in.byte() | (in.byte() << 8) | (in.byte() << 16) |
                           (static_cast<uint32_t>(in.byte()) << 24)) &
                          ((4u << 20) - 1);
  std::vector<uint8_t> frames(length, 128);
  in.repeat(frames.data(), frames.size(), in.left());
  const std::string framesPath = dir + "/frames.nv21";
  std::remove(framesPath.c_str());
  if (!(leaveOut & 8)) zolt::fuzz::writeFile(framesPath, frames.data(), frames.size());
  zolt::fuzz::readFolder(dir, options, 4);
  return 0;
}
