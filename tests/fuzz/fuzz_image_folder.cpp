// Fuzz target: a folder of images as zoltpano stitch reads it. The input holds up to four
// files separated by "\n~~~\n"; each file's first byte picks its name's extension (an image
// type, or one that is not an image). The first byte of the input sets the options (upscale,
// frames skipped, frames wanted, luma only) and, with bit 6, makes the folder a recording: the
// next text is frames.csv and the images go to frames/.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz_input.h"
#include "quiet_log.h"
#include "read_folder.h"
#include "scratch_dir.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zolt::fuzz::quietLog();
  // Decoders allocate what a header claims: 16 million pixels keep one run within memory.
  setenv("OPENCV_IO_MAX_IMAGE_PIXELS", "16000000", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* kExt[] = {".png", ".bmp", ".ppm", ".pgm", ".jpg", ".tif", ".webp", ".txt"};
  const std::string& dir = zolt::fuzz::scratchDir("zolt_fuzz_images");
  zolt::fuzz::FuzzInput in(data, size);
  const uint8_t options = in.byte();
  const bool recording = options & 64;
  for (const auto& e : std::filesystem::directory_iterator(dir)) std::filesystem::remove_all(e);
  const std::string images = recording ? dir + "/frames" : dir;
  std::filesystem::create_directories(images);
  if (recording) {
    const std::string csv = in.until("\n~~~\n");
    zolt::fuzz::writeFile(dir + "/frames.csv", csv.data(), csv.size());
  }
  for (int i = 0; i < 4 && !in.empty(); ++i) {
    const char* ext = kExt[in.byte() % 8];
    const std::string bytes = in.until("\n~~~\n");
    zolt::fuzz::writeFile(images + "/" + std::to_string(i) + ext, bytes.data(), bytes.size());
  }
  zolt::fuzz::readFolder(dir, options, INT_MAX);
  return 0;
}
