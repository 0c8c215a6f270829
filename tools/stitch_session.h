// A whole input stitched as zoltpano stitch and zoltpano evaluate do it: captures of the engine
// (capture.h) fed frame after frame, a new capture when the restart rule says so
// (restart_policy.h), the longest panorama kept, the outputs written (stitch_outputs.h) with
// the progress shown (stitch_progress.h).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

#include "zolt_pano.h"
#include "tools/capture.h"
#include "tools/frame_source.h"
#include "tools/metrics.h"

namespace zolt::tools {

// A failure of the stitching itself (engine refused the size, canvas does not suit the sweep,
// no panorama came out): the engine session's own failures and the stitching's are one kind.
// The message is one line.
using StitchError = SessionError;

struct StitchOptions {
  std::string name;     // output base: NAME.jpg, NAME.csv, NAME_report.png
  int canvasWidth = 0;  // both 0: the default canvas (see defaultSweepLength)
  int canvasHeight = 0;
  std::string boardPlatform;   // empty: leave ro.board.platform alone
  bool progressBar = false;    // redraw a bar on stderr
  bool hints = true;           // print result codes as user hints when they change
  bool engineLog = false;      // let the engine's log lines through to stderr
  bool restart = true;         // start a new capture when the engine keeps refusing the sweep
  std::string gyroPath;        // a gyro.csv to feed the host's gyroscope with; empty: none
  double gyroOffsetMs = 0.0;   // how late the gyroscope's clock runs against the frames'
  // Instead of gyroOffsetMs: estimated from the input's first second (alignGyroOnFrames) before
  // the stitching starts; StitchResult::gyroClock says what was found.
  bool gyroOffsetAuto = false;
  double gyroLagMs = 0.0;  // the events run this far ahead of the frames (GyroFeed::setLag)
  // Each frame's time to ZOLT_PANO_SetFrameTime, the clock offset as the engine's delay option.
  bool frameTimes = false;
  bool measureTravel = false;  // measure the camera's travel from the frames (ChainedTravel)
  // ZOLT_PANO_SetOption pairs for every capture's engine; none: the engine's default behaviour.
  std::vector<std::pair<int, int>> engineOptions;
  // Ask the engine's verdict on each capture (ZOLT_PANO_GetVerdict); a refused capture's picture
  // is still written, under a name that says so.
  bool judge = true;
  // The init record's camOrientation, and the photo information every capture's engine gets
  // (the panorama upright, with EXIF and XMP); photoSet false: none, the bytes as the engine
  // alone writes them.
  int camOrientation = 90;
  bool photoSet = false;
  SessionPhoto photo;
};

struct StitchResult {
  int frameWidth = 0, frameHeight = 0;
  int canvasWidth = 0, canvasHeight = 0;  // 0 when no direction was ever fixed
  int direction = MOVE_NONE;
  double fps = 0.0;
  int rotation = 0;     // clockwise degrees the video's metadata asked for (frames arrive upright)
  int inputFrames = 0;  // frames read from the input (frames.size() counts those fed again too)
  std::vector<FrameRecord> frames;
  std::vector<PlacedKeyFrame> keyFrames;
  bool haveRect = false;
  tsRECT validRect{0, 0, 0, 0};  // canvas pixels, right and bottom exclusive
  std::vector<int> codesSeen;    // distinct result codes in order of first appearance
  // Every capture in input order. Canvas, direction, key frames, valid rectangle and panorama
  // above are those of captures[chosenCapture], the longest, which NAME.jpg holds; the other
  // panoramas are NAME_captureK.jpg. frames holds every capture's frames (a frame fed again
  // after a restart appears once per capture).
  std::vector<CaptureRecord> captures;
  size_t gyroEvents = 0;  // gyroscope events fed to the engines, repeats after restarts included
  // The gyroscope clock's offset the engines were fed with, and with gyroOffsetAuto how it was
  // estimated (not found: the offset stayed 0).
  struct GyroClock {
    double offsetMs = 0;
    bool estimated = false, found = false;
    int pairs = 0;
  } gyroClock;
  int chosenCapture = 0;
  // Stage times, ms of wall clock.
  double initMs = 0, selectMs = 0, addMs = 0, saveMs = 0, releaseMs = 0, readMs = 0;
  // Outputs; the base actually used differs from the requested name after a fallback.
  std::string outputBase;
  std::string panoramaPath;  // empty when no panorama was written
  std::string csvPath, reportPath;
  std::string outputProblem;  // why the requested name could not be used; empty when it was
  std::string inputProblem;   // a frame that could not be read after others were stitched
  cv::Mat panorama;           // the JPEG as written, BGR
  ChainedTravel travel;       // with measureTravel: the camera's travel over the input frames
  ChainedTravel centreTravel{ChainedTravel::Region::kCentreLines};  // at the frames' centres
};

// The longest panorama the default canvas holds: 6 times the frame's longer side along the
// sweep, less the pixel the merger keeps free at the canvas's end (ZOLT_PANO_CanvasSize).
int defaultSweepLength(int w, int h);

// Runs the sweep into r (which it resets) and writes NAME.jpg (with the fallback), NAME.csv and
// NAME_report.png, restarting the capture as the restart rule says. Throws InputError for
// unreadable input, StitchError for the rest; r then holds what was done up to the failure.
void stitch(FrameSource& source, const StitchOptions& opt, StitchResult& r);

// Along the sweep, how far the chosen capture's last key frame lies from its first: as the
// merger placed them, and as the frames' chained phase correlation measured it (0 without
// measureTravel).
double placedTravelPx(const StitchResult& r);
double measuredTravelPx(const StitchResult& r, bool centre = false);

// Panorama pixel of a key frame's top-left corner (canvas position minus the valid rectangle's).
cv::Point panoramaOrigin(const StitchResult& r);

}  // namespace zolt::tools
