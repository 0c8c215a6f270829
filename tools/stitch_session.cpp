#include "tools/stitch_session.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <android/log.h>
#include <opencv2/imgcodecs.hpp>

#include "platform/system_property.h"
#include "tools/gyro_feed.h"
#include "tools/stitch_report.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace fs = std::filesystem;

namespace {

double msSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

// Silences the engine's log for the lifetime of a session unless it is to be shown.
struct EngineLog {
  explicit EngineLog(bool show) : before_(ZOLT_PANO_GetLogLevel()) {
    if (!show) ZOLT_PANO_SetLogLevel(ANDROID_LOG_SILENT);
  }
  ~EngineLog() { ZOLT_PANO_SetLogLevel(before_); }
  int before_;
};

bool horizontal(int d) { return d == MOVE_RIGHT || d == MOVE_LEFT; }

// `done`: frames read from the input (frames fed again after a restart are not counted twice).
void drawBar(const StitchResult& r, int done, int expected, int keyFrames) {
  const int width = 30;
  const int progress = r.frames.empty() ? 0 : r.frames.back().progress;
  std::string bar(width, ' ');
  const int fill = expected > 0 ? std::min(width, done * width / expected)
                                : std::min(width, progress * width / 100);
  for (int i = 0; i < fill; ++i) bar[i] = '#';
  if (expected > 0)
    std::fprintf(stderr, "\r[%s] %d/%d frames, %d key frames, canvas %d%%  ", bar.c_str(), done,
                 expected, keyFrames, progress);
  else
    std::fprintf(stderr, "\r[%s] %d frames, %d key frames, canvas %d%%  ", bar.c_str(), done,
                 keyFrames, progress);
  std::fflush(stderr);
}

bool fileWritten(const std::string& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec) && fs::file_size(path, ec) > 0 && !ec;
}

// Lets the engine write NAME.jpg through a temporary name beside it, so that a failed write
// leaves an older NAME.jpg untouched. Returns false when nothing could be written there.
bool saveThrough(void* handle, const std::string& base) {
  const std::string tmp = base + ".partial-" + std::to_string(::getpid());
  std::error_code ec;
  fs::remove(tmp + ".jpg", ec);
  ZOLT_PANO_SaveImage(handle, tmp);
  if (!fileWritten(tmp + ".jpg")) return false;
  fs::rename(tmp + ".jpg", base + ".jpg", ec);
  if (ec) {
    fs::remove(tmp + ".jpg", ec);
    return false;
  }
  return true;
}

std::string whyUnwritable(const std::string& base) {
  const fs::path dir = fs::path(base).parent_path().empty() ? fs::path(".")
                                                             : fs::path(base).parent_path();
  std::error_code ec;
  if (!fs::exists(dir, ec)) return "directory '" + dir.string() + "' does not exist";
  if (!fs::is_directory(dir, ec)) return "'" + dir.string() + "' is not a directory";
  if (::access(dir.c_str(), W_OK) != 0) return "directory '" + dir.string() + "' is not writable";
  return "writing it failed";
}

void writeCsv(const StitchResult& r, const std::string& path) {
  std::ofstream out(path);
  out << "frame,offset_x,offset_y,key_frame,direction,code,sweep_length,progress,select_ms,"
         "add_ms,capture,time_ms\n";
  char line[256];
  for (const FrameRecord& f : r.frames) {
    std::snprintf(line, sizeof line, "%d,%d,%d,%d,%d,0x%04X,%d,%d,%.3f,%.3f,%d,%.3f\n", f.frame,
                  f.offset.x, f.offset.y, f.keyFrame ? 1 : 0, f.direction,
                  static_cast<unsigned>(f.code), f.sweepLength, f.progress, f.selectMs, f.addMs,
                  f.capture, f.timeMs);
    out << line;
  }
  out.flush();
  if (!out) throw StitchError("cannot write '" + path + "'");
}

}  // namespace

cv::Size defaultCanvas(int w, int h, bool horiz) {
  const int along = 6 * std::max(w, h);
  return horiz ? cv::Size(along, h) : cv::Size(w, along);
}

