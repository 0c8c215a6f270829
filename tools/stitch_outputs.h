// Where zoltpano stitch puts what it makes: NAME.jpg (and NAME_captureK.jpg after restarts),
// NAME.csv and NAME_report.png. When NAME cannot be written the outputs go to the current
// directory, then to /tmp, and the problem is kept to be reported with the place used.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/engine_session.h"

namespace zolt::tools {

class OutputPlace {
 public:
  explicit OutputPlace(const std::string& name);

  // Writes JPEG bytes to BASE + suffix + ".jpg" through a temporary name beside it (a failed
  // write leaves an older file untouched), trying the places from the one used last on. Returns
  // the path written, or "" when no place took it.
  std::string writeJpeg(const std::vector<uint8_t>& jpeg, const std::string& suffix);
  // Renames a panorama written by writeJpeg to BASE + suffix + ".jpg"; returns where it is now.
  std::string promote(const std::string& path, const std::string& suffix = "") const;
  // The base in use: NAME, or the fallback that took the panorama.
  const std::string& base() const { return bases_[index_]; }
  // Where the per-frame record goes when no panorama was written: NAME, or NAME's file name in
  // the current directory when NAME's directory is not writable.
  std::string recordBase() const;
  // Why NAME could not be used; empty when it was.
  const std::string& problem() const { return problem_; }

 private:
  std::string name_;
  std::vector<std::string> bases_;
  size_t index_ = 0;
  std::string problem_;
};

// The per-frame record as CSV (header and columns in docs/stitching.md). Throws StitchError.
void writeCsv(const std::vector<FrameRecord>& frames, const std::string& path);

}  // namespace zolt::tools
