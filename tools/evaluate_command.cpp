// zoltpano evaluate SWEEP_DIR: stitches a simulated sweep and measures the result against the
// sweep's truth (see docs/stitching.md).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "sim/sim_error.h"
#include "sim/sweep_reader.h"
#include "tools/command.h"
#include "tools/metrics.h"
#include "tools/stitch_cli.h"
#include "tools/stitch_session.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

struct EvaluateArgs {
  std::string json;   // default SWEEP_DIR/evaluation.json
  bool gyro = false;  // feed the sweep's gyro.csv to the engine
  StitchCliArgs common;
};

std::string hexCode(int c) {
  char b[16];
  std::snprintf(b, sizeof b, "0x%04X", static_cast<unsigned>(c));
  return b;
}

// The stitched sweep against its truth.
struct Evaluation {
  PlacementErrors placement;
  Spread errors;
  // Pixels along the sweep; measured by chained phase correlation, whole frames and centres.
  double placedTravel = 0, trueTravel = 0, measuredTravel = 0, measuredCentreTravel = 0;
  TruthScores image;
  double skyStep = 0;  // grey levels
  double ms = 0;  // wall clock of the scoring
};

Evaluation evaluate(const StitchResult& r, const sim::SweepReader& reader,
                    const cv::Mat& truthPng) {
  const auto t0 = std::chrono::steady_clock::now();
  Evaluation e;
  // Key-frame positions: the merger's canvas positions against the truth.
  std::vector<cv::Point2d> placed, truth;
  for (const PlacedKeyFrame& k : r.keyFrames) {
    const sim::TruthRecord& t = reader.truth().at(k.frame);
    placed.emplace_back(k.canvas.x, k.canvas.y);
    truth.emplace_back(t.x, t.y);
  }
  const bool horizontal = ZOLT_PANO_IsHorizontalSweep(r.direction);
  e.placement = placementErrors(placed, truth, horizontal);
  e.errors = spread(e.placement.errors);
  cv::Point guess(0, 0);
  if (!placed.empty()) {
    const cv::Point origin = panoramaOrigin(r);
    guess = cv::Point(cvRound(truth[0].x - placed[0].x + origin.x),
                      cvRound(truth[0].y - placed[0].y + origin.y));
    const cv::Point2d d = truth.back() - truth.front();
    e.trueTravel = std::fabs(horizontal ? d.x : d.y);
  }
  e.placedTravel = placedTravelPx(r);
  e.measuredTravel = measuredTravelPx(r);
  e.measuredCentreTravel = measuredTravelPx(r, true);
  e.image = scoreAgainstTruth(r.panorama, truthPng, guess);
  e.skyStep = skyStep(r.panorama, horizontal);
  e.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  return e;
}

nlohmann::json toJson(const StitchResult& r, const Evaluation& e, const sim::SweepReader& reader,
                      const EvaluateArgs& a, double gyroOffsetMs) {
  const double n = std::max(1.0, static_cast<double>(r.frames.size()));
  const TruthScores& img = e.image;
  nlohmann::json j;
  j["sweep"] = a.common.input;
  j["frames"] = r.frames.size();
  j["frame_size"] = {r.frameWidth, r.frameHeight};
  j["key_frames"] = r.keyFrames.size();
  j["direction"] = directionName(r.direction);
  j["truth_direction"] = directionName(reader.direction());
  j["direction_ok"] = r.direction == reader.direction();
  j["gyroscope"] = a.gyro ? nlohmann::json{{"events", r.gyroEvents}, {"offset_ms", gyroOffsetMs},
                                                 {"lag_ms", a.common.gyroLagMs},
                                                 {"frame_times", a.common.frameTimes}}
                          : nlohmann::json(nullptr);
  std::vector<std::string> codes;
  for (int c : r.codesSeen) codes.push_back(hexCode(c));
  j["codes_seen"] = codes;
  j["key_frame_error_px"] = {{"median", e.errors.median},
                             {"p95", e.errors.p95},
                             {"max", e.errors.max},
                             {"final_along_drift", e.placement.alongDrift},
                             {"count", e.errors.count}};
  j["travel_px"] = {{"placed", e.placedTravel},
                    {"truth", e.trueTravel},
                    {"measured", e.measuredTravel},
                    {"measured_centre", e.measuredCentreTravel},
                    {"length_ratio", lengthRatio(e.placedTravel, e.trueTravel)},
                    {"length_ratio_measured", lengthRatio(e.placedTravel, e.measuredTravel)},
                    {"length_ratio_measured_centre",
                     lengthRatio(e.placedTravel, e.measuredCentreTravel)}};
  j["panorama"] = {
      {"path", r.panoramaPath},
      {"size", {r.panorama.cols, r.panorama.rows}},
      {"aligned", img.aligned},
      {"offset_in_truth", {img.offset.x, img.offset.y}},
      {"expected_offset", {img.expectedOffset.x, img.expectedOffset.y}},
      {"compared", {img.overlap.x, img.overlap.y, img.overlap.width, img.overlap.height}},
      {"psnr_db", img.psnr},
      {"tile_psnr_db", img.tilePsnr},
      {"tiles", img.tiles},
      {"ssim", img.ssim},
      {"sky_step", e.skyStep}};
  const Verdict& gate = r.captures.at(static_cast<size_t>(r.chosenCapture)).gate;
  j["quality_gate"] = nlohmann::json(nullptr);
  if (gate.judged)
    j["quality_gate"] = {{"verdict", gate.passed ? "passed" : "refused"},
                         {"code", ZOLT_PANO_CodeName(gate.code)},
                         {"message", gate.message}};
  j["time_ms"] = {{"initial", r.initMs},
                  {"read_frames", r.readMs},
                  {"select_frames", r.selectMs},
                  {"add_image", r.addMs},
                  {"select_per_frame", r.selectMs / n},
                  {"add_per_frame", r.addMs / n},
                  {"save_image", r.saveMs},
                  {"release", r.releaseMs},
                  {"evaluate", e.ms}};
  j["frames_per_second"] = n * 1000.0 / std::max(1e-3, r.selectMs + r.addMs);
  j["csv"] = r.csvPath;
  j["report"] = r.reportPath;
  return j;
}

