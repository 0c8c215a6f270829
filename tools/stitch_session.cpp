#include "tools/stitch_session.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <memory>

#include <opencv2/imgcodecs.hpp>

#include "platform/system_property.h"
#include "tools/gyro_feed.h"
#include "tools/stitch_outputs.h"
#include "tools/stitch_progress.h"
#include "tools/stitch_report.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

using Clock = std::chrono::steady_clock;

// One stitch() call: reads the input, feeds the captures, restarts them, and keeps what each
// gave.
class StitchRun {
 public:
  StitchRun(FrameSource& source, const StitchOptions& opt, StitchResult& r)
      : source_(source),
        opt_(opt),
        r_(r),
        outputs_(opt.name),
        progress_(opt.progressBar, opt.hints, source.expectedFrames()),
        replayBuffer_(static_cast<size_t>(source.width()) * source.height() * 3 / 2) {
    // Before the first Initial: the host has a gyroscope from then on.
    session_.options = opt.engineOptions;
    session_.camOrientation = opt.camOrientation;
    session_.photoSet = opt.photoSet;
    session_.photo = opt.photo;
    if (!opt.gyroPath.empty()) {
      gyro_ = std::make_unique<GyroFeed>(opt.gyroPath, opt.gyroOffsetMs, source.clockOriginNs());
      gyro_->setLag(opt.gyroLagMs);
      session_.frameTimes = opt.frameTimes;
      // With frame times the engine puts them on the gyroscope's clock itself, as an app does.
      if (opt.frameTimes && opt.gyroOffsetMs != 0)
        session_.options.emplace_back(ZOLT_PANO_OPTION_GYRO_DELAY_US,
                                      static_cast<int>(std::lround(opt.gyroOffsetMs * 1000)));
    }
    session_.gyro = gyro_.get();
    session_.canvas = cv::Size(opt.canvasWidth, opt.canvasHeight);
    session_.maxSweepLength = defaultSweepLength(source.width(), source.height());
  }

  void run() {
    startCapture(1);
    InputFrame in;
    while (nextFrame(in)) {
      const FrameRecord f = feed(in);
      if (run_.sustained()) restart(in);
      progress_.update(read_, keyFrames_, f.progress);
    }
    r_.inputFrames = read_;
    if (gyro_) r_.gyroEvents = gyro_->pushed();
    if (r_.frames.empty()) throw InputError("the input holds no frames in the chosen range");
    finishCapture(SUCCESS);
  }

  // The captures in input order.
  std::vector<std::unique_ptr<Capture>> done;
  OutputPlace& outputs() { return outputs_; }

 private:
  bool nextFrame(InputFrame& in) {
    if (!replay_.empty()) {
      in = std::move(replay_.front());
      replay_.pop_front();
      return true;
    }
    const auto t0 = Clock::now();
    in.index = source_.nextIndex();
    try {
      if (!source_.next(in.nv21)) return false;
    } catch (const InputError& e) {
      // What was stitched so far is still saved; the problem is reported with it.
      if (r_.frames.empty()) throw;
      r_.inputProblem = e.what();
      return false;
    }
    in.timeMs = source_.timeMs();
    r_.readMs += msSince(t0);
    if (opt_.measureTravel) {
      const cv::Mat luma(source_.height(), source_.width(), CV_8UC1, in.nv21.data());
      r_.travel.add(in.index, luma);
      r_.centreTravel.add(in.index, luma);
    }
    ++read_;
    return true;
  }

  FrameRecord feed(const InputFrame& in) {
    const FrameRecord f = capture_->feed(in);
    r_.selectMs += f.selectMs;
    r_.addMs += f.addMs;
    if (f.keyFrame && capture_->session.haveRect()) ++keyFrames_;
    if (std::find(r_.codesSeen.begin(), r_.codesSeen.end(), f.code) == r_.codesSeen.end())
      r_.codesSeen.push_back(f.code);
    r_.frames.push_back(f);
    progress_.code(in.index, f.code);
    if (opt_.restart) replayBuffer_.keep(in, f.keyFrame);
    run_.add(f, opt_.restart && capture_->rec.direction != MOVE_NONE, r_.fps);
    return f;
  }

  void restart(const InputFrame& in) {
    const int next = capture_->rec.number + 1;
    const int from = replayBuffer_.handOver(capture_->rec.firstFrame, in.index + 1, replay_);
    progress_.restart(in.index, next, from);
    finishCapture(run_.lastRefusal());
    run_.clear();
    startCapture(next);
  }

  void startCapture(int number) {
    capture_ = std::make_unique<Capture>(number, source_.width(), source_.height(), session_);
    r_.initMs += capture_->session.initMs();
  }

  // Ends the current capture: its panorama saved as NAME_captureK, the engine released.
  void finishCapture(int endCode) {
    capture_->finish(endCode, opt_.judge);
    CaptureRecord& rec = capture_->rec;
    const auto t0 = Clock::now();
    rec.panoramaPath = outputs_.writeJpeg(capture_->jpeg, "_capture" + std::to_string(rec.number) +
                                                              (rec.gate.passed ? "" : "_refused"));
    r_.saveMs += capture_->encodeMs + msSince(t0);
    r_.releaseMs += capture_->session.releaseMs();
    done.push_back(std::move(capture_));
  }

