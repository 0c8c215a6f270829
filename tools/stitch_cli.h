// Command-line options and error reporting shared by zoltpano stitch and zoltpano evaluate.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "tools/frame_source.h"
#include "tools/stitch_session.h"

namespace zolt::tools {

struct StitchCliArgs {
  std::string input;   // the positional input
  std::string name;    // -o NAME
  std::string canvas;  // WxH, empty: default
  std::string boardPlatform;
  int first = 0;
  int count = 0;
  double fps = 30.0;
  bool upscale = false;
  bool quiet = false;
  bool noProgress = false;
  bool engineLog = false;
  bool noRestart = false;
  std::string gyroOffset = "0";  // milliseconds, or "auto"
  double gyroLagMs = 0.0;        // events ahead of the frames
  bool frameTimes = false;       // frame times to the engine
  double hfovDeg = 0.0;          // 0: the engine's fixed camera
  std::string mode = "enhanced";  // exact or enhanced (see applyStitchMode)
  int orientation = 0;            // clockwise degrees that show the frames upright
};

// The input (positional, required, named `input` in the help) and -o NAME (required unless
// `outputHelp` names a default), then the options every stitching command shares.
void addStitchCliOptions(CLI::App* app, StitchCliArgs& a, const std::string& input,
                         const std::string& inputHelp, const std::string& outputHelp,
                         bool outputRequired);
// The engine options of a --mode: "exact" (none) or "enhanced" (all).
void applyStitchMode(const std::string& mode, StitchOptions& opt);
// Fills the session and source options; prints the problem and returns kExitUsage on a bad
// value.
int applyStitchCli(const StitchCliArgs& a, const std::string& command, const std::string& name,
                   StitchOptions& opt, SourceOptions& src);
// Opens the input and stitches. Every failure is printed as one line and gives a non-zero
// status; a panorama that could only be written to a fallback is named in that line.
int runStitchReporting(const std::string& command, const std::string& input,
                       const SourceOptions& src, const StitchOptions& opt, StitchResult& r);

std::string directionName(int d);

}  // namespace zolt::tools
