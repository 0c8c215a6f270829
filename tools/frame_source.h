// Where zoltpano stitch takes its frames from: a video file, a simulated sweep directory, a
// folder of images or a recording (a folder with the frames, as frames/ or one video file, their
// times in frames.csv and the gyroscope's events in gyro.csv). Every source hands out packed NV21
// frames (width * height Y bytes, then
// width * height / 2 bytes of V, U pairs), as a phone's preview would.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace zolt::tools {

// A one-line description of what is wrong with the input.
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct SourceOptions {
  int first = 0;         // frames skipped at the start
  int count = 0;         // frames delivered at most; 0: all
  bool upscale = false;  // scale frames with a side of 640 or less up to the smallest size
                         // the engine accepts, keeping the aspect ratio
  double fps = 30.0;     // frame rate of an image folder (videos and sweeps carry their own)
  // For tools that read the luma alone: image files are decoded as grey (about half the time of
  // colour) and delivered with a neutral VU plane (128). Videos and sweeps keep their colour.
  bool lumaOnly = false;
};

class FrameSource {
 public:
  virtual ~FrameSource() = default;
  // Frame size as delivered (after upscaling and cropping to even sides).
  int width() const { return width_; }
  int height() const { return height_; }
  double fps() const { return fps_; }
  // Frames the source will deliver, after the range is applied; -1 when unknown (videos whose
  // container does not say).
  int expectedFrames() const { return expected_; }
  const std::string& kind() const { return kind_; }
  // Index in the input of the next frame next() delivers.
  int nextIndex() const { return next_ > opt_.first ? next_ : opt_.first; }
  // Time of the frame next() delivered last, ms from the start of the input: the container's
  // own frame time for videos (variable frame rates included), index / fps otherwise.
  double timeMs() const { return timeMs_; }
  // The clock timeMs() counts from, ns on the gyroscope's clock: a recording's frame times are
  // given on that clock and told from its first frame; 0 for other inputs, whose gyroscope (a
  // simulated sweep's) starts with the first frame.
  int64_t clockOriginNs() const { return clockOriginNs_; }
  // Clockwise rotation in degrees that the video's metadata asks for; frames are delivered
  // already turned upright (width() and height() are the upright size). 0 for other inputs.
  int rotation() const { return rotation_; }
  // Fills nv21 with the next frame; false at the end. Throws InputError when a frame cannot be
  // read or its size differs from the first one.
  bool next(std::vector<uint8_t>& nv21);

  // Opens `path` by what it is: a directory with meta.json and frames.nv21 is a sweep, one with
  // frames.csv a recording, another directory a folder of images, anything else a video. Throws
  // InputError.
  static std::unique_ptr<FrameSource> open(const std::string& path, const SourceOptions& opt);

 protected:
  explicit FrameSource(SourceOptions opt) : opt_(opt) {}
  // Reads input frame `index` (in order) as BGR or NV21; false at the end of the input.
  virtual bool readFrame(int index, std::vector<uint8_t>& nv21) = 0;
  // Sets the delivered size from the input's native size; refuses small frames without
  // --upscale.
  void setNativeSize(int w, int h);
  // Converts a BGR (or grey: neutral colour) picture of the native size to a delivered NV21
  // frame.
  void deliverBgr(const cv::Mat& bgr, std::vector<uint8_t>& nv21) const;

  SourceOptions opt_;
  std::string kind_;
  int nativeW_ = 0, nativeH_ = 0;
  int width_ = 0, height_ = 0;
  double fps_ = 30.0;
  int expected_ = -1;
  int next_ = 0;
  int delivered_ = 0;
  bool started_ = false;
  double timeMs_ = 0.0;
  int rotation_ = 0;
  // A recording's frame times (ns, gyroscope clock), which replace the input's own.
  std::vector<int64_t> recordedNs_;
  int64_t clockOriginNs_ = 0;
};

// A recording's frames.csv: the header "frame,t_ns", then one line per frame from 0 on, its time
// in ns (increasing). Throws InputError naming the line that is wrong.
std::vector<int64_t> readFrameTimes(const std::string& path);

// Smallest width x height above 640 on both sides, even, with the aspect ratio of w x h.
void upscaledSize(int w, int h, int& outW, int& outH);

}  // namespace zolt::tools