  FrameSource& source_;
  const StitchOptions& opt_;
  StitchResult& r_;
  OutputPlace outputs_;
  StitchProgress progress_;
  std::unique_ptr<GyroFeed> gyro_;
  SessionOptions session_;
  std::unique_ptr<Capture> capture_;
  std::deque<InputFrame> replay_;  // frames to feed again after a restart, in input order
  ReplayBuffer replayBuffer_;
  RefusedRun run_;
  int read_ = 0;
  int keyFrames_ = 0;
};

// The longest panorama the verdict passed is the result (every one passes with the verdict
// off); failing that the longest refused one, then the last capture that fixed a direction.
int chooseCapture(const std::vector<std::unique_ptr<Capture>>& done) {
  int chosen = -1;
  for (bool passed : {true, false}) {
    for (size_t i = 0; i < done.size(); ++i)
      if (!done[i]->rec.panoramaPath.empty() && done[i]->rec.gate.passed == passed &&
          (chosen < 0 || done[i]->rec.length > done[static_cast<size_t>(chosen)]->rec.length))
        chosen = static_cast<int>(i);
    if (chosen >= 0) break;
  }
  if (chosen < 0)
    for (size_t i = 0; i < done.size(); ++i)
      if (done[i]->rec.direction != MOVE_NONE) chosen = static_cast<int>(i);
  return std::max(chosen, 0);
}

// Fills the result from the chosen capture, names its panorama NAME.jpg and writes the CSV and
// the report.
void keepResult(StitchRun& run, StitchResult& r) {
  r.chosenCapture = chooseCapture(run.done);
  const size_t chosen = static_cast<size_t>(r.chosenCapture);
  Capture& best = *run.done[chosen];
  OutputPlace& outputs = run.outputs();
  if (!best.rec.panoramaPath.empty()) {
    best.rec.panoramaPath =
        outputs.promote(best.rec.panoramaPath, best.rec.gate.passed ? "" : "_refused");
    r.outputBase = outputs.base();
    r.panoramaPath = best.rec.panoramaPath;
    r.panorama = cv::imdecode(best.jpeg, cv::IMREAD_COLOR);
  } else {
    // No panorama: still leave the per-frame record where the user asked, or beside it.
    r.outputBase = outputs.recordBase();
  }
  r.outputProblem = outputs.problem();
  for (const auto& c : run.done) r.captures.push_back(c->rec);
  r.direction = best.rec.direction;
  r.canvasWidth = best.session.canvasSize().width;
  r.canvasHeight = best.session.canvasSize().height;
  r.keyFrames = best.keyFrames;
  r.haveRect = best.session.haveRect();
  r.validRect = best.session.validRect();
  r.csvPath = r.outputBase + ".csv";
  r.reportPath = r.outputBase + "_report.png";
  writeCsv(r.frames, r.csvPath);
  if (!writeReport(r, r.reportPath)) throw StitchError("cannot write '" + r.reportPath + "'");
}

}  // namespace

int defaultSweepLength(int w, int h) { return 6 * std::max(w, h) - 1; }

double placedTravelPx(const StitchResult& r) {
  if (r.keyFrames.empty()) return 0.0;
  const cv::Point d = r.keyFrames.back().canvas.tl() - r.keyFrames.front().canvas.tl();
  return std::abs(ZOLT_PANO_IsHorizontalSweep(r.direction) ? d.x : d.y);
}

double measuredTravelPx(const StitchResult& r, bool centre) {
  if (r.keyFrames.empty()) return 0.0;
  const ChainedTravel& t = centre ? r.centreTravel : r.travel;
  const cv::Point2d d = t.at(r.keyFrames.back().frame) - t.at(r.keyFrames.front().frame);
  return std::fabs(ZOLT_PANO_IsHorizontalSweep(r.direction) ? d.x : d.y);
}

cv::Point panoramaOrigin(const StitchResult& r) {
  return r.haveRect ? cv::Point(r.validRect.left, r.validRect.top) : cv::Point(0, 0);
}

void stitch(FrameSource& source, const StitchOptions& opt, StitchResult& r) {
  r = StitchResult();
  r.frameWidth = source.width();
  r.frameHeight = source.height();
  r.fps = source.fps();
  r.rotation = source.rotation();
  if (!opt.boardPlatform.empty()) zolt::setSystemProperty("ro.board.platform", opt.boardPlatform);
  EngineLog log(opt.engineLog);
  StitchRun run(source, opt, r);
  run.run();
  keepResult(run, r);

  const bool anyRect = std::any_of(run.done.begin(), run.done.end(),
                                   [](const auto& c) { return c->session.haveRect(); });
  if (!anyRect && !r.inputProblem.empty()) throw InputError(r.inputProblem);
  if (!anyRect) {
    const int last = r.frames.back().code;
    throw StitchError("no panorama: the engine merged no key frame" +
                      (last != SUCCESS ? " (last hint: " + hintText(last) + ")" : std::string()));
  }
  if (r.panoramaPath.empty()) throw StitchError("the engine wrote no panorama");
}

}  // namespace zolt::tools
