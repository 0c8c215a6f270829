#include "tools/capture_time.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <vector>

#include "tools/frame_source.h"

namespace zolt::tools {

namespace fs = std::filesystem;

namespace {

// Seconds from 1904-01-01 (QuickTime's epoch) to 1970-01-01.
constexpr int64_t kQuickTimeEpochS = 2082844800;

uint64_t bigEndian(const unsigned char* p, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | p[i];
  return v;
}

// Finds the box `type` among the boxes from `begin` to `end` of `f`; its payload's place and
// size. Sizes of 1 (64-bit size follows) and 0 (to the end) as ISO/IEC 14496-12 has them.
bool findBox(std::ifstream& f, uint64_t begin, uint64_t end, const char* type, uint64_t* at,
             uint64_t* size) {
  for (uint64_t pos = begin; pos + 8 <= end;) {
    unsigned char head[16];
    f.seekg(static_cast<std::streamoff>(pos));
    if (!f.read(reinterpret_cast<char*>(head), 8)) return false;
    uint64_t boxSize = bigEndian(head, 4);
    uint64_t header = 8;
    if (boxSize == 1) {
      if (!f.read(reinterpret_cast<char*>(head + 8), 8)) return false;
      boxSize = bigEndian(head + 8, 8);
      header = 16;
    } else if (boxSize == 0) {
      boxSize = end - pos;
    }
    if (boxSize < header || boxSize > end - pos) return false;
    if (std::equal(head + 4, head + 8, type)) {
      *at = pos + header;
      *size = boxSize - header;
      return true;
    }
    pos += boxSize;
  }
  return false;
}

int zoneOffsetAt(int64_t utcMs) {
  const std::time_t t = static_cast<std::time_t>(utcMs / 1000);
  std::tm local{};
  if (localtime_r(&t, &local) == nullptr) return 0;
  return static_cast<int>(local.tm_gmtoff / 60);
}

// The file whose time stands for a folder's: the first frame file in name order (a recording's
// frames/ when it has one); tables and descriptions do not count.
fs::path firstFrameFile(const fs::path& dir) {
  const fs::path frames = dir / "frames";
  const fs::path where = fs::is_directory(frames) ? frames : dir;
  std::vector<fs::path> files;
  for (const fs::directory_entry& e : fs::directory_iterator(where)) {
    const std::string ext = e.path().extension().string();
    if (e.is_regular_file() && ext != ".csv" && ext != ".json" && ext != ".txt")
      files.push_back(e.path());
  }
  if (files.empty()) throw InputError("'" + dir.string() + "' holds no frame file to date");
  return *std::min_element(files.begin(), files.end());
}

}  // namespace

int64_t movieCreationMs(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return -1;
  f.seekg(0, std::ios::end);
  const auto length = static_cast<uint64_t>(std::max<std::streamoff>(f.tellg(), 0));
  uint64_t moov = 0, moovSize = 0, mvhd = 0, mvhdSize = 0;
  if (!findBox(f, 0, length, "moov", &moov, &moovSize) ||
      !findBox(f, moov, moov + moovSize, "mvhd", &mvhd, &mvhdSize) || mvhdSize < 12)
    return -1;
  unsigned char head[12];
  f.seekg(static_cast<std::streamoff>(mvhd));
  if (!f.read(reinterpret_cast<char*>(head), sizeof head)) return -1;
  // Version 0: 32-bit seconds after version and flags; version 1: 64-bit.
  const uint64_t s = head[0] == 1 ? bigEndian(head + 4, 8) : bigEndian(head + 4, 4);
  if (s <= static_cast<uint64_t>(kQuickTimeEpochS) || s > (uint64_t{1} << 40)) return -1;
  return (static_cast<int64_t>(s) - kQuickTimeEpochS) * 1000;
}

CaptureTime inputCaptureTime(const std::string& input) {
  std::error_code ec;
  const fs::path file = fs::is_directory(input, ec) ? firstFrameFile(input) : fs::path(input);
  CaptureTime t;
  const int64_t created = movieCreationMs(file.string());
  if (created >= 0) {
    t.utcMs = created;
    t.source = "the video's creation time";
  } else {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0)
      throw InputError("cannot read the time of '" + file.string() + "'");
    t.utcMs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    t.source = "the modification time of '" + file.string() + "'";
  }
  t.zoneOffsetMinutes = zoneOffsetAt(t.utcMs);
  return t;
}

}  // namespace zolt::tools
