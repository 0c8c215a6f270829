// One sweep through the engine's public C interface, as a camera app drives it: Initial; per
// frame SelectFrames then AddImage into a canvas this session owns; SaveImage; Release. Shared
// by zoltpano stitch and zoltpano evaluate.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "api/zolt_pano.h"
#include "tools/frame_source.h"

namespace zolt::tools {

// A failure of the stitching itself (engine refused the size, canvas does not suit the sweep,
// no panorama came out). The message is one line.
struct StitchError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct StitchOptions {
  std::string name;            // output base: NAME.jpg, NAME.csv, NAME_report.png
  int canvasWidth = 0;         // both 0: the default canvas (see defaultCanvas)
  int canvasHeight = 0;
  std::string boardPlatform;   // empty: leave ro.board.platform alone
  bool progressBar = false;    // redraw a bar on stderr
  bool hints = true;           // print result codes as user hints when they change
  bool engineLog = false;      // let the engine's log lines through to stderr
  bool restart = true;         // start a new capture when the engine keeps refusing the sweep
  std::string gyroPath;        // a gyro.csv to feed the host's gyroscope with; empty: none
  double gyroOffsetMs = 0.0;   // how late the gyroscope's clock runs against the frames'
};

// The restart rule. Once a capture has fixed its direction, a run of frames without a key
// frame that starts with a refusal of the sweep (wrong direction, going back, too quick, no
// texture), is at least three quarters refusals, and lasts at least kRestartRunMs of the
// input's own time and kRestartRunFrames frames ends the capture: its panorama is saved, the
// engine released, and a new capture starts with the frames since the old one's last key
// frame, fed again (at most kReplayBytesMax of them, the latest kept), then the rest.
constexpr double kRestartRunMs = 1000.0;
constexpr int kRestartRunFrames = 10;
constexpr size_t kReplayBytesMax = size_t{256} << 20;

// True for the result codes that count towards a restart.
bool refusesSweep(int code);

// What one frame did, as the C interface reported it.
struct FrameRecord {
  int frame = 0;  // index in the input
  tsPOINT offset{0, 0};
  bool keyFrame = false;
  int direction = MOVE_NONE;
  int code = SUCCESS;
  int sweepLength = 0;
  int progress = 0;
  double selectMs = 0.0;
  double addMs = 0.0;
  int capture = 1;      // 1-based capture that the frame was fed to
  double timeMs = 0.0;  // the frame's time in the input
};

// One capture: an engine from Initial to Release over a stretch of the input.
struct CaptureRecord {
  int number = 1;
  int firstFrame = 0, lastFrame = 0;  // input indices fed to it, both inclusive
  int frames = 0;                     // frames fed
  int keyFrames = 0;                  // key frames the merger placed
  int direction = MOVE_NONE;
  int endCode = SUCCESS;              // the refused code that ended it; SUCCESS: the input did
  int length = 0;                     // panorama extent along the sweep, pixels; 0: none
  cv::Size panoramaSize;
  std::string panoramaPath;           // empty when it gave no panorama
};

// A key frame the merger placed, in canvas pixels.
struct PlacedKeyFrame {
  int frame = 0;
  cv::Rect canvas;
};

struct StitchResult {
  int frameWidth = 0, frameHeight = 0;
  int canvasWidth = 0, canvasHeight = 0;  // 0 when no direction was ever fixed
  int direction = MOVE_NONE;
  double fps = 0.0;
  int rotation = 0;  // clockwise degrees the video's metadata asked for (frames arrive upright)
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
};

// Canvas for frames of w x h once the sweep axis is known: 6 times the frame's longer side
// along the sweep, the frame's own size across it.
cv::Size defaultCanvas(int w, int h, bool horizontal);

// Text a user sees for a result code ("" for SUCCESS).
std::string hintFor(int code);

// Runs the sweep into r (which it resets) and writes NAME.jpg (with the fallback), NAME.csv and
// NAME_report.png, restarting the capture as the restart rule says. Throws InputError for unreadable input, StitchError for the rest; r then
// holds what was done up to the failure.
void stitch(FrameSource& source, const StitchOptions& opt, StitchResult& r);

// Panorama pixel of a key frame's top-left corner (canvas position minus the valid rectangle's).
cv::Point panoramaOrigin(const StitchResult& r);

}  // namespace zolt::tools
