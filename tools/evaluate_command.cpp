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
#include "tools/stitch_cli.h"
#include "tools/stitch_session.h"

namespace zolt::tools {
namespace {

struct EvaluateArgs {
  std::string sweep;
  std::string name;  // default SWEEP_DIR/stitched
  std::string json;  // default SWEEP_DIR/evaluation.json
  bool gyro = false;  // feed the sweep's gyro.csv to the engine
  StitchCliArgs common;
};

constexpr int kSearch = 12;     // global alignment search, pixels each way
constexpr int kTile = 64;       // tile side of the tile-wise PSNR
constexpr int kTileSearch = 8;  // each tile's own search, pixels each way

double percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  const double pos = p * (v.size() - 1);
  const size_t i = static_cast<size_t>(pos);
  const double f = pos - i;
  return i + 1 < v.size() ? v[i] * (1 - f) + v[i + 1] * f : v[i];
}

double psnrFromMse(double mse) { return mse <= 1e-12 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse); }

double sse(const cv::Mat& a, const cv::Mat& b) {
  const double n = cv::norm(a, b, cv::NORM_L2);
  return n * n;
}

// Mean SSIM of two grey pictures (Gaussian window 11, sigma 1.5).
double ssim(const cv::Mat& a8, const cv::Mat& b8) {
  const double c1 = 6.5025, c2 = 58.5225;
  cv::Mat a, b;
  a8.convertTo(a, CV_32F);
  b8.convertTo(b, CV_32F);
  cv::Mat ma, mb, aa, bb, ab;
  const cv::Size k(11, 11);
  cv::GaussianBlur(a, ma, k, 1.5);
  cv::GaussianBlur(b, mb, k, 1.5);
  cv::GaussianBlur(a.mul(a), aa, k, 1.5);
  cv::GaussianBlur(b.mul(b), bb, k, 1.5);
  cv::GaussianBlur(a.mul(b), ab, k, 1.5);
  cv::Mat mab = ma.mul(mb), ma2 = ma.mul(ma), mb2 = mb.mul(mb);
  cv::Mat num = (2 * mab + c1).mul(2 * (ab - mab) + c2);
  cv::Mat den = (ma2 + mb2 + c1).mul((aa - ma2) + (bb - mb2) + c2);
  cv::Mat map;
  cv::divide(num, den, map);
  return cv::mean(map)[0];
}

struct ImageScores {
  bool aligned = false;
  cv::Point offset;           // panorama (0, 0) in truth.png
  cv::Point expectedOffset;   // the same from the key frames' truth
  cv::Rect overlap;           // compared region, panorama pixels
  double psnr = 0, ssim = 0, tilePsnr = 0;
  int tiles = 0;
};

ImageScores scoreImage(const cv::Mat& pano, const cv::Mat& truth, cv::Point guess) {
  ImageScores s;
  s.expectedOffset = guess;
  if (pano.empty() || truth.empty()) return s;
  cv::Mat pg, tg;
  cv::cvtColor(pano, pg, cv::COLOR_BGR2GRAY);
  cv::cvtColor(truth, tg, cv::COLOR_BGR2GRAY);
  // Global alignment: the part of the panorama that lands in truth.png at the position the truth
  // of the first key frame gives, less the search margin, slid over truth.png around that
  // position. (A rotating camera's panorama can reach past truth.png.)
  const cv::Rect truthBox(0, 0, truth.cols, truth.rows);
  const cv::Rect inTruth = cv::Rect(0, 0, pano.cols, pano.rows) & (truthBox - guess);
  const cv::Rect inner(inTruth.x + kSearch, inTruth.y + kSearch, inTruth.width - 2 * kSearch,
                       inTruth.height - 2 * kSearch);
  if (inner.width < 32 || inner.height < 32) return s;
  const cv::Rect window = (cv::Rect(inner.x - kSearch, inner.y - kSearch, inner.width + 2 * kSearch,
                                    inner.height + 2 * kSearch) + guess) & truthBox;
  cv::Mat cost;
  cv::matchTemplate(tg(window), pg(inner), cost, cv::TM_SQDIFF);
  double best = 0;
  cv::Point at;
  cv::minMaxLoc(cost, &best, nullptr, &at, nullptr);
  s.offset = window.tl() + at - inner.tl();
  // The region the two share, in panorama pixels.
  s.overlap = cv::Rect(0, 0, pano.cols, pano.rows) & (truthBox - s.offset);
  if (s.overlap.area() == 0) return s;
  s.aligned = true;
  const cv::Mat p = pano(s.overlap), t = truth(s.overlap + s.offset);
  s.psnr = psnrFromMse(sse(p, t) / (static_cast<double>(p.total()) * 3));
  s.ssim = ssim(pg(s.overlap), tg(s.overlap + s.offset));
  // Tile-wise: every tile finds its own best shift within a small window, which takes out the
  // tracker's accumulated rounding.
  double total = 0, count = 0;
  for (int y = s.overlap.y + kTileSearch; y + kTile + kTileSearch <= s.overlap.br().y; y += kTile)
    for (int x = s.overlap.x + kTileSearch; x + kTile + kTileSearch <= s.overlap.br().x;
         x += kTile) {
      const cv::Rect tile(x, y, kTile, kTile);
      const cv::Rect win = cv::Rect(x - kTileSearch, y - kTileSearch, kTile + 2 * kTileSearch,
                                    kTile + 2 * kTileSearch) + s.offset;
      if ((win & truthBox) != win) continue;
      // The shift is chosen on luma; the error is then taken over all three channels.
      cv::Mat tileCost;
      cv::matchTemplate(tg(win), pg(tile), tileCost, cv::TM_SQDIFF);
      cv::Point shift;
      cv::minMaxLoc(tileCost, nullptr, nullptr, &shift, nullptr);
      const double bestTile = sse(pano(tile), truth(cv::Rect(win.x + shift.x, win.y + shift.y, kTile, kTile)));
      total += bestTile;
      count += kTile * kTile * 3;
      ++s.tiles;
    }
  s.tilePsnr = count > 0 ? psnrFromMse(total / count) : 0;
  return s;
}

