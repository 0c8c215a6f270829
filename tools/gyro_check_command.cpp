// zoltpano gyro-check RECORDING [--json FILE]: the gyroscope's prediction of each step between
// consecutive frames against what the engine's vision measures, and the clock offset and focal
// length that align them (docs/gyroscope.md, "A real phone's gyroscope").
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "tools/command.h"
#include "tools/engine_session.h"
#include "tools/frame_source.h"
#include "tools/gyro_alignment.h"
#include "tools/gyro_feed.h"
#include "zolt_pano_ext.h"

namespace zolt::tools {
namespace {

struct GyroCheckArgs {
  std::string input;
  std::string gyro;  // default: RECORDING/gyro.csv
  std::string json;
  std::string plot = "gyro_check.png";
  double rangeMs = 100;
  double seconds = 0;
};

// Two panels (x, then y): vision, the prediction before alignment and after it, over time.
void writePlot(const GyroAlignment& a, const std::vector<std::string>& title,
               const std::string& path) {
  constexpr int kW = 1400, kPanel = 330, kLeft = 70, kRight = kW - 20, kTop = 60;
  cv::Mat m(2 * kPanel + kTop + 20, kW, CV_8UC3, cv::Scalar(25, 25, 25));
  const cv::Scalar vision(240, 240, 240), raw(60, 60, 220), aligned(80, 220, 80);
  const double t0 = a.series.empty() ? 0 : a.series.front().timeS;
  const double t1 = a.series.empty() ? 1 : std::max(t0 + 1e-3, a.series.back().timeS);
  auto text = [&](const std::string& s, cv::Point p, cv::Scalar c, double size = 0.5) {
    cv::putText(m, s, p, cv::FONT_HERSHEY_SIMPLEX, size, c, 1, cv::LINE_AA);
  };
  for (size_t i = 0; i < title.size(); ++i)
    text(title[i], {kLeft, 22 + 22 * static_cast<int>(i)}, {230, 230, 230}, 0.55);
  for (int axis = 0; axis < 2; ++axis) {
    const int top = kTop + axis * kPanel + 20, bottom = kTop + (axis + 1) * kPanel - 30;
    auto pick = [&](const cv::Point2d& p) { return axis == 0 ? p.x : p.y; };
    double lim = 1;
    for (const AlignedPair& s : a.series)
      lim = std::max({lim, std::fabs(pick(s.vision)), std::fabs(pick(s.raw)),
                      std::fabs(pick(s.aligned))});
    auto px = [&](double t) {
      return kLeft + static_cast<int>((t - t0) / (t1 - t0) * (kRight - kLeft));
    };
    auto py = [&](double v) {
      return (top + bottom) / 2 - static_cast<int>(v / lim * (bottom - top) / 2);
    };
    cv::rectangle(m, {kLeft, top}, {kRight, bottom}, {70, 70, 70});
    cv::line(m, {kLeft, py(0)}, {kRight, py(0)}, {70, 70, 70});
    for (int s = static_cast<int>(std::ceil(t0)); s <= t1; ++s) {  // whole seconds
      cv::line(m, {px(s), bottom}, {px(s), bottom + 6}, {200, 200, 200});
      text(std::to_string(s), {px(s) - 4, bottom + 20}, {200, 200, 200}, 0.45);
    }
    char label[128];
    std::snprintf(label, sizeof label, "%s offset, low-res px (+-%.1f)", axis == 0 ? "x" : "y",
                  lim);
    text(label, {8, top - 6}, {200, 200, 200}, 0.45);
    for (size_t i = 1; i < a.series.size(); ++i) {
      const AlignedPair &p = a.series[i - 1], &q = a.series[i];
      cv::line(m, {px(p.timeS), py(pick(p.raw))}, {px(q.timeS), py(pick(q.raw))}, raw, 1,
               cv::LINE_AA);
      cv::line(m, {px(p.timeS), py(pick(p.vision))}, {px(q.timeS), py(pick(q.vision))}, vision, 2,
               cv::LINE_AA);
      cv::line(m, {px(p.timeS), py(pick(p.aligned))}, {px(q.timeS), py(pick(q.aligned))}, aligned,
               1, cv::LINE_AA);
    }
  }
  const int y = m.rows - 12;
  text("vision", {kLeft, y}, vision);
  text("gyroscope before alignment (fixed camera, clocks as given)", {kLeft + 90, y}, raw);
  text("gyroscope after alignment", {kLeft + 620, y}, aligned);
  text("time (s)", {kRight - 70, y}, {200, 200, 200});
  if (!cv::imwrite(path, m)) throw CommandError("cannot write '" + path + "'");
}

nlohmann::json toJson(const GyroAlignment& a, double seconds) {
  return {{"pairs", a.pairs},
          {"found", a.found},
          {"time_offset_ms", a.timeOffsetMs},
          {"focal_scale", a.focalScale},
          {"hfov_deg", a.hfovDeg},
          {"correlation_x", a.correlationX},
          {"correlation_y", a.correlationY},
          {"median_error_px", a.medianErrorPx},
          {"p95_error_px", a.p95ErrorPx},
          {"correlation_x_raw", a.correlationXRaw},
          {"correlation_y_raw", a.correlationYRaw},
          {"median_error_px_raw", a.medianErrorPxRaw},
          {"p95_error_px_raw", a.p95ErrorPxRaw},
          {"seconds", seconds},
          {"read_ms", a.readMs},
          {"vision_ms", a.visionMs},
          {"align_ms", a.alignMs}};
}

int runGyroCheck(const GyroCheckArgs& a) {
  const auto t0 = std::chrono::steady_clock::now();
  GyroAlignment r;
  try {
    const EngineLog log(false);
    const std::string gyroPath =
        a.gyro.empty() ? (std::filesystem::path(a.input) / "gyro.csv").string() : a.gyro;
    const std::vector<sim::GyroEvent> events = readGyroEvents(gyroPath);
    SourceOptions src;
    src.upscale = true;
    src.lumaOnly = true;
    std::unique_ptr<FrameSource> frames = FrameSource::open(a.input, src);
    AlignmentSearch search;
    search.rangeMs = a.rangeMs;
    r = alignGyroOnFrames(*frames, events, a.seconds, search);
  } catch (const InputError& e) {
    throw CommandError(e.what());
  }
  const double seconds = msSince(t0) / 1000;
  if (r.pairs < AlignmentSearch{}.minPairs)
    throw CommandError(std::to_string(r.pairs) +
                       " pairs of frames were measured by vision within the gyroscope's span; "
                       "at least 8 are needed");
  char head[384], tail[256];
  std::snprintf(head, sizeof head,
                "%s: %d pairs, gyroscope clock %+.1f ms, focal scale %.3f (%.1f degrees across "
                "the width)",
                a.input.c_str(), r.pairs, r.timeOffsetMs, r.focalScale, r.hfovDeg);
  std::snprintf(tail, sizeof tail,
                "correlation x %.3f y %.3f, error median %.2f p95 %.2f low-res px (before: %.2f / "
                "%.2f)%s",
                r.correlationX, r.correlationY, r.medianErrorPx, r.p95ErrorPx, r.medianErrorPxRaw,
                r.p95ErrorPxRaw,
                r.found ? "" : "; NOT FOUND: the best lies at the end of the search");
  std::printf("%s, %s\n", head, tail);
  writePlot(r, {head, tail}, a.plot);
  if (!a.json.empty()) {
    std::ofstream out(a.json);
    out << toJson(r, seconds).dump(2) << "\n";
    if (!out) throw CommandError("cannot write '" + a.json + "'");
  }
  return r.found ? kExitOk : kExitFailure;
}

Command setupGyroCheck(CLI::App& program) {
  auto [args, app] = addCommand<GyroCheckArgs>(
      program, "gyro-check",
      "Compare a recording's gyroscope with the engine's vision; find the clock offset and focal "
      "length that align them");
  app->add_option("RECORDING", args->input,
                  "folder with frames/ (or one video), frames.csv and gyro.csv; or a simulated "
                  "sweep")
      ->required();
  app->add_option("--gyro", args->gyro, "gyroscope events (default: RECORDING/gyro.csv)");
  app->add_option("--json", args->json, "write the figures to this JSON file");
  app->add_option("--plot", args->plot, "prediction against vision over time (PNG)")
      ->capture_default_str();
  app->add_option("--range-ms", args->rangeMs, "search the clock offset within +- this")
      ->check(CLI::Range(1.0, 1000.0))
      ->capture_default_str();
  app->add_option("--seconds", args->seconds, "use the first seconds of the recording (0: all)")
      ->check(CLI::NonNegativeNumber);
  return {app, [args = args] { return runGyroCheck(*args); }};
}

const CommandRegistration kRegisterGyroCheck(setupGyroCheck);

}  // namespace
}  // namespace zolt::tools
