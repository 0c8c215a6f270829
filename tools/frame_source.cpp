#include "tools/frame_source.h"

#include <stdlib.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "image/nv21_img.h"
#include "sim/sim_error.h"
#include "sim/sweep_reader.h"

namespace zolt::tools {
namespace fs = std::filesystem;

namespace {

std::string sizeText(int w, int h) { return std::to_string(w) + "x" + std::to_string(h); }

// A thin picture scaled up until its short side is above 640 could make frames of gigabytes.
constexpr int kMaxUpscaledSide = 8192;

class SweepSource : public FrameSource {
 public:
  SweepSource(const std::string& dir, const SourceOptions& opt) : FrameSource(opt) {
    try {
      reader_ = std::make_unique<sim::SweepReader>(dir);
    } catch (const sim::SimError& e) {
      throw InputError(e.what());
    }
    kind_ = "sweep";
    fps_ = reader_->fps();
    const int total = reader_->frameCount();
    expected_ = std::max(0, total - opt.first);
    if (opt.count > 0) expected_ = std::min(expected_, opt.count);
    setNativeSize(reader_->width(), reader_->height());
  }

 protected:
  bool readFrame(int index, std::vector<uint8_t>& nv21) override {
    if (index >= reader_->frameCount()) return false;
    timeMs_ = index * 1000.0 / fps_;
    try {
      if (width_ == nativeW_ && height_ == nativeH_) {
        reader_->readFrame(index, nv21);
        return true;
      }
      reader_->readFrame(index, raw_);
    } catch (const sim::SimError& e) {
      throw InputError(e.what());
    }
    cv::Mat yuv(nativeH_ * 3 / 2, nativeW_, CV_8UC1, raw_.data());
    cv::Mat bgr;
    cv::cvtColor(yuv, bgr, cv::COLOR_YUV2BGR_NV21);
    deliverBgr(bgr, nv21);
    return true;
  }

 private:
  std::unique_ptr<sim::SweepReader> reader_;
  std::vector<uint8_t> raw_;
};

class VideoSource : public FrameSource {
 public:
  VideoSource(const std::string& path, const SourceOptions& opt) : FrameSource(opt) {
    // FFmpeg's own complaints would break the one-line error; the error below names the file.
    ::setenv("OPENCV_FFMPEG_LOGLEVEL", "-8", 0);
    // Phones store portrait clips as landscape pictures plus a rotation in the container:
    // the backend turns each frame upright when asked (its default; it takes the setting
    // after opening, not as an open parameter).
    if (!cap_.open(path, cv::CAP_FFMPEG) || !cap_.isOpened())
      throw InputError("cannot open '" + path + "' as a video (unsupported format or codec)");
    cap_.set(cv::CAP_PROP_ORIENTATION_AUTO, 1);
    kind_ = "video";
    const double meta = cap_.get(cv::CAP_PROP_ORIENTATION_META);
    rotation_ = ((static_cast<int>(std::lround(meta)) % 360) + 360) % 360;
    if (!cap_.read(first_) || first_.empty())
      throw InputError("'" + path + "' holds no readable video frame");
    const double f = cap_.get(cv::CAP_PROP_FPS);
    fps_ = (f > 0 && f < 1000) ? f : 30.0;
    firstTimeMs_ = frameTime(0);
    const double n = cap_.get(cv::CAP_PROP_FRAME_COUNT);
    if (n > 0) {
      expected_ = std::max(0, static_cast<int>(n) - opt.first);
      if (opt.count > 0) expected_ = std::min(expected_, opt.count);
    } else if (opt.count > 0) {
      expected_ = opt.count;
    }
    setNativeSize(first_.cols, first_.rows);
  }

 protected:
  bool readFrame(int index, std::vector<uint8_t>& nv21) override {
    cv::Mat bgr;
    if (index == 0) {
      bgr = first_;
      first_.release();
      timeMs_ = firstTimeMs_;
    } else if (!cap_.read(bgr) || bgr.empty()) {
      return false;
    } else {
      timeMs_ = frameTime(index);
    }
    if (bgr.cols != nativeW_ || bgr.rows != nativeH_)
      throw InputError("video frame " + std::to_string(index) + " is " +
                       sizeText(bgr.cols, bgr.rows) + ", the first was " +
                       sizeText(nativeW_, nativeH_) + ": the frame size changed mid-stream");
    deliverBgr(bgr, nv21);
    return true;
  }

 private:
  // The frame's presentation time as the container gives it. The backend answers 0 for a
  // frame without one (as the last frames of a clip with B-frames come out of the decoder):
  // a time that does not advance is taken as one nominal frame after the previous.
  double frameTime(int index) {
    const double t = cap_.get(cv::CAP_PROP_POS_MSEC);
    if (index == 0) return std::isfinite(t) && t >= 0 ? t : 0.0;
    return std::isfinite(t) && t > timeMs_ ? t : timeMs_ + 1000.0 / fps_;
  }

