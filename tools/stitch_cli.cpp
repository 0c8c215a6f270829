#include "tools/stitch_cli.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "zolt_pano_ext.h"
#include "tools/capture_time.h"
#include "tools/command.h"
#include "tools/gyro_alignment.h"
#include "tools/gyro_feed.h"

namespace zolt::tools {

void addStitchCliOptions(CLI::App* app, StitchCliArgs& a, const std::string& input,
                         const std::string& inputHelp, const std::string& outputHelp,
                         bool outputRequired) {
  app->add_option(input, a.input, inputHelp)->required();
  app->add_option("-o,--out", a.name, outputHelp)->required(outputRequired);
  app->add_option("--canvas", a.canvas,
                  "canvas WxH (default: 6 times the frame's longer side along the sweep, the "
                  "frame's size across)");
  app->add_option("--board-platform", a.boardPlatform, "value of ro.board.platform for the engine");
  app->add_option("--first", a.first, "skip this many frames at the start")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--count", a.count, "stitch at most this many frames (0: all)")
      ->check(CLI::NonNegativeNumber);
  app->add_option("--fps", a.fps, "frame rate of a folder of images")->check(CLI::PositiveNumber);
  app->add_flag("--upscale", a.upscale,
                "scale frames with a side of 640 or less up to the smallest size the engine takes");
  app->add_flag("-q,--quiet", a.quiet, "no hints, progress or summary");
  app->add_flag("--no-progress", a.noProgress, "no progress bar even on a terminal");
  app->add_flag("--engine-log", a.engineLog, "show the engine's log lines on stderr");
  app->add_flag("--no-restart", a.noRestart,
                "one capture only: never start a new one when the engine keeps refusing the sweep");
  app->add_option("--gyro-offset-ms", a.gyroOffset,
                  "with a gyroscope: how late its clock runs against the frames' (ms), or auto: "
                  "estimated from the first second of the input (as zoltpano gyro-check does)")
      ->capture_default_str();
  app->add_option("--gyro-lag-ms", a.gyroLagMs,
                  "with a gyroscope: feed its events up to each frame's time plus this (ms), as a "
                  "phone delivers a preview frame that long after its exposure")
      ->check(CLI::Range(0.0, 1000.0))
      ->capture_default_str();
  app->add_flag("--frame-times", a.frameTimes,
                "with a gyroscope: give the engine each frame's time (ZOLT_PANO_SetFrameTime), "
                "the clock offset as its delay option, so that it reads the gyroscope at the "
                "frame's time");
  app->add_option("--hfov", a.hfovDeg,
                  "the camera's field of view across the frames' width, degrees (for the "
                  "gyroscope's prediction; default: the engine's fixed 62.2 x 39.8 camera)")
      ->check(CLI::Range(10.0, 170.0));
  app->add_option("--mode", a.mode,
                  "exact: the engine as zolt_pano.h specifies it; enhanced: with sub-pixel "
                  "placement and exposure compensation. Either way the engine's verdict decides "
                  "whether the picture is a panorama")
      ->check(CLI::IsMember({"exact", "enhanced"}))
      ->capture_default_str();
  app->add_option("--orientation", a.orientation,
                  "clockwise degrees that show the frames upright (a phone's sensor frames: its "
                  "JPEG orientation; a video's rotation metadata is applied already); the "
                  "enhanced mode saves the panorama turned so and with its EXIF and XMP")
      ->check(CLI::IsMember({0, 90, 180, 270}))
      ->capture_default_str();
}

void applyStitchMode(const std::string& mode, StitchOptions& opt) {
  opt.engineOptions.clear();
  if (mode != "enhanced") return;
  opt.engineOptions = {{ZOLT_PANO_OPTION_SUBPIXEL_PLACEMENT, 1},
                       {ZOLT_PANO_OPTION_EXPOSURE_COMPENSATION, 1}};
}

int applyStitchCli(const StitchCliArgs& a, const std::string& command, const std::string& name,
                   StitchOptions& opt, SourceOptions& src) {
  opt.name = name;
  if (name.empty()) {
    printError(command, "the output name is empty");
    return kExitUsage;
  }
  if (!a.canvas.empty()) {
    int w = 0, h = 0;
    char tail = 0;
    if (std::sscanf(a.canvas.c_str(), "%dx%d%c", &w, &h, &tail) != 2 || w <= 640 || h <= 640 ||
        (w & 1) || (h & 1)) {
      printError(command, "bad canvas size '" + a.canvas +
                              "' (expected WIDTHxHEIGHT, even, both sides above 640)");
      return kExitUsage;
    }
    opt.canvasWidth = w;
    opt.canvasHeight = h;
  }
  opt.boardPlatform = a.boardPlatform;
  opt.hints = !a.quiet;
  opt.progressBar = !a.quiet && !a.noProgress && ::isatty(STDERR_FILENO);
  opt.engineLog = a.engineLog;
  opt.restart = !a.noRestart;
  opt.gyroOffsetAuto = a.gyroOffset == "auto";
  if (!opt.gyroOffsetAuto) {
    char* end = nullptr;
    opt.gyroOffsetMs = std::strtod(a.gyroOffset.c_str(), &end);
    if (a.gyroOffset.empty() || *end != '\0' || !std::isfinite(opt.gyroOffsetMs) ||
        std::fabs(opt.gyroOffsetMs) > 10000) {
      printError(command, "--gyro-offset-ms takes milliseconds (at most 10000 either way) or "
                          "auto, not '" + a.gyroOffset + "'");
      return kExitUsage;
    }
  }
  if (a.frameTimes && std::fabs(opt.gyroOffsetMs) > 1000) {
    printError(command, "--frame-times takes a clock offset of at most 1000 ms either way (the "
                        "engine's delay option), not " + a.gyroOffset);
    return kExitUsage;
  }
  opt.gyroLagMs = a.gyroLagMs;
  opt.frameTimes = a.frameTimes;
  applyStitchMode(a.mode, opt);
  // The photo a user keeps: upright, with its metadata (the time is the input's, filled in by
  // runStitchReporting; software: the library's version). The exact mode stays as it was.
  if (a.mode == "enhanced") {
    opt.camOrientation = a.orientation;
    opt.photoSet = true;
  }
  if (a.hfovDeg > 0)
    opt.engineOptions.emplace_back(ZOLT_PANO_OPTION_CAMERA_HFOV,
                                   static_cast<int>(std::lround(a.hfovDeg * 100)));
  src.first = a.first;
  src.count = a.count;
  src.fps = a.fps;
  src.upscale = a.upscale;
  return kExitOk;
}

int runStitchReporting(const std::string& command, const std::string& input,
                       const SourceOptions& src, const StitchOptions& opt, StitchResult& r) {
  try {
    StitchOptions run = opt;
    StitchResult::GyroClock clock;
    clock.offsetMs = opt.gyroOffsetMs;
    if (opt.gyroOffsetAuto && !opt.gyroPath.empty()) {
      // The same estimate as gyro-check's, over the input's first second.
      SourceOptions luma = src;
      luma.lumaOnly = true;
      const EngineLog log(opt.engineLog);
      const GyroAlignment a =
          alignGyroOnFrames(*FrameSource::open(input, luma), readGyroEvents(opt.gyroPath), 1.0);
      clock = {a.found ? a.timeOffsetMs : 0.0, true, a.found, a.pairs};
      run.gyroOffsetMs = clock.offsetMs;
    }
    // stitch() starts r afresh; the clock is kept whether it ends well or not.
    struct KeepClock {
      StitchResult& r;
      const StitchResult::GyroClock& clock;
      ~KeepClock() { r.gyroClock = clock; }
    } keep{r, clock};
    std::unique_ptr<FrameSource> source = FrameSource::open(input, src);
    if (run.photoSet) {
      const CaptureTime t = inputCaptureTime(input);
      run.photo.captureTimeUtcMs = t.utcMs;
      run.photo.zoneOffsetMinutes = t.zoneOffsetMinutes;
    }
    stitch(*source, run, r);
  } catch (const InputError& e) {
    printError(command, e.what());
    return kExitFailure;
  } catch (const SessionError& e) {
    printError(command, e.what());
    return kExitFailure;
  } catch (const cv::Exception& e) {
    printError(command, std::string("image processing failed: ") + e.what());
    return kExitFailure;
  } catch (const std::bad_alloc&) {
    printError(command, "out of memory");
    return kExitFailure;
  }
  std::string problem = r.inputProblem;
  if (!r.outputProblem.empty()) problem += (problem.empty() ? "" : "; ") + r.outputProblem;
  const Verdict& gate = r.captures.at(static_cast<size_t>(r.chosenCapture)).gate;
  if (!gate.passed) {
    printError(command, "refused: " + gate.message + (problem.empty() ? "" : "; " + problem) +
                            "; the picture is kept as '" + r.panoramaPath + "'");
    return kExitFailure;
  }
  if (!problem.empty()) {
    const std::string where = r.inputProblem.empty() ? "the panorama" : "the panorama so far";
    printError(command, problem + "; " + where + " is in '" + r.panoramaPath + "'");
    return kExitFailure;
  }
  return kExitOk;
}

std::string directionName(int d) {
  switch (d) {
    case MOVE_RIGHT: return "right";
    case MOVE_LEFT: return "left";
    case MOVE_DOWN: return "down";
    case MOVE_UP: return "up";
    default: return "no";
  }
}

}  // namespace zolt::tools