std::string hexCode(int c) {
  char b[16];
  std::snprintf(b, sizeof b, "0x%04X", static_cast<unsigned>(c));
  return b;
}

int runEvaluate(EvaluateArgs& a) {
  const std::string dir = a.sweep;
  StitchOptions opt;
  SourceOptions src;
  if (int rc = applyStitchCli(a.common, "evaluate", a.name.empty() ? dir + "/stitched" : a.name,
                              opt, src);
      rc != kExitOk)
    return rc;
  opt.hints = false;
  // The score is of one engine over the whole sweep, as the truth describes it.
  opt.restart = false;
  if (a.gyro) opt.gyroPath = dir + "/gyro.csv";
  std::unique_ptr<sim::SweepReader> reader;
  try {
    reader = std::make_unique<sim::SweepReader>(dir);
  } catch (const sim::SimError& e) {
    printError("evaluate", e.what());
    return kExitFailure;
  }
  StitchResult r;
  int rc = runStitchReporting("evaluate", dir, src, opt, r);
  if (rc != kExitOk && r.panoramaPath.empty()) return rc;

  const auto t0 = std::chrono::steady_clock::now();
  const std::vector<sim::TruthRecord>& truth = reader->truth();
  // Key-frame positions: the merger's canvas positions against the truth, both taken relative
  // to the first key frame.
  std::vector<double> errors;
  double alongDrift = 0;
  cv::Point guess(0, 0);
  if (!r.keyFrames.empty()) {
    const PlacedKeyFrame& k0 = r.keyFrames.front();
    const sim::TruthRecord& t0r = truth.at(k0.frame);
    for (const PlacedKeyFrame& k : r.keyFrames) {
      const sim::TruthRecord& t = truth.at(k.frame);
      const double ex = (k.canvas.x - k0.canvas.x) - (t.x - t0r.x);
      const double ey = (k.canvas.y - k0.canvas.y) - (t.y - t0r.y);
      if (&k != &k0) errors.push_back(std::hypot(ex, ey));
      alongDrift = (r.direction == MOVE_RIGHT || r.direction == MOVE_LEFT) ? ex : ey;
    }
    const cv::Point origin = panoramaOrigin(r);
    guess = cv::Point(cvRound(t0r.x - k0.canvas.x + origin.x), cvRound(t0r.y - k0.canvas.y + origin.y));
  }
  const cv::Mat truthPng = cv::imread(reader->truthPanoramaPath(), cv::IMREAD_COLOR);
  if (truthPng.empty()) {
    printError("evaluate", "cannot read '" + reader->truthPanoramaPath() + "'");
    return kExitFailure;
  }
  const ImageScores img = scoreImage(r.panorama, truthPng, guess);
  const double evalMs =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();

  const double n = static_cast<double>(r.frames.size());
  nlohmann::json j;
  j["sweep"] = dir;
  j["frames"] = r.frames.size();
  j["frame_size"] = {r.frameWidth, r.frameHeight};
  j["key_frames"] = r.keyFrames.size();
  j["direction"] = directionName(r.direction);
  j["truth_direction"] = directionName(reader->direction());
  j["direction_ok"] = r.direction == reader->direction();
  j["gyroscope"] = a.gyro ? nlohmann::json{{"events", r.gyroEvents}, {"offset_ms", opt.gyroOffsetMs}}
                          : nlohmann::json(nullptr);
  std::vector<std::string> codes;
  for (int c : r.codesSeen) codes.push_back(hexCode(c));
  j["codes_seen"] = codes;
  j["key_frame_error_px"] = {{"median", percentile(errors, 0.5)},
                             {"p95", percentile(errors, 0.95)},
                             {"max", errors.empty() ? 0.0 : *std::max_element(errors.begin(), errors.end())},
                             {"final_along_drift", alongDrift},
                             {"count", errors.size()}};
  j["panorama"] = {{"path", r.panoramaPath},
                   {"size", {r.panorama.cols, r.panorama.rows}},
                   {"aligned", img.aligned},
                   {"offset_in_truth", {img.offset.x, img.offset.y}},
                   {"expected_offset", {img.expectedOffset.x, img.expectedOffset.y}},
                   {"compared", {img.overlap.x, img.overlap.y, img.overlap.width, img.overlap.height}},
                   {"psnr_db", img.psnr},
                   {"tile_psnr_db", img.tilePsnr},
                   {"tiles", img.tiles},
                   {"ssim", img.ssim}};
  j["time_ms"] = {{"initial", r.initMs},
                  {"read_frames", r.readMs},
                  {"select_frames", r.selectMs},
                  {"add_image", r.addMs},
                  {"select_per_frame", r.selectMs / std::max(1.0, n)},
                  {"add_per_frame", r.addMs / std::max(1.0, n)},
                  {"save_image", r.saveMs},
                  {"release", r.releaseMs},
                  {"evaluate", evalMs}};
  j["frames_per_second"] = n * 1000.0 / std::max(1e-3, r.selectMs + r.addMs);
  j["csv"] = r.csvPath;
  j["report"] = r.reportPath;
  const std::string jsonPath = a.json.empty() ? dir + "/evaluation.json" : a.json;
  {
    std::ofstream out(jsonPath);
    out << j.dump(2) << "\n";
    out.flush();
    if (!out) {
      printError("evaluate", "cannot write '" + jsonPath + "'");
      return kExitFailure;
    }
  }
  std::string codeText;
  for (const std::string& c : codes) codeText += (codeText.empty() ? "" : ",") + c;
  std::printf(
      "%s%s: %zu frames, %zu key frames, direction %s (truth %s), codes %s, key-frame error "
      "median %.2f p95 %.2f max %.2f px, PSNR %.2f dB (tiles %.2f dB), SSIM %.4f, select %.2f "
      "add %.2f ms/frame (%.0f frames/s)\n",
      dir.c_str(), a.gyro ? " (gyroscope)" : "", r.frames.size(), r.keyFrames.size(),
      directionName(r.direction).c_str(),
      directionName(reader->direction()).c_str(), codeText.c_str(), percentile(errors, 0.5),
      percentile(errors, 0.95), errors.empty() ? 0.0 : *std::max_element(errors.begin(), errors.end()),
      img.psnr, img.tilePsnr, img.ssim, r.selectMs / std::max(1.0, n), r.addMs / std::max(1.0, n),
      j["frames_per_second"].get<double>());
  return rc;
}

CommandRegistration registration([](CLI::App& program) {
  auto args = std::make_shared<EvaluateArgs>();
  CLI::App* app = program.add_subcommand(
      "evaluate", "Stitch a simulated sweep and compare the panorama with its truth");
  app->add_option("SWEEP_DIR", args->sweep, "sweep directory written by zoltpano simulate")
      ->required();
  app->add_option("-o,--out", args->name, "output name (default SWEEP_DIR/stitched)");
  app->add_option("--json", args->json, "JSON file (default SWEEP_DIR/evaluation.json)");
  app->add_flag("--gyro", args->gyro, "feed the sweep's gyro.csv to the engine's gyroscope");
  addStitchCliOptions(app, args->common);
  return Command{app, [args] { return runEvaluate(*args); }};
});

}  // namespace
}  // namespace zolt::tools