  cv::VideoCapture cap_;
  cv::Mat first_;
  double firstTimeMs_ = 0.0;
};

bool isImageName(const fs::path& p) {
  std::string e = p.extension().string();
  std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return std::tolower(c); });
  static const char* kExt[] = {".jpg",  ".jpeg", ".png", ".bmp", ".tif",
                               ".tiff", ".webp", ".ppm", ".pgm"};
  return std::any_of(std::begin(kExt), std::end(kExt), [&](const char* x) { return e == x; });
}

class ImageFolderSource : public FrameSource {
 public:
  ImageFolderSource(const std::string& dir, const SourceOptions& opt) : FrameSource(opt) {
    kind_ = "images";
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
      if (it->is_regular_file() && isImageName(it->path())) files_.push_back(it->path().string());
    if (ec) throw InputError("cannot list '" + dir + "': " + ec.message());
    if (files_.empty()) throw InputError("'" + dir + "' holds no image files");
    std::sort(files_.begin(), files_.end());
    fps_ = opt.fps;
    expected_ = std::max(0, static_cast<int>(files_.size()) - opt.first);
    if (opt.count > 0) expected_ = std::min(expected_, opt.count);
    const size_t probe = std::min(files_.size() - 1, static_cast<size_t>(opt.first));
    cv::Mat img = load(files_[probe], cv::IMREAD_COLOR);
    setNativeSize(img.cols, img.rows);
  }

 protected:
  bool readFrame(int index, std::vector<uint8_t>& nv21) override {
    if (index >= static_cast<int>(files_.size())) return false;
    if (index < opt_.first) return true;  // skipped unread
    timeMs_ = index * 1000.0 / fps_;
    cv::Mat bgr = load(files_[index], opt_.lumaOnly ? cv::IMREAD_GRAYSCALE : cv::IMREAD_COLOR);
    if (bgr.cols != nativeW_ || bgr.rows != nativeH_)
      throw InputError("'" + files_[index] + "' is " + sizeText(bgr.cols, bgr.rows) +
                       ", the first image was " + sizeText(nativeW_, nativeH_) +
                       ": the frame size changed mid-stream");
    deliverBgr(bgr, nv21);
    return true;
  }

 private:
  static cv::Mat load(const std::string& file, int flags) {
    cv::Mat img;
    try {
      img = cv::imread(file, flags);
    } catch (const cv::Exception&) {
      // A decoder refuses what its header claims (a side beyond OpenCV's limits, say) by
      // throwing; for the user it is one more image that cannot be read.
      img.release();
    }
    if (img.empty()) throw InputError("cannot read image '" + file + "'");
    return img;
  }
  std::vector<std::string> files_;
};

}  // namespace

void upscaledSize(int w, int h, int& outW, int& outH) {
  // Both sides must exceed 640 and be even (NV21 samples colour per 2x2 block). A very thin
  // picture would give a side beyond int: held at INT_MAX rounded down to even.
  const double s = 642.0 / std::min(w, h);
  auto even = [](double v) {
    return 2 * static_cast<int>(std::min(std::ceil(v / 2.0 - 1e-9), (INT_MAX - 1) / 2.0));
  };
  outW = std::max(642, even(w * s));
  outH = std::max(642, even(h * s));
}

void FrameSource::setNativeSize(int w, int h) {
  nativeW_ = w;
  nativeH_ = h;
  if (w < 2 || h < 2) throw InputError("frames of " + sizeText(w, h) + " are too small");
  if (std::min(w, h) <= 640) {
    if (!opt_.upscale)
      throw InputError("frames are " + sizeText(w, h) +
                       ": the engine needs both sides above 640 (--upscale scales them up)");
    upscaledSize(w, h, width_, height_);
    if (std::max(width_, height_) > kMaxUpscaledSide)
      throw InputError("frames are " + sizeText(w, h) + ": scaled up to above 640 on both sides " +
                       "they would be more than " + std::to_string(kMaxUpscaledSide) +
                       " pixels long");
  } else {
    // NV21 needs even sides: an odd last row or column is dropped.
    width_ = w & ~1;
    height_ = h & ~1;
  }
}