std::string hintFor(int code) {
  switch (code) {
    case SUCCESS: return "";
    case INFO_TRACE_FIRST_FRAME: return "first frame: start sweeping";
    case ERR_TRACE_TOO_QUICK: return "too quick: the sweep lost its place, move slower";
    case WARN_TRACE_LITTLE_QUICK: return "a little quick: move slower";
    case ERR_TRACE_DIRECTION: return "wrong direction: keep to the line of the sweep";
    case ERR_TRACE_DIRECTION_BACK: return "going back: the sweep moved backwards";
    case WARN_SHAKE_TOO_BIG: return "shaking: hold the phone steadier";
    case WARN_MOVE_SLOPE: return "tilting: the sweep slopes, keep it level";
    case ERR_TRACE_NO_FEATURE: return "no texture: nothing to follow here";
    case ERR_INVALID_DIMENSIONS: return "invalid frame size";
    default: {
      char buf[48];
      std::snprintf(buf, sizeof buf, "result code 0x%04X", static_cast<unsigned>(code));
      return buf;
    }
  }
}

cv::Point panoramaOrigin(const StitchResult& r) {
  return r.haveRect ? cv::Point(r.validRect.left, r.validRect.top) : cv::Point(0, 0);
}

bool refusesSweep(int code) {
  return code == ERR_TRACE_DIRECTION || code == ERR_TRACE_DIRECTION_BACK ||
         code == ERR_TRACE_TOO_QUICK || code == ERR_TRACE_NO_FEATURE;
}

