// zoltpano stitch INPUT -o NAME: a panorama from a video, a simulated sweep or a folder of
// images, made through the engine's public C interface (see docs/stitching.md).
#include <unistd.h>

#include <cstdio>
#include <string>

#include <opencv2/core.hpp>

#include "tools/command.h"
#include "tools/frame_source.h"
#include "tools/metrics.h"
#include "tools/stitch_cli.h"
#include "tools/stitch_session.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

struct StitchArgs {
  std::string gyro;
  bool travel = false;
  StitchCliArgs common;
};

int runStitch(StitchArgs& a) {
  StitchOptions opt;
  SourceOptions src;
  if (int rc = applyStitchCli(a.common, "stitch", a.common.name, opt, src); rc != kExitOk)
    return rc;
  opt.gyroPath = a.gyro;
  opt.measureTravel = a.travel;
  StitchResult r;
  const int rc = runStitchReporting("stitch", a.common.input, src, opt, r);
  if (rc != kExitOk && r.panoramaPath.empty()) return rc;
  if (a.common.quiet) return rc;
  const Verdict& gate = r.captures.at(static_cast<size_t>(r.chosenCapture)).gate;
  std::printf("%s: %d frames, %zu key frames, %s sweep, %s %dx%d in %s, sky step %.2f (%.1f "
              "frames/s)\n",
              a.common.input.c_str(), r.inputFrames, r.keyFrames.size(),
              directionName(r.direction).c_str(), gate.passed ? "panorama" : "refused picture",
              r.panorama.cols, r.panorama.rows, r.panoramaPath.c_str(),
              skyStep(r.panorama, ZOLT_PANO_IsHorizontalSweep(r.direction)),
              r.frames.size() * 1000.0 / std::max(1e-3, r.selectMs + r.addMs));
  if (gate.judged) std::printf("quality gate: %s\n", describe(gate).c_str());
  if (!opt.gyroPath.empty()) {
    const StitchResult::GyroClock& c = r.gyroClock;
    std::string clock;
    if (c.estimated)
      clock = c.found ? ", estimated over the first second from " + std::to_string(c.pairs) +
                            " pairs of frames"
                      : "; no estimate over the first second (" + std::to_string(c.pairs) +
                            " pairs of frames measured), the clocks taken as given";
    char step[64] = "in step with the frames";
    if (opt.gyroLagMs > 0)
      std::snprintf(step, sizeof step, "%.0f ms ahead of the frames", opt.gyroLagMs);
    std::printf("gyroscope: %zu events from %s fed %s (clock %+.1f ms%s)%s\n", r.gyroEvents,
                opt.gyroPath.c_str(), step, c.offsetMs, clock.c_str(),
                opt.frameTimes ? ", the frames' times to the engine" : "");
  }
  if (a.travel) {
    const double placed = placedTravelPx(r), measured = measuredTravelPx(r),
                 centre = measuredTravelPx(r, true);
    std::printf(
        "travel: the key frames span %.0f px, the camera moved %.1f px between them "
        "(chained phase correlation; %.1f px at the frames' centres): length ratio %.4f "
        "(%.4f at the centres)\n",
        placed, measured, centre, lengthRatio(placed, measured), lengthRatio(placed, centre));
  }
  if (r.rotation != 0)
    std::printf(
        "frames of %dx%d, turned %d degrees clockwise as the clip's rotation metadata asks\n",
        r.frameWidth, r.frameHeight, r.rotation);
  if (r.captures.size() > 1) {
    std::printf(
        "%zu captures (the engine kept refusing the sweep; each new capture starts "
        "where the one before last took a key frame; %zu frames fed in all), %s:\n",
        r.captures.size(), r.frames.size(),
        !gate.judged  ? "the longest is the result"
        : gate.passed ? "the longest the quality gate passed is the result"
                      : "the quality gate refused them all, the longest is kept as refused");
    for (size_t i = 0; i < r.captures.size(); ++i) {
      const CaptureRecord& c = r.captures[i];
      std::string pano = "no panorama";
      if (!c.panoramaPath.empty())
        pano = (c.gate.passed ? "panorama " : "refused picture ") +
               std::to_string(c.panoramaSize.width) + "x" + std::to_string(c.panoramaSize.height) +
               " in " + c.panoramaPath;
      std::string ended;
      if (c.endCode != SUCCESS) ended = std::string("; ended by ") + ZOLT_PANO_CodeName(c.endCode);
      std::printf("  capture %d: frames %d-%d, %s sweep, %d key frames, %s%s%s\n", c.number,
                  c.firstFrame, c.lastFrame, directionName(c.direction).c_str(), c.keyFrames,
                  pano.c_str(), ended.c_str(),
                  static_cast<int>(i) == r.chosenCapture ? " (the result)" : "");
      if (c.gate.judged) std::printf("    quality gate: %s\n", describe(c.gate).c_str());
    }
  }
  return rc;
}

Command setupStitch(CLI::App& program) {
  auto [args, app] = addCommand<StitchArgs>(
      program, "stitch", "Stitch a video, a simulated sweep or a folder of images into NAME.jpg");
  app->add_option("--gyro", args->gyro,
                  "gyroscope events (a gyro.csv as zoltpano simulate writes it) for the engine")
      ->check(CLI::ExistingFile);
  app->add_flag("--travel", args->travel,
                "also measure the camera's travel from the frames and compare the key frames' span "
                "with it");
  addStitchCliOptions(app, args->common, "INPUT", "video file, sweep directory or folder of images",
                      "output name: writes NAME.jpg, NAME.csv, NAME_report.png", true);
  return {app, [args = args] { return runStitch(*args); }};
}

const CommandRegistration kRegisterStitch(setupStitch);

}  // namespace
}  // namespace zolt::tools