void FrameSource::deliverBgr(const cv::Mat& bgr, std::vector<uint8_t>& nv21) const {
  cv::Mat sized;
  if (bgr.cols == width_ && bgr.rows == height_)
    sized = bgr;
  else if (width_ <= bgr.cols && height_ <= bgr.rows)
    sized = bgr(cv::Rect(0, 0, width_, height_));
  else
    cv::resize(bgr, sized, cv::Size(width_, height_), 0, 0, cv::INTER_CUBIC);
  const size_t ySize = static_cast<size_t>(width_) * height_;
  if (sized.channels() == 1) {
    nv21.resize(ySize * 3 / 2);
    cv::Mat y(height_, width_, CV_8UC1, nv21.data());
    sized.copyTo(y);
    std::fill(nv21.begin() + static_cast<long>(ySize), nv21.end(), uint8_t{128});
    return;
  }
  NV21Img img;
  img.nvCvt2NV21(sized.isContinuous() ? sized : sized.clone());
  nv21.resize(ySize * 3 / 2);
  std::copy(img.yPlane, img.yPlane + ySize, nv21.begin());
  std::copy(img.vuPlane, img.vuPlane + ySize / 2, nv21.begin() + static_cast<long>(ySize));
  img.freeData();
}

bool FrameSource::next(std::vector<uint8_t>& nv21) {
  if (opt_.count > 0 && delivered_ >= opt_.count) return false;
  while (next_ < opt_.first) {
    if (!readFrame(next_, nv21)) return false;
    ++next_;
  }
  if (!readFrame(next_, nv21)) return false;
  if (!recordedNs_.empty()) {
    if (next_ >= static_cast<int>(recordedNs_.size()))
      throw InputError("frame " + std::to_string(next_) + " has no time in frames.csv (" +
                       std::to_string(recordedNs_.size()) + " lines)");
    timeMs_ = static_cast<double>(recordedNs_[static_cast<size_t>(next_)] - clockOriginNs_) * 1e-6;
  }
  ++next_;
  ++delivered_;
  return true;
}

std::vector<int64_t> readFrameTimes(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw InputError("cannot read '" + path + "'");
  std::string line;
  if (!std::getline(in, line) || line.rfind("frame,t_ns", 0) != 0)
    throw InputError("'" + path + "' must start with the header frame,t_ns");
  std::vector<int64_t> times;
  for (int n = 2; std::getline(in, line); ++n) {
    if (line.empty() || line == "\r") continue;
    long long frame = -1, t = 0;
    char tail = 0;
    const std::string where = "'" + path + "' line " + std::to_string(n);
    if (std::sscanf(line.c_str(), "%lld,%lld%c", &frame, &t, &tail) < 2 || (tail && tail != '\r'))
      throw InputError(where + ": expected FRAME,T_NS");
    if (frame != static_cast<long long>(times.size()))
      throw InputError(where + ": frame " + std::to_string(frame) + " where " +
                       std::to_string(times.size()) + " comes next");
    if (!times.empty() && t <= times.back())
      throw InputError(where + ": the time does not increase");
    times.push_back(t);
  }
  if (times.empty()) throw InputError("'" + path + "' holds no frame");
  return times;
}

namespace {

// A recording's frames: the folder frames/, or else the one video file beside frames.csv.
std::string recordingFrames(const fs::path& dir) {
  if (fs::is_directory(dir / "frames")) return (dir / "frames").string();
  std::vector<std::string> videos;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (it->is_regular_file() && it->path().extension() != ".csv" && name[0] != '.' &&
        it->path().extension() != ".json" && it->path().extension() != ".txt")
      videos.push_back(it->path().string());
  }
  if (videos.size() != 1)
    throw InputError("recording '" + dir.string() + "' needs its frames as frames/ or one video " +
                     "file (" + std::to_string(videos.size()) + " candidates)");
  return videos.front();
}

}  // namespace

std::unique_ptr<FrameSource> FrameSource::open(const std::string& path, const SourceOptions& opt) {
  std::error_code ec;
  const fs::file_status st = fs::status(path, ec);
  if (ec || !fs::exists(st)) throw InputError("input '" + path + "' does not exist");
  if (fs::is_directory(st)) {
    if (fs::exists(fs::path(path) / "meta.json") || fs::exists(fs::path(path) / "frames.nv21"))
      return std::make_unique<SweepSource>(path, opt);
    if (fs::exists(fs::path(path) / "frames.csv")) {
      std::vector<int64_t> times = readFrameTimes((fs::path(path) / "frames.csv").string());
      std::unique_ptr<FrameSource> src = open(recordingFrames(path), opt);
      src->kind_ = "recording";
      src->clockOriginNs_ = times.front();
      src->recordedNs_ = std::move(times);
      return src;
    }
    return std::make_unique<ImageFolderSource>(path, opt);
  }
  std::ifstream probe(path, std::ios::binary);
  if (!probe) throw InputError("cannot read input '" + path + "'");
  return std::make_unique<VideoSource>(path, opt);
}

}  // namespace zolt::tools
