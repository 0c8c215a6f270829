#include "tools/stitch_outputs.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/stitch_session.h"

namespace zolt::tools {
namespace fs = std::filesystem;

namespace {

fs::path directoryOf(const std::string& base) {
  const fs::path dir = fs::path(base).parent_path();
  return dir.empty() ? fs::path(".") : dir;
}

std::string whyUnwritable(const std::string& base) {
  const fs::path dir = directoryOf(base);
  std::error_code ec;
  if (!fs::exists(dir, ec)) return "directory '" + dir.string() + "' does not exist";
  if (!fs::is_directory(dir, ec)) return "'" + dir.string() + "' is not a directory";
  if (::access(dir.c_str(), W_OK) != 0) return "directory '" + dir.string() + "' is not writable";
  return "writing it failed";
}

// Writes `bytes` to `path` through PATH.partial-PID; false (and nothing left behind) on failure.
bool writeThrough(const std::vector<uint8_t>& bytes, const std::string& path) {
  const std::string tmp = path + ".partial-" + std::to_string(::getpid());
  std::error_code ec;
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    out.flush();
    if (out) {
      out.close();
      fs::rename(tmp, path, ec);
      if (!ec) return true;
    }
  }
  fs::remove(tmp, ec);
  return false;
}

}  // namespace

OutputPlace::OutputPlace(const std::string& name) : name_(name) {
  const std::string stem = fs::path(name).filename().string();
  std::error_code ec;
  const fs::path cwd = fs::current_path(ec);
  bases_ = {name, (cwd / stem).string(), "/tmp/" + stem + "-" + std::to_string(::getpid())};
}

std::string OutputPlace::writeJpeg(const std::vector<uint8_t>& jpeg, const std::string& suffix) {
  if (jpeg.empty()) return "";
  for (size_t i = index_; i < bases_.size(); ++i) {
    if (i > 0 && fs::absolute(bases_[i]) == fs::absolute(bases_[0])) continue;
    const std::string path = bases_[i] + suffix + ".jpg";
    if (writeThrough(jpeg, path)) {
      index_ = i;
      return path;
    }
    if (i == 0) problem_ = "cannot write '" + bases_[0] + ".jpg': " + whyUnwritable(bases_[0]);
  }
  return "";
}

std::string OutputPlace::promote(const std::string& path, const std::string& suffix) const {
  const std::string target = base() + suffix + ".jpg";
  std::error_code ec;
  fs::rename(path, target, ec);
  return ec ? path : target;
}

std::string OutputPlace::recordBase() const {
  if (::access(directoryOf(name_).c_str(), W_OK) == 0) return name_;
  return fs::path(name_).filename().string();
}

void writeCsv(const std::vector<FrameRecord>& frames, const std::string& path) {
  std::ofstream out(path);
  out << "frame,offset_x,offset_y,key_frame,direction,code,sweep_length,progress,select_ms,"
         "add_ms,capture,time_ms\n";
  char line[256];
  for (const FrameRecord& f : frames) {
    std::snprintf(line, sizeof line, "%d,%d,%d,%d,%d,0x%04X,%d,%d,%.3f,%.3f,%d,%.3f\n", f.frame,
                  f.offset.x, f.offset.y, f.keyFrame ? 1 : 0, f.direction,
                  static_cast<unsigned>(f.code), f.sweepLength, f.progress, f.selectMs, f.addMs,
                  f.capture, f.timeMs);
    out << line;
  }
  out.flush();
  if (!out) throw StitchError("cannot write '" + path + "'");
}

}  // namespace zolt::tools
