// Reads a folder as zoltpano stitch does. A bad folder must end in InputError (one line for the
// user); anything else that escapes, a frame of another size than the source says, or any
// crash, is a finding.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/frame_source.h"

namespace zolt::fuzz {

// `options`: bit 0 upscale, bits 1-2 frames skipped, bits 3-4 frames wanted, bit 5 luma only.
// At most `limit` frames are read.
inline void readFolder(const std::string& dir, uint8_t options, int limit) {
  zolt::tools::SourceOptions opt;
  opt.upscale = options & 1;
  opt.first = (options >> 1) & 3;
  opt.count = (options >> 3) & 3;
  opt.lumaOnly = options & 32;
  try {
    auto source = zolt::tools::FrameSource::open(dir, opt);
    std::vector<uint8_t> nv21;
    for (int k = 0; k < limit && source->next(nv21); ++k)
      if (nv21.size() != static_cast<size_t>(source->width()) * source->height() * 3 / 2) abort();
  } catch (const zolt::tools::InputError&) {
  }
}

}  // namespace zolt::fuzz