std::string gyroText(const EvaluateArgs& a) {
  if (!a.gyro) return "";
  std::string t = " (gyroscope";
  if (a.common.gyroLagMs > 0) t += ", " + std::to_string(std::lround(a.common.gyroLagMs)) + " ms ahead";
  if (a.common.frameTimes) t += ", frame times";
  return t + ")";
}

void printSummary(const StitchResult& r, const Evaluation& e, const sim::SweepReader& reader,
                  const EvaluateArgs& a) {
  const double n = std::max(1.0, static_cast<double>(r.frames.size()));
  std::string codes;
  for (int c : r.codesSeen) codes += (codes.empty() ? "" : ",") + hexCode(c);
  const Verdict& gate = r.captures.at(static_cast<size_t>(r.chosenCapture)).gate;
  const std::string gateText = gate.judged ? ", quality gate " + describe(gate) : "";
  std::printf(
      "%s%s: %zu frames, %zu key frames, direction %s (truth %s), codes %s, key-frame error "
      "median %.2f p95 %.2f max %.2f px, length ratio %.4f, PSNR %.2f dB (tiles %.2f dB), SSIM "
      "%.4f, sky step %.2f, select %.2f add %.2f ms/frame (%.0f frames/s)%s\n",
      a.common.input.c_str(), gyroText(a).c_str(), r.frames.size(), r.keyFrames.size(),
      directionName(r.direction).c_str(), directionName(reader.direction()).c_str(), codes.c_str(),
      e.errors.median, e.errors.p95, e.errors.max, lengthRatio(e.placedTravel, e.trueTravel),
      e.image.psnr, e.image.tilePsnr, e.image.ssim, e.skyStep, r.selectMs / n, r.addMs / n,
      n * 1000.0 / std::max(1e-3, r.selectMs + r.addMs), gateText.c_str());
}

int runEvaluate(EvaluateArgs& a) {
  const std::string dir = a.common.input;
  StitchOptions opt;
  SourceOptions src;
  if (int rc = applyStitchCli(a.common, "evaluate",
                              a.common.name.empty() ? dir + "/stitched" : a.common.name, opt, src);
      rc != kExitOk)
    return rc;
  opt.hints = false;
  // The score is of one engine over the whole sweep, as the truth describes it.
  opt.restart = false;
  opt.measureTravel = true;
  if (a.gyro) opt.gyroPath = dir + "/gyro.csv";
  std::unique_ptr<sim::SweepReader> reader;
  try {
    reader = std::make_unique<sim::SweepReader>(dir);
  } catch (const sim::SimError& e) {
    printError("evaluate", e.what());
    return kExitFailure;
  }
  StitchResult r;
  const int rc = runStitchReporting("evaluate", dir, src, opt, r);
  if (rc != kExitOk && r.panoramaPath.empty()) return rc;
  const cv::Mat truthPng = cv::imread(reader->truthPanoramaPath(), cv::IMREAD_COLOR);
  if (truthPng.empty()) {
    printError("evaluate", "cannot read '" + reader->truthPanoramaPath() + "'");
    return kExitFailure;
  }
  const Evaluation e = evaluate(r, *reader, truthPng);
  const std::string jsonPath = a.json.empty() ? dir + "/evaluation.json" : a.json;
  std::ofstream out(jsonPath);
  out << toJson(r, e, *reader, a, r.gyroClock.offsetMs).dump(2) << "\n";
  out.flush();
  if (!out) {
    printError("evaluate", "cannot write '" + jsonPath + "'");
    return kExitFailure;
  }
  printSummary(r, e, *reader, a);
  return rc;
}

Command setupEvaluate(CLI::App& program) {
  auto [args, app] = addCommand<EvaluateArgs>(
      program, "evaluate", "Stitch a simulated sweep and compare the panorama with its truth");
  addStitchCliOptions(app, args->common, "SWEEP_DIR",
                      "sweep directory written by zoltpano simulate",
                      "output name (default SWEEP_DIR/stitched)", false);
  app->add_option("--json", args->json, "JSON file (default SWEEP_DIR/evaluation.json)");
  app->add_flag("--gyro", args->gyro, "feed the sweep's gyro.csv to the engine's gyroscope");
  return {app, [args = args] { return runEvaluate(*args); }};
}

const CommandRegistration kRegisterEvaluate(setupEvaluate);

}  // namespace
}  // namespace zolt::tools
