#include "sim/sweep_reader.h"

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "sim/sim_error.h"

namespace zolt::sim {
namespace {

// Splits a CSV data line; '#' lines and the column header are skipped by the callers.
std::vector<std::string> splitCsv(const std::string& line) {
  std::vector<std::string> out;
  std::stringstream ss(line);
  std::string field;
  while (std::getline(ss, field, ',')) out.push_back(field);
  return out;
}

template <typename Fn>
void forDataLines(const std::string& path, const char* firstColumn, size_t columns, Fn fn) {
  std::ifstream in(path);
  if (!in) throw SimError("cannot read '" + path + "'");
  std::string line;
  int lineNo = 0;
  while (std::getline(in, line)) {
    ++lineNo;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line[0] == '#' || line.rfind(firstColumn, 0) == 0) continue;
    const std::vector<std::string> f = splitCsv(line);
    if (f.size() < columns)
      throw SimError(path + ":" + std::to_string(lineNo) + ": expected " + std::to_string(columns) +
                     " columns");
    try {
      fn(f);
    } catch (const std::logic_error&) {  // std::stod and friends
      throw SimError(path + ":" + std::to_string(lineNo) + ": not a number");
    }
  }
}

// meta.json's whole-number field `key`: a JSON integer that fits an int. Converting a float or
// an integer out of range would be undefined or silently wrong.
int wholeNumber(const nlohmann::json& meta, const char* key, const std::string& metaPath) {
  const nlohmann::json& v = meta.at(key);
  constexpr int64_t kMin = std::numeric_limits<int>::min(), kMax = std::numeric_limits<int>::max();
  const bool fits = v.is_number_unsigned() ? v.get<uint64_t>() <= static_cast<uint64_t>(kMax)
                    : v.is_number_integer() ? v.get<int64_t>() >= kMin && v.get<int64_t>() <= kMax
                                            : false;
  if (!fits)
    throw SimError("'" + metaPath + "' gives no whole number for \"" + key + "\": " + v.dump());
  return v.get<int>();
}

}  // namespace

std::vector<TruthRecord> SweepReader::readTruthCsv(const std::string& path) {
  std::vector<TruthRecord> out;
  forDataLines(path, "frame,", 10, [&](const std::vector<std::string>& f) {
    TruthRecord t;
    t.frame = std::stoi(f[0]);
    t.tNs = std::stoll(f[1]);
    t.x = std::stod(f[2]);
    t.y = std::stod(f[3]);
    t.dx = std::stod(f[4]);
    t.dy = std::stod(f[5]);
    t.yaw = std::stod(f[6]);
    t.pitch = std::stod(f[7]);
    t.roll = std::stod(f[8]);
    t.gain = std::stod(f[9]);
    t.phase = f.size() > 10 ? f[10] : std::string();
    out.push_back(t);
  });
  return out;
}

std::vector<GyroEvent> SweepReader::readGyroCsv(const std::string& path) {
  std::vector<GyroEvent> out;
  forDataLines(path, "t_ns,", 4, [&](const std::vector<std::string>& f) {
    GyroEvent e;
    e.tNs = std::stoll(f[0]);
    for (int a = 0; a < 3; ++a) e.rate[a] = std::stod(f[1 + a]);
    out.push_back(e);
  });
  return out;
}

SweepReader::SweepReader(const std::string& dir) : dir_(dir) {
  const std::string metaPath = dir + "/meta.json";
  std::ifstream in(metaPath);
  if (!in) throw SimError("cannot read '" + metaPath + "'");
  try {
    meta_ = nlohmann::json::parse(in);
    width_ = wholeNumber(meta_, "width", metaPath);
    height_ = wholeNumber(meta_, "height", metaPath);
    frames_ = wholeNumber(meta_, "frames", metaPath);
    fps_ = meta_.at("fps").get<double>();
    direction_ = meta_.contains("move_direction") ? wholeNumber(meta_, "move_direction", metaPath) : 0;
  } catch (const nlohmann::json::exception& e) {
    throw SimError("'" + metaPath + "' is not a sweep description: " + e.what());
  }
  if (width_ <= 0 || height_ <= 0 || frames_ <= 0)
    throw SimError("'" + metaPath + "' gives no frames");
  // Frame times are index / fps: a rate of zero or less would make them infinite or negative.
  if (!(fps_ > 0 && fps_ <= 1000))
    throw SimError("'" + metaPath + "' gives " + std::to_string(fps_) +
                   " frames per second (more than 0, at most 1000)");
  // NV21 samples colour per 2x2 block: the frame file's layout needs even sides.
  if ((width_ | height_) & 1)
    throw SimError("'" + metaPath + "' gives " + std::to_string(width_) + "x" +
                   std::to_string(height_) + " frames: NV21 needs even sides");
  truth_ = readTruthCsv(dir + "/truth.csv");
  if (static_cast<int>(truth_.size()) != frames_)
    throw SimError("'" + dir + "/truth.csv' has " + std::to_string(truth_.size()) +
                   " frames, meta.json says " + std::to_string(frames_));
  gyro_ = readGyroCsv(dir + "/gyro.csv");
  const std::string framesPath = dir + "/frames.nv21";
  frameFile_.open(framesPath, std::ios::binary | std::ios::ate);
  if (!frameFile_) throw SimError("cannot read '" + framesPath + "'");
  const auto size = static_cast<unsigned long long>(frameFile_.tellg());
  if (size != static_cast<unsigned long long>(frameBytes()) * frames_)
    throw SimError("'" + framesPath + "' holds " + std::to_string(size) + " bytes, expected " +
                   std::to_string(frameBytes() * frames_));
}

void SweepReader::readFrame(int k, std::vector<uint8_t>& out) {
  if (k < 0 || k >= frames_) throw SimError("frame " + std::to_string(k) + " out of range");
  out.resize(frameBytes());
  frameFile_.clear();
  frameFile_.seekg(static_cast<std::streamoff>(frameBytes()) * k);
  frameFile_.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(out.size()));
  if (!frameFile_) throw SimError("cannot read frame " + std::to_string(k) + " of '" + dir_ + "'");
}

std::vector<GyroEvent> SweepReader::gyroForFrame(int k) const {
  std::vector<GyroEvent> out;
  if (k < 0 || k >= frames_) return out;
  const int64_t hi = truth_[k].tNs;
  for (const GyroEvent& e : gyro_)
    if (e.tNs <= hi && (k == 0 || e.tNs > truth_[k - 1].tNs)) out.push_back(e);
  return out;
}

}  // namespace zolt::sim