namespace {

// A frame as read from the source, kept for feeding again after a restart.
struct InputFrame {
  int index = 0;
  double timeMs = 0.0;
  std::vector<uint8_t> nv21;
};

// One engine from Initial to Release, with the canvas it merges into. The canvas is allocated
// once the engine fixes the sweep axis, since a horizontal sweep needs the frame's height and a
// vertical one the frame's width. Y plane, then VU directly behind.
class Capture {
 public:
  Capture(int number, int w, int h, const StitchOptions& opt, StitchResult& r, GyroFeed* gyro)
      : w_(w), h_(h), opt_(opt), r_(r), gyro_(gyro) {
    rec.number = number;
    tag_ZOLT_PANO_INIT_PARAM init{};
    init.previewWidth = w;
    init.previewHeight = h;
    init.camOrientation = 90;
    auto t0 = std::chrono::steady_clock::now();
    const int rc = ZOLT_PANO_Initial(&init, &handle_);
    r.initMs += msSince(t0);
    if (rc != SUCCESS || handle_ == nullptr) {
      handle_ = nullptr;
      char buf[96];
      std::snprintf(buf, sizeof buf, "the engine refused %dx%d frames (code 0x%04X)", w, h,
                    static_cast<unsigned>(rc));
      throw StitchError(buf);
    }
    canvas_.width = w;  // progress divides by the canvas side before the canvas exists
    canvas_.height = h;
    frame_.width = w;
    frame_.height = h;
  }
  ~Capture() { release(); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  // Feeds one frame: SelectFrames, the canvas once the axis is known, AddImage. Everything
  // that must happen before the engine sees a frame goes here.
  FrameRecord feed(const InputFrame& in) {
    using Clock = std::chrono::steady_clock;
    FrameRecord f;
    f.frame = in.index;
    f.timeMs = in.timeMs;
    f.capture = rec.number;
    // The engine only reads the frame's planes.
    frame_.planeY = const_cast<uint8_t*>(in.nv21.data());
    frame_.planeVU = frame_.planeY + static_cast<size_t>(w_) * h_;
    if (gyro_ != nullptr) {
      // The gyroscope's events up to this frame have gone through the engine's fusion, as on a
      // phone; a new engine's fusion starts just before its first frame.
      if (rec.frames == 0) gyro_->restartAt(in.timeMs);
      gyro_->feedUpTo(in.timeMs);
    }
    long isKey = 0;
    auto ts = Clock::now();
    f.code = ZOLT_PANO_SelectFrames(handle_, nullptr, nullptr, &frame_, nullptr, &f.offset,
                                    &isKey, nullptr, &f.direction, &f.sweepLength);
    f.selectMs = msSince(ts);
    f.keyFrame = isKey != 0;
    if (canvasBytes_.empty() && f.direction >= MOVE_RIGHT && f.direction <= MOVE_UP)
      makeCanvas(f.direction);

    const tsRECT before = rect;
    auto ta = Clock::now();
    ZOLT_PANO_AddImage(handle_, nullptr, nullptr, nullptr, nullptr, &canvas_, &rect, nullptr,
                       &f.progress);
    f.addMs = msSince(ta);
    if (f.keyFrame && rect.right >= 0) placeKeyFrame(f, before);
    if (rec.frames == 0) rec.firstFrame = in.index;
    rec.lastFrame = in.index;
    ++rec.frames;
    return f;
  }

  bool haveRect() const { return rect.right >= 0; }

  // Saves the panorama through the first base of `bases` from `from` on that takes it;
  // returns the index of that base, or -1 when none did (or there is nothing to save).
  int save(const std::vector<std::string>& bases, size_t from, const std::string& suffix) {
    if (!haveRect()) return -1;
    for (size_t i = from; i < bases.size(); ++i) {
      if (i > 0 && fs::absolute(bases[i]) == fs::absolute(bases[0])) continue;
      if (saveThrough(handle_, bases[i] + suffix)) {
        rec.panoramaPath = bases[i] + suffix + ".jpg";
        const bool horiz = horizontal(rec.direction);
        rec.panoramaSize = cv::Size(rect.right - rect.left, rect.bottom - rect.top);
        rec.length = horiz ? rec.panoramaSize.width : rec.panoramaSize.height;
        return static_cast<int>(i);
      }
      if (i == 0)
        r_.outputProblem = "cannot write '" + bases[0] + ".jpg': " + whyUnwritable(bases[0]);
    }
    return -1;
  }

  void release() {
    if (handle_ == nullptr) return;
    auto t0 = std::chrono::steady_clock::now();
    ZOLT_PANO_Release(&handle_);
    handle_ = nullptr;
    r_.releaseMs += msSince(t0);
  }

  CaptureRecord rec;
  std::vector<PlacedKeyFrame> keyFrames;
  tsRECT rect{-1, -1, -1, -1};
  cv::Size canvasSize;

 private:
  void makeCanvas(int direction) {
    const bool horiz = horizontal(direction);
    cv::Size c = defaultCanvas(w_, h_, horiz);
    if (opt_.canvasWidth > 0) {
      c = cv::Size(opt_.canvasWidth, opt_.canvasHeight);
      const bool fits = horiz ? (c.height == h_ && c.width > w_) : (c.width == w_ && c.height > h_);
      if (!fits)
        throw StitchError("canvas " + std::to_string(c.width) + "x" + std::to_string(c.height) +
                          " does not suit a " + (horiz ? "horizontal" : "vertical") +
                          " sweep of " + std::to_string(w_) + "x" + std::to_string(h_) +
                          " frames: it must be " +
                          (horiz ? "as high as a frame and wider" : "as wide as a frame and taller"));
    }
    const size_t y = static_cast<size_t>(c.width) * c.height;
    canvasBytes_.assign(y * 3 / 2, 0);
    std::fill(canvasBytes_.begin() + static_cast<long>(y), canvasBytes_.end(), 128);
    canvas_.width = c.width;
    canvas_.height = c.height;
    canvas_.planeY = canvasBytes_.data();
    canvas_.planeVU = canvasBytes_.data() + y;
    canvasSize = c;
    rec.direction = direction;
  }

  // Where the merger put the frame: the leading edge of the valid rectangle along the sweep,
  // the key frame's offset across it.
  void placeKeyFrame(const FrameRecord& f, const tsRECT& before) {
    const bool first = before.right < 0;
    int x = 0, y = 0;
    switch (rec.direction) {
      case MOVE_RIGHT: x = rect.right - w_; y = -f.offset.y; break;
      case MOVE_LEFT: x = rect.left; y = -f.offset.y; break;
      case MOVE_DOWN: x = f.offset.x; y = rect.bottom - h_; break;
      case MOVE_UP: x = f.offset.x; y = rect.top; break;
      default: break;
    }
    const bool moved = first || (horizontal(rec.direction)
                                     ? (rect.left != before.left || rect.right != before.right)
                                     : (rect.top != before.top || rect.bottom != before.bottom));
    if (moved) {
      keyFrames.push_back({f.frame, cv::Rect(x, y, w_, h_)});
      ++rec.keyFrames;
    }
  }

  int w_, h_;
  const StitchOptions& opt_;
  StitchResult& r_;
  GyroFeed* gyro_;  // not owned; null without a gyroscope
  void* handle_ = nullptr;
  std::vector<uint8_t> canvasBytes_;
  __tag_ZOLT_OFFSCREEN canvas_{};
  __tag_ZOLT_OFFSCREEN frame_{};
};

// The run of frames that may end a capture: from a refused frame on, every frame until the
// next key frame. The engine interleaves its refusals with frames it neither refuses nor takes
// (after four frames without texture it makes the current frame its reference, and the next
// one then looks like a small step back), so the run allows a quarter of those.
struct RefusedRun {
  int count = 0;
  int refused = 0;
  double spanMs = 0.0;
  double lastMs = 0.0;
  int lastCode = SUCCESS;  // the last refusal

