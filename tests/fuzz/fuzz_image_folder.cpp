// Fuzz target: a folder of images as zoltpano stitch reads it. The input holds up to four
// files separated by "\n~~~\n"; each file's first byte picks its name's extension (an image
// type, or one that is not an image). The first byte of the input sets the options (upscale,
// frames skipped, frames wanted). A bad folder must end in InputError; anything else that
// escapes, or any crash, is a finding.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "quiet_log.h"
#include "scratch_dir.h"
#include "tools/frame_source.h"

namespace {

const std::string& dir() {
  static const std::string d = zolt::fuzz::scratchDir("zolt_fuzz_images");
  return d;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zolt::fuzz::quietLog();
  // Decoders allocate what a header claims: 16 million pixels keep one run within memory.
  setenv("OPENCV_IO_MAX_IMAGE_PIXELS", "16000000", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace fs = std::filesystem;
  static const char* kExt[] = {".png", ".bmp", ".ppm", ".pgm", ".jpg", ".tif", ".webp", ".txt"};
  zolt::fuzz::FuzzInput in(data, size);
  const uint8_t options = in.byte();
  for (const auto& e : fs::directory_iterator(dir())) fs::remove_all(e.path());
  for (int i = 0; i < 4 && !in.empty(); ++i) {
    const char* ext = kExt[in.byte() % 8];
    const std::string bytes = in.until("\n~~~\n");
    zolt::fuzz::writeFile(dir() + "/" + std::to_string(i) + ext, bytes.data(), bytes.size());
  }
  zolt::tools::SourceOptions opt;
  opt.upscale = options & 1;
  opt.first = (options >> 1) & 3;
  opt.count = (options >> 3) & 3;
  try {
    auto source = zolt::tools::FrameSource::open(dir(), opt);
    std::vector<uint8_t> nv21;
    while (source->next(nv21)) {
      if (nv21.size() != static_cast<size_t>(source->width()) * source->height() * 3 / 2) abort();
    }
  } catch (const zolt::tools::InputError&) {
  }
  return 0;
}
