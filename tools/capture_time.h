// When a stitched input was captured, for the panorama's photo information: a video's creation
// time from its QuickTime / MP4 movie header, else the file's modification time; for a folder,
// its first frame file's (frames/ of a recording, the images of a folder, a sweep's
// frames.nv21).
#pragma once

#include <cstdint>
#include <string>

namespace zolt::tools {

struct CaptureTime {
  int64_t utcMs = 0;          // ms since 1970-01-01 00:00 UTC
  int zoneOffsetMinutes = 0;  // this machine's zone at that moment
  std::string source;         // "the video's creation time" or "the modification time of 'F'"
};

// Throws InputError when neither can be read.
CaptureTime inputCaptureTime(const std::string& input);

// The creation time of an ISO base media file (MP4, MOV, 3GP) from moov/mvhd, ms since 1970;
// -1 when the file has none (not such a file, no header, or the time left at 0).
int64_t movieCreationMs(const std::string& path);

}  // namespace zolt::tools
