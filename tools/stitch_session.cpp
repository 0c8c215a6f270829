#include "tools/stitch_session.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <android/log.h>
#include <opencv2/imgcodecs.hpp>

#include "platform/system_property.h"
#include "tools/stitch_report.h"

namespace zolt::tools {
namespace fs = std::filesystem;

namespace {

double msSince(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

void dropLogLine(const struct __android_logger_data*, const char*) {}

// Routes the engine's log lines for the lifetime of a session.
struct EngineLog {
  explicit EngineLog(bool show) {
    if (!show) __android_log_set_logger(dropLogLine);
  }
  ~EngineLog() { __android_log_set_logger(__android_log_stderr_logger); }
};

bool horizontal(int d) { return d == MOVE_RIGHT || d == MOVE_LEFT; }

void drawBar(const StitchResult& r, int expected, int keyFrames) {
  const int done = static_cast<int>(r.frames.size());
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
         "add_ms\n";
  char line[256];
  for (const FrameRecord& f : r.frames) {
    std::snprintf(line, sizeof line, "%d,%d,%d,%d,%d,0x%04X,%d,%d,%.3f,%.3f\n", f.frame,
                  f.offset.x, f.offset.y, f.keyFrame ? 1 : 0, f.direction,
                  static_cast<unsigned>(f.code), f.sweepLength, f.progress, f.selectMs, f.addMs);
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

void stitch(FrameSource& source, const StitchOptions& opt, StitchResult& r) {
  using Clock = std::chrono::steady_clock;
  r = StitchResult();
  r.frameWidth = source.width();
  r.frameHeight = source.height();
  r.fps = source.fps();
  const int W = r.frameWidth, H = r.frameHeight;
  if (!opt.boardPlatform.empty()) zolt::setSystemProperty("ro.board.platform", opt.boardPlatform);
  EngineLog log(opt.engineLog);

  tag_ZOLT_PANO_INIT_PARAM init{};
  init.previewWidth = W;
  init.previewHeight = H;
  init.camOrientation = 90;
  void* handle = nullptr;
  auto t0 = Clock::now();
  const int rc = ZOLT_PANO_Initial(&init, &handle);
  r.initMs = msSince(t0);
  if (rc != SUCCESS || handle == nullptr) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "the engine refused %dx%d frames (code 0x%04X)", W, H,
                  static_cast<unsigned>(rc));
    throw StitchError(buf);
  }
  // Released on every path out, so a thrown input error frees the engine too.
  struct Releaser {
    void*& h;
    ~Releaser() {
      if (h != nullptr) ZOLT_PANO_Release(&h);
    }
  } releaser{handle};

  // The canvas: allocated once the engine fixes the sweep axis, since a horizontal sweep needs
  // the frame's height and a vertical one the frame's width. Y plane, then VU directly behind.
  std::vector<uint8_t> canvasBytes;
  __tag_ZOLT_OFFSCREEN canvas{};
  canvas.width = W;  // progress divides by the canvas side before the canvas exists
  canvas.height = H;

  std::vector<uint8_t> nv21;
  __tag_ZOLT_OFFSCREEN frame{};
  frame.width = W;
  frame.height = H;
  tsRECT rect{-1, -1, -1, -1};
  int lastHint = SUCCESS;
  int keyCount = 0;
  const int expected = source.expectedFrames();

  for (;;) {
    auto tr = Clock::now();
    const int index = source.nextIndex();
    try {
      if (!source.next(nv21)) break;
    } catch (const InputError& e) {
      // What was stitched so far is still saved; the problem is reported with it.
      if (r.frames.empty()) throw;
      r.inputProblem = e.what();
      break;
    }
    r.readMs += msSince(tr);
    frame.planeY = nv21.data();
    frame.planeVU = nv21.data() + static_cast<size_t>(W) * H;

    FrameRecord f;
    f.frame = index;
    long isKey = 0;
    auto ts = Clock::now();
    f.code = ZOLT_PANO_SelectFrames(handle, nullptr, nullptr, &frame, nullptr, &f.offset, &isKey,
                                    nullptr, &f.direction, &f.sweepLength);
    f.selectMs = msSince(ts);
    f.keyFrame = isKey != 0;

    if (canvasBytes.empty() && (f.direction >= MOVE_RIGHT && f.direction <= MOVE_UP)) {
      const bool horiz = horizontal(f.direction);
      cv::Size c = defaultCanvas(W, H, horiz);
      if (opt.canvasWidth > 0) {
        c = cv::Size(opt.canvasWidth, opt.canvasHeight);
        const bool fits = horiz ? (c.height == H && c.width > W) : (c.width == W && c.height > H);
        if (!fits)
          throw StitchError("canvas " + std::to_string(c.width) + "x" + std::to_string(c.height) +
                            " does not suit a " + (horiz ? "horizontal" : "vertical") +
                            " sweep of " + std::to_string(W) + "x" + std::to_string(H) +
                            " frames: it must be " +
                            (horiz ? "as high as a frame and wider" : "as wide as a frame and taller"));
      }
      const size_t y = static_cast<size_t>(c.width) * c.height;
      canvasBytes.assign(y * 3 / 2, 0);
      std::fill(canvasBytes.begin() + static_cast<long>(y), canvasBytes.end(), 128);
      canvas.width = c.width;
      canvas.height = c.height;
      canvas.planeY = canvasBytes.data();
      canvas.planeVU = canvasBytes.data() + y;
      r.canvasWidth = c.width;
      r.canvasHeight = c.height;
      r.direction = f.direction;
    }

    const tsRECT before = rect;
    auto ta = Clock::now();
    ZOLT_PANO_AddImage(handle, nullptr, nullptr, nullptr, nullptr, &canvas, &rect, nullptr,
                       &f.progress);
    f.addMs = msSince(ta);
    r.selectMs += f.selectMs;
    r.addMs += f.addMs;

    if (f.keyFrame && rect.right >= 0) {
      // Where the merger put the frame: the leading edge of the valid rectangle along the
      // sweep, the key frame's offset across it.
      const bool first = before.right < 0;
      int x = 0, y = 0;
      switch (r.direction) {
        case MOVE_RIGHT: x = rect.right - W; y = -f.offset.y; break;
        case MOVE_LEFT: x = rect.left; y = -f.offset.y; break;
        case MOVE_DOWN: x = f.offset.x; y = rect.bottom - H; break;
        case MOVE_UP: x = f.offset.x; y = rect.top; break;
        default: break;
      }
      const bool moved = first || (horizontal(r.direction)
                                       ? (rect.left != before.left || rect.right != before.right)
                                       : (rect.top != before.top || rect.bottom != before.bottom));
      if (moved) r.keyFrames.push_back({index, cv::Rect(x, y, W, H)});
      ++keyCount;
    }
    if (std::find(r.codesSeen.begin(), r.codesSeen.end(), f.code) == r.codesSeen.end())
      r.codesSeen.push_back(f.code);
    const bool hintChanged = f.code != lastHint;
    lastHint = f.code;
    r.frames.push_back(f);
    if (opt.hints && hintChanged && f.code != SUCCESS) {
      if (opt.progressBar) std::fprintf(stderr, "\r\033[K");
      std::fprintf(stderr, "frame %d: %s\n", index, hintFor(f.code).c_str());
    }
    if (opt.progressBar) drawBar(r, expected, keyCount);
  }
  if (opt.progressBar) std::fprintf(stderr, "\n");
  if (r.frames.empty()) throw InputError("the input holds no frames in the chosen range");
  r.haveRect = rect.right >= 0;
  r.validRect = rect;

  // The panorama goes to NAME.jpg; when that fails, to the current directory, then /tmp.
  auto tsave = Clock::now();
  const std::string stem = fs::path(opt.name).filename().string();
  std::error_code cwdError;
  const fs::path cwd = fs::current_path(cwdError);
  std::vector<std::string> bases = {opt.name, (cwd / stem).string(),
                                    "/tmp/" + stem + "-" + std::to_string(::getpid())};
  if (r.haveRect) {
    for (size_t i = 0; i < bases.size(); ++i) {
      if (i > 0 && fs::absolute(bases[i]) == fs::absolute(opt.name)) continue;
      if (saveThrough(handle, bases[i])) {
        r.outputBase = bases[i];
        r.panoramaPath = bases[i] + ".jpg";
        break;
      }
      if (i == 0) r.outputProblem = "cannot write '" + opt.name + ".jpg': " + whyUnwritable(opt.name);
    }
  }
  r.saveMs = msSince(tsave);
  auto trel = Clock::now();
  ZOLT_PANO_Release(&handle);
  handle = nullptr;
  r.releaseMs = msSince(trel);

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
  if (!r.haveRect && !r.inputProblem.empty()) throw InputError(r.inputProblem);
  if (!r.haveRect)
    throw StitchError("no panorama: the engine merged no key frame" +
                      (r.frames.back().code != SUCCESS
                           ? " (last hint: " + hintFor(r.frames.back().code) + ")"
                           : std::string()));
  if (r.panoramaPath.empty()) throw StitchError("the engine wrote no panorama");
}

}  // namespace zolt::tools