  void clear() {
    count = refused = 0;
    spanMs = 0.0;
  }
  // Adds a frame; the span grows by the time since the previous one (one nominal frame when
  // the container's times step back or jump, as at a joined clip).
  void add(double timeMs, int code, double fps) {
    if (count > 0) {
      const double d = timeMs - lastMs;
      spanMs += (d > 0 && d < 5000) ? d : 1000.0 / fps;
    }
    lastMs = timeMs;
    if (refusesSweep(code)) {
      lastCode = code;
      ++refused;
    }
    ++count;
  }
  bool sustained() const {
    return count >= kRestartRunFrames && spanMs >= kRestartRunMs && 4 * refused >= 3 * count;
  }
};

}  // namespace

void stitch(FrameSource& source, const StitchOptions& opt, StitchResult& r) {
  using Clock = std::chrono::steady_clock;
  r = StitchResult();
  r.frameWidth = source.width();
  r.frameHeight = source.height();
  r.fps = source.fps();
  r.rotation = source.rotation();
  const int W = r.frameWidth, H = r.frameHeight;
  if (!opt.boardPlatform.empty()) zolt::setSystemProperty("ro.board.platform", opt.boardPlatform);
  EngineLog log(opt.engineLog);
  // Before the first Initial: the host has a gyroscope from then on.
  std::unique_ptr<GyroFeed> gyro;
  if (!opt.gyroPath.empty()) gyro = std::make_unique<GyroFeed>(opt.gyroPath, opt.gyroOffsetMs);

  // Outputs go to NAME; when that cannot be written, to the current directory, then /tmp.
  const std::string stem = fs::path(opt.name).filename().string();
  std::error_code cwdError;
  const fs::path cwd = fs::current_path(cwdError);
  const std::vector<std::string> bases = {opt.name, (cwd / stem).string(),
                                          "/tmp/" + stem + "-" + std::to_string(::getpid())};
  size_t baseIndex = 0;

  std::vector<std::unique_ptr<Capture>> done;
  auto capture = std::make_unique<Capture>(1, W, H, opt, r, gyro.get());
  // Ends the current capture: its panorama saved as NAME_captureK, the engine released.
  auto finish = [&](int endCode) {
    capture->rec.endCode = endCode;
    auto t0 = Clock::now();
    const int used = capture->save(bases, baseIndex, "_capture" + std::to_string(capture->rec.number));
    r.saveMs += msSince(t0);
    if (used >= 0) baseIndex = static_cast<size_t>(used);
    capture->release();
    done.push_back(std::move(capture));
  };

  std::deque<InputFrame> replay;  // frames to feed again after a restart, in input order
  RefusedRun run;
  // The frames since the capture's last key frame: a restart feeds them again, so that the new
  // capture starts where the old one's panorama ends. At most about kReplayBytesMax of them,
  // the latest kept.
  std::deque<InputFrame> sinceKey;
  const size_t frameBytes = static_cast<size_t>(W) * H * 3 / 2;
  const size_t keepMax = std::max<size_t>(kRestartRunFrames, kReplayBytesMax / frameBytes);
  InputFrame in;
  int lastHint = SUCCESS;
  int keyCount = 0;
  int read = 0;
  const int expected = source.expectedFrames();

  for (;;) {
    if (!replay.empty()) {
      in = std::move(replay.front());
      replay.pop_front();
    } else {
      auto tr = Clock::now();
      in.index = source.nextIndex();
      try {
        if (!source.next(in.nv21)) break;
      } catch (const InputError& e) {
        // What was stitched so far is still saved; the problem is reported with it.
        if (r.frames.empty()) throw;
        r.inputProblem = e.what();
        break;
      }
      in.timeMs = source.timeMs();
      r.readMs += msSince(tr);
      ++read;
    }

    FrameRecord f = capture->feed(in);
    r.selectMs += f.selectMs;
    r.addMs += f.addMs;
    if (f.keyFrame && capture->haveRect()) ++keyCount;
    if (std::find(r.codesSeen.begin(), r.codesSeen.end(), f.code) == r.codesSeen.end())
      r.codesSeen.push_back(f.code);
    const bool hintChanged = f.code != lastHint;
    lastHint = f.code;
    r.frames.push_back(f);
    if (opt.hints && hintChanged && f.code != SUCCESS) {
      if (opt.progressBar) std::fprintf(stderr, "\r\033[K");
      std::fprintf(stderr, "frame %d: %s\n", in.index, hintFor(f.code).c_str());
    }

    if (opt.restart) {
      if (f.keyFrame) {
        sinceKey.clear();
      } else {
        sinceKey.push_back(in);
        if (sinceKey.size() > keepMax) sinceKey.pop_front();
      }
    }
    if (opt.restart && capture->rec.direction != MOVE_NONE &&
        (refusesSweep(f.code) || (run.count > 0 && !f.keyFrame)))
      run.add(in.timeMs, f.code, r.fps);
    else
      run.clear();
    if (run.sustained()) {
      // The new capture starts after the old one's first frame, so every restart moves on
      // through the input (the run itself lies after the frame that fixed the direction).
      while (!sinceKey.empty() && sinceKey.front().index <= capture->rec.firstFrame)
        sinceKey.pop_front();
      const int from = sinceKey.empty() ? in.index + 1 : sinceKey.front().index;
      if (opt.hints) {
        if (opt.progressBar) std::fprintf(stderr, "\r\033[K");
        std::fprintf(stderr,
                     "frame %d: the sweep is still refused; capture %d starts again from frame %d\n",
                     in.index, capture->rec.number + 1, from);
      }
      const int next = capture->rec.number + 1;
      finish(run.lastCode);
      for (auto it = sinceKey.rbegin(); it != sinceKey.rend(); ++it)
        replay.push_front(std::move(*it));
      sinceKey.clear();
      run.clear();
      lastHint = SUCCESS;
      capture = std::make_unique<Capture>(next, W, H, opt, r, gyro.get());
    }
    if (opt.progressBar) drawBar(r, read, expected, keyCount);
  }
  if (opt.progressBar) std::fprintf(stderr, "\n");
  r.inputFrames = read;
  if (gyro) r.gyroEvents = gyro->pushed();
  if (r.frames.empty()) throw InputError("the input holds no frames in the chosen range");
  finish(SUCCESS);

  // The longest panorama is the result: NAME.jpg. A single capture is just NAME.jpg.
  int chosen = -1;
  for (size_t i = 0; i < done.size(); ++i)
    if (!done[i]->rec.panoramaPath.empty() &&
        (chosen < 0 || done[i]->rec.length > done[static_cast<size_t>(chosen)]->rec.length))
      chosen = static_cast<int>(i);
  if (chosen < 0) {
    // No panorama: the direction and canvas of the last capture that fixed one.
    for (size_t i = 0; i < done.size(); ++i)
      if (done[i]->rec.direction != MOVE_NONE) chosen = static_cast<int>(i);
  }
  r.chosenCapture = std::max(chosen, 0);
  Capture& best = *done[static_cast<size_t>(r.chosenCapture)];
  if (!best.rec.panoramaPath.empty()) {
    const std::string target = bases[baseIndex] + ".jpg";
    std::error_code ec;
    fs::rename(best.rec.panoramaPath, target, ec);
    if (!ec) best.rec.panoramaPath = target;
    r.outputBase = bases[baseIndex];
    r.panoramaPath = best.rec.panoramaPath;
  }
  for (const auto& c : done) r.captures.push_back(c->rec);
  r.direction = best.rec.direction;
  r.canvasWidth = best.canvasSize.width;
  r.canvasHeight = best.canvasSize.height;
  r.keyFrames = best.keyFrames;
  r.haveRect = best.haveRect();
  r.validRect = best.rect;

  if (r.outputBase.empty()) {
    // No panorama: still leave the per-frame record where the user asked, or beside it.
    r.outputBase = opt.name;
    if (::access((fs::path(opt.name).parent_path().empty() ? "." : fs::path(opt.name).parent_path().c_str()), W_OK) != 0)
      r.outputBase = stem;
  } else {
    r.panorama = cv::imread(r.panoramaPath, cv::IMREAD_COLOR);
  }
  r.csvPath = r.outputBase + ".csv";
  r.reportPath = r.outputBase + "_report.png";
  writeCsv(r, r.csvPath);
  if (!writeReport(r, r.reportPath))
    throw StitchError("cannot write '" + r.reportPath + "'");
  const bool anyRect = std::any_of(done.begin(), done.end(), [](const auto& c) { return c->haveRect(); });
  if (!anyRect && !r.inputProblem.empty()) throw InputError(r.inputProblem);
  if (!anyRect)
    throw StitchError("no panorama: the engine merged no key frame" +
                      (r.frames.back().code != SUCCESS
                           ? " (last hint: " + hintFor(r.frames.back().code) + ")"
                           : std::string()));
  if (r.panoramaPath.empty()) throw StitchError("the engine wrote no panorama");
}

}  // namespace zolt::tools
